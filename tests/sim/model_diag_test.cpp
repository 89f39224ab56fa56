// The firmware's diagnostics in the simulator, in-process on a clock that
// moves only when told.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "model_support.h"
#include "sim_rig.h"

using namespace talvex;
using namespace talvex::sim;
using namespace talvex::test;

namespace {

constexpr IOReturn kOk = kIOReturnSuccess;
using Reply = CallResult;

// The coprocessor, with the property and baud-rate reads the tests make often.
struct Rig : SimRig {
    Reply get(uint64_t device, uint64_t property, uint64_t capacity = 128) {
        return call(kTalvexMethodGetProperty, {device, property}, {}, capacity);
    }
    IOReturn set(uint64_t device, uint64_t property, uint64_t value) {
        return code(kTalvexMethodSetProperty, {device, property, value});
    }
    uint64_t baud() const {
        CFTypeRef v = service->get_property("talvex-baud-rate");
        int64_t n = -1;
        if (v) CFNumberGetValue(static_cast<CFNumberRef>(v), kCFNumberSInt64Type, &n);
        return static_cast<uint64_t>(n);
    }
};

TEST(ModelDiag, PropertiesHaveTheirSizesAndCodes) {
    Rig rig;
    struct Case {
        uint64_t device, property;
        IOReturn code;
        size_t size;
    };
    // (The accelerometer's and gyro's, as sensorinfo reads them: tests/cases/diag.case.)
    const Case cases[] = {
        {0, 0, kOk, 4},     {1, 33, kOk, 32},   {0, 33, kOk, 28},   {0, 25, kOk, 12},   {2, 25, kOk, 4},
        {1, 56, kOk, 16},   {1, 57, kOk, 24},   {0, 56, kOk, 20},   {3, 22, kOk, 4},    {6, 38, kOk, 4},
        {2, 45, kIOReturnUnsupported, 0},       {1, 240, kIOReturnUnsupported, 0}, {7, 0, kIOReturnNoDevice, 0},
        {1, 1ull << 32, kIOReturnBadArgument, 0},
    };
    for (const Case &c : cases) {
        Reply r = rig.get(c.device, c.property);
        EXPECT_EQ(r.code, c.code) << c.device << "/" << c.property;
        EXPECT_EQ(r.out.size(), c.size) << c.device << "/" << c.property;
    }
    EXPECT_EQ(rig.get(1, 15, 31).code, kIOReturnNoSpace);
    EXPECT_EQ(rig.get(1, 0).i32(0), 10'000);
    EXPECT_EQ(rig.get(1, 11).i32(0), 65'874);
}

TEST(ModelDiag, WritablePropertiesCheckTheirValues) {
    Rig rig;
    struct Case {
        uint64_t device, property, value;
        IOReturn code;
    };
    const Case cases[] = {
        // Sample interval within the supported rates (gyro: 10 to 800 Hz).
        {0, 0, 1'250, kOk}, {0, 0, 1'249, kIOReturnBadArgument}, {0, 0, 100'001, kIOReturnBadArgument},
        {0, 0, 100'000, kOk},
        // A range from its list; a decimation from 1 to 16.
        {1, 6, 3, kIOReturnBadArgument}, {1, 6, 16, kOk}, {4, 36, 0, kIOReturnBadArgument},
        {4, 36, 17, kIOReturnBadArgument}, {4, 36, 16, kOk},
        // Flags and the talvex rate take anything.
        {2, 10, 0xffffffff, kOk}, {3, 22, 0, kOk},
        // Read-only, unknown, no such device, too wide.
        {1, 15, 1, kIOReturnNotWritable}, {3, 240, 1, kIOReturnNotWritable}, {1, 99, 1, kIOReturnUnsupported},
        {7, 0, 10'000, kIOReturnNoDevice}, {1, 10, 1ull << 32, kIOReturnBadArgument},
    };
    for (const Case &c : cases)
        EXPECT_EQ(rig.set(c.device, c.property, c.value), c.code) << c.device << "/" << c.property << " = " << c.value;
    // What was taken is read back; what was refused left no trace.
    EXPECT_EQ(rig.get(0, 0).i32(0), 100'000);
    EXPECT_EQ(rig.get(1, 6).i32(0), 16);
    EXPECT_EQ(rig.get(2, 10).u32(0), 0xffffffffu);
    EXPECT_EQ(rig.get(1, 10).u32(0), 0u);
}

TEST(ModelDiag, TimeCountsWhileBootedAndAFreshBootStartsOver) {
    Rig rig;
    ASSERT_EQ(rig.set(0, 0, 5'000), kOk);
    ASSERT_EQ(rig.call(kTalvexMethodSetBaudRate, {750'000}).code, kOk);
    EXPECT_EQ(rig.baud(), 750'000u);
    ASSERT_EQ(rig.call(kTalvexMethodProfileStart, {}).code, kOk);
    rig.advance_ms(1'000);
    EXPECT_EQ(rig.call(kTalvexMethodProfileSummary, {}, {}, 12).u32(8), 1'000u);

    // A halt of 200 ms that ends by itself: the same run, less the halt.
    ASSERT_EQ(rig.call(kTalvexMethodHalt, {100, 200, 96}).code, kOk);
    rig.advance_ms(1'000);
    EXPECT_EQ(rig.call(kTalvexMethodProfileSummary, {}, {}, 12).u32(8), 1'800u);
    EXPECT_EQ(rig.get(0, 0).i32(0), 5'000);

    // Stopped, time stands still; booted again, everything is as after power-up.
    ASSERT_EQ(rig.call(kTalvexMethodStop, {}).code, kOk);
    rig.advance_ms(5'000);
    ASSERT_EQ(rig.call(kTalvexMethodLoadFirmware, {0, 0}).code, kOk);
    rig.advance_ms(400);
    ASSERT_EQ(rig.cop->state(), kTalvexStateBooted);
    Reply summary = rig.call(kTalvexMethodProfileSummary, {}, {}, 12);
    EXPECT_EQ(summary.u32(8), 0u);
    Reply entry = rig.call(kTalvexMethodProfileEntry, {}, profile_entry_request(0, 0), 82);
    EXPECT_EQ(entry.u16(76), 0);   // not started in the new run
    EXPECT_EQ(rig.get(0, 0).i32(0), 10'000);
    EXPECT_EQ(rig.baud(), 3'000'000u);
}

// Diagnostic requests the tool never sends: each refused with its code.
TEST(ModelDiag, RequestsOutOfRangeAreRefused) {
    Rig rig;
    // By name: kind 1, index 0xffffffff, then the name in the rest of the 72 bytes.
    auto by_name = [](const std::string &name, uint8_t fill) {
        std::vector<uint8_t> request = profile_entry_request(1, 0xffffffff);
        std::fill(request.begin() + 8, request.end(), fill);
        std::copy(name.begin(), name.end(), request.begin() + 8);
        return request;
    };
    Reply found = rig.call(kTalvexMethodProfileEntry, {}, by_name(std::string("fusion_update", 14), 0xee), 82);
    ASSERT_EQ(found.code, kOk);
    EXPECT_EQ(found.u32(0), 1u);
    struct Case {
        uint32_t selector;
        std::vector<uint64_t> scalars;
        std::vector<uint8_t> input;
        uint64_t capacity;
        IOReturn code;
    };
    const Case cases[] = {
        {kTalvexMethodProfileEntry, {}, by_name("", 'x'), 82, kIOReturnBadArgument},   // no terminator
        {kTalvexMethodProfileEntry, {}, by_name(std::string("Fusion_update", 14), 0), 82, kIOReturnNotFound},
        {kTalvexMethodProfileEntry, {}, profile_entry_request(2, 0), 82, kIOReturnBadArgument},
        {kTalvexMethodProfileEntry, {}, profile_entry_request(1, 9), 82, kIOReturnBadArgument},
        {kTalvexMethodClockMeasure, {}, le32({5}), 8, kIOReturnBadArgument},
        {kTalvexMethodClockRedirect, {2}, {}, 0, kIOReturnBadArgument},
        {kTalvexMethodPerfMonitor, {1, 38}, {1, 0, 0}, 0, kIOReturnBadArgument},
        {kTalvexMethodPerfMonitor, {1, 99}, {}, 0, kIOReturnUnsupported},
        {kTalvexMethodPerfMonitor, {1, 47}, {}, 255, kIOReturnNoSpace},
        {kTalvexMethodPerfMonitor, {9, 47}, {}, 256, kIOReturnNoDevice},
        {kTalvexMethodSetBaudRate, {115'200}, {}, 0, kIOReturnBadArgument},
        {kTalvexMethodSetBaudRate, {112'500ull + (1ull << 32)}, {}, 0, kIOReturnBadArgument},
    };
    for (const Case &c : cases)
        EXPECT_EQ(rig.call(c.selector, c.scalars, c.input, c.capacity).code, c.code)
            << c.selector << " with " << c.input.size() << " bytes";
    EXPECT_EQ(rig.baud(), 3'000'000u);
}

}  // namespace
