#include "cli.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>

#include "budget.h"
#include "control.h"
#include "control_client.h"
#include "report_models.h"
#include "safe_connect.h"
#include "scenario.h"
#include "supervise.h"

namespace talvex::sim {

namespace {

// The hidden option that the shell completion calls: `talvexsim
// --list-words WORD...` prints the words that may stand for the last WORD.
constexpr std::string_view kListWords = "--list-words";

// Takes a simulator option at words[i] (advancing i past its value). Returns
// false when words[i] is not one; sets `error` when it is one but is wrong.
bool take_sim_option(const std::vector<std::string> &words, size_t &i, SimOptions &opts, std::string &error) {
    const std::string &w = words[i];
    std::string name = w.substr(0, w.find('='));
    if (name != "--clock" && name != "--channels" && name != "--scenario") return false;
    std::string value;
    if (name.size() < w.size()) {
        value = w.substr(name.size() + 1);
    } else if (i + 1 < words.size()) {
        value = words[++i];
    } else {
        error = "missing value for " + name;
        return true;
    }
    if (name == "--scenario") {
        if (value.empty()) error = "--scenario needs a file";
        opts.scenario = value;
        return true;
    }
    if (name == "--clock") {
        if (value != "real" && value != "step") error = "bad value for --clock: '" + value + "' (real or step)";
        opts.step_clock = value == "step";
        return true;
    }
    auto n = parse_unsigned(value);
    if (!n || *n > kMaxExtraChannels)
        error = "bad number for --channels: '" + value + "' (0 to " + std::to_string(kMaxExtraChannels) + ")";
    else
        opts.channels = static_cast<size_t>(*n);
    return true;
}

bool is_help(const std::string &w) { return w == "--help" || w == "-h"; }

// 2, with the file's mistake on standard error, when the scenario file cannot
// be run; else 0.
int check_scenario(const SimOptions &opts) {
    std::string error;
    if (opts.scenario.empty() || read_scenario_file(opts.scenario, error)) return 0;
    std::fprintf(stderr, "talvexsim: %s\n", error.c_str());
    return 2;
}

int print_usage(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    return 0;
}

int run_or_shell(const Invocation &inv, bool run) {
    const std::string command(inv.row.name);
    std::vector<std::string> rest = inv.words;
    if (!rest.empty() && is_help(rest[0])) return print_usage(inv.row.usage);
    if (inv.socket) return complain(command + ": --socket does not apply (a private simulator gets a fresh socket)");
    // The simulator's options come first; the command starts at the
    // first other word (or after "--").
    SimOptions opts;
    size_t first = 0;
    for (std::string error; first < rest.size() && take_sim_option(rest, first, opts, error); ++first)
        if (!error.empty()) return complain(command + ": " + error);
    rest.erase(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(first));
    std::vector<std::string> cmd;
    if (run) {
        if (!rest.empty() && rest[0] == "--") rest.erase(rest.begin());
        if (rest.empty()) return complain("run: missing command to run");
        cmd = rest;
    } else {
        if (!rest.empty()) return complain("shell: unexpected argument '" + rest[0] + "'");
        const char *shell = std::getenv("SHELL");
        cmd.push_back(shell && *shell ? shell : "/bin/sh");
    }
    // A bad scenario file is refused here, before anything starts.
    if (int status = check_scenario(opts)) return status;
    return run_private(std::move(cmd), opts);
}

}  // namespace

int complain(const std::string &message) {
    std::fprintf(stderr, "talvexsim: %s\n", message.c_str());
    return 1;
}

int serve_command(const Invocation &inv) {
    const std::vector<std::string> &rest = inv.words;
    for (auto &w : rest)
        if (is_help(w)) return print_usage(inv.row.usage);
    bool exit_with_parent = false;
    SimOptions opts;
    BudgetOptions budget;
    for (size_t i = 0; i < rest.size(); ++i) {
        std::string error;
        if (take_sim_option(rest, i, opts, error)) {
            if (!error.empty()) return complain("serve: " + error);
        } else if (rest[i] == "--exit-with-parent") {
            exit_with_parent = true;
        } else if (rest[i] == "--budget-memory" || rest[i] == "--budget-descriptors") {
            // Smaller budgets than the process's limits give (for tests).
            bool memory = rest[i] == "--budget-memory";
            size_t least = memory ? kMinMemoryBudget : kMinDescriptors;
            auto n = i + 1 < rest.size() ? parse_unsigned(rest[i + 1]) : std::nullopt;
            if (!n || *n < least)
                return complain("serve: " + rest[i] + " needs a number of at least " + std::to_string(least));
            (memory ? budget.memory : budget.descriptors) = static_cast<size_t>(*n);
            ++i;
        } else {
            return complain("serve: unexpected argument '" + rest[i] + "'");
        }
    }
    return serve(inv.socket_path, exit_with_parent, opts, budget);
}

int run_command(const Invocation &inv) { return run_or_shell(inv, true); }

int shell_command(const Invocation &inv) { return run_or_shell(inv, false); }

int status_command(const Invocation &inv) {
    const std::vector<std::string> &rest = inv.words;
    if (!rest.empty() && is_help(rest[0])) return print_usage(inv.row.usage);
    if (!rest.empty()) return complain("status: unexpected argument '" + rest[0] + "'");
    return report_status(inv.socket_path);
}

int cli_main(int argc, char **argv) {
    if (argc > 1 && argv[1] == kListWords) {
        std::vector<std::string> words(argv + 2, argv + argc);
        if (words.empty()) words.emplace_back();
        for (const std::string &w : completion_words(words)) std::printf("%s\n", w.c_str());
        return 0;
    }
    // Take --socket out wherever it stands before a "--" (what follows "--"
    // belongs to the command of `run`).
    std::vector<std::string> args;
    std::optional<std::string> socket;
    bool passthrough = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (!passthrough && a == "--") passthrough = true;
        if (!passthrough && (a == "--socket" || a.rfind("--socket=", 0) == 0)) {
            std::string value;
            if (a == "--socket") {
                if (i + 1 >= argc) return complain("--socket needs a path");
                value = argv[++i];
            } else {
                value = a.substr(9);
            }
            if (value.empty()) return complain("--socket needs a path");
            if (socket) return complain("--socket given twice");
            socket = value;
            continue;
        }
        args.push_back(std::move(a));
    }
    if (args.empty()) return complain("missing command (see talvexsim --help)");
    const std::string command = args[0];
    if (is_help(command) || command == "help") return print_usage(overall_usage());
    const CommandRow *row = find_command(command);
    if (!row) return complain("unknown command '" + command + "' (see talvexsim --help)");
    std::string path = socket ? *socket : wire::default_socket_path();
    if (row->run) return row->run({*row, std::vector<std::string>(args.begin() + 1, args.end()), socket, path});

    // A control command: check the words here first, so that bad usage is
    // reported even without a simulator; the simulator checks them again.
    std::string error;
    auto parsed = parse_control(args, error);
    if (!parsed) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    if (parsed->kind == ControlCommand::Kind::Help) return print_usage(parsed->help);
    if (parsed->kind == ControlCommand::Kind::ScenarioLoad) {
        // Checked here, so that mistakes name the file as given; the
        // simulator, whose directory may differ, gets it as an absolute path.
        SimOptions check;
        check.scenario = parsed->path;
        if (int status = check_scenario(check)) return status;
        std::error_code ec;
        auto absolute = std::filesystem::absolute(parsed->path, ec);
        args = {"scenario", "load", ec ? parsed->path : absolute.string()};
    }
    return forward_control(path, args);
}

}  // namespace talvex::sim
