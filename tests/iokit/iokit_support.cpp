#include "iokit_support.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#define TALVEX_LEAK_CHECK 1
#endif

namespace talvex::test {

namespace {

using Clock = std::chrono::steady_clock;

// The child's side: run the body, report failures through the exit status.
[[noreturn]] void child_main(const std::string &socket, const std::function<void()> &body) {
    setenv("TALVEX_SIM_SOCKET", socket.c_str(), 1);
    try {
        body();
    } catch (const std::exception &e) {
        ADD_FAILURE() << "exception in child: " << e.what();
    } catch (...) {
        ADD_FAILURE() << "unknown exception in child";
    }
#ifdef TALVEX_LEAK_CHECK
    if (__lsan_do_recoverable_leak_check()) ADD_FAILURE() << "the child leaked memory (report above)";
#endif
    int status = ::testing::Test::HasFailure() ? 1 : 0;
    std::fflush(stdout);
    std::fflush(stderr);
    _exit(status);
}

std::string describe(int st) {
    if (WIFEXITED(st)) return "exit status " + std::to_string(WEXITSTATUS(st));
    if (WIFSIGNALED(st)) return std::string("signal ") + strsignal(WTERMSIG(st));
    return "status " + std::to_string(st);
}

}  // namespace

std::string child_output(const std::string &socket, const std::function<void()> &body, const std::string &ready_line,
                         const std::function<void()> &ready) {
    std::fflush(stdout);
    std::fflush(stderr);
    int p[2];
    if (pipe(p) != 0) {
        ADD_FAILURE() << "pipe: " << std::strerror(errno);
        return {};
    }
    pid_t pid = fork();
    if (pid < 0) {
        ADD_FAILURE() << "fork: " << std::strerror(errno);
        return {};
    }
    if (pid == 0) {
        close(p[0]);
        dup2(p[1], 1);
        close(p[1]);
        child_main(socket, body);
    }
    close(p[1]);
    std::string out;
    bool signalled = ready_line.empty();
    auto deadline = Clock::now() + std::chrono::seconds(30);
    bool timed_out = false;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            timed_out = true;
            break;
        }
        pollfd fd{p[0], POLLIN, 0};
        if (poll(&fd, 1, static_cast<int>(std::min<long long>(left, 100))) <= 0) continue;
        char buf[4096];
        ssize_t n = read(p[0], buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
        if (!signalled && out.find(ready_line) != std::string::npos) {
            signalled = true;
            if (ready) ready();
        }
    }
    close(p[0]);
    if (timed_out) kill(pid, SIGKILL);
    int st = 0;
    waitpid(pid, &st, 0);
    EXPECT_FALSE(timed_out) << "the child did not finish in time; it printed:\n" << out;
    EXPECT_TRUE(signalled) << "the child never printed \"" << ready_line << "\"; it printed:\n" << out;
    if (!timed_out) {
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0)
            << "child ended with " << describe(st) << "; it printed:\n"
            << out;
    }
    return out;
}

void say(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    std::vprintf(format, ap);
    va_end(ap);
    std::fflush(stdout);
}

io_service_t coprocessor() {
    return IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching("ZantraTalvexProcessor"));
}

io_connect_t open_client(io_service_t service) {
    io_connect_t c = 0;
    kern_return_t kr = IOServiceOpen(service, mach_task_self(), 0, &c);
    EXPECT_EQ(kr, KERN_SUCCESS);
    EXPECT_NE(c, 0u);
    return c;
}

}  // namespace talvex::test
