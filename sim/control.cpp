#include "control.h"

#include "commands.h"
#include "scenario.h"
#include "talvex_driver.h"
#include "wire.h"

namespace talvex::sim {

namespace {

// Largest output a stub may be told to report (well inside one frame).
constexpr uint64_t kMaxStubOutput = 8u << 20;

// The time-synchronisation message's argument is a pointer to a record of
// two little-endian 64-bit times (the application processor's, then the
// coprocessor's), and clients read it as such.
constexpr size_t kTimeSyncBytes = 16;

const OptionRow *find_option(std::span<const OptionRow> known, std::string_view name) {
    for (const OptionRow &o : known)
        if (o.name == name) return &o;
    return nullptr;
}

// Splits words into options and positional words. `known` lists the
// options the command takes. "--" ends the options; "--name=value" is
// accepted for options with a value.
bool split_options(const std::vector<std::string> &words, size_t first, std::span<const OptionRow> known,
                   Options &opts, std::string &problem) {
    bool options_done = false;
    for (size_t i = first; i < words.size(); ++i) {
        std::string_view w = words[i];
        if (options_done || w.size() < 2 || w.substr(0, 2) != "--") {
            if (!options_done && (w == "-h")) {
                opts.help = true;
                continue;
            }
            opts.positional.emplace_back(w);
            continue;
        }
        if (w == "--") {
            options_done = true;
            continue;
        }
        std::string_view name = w.substr(2);
        std::optional<std::string_view> inline_value;
        if (auto eq = name.find('='); eq != std::string_view::npos) {
            inline_value = name.substr(eq + 1);
            name = name.substr(0, eq);
        }
        if (name == "help") {
            opts.help = true;
            continue;
        }
        std::string value;
        const OptionRow *row = find_option(known, name);
        if (!row) {
            problem = "unknown option '--" + std::string(name) + "'";
            return false;
        }
        if (row->takes_value) {
            if (inline_value) {
                value = *inline_value;
            } else if (i + 1 < words.size()) {
                value = words[++i];
            } else {
                problem = "missing value for --" + std::string(name);
                return false;
            }
        } else if (inline_value) {
            problem = "--" + std::string(name) + " takes no value";
            return false;
        }
        if (!opts.values.emplace(std::string(name), std::move(value)).second) {
            problem = "--" + std::string(name) + " given twice";
            return false;
        }
    }
    return true;
}

bool unexpected(const std::vector<std::string> &positional, size_t want, std::string &problem) {
    if (positional.size() <= want) return false;
    problem = "unexpected argument '" + positional[want] + "'";
    return true;
}

// Parsers that report what went wrong in `problem`.
bool number_option(const Options &o, std::string_view name, uint64_t max, uint64_t &out, std::string &problem) {
    const std::string *text = o.get(name);
    if (!text) return true;
    auto v = parse_unsigned(*text);
    if (!v || *v > max) {
        problem = "bad number for --" + std::string(name) + ": '" + *text + "'";
        return false;
    }
    out = *v;
    return true;
}

// A return code: any number that fits 32 bits, signed or unsigned.
std::optional<int32_t> parse_code(std::string_view text) {
    auto v = parse_signed(text);
    if (!v) return std::nullopt;
    auto s = static_cast<int64_t>(*v);
    if (!text.empty() && text[0] == '-') {
        if (s < INT32_MIN) return std::nullopt;
    } else if (*v > UINT32_MAX) {
        return std::nullopt;
    }
    return static_cast<int32_t>(static_cast<uint32_t>(*v));
}

bool list_option(const Options &o, std::string_view name, std::vector<uint64_t> &out, std::string &problem) {
    const std::string *text = o.get(name);
    if (!text) return true;
    auto v = parse_number_list(*text);
    if (!v || v->size() > Simulation::kMaxScalars) {
        problem = "bad number list for --" + std::string(name) + ": '" + *text + "'" +
                  (v ? " (at most 16 numbers)" : "");
        return false;
    }
    out = std::move(*v);
    return true;
}

bool hex_option(const Options &o, std::string_view name, std::vector<uint8_t> &out, std::string &problem) {
    const std::string *text = o.get(name);
    if (!text) return true;
    auto v = wire::from_hex(*text);
    if (!v) {
        problem = "bad hex for --" + std::string(name) + ": '" + *text + "'";
        return false;
    }
    out = std::move(*v);
    return true;
}

CFRef<CFTypeRef> make_value(std::string_view type, const std::string &text, std::string &problem) {
    if (type == "number") {
        auto v = parse_signed(text);
        if (!v) {
            problem = "bad number '" + text + "'";
            return {};
        }
        auto n = static_cast<int64_t>(*v);
        return CFRef<CFTypeRef>(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &n));
    }
    if (type == "string") {
        auto s = make_cf_string(text);
        if (!s) problem = "the value is not UTF-8 text";
        return CFRef<CFTypeRef>(s.release());
    }
    if (type == "bool") {
        if (text == "true" || text == "1") return CFRef<CFTypeRef>::retain(kCFBooleanTrue);
        if (text == "false" || text == "0") return CFRef<CFTypeRef>::retain(kCFBooleanFalse);
        problem = "bad bool '" + text + "' (true, false, 1 or 0)";
        return {};
    }
    if (type == "data") {
        auto bytes = wire::from_hex(text);
        if (!bytes) {
            problem = "bad hex '" + text + "'";
            return {};
        }
        return CFRef<CFTypeRef>(CFDataCreate(kCFAllocatorDefault, bytes->data(), static_cast<CFIndex>(bytes->size())));
    }
    problem = "unknown type '" + std::string(type) + "' (number, string, bool or data)";
    return {};
}

}  // namespace

