// Register access commands: readreg, writereg, bb, cma.
#include "talvexctl.h"

#include <cstring>

namespace {

constexpr size_t kRegisterBufferSize = 16;
constexpr size_t kReadRegRequestSize = 3;    // device, address, count
constexpr size_t kWriteRegRequestSize = 19;  // device, address, count, 16 data bytes
constexpr size_t kCmaBufferSize = 256;

}  // namespace

// readreg <device> <addr> <len>: selector 6, request {device, addr, len},
// up to 16 register bytes back, dumped over the length asked.
int TalvexCmdReadReg(int argc, char *argv[]) {
    if (!TALVEX_CHECK(argc == 4, "argc == 4")) return 1;
    uint8_t device = TalvexDeviceLookup(argv[1]);
    if (!TALVEX_CHECK(device != kTalvexNoDevice, "device != 0xff")) return 1;
    uint8_t address = TalvexParseHexByte(argv[2]);
    uint8_t len = TalvexParseHexByte(argv[3]);
    if (!TALVEX_CHECK(len <= kTalvexReadDumpMax, "len <= sizeof(buffer)")) return 1;

    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    uint8_t request[kReadRegRequestSize] = {device, address, len};
    IOReturn result = TalvexReadAndDump(talvex, kTalvexMethodRegisterRead, request, sizeof request, len);
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}

// writereg <device> <addr> <byte0> [<byte1> ...]: selector 7, always 19 bytes.
int TalvexCmdWriteReg(int argc, char *argv[]) {
    if (!TALVEX_CHECK(argc >= 4, "argc >= 4")) return 1;
    uint8_t device = TalvexDeviceLookup(argv[1]);
    if (!TALVEX_CHECK(device != kTalvexNoDevice, "device != 0xff")) return 1;
    uint8_t address = TalvexParseHexByte(argv[2]);
    uint8_t buffer[kRegisterBufferSize] = {};
    auto len = static_cast<size_t>(argc - 3);
    if (!TALVEX_CHECK(len <= sizeof(buffer), "len <= sizeof(buffer)")) return 1;
    for (size_t i = 0; i < len; ++i) buffer[i] = TalvexParseHexByte(argv[3 + i]);

    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    uint8_t request[kWriteRegRequestSize] = {device, address, static_cast<uint8_t>(len)};
    std::memcpy(request + 3, buffer, sizeof buffer);
    IOReturn result = TalvexCallStruct(talvex, kTalvexMethodRegisterWrite, request, sizeof request, nullptr, nullptr);
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}

// bb <context_max>: selector 8 with the number as an unsigned 32-bit scalar.
// The word is parsed only once the handle is open.
int TalvexCmdBB(int argc, char *argv[]) {
    if (!TALVEX_CHECK(argc == 2, "argc == 2")) return 1;
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    // As atoi reads it: decimal, no base prefix, cut to an int.
    auto context_max = static_cast<uint32_t>(static_cast<int>(TalvexParseDec(argv[1])));
    uint64_t input[1] = {context_max};
    IOReturn result = TalvexCallScalar(talvex, kTalvexMethodSetContextLimit, input, 1, nullptr, nullptr);
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}

// cma [<byte0> ...]: selector 9 with the bytes themselves as the structure,
// empty when none are given.
int TalvexCmdCma(int argc, char *argv[]) {
    uint8_t buffer[kCmaBufferSize];
    size_t len = argc > 1 ? static_cast<size_t>(argc - 1) : 0;
    if (!TALVEX_CHECK(len <= sizeof(buffer), "len <= sizeof(buffer)")) return 1;
    for (size_t i = 0; i < len; ++i) buffer[i] = TalvexParseHexByte(argv[1 + i]);

    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    IOReturn result = TalvexCallStruct(talvex, kTalvexMethodRawBytes, buffer, len, nullptr, nullptr);
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}
