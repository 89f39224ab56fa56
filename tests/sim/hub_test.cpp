// The report-channel library against a private simulator on a step clock;
// the library opens the hub once per process, so one simulator serves all.
#include <IOReport.h>
#include <cf_ref.h>
#include <cf_support.h>
#include <harness.h>
#include <talvex_driver.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

using talvex::CFRef;
using talvex::test::Simulator;
using talvex::test::text;

namespace {

Simulator &sim() {
    static std::unique_ptr<Simulator> s = [] {
        auto made = std::make_unique<Simulator>(std::vector<std::string>{"--clock", "step"});
        setenv("TALVEX_SIM_SOCKET", made->socket().c_str(), 1);
        return made;
    }();
    return *s;
}

// After the last test the shared simulator must shut down cleanly (a
// sanitizer report or a crash makes its exit status non-zero).
struct StopsCleanly : ::testing::Environment {
    void TearDown() override { EXPECT_EQ(sim().stop(), 0) << sim().log(); }
};
[[maybe_unused]] const ::testing::Environment *const kStopCheck = ::testing::AddGlobalTestEnvironment(new StopsCleanly);

void control(std::vector<std::string> words) {
    auto r = sim().control(words);
    ASSERT_EQ(r.status, 0) << r.err;
}

void stub(int selector, std::vector<std::string> how) {
    how.insert(how.begin(), {"stub", "--service", "IOReportHub", "--selector", std::to_string(selector)});
    control(how);
}

std::string error_text(CFErrorRef e) {
    if (!e) return "no error";
    CFRef<CFStringRef> d(CFErrorCopyDescription(e));
    char code[16];
    std::snprintf(code, sizeof code, " %#x", static_cast<uint32_t>(CFErrorGetCode(e)));
    return text(d.get()) + code;
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
    CFRef<CFMutableDictionaryRef> channels, subscribed;
    CFRef<IOReportSubscriptionRef> handle;
    std::string error;
    CFMutableDictionaryRef sample() { return IOReportCreateSamples(handle.get(), subscribed.get(), nullptr); }
};

// Subscribes to `channels` (taking it over); null for the coprocessor's own.
std::unique_ptr<Subscription> subscribe(CFMutableDictionaryRef channels = nullptr) {
    sim();
    if (!channels) {
        CFRef<CFMutableDictionaryRef> matching(IOServiceMatching("ZantraTalvexProcessor"));
        channels = IOReportCopyChannelsForDrivers(matching.get(), 0, nullptr);
    }
    auto s = std::make_unique<Subscription>();
    *s->channels.slot() = channels;
    CFRef<CFErrorRef> e;
    *s->handle.slot() = IOReportCreateSubscription(nullptr, channels, s->subscribed.slot(), 0, e.slot());
    s->error = error_text(e.get());
    return s;
}

}  // namespace

TEST(ReportHub, SamplesAndDeltasOfEveryFormat) {
    control({"load", "25"});
    auto s = subscribe(IOReportCopyAllChannels(0, nullptr));
    ASSERT_TRUE(s->handle) << s->error;
    CFRef<CFMutableDictionaryRef> older(s->sample()), newer(s->sample());
    ASSERT_TRUE(older && newer);
    CFRef<CFErrorRef> e;
    CFRef<CFMutableDictionaryRef> delta(IOReportCreateSamplesDelta(older.get(), newer.get(), e.slot()));
    ASSERT_TRUE(delta) << error_text(e.get());
    auto d = by_name(delta.get());
    // The coprocessor's five channels and the power controller's three; the
    // thermal monitor's legend is not public.
    ASSERT_EQ(d.size(), 8u);

    // One step under the pinned load.
    EXPECT_EQ(IOReportSimpleGetIntegerValue(d["TOTAL MS"]), 1000);
    EXPECT_EQ(IOReportSimpleGetIntegerValue(d["IDLE MS "]), 750);
    EXPECT_EQ(IOReportSimpleGetIntegerValue(d["vdd_cpu"]), 180);

    // 750 ms idle (65% deep sleep, 35% sleep), 250 ms busy (70% at 12 MHz,
    // 30% at 100 MHz), in 24 MHz ticks. (The states' names and the latency
    // buckets' bounds: tests/tool/report_test.cpp.)
    const int64_t ticks[] = {11'700'000, 6'300'000, 4'200'000, 1'800'000};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(IOReportStateGetResidency(d["PWRSTATE"], i), ticks[i]) << i;

    CFMutableDictionaryRef latency = d["PROCLAT"];
    int64_t hits = 0;
    for (int b = 0; b < 16; ++b) hits += IOReportHistogramGetBucketHits(latency, b);
    EXPECT_NEAR(static_cast<double>(hits), 625.0, 16.0);   // one sample per 400 us of the 250 ms busy

    const int64_t events[] = {200, 100, 50, 10, 25, 5, 2, 60};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(IOReportArrayGetValueAtIndex(d["EVENTS"], i), events[i]) << i;
}

// Refusals after the open carry the hub's code; none of them opens the hub
// again, and a failed update leaves the subscription usable.
TEST(ReportHub, RefusalsOfTheInterestListTheMappingAndAnUpdate) {
    stub(kIOReportUserClientConfigureInterests, {"--code", "0xe00002c7", "--times", "1"});
    EXPECT_EQ(subscribe()->error, "kIOReportUserClientConfigureInterests failed 0xe00002c7");
    stub(kIOReportUserClientConfigureInterests, {"--scalar-outputs", "7", "--times", "1"});   // no such memory
    auto unmapped = subscribe();
    EXPECT_FALSE(unmapped->handle);
    EXPECT_EQ(unmapped->error, "IOConnectMapMemory() failed 0xe00002c2");

    auto s = subscribe();
    ASSERT_TRUE(s->handle) << s->error;
    stub(kIOReportUserClientUpdateKernelBuffer, {"--code", "0xe00002d8", "--times", "1"});
    CFRef<CFMutableDictionaryRef> failed(s->sample()), next(s->sample());
    EXPECT_FALSE(failed);
    EXPECT_TRUE(next);
    auto trace = sim().trace();
    EXPECT_EQ(std::count_if(trace.begin(), trace.end(),
                            [](const std::string &l) { return l.find("\"open\":") != std::string::npos; }),
              1);
}

// The first subscription opens the hub for the process; when that open is
// refused, later subscriptions fail without opening it again. (Last in the
// file: run in one process with the others, it finds the hub open and skips.)
TEST(ReportHub, ARefusedFirstOpenIsNotTriedAgain) {
    auto opens = [] {
        auto t = sim().trace();
        return std::count_if(t.begin(), t.end(), [](const std::string &l) {
            return l.find(R"({"service":"IOReportHub","open":)") == 0;
        });
    };
    if (opens() != 0) GTEST_SKIP() << "an earlier test of this process opened the hub";
    control({"stub", "--open", "--service", "IOReportHub", "--code", "0xe00002c5", "--times", "1"});
    EXPECT_EQ(subscribe()->error, "Could not open IOReportHub 0xe00002c5");
    EXPECT_FALSE(subscribe()->handle);
    EXPECT_EQ(opens(), 1);
}
