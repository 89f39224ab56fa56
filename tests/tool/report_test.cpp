// The report commands: cpuload's arithmetic, and ioreport's loop against a
// private simulator. (cpuload's loop on a step clock, and what ends either
// before a first sample: tests/cases/scenarios.case and report.case.)
#include "talvexctl.h"
#include "tool_support.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

namespace {

using namespace talvex::test;

std::string percent(float load) {
    char text[64];
    std::snprintf(text, sizeof text, "%.2f", static_cast<double>(load));
    return text;
}

TEST(CpuLoad, ShareOfTheTotalThatWasNotIdle) {
    EXPECT_EQ(TalvexCpuLoad(750, 1000, 1500, 2000), 25.0f);

    // Rounded to single precision before printing: the double quotient
    // 98.0549966... would print as 98.05.
    EXPECT_EQ(percent(TalvexCpuLoad(1000, 10000, 1029, 11491)), "98.06");
    EXPECT_EQ(percent(TalvexCpuLoad(0, 1, 467, 1542)), "69.69");

    // Counters that wrapped around between passes give the same figure.
    EXPECT_EQ(percent(TalvexCpuLoad(UINT64_MAX - 9, UINT64_MAX - 499, 19, 991)), "98.06");

    // A total that did not move divides by zero.
    EXPECT_EQ(TalvexCpuLoad(100, 1000, 90, 1000), INFINITY);
    EXPECT_TRUE(std::isnan(TalvexCpuLoad(100, 1000, 100, 1000)));
}

// A regular expression that matches `text` literally.
std::string literal(const std::string &text) {
    static const std::string special = "\\^$.|?*+()[]{}";
    std::string out;
    for (char c : text) {
        if (special.find(c) != std::string::npos) out += '\\';
        out += c;
    }
    return out;
}

// Pattern lines of one channel's description.
std::string simple_line(const char *name, const std::string &value, const char *unit) {
    char head[64];
    std::snprintf(head, sizeof head, "%32s = { ", name);
    return literal(head) + " *" + value + " " + unit + " \\}\n";
}

std::string state_lines(const char *name, std::initializer_list<const char *> states) {
    std::string out;
    for (const char *state : states) {
        char head[64];
        std::snprintf(head, sizeof head, "%20s[%8s] = { # ", name, state);
        out += literal(head) + "\\d+ +\\d\\.\\d{3}e[+-]\\d\\d s / +\\d+\\.\\d% \\}\n";
    }
    return out;
}

std::string histogram_lines(const char *name, const std::vector<long long> &bounds, const char *unit) {
    std::string out;
    long long lower = 0;
    for (long long upper : bounds) {
        char head[128];
        std::snprintf(head, sizeof head, "%20s[%12lld - %12lld %s] = { ", name, lower, upper, unit);
        out += literal(head) + "(m +\\d+; M +\\d+; s +\\d+; # +\\d+|<no hits>; # 0) \\}\n";
        lower = upper;
    }
    return out;
}

TEST(Ioreport, EveryPassPrintsTheHeaderAndOneBlockPerChannel) {
    // The coprocessor's channels and one extra channel of each format; the
    // third sample fails, which ends the command after two passes.
    TempDir dir;
    std::ofstream(dir.path + "/end.toml") << "[[step]]\nname = \"end\"\ncall = 3\nservice = \"IOReportHub\"\n"
                                             "nth = 3\nstub = { code = 0xe00002bc }\n";
    Simulator sim({"--clock", "step", "--channels", "4", "--scenario", dir.path + "/end.toml"});
    control(sim, {"channel", "set", "TOTAL MS", "5000"});
    control(sim, {"channel", "set", "IDLE MS ", "0x1234"});
    RunResult r = sim.tool({"ioreport"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");

    std::vector<long long> latency = {25, 50, 75, 100, 125, 150, 175, 200};
    for (long long bound = 400; bound <= 3200; bound += 400) latency.push_back(bound);
    std::string block = simple_line("TOTAL MS", "5000", "ms") + simple_line("IDLE MS ", "4660", "ms") +
                        state_lines("PWRSTATE", {"DEEPSLP", "SLEEP", "RUN12M", "RUN100M"}) +
                        histogram_lines("PROCLAT", latency, "us") +
                        "arrays unsupported\\?arrays unsupported\\?" +   // 8 counters: 2 elements, no line ends
                        simple_line("X0000001", "\\d+", "events") + state_lines("X0000002", {"ON", "IDLE", "OFF"}) +
                        histogram_lines("X0000003", {100, 200, 300, 400}, "us") + "arrays unsupported\\?";
    // Descriptions go straight to the descriptor while the headers wait in
    // the stream's buffer, so on a pipe every header comes out at the end.
    std::string expected = block + block + "\nZantraTalvexProcessor ioreport:\n\nZantraTalvexProcessor ioreport:\n";

    auto want = talvex::test::lines(expected), got = talvex::test::lines(r.out);
    ASSERT_EQ(got.size(), want.size()) << r.out;
    for (size_t i = 0; i < want.size(); ++i)
        EXPECT_TRUE(std::regex_match(got[i], std::regex(want[i]))) << "line " << i << ": " << got[i];
}

}  // namespace
