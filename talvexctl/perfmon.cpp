// perfmon <device> auto|enable|disable|enabled|report: the firmware's
// per-device performance monitor; setbaudrate <rate>: the link's baud rate.
#include "talvexctl.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr size_t kReportSize = 256;
constexpr uint32_t kMaxEntries = 10;     // what fits in the report

struct ModeWord {
    const char *word;
    uint32_t mode;
};

// The words that set a mode, in the order they are tried.
const ModeWord kModeWords[] = {{"auto", 2}, {"enable", 1}, {"disable", 0}, {nullptr, 0}};

const char *mode_name(uint32_t mode) {
    switch (mode) {
    case 0: return "disabled";
    case 1: return "enabled";
    case 2: return "auto";
    default: return "unknown";
    }
}

int set_mode(TalvexHandle *talvex, uint8_t device, uint32_t mode) {
    uint8_t input[4];
    store_le32(input, mode);
    IOReturn result = TalvexPerfmonCall(talvex, device, kTalvexPerfmonItemMode, input, sizeof input, nullptr, nullptr);
    if (!TALVEX_CALL_OK_TEXT(result)) return 1;
    return 0;
}

int show_mode(TalvexHandle *talvex, uint8_t device, const char *word) {
    uint8_t value[4] = {};
    uint32_t size = sizeof value;
    IOReturn result = TalvexReadProperty(talvex, device, kTalvexPerfmonItemMode, value, &size);
    if (!TALVEX_CALL_OK_TEXT(result)) return 1;
    std::printf("perfmon is %s for %s\n", mode_name(load_le32(value)), word);
    return 0;
}

int show_report(TalvexHandle *talvex, uint8_t device) {
    uint8_t report[kReportSize];
    std::memset(report, 0, sizeof report);
    size_t size = sizeof report;
    IOReturn result = TalvexPerfmonCall(talvex, device, kTalvexPerfmonItemReport, nullptr, 0, report, &size);
    if (!TALVEX_CALL_OK_TEXT(result)) return 1;
    uint32_t count = load_le32(report);
    for (uint32_t i = 0; i < count && i < kMaxEntries; ++i) {
        const uint8_t *entry = report + 4 + 24 * i;
        // An 8-character name fills its field without a terminator.
        std::printf("%-8.8s: num_samples=%d latency=[min=%d;max=%d;avg=%d]\n", reinterpret_cast<const char *>(entry),
                    static_cast<int32_t>(load_le32(entry + 8)), static_cast<int32_t>(load_le32(entry + 12)),
                    static_cast<int32_t>(load_le32(entry + 16)), static_cast<int32_t>(load_le32(entry + 20)));
    }
    return 0;
}

}  // namespace

int TalvexCmdPerfmon(int argc, char *argv[]) {
    if (!TALVEX_CHECK(argc == 3, "argc == 3")) return 1;
    uint8_t device = TalvexDeviceLookup(argv[1]);
    if (!TALVEX_CHECK(device != kTalvexNoDevice, "device != 0xff")) return 1;
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    const char *word = argv[2];
    const ModeWord *row = kModeWords;
    while (row->word && std::strcmp(row->word, word) != 0) ++row;
    int status = 0;
    if (row->word) {
        status = set_mode(talvex, device, row->mode);
    } else if (std::strcmp(word, "enabled") == 0) {
        status = show_mode(talvex, device, argv[1]);
    } else if (std::strcmp(word, "report") == 0) {
        status = show_report(talvex, device);
    } else {
        // No newline, and not a failure: the command has always ended so.
        std::printf("unknown command: perfmon %s", word);
    }
    TalvexClose(talvex);
    return status;
}

// setbaudrate 112500|750000|1500000|3000000: the lowest rate is 112500, not
// 115200, and always has been; the handle is opened before the rate is judged.
int TalvexCmdSetBaudRate(int argc, char *argv[]) {
    if (!TALVEX_CHECK(argc == 2, "argc == 2")) return 1;
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    // Trailing text is ignored; only the low 32 bits count.
    auto rate = static_cast<int32_t>(static_cast<uint32_t>(TalvexParseDec(argv[1])));
    int status = 1;
    if (TALVEX_CHECK(rate == 112500 || rate == 750000 || rate == 1500000 || rate == 3000000,
                     "rate==112500||rate==750000||rate==1500000||rate==3000000")) {
        uint64_t input[1] = {static_cast<uint32_t>(rate)};
        IOReturn result = TalvexCallScalar(talvex, kTalvexMethodSetBaudRate, input, 1, nullptr, nullptr);
        if (TALVEX_CALL_OK(result)) status = 0;
    }
    TalvexClose(talvex);
    return status;
}
