// profile: the firmware profiler's hitpoints and timed functions.
//
//   profile start|stop|reset       methods 19, 20, 21 ("Ok" after start and reset;
//                                  stop prints nothing)
//   profile print                  the summary (22), then every entry (23)
//   profile gethitpoint|getfunction ID
//                                  one entry, by index when ID is all decimal
//                                  digits (or empty), else by name
#include "talvexctl.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using EntryLayout = TalvexProfileEntryLayout;
enum EntryKind : uint32_t { kHitpoint, kFunction };
constexpr size_t kSummarySize = 12;

// A reply's figures. The name is cut to the 63 characters before the last
// byte of its field, which is overwritten with a terminator.
struct Entry {
    const char *name;
    int max, min, hits, saves, total_time;
};

Entry read_entry(uint8_t *reply) {
    reply[67] = 0;
    Entry e;
    e.name = reinterpret_cast<const char *>(reply + 4);
    e.max = static_cast<int32_t>(load_le32(reply + 68));
    e.min = static_cast<int32_t>(load_le32(reply + 72));
    e.hits = load_le16(reply + 76);
    // Saves and total time share offset 78 on purpose: replies have always been read so.
    e.saves = load_le16(reply + 78);
    e.total_time = static_cast<int32_t>(load_le32(reply + 78));
    return e;
}

void print_hitpoint(const Entry &e) {
    std::printf("%-32s min:%5d max:%5d hits:%5d saves:%4d\n", e.name, e.min, e.max, e.hits, e.saves);
}

// Entry `index` of `kind` into a cleared reply; a failure is reported by the
// operation and once more here.
bool query_entry(TalvexHandle *talvex, uint32_t kind, uint32_t index, uint8_t (&reply)[EntryLayout::kReplySize]) {
    std::memset(reply, 0, sizeof reply);
    return TALVEX_CALL_OK(TalvexProfileQuery(talvex, kind, index, reply));
}

int print_profile(TalvexHandle *talvex) {
    uint8_t summary[kSummarySize] = {};
    size_t size = sizeof summary;
    IOReturn result = TalvexCallStruct(talvex, kTalvexMethodProfileSummary, nullptr, 0, summary, &size);
    if (!TALVEX_CALL_OK(result)) return 1;
    uint32_t hitpoints = load_le32(summary);
    uint32_t functions = load_le32(summary + 4);
    std::printf("profile runtime: %d\n\n", static_cast<int32_t>(load_le32(summary + 8)));
    std::printf("profile hitpoints (%d):\n", static_cast<int32_t>(hitpoints));
    uint8_t reply[EntryLayout::kReplySize];
    for (uint32_t i = 0; i < hitpoints; ++i) {
        if (!query_entry(talvex, kHitpoint, i, reply)) return 1;
        print_hitpoint(read_entry(reply));
    }
    std::printf("\nprofile functions (%d):\n", static_cast<int32_t>(functions));
    for (uint32_t j = 0; j < functions; ++j) {
        if (!query_entry(talvex, kFunction, j, reply)) return 1;
        Entry e = read_entry(reply);
        std::printf("%s\n\tmin:%5d max:%5d hits:%5d total_time:%4d\n", e.name, e.min, e.max, e.hits, e.total_time);
    }
    return 0;
}

int get_entry(TalvexHandle *talvex, uint32_t kind, const char *id) {
    uint8_t reply[EntryLayout::kReplySize] = {};
    char *end = nullptr;
    long index = std::strtol(id, &end, 10);
    if (*end == '\0') {
        // All digits (or nothing at all): by index. Only the operation reports
        // a failure here; the command has never added its own report.
        if (TalvexProfileQuery(talvex, kind, static_cast<uint32_t>(index), reply) != 0) return 1;
    } else {
        size_t length = std::strlen(id);
        IOReturn result = kIOReturnBadArgument;
        if (length < EntryLayout::kNameSize) {
            uint8_t request[EntryLayout::kRequestSize] = {};
            store_le32(request, kind);
            store_le32(request + 4, EntryLayout::kByName);
            std::memcpy(request + 8, id, length + 1);
            size_t size = sizeof reply;
            result = IOConnectCallStructMethod(talvex->connection, kTalvexMethodProfileEntry, request, sizeof request,
                                               reply, &size);
        }
        // Called directly: a single report, the command's own.
        if (!TALVEX_CALL_OK(result)) return 1;
    }
    Entry e = read_entry(reply);
    if (kind == kHitpoint)
        print_hitpoint(e);
    else   // one line, unlike the two-line function entry of `profile print`: both forms are kept
        std::printf("%-32s min:%5d max:%5d hits:%5d total_time:%4d\n", e.name, e.min, e.max, e.hits, e.total_time);
    return 0;
}

// start, stop, reset: one call each.
int control(TalvexHandle *talvex, const char *word) {
    IOReturn result;
    if (std::strcmp(word, "stop") == 0)
        result = TalvexCallScalar(talvex, kTalvexMethodProfileStop, nullptr, 0, nullptr, nullptr);
    else if (std::strcmp(word, "start") == 0)
        result = TalvexCallStruct(talvex, kTalvexMethodProfileStart, nullptr, 0, nullptr, nullptr);
    else
        result = TalvexCallStruct(talvex, kTalvexMethodProfileReset, nullptr, 0, nullptr, nullptr);
    if (!TALVEX_CALL_OK(result)) return 1;
    // Start and reset say "Ok"; stop has always said nothing.
    if (std::strcmp(word, "stop") != 0) std::printf("Ok\n");
    return 0;
}

}  // namespace

int TalvexCmdProfile(int argc, char *argv[]) {
    if (!TALVEX_CHECK(argc >= 2, "argv[1]")) return 1;
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    const char *word = argv[1];
    int status;
    if (std::strcmp(word, "start") == 0 || std::strcmp(word, "stop") == 0 || std::strcmp(word, "reset") == 0) {
        status = control(talvex, word);
    } else if (std::strcmp(word, "print") == 0) {
        status = print_profile(talvex);
    } else if ((std::strcmp(word, "gethitpoint") == 0 || std::strcmp(word, "getfunction") == 0) && argc >= 3) {
        status = get_entry(talvex, std::strcmp(word, "getfunction") == 0 ? kFunction : kHitpoint, argv[2]);
    } else {
        TALVEX_ASSERT_REPORT("", "unexpected parameter", 0);
        status = 1;
    }
    TalvexClose(talvex);
    return status;
}
