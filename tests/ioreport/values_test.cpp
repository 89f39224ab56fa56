// Value accessors of the four formats, histogram bucket bounds, state names,
// duty cycles and deltas.
#include "report_fixtures.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace rt;

namespace {

struct Segment {
    uint32_t base, kind;
    int32_t buckets;
};

// A histogram sample whose channel info carries the bucket configuration.
CFMutableDictionaryRef histogram(uint16_t buckets, const std::vector<std::vector<uint64_t>> &values,
                                 const std::vector<Segment> &segments) {
    uint64_t t = type(kIOReportFormatHistogram, 0, buckets);
    std::vector<uint8_t> config;
    for (auto &s : segments) {
        size_t off = config.size();
        config.resize(off + 16, 0xCC);   // bytes 8-11 are not read
        for (int i = 0; i < 4; ++i) {
            config[off + i] = static_cast<uint8_t>(s.base >> (8 * i));
            config[off + 4 + i] = static_cast<uint8_t>(s.kind >> (8 * i));
            config[off + 12 + i] = static_cast<uint8_t>(static_cast<uint32_t>(s.buckets) >> (8 * i));
        }
    }
    CFMutableDictionaryRef rec = sample(t, run(1, 0x4142, t, values));
    CFRef<CFMutableDictionaryRef> info(IOReportCreateUnitInfo(0x0100007C00000000ull));
    CFRef<CFDataRef> cfg(CFDataCreate(nullptr, config.data(), static_cast<CFIndex>(config.size())));
    setValue(info.get(), "IOReportChannelConfig", cfg.get());
    setValue(rec, "IOReportChannelInfo", info.get());
    return rec;
}

std::vector<uint64_t> uppers(CFDictionaryRef h, int n) {
    std::vector<uint64_t> out;
    for (int i = 0; i < n; ++i) {
        uint64_t hi = 0;
        if (IOReportHistogramGetBucketBounds(h, i, nullptr, &hi) != 0) break;
        out.push_back(hi);
    }
    return out;
}

const uint64_t kState3 = type(kIOReportFormatState, 0, 3);

}  // namespace

TEST(Values, SimpleArrayAndFormatChecks) {
    const uint64_t simple = type(kIOReportFormatSimple, 0, 1);
    CFRef<CFMutableDictionaryRef> one(sample(simple, run(1, 2, simple, {{static_cast<uint64_t>(-42), 1, 2, 3}})));
    EXPECT_EQ(IOReportSimpleGetIntegerValue(one.get()), -42);
    CFRef<CFMutableDictionaryRef> two(sample(simple, run(1, 2, simple, {{1}, {2}})));
    EXPECT_EQ(IOReportSimpleGetIntegerValue(two.get()), kIOReportInvalidValue);

    const uint64_t array = type(kIOReportFormatSimpleArray, 0, 3);
    CFRef<CFMutableDictionaryRef> a(sample(array, run(1, 2, array, {{0, 1, 2, 3}, {4, 5, 6, 7}, {8, 9, 10, 11}})));
    EXPECT_EQ(IOReportArrayGetValueAtIndex(a.get(), 5), 5);
    EXPECT_EQ(IOReportArrayGetValueAtIndex(a.get(), 11), 11);
    EXPECT_EQ(IOReportArrayGetValueAtIndex(a.get(), 12), kIOReportInvalidValue);
    EXPECT_EQ(IOReportArrayGetValueAtIndex(a.get(), -1), kIOReportInvalidValue);
    // Values of one format are not readable as another.
    EXPECT_EQ(IOReportSimpleGetIntegerValue(a.get()), kIOReportInvalidValue);
    EXPECT_EQ(IOReportStateGetCount(a.get()), -1);
    EXPECT_EQ(IOReportHistogramGetBucketCount(a.get()), -1);
}

