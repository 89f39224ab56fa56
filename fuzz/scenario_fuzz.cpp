// The scenario file reader on arbitrary text. A refused file is refused
// with one line that starts "FILE:LINE: "; an accepted one is loaded into a
// fresh simulation on a step clock, its call, open and state triggers are
// poked, and two simulated seconds run what falls due.
#include <cstdint>
#include <string>
#include <string_view>

#include "clock.h"
#include "fuzz_check.h"
#include "scenario.h"
#include "simulation.h"

namespace {

namespace sim = talvex::sim;

struct Drop final : sim::Outbox {
    void send(sim::ClientId, std::vector<uint8_t>, int) override {}
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    std::string error;
    auto scenario = sim::parse_scenario(text, "f.toml", error);
    if (!scenario) {
        size_t digits = error.find_first_not_of("0123456789", 7);
        if (!error.starts_with("f.toml:") || digits == 7 || error.compare(digits, 2, ": ") != 0 ||
            error.find('\n') != std::string::npos)
            talvex::fuzz::fail("a refusal that is not one line of FILE:LINE: %s", error.c_str());
        return 0;
    }
    Drop outbox;
    sim::Simulation simulation(outbox, std::make_unique<sim::StepClock>());
    std::vector<sim::ScenarioTrigger> triggers;
    for (const auto &s : scenario->steps) triggers.push_back(s.trigger);
    simulation.scenario().load(std::move(*scenario));
    for (int round = 0; round < 8; ++round) {
        for (const auto &t : triggers) {
            if (t.kind == sim::ScenarioTrigger::Kind::Call)
                simulation.scenario().on_call(t.service, t.selector, t.scalars, t.input_prefix);
            if (t.kind == sim::ScenarioTrigger::Kind::Open) simulation.scenario().on_open(t.service);
            if (t.kind == sim::ScenarioTrigger::Kind::State) simulation.scenario().on_state(0, t.state);
        }
        static_cast<sim::StepClock &>(simulation.clock()).advance(sim::kNanosPerSecond / 4);
        simulation.run_timers();
    }
    simulation.scenario().status();
    return 0;
}
