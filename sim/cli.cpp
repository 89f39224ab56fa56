#include "cli.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <thread>

#include "budget.h"
#include "control.h"
#include "hub.h"
#include "report_models.h"
#include "safe_connect.h"
#include "server.h"
#include "wire.h"

extern char **environ;

namespace talvex::sim {

namespace {

constexpr const char *kUsage =
    "usage: talvexsim [--socket PATH] COMMAND [ARGS...]\n"
    "\n"
    "The simulated driver registry that talvexctl talks to.\n"
    "\n"
    "Commands:\n"
    "  serve                    serve in the foreground until SIGINT or SIGTERM\n"
    "  run [--] CMD [ARGS...]   run CMD against a private simulator; exit with CMD's status\n"
    "  shell                    run an interactive shell ($SHELL) against a private simulator\n"
    "  trace [--clear]          print what clients did, one JSON object per line\n"
    "  stub ...                 make matching calls or opens answer as told\n"
    "  notify ...               deliver an interest message to registered clients\n"
    "  property set|delete ...  edit a service's registry properties\n"
    "  service publish|unpublish CLASS\n"
    "                           restore or hide a service\n"
    "  channel set|release ...  hold a report channel's value, or let it move again\n"
    "  load PERCENT|auto        pin the coprocessor's load, or let the model vary it\n"
    "  status                   say whether a simulator answers at the socket, and if not, why\n"
    "\n"
    "Each command's --help tells more. The socket is --socket PATH (before or after the\n"
    "command), else $TALVEX_SIM_SOCKET, else a per-user default under $XDG_RUNTIME_DIR or\n"
    "/tmp/talvexsim-$UID.\n";

constexpr const char *kServeUsage =
    "usage: talvexsim [--socket PATH] serve [--clock real|step] [--channels N] [--exit-with-parent]\n"
    "  Serves the simulated registry on the socket until SIGINT or SIGTERM.\n"
    "  --clock step        simulated time stands still except that every report hub update\n"
    "                      moves it on by exactly one second (figures repeat from run to run;\n"
    "                      delayed steps such as a boot wait for hub updates); default real\n"
    "  --channels N        N extra report channels of mixed formats on ZantraTalvexProcessor\n"
    "                      (at most 100000)\n"
    "  --exit-with-parent  also stop when the parent process ends (run and shell use it)\n";

constexpr const char *kRunUsage =
    "usage: talvexsim run [--clock real|step] [--channels N] [--] CMD [ARGS...]\n"
    "  Starts a private simulator on a fresh socket, runs CMD with TALVEX_SIM_SOCKET naming it,\n"
    "  stops the simulator and exits with CMD's status (127 when CMD cannot be run).\n"
    "  --clock and --channels are passed to the simulator (see serve --help).\n";

constexpr const char *kShellUsage =
    "usage: talvexsim shell [--clock real|step] [--channels N]\n"
    "  Runs an interactive shell ($SHELL, else /bin/sh) against a private simulator and exits\n"
    "  with the shell's status. --clock and --channels are passed to the simulator.\n";

constexpr const char *kStatusUsage =
    "usage: talvexsim [--socket PATH] status\n"
    "  Exits 0 and says so when a simulator of yours answers at the socket that talvexctl would\n"
    "  use now; otherwise exits 1 with one line on standard error naming the path and why not:\n"
    "  nothing there, not yours (its directory or the process listening belongs to another user,\n"
    "  or others can enter the directory), refused or full, not a simulator, path too long, or\n"
    "  timed out.\n";

// --- simulator options shared by serve, run and shell
struct SimOptions {
    bool step_clock = false;
    size_t channels = 0;

