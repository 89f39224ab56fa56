// The report commands: cpuload's arithmetic, and ioreport's loop against a
// private simulator. (cpuload's loop on a step clock, and what ends either
// before a first sample: tests/cases/scenarios.case and report.case.)
#include "talvexctl.h"
#include "tool_support.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace talvex::test;

std::string percent(float load) {
    char text[64];
    std::snprintf(text, sizeof text, "%.2f", static_cast<double>(load));
    return text;
}

// Successful buffer updates so far: one per sample the command took.
size_t samples_taken(const Simulator &sim) {
    size_t n = 0;
    for (auto &call : trace_calls(sim.trace()))
        n += call.service == "IOReportHub" && call.selector == kIOReportUserClientUpdateKernelBuffer && call.result == 0;
    return n;
}

// A report command running against a simulator. Between samples it can be
// held still (SIGSTOP), so that a change made to the simulator meanwhile is
// seen first by a known sample.
class Running {
public:
    Running(const Simulator &sim, const std::string &command) : sim_(sim), proc_(sim.start_tool({command})) {}

    // Waits until the command has taken `n` samples in all, then holds it and
    // returns how many it has taken (n, or more if it ran ahead).
    size_t hold_after(size_t n) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (samples_taken(sim_) < n && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        proc_->signal(SIGSTOP);
        // Once it has stopped, a request it sent just before is answered all
        // the same; give the simulator a moment for it, then count.
        while (!stopped() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        return samples_taken(sim_);
    }
    void resume() { proc_->signal(SIGCONT); }

    // Makes the next sample fail, which ends the command, and waits for it.
    RunResult finish(size_t after) {
        size_t taken = hold_after(after);
        RunResult r0 = sim_.control({"stub", "--service", "IOReportHub", "--selector",
                                     std::to_string(kIOReportUserClientUpdateKernelBuffer), "--code", "0xe00002bc"});
        EXPECT_EQ(r0.status, 0) << r0.err;
        resume();
        RunResult r = proc_->wait(std::chrono::seconds(20));
        taken_ = taken;
        return r;
    }
    // Samples taken before the one that failed.
    size_t taken() const { return taken_; }

private:
    bool stopped() const {
        std::ifstream stat("/proc/" + std::to_string(proc_->pid()) + "/stat");
        std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
        size_t paren = text.rfind(')');
        return paren != std::string::npos && paren + 2 < text.size() && text[paren + 2] == 'T';
    }

    const Simulator &sim_;
    std::unique_ptr<Process> proc_;
    size_t taken_ = 0;
};

TEST(CpuLoad, ShareOfTheTotalThatWasNotIdle) {
    EXPECT_EQ(TalvexCpuLoad(750, 1000, 1500, 2000), 25.0f);
    EXPECT_EQ(TalvexCpuLoad(1, 1, 1, 2), 100.0f);
    EXPECT_EQ(TalvexCpuLoad(5, 5, 10, 10), 0.0f);

    // Rounded to single precision before printing: the double quotient
    // 98.0549966... would print as 98.05.
    EXPECT_EQ(percent(TalvexCpuLoad(1000, 10000, 1029, 11491)), "98.06");
    EXPECT_EQ(percent(TalvexCpuLoad(0, 1, 467, 1542)), "69.69");

    // Counters that wrapped around between passes give the same figure.
    EXPECT_EQ(percent(TalvexCpuLoad(UINT64_MAX - 9, UINT64_MAX - 499, 19, 991)), "98.06");

    // A total that did not move divides by zero.
    EXPECT_EQ(TalvexCpuLoad(100, 1000, 90, 1000), INFINITY);
    EXPECT_EQ(TalvexCpuLoad(100, 1000, 110, 1000), INFINITY);   // the idle step wraps to a huge number
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
    // The coprocessor's channels and one extra channel of each format.
    Simulator sim({"--clock", "step", "--channels", "4"});
    control(sim, {"channel", "set", "TOTAL MS", "5000"});
    control(sim, {"channel", "set", "IDLE MS ", "0x1234"});
    Running run(sim, "ioreport");
    RunResult r = run.finish(2);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    ASSERT_GE(run.taken(), 2u);

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
    std::string expected;
    for (size_t i = 0; i < run.taken(); ++i) expected += block;
    for (size_t i = 0; i < run.taken(); ++i) expected += "\nZantraTalvexProcessor ioreport:\n";

    auto want = talvex::test::lines(expected), got = talvex::test::lines(r.out);
    ASSERT_EQ(got.size(), want.size()) << r.out;
    for (size_t i = 0; i < want.size(); ++i)
        EXPECT_TRUE(std::regex_match(got[i], std::regex(want[i]))) << "line " << i << ": " << got[i];
}

}  // namespace
