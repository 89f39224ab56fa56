// Sample values: simple, state, histogram and array accessors, histogram
// bucket bounds, state names and duty cycles, and sample deltas.
#include "internal.h"

#include <cmath>
#include <cstring>

using namespace ioreport;

namespace {

constexpr int64_t kNoValue = kIOReportInvalidValue;

// The element data of a state or histogram sample, looked up once: readable
// when it holds exactly the channel type's element count.
class Elements {
public:
    Elements(CFDictionaryRef sample, uint8_t format) {
        bytes_ = getRawElements(sample, &count_, format);
        if (bytes_ && count_ != typeCountOf(sample)) bytes_ = nullptr;
    }
    // The four values of element `index`; false when the data is not
    // readable or the index names no element.
    bool read(int32_t index, uint64_t out[4]) const {
        if (!bytes_ || index < 0 || index >= count_) return false;
        const uint8_t *e = bytes_ + static_cast<size_t>(index) * kElementSize + kElemValues;
        for (int k = 0; k < 4; ++k) out[k] = wire::load_le64(e + 8 * k);
        return true;
    }

private:
    const uint8_t *bytes_ = nullptr;
    uint16_t count_ = 0;
};

bool readElement(CFDictionaryRef sample, uint8_t format, int32_t index, uint64_t out[4]) {
    return Elements(sample, format).read(index, out);
}

int64_t elementValue(CFDictionaryRef sample, uint8_t format, int32_t index, int slot) {
    uint64_t v[4];
    return readElement(sample, format, index, v) ? static_cast<int64_t>(v[slot]) : kNoValue;
}

int formatCount(CFDictionaryRef sample, uint8_t format) {
    uint64_t t = 0;
    if (getChannelType(sample, &t) != kIOReturnSuccess || typeFormat(t) != format) return -1;
    return typeElementCount(t);
}

}  // namespace

// ---------------------------------------------------------------- simple and array

int64_t IOReportSimpleGetIntegerValue(CFDictionaryRef sample) {
    uint16_t count = 0;
    const uint8_t *bytes = getRawElements(sample, &count, kIOReportFormatSimple);
    if (!bytes || count != 1) return kNoValue;
    return static_cast<int64_t>(wire::load_le64(bytes + kElemValues));
}

int64_t IOReportArrayGetValueAtIndex(CFDictionaryRef sample, int32_t index) {
    if (index < 0) return kNoValue;
    uint16_t count = 0;
    const uint8_t *bytes = getRawElements(sample, &count, kIOReportFormatSimpleArray);
    if (!bytes || index / 4 >= count) return kNoValue;
    return static_cast<int64_t>(
        wire::load_le64(bytes + static_cast<size_t>(index / 4) * kElementSize + kElemValues + 8 * static_cast<size_t>(index % 4)));
}

// ---------------------------------------------------------------- histogram

int IOReportHistogramGetBucketCount(CFDictionaryRef sample) { return formatCount(sample, kIOReportFormatHistogram); }

int64_t IOReportHistogramGetBucketHits(CFDictionaryRef sample, int32_t index) {
    return elementValue(sample, kIOReportFormatHistogram, index, 0);
}
int64_t IOReportHistogramGetBucketMinValue(CFDictionaryRef sample, int32_t index) {
    return elementValue(sample, kIOReportFormatHistogram, index, 1);
}
int64_t IOReportHistogramGetBucketMaxValue(CFDictionaryRef sample, int32_t index) {
    return elementValue(sample, kIOReportFormatHistogram, index, 2);
}
int64_t IOReportHistogramGetBucketSum(CFDictionaryRef sample, int32_t index) {
    return elementValue(sample, kIOReportFormatHistogram, index, 3);
}

int64_t IOReportHistogramGetMinValue(CFDictionaryRef sample) {
    int count = IOReportHistogramGetBucketCount(sample);
    if (count < 1) return kNoValue;
    int i = 0;
    for (uint64_t v[4]; i < count; ++i)
        if (!readElement(sample, kIOReportFormatHistogram, i, v) || v[0] != 0) break;
    if (i == count) return kNoValue;
    return IOReportHistogramGetBucketMinValue(sample, i);
}

