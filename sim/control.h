// Control commands: how bring-up engineers and tests steer the simulator
// (trace, stub, notify, property, service; channel and load for report
// channels; scenario). The command table (commands.h) names them with their usage and
// options; the `talvexsim` command line checks a command's words and
// forwards them, and the simulator parses them again and runs them.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cf_ref.h"
#include "simulation.h"
#include "stubs.h"

namespace talvex::sim {

struct ControlCommand {
    enum class Kind {
        Help, Trace, StubCall, StubOpen, StubClear, Notify, PropertySet, PropertyDelete, Publish, Unpublish,
        ChannelSet, ChannelRelease, Load, ScenarioLoad, ScenarioStatus, ScenarioClear,
    };
    Kind kind = Kind::Help;
    std::string help;                 // Help: the text to print
    bool clear = false;               // Trace: clear after printing
    std::string service;              // the service's class name (every kind that names one)
    CallStub call_stub;
    OpenStub open_stub;
    uint32_t message_type = 0;        // Notify
    MessageArg arg;                   // Notify
    std::string key;                  // PropertySet, PropertyDelete
    CFRef<CFTypeRef> value;           // PropertySet
    // --- report channels (executed by execute_report_control, report_control.cpp)
    std::string channel;              // ChannelSet, ChannelRelease: a name or a 0x channel ID
    uint64_t value_index = 0;         // ChannelSet, ChannelRelease: which value (--index)
    int64_t channel_value = 0;        // ChannelSet
    std::optional<uint32_t> load;     // Load: hundredths of a percent; nothing for "auto"
    std::string path;                 // ScenarioLoad: the scenario file
};

// A control command's words after its name (and subcommand), as
// split_options leaves them.
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

// The words of a control command, the first naming it. On failure returns
// nothing and sets `error` to a one-line message (no newline) naming the problem.
std::optional<ControlCommand> parse_control(const std::vector<std::string> &words, std::string &error);
// Runs a parsed command on behalf of a client (whose budget pays for the
// properties it sets). Fails (code 1) when it names a service that does not
// exist, or when a property would go over budget; a scenario file that cannot
// be loaded fails with code 2 (and the running scenario stays).
ControlResult execute_control(Simulation &sim, const ControlCommand &command, ClientId client = 0);
// Runs a ChannelSet, ChannelRelease or Load command on the service.
ControlResult execute_report_control(Simulation &sim, Service &service, const ControlCommand &command);

// The parsers of the command table's control commands (see ControlParser).
bool parse_trace(std::string_view, const Options &, ControlCommand &, std::string &problem);
bool parse_stub(std::string_view, const Options &, ControlCommand &, std::string &problem);
bool parse_notify(std::string_view, const Options &, ControlCommand &, std::string &problem);
bool parse_property(std::string_view subcommand, const Options &, ControlCommand &, std::string &problem);
bool parse_service(std::string_view subcommand, const Options &, ControlCommand &, std::string &problem);
bool parse_channel(std::string_view subcommand, const Options &, ControlCommand &, std::string &problem);
bool parse_load(std::string_view, const Options &, ControlCommand &, std::string &problem);
bool parse_scenario_control(std::string_view subcommand, const Options &, ControlCommand &, std::string &problem);

// Numbers: 0x-prefixed hexadecimal or decimal, no sign, no blanks; nothing on
// overflow or any other text.
std::optional<uint64_t> parse_unsigned(std::string_view text);
// As parse_unsigned, or a '-' followed by one: negative values give their
// 64-bit two's complement (-1 is 0xffffffffffffffff); below -2^63 fails.
std::optional<uint64_t> parse_signed(std::string_view text);
// A comma-separated list of parse_signed numbers ("" is an empty list).
std::optional<std::vector<uint64_t>> parse_number_list(std::string_view text);

}  // namespace talvex::sim
