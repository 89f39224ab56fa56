#include "harness.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <regex>
#include <stdexcept>
#include <thread>

#include "socket_io.h"

extern char **environ;

namespace talvex::test {

std::string talvexctl_path() { return TALVEX_TALVEXCTL_PATH; }
std::string talvexsim_path() { return TALVEX_TALVEXSIM_PATH; }
std::string stranger_path() { return TALVEX_STRANGER_PATH; }

namespace {
std::string setpriv_path() {
    for (const char *p : {"/usr/bin/setpriv", "/bin/setpriv", "/usr/sbin/setpriv", "/sbin/setpriv"})
        if (access(p, X_OK) == 0) return p;
    return {};
}
}  // namespace

std::vector<std::string> as_other_user(std::vector<std::string> argv) {
    argv.insert(argv.begin(), {setpriv_path(), "--reuid=65534", "--regid=65534", "--clear-groups"});
    return argv;
}

std::string other_user_unavailable() {
    if (geteuid() != 0) return "a second user needs root (setpriv --reuid)";
    if (setpriv_path().empty()) return "setpriv is not installed";
    if (run(as_other_user({"/bin/test", "-x", stranger_path()})).status != 0)
        return "user 65534 cannot run " + stranger_path();
    return {};
}

namespace {

using Clock = std::chrono::steady_clock;

std::vector<std::string> build_env(const Env &extra) {
    std::vector<std::string> out;
    for (char **e = environ; *e; ++e) {
        std::string_view kv(*e);
        auto eq = kv.find('=');
        std::string_view key = kv.substr(0, eq);
        bool overridden = key == "TALVEX_SIM_SOCKET";
        for (auto &[k, v] : extra)
            if (k == key) overridden = true;
        if (!overridden) out.emplace_back(kv);
    }
    for (auto &[k, v] : extra) out.push_back(k + "=" + v);
    return out;
}

int decode_status(int st) {
    if (WIFEXITED(st)) return WEXITSTATUS(st);
    if (WIFSIGNALED(st)) return 128 + WTERMSIG(st);
    return -1;
}

}  // namespace

Process::Process(const std::vector<std::string> &argv, const Env &env, bool capture_output) {
    int pin[2], pout[2] = {-1, -1}, perr[2] = {-1, -1};
    if (pipe2(pin, O_CLOEXEC) || (capture_output && (pipe2(pout, O_CLOEXEC) || pipe2(perr, O_CLOEXEC))))
        throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, pin[0], 0);
    if (capture_output) {
        posix_spawn_file_actions_adddup2(&fa, pout[1], 1);
        posix_spawn_file_actions_adddup2(&fa, perr[1], 2);
    }
    std::vector<char *> args;
    for (auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    auto envs = build_env(env);
    std::vector<char *> envp;
    for (auto &e : envs) envp.push_back(e.data());
    envp.push_back(nullptr);
    int rc = posix_spawn(&pid_, argv.at(0).c_str(), &fa, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&fa);
    for (int fd : {pin[0], pout[1], perr[1]})
        if (fd >= 0) close(fd);
    in_ = pin[1];
    out_fd_ = pout[0];
    err_fd_ = perr[0];
    if (rc != 0) {
        pid_ = -1;
        throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(rc));
    }
}

Process::~Process() {
    if (pid_ > 0 && !reaped_) {
        ::kill(pid_, SIGKILL);
        int st;
        waitpid(pid_, &st, 0);
    }
    for (int fd : {in_, out_fd_, err_fd_})
        if (fd >= 0) close(fd);
}

void Process::write_stdin(std::string_view data) {
    while (!data.empty() && in_ >= 0) {
        ssize_t n = ::write(in_, data.data(), data.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return;
        }
        data.remove_prefix(static_cast<size_t>(n));
    }
}

