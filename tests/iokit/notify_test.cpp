// Interest notifications delivered by dispatch_main, exit-time callables and
// dispatch_once.
#include <IOKit/IOKitLib.h>
#include <dispatch/dispatch.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>

#include "iokit_support.h"
#include "tool_support.h"

namespace talvex::test {
namespace {

// Per-child state of the callbacks (each scenario runs in its own child).
std::atomic<int> g_events{0};
int g_exit_after = 0;
io_service_t g_service = 0;

void print_event(void *refcon, io_service_t service, uint32_t type, void *arg) {
    const char *tag = static_cast<const char *>(refcon);
    say("%s %#x service %s ", tag, type, service == g_service ? "ok" : "WRONG");
    switch (type) {
    case 0xe0000130: say("value %#llx\n", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(arg))); break;
    case 0xe3ff8100: {
        uint64_t v[2];
        std::memcpy(v, arg, sizeof v);
        say("data %llx %llx\n", static_cast<unsigned long long>(v[0]), static_cast<unsigned long long>(v[1]));
        break;
    }
    default: say("%s\n", arg ? "non-null" : "null"); break;
    }
    if (++g_events == g_exit_after) std::exit(0);
}

// Only dispatch_main delivers, in order, also what arrived while a
// synchronous call waited for its reply. (What the monitor prints of each,
// and that it hears nothing else: the monitor's tests.)
TEST(Notifications, DeliveredInOrderOnlyByDispatchMain) {
    Simulator sim;
    auto out = child_output(
        sim.socket(),
        [&] {
            g_service = coprocessor();
            ASSERT_NE(g_service, 0u);
            IONotificationPortRef port = IONotificationPortCreate(kIOMainPortDefault);
            static char b[] = "B";
            io_object_t nb = 0;
            ASSERT_EQ(IOServiceAddInterestNotification(port, g_service, kIOGeneralInterest, print_event, b, &nb),
                      KERN_SUCCESS);
            IONotificationPortSetDispatchQueue(port, dispatch_get_main_queue());

            // Two messages arrive while a synchronous call waits for its reply.
            control(sim, {"notify", "0xe0000130", "--value", "0x10004"});
            control(sim, {"notify", "0xe3ff8100", "--data", "01000000000000000200000000000000"});
            CFRelease(IORegistryEntryCreateCFProperty(g_service, CFSTR("talvex-state"), nullptr, 0));
            say("before dispatch_main: %d\n", g_events.load());
            atexit_b([=] {
                IOObjectRelease(nb);
                IONotificationPortDestroy(port);
                IOObjectRelease(g_service);
            });
            g_exit_after = 3;
            say("ready\n");
            dispatch_main();
        },
        "ready", [&] { control(sim, {"notify", "0xe0000010"}); });
    EXPECT_EQ(lines(out), (std::vector<std::string>{"before dispatch_main: 0", "ready",
                                                   "B 0xe0000130 service ok value 0x10004",
                                                   "B 0xe3ff8100 service ok data 1 2", "B 0xe0000010 service ok null"}));
}

TEST(MainQueue, KeepsWaitingWithoutSpinningWhenTheSimulatorGoesAway) {
    Simulator sim;
    pid_t sim_pid = sim.pid();
    auto out = child_output(
        sim.socket(),
        [&] {
            g_service = coprocessor();
            IONotificationPortRef port = IONotificationPortCreate(kIOMainPortDefault);
            static char tag[] = "K";
            io_object_t n = 0;
            ASSERT_EQ(IOServiceAddInterestNotification(port, g_service, kIOGeneralInterest, print_event, tag, &n),
                      KERN_SUCCESS);
            IONotificationPortSetDispatchQueue(port, dispatch_get_main_queue());
            std::thread([sim_pid] {
                // Once the simulator is gone, measure what the main queue burns.
                while (kill(sim_pid, 0) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                timespec a, b;
                clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &a);
                std::this_thread::sleep_for(std::chrono::milliseconds(500));
                clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &b);
                double used = static_cast<double>(b.tv_sec - a.tv_sec) + static_cast<double>(b.tv_nsec - a.tv_nsec) / 1e9;
                say("cpu %s\n", used < 0.05 ? "idle" : "busy");
                std::_Exit(0);
            }).detach();
            say("ready\n");
            dispatch_main();
        },
        "ready", [&] { sim.kill(); });
    EXPECT_EQ(lines(out), (std::vector<std::string>{"ready", "cpu idle"}));
}

void exit_a() { say("atexit a\n"); }
void exit_b() { say("atexit b\n"); }

TEST(MainQueue, ExitCallablesRunNewestFirstAmongAtexitHandlers) {
    auto out = child_output("/nonexistent/sim.sock", [] {
        std::atexit(exit_a);
        EXPECT_EQ(atexit_b([] { say("block 1\n"); }), 0);
        std::atexit(exit_b);
        EXPECT_EQ(atexit_b([] { say("block 2\n"); }), 0);
        std::exit(0);
    });
    EXPECT_EQ(lines(out), (std::vector<std::string>{"block 2", "atexit b", "block 1", "atexit a"}));
}

TEST(MainQueue, CarriesThisProjectsLabel) {
    EXPECT_STREQ(dispatch_queue_get_label(dispatch_get_main_queue()), "talvex.main-thread");
}

TEST(MainQueue, DispatchOnceRunsOnceWhileOthersWait) {
    static dispatch_once_t once = 0;
    std::atomic<int> runs{0}, saw_done{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] {
            dispatch_once(&once, [&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
                ++runs;
            });
            // Nobody returns before the one run has finished.
            if (runs.load() == 1) ++saw_done;
        });
    for (auto &t : threads) t.join();
    EXPECT_EQ(runs.load(), 1);
    EXPECT_EQ(saw_done.load(), 8);
}

}  // namespace
}  // namespace talvex::test
