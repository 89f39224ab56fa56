// perfmon and setbaudrate end to end.
#include "diag_support.h"

#include <cstdlib>
#include <string>

namespace {

using namespace talvex::test;
using namespace talvex::test::diag;

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

TEST(Perfmon, ChecksWordsBeforeTheOpen) {
    Simulator sim;
    for (const Words &args : {Words{"perfmon", "accel"}, Words{"perfmon", "accel", "report", "x"}}) {
        Outcome o = run(sim, args);
        EXPECT_EQ(o.r.status, 1);
        EXPECT_EQ(o.err, check("argc == 3", "perfmon.cpp"));
        EXPECT_EQ(o.opens, 0u);
    }
    Outcome o = run(sim, {"perfmon", "accelerometer", "report"});
    EXPECT_EQ(o.err, check("device != 0xff", "perfmon.cpp"));
    EXPECT_EQ(o.opens, 0u);

    // An unknown subcommand: its text without a newline, a success, no call.
    o = run(sim, {"perfmon", "gyro", "foo"});
    EXPECT_EQ(o.r.status, 0);
    EXPECT_EQ(o.r.out, "unknown command: perfmon foo");
    EXPECT_EQ(o.r.err, "");
    EXPECT_EQ(o.opens, 1u);
    EXPECT_TRUE(o.calls.empty());
}

TEST(Perfmon, ModesAreSentAndReadBack) {
    Simulator sim;
    EXPECT_EQ(run(sim, {"perfmon", "compass", "enabled"}).r.out, "perfmon is disabled for compass\n");
    for (auto [word, mode, name] : {std::tuple{"auto", 2u, "auto"}, {"enable", 1u, "enabled"}, {"disable", 0u, "disabled"}}) {
        Outcome o = run(sim, {"perfmon", "compass", word});
        EXPECT_EQ(o.r.status, 0) << word;
        EXPECT_EQ(o.r.out + o.r.err, "") << word;
        ASSERT_EQ(o.calls.size(), 1u);
        EXPECT_EQ(o.calls[0].selector, 39);
        EXPECT_EQ(o.calls[0].scalars, (std::vector<uint64_t>{2, 38}));
        EXPECT_EQ(o.calls[0].input, Hex().u32(mode).str());
        EXPECT_EQ(o.calls[0].output_size, 0u);

        o = run(sim, {"perfmon", "compass", "enabled"});
        EXPECT_EQ(o.r.out, std::string("perfmon is ") + name + " for compass\n");
        ASSERT_EQ(o.calls.size(), 1u);
        EXPECT_EQ(o.calls[0].selector, 13);
        EXPECT_EQ(o.calls[0].scalars, (std::vector<uint64_t>{2, 38}));
        EXPECT_EQ(o.calls[0].output_size, 4u);
    }
    // A mode the tool has no name for, set as the raw property.
    ASSERT_EQ(sim.tool({"set", "2", "26", "7"}).status, 0);
    EXPECT_EQ(run(sim, {"perfmon", "compass", "enabled"}).r.out, "perfmon is unknown for compass\n");

    stub_code(sim, "39", "0xe00002bc");
    Outcome o = run(sim, {"perfmon", "compass", "enable"});
    EXPECT_EQ(o.r.status, 1);
    EXPECT_EQ(o.err, from_operation(kGeneralError) +
                         coded(kGeneralError, "perfmon.cpp", "(iokit/common) general error"));
    stub_code(sim, "13", "0xe00002bc");
    o = run(sim, {"perfmon", "compass", "enabled"});
    EXPECT_EQ(o.r.status, 1);
    EXPECT_EQ(o.r.out, "");
    EXPECT_EQ(o.err, coded(kGeneralError, "perfmon.cpp", "(iokit/common) general error"));
}

TEST(Perfmon, ReportPrintsAtMostTenEntriesWithNamesCutToEightCharacters) {
    Simulator sim;
    // The count says 11; only ten fit, and "hostcomm" fills its 8 bytes.
    std::vector<std::string> names = {"hostcomm", "a", "b", "c", "d", "e", "f", "g", "h", "i"};
    stub_once(sim, "39", report(11, names));
    Outcome o = run(sim, {"perfmon", "talvex", "report"});
    EXPECT_EQ(o.r.status, 0);
    auto got = lines(o.r.out);
    ASSERT_EQ(got.size(), 10u) << o.r.out;
    EXPECT_EQ(got[0], "hostcomm: num_samples=1 latency=[min=2;max=3;avg=-1]");
    EXPECT_EQ(got[9], "i       : num_samples=10 latency=[min=11;max=12;avg=-10]");
    ASSERT_EQ(o.calls.size(), 1u);
    EXPECT_EQ(o.calls[0].scalars, (std::vector<uint64_t>{3, 47}));
    EXPECT_EQ(o.calls[0].input, "");
    EXPECT_EQ(o.calls[0].output_size, 256u);

    stub_once(sim, "39", report(0, {"x"}));
    o = run(sim, {"perfmon", "talvex", "report"});
    EXPECT_EQ(o.r.status, 0);
    EXPECT_EQ(o.r.out, "");

    stub_code(sim, "39", "0xe00002bc");
    o = run(sim, {"perfmon", "talvex", "report"});
    EXPECT_EQ(o.r.status, 1);
    EXPECT_EQ(o.err, from_operation(kGeneralError) +
                         coded(kGeneralError, "perfmon.cpp", "(iokit/common) general error"));
}

// The sample count on the report line of `stage`.
long samples(const std::string &text, const std::string &stage) {
    for (const auto &line : lines(text))
        if (line.rfind(stage, 0) == 0) return std::strtol(line.c_str() + line.find('=') + 1, nullptr, 10);
    ADD_FAILURE() << "no " << stage << " in\n" << text;
    return -1;
}

TEST(Perfmon, LiveReportGrowsOnlyWhileEnabled) {
    Simulator sim;
    std::string idle = run(sim, {"perfmon", "gyro", "report"}).r.out;
    EXPECT_EQ(idle, "isr     : num_samples=0 latency=[min=0;max=0;avg=0]\n"
                    "fifo    : num_samples=0 latency=[min=0;max=0;avg=0]\n"
                    "calib   : num_samples=0 latency=[min=0;max=0;avg=0]\n"
                    "fusion  : num_samples=0 latency=[min=0;max=0;avg=0]\n"
                    "report  : num_samples=0 latency=[min=0;max=0;avg=0]\n");
    ASSERT_EQ(run(sim, {"perfmon", "gyro", "enable"}).r.status, 0);
    pause_ms(300);
    std::string first = run(sim, {"perfmon", "gyro", "report"}).r.out;
    pause_ms(200);
    std::string second = run(sim, {"perfmon", "gyro", "report"}).r.out;
    EXPECT_GT(samples(first, "fusion"), 20);
    EXPECT_GT(samples(second, "fusion"), samples(first, "fusion"));
    ASSERT_EQ(run(sim, {"perfmon", "gyro", "disable"}).r.status, 0);
    std::string frozen = run(sim, {"perfmon", "gyro", "report"}).r.out;
    pause_ms(150);
    EXPECT_EQ(run(sim, {"perfmon", "gyro", "report"}).r.out, frozen);
    // Other devices keep their own mode.
    EXPECT_EQ(samples(run(sim, {"perfmon", "accel", "report"}).r.out, "fusion"), 0);
}

TEST(SetBaudRate, AcceptsTheFourRatesByTheirLow32Bits) {
    Simulator sim;
    const std::pair<std::string, uint64_t> sent[] = {
        {"112500", 112500}, {"3000000baud", 3000000}, {"4295079796", 112500}, {"750000", 750000}};
    for (const auto &[word, rate] : sent) {
        Outcome o = run(sim, {"setbaudrate", word});
        EXPECT_EQ(o.r.status, 0) << word << o.r.err;
        EXPECT_EQ(o.r.out + o.r.err, "") << word;
        ASSERT_EQ(o.calls.size(), 1u) << word;
        EXPECT_EQ(o.calls[0].selector, 29);
        EXPECT_EQ(o.calls[0].scalars, std::vector<uint64_t>{rate}) << word;
    }
    for (const char *word : {"115200", "-112500", "fast"}) {
        Outcome o = run(sim, {"setbaudrate", word});
        EXPECT_EQ(o.r.status, 1) << word;
        EXPECT_EQ(o.err, check("rate==112500||rate==750000||rate==1500000||rate==3000000", "perfmon.cpp")) << word;
        EXPECT_EQ(o.opens, 1u) << word;
        EXPECT_TRUE(o.calls.empty()) << word;
    }
    Outcome o = run(sim, {"setbaudrate"});
    EXPECT_EQ(o.err, check("argc == 2", "perfmon.cpp"));
    EXPECT_EQ(o.opens, 0u);

    stub_code(sim, "29", "0xe00002bc");
    o = run(sim, {"setbaudrate", "1500000"});
    EXPECT_EQ(o.r.status, 1);
    EXPECT_EQ(o.err, from_operation(kGeneralError) + coded(kGeneralError, "perfmon.cpp"));
}

}  // namespace
