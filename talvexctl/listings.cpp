// Listings: listclients <device> (the firmware's clients of one device) and
// listsensors (the devices that answer a property read).
#include "talvexctl.h"

#include <cstdio>

namespace {

using Layout = TalvexClientListLayout;

// One row: the name (bounded to its field) and the four figures.
void print_client(const uint8_t *reply) {
    std::printf("%-32.*s: %8d %8d %8d %8d\n", static_cast<int>(Layout::kNameSize), reinterpret_cast<const char *>(reply + 4),
                static_cast<int32_t>(load_le32(reply + 73)), static_cast<int32_t>(load_le32(reply + 77)),
                static_cast<int32_t>(load_le32(reply + 81)), static_cast<int32_t>(load_le32(reply + 85)));
}

}  // namespace

int TalvexCmdListClients(int argc, char *argv[]) {
    if (!TALVEX_CHECK(argc == 2, "argc == 2")) return 1;
    uint8_t device = TalvexDeviceLookup(argv[1]);
    if (!TALVEX_CHECK(device != kTalvexNoDevice, "device != 0xff")) return 1;
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    uint8_t reply[Layout::kReplySize] = {};
    IOReturn result = TalvexClientList(talvex, device, Layout::kSummary, reply);
    if (result == 0) {
        std::printf("name                               polling   report threshold timeLimit\n");
        print_client(reply);
        // The count is read again from every reply.
        for (uint32_t i = 0; i < load_le32(reply); ++i) {
            result = TalvexClientList(talvex, device, i, reply);
            if (result != 0) break;
            if (reply[4] != 0) print_client(reply);
        }
    }
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}

int TalvexCmdListSensors(int, char *[]) {
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    for (const TalvexDevice *row = kTalvexDevices; row->name; ++row) {
        uint8_t value[4];
        uint32_t size = sizeof value;
        if (TalvexReadProperty(talvex, row->id, 0, value, &size) == 0) std::printf("%s\n", row->name);
    }
    TalvexClose(talvex);
    return 0;
}
