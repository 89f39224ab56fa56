// Memory, GPIO and PMU commands: mem, gpio, pmu.
#include "talvexctl.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr size_t kMemBufferSize = 16;
constexpr size_t kMemReadRequestSize = 6;    // address (LE32), block, count
constexpr size_t kMemWriteRequestSize = 22;  // address (LE32), block, count, 16 data bytes

int mem_read(char *argv[]) {
    auto address = static_cast<uint32_t>(TalvexParseHex(argv[2]));
    uint8_t block = TalvexParseHexByte(argv[3]);
    uint8_t len = TalvexParseHexByte(argv[4]);
    if (!TALVEX_CHECK(len <= kTalvexReadDumpMax, "len <= sizeof(buffer)")) return 1;

    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    uint8_t request[kMemReadRequestSize];
    store_le32(request, address);
    request[4] = block;
    request[5] = len;
    IOReturn result = TalvexReadAndDump(talvex, kTalvexMethodMemoryRead, request, sizeof request, len);
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}

int mem_write(int argc, char *argv[]) {
    auto address = static_cast<uint32_t>(TalvexParseHex(argv[2]));
    uint8_t block = TalvexParseHexByte(argv[3]);
    uint8_t buffer[kMemBufferSize] = {};
    auto len = static_cast<size_t>(argc - 4);
    // Words past the buffer are refused below, whatever they hold.
    for (size_t i = 0; i < len && i < sizeof(buffer); ++i) buffer[i] = TalvexParseHexByte(argv[4 + i]);
    if (!TALVEX_CHECK(len <= sizeof(buffer), "len <= sizeof(buffer)")) return 1;

    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    uint8_t request[kMemWriteRequestSize] = {};
    store_le32(request, address);
    request[4] = block;
    request[5] = static_cast<uint8_t>(len);
    std::memcpy(request + 6, buffer, sizeof buffer);
    IOReturn result = TalvexCallStruct(talvex, kTalvexMethodMemoryWrite, request, sizeof request, nullptr, nullptr);
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}

}  // namespace

// mem read <addr> <block> <len> | mem write <addr> <block> <data> ...
int TalvexCmdMem(int argc, char *argv[]) {
    if (!TALVEX_CHECK(argc > 2, "argc > 2")) return 1;
    if (std::strcmp(argv[1], "read") == 0) {
        if (!TALVEX_CHECK(argc == 5, "argc == 5")) return 1;
        return mem_read(argv);
    }
    if (std::strcmp(argv[1], "write") == 0) {
        if (!TALVEX_CHECK(argc >= 5, "argc >= 5")) return 1;
        return mem_write(argc, argv);
    }
    std::printf("Unknown command: %s\n", argv[1]);
    return 1;
}

// gpio read <gpio> | gpio write <gpio> <state>, numbers in decimal. The
// driver is opened before the words are looked at.
int TalvexCmdGpio(int argc, char *argv[]) {
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    const char *form = argc > 1 ? argv[1] : "";
    int status = 1;
    if (std::strcmp(form, "read") == 0) {
        if (TALVEX_CHECK(argc == 3, "argc == 3")) {
            uint64_t input[1] = {static_cast<uint8_t>(TalvexParseDec(argv[2]))};
            uint64_t output[1] = {0};
            uint32_t output_count = 1;
            IOReturn result = TalvexCallScalar(talvex, kTalvexMethodGpioRead, input, 1, output, &output_count);
            if (TALVEX_CALL_OK(result)) {
                uint8_t state = static_cast<uint8_t>(output[0]);
                TalvexHexDump(&state, 1);
                status = 0;
            }
        }
    } else if (std::strcmp(form, "write") == 0) {
        if (TALVEX_CHECK(argc == 4, "argc == 4")) {
            uint64_t input[2] = {static_cast<uint8_t>(TalvexParseDec(argv[2])),
                                 static_cast<uint8_t>(TalvexParseDec(argv[3]))};
            IOReturn result = TalvexCallScalar(talvex, kTalvexMethodGpioSet, input, 2, nullptr, nullptr);
            if (TALVEX_CALL_OK(result)) status = 0;
        }
    } else {
        TALVEX_ASSERT_REPORT("", "expected 'read' or 'write'", 0);
    }
    TalvexClose(talvex);
    return status;
}

// pmu <mask>: selector 0x10 with the rail mask (low 32 bits), parsed once the
// handle is open.
int TalvexCmdPmu(int argc, char *argv[]) {
    if (!TALVEX_CHECK(argc == 2, "argc == 2")) return 1;
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    uint64_t input[1] = {static_cast<uint32_t>(TalvexParseHex(argv[1]))};
    IOReturn result = TalvexCallScalar(talvex, kTalvexMethodPowerRails, input, 1, nullptr, nullptr);
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}
