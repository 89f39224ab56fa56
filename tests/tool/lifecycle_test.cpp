// reset, ping, stop, timesync/tymesync and gettalvexstate against a private
// simulator: output, diagnostics, exit status and what reached the driver.
#include "tool_support.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace talvex::test;

TEST(Lifecycle, PlainCommandsCallTheirMethodAndPrintNothing) {
    // Each against a fresh, booted coprocessor: a reset or stop changes its state.
    const std::pair<Words, long> plain[] = {{{"reset"}, 1},    {{"reset", "now", "0x10"}, 1},   // extra words ignored
                                            {{"stop"}, 3},     {{"timesync"}, 10},
                                            {{"tymesync"}, 10}};
    for (const auto &[args, selector] : plain) {
        Simulator sim;
        Outcome o = run(sim, args);
        EXPECT_EQ(o.r.status, 0) << args[0] << ": " << o.r.err;
        EXPECT_EQ(o.r.out + o.r.err, "") << args[0];
        EXPECT_EQ(o.opens, 1u);
        ASSERT_EQ(o.calls.size(), 1u) << args[0];
        EXPECT_EQ(o.calls[0].service, "ZantraTalvexProcessor");
        EXPECT_EQ(o.calls[0].selector, selector) << args[0];
        EXPECT_TRUE(o.calls[0].scalars.empty()) << args[0];
        EXPECT_EQ(o.calls[0].input, "") << args[0];
        EXPECT_EQ(o.calls[0].output_size + o.calls[0].scalar_output_count, 0u) << args[0];
    }
}

TEST(Lifecycle, PingPrintsTheOutcome) {
    Simulator sim;
    TraceCall call = one_call(sim, {"ping"}, "ping result: (os/kern) successful (0)\n");
    EXPECT_EQ(call.selector, 4);
    EXPECT_TRUE(call.scalars.empty());

    // A failure: the client's report, the ping line, the command's report.
    control(sim, {"stub", "--selector", "4", "--code", "0xe00002d6"});
    RunResult bad = sim.tool({"ping"});
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(bad.out, "ping result: (iokit/common) I/O Timeout (0xe00002d6)\n");
    EXPECT_EQ(normalise(bad.err), twice("(iokit/common) I/O Timeout (0xe00002d6)", "lifecycle.cpp"));

    // A code of a system without texts still prints a line.
    control(sim, {"stub", "--selector", "4", "--code", "0x14000000"});
    RunResult textless = sim.tool({"ping"});
    EXPECT_EQ(textless.status, 1);
    EXPECT_EQ(textless.out.rfind("ping result: ", 0), 0u);
    EXPECT_NE(textless.out.find(" (0x14000000)\n"), std::string::npos);
}

TEST(Lifecycle, GetStateNamesTheRegistryProperty) {
    Simulator sim;
    Outcome o = run(sim, {"gettalvexstate"});
    EXPECT_EQ(o.r.status, 0);
    EXPECT_EQ(o.r.out + o.r.err, "booted (0x10002)\n");
    EXPECT_TRUE(o.calls.empty());   // no method, only the property

    for (auto [value, expected] : std::vector<std::pair<std::string, std::string>>{
             {"0", "off (0x0)\n"},
             {"0x10000", "stopped (0x10000)\n"},
             {"0x10001", "booting (0x10001)\n"},
             {"0x10003", "notresponding (0x10003)\n"},
             {"0x10004", "panic (0x10004)\n"},
             {"0x20000", "unknown (0x20000)\n"},
             {"0x100010002", "unknown (0x100010002)\n"},   // the whole 64-bit value is looked up
             {"-2", "unknown (0xfffffffffffffffe)\n"}}) {
        control(sim, {"property", "set", "talvex-state", value, "--type", "number"});
        RunResult s = sim.tool({"gettalvexstate", "ignored"});
        EXPECT_EQ(s.status, 0) << value;
        EXPECT_EQ(s.out, expected) << value;
        EXPECT_EQ(s.err, "") << value;
    }

    // Without a numeric property: reported, and the value stays all ones.
    const std::string diag = check("prop && CFGetTypeID(prop) == CFNumberGetTypeID()", "client/state.cpp");
    control(sim, {"property", "set", "talvex-state", "booted", "--type", "string"});
    RunResult text = sim.tool({"gettalvexstate"});
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(text.out, "unknown (0xffffffffffffffff)\n");
    EXPECT_EQ(normalise(text.err), diag);
    control(sim, {"property", "delete", "talvex-state"});
    RunResult missing = sim.tool({"gettalvexstate"});
    EXPECT_EQ(missing.status, 0);
    EXPECT_EQ(missing.out, "unknown (0xffffffffffffffff)\n");
    EXPECT_EQ(normalise(missing.err), diag);
}

}  // namespace
