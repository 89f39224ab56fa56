// reset, ping, stop, timesync/tymesync and gettalvexstate against a private
// simulator: output, diagnostics, exit status and what reached the driver.
#include "harness.h"
#include "trace_calls.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using talvex::test::normalise;
using talvex::test::RunResult;
using talvex::test::Simulator;
using talvex::test::trace_calls;
using talvex::test::trace_opens;

const char kService[] = "ZantraTalvexProcessor";

void expect_control(const Simulator &sim, const std::vector<std::string> &args) {
    RunResult r = sim.control(args);
    ASSERT_EQ(r.status, 0) << r.err;
}

// A command that calls one scalar method with nothing in or out.
void expect_plain_call(const Simulator &sim, const std::vector<std::string> &args, long selector) {
    sim.trace(true);
    RunResult r = sim.tool(args);
    EXPECT_EQ(r.status, 0) << args[0] << ": " << r.err;
    EXPECT_EQ(r.out, "") << args[0];
    EXPECT_EQ(r.err, "") << args[0];
    auto trace = sim.trace();
    EXPECT_EQ(trace_opens(trace), 1u) << args[0];
    auto calls = trace_calls(trace);
    ASSERT_EQ(calls.size(), 1u) << args[0];
    EXPECT_EQ(calls[0].service, kService);
    EXPECT_EQ(calls[0].selector, selector) << args[0];
    EXPECT_TRUE(calls[0].scalars.empty()) << args[0];
    EXPECT_EQ(calls[0].input, "") << args[0];
    EXPECT_EQ(calls[0].output_size, 0u) << args[0];
    EXPECT_EQ(calls[0].scalar_output_count, 0u) << args[0];
}

TEST(Lifecycle, PlainCommandsCallTheirMethodAndPrintNothing) {
    // Each against a fresh, booted coprocessor: a reset or stop changes its state.
    expect_plain_call(Simulator(), {"reset"}, 1);
    expect_plain_call(Simulator(), {"reset", "now", "0x10"}, 1);   // extra words are ignored
    expect_plain_call(Simulator(), {"stop"}, 3);
    expect_plain_call(Simulator(), {"timesync"}, 10);
    expect_plain_call(Simulator(), {"tymesync"}, 10);
}

TEST(Lifecycle, FailedMethodIsReportedTwiceAndFails) {
    Simulator sim;
    const std::string twice =
        "AssertMacros: result == 0 , (iokit/common) general error (0xe00002bc)  file: client/operations.cpp, line: N\n"
        "AssertMacros: result == 0 , (iokit/common) general error (0xe00002bc)  file: talvexctl/lifecycle.cpp, line: N\n";
    for (auto [command, selector] : std::vector<std::pair<std::string, std::string>>{
             {"reset", "1"}, {"stop", "3"}, {"timesync", "10"}, {"tymesync", "10"}}) {
        expect_control(sim, {"stub", "--selector", selector, "--code", "0xe00002bc", "--times", "1"});
        RunResult r = sim.tool({command});
        EXPECT_EQ(r.status, 1) << command;
        EXPECT_EQ(r.out, "") << command;
        EXPECT_EQ(normalise(r.err), twice) << command;
        // The two reports come from two different checks.
        auto err = talvex::test::lines(r.err);
        ASSERT_EQ(err.size(), 2u);
        EXPECT_NE(err[0], err[1]) << command;
    }
}

TEST(Lifecycle, PingPrintsTheOutcome) {
    Simulator sim;
    sim.trace(true);
    RunResult ok = sim.tool({"ping"});
    EXPECT_EQ(ok.status, 0);
    EXPECT_EQ(ok.out, "ping result: (os/kern) successful (0)\n");
    EXPECT_EQ(ok.err, "");
    auto calls = trace_calls(sim.trace());
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].selector, 4);
    EXPECT_TRUE(calls[0].scalars.empty());

    expect_control(sim, {"stub", "--selector", "4", "--code", "0xe00002d6"});
    RunResult bad = sim.tool({"ping"});
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(bad.out, "ping result: (iokit/common) I/O Timeout (0xe00002d6)\n");
    EXPECT_EQ(normalise(bad.err),
              "AssertMacros: result == 0 , (iokit/common) I/O Timeout (0xe00002d6)  file: client/operations.cpp, line: N\n"
              "AssertMacros: result == 0 , (iokit/common) I/O Timeout (0xe00002d6)  file: talvexctl/lifecycle.cpp, line: N\n");

    // A code of a system without texts still prints a line.
    expect_control(sim, {"stub", "--selector", "4", "--code", "0x14000000"});
    RunResult textless = sim.tool({"ping"});
    EXPECT_EQ(textless.status, 1);
    EXPECT_EQ(textless.out.rfind("ping result: ", 0), 0u);
    EXPECT_NE(textless.out.find(" (0x14000000)\n"), std::string::npos);
}