// (Each bucket's hits, least, most and sum: the histogram description test.)
TEST(Values, HistogramBucketsAndExtremes) {
    CFRef<CFMutableDictionaryRef> h(histogram(4, {{0, 1, 2, 3}, {3, 10, 19, 45}, {0, 7, 7, 7}, {2, 31, 39, 70}},
                                            {{10, 0, 4}}));
    EXPECT_EQ(IOReportHistogramGetBucketCount(h.get()), 4);
    EXPECT_EQ(IOReportHistogramGetMinValue(h.get()), 10);   // lowest bucket with hits
    EXPECT_EQ(IOReportHistogramGetMaxValue(h.get()), 39);   // highest bucket with hits

    CFRef<CFMutableDictionaryRef> empty(histogram(2, {{0, 1, 2, 3}, {0, 4, 5, 6}}, {{10, 0, 2}}));
    EXPECT_EQ(IOReportHistogramGetMinValue(empty.get()), kIOReportInvalidValue);
    EXPECT_EQ(IOReportHistogramGetMaxValue(empty.get()), kIOReportInvalidValue);
}

TEST(Values, HistogramBucketBounds) {
    CFRef<CFMutableDictionaryRef> lin(histogram(4, {{0}, {0}, {0}, {0}}, {{10, 0, 4}}));
    uint64_t lo = 99, hi = 99;
    EXPECT_EQ(IOReportHistogramGetBucketBounds(lin.get(), 4, &lo, &hi), mach(0xe00002bc));
    EXPECT_EQ(IOReportHistogramGetBucketBounds(lin.get(), -1, &lo, &hi), mach(0xe00002bc));
    EXPECT_EQ(uppers(lin.get(), 4), (std::vector<uint64_t>{10, 20, 30, 40}));

    struct Case {
        const char *what;
        uint16_t buckets;
        std::vector<Segment> segments;
        std::vector<uint64_t> upper;   // empty: the configuration is refused
    } cases[] = {
        {"segments continue from the previous bound", 5, {{2, 1, 3}, {10, 0, 2}}, {2, 4, 8, 10, 20}},
        {"a bound equal to the previous one", 4, {{2, 1, 3}, {8, 0, 1}}, {}},
        {"more configured buckets than the channel has", 2, {{10, 0, 3}}, {}},
        {"the linear product wraps in 32 bits", 2, {{0x80000000u, 0, 2}}, {}},
        {"the exponential product is taken in 64 bits", 2, {{0xFFFFFFFFu, 1, 2}}, {0xFFFFFFFFull, 0xFFFFFFFE00000001ull}},
        {"fewer configured buckets: the rest have none", 3, {{5, 0, 2}}, {5, 10}},
    };
    for (const Case &c : cases) {
        CFRef<CFMutableDictionaryRef> h(histogram(c.buckets, std::vector<std::vector<uint64_t>>(c.buckets, {0}), c.segments));
        EXPECT_EQ(uppers(h.get(), c.buckets), c.upper) << c.what;
        // A refused configuration is not cached.
        EXPECT_EQ(getValue(h.get(), "ProcessedChannelConfig") != nullptr, !c.upper.empty()) << c.what;
    }
}

