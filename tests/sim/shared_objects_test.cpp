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

    // The same text parsed again: equal, but not the same objects.
    std::string matching = "<dict><key>IOPropertyMatch</key><dict><key>shared</key>" + list + "</dict></dict>";
    wire::Writer match;
    match.blob(bytes_of(matching));
    auto start = std::chrono::steady_clock::now();
    auto found = client.request(wire::Op::Match, match);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_TRUE(found);   // compared path by path, this takes days
    EXPECT_EQ(found->code, 0);
    wire::Reader r(found->body);
    r.u64();   // generation
    ASSERT_EQ(r.u32(), 1u);
    EXPECT_EQ(r.u64(), cop);
    EXPECT_LT(seconds, 5.0);

    // One level differs: no match.
    std::string different = list;
    different.replace(different.find("<string>x</string>"), 18, "<string>y</string>");
    wire::Writer miss;
    miss.blob(bytes_of("<dict><key>IOPropertyMatch</key><dict><key>shared</key>" + different + "</dict></dict>"));
    auto none = client.request(wire::Op::Match, miss);
    ASSERT_TRUE(none);
    wire::Reader nr(none->body);
    nr.u64();
    EXPECT_EQ(nr.u32(), 0u);

    RawClient bystander(sim.socket());
    EXPECT_NE(bystander.service("IOReportHub"), 0u);
}
