// The coprocessor's life in the simulator, in-process on a clock that moves
// only when told; calls go through the protocol, so the trace is the real one.
#include <gtest/gtest.h>

#include <IOKit/IOCFSerialize.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "cf_ref.h"
#include "harness.h"
#include "sim_rig.h"

using namespace talvex;
using namespace talvex::sim;
using namespace talvex::test;

namespace {

constexpr int32_t kOk = 0;
constexpr int32_t kNotReady = static_cast<int32_t>(0xe00002d8);
constexpr int32_t kBusy = static_cast<int32_t>(0xe00002d5);
constexpr int32_t kBadArgument = static_cast<int32_t>(0xe00002c2);
constexpr uint64_t kApAtStart = 120 * kNanosPerSecond;

// The start request's structure: the serialised one-entry image dictionary.
std::vector<uint8_t> image_request(const std::string &path, const char *key = "firmware-image-path") {
    auto k = make_cf_string(key);
    auto v = make_cf_string(path);
    const void *keys[] = {k.get()};
    const void *values[] = {v.get()};
    CFRef<CFDictionaryRef> dict(CFDictionaryCreate(kCFAllocatorDefault, keys, values, 1, &kCFTypeDictionaryKeyCallBacks,
                                                   &kCFTypeDictionaryValueCallBacks));
    CFRef<CFDataRef> data(IOCFSerialize(dict.get(), 0));
    const uint8_t *p = CFDataGetBytePtr(data.get());
    return {p, p + CFDataGetLength(data.get())};
}

// The time-sync message's two clocks.
std::pair<uint64_t, uint64_t> times_of(const SimEvent &e) {
    EXPECT_EQ(e.type, kTalvexMessageTimeSync);
    EXPECT_EQ(e.kind, wire::ArgKind::Data);
    if (e.data.size() != 16) {
        ADD_FAILURE() << "time-sync argument of " << e.data.size() << " bytes";
        return {0, 0};
    }
    return {wire::load_le64(e.data.data()), wire::load_le64(e.data.data() + 8)};
}

TEST(ModelLifecycle, ResetGoesOffThenBootingThenBootedAndSynchronisesTime) {
    SimRig rig;
    EXPECT_EQ(rig.cop->state(), kTalvexStateBooted);
    EXPECT_EQ(rig.code(kTalvexMethodPing), kOk);

    EXPECT_EQ(rig.code(kTalvexMethodReset), kOk);
    EXPECT_EQ(rig.cop->state(), kTalvexStateOff);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateOff});
    EXPECT_TRUE(rig.events().empty());

    rig.advance_ms(49);
    EXPECT_TRUE(rig.events().empty());
    rig.advance_ms(1);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateBooting});
    EXPECT_EQ(rig.code(kTalvexMethodPing), kNotReady);
    rig.advance_ms(299);
    EXPECT_TRUE(rig.events().empty());
    rig.advance_ms(1);
    EXPECT_EQ(rig.cop->state(), kTalvexStateBooted);
    auto up = rig.events();
    ASSERT_EQ(up.size(), 2u);
    EXPECT_EQ(up[0].type, kTalvexMessageStateChanged);
    EXPECT_EQ(up[0].value, kTalvexStateBooted);
    // The firmware synchronises as it comes up: its clock starts at zero.
    auto [ap, cp] = times_of(up[1]);
    EXPECT_EQ(ap, kApAtStart + 350 * kMs);
    EXPECT_EQ(cp, 0u);
    EXPECT_EQ(rig.code(kTalvexMethodPing), kOk);

    // The coprocessor's clock counts from its boot, 20 ppm fast.
    rig.advance_ms(1000);
    EXPECT_EQ(rig.code(kTalvexMethodTimeSync), kOk);
    auto sync = rig.events();
    ASSERT_EQ(sync.size(), 1u);
    std::tie(ap, cp) = times_of(sync[0]);
    EXPECT_EQ(ap, kApAtStart + rig.step->now_ns());
    EXPECT_EQ(cp, kNanosPerSecond + 20'000);

    // A reset during a reset starts over; nothing of the first one is left.
    EXPECT_EQ(rig.code(kTalvexMethodReset), kOk);
    rig.advance_ms(60);
    EXPECT_EQ(rig.code(kTalvexMethodReset), kOk);
    EXPECT_EQ(rig.states(), (std::vector<uint64_t>{kTalvexStateOff, kTalvexStateBooting, kTalvexStateOff}));
    rig.advance_ms(340);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateBooting});
    rig.advance_ms(10);
    EXPECT_EQ(rig.cop->state(), kTalvexStateBooted);
    EXPECT_EQ(rig.sim->timers().size(), 0u);
}