TEST(Values, StateAccessorsNamesDutyAndCurrent) {
    // IDs "IDLE", "RUN", "IDLE" (a repeated ID), residencies 1, 2, 5, stamps 5, 9, 9.
    CFRef<CFMutableDictionaryRef> s(sample(
        kState3, run(1, 2, kState3, {{0x49444C45, 3, 1, 77}, {0x52554E, 4, 2}, {0x49444C45, 5, 5}}, {5, 9, 9})));
    EXPECT_EQ(IOReportStateGetCount(s.get()), 3);
    EXPECT_EQ(IOReportStateGetIDForIndex(s.get(), 1), 0x52554Eu);
    EXPECT_EQ(IOReportStateGetInTransitions(s.get(), 2), 5);
    EXPECT_EQ(IOReportStateGetResidency(s.get(), 1), 2);
    EXPECT_EQ(IOReportStateGetIndexForID(s.get(), 0x49444C45), 2);
    EXPECT_EQ(IOReportStateGetIndexForID(s.get(), 0x52554E), 1);
    EXPECT_EQ(IOReportStateGetIndexForID(s.get(), 7), -1);
    EXPECT_EQ(text(IOReportStateGetNameForIndex(s.get(), 1)), "RUN");
    EXPECT_FALSE(IOReportStateGetNameForIndex(s.get(), 3));
    EXPECT_TRUE(getValue(s.get(), "StateNames"));

    double d0 = IOReportStateGetDutyCycle(s.get(), 0), d1 = IOReportStateGetDutyCycle(s.get(), 1),
           d2 = IOReportStateGetDutyCycle(s.get(), 2);
    EXPECT_DOUBLE_EQ(d0, 0.125);
    EXPECT_DOUBLE_EQ(d0 + d1 + d2, 1.0);
    EXPECT_TRUE(std::isnan(IOReportStateGetDutyCycle(s.get(), 3)));
    EXPECT_EQ(IOReportStateGetCurrent(s.get()), 1);   // first of the largest stamps

    // A state ID with an unprintable byte fails the whole name table.
    CFRef<CFMutableDictionaryRef> odd(sample(kState3, run(1, 2, kState3, {{0x41}, {0x4101}, {0x42}})));
    EXPECT_FALSE(IOReportStateGetNameForIndex(odd.get(), 0));
    EXPECT_FALSE(getValue(odd.get(), "StateNames"));
    // All residencies zero, all stamps zero.
    EXPECT_TRUE(std::isnan(IOReportStateGetDutyCycle(odd.get(), 0)));
    EXPECT_EQ(IOReportStateGetCurrent(odd.get()), -1);
}

namespace {

// Two one-record samples of the same channel, as two sample calls give them,
// and the delta of the whole samples.
struct Pair {
    CFRef<CFMutableDictionaryRef> older, newer, delta;
    CFMutableDictionaryRef changed() const { return channelsOf(delta.get()).at(0); }
};

Pair samples(uint64_t t, const std::vector<uint8_t> &a, const std::vector<uint8_t> &b) {
    CFRef<CFMutableDictionaryRef> channels(subscribed({{1, 0x4142, t}}));
    Pair p;
    p.older = CFRef<CFMutableDictionaryRef>(samplesOf(channels.get(), a));
    p.newer = CFRef<CFMutableDictionaryRef>(samplesOf(channels.get(), b));
    EXPECT_TRUE(p.older && p.newer);
    p.delta = CFRef<CFMutableDictionaryRef>(IOReportCreateSamplesDelta(p.older.get(), p.newer.get(), nullptr));
    return p;
}

CFMutableDictionaryRef first(CFDictionaryRef agg) { return channelsOf(agg).at(0); }
const uint64_t kSimple = type(kIOReportFormatSimple, 0, 1);

}  // namespace