int64_t IOReportHistogramGetMaxValue(CFDictionaryRef sample) {
    int count = IOReportHistogramGetBucketCount(sample);
    if (count < 1) return kNoValue;
    int i = count - 1;
    for (uint64_t v[4]; i >= 0; --i)
        if (!readElement(sample, kIOReportFormatHistogram, i, v) || v[0] != 0) break;
    if (i < 0) return kNoValue;
    return IOReportHistogramGetBucketMaxValue(sample, i);
}

namespace {

// Upper bounds of every bucket from the channel's segment configuration, or
// null when the configuration is unusable.
CFMutableArrayRef buildBucketBounds(CFDictionaryRef sample) {
    int buckets = IOReportHistogramGetBucketCount(sample);
    CFDataRef config = getChannelConfig(sample);
    if (buckets < 0 || !config || CFDataGetLength(config) < 16) return nullptr;
    CFRef<CFMutableArrayRef> bounds(CFArrayCreateMutable(nullptr, buckets, &kCFTypeArrayCallBacks));
    if (!bounds) return nullptr;
    const uint8_t *seg = CFDataGetBytePtr(config);
    CFIndex segments = CFDataGetLength(config) / 16;
    uint64_t previous = 0;
    int written = 0;
    for (CFIndex s = 0; s < segments; ++s, seg += 16) {
        uint32_t base = wire::load_le32(seg);
        bool exponential = wire::load_le32(seg + 4) != 0;
        int32_t n = static_cast<int32_t>(wire::load_le32(seg + 12));
        uint64_t power = 1;
        for (int32_t j = 0; j < n; ++j) {
            if (written >= buckets) return nullptr;
            uint64_t bound;
            if (exponential) {
                power *= base;   // base^(j+1), wrapping
                bound = power;
            } else {
                bound = static_cast<uint32_t>(base * static_cast<uint32_t>(j + 1));
            }
            if (bound <= previous) return nullptr;
            CFRef<CFNumberRef> num(makeNumber(bound));
            if (!num) return nullptr;
            CFArrayAppendValue(bounds.get(), num.get());
            previous = bound;
            ++written;
        }
    }
    return bounds.release();
}

}  // namespace

IOReturn IOReportHistogramGetBucketBounds(CFDictionaryRef sample, int32_t index, uint64_t *lower, uint64_t *upper) {
    if (!sample) return kIOReturnError;
    CFTypeRef cached = CFDictionaryGetValue(sample, kProcessedConfig());
    if (!cached) {
        CFRef<CFMutableArrayRef> built(buildBucketBounds(sample));
        if (!built) return kIOReturnError;
        CFDictionarySetValue(mut(sample), kProcessedConfig(), built.get());
        cached = built.get();
    }
    if (!isArray(cached)) return kIOReturnError;
    CFArrayRef bounds = static_cast<CFArrayRef>(cached);
    if (index < 0 || index >= CFArrayGetCount(bounds)) return kIOReturnError;
    uint64_t hi = readU64(CFArrayGetValueAtIndex(bounds, index));
    if (!isNumber(CFArrayGetValueAtIndex(bounds, index))) return kIOReturnError;
    uint64_t lo = 0;
    if (index > 0) {
        if (!isNumber(CFArrayGetValueAtIndex(bounds, index - 1))) return kIOReturnError;
        lo = readU64(CFArrayGetValueAtIndex(bounds, index - 1));
    }
    if (lower) *lower = lo;
    if (upper) *upper = hi;
    return kIOReturnSuccess;
}

// ---------------------------------------------------------------- state

int IOReportStateGetCount(CFDictionaryRef sample) { return formatCount(sample, kIOReportFormatState); }

uint64_t IOReportStateGetIDForIndex(CFDictionaryRef sample, int32_t index) {
    return static_cast<uint64_t>(elementValue(sample, kIOReportFormatState, index, 0));
}
int64_t IOReportStateGetInTransitions(CFDictionaryRef sample, int32_t index) {
    return elementValue(sample, kIOReportFormatState, index, 1);
}
int64_t IOReportStateGetResidency(CFDictionaryRef sample, int32_t index) {
    return elementValue(sample, kIOReportFormatState, index, 2);
}

