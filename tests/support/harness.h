// Test and benchmark support: private simulators, child processes with
// captured output, and normalisation of diagnostics so tests depend on
// neither line numbers nor absolute paths. Free of any test framework, so
// benchmarks use the same private simulator as the tests.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace talvex::test {

// Built binaries (set by the build).
std::string talvexctl_path();
std::string talvexsim_path();
// support/stranger.cpp: listens at a path, never answers, and reports on exit
// "connections: N, bytes: M".
std::string stranger_path();

// Another user (65534) for the trust tests, reached through setpriv: empty
// when usable, else why not (for GTEST_SKIP).
std::string other_user_unavailable();
// `argv` run as that user.
std::vector<std::string> as_other_user(std::vector<std::string> argv);

struct RunResult {
    int status = -1;          // exit status; 128+N when killed by signal N; -1 on timeout
    bool timed_out = false;
    std::string out;
    std::string err;
};

using Env = std::vector<std::pair<std::string, std::string>>;

// A child process with piped standard input, output and error (or, without
// `capture_output`, its output and error going where ours go).
class Process {
public:
    Process(const std::vector<std::string> &argv, const Env &env = {}, bool capture_output = true);
    ~Process();   // kills (SIGKILL) and reaps the child if still running
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    pid_t pid() const { return pid_; }
    void write_stdin(std::string_view data);
    // Reads output until `needle` appears in standard output (true), the
    // child closes its output, or the timeout passes (false).
    bool wait_for_stdout(std::string_view needle, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        return wait_for(out_, needle, timeout);
    }
    bool wait_for_stderr(std::string_view needle, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        return wait_for(err_, needle, timeout);
    }
    void signal(int sig);
    // Waits for exit, collecting the rest of the output; kills it after the timeout.
    RunResult wait(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    const std::string &out() const { return out_; }
    const std::string &err() const { return err_; }

private:
    bool pump(std::chrono::milliseconds timeout);
    bool wait_for(const std::string &text, std::string_view needle, std::chrono::milliseconds timeout);   // reads what is available; false at EOF on both
    pid_t pid_ = -1;
    int in_ = -1, out_fd_ = -1, err_fd_ = -1;
    std::string out_, err_;
    bool reaped_ = false;
    int status_ = -1;
};

RunResult run(const std::vector<std::string> &argv, const Env &env = {}, std::string_view stdin_data = {},
              std::chrono::milliseconds timeout = std::chrono::seconds(20));
// Runs the commands at once; any still running after `bound` is killed (timed_out).
std::vector<RunResult> run_together(const std::vector<std::pair<std::vector<std::string>, Env>> &commands,
                                    std::chrono::milliseconds bound);

// A fresh directory under /tmp (mode 0700), removed with all it holds.
struct TempDir {
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    std::string path;
};

struct SimulatorOptions {
    std::vector<std::string> serve_args;          // appended to `serve --socket PATH`
    std::string program = talvexsim_path();       // another build's talvexsim, to compare two builds
    std::chrono::seconds start_limit{15};         // how long it may take to listen
    bool capture_log = true;                      // false: its output and error go where ours go
};

// A private simulator on a fresh socket in its own temporary directory,
// started in the constructor (ready to accept when it returns; throws when
// it is not) and stopped in the destructor.
class Simulator {
public:
    explicit Simulator(const std::vector<std::string> &extra_serve_args = {});
    explicit Simulator(SimulatorOptions options);
    ~Simulator();
    Simulator(const Simulator &) = delete;
    Simulator &operator=(const Simulator &) = delete;

    const std::string &socket() const { return socket_; }
    Env env() const { return {{"TALVEX_SIM_SOCKET", socket_}}; }
    pid_t pid() const { return proc_ ? proc_->pid() : -1; }

    // `talvexsim --socket S ARGS...`
    RunResult control(const std::vector<std::string> &args) const;
    // `talvexctl ARGS...` against this simulator.
    RunResult tool(const std::vector<std::string> &args,
                   std::chrono::milliseconds timeout = std::chrono::seconds(20)) const;
    // Starts `talvexctl ARGS...` against this simulator without waiting.
    std::unique_ptr<Process> start_tool(const std::vector<std::string> &args) const;
    // The trace, one JSON object per line; optionally cleared after reading.
    std::vector<std::string> trace(bool clear = false) const;
    // Stops the simulator (SIGTERM) and returns its exit status (0 when it
    // shut down cleanly; a sanitizer report or crash makes it non-zero).
    int stop();
    // Kills it outright (SIGKILL), as a crash would.
    void kill();
    // Standard error the simulator printed so far (after stop() or kill(): all of it).
    std::string log() const;

private:
    TempDir dir_;
    std::string socket_;
    std::unique_ptr<Process> proc_;
    bool stopped_ = false;
    int status_ = -1;
};

// Another user's listeners (support/stranger.cpp run as 65534; check
// other_user_unavailable() first): one in the default place, which it took
// first ($XDG_RUNTIME_DIR/talvexsim, XDG_RUNTIME_DIR being sticky and open
// to all, as /tmp is), one in a directory of ours. Ready once made.
struct Strangers {
    Strangers();
    TempDir runtime, ours;
    std::string their_dir, their_socket, our_socket;
    Env their_default() const { return {{"XDG_RUNTIME_DIR", runtime.path}}; }
    // What each got: "connections: N, bytes: M" (ends them).
    std::string got_in_their_dir() { return last_line(*in_their_dir); }
    std::string got_in_our_dir() { return last_line(*in_our_dir); }

private:
    static std::string last_line(Process &p);
    std::unique_ptr<Process> in_their_dir, in_our_dir;
};

// Replaces "file: <path>, line: <n>" with "file: <last two path parts>, line: N".
std::string normalise(std::string text);

// Splits text into lines (without the newlines; a final newline makes no empty line).
std::vector<std::string> lines(std::string_view text);

}  // namespace talvex::test
