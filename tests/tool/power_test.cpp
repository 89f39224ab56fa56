// Power and fault commands against a private simulator: parsing bases and
// width cuts, the exact requests in the trace, outputs, and what the
// simulated coprocessor does with them. (Counts, missing drivers and plain
// call failures: checks_test.cpp.)
#include "tool_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

namespace {

using namespace talvex::test;
using Scalars = std::vector<uint64_t>;

// The simulated coprocessor back to booted, at once.
void booted(const Simulator &sim) { control(sim, {"property", "set", "talvex-state", "0x10002"}); }

std::string state(const Simulator &sim) { return sim.tool({"gettalvexstate"}).out; }

// A silent success with one call on the coprocessor that returns nothing.
TraceCall power_call(const Simulator &sim, const Words &args, const std::string &out = "") {
    TraceCall call = one_call(sim, args, out);
    EXPECT_EQ(call.service, "ZantraTalvexProcessor");
    EXPECT_EQ(call.output_size + call.scalar_output_count, 0u) << args[0];
    return call;
}

TEST(Power, SetStateSendsTheCodeInHexAndPrintsTheResult) {
    Simulator sim;
    const std::string ok = "Set state result: (os/kern) successful (0)\n";
    auto call = power_call(sim, {"setstate", "83"}, ok);
    EXPECT_EQ(call.selector, kTalvexMethodPowerAssertion);
    EXPECT_EQ(call.scalars, Scalars{0x83});
    EXPECT_EQ(call.input, "");
    // Cut to 32 bits: only the low bits reach the driver; a word that is no number is 0.
    for (auto [word, code] : {std::pair{"0x3", 0x3u}, {"1000000081", 0x81u}, {"zz", 0u}})
        EXPECT_EQ(power_call(sim, {"setstate", word}, ok).scalars, Scalars{code}) << word;

    // The tool sends any code; the driver refuses what is no assertion code.
    // The result line comes first, then both reports, from the command itself.
    Outcome bad = run(sim, {"setstate", "4"});
    EXPECT_EQ(bad.r.status, 1);
    EXPECT_EQ(bad.r.out, "Set state result: " + kBadArgument + "\n");
    EXPECT_EQ(bad.err, coded(kBadArgument, "power.cpp") + coded(kBadArgument, "power.cpp"));
    ASSERT_EQ(bad.calls.size(), 1u);
    EXPECT_EQ(bad.calls[0].scalars, Scalars{4});
}

TEST(Power, NumbersAreCutToTheirFieldsInTheirBase) {
    Simulator sim;
    // The requests alone: a stub answers halt instead of the coprocessor model.
    control(sim, {"stub", "--selector", std::to_string(kTalvexMethodHalt)});
    const std::tuple<Words, long, Scalars> cases[] = {
        {{"wake", "12"}, 18, {12}},
        {{"wake", "0x10"}, 18, {0}},   // decimal
        {{"wake", "4294967297"}, kTalvexMethodWake, {1}},
        {{"wake", "-1"}, kTalvexMethodWake, {0xffffffff}},
        {{"halt", "5"}, kTalvexMethodHalt, {5000, 0, 96}},
        {{"halt", "5", "3"}, kTalvexMethodHalt, {5000, 0, 3}},
        {{"halt", "4294968"}, kTalvexMethodHalt, {704, 0, 96}},   // seconds to milliseconds wraps in 32 bits
        {{"halt", "4294967296"}, kTalvexMethodHalt, {0, 0, 96}},
        {{"halt", "-1"}, kTalvexMethodHalt, {4294966296, 0, 96}},
        {{"halt", "1x", "0x10"}, kTalvexMethodHalt, {1000, 0, 0}},
        {{"halt_ms", "100000", "200"}, kTalvexMethodHalt, {100000, 200, 96}},
        {{"halt_ms", "100000", "200", "7"}, kTalvexMethodHalt, {100000, 200, 7}},
        {{"halt_ms", "4294967297", "4294967298", "4294967299"}, kTalvexMethodHalt, {1, 2, 3}},
        {{"rate", "0x10"}, kTalvexMethodSetProperty, {3, 22, 0}},   // base 10 stops at the x
        {{"rate", "115200"}, kTalvexMethodSetProperty, {3, 22, 115200}},
        {{"rate", "4294967297"}, kTalvexMethodSetProperty, {3, 22, 1}},
        {{"fw0"}, kTalvexMethodSelectFirmware, {0}},
        {{"fw1", "ignored"}, kTalvexMethodSelectFirmware, {1}},
        {{"conn", "ignored"}, kTalvexMethodConnect, {}},
    };
    for (const auto &[args, selector, scalars] : cases) {
        auto call = power_call(sim, args);
        EXPECT_EQ(call.selector, selector) << args[0];
        EXPECT_EQ(call.scalars, scalars) << args[0] << " " << args[1 % args.size()];
        EXPECT_EQ(call.input, "") << args[0];
    }

    // rate goes through the client's property write, which describes a failure.
    control(sim, {"stub", "--selector", std::to_string(kTalvexMethodSetProperty), "--code", "0xe00002bc"});
    Outcome o = run(sim, {"rate", "9600"});
    EXPECT_EQ(o.r.status, 1);
    EXPECT_TRUE(std::regex_match(o.r.out, std::regex(R"(TalvexSetProperty\(handle=0x[0-9a-f]+,dev=3,prop=16,val=2580\) -> e00002bc\n)")))
        << o.r.out;
    EXPECT_EQ(o.err, twice(kGeneralError, "power.cpp"));
}

TEST(Power, PanicSendsItsTextWithTheNulAndReportAnnouncesItself) {
    Simulator sim;
    auto call = power_call(sim, {"panic"});
    EXPECT_EQ(call.selector, kTalvexMethodPanic);
    EXPECT_TRUE(call.scalars.empty());
    EXPECT_EQ(call.input, "");   // no structure at all
    EXPECT_EQ(state(sim), "panic (0x10004)\n");

    booted(sim);
    Outcome o = run(sim, {"panic", "abc"});
    EXPECT_EQ(o.r.status, 0);
    ASSERT_EQ(o.calls.size(), 1u);
    EXPECT_EQ(o.calls[0].input, "61626300");
    // The driver keeps the text.
    EXPECT_EQ(o.events, std::vector<std::string>{R"({"service":"ZantraTalvexProcessor","event":"panic","text":"abc"})"});
    booted(sim);
    EXPECT_EQ(power_call(sim, {"panic", ""}).input, "00");

    booted(sim);
    call = power_call(sim, {"report", "extra", "words"}, "calling test report\n");
    EXPECT_EQ(call.selector, kTalvexMethodTestReport);
    EXPECT_TRUE(call.scalars.empty());
    EXPECT_EQ(call.input, "");
    EXPECT_EQ(sim.stop(), 0) << sim.log();   // a clean shutdown, no sanitizer report
}

TEST(Power, SetPropertyWritesANumberToTheDriversRegistryEntry) {
    Simulator sim;
    auto write = [&](const Words &args) {
        Outcome o = run(sim, args);
        EXPECT_EQ(o.r.status, 0) << args[1];
        EXPECT_EQ(o.r.out + o.r.err, "");
        EXPECT_EQ(o.opens, 1u);
        EXPECT_TRUE(o.calls.empty());
        return sim.trace();
    };
    auto line = [](const std::string &key, const std::string &value) {
        return R"({"service":"ZantraTalvexProcessor","property":")" + key + R"(","value":)" + value + "}";
    };
    EXPECT_EQ(write({"setproperty", "key", "ff"}).back(), line("key", "255"));
    EXPECT_EQ(write({"setproperty", "neg", "-1"}).back(), line("neg", "-1"));
    EXPECT_EQ(write({"setproperty", "wide", "0x1ffffffffff", "extra"}).back(), line("wide", "2199023255551"));
    EXPECT_EQ(write({"setproperty", "junk", "zz"}).back(), line("junk", "0"));
    // A key that is no text cannot be written; the command still succeeds.
    EXPECT_EQ(write({"setproperty", "\xff", "1"}).size(), 1u);

    // A raw write: even the state goes in without a message.
    write({"setproperty", "talvex-state", "10004"});
    EXPECT_EQ(state(sim), "panic (0x10004)\n");
}

}  // namespace
