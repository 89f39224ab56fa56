// The shell completion's words, read off the command table: the bash
// completion (completion/talvexctl.bash) asks `talvexsim --list-words`.
//
// After talvexsim's own options comes a command; right after a command that
// has subcommands, a subcommand (or --help). Then, after an option that
// takes a value, that value's choices; for a word that starts with a dash,
// the options (with --help, outside subcommands); for another word, the
// choices of the first argument (with --help when there are no options to
// offer instead), or a command name and then file names for a command line.
// A command without arguments offers its options for any word.
#include <algorithm>

#include "commands.h"

namespace talvex::sim {

namespace {

const OptionRow *option_named(std::span<const OptionRow> options, std::string_view word) {
    if (!word.starts_with("--")) return nullptr;
    for (const OptionRow &o : options)
        if (word.substr(2) == o.name) return &o;
    return nullptr;
}

std::vector<std::string> listed(Words words) { return {words.begin(), words.end()}; }

std::vector<std::string> options_of(std::span<const OptionRow> options) {
    std::vector<std::string> out;
    for (const OptionRow &o : options) out.push_back("--" + std::string(o.name));
    return out;
}

// Everything that may stand at the word being typed, before filtering.
std::vector<std::string> candidates(std::span<const std::string> before, bool dash) {
    size_t i = 0;
    const CommandRow *command = nullptr;
    for (; i < before.size() && !command; ++i) {
        if (const OptionRow *o = option_named(global_options(), before[i]); o && o->takes_value) {
            if (++i == before.size()) return listed(o->values);
        } else if (!before[i].starts_with("-")) {
            command = find_command(before[i]);
            if (!command) return {};
        }
    }
    if (!command) {
        if (dash) return options_of(global_options());
        std::vector<std::string> out;
        for (const CommandRow &c : command_table()) out.emplace_back(c.name);
        out.emplace_back("help");
        return out;
    }

    std::span<const OptionRow> options = command->options;
    Arguments arguments = command->arguments;
    const bool top = command->subcommands.empty();
    if (!top) {
        if (i == before.size()) {
            std::vector<std::string> out;
            for (const SubcommandRow &s : command->subcommands) out.emplace_back(s.name);
            out.emplace_back("--help");
            return out;
        }
        const SubcommandRow *sub = find_subcommand(*command, before[i++]);
        if (!sub) return {};
        options = sub->options;
        arguments = sub->arguments;
    }

    size_t others = 0;   // words that are not options or their values
    bool options_done = false;
    for (; i < before.size(); ++i) {
        const std::string &w = before[i];
        if (arguments.kind == Arguments::CommandLine && others > 0) {
            ++others;   // the command's own words
        } else if (!options_done && w == "--") {
            options_done = true;
        } else if (!options_done && w.starts_with("-")) {
            const OptionRow *o = option_named(options, w);
            if (!o) o = option_named(global_options(), w);   // --socket stands anywhere
            if (o && o->takes_value && ++i == before.size()) return listed(o->values);
        } else {
            ++others;
        }
    }

    dash = dash && !options_done;
    if (arguments.kind == Arguments::CommandLine && (others > 0 || !dash))
        return {std::string(others == 0 ? kCommandNames : kFileNames)};
    if (dash || arguments.kind == Arguments::None) {
        std::vector<std::string> out = options_of(options);
        if (top) out.emplace_back("--help");
        if (arguments.kind == Arguments::CommandLine) out.emplace_back("--");
        return out;
    }
    if (others > 0) return {};
    std::vector<std::string> out = listed(arguments.first);
    if (top && options.empty()) out.emplace_back("--help");
    return out;
}

}  // namespace

std::vector<std::string> completion_words(std::span<const std::string> words) {
    if (words.empty()) return {};
    const std::string_view typed = words.back();
    std::vector<std::string> out = candidates(words.first(words.size() - 1), typed.starts_with("-"));
    if (out.size() == 1 && (out[0] == kFileNames || out[0] == kCommandNames)) return out;
    std::erase_if(out, [&](const std::string &w) { return !w.starts_with(typed); });
    return out;
}

}  // namespace talvex::sim