    // The options as serve takes them.
    std::vector<std::string> words() const {
        std::vector<std::string> w;
        if (step_clock) w.insert(w.end(), {"--clock", "step"});
        if (channels) w.insert(w.end(), {"--channels", std::to_string(channels)});
        return w;
    }
};

// Takes a simulator option at words[i] (advancing i past its value). Returns
// false when words[i] is not one; sets `error` when it is one but is wrong.
bool take_sim_option(const std::vector<std::string> &words, size_t &i, SimOptions &opts, std::string &error) {
    const std::string &w = words[i];
    std::string name = w.substr(0, w.find('='));
    if (name != "--clock" && name != "--channels") return false;
    std::string value;
    if (name.size() < w.size()) {
        value = w.substr(name.size() + 1);
    } else if (i + 1 < words.size()) {
        value = words[++i];
    } else {
        error = "missing value for " + name;
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

int usage_error(const std::string &message) {
    std::fprintf(stderr, "talvexsim: %s\n", message.c_str());
    return 1;
}

bool is_help(const std::string &w) { return w == "--help" || w == "-h"; }

int exit_status(int st) {
    if (WIFEXITED(st)) return WEXITSTATUS(st);
    if (WIFSIGNALED(st)) return 128 + WTERMSIG(st);
    return 1;
}

// Private directories of `run` and `shell` left behind by a run that was
// killed: /tmp/talvexsim-run-XXXXXX directories of this user (never through
// a symbolic link) where nobody listens and that have not changed for a
// while (a run that is starting has not bound its socket yet). Only the
// socket and its lock file are removed from them, then the directory if
// that empties it. Bounded: so many entries looked at, so many removed.
constexpr const char *kPrivateDirParent = "/tmp";
constexpr std::string_view kPrivateDirPrefix = "talvexsim-run-";
constexpr std::chrono::seconds kPrivateDirQuiet{30};

bool private_dir_name(std::string_view name) {
    if (name.size() != kPrivateDirPrefix.size() + 6 || !name.starts_with(kPrivateDirPrefix)) return false;
    for (char c : name.substr(kPrivateDirPrefix.size()))
        if (!std::isalnum(static_cast<unsigned char>(c))) return false;
    return true;
}

void remove_stale_private_dirs() {
    constexpr size_t kMaxLooked = 10000, kMaxProbed = 64;
    DIR *parent = opendir(kPrivateDirParent);
    if (!parent) return;
    const int pfd = dirfd(parent);
    const auto quiet_since = std::chrono::system_clock::now() - kPrivateDirQuiet;
    size_t looked = 0, probed = 0;
    while (dirent *e = readdir(parent)) {
        if (++looked > kMaxLooked || probed >= kMaxProbed) break;
        if (!private_dir_name(e->d_name)) continue;
        struct stat st;
        if (fstatat(pfd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid())
            continue;
        if (std::chrono::system_clock::from_time_t(st.st_mtime) > quiet_since) continue;
        ++probed;
        const std::string dir = std::string(kPrivateDirParent) + "/" + e->d_name;
        if (wire::connect_checked(dir + "/sim.sock", std::chrono::milliseconds(100)).reach != wire::Reach::NothingThere)
            continue;
        wire::OwnedFd fd(openat(pfd, e->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        struct stat again;
        if (!fd || fstat(fd.get(), &again) != 0 || again.st_ino != st.st_ino || again.st_dev != st.st_dev) continue;
        unlinkat(fd.get(), "sim.sock", 0);
        unlinkat(fd.get(), "sim.sock.lock", 0);
        unlinkat(pfd, e->d_name, AT_REMOVEDIR);   // fails, leaving it, when anything else is inside
    }
    closedir(parent);
}

std::vector<std::string> environment_with_socket(const std::string &socket) {
    std::vector<std::string> env;
    for (char **e = environ; *e; ++e)
        if (std::strncmp(*e, "TALVEX_SIM_SOCKET=", 18) != 0) env.emplace_back(*e);
    env.push_back("TALVEX_SIM_SOCKET=" + socket);
    return env;
}

std::vector<char *> c_strings(std::vector<std::string> &v) {
    std::vector<char *> out;
    for (auto &s : v) out.push_back(s.data());
    out.push_back(nullptr);
    return out;
}

// The command that `run` or `shell` is waiting for; signals meant for us go to it.
volatile pid_t g_command = -1;

extern "C" void forward_to_command(int sig) {
    if (g_command > 0) kill(g_command, sig);
}

// What `serve` may hold: from the process's limits, or smaller when told.
struct BudgetOptions {
    std::optional<size_t> memory, descriptors;
};

int serve(const std::string &socket_path, bool exit_with_parent, const SimOptions &opts, const BudgetOptions &budget) {
    if (exit_with_parent) {
        pid_t parent = getppid();
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) return 1;   // the parent is already gone
    }
    std::unique_ptr<Clock> clock;
    StepClock *step = nullptr;
    if (opts.step_clock) {
        auto c = std::make_unique<StepClock>();
        step = c.get();
        clock = std::move(c);
    }
    ProcessLimits process = process_limits();
    size_t memory = budget.memory.value_or(process.memory);
    size_t descriptors = std::min(budget.descriptors.value_or(process.descriptors), process.descriptors);
    Server server(std::move(clock), BudgetLimits::derive(memory, descriptors));
    if (ReportHub *hub = ReportHub::of(server.simulation())) hub->set_step_clock(step);
    if (!add_extra_report_channels(server.simulation(), opts.channels))
        return usage_error("serve: cannot add " + std::to_string(opts.channels) + " report channels");
    std::string error;
    if (!server.listen(socket_path, error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    server.stop_on_signals();
    server.run();
    return 0;
}

// Starts `talvexsim serve` on a fresh socket in a fresh private directory,
// runs `cmd` against it, stops it and cleans up. Returns cmd's exit status.
int run_private(std::vector<std::string> cmd, const SimOptions &opts) {
    remove_stale_private_dirs();
    std::string tmpl_text = std::string(kPrivateDirParent) + "/" + std::string(kPrivateDirPrefix) + "XXXXXX";
    std::vector<char> tmpl(tmpl_text.begin(), tmpl_text.end());
    tmpl.push_back('\0');
    if (!mkdtemp(tmpl.data()))
        return usage_error(std::string("cannot create a private directory: ") + std::strerror(errno));
    std::string dir = tmpl.data();
    std::string socket = dir + "/sim.sock";
    auto cleanup_dir = [&] {
        unlink(socket.c_str());
        unlink((socket + ".lock").c_str());
        rmdir(dir.c_str());
    };

    // The simulator: this same program, in its own process group so that the
    // terminal's interrupt reaches only the command.
    std::vector<std::string> sim_argv{"talvexsim", "serve", "--exit-with-parent", "--socket", socket};
    for (auto &w : opts.words()) sim_argv.push_back(w);
    auto sim_args = c_strings(sim_argv);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attr, 0);
    pid_t sim = -1;
    int rc = posix_spawn(&sim, "/proc/self/exe", nullptr, &attr, sim_args.data(), environ);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) {
        cleanup_dir();
        return usage_error(std::string("cannot start the simulator: ") + std::strerror(rc));
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    for (;;) {
        if (wire::connect_checked(socket, std::chrono::milliseconds(100)).reach == wire::Reach::Answered) break;
        int st;
        if (waitpid(sim, &st, WNOHANG) == sim || std::chrono::steady_clock::now() > deadline) {
            kill(sim, SIGKILL);
            waitpid(sim, &st, 0);
            cleanup_dir();
            return usage_error("the private simulator did not start");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }

    // While the command runs, interrupts are its business, not ours (the
    // terminal sends them to it directly); a hangup or termination sent to
    // us is passed on to it. Either way we clean up after it exits.
    struct sigaction ignore {}, forward {}, old_int {}, old_quit {}, old_hup {}, old_term {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    forward.sa_handler = forward_to_command;
    sigemptyset(&forward.sa_mask);
    sigaction(SIGINT, &ignore, &old_int);
    sigaction(SIGQUIT, &ignore, &old_quit);
    sigaction(SIGHUP, &forward, &old_hup);
    sigaction(SIGTERM, &forward, &old_term);

    auto env = environment_with_socket(socket);
    auto envp = c_strings(env);
    auto argv = c_strings(cmd);
    posix_spawnattr_t cattr;
    posix_spawnattr_init(&cattr);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGQUIT);
    sigaddset(&defaults, SIGHUP);
    sigaddset(&defaults, SIGTERM);
    posix_spawnattr_setsigdefault(&cattr, &defaults);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&cattr, &none);
    posix_spawnattr_setflags(&cattr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    // A termination that arrives before the command's pid is known waits
    // (blocked) until it is, then goes to the command.
    sigset_t held, old_mask;
    sigemptyset(&held);
    sigaddset(&held, SIGHUP);
    sigaddset(&held, SIGTERM);
    sigprocmask(SIG_BLOCK, &held, &old_mask);
    pid_t child = -1;
    rc = posix_spawnp(&child, cmd[0].c_str(), nullptr, &cattr, argv.data(), envp.data());
    posix_spawnattr_destroy(&cattr);
    if (rc == 0) g_command = child;
    sigprocmask(SIG_SETMASK, &old_mask, nullptr);
    int status;
    if (rc != 0) {
        std::fprintf(stderr, "talvexsim: cannot run %s: %s\n", cmd[0].c_str(), std::strerror(rc));
        status = 127;
    } else {
        int st = 0;
        while (waitpid(child, &st, 0) < 0 && errno == EINTR) {
        }
        g_command = -1;
        status = exit_status(st);
    }
    sigaction(SIGINT, &old_int, nullptr);
    sigaction(SIGQUIT, &old_quit, nullptr);
    sigaction(SIGHUP, &old_hup, nullptr);
    sigaction(SIGTERM, &old_term, nullptr);

    kill(sim, SIGTERM);
    int st = 0;
    while (waitpid(sim, &st, 0) < 0 && errno == EINTR) {
    }
    if (exit_status(st) != 0)
        std::fprintf(stderr, "talvexsim: the private simulator exited with status %d\n", exit_status(st));
    cleanup_dir();
    return status;
}

}  // namespace

int forward_control(const std::string &socket_path, const std::vector<std::string> &words) {
    wire::Outcome there = wire::reach_simulator(socket_path);
    if (there.reach != wire::Reach::Answered) return usage_error(wire::explain(there, socket_path));
    const int fd = there.fd.get();
    constexpr uint32_t kSeq = 2;   // after the greeting's
    wire::Writer body;
    body.u32(static_cast<uint32_t>(words.size()));
    for (auto &w : words) body.str(w);
    auto request = wire::make_request(wire::Op::Control, kSeq, body.data());
    auto deadline = std::chrono::steady_clock::now() + wire::kReplyTimeout;
    int result = -1;
    if (wire::send_before(fd, request, deadline)) {
        // Skip anything that is not our reply (events cannot come before
        // we register for any, but a frame is a frame).
        while (auto frame = wire::read_frame_before(fd, deadline, wire::kMaxFrame)) {
            wire::Reader r(*frame);
            uint16_t op = r.u16();
            r.u16();
            uint32_t seq = r.u32();
            if (op != (static_cast<uint16_t>(wire::Op::Control) | wire::kReplyBit) || seq != kSeq) continue;
            int32_t code = r.i32();
            std::string out = r.str(), err = r.str();
            if (!r.ok()) {
                std::fprintf(stderr, "talvexsim: the simulator refused the command (code %#x)\n",
                             static_cast<unsigned>(code));
                result = 1;
                break;
            }
            std::fwrite(out.data(), 1, out.size(), stdout);
            std::fflush(stdout);
            std::fwrite(err.data(), 1, err.size(), stderr);
            result = code == 0 ? 0 : 1;
            break;
        }
    }
    if (result >= 0) return result;
    if (std::chrono::steady_clock::now() >= deadline)
        return usage_error("no answer from the simulator at " + socket_path + ": timed out after " +
                           std::to_string(wire::kReplyTimeout.count() / 1000) + " s");
    return usage_error("no answer from the simulator at " + socket_path + ": it closed the connection");
}

int report_status(const std::string &socket_path) {
    wire::Outcome there = wire::reach_simulator(socket_path);
    if (there.reach != wire::Reach::Answered) return usage_error(wire::explain(there, socket_path));
    std::printf("%s\n", wire::explain(there, socket_path).c_str());
    return 0;
}

int cli_main(int argc, char **argv) {
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
                if (i + 1 >= argc) return usage_error("--socket needs a path");
                value = argv[++i];
            } else {
                value = a.substr(9);
            }
            if (value.empty()) return usage_error("--socket needs a path");
            if (socket) return usage_error("--socket given twice");
            socket = value;
            continue;
        }
        args.push_back(std::move(a));
    }
    if (args.empty()) return usage_error("missing command (see talvexsim --help)");
    const std::string command = args[0];
    if (is_help(command) || command == "help") {
        std::fputs(kUsage, stdout);
        return 0;
    }
    std::vector<std::string> rest(args.begin() + 1, args.end());
    std::string path = socket ? *socket : wire::default_socket_path();

    if (command == "serve") {
        bool exit_with_parent = false;
        for (auto &w : rest) {
            if (is_help(w)) {
                std::fputs(kServeUsage, stdout);
                return 0;
            }
        }
        SimOptions opts;
        BudgetOptions budget;
        for (size_t i = 0; i < rest.size(); ++i) {
            std::string error;
            if (take_sim_option(rest, i, opts, error)) {
                if (!error.empty()) return usage_error("serve: " + error);
            } else if (rest[i] == "--exit-with-parent") {
                exit_with_parent = true;
            } else if (rest[i] == "--budget-memory" || rest[i] == "--budget-descriptors") {
                // Smaller budgets than the process's limits give (for tests).
                bool memory = rest[i] == "--budget-memory";
                size_t least = memory ? kMinMemoryBudget : kMinDescriptors;
                auto n = i + 1 < rest.size() ? parse_unsigned(rest[i + 1]) : std::nullopt;
                if (!n || *n < least)
                    return usage_error("serve: " + rest[i] + " needs a number of at least " + std::to_string(least));
                (memory ? budget.memory : budget.descriptors) = static_cast<size_t>(*n);
                ++i;
            } else {
                return usage_error("serve: unexpected argument '" + rest[i] + "'");
            }
        }
        return serve(path, exit_with_parent, opts, budget);
    }
    if (command == "run" || command == "shell") {
        if (!rest.empty() && is_help(rest[0])) {
            std::fputs(command == "run" ? kRunUsage : kShellUsage, stdout);
            return 0;
        }
        if (socket) return usage_error(command + ": --socket does not apply (a private simulator gets a fresh socket)");
        // The simulator's options come first; the command starts at the
        // first other word (or after "--").
        SimOptions opts;
        size_t first = 0;
        for (std::string error; first < rest.size() && take_sim_option(rest, first, opts, error); ++first)
            if (!error.empty()) return usage_error(command + ": " + error);
        rest.erase(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(first));
        std::vector<std::string> cmd;
        if (command == "run") {
            if (!rest.empty() && rest[0] == "--") rest.erase(rest.begin());
            if (rest.empty()) return usage_error("run: missing command to run");
            cmd = rest;
        } else {
            if (!rest.empty()) return usage_error("shell: unexpected argument '" + rest[0] + "'");
            const char *shell = std::getenv("SHELL");
            cmd.push_back(shell && *shell ? shell : "/bin/sh");
        }
        return run_private(std::move(cmd), opts);
    }
    if (command == "status") {
        if (!rest.empty() && is_help(rest[0])) {
            std::fputs(kStatusUsage, stdout);
            return 0;
        }
        if (!rest.empty()) return usage_error("status: unexpected argument '" + rest[0] + "'");
        return report_status(path);
    }
    if (is_control_command(command)) {
        // Check the words here first, so that bad usage is reported even
        // without a simulator; the simulator checks them again.
        std::string error;
        auto parsed = parse_control(args, error);
        if (!parsed) {
            std::fprintf(stderr, "%s\n", error.c_str());
            return 1;
        }
        if (parsed->kind == ControlCommand::Kind::Help) {
            std::fputs(parsed->help.c_str(), stdout);
            return 0;
        }
        return forward_control(path, args);
    }
    return usage_error("unknown command '" + command + "' (see talvexsim --help)");
}

}  // namespace talvex::sim