int IOReportStateGetIndexForID(CFDictionaryRef sample, uint64_t state_id) {
    for (int i = IOReportStateGetCount(sample) - 1; i >= 0; --i)
        if (IOReportStateGetIDForIndex(sample, i) == state_id) return i;
    return -1;
}

CFStringRef IOReportStateGetNameForIndex(CFDictionaryRef sample, int32_t index) {
    if (!sample) return nullptr;
    CFTypeRef cached = CFDictionaryGetValue(sample, kStateNames());
    if (cached && !isArray(cached)) return nullptr;
    if (!cached) {
        int count = IOReportStateGetCount(sample);
        if (count < 0) return nullptr;
        CFRef<CFMutableArrayRef> names(CFArrayCreateMutable(nullptr, count, &kCFTypeArrayCallBacks));
        if (!names) return nullptr;
        for (int i = 0; i < count; ++i) {
            uint64_t v[4];
            if (!readElement(sample, kIOReportFormatState, i, v) || v[0] == kSentinel) return nullptr;
            CFRef<CFStringRef> name(_copyPrintableIDString(v[0]));
            if (!name) return nullptr;
            CFArrayAppendValue(names.get(), name.get());
        }
        CFDictionarySetValue(mut(sample), kStateNames(), names.get());
        cached = names.get();
    }
    CFArrayRef names = static_cast<CFArrayRef>(cached);
    if (index < 0 || index >= CFArrayGetCount(names)) return nullptr;
    CFTypeRef name = CFArrayGetValueAtIndex(names, index);
    return isString(name) ? static_cast<CFStringRef>(name) : nullptr;
}

double IOReportStateGetDutyCycle(CFDictionaryRef sample, int32_t index) {
    const double nan = std::nan("");
    if (!sample) return nan;
    int count = IOReportStateGetCount(sample);
    if (count < 1) return nan;
    uint64_t sum = 0;
    for (int i = 0; i < count; ++i) {
        uint64_t v[4];
        if (!readElement(sample, kIOReportFormatState, i, v)) return nan;
        sum += v[2];
    }
    if (sum == 0) return nan;
    uint64_t v[4];
    if (!readElement(sample, kIOReportFormatState, index, v)) return nan;
    return static_cast<double>(v[2]) / static_cast<double>(sum);
}

int IOReportStateGetCurrent(CFDictionaryRef sample) {
    uint16_t count = 0;
    const uint8_t *bytes = getRawElements(sample, &count, kIOReportFormatState);
    if (!bytes || count == 0 || count != IOReportStateGetCount(sample)) return -1;
    int current = -1;
    uint64_t best = 0;
    for (int i = 0; i < count; ++i) {
        uint64_t stamp = wire::load_le64(bytes + static_cast<size_t>(i) * kElementSize + kElemStamp);
        if (stamp > best) {
            best = stamp;
            current = i;
        }
    }
    return current;
}

// ---------------------------------------------------------------- deltas

namespace {

// The generic failure of the per-format differencing steps.
constexpr IOReturn kDeltaFailed = 1;

// Copies B's elements over T's, both `count` elements long.
void copyElements(uint8_t *target, const uint8_t *newer, uint16_t count) {
    if (target != newer) std::memmove(target, newer, static_cast<size_t>(count) * kElementSize);
}

// A record of a delta with its channel type read once; `typed` is false when
// the type is unreadable.
struct Typed {
    CFDictionaryRef record;
    uint64_t type = 0;
    bool typed = false;

    explicit Typed(CFDictionaryRef r) : record(r) { typed = getChannelType(r, &type) == kIOReturnSuccess; }
    Typed(CFDictionaryRef r, uint64_t known) : record(r), type(known), typed(true) {}

