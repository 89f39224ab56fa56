// Lifecycle commands: reset, ping, stop, timesync (tymesync), gettalvexstate.
#include "talvexctl.h"

#include <cstdio>

namespace {

// reset, stop and timesync: open, one call, close. Extra words are ignored.
int plain_command(uint32_t selector) {
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    IOReturn result = TalvexCallScalar(talvex, selector, nullptr, 0, nullptr, nullptr);
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}

}  // namespace

int TalvexCmdReset(int, char *[]) { return plain_command(kTalvexMethodReset); }

int TalvexCmdStop(int, char *[]) { return plain_command(kTalvexMethodStop); }

int TalvexCmdTimesync(int, char *[]) { return plain_command(kTalvexMethodTimeSync); }

// The result line stands between the client's report and the command's.
int TalvexCmdPing(int, char *[]) {
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    IOReturn result = TalvexCallScalar(talvex, kTalvexMethodPing, nullptr, 0, nullptr, nullptr);
    const char *text = mach_error_string(result);
    std::printf("ping result: %s (%#x)\n", text ? text : "(null)", static_cast<uint32_t>(result));
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}

// Succeeds whenever the handle opens: an unreadable state prints as unknown.
int TalvexCmdGetState(int, char *[]) {
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    int64_t state = -1;
    TalvexReadState(talvex, &state);
    std::printf("%s (0x%lx)\n", TalvexStateNameFor(static_cast<uint64_t>(state)), static_cast<unsigned long>(state));
    TalvexClose(talvex);
    return 0;
}