TEST(Lifecycle, GetStateNamesTheRegistryProperty) {
    Simulator sim;
    sim.trace(true);
    RunResult r = sim.tool({"gettalvexstate"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "booted (0x10002)\n");
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(trace_calls(sim.trace()).empty());   // no method, only the property

    for (auto [value, expected] : std::vector<std::pair<std::string, std::string>>{
             {"0", "off (0x0)\n"},
             {"0x10000", "stopped (0x10000)\n"},
             {"0x10001", "booting (0x10001)\n"},
             {"0x10003", "notresponding (0x10003)\n"},
             {"0x10004", "panic (0x10004)\n"},
             {"0x20000", "unknown (0x20000)\n"}}) {
        expect_control(sim, {"property", "set", "talvex-state", value, "--type", "number"});
        RunResult s = sim.tool({"gettalvexstate", "ignored"});
        EXPECT_EQ(s.status, 0) << value;
        EXPECT_EQ(s.out, expected) << value;
        EXPECT_EQ(s.err, "") << value;
    }
}

TEST(Lifecycle, GetStateWithoutANumericPropertyStillSucceeds) {
    Simulator sim;
    const std::string diag =
        "AssertMacros: prop && CFGetTypeID(prop) == CFNumberGetTypeID(),  file: client/state.cpp, line: N\n";
    expect_control(sim, {"property", "set", "talvex-state", "booted", "--type", "string"});
    RunResult text = sim.tool({"gettalvexstate"});
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(text.out, "unknown (0xffffffffffffffff)\n");
    EXPECT_EQ(normalise(text.err), diag);

    expect_control(sim, {"property", "delete", "talvex-state"});
    RunResult missing = sim.tool({"gettalvexstate"});
    EXPECT_EQ(missing.status, 0);
    EXPECT_EQ(missing.out, "unknown (0xffffffffffffffff)\n");
    EXPECT_EQ(normalise(missing.err), diag);
}

TEST(Lifecycle, RefusedOpenIsReportedWithItsCodeAndNothingIsCalled) {
    Simulator sim;
    for (const char *command : {"reset", "ping", "stop", "timesync", "gettalvexstate"}) {
        expect_control(sim, {"stub", "--open", "--code", "0xe00002e2", "--times", "1"});
        sim.trace(true);
        RunResult r = sim.tool({command});
        EXPECT_EQ(r.status, 1) << command;
        EXPECT_EQ(r.out, "") << command;
        EXPECT_EQ(normalise(r.err),
                  "AssertMacros: result == 0 , (iokit/common) not permitted (0xe00002e2)  file: client/handle.cpp, line: N\n"
                  "AssertMacros: talvex,  file: talvexctl/lifecycle.cpp, line: N\n")
            << command;
        EXPECT_TRUE(trace_calls(sim.trace()).empty()) << command;
    }
}

TEST(Lifecycle, UnpublishedDriverIsNotFound) {
    Simulator sim;
    expect_control(sim, {"service", "unpublish", kService});
    sim.trace(true);
    RunResult r = sim.tool({"ping"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(normalise(r.err),
              "AssertMacros: service, cannot find ZantraTalvexProcessor file: client/handle.cpp, line: N\n"
              "AssertMacros: talvex,  file: talvexctl/lifecycle.cpp, line: N\n");
    auto trace = sim.trace();
    EXPECT_EQ(trace_opens(trace), 0u);
    EXPECT_TRUE(trace_calls(trace).empty());

    expect_control(sim, {"service", "publish", kService});
    EXPECT_EQ(sim.tool({"ping"}).status, 0);
}

}  // namespace
