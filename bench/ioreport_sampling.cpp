// Cost of cutting a hub buffer image into a sample: N subscribed channels and
// a buffer of N runs (one element each, in the reverse order of the
// subscription, so a search from the start of the buffer for each channel
// would read N/2 run headers on average).
//
// BM_CreateSamplesRaw measures the library. BM_SearchFromStart measures only
// the run-header reads that a per-channel walk from the start of the buffer
// would make, for comparison.
#include <IOReport.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

namespace {

constexpr uint64_t kType = 1ull | (1ull << 32);   // simple format, one element

void put64(uint8_t *p, uint64_t v) {
    for (int i = 0; i < 8; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
uint64_t get64(const uint8_t *p) {
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = (v << 8) | p[i];
    return v;
}

std::vector<uint8_t> image(int n) {
    std::vector<uint8_t> b(static_cast<size_t>(n) * 64, 0);
    for (int i = 0; i < n; ++i) {
        uint8_t *e = b.data() + static_cast<size_t>(i) * 64;
        uint64_t id = static_cast<uint64_t>(n - i);
        put64(e, 1);
        put64(e + 8, id);
        put64(e + 16, kType);
        put64(e + 32, id * 10);
    }
    return b;
}

CFMutableDictionaryRef channels(int n) {
    CFMutableDictionaryRef agg = IOReportCreateAggregate(0);
    CFStringRef name = CFStringCreateWithCString(nullptr, "bench", kCFStringEncodingUTF8);
    for (int i = 1; i <= n; ++i)
        IOReportAddChannelDescription(agg, 1, name, static_cast<uint64_t>(i), kType, nullptr, nullptr, nullptr,
                                      nullptr, nullptr);
    CFRelease(name);
    return agg;
}

void BM_CreateSamplesRaw(benchmark::State &state) {
    int n = static_cast<int>(state.range(0));
    CFMutableDictionaryRef subscribed = channels(n);
    std::vector<uint8_t> bytes = image(n);
    CFDataRef buffer = CFDataCreateWithBytesNoCopy(nullptr, bytes.data(), static_cast<CFIndex>(bytes.size()),
                                                   kCFAllocatorNull);
    for (auto _ : state) {
        CFMutableDictionaryRef sample = IOReportCreateSamplesRaw(subscribed, buffer, nullptr);
        if (!sample || IOReportGetChannelCount(sample) != n) {
            state.SkipWithError("sample incomplete");
            if (sample) CFRelease(sample);
            break;
        }
        CFRelease(sample);
    }
    state.SetComplexityN(n);
    state.counters["time_per_channel"] =
        benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate |
                                                       benchmark::Counter::kInvert);
    CFRelease(buffer);
    CFRelease(subscribed);
}
BENCHMARK(BM_CreateSamplesRaw)->RangeMultiplier(4)->Range(16, 1024)->Complexity(benchmark::oN);

void BM_SearchFromStart(benchmark::State &state) {
    int n = static_cast<int>(state.range(0));
    std::vector<uint8_t> bytes = image(n);
    for (auto _ : state) {
        size_t found = 0;
        for (uint64_t id = 1; id <= static_cast<uint64_t>(n); ++id) {
            for (size_t off = 0; off < bytes.size();) {
                const uint8_t *e = bytes.data() + off;
                if (get64(e) == 1 && get64(e + 8) == id) {
                    ++found;
                    break;
                }
                off += static_cast<size_t>(e[20] | (e[21] << 8)) * 64;
            }
        }
        benchmark::DoNotOptimize(found);
    }
    state.SetComplexityN(n);
}
BENCHMARK(BM_SearchFromStart)->RangeMultiplier(4)->Range(16, 1024)->Complexity(benchmark::oNSquared);

}  // namespace

BENCHMARK_MAIN();
