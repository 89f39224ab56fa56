#include "scenario.h"

#include <algorithm>

#include "coprocessor.h"
#include "simulation.h"
#include "trace.h"

namespace talvex::sim {

namespace {

// Firings that cause further firings (an action's state change triggering
// another step, and so on) stop this deep.
constexpr int kMaxDepth = 8;

template <typename T>
bool starts_with(std::span<const T> have, const std::vector<T> &prefix) {
    return have.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), have.begin());
}

Coprocessor *coprocessor(Simulation &sim) {
    Service *s = sim.registry().find_class(kCoprocessorClass);
    return s ? dynamic_cast<Coprocessor *>(s->model.get()) : nullptr;
}

}  // namespace

ScenarioRunner::~ScenarioRunner() { clear(); }

void ScenarioRunner::load(Scenario scenario) {
    clear();
    scenario_ = std::move(scenario);
    live_.assign(scenario_->steps.size(), Live{});
    started_ns_ = sim_.clock().now_ns();
    for (size_t i = 0; i < live_.size(); ++i)
        if (scenario_->steps[i].trigger.kind == ScenarioTrigger::Kind::At)
            arm(i, started_ns_ + scenario_->steps[i].trigger.delay_ns);
    // Steps due at once fire before anything else happens.
    sim_.run_timers();
}

void ScenarioRunner::clear() {
    for (Live &l : live_)
        if (l.pending) sim_.timers().cancel(*l.pending);
    live_.clear();
    scenario_.reset();
}

std::string ScenarioRunner::status() const {
    if (!scenario_) return "no scenario\n";
    const std::string &file = scenario_->file;
    std::string out = "scenario " + file.substr(file.rfind('/') + 1) + ": " + std::to_string(live_.size()) +
                      (live_.size() == 1 ? " step\n" : " steps\n");
    for (size_t i = 0; i < live_.size(); ++i) {
        const ScenarioStep &step = scenario_->steps[i];
        out += "  " + step.name + ": fired " + std::to_string(live_[i].fired) +
               (step.repeat ? " of " + std::to_string(step.repeat) : " (no end)") +
               (live_[i].pending ? ", pending" : "") + "\n";
    }
    return out;
}

bool ScenarioRunner::spent(size_t i) const {
    uint64_t repeat = scenario_->steps[i].repeat;
    return repeat != 0 && live_[i].fired >= repeat;
}

void ScenarioRunner::arm(size_t i, uint64_t due_ns) {
    if (spent(i)) return;
    Live &l = live_[i];
    if (l.pending) sim_.timers().cancel(*l.pending);
    l.pending = sim_.timers().add(due_ns, [this, i, due_ns] {
        live_[i].pending.reset();
        fire(i, nullptr);
        // Repeats keep to their grid from the first; one that time has
        // already passed (a coarse clock step) is not made up for.
        const ScenarioTrigger &t = scenario_->steps[i].trigger;
        if (t.kind == ScenarioTrigger::Kind::At && t.every_ns) {
            uint64_t now = sim_.clock().now_ns();
            arm(i, due_ns + t.every_ns * ((now - due_ns) / t.every_ns + 1));
        }
    });
}

void ScenarioRunner::trace_step(const ScenarioStep &step, const std::string &fields) {
    sim_.trace().add("{\"scenario\":\"step\",\"name\":" + json_string(step.name) + "," + fields + "}");
}

void ScenarioRunner::fire(size_t i, ReplyPlan *plan) {
    if (!scenario_ || spent(i)) return;
    const ScenarioStep &step = scenario_->steps[i];
    if (depth_ >= kMaxDepth) {
        trace_step(step, "\"skipped\":\"caused by " + std::to_string(kMaxDepth) + " firings in a row\"");
        return;
    }
    ++depth_;
    uint64_t fired = ++live_[i].fired;
    trace_step(step, "\"fired\":" + std::to_string(fired));
    for (const ScenarioAction &a : step.actions) run_action(step, a, plan);
    --depth_;
    // Steps that follow this one.
    for (size_t j = 0; j < live_.size(); ++j) {
        const ScenarioTrigger &t = scenario_->steps[j].trigger;
        if (t.kind == ScenarioTrigger::Kind::After && t.after == i) arm(j, sim_.clock().now_ns() + t.delay_ns);
    }
}

void ScenarioRunner::run_action(const ScenarioStep &step, const ScenarioAction &a, ReplyPlan *plan) {
    using Kind = ScenarioAction::Kind;
    std::string error;
    switch (a.kind) {
    case Kind::Control: {
        ControlResult r = execute_control(sim_, a.command);
        if (r.code != 0) {
            error = r.err;
            if (error.starts_with("talvexsim: ")) error.erase(0, 11);
            if (!error.empty() && error.back() == '\n') error.pop_back();
        }
        break;
    }
    case Kind::State:
        if (Coprocessor *cop = coprocessor(sim_)) cop->set_state(a.state);
        break;
    case Kind::Panic: {
        Coprocessor *cop = coprocessor(sim_);
        CallArgs args;
        args.selector = kTalvexMethodPanic;
        if (a.text) args.input = {reinterpret_cast<const uint8_t *>(a.text->data()), a.text->size()};
        CallReply reply;
        if (cop && cop->methods().dispatch(args, reply) != kIOReturnSuccess)
            error = "the firmware is not running: no panic";
        break;
    }
    case Kind::DelayReply:
        if (plan) plan->delay_ns = a.delay_ns;
        break;
    case Kind::NeverReply:
        if (plan) plan->never = true;
        break;
    }
    if (!error.empty())
        trace_step(step, "\"action\":" + json_string(a.what) + ",\"error\":" + json_string(error));
}

ReplyPlan ScenarioRunner::on_call(std::string_view service, uint32_t selector, std::span<const uint64_t> scalars,
                                  std::span<const uint8_t> input) {
    ReplyPlan plan;
    for (size_t i = 0; scenario_ && i < live_.size(); ++i) {
        const ScenarioTrigger &t = scenario_->steps[i].trigger;
        if (t.kind != ScenarioTrigger::Kind::Call || t.selector != selector || t.service != service ||
            !starts_with(scalars, t.scalars) || !starts_with(input, t.input_prefix) || spent(i))
            continue;
        if (++live_[i].matched % t.nth == 0) fire(i, &plan);
    }
    return plan;
}

ReplyPlan ScenarioRunner::on_open(std::string_view service) {
    ReplyPlan plan;
    for (size_t i = 0; scenario_ && i < live_.size(); ++i) {
        const ScenarioTrigger &t = scenario_->steps[i].trigger;
        if (t.kind != ScenarioTrigger::Kind::Open || t.service != service) continue;
        if (t.delay_ns) arm(i, sim_.clock().now_ns() + t.delay_ns);
        else fire(i, &plan);
    }
    return plan;
}

void ScenarioRunner::on_state(uint64_t from, uint64_t to) {
    if (from == to) return;
    for (size_t i = 0; scenario_ && i < live_.size(); ++i) {
        const ScenarioTrigger &t = scenario_->steps[i].trigger;
        if (t.kind != ScenarioTrigger::Kind::State || t.state != to) continue;
        if (t.delay_ns) arm(i, sim_.clock().now_ns() + t.delay_ns);
        else fire(i, nullptr);
    }
}

}  // namespace talvex::sim