    uint8_t format() const { return typed ? typeFormat(type) : 0; }
    // The element count of the type when its format is `f`, else -1.
    int countAs(uint8_t f) const { return typed && typeFormat(type) == f ? typeElementCount(type) : -1; }
    int typeCount() const { return typed ? typeElementCount(type) : -1; }
};

// The elements of a state or histogram delta: the target's must be as many as
// its type says and the newer's as many again; the older's and the newer's
// values are read only when each holds its own type's element count.
struct DeltaElements {
    uint8_t *target = nullptr;
    const uint8_t *older = nullptr;
    const uint8_t *newer = nullptr;
    uint16_t count = 0;
    uint16_t olderCount = 0;
    bool olderReadable = false;
    bool newerReadable = false;

    bool take(const Typed &a, const Typed &b, const Typed &t, uint8_t format) {
        uint16_t tn = 0, bn = 0;
        target = getRawElements(t.record, &tn, format);
        newer = getRawElements(b.record, &bn, format);
        if (!target || !newer || tn != t.countAs(format) || bn != tn) return false;
        count = tn;
        copyElements(target, newer, count);
        // Looked up after the copy: the target may share the older record's data.
        older = getRawElements(a.record, &olderCount, format);
        olderReadable = older && olderCount == a.typeCount();
        newerReadable = static_cast<int>(bn) == b.typeCount();
        return true;
    }
    bool read(int i, uint64_t va[4], uint64_t vb[4]) const {
        if (!olderReadable || !newerReadable || i >= olderCount) return false;
        const uint8_t *ea = older + static_cast<size_t>(i) * kElementSize + kElemValues;
        const uint8_t *eb = newer + static_cast<size_t>(i) * kElementSize + kElemValues;
        for (int k = 0; k < 4; ++k) {
            va[k] = wire::load_le64(ea + 8 * k);
            vb[k] = wire::load_le64(eb + 8 * k);
        }
        return true;
    }
    uint8_t *values(int i) const { return target + static_cast<size_t>(i) * kElementSize + kElemValues; }
};

IOReturn deltaState(const Typed &a, const Typed &b, const Typed &t) {
    DeltaElements d;
    if (!d.take(a, b, t, kIOReportFormatState)) return kDeltaFailed;
    for (int i = 0; i < d.count; ++i) {
        uint64_t va[4], vb[4];
        if (!d.read(i, va, vb)) return kDeltaFailed;
        for (int k : {1, 2})
            if (va[k] == kSentinel || vb[k] == kSentinel) return kDeltaFailed;
        uint8_t *e = d.values(i);
        wire::store_le64(e + 8, vb[1] - va[1]);
        wire::store_le64(e + 16, vb[2] - va[2]);
    }
    return kIOReturnSuccess;
}

IOReturn deltaHistogram(const Typed &a, const Typed &b, const Typed &t) {
    DeltaElements d;
    if (!d.take(a, b, t, kIOReportFormatHistogram)) return kDeltaFailed;
    for (int i = 0; i < d.count; ++i) {
        uint64_t va[4], vb[4];
        if (!d.read(i, va, vb)) return kDeltaFailed;
        if (va[0] == kSentinel || vb[0] == kSentinel) return kDeltaFailed;
        uint64_t sum = kSentinel;
        if (va[0] != vb[0]) {
            if (vb[3] == kSentinel) return kDeltaFailed;
            if (va[0] != 0) {
                if (va[3] == kSentinel) return kDeltaFailed;
                sum = vb[3] - va[3];
            } else {
                sum = vb[3];
            }
        }
        uint8_t *e = d.values(i);
        wire::store_le64(e, vb[0] - va[0]);
        wire::store_le64(e + 24, sum);
    }
    return kIOReturnSuccess;
}

IOReturn deltaArray(const Typed &a, const Typed &b, const Typed &t) {
    uint16_t tn = 0, bn = 0;
    uint8_t *tb = getRawElements(t.record, &tn, kIOReportFormatSimpleArray);
    const uint8_t *bb = getRawElements(b.record, &bn, kIOReportFormatSimpleArray);
    if (!tb || !bb || tn != bn) return kDeltaFailed;
    copyElements(tb, bb, tn);
    // As IOReportArrayGetValueAtIndex reads them, each record's data found once.
    uint16_t an = 0;
    const uint8_t *ab = getRawElements(a.record, &an, kIOReportFormatSimpleArray);
    auto value = [](const uint8_t *bytes, uint16_t count, int i) {
        if (!bytes || i / 4 >= count) return kSentinel;
        return wire::load_le64(bytes + static_cast<size_t>(i / 4) * kElementSize + kElemValues + 8 * static_cast<size_t>(i % 4));
    };
    for (int i = 0; i < tn * 4; ++i) {
        uint64_t va = value(ab, an, i);
        uint64_t vb = value(bb, bn, i);
        uint64_t d = va == kSentinel ? vb : vb == kSentinel ? va : vb - va;
        wire::store_le64(tb + static_cast<size_t>(i / 4) * kElementSize + kElemValues + 8 * static_cast<size_t>(i % 4), d);
    }
    return kIOReturnSuccess;
}

// Writes the difference newer - older into `target`'s elements.
IOReturn deltaRecord(const Typed &a, const Typed &b, const Typed &t, CFErrorRef *error) {
    uint8_t fa = a.format(), fb = b.format();
    if (fa == 0 || fb == 0) return kIOReturnBadArgument;
    if (fa != fb) {
        setError(error, kIOReturnBadArgument, "mismatched formats");
        return kIOReturnBadArgument;
    }
    if (fa > kIOReportFormatSimpleArray) {
        setError(error, kIOReturnUnsupportedMode, "unknown report format");
        return kIOReturnUnsupportedMode;
    }
    IOReturn rc = kIOReturnSuccess;
    switch (fa) {
    case kIOReportFormatSimple: {
        int64_t va = IOReportSimpleGetIntegerValue(a.record), vb = IOReportSimpleGetIntegerValue(b.record);
        if (va == kNoValue || vb == kNoValue) return kIOReturnError;
        uint16_t n = 0;
        uint8_t *tb = getRawElements(t.record, &n, kIOReportFormatSimple);
        if (!tb) return kIOReturnError;
        wire::store_le64(tb + kElemValues, static_cast<uint64_t>(vb) - static_cast<uint64_t>(va));
        break;
    }
    case kIOReportFormatState:
        rc = deltaState(a, b, t);
        break;
    case kIOReportFormatHistogram:
        rc = deltaHistogram(a, b, t);
        break;
    default:
        rc = deltaArray(a, b, t);
        break;
    }
    return rc;
}

}  // namespace

