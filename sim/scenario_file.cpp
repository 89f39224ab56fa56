// Scenario files: TOML read with toml++ (the only file that includes it: it
// is heavy to compile). Errors are "FILE:LINE: what is wrong", FILE as given.
//
// Table-valued actions become the words of the control command that does the
// same (stub, notify, property, channel), which parse_control checks, so a
// scenario and the command line accept exactly the same values.
#define TOML_HEADER_ONLY 1
#define TOML_EXCEPTIONS 0
#include <toml++/toml.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <span>

#include "budget.h"
#include "scenario.h"
#include "simulation.h"
#include "talvex_driver.h"
#include "wire.h"

namespace talvex::sim {

namespace {

using Line = uint32_t;

Line line_of(const toml::node &n) { return n.source().begin.line; }

struct StateName {
    std::string_view name;
    uint64_t value;
};
constexpr StateName kStates[] = {
    {"off", kTalvexStateOff},         {"stopped", kTalvexStateStopped},
    {"booting", kTalvexStateBooting}, {"booted", kTalvexStateBooted},
    {"notresponding", kTalvexStateNotResponding}, {"panic", kTalvexStatePanic},
};

std::optional<uint64_t> state_named(std::string_view text) {
    for (const StateName &s : kStates)
        if (s.name == text) return s.value;
    auto v = parse_unsigned(text);
    if (v && *v <= UINT32_MAX) return v;
    return std::nullopt;
}

// A value as one control command word: a number, text, true/false, or a
// list of numbers or texts joined by commas.
std::optional<std::string> word_of(const toml::node &n) {
    if (auto v = n.value_exact<int64_t>()) return std::to_string(*v);
    if (auto s = n.as_string()) return s->get();
    if (auto b = n.as_boolean()) return std::string(b->get() ? "true" : "false");
    if (auto a = n.as_array()) {
        std::string joined;
        for (const toml::node &e : *a) {
            if (e.is_array() || e.is_table() || e.is_boolean()) return std::nullopt;
            auto w = word_of(e);
            if (!w) return std::nullopt;
            joined += (joined.empty() ? "" : ",") + *w;
        }
        return joined;
    }
    return std::nullopt;
}

std::string dashed(std::string_view key) {
    std::string s(key);
    std::replace(s.begin(), s.end(), '_', '-');
    return s;
}

using Keys = std::span<const std::string_view>;

// A table-valued action: the control command it stands for, the keys that
// are its positional words (in order), its options with a value, its flags.
struct TableAction {
    std::string_view key, command, subcommand;
    Keys positional, options, flags;
};

constexpr std::string_view kStubOptions[] = {"selector", "service", "scalars", "input_prefix", "code",
                                             "output", "output_size", "scalar_outputs", "times"};
constexpr std::string_view kOpenFlag[] = {"open"};
constexpr std::string_view kTypeKey[] = {"type"};
constexpr std::string_view kNotifyOptions[] = {"service", "value", "data"};
constexpr std::string_view kKeyValue[] = {"key", "value"};
constexpr std::string_view kKey[] = {"key"};
constexpr std::string_view kServiceType[] = {"service", "type"};
constexpr std::string_view kService[] = {"service"};
constexpr std::string_view kNameValue[] = {"name", "value"};
constexpr std::string_view kName[] = {"name"};
constexpr std::string_view kServiceIndex[] = {"service", "index"};

constexpr TableAction kTableActions[] = {
    {"stub", "stub", "", {}, kStubOptions, kOpenFlag},
    {"notify", "notify", "", kTypeKey, kNotifyOptions, {}},
    {"set_property", "property", "set", kKeyValue, kServiceType, {}},
    {"delete_property", "property", "delete", kKey, kService, {}},
    {"set_channel", "channel", "set", kNameValue, kServiceIndex, {}},
    {"release_channel", "channel", "release", kName, kServiceIndex, {}},
};

// Keys with a plain value.
constexpr std::string_view kPlainActions[] = {"clear_stubs", "publish", "unpublish", "load",
                                              "state", "panic", "delay_reply", "never_reply"};
// The keys of a step that are not actions.
constexpr std::string_view kStepKeys[] = {"name", "at", "every", "after", "delay", "on", "call",
                                          "nth", "service", "scalars", "input_prefix", "repeat"};

template <typename List>
bool listed(const List &list, std::string_view key) {
    return std::find(std::begin(list), std::end(list), key) != std::end(list);
}

std::string joined(Keys keys) {
    std::string s;
    for (auto k : keys) s += (s.empty() ? "" : ", ") + std::string(k);
    return s;
}

class FileReader {
public:
    FileReader(const std::string &file, std::string &error) : file_(file), error_(error) {}

