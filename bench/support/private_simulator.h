// `talvexsim serve` on a socket of its own for a whole benchmark run, with
// TALVEX_SIM_SOCKET pointing the platform layer at it.
#pragma once

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "socket_io.h"

extern char **environ;

namespace talvex::bench {

class PrivateSimulator {
public:
    // `extra` is appended to `serve --socket PATH` (e.g. {"--channels", "100000"});
    // `program` is the talvexsim to run (another build's, to compare).
    explicit PrivateSimulator(std::vector<std::string> extra = {}, std::string program = TALVEX_TALVEXSIM_PATH) {
        char tmpl[] = "/tmp/talvex-bench-XXXXXX";
        if (!mkdtemp(tmpl)) std::abort();
        dir_ = tmpl;
        socket_ = dir_ + "/sim.sock";
        std::vector<std::string> words = {program, "serve", "--socket", socket_};
        words.insert(words.end(), extra.begin(), extra.end());
        std::vector<char *> argv;
        for (std::string &w : words) argv.push_back(w.data());
        argv.push_back(nullptr);
        if (posix_spawn(&pid_, words[0].c_str(), nullptr, nullptr, argv.data(), environ) != 0) std::abort();
        // A large legend takes a few seconds to build: wait up to 30 s.
        for (int i = 0; i < 3000 && !reachable(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        setenv("TALVEX_SIM_SOCKET", socket_.c_str(), 1);
    }
    ~PrivateSimulator() {
        kill(pid_, SIGTERM);
        int st;
        waitpid(pid_, &st, 0);
        unlink((socket_ + ".lock").c_str());   // serve's start-up lock, left beside the socket
        rmdir(dir_.c_str());
    }
    PrivateSimulator(const PrivateSimulator &) = delete;
    PrivateSimulator &operator=(const PrivateSimulator &) = delete;

    const std::string &socket() const { return socket_; }
    pid_t pid() const { return pid_; }

private:
    bool reachable() const {
        return static_cast<bool>(wire::connect_to(socket_));
    }
    std::string dir_, socket_;
    pid_t pid_ = -1;
};

}  // namespace talvex::bench