bool parse_trace(std::string_view, const Options &o, ControlCommand &c, std::string &problem) {
    if (unexpected(o.positional, 0, problem)) return false;
    c.kind = ControlCommand::Kind::Trace;
    c.clear = o.has("clear");
    return true;
}

bool parse_stub(std::string_view, const Options &o, ControlCommand &c, std::string &problem) {
    if (unexpected(o.positional, 0, problem)) return false;
    auto only = [&](std::string_view mode, std::initializer_list<std::string_view> allowed) {
        for (auto &[name, value] : o.values) {
            bool ok = false;
            for (auto a : allowed) ok = ok || a == name;
            if (!ok) {
                problem = "--" + name + " does not apply to " + std::string(mode);
                return false;
            }
        }
        return true;
    };
    if (o.has("clear")) {
        if (!only("--clear", {"clear"})) return false;
        c.kind = ControlCommand::Kind::StubClear;
        return true;
    }
    uint64_t times = 0;
    if (!number_option(o, "times", UINT64_MAX, times, problem)) return false;
    if (o.has("times") && times == 0) {
        problem = "--times must be at least 1";
        return false;
    }
    std::optional<uint64_t> times_opt;
    if (o.has("times")) times_opt = times;
    IOReturn code = kIOReturnSuccess;
    if (const std::string *text = o.get("code")) {
        auto v = parse_code(*text);
        if (!v) {
            problem = "bad return code for --code: '" + *text + "'";
            return false;
        }
        code = *v;
    }
    if (o.has("open")) {
        if (!only("--open", {"open", "service", "code", "times"})) return false;
        if (!o.has("code")) {
            problem = "--open needs --code";
            return false;
        }
        if (code == kIOReturnSuccess) {
            problem = "--open needs a failure code, not 0";
            return false;
        }
        c.kind = ControlCommand::Kind::StubOpen;
        c.open_stub.code = code;
        c.open_stub.times = times_opt;
        return true;
    }
    if (!o.has("selector")) {
        problem = "--selector is required (or --open, or --clear)";
        return false;
    }
    c.kind = ControlCommand::Kind::StubCall;
    CallStub &s = c.call_stub;
    uint64_t selector = 0, size = 0;
    if (!number_option(o, "selector", UINT32_MAX, selector, problem)) return false;
    s.selector = static_cast<uint32_t>(selector);
    if (!list_option(o, "scalars", s.scalars_prefix, problem)) return false;
    if (!hex_option(o, "input-prefix", s.input_prefix, problem)) return false;
    if (!hex_option(o, "output", s.output, problem)) return false;
    if (s.output.size() > kMaxStubOutput) {
        problem = "--output is too long (at most 8 MiB)";
        return false;
    }
    if (!number_option(o, "output-size", kMaxStubOutput, size, problem)) return false;
    if (o.has("output-size")) s.output_size = size;
    if (!list_option(o, "scalar-outputs", s.scalar_outputs, problem)) return false;
    s.code = code;
    s.times = times_opt;
    return true;
}

