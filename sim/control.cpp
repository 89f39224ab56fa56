#include "control.h"

#include <map>

#include "wire.h"

namespace talvex::sim {

namespace {

// Largest output a stub may be told to report (well inside one frame).
constexpr uint64_t kMaxStubOutput = 8u << 20;

constexpr const char *kTraceUsage =
    "usage: talvexsim trace [--clear]\n"
    "  Prints what clients did, one JSON object per line, oldest first.\n"
    "  --clear  empty the trace after printing it\n";

constexpr const char *kStubUsage =
    "usage: talvexsim stub --selector N [--service CLASS] [--scalars A,B,...] [--input-prefix HEX]\n"
    "                      [--code C] [--output HEX] [--output-size N] [--scalar-outputs A,B,...] [--times N]\n"
    "       talvexsim stub --open [--service CLASS] --code C [--times N]\n"
    "       talvexsim stub --clear\n"
    "  Makes matching calls (or user-client opens) answer as told instead of the model; the newest\n"
    "  matching stub answers. --scalars and --input-prefix match prefixes of the call's scalar inputs\n"
    "  and input structure. --output-size is the size reported back (default: the length of --output);\n"
    "  both are cut to the caller's capacity. --times N retires the stub after N matches.\n"
    "  Numbers are decimal or 0x hexadecimal. The default service is ZantraTalvexProcessor.\n";

constexpr const char *kNotifyUsage =
    "usage: talvexsim notify [--service CLASS] TYPE [--value V | --data HEX]\n"
    "  Delivers interest message TYPE to every client registered on the service. Its argument is\n"
    "  the value itself with --value, a copy of the bytes with --data, and null with neither.\n";

constexpr const char *kPropertyUsage =
    "usage: talvexsim property set [--service CLASS] KEY VALUE [--type number|string|bool|data]\n"
    "       talvexsim property delete [--service CLASS] KEY\n"
    "  Edits a service's registry properties. Numbers (the default type) are decimal or 0x\n"
    "  hexadecimal, negative allowed; bool is true, false, 1 or 0; data is hex.\n";

constexpr const char *kServiceUsage =
    "usage: talvexsim service unpublish CLASS\n"
    "       talvexsim service publish CLASS\n"
    "  Hides a service from matching, or restores it.\n";

// --- report channels
constexpr const char *kChannelUsage =
    "usage: talvexsim channel set [--service CLASS] [--index I] NAME VALUE\n"
    "       talvexsim channel release [--service CLASS] [--index I] NAME\n"
    "  set holds a report channel's value at VALUE (decimal or 0x hexadecimal, negative allowed)\n"
    "  until released; release lets it move with the model again, onward from the held value.\n"
    "  NAME is the channel's name exactly as published (\"IDLE MS \" ends in a blank) or its 0x\n"
    "  channel ID. Simple channels have one value; array channels four per element, chosen\n"
    "  with --index (default 0). The default service is ZantraTalvexProcessor.\n";

constexpr const char *kLoadUsage =
    "usage: talvexsim load PERCENT|auto\n"
    "  Pins the coprocessor's load (0 to 100, at most two decimals): while it is booted, its\n"
    "  IDLE MS counter then grows by (100 - PERCENT)% of the running time. auto lets the\n"
    "  model vary the load again.\n";

struct Options {
    std::map<std::string, std::string, std::less<>> values;   // option name -> value ("" for a flag)
    std::vector<std::string> positional;
    bool help = false;

