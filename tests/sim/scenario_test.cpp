// Scenario files: the mistakes they are refused for, refusal before anything
// starts, and a lost reply that holds up no other client. (The examples and
// their exact traces: tests/cases/scenarios.case.)
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "harness.h"
#include "scenario.h"

using namespace talvex::test;

namespace {

const std::string kExamples = std::string(TALVEX_SOURCE_DIR) + "/examples/scenarios/";

std::string write_file(const TempDir &dir, const std::string &name, const std::string &text) {
    std::string path = dir.path + "/" + name;
    std::ofstream(path) << text;
    return path;
}

std::string refusal(const std::string &text) {
    std::string error;
    auto scenario = talvex::sim::parse_scenario(text, "s.toml", error);
    EXPECT_FALSE(scenario) << text;
    return error;
}

}  // namespace

TEST(Scenario, MistakesAreRefusedWithFileAndLine) {
    const std::pair<std::string, std::string> cases[] = {
        {"[[step]]\nat = \"1s\"\nload = \n", "s.toml:3: "},   // the rest is the TOML reader's
        // A message is one line even when the reader quotes a line break.
        {"[[step]]\ncall = 4\nstub = { open = t\n", "s.toml:3: Error while parsing boolean: expected 'true', saw 't\\x0a'"},
        // Characters the TOML reader cannot be trusted with, even in a string.
        {"[[step]]\ncall = 4\npanic = \"caf\u00e9\"\n",
         "s.toml:3: U+00E9 is not accepted here; inside a string write it as an escape (\\u00E9)"},
        {"title = \"x\"\n", "s.toml:1: unknown key 'title' (a scenario is a list of [[step]] tables)"},
        {"", "s.toml:1: no steps: a scenario is a list of [[step]] tables"},
        {"[[step]]\nload = 5\n", "s.toml:1: a step needs a trigger: at, after, on or call"},
        {"[[step]]\nat = \"1s\"\ncall = 4\nload = 5\n", "s.toml:1: a step has one trigger, not both 'at' and 'call'"},
        {"[[step]]\nat = \"1s\"\n", "s.toml:1: step 'step-1' has no action"},
        {"[[step]]\nat = \"1h\"\nload = 5\n",
         "s.toml:2: at takes a duration such as \"300ms\" or \"2s\" (ns, us, ms, s or min; at most a week)"},
        {"[[step]]\nat = \"1s\"\nnth = 2\nload = 5\n", "s.toml:3: nth does not go with 'at'"},
        {"[[step]]\nat = \"1s\"\nrepeat = 3\nload = 5\n", "s.toml:3: a repeated 'at' step needs an 'every' of at least 1ms"},
        {"[[step]]\nafter = \"nobody\"\nload = 5\n", "s.toml:2: after names no step: 'nobody'"},
        {"[[step]]\nname = \"a\"\nat = \"0s\"\nload = 5\n[[step]]\nname = \"a\"\nat = \"1s\"\nload = 6\n",
         "s.toml:5: a step named 'a' comes earlier"},
        {"[[step]]\non = \"state:asleep\"\nload = 5\n",
         "s.toml:2: on takes \"state:NAME\" (off, stopped, booting, booted, notresponding, panic or a number), "
         "\"boot\", \"panic\" or \"open:CLASS\""},
        {"[[step]]\nat = \"1s\"\ndelay_reply = \"1s\"\n",
         "s.toml:3: delay_reply goes only with a 'call' or 'on = \"open:...\"' trigger without delay"},
        {"[[step]]\ncall = 4\nload = 101\n", "s.toml:3: load takes a percentage from 0 to 100, or \"auto\""},
        {"[[step]]\ncall = 4\nwobble = 1\n", "s.toml:3: a step has no key 'wobble'"},
        // Table actions are checked as the control command checks its words.
        {"[[step]]\ncall = 4\nstub = { selector = \"six\" }\n", "s.toml:3: stub: bad number for selector: 'six'"},
        {"[[step]]\ncall = 4\nstub = { colour = 1 }\n",
         "s.toml:3: stub has no key 'colour' (it takes selector, service, scalars, input_prefix, code, output, "
         "output_size, scalar_outputs, times, open)"},
        {"[[step]]\ncall = 4\nset_property = { value = 1 }\n", "s.toml:3: set_property needs 'key'"},
        {"[[step]]\ncall = 4\nnotify = { type = 1, value = 2, data = \"00\" }\n",
         "s.toml:3: notify: value and data exclude each other"},
    };
    for (const auto &[text, want] : cases) {
        std::string got = refusal(text);
        EXPECT_EQ(want.back() == ' ' ? got.substr(0, want.size()) : got, want) << text;
    }
    // Budgets: steps, and the file's size (named where it goes over).
    std::string many;
    for (int i = 0; i < 1001; ++i) many += "[[step]]\ncall = 4\nload = 5\n";
    EXPECT_EQ(refusal(many), "s.toml:3001: too many steps (at most 1000)");
    TempDir dir;
    std::string big = write_file(dir, "big.toml", std::string(300 << 10, '\n'));
    std::string error;
    EXPECT_FALSE(talvex::sim::read_scenario_file(big, error));
    EXPECT_EQ(error, big + ":262145: the file goes over 262144 bytes here");
}

TEST(Scenario, Durations) {
    using talvex::sim::parse_duration;
    // (Whole units: the example scenarios' exact traces in tests/cases/scenarios.case.)
    EXPECT_EQ(parse_duration("1.5s"), 1'500'000'000u);
    EXPECT_EQ(parse_duration("0.000000001s"), 1u);
    for (const char *bad : {"", "5", "1.s", ".5s", "-1s", "8d", "10081min"})
        EXPECT_FALSE(parse_duration(bad)) << bad;
}

TEST(Scenario, ABadFileIsRefusedBeforeAnythingStartsAndLeavesTheRunningOne) {
    TempDir dir;
    std::string bad = write_file(dir, "bad.toml", "[[step]]\nat = \"1s\"\nload = \"lots\"\n");
    RunResult run = talvex::test::run({talvexsim_path(), "run", "--scenario", bad, "--", "sh", "-c", "echo ran"});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "talvexsim: " + bad + ":3: load: bad percentage 'lots' (0 to 100, at most two decimals, or auto)\n");

    // (The only example tests/cases/scenarios.case does not run; it must read.)
    Simulator sim({"--clock", "step", "--scenario", kExamples + "panic-after-boot.toml"});
    RunResult load = sim.control({"scenario", "load", bad});
    EXPECT_EQ(load.status, 2);
    EXPECT_EQ(load.err, run.err);
    RunResult status = sim.control({"scenario", "status"});
    EXPECT_EQ(status.out, "scenario panic-after-boot.toml: 1 step\n  crash: fired 0 of 1\n");
    EXPECT_EQ(sim.control({"scenario", "clear"}).status, 0);
    EXPECT_EQ(sim.control({"scenario", "status"}).out, "no scenario\n");
}

TEST(Scenario, AReplyNeverSentHoldsUpNoOtherClient) {
    TempDir dir;
    Simulator sim({"--scenario", write_file(dir, "lost.toml", "[[step]]\ncall = 4\nnever_reply = true\n")});
    auto lost = sim.start_tool({"ping"});
    for (int i = 0; i < 200 && sim.trace().size() < 3; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    RunResult other = sim.tool({"gettalvexstate"}, std::chrono::seconds(3));
    EXPECT_EQ(other.out, "booted (0x10002)\n");
    EXPECT_EQ(sim.control({"scenario", "status"}).out, "scenario lost.toml: 1 step\n  step-1: fired 1 of 1\n");
}