CFMutableDictionaryRef IOReportCreateSamplesDelta(CFDictionaryRef older, CFDictionaryRef newer, CFErrorRef *error) {
    auto difference = [error](CFMutableDictionaryRef a, CFMutableDictionaryRef b, CFMutableDictionaryRef t,
                              uint64_t type) {
        // The walk pairs records only when their types read the same, and the
        // target is its copy of the newer record: one type for all three.
        return deltaRecord(Typed(a, type), Typed(b, type), Typed(t, type), error) == kIOReturnSuccess ? 0 : 1;
    };
    return compareAggregates(older, newer, difference);
}

// The target is a shallow copy of the older record, so it shares the older
// record's element data and the difference is written into that data. For
// the simple format both records then hold newer - older; for the other
// formats the newer elements are copied over the shared data before
// differencing, so the differences come out as 0 (histogram sums as the
// no-value sentinel). Whole samples are differenced with
// IOReportCreateSamplesDelta, which gives each delta its own elements.
CFMutableDictionaryRef IOReportSampleCreateDelta(CFDictionaryRef older, CFDictionaryRef newer, CFErrorRef *error) {
    if (!older || !newer) return nullptr;
    CFRef<CFMutableDictionaryRef> target(CFDictionaryCreateMutableCopy(nullptr, 0, older));
    if (!target) return nullptr;
    if (deltaRecord(Typed(older), Typed(newer), Typed(target.get()), error) != kIOReturnSuccess) return nullptr;
    return target.release();
}
