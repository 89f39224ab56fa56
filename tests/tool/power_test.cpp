// Power and fault commands against a private simulator: counts on both sides
// of the open, parsing bases and width cuts, the exact requests in the trace,
// outputs and diagnostics, and what the simulated coprocessor does with them.
#include "harness.h"
#include "trace_calls.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

namespace {

using talvex::test::lines;
using talvex::test::normalise;
using talvex::test::RunResult;
using talvex::test::Simulator;
using talvex::test::TraceCall;
using talvex::test::trace_calls;
using talvex::test::trace_opens;

using Args = std::vector<std::string>;

void expect_control(const Simulator &sim, const Args &args) {
    RunResult r = sim.control(args);
    ASSERT_EQ(r.status, 0) << r.err;
}

// The simulated coprocessor back to booted, at once.
void booted(const Simulator &sim) { expect_control(sim, {"property", "set", "talvex-state", "0x10002"}); }

std::string state(const Simulator &sim) { return sim.tool({"gettalvexstate"}).out; }

// Runs a command that succeeds silently (unless `out` says otherwise) and
// returns the one call it made.
TraceCall one_call(const Simulator &sim, const Args &args, const std::string &out = "") {
    sim.trace(true);
    RunResult r = sim.tool(args);
    EXPECT_EQ(r.status, 0) << args[0] << ": " << r.err;
    EXPECT_EQ(r.out, out) << args[0];
    EXPECT_EQ(r.err, "") << args[0];
    auto trace = sim.trace();
    EXPECT_EQ(trace_opens(trace), 1u) << args[0];
    auto calls = trace_calls(trace);
    EXPECT_EQ(calls.size(), 1u) << args[0];
    if (calls.empty()) return {};
    EXPECT_EQ(calls[0].service, "ZantraTalvexProcessor");
    EXPECT_EQ(calls[0].output_size, 0u) << args[0];
    EXPECT_EQ(calls[0].scalar_output_count, 0u) << args[0];
    return calls[0];
}

std::string diag(const std::string &condition, const char *file = "talvexctl/power.cpp") {
    return "AssertMacros: " + condition + ",  file: " + file + ", line: N\n";
}

std::string failed(const std::string &code_text, const char *first = "talvexctl/power.cpp") {
    return "AssertMacros: result == 0 , " + code_text + "  file: " + first + ", line: N\n" +
           "AssertMacros: result == 0 , " + code_text + "  file: talvexctl/power.cpp, line: N\n";
}

// A wrong count that is judged before the open: one line, no driver contact.
void expect_refused_before_open(const Simulator &sim, const Args &args, const std::string &condition) {
    sim.trace(true);
    RunResult r = sim.tool(args);
    EXPECT_EQ(r.status, 1) << args[0];
    EXPECT_EQ(r.out, "") << args[0];
    EXPECT_EQ(normalise(r.err), diag(condition)) << args[0];
    EXPECT_TRUE(sim.trace().empty()) << args[0];
}

// A wrong count judged after the open: the handle was opened and closed, nothing called.
void expect_refused_after_open(const Simulator &sim, const Args &args, const std::string &condition) {
    sim.trace(true);
    RunResult r = sim.tool(args);
    EXPECT_EQ(r.status, 1) << args[0];
    EXPECT_EQ(r.out, "") << args[0];
    EXPECT_EQ(normalise(r.err), diag(condition)) << args[0];
    auto trace = sim.trace();
    EXPECT_EQ(trace_opens(trace), 1u) << args[0];
    EXPECT_TRUE(trace_calls(trace).empty()) << args[0];
    EXPECT_EQ(trace.size(), 1u) << args[0];   // no registry write either
}

TEST(Power, SetStateSendsTheCodeInHexAndPrintsTheResult) {
    Simulator sim;
    const std::string ok = "Set state result: (os/kern) successful (0)\n";
    EXPECT_EQ(one_call(sim, {"setstate", "80"}, ok).scalars, std::vector<uint64_t>{0x80});
    EXPECT_EQ(one_call(sim, {"setstate", "0x3"}, ok).scalars, std::vector<uint64_t>{0x3});
    auto call = one_call(sim, {"setstate", "83"}, ok);
    EXPECT_EQ(call.selector, 17);
    EXPECT_EQ(call.input, "");

    // Cut to 32 bits: only the low bits reach the driver.
    EXPECT_EQ(one_call(sim, {"setstate", "1000000081"}, ok).scalars, std::vector<uint64_t>{0x81});
    EXPECT_EQ(one_call(sim, {"setstate", "zz"}, ok).scalars, std::vector<uint64_t>{0});   // not a number

    // The tool sends any code; the driver refuses what is no assertion code.
    // The result line comes first, then both reports.
    sim.trace(true);
    RunResult bad = sim.tool({"setstate", "4"});
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(bad.out, "Set state result: (iokit/common) invalid argument (0xe00002c2)\n");
    EXPECT_EQ(normalise(bad.err), failed("(iokit/common) invalid argument (0xe00002c2)"));
    auto calls = trace_calls(sim.trace());
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].scalars, std::vector<uint64_t>{4});

    expect_refused_before_open(sim, {"setstate"}, "argc == 2");
    expect_refused_before_open(sim, {"setstate", "1", "2"}, "argc == 2");
}