// (Simple values, and every format as the hub fills it: tests/sim/hub_test.cpp.)
TEST(Deltas, EachFormatDifferencesItsValues) {
    Pair state = samples(kState3, run(1, 0x4142, kState3, {{7, 1, 10, 1}, {8, 2, 20, 2}, {9, 3, 30, 3}}, {1, 2, 3}),
                         run(1, 0x4142, kState3, {{7, 4, 15, 4}, {8, 2, 20, 5}, {9, 1, 40, 6}}, {4, 2, 3}));
    auto *r = state.changed();
    EXPECT_EQ(IOReportStateGetInTransitions(r, 0), 3);
    EXPECT_EQ(IOReportStateGetResidency(r, 0), 5);
    EXPECT_EQ(IOReportStateGetResidency(r, 1), 0);
    EXPECT_EQ(IOReportStateGetInTransitions(r, 2), -2);   // wrapping subtraction
    EXPECT_EQ(IOReportStateGetIDForIndex(r, 2), 9u);
    EXPECT_EQ(IOReportStateGetCurrent(r), 0);   // the newer stamps
    EXPECT_EQ(IOReportStateGetResidency(first(state.older.get()), 0), 10);   // the samples stay as they were

    const uint64_t h = type(kIOReportFormatHistogram, 0, 3);
    Pair hist = samples(h, run(1, 0x4142, h, {{2, 1, 5, 6}, {0, 0, 0, 0}, {4, 3, 9, 20}}),
                        run(1, 0x4142, h, {{5, 1, 8, 20}, {1, 11, 11, 11}, {4, 2, 9, 20}}));
    r = hist.changed();
    EXPECT_EQ(IOReportHistogramGetBucketHits(r, 0), 3);
    EXPECT_EQ(IOReportHistogramGetBucketSum(r, 0), 14);
    EXPECT_EQ(IOReportHistogramGetBucketMaxValue(r, 0), 8);
    EXPECT_EQ(IOReportHistogramGetBucketSum(r, 1), 11);   // older had no hits: the newer sum
    EXPECT_EQ(IOReportHistogramGetBucketHits(r, 2), 0);
    EXPECT_EQ(IOReportHistogramGetBucketSum(r, 2), kIOReportInvalidValue);   // unchanged hits
    EXPECT_EQ(IOReportHistogramGetBucketMinValue(r, 2), 2);

    const uint64_t a = type(kIOReportFormatSimpleArray, 0, 2);
    Pair array = samples(a, run(1, 0x4142, a, {{1, kNone, 5, 9}, {10, 20, 30, kNone}}),
                         run(1, 0x4142, a, {{4, 6, kNone, 19}, {10, 25, 31, kNone}}));
    std::vector<int64_t> got;
    for (int i = 0; i < 8; ++i) got.push_back(IOReportArrayGetValueAtIndex(array.changed(), i));
    EXPECT_EQ(got, (std::vector<int64_t>{3, 6, 5, 10, 0, 5, 1, kIOReportInvalidValue}));
}

TEST(Deltas, FailuresAndUnpairedChannels) {
    // A channel without elements in one sample fails the whole delta.
    Pair p = samples(kSimple, run(1, 0x4142, kSimple, {{1}}), run(1, 0x4142, type(1, 0, 3), {{2}}));
    EXPECT_FALSE(p.delta);
    // Paired records must agree on the channel type; a sample must be given.
    const uint64_t categorised = type(kIOReportFormatSimple, 1, 1);
    Pair r = samples(categorised, run(1, 0x4142, categorised, {{1}}), run(1, 0x4142, categorised, {{5}}));
    EXPECT_FALSE(CFRef<CFMutableDictionaryRef>(IOReportCreateSamplesDelta(p.older.get(), r.newer.get(), nullptr)));
    EXPECT_FALSE(IOReportCreateSamplesDelta(nullptr, r.newer.get(), nullptr));

    // A newer record with no partner is copied as it is.
    Pair q = samples(kSimple, run(1, 0x4142, kSimple, {{1}}), run(1, 0x4142, kSimple, {{5}}));
    CFRef<CFMutableDictionaryRef> unpaired(subscribed({{1, 0x99, kSimple}}));
    ASSERT_EQ(IOReportMergeChannels(q.newer.get(), unpaired.get(), nullptr), 0);
    CFRef<CFMutableDictionaryRef> d(IOReportCreateSamplesDelta(q.older.get(), q.newer.get(), nullptr));
    auto recs = channelsOf(d.get());
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_EQ(IOReportSimpleGetIntegerValue(recs[0]), 4);
    EXPECT_EQ(IOReportChannelGetChannelID(recs[1]), 0x99u);

    // Record-level format checks.
    CFRef<CFMutableDictionaryRef> s1(sample(kSimple, run(1, 2, kSimple, {{1}})));
    CFRef<CFMutableDictionaryRef> s3(sample(kState3, run(1, 2, kState3, {{1}, {2}, {3}})));
    EXPECT_EQ(failure([&](CFErrorRef *err) { return IOReportSampleCreateDelta(s1.get(), s3.get(), err); }),
              "mismatched formats (0xe00002c2)");
    const uint64_t five = type(5, 0, 1);
    CFRef<CFMutableDictionaryRef> f5a(sample(five, run(1, 2, five, {{1}}))), f5b(sample(five, run(1, 2, five, {{2}})));
    EXPECT_EQ(failure([&](CFErrorRef *err) { return IOReportSampleCreateDelta(f5a.get(), f5b.get(), err); }),
              "unknown report format (0xe00002e6)");
}