bool parse_notify(std::string_view, const Options &o, ControlCommand &c, std::string &problem) {
    if (o.positional.empty()) {
        problem = "missing message type";
        return false;
    }
    if (unexpected(o.positional, 1, problem)) return false;
    auto type = parse_code(o.positional[0]);
    if (!type) {
        problem = "bad message type '" + o.positional[0] + "'";
        return false;
    }
    c.kind = ControlCommand::Kind::Notify;
    c.message_type = static_cast<uint32_t>(*type);
    if (o.has("value") && o.has("data")) {
        problem = "--value and --data exclude each other";
        return false;
    }
    if (const std::string *text = o.get("value")) {
        auto v = parse_signed(*text);
        if (!v) {
            problem = "bad number for --value: '" + *text + "'";
            return false;
        }
        c.arg = MessageArg::of_value(*v);
    } else if (o.has("data")) {
        std::vector<uint8_t> bytes;
        if (!hex_option(o, "data", bytes, problem)) return false;
        c.arg = MessageArg::of_data(std::move(bytes));
    }
    if (c.message_type == kTalvexMessageTimeSync && c.arg.kind != wire::ArgKind::None) {
        const size_t n = c.arg.data.size();
        if (c.arg.kind == wire::ArgKind::Value || n != kTimeSyncBytes) {
            problem = "the time-sync message carries --data (16 bytes: AP time, coprocessor time) or nothing, not " +
                      (c.arg.kind == wire::ArgKind::Value ? "--value" : std::to_string(n) + (n == 1 ? " byte" : " bytes"));
            return false;
        }
    }
    return true;
}

bool parse_property(std::string_view sub, const Options &o, ControlCommand &c, std::string &problem) {
    size_t want = sub == "set" ? 2 : 1;
    if (o.positional.size() < want) {
        problem = o.positional.empty() ? "missing key" : "missing value";
        return false;
    }
    if (unexpected(o.positional, want, problem)) return false;
    c.key = o.positional[0];
    if (c.key.empty() || !make_cf_string(c.key)) {
        problem = "the key must be non-empty UTF-8 text";
        return false;
    }
    if (sub == "delete") {
        c.kind = ControlCommand::Kind::PropertyDelete;
        return true;
    }
    c.kind = ControlCommand::Kind::PropertySet;
    const std::string *type = o.get("type");
    c.value = make_value(type ? std::string_view(*type) : "number", o.positional[1], problem);
    return static_cast<bool>(c.value);
}

bool parse_service(std::string_view sub, const Options &o, ControlCommand &c, std::string &problem) {
    if (o.positional.empty()) {
        problem = "missing service class";
        return false;
    }
    if (unexpected(o.positional, 1, problem)) return false;
    c.kind = sub == "publish" ? ControlCommand::Kind::Publish : ControlCommand::Kind::Unpublish;
    c.service = o.positional[0];
    return true;
}

// --- report channels
bool parse_channel(std::string_view sub, const Options &o, ControlCommand &c, std::string &problem) {
    size_t want = sub == "set" ? 2 : 1;
    if (o.positional.size() < want) {
        problem = o.positional.empty() ? "missing channel name" : "missing value";
        return false;
    }
    if (unexpected(o.positional, want, problem)) return false;
    c.kind = sub == "set" ? ControlCommand::Kind::ChannelSet : ControlCommand::Kind::ChannelRelease;
    c.channel = o.positional[0];
    if (!number_option(o, "index", UINT32_MAX, c.value_index, problem)) return false;
    if (sub == "set") {
        auto v = parse_signed(o.positional[1]);
        if (!v) {
            problem = "bad value '" + o.positional[1] + "'";
            return false;
        }
        c.channel_value = static_cast<int64_t>(*v);
    }
    return true;
}

