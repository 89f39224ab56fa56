// IOReportCreateSamplesRaw on arbitrary hub buffers: a fixed subscription
// (every format, an untyped and an unknown one, one ID under two drivers;
// units and histogram configuration from the input) and two buffer images,
// raw or laid out mostly naming subscribed channels. Every record of both
// samples and of their deltas goes through every accessor and description.
// A sample never holds more channels than were subscribed, and a state's ID
// is found at or after its index.
#include <IOReport.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "plist_gen.h"

using talvex::CFRef;
using talvex::fuzz::check;
using talvex::fuzz::fail;
using talvex::fuzz::new_string;
using talvex::fuzz::one_of;
using talvex::fuzz::release;

namespace {

constexpr uint64_t kDriverA = 0x100000400;
constexpr uint64_t kDriverB = 0x100000401;
constexpr int kMaxIndex = 40;   // accessor indices tried: -1 .. count + 1, at most this many

uint64_t type_of(uint8_t format, uint16_t categories, uint16_t count) {
    return format | (uint64_t{categories} << 16) | (uint64_t{count} << 32);
}

struct Channel {
    uint64_t driver, id, type;
    const char *name;   // null: named by its printable ID, if any
    const char *group, *subgroup;
};

const Channel kChannels[] = {
    {kDriverA, 1, type_of(kIOReportFormatSimple, 0x1, 1), "simple", "Energy", nullptr},
    {kDriverA, 0x4f4646, type_of(kIOReportFormatState, 0x2, 3), nullptr, "Power", "States"},
    {kDriverA, 3, type_of(kIOReportFormatHistogram, 0x4, 4), "latency", "Perf", "Latency"},
    {kDriverA, 4, type_of(kIOReportFormatSimpleArray, 0x8, 2), "array", "Perf", nullptr},
    {kDriverB, 5, 0, "untyped", nullptr, nullptr},
    {kDriverB, 6, type_of(7, 0x10, 1), "unknown", "Energy", "Odd"},
    {kDriverB, 1, type_of(kIOReportFormatSimple, 0x1, 1), "twin", "Energy", nullptr},
    {kDriverB, 8, type_of(kIOReportFormatHistogram, 0x4, 2), "shortcfg", "Perf", "Latency"},
};

const uint64_t kUnits[] = {
    0,                    // plain count
    kIOReportUnitTime,    // seconds
    0x0100007600000000,   // nanoseconds
    0x0100007980000018,   // 24 MHz ticks
    0x0300007C00000000,   // millijoules
    0x0900008C00000004,   // 4 KiB pages
    0x6400000000000000,   // events
};

CFMutableDictionaryRef subscribe(FuzzedDataProvider &in) {
    uint32_t options = in.ConsumeIntegralInRange<uint32_t>(0, 3);
    CFMutableDictionaryRef agg = IOReportCreateAggregate(options);
    for (const Channel &c : kChannels) {
        CFRef<CFMutableDictionaryRef> info;
        if (in.ConsumeBool()) {
            uint64_t unit = in.ConsumeBool() ? one_of(in, kUnits) : in.ConsumeIntegral<uint64_t>();
            info.reset(IOReportCreateUnitInfo(unit));
            if (static_cast<uint8_t>(c.type) == kIOReportFormatHistogram && info) {
                // Segments: u32 base, u32 exponential flag, u32 unused, u32 bucket count.
                std::vector<uint8_t> config = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 48));
                CFRef<CFDataRef> data(CFDataCreate(nullptr, config.data(), static_cast<CFIndex>(config.size())));
                CFDictionarySetValue(info.get(), CFSTR("IOReportChannelConfig"), data.get());
            }
        }
        CFRef<CFStringRef> driver(CFStringCreateWithFormat(nullptr, nullptr, CFSTR("drv <id %#llx>"),
                                                         static_cast<unsigned long long>(c.driver)));
        CFRef<CFStringRef> name(new_string(c.name)), group(new_string(c.group)), subgroup(new_string(c.subgroup));
        IOReportAddChannelDescription(agg, c.driver, driver.get(), c.id, c.type, name.get(), group.get(),
                                      subgroup.get(), info.get(), nullptr);
    }
    return agg;
}

