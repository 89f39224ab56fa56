// perfmon and setbaudrate end to end: the modes sent and read back, the
// report's bounded entries, the rates accepted. (How the model samples: the
// simulator's own tests.)
#include "tool_support.h"

#include <cstdlib>
#include <string>

namespace {

using namespace talvex::test;

std::string report(uint32_t count, const std::vector<std::string> &names) {
    Hex h;
    h.u32(count);
    int32_t n = 1;
    for (const auto &name : names) {
        h.text(name, 8).i32(n).i32(n + 1).i32(n + 2).i32(-n);
        ++n;
    }
    h.zeros(256 - h.size());
    return h.str();
}

TEST(Perfmon, ModesAreSentAndReadBack) {
    Simulator sim;
    EXPECT_EQ(run(sim, {"perfmon", "compass", "enabled"}).r.out, "perfmon is disabled for compass\n");
    for (auto [word, mode, name] : {std::tuple{"auto", 2u, "auto"}, {"enable", 1u, "enabled"}, {"disable", 0u, "disabled"}}) {
        TraceCall c = one_call(sim, {"perfmon", "compass", word});
        EXPECT_EQ(c.selector, kTalvexMethodPerfMonitor);
        EXPECT_EQ(c.scalars, (std::vector<uint64_t>{2, 38}));
        EXPECT_EQ(c.input, Hex().u32(mode).str()) << word;
        EXPECT_EQ(c.output_size, 0u);

        c = one_call(sim, {"perfmon", "compass", "enabled"}, std::string("perfmon is ") + name + " for compass\n");
        EXPECT_EQ(c.selector, kTalvexMethodGetProperty);
        EXPECT_EQ(c.scalars, (std::vector<uint64_t>{2, 38}));
        EXPECT_EQ(c.output_size, 4u);
    }
    // A mode the tool has no name for, set as the raw property.
    ASSERT_EQ(sim.tool({"set", "2", "26", "7"}).status, 0);
    EXPECT_EQ(run(sim, {"perfmon", "compass", "enabled"}).r.out, "perfmon is unknown for compass\n");

    // The mode is read directly: a failure is the command's report alone.
    stub_code(sim, kTalvexMethodGetProperty, "0xe00002bc");
    Outcome o = run(sim, {"perfmon", "compass", "enabled"});
    EXPECT_EQ(o.r.status, 1);
    EXPECT_EQ(o.r.out, "");
    EXPECT_EQ(o.err, coded(kGeneralError, "perfmon.cpp", "(iokit/common) general error"));
}

TEST(Perfmon, ReportPrintsAtMostTenEntriesWithNamesCutToEightCharacters) {
    Simulator sim;
    // The count says 11; only ten fit, and "hostcomm" fills its 8 bytes.
    std::vector<std::string> names = {"hostcomm", "a", "b", "c", "d", "e", "f", "g", "h", "i"};
    stub_once(sim, kTalvexMethodPerfMonitor, report(11, names));
    Outcome o = run(sim, {"perfmon", "talvex", "report"});
    EXPECT_EQ(o.r.status, 0);
    auto got = lines(o.r.out);
    ASSERT_EQ(got.size(), 10u) << o.r.out;
    EXPECT_EQ(got[0], "hostcomm: num_samples=1 latency=[min=2;max=3;avg=-1]");
    EXPECT_EQ(got[9], "i       : num_samples=10 latency=[min=11;max=12;avg=-10]");
    ASSERT_EQ(o.calls.size(), 1u);
    const TraceCall &c = o.calls[0];
    EXPECT_EQ(c.scalars, (std::vector<uint64_t>{3, 47}));
    EXPECT_EQ(c.input, "");
    EXPECT_EQ(c.output_size, 256u);

    stub_once(sim, kTalvexMethodPerfMonitor, report(0, {"x"}));
    one_call(sim, {"perfmon", "talvex", "report"});   // nothing printed
}

TEST(SetBaudRate, AcceptsTheFourRatesByTheirLow32Bits) {
    Simulator sim;
    const std::pair<std::string, uint64_t> sent[] = {
        {"112500", 112500}, {"3000000baud", 3000000}, {"4295079796", 112500}, {"750000", 750000}};
    for (const auto &[word, rate] : sent) {
        TraceCall c = one_call(sim, {"setbaudrate", word});
        EXPECT_EQ(c.selector, kTalvexMethodSetBaudRate);
        EXPECT_EQ(c.scalars, std::vector<uint64_t>{rate}) << word;
    }
}

}  // namespace
