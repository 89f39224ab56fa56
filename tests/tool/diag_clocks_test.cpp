// clkredirect, clkmeasure, clkstartup and powerlog end to end: requests,
// exact output from stubbed replies, diagnostics, and a live power log.
#include "tool_support.h"

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>

namespace {

using namespace talvex::test;

TEST(Clocks, RedirectSendsOneOrZero) {
    Simulator sim;
    for (auto [word, value] : {std::pair{"enable", 1u}, {"disable", 0u}}) {
        TraceCall c = one_call(sim, {"clkredirect", word});
        EXPECT_EQ(c.selector, kTalvexMethodClockRedirect);
        EXPECT_EQ(c.scalars, std::vector<uint64_t>{value}) << word;
    }
}

TEST(Clocks, MeasureNamesTheClockAndReportsItsShareOfTheReference) {
    Simulator sim;
    // Each word asks for its clock; no word asks for the IRC under a null label.
    const std::pair<Words, uint32_t> asked[] = {{{"clkmeasure", "irc"}, 1},     {{"clkmeasure", "pll"}, 2},
                                                {{"clkmeasure", "lfosc"}, 3},   {{"clkmeasure", "current"}, 0},
                                                {{"clkmeasure", "ircdiff"}, 4}, {{"clkmeasure"}, 1}};
    for (const auto &[args, selector] : asked) {
        stub_once(sim, kTalvexMethodClockMeasure, Hex().u32(1'000'000).u32(990'000).str());
        std::string label = args.size() > 1 ? args[1] : "(null)";
        TraceCall c = one_call(sim, args, label + " clock speed: 990000 Hz (99.000000%)\n");
        EXPECT_EQ(c.selector, kTalvexMethodClockMeasure);
        EXPECT_EQ(c.input, Hex().u32(selector).str()) << label;
        EXPECT_EQ(c.output_size, 8u);
    }
    const std::pair<std::string, std::string> replies[] = {
        {Hex().u32(32768).u32(32768).str(), "pll clock speed: 32768 Hz (100.000000%)\n"},
        {Hex().u32(0).u32(12'000'000).str(), "pll clock speed: 12000000 Hz (0.000000%)\n"},
        // The Hz field is signed; the percentage uses the unsigned value.
        {Hex().u32(0x80000000).u32(0xc0000000).str(), "pll clock speed: -1073741824 Hz (150.000000%)\n"},
    };
    for (const auto &[reply, line] : replies) {
        stub_once(sim, kTalvexMethodClockMeasure, reply);
        EXPECT_EQ(run(sim, {"clkmeasure", "pll"}).r.out, line);
    }

    // A failure: once without the code, once with it, the code's text as message both times.
    stub_code(sim, kTalvexMethodClockMeasure, "0xe00002bc");
    Outcome o = run(sim, {"clkmeasure", "irc"});
    EXPECT_EQ(o.r.status, 1);
    EXPECT_EQ(o.r.out, "");
    const std::string text = "(iokit/common) general error";
    EXPECT_EQ(o.err, check("result == 0", "clocks.cpp", text) + coded(kGeneralError, "clocks.cpp", text));
}

TEST(Clocks, StartupPrintsThreeLinesFromProperty240) {
    Simulator sim;
    stub_once(sim, kTalvexMethodGetProperty,
              Hex().i32(2400).i32(2100).i32(-1).i32(9800).i32(9400).i32(11200).i32(0).i32(7).i32(-8).str());
    TraceCall c = one_call(sim, {"clkstartup", "ignored"},
                           "IRC startup speed - mean:2400 ns min:2100 ns max:-1 ns\n"
                           "IRC pre-startup speed - mean:9800 ns min:9400 ns max:11200 ns\n"
                           "IRC total speed - mean:0 ns min:7 ns max:-8 ns\n");
    EXPECT_EQ(c.selector, kTalvexMethodGetProperty);
    EXPECT_EQ(c.scalars, (std::vector<uint64_t>{3, 240}));
    EXPECT_EQ(c.output_size, 36u);

    stub_code(sim, kTalvexMethodGetProperty, "0xe00002c7");
    Outcome o = run(sim, {"clkstartup"});
    EXPECT_EQ(o.r.status, 1);
    EXPECT_TRUE(std::regex_match(o.r.out, std::regex("TalvexGetProperty\\(handle=0x[0-9a-f]+,dev=3,prop=f0,size=36\\) "
                                                     "-> e00002c7\n")))
        << o.r.out;
    EXPECT_EQ(o.err, from_operation(kUnsupported) + coded(kUnsupported, "clocks.cpp", "(iokit/common) unsupported function"));
}

// The power log's lines for a record whose every pair holds (period, entries).
std::string record_text(uint32_t period, uint32_t entries, uint32_t events, uint32_t dropped) {
    auto pair = [&](const char *label) {
        return std::string(label) + "Entry = " + std::to_string(entries) + ", Period = " + std::to_string(period) + "\n";
    };
    std::string s = "Device Talvex\n" + pair("    Deep Sleep   ") + pair("         Sleep   ") +
                    pair("    Running12M   ") + pair("   Running100M   ") + "\n";
    for (const char *name : {"gyro", "accel", "compass", "pressure", "talvex"})
        s += std::string("Device ") + name + ", events: " + std::to_string(events) +
             ", dropped: " + std::to_string(dropped) + "\n" + pair("    Sleep        ") + pair("    Active       ");
    s += "\n";
    for (int t = 0; t < 3; ++t)
        s += "Thread " + std::to_string(t) + ", Entry = " + std::to_string(entries) +
             ", Period = " + std::to_string(period) + "\n";
    return s;
}

std::string record(uint32_t period, uint32_t entries, uint32_t events, uint32_t dropped) {
    Hex h;
    for (int i = 0; i < 7; ++i) h.u32(period).u32(entries);
    for (uint32_t d = 0; d < 5; ++d) h.u32(period).u32(entries).u32(period).u32(entries).u32(events).u32(dropped).u32(d);
    return h.str();
}

TEST(PowerLog, ControlsPrintTheirResultWhateverItIs) {
    Simulator sim;
    for (auto [word, selector, name] :
         {std::tuple{"start", kTalvexMethodPowerLogStart, "Start"}, {"stop", kTalvexMethodPowerLogStop, "Stop"},
          {"reset", kTalvexMethodPowerLogReset, "Reset"}}) {
        TraceCall c = one_call(sim, {"powerlog", word}, std::string(name) + " power log: (os/kern) successful (0)\n");
        EXPECT_EQ(c.selector, selector);
        EXPECT_TRUE(c.scalars.empty());

        stub_code(sim, selector, "0xe00002bc");
        Outcome o = run(sim, {"powerlog", word});
        EXPECT_EQ(o.r.status, 1);
        EXPECT_EQ(o.r.out, std::string(name) + " power log: " + kGeneralError + "\n");
        EXPECT_EQ(o.err, coded(kGeneralError, "powerlog.cpp") + coded(kGeneralError, "powerlog.cpp"));
    }
}

TEST(PowerLog, RecordPrintsEntryBeforePeriodAsUnsignedNumbers) {
    Simulator sim;
    stub_once(sim, kTalvexMethodPowerLogRead, record(0, 0, 0, 0));
    EXPECT_EQ(one_call(sim, {"powerlog", "getpowerlog"}, record_text(0, 0, 0, 0)).output_size, 196u);

    stub_once(sim, kTalvexMethodPowerLogRead, record(0x80000000, 7, 0xffffffff, 3));
    EXPECT_EQ(run(sim, {"powerlog", "getpowerlog"}).r.out, record_text(2147483648u, 7, 4294967295u, 3));
}

// The first number after `key` on the line that starts with `start`.
unsigned long field(const std::string &text, const std::string &start, const std::string &key) {
    for (const auto &line : lines(text))
        if (line.rfind(start, 0) == 0) return std::strtoul(line.c_str() + line.find(key) + key.size(), nullptr, 10);
    ADD_FAILURE() << "no " << start << " in\n" << text;
    return 0;
}

TEST(PowerLog, LiveLogAccumulatesWhileStarted) {
    Simulator sim;
    std::string idle = run(sim, {"powerlog", "getpowerlog"}).r.out;
    EXPECT_EQ(idle, record_text(0, 0, 0, 0));   // nothing before a start
    ASSERT_EQ(run(sim, {"powerlog", "start"}).r.status, 0);
    pause_ms(400);
    std::string log = run(sim, {"powerlog", "getpowerlog"}).r.out;
    EXPECT_GT(field(log, "    Deep Sleep", "Entry = "), 0u) << log;
    EXPECT_GT(field(log, "    Deep Sleep", "Period = "), 150u) << log;
    EXPECT_GT(field(log, "Device gyro", "events: "), 25u) << log;
    EXPECT_GT(field(log, "Thread 0", "Entry = "), 25u) << log;
    // (How the figures share time, stop and clear: the model's own tests.)
}

}  // namespace
