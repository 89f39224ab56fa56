// reset, ping, stop, timesync/tymesync and gettalvexstate against a private
// simulator: output, diagnostics, exit status and what reached the driver.
#include "tool_support.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace {

using namespace talvex::test;

TEST(Lifecycle, PlainCommandsCallTheirMethodAndPrintNothing) {
    // Each against a fresh, booted coprocessor: a reset or stop changes its state.
    const std::pair<Words, uint32_t> plain[] = {
        {{"reset"}, kTalvexMethodReset},       {{"reset", "now", "0x10"}, kTalvexMethodReset},   // extra words ignored
        {{"stop"}, kTalvexMethodStop},         {{"timesync"}, kTalvexMethodTimeSync},
        {{"tymesync"}, kTalvexMethodTimeSync}};
    for (const auto &[args, selector] : plain) {
        Simulator sim;
        TraceCall c = one_call(sim, args);
        EXPECT_EQ(c.service, "ZantraTalvexProcessor");
        EXPECT_EQ(c.selector, selector) << args[0];
        EXPECT_TRUE(c.scalars.empty() && c.input.empty() && c.output_size + c.scalar_output_count == 0) << args[0];
    }
}

TEST(Lifecycle, PingPrintsTheOutcome) {
    Simulator sim;
    TraceCall call = one_call(sim, {"ping"}, "ping result: (os/kern) successful (0)\n");
    EXPECT_EQ(call.selector, kTalvexMethodPing);
    EXPECT_TRUE(call.scalars.empty());

    // A failure: the client's report, the ping line, the command's report.
    const std::string timeout = "(iokit/common) I/O Timeout (0xe00002d6)";
    stub_code(sim, kTalvexMethodPing, "0xe00002d6");
    Outcome bad = run(sim, {"ping"});
    EXPECT_EQ(bad.r.status, 1);
    EXPECT_EQ(bad.r.out, "ping result: " + timeout + "\n");
    EXPECT_EQ(bad.err, twice(timeout, "lifecycle.cpp"));

    // A code of a system without texts still prints a line.
    stub_code(sim, kTalvexMethodPing, "0x14000000");
    RunResult textless = sim.tool({"ping"});
    EXPECT_EQ(textless.status, 1);
    EXPECT_TRUE(textless.out.starts_with("ping result: ") && textless.out.ends_with(" (0x14000000)\n")) << textless.out;
}

TEST(Lifecycle, GetStateNamesTheRegistryProperty) {
    Simulator sim;
    Outcome o = run(sim, {"gettalvexstate"});
    EXPECT_EQ(o.r.status, 0);
    EXPECT_EQ(o.r.out + o.r.err, "booted (0x10002)\n");
    EXPECT_TRUE(o.calls.empty());   // no method, only the property

    // Without a numeric property: reported, and the value stays all ones.
    const std::string diag = check("prop && CFGetTypeID(prop) == CFNumberGetTypeID()", "client/state.cpp");
    const std::string all_ones = "unknown (0xffffffffffffffff)\n";
    const std::tuple<Words, std::string, std::string> states[] = {
        {{"0"}, "off (0x0)\n", ""},
        {{"0x10000"}, "stopped (0x10000)\n", ""},
        {{"0x10001"}, "booting (0x10001)\n", ""},
        {{"0x10003"}, "notresponding (0x10003)\n", ""},
        {{"0x10004"}, "panic (0x10004)\n", ""},
        {{"0x20000"}, "unknown (0x20000)\n", ""},
        {{"0x100010002"}, "unknown (0x100010002)\n", ""},   // the whole 64-bit value is looked up
        {{"-2"}, "unknown (0xfffffffffffffffe)\n", ""},
        {{"booted", "--type", "string"}, all_ones, diag},
        {{}, all_ones, diag},   // deleted
    };
    for (const auto &[value, out, err] : states) {
        Words edit{"property", value.empty() ? "delete" : "set", "talvex-state"};
        edit.insert(edit.end(), value.begin(), value.end());
        if (value.size() == 1) edit.insert(edit.end(), {"--type", "number"});
        control(sim, edit);
        RunResult s = sim.tool({"gettalvexstate", "ignored"});
        std::string what = value.empty() ? "(deleted)" : value[0];
        EXPECT_EQ(s.status, 0) << what;
        EXPECT_EQ(s.out, out) << what;
        EXPECT_EQ(normalise(s.err), err) << what;
    }
}

}  // namespace
