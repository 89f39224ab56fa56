// Device property commands: get, set. The device is a number here, not a name.
#include "talvexctl.h"

#include <cstring>

namespace {
constexpr uint32_t kPropertyReplySize = 128;
}  // namespace

// get <device> <property>: the property's raw bytes, as many as the driver
// gives. Both commands open the handle before parsing their words.
int TalvexCmdGet(int argc, char *argv[]) {
    if (!TALVEX_CHECK(argc == 3, "argc == 3")) return 1;
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    uint8_t device = TalvexParseHexByte(argv[1]);
    auto property = static_cast<uint64_t>(TalvexParseHex(argv[2]));
    uint8_t reply[kPropertyReplySize];
    std::memset(reply, 0xff, sizeof reply);
    uint32_t size = sizeof reply;
    IOReturn result = TalvexGetProperty(talvex, device, property, reply, &size);
    if (result == 0) TalvexHexDump(reply, size < sizeof reply ? size : static_cast<uint32_t>(sizeof reply));
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}

// set <device> <property> <value>
int TalvexCmdSet(int argc, char *argv[]) {
    if (!TALVEX_CHECK(argc == 4, "argc == 4")) return 1;
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    uint8_t device = TalvexParseHexByte(argv[1]);
    auto property = static_cast<uint64_t>(TalvexParseHex(argv[2]));
    IOReturn result = TalvexSetProperty(talvex, device, property, static_cast<uint64_t>(TalvexParseHex(argv[3])));
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}