    bool has(std::string_view name) const { return values.count(name) != 0; }
    const std::string *get(std::string_view name) const {
        auto it = values.find(name);
        return it == values.end() ? nullptr : &it->second;
    }
};

// Splits words into options and positional words. `with_value` and `flags`
// list the options the command knows (without their dashes). "--" ends the
// options; "--name=value" is accepted for options with a value.
bool split_options(const std::vector<std::string> &words, size_t first, std::initializer_list<std::string_view> with_value,
                   std::initializer_list<std::string_view> flags, Options &opts, std::string &problem) {
    auto known = [](std::initializer_list<std::string_view> list, std::string_view name) {
        for (auto n : list)
            if (n == name) return true;
        return false;
    };
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
        if (known(with_value, name)) {
            if (inline_value) {
                value = *inline_value;
            } else if (i + 1 < words.size()) {
                value = words[++i];
            } else {
                problem = "missing value for --" + std::string(name);
                return false;
            }
        } else if (known(flags, name)) {
            if (inline_value) {
                problem = "--" + std::string(name) + " takes no value";
                return false;
            }
        } else {
            problem = "unknown option '--" + std::string(name) + "'";
            return false;
        }
        if (!opts.values.emplace(std::string(name), std::move(value)).second) {
            problem = "--" + std::string(name) + " given twice";
            return false;
        }
    }
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

bool parse_stub(const Options &o, ControlCommand &c, std::string &problem) {
    if (!o.positional.empty()) {
        problem = "unexpected argument '" + o.positional.front() + "'";
        return false;
    }
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

bool parse_notify(const Options &o, ControlCommand &c, std::string &problem) {
    if (o.positional.empty()) {
        problem = "missing message type";
        return false;
    }
    if (o.positional.size() > 1) {
        problem = "unexpected argument '" + o.positional[1] + "'";
        return false;
    }
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

bool parse_property(std::string_view sub, const Options &o, ControlCommand &c, std::string &problem) {
    size_t want = sub == "set" ? 2 : 1;
    if (o.positional.size() < want) {
        problem = o.positional.empty() ? "missing key" : "missing value";
        return false;
    }
    if (o.positional.size() > want) {
        problem = "unexpected argument '" + o.positional[want] + "'";
        return false;
    }
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

// --- report channels
bool parse_channel(std::string_view sub, const Options &o, ControlCommand &c, std::string &problem) {
    size_t want = sub == "set" ? 2 : 1;
    if (o.positional.size() < want) {
        problem = o.positional.empty() ? "missing channel name" : "missing value";
        return false;
    }
    if (o.positional.size() > want) {
        problem = "unexpected argument '" + o.positional[want] + "'";
        return false;
    }
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
bool parse_load(const Options &o, ControlCommand &c, std::string &problem) {
    if (o.positional.size() != 1) {
        problem = o.positional.empty() ? "missing percentage (or auto)" : "unexpected argument '" + o.positional[1] + "'";
        return false;
    }
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

}  // namespace

bool is_control_command(std::string_view word) {
    return word == "trace" || word == "stub" || word == "notify" || word == "property" || word == "service" ||
           word == "channel" || word == "load";
}

std::string control_usage(std::string_view command) {
    if (command == "trace") return kTraceUsage;
    if (command == "stub") return kStubUsage;
    if (command == "notify") return kNotifyUsage;
    if (command == "property") return kPropertyUsage;
    if (command == "service") return kServiceUsage;
    if (command == "channel") return kChannelUsage;
    if (command == "load") return kLoadUsage;
    return {};
}

std::optional<ControlCommand> parse_control(const std::vector<std::string> &words, std::string &error) {
    if (words.empty()) {
        error = "talvexsim: missing control command";
        return std::nullopt;
    }
    const std::string &name = words[0];
    if (!is_control_command(name)) {
        error = "talvexsim: unknown command '" + name + "'";
        return std::nullopt;
    }
    ControlCommand c;
    c.service = kCoprocessorClass;
    std::string problem;
    std::string where = name;
    Options o;
    bool ok = false;
    if (name == "trace") {
        ok = split_options(words, 1, {}, {"clear"}, o, problem);
        if (ok && !o.help && !o.positional.empty()) {
            problem = "unexpected argument '" + o.positional.front() + "'";
            ok = false;
        }
        c.kind = ControlCommand::Kind::Trace;
        c.clear = o.has("clear");
    } else if (name == "stub") {
        ok = split_options(words, 1, {"selector", "service", "scalars", "input-prefix", "code", "output", "output-size",
                                      "scalar-outputs", "times"},
                           {"open", "clear"}, o, problem) &&
             (o.help || parse_stub(o, c, problem));
    } else if (name == "notify") {
        ok = split_options(words, 1, {"service", "value", "data"}, {}, o, problem) &&
             (o.help || parse_notify(o, c, problem));
    } else if (name == "property") {
        std::string sub = words.size() > 1 ? words[1] : "";
        if (sub == "--help" || sub == "-h") {
            o.help = true;
            ok = true;
        } else if (sub != "set" && sub != "delete") {
            problem = sub.empty() ? "missing subcommand (set or delete)" : "unknown subcommand '" + sub + "'";
        } else {
            where += " " + sub;
            ok = split_options(words, 2, sub == "set" ? std::initializer_list<std::string_view>{"service", "type"}
                                                      : std::initializer_list<std::string_view>{"service"},
                               {}, o, problem) &&
                 (o.help || parse_property(sub, o, c, problem));
        }
    } else if (name == "channel") {
        std::string sub = words.size() > 1 ? words[1] : "";
        if (sub == "--help" || sub == "-h") {
            o.help = true;
            ok = true;
        } else if (sub != "set" && sub != "release") {
            problem = sub.empty() ? "missing subcommand (set or release)" : "unknown subcommand '" + sub + "'";
        } else {
            where += " " + sub;
            ok = split_options(words, 2, {"service", "index"}, {}, o, problem) &&
                 (o.help || parse_channel(sub, o, c, problem));
        }
    } else if (name == "load") {
        ok = split_options(words, 1, {}, {}, o, problem) && (o.help || parse_load(o, c, problem));
    } else {   // service
        std::string sub = words.size() > 1 ? words[1] : "";
        if (sub == "--help" || sub == "-h") {
            o.help = true;
            ok = true;
        } else if (sub != "publish" && sub != "unpublish") {
            problem = sub.empty() ? "missing subcommand (publish or unpublish)" : "unknown subcommand '" + sub + "'";
        } else {
            where += " " + sub;
            ok = split_options(words, 2, {}, {}, o, problem);
            if (ok && !o.help) {
                if (o.positional.size() != 1) {
                    problem = o.positional.empty() ? "missing service class" : "unexpected argument '" + o.positional[1] + "'";
                    ok = false;
                } else {
                    c.kind = sub == "publish" ? ControlCommand::Kind::Publish : ControlCommand::Kind::Unpublish;
                    c.service = o.positional[0];
                }
            }
        }
    }
    if (!ok) {
        error = "talvexsim: " + where + ": " + problem;
        return std::nullopt;
    }
    if (o.help) {
        ControlCommand help;
        help.kind = ControlCommand::Kind::Help;
        help.help = control_usage(name);
        return help;
    }
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
