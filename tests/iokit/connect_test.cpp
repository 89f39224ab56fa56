// User clients against a private simulator: open and close, the call forms'
// capacities, shared memory.
#include <IOKit/IOKitLib.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>

#include "iokit_support.h"
#include "tool_support.h"

namespace talvex::test {
namespace {

// (A driver's refusal of the open: the tool's cases.)
TEST(UserClient, OpenAndCloseWithTheirCodes) {
    Simulator sim;
    in_child(sim.socket(), [&] {
        io_service_t cp = coprocessor();
        ASSERT_NE(cp, 0u);
        io_connect_t c = 77;
        EXPECT_EQ(IOServiceOpen(0, mach_task_self(), 0, &c), kInvalidHandle);
        EXPECT_EQ(c, 0u);

        // The close gives up the handle: nothing can use it after.
        c = open_client(cp);
        EXPECT_EQ(IOServiceClose(c), KERN_SUCCESS);
        EXPECT_EQ(IOConnectCallScalarMethod(c, kTalvexMethodPing, nullptr, 0, nullptr, nullptr), kInvalidHandle);
        EXPECT_EQ(IOServiceClose(c), kInvalidHandle);
        IOObjectRelease(cp);
    });
}

// (What the driver is told of each call, capacities and inputs: the trace
// lines of the cases.)
TEST(UserClient, CallsCutOutputsToTheCallersRoomAndLeaveBuffersAloneOnFailure) {
    Simulator sim;
    control(sim, {"stub", "--selector", std::to_string(kTalvexMethodGpioRead), "--scalar-outputs", "7,8,9"});
    control(sim, {"stub", "--selector", std::to_string(kTalvexMethodHalt)});
    control(sim, {"stub", "--selector", std::to_string(kTalvexMethodRegisterRead), "--output", "0102030405"});
    control(sim, {"stub", "--selector", std::to_string(kTalvexMethodMemoryRead), "--code", "0xe00002d8", "--output",
                  "0102"});
    control(sim, {"stub", "--selector", std::to_string(kTalvexMethodPerfMonitor), "--output", "aabbccddeeff0011",
                  "--output-size", "3"});
    in_child(sim.socket(), [] {
        io_service_t cp = coprocessor();
        io_connect_t c = open_client(cp);
        // Scalars: cut to the room given, or fewer than the room; none without an array.
        uint64_t in = 3, out[4] = {0xaa, 0xaa, 0xaa, 0xaa};
        uint32_t n = 2;
        EXPECT_EQ(IOConnectCallScalarMethod(c, kTalvexMethodGpioRead, &in, 1, out, &n), KERN_SUCCESS);
        EXPECT_EQ(n, 2u);
        EXPECT_EQ(std::vector<uint64_t>(out, out + 4), (std::vector<uint64_t>{7, 8, 0xaa, 0xaa}));
        n = 4;
        EXPECT_EQ(IOConnectCallScalarMethod(c, kTalvexMethodGpioRead, &in, 1, out, &n), KERN_SUCCESS);
        EXPECT_EQ(n, 3u);
        EXPECT_EQ(std::vector<uint64_t>(out, out + 4), (std::vector<uint64_t>{7, 8, 9, 0xaa}));
        EXPECT_EQ(IOConnectCallScalarMethod(c, kTalvexMethodGpioRead, &in, 1, nullptr, &n), KERN_SUCCESS);
        EXPECT_EQ(n, 0u);
        uint64_t halt[3] = {0xffffffffffffffffull, 0x8000000000000000ull, 1};
        EXPECT_EQ(IOConnectCallScalarMethod(c, kTalvexMethodHalt, halt, 3, nullptr, nullptr), KERN_SUCCESS);
        EXPECT_EQ(IOConnectCallScalarMethod(c, kTalvexMethodHalt, nullptr, 3, nullptr, nullptr), kIOReturnBadArgument);

        // Structures: cut to the capacity; a failed method hands nothing back.
        const uint8_t req[3] = {0, 0, 0x10};
        uint8_t buf[8];
        std::memset(buf, 0xff, sizeof buf);
        size_t size = 3;
        EXPECT_EQ(IOConnectCallStructMethod(c, kTalvexMethodRegisterRead, req, 3, buf, &size), KERN_SUCCESS);
        EXPECT_EQ(size, 3u);
        EXPECT_EQ(std::vector<uint8_t>(buf, buf + 4), (std::vector<uint8_t>{1, 2, 3, 0xff}));
        std::memset(buf, 0xff, sizeof buf);
        size = 4;
        const uint8_t mem[6] = {1, 2, 3, 4, 5, 4};
        EXPECT_EQ(IOConnectCallStructMethod(c, kTalvexMethodMemoryRead, mem, 6, buf, &size), kIOReturnNotReady);
        EXPECT_EQ(size, 4u);
        EXPECT_EQ(buf[0], 0xff);
        // Mixed: the size reported back is the driver's.
        uint64_t two[2] = {1, 2};
        const uint8_t pin[4] = {9, 8, 7, 6};
        size = 8;
        EXPECT_EQ(IOConnectCallMethod(c, kTalvexMethodPerfMonitor, two, 2, pin, 4, nullptr, nullptr, buf, &size),
                  KERN_SUCCESS);
        EXPECT_EQ(size, 3u);
        // An input that cannot travel at all is refused before it is sent.
        std::vector<uint8_t> huge(wire::kMaxFrame + 1);
        EXPECT_EQ(IOConnectCallStructMethod(c, kTalvexMethodRawBytes, huge.data(), huge.size(), nullptr, nullptr),
                  kIOReturnMessageTooLarge);
        IOServiceClose(c);
        IOObjectRelease(cp);
    });
}

TEST(UserClient, MapsTheHubBufferReadOnly) {
    Simulator sim;
    in_child(sim.socket(), [] {
        io_service_t hub = IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching("IOReportHub"));
        ASSERT_NE(hub, 0u);
        io_connect_t c = open_client(hub);
        mach_vm_address_t addr = 0, addr2 = 0;
        mach_vm_size_t size = 0, size2 = 0;
        ASSERT_EQ(IOConnectMapMemory(c, 0, mach_task_self(), &addr, &size, kIOMapAnywhere), KERN_SUCCESS);
        ASSERT_GE(size, 64u);

        // The mapping is read-only: a write faults.
        pid_t pid = fork();
        if (pid == 0) {
            std::signal(SIGSEGV, SIG_DFL);   // die by the signal, not by a sanitizer's report
            *reinterpret_cast<volatile uint8_t *>(addr) = 1;
            _exit(0);
        }
        int st = 0;
        waitpid(pid, &st, 0);
        EXPECT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGSEGV);

        EXPECT_EQ(IOConnectMapMemory(c, 5, mach_task_self(), &addr2, &size2, kIOMapAnywhere), kIOReturnBadArgument);
        EXPECT_EQ(IOConnectMapMemory(c, 0, mach_task_self(), nullptr, &size2, kIOMapAnywhere), kIOReturnBadArgument);
        IOServiceClose(c);
        IOObjectRelease(hub);
    });
}

}  // namespace
}  // namespace talvex::test
