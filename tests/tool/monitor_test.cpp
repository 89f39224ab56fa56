// `monitor` against a private simulator: the current-state line, events as
// they happen, intervals between printed lines, ignored messages, and a
// missing or non-numeric state property.
#include "tool_support.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>

namespace {

using namespace talvex::test;

// One monitor line: wall-clock time, the bracketed field (six characters),
// and the text after it.
struct MonitorLine {
    double time = 0;
    std::string bracket;
    std::string text;
    double interval() const { return std::strtod(bracket.c_str(), nullptr); }
};

void notify(const Simulator &sim, std::vector<std::string> args) {
    args.insert(args.begin(), "notify");
    RunResult r = sim.control(args);
    ASSERT_EQ(r.status, 0) << r.err;
}

std::vector<MonitorLine> stop_and_parse(Process &p, RunResult &r, int sig = SIGTERM) {
    static const std::regex re(R"(^ *(\d+\.\d\d) \[(.{6})\]: (.*)$)");
    p.signal(sig);
    r = p.wait();
    std::vector<MonitorLine> parsed;
    for (const auto &line : lines(r.out)) {
        std::smatch m;
        EXPECT_TRUE(std::regex_match(line, m, re)) << "unexpected line: " << line;
        if (!m.empty()) parsed.push_back({std::strtod(m[1].str().c_str(), nullptr), m[2], m[3]});
    }
    return parsed;
}

TEST(Monitor, CurrentStateThenEventsAsTheyHappen) {
    Simulator sim;
    double started = static_cast<double>(std::time(nullptr));
    auto p = sim.start_tool({"monitor", "ignored", "words"});
    ASSERT_TRUE(p->wait_for_stdout("talvex current state: booted (0x10002)\n")) << p->out() << p->err();

    // Each line reaches the pipe as soon as its event arrives. Only the low
    // 32 bits of a state argument are the state.
    const std::pair<std::vector<std::string>, std::string> events[] = {
        {{"0xe0000130", "--value", "0x10004"}, "talvex new state: panic (0x10004)"},
        {{"0xe0000130", "--value", "0x700010001"}, "talvex new state: booting (0x10001)"},
        {{"0xe3ff8100", "--data", "887766554433221100ffeeddccbbaa99"},
         "timesync event: ap 1122334455667788, talvex 99aabbccddeeff00"},
        {{"0xe3ff8100"}, "timesync event: ap ffffffffffffffff, talvex ffffffffffffffff"},
    };
    for (const auto &[args, text] : events) {
        notify(sim, args);
        ASSERT_TRUE(p->wait_for_stdout(text + "\n")) << p->out();
    }

    RunResult r;
    auto parsed = stop_and_parse(*p, r);
    EXPECT_EQ(r.status, 128 + SIGTERM);
    EXPECT_EQ(r.err, "");
    ASSERT_EQ(parsed.size(), std::size(events) + 1) << r.out;
    for (size_t i = 1; i < parsed.size(); ++i) {
        EXPECT_EQ(parsed[i].text, events[i - 1].second);
        // Wall-clock seconds with two decimals, in order.
        EXPECT_GE(parsed[i].time, parsed[i - 1].time);
        EXPECT_LE(parsed[i].time, started + 60);
        EXPECT_TRUE(std::regex_match(parsed[i].bracket, std::regex(R"( *\d+\.\d\d)"))) << parsed[i].bracket;
    }
    EXPECT_GE(parsed[0].time, started - 2);
    // The line format itself: "%10.2f [%6.2d]: ..." for the first line.
    EXPECT_TRUE(std::regex_match(lines(r.out)[0],
                                 std::regex(R"(^\d{10,}\.\d\d \[    00\]: talvex current state: booted \(0x10002\)$)")))
        << r.out;
}

TEST(Monitor, IntervalsCountFromThePreviousPrintedLine) {
    Simulator sim;
    auto p = sim.start_tool({"monitor"});
    ASSERT_TRUE(p->wait_for_stdout("talvex current state: booted (0x10002)\n")) << p->err();
    pause_ms(800);
    // Neither an unrelated message nor one of another family prints or moves the interval.
    notify(sim, {"0xe0000010", "--value", "0x10004"});
    notify(sim, {"0xe3ff8101"});
    pause_ms(800);
    notify(sim, {"0xe0000130", "--value", "0x10003"});
    ASSERT_TRUE(p->wait_for_stdout("notresponding (0x10003)\n")) << p->out();
    notify(sim, {"0xe3ff8100"});
    ASSERT_TRUE(p->wait_for_stdout("ffffffffffffffff\n")) << p->out();
    pause_ms(1500);
    notify(sim, {"0xe0000130", "--value", "0"});
    ASSERT_TRUE(p->wait_for_stdout("talvex new state: off (0x0)\n")) << p->out();

    RunResult r;
    auto parsed = stop_and_parse(*p, r, SIGINT);
    EXPECT_EQ(r.status, 128 + SIGINT);
    ASSERT_EQ(parsed.size(), 4u) << r.out;
    // 1.6 s since the current-state line, not 0.8 s since the ignored messages.
    EXPECT_GE(parsed[1].interval(), 1.55) << r.out;
    EXPECT_LT(parsed[1].interval(), 3.0) << r.out;
    EXPECT_LT(parsed[2].interval(), 0.6) << r.out;
    EXPECT_GE(parsed[3].interval(), 1.45) << r.out;
    EXPECT_LT(parsed[3].interval(), 2.5) << r.out;
    // The bracket is the difference of the wall-clock times (to rounding).
    EXPECT_NEAR(parsed[3].interval(), parsed[3].time - parsed[2].time, 0.011) << r.out;
}

TEST(Monitor, StateWithoutANumericPropertyIsUnknownAndEventsStillArrive) {
    Simulator sim;
    // (Its diagnostic, and a deleted property: tests/cases/lifecycle.case.)
    RunResult edit = sim.control({"property", "set", "talvex-state", "booted", "--type", "string"});
    ASSERT_EQ(edit.status, 0) << edit.err;
    auto p = sim.start_tool({"monitor"});
    ASSERT_TRUE(p->wait_for_stdout("talvex current state: unknown (0xffffffffffffffff)\n")) << p->out() << p->err();
    notify(sim, {"0xe0000130", "--value", "0x10002"});
    ASSERT_TRUE(p->wait_for_stdout("talvex new state: booted (0x10002)\n")) << p->out();
    RunResult r;
    auto parsed = stop_and_parse(*p, r);
    ASSERT_EQ(parsed.size(), 2u) << r.out;
}

}  // namespace