// "auto", or a percentage from 0 to 100 with at most two decimals, in
// hundredths of a percent.
bool parse_load(std::string_view, const Options &o, ControlCommand &c, std::string &problem) {
    if (o.positional.empty()) {
        problem = "missing percentage (or auto)";
        return false;
    }
    if (unexpected(o.positional, 1, problem)) return false;
    c.kind = ControlCommand::Kind::Load;
    const std::string &text = o.positional[0];
    if (text == "auto") return true;
    size_t dot = text.find('.');
    std::string whole = text.substr(0, dot), fraction = dot == std::string::npos ? "" : text.substr(dot + 1);
    bool digits = !whole.empty() && whole.size() <= 3 && fraction.size() <= 2 && (dot == std::string::npos || !fraction.empty());
    for (char ch : whole + fraction) digits = digits && ch >= '0' && ch <= '9';
    uint32_t v = 0;
    if (digits) {
        v = static_cast<uint32_t>(std::stoul(whole)) * 100;
        if (!fraction.empty()) v += static_cast<uint32_t>(std::stoul(fraction)) * (fraction.size() == 1 ? 10 : 1);
    }
    if (!digits || v > 10'000) {
        problem = "bad percentage '" + text + "' (0 to 100, at most two decimals, or auto)";
        return false;
    }
    c.load = v;
    return true;
}

bool parse_scenario_control(std::string_view sub, const Options &o, ControlCommand &c, std::string &problem) {
    using Kind = ControlCommand::Kind;
    if (sub == "load") {
        if (o.positional.empty()) {
            problem = "missing scenario file";
            return false;
        }
        if (unexpected(o.positional, 1, problem)) return false;
        c.kind = Kind::ScenarioLoad;
        c.path = o.positional[0];
        return true;
    }
    if (unexpected(o.positional, 0, problem)) return false;
    c.kind = sub == "status" ? Kind::ScenarioStatus : Kind::ScenarioClear;
    return true;
}

std::optional<ControlCommand> parse_control(const std::vector<std::string> &words, std::string &error) {
    if (words.empty()) {
        error = "talvexsim: missing control command";
        return std::nullopt;
    }
    const std::string &name = words[0];
    const CommandRow *row = find_command(name);
    if (!row || !row->parse) {
        error = "talvexsim: unknown command '" + name + "'";
        return std::nullopt;
    }
    std::string where = name;
    auto fail = [&](const std::string &problem) -> std::optional<ControlCommand> {
        error = "talvexsim: " + where + ": " + problem;
        return std::nullopt;
    };
    auto help = [&] {
        ControlCommand c;
        c.kind = ControlCommand::Kind::Help;
        c.help = row->usage;
        return c;
    };
    size_t first = 1;
    std::span<const OptionRow> options = row->options;
    std::string_view sub;
    if (!row->subcommands.empty()) {
        sub = words.size() > 1 ? std::string_view(words[1]) : "";
        if (sub == "--help" || sub == "-h") return help();
        const SubcommandRow *s = find_subcommand(*row, sub);
        if (!s) {
            if (!sub.empty()) return fail("unknown subcommand '" + std::string(sub) + "'");
            std::string choices;
            for (const SubcommandRow &each : row->subcommands)
                choices += (choices.empty() ? "" : " or ") + std::string(each.name);
            return fail("missing subcommand (" + choices + ")");
        }
        where += " " + std::string(sub);
        first = 2;
        options = s->options;
    }
    ControlCommand c;
    c.service = kCoprocessorClass;
    Options o;
    std::string problem;
    if (!split_options(words, first, options, o, problem)) return fail(problem);
    if (o.help) return help();
    if (!row->parse(sub, o, c, problem)) return fail(problem);
    if (const std::string *svc = o.get("service")) c.service = *svc;
    c.call_stub.service = c.service;
    c.open_stub.service = c.service;
    return c;
}

