// User clients against a private simulator: open and close, every call form,
// capacities, stubbed codes, shared memory.
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

std::string call_line(int selector, const std::string &scalars, const std::string &input, int output_size,
                      int scalar_outputs, uint32_t result) {
    return R"({"service":"ZantraTalvexProcessor","selector":)" + std::to_string(selector) + R"(,"scalars":[)" +
           scalars + R"(],"input":")" + input + R"(","output_size":)" + std::to_string(output_size) +
           R"(,"scalar_output_count":)" + std::to_string(scalar_outputs) + R"(,"result":)" + std::to_string(result) +
           "}";
}

TEST(UserClient, OpenAndCloseWithTheirCodes) {
    Simulator sim;
    control(sim, {"stub", "--open", "--code", "0xe00002c1", "--times", "1"});
    in_child(sim.socket(), [&] {
        io_service_t cp = coprocessor();
        ASSERT_NE(cp, 0u);
        io_connect_t c = 77;
        EXPECT_EQ(IOServiceOpen(cp, mach_task_self(), 0, &c), kIOReturnNotPrivileged);
        EXPECT_EQ(c, 0u);
        EXPECT_EQ(IOServiceOpen(cp, mach_task_self(), 7, &c), kIOReturnBadArgument);
        EXPECT_EQ(c, 0u);
        EXPECT_EQ(IOServiceOpen(cp, mach_task_self(), 0, nullptr), kIOReturnBadArgument);
        EXPECT_EQ(IOServiceOpen(0, mach_task_self(), 0, &c), kInvalidHandle);

        c = open_client(cp);
        io_name_t cls;
        EXPECT_EQ(IOObjectGetClass(c, cls), KERN_SUCCESS);
        EXPECT_STREQ(cls, "IOUserClient");
        EXPECT_EQ(IOConnectCallScalarMethod(c, kTalvexMethodPing, nullptr, 0, nullptr, nullptr), KERN_SUCCESS);

        // A second count keeps the handle past the close, but the connection is gone.
        IOObjectRetain(c);
        EXPECT_EQ(IOServiceClose(c), KERN_SUCCESS);
        EXPECT_EQ(IOObjectGetUserRetainCount(c), 1u);
        EXPECT_EQ(IOConnectCallScalarMethod(c, kTalvexMethodPing, nullptr, 0, nullptr, nullptr), kIOReturnNotOpen);
        EXPECT_EQ(IOServiceClose(c), kIOReturnNotOpen);   // that took the last count
        EXPECT_EQ(IOObjectGetUserRetainCount(c), 0u);
        EXPECT_EQ(IOConnectCallScalarMethod(c, kTalvexMethodPing, nullptr, 0, nullptr, nullptr), kInvalidHandle);

        // Releasing a connection's last count does not close it; nothing can use it after.
        io_connect_t c2 = open_client(cp);
        EXPECT_EQ(IOObjectRelease(c2), KERN_SUCCESS);
        EXPECT_EQ(IOServiceClose(c2), kInvalidHandle);
        IOObjectRelease(cp);
    });
    EXPECT_EQ(sim.trace(), (std::vector<std::string>{
                               R"({"service":"ZantraTalvexProcessor","open":0,"result":3758097089})",
                               R"({"service":"ZantraTalvexProcessor","open":7,"result":3758097090})",
                               R"({"service":"ZantraTalvexProcessor","open":0,"result":0})",
                               call_line(4, "", "", 0, 0, 0),
                               R"({"service":"ZantraTalvexProcessor","open":0,"result":0})",
                           }));
}

