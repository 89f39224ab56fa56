#include "supervise.h"

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
#include <thread>

#include "budget.h"
#include "cli.h"
#include "hub.h"
#include "report_models.h"
#include "scenario.h"
#include "safe_connect.h"
#include "server.h"

extern char **environ;

namespace talvex::sim {

namespace {

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

}  // namespace

std::vector<std::string> SimOptions::words() const {
    std::vector<std::string> w;
    if (step_clock) w.insert(w.end(), {"--clock", "step"});
    if (channels) w.insert(w.end(), {"--channels", std::to_string(channels)});
    if (!scenario.empty()) w.insert(w.end(), {"--scenario", scenario});
    return w;
}

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
        return complain("serve: cannot add " + std::to_string(opts.channels) + " report channels");
    std::string error;
    if (!opts.scenario.empty()) {
        auto scenario = read_scenario_file(opts.scenario, error);
        if (!scenario) {
            std::fprintf(stderr, "talvexsim: %s\n", error.c_str());
            return 2;
        }
        server.simulation().scenario().load(std::move(*scenario));
    }
    // Stopping by signal is set up before the socket can take a connection:
    // whoever reaches the simulator may stop it at once, and a signal that
    // comes before run() waits in the wake pipe for it.
    server.stop_on_signals();
    if (!server.listen(socket_path, error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    server.run();
    return 0;
}

int run_private(std::vector<std::string> cmd, const SimOptions &opts) {
    remove_stale_private_dirs();
    std::string tmpl_text = std::string(kPrivateDirParent) + "/" + std::string(kPrivateDirPrefix) + "XXXXXX";
    std::vector<char> tmpl(tmpl_text.begin(), tmpl_text.end());
    tmpl.push_back('\0');
    if (!mkdtemp(tmpl.data()))
        return complain(std::string("cannot create a private directory: ") + std::strerror(errno));
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
        return complain(std::string("cannot start the simulator: ") + std::strerror(rc));
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    for (;;) {
        if (wire::connect_checked(socket, std::chrono::milliseconds(100)).reach == wire::Reach::Answered) break;
        int st;
        if (waitpid(sim, &st, WNOHANG) == sim || std::chrono::steady_clock::now() > deadline) {
            kill(sim, SIGKILL);
            waitpid(sim, &st, 0);
            cleanup_dir();
            return complain("the private simulator did not start");
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

}  // namespace talvex::sim
