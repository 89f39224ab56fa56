#include "iokit_support.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace talvex::test {

std::string child_output(const std::string &socket, const std::function<void()> &body, const std::string &ready_line,
                         const std::function<void()> &ready) {
    std::fflush(nullptr);
    int p[2];
    if (pipe(p) != 0) throw std::runtime_error("pipe failed");
    pid_t pid = fork();
    if (pid == 0) {
        // The child: the body, its failures and leaks reported through the exit status.
        alarm(30);
        close(p[0]);
        dup2(p[1], 1);
        close(p[1]);
        setenv("TALVEX_SIM_SOCKET", socket.c_str(), 1);
        try {
            body();
        } catch (...) {
            ADD_FAILURE() << "an exception left the child's body";
        }
#if defined(__SANITIZE_ADDRESS__)
        if (__lsan_do_recoverable_leak_check()) ADD_FAILURE() << "the child leaked memory (report above)";
#endif
        std::fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    close(p[1]);
    std::string out;
    FILE *in = fdopen(p[0], "r");
    char *line = nullptr;
    size_t cap = 0;
    bool signalled = ready_line.empty();
    while (getline(&line, &cap, in) > 0) {
        out += line;
        if (!signalled && out.find(ready_line) != std::string::npos) {
            signalled = true;
            if (ready) ready();
        }
    }
    std::free(line);
    std::fclose(in);
    int st = 0;
    waitpid(pid, &st, 0);
    EXPECT_TRUE(signalled) << "the child never printed \"" << ready_line << "\"; it printed:\n" << out;
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0)
        << "the child ended with status " << st << " (signal " << (WIFSIGNALED(st) ? WTERMSIG(st) : 0)
        << ", 14 when it outlived 30 seconds); it printed:\n"
        << out;
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
    EXPECT_EQ(IOServiceOpen(service, mach_task_self(), 0, &c), KERN_SUCCESS);
    return c;
}

}  // namespace talvex::test
