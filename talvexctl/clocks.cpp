// Clock commands: clkredirect, clkmeasure, clkstartup.
#include "talvexctl.h"

#include <cstdio>
#include <cstring>

namespace {

struct ClockWord {
    const char *word;
    uint32_t selector;
};

// In the order the words are tried.
const ClockWord kClockWords[] = {
    {"irc", 1}, {"pll", 2}, {"lfosc", 3}, {"current", 0}, {"ircdiff", 4}, {nullptr, 0},
};

constexpr uint32_t kDefaultClock = 1;   // irc
constexpr size_t kIrcStartupSize = 36;

}  // namespace

// clkredirect enable|disable: the handle is opened before the word is judged.
int TalvexCmdClkRedirect(int argc, char *argv[]) {
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    int status = 0;
    bool enable = argc >= 2 && std::strcmp(argv[1], "enable") == 0;
    if (!enable && (argc < 2 || std::strcmp(argv[1], "disable") != 0)) {
        TALVEX_ASSERT_REPORT("", "unexpected parameter", 0);
        status = 1;
    } else {
        IOReturn result = TalvexClockRedirect(talvex, enable ? 1 : 0);
        if (!TALVEX_CALL_OK(result)) status = 1;
    }
    TalvexClose(talvex);
    return status;
}

// clkmeasure [irc|pll|lfosc|current|ircdiff]: the measured frequency and its
// share of the reference that the firmware gives with it.
int TalvexCmdClkMeasure(int argc, char *argv[]) {
    const char *label = argc >= 2 ? argv[1] : nullptr;
    uint32_t selector = kDefaultClock;
    if (label) {
        const ClockWord *row = kClockWords;
        while (row->word && std::strcmp(row->word, label) != 0) ++row;
        if (!row->word) {
            std::printf("Usage: talvexctl clkmeasure [irc|ircdiff|pll|lfosc|current]\n");
            return 1;
        }
        selector = row->selector;
    }
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    uint8_t request[4];
    store_le32(request, selector);
    uint8_t reply[8] = {};
    size_t size = sizeof reply;
    IOReturn result =
        IOConnectCallStructMethod(talvex->connection, kTalvexMethodClockMeasure, request, sizeof request, reply, &size);
    if (result == 0) {
        uint32_t reference = load_le32(reply);
        uint32_t measured = load_le32(reply + 4);
        double percent = reference ? static_cast<double>(measured) * 100.0 / static_cast<double>(reference) : 0.0;
        // With no word the label reads as the C library prints a null text.
        std::printf("%s clock speed: %d Hz (%f%%)\n", label ? label : "(null)", static_cast<int32_t>(measured),
                    percent);
    } else {
        const char *text = TalvexCodeText(result);
        // Reported twice on purpose, first without the code and the condition's blank.
        TALVEX_ASSERT_REPORT("result == 0", text, 0);
        TALVEX_ASSERT_REPORT("result == 0 ", text, result);
    }
    TalvexClose(talvex);
    return result != 0 ? 1 : 0;
}

// clkstartup: the IRC's start-up timing statistics (property 240 of talvex).
int TalvexCmdClkStartup(int, char *[]) {
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    uint8_t reply[kIrcStartupSize] = {};
    uint32_t size = sizeof reply;
    IOReturn result = TalvexGetProperty(talvex, kTalvexDeviceTalvex, kTalvexPropertyIrcStartup, reply, &size);
    if (TALVEX_CALL_OK_TEXT(result)) {
        auto ns = [&](size_t index) { return static_cast<int32_t>(load_le32(reply + 4 * index)); };
        std::printf("IRC startup speed - mean:%d ns min:%d ns max:%d ns\n", ns(0), ns(1), ns(2));
        std::printf("IRC pre-startup speed - mean:%d ns min:%d ns max:%d ns\n", ns(3), ns(4), ns(5));
        std::printf("IRC total speed - mean:%d ns min:%d ns max:%d ns\n", ns(6), ns(7), ns(8));
    }
    TalvexClose(talvex);
    return result != 0 ? 1 : 0;
}
