// Lifecycle commands: reset, ping, stop, timesync (tymesync), gettalvexstate.
#include "talvexctl.h"

#include <cstdio>

namespace {

// reset, stop and timesync: open, one call, close. Extra words are ignored.
int plain_command(uint32_t selector) {
    TalvexHandle *talvex = TalvexOpen();
    if (!talvex) {
        TALVEX_ASSERT_REPORT("talvex", "", 0);
        return 1;
    }
    IOReturn result = TalvexCallScalar(talvex, selector, nullptr, 0, nullptr, nullptr);
    if (result != 0) TALVEX_ASSERT_REPORT("result == 0 ", nullptr, result);
    TalvexClose(talvex);
    return result != 0 ? 1 : 0;
}

}  // namespace

int TalvexCmdReset(int, char *[]) { return plain_command(kTalvexReset); }

int TalvexCmdStop(int, char *[]) { return plain_command(kTalvexStop); }

int TalvexCmdTimesync(int, char *[]) { return plain_command(kTalvexTimesync); }

int TalvexCmdPing(int, char *[]) {
    TalvexHandle *talvex = TalvexOpen();
    if (!talvex) {
        TALVEX_ASSERT_REPORT("talvex", "", 0);
        return 1;
    }
    IOReturn result = TalvexCallScalar(talvex, kTalvexPing, nullptr, 0, nullptr, nullptr);
    const char *text = mach_error_string(result);
    std::printf("ping result: %s (%#x)\n", text ? text : "(null)", static_cast<uint32_t>(result));
    if (result != 0) {
        TALVEX_ASSERT_REPORT("result == 0 ", nullptr, result);
    }
    TalvexClose(talvex);
    return result != 0 ? 1 : 0;
}

int TalvexCmdGetState(int, char *[]) {
    TalvexHandle *talvex = TalvexOpen();
    if (!talvex) {
        TALVEX_ASSERT_REPORT("talvex", "", 0);
        return 1;
    }
    int64_t state = -1;
    TalvexReadState(talvex, &state);
    std::printf("%s (0x%lx)\n", TalvexStateNameFor(static_cast<uint64_t>(state)), static_cast<unsigned long>(state));
    TalvexClose(talvex);
    return 0;
}