TEST(UserClient, ScalarCallsCutOutputsToTheCallersRoom) {
    Simulator sim;
    control(sim, {"stub", "--selector", std::to_string(kTalvexMethodGpioRead), "--scalar-outputs", "7,8,9"});
    // whatever the model thinks of the values
    control(sim, {"stub", "--selector", std::to_string(kTalvexMethodHalt)});
    in_child(sim.socket(), [] {
        io_service_t cp = coprocessor();
        io_connect_t c = open_client(cp);
        uint64_t in[1] = {3};
        uint64_t out[4] = {0xaa, 0xaa, 0xaa, 0xaa};
        uint32_t n = 2;
        EXPECT_EQ(IOConnectCallScalarMethod(c, kTalvexMethodGpioRead, in, 1, out, &n), KERN_SUCCESS);
        EXPECT_EQ(n, 2u);
        EXPECT_EQ(out[0], 7u);
        EXPECT_EQ(out[1], 8u);
        EXPECT_EQ(out[2], 0xaau);
        // Room for more than comes back: the count says how many came.
        n = 4;
        EXPECT_EQ(IOConnectCallScalarMethod(c, kTalvexMethodGpioRead, in, 1, out, &n), KERN_SUCCESS);
        EXPECT_EQ(n, 3u);
        EXPECT_EQ(out[2], 9u);
        EXPECT_EQ(out[3], 0xaau);
        // No output array: nothing comes back, and the count says so.
        n = 4;
        EXPECT_EQ(IOConnectCallScalarMethod(c, kTalvexMethodGpioRead, in, 1, nullptr, &n), KERN_SUCCESS);
        EXPECT_EQ(n, 0u);
        // Full 64-bit inputs travel whole.
        uint64_t halt[3] = {0xffffffffffffffffull, 0x8000000000000000ull, 1};
        EXPECT_EQ(IOConnectCallScalarMethod(c, kTalvexMethodHalt, halt, 3, nullptr, nullptr), KERN_SUCCESS);
        // Inputs promised but not given.
        EXPECT_EQ(IOConnectCallScalarMethod(c, kTalvexMethodHalt, nullptr, 3, nullptr, nullptr), kIOReturnBadArgument);
        IOServiceClose(c);
        IOObjectRelease(cp);
    });
    auto trace = sim.trace();
    std::vector<std::string> calls(trace.begin() + 1, trace.end());   // after the open
    EXPECT_EQ(calls, (std::vector<std::string>{
                         call_line(12, "3", "", 0, 2, 0),
                         call_line(12, "3", "", 0, 4, 0),
                         call_line(12, "3", "", 0, 0, 0),
                         call_line(40, "18446744073709551615,9223372036854775808,1", "", 0, 0, 0),
                     }));
}

