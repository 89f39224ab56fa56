// `monitor` against a private simulator: the current-state line, events as
// they happen, intervals between printed lines, ignored messages, and a
// missing or non-numeric state property.
#include "harness.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>
#include <thread>

namespace {

using talvex::test::lines;
using talvex::test::normalise;
using talvex::test::Process;
using talvex::test::RunResult;
using talvex::test::Simulator;

// One monitor line: wall-clock time, the bracketed field (six characters),
// and the text after it.
struct MonitorLine {
    double time = 0;
    std::string bracket;
    std::string text;
};

bool parse_line(const std::string &line, MonitorLine &out) {
    static const std::regex re(R"(^ *(\d+\.\d\d) \[(.{6})\]: (.*)$)");
    std::smatch m;
    if (!std::regex_match(line, m, re)) return false;
    out.time = std::strtod(m[1].str().c_str(), nullptr);
    out.bracket = m[2];
    out.text = m[3];
    return true;
}

double interval(const MonitorLine &l) { return std::strtod(l.bracket.c_str(), nullptr); }

void notify(const Simulator &sim, const std::vector<std::string> &args) {
    std::vector<std::string> all{"notify"};
    all.insert(all.end(), args.begin(), args.end());
    RunResult r = sim.control(all);
    ASSERT_EQ(r.status, 0) << r.err;
}

void sleep_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

std::vector<MonitorLine> stop_and_parse(Process &p, RunResult &r, int sig = SIGTERM) {
    p.signal(sig);
    r = p.wait();
    std::vector<MonitorLine> parsed;
    for (const auto &line : lines(r.out)) {
        MonitorLine l;
        EXPECT_TRUE(parse_line(line, l)) << "unexpected line: " << line;
        parsed.push_back(l);
    }
    return parsed;
}

TEST(Monitor, CurrentStateThenEventsAsTheyHappen) {
    Simulator sim;
    double started = static_cast<double>(std::time(nullptr));
    auto p = sim.start_tool({"monitor", "ignored", "words"});
    ASSERT_TRUE(p->wait_for_stdout("talvex current state: booted (0x10002)\n")) << p->out() << p->err();

    // Each line reaches the pipe as soon as its event arrives.
    notify(sim, {"0xe0000130", "--value", "0x10004"});
    ASSERT_TRUE(p->wait_for_stdout("talvex new state: panic (0x10004)\n")) << p->out();
    notify(sim, {"0xe0000130", "--value", "0x20000"});
    ASSERT_TRUE(p->wait_for_stdout("talvex new state: unknown (0x20000)\n")) << p->out();
    // Only the low 32 bits of the argument are the state.
    notify(sim, {"0xe0000130", "--value", "0x700010001"});
    ASSERT_TRUE(p->wait_for_stdout("talvex new state: booting (0x10001)\n")) << p->out();
    notify(sim, {"0xe3ff8100", "--data", "887766554433221100ffeeddccbbaa99"});
    ASSERT_TRUE(p->wait_for_stdout("timesync event: ap 1122334455667788, talvex 99aabbccddeeff00\n")) << p->out();
    notify(sim, {"0xe3ff8100", "--data", "01000000000000000200000000000000"});
    ASSERT_TRUE(p->wait_for_stdout("timesync event: ap 1, talvex 2\n")) << p->out();
    notify(sim, {"0xe3ff8100"});
    ASSERT_TRUE(p->wait_for_stdout("timesync event: ap ffffffffffffffff, talvex ffffffffffffffff\n")) << p->out();

    RunResult r;
    auto parsed = stop_and_parse(*p, r);
    EXPECT_EQ(r.status, 128 + SIGTERM);
    EXPECT_EQ(r.err, "");
    ASSERT_EQ(parsed.size(), 7u) << r.out;
    EXPECT_EQ(parsed[0].bracket, "    00");
    EXPECT_EQ(parsed[0].text, "talvex current state: booted (0x10002)");
    EXPECT_EQ(parsed[1].text, "talvex new state: panic (0x10004)");
    EXPECT_EQ(parsed[2].text, "talvex new state: unknown (0x20000)");
    EXPECT_EQ(parsed[3].text, "talvex new state: booting (0x10001)");
    EXPECT_EQ(parsed[4].text, "timesync event: ap 1122334455667788, talvex 99aabbccddeeff00");
    EXPECT_EQ(parsed[5].text, "timesync event: ap 1, talvex 2");
    EXPECT_EQ(parsed[6].text, "timesync event: ap ffffffffffffffff, talvex ffffffffffffffff");
    for (size_t i = 0; i < parsed.size(); ++i) {
        // Wall-clock seconds with two decimals, in order.
        EXPECT_GE(parsed[i].time, started - 2);
        EXPECT_LE(parsed[i].time, started + 60);
        if (i == 0) continue;
        EXPECT_GE(parsed[i].time, parsed[i - 1].time);
        EXPECT_TRUE(std::regex_match(parsed[i].bracket, std::regex(R"( *\d+\.\d\d)"))) << parsed[i].bracket;
    }
    // The line format itself: "%10.2f [%6.2d]: ..." for the first line.
    std::string first = lines(r.out)[0];
    EXPECT_TRUE(std::regex_match(first, std::regex(R"(^\d{10,}\.\d\d \[    00\]: talvex current state: booted \(0x10002\)$)")))
        << first;
}

TEST(Monitor, IntervalsCountFromThePreviousPrintedLine) {
    Simulator sim;
    auto p = sim.start_tool({"monitor"});
    ASSERT_TRUE(p->wait_for_stdout("talvex current state: booted (0x10002)\n")) << p->err();
    sleep_ms(800);
    // Neither an unrelated message nor one of another family prints or moves the interval.
    notify(sim, {"0xe0000010", "--value", "0x10004"});
    notify(sim, {"0xe3ff8101"});
    sleep_ms(800);
    notify(sim, {"0xe0000130", "--value", "0x10003"});
    ASSERT_TRUE(p->wait_for_stdout("notresponding (0x10003)\n")) << p->out();
    notify(sim, {"0xe3ff8100"});
    ASSERT_TRUE(p->wait_for_stdout("timesync event")) << p->out();
    ASSERT_TRUE(p->wait_for_stdout("ffffffffffffffff\n")) << p->out();
    sleep_ms(1500);
    notify(sim, {"0xe0000130", "--value", "0"});
    ASSERT_TRUE(p->wait_for_stdout("talvex new state: off (0x0)\n")) << p->out();

    RunResult r;
    auto parsed = stop_and_parse(*p, r, SIGINT);
    EXPECT_EQ(r.status, 128 + SIGINT);
    ASSERT_EQ(parsed.size(), 4u) << r.out;
    // 1.6 s since the current-state line, not 0.8 s since the ignored messages.
    EXPECT_GE(interval(parsed[1]), 1.55) << r.out;
    EXPECT_LT(interval(parsed[1]), 3.0) << r.out;
    EXPECT_LT(interval(parsed[2]), 0.6) << r.out;
    EXPECT_GE(interval(parsed[3]), 1.45) << r.out;
    EXPECT_LT(interval(parsed[3]), 2.5) << r.out;
    // The bracket is the difference of the wall-clock times (to rounding).
    EXPECT_NEAR(interval(parsed[3]), parsed[3].time - parsed[2].time, 0.011) << r.out;
}

TEST(Monitor, StateWithoutANumericPropertyIsUnknownAndEventsStillArrive) {
    Simulator sim;
    const std::string diag =
        "AssertMacros: prop && CFGetTypeID(prop) == CFNumberGetTypeID(),  file: client/state.cpp, line: N\n";
    for (bool remove : {true, false}) {
        RunResult edit = remove ? sim.control({"property", "delete", "talvex-state"})
                                : sim.control({"property", "set", "talvex-state", "booted", "--type", "string"});
        ASSERT_EQ(edit.status, 0) << edit.err;
        auto p = sim.start_tool({"monitor"});
        ASSERT_TRUE(p->wait_for_stdout("talvex current state: unknown (0xffffffffffffffff)\n"))
            << p->out() << p->err();
        ASSERT_TRUE(p->wait_for_stderr("line: ")) << p->err();
        notify(sim, {"0xe0000130", "--value", "0x10002"});
        ASSERT_TRUE(p->wait_for_stdout("talvex new state: booted (0x10002)\n")) << p->out();
        RunResult r;
        auto parsed = stop_and_parse(*p, r);
        EXPECT_EQ(normalise(r.err), diag);
        ASSERT_EQ(parsed.size(), 2u) << r.out;
        EXPECT_EQ(parsed[0].bracket, "    00");
    }
}

}  // namespace