ControlResult execute_control(Simulation &sim, const ControlCommand &c, ClientId client) {
    using Kind = ControlCommand::Kind;
    ControlResult result;
    auto fail = [&](std::string message) {
        result.code = 1;
        result.err = "talvexsim: " + message + "\n";
        return result;
    };
    switch (c.kind) {
    case Kind::Help: result.out = c.help; return result;
    case Kind::Trace:
        result.out = sim.trace().text();
        if (c.clear) sim.trace().clear();
        return result;
    case Kind::StubClear: sim.stubs().clear(); return result;
    case Kind::ScenarioLoad: {
        std::string error;
        auto scenario = read_scenario_file(c.path, error);
        if (!scenario) {
            result.code = 2;
            result.err = "talvexsim: " + error + "\n";
            return result;
        }
        sim.scenario().load(std::move(*scenario));
        return result;
    }
    case Kind::ScenarioStatus: result.out = sim.scenario().status(); return result;
    case Kind::ScenarioClear: sim.scenario().clear(); return result;
    default: break;
    }
    Service *service = sim.registry().find_class(c.service);
    if (!service) return fail("no service '" + c.service + "'");
    switch (c.kind) {
    case Kind::StubCall:
    case Kind::StubOpen:
        if (!(c.kind == Kind::StubCall ? sim.stubs().add(c.call_stub) : sim.stubs().add(c.open_stub)))
            return fail("stub: too many stubs (at most " + std::to_string(StubTable::kMaxStubs) + ", holding at most " +
                        std::to_string(StubTable::kMaxBytes) + " bytes)");
        break;
    case Kind::Notify: sim.notify(*service, c.message_type, c.arg); break;
    case Kind::PropertySet: {
        std::string why;
        if (sim.set_client_property(client, *service, c.key, c.value.get(), &why) != kIOReturnSuccess)
            return fail("property set: " + why);
        break;
    }
    case Kind::PropertyDelete:
        if (!service->remove_property(c.key)) return fail("property delete: " + c.service + " has no property '" + c.key + "'");
        sim.property_deleted(*service, c.key);
        break;
    case Kind::Publish: sim.set_published(*service, true); break;
    case Kind::Unpublish: sim.set_published(*service, false); break;
    case Kind::ChannelSet:
    case Kind::ChannelRelease:
    case Kind::Load: return execute_report_control(sim, *service, c);
    default: break;
    }
    return result;
}

std::optional<uint64_t> parse_unsigned(std::string_view text) {
    unsigned base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty()) return std::nullopt;
    uint64_t v = 0;
    for (char ch : text) {
        unsigned d;
        if (ch >= '0' && ch <= '9') d = static_cast<unsigned>(ch - '0');
        else if (base == 16 && ch >= 'a' && ch <= 'f') d = static_cast<unsigned>(ch - 'a' + 10);
        else if (base == 16 && ch >= 'A' && ch <= 'F') d = static_cast<unsigned>(ch - 'A' + 10);
        else return std::nullopt;
        if (v > (UINT64_MAX - d) / base) return std::nullopt;
        v = v * base + d;
    }
    return v;
}

std::optional<uint64_t> parse_signed(std::string_view text) {
    if (text.empty() || text[0] != '-') return parse_unsigned(text);
    auto v = parse_unsigned(text.substr(1));
    if (!v || *v > (uint64_t{1} << 63)) return std::nullopt;
    return ~*v + 1;
}

std::optional<std::vector<uint64_t>> parse_number_list(std::string_view text) {
    std::vector<uint64_t> out;
    if (text.empty()) return out;
    for (;;) {
        size_t comma = text.find(',');
        auto v = parse_signed(text.substr(0, comma));
        if (!v) return std::nullopt;
        out.push_back(*v);
        if (comma == std::string_view::npos) return out;
        text.remove_prefix(comma + 1);
    }
}

}  // namespace talvex::sim
