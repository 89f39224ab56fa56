// The simulator under load, from outside: calls per second and latency of a
// scalar method call (selector 4, ping) with 1 to 1000 connections, each
// keeping one call in flight; and the simulator's peak memory (VmHWM) when
// hostile clients try to starve it, with how long an ordinary client then
// waits for its first answer. "sim cpu us/call" is the simulator's own CPU
// time per call, which other load on the machine disturbs less than the rate.
//
//   bench_sim_load [--simulator PATH] [--seconds S] [--load | --hostile]
//
// --simulator runs another build's talvexsim, so two builds compare on one
// machine in one sitting. Every connection speaks the wire protocol itself
// (Hello, Match, Open, then Calls); one epoll loop drives them all.
#include <IOKit/IOCFSerialize.h>
#include <IOKit/IOKitLib.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"
#include "socket_io.h"
#include "talvex_driver.h"
#include "wire.h"

namespace {

using talvex::test::Simulator;
using talvex::test::SimulatorOptions;
using Clock = std::chrono::steady_clock;
namespace wire = talvex::wire;

constexpr int32_t kNoResources = static_cast<int32_t>(0xe00002be);

// A private simulator running `program`, its messages going to our standard error.
SimulatorOptions quiet(const std::string &program) {
    SimulatorOptions options;
    options.program = program;
    options.capture_log = false;
    return options;
}

struct Reply {
    uint16_t op = 0;
    uint32_t seq = 0;
    int32_t code = -1;
    std::vector<uint8_t> body;
};

// Sends all of `bytes` within 5 s: a simulator that stops reading fails the
// send, not the benchmark.
bool send_all(int fd, std::span<const uint8_t> bytes) {
    return wire::send_before(fd, bytes, Clock::now() + std::chrono::seconds(5));
}

// One reply (events are skipped), or nothing after the timeout or at the end of the stream.
std::optional<Reply> read_reply(int fd, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    auto deadline = Clock::now() + timeout;
    for (std::vector<uint8_t> msg;;) {
        if (wire::read_frame_before(fd, deadline, wire::kMaxFrame, msg) != wire::FrameRead::Ok || msg.size() < 12)
            return std::nullopt;
        wire::Reader r(msg);
        Reply reply;
        reply.op = r.u16();
        r.u16();
        reply.seq = r.u32();
        if (reply.op == static_cast<uint16_t>(wire::Op::Event)) continue;
        reply.code = r.i32();
        auto rest = r.bytes(r.remaining());
        reply.body.assign(rest.begin(), rest.end());
        return reply;
    }
}

std::optional<Reply> request(int fd, wire::Op op, const wire::Writer &body, uint32_t seq = 1) {
    if (!send_all(fd, wire::make_request(op, seq, body.data()))) return std::nullopt;
    return read_reply(fd);
}

wire::Writer call_body(uint32_t connection, uint32_t selector, std::span<const uint8_t> input = {},
                       uint32_t scalar_capacity = 0) {
    wire::Writer w;
    w.u32(connection);
    w.u32(selector);
    w.u32(0);   // no scalar inputs
    w.blob(input);
    w.u32(scalar_capacity);
    w.u64(0);
    w.u8(input.empty() ? 0 : 2);
    return w;
}

// The first entry of a class, or 0.
uint64_t match(int fd, const char *cls) {
    CFMutableDictionaryRef matching = IOServiceMatching(cls);
    CFDataRef data = IOCFSerialize(matching, 0);
    wire::Writer w;
    w.blob({CFDataGetBytePtr(data), static_cast<size_t>(CFDataGetLength(data))});
    CFRelease(data);
    CFRelease(matching);
    auto reply = request(fd, wire::Op::Match, w);
    if (!reply || reply->code != 0) return 0;
    wire::Reader r(reply->body);
    r.u64();
    return r.u32() ? r.u64() : 0;
}

uint32_t open_service(int fd, uint64_t entry) {
    wire::Writer w;
    w.u64(entry);
    w.u32(0);
    auto reply = request(fd, wire::Op::Open, w);
    return reply && reply->code == 0 ? wire::Reader(reply->body).u32() : 0;
}

// A connection greeted, with the coprocessor open: its connection ID, or 0.
uint32_t handshake(int fd) {
    wire::Writer hello;
    hello.u32(wire::kProtocolVersion);
    hello.u32(static_cast<uint32_t>(getpid()));
    auto greeting = request(fd, wire::Op::Hello, hello);
    if (!greeting || greeting->code != 0) return 0;
    uint64_t cp = match(fd, "ZantraTalvexProcessor");
    return cp ? open_service(fd, cp) : 0;
}

// --- calls per second and latency

// CPU time (user and system) a process has used so far, in seconds.
double cpu_seconds(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    size_t at = text.rfind(')');   // the command name may hold blanks
    if (at == std::string::npos) return 0;
    std::istringstream fields(text.substr(at + 2));
    std::string skip;
    for (int i = 3; i < 14; ++i) fields >> skip;   // state .. cmajflt
    double user = 0, system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

struct Conn {
    int fd = -1;
    uint32_t id = 0;
    uint32_t seq = 0;
    Clock::time_point sent;
    std::vector<uint8_t> in;
};

bool send_call(Conn &c) {
    c.sent = Clock::now();
    return send_all(c.fd, wire::make_request(wire::Op::Call, ++c.seq, call_body(c.id, kTalvexMethodPing).data()));
}

void load(const std::string &program, int connections, double seconds) {
    Simulator sim(quiet(program));
    std::vector<Conn> conns(static_cast<size_t>(connections));
    for (auto &c : conns) {
        c.fd = wire::connect_to(sim.socket()).release();
        c.id = c.fd < 0 ? 0 : handshake(c.fd);
        if (!c.id) {
            std::printf("%6d  (connection refused or not answered)\n", connections);
            for (auto &k : conns)
                if (k.fd >= 0) close(k.fd);
            return;
        }
    }
    int ep = epoll_create1(EPOLL_CLOEXEC);
    for (size_t i = 0; i < conns.size(); ++i) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = i;
        epoll_ctl(ep, EPOLL_CTL_ADD, conns[i].fd, &ev);
        send_call(conns[i]);
    }
    auto start = Clock::now() + std::chrono::milliseconds(500);   // warm-up first
    auto end = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    std::vector<double> latencies_us;
    std::vector<epoll_event> ready(256);
    bool started = false;
    double cpu_start = 0;
    uint8_t buf[64 << 10];
    bool failed = false;
    while (!failed && Clock::now() < end) {
        int n = epoll_wait(ep, ready.data(), static_cast<int>(ready.size()), 1000);
        for (int k = 0; k < n && !failed; ++k) {
            Conn &c = conns[ready[static_cast<size_t>(k)].data.u64];
            ssize_t got = read(c.fd, buf, sizeof buf);
            if (got <= 0) {
                failed = true;
                break;
            }
            c.in.insert(c.in.end(), buf, buf + got);
            while (c.in.size() >= 4 && c.in.size() >= 4 + size_t{wire::load_le32(c.in.data())}) {
                size_t len = 4 + wire::load_le32(c.in.data());
                wire::Reader r(std::span(c.in).subspan(4, len - 4));
                r.u16();
                r.u16();
                r.u32();
                if (r.i32() != 0) failed = true;
                c.in.erase(c.in.begin(), c.in.begin() + static_cast<std::ptrdiff_t>(len));
                auto now = Clock::now();
                if (now >= start && !started) {
                    started = true;
                    cpu_start = cpu_seconds(sim.pid());
                }
                if (now >= start)
                    latencies_us.push_back(std::chrono::duration<double, std::micro>(now - c.sent).count());
                if (!send_call(c)) failed = true;
            }
        }
    }
    double cpu = cpu_seconds(sim.pid()) - cpu_start;
    close(ep);
    for (auto &c : conns) close(c.fd);
    if (failed || latencies_us.empty()) {
        std::printf("%6d  (a call failed)\n", connections);
        return;
    }
    std::sort(latencies_us.begin(), latencies_us.end());
    auto at = [&](double q) { return latencies_us[static_cast<size_t>(q * static_cast<double>(latencies_us.size() - 1))]; };
    double calls = static_cast<double>(latencies_us.size());
    std::printf("%6d  %10.0f  %9.1f  %9.1f  %9.2f\n", connections, calls / seconds, at(0.5), at(0.99), cpu / calls * 1e6);
}

// --- hostile clients

size_t peak_kib(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmHWM:", 0) == 0) return std::stoul(line.substr(6));
    return 0;
}

// How long a fresh client waits for its connection, greeting, match, open
// and first call; negative when it is not served within 5 s.
double served_ms(const Simulator &sim) {
    auto t0 = Clock::now();
    int fd = wire::connect_to(sim.socket()).release();
    bool ok = false;
    if (fd >= 0) {
        uint32_t id = handshake(fd);
        if (id) {
            auto reply = request(fd, wire::Op::Call, call_body(id, kTalvexMethodPing));
            ok = reply && reply->code == 0;
        }
        close(fd);
    }
    return ok ? std::chrono::duration<double, std::milli>(Clock::now() - t0).count() : -1;
}

void report(const char *attack, const Simulator &sim, const std::string &outcome) {
    double ms = served_ms(sim);
    char served[32];
    if (ms < 0)
        std::snprintf(served, sizeof served, "not served");
    else
        std::snprintf(served, sizeof served, "%.1f ms", ms);
    std::printf("%-22s  %8.1f MiB  %-11s  %s\n", attack, static_cast<double>(peak_kib(sim.pid())) / 1024, served,
                outcome.c_str());
}

// One client opens report hub connections and subscribes on each, going on
// after refusals until 10,000 subscriptions or 100 refusals in a row.
void subscriptions(const std::string &program) {
    Simulator sim(quiet(program));
    int fd = wire::connect_to(sim.socket()).release();
    uint64_t hub = match(fd, "IOReportHub");
    std::vector<uint8_t> one(8 + 24, 0);   // one interest that names no channel: a one-page buffer
    one[0] = 1;
    int taken = 0, refusals = 0;
    int32_t first_refusal = 0;
    auto refused = [&](const std::optional<Reply> &r) {
        if (r && r->code == 0) {
            refusals = 0;
            return false;
        }
        if (!first_refusal) first_refusal = r ? r->code : -1;
        ++refusals;
        return true;
    };
    while (taken < 10'000 && refusals < 100) {
        uint32_t conn = open_service(fd, hub);
        if (!conn || refused(request(fd, wire::Op::Call, call_body(conn, kIOReportUserClientOpen)))) {
            ++refusals;
            continue;
        }
        for (int i = 0; i < 256 && taken < 10'000; ++i, ++taken)
            if (refused(request(fd, wire::Op::Call, call_body(conn, kIOReportUserClientConfigureInterests, one, 1))))
                break;
    }
    size_t descriptors = 0;
    std::error_code error;
    for (std::filesystem::directory_iterator it("/proc/" + std::to_string(sim.pid()) + "/fd", error), end;
         !error && it != end; it.increment(error))
        ++descriptors;
    char outcome[128];
    std::snprintf(outcome, sizeof outcome, "%d subscriptions, %zu descriptors open; first refusal %#x", taken,
                  descriptors, static_cast<unsigned>(first_refusal));
    report("subscriptions", sim, outcome);
    close(fd);
}

// 25 clients each send all but the last byte of a largest frame.
void incomplete_frames(const std::string &program) {
    Simulator sim(quiet(program));
    std::vector<uint8_t> frame(4 + wire::kMaxFrame - 1, 0);
    wire::store_le32(frame.data(), wire::kMaxFrame);
    wire::store_le16(frame.data() + 4, static_cast<uint16_t>(wire::Op::Generation));
    std::vector<int> fds;
    int complete = 0;
    for (int i = 0; i < 25; ++i) {
        int fd = wire::connect_to(sim.socket()).release();
        fds.push_back(fd);
        if (fd >= 0 && send_all(fd, frame)) ++complete;
    }
    report("incomplete frames", sim, std::to_string(complete) + " of 25 sent 16 MiB");
    for (int fd : fds)
        if (fd >= 0) close(fd);
}

// The trace filled to its bound, then 60 clients ask for it and never read.
void unread_replies(const std::string &program) {
    Simulator sim(quiet(program));
    int fd = wire::connect_to(sim.socket()).release();
    uint32_t conn = handshake(fd);
    std::vector<uint8_t> big(256u << 10, 0xab);   // traced as 512 KiB of hex, whatever the answer
    for (int i = 0; i < 32; ++i) request(fd, wire::Op::Call, call_body(conn, 99, big));
    wire::Writer trace;
    trace.u32(1);
    trace.str("trace");
    auto request_frame = wire::make_request(wire::Op::Control, 1, trace.data());
    std::vector<int> fds;
    for (int i = 0; i < 60; ++i) {
        fds.push_back(wire::connect_to(sim.socket()).release());
        send_all(fds.back(), request_frame);
    }
    std::this_thread::sleep_for(std::chrono::seconds(2));   // let the simulator answer them all
    auto own = request(fd, wire::Op::Control, trace);
    report("unread replies", sim, own ? "a further trace request: code " + std::to_string(static_cast<uint32_t>(own->code)) : "no answer");
    for (int f : fds) close(f);
    close(fd);
}

// 40 clients each set an 8 MiB property.
void large_properties(const std::string &program) {
    Simulator sim(quiet(program));
    std::vector<uint8_t> bytes(8u << 20, 0x5a);
    CFDataRef value = CFDataCreate(nullptr, bytes.data(), static_cast<CFIndex>(bytes.size()));
    CFDataRef serialised = IOCFSerialize(value, 0);
    CFRelease(value);
    int accepted = 0, refused = 0;
    std::vector<int> fds;
    uint64_t cp = 0;
    for (int i = 0; i < 40; ++i) {
        int fd = wire::connect_to(sim.socket()).release();
        fds.push_back(fd);
        if (!cp) cp = match(fd, "ZantraTalvexProcessor");
        wire::Writer w;
        w.u64(cp);
        w.str("bulk" + std::to_string(i));
        w.blob({CFDataGetBytePtr(serialised), static_cast<size_t>(CFDataGetLength(serialised))});
        auto r = request(fd, wire::Op::SetProperty, w);
        if (r && r->code == 0) ++accepted;
        if (r && r->code == kNoResources) ++refused;
    }
    CFRelease(serialised);
    wire::Writer all;
    all.u64(cp);
    auto props = request(fds[0], wire::Op::GetProperties, all);
    char outcome[128];
    std::snprintf(outcome, sizeof outcome, "%d set, %d refused; the driver's properties: code %#x", accepted, refused,
                  props ? static_cast<unsigned>(props->code) : 0xffffffffu);
    report("large properties", sim, outcome);
    for (int fd : fds) close(fd);
}

}  // namespace

int main(int argc, char **argv) {
    std::string program = talvex::test::talvexsim_path();
    double seconds = 3;
    bool run_load = true, run_hostile = true;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--simulator" && i + 1 < argc) {
            program = argv[++i];
        } else if (a == "--seconds" && i + 1 < argc) {
            seconds = std::stod(argv[++i]);
        } else if (a == "--load") {
            run_hostile = false;
        } else if (a == "--hostile") {
            run_load = false;
        } else {
            std::fprintf(stderr, "usage: %s [--simulator PATH] [--seconds S] [--load | --hostile]\n", argv[0]);
            return 2;
        }
    }
    std::printf("simulator: %s\n", program.c_str());
    if (run_load) {
        std::printf("\nconns     calls/s    p50 us     p99 us  sim cpu us/call\n");
        for (int n : {1, 10, 100, 1000}) load(program, n, seconds);
    }
    if (run_hostile) {
        std::printf("\nattack                  peak RSS      next client  outcome\n");
        subscriptions(program);
        incomplete_frames(program);
        unread_replies(program);
        large_properties(program);
    }
    return 0;
}
