#include "commands.h"

#include <cstdio>

#include "cli.h"
#include "control.h"
#include "report_models.h"
#include "simulation.h"
#include "talvex_driver.h"

namespace talvex::sim {

namespace {

constexpr std::string_view kUsageHead =
    "usage: talvexsim [--socket PATH] COMMAND [ARGS...]\n"
    "\n"
    "The simulated driver registry that talvexctl talks to.\n"
    "\n"
    "Commands:\n";

constexpr std::string_view kUsageTail =
    "\n"
    "Each command's --help tells more. The socket is --socket PATH (before or after the\n"
    "command), else $TALVEX_SIM_SOCKET, else a per-user default under $XDG_RUNTIME_DIR or\n"
    "/tmp/talvexsim-$UID.\n";

// --- the commands talvexsim runs itself

// (serve also takes --budget-memory and --budget-descriptors, for tests;
// they are left out of its help and of the completion.)
constexpr std::string_view kServeUsage =
    "usage: talvexsim [--socket PATH] serve [--clock real|step] [--channels N] [--scenario FILE]\n"
    "                                       [--exit-with-parent]\n"
    "  Serves the simulated registry on the socket until SIGINT or SIGTERM.\n"
    "  --clock step        simulated time stands still except that every report hub update\n"
    "                      moves it on by exactly one second (figures repeat from run to run;\n"
    "                      delayed steps such as a boot wait for hub updates); default real\n"
    "  --channels N        N extra report channels of mixed formats on ZantraTalvexProcessor\n"
    "                      (at most 100000)\n"
    "  --scenario FILE     run the scenario in FILE from the start (see talvexsim(1)); a file\n"
    "                      with a mistake is refused with FILE:LINE and exit status 2\n"
    "  --exit-with-parent  also stop when the parent process ends (run and shell use it)\n";

constexpr std::string_view kRunUsage =
    "usage: talvexsim run [--clock real|step] [--channels N] [--scenario FILE] [--] CMD [ARGS...]\n"
    "  Starts a private simulator on a fresh socket, runs CMD with TALVEX_SIM_SOCKET naming it,\n"
    "  stops the simulator and exits with CMD's status (127 when CMD cannot be run).\n"
    "  --clock, --channels and --scenario are passed to the simulator (see serve --help).\n";

constexpr std::string_view kShellUsage =
    "usage: talvexsim shell [--clock real|step] [--channels N] [--scenario FILE]\n"
    "  Runs an interactive shell ($SHELL, else /bin/sh) against a private simulator and exits\n"
    "  with the shell's status. --clock, --channels and --scenario are passed to the simulator.\n";

constexpr std::string_view kStatusUsage =
    "usage: talvexsim [--socket PATH] status\n"
    "  Exits 0 and says so when a simulator of yours answers at the socket that talvexctl would\n"
    "  use now; otherwise exits 1 with one line on standard error naming the path and why not:\n"
    "  nothing there, not yours (its directory or the process listening belongs to another user,\n"
    "  or others can enter the directory), refused or full, not a simulator, path too long, or\n"
    "  timed out.\n";

// --- control commands

constexpr std::string_view kTraceUsage =
    "usage: talvexsim trace [--clear]\n"
    "  Prints what clients did, one JSON object per line, oldest first.\n"
    "  --clear  empty the trace after printing it\n";

constexpr std::string_view kStubUsage =
    "usage: talvexsim stub --selector N [--service CLASS] [--scalars A,B,...] [--input-prefix HEX]\n"
    "                      [--code C] [--output HEX] [--output-size N] [--scalar-outputs A,B,...] [--times N]\n"
    "       talvexsim stub --open [--service CLASS] --code C [--times N]\n"
    "       talvexsim stub --clear\n"
    "  Makes matching calls (or user-client opens) answer as told instead of the model; the newest\n"
    "  matching stub answers. --scalars and --input-prefix match prefixes of the call's scalar inputs\n"
    "  and input structure. --output-size is the size reported back (default: the length of --output);\n"
    "  both are cut to the caller's capacity. --times N retires the stub after N matches.\n"
    "  Numbers are decimal or 0x hexadecimal. The default service is ZantraTalvexProcessor.\n";

constexpr std::string_view kNotifyUsage =
    "usage: talvexsim notify [--service CLASS] TYPE [--value V | --data HEX]\n"
    "  Delivers interest message TYPE to every client registered on the service. Its argument is\n"
    "  the value itself with --value, a copy of the bytes with --data, and null with neither.\n";

constexpr std::string_view kPropertyUsage =
    "usage: talvexsim property set [--service CLASS] KEY VALUE [--type number|string|bool|data]\n"
    "       talvexsim property delete [--service CLASS] KEY\n"
    "  Edits a service's registry properties. Numbers (the default type) are decimal or 0x\n"
    "  hexadecimal, negative allowed; bool is true, false, 1 or 0; data is hex.\n";

constexpr std::string_view kServiceUsage =
    "usage: talvexsim service unpublish CLASS\n"
    "       talvexsim service publish CLASS\n"
    "  Hides a service from matching, or restores it.\n";

constexpr std::string_view kChannelUsage =
    "usage: talvexsim channel set [--service CLASS] [--index I] NAME VALUE\n"
    "       talvexsim channel release [--service CLASS] [--index I] NAME\n"
    "  set holds a report channel's value at VALUE (decimal or 0x hexadecimal, negative allowed)\n"
    "  until released; release lets it move with the model again, onward from the held value.\n"
    "  NAME is the channel's name exactly as published (\"IDLE MS \" ends in a blank) or its 0x\n"
    "  channel ID. Simple channels have one value; array channels four per element, chosen\n"
    "  with --index (default 0). The default service is ZantraTalvexProcessor.\n";

constexpr std::string_view kLoadUsage =
    "usage: talvexsim load PERCENT|auto\n"
    "  Pins the coprocessor's load (0 to 100, at most two decimals): while it is booted, its\n"
    "  IDLE MS counter then grows by (100 - PERCENT)% of the running time. auto lets the\n"
    "  model vary the load again.\n";

constexpr std::string_view kScenarioUsage =
    "usage: talvexsim scenario load FILE\n"
    "       talvexsim scenario status\n"
    "       talvexsim scenario clear\n"
    "  load replaces the running scenario with the one in FILE (its 'at' times count from now);\n"
    "  a file with a mistake is refused with FILE:LINE and exit status 2, and the running\n"
    "  scenario stays. status lists the steps and how often each fired; clear stops the\n"
    "  scenario (what its steps did stays). The format is in talvexsim(1).\n";

// --- words to offer

constexpr std::string_view kFiles[] = {kFileNames};
constexpr std::string_view kClockModes[] = {"real", "step"};
constexpr std::string_view kPropertyTypes[] = {"number", "string", "bool", "data"};
constexpr std::string_view kServiceClasses[] = {kCoprocessorClass, kReportHubClass, kPowerControllerClass,
                                                kThermalMonitorClass};
constexpr std::string_view kStateKey[] = {"talvex-state"};
constexpr std::string_view kLoadWords[] = {"auto"};

std::string hex_word(uint32_t v) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", v);
    return text;
}
// The coprocessor's messages.
const std::string kMessageText[] = {hex_word(kTalvexMessageStateChanged), hex_word(kTalvexMessageTimeSync)};
const std::string_view kMessageTypes[] = {kMessageText[0], kMessageText[1]};

// --- options

constexpr OptionRow kGlobalOptions[] = {with_value("socket", kFiles), flag("help")};
constexpr OptionRow kServeOptions[] = {with_value("clock", kClockModes), with_value("channels"),
                                        with_value("scenario", kFiles), flag("exit-with-parent"),
                                        with_value("socket", kFiles)};
constexpr OptionRow kPrivateOptions[] = {with_value("clock", kClockModes), with_value("channels"),
                                          with_value("scenario", kFiles)};
constexpr OptionRow kStatusOptions[] = {with_value("socket", kFiles)};
constexpr OptionRow kTraceOptions[] = {flag("clear")};
constexpr OptionRow kStubOptions[] = {
    with_value("selector"), with_value("service", kServiceClasses), with_value("scalars"),
    with_value("input-prefix"), with_value("code"), with_value("output"), with_value("output-size"),
    with_value("scalar-outputs"), with_value("times"), flag("open"), flag("clear"),
};
constexpr OptionRow kNotifyOptions[] = {with_value("service", kServiceClasses), with_value("value"),
                                         with_value("data")};
constexpr OptionRow kPropertySetOptions[] = {with_value("service", kServiceClasses),
                                              with_value("type", kPropertyTypes)};
constexpr OptionRow kServiceOption[] = {with_value("service", kServiceClasses)};
constexpr OptionRow kChannelOptions[] = {with_value("service", kServiceClasses), with_value("index")};

constexpr Arguments kKey{Arguments::Plain, kStateKey};
constexpr Arguments kPlain{Arguments::Plain};

constexpr SubcommandRow kPropertySubcommands[] = {
    {"set", kPropertySetOptions, kKey},
    {"delete", kServiceOption, kKey},
};
constexpr SubcommandRow kServiceSubcommands[] = {
    {"publish", {}, {Arguments::Plain, kServiceClasses}},
    {"unpublish", {}, {Arguments::Plain, kServiceClasses}},
};
constexpr SubcommandRow kScenarioSubcommands[] = {
    {"load", {}, {Arguments::Plain, kFiles}},
    {"status", {}, {}},
    {"clear", {}, {}},
};
constexpr SubcommandRow kChannelSubcommands[] = {
    {"set", kChannelOptions, kPlain},
    {"release", kChannelOptions, kPlain},
};

// In the order of talvexsim --help.
const CommandRow kCommands[] = {
    {"serve", "serve", "serve in the foreground until SIGINT or SIGTERM", kServeUsage, kServeOptions, {}, {},
     nullptr, serve_command},
    {"run", "run [--] CMD [ARGS...]", "run CMD against a private simulator; exit with CMD's status", kRunUsage,
     kPrivateOptions, {}, {Arguments::CommandLine}, nullptr, run_command},
    {"shell", "shell", "run an interactive shell ($SHELL) against a private simulator", kShellUsage,
     kPrivateOptions, {}, {}, nullptr, shell_command},
    {"trace", "trace [--clear]", "print what clients did, one JSON object per line", kTraceUsage, kTraceOptions, {},
     {}, parse_trace},
    {"stub", "stub ...", "make matching calls or opens answer as told", kStubUsage, kStubOptions, {}, {},
     parse_stub},
    {"notify", "notify ...", "deliver an interest message to registered clients", kNotifyUsage, kNotifyOptions, {},
     {Arguments::Plain, kMessageTypes}, parse_notify},
    {"property", "property set|delete ...", "edit a service's registry properties", kPropertyUsage, {},
     kPropertySubcommands, {}, parse_property},
    {"service", "service publish|unpublish CLASS", "restore or hide a service", kServiceUsage, {},
     kServiceSubcommands, {}, parse_service},
    {"channel", "channel set|release ...", "hold a report channel's value, or let it move again", kChannelUsage,
     {}, kChannelSubcommands, {}, parse_channel},
    {"load", "load PERCENT|auto", "pin the coprocessor's load, or let the model vary it", kLoadUsage, {}, {},
     {Arguments::Plain, kLoadWords}, parse_load},
    {"scenario", "scenario load|status|clear", "run a scenario file, show its steps, or stop it", kScenarioUsage,
     {}, kScenarioSubcommands, {}, parse_scenario_control},
    {"status", "status", "say whether a simulator answers at the socket, and if not, why", kStatusUsage,
     kStatusOptions, {}, {}, nullptr, status_command},
};

}  // namespace

std::span<const CommandRow> command_table() { return kCommands; }

std::span<const OptionRow> global_options() { return kGlobalOptions; }

const CommandRow *find_command(std::string_view name) {
    for (const CommandRow &c : kCommands)
        if (c.name == name) return &c;
    return nullptr;
}

const SubcommandRow *find_subcommand(const CommandRow &command, std::string_view name) {
    for (const SubcommandRow &s : command.subcommands)
        if (s.name == name) return &s;
    return nullptr;
}

std::string overall_usage() {
    constexpr size_t kColumn = 25;   // where the summaries begin, after two blanks
    std::string text(kUsageHead);
    for (const CommandRow &c : kCommands) {
        text += "  ";
        text += c.synopsis;
        if (c.synopsis.size() + 2 <= kColumn)
            text.append(kColumn - c.synopsis.size(), ' ');
        else
            text += "\n" + std::string(kColumn + 2, ' ');
        text += c.summary;
        text += '\n';
    }
    text += kUsageTail;
    return text;
}

}  // namespace talvex::sim