TEST(Power, WakeSendsADecimalNumber) {
    Simulator sim;
    auto call = one_call(sim, {"wake", "12"});
    EXPECT_EQ(call.selector, 18);
    EXPECT_EQ(call.scalars, std::vector<uint64_t>{12});
    EXPECT_EQ(one_call(sim, {"wake", "0x10"}).scalars, std::vector<uint64_t>{0});
    EXPECT_EQ(one_call(sim, {"wake", "4294967297"}).scalars, std::vector<uint64_t>{1});
    EXPECT_EQ(one_call(sim, {"wake", "-1"}).scalars, std::vector<uint64_t>{0xffffffff});
    expect_refused_before_open(sim, {"wake"}, "argc == 2");
    expect_refused_before_open(sim, {"wake", "1", "2"}, "argc == 2");

    // Nothing to wake when the firmware is stopped.
    ASSERT_EQ(sim.tool({"stop"}).status, 0);
    RunResult r = sim.tool({"wake", "1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(normalise(r.err), failed("(iokit/common) not ready (0xe00002d8)", "client/operations.cpp"));
}

TEST(Power, HaltAndHaltMsSendDelayDurationAndLevel) {
    Simulator sim;
    // The requests alone: a stub answers instead of the coprocessor model.
    expect_control(sim, {"stub", "--selector", "40"});
    const std::vector<std::pair<Args, std::vector<uint64_t>>> cases = {
        {{"halt", "5"}, {5000, 0, 96}},
        {{"halt", "5", "3"}, {5000, 0, 3}},
        {{"halt", "4294968"}, {704, 0, 96}},   // seconds to milliseconds wraps in 32 bits
        {{"halt", "4294967296"}, {0, 0, 96}},
        {{"halt", "-1"}, {4294966296, 0, 96}},
        {{"halt", "1x", "0x10"}, {1000, 0, 0}},
        {{"halt_ms", "100000", "200"}, {100000, 200, 96}},
        {{"halt_ms", "100000", "200", "7"}, {100000, 200, 7}},
        {{"halt_ms", "4294967297", "4294967298", "4294967299"}, {1, 2, 3}},
    };
    for (const auto &[args, scalars] : cases) {
        auto call = one_call(sim, args);
        EXPECT_EQ(call.selector, 40) << args[1];
        EXPECT_EQ(call.scalars, scalars) << args[0] << " " << args[1];
    }
    expect_control(sim, {"stub", "--clear"});

    expect_refused_after_open(sim, {"halt"}, "argc == 2 || argc == 3");
    expect_refused_after_open(sim, {"halt", "1", "2", "3"}, "argc == 2 || argc == 3");
    expect_refused_after_open(sim, {"halt_ms", "1"}, "argc == 3 || argc == 4");
    expect_refused_after_open(sim, {"halt_ms", "1", "2", "3", "4"}, "argc == 3 || argc == 4");
    // The open comes first: without a driver that is what is reported.
    expect_control(sim, {"service", "unpublish", "ZantraTalvexProcessor"});
    RunResult r = sim.tool({"halt"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(normalise(r.err),
              "AssertMacros: service, cannot find ZantraTalvexProcessor file: client/handle.cpp, line: N\n" +
                  diag("talvex"));
    expect_control(sim, {"service", "publish", "ZantraTalvexProcessor"});

    // A coprocessor that does not run cannot be halted.
    ASSERT_EQ(sim.tool({"stop"}).status, 0);
    r = sim.tool({"halt_ms", "1", "1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(normalise(r.err), failed("(iokit/common) not ready (0xe00002d8)", "client/operations.cpp"));
}

TEST(Power, HaltStopsTheCoprocessorAnsweringForItsDuration) {
    Simulator sim;
    auto monitor = sim.start_tool({"monitor"});
    ASSERT_TRUE(monitor->wait_for_stdout("talvex current state: booted (0x10002)\n")) << monitor->err();
    ASSERT_EQ(sim.tool({"halt_ms", "100", "400"}).status, 0);
    ASSERT_TRUE(monitor->wait_for_stdout("talvex new state: notresponding (0x10003)\n")) << monitor->out();
    RunResult ping = sim.tool({"ping"});
    EXPECT_EQ(ping.status, 1);
    EXPECT_EQ(ping.out, "ping result: (iokit/common) not ready (0xe00002d8)\n");
    ASSERT_TRUE(monitor->wait_for_stdout("talvex new state: booted (0x10002)\n")) << monitor->out();
    EXPECT_EQ(sim.tool({"ping"}).status, 0);
    monitor->signal(SIGTERM);
    RunResult m = monitor->wait();
    auto out = lines(m.out);
    ASSERT_EQ(out.size(), 3u) << m.out;
    double halted = std::strtod(out[1].substr(out[1].find('[') + 1).c_str(), nullptr);
    double recovered = std::strtod(out[2].substr(out[2].find('[') + 1).c_str(), nullptr);
    EXPECT_GE(halted, 0.05) << m.out;
    EXPECT_GE(recovered, 0.35) << m.out;
    EXPECT_LT(recovered, 2.0) << m.out;
    EXPECT_EQ(sim.stop(), 0) << sim.log();   // a clean shutdown, no sanitizer report
}

TEST(Power, PanicSendsItsTextWithTheNul) {
    Simulator sim;
    auto call = one_call(sim, {"panic"});
    EXPECT_EQ(call.selector, 31);
    EXPECT_TRUE(call.scalars.empty());
    EXPECT_EQ(call.input, "");   // no structure at all
    EXPECT_EQ(state(sim), "panic (0x10004)\n");

    booted(sim);
    sim.trace(true);
    RunResult r = sim.tool({"panic", "abc"});
    EXPECT_EQ(r.status, 0);
    auto trace = sim.trace();
    auto calls = trace_calls(trace);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].input, "61626300");
    // The driver keeps the text.
    EXPECT_NE(std::find(trace.begin(), trace.end(), R"({"service":"ZantraTalvexProcessor","event":"panic","text":"abc"})"),
              trace.end());
    booted(sim);
    EXPECT_EQ(one_call(sim, {"panic", ""}).input, "00");

    // Panicked firmware cannot panic again.
    r = sim.tool({"panic", "again"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(normalise(r.err), failed("(iokit/common) not ready (0xe00002d8)", "client/operations.cpp"));

    expect_refused_before_open(sim, {"panic", "a", "b"}, "argc == 1 || argc == 2");
    EXPECT_EQ(sim.stop(), 0) << sim.log();   // a clean shutdown, no sanitizer report
}

TEST(Power, ReportAnnouncesItselfThenCalls) {
    Simulator sim;
    auto call = one_call(sim, {"report", "extra", "words"}, "calling test report\n");
    EXPECT_EQ(call.selector, 33);
    EXPECT_TRUE(call.scalars.empty());
    EXPECT_EQ(call.input, "");

    ASSERT_EQ(sim.tool({"stop"}).status, 0);
    RunResult r = sim.tool({"report"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "calling test report\n");
    EXPECT_EQ(normalise(r.err), failed("(iokit/common) not ready (0xe00002d8)", "client/operations.cpp"));
}

TEST(Power, RateSetsPropertyTwentyTwoOfTheTalvexDevice) {
    Simulator sim;
    auto call = one_call(sim, {"rate", "0x10"});   // base 10 stops at the x
    EXPECT_EQ(call.selector, 14);
    EXPECT_EQ(call.scalars, (std::vector<uint64_t>{3, 22, 0}));
    EXPECT_EQ(one_call(sim, {"rate", "115200"}).scalars, (std::vector<uint64_t>{3, 22, 115200}));
    EXPECT_EQ(one_call(sim, {"rate", "4294967297"}).scalars, (std::vector<uint64_t>{3, 22, 1}));
    expect_refused_before_open(sim, {"rate"}, "argc == 2");
    expect_refused_before_open(sim, {"rate", "1", "2"}, "argc == 2");

    expect_control(sim, {"stub", "--selector", "14", "--code", "0xe00002bc"});
    RunResult r = sim.tool({"rate", "9600"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(std::regex_match(r.out, std::regex(R"(TalvexSetProperty\(handle=0x[0-9a-f]+,dev=3,prop=16,val=2580\) -> e00002bc\n)")))
        << r.out;
    EXPECT_EQ(normalise(r.err), failed("(iokit/common) general error (0xe00002bc)", "client/operations.cpp"));
}

TEST(Power, HiddenControlsCallTheirMethods) {
    Simulator sim;
    auto call = one_call(sim, {"fw0"});
    EXPECT_EQ(call.selector, 0);
    EXPECT_EQ(call.scalars, std::vector<uint64_t>{0});
    call = one_call(sim, {"fw1", "ignored"});
    EXPECT_EQ(call.selector, 0);
    EXPECT_EQ(call.scalars, std::vector<uint64_t>{1});
    call = one_call(sim, {"conn", "ignored"});
    EXPECT_EQ(call.selector, 15);
    EXPECT_TRUE(call.scalars.empty());

    expect_control(sim, {"stub", "--selector", "0", "--code", "0xe00002c7"});
    RunResult r = sim.tool({"fw1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(normalise(r.err), failed("(iokit/common) unsupported function (0xe00002c7)", "client/operations.cpp"));
    expect_control(sim, {"stub", "--selector", "15", "--code", "0xe00002c7"});
    r = sim.tool({"conn"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(normalise(r.err), failed("(iokit/common) unsupported function (0xe00002c7)", "client/operations.cpp"));
}

TEST(Power, SetPropertyWritesANumberToTheDriversRegistryEntry) {
    Simulator sim;
    auto write = [&](const Args &args) {
        sim.trace(true);
        RunResult r = sim.tool(args);
        EXPECT_EQ(r.status, 0) << args[1];
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, "");
        auto trace = sim.trace();
        EXPECT_TRUE(trace_calls(trace).empty());
        return trace;
    };
    auto line = [](const std::string &key, const std::string &value) {
        return R"({"service":"ZantraTalvexProcessor","property":")" + key + R"(","value":)" + value + "}";
    };
    EXPECT_EQ(write({"setproperty", "key", "ff"}).back(), line("key", "255"));
    EXPECT_EQ(write({"setproperty", "neg", "-1"}).back(), line("neg", "-1"));
    EXPECT_EQ(write({"setproperty", "wide", "0x1ffffffffff", "extra"}).back(), line("wide", "2199023255551"));
    EXPECT_EQ(write({"setproperty", "junk", "zz"}).back(), line("junk", "0"));
    // A key that is no text cannot be written; the command still succeeds.
    auto trace = write({"setproperty", "\xff", "1"});
    EXPECT_EQ(trace_opens(trace), 1u);
    EXPECT_EQ(trace.size(), 1u);

    // A raw write: even the state goes in without a message.
    write({"setproperty", "talvex-state", "10004"});
    EXPECT_EQ(state(sim), "panic (0x10004)\n");

    expect_refused_after_open(sim, {"setproperty", "key"}, "argc == 3");
    expect_refused_after_open(sim, {"setproperty"}, "argc == 3");
}

TEST(Power, EveryCommandReportsAMissingDriver) {
    Simulator sim;
    expect_control(sim, {"service", "unpublish", "ZantraTalvexProcessor"});
    for (const Args &args : std::vector<Args>{{"setstate", "1"}, {"wake", "1"}, {"halt", "1"}, {"halt_ms", "1", "2"},
                                              {"panic"}, {"report"}, {"rate", "1"}, {"fw0"}, {"fw1"}, {"conn"},
                                              {"setproperty", "k", "1"}}) {
        RunResult r = sim.tool(args);
        EXPECT_EQ(r.status, 1) << args[0];
        EXPECT_EQ(r.out, "") << args[0];
        EXPECT_EQ(normalise(r.err),
                  "AssertMacros: service, cannot find ZantraTalvexProcessor file: client/handle.cpp, line: N\n" +
                      diag("talvex"))
            << args[0];
    }
    // Counts judged before the open are still reported first.
    expect_refused_before_open(sim, {"setstate"}, "argc == 2");
    expect_refused_before_open(sim, {"panic", "a", "b"}, "argc == 1 || argc == 2");

    expect_control(sim, {"service", "publish", "ZantraTalvexProcessor"});
    expect_control(sim, {"stub", "--open", "--code", "0xe00002c1"});
    RunResult r = sim.tool({"report"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");   // the announcement comes only after the open
    EXPECT_EQ(normalise(r.err),
              "AssertMacros: result == 0 , (iokit/common) privilege violation (0xe00002c1)  file: client/handle.cpp, line: N\n" +
                  diag("talvex"));
}

}  // namespace
