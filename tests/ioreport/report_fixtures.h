// Builders for report-library tests: channel records, hub buffer images and
// raw elements written byte by byte in little-endian order.
#pragma once

#include <IOReport.h>
#include <internal.h>   // the library routines checked directly

#include "cf_support.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace rt {

using talvex::CFRef;
using talvex::test::text;

inline constexpr uint64_t kNone = 0x8000000000000000ull;

inline uint64_t type(uint8_t format, uint16_t categories, uint16_t count) {
    return static_cast<uint64_t>(format) | (static_cast<uint64_t>(categories) << 16) |
           (static_cast<uint64_t>(count) << 32);
}

// One 64-byte raw element: driver, channel, type, stamp, four values.
struct Element {
    uint64_t driver = 0, channel = 0, type = 0, stamp = 0;
    uint64_t v[4] = {0, 0, 0, 0};
};

inline void append(std::vector<uint8_t> &b, const Element &e) {
    const uint64_t words[8] = {e.driver, e.channel, e.type, e.stamp, e.v[0], e.v[1], e.v[2], e.v[3]};
    for (uint64_t w : words)
        for (int i = 0; i < 8; ++i) b.push_back(static_cast<uint8_t>(w >> (8 * i)));
}

// A channel's run: `values` holds one array of four values per element.
inline std::vector<uint8_t> run(uint64_t driver, uint64_t channel, uint64_t channel_type,
                                const std::vector<std::vector<uint64_t>> &values,
                                const std::vector<uint64_t> &stamps = {}) {
    std::vector<uint8_t> b;
    for (size_t i = 0; i < values.size(); ++i) {
        Element e{driver, channel, channel_type, i < stamps.size() ? stamps[i] : 0, {}};
        for (size_t k = 0; k < 4 && k < values[i].size(); ++k) e.v[k] = values[i][k];
        append(b, e);
    }
    return b;
}

inline CFMutableDataRef mutableData(const std::vector<uint8_t> &bytes) {
    CFMutableDataRef d = CFDataCreateMutable(nullptr, 0);
    CFDataAppendBytes(d, bytes.data(), static_cast<CFIndex>(bytes.size()));
    return d;
}

inline CFNumberRef num(uint64_t v) { return talvex::test::make_int(static_cast<int64_t>(v)); }

inline void setValue(CFMutableDictionaryRef d, const char *key, CFTypeRef v) {
    CFStringRef k = CFStringCreateWithCString(nullptr, key, kCFStringEncodingUTF8);
    CFDictionarySetValue(d, k, v);
    CFRelease(k);
}
inline CFTypeRef getValue(CFDictionaryRef d, const char *key) {
    CFStringRef k = CFStringCreateWithCString(nullptr, key, kCFStringEncodingUTF8);
    CFTypeRef v = CFDictionaryGetValue(d, k);
    CFRelease(k);
    return v;
}
inline CFStringRef str(const char *s) { return CFStringCreateWithCString(nullptr, s, kCFStringEncodingUTF8); }

// A channel record as discovery makes it; `unit` kNone leaves the info out.
inline CFMutableDictionaryRef record(uint64_t driver, uint64_t channel, uint64_t channel_type,
                                    const char *name = nullptr, uint64_t unit = kNone,
                                    const char *group = nullptr, const char *subgroup = nullptr) {
    CFRef<CFMutableDictionaryRef> agg(IOReportCreateAggregate(0));
    CFRef<CFStringRef> driver_name(str("drv"));
    CFRef<CFStringRef> n(name ? str(name) : nullptr);
    CFRef<CFStringRef> g(group ? str(group) : nullptr);
    CFRef<CFStringRef> s(subgroup ? str(subgroup) : nullptr);
    CFRef<CFMutableDictionaryRef> info(unit != kNone ? IOReportCreateUnitInfo(unit) : nullptr);
    EXPECT_EQ(IOReportAddChannelDescription(agg.get(), driver, driver_name.get(), channel, channel_type, n.get(),
                                            g.get(), s.get(), info.get(), nullptr),
              0);
    CFArrayRef list = static_cast<CFArrayRef>(getValue(agg.get(), "IOReportChannels"));
    auto rec = const_cast<CFMutableDictionaryRef>(static_cast<CFDictionaryRef>(CFArrayGetValueAtIndex(list, 0)));
    CFRetain(rec);
    return rec;
}

// A sample record: a channel record carrying `elements` as its raw elements.
inline CFMutableDictionaryRef sample(uint64_t channel_type, const std::vector<uint8_t> &elements,
                                     uint64_t unit = kNone, const char *name = nullptr) {
    CFMutableDictionaryRef rec = record(1, 0x4142, channel_type, name, unit);
    CFRef<CFMutableDataRef> d(mutableData(elements));
    setValue(rec, "RawElements", d.get());
    return rec;
}

// A subscribed-channels aggregate holding the given (driver, channel, type) records.
inline CFMutableDictionaryRef subscribed(const std::vector<std::tuple<uint64_t, uint64_t, uint64_t>> &channels) {
    CFMutableDictionaryRef agg = IOReportCreateAggregate(0);
    CFRef<CFStringRef> name(str("drv"));
    for (auto [driver, id, t] : channels)
        EXPECT_EQ(IOReportAddChannelDescription(agg, driver, name.get(), id, t, nullptr, nullptr, nullptr, nullptr,
                                                nullptr),
                  0);
    return agg;
}

inline CFMutableDictionaryRef samplesOf(CFMutableDictionaryRef channels, const std::vector<uint8_t> &image,
                                        CFErrorRef *error = nullptr) {
    CFRef<CFDataRef> data(CFDataCreate(nullptr, image.data(), static_cast<CFIndex>(image.size())));
    return IOReportCreateSamplesRaw(channels, data.get(), error);
}

// The channel records of an aggregate's top level.
inline std::vector<CFMutableDictionaryRef> channelsOf(CFDictionaryRef agg) {
    std::vector<CFMutableDictionaryRef> out;
    IOReportIterate(agg, [&](CFMutableDictionaryRef c) {
        out.push_back(c);
        return 0;
    });
    return out;
}

inline int64_t errorCode(CFErrorRef e) { return e ? CFErrorGetCode(e) : 0; }
inline std::string errorText(CFErrorRef e) {
    if (!e) return "<none>";
    CFRef<CFStringRef> d(CFErrorCopyDescription(e));
    return text(d.get());
}
inline int64_t mach(uint32_t code) { return static_cast<int32_t>(code); }

// What a call that must fail leaves in its error, as "text (code)": `call`
// gets the error slot and returns the object it made, which must be none.
template <class Call>
std::string failure(Call call) {
    CFRef<CFErrorRef> e;
    CFRef<std::invoke_result_t<Call, CFErrorRef *>> made(call(e.slot()));
    EXPECT_FALSE(made);
    char code[24];
    snprintf(code, sizeof code, " (%#x)", static_cast<unsigned>(errorCode(e.get())));
    return errorText(e.get()) + code;
}

}  // namespace rt
