// The report hub end to end: the report-channel library against a private
// simulator on a step clock (every sample moves time on by one second).
// The library opens the hub once per process, so one simulator serves every
// test here; refusals of the open itself run in a fresh process each.
#include <IOReport.h>
#include <cf_ref.h>
#include <harness.h>
#include <talvex_driver.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using talvex::CFRef;
using talvex::test::Simulator;

namespace {

constexpr uint64_t kStates = 0x5057525354415445ull;   // "PWRSTATE"
constexpr uint64_t kTempSoc = 0x54454D5020534F43ull;  // "TEMP SOC"
constexpr int64_t kNoValue = INT64_MIN;

std::unique_ptr<Simulator> &shared_sim() {
    static std::unique_ptr<Simulator> s;
    return s;
}

Simulator &sim() {
    auto &s = shared_sim();
    if (!s) {
        s = std::make_unique<Simulator>(std::vector<std::string>{"--clock", "step"});
        setenv("TALVEX_SIM_SOCKET", s->socket().c_str(), 1);
    }
    return *s;
}

void control(std::vector<std::string> words) {
    auto r = sim().control(words);
    ASSERT_EQ(r.status, 0) << r.err;
}

std::string text(CFStringRef s) {
    if (!s) return "<null>";
    char buf[256];
    return CFStringGetCString(s, buf, sizeof buf, kCFStringEncodingUTF8) ? buf : "<bad>";
}

std::string error_text(CFErrorRef e) {
    if (!e) return "no error";
    CFRef<CFStringRef> d(CFErrorCopyDescription(e));
    char code[16];
    std::snprintf(code, sizeof code, "%#x", static_cast<uint32_t>(CFErrorGetCode(e)));
    return text(d.get()) + " " + code;
}

io_service_t service(const char *cls) {
    sim();
    return IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching(cls));
}

// Every record of an aggregate by channel name.
std::map<std::string, CFMutableDictionaryRef> by_name(CFDictionaryRef aggregate) {
    std::map<std::string, CFMutableDictionaryRef> out;
    IOReportIterate(aggregate, [&](CFMutableDictionaryRef r) {
        out[text(IOReportChannelGetChannelName(r))] = r;
        return 0;
    });
    return out;
}

struct Subscription {
    CFRef<CFMutableDictionaryRef> channels;
    CFRef<CFMutableDictionaryRef> subscribed;
    CFRef<IOReportSubscriptionRef> handle;
    std::string error;
};

// Subscribes to `channels` (taking it over).
std::unique_ptr<Subscription> subscribe(CFMutableDictionaryRef channels) {
    auto s = std::make_unique<Subscription>();
    *s->channels.slot() = channels;
    CFRef<CFErrorRef> e;
    *s->handle.slot() = IOReportCreateSubscription(nullptr, channels, s->subscribed.slot(), 0, e.slot());
    s->error = error_text(e.get());
    return s;
}

CFMutableDictionaryRef sample(Subscription &s) { return IOReportCreateSamples(s.handle.get(), s.subscribed.get(), nullptr); }

// In a fresh process: one subscription to the coprocessor's channels; what
// failed, on standard error.
[[noreturn]] void subscribe_in_child() {
    CFRef<CFMutableDictionaryRef> matching(IOServiceMatching("ZantraTalvexProcessor"));
    auto s = subscribe(IOReportCopyChannelsForDrivers(matching.get(), 0, nullptr));
    std::fprintf(stderr, "%s\n", s->handle ? "subscribed" : s->error.c_str());
    std::exit(0);
}

// Every test talks to the shared simulator; the first one starts it.
class ReportHub : public ::testing::Test {
protected:
    void SetUp() override { sim(); }
};

// After the last test the shared simulator must shut down cleanly (a
// sanitizer report or a crash makes its exit status non-zero).
class SharedSimulatorStopsCleanly : public ::testing::Environment {
public:
    void TearDown() override {
        if (auto &s = shared_sim()) {
            EXPECT_EQ(s->stop(), 0) << s->log();
        }
    }
};
[[maybe_unused]] const ::testing::Environment *const kStopCheck =
    ::testing::AddGlobalTestEnvironment(new SharedSimulatorStopsCleanly);

}  // namespace

