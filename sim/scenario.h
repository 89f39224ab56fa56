// Scenarios: the simulated coprocessor misbehaving on cue. A scenario file
// (TOML, read by scenario_file.cpp) is a list of steps; each step has one
// trigger and one or more actions, and fires at most `repeat` times.
//
// Triggers (one per step):
//   at = "2s" [every = "1s"]   simulated time since the scenario was loaded
//   after = "STEP" [delay=D]   D after each firing of another step
//   on = "EVENT" [delay = D]   a state change ("state:booted", "boot" for
//                              state:booting, "panic" for state:panic) or a
//                              client opening a service ("open:CLASS")
//   call = N [nth = K] [service, scalars, input_prefix]
//                              every Kth call of selector N that matches
// Actions: what the control commands do (stub, notify, properties, services,
// channels, load), a state change, a panic with its text, and, for steps
// triggered by a call or an open, the reply answered late or never.
//
// Steps triggered by a request (a call or an open, without a delay) run their
// actions before the request is answered, so a stub they add answers that
// very request. A step armed again before its pending firing came replaces
// it. Every firing adds {"scenario":"step","name":N,"fired":K} to the trace
// (K counts the step's firings); an action that fails adds a line with its
// "error".
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "control.h"
#include "timers.h"

namespace talvex::sim {

class Simulation;

struct ScenarioTrigger {
    enum class Kind { At, After, State, Open, Call };
    Kind kind = Kind::At;
    uint64_t delay_ns = 0;          // At: from the start; After, State, Open: after the cause
    uint64_t every_ns = 0;          // At: between repeated firings
    size_t after = 0;               // After: the index of the step it follows
    uint64_t state = 0;             // State: the state entered
    std::string service;            // Open, Call: the service's class name
    uint32_t selector = 0;          // Call
    uint64_t nth = 1;               // Call: fires on every nth matching call
    std::vector<uint64_t> scalars;  // Call: the scalar inputs start with these
    std::vector<uint8_t> input_prefix;
};

struct ScenarioAction {
    enum class Kind { Control, State, Panic, DelayReply, NeverReply };
    Kind kind = Kind::Control;
    std::string what;               // its key in the file, for error lines
    ControlCommand command;         // Control
    uint64_t state = 0;             // State
    std::optional<std::string> text;   // Panic
    uint64_t delay_ns = 0;          // DelayReply
};

struct ScenarioStep {
    std::string name;
    ScenarioTrigger trigger;
    uint64_t repeat = 1;            // firings in all; 0: without end
    std::vector<ScenarioAction> actions;
};

struct Scenario {
    std::string file;
    std::vector<ScenarioStep> steps;
};

// Reads a scenario file. On failure returns nothing and sets `error` to
// "FILE:LINE: what is wrong" (FILE as given).
std::optional<Scenario> read_scenario_file(const std::string &path, std::string &error);
// The same for text already read; `file` names it in messages.
std::optional<Scenario> parse_scenario(std::string_view text, const std::string &file, std::string &error);

// A duration: a number (decimals allowed) and a unit (ns, us, ms, s, min), as
// "300ms" or "1.5s"; at most kMaxScenarioDelay. Nothing when it is not one.
std::optional<uint64_t> parse_duration(std::string_view text);

// Runs the loaded scenario in a simulation.
class ScenarioRunner {
public:
    explicit ScenarioRunner(Simulation &sim) : sim_(sim) {}
    ~ScenarioRunner();
    ScenarioRunner(const ScenarioRunner &) = delete;
    ScenarioRunner &operator=(const ScenarioRunner &) = delete;

    // Replaces the running scenario (its pending firings are dropped); times
    // of `at` steps count from now.
    void load(Scenario scenario);
    void clear();
    // One line naming the file and one per step with its firings.
    std::string status() const;

    // Hooks of the simulation: a call or an open about to be answered, and a
    // state change of the coprocessor.
    ReplyPlan on_call(std::string_view service, uint32_t selector, std::span<const uint64_t> scalars,
                      std::span<const uint8_t> input);
    ReplyPlan on_open(std::string_view service);
    void on_state(uint64_t from, uint64_t to);

private:
    struct Live {
        uint64_t fired = 0;
        uint64_t matched = 0;   // calls that matched a call trigger
        std::optional<TimerQueue::Id> pending;
    };
    bool spent(size_t i) const;
    void arm(size_t i, uint64_t due_ns);
    void fire(size_t i, ReplyPlan *plan);
    void run_action(const ScenarioStep &step, const ScenarioAction &action, ReplyPlan *plan);
    void trace_step(const ScenarioStep &step, const std::string &fields);

    Simulation &sim_;
    std::optional<Scenario> scenario_;
    std::vector<Live> live_;
    uint64_t started_ns_ = 0;
    int depth_ = 0;   // firings running inside one another
};

}  // namespace talvex::sim