TEST(ModelLifecycle, StopThenStartBootsWithWhatTheRequestNamed) {
    SimRig rig;
    TempDir dir;
    const std::string image = dir.path + "/fw.bin";
    std::fclose(std::fopen(image.c_str(), "w"));
    EXPECT_EQ(rig.code(kTalvexMethodStop), kOk);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateStopped});
    EXPECT_EQ(rig.code(kTalvexMethodStop), kOk);   // already stopped: no change, no message
    EXPECT_TRUE(rig.events().empty());

    // Requests the driver cannot take leave it stopped and log nothing.
    auto request = image_request(image);
    EXPECT_EQ(rig.code(kTalvexMethodLoadFirmware, {0, 0}, image_request("fw.bin")), kBadArgument);
    EXPECT_EQ(rig.code(kTalvexMethodLoadFirmware, {0, 0}, image_request(image, "image")), kBadArgument);
    // Not a dictionary.
    EXPECT_EQ(rig.code_text(kTalvexMethodLoadFirmware, std::string("<string>x</string>", 19)), kBadArgument);
    EXPECT_EQ(rig.code(kTalvexMethodLoadFirmware, {uint64_t{1} << 32, 0}), kBadArgument);
    EXPECT_TRUE(rig.events().empty());
    EXPECT_TRUE(rig.event_lines().empty());
    EXPECT_EQ(rig.cop->state(), kTalvexStateStopped);

    // notimesync (0x04): the firmware comes up without synchronising.
    rig.sim->trace().clear();
    EXPECT_EQ(rig.code(kTalvexMethodLoadFirmware, {12, 0x05}, request), kOk);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateBooting});
    EXPECT_EQ(rig.code(kTalvexMethodLoadFirmware, {0, 0}), kBusy);   // a boot is under way
    rig.advance_ms(300);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateBooted});
    EXPECT_EQ(rig.code(kTalvexMethodLoadFirmware, {0, 0}), kBusy);   // and done
    // The boot's event line comes before its call line.
    ASSERT_GE(rig.sim->trace().lines(), 2u);
    EXPECT_EQ(rig.sim->trace().line(0), R"({"service":"ZantraTalvexProcessor","event":"boot","number":12,"flags":5,"image":")" +
                                             image + "\"}");
    EXPECT_NE(rig.sim->trace().line(1).find("\"selector\":2,\"scalars\":[12,5]"), std::string::npos);

    // From off, in the middle of a reset: the reset's own boot step is dropped.
    EXPECT_EQ(rig.code(kTalvexMethodReset), kOk);
    rig.advance_ms(10);
    EXPECT_EQ(rig.code(kTalvexMethodLoadFirmware, {0, 0}), kOk);
    EXPECT_EQ(rig.states(), (std::vector<uint64_t>{kTalvexStateOff, kTalvexStateBooting}));
    rig.advance_ms(299);
    EXPECT_TRUE(rig.events().empty());
    rig.advance_ms(1);
    auto up = rig.events();
    ASSERT_EQ(up.size(), 2u);   // booted, then the time sync of a boot without notimesync
    EXPECT_EQ(up[0].value, kTalvexStateBooted);
    EXPECT_EQ(up[1].type, kTalvexMessageTimeSync);
    EXPECT_EQ(rig.event_lines().back(),
              R"({"service":"ZantraTalvexProcessor","event":"boot","number":0,"flags":0,"image":null})");

    // stop during a boot: it never completes.
    EXPECT_EQ(rig.code(kTalvexMethodStop), kOk);
    EXPECT_EQ(rig.code(kTalvexMethodLoadFirmware, {0, 0}), kOk);
    EXPECT_EQ(rig.code(kTalvexMethodStop), kOk);
    rig.advance_ms(1000);
    EXPECT_EQ(rig.states(), (std::vector<uint64_t>{kTalvexStateStopped, kTalvexStateBooting, kTalvexStateStopped}));
}