bool Process::pump(std::chrono::milliseconds timeout) {
    pollfd fds[2];
    int n = 0;
    if (out_fd_ >= 0) fds[n++] = {out_fd_, POLLIN, 0};
    if (err_fd_ >= 0) fds[n++] = {err_fd_, POLLIN, 0};
    if (n == 0) return false;
    int r = poll(fds, static_cast<nfds_t>(n), static_cast<int>(timeout.count()));
    if (r <= 0) return true;
    for (int i = 0; i < n; ++i) {
        if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
        char buf[4096];
        ssize_t got = read(fds[i].fd, buf, sizeof buf);
        bool is_out = fds[i].fd == out_fd_;
        if (got > 0) {
            (is_out ? out_ : err_).append(buf, static_cast<size_t>(got));
        } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
            close(fds[i].fd);
            (is_out ? out_fd_ : err_fd_) = -1;
        }
    }
    return out_fd_ >= 0 || err_fd_ >= 0;
}

bool Process::wait_for(const std::string &text, std::string_view needle, std::chrono::milliseconds timeout) {
    auto deadline = Clock::now() + timeout;
    while (text.find(needle) == std::string::npos) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) return false;
        if (!pump(std::min(left, std::chrono::milliseconds(100))) && text.find(needle) == std::string::npos)
            return false;
    }
    return true;
}

void Process::signal(int sig) {
    if (pid_ > 0 && !reaped_) ::kill(pid_, sig);
}

RunResult Process::wait(std::chrono::milliseconds timeout) {
    RunResult r;
    auto deadline = Clock::now() + timeout;
    if (in_ >= 0) close(in_);
    in_ = -1;
    while (!reaped_) {
        int st;
        pid_t w = waitpid(pid_, &st, WNOHANG);
        if (w == pid_) {
            reaped_ = true;
            status_ = decode_status(st);
            break;
        }
        if (Clock::now() >= deadline) {
            ::kill(pid_, SIGKILL);
            waitpid(pid_, &st, 0);
            reaped_ = true;
            r.timed_out = true;
            status_ = -1;
            break;
        }
        if (!pump(std::chrono::milliseconds(20))) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    // Drain what is left (a grandchild holding the pipes open must not block us).
    auto drain_deadline = Clock::now() + std::chrono::milliseconds(500);
    while ((out_fd_ >= 0 || err_fd_ >= 0) && Clock::now() < drain_deadline) pump(std::chrono::milliseconds(20));
    r.status = status_;
    r.out = out_;
    r.err = err_;
    return r;
}

RunResult run(const std::vector<std::string> &argv, const Env &env, std::string_view stdin_data,
              std::chrono::milliseconds timeout) {
    Process p(argv, env);
    p.write_stdin(stdin_data);
    return p.wait(timeout);
}

std::vector<RunResult> run_together(const std::vector<std::pair<std::vector<std::string>, Env>> &commands,
                                    std::chrono::milliseconds bound) {
    const auto deadline = Clock::now() + bound;
    std::vector<std::unique_ptr<Process>> running;
    for (const auto &[argv, env] : commands) running.push_back(std::make_unique<Process>(argv, env));
    std::vector<RunResult> results;
    for (auto &p : running) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        results.push_back(p->wait(std::max(left, std::chrono::milliseconds(1))));
    }
    return results;
}

Strangers::Strangers() {
    auto check = [](bool ok, const std::string &what) {
        if (!ok) throw std::runtime_error("cannot set up another user's listener: " + what);
    };
    check(chmod(runtime.path.c_str(), 01777) == 0, "chmod");
    their_dir = runtime.path + "/talvexsim";
    their_socket = their_dir + "/sim.sock";
    our_socket = ours.path + "/sim.sock";
    check(run(as_other_user({"/bin/mkdir", "-m", "0755", their_dir})).status == 0, "mkdir " + their_dir);
    in_their_dir = std::make_unique<Process>(as_other_user({stranger_path(), their_socket}));
    // Ours is open while they bind in it, then closed: only their process stays.
    check(chmod(ours.path.c_str(), 0777) == 0, "chmod");
    in_our_dir = std::make_unique<Process>(as_other_user({stranger_path(), our_socket}));
    check(in_their_dir->wait_for_stdout("ready\n") && in_our_dir->wait_for_stdout("ready\n"), "not ready");
    check(chmod(ours.path.c_str(), 0700) == 0, "chmod");
}