TEST_F(ReportHub, DiscoveryFindsTheDriversWithPublicLegends) {
    CFRef<CFMutableDictionaryRef> all(IOReportCopyAllChannels(kIOReportOptionByDriver, nullptr));
    ASSERT_TRUE(all);
    std::map<std::string, std::string> driver_of;
    IOReportIterate(all.get(), [&](CFMutableDictionaryRef r) {
        std::string driver = text(IOReportChannelGetDriverName(r));
        driver_of[text(IOReportChannelGetChannelName(r))] = driver.substr(0, driver.find(' '));
        return 0;
    });
    auto records = by_name(all.get());
    struct Want {
        const char *name, *driver, *group, *subgroup, *unit;
        uint8_t format;
    };
    for (const Want &w : std::vector<Want>{
             {"TOTAL MS", "ZantraTalvexProcessor", "CPU", "Time", "ms", 1},
             {"IDLE MS ", "ZantraTalvexProcessor", "CPU", "Time", "ms", 1},
             {"PWRSTATE", "ZantraTalvexProcessor", "Power", "States", "24Mticks", 2},
             {"PROCLAT", "ZantraTalvexProcessor", "Firmware", "Latency", "us", 3},
             {"EVENTS", "ZantraTalvexProcessor", "Firmware", "Events", "events", 4},
             {"vdd_cpu", "ZantraPowerController", "Energy", "Rails", "mJ", 1},
             {"vdd_sns", "ZantraPowerController", "Energy", "Rails", "mJ", 1},
             {"vdd_io", "ZantraPowerController", "Energy", "Rails", "mJ", 1},
         }) {
        ASSERT_TRUE(records.count(w.name)) << w.name;
        CFMutableDictionaryRef r = records[w.name];
        EXPECT_EQ(driver_of[w.name], w.driver) << w.name;
        EXPECT_EQ(text(IOReportChannelGetGroup(r)), w.group) << w.name;
        EXPECT_EQ(text(IOReportChannelGetSubGroup(r)), w.subgroup) << w.name;
        EXPECT_EQ(text(IOReportChannelGetUnitLabel(r)), w.unit) << w.name;
        EXPECT_EQ(IOReportChannelGetFormat(r), w.format) << w.name;
    }
    EXPECT_EQ(records.size(), 8u);   // the thermal monitor's legend is not public

    io_service_t thermal = service("ZantraThermalMonitor");
    ASSERT_NE(thermal, 0u);
    CFRef<CFErrorRef> e;
    CFRef<CFMutableDictionaryRef> none(IOReportCopyChannelsForDriver(thermal, 0, e.slot()));
    ASSERT_TRUE(none);
    EXPECT_EQ(IOReportGetChannelCount(none.get()), 0);
    EXPECT_FALSE(e);
    IOObjectRelease(thermal);
}

