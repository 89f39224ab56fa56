// The bus and memory model in-process, on a clock that moves only when told:
// requests the tool never sends (wrong lengths, fields out of range), the
// clock-driven readings and the memory bound. (What the devices keep, through
// the commands: tests/cases/registers.case, memory.case, spi_i2c.case.)
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

// The coprocessor, with the requests of the bus commands laid out.
struct Rig : SimRig {
    CallResult read_registers(uint8_t device, uint8_t reg, uint8_t count) {
        return call(kTalvexMethodRegisterRead, {}, {device, reg, count}, count);
    }
    CallResult write_registers(uint8_t device, uint8_t reg, const Bytes &data) {
        Bytes request{device, reg, static_cast<uint8_t>(data.size())};
        request.insert(request.end(), data.begin(), data.end());
        request.resize(19, 0);
        return call(kTalvexMethodRegisterWrite, {}, request);
    }
    CallResult memory(uint32_t selector, uint32_t address, uint8_t block, uint8_t count, const Bytes &data = {}) {
        Bytes request(6, 0);
        wire::store_le32(request.data(), address);
        request[4] = block;
        request[5] = count;
        request.insert(request.end(), data.begin(), data.end());
        if (selector == kTalvexMethodMemoryWrite) request.resize(22, 0);
        return call(selector, {}, request, selector == kTalvexMethodMemoryWrite ? 0 : count);
    }
    CallResult memory_read(uint32_t address, uint8_t block, uint8_t count) {
        return memory(kTalvexMethodMemoryRead, address, block, count);
    }
    CallResult memory_write(uint32_t address, uint8_t block, const Bytes &data) {
        return memory(kTalvexMethodMemoryWrite, address, block, static_cast<uint8_t>(data.size()), data);
    }
    CallResult uart(uint8_t port, uint8_t container, uint8_t retries, bool flag, uint32_t preamble,
                    const Bytes &payload, uint64_t capacity = 100) {
        Bytes request(109, 0);
        request[0] = port;
        request[1] = container;
        request[2] = static_cast<uint8_t>(payload.size());
        request[3] = retries;
        request[4] = flag ? 1 : 0;
        wire::store_le32(request.data() + 5, preamble);
        std::copy(payload.begin(), payload.end(), request.begin() + 9);
        return call(kTalvexMethodUartTest, {}, request, capacity);
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
    auto counted = [](size_t size, size_t at) {
        Bytes b(size, 0);
        b[at] = 1;
        return b;
    };
    const std::vector<Case> cases = {
        {kTalvexMethodPing, {}, {}}, {kTalvexMethodTimeSync, {}, {}}, {kTalvexMethodWake, {1}, {}},
        {kTalvexMethodPanic, {}, {}}, {kTalvexMethodTestReport, {}, {}}, {kTalvexMethodHalt, {0, 0, 96}, {}},
        {kTalvexMethodSpiTransfer, {}, {0, 1, 0, 0xaa}, 128}, {kTalvexMethodRegisterRead, {}, {0, 0, 1}, 1},
        {kTalvexMethodRegisterWrite, {}, counted(19, 2)}, {kTalvexMethodSetContextLimit, {1}, {}},
        {kTalvexMethodRawBytes, {}, {}}, {kTalvexMethodGpioSet, {5, 1}, {}}, {kTalvexMethodGpioRead, {5}, {}, 0, 1},
        {kTalvexMethodPowerRails, {7}, {}}, {kTalvexMethodI2CRead, {}, {0, 0x50, 0xff, 0xff, 1}, 1},
        {kTalvexMethodI2CWrite, {}, Bytes(21, 0)}, {kTalvexMethodUartTest, {}, Bytes(109, 0), 100},
        {kTalvexMethodMemoryRead, {}, counted(6, 5), 1}, {kTalvexMethodMemoryWrite, {}, counted(22, 5)},
        {kTalvexMethodGetProperty, {1, 0}, {}, 128}, {kTalvexMethodSetProperty, {1, 10, 1}, {}},
        {kTalvexMethodProfileStart, {}, {}}, {kTalvexMethodProfileStop, {}, {}}, {kTalvexMethodProfileReset, {}, {}},
        {kTalvexMethodProfileSummary, {}, {}, 12}, {kTalvexMethodProfileEntry, {}, Bytes(72, 0), 82},
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

TEST(ModelBus, RequestsOutOfRangeAreRefused) {
    Rig rig;
    EXPECT_EQ(rig.read_registers(7, 0, 1).code, kIOReturnNoDevice);
    // A count beyond the buffer.
    EXPECT_EQ(rig.call(kTalvexMethodRegisterRead, {}, {0, 0, 17}, 16).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.write_registers(0, 0x20, {}).code, kIOReturnBadArgument);
    Bytes seventeen{0, 0x20, 17};
    seventeen.resize(19, 0);
    EXPECT_EQ(rig.call(kTalvexMethodRegisterWrite, {}, seventeen, 0).code, kIOReturnBadArgument);

    // The length says 2 where 1 follows; there is no device 7.
    EXPECT_EQ(rig.call(kTalvexMethodSpiTransfer, {}, {0, 2, 0, 0xaa}, 128).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.call(kTalvexMethodSpiTransfer, {}, {0x87, 1, 0, 0xaa}, 128).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.call(kTalvexMethodSpiTransfer, {}, {4, 1, 0, 0xaa}, 128).code, kIOReturnBadArgument);

    EXPECT_EQ(rig.call(kTalvexMethodI2CRead, {}, {3, 0x50, 0xff, 0xff, 1}, 1).code, kIOReturnBadArgument);    // port
    // An 8-bit address; register 0x100.
    EXPECT_EQ(rig.call(kTalvexMethodI2CRead, {}, {0, 0x80, 0xff, 0xff, 1}, 1).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.call(kTalvexMethodI2CRead, {}, {0, 0x50, 0x00, 0x01, 1}, 1).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.call(kTalvexMethodI2CRead, {}, {0, 0x50, 0xff, 0xff, 17}, 16).code, kIOReturnBadArgument);
    // A probe of nothing, then of a target that is there.
    EXPECT_EQ(rig.call(kTalvexMethodI2CRead, {}, {0, 0x51, 0xff, 0xff, 0}, 0).code, kIOReturnNotResponding);
    EXPECT_EQ(rig.call(kTalvexMethodI2CRead, {}, {0, 0x50, 0xff, 0xff, 0}, 0).code, kOk);

    EXPECT_EQ(rig.uart(3, 0, 0, false, 0, {}).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.uart(0, 4, 0, false, 0, {}).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.uart(0, 0, 101, false, 0, {}).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.uart(0, 0, 0, true, 4097, {}).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.uart(0, 0, 0, false, 4097, {}).code, kOk);   // without the flag the field means nothing
    EXPECT_EQ(rig.uart(0, 1, 0, true, 0, {}).code, kIOReturnBadArgument);   // raw with nothing to send
    Bytes too_long(109, 0);
    too_long[2] = 100;
    EXPECT_EQ(rig.call(kTalvexMethodUartTest, {}, too_long, 100).code, kIOReturnBadArgument);

    EXPECT_EQ(rig.memory_read(0xfffffff0, 0, 16).code, kOk);
    EXPECT_EQ(rig.memory_read(0xfffffff1, 0, 16).code, kIOReturnBadArgument);   // past the top
    EXPECT_EQ(rig.memory_write(0xffffffff, 2, {1, 2}).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.memory_read(0, 4, 1).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.memory_write(0, 0, {}).code, kIOReturnBadArgument);

    EXPECT_EQ(rig.call(kTalvexMethodSetContextLimit, {4}, {}, 0).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.call(kTalvexMethodGpioSet, {32, 1}, {}, 0).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.call(kTalvexMethodGpioSet, {5, 2}, {}, 0).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.call(kTalvexMethodGpioRead, {32}, {}, 0, 1).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.call(kTalvexMethodPowerRails, {0x100000007}, {}, 0).code, kIOReturnBadArgument);
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
        Bytes request(22, 0);
        wire::store_le32(request.data(), address);
        request[4] = 3;
        request[5] = static_cast<uint8_t>(data.size());
        std::copy(data.begin(), data.end(), request.begin() + 6);
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