    std::optional<Scenario> read(const toml::table &top);

private:
    bool fail(Line line, const std::string &what) {
        error_ = file_ + ":" + std::to_string(line) + ": " + what;
        return false;
    }
    bool duration(const toml::node &n, std::string_view key, uint64_t &out);
    bool trigger(const toml::table &t, Line line, ScenarioStep &step, std::string &after_name);
    bool action(std::string_view key, const toml::node &value, const ScenarioTrigger &trigger, ScenarioStep &step);
    bool table_action(const TableAction &action_row, const toml::node &value, const ScenarioTrigger &trigger,
                      ScenarioAction &out);
    bool control(const TableAction &action_row, std::vector<std::string> words, Line line, ScenarioAction &out);

    const std::string &file_;
    std::string &error_;
};

bool FileReader::duration(const toml::node &n, std::string_view key, uint64_t &out) {
    auto text = n.value<std::string>();
    auto ns = text ? parse_duration(*text) : std::nullopt;
    if (!ns)
        return fail(line_of(n), std::string(key) +
                                    " takes a duration such as \"300ms\" or \"2s\" (ns, us, ms, s or min; at most a week)");
    out = *ns;
    return true;
}

bool FileReader::trigger(const toml::table &t, Line line, ScenarioStep &step, std::string &after_name) {
    using Kind = ScenarioTrigger::Kind;
    ScenarioTrigger &tr = step.trigger;
    const char *kinds[] = {"at", "after", "on", "call"};
    const char *chosen = nullptr;
    for (const char *k : kinds) {
        if (!t.contains(k)) continue;
        if (chosen) return fail(line, std::string("a step has one trigger, not both '") + chosen + "' and '" + k + "'");
        chosen = k;
    }
    if (!chosen) return fail(line, "a step needs a trigger: at, after, on or call");
    const std::string_view kind = chosen;
    // Keys that belong to other triggers.
    auto only_with = [&](std::string_view key, std::initializer_list<std::string_view> triggers) {
        const toml::node *n = t.get(key);
        if (!n || std::find(triggers.begin(), triggers.end(), kind) != triggers.end()) return true;
        return fail(line_of(*n), std::string(key) + " does not go with '" + std::string(kind) + "'");
    };
    if (!only_with("every", {"at"}) || !only_with("delay", {"after", "on"}) || !only_with("nth", {"call"}) ||
        !only_with("service", {"call"}) || !only_with("scalars", {"call"}) || !only_with("input_prefix", {"call"}))
        return false;
    const toml::node &cause = *t.get(kind);
    if (const toml::node *d = t.get("delay"); d && !duration(*d, "delay", tr.delay_ns)) return false;
    if (kind == "at") {
        tr.kind = Kind::At;
        if (!duration(cause, "at", tr.delay_ns)) return false;
        if (const toml::node *e = t.get("every"); e && !duration(*e, "every", tr.every_ns)) return false;
    } else if (kind == "after") {
        tr.kind = Kind::After;
        auto name = cause.value<std::string>();
        if (!name) return fail(line_of(cause), "after names another step");
        after_name = *name;
    } else if (kind == "on") {
        auto text = cause.value<std::string>();
        std::string_view event = text ? std::string_view(*text) : "";
        std::optional<uint64_t> state;
        if (event == "boot") state = kTalvexStateBooting;
        else if (event == "panic") state = kTalvexStatePanic;
        else if (event.starts_with("state:")) state = state_named(event.substr(6));
        if (state) {
            tr.kind = Kind::State;
            tr.state = *state;
        } else if (event.starts_with("open:") && event.size() > 5) {
            tr.kind = Kind::Open;
            tr.service = event.substr(5);
        } else {
            return fail(line_of(cause), "on takes \"state:NAME\" (off, stopped, booting, booted, notresponding, "
                                        "panic or a number), \"boot\", \"panic\" or \"open:CLASS\"");
        }
    } else {
        tr.kind = Kind::Call;
        auto selector = cause.value_exact<int64_t>();
        if (!selector || *selector < 0 || *selector > UINT32_MAX) return fail(line_of(cause), "call takes a selector number");
        tr.selector = static_cast<uint32_t>(*selector);
        tr.service = kCoprocessorClass;
        if (const toml::node *n = t.get("service")) {
            auto s = n->value<std::string>();
            if (!s || s->empty()) return fail(line_of(*n), "service takes a class name");
            tr.service = *s;
        }
        if (const toml::node *n = t.get("nth")) {
            auto v = n->value_exact<int64_t>();
            if (!v || *v < 1) return fail(line_of(*n), "nth takes a number from 1");
            tr.nth = static_cast<uint64_t>(*v);
        }
        if (const toml::node *n = t.get("scalars")) {
            auto w = word_of(*n);
            auto list = w && n->is_array() ? parse_number_list(*w) : std::nullopt;
            if (!list || list->size() > Simulation::kMaxScalars)
                return fail(line_of(*n), "scalars takes a list of at most 16 numbers");
            tr.scalars = std::move(*list);
        }
        if (const toml::node *n = t.get("input_prefix")) {
            auto w = n->value<std::string>();
            auto bytes = w ? wire::from_hex(*w) : std::nullopt;
            if (!bytes) return fail(line_of(*n), "input_prefix takes hex bytes, as \"0a1b\"");
            tr.input_prefix = std::move(*bytes);
        }
    }
    if (const toml::node *r = t.get("repeat")) {
        auto n = r->value_exact<int64_t>();
        auto word = r->value<std::string>();
        if (word && *word == "forever") step.repeat = 0;
        else if (n && *n >= 1 && static_cast<uint64_t>(*n) <= kMaxScenarioRepeat) step.repeat = static_cast<uint64_t>(*n);
        else return fail(line_of(*r), "repeat takes a number from 1 to 1000000, or \"forever\"");
        // A step that fires again and again on time must let time pass.
        if (step.repeat != 1 && tr.kind == Kind::At && tr.every_ns < kNanosPerMilli)
            return fail(line_of(*r), "a repeated 'at' step needs an 'every' of at least 1ms");
        if (step.repeat != 1 && tr.kind == Kind::After && tr.delay_ns < kNanosPerMilli)
            return fail(line_of(*r), "a repeated 'after' step needs a 'delay' of at least 1ms");
    }
    return true;
}

bool FileReader::control(const TableAction &action_row, std::vector<std::string> words, Line line, ScenarioAction &out) {
    std::string why;
    auto command = parse_control(words, why);
    if (!command) {
        // "talvexsim: property set: bad ..." -> "set_property: bad ..."
        std::string where = "talvexsim: " + std::string(action_row.command) +
                            (action_row.subcommand.empty() ? "" : " " + std::string(action_row.subcommand)) + ": ";
        if (why.starts_with(where)) why = std::string(action_row.key) + ": " + why.substr(where.size());
        for (Keys keys : {action_row.options, action_row.flags})
            for (auto k : keys)
                for (size_t at; (at = why.find("--" + dashed(k))) != std::string::npos;)
                    why.replace(at, k.size() + 2, k);
        return fail(line, why);
    }
    out.command = std::move(*command);
    return true;
}

bool FileReader::table_action(const TableAction &action_row, const toml::node &value, const ScenarioTrigger &trigger,
                              ScenarioAction &out) {
    const toml::table *t = value.as_table();
    const Line line = line_of(value);
    if (!t) return fail(line, std::string(action_row.key) + " takes a table, as " + std::string(action_row.key) + " = { ... }");
    std::vector<std::optional<std::string>> positional(action_row.positional.size());
    std::vector<std::string> options;
    std::map<std::string, std::string, std::less<>> given;
    for (auto &&[k, v] : *t) {
        const std::string_view name = k.str();
        const Line at = k.source().begin.line ? k.source().begin.line : line;
        auto word = word_of(v);
        if (!word) return fail(at, std::string(action_row.key) + "." + std::string(name) + " takes a number, text or list");
        given.emplace(name, *word);
        auto pos = std::find(action_row.positional.begin(), action_row.positional.end(), name);
        if (pos != action_row.positional.end()) {
            positional[static_cast<size_t>(pos - action_row.positional.begin())] = *word;
        } else if (listed(action_row.options, name)) {
            options.insert(options.end(), {"--" + dashed(name), *word});
        } else if (listed(action_row.flags, name)) {
            if (!v.is_boolean()) return fail(at, std::string(action_row.key) + "." + std::string(name) + " takes true or false");
            if (*word == "true") options.push_back("--" + dashed(name));
        } else {
            std::vector<std::string_view> all(action_row.positional.begin(), action_row.positional.end());
            all.insert(all.end(), action_row.options.begin(), action_row.options.end());
            all.insert(all.end(), action_row.flags.begin(), action_row.flags.end());
            return fail(at, std::string(action_row.key) + " has no key '" + std::string(name) + "' (it takes " + joined(all) + ")");
        }
    }
    // A stub of a step triggered by a request answers that request: the
    // selector and service default to the trigger's, and it answers once.
    auto defaults = [&](std::initializer_list<std::pair<std::string_view, std::string>> pairs) {
        for (auto &[k, v] : pairs)
            if (!given.count(k)) options.insert(options.end(), {"--" + dashed(k), v});
    };
    using Kind = ScenarioTrigger::Kind;
    const bool open = given.count("open") && given["open"] == "true";
    if (action_row.key == "stub" && trigger.kind == Kind::Call && !open && !given.count("selector"))
        defaults({{"selector", std::to_string(trigger.selector)}, {"service", trigger.service}, {"times", "1"}});
    if (action_row.key == "stub" && trigger.kind == Kind::Open && open) defaults({{"service", trigger.service}, {"times", "1"}});
    if (action_row.key == "set_property" && !given.count("type")) {
        const toml::node &v = *t->get("value");
        if (v.is_string()) options.insert(options.end(), {"--type", "string"});
        if (v.is_boolean()) options.insert(options.end(), {"--type", "bool"});
    }
    std::vector<std::string> words{std::string(action_row.command)};
    if (!action_row.subcommand.empty()) words.emplace_back(action_row.subcommand);
    words.insert(words.end(), options.begin(), options.end());
    words.emplace_back("--");
    for (size_t i = 0; i < positional.size(); ++i) {
        if (!positional[i]) return fail(line, std::string(action_row.key) + " needs '" + std::string(action_row.positional[i]) + "'");
        words.push_back(*positional[i]);
    }
    return control(action_row, std::move(words), line, out);
}

bool FileReader::action(std::string_view key, const toml::node &value, const ScenarioTrigger &trigger,
                        ScenarioStep &step) {
    using Kind = ScenarioAction::Kind;
    ScenarioAction a;
    a.what = key;
    const Line line = line_of(value);
    auto text = value.value<std::string>();
    const bool is_true = value.is_boolean() && *value.value<bool>();
    auto plain = [&](std::vector<std::string> words) {
        static constexpr TableAction kPlain{};
        TableAction action_row = kPlain;
        action_row.key = key;
        action_row.command = words[0];
        return control(action_row, std::move(words), line, a);
    };
    for (const TableAction &action_row : kTableActions) {
        if (action_row.key != key) continue;
        if (const toml::array *list = value.as_array(); list && !list->empty() && list->front().is_table()) {
            // Several of the same kind: stub = [{...}, {...}]
            for (const toml::node &each : *list) {
                if (!table_action(action_row, each, trigger, a)) return false;
                step.actions.push_back(a);
            }
            return true;
        }
        if (!table_action(action_row, value, trigger, a)) return false;
        step.actions.push_back(std::move(a));
        return true;
    }
    const bool request = (trigger.kind == ScenarioTrigger::Kind::Call || trigger.kind == ScenarioTrigger::Kind::Open) &&
                         trigger.delay_ns == 0;
    if (key == "clear_stubs") {
        if (!is_true) return fail(line, "clear_stubs takes true");
        if (!plain({"stub", "--clear"})) return false;
    } else if (key == "publish" || key == "unpublish") {
        if (!text || text->empty()) return fail(line, std::string(key) + " takes a service class name");
        if (!plain({"service", std::string(key), "--", *text})) return false;
    } else if (key == "load") {
        std::string word;
        if (text) {
            word = *text;
        } else if (auto d = value.value<double>(); d && std::isfinite(*d) && *d >= 0 && *d <= 100) {
            auto hundredths = static_cast<int64_t>(std::llround(*d * 100));
            if (std::fabs(*d * 100 - static_cast<double>(hundredths)) > 1e-6)
                return fail(line, "load takes a percentage with at most two decimals");
            word = std::to_string(hundredths / 100) + "." + std::to_string(hundredths % 100 / 10) +
                   std::to_string(hundredths % 10);
        } else {
            return fail(line, "load takes a percentage from 0 to 100, or \"auto\"");
        }
        if (!plain({"load", "--", word})) return false;
    } else if (key == "state") {
        auto number = value.value_exact<int64_t>();
        auto state = text ? state_named(*text)
                          : number && *number >= 0 && *number <= UINT32_MAX ? std::optional<uint64_t>(*number)
                                                                             : std::nullopt;
        if (!state)
            return fail(line, "state takes off, stopped, booting, booted, notresponding, panic or a number");
        a.kind = Kind::State;
        a.state = *state;
    } else if (key == "panic") {
        a.kind = Kind::Panic;
        if (text && text->size() > 256) return fail(line, "a panic text is at most 256 bytes");
        if (!text && !is_true) return fail(line, "panic takes its text, or true for none");
        a.text = text;
    } else if (key == "delay_reply" || key == "never_reply") {
        if (!request)
            return fail(line, std::string(key) + " goes only with a 'call' or 'on = \"open:...\"' trigger without delay");
        if (key == "never_reply") {
            if (!is_true) return fail(line, "never_reply takes true");
            a.kind = Kind::NeverReply;
        } else {
            a.kind = Kind::DelayReply;
            if (!duration(value, key, a.delay_ns)) return false;
        }
    }
    step.actions.push_back(std::move(a));
    return true;
}

std::optional<Scenario> FileReader::read(const toml::table &top) {
    Scenario scenario;
    scenario.file = file_;
    for (auto &&[k, v] : top)
        if (k.str() != "step") {
            fail(k.source().begin.line ? k.source().begin.line : 1,
                 "unknown key '" + std::string(k.str()) + "' (a scenario is a list of [[step]] tables)");
            return std::nullopt;
        }
    const toml::array *steps = top["step"].as_array();
    if (!steps || steps->empty()) {
        fail(1, "no steps: a scenario is a list of [[step]] tables");
        return std::nullopt;
    }
    std::vector<std::pair<std::string, Line>> after_names;   // per step
    for (const toml::node &node : *steps) {
        const toml::table *t = node.as_table();
        const Line line = line_of(node);
        if (!t) {
            fail(line, "each step is a table: [[step]]");
            return std::nullopt;
        }
        if (scenario.steps.size() == kMaxScenarioSteps) {
            fail(line, "too many steps (at most " + std::to_string(kMaxScenarioSteps) + ")");
            return std::nullopt;
        }
        ScenarioStep step;
        step.name = "step-" + std::to_string(scenario.steps.size() + 1);
        if (const toml::node *n = t->get("name")) {
            auto name = n->value<std::string>();
            if (!name || name->empty() || name->size() > 100) {
                fail(line_of(*n), "name takes a text of 1 to 100 bytes");
                return std::nullopt;
            }
            step.name = *name;
        }
        for (const ScenarioStep &other : scenario.steps)
            if (other.name == step.name) {
                fail(line, "a step named '" + step.name + "' comes earlier");
                return std::nullopt;
            }
        std::string after;
        if (!trigger(*t, line, step, after)) return std::nullopt;
        const toml::node *after_node = t->get("after");
        after_names.emplace_back(after, line_of(after_node ? *after_node : node));
        // Actions, in the order written.
        std::vector<std::pair<toml::source_position, std::string_view>> actions;
        for (auto &&[k, v] : *t) {
            if (listed(kStepKeys, k.str())) continue;
            bool known = listed(kPlainActions, k.str());
            for (const TableAction &action_row : kTableActions) known = known || action_row.key == k.str();
            if (!known) {
                fail(k.source().begin.line ? k.source().begin.line : line,
                     "a step has no key '" + std::string(k.str()) + "'");
                return std::nullopt;
            }
            actions.emplace_back(k.source().begin, k.str());
        }
        if (actions.empty()) {
            fail(line, "step '" + step.name + "' has no action");
            return std::nullopt;
        }
        std::sort(actions.begin(), actions.end(), [](const auto &x, const auto &y) {
            return std::pair(x.first.line, x.first.column) < std::pair(y.first.line, y.first.column);
        });
        for (auto &[where, key] : actions)
            if (!action(key, *t->get(key), step.trigger, step)) return std::nullopt;
        if (step.actions.size() > kMaxScenarioActions) {
            fail(line, "too many actions in one step (at most " + std::to_string(kMaxScenarioActions) + ")");
            return std::nullopt;
        }
        scenario.steps.push_back(std::move(step));
    }
    for (size_t i = 0; i < scenario.steps.size(); ++i) {
        const std::string &name = after_names[i].first;
        const Line line = after_names[i].second;
        if (scenario.steps[i].trigger.kind != ScenarioTrigger::Kind::After) continue;
        auto it = std::find_if(scenario.steps.begin(), scenario.steps.end(),
                               [&](const ScenarioStep &s) { return s.name == name; });
        if (it == scenario.steps.end()) {
            fail(line, "after names no step: '" + name + "'");
            return std::nullopt;
        }
        scenario.steps[i].trigger.after = static_cast<size_t>(it - scenario.steps.begin());
    }
    return scenario;
}

}  // namespace

std::optional<uint64_t> parse_duration(std::string_view text) {
    struct Unit {
        std::string_view name;
        uint64_t ns;
    };
    static constexpr Unit kUnits[] = {{"ns", 1}, {"us", kNanosPerMicro}, {"ms", kNanosPerMilli},
                                      {"min", 60 * kNanosPerSecond}, {"s", kNanosPerSecond}};
    size_t digits = 0;
    while (digits < text.size() && ((text[digits] >= '0' && text[digits] <= '9') || text[digits] == '.')) ++digits;
    std::string_view number = text.substr(0, digits), unit = text.substr(digits);
    size_t dot = number.find('.');
    std::string_view whole = number.substr(0, dot), fraction = dot == std::string_view::npos ? "" : number.substr(dot + 1);
    if (whole.empty() || whole.size() > 12 || fraction.size() > 9 || fraction.find('.') != std::string_view::npos ||
        (dot != std::string_view::npos && fraction.empty()))
        return std::nullopt;
    for (const Unit &u : kUnits) {
        if (u.name != unit) continue;
        auto w = parse_unsigned(whole);
        if (!w || *w > kMaxScenarioDelay / u.ns) return std::nullopt;
        uint64_t ns = *w * u.ns, scale = u.ns;
        for (char c : fraction) {
            scale /= 10;
            ns += static_cast<uint64_t>(c - '0') * scale;
        }
        if (ns > kMaxScenarioDelay) return std::nullopt;
        return ns;
    }
    return std::nullopt;
}

namespace {

// An error message as one line: control characters (the file's own text may
// bring them) are shown escaped.
std::string one_line(const std::string &text) {
    std::string out;
    for (unsigned char c : text) {
        if (c >= 0x20 && c != 0x7f) {
            out += static_cast<char>(c);
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        }
    }
    return out;
}

// The TOML reader (3.3) asks of characters U+00A1-U+0499, U+2C5E-U+3057
// and U+FB26-U+FEFE whether they are blanks, outside strings and in some
// places inside them, and that question has no defined answer for most of
// them. Files holding them are refused before it reads them: the first such
// character, with its line; nothing when there is none. Inside a string an
// escape (\u00e9) says the same.
std::optional<std::pair<Line, uint32_t>> unreadable_character(std::string_view text) {
    Line line = 1;
    for (size_t i = 0; i < text.size(); ++i) {
        auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
        if (byte(i) == '\n') ++line;
        if (byte(i) < 0xc2 || byte(i) > 0xef || i + 1 >= text.size()) continue;
        uint32_t c;
        if (byte(i) < 0xe0) c = (byte(i) & 0x1fu) << 6 | (byte(i + 1) & 0x3fu);
        else if (i + 2 < text.size()) c = (byte(i) & 0x0fu) << 12 | (byte(i + 1) & 0x3fu) << 6 | (byte(i + 2) & 0x3fu);
        else continue;
        if ((c >= 0xa1 && c <= 0x499) || (c >= 0x2c5e && c <= 0x3057 && c != 0x3000) || (c >= 0xfb26 && c <= 0xfefe))
            return std::pair(line, c);
    }
    return std::nullopt;
}

}  // namespace

std::optional<Scenario> parse_scenario(std::string_view text, const std::string &file, std::string &error) {
    if (auto bad = unreadable_character(text)) {
        char code[16];
        std::snprintf(code, sizeof code, "U+%04X", bad->second);
        error = one_line(file + ":" + std::to_string(bad->first) + ": " + code +
                         " is not accepted here; inside a string write it as an escape (\\u" +
                         std::string(code + 2) + ")");
        return std::nullopt;
    }
    toml::parse_result parsed = toml::parse(text, std::string_view(file));
    if (!parsed) {
        const toml::parse_error &e = parsed.error();
        error = one_line(file + ":" + std::to_string(std::max<Line>(e.source().begin.line, 1)) + ": " +
                         std::string(e.description()));
        return std::nullopt;
    }
    auto scenario = FileReader(file, error).read(parsed.table());
    if (!scenario) error = one_line(error);
    return scenario;
}

std::optional<Scenario> read_scenario_file(const std::string &path, std::string &error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = one_line(path + ": cannot be read");
        return std::nullopt;
    }
    std::string text;
    Line line = 1;
    char buf[4096];
    while (in.read(buf, sizeof buf) || in.gcount() > 0) {
        for (std::streamsize i = 0; i < in.gcount(); ++i) {
            if (text.size() == kMaxScenarioFileBytes) {
                error = one_line(path + ":" + std::to_string(line) + ": the file goes over " +
                                 std::to_string(kMaxScenarioFileBytes) + " bytes here");
                return std::nullopt;
            }
            text += buf[i];
            line += buf[i] == '\n';
        }
    }
    if (in.bad()) {
        error = one_line(path + ": cannot be read");
        return std::nullopt;
    }
    return parse_scenario(text, path, error);
}

}  // namespace talvex::sim
