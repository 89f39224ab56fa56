// Power and fault commands: setstate, wake, halt/halt_ms, panic, report, the
// hidden controls rate, fw0, fw1 and conn, and setproperty.
#include "talvexctl.h"

#include <CoreFoundation/CoreFoundation.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr uint32_t kHaltDefaultLevel = 96;

// Open, one scalar call, close.
int scalar_command(uint32_t selector, const uint64_t *scalars, uint32_t count) {
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    IOReturn result = TalvexCallScalar(talvex, selector, scalars, count, nullptr, nullptr);
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}

int select_firmware(uint64_t firmware) {
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    IOReturn result = TalvexSelectFirmware(talvex, firmware);
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}

}  // namespace

int TalvexCmdSetState(int argc, char *argv[]) {
    if (!TALVEX_CHECK(argc == 2, "argc == 2")) return 1;
    uint64_t code = static_cast<uint32_t>(TalvexParseHex(argv[1]));
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    IOReturn result =
        IOConnectCallScalarMethod(talvex->connection, kTalvexMethodPowerAssertion, &code, 1, nullptr, nullptr);
    // The result line comes first, success or not; then the two reports, both
    // made here since the call did not go through the client.
    const char *text = mach_error_string(result);
    std::printf("Set state result: %s (%#x)\n", text ? text : "(null)", static_cast<uint32_t>(result));
    TALVEX_CALL_OK(result);
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}

int TalvexCmdWake(int argc, char *argv[]) {
    if (!TALVEX_CHECK(argc == 2, "argc == 2")) return 1;
    uint64_t number = static_cast<uint32_t>(TalvexParseDec(argv[1]));
    return scalar_command(kTalvexMethodWake, &number, 1);
}

// halt DELAY_S [LEVEL] and halt_ms DELAY_MS DURATION_MS [LEVEL]: one handler,
// told apart by the command word. Unlike its neighbours, it has always opened
// the handle before judging the count.
int TalvexCmdHalt(int argc, char *argv[]) {
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    uint32_t delay = 0, duration = 0, level = kHaltDefaultLevel;
    if (std::strcmp(argv[0], "halt") == 0) {
        if (!TALVEX_CHECK(argc == 2 || argc == 3, "argc == 2 || argc == 3")) {
            TalvexClose(talvex);
            return 1;
        }
        // Seconds to milliseconds in 32 bits: wraps above 4294967 s.
        delay = static_cast<uint32_t>(TalvexParseDec(argv[1])) * 1000u;
        if (argc == 3) level = static_cast<uint32_t>(TalvexParseDec(argv[2]));
    } else if (std::strcmp(argv[0], "halt_ms") == 0) {
        if (!TALVEX_CHECK(argc == 3 || argc == 4, "argc == 3 || argc == 4")) {
            TalvexClose(talvex);
            return 1;
        }
        delay = static_cast<uint32_t>(TalvexParseDec(argv[1]));
        duration = static_cast<uint32_t>(TalvexParseDec(argv[2]));
        if (argc == 4) level = static_cast<uint32_t>(TalvexParseDec(argv[3]));
    }
    uint64_t scalars[3] = {delay, duration, level};
    IOReturn result = TalvexCallScalar(talvex, kTalvexMethodHalt, scalars, 3, nullptr, nullptr);
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}

// panic [TEXT]: the text goes with its terminating NUL; without one the
// request has no structure at all.
int TalvexCmdPanic(int argc, char *argv[]) {
    if (!TALVEX_CHECK(argc == 1 || argc == 2, "argc == 1 || argc == 2")) return 1;
    const char *text = argc == 2 ? argv[1] : nullptr;
    size_t size = text ? std::strlen(text) + 1 : 0;
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    IOReturn result = TalvexCallStruct(talvex, kTalvexMethodPanic, text, size, nullptr, nullptr);
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}

int TalvexCmdReport(int, char *[]) {
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    std::printf("calling test report\n");
    std::fflush(stdout);
    IOReturn result = TalvexCallScalar(talvex, kTalvexMethodTestReport, nullptr, 0, nullptr, nullptr);
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}

// rate N: property 22 of the talvex device, N in decimal.
int TalvexCmdRate(int argc, char *argv[]) {
    if (!TALVEX_CHECK(argc == 2, "argc == 2")) return 1;
    auto rate = static_cast<uint64_t>(TalvexParseDec(argv[1]));
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    IOReturn result = TalvexSetProperty(talvex, kTalvexDeviceTalvex, kTalvexPropertyReportRate, rate);
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}

int TalvexCmdFw0(int, char *[]) { return select_firmware(0); }

int TalvexCmdFw1(int, char *[]) { return select_firmware(1); }

int TalvexCmdConn(int, char *[]) { return scalar_command(kTalvexMethodConnect, nullptr, 0); }

// setproperty KEY VALUE: a raw registry write on the driver, VALUE in hex.
// The driver's answer is deliberately not examined: the command succeeds
// whenever the handle opened. A missing word is refused rather than read.
int TalvexCmdSetProperty(int argc, char *argv[]) {
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    if (!TALVEX_CHECK(argc >= 3, "argc == 3")) {
        TalvexClose(talvex);
        return 1;
    }
    CFStringRef key = CFStringCreateWithCString(kCFAllocatorDefault, argv[1], kCFStringEncodingUTF8);
    long long value = TalvexParseHex64(argv[2]);
    CFNumberRef number = CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &value);
    if (key && number) IORegistryEntrySetCFProperty(talvex->service, key, number);
    if (number) CFRelease(number);
    if (key) CFRelease(key);
    TalvexClose(talvex);
    return 0;
}