std::string Strangers::last_line(Process &p) {
    auto all = lines(p.wait().out);
    return all.empty() ? std::string() : all.back();
}

Simulator::Simulator(const std::vector<std::string> &extra_serve_args) : Simulator([&] {
    SimulatorOptions options;
    options.serve_args = extra_serve_args;
    return options;
}()) {}

Simulator::Simulator(SimulatorOptions options) {
    socket_ = dir_.path + "/sim.sock";
    // A test or benchmark that crashes or is killed takes its simulator with it.
    std::vector<std::string> argv{options.program, "serve", "--socket", socket_, "--exit-with-parent"};
    argv.insert(argv.end(), options.serve_args.begin(), options.serve_args.end());
    proc_ = std::make_unique<Process>(argv, Env{{"TALVEX_SIM_SOCKET", socket_}}, options.capture_log);
    auto deadline = Clock::now() + options.start_limit;
    for (;;) {
        if (wire::connect_to(socket_)) break;
        int st;
        if (waitpid(proc_->pid(), &st, WNOHANG) == proc_->pid()) {
            auto r = proc_->wait(std::chrono::milliseconds(100));
            throw std::runtime_error("talvexsim exited at start: " + r.err);
        }
        if (Clock::now() > deadline) throw std::runtime_error("talvexsim did not start listening");
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

Simulator::~Simulator() {
    if (!stopped_) kill();
}

RunResult Simulator::control(const std::vector<std::string> &args) const {
    std::vector<std::string> argv{talvexsim_path(), "--socket", socket_};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv, env());
}

RunResult Simulator::tool(const std::vector<std::string> &args, std::chrono::milliseconds timeout) const {
    std::vector<std::string> argv{talvexctl_path()};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv, env(), {}, timeout);
}

std::unique_ptr<Process> Simulator::start_tool(const std::vector<std::string> &args) const {
    std::vector<std::string> argv{talvexctl_path()};
    argv.insert(argv.end(), args.begin(), args.end());
    return std::make_unique<Process>(argv, env());
}

std::vector<std::string> Simulator::trace(bool clear) const {
    std::vector<std::string> args{"trace"};
    if (clear) args.push_back("--clear");
    auto r = control(args);
    if (r.status != 0) throw std::runtime_error("talvexsim trace failed: " + r.err);
    return lines(r.out);
}

int Simulator::stop() {
    if (stopped_) return status_;
    proc_->signal(SIGTERM);
    auto r = proc_->wait(std::chrono::seconds(10));
    stopped_ = true;
    status_ = r.timed_out ? -1 : r.status;
    return status_;
}

void Simulator::kill() {
    if (stopped_) return;
    proc_->signal(SIGKILL);
    auto r = proc_->wait(std::chrono::seconds(10));
    stopped_ = true;
    status_ = r.status;
}

std::string Simulator::log() const { return proc_ ? proc_->err() : std::string(); }

TempDir::TempDir() {
    char tmpl[] = "/tmp/talvex-test-XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    path = tmpl;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::string normalise(std::string text) {
    // A path keeps its last two parts (the greedy prefix backs off to leave
    // them); a bare file name is kept as it is.
    static const std::regex re(R"(file: (?:\S*/)?([^/\s,]+/[^/\s,]+), line: \d+|file: ([^/\s,]+), line: \d+)");
    return std::regex_replace(text, re, "file: $1$2, line: N");
}

std::vector<std::string> lines(std::string_view text) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start < text.size()) {
        size_t nl = text.find('\n', start);
        if (nl == std::string_view::npos) {
            out.emplace_back(text.substr(start));
            break;
        }
        out.emplace_back(text.substr(start, nl - start));
        start = nl + 1;
    }
    return out;
}

}  // namespace talvex::test
