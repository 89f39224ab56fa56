// The firmware's diagnostics in the simulator, in-process on a clock that
// moves only when told: device properties and their codes, figures that
// follow the firmware's running time, restarts, and the numbers' shapes.
#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <vector>

#include "model_support.h"
#include "sim_rig.h"

using namespace talvex;
using namespace talvex::sim;
using namespace talvex::test;

namespace {

constexpr IOReturn kOk = kIOReturnSuccess;
using Reply = CallResult;

// The coprocessor, with the property, profile-entry and baud-rate reads the tests make often.
struct Rig : SimRig {
    Reply get(uint64_t device, uint64_t property, uint64_t capacity = 128) {
        return call(kTalvexMethodGetProperty, {device, property}, {}, capacity);
    }
    IOReturn set(uint64_t device, uint64_t property, uint64_t value) {
        return code(kTalvexMethodSetProperty, {device, property, value});
    }
    Reply entry(uint32_t kind, uint32_t index) {
        std::vector<uint8_t> request = le32({kind, index});
        request.resize(72, 0);
        return call(kTalvexMethodProfileEntry, {}, request, 82);
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
    const Case cases[] = {
        {0, 0, kOk, 4},     {1, 15, kOk, 32},   {1, 16, kOk, 32},   {1, 11, kOk, 36},   {1, 26, kOk, 12},
        {1, 24, kOk, 9},    {1, 33, kOk, 32},   {0, 33, kOk, 28},   {1, 45, kOk, 4},    {1, 25, kOk, 12},
        {0, 25, kOk, 12},   {2, 25, kOk, 4},    {1, 6, kOk, 4},     {1, 56, kOk, 16},   {1, 4, kOk, 4},
        {1, 57, kOk, 24},   {0, 56, kOk, 20},   {3, 240, kOk, 36},  {3, 22, kOk, 4},    {6, 38, kOk, 4},
        {2, 45, kIOReturnUnsupported, 0},       {3, 45, kIOReturnUnsupported, 0},  {0, 4, kIOReturnUnsupported, 0},
        {2, 6, kIOReturnUnsupported, 0},        {1, 240, kIOReturnUnsupported, 0}, {1, 99, kIOReturnUnsupported, 0},
        {7, 0, kIOReturnNoDevice, 0},           {255, 0, kIOReturnNoDevice, 0},
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
        // Ranges and bandwidths from their lists.
        {1, 6, 3, kIOReturnBadArgument}, {1, 6, 16, kOk}, {0, 6, 125, kOk}, {1, 4, 800, kOk},
        {1, 4, 1'000, kIOReturnBadArgument}, {4, 36, 0, kIOReturnBadArgument}, {4, 36, 17, kIOReturnBadArgument},
        {4, 36, 16, kOk},
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
    EXPECT_EQ(rig.entry(0, 0).u16(76), 0);   // not started in the new run
    EXPECT_EQ(rig.get(0, 0).i32(0), 10'000);
    EXPECT_EQ(rig.baud(), 3'000'000u);
}

TEST(ModelDiag, RateCounterKeepsFractionsAcrossAdvances) {
    RateCounter once, often;
    once.advance(kNanosPerSecond, 800'123);
    for (int i = 0; i < 1000; ++i) often.advance(kMs, 800'123);
    EXPECT_EQ(once.value(), 800'123u);
    EXPECT_EQ(often.value(), once.value());
    RateCounter long_run;
    long_run.advance(400ull * 86'400 * kNanosPerSecond, 1'000'000'000);   // 400 days at 1e9 per second
    EXPECT_EQ(long_run.value(), 400ull * 86'400 * 1'000'000'000);
}

TEST(ModelDiag, ProfilerFiguresAreReproducibleAndSaturate) {
    Rig a, b;
    for (Rig *rig : {&a, &b}) {
        ASSERT_EQ(rig->call(19, {}).code, kOk);
        for (int i = 0; i < 5; ++i) {
            rig->advance_ms(130);
            rig->call(22, {}, {}, 12);
        }
    }
    for (uint32_t kind : {0u, 1u})
        for (uint32_t i = 0; i < 8; ++i) EXPECT_EQ(a.entry(kind, i).out, b.entry(kind, i).out) << kind << "/" << i;

    Reply spi = a.entry(0, 0);
    uint16_t hits = spi.u16(76);
    EXPECT_GT(hits, 400);
    EXPECT_LT(hits, 600);   // about 800 a second for 650 ms
    EXPECT_LE(spi.u32(72), spi.u32(68));
    EXPECT_GE(spi.u32(72), 2u);
    Reply fusion = a.entry(1, 1);
    EXPECT_GE(fusion.u32(78), fusion.u16(76) * fusion.u32(72));   // total at least hits x min
    EXPECT_LE(fusion.u32(78), fusion.u16(76) * fusion.u32(68));

    // A long stretch in one go: the 16-bit counters stop at their top.
    a.advance_ms(200'000);
    EXPECT_EQ(a.entry(0, 0).u16(76), 65535);
    EXPECT_EQ(a.call(22, {}, {}, 12).u32(8), 200'650u);

    // Names are looked up exactly, and the request must hold its terminator.
    // By-name requests: kind 1, index 0xffffffff, the rest of the 72 bytes `fill`.
    auto by_name_request = [](uint8_t fill) {
        std::vector<uint8_t> request(72, fill);
        wire::store_le32(request.data(), 1);
        wire::store_le32(request.data() + 4, 0xffffffff);
        return request;
    };
    std::vector<uint8_t> by_name = by_name_request(0xee);
    const char name[] = "fusion_update";
    std::copy(name, name + sizeof name, by_name.begin() + 8);
    Reply found = a.call(23, {}, by_name, 82);
    ASSERT_EQ(found.code, kOk);
    EXPECT_EQ(found.u32(0), 1u);
    std::vector<uint8_t> unterminated = by_name_request('x');
    EXPECT_EQ(a.call(23, {}, unterminated, 82).code, kIOReturnBadArgument);
    by_name[8] = 'F';
    EXPECT_EQ(a.call(23, {}, by_name, 82).code, kIOReturnNotFound);
    EXPECT_EQ(a.entry(2, 0).code, kIOReturnBadArgument);
    EXPECT_EQ(a.entry(1, 9).code, kIOReturnBadArgument);
}

TEST(ModelDiag, PowerLogSharesTimeAndFollowsSampleIntervals) {
    Rig rig;
    ASSERT_EQ(rig.call(kTalvexMethodPowerLogStart, {}).code, kOk);
    rig.advance_ms(10'000);
    ASSERT_EQ(rig.set(0, 0, 5'000), kOk);   // the gyro at 200 Hz from here
    rig.advance_ms(10'000);
    Reply log = rig.call(kTalvexMethodPowerLogRead, {}, {}, 196);
    ASSERT_EQ(log.out.size(), 196u);
    uint32_t total = 0;
    for (size_t i = 0; i < 4; ++i) total += log.u32(8 * i);
    EXPECT_NEAR(total, 20'000, 4);
    EXPECT_NEAR(log.u32(4), 120, 1);   // deep sleep entered six times a second
    // Blocks in device-table order: gyro, accel, compass, pressure, talvex.
    const uint32_t ids[] = {0, 1, 2, 4, 3};
    const uint32_t events[] = {1'000 + 2'000, 2'000, 1'000, 500, 1'000};
    for (size_t d = 0; d < 5; ++d) {
        size_t at = 56 + 28 * d;
        EXPECT_EQ(log.u32(at + 24), ids[d]) << d;
        EXPECT_EQ(log.u32(at + 16), events[d]) << d;
        EXPECT_NEAR(log.u32(at) + log.u32(at + 8), 20'000, 2) << d;   // asleep + active
    }
    ASSERT_EQ(rig.call(kTalvexMethodPowerLogStop, {}).code, kOk);
    rig.advance_ms(1'000);
    EXPECT_EQ(rig.call(kTalvexMethodPowerLogRead, {}, {}, 196).out, log.out);
    ASSERT_EQ(rig.call(kTalvexMethodPowerLogReset, {}).code, kOk);
    // Reset: every figure zero; the blocks still name their devices.
    std::vector<uint8_t> cleared(196, 0);
    for (size_t d = 0; d < 5; ++d) cleared[56 + 28 * d + 24] = static_cast<uint8_t>(ids[d]);
    EXPECT_EQ(rig.call(kTalvexMethodPowerLogRead, {}, {}, 196).out, cleared);
}

TEST(ModelDiag, ClocksRunNearTheirNominalFrequencies) {
    Rig rig;
    const double nominal[] = {100e6, 12e6, 100e6, 32768, 12e6};
    const double tolerance[] = {30e-6, 6e-3, 30e-6, 100e-6, 5e-3};
    for (int t = 0; t < 20; ++t) {
        for (uint32_t s = 0; s < 5; ++s) {
            Reply r = rig.call(kTalvexMethodClockMeasure, {}, le32({s}), 8);
            ASSERT_EQ(r.code, kOk);
            EXPECT_EQ(r.u32(0), static_cast<uint32_t>(nominal[s]));
            EXPECT_NEAR(r.u32(4) / nominal[s], 1.0, tolerance[s]) << s << " at " << t;
        }
        rig.advance_ms(5'000);
    }
    EXPECT_EQ(rig.call(kTalvexMethodClockMeasure, {}, le32({5}), 8).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.call(kTalvexMethodClockRedirect, {2}).code, kIOReturnBadArgument);
    ASSERT_EQ(rig.call(kTalvexMethodClockRedirect, {1}).code, kOk);
    EXPECT_EQ(rig.call(kTalvexMethodClockMeasure, {}, le32({0}), 8).u32(0), 12'000'000u);
}

TEST(ModelDiag, IrcStartupStatisticsStayOrderedOverLongGaps) {
    Rig rig;
    Reply first = rig.get(3, 240);
    ASSERT_EQ(first.code, kOk);
    rig.step->advance(10ull * 3'600 * kNanosPerSecond);   // ten hours unobserved
    Reply later = rig.get(3, 240);
    const int32_t expected_mean[] = {2'400, 9'850, 12'250};
    for (size_t i = 0; i < 3; ++i) {
        int32_t mean = later.i32(12 * i), min = later.i32(12 * i + 4), max = later.i32(12 * i + 8);
        EXPECT_LE(min, mean) << i;
        EXPECT_LE(mean, max) << i;
        EXPECT_NEAR(mean, expected_mean[i], 60) << i;
        EXPECT_LE(min, first.i32(12 * i + 4)) << i;
        EXPECT_GE(max, first.i32(12 * i + 8)) << i;
    }
}

TEST(ModelDiag, PerfmonModesAndSampling) {
    Rig rig;
    ASSERT_EQ(rig.call(kTalvexMethodPerfMonitor, {1, 38}, le32({1})).code, kOk);   // accel enabled
    ASSERT_EQ(rig.set(0, 38, 2), kOk);                       // gyro auto, through the property
    ASSERT_EQ(rig.set(2, 38, 7), kOk);                       // compass: a mode without meaning
    EXPECT_EQ(rig.get(1, 38).u32(0), 1u);
    EXPECT_EQ(rig.get(0, 38).u32(0), 2u);
    rig.advance_ms(8'000);
    auto fusion_samples = [&](uint64_t device) {
        Reply r = rig.call(kTalvexMethodPerfMonitor, {device, 47}, {}, 256);
        EXPECT_EQ(r.code, kOk);
        EXPECT_EQ(r.out.size(), 256u);
        return r.u32(4 + 24 * 3 + 8);
    };
    EXPECT_EQ(fusion_samples(1), 800u);   // 100 Hz for 8 s
    EXPECT_EQ(fusion_samples(0), 100u);   // one in eight
    Reply compass = rig.call(kTalvexMethodPerfMonitor, {2, 47}, {}, 256);
    EXPECT_EQ(compass.u32(0), 5u);
    EXPECT_EQ(compass.u32(4 + 8), 0u);

    Reply accel = rig.call(kTalvexMethodPerfMonitor, {1, 47}, {}, 256);
    EXPECT_EQ(accel.u32(0), 7u);
    // "timesync" fills its 8-byte name and samples once a second.
    EXPECT_EQ(std::string(accel.out.begin() + 4 + 24 * 6, accel.out.begin() + 4 + 24 * 6 + 8), "timesync");
    EXPECT_EQ(accel.u32(4 + 24 * 6 + 8), 8u);
    for (size_t i = 0; i < 7; ++i) {
        size_t at = 4 + 24 * i;
        EXPECT_LE(accel.u32(at + 12), accel.u32(at + 20)) << i;   // min <= avg <= max
        EXPECT_LE(accel.u32(at + 20), accel.u32(at + 16)) << i;
    }

    EXPECT_EQ(rig.call(kTalvexMethodPerfMonitor, {1, 38}, {1, 0, 0}).code, kIOReturnBadArgument);
    EXPECT_EQ(rig.call(kTalvexMethodPerfMonitor, {1, 99}).code, kIOReturnUnsupported);
    EXPECT_EQ(rig.call(kTalvexMethodPerfMonitor, {1, 47}, {}, 255).code, kIOReturnNoSpace);
    EXPECT_EQ(rig.call(kTalvexMethodPerfMonitor, {9, 47}, {}, 256).code, kIOReturnNoDevice);
}

// (The client lists: listclients in tests/cases/diag.case.)
TEST(ModelDiag, BaudRatesAreTheFourTheLinkTakes) {
    Rig rig;
    EXPECT_EQ(rig.baud(), 3'000'000u);
    for (uint64_t bad : {115'200ull, 0ull, 112'500ull + (1ull << 32)})
        EXPECT_EQ(rig.call(kTalvexMethodSetBaudRate, {bad}).code, kIOReturnBadArgument) << bad;
    EXPECT_EQ(rig.call(kTalvexMethodSetBaudRate, {112'500}).code, kOk);
    EXPECT_EQ(rig.baud(), 112'500u);
}

}  // namespace
