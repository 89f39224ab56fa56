// powerlog start|stop|reset|getpowerlog: the firmware's power log.
#include "talvexctl.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr size_t kRecordSize = 196;

struct Control {
    const char *word;
    uint32_t selector;
    const char *format;
};

const Control kControls[] = {
    {"start", kTalvexMethodPowerLogStart, "Start power log: %s (%#x)\n"},
    {"stop", kTalvexMethodPowerLogStop, "Stop power log: %s (%#x)\n"},
    {"reset", kTalvexMethodPowerLogReset, "Reset power log: %s (%#x)\n"},
    {nullptr, 0, nullptr},
};

const char *const kStateLines[4] = {
    "    Deep Sleep   Entry = %u, Period = %u\n",
    "         Sleep   Entry = %u, Period = %u\n",
    "    Running12M   Entry = %u, Period = %u\n",
    "   Running100M   Entry = %u, Period = %u\n",
};

// Each pair is stored period first, entry count second.
void print_pair(const char *format, const uint8_t *pair) {
    std::printf(format, load_le32(pair + 4), load_le32(pair));
}

void print_record(const uint8_t *record) {
    std::printf("Device Talvex\n");
    for (int i = 0; i < 4; ++i) print_pair(kStateLines[i], record + 8 * i);
    std::printf("\n");
    // The blocks follow the first five rows of the device table.
    for (int d = 0; d < 5; ++d) {
        const uint8_t *block = record + 56 + 28 * d;
        std::printf("Device %s, events: %u, dropped: %u\n", kTalvexDevices[d].name, load_le32(block + 16),
                    load_le32(block + 20));
        print_pair("    Sleep        Entry = %u, Period = %u\n", block);
        print_pair("    Active       Entry = %u, Period = %u\n", block + 8);
    }
    std::printf("\n");
    for (int t = 0; t < 3; ++t) {
        const uint8_t *pair = record + 32 + 8 * t;
        std::printf("Thread %d, Entry = %u, Period = %u\n", t, load_le32(pair + 4), load_le32(pair));
    }
}

}  // namespace

int TalvexCmdPowerLog(int argc, char *argv[]) {
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    // A missing word is treated like an unknown one.
    const char *word = argc >= 2 ? argv[1] : "";
    const Control *control = kControls;
    while (control->word && std::strcmp(control->word, word) != 0) ++control;
    int status = 0;
    if (control->word) {
        IOReturn result = IOConnectCallScalarMethod(talvex->connection, control->selector, nullptr, 0, nullptr, nullptr);
        const char *text = mach_error_string(result);
        std::printf(control->format, text ? text : "(null)", static_cast<uint32_t>(result));
        // Called directly, so both reports of a failure are made here.
        if (result != 0) {
            TALVEX_ASSERT_REPORT("result == 0 ", nullptr, result);
            TALVEX_ASSERT_REPORT("result == 0 ", nullptr, result);
            status = 1;
        }
    } else if (std::strcmp(word, "getpowerlog") == 0) {
        uint8_t record[kRecordSize] = {};
        size_t size = sizeof record;
        IOReturn result = TalvexCallStruct(talvex, kTalvexMethodPowerLogRead, nullptr, 0, record, &size);
        if (TALVEX_CALL_OK(result))
            print_record(record);
        else
            status = 1;
    } else {
        TALVEX_ASSERT_REPORT("", "unexpected parameter", 0);
        status = 1;
    }
    TalvexClose(talvex);
    return status;
}
