// The talvexsim command table: every command's name, its line in
// `talvexsim --help`, its own usage, its options and subcommands, and what
// runs it. Parsing, the help texts and the shell completion's word lists all
// come from here (commands.cpp holds the table).
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace talvex::sim {

struct CommandRow;
struct ControlCommand;
struct Options;

// Words the completion offers. A list holding only kFileNames or
// kCommandNames stands for what the shell completes itself.
using Words = std::span<const std::string_view>;
inline constexpr std::string_view kFileNames = "@files";
inline constexpr std::string_view kCommandNames = "@commands";

struct OptionRow {
    std::string_view name;      // without its dashes
    bool takes_value = false;
    Words values{};             // the values to offer, when there is a choice
};

constexpr OptionRow flag(std::string_view name) { return {name, false, {}}; }
constexpr OptionRow with_value(std::string_view name, Words values = {}) { return {name, true, values}; }

// What a command's words other than its options are.
struct Arguments {
    enum Kind : unsigned char {
        None,          // it takes none
        Plain,         // words of its own; `first` lists choices for the first
        CommandLine,   // a command to run and that command's arguments
    };
    Kind kind = None;
    Words first{};
};

struct SubcommandRow {
    std::string_view name;
    std::span<const OptionRow> options;
    Arguments arguments;
};

// A command line as a command that talvexsim runs itself gets it.
struct Invocation {
    const CommandRow &row;
    std::vector<std::string> words;      // after the command word, --socket taken out
    std::optional<std::string> socket;   // --socket, when given
    std::string socket_path;             // where to look for a simulator
};

// A control command's parser: checks the words that split_options left
// (and the subcommand, if the command has them) and fills in the command,
// or sets `problem` to what is wrong.
using ControlParser = bool (*)(std::string_view subcommand, const Options &, ControlCommand &, std::string &problem);
// A command that talvexsim runs itself; returns the exit status.
using LocalHandler = int (*)(const Invocation &);

struct CommandRow {
    std::string_view name;
    std::string_view synopsis, summary;   // its line in talvexsim --help
    std::string_view usage;               // its own --help, ending with a newline
    std::span<const OptionRow> options;
    std::span<const SubcommandRow> subcommands;
    Arguments arguments;
    // One of the two: a control command, forwarded to the simulator (which
    // parses it again and runs it), or a command run here.
    ControlParser parse = nullptr;
    LocalHandler run = nullptr;
};

std::span<const CommandRow> command_table();
const CommandRow *find_command(std::string_view name);
const SubcommandRow *find_subcommand(const CommandRow &command, std::string_view name);
// The options that talvexsim takes before any command.
std::span<const OptionRow> global_options();

// `talvexsim --help`.
std::string overall_usage();

// The words that may stand for the last of `words` (the one being typed;
// the others are those before it on the command line, after `talvexsim`),
// already filtered by what it begins with. kFileNames or kCommandNames
// alone ask the shell to complete a file or command name instead.
std::vector<std::string> completion_words(std::span<const std::string> words);

}  // namespace talvex::sim