void put64(std::vector<uint8_t> &b, size_t at, uint64_t v) {
    for (int i = 0; i < 8; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

// A hub buffer image: runs of 64-byte elements (driver, channel, type, count
// in the type's element-count bits, stamp, four values).
std::vector<uint8_t> laid_out(FuzzedDataProvider &in) {
    std::vector<uint8_t> b;
    size_t runs = in.ConsumeIntegralInRange<size_t>(0, 12);
    for (size_t r = 0; r < runs && in.remaining_bytes() > 0; ++r) {
        const Channel &c = one_of(in, kChannels);
        uint64_t driver = c.driver, id = c.id, type = c.type;
        if (in.ConsumeIntegralInRange(0, 7) == 0) driver = in.ConsumeIntegral<uint64_t>();
        if (in.ConsumeIntegralInRange(0, 7) == 0) id = in.ConsumeIntegral<uint64_t>();
        if (type == 0 || in.ConsumeIntegralInRange(0, 7) == 0)
            type = type_of(in.ConsumeIntegralInRange<uint8_t>(0, 5), in.ConsumeIntegral<uint16_t>(),
                           in.ConsumeIntegralInRange<uint16_t>(0, 6));
        uint16_t count = static_cast<uint16_t>(type >> 32);
        if (in.ConsumeIntegralInRange(0, 7) == 0) count = in.ConsumeIntegralInRange<uint16_t>(0, 8);
        for (uint16_t e = 0; e < (count ? count : 1) && in.remaining_bytes() > 0; ++e) {
            size_t at = b.size();
            b.resize(at + 64, 0);
            put64(b, at, driver);
            put64(b, at + 8, id);
            put64(b, at + 16, (type & ~(uint64_t{0xffff} << 32)) | (uint64_t{count} << 32));
            put64(b, at + 24, in.ConsumeIntegralInRange<uint64_t>(0, 100));
            for (int k = 0; k < 4; ++k) {
                uint64_t v = in.ConsumeBool() ? in.ConsumeIntegralInRange<uint64_t>(0, 1000) : in.ConsumeIntegral<uint64_t>();
                put64(b, at + 32 + 8 * k, v);
            }
        }
    }
    return b;   // raw images bring tails that are not whole elements
}

void exercise(CFDictionaryRef rec) {
    int count = std::min(kMaxIndex, std::max({IOReportStateGetCount(rec), IOReportHistogramGetBucketCount(rec), 4 * 8}));
    IOReportSimpleGetIntegerValue(rec);
    IOReportHistogramGetMinValue(rec);
    IOReportHistogramGetMaxValue(rec);
    IOReportStateGetCurrent(rec);
    for (int i = -1; i <= count + 1; ++i) {
        IOReportArrayGetValueAtIndex(rec, i);
        IOReportHistogramGetBucketHits(rec, i);
        IOReportHistogramGetBucketMinValue(rec, i);
        IOReportHistogramGetBucketMaxValue(rec, i);
        IOReportHistogramGetBucketSum(rec, i);
        uint64_t lo = 0, hi = 0;
        IOReportHistogramGetBucketBounds(rec, i, &lo, &hi);
        IOReportHistogramGetBucketBounds(rec, i, nullptr, nullptr);
        uint64_t id = IOReportStateGetIDForIndex(rec, i);
        int found = IOReportStateGetIndexForID(rec, id);
        if (i >= 0 && i < IOReportStateGetCount(rec) && static_cast<int64_t>(id) != kIOReportInvalidValue && found < i)
            fail("state %d's ID is found at %d", i, found);
        IOReportStateGetInTransitions(rec, i);
        IOReportStateGetResidency(rec, i);
        IOReportStateGetNameForIndex(rec, i);
        IOReportStateGetDutyCycle(rec, i);
    }
    talvex::fuzz::touch_channel(rec);
}

std::vector<CFMutableDictionaryRef> records(CFDictionaryRef agg) {
    std::vector<CFMutableDictionaryRef> out;
    if (agg)
        IOReportIterate(agg, [&](CFMutableDictionaryRef r) {
            out.push_back(r);
            return kIOReportIterOk;
        });
    return out;
}

void exercise_all(CFDictionaryRef agg) {
    for (CFMutableDictionaryRef r : records(agg)) exercise(r);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider in(data, size);
    CFRef<CFMutableDictionaryRef> subscribed(subscribe(in));
    int subscribed_count = IOReportGetChannelCount(subscribed.get());

    std::vector<uint8_t> images[2];
    if (in.ConsumeBool()) {
        images[0] = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, in.remaining_bytes()));
        images[1] = in.ConsumeRemainingBytes<uint8_t>();
    } else {
        images[0] = laid_out(in);
        images[1] = laid_out(in);
    }
    CFRef<CFMutableDictionaryRef> samples[2];
    for (int k = 0; k < 2; ++k) {
        CFRef<CFDataRef> buffer(CFDataCreate(nullptr, images[k].data(), static_cast<CFIndex>(images[k].size())));
        CFErrorRef error = nullptr;
        samples[k].reset(IOReportCreateSamplesRaw(subscribed.get(), buffer.get(), &error));
        release(error);
        check(!samples[k] || IOReportGetChannelCount(samples[k].get()) <= subscribed_count,
              "a sample holds more channels than were subscribed");
        exercise_all(samples[k].get());
    }

    CFErrorRef error = nullptr;
    CFRef<CFMutableDictionaryRef> delta(IOReportCreateSamplesDelta(samples[0].get(), samples[1].get(), &error));
    release(error);
    exercise_all(delta.get());

    std::vector<CFMutableDictionaryRef> older = records(samples[0].get()), newer = records(samples[1].get());
    for (size_t i = 0; i < older.size() && i < newer.size(); ++i) {
        error = nullptr;
        CFRef<CFMutableDictionaryRef> d(IOReportSampleCreateDelta(older[i], newer[i], &error));
        release(error);
        if (d) exercise(d.get());
    }
    return 0;
}
