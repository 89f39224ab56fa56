// The cost of one external-method round trip through host/ against a private
// simulator, next to a bare Unix-socket ping-pong of the same frame sizes:
// the difference is what the IOKit layer and the simulator add.
#include <IOKit/IOKitLib.h>
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "harness.h"
#include "talvex_driver.h"

namespace {

using talvex::test::Simulator;
using talvex::test::SimulatorOptions;

// A scalar call with no scalars or structures: 4-byte length, 8-byte header,
// connection, selector, scalar count, empty structure, scalar capacity (all
// u32), structure capacity (u64), flags (u8).
constexpr size_t kRequestFrame = 4 + 8 + 4 * 5 + 8 + 1;
// Its reply: length, header, code, scalar count, empty structure.
constexpr size_t kReplyFrame = 4 + 8 + 4 + 4 + 4;

void BM_IOKitScalarCall(benchmark::State &state) {
    static Simulator sim([] {
        SimulatorOptions options;
        options.capture_log = false;
        return options;
    }());
    setenv("TALVEX_SIM_SOCKET", sim.socket().c_str(), 1);
    io_service_t service =
        IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching("ZantraTalvexProcessor"));
    io_connect_t connect = 0;
    if (!service || IOServiceOpen(service, mach_task_self(), 0, &connect) != KERN_SUCCESS) {
        state.SkipWithError("no simulator");
        return;
    }
    for (auto _ : state) {
        kern_return_t kr = IOConnectCallScalarMethod(connect, kTalvexMethodPing, nullptr, 0, nullptr, nullptr);
        if (kr != KERN_SUCCESS) {
            state.SkipWithError("call failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    IOServiceClose(connect);
    IOObjectRelease(service);
}
BENCHMARK(BM_IOKitScalarCall)->UseRealTime();

bool read_exact(int fd, uint8_t *p, size_t n) {
    while (n) {
        ssize_t got = read(fd, p, n);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        p += got;
        n -= static_cast<size_t>(got);
    }
    return true;
}

// Answers every request frame with a reply frame until the peer goes.
void echo_frames(int fd) {
    uint8_t req[kRequestFrame], rep[kReplyFrame] = {};
    while (read_exact(fd, req, sizeof req))
        if (send(fd, rep, sizeof rep, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof rep)) break;
}

// The echo runs in a thread of this process (range 0) or in a child process
// (range 1), as the simulator does: a switch between processes also changes
// address space, which a switch between threads does not.
void BM_RawSocketPingPong(benchmark::State &state) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) {
        state.SkipWithError("socketpair failed");
        return;
    }
    const bool child = state.range(0) == 1;
    std::thread echo;
    pid_t pid = -1;
    if (child) {
        pid = fork();
        if (pid == 0) {
            close(sv[0]);
            echo_frames(sv[1]);
            _exit(0);
        }
    } else {
        echo = std::thread(echo_frames, sv[1]);
    }
    uint8_t req[kRequestFrame] = {}, rep[kReplyFrame];
    for (auto _ : state) {
        if (send(sv[0], req, sizeof req, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof req) ||
            !read_exact(sv[0], rep, sizeof rep)) {
            state.SkipWithError("echo failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    shutdown(sv[0], SHUT_RDWR);
    if (echo.joinable()) echo.join();
    if (pid > 0) waitpid(pid, nullptr, 0);
    close(sv[0]);
    close(sv[1]);
}
BENCHMARK(BM_RawSocketPingPong)->ArgName("process")->Arg(0)->Arg(1)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
