// The report pipeline end to end against a private simulator: the hub's
// buffer update alone, sampling through the hub (update call, buffer walk,
// per-channel copies), differencing two samples, both together as a
// monitoring loop pays them, and describing every record of a sample as
// `ioreport` does.
//
// One simulator publishes the coprocessor's channels plus 100,000 extra ones
// of the four formats in turn (`talvexsim serve --channels 100000`). Each
// size subscribes to N channels, a quarter of each format, so every size
// reads the same mix. The counter "per_channel" is the (real) time per
// channel; compare it across sizes to see how the cost grows.
#include <IOReport.h>
#include <internal.h>   // library routines called directly

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "harness.h"

namespace {

using talvex::test::Simulator;
using talvex::test::SimulatorOptions;

constexpr int kExtraChannels = 100'000;

// Every channel of the coprocessor driver, discovered once.
CFMutableDictionaryRef all_channels() {
    // A large legend takes a few seconds to build.
    static Simulator sim([] {
        SimulatorOptions options;
        options.serve_args = {"--channels", std::to_string(kExtraChannels)};
        options.start_limit = std::chrono::seconds(30);
        options.capture_log = false;
        return options;
    }());
    setenv("TALVEX_SIM_SOCKET", sim.socket().c_str(), 1);
    static CFMutableDictionaryRef all = [] {
        CFMutableDictionaryRef matching = IOServiceMatching("ZantraTalvexProcessor");
        CFMutableDictionaryRef channels = IOReportCopyChannelsForDrivers(matching, 0, nullptr);
        CFRelease(matching);
        return channels;
    }();
    return all;
}

// A subscription to `n` channels, a quarter of each format, made once per
// size. The driver files its extra channels in one subgroup per format, so
// the first `n` channels of a walk would be almost all simple counters at
// the small sizes and all four formats only at 100,000; taking the first
// n/4 of each format gives every size the same mix.
struct Subscribed {
    IOReportSubscriptionRef subscription = nullptr;
    CFMutableDictionaryRef channels = nullptr;
    int count = 0;
};

const Subscribed &subscribed(int n) {
    static std::map<int, Subscribed> made;
    auto it = made.find(n);
    if (it != made.end()) return it->second;
    Subscribed s;
    if (CFMutableDictionaryRef all = all_channels()) {
        int kept[kIOReportFormatSimpleArray + 1] = {};
        CFMutableDictionaryRef desired = cloneAggregate(all, [&](CFMutableDictionaryRef channel, CFMutableDictionaryRef) {
            uint8_t format = IOReportChannelGetFormat(channel);
            if (format < kIOReportFormatSimple || format > kIOReportFormatSimpleArray) return kIOReportIterSkipped;
            return kept[format]++ < n / 4 ? 0 : kIOReportIterSkipped;
        });
        if (desired) {
            s.subscription = IOReportCreateSubscription(nullptr, desired, &s.channels, 0, nullptr);
            s.count = IOReportGetChannelCount(desired);
            CFRelease(desired);
        }
    }
    return made.emplace(n, s).first->second;
}

// Looks the subscription up; false (with the benchmark skipped) when the
// simulator did not give it.
bool ready(benchmark::State &state, const Subscribed &s, int n) {
    if (!s.subscription || !s.channels || s.count != n) {
        state.SkipWithError("no subscription to that many channels (is the simulator's hub there?)");
        return false;
    }
    return true;
}

void per_channel(benchmark::State &state, int n) {
    state.SetComplexityN(n);
    state.counters["per_channel"] = benchmark::Counter(
        static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// The hub's part of a sample: the update call (transport and the simulator
// writing the subscribed channels into the mapped buffer).
void BM_UpdateBuffer(benchmark::State &state) {
    int n = static_cast<int>(state.range(0));
    const Subscribed &s = subscribed(n);
    if (!ready(state, s, n)) return;
    for (auto _ : state) {
        if (updateKernelBuffer(s.subscription, nullptr) != kIOReturnSuccess) {
            state.SkipWithError("update failed");
            break;
        }
    }
    per_channel(state, n);
}

// One sample: the hub update call, the walk of the mapped buffer and the copy
// of every channel's elements.
void BM_CreateSamples(benchmark::State &state) {
    int n = static_cast<int>(state.range(0));
    const Subscribed &s = subscribed(n);
    if (!ready(state, s, n)) return;
    for (auto _ : state) {
        CFMutableDictionaryRef sample = IOReportCreateSamples(s.subscription, s.channels, nullptr);
        if (!sample) {
            state.SkipWithError("sample failed");
            break;
        }
        CFRelease(sample);
    }
    per_channel(state, n);
}

// The difference of two samples.
void BM_CreateSamplesDelta(benchmark::State &state) {
    int n = static_cast<int>(state.range(0));
    const Subscribed &s = subscribed(n);
    if (!ready(state, s, n)) return;
    CFMutableDictionaryRef older = IOReportCreateSamples(s.subscription, s.channels, nullptr);
    CFMutableDictionaryRef newer = IOReportCreateSamples(s.subscription, s.channels, nullptr);
    if (older && newer) {
        for (auto _ : state) {
            CFMutableDictionaryRef delta = IOReportCreateSamplesDelta(older, newer, nullptr);
            if (!delta) {
                state.SkipWithError("delta failed");
                break;
            }
            CFRelease(delta);
        }
    } else {
        state.SkipWithError("sample failed");
    }
    if (older) CFRelease(older);
    if (newer) CFRelease(newer);
    per_channel(state, n);
}

// What a monitoring loop pays per step: a new sample and its difference from
// the previous one.
void BM_SampleAndDelta(benchmark::State &state) {
    int n = static_cast<int>(state.range(0));
    const Subscribed &s = subscribed(n);
    if (!ready(state, s, n)) return;
    CFMutableDictionaryRef previous = IOReportCreateSamples(s.subscription, s.channels, nullptr);
    for (auto _ : state) {
        CFMutableDictionaryRef sample = previous ? IOReportCreateSamples(s.subscription, s.channels, nullptr) : nullptr;
        CFMutableDictionaryRef delta = sample ? IOReportCreateSamplesDelta(previous, sample, nullptr) : nullptr;
        if (!delta) {
            state.SkipWithError("sample or delta failed");
            if (sample) CFRelease(sample);
            break;
        }
        CFRelease(delta);
        CFRelease(previous);
        previous = sample;
    }
    if (previous) CFRelease(previous);
    per_channel(state, n);
}

// `ioreport`'s walk: every record's description, written to /dev/null.
void BM_IterateDescribe(benchmark::State &state) {
    int n = static_cast<int>(state.range(0));
    const Subscribed &s = subscribed(n);
    if (!ready(state, s, n)) return;
    int sink = open("/dev/null", O_WRONLY | O_CLOEXEC);
    CFMutableDictionaryRef sample = IOReportCreateSamples(s.subscription, s.channels, nullptr);
    if (sample && sink >= 0) {
        for (auto _ : state) {
            int result = IOReportIterate(sample, [&](CFMutableDictionaryRef record) {
                CFStringRef description = IOReportSampleCopyDescription(record, nullptr, nullptr);
                if (!description) return 1;
                IOReturn rc = IOReportWriteStringUTF8(sink, description);
                CFRelease(description);
                return rc == kIOReturnSuccess ? 0 : kIOReportIterFailed;
            });
            if (result != 0) {
                state.SkipWithError("a description failed");
                break;
            }
        }
    } else {
        state.SkipWithError("sample failed");
    }
    if (sample) CFRelease(sample);
    if (sink >= 0) close(sink);
    per_channel(state, n);
}

void sizes(benchmark::internal::Benchmark *b) {
    for (int n : {100, 1'000, 10'000, 100'000}) b->Arg(n);
    b->Unit(benchmark::kMillisecond)->UseRealTime();
}

BENCHMARK(BM_UpdateBuffer)->Apply(sizes);
BENCHMARK(BM_CreateSamples)->Apply(sizes);
BENCHMARK(BM_CreateSamplesDelta)->Apply(sizes);
BENCHMARK(BM_SampleAndDelta)->Apply(sizes);
BENCHMARK(BM_IterateDescribe)->Apply(sizes);

}  // namespace

BENCHMARK_MAIN();