TEST(UserClient, StructureCallsHonourCapacityAndLeaveBuffersAloneOnFailure) {
    Simulator sim;
    control(sim, {"stub", "--selector", std::to_string(kTalvexMethodRegisterRead), "--output", "0102030405"});
    control(sim, {"stub", "--selector", std::to_string(kTalvexMethodMemoryRead), "--code", "0xe00002d8", "--output",
                  "0102"});
    control(sim, {"stub", "--selector", std::to_string(kTalvexMethodPerfMonitor), "--output", "aabbccddeeff0011",
                  "--output-size", "3"});
    // whatever the model thinks of the request
    control(sim, {"stub", "--selector", std::to_string(kTalvexMethodRegisterWrite)});
    in_child(sim.socket(), [] {
        io_service_t cp = coprocessor();
        io_connect_t c = open_client(cp);
        const uint8_t req[3] = {0, 0, 0x10};
        uint8_t buf[16];
        std::memset(buf, 0xff, sizeof buf);
        size_t size = 16;
        EXPECT_EQ(IOConnectCallStructMethod(c, kTalvexMethodRegisterRead, req, 3, buf, &size), KERN_SUCCESS);
        EXPECT_EQ(size, 5u);
        EXPECT_EQ(buf[0], 1);
        EXPECT_EQ(buf[4], 5);
        EXPECT_EQ(buf[5], 0xff);

        std::memset(buf, 0xff, sizeof buf);
        size = 3;
        EXPECT_EQ(IOConnectCallStructMethod(c, kTalvexMethodRegisterRead, req, 3, buf, &size), KERN_SUCCESS);
        EXPECT_EQ(size, 3u);
        EXPECT_EQ(buf[2], 3);
        EXPECT_EQ(buf[3], 0xff);

        // A failed method hands nothing back.
        std::memset(buf, 0xff, sizeof buf);
        size = 4;
        const uint8_t mem[6] = {1, 2, 3, 4, 5, 4};
        EXPECT_EQ(IOConnectCallStructMethod(c, kTalvexMethodMemoryRead, mem, 6, buf, &size), kIOReturnNotReady);
        EXPECT_EQ(size, 4u);
        EXPECT_EQ(buf[0], 0xff);

        // No output structure: capacity 0 whatever the count says.
        const uint8_t wr[19] = {};
        size = 16;
        EXPECT_EQ(IOConnectCallStructMethod(c, kTalvexMethodRegisterWrite, wr, 19, nullptr, &size), KERN_SUCCESS);
        EXPECT_EQ(size, 0u);

        // Mixed: scalars and both structures; the size reported back is the driver's.
        uint64_t two[2] = {1, 2};
        const uint8_t pin[4] = {9, 8, 7, 6};
        uint8_t pout[8] = {};
        size = 8;
        EXPECT_EQ(IOConnectCallMethod(c, kTalvexMethodPerfMonitor, two, 2, pin, 4, nullptr, nullptr, pout, &size),
                  KERN_SUCCESS);
        EXPECT_EQ(size, 3u);
        EXPECT_EQ(pout[2], 0xcc);
        EXPECT_EQ(pout[3], 0);

        // A shape the driver refuses (clkmeasure takes 4 bytes).
        size = 8;
        EXPECT_EQ(IOConnectCallStructMethod(c, kTalvexMethodClockMeasure, req, 2, buf, &size), kIOReturnBadArgument);
        // An input that cannot travel at all is refused before it is sent.
        std::vector<uint8_t> huge(wire::kMaxFrame + 1);
        EXPECT_EQ(IOConnectCallStructMethod(c, kTalvexMethodRawBytes, huge.data(), huge.size(), nullptr, nullptr),
                  kIOReturnMessageTooLarge);
        EXPECT_EQ(IOConnectCallStructMethod(c, kTalvexMethodRawBytes, nullptr, 4, nullptr, nullptr),
                  kIOReturnBadArgument);
        IOServiceClose(c);
        IOObjectRelease(cp);
    });
    auto trace = sim.trace();
    std::vector<std::string> calls(trace.begin() + 1, trace.end());
    EXPECT_EQ(calls, (std::vector<std::string>{
                         call_line(6, "", "000010", 16, 0, 0),
                         call_line(6, "", "000010", 3, 0, 0),
                         call_line(37, "", "010203040504", 4, 0, 0xe00002d8),
                         call_line(7, "", std::string(38, '0'), 0, 0, 0),
                         call_line(39, "1,2", "09080706", 8, 0, 0),
                         call_line(32, "", "0000", 8, 0, 0xe00002c2),
                     }));
}

TEST(UserClient, MapsTheHubBufferReadOnly) {
    Simulator sim;
    in_child(sim.socket(), [] {
        io_service_t hub = IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching("IOReportHub"));
        ASSERT_NE(hub, 0u);
        io_connect_t c = open_client(hub);
        mach_vm_address_t addr = 0;
        mach_vm_size_t size = 0;
        ASSERT_EQ(IOConnectMapMemory(c, 0, mach_task_self(), &addr, &size, kIOMapAnywhere), KERN_SUCCESS);
        ASSERT_NE(addr, 0u);
        ASSERT_GE(size, 64u);
        auto *p = reinterpret_cast<const volatile uint8_t *>(addr);
        unsigned sum = 0;
        for (size_t i = 0; i < size; ++i) sum += p[i];
        EXPECT_EQ(sum, 0u);   // a fresh buffer holds nothing yet

        // A second mapping of the same memory is a second address.
        mach_vm_address_t addr2 = 0;
        mach_vm_size_t size2 = 0;
        ASSERT_EQ(IOConnectMapMemory(c, 0, mach_task_self(), &addr2, &size2, kIOMapAnywhere), KERN_SUCCESS);
        EXPECT_NE(addr2, addr);
        EXPECT_EQ(size2, size);

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
        EXPECT_EQ(IOConnectUnmapMemory(c, 0, mach_task_self(), addr2), KERN_SUCCESS);
        EXPECT_EQ(IOConnectUnmapMemory(c, 0, mach_task_self(), addr2), kIOReturnBadArgument);
        // Mappings outlive the connection.
        EXPECT_EQ(IOServiceClose(c), KERN_SUCCESS);
        EXPECT_EQ(p[size - 1], 0);
        IOObjectRelease(hub);
    });
}

}  // namespace
}  // namespace talvex::test
