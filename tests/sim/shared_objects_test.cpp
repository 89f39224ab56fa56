// Property lists that hold one object in many places (the XML dialect's
// IDREF): a client that stores one on a service and then matches against it
// is answered at once, and the simulator keeps serving everyone else.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "harness.h"
#include "wire_peer.h"

using namespace talvex;
using namespace talvex::test;

namespace {

// An array whose element i holds element i-1 twice, by reference: about 2.5 KB
// of text whose tree has 2^(levels+1) paths to the innermost string.
std::string doubling(int levels) {
    std::string x = "<array><array ID=\"0\"><string>x</string></array>";
    for (int i = 1; i <= levels; ++i)
        x += "<array ID=\"" + std::to_string(i) + "\"><array IDREF=\"" + std::to_string(i - 1) +
             "\"/><array IDREF=\"" + std::to_string(i - 1) + "\"/></array>";
    return x + "</array>";
}

std::span<const uint8_t> bytes_of(const std::string &text) {
    return {reinterpret_cast<const uint8_t *>(text.c_str()), text.size() + 1};   // with its NUL
}

}  // namespace

TEST(SimSharedObjects, MatchingAgainstAStoredListWithSharedObjectsIsPrompt) {
    Simulator sim;
    RawClient client(sim.socket());
    uint64_t cop = client.service("ZantraTalvexProcessor");
    ASSERT_NE(cop, 0u);

    std::string list = doubling(40);
    wire::Writer set;
    set.u64(cop);
    set.str("shared");
    set.blob(bytes_of(list));
    auto stored = client.request(wire::Op::SetProperty, set);
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->code, 0);

    // The services whose stored list equals `text`.
    auto match = [&](const std::string &text) {
        wire::Writer w;
        w.blob(bytes_of("<dict><key>IOPropertyMatch</key><dict><key>shared</key>" + text + "</dict></dict>"));
        auto found = client.request(wire::Op::Match, w);
        EXPECT_TRUE(found && found->code == 0);   // compared path by path, this takes days
        std::vector<uint64_t> ids;
        wire::Reader r(found ? std::span<const uint8_t>(found->body) : std::span<const uint8_t>());
        r.u64();   // generation
        for (uint32_t i = 0, n = r.u32(); i < n && r.ok(); ++i) ids.push_back(r.u64());
        return ids;
    };
    // The same text parsed again: equal, but not the same objects.
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(match(list), std::vector<uint64_t>{cop});
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    // One level differs: no match.
    std::string different = list;
    different.replace(different.find("<string>x</string>"), 18, "<string>y</string>");
    EXPECT_TRUE(match(different).empty());

    RawClient bystander(sim.socket());
    EXPECT_NE(bystander.service("IOReportHub"), 0u);
}
