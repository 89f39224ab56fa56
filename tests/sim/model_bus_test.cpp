// The bus and memory model in-process. (What the devices keep, through the
// commands: tests/cases/registers.case, memory.case, spi_i2c.case.)
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "model_bus.h"
#include "sim_rig.h"

using namespace talvex;
using namespace talvex::sim;
using namespace talvex::test;

namespace {

using Bytes = std::vector<uint8_t>;

constexpr IOReturn kOk = kIOReturnSuccess;

// The coprocessor, with the register reads and writes the tests make often.
struct Rig : SimRig {
    CallResult read_registers(uint8_t device, uint8_t reg, uint8_t count) {
        return call(kTalvexMethodRegisterRead, {}, {device, reg, count}, count);
    }
    CallResult write_registers(uint8_t device, uint8_t reg, const Bytes &data) {
        return call(kTalvexMethodRegisterWrite, {}, register_write_request(device, reg, data));
    }
    uint16_t accel_z() {
        Bytes z = read_registers(1, 0x2c, 2).out;
        return static_cast<uint16_t>(z[0] | z[1] << 8);
    }
};

// Every selector that needs the firmware (bus, diagnostics and lifecycle
// alike): answered while booted, not ready once stopped, before any check of
// what the request holds.
TEST(ModelSelectors, EveryFirmwareSelectorIsNotReadyWhileStopped) {
    struct Case {
        uint32_t selector;
        std::vector<uint64_t> scalars;
        Bytes input;
        uint64_t capacity = 0;
        uint32_t scalar_capacity = 0;
    };
    const std::vector<Case> cases = {
        {kTalvexMethodPing, {}, {}}, {kTalvexMethodTimeSync, {}, {}}, {kTalvexMethodWake, {1}, {}},
        {kTalvexMethodPanic, {}, {}}, {kTalvexMethodTestReport, {}, {}}, {kTalvexMethodHalt, {0, 0, 96}, {}},
        {kTalvexMethodSpiTransfer, {}, {0, 1, 0, 0xaa}, 128}, {kTalvexMethodRegisterRead, {}, {0, 0, 1}, 1},
        {kTalvexMethodRegisterWrite, {}, register_write_request(0, 0, {0})}, {kTalvexMethodSetContextLimit, {1}, {}},
        {kTalvexMethodRawBytes, {}, {}}, {kTalvexMethodGpioSet, {5, 1}, {}}, {kTalvexMethodGpioRead, {5}, {}, 0, 1},
        {kTalvexMethodPowerRails, {7}, {}}, {kTalvexMethodI2CRead, {}, {0, 0x50, 0xff, 0xff, 1}, 1},
        {kTalvexMethodI2CWrite, {}, Bytes(21, 0)}, {kTalvexMethodUartTest, {}, uart_request(0, 0, false, 0), 100},
        {kTalvexMethodMemoryRead, {}, memory_request(0, 0, 1), 1},
        {kTalvexMethodMemoryWrite, {}, memory_write_request(0, 0, {0})},
        {kTalvexMethodGetProperty, {1, 0}, {}, 128}, {kTalvexMethodSetProperty, {1, 10, 1}, {}},
        {kTalvexMethodProfileStart, {}, {}}, {kTalvexMethodProfileStop, {}, {}}, {kTalvexMethodProfileReset, {}, {}},
        {kTalvexMethodProfileSummary, {}, {}, 12}, {kTalvexMethodProfileEntry, {}, profile_entry_request(0, 0), 82},
        {kTalvexMethodPowerLogStart, {}, {}}, {kTalvexMethodPowerLogStop, {}, {}},
        {kTalvexMethodPowerLogReset, {}, {}}, {kTalvexMethodPowerLogRead, {}, {}, 196},
        {kTalvexMethodClockRedirect, {1}, {}}, {kTalvexMethodSetBaudRate, {112'500}, {}},
        {kTalvexMethodClientList, {}, Bytes(5, 0), 89}, {kTalvexMethodClockMeasure, {}, Bytes(4, 0), 8},
        {kTalvexMethodPerfMonitor, {1, 38}, Bytes(4, 0)},
    };
    for (const Case &c : cases) {
        Rig rig;
        auto once = [&] { return rig.call(c.selector, c.scalars, c.input, c.capacity, c.scalar_capacity).code; };
        EXPECT_NE(once(), kIOReturnNotReady) << "selector " << c.selector << " while booted";
        ASSERT_EQ(rig.code(kTalvexMethodStop), kOk);
        EXPECT_EQ(once(), kIOReturnNotReady) << "selector " << c.selector;
    }
}

// One request per check of what a request holds.
TEST(ModelBus, RequestsOutOfRangeAreRefused) {
    Rig rig;
    EXPECT_EQ(rig.read_registers(7, 0, 1).code, kIOReturnNoDevice);
    EXPECT_EQ(rig.call(kTalvexMethodRegisterRead, {}, {0, 0, 17}, 16).code, kIOReturnBadArgument);   // beyond the buffer
    EXPECT_EQ(rig.write_registers(0, 0x20, {}).code, kIOReturnBadArgument);

    // The length says 2 where 1 follows; there is no device 7; no plain chip select 4.
    EXPECT_EQ(rig.call(kTalvexMethodSpiTransfer, {}, {0, 2, 0, 0xaa}, 128).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.call(kTalvexMethodSpiTransfer, {}, {0x87, 1, 0, 0xaa}, 128).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.call(kTalvexMethodSpiTransfer, {}, {4, 1, 0, 0xaa}, 128).code, kIOReturnBadArgument);

    // Port 3; register 0x100; a probe of nothing.
    EXPECT_EQ(rig.call(kTalvexMethodI2CRead, {}, {3, 0x50, 0xff, 0xff, 1}, 1).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.call(kTalvexMethodI2CRead, {}, {0, 0x50, 0x00, 0x01, 1}, 1).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.code(kTalvexMethodI2CRead, {}, {0, 0x51, 0xff, 0xff, 0}), kIOReturnNotResponding);

    EXPECT_EQ(rig.call(kTalvexMethodUartTest, {}, uart_request(3, 0, false, 0), 100).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.call(kTalvexMethodUartTest, {}, uart_request(0, 0, true, 4097), 100).code, kIOReturnBadArgument);
    // Raw with nothing to send.
    EXPECT_EQ(rig.call(kTalvexMethodUartTest, {}, uart_request(0, 1, true, 0), 100).code, kIOReturnBadArgument);

    EXPECT_EQ(rig.call(kTalvexMethodMemoryRead, {}, memory_request(0xfffffff0, 0, 16), 16).code, kOk);
    EXPECT_EQ(rig.call(kTalvexMethodMemoryRead, {}, memory_request(0xfffffff1, 0, 16), 16).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.call(kTalvexMethodMemoryRead, {}, memory_request(0, 4, 1), 1).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.code(kTalvexMethodMemoryWrite, {}, memory_write_request(0xffffffff, 2, {1, 2})), kIOReturnBadArgument);
    EXPECT_EQ(rig.code(kTalvexMethodMemoryWrite, {}, memory_write_request(0, 0, {})), kIOReturnBadArgument);

    EXPECT_EQ(rig.code(kTalvexMethodSetContextLimit, {4}, {}), kIOReturnBadArgument);
    EXPECT_EQ(rig.code(kTalvexMethodGpioSet, {32, 1}, {}), kIOReturnBadArgument);
    EXPECT_EQ(rig.call(kTalvexMethodGpioRead, {32}, {}, 0, 1).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.code(kTalvexMethodPowerRails, {0x100000007}, {}), kIOReturnBadArgument);
}

TEST(ModelBus, ReadingsFollowTheSimulatedClock) {
    Rig rig;
    uint16_t at_start = rig.accel_z();
    EXPECT_NEAR(at_start, 16384, 60);   // lying flat: 1 g
    EXPECT_EQ(rig.accel_z(), at_start);  // time stands still
    rig.step->advance(375 * kMs);
    uint16_t later = rig.accel_z();
    EXPECT_NEAR(later, 16384, 60);
    EXPECT_NE(later, at_start);
    // Clock-driven registers ignore writes.
    EXPECT_EQ(rig.write_registers(1, 0x2c, {0, 0}).code, kOk);
    EXPECT_EQ(rig.accel_z(), later);

    // The data-ready line toggles every 5 ms.
    uint64_t level = rig.call(kTalvexMethodGpioRead, {3}, {}, 0, 1).scalars.at(0);
    rig.step->advance(5 * kMs);
    EXPECT_EQ(rig.call(kTalvexMethodGpioRead, {3}, {}, 0, 1).scalars.at(0), 1 - level);
    // (The thermometer's reading: the flaky-I2C case in tests/cases/scenarios.case.)
}

TEST(ModelBus, MemoryPagesAreBounded) {
    Rig rig;
    BusModel model(*rig.cop);   // a fresh one, to count its pages
    auto write = [&](uint32_t address, const Bytes &data) {
        Bytes request = memory_write_request(address, 3, data);
        CallArgs a;
        a.selector = kTalvexMethodMemoryWrite;
        a.input = request;
        CallReply reply;
        return model.memory_write(a, reply);
    };
    for (uint32_t page = 0; page < BusModel::kMaxPagesPerBlock - 1; ++page)
        ASSERT_EQ(write(page * 0x10000, {0xaa}), kOk) << page;
    EXPECT_EQ(model.pages(3), BusModel::kMaxPagesPerBlock - 1);
    // A write across two new pages does not fit; none of it is kept.
    EXPECT_EQ(write(0x7fffffff, {1, 2}), kIOReturnNoMemory);
    EXPECT_EQ(model.pages(3), BusModel::kMaxPagesPerBlock - 1);
    EXPECT_EQ(write(0xfffffff8, {1, 2, 3, 4, 5, 6, 7, 8}), kOk);   // one new page: the last that fits
    EXPECT_EQ(model.pages(3), BusModel::kMaxPagesPerBlock);
    EXPECT_EQ(write(0x100, {1}), kIOReturnNoMemory);
    EXPECT_EQ(write(0x10, {0xbb}), kOk);   // pages that exist still take writes
}

}  // namespace