TEST_F(ReportHub, SamplesAndDeltasOfEveryFormat) {
    control({"load", "25"});
    auto s = subscribe(IOReportCopyAllChannels(0, nullptr));
    ASSERT_TRUE(s->handle) << s->error;
    CFRef<CFMutableDictionaryRef> older(sample(*s)), newer(sample(*s));
    ASSERT_TRUE(older && newer);
    CFRef<CFErrorRef> e;
    CFRef<CFMutableDictionaryRef> delta(IOReportCreateSamplesDelta(older.get(), newer.get(), e.slot()));
    ASSERT_TRUE(delta) << error_text(e.get());
    auto d = by_name(delta.get());
    auto now = by_name(newer.get());
    ASSERT_EQ(d.size(), 8u);

    // One step under the pinned load.
    EXPECT_EQ(IOReportSimpleGetIntegerValue(d["TOTAL MS"]), 1000);
    EXPECT_EQ(IOReportSimpleGetIntegerValue(d["IDLE MS "]), 750);

    CFMutableDictionaryRef states = d["PWRSTATE"];
    ASSERT_EQ(IOReportStateGetCount(states), 4);
    // 750 ms idle (65% deep sleep, 35% sleep), 250 ms busy (70% at 12 MHz,
    // 30% at 100 MHz), in 24 MHz ticks.
    const char *names[] = {"DEEPSLP", "SLEEP", "RUN12M", "RUN100M"};
    const int64_t ticks[] = {11'700'000, 6'300'000, 4'200'000, 1'800'000};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(text(IOReportStateGetNameForIndex(states, i)), names[i]);
        EXPECT_EQ(IOReportStateGetResidency(states, i), ticks[i]) << names[i];
        EXPECT_DOUBLE_EQ(IOReportStateGetDutyCycle(states, i), static_cast<double>(ticks[i]) / 24e6) << names[i];
    }
    int current = IOReportStateGetCurrent(now["PWRSTATE"]);
    EXPECT_TRUE(current >= 0 && current < 4) << current;

    CFMutableDictionaryRef latency = d["PROCLAT"];
    ASSERT_EQ(IOReportHistogramGetBucketCount(latency), 16);
    uint64_t lower = 1, upper = 0;
    ASSERT_EQ(IOReportHistogramGetBucketBounds(latency, 8, &lower, &upper), kIOReturnSuccess);
    EXPECT_EQ(std::pair(lower, upper), std::pair(uint64_t{200}, uint64_t{400}));
    ASSERT_EQ(IOReportHistogramGetBucketBounds(latency, 15, &lower, &upper), kIOReturnSuccess);
    EXPECT_EQ(std::pair(lower, upper), std::pair(uint64_t{2800}, uint64_t{3200}));
    int64_t hits = 0;
    for (int b = 0; b < 16; ++b) {
        hits += IOReportHistogramGetBucketHits(latency, b);
        // Each bucket's extremes lie inside it, its sum between them.
        ASSERT_EQ(IOReportHistogramGetBucketBounds(latency, b, &lower, &upper), kIOReturnSuccess);
        int64_t n = IOReportHistogramGetBucketHits(now["PROCLAT"], b);
        int64_t lo = IOReportHistogramGetBucketMinValue(now["PROCLAT"], b);
        int64_t hi = IOReportHistogramGetBucketMaxValue(now["PROCLAT"], b);
        int64_t sum = IOReportHistogramGetBucketSum(now["PROCLAT"], b);
        ASSERT_GT(n, 0) << b;
        EXPECT_TRUE(static_cast<int64_t>(lower) <= lo && lo <= hi && hi <= static_cast<int64_t>(upper)) << b;
        EXPECT_TRUE(n * lo <= sum && sum <= n * hi) << b;
    }
    EXPECT_NEAR(static_cast<double>(hits), 625.0, 16.0);   // one sample per 400 us of the 250 ms busy

    const int64_t events[] = {200, 100, 50, 10, 25, 5, 2, 60};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(IOReportArrayGetValueAtIndex(d["EVENTS"], i), events[i]) << i;
    EXPECT_EQ(IOReportArrayGetValueAtIndex(d["EVENTS"], 8), kNoValue);
    EXPECT_EQ(IOReportSimpleGetIntegerValue(d["vdd_cpu"]), 180);

    for (auto *agg : {newer.get(), delta.get()})
        IOReportIterate(agg, [](CFMutableDictionaryRef r) {
            CFRef<CFStringRef> text_of(IOReportSampleCopyDescription(r, nullptr, nullptr));
            EXPECT_TRUE(text_of) << text(IOReportChannelGetChannelName(r));
            return 0;
        });
}

TEST_F(ReportHub, ChannelsLeaveTheSampleWithTheirDriver) {
    auto s = subscribe(IOReportCopyAllChannels(0, nullptr));
    ASSERT_TRUE(s->handle) << s->error;
    control({"service", "unpublish", "ZantraPowerController"});
    CFRef<CFMutableDictionaryRef> without(sample(*s));
    control({"service", "publish", "ZantraPowerController"});
    CFRef<CFMutableDictionaryRef> with(sample(*s));
    ASSERT_TRUE(without && with);
    auto missing = by_name(without.get()), back = by_name(with.get());
    EXPECT_EQ(missing.size(), 5u);
    EXPECT_FALSE(missing.count("vdd_cpu"));
    EXPECT_EQ(IOReportSimpleGetIntegerValue(missing["TOTAL MS"]) + 1000, IOReportSimpleGetIntegerValue(back["TOTAL MS"]));
    EXPECT_EQ(back.size(), 8u);
    EXPECT_GT(IOReportSimpleGetIntegerValue(back["vdd_io"]), 0);
}