TEST(ModelLifecycle, HaltStopsAnsweringAfterTheDelayForTheDuration) {
    SimRig rig;
    EXPECT_EQ(rig.code(kTalvexMethodHalt, {100, 200, 96}), kOk);
    rig.advance_ms(99);
    EXPECT_TRUE(rig.events().empty());
    EXPECT_EQ(rig.code(kTalvexMethodPing), kOk);
    rig.advance_ms(1);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateNotResponding});
    EXPECT_EQ(rig.code(kTalvexMethodPing), kNotReady);
    EXPECT_EQ(rig.code(kTalvexMethodHalt, {0, 0, 96}), kNotReady);
    rig.advance_ms(199);
    EXPECT_TRUE(rig.events().empty());
    rig.advance_ms(1);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateBooted});   // no time sync on recovery
    EXPECT_EQ(rig.code(kTalvexMethodPing), kOk);

    // A second halt replaces one that has not happened yet.
    EXPECT_EQ(rig.code(kTalvexMethodHalt, {50, 10, 96}), kOk);
    EXPECT_EQ(rig.code(kTalvexMethodHalt, {500, 10, 96}), kOk);
    rig.advance_ms(499);
    EXPECT_TRUE(rig.events().empty());
    rig.advance_ms(11);
    EXPECT_EQ(rig.states(), (std::vector<uint64_t>{kTalvexStateNotResponding, kTalvexStateBooted}));

    // Duration 0 (what `halt` sends): halted until something wakes it.
    EXPECT_EQ(rig.code(kTalvexMethodWake, {1}), kOk);   // awake already: nothing to do
    EXPECT_EQ(rig.code(kTalvexMethodHalt, {0, 0, 3}), kOk);
    rig.advance_ms(0);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateNotResponding});
    rig.advance_ms(3'600'000);
    EXPECT_TRUE(rig.events().empty());
    EXPECT_EQ(rig.code(kTalvexMethodWake, {7}), kOk);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateBooted});

    // A pending halt dies with a stop; wake has nothing to wake then.
    EXPECT_EQ(rig.code(kTalvexMethodHalt, {4294967295u, 1, 96}), kOk);
    EXPECT_EQ(rig.code(kTalvexMethodStop), kOk);
    EXPECT_EQ(rig.sim->timers().size(), 0u);
    EXPECT_EQ(rig.code(kTalvexMethodWake, {1}), kNotReady);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateStopped});

    // Values wider than the driver's 32-bit fields are refused.
    EXPECT_EQ(rig.code(kTalvexMethodWake, {uint64_t{1} << 32}), kBadArgument);
    EXPECT_EQ(rig.code(kTalvexMethodHalt, {0, 0, uint64_t{1} << 32}), kBadArgument);
}

TEST(ModelLifecycle, PanicAssertionsFirmwareAndTheTestReport) {
    SimRig rig;
    // Power-state assertions: 0x0-0x3 take, 0x80-0x83 release; nothing else.
    for (uint64_t code : std::initializer_list<uint64_t>{0x0, 0x3, 0x2, 0x82, 0x81})
        EXPECT_EQ(rig.code(kTalvexMethodPowerAssertion, {code}), kOk) << code;
    for (uint64_t code : std::initializer_list<uint64_t>{0x4, 0x7f, 0x84, 0x100, 0x10000000000})
        EXPECT_EQ(rig.code(kTalvexMethodPowerAssertion, {code}), kBadArgument) << code;
    EXPECT_EQ(rig.code(kTalvexMethodSelectFirmware, {1}), kOk);
    EXPECT_EQ(rig.code(kTalvexMethodSelectFirmware, {2}), kBadArgument);
    EXPECT_EQ(rig.code(kTalvexMethodConnect), kOk);
    EXPECT_EQ(rig.code(kTalvexMethodConnect), kOk);
    EXPECT_EQ(rig.code(kTalvexMethodWake, {9}), kOk);
    rig.advance_ms(1500);
    EXPECT_EQ(rig.code(kTalvexMethodTestReport), kOk);
    ASSERT_EQ(rig.event_lines().size(), 1u);
    // The coprocessor first came up 2.5 s into the AP's uptime.
    uint64_t uptime = kApAtStart + 1500 * kMs - 2500 * kMs;
    uptime += uptime / 50'000;
    EXPECT_EQ(rig.event_lines()[0],
              R"({"service":"ZantraTalvexProcessor","event":"report","state":65538,"uptime_ns":)" +
                  std::to_string(uptime) +
                  R"(,"firmware":1,"number":0,"flags":0,"image":null,"assertions":[0,3],"wake":9,"connects":2,"panic":null})");

    // A panic keeps its text (up to the NUL) and stops everything that needs firmware.
    EXPECT_EQ(rig.code_text(kTalvexMethodPanic, std::string("abc\0def", 7)), kOk);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStatePanic});
    EXPECT_EQ(rig.event_lines().back(), R"({"service":"ZantraTalvexProcessor","event":"panic","text":"abc"})");
    EXPECT_EQ(rig.code_text(kTalvexMethodPanic, "again"), kNotReady);
    EXPECT_EQ(rig.code(kTalvexMethodTestReport), kNotReady);
    EXPECT_EQ(rig.code(kTalvexMethodWake, {0}), kNotReady);
    EXPECT_EQ(rig.code(kTalvexMethodLoadFirmware, {0, 0}), kBusy);

    // Only a reset (or stop and start) brings it back; the report remembers the panic.
    EXPECT_EQ(rig.code(kTalvexMethodReset), kOk);
    rig.advance_ms(350);
    EXPECT_EQ(rig.cop->state(), kTalvexStateBooted);
    EXPECT_EQ(rig.code(kTalvexMethodTestReport), kOk);
    EXPECT_NE(rig.event_lines().back().find(R"("assertions":[0,3],"wake":9,"connects":2,"panic":"abc"})"),
              std::string::npos)
        << rig.event_lines().back();
}

}  // namespace
