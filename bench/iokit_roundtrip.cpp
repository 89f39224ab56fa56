// The cost of one external-method round trip through host/ against a private
// simulator, next to a bare Unix-socket ping-pong of the same frame sizes:
// the difference is what the IOKit layer and the simulator add.
#include <IOKit/IOKitLib.h>
#include <benchmark/benchmark.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "harness.h"
#include "owned_fd.h"
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

// A connection to a private simulator's processor, shared by the benchmarks
// that make scalar calls; 0 when none could be opened.
io_connect_t ping_connection() {
    static Simulator sim([] {
        SimulatorOptions options;
        options.capture_log = false;
        return options;
    }());
    static io_connect_t connect = [] {
        setenv("TALVEX_SIM_SOCKET", sim.socket().c_str(), 1);
        io_service_t service =
            IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching("ZantraTalvexProcessor"));
        io_connect_t c = 0;
        if (service && IOServiceOpen(service, mach_task_self(), 0, &c) != KERN_SUCCESS) c = 0;
        if (service) IOObjectRelease(service);
        return c;
    }();
    return connect;
}

bool scalar_ping(io_connect_t connect) {
    return IOConnectCallScalarMethod(connect, kTalvexMethodPing, nullptr, 0, nullptr, nullptr) == KERN_SUCCESS;
}

void BM_IOKitScalarCall(benchmark::State &state) {
    io_connect_t connect = ping_connection();
    if (!connect) {
        state.SkipWithError("no simulator");
        return;
    }
    for (auto _ : state) {
        if (!scalar_ping(connect)) {
            state.SkipWithError("call failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
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

// The same, waiting for each request as a server of many clients must: in
// epoll_wait, then reading what came and answering without blocking. This is
// the simulator's loop with nothing in it while two or more clients are
// connected; with one, it waits in the read as echo_frames() does.
void echo_frames_polled(int fd) {
    talvex::wire::OwnedFd ep(epoll_create1(EPOLL_CLOEXEC));
    epoll_event ev{};
    ev.events = EPOLLIN;
    if (!ep || epoll_ctl(ep.get(), EPOLL_CTL_ADD, fd, &ev) != 0) return;
    uint8_t req[kRequestFrame], rep[kReplyFrame] = {};
    while (epoll_wait(ep.get(), &ev, 1, -1) == 1 && read(fd, req, sizeof req) == static_cast<ssize_t>(sizeof req))
        if (send(fd, rep, sizeof rep, MSG_NOSIGNAL | MSG_DONTWAIT) != static_cast<ssize_t>(sizeof rep)) break;
}

// One end of a socket pair whose other end echoes frames, from a thread of
// this process or from a child process, as the simulator does: a switch
// between processes also changes address space, which a switch between
// threads does not.
class Echo {
public:
    enum Kind { kThread, kChild, kPolledChild };
    explicit Echo(Kind kind) {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return;
        near_.reset(sv[0]);
        far_.reset(sv[1]);
        if (kind == kThread) {
            thread_ = std::thread(echo_frames, far_.get());
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            near_.reset();
            if (kind == kPolledChild)
                echo_frames_polled(far_.get());
            else
                echo_frames(far_.get());
            _exit(0);
        }
    }
    ~Echo() {
        if (near_) shutdown(near_.get(), SHUT_RDWR);
        if (thread_.joinable()) thread_.join();
        if (pid_ > 0) waitpid(pid_, nullptr, 0);
    }
    Echo(const Echo &) = delete;
    Echo &operator=(const Echo &) = delete;

    bool ready() const { return near_ && (thread_.joinable() || pid_ > 0); }
    // One request frame out, one reply frame back.
    bool round_trip() {
        uint8_t req[kRequestFrame] = {}, rep[kReplyFrame];
        return send(near_.get(), req, sizeof req, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof req) &&
               read_exact(near_.get(), rep, sizeof rep);
    }

private:
    talvex::wire::OwnedFd near_, far_;   // this end, the echo's end
    std::thread thread_;
    pid_t pid_ = -1;
};

void BM_RawSocketPingPong(benchmark::State &state) {
    Echo echo(static_cast<Echo::Kind>(state.range(0)));
    if (!echo.ready()) {
        state.SkipWithError("no echo");
        return;
    }
    for (auto _ : state) {
        if (!echo.round_trip()) {
            state.SkipWithError("echo failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
// echo:0 in a thread, echo:1 in a child process, echo:2 in a child process
// that polls.
BENCHMARK(BM_RawSocketPingPong)->ArgName("echo")->DenseRange(Echo::kThread, Echo::kPolledChild)->UseRealTime();

// The two round trips above, taken in turns: every iteration makes kTurn
// scalar calls and then kTurn raw round trips to an echoing child process,
// each run of them timed as a whole. A spell of load on the machine then
// falls on both alike, where two separate benchmarks see different spells;
// and a run of calls, like a run of round trips, counts all the work its
// peer does per request. (Timing each call on its own would not: the
// simulator's work after its reply would fall into the next timed round
// trip.) `ratio` is the scalar calls' rate over the raw round trips'. Run it
// on one processor (taskset -c 0): across processors, whichever peer shares
// the benchmark's processor answers several times faster than the other, and
// the ratio shows only where they ran. echo:1 pairs the calls with the plain
// echo, which waits as the simulator does for its one client; echo:2 with the
// echo that polls, which no server can beat once several clients wait on it.
constexpr int kTurn = 100;

void BM_ScalarCallAgainstPingPong(benchmark::State &state) {
    io_connect_t connect = ping_connection();
    Echo echo(static_cast<Echo::Kind>(state.range(0)));
    if (!connect || !echo.ready()) {
        state.SkipWithError("no simulator or no echo");
        return;
    }
    using Clock = std::chrono::steady_clock;
    Clock::duration call{}, raw{};
    for (auto _ : state) {
        bool ok = true;
        Clock::time_point t0 = Clock::now();
        for (int i = 0; i < kTurn && ok; ++i) ok = scalar_ping(connect);
        Clock::time_point t1 = Clock::now();
        for (int i = 0; i < kTurn && ok; ++i) ok = echo.round_trip();
        Clock::time_point t2 = Clock::now();
        if (!ok) {
            state.SkipWithError("call or echo failed");
            break;
        }
        call += t1 - t0;
        raw += t2 - t1;
    }
    const double count = static_cast<double>(state.iterations()) * kTurn;
    auto us = [&](Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count() / count; };
    if (state.iterations() > 0 && call.count() > 0) {
        state.counters["call_us"] = us(call);
        state.counters["raw_us"] = us(raw);
        state.counters["ratio"] = static_cast<double>(raw.count()) / static_cast<double>(call.count());
    }
}
BENCHMARK(BM_ScalarCallAgainstPingPong)
    ->ArgName("echo")
    ->Arg(Echo::kChild)
    ->Arg(Echo::kPolledChild)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
