// Device property commands: get, set. The device is a number here, not a name.
#include "talvexctl.h"

#include <cstring>

namespace {
constexpr uint32_t kPropertyReplySize = 128;
}  // namespace

// get <device> <property>: the property's raw bytes, as many as the driver gives.
int TalvexCmdGet(int argc, char *argv[]) {
    if (argc != 3) {
        TALVEX_ASSERT_REPORT("argc == 3", "", 0);
        return 1;
    }
    TalvexHandle *talvex = TalvexOpen();
    if (!talvex) {
        TALVEX_ASSERT_REPORT("talvex", "", 0);
        return 1;
    }
    uint8_t device = TalvexParseHexByte(argv[1]);
    auto property = static_cast<uint64_t>(TalvexParseHex(argv[2]));
    uint8_t reply[kPropertyReplySize];
    std::memset(reply, 0xff, sizeof reply);
    uint32_t size = sizeof reply;
    IOReturn result = TalvexGetProperty(talvex, device, property, reply, &size);
    if (result != 0) {
        TALVEX_ASSERT_REPORT("result == 0 ", nullptr, result);
    } else {
        TalvexHexDump(reply, size < sizeof reply ? size : static_cast<uint32_t>(sizeof reply));
    }
    TalvexClose(talvex);
    return result != 0 ? 1 : 0;
}

// set <device> <property> <value>
int TalvexCmdSet(int argc, char *argv[]) {
    if (argc != 4) {
        TALVEX_ASSERT_REPORT("argc == 4", "", 0);
        return 1;
    }
    TalvexHandle *talvex = TalvexOpen();
    if (!talvex) {
        TALVEX_ASSERT_REPORT("talvex", "", 0);
        return 1;
    }
    uint8_t device = TalvexParseHexByte(argv[1]);
    auto property = static_cast<uint64_t>(TalvexParseHex(argv[2]));
    auto value = static_cast<uint64_t>(TalvexParseHex(argv[3]));
    IOReturn result = TalvexSetProperty(talvex, device, property, value);
    if (result != 0) TALVEX_ASSERT_REPORT("result == 0 ", nullptr, result);
    TalvexClose(talvex);
    return result != 0 ? 1 : 0;
}
