// The report commands, ioreport and cpuload: the load arithmetic, and both
// loops run against a private simulator that changes while they run. (What
// ends them before a first sample: tests/cases/report.case.)
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

// The hub calls in the trace.
std::vector<TraceCall> hub_calls(const Simulator &sim) {
    std::vector<TraceCall> calls;
    for (auto &call : trace_calls(sim.trace()))
        if (call.service == "IOReportHub") calls.push_back(call);
    return calls;
}

// Successful buffer updates so far: one per sample the command took.
size_t samples_taken(const Simulator &sim) {
    size_t n = 0;
    for (auto &call : hub_calls(sim)) n += call.selector == kIOReportUserClientUpdateKernelBuffer && call.result == 0;
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

TEST(Cpuload, PinnedCountersGiveExactLoadsAndADivisionByZeroWhenTheTotalStandsStill) {
    Simulator sim({"--clock", "step"});
    auto pin = [&](const char *channel, const char *value) {
        control(sim, {"channel", "set", channel, value});
    };
    pin("TOTAL MS", "10000");
    pin("IDLE MS ", "1000");

    // Which counter values each sample saw: phase[k] for sample k + 1.
    std::vector<int> phase;
    auto seen_until = [&](size_t taken, int p) {
        while (phase.size() < taken) phase.push_back(p);
    };
    Running run(sim, "cpuload");
    size_t taken = run.hold_after(2);
    seen_until(taken, 0);
    pin("TOTAL MS", "14000");   // 1000 of 4000 ms busy: 25%
    pin("IDLE MS ", "4000");
    run.resume();
    taken = run.hold_after(taken + 1);
    seen_until(taken, 1);
    pin("TOTAL MS", "15491");   // 1462 of 1491 ms: 98.0549...%, 98.06 once in single precision
    pin("IDLE MS ", "4029");
    run.resume();
    taken = run.hold_after(taken + 1);
    seen_until(taken, 2);
    pin("IDLE MS ", "4020");   // the total stands still while idle moves: inf
    run.resume();
    taken = run.hold_after(taken + 1);
    seen_until(taken, 3);
    // Without the driver the samples hold no channels: the counters keep
    // their last values, so the total stands still again.
    control(sim, {"service", "unpublish", "ZantraTalvexProcessor"});
    run.resume();
    RunResult r = run.finish(taken + 1);
    seen_until(run.taken(), 3);

    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    auto out = talvex::test::lines(r.out);
    ASSERT_EQ(out.size(), phase.size() - 1) << r.out;
    const char *const step[] = {"25.00", "98.06", "inf"};
    for (size_t k = 1; k < phase.size(); ++k) {
        if (phase[k] == phase[k - 1])   // nothing moved: 0 / 0
            EXPECT_TRUE(std::regex_match(out[k - 1], std::regex("Talvex CPU load: -?nan%"))) << out[k - 1];
        else
            EXPECT_EQ(out[k - 1], std::string("Talvex CPU load: ") + step[phase[k - 1]] + "%");
    }
    EXPECT_GE(std::count(phase.begin(), phase.end(), 3), 2);

    // It talks to the hub only: one open, one subscription, then updates.
    auto all = trace_calls(sim.trace());
    auto calls = hub_calls(sim);
    EXPECT_EQ(all.size(), calls.size());
    ASSERT_EQ(calls.size(), run.taken() + 3);
    EXPECT_EQ(calls[0].selector, kIOReportUserClientOpen);
    EXPECT_EQ(calls[1].selector, kIOReportUserClientConfigureInterests);
    for (size_t i = 2; i < calls.size(); ++i) EXPECT_EQ(calls[i].selector, kIOReportUserClientUpdateKernelBuffer);
    EXPECT_NE(calls.back().result, 0);
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
