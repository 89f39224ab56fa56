// The link to the simulator: no simulator, a simulator that dies, peers that
// break the protocol.
#include <IOKit/IOKitLib.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <new>
#include <thread>

#include "iokit_support.h"
#include "tool_support.h"

// The largest single allocation since a test last cleared it: replies must
// cost memory in proportion to their bytes, whatever counts they claim.
// (The address-checking build keeps its own allocator, and does not count.)
static std::atomic<size_t> g_largest{0};
#if !defined(__SANITIZE_ADDRESS__)
void *operator new(size_t n) {
    for (size_t seen = g_largest.load(); n > seen;)
        if (g_largest.compare_exchange_weak(seen, n)) break;
    if (void *p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"   // this new is malloc
#endif
void operator delete(void *p) noexcept { std::free(p); }
void operator delete(void *p, size_t) noexcept { std::free(p); }
#endif

namespace talvex::test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

long long ms_since(Clock::time_point t) {
    return std::chrono::duration_cast<milliseconds>(Clock::now() - t).count();
}

void expect_empty_registry() {
    auto t0 = Clock::now();
    EXPECT_EQ(coprocessor(), 0u);
    io_iterator_t it = 0;
    ASSERT_EQ(IOServiceGetMatchingServices(kIOMainPortDefault, IOServiceMatching("ZantraTalvexProcessor"), &it),
              KERN_SUCCESS);
    EXPECT_TRUE(IOIteratorIsValid(it));
    EXPECT_EQ(IOIteratorNext(it), 0u);
    EXPECT_EQ(IOObjectRelease(it), KERN_SUCCESS);
    EXPECT_LT(ms_since(t0), 1000);
}

// No socket, a socket nobody listens on (a simulator that died long ago), a
// path too long for a socket address. (Peers that never answer, refuse, or
// never send a reply: the tool's Unreachable tests.)
TEST(NoSimulator, TheRegistryIsEmptyWithoutAUsableSimulator) {
    TempDir dir;
    ASSERT_TRUE(wire::listen_at(dir.path + "/sim.sock", 1));   // closed at once
    for (const std::string &socket :
         {std::string("/nonexistent-talvex-dir/sim.sock"), dir.path + "/sim.sock", "/tmp/" + std::string(200, 'x') + "/s"})
        in_child(socket, [] { expect_empty_registry(); });
}

TEST(DeadSimulator, ACallInFlightFailsPromptlyAndLaterCallsFailFast) {
    Simulator sim;
    pid_t sim_pid = sim.pid();
    in_child(sim.socket(), [&] {
        io_service_t cp = coprocessor();
        ASSERT_NE(cp, 0u);
        io_connect_t c = open_client(cp);
        io_iterator_t it = 0;
        ASSERT_EQ(IOServiceGetMatchingServices(kIOMainPortDefault, IOServiceMatching("IOReportHub"), &it),
                  KERN_SUCCESS);

        // Freeze the simulator so the call waits, then kill it.
        ASSERT_EQ(kill(sim_pid, SIGSTOP), 0);
        auto call = std::async(std::launch::async, [c] {
            kern_return_t kr = IOConnectCallScalarMethod(c, 4, nullptr, 0, nullptr, nullptr);
            return std::make_pair(kr, Clock::now());
        });
        EXPECT_EQ(call.wait_for(milliseconds(300)), std::future_status::timeout);
        auto killed = Clock::now();
        ASSERT_EQ(kill(sim_pid, SIGKILL), 0);
        ASSERT_EQ(call.wait_for(std::chrono::seconds(5)), std::future_status::ready);
        auto [kr, when] = call.get();
        EXPECT_EQ(kr, kIOReturnIPCError);
        EXPECT_LT(std::chrono::duration_cast<milliseconds>(when - killed).count(), 1000);

        auto t0 = Clock::now();
        EXPECT_EQ(IOConnectCallScalarMethod(c, 4, nullptr, 0, nullptr, nullptr), kIOReturnIPCError);
        EXPECT_EQ(coprocessor(), 0u);
        io_iterator_t it2 = 0;
        EXPECT_EQ(IOServiceGetMatchingServices(kIOMainPortDefault, IOServiceMatching("IOReportHub"), &it2),
                  kIOReturnIPCError);
        EXPECT_FALSE(IOIteratorIsValid(it));
        EXPECT_EQ(IOServiceClose(c), kIOReturnIPCError);
        EXPECT_LT(ms_since(t0), 200);
        IOObjectRelease(it);
        IOObjectRelease(cp);
    });
}

TEST(DeadSimulator, ACallAfterItDiedFailsWithoutSigpipe) {
    Simulator sim;
    pid_t sim_pid = sim.pid();
    auto out = child_output(
        sim.socket(),
        [&] {
            io_service_t cp = coprocessor();
            io_connect_t c = open_client(cp);
            say("ready\n");
            while (kill(sim_pid, 0) == 0) std::this_thread::sleep_for(milliseconds(5));   // until reaped
            uint8_t big[4096] = {};
            EXPECT_EQ(IOConnectCallStructMethod(c, 9, big, sizeof big, nullptr, nullptr), kIOReturnIPCError);
            say("survived\n");
            IOObjectRelease(c);
            IOObjectRelease(cp);
        },
        "ready", [&] { sim.kill(); });
    EXPECT_EQ(lines(out), (std::vector<std::string>{"ready", "survived"}));
}

// The body of a Match reply: registry generation, entry count, then one ID.
std::vector<uint8_t> match_body(uint64_t generation, uint32_t count, uint64_t id) {
    wire::Writer w;
    w.u64(generation);
    w.u32(count);
    w.u64(id);
    return w.take();
}

// A peer script answering Match with one entry (ID 42), after first sending
// an event and a stale reply, and writing the reply one byte at a time.
void fragmented_match(FakePeer &p) {
    if (!p.greet()) return;
    Request req;
    if (!p.read(req) || req.op != wire::Op::Match) return;
    wire::Writer ev;
    ev.u32(7);
    ev.u64(42);
    ev.u32(0xe0000130);
    ev.u8(1);
    ev.u64(5);
    p.send(wire::make_event(ev.data()));
    p.send(wire::make_reply(wire::Op::Match, req.seq + 100, 0, {}));   // not ours
    auto frame = wire::make_reply(wire::Op::Match, req.seq, 0, match_body(5, 1, 42));
    for (uint8_t b : frame) {
        p.send({&b, 1});
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    while (p.read(req)) p.reply(req, kIOReturnUnsupported, {});
}

TEST(Protocol, FramesAreReassembledAndStrayFramesSkipped) {
    in_child("", [] {
        FakePeer peer(fragmented_match);
        setenv("TALVEX_SIM_SOCKET", peer.socket().c_str(), 1);
        io_service_t s = coprocessor();
        ASSERT_NE(s, 0u);
        uint64_t id = 0;
        EXPECT_EQ(IORegistryEntryGetRegistryEntryID(s, &id), KERN_SUCCESS);
        EXPECT_EQ(id, 42u);
        // The link is still in step: the next reply is the peer's answer.
        io_name_t name;
        EXPECT_EQ(IORegistryEntryGetName(s, name), kIOReturnUnsupported);
        IOObjectRelease(s);
    });
}

// A link's first request goes in the greeting's write: the peer has it before
// it answers the greeting (the client waits for that answer). Its reply
// counts only once the greeting is answered as a simulator answers it.
TEST(Protocol, TheFirstRequestComesWithTheGreeting) {
    for (uint32_t version : {wire::kProtocolVersion, wire::kProtocolVersion + 1}) {
        in_child("", [version] {
            FakePeer peer([version](FakePeer &p) {
                Request hello, match, more;
                if (!p.read(hello) || hello.op != wire::Op::Hello) return;
                if (!p.read(match, milliseconds(2000)) || match.op != wire::Op::Match || match.seq != 2) {
                    ADD_FAILURE() << "no Match (sequence number 2) came with the greeting";
                    return;
                }
                wire::Writer w;
                w.u32(version);
                p.reply(hello, 0, w.data());
                p.reply(match, 0, match_body(1, 1, 42));
                while (p.read(more)) {
                    EXPECT_EQ(version, wire::kProtocolVersion) << "a request after a greeting answered wrongly";
                    p.reply(more, kIOReturnUnsupported, {});
                }
            });
            setenv("TALVEX_SIM_SOCKET", peer.socket().c_str(), 1);
            if (version != wire::kProtocolVersion) return expect_empty_registry();
            io_service_t s = coprocessor();
            ASSERT_NE(s, 0u);
            uint64_t id = 0;
            EXPECT_EQ(IORegistryEntryGetRegistryEntryID(s, &id), KERN_SUCCESS);
            EXPECT_EQ(id, 42u);
            io_name_t name;   // the next request is answered in its turn
            EXPECT_EQ(IORegistryEntryGetName(s, name), kIOReturnUnsupported);
            IOObjectRelease(s);
        });
    }
}

TEST(Protocol, MalformedRepliesFailTheCallNotTheProcess) {
    in_child("", [] {
        FakePeer peer([](FakePeer &p) {
            if (!p.greet()) return;
            Request req;
            // 1: a Match reply whose count claims more entries than its bytes could hold.
            if (!p.read(req)) return;
            std::vector<uint8_t> lying = match_body(1, 1u << 20, 42);
            lying.resize(lying.size() + (1u << 20));
            p.reply(req, 0, lying);
            // 2: a good Match reply.
            if (!p.read(req)) return;
            p.reply(req, 0, match_body(1, 1, 42));
            // 3: Open.
            if (!p.read(req)) return;
            wire::Writer conn;
            conn.u32(9);
            p.reply(req, 0, conn.data());
            // 4: Map without a descriptor.
            if (!p.read(req)) return;
            wire::Writer size;
            size.u64(4096);
            p.reply(req, 0, size.data());
            // 5: Map with a descriptor smaller than the size claimed.
            if (!p.read(req)) return;
            int fd = memfd_create("small", MFD_CLOEXEC);
            if (ftruncate(fd, 100) != 0) ADD_FAILURE() << "ftruncate";
            p.send_fd(wire::make_reply(req.op, req.seq, 0, size.data()), fd);
            close(fd);
            // 6: a call answered with a frame longer than any frame may be.
            if (!p.read(req)) return;
            uint8_t huge[4];
            wire::store_le32(huge, wire::kMaxFrame + 1);
            p.send({huge, 4});
            while (p.read(req)) ADD_FAILURE() << "request on a link that should be dead";
        });
        setenv("TALVEX_SIM_SOCKET", peer.socket().c_str(), 1);
        io_iterator_t it = 0;
        g_largest = 0;
        EXPECT_EQ(IOServiceGetMatchingServices(kIOMainPortDefault, IOServiceMatching("X"), &it), kIOReturnIPCError);
        EXPECT_LT(g_largest.load(), 3u << 20);   // the frame, not a list sized by the count
        io_service_t s = coprocessor();
        ASSERT_NE(s, 0u);
        io_connect_t c = open_client(s);
        mach_vm_address_t addr = 0;
        mach_vm_size_t size = 0;
        EXPECT_EQ(IOConnectMapMemory(c, 0, mach_task_self(), &addr, &size, kIOMapAnywhere), kIOReturnIPCError);
        EXPECT_EQ(IOConnectMapMemory(c, 0, mach_task_self(), &addr, &size, kIOMapAnywhere), kIOReturnVMError);
        EXPECT_EQ(addr, 0u);
        auto t0 = Clock::now();
        EXPECT_EQ(IOConnectCallScalarMethod(c, 4, nullptr, 0, nullptr, nullptr), kIOReturnIPCError);
        EXPECT_EQ(IOConnectCallScalarMethod(c, 4, nullptr, 0, nullptr, nullptr), kIOReturnIPCError);
        EXPECT_LT(ms_since(t0), 500);
        IOObjectRelease(c);
        IOObjectRelease(s);
    });
}

// The only check that the link serves several threads: each call gets its own
// reply while others are in flight, and lookups in between find the one handle.
TEST(Threads, CallsFromSeveralThreadsEachGetTheirOwnReply) {
    Simulator sim;
    for (int t = 1; t <= 4; ++t)
        control(sim, {"stub", "--selector", std::to_string(kTalvexMethodGpioRead), "--scalars", std::to_string(t),
                      "--scalar-outputs", std::to_string(100 + t)});
    in_child(sim.socket(), [] {
        io_service_t cp = coprocessor();
        io_connect_t c = open_client(cp);
        std::atomic<int> wrong{0};
        std::vector<std::thread> threads;
        for (uint64_t t = 1; t <= 4; ++t)
            threads.emplace_back([&, t] {
                for (int i = 0; i < 200; ++i) {
                    uint64_t out = 0;
                    uint32_t n = 1;
                    if (IOConnectCallScalarMethod(c, kTalvexMethodGpioRead, &t, 1, &out, &n) != KERN_SUCCESS ||
                        n != 1 || out != 100 + t)
                        ++wrong;
                    if (i % 50 == 0) {
                        io_service_t again = coprocessor();
                        if (again != cp) ++wrong;
                        IOObjectRelease(again);
                    }
                }
            });
        for (auto &t : threads) t.join();
        EXPECT_EQ(wrong.load(), 0);
        EXPECT_EQ(IOObjectGetUserRetainCount(cp), 1u);
        IOServiceClose(c);
        IOObjectRelease(cp);
    });
}

}  // namespace
}  // namespace talvex::test