TEST_F(ReportHub, AChannelByIDLearnsItsTypeAndHiddenLegendsAreServed) {
    CFRef<CFMutableDictionaryRef> matching(IOServiceMatching("ZantraTalvexProcessor"));
    CFMutableDictionaryRef channels = IOReportCopyChannelsWithID(matching.get(), kStates, nullptr);
    ASSERT_TRUE(channels);
    io_service_t thermal = service("ZantraThermalMonitor");
    uint64_t thermal_id = 0;
    ASSERT_EQ(IORegistryEntryGetRegistryEntryID(thermal, &thermal_id), KERN_SUCCESS);
    IOObjectRelease(thermal);
    CFRef<CFStringRef> driver(CFStringCreateWithCString(nullptr, "thermal", kCFStringEncodingUTF8));
    ASSERT_EQ(IOReportAddChannelDescription(channels, thermal_id, driver.get(), kTempSoc, 0, nullptr, nullptr, nullptr,
                                            nullptr, nullptr),
              kIOReturnSuccess);
    auto s = subscribe(channels);
    ASSERT_TRUE(s->handle) << s->error;
    CFRef<CFMutableDictionaryRef> first(sample(*s));
    ASSERT_TRUE(first);
    auto got = by_name(first.get());
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(IOReportChannelGetFormat(got["PWRSTATE"]), 2);
    EXPECT_EQ(IOReportStateGetCount(got["PWRSTATE"]), 4);
    int64_t temperature = IOReportSimpleGetIntegerValue(got["TEMP SOC"]);
    EXPECT_TRUE(temperature >= 38'000 && temperature <= 44'000) << temperature;
}

TEST_F(ReportHub, RefusalsOfTheInterestListAndOfAnUpdate) {
    CFRef<CFMutableDictionaryRef> matching(IOServiceMatching("ZantraTalvexProcessor"));
    control({"stub", "--service", "IOReportHub", "--selector", std::to_string(kIOReportUserClientConfigureInterests),
             "--code", "0xe00002c7", "--times", "1"});
    auto refused = subscribe(IOReportCopyChannelsForDrivers(matching.get(), 0, nullptr));
    EXPECT_FALSE(refused->handle);
    EXPECT_EQ(refused->error, "kIOReportUserClientConfigureInterests failed 0xe00002c7");

    auto s = subscribe(IOReportCopyChannelsForDrivers(matching.get(), 0, nullptr));
    ASSERT_TRUE(s->handle) << s->error;
    control({"stub", "--service", "IOReportHub", "--selector", std::to_string(kIOReportUserClientUpdateKernelBuffer),
             "--code", "0xe00002d8", "--times", "1"});
    CFRef<CFMutableDictionaryRef> failed(sample(*s)), next(sample(*s));
    EXPECT_FALSE(failed);
    EXPECT_TRUE(next);
}

TEST(ReportHubFreshProcess, RefusedOpenAndRefusedSelector0) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    control({"stub", "--open", "--service", "IOReportHub", "--code", "0xe00002c5", "--times", "1"});
    EXPECT_EXIT(subscribe_in_child(), ::testing::ExitedWithCode(0), "Could not open IOReportHub 0xe00002c5");
    control({"stub", "--clear"});
    control({"stub", "--service", "IOReportHub", "--selector", std::to_string(kIOReportUserClientOpen), "--code",
             "0xe00002c7", "--times", "1"});
    EXPECT_EXIT(subscribe_in_child(), ::testing::ExitedWithCode(0), "kIOReportUserClientOpen failed 0xe00002c7");
    control({"stub", "--clear"});
}
