// Internals of the report-channel library, shared by its sources and its
// tests (never installed): the routines the library is built from, record
// keys, element fields, CoreFoundation type checks and number conversion.
#pragma once

#include "IOReport.h"
#include "talvex_report.h"

#include <cf_ref.h>
#include <little_endian.h>

#include <cstdint>
#include <functional>
#include <utility>

// ---------------------------------------------------------------- library routines
// The library's own building blocks, called across its sources and checked
// directly by its tests; not part of the installed API (IOReport.h).

// A CFError in the Mach domain with the code sign-extended from 32 bits and the
// message (ASCII) as its description; null when `message` is null.
CFErrorRef createCFErr(IOReturn code, const char *message);

uint32_t _getAggregateOpts(CFDictionaryRef aggregate);
IOReturn getChannelType(CFDictionaryRef channel, uint64_t *type);
IOReturn setChannelType(CFDictionaryRef channel, const uint64_t *type);
CFDataRef getChannelConfig(CFDictionaryRef channel);
// The printable text of an ID (non-zero bytes, most significant first), or null.
CFStringRef _copyPrintableIDString(uint64_t value);

// Walker callables of clone and compare: 0 keeps the copy, another even value
// leaves it out, an odd value stops the walk. A compare is handed the type
// both records share.
using IOReportChannelCloneBlock = std::function<int(CFMutableDictionaryRef channel, CFMutableDictionaryRef copy)>;
using IOReportChannelCompareBlock = std::function<int(CFMutableDictionaryRef older, CFMutableDictionaryRef newer,
                                                      CFMutableDictionaryRef copy, uint64_t type)>;

// Clone: a new aggregate of the copies for which `block` returned 0, or null.
CFMutableDictionaryRef cloneAggregate(CFDictionaryRef aggregate, const IOReportChannelCloneBlock &block);
// Compare: walks `newer`, pairing each record with the one at the same place
// in `older`; a new aggregate of the copies kept, or null.
CFMutableDictionaryRef compareAggregates(CFDictionaryRef older, CFDictionaryRef newer,
                                         const IOReportChannelCompareBlock &block);

IOReturn updateKernelBuffer(IOReportSubscriptionRef subscription, CFErrorRef *error);
// The record's writable raw elements when they are of `format`; null otherwise.
uint8_t *getRawElements(CFDictionaryRef channel, uint16_t *count, uint8_t format);
// Sets a mutable copy of `source`'s elements as `destination`'s; flag bit 0
// zeroes the value area (bytes 32-63) of every element.
IOReturn cloneElements(CFMutableDictionaryRef destination, CFDictionaryRef source, uint32_t flags);
// The same for a caller that has read the destination's format (0: none).
IOReturn cloneElements(CFMutableDictionaryRef destination, CFDictionaryRef source, uint32_t flags, uint8_t format);

IOReturn getFactorsFromScale(uint64_t scale, uint64_t *numerator, uint64_t *denominator);
CFStringRef copyUnitLabel(uint64_t unit);

namespace ioreport {

// Record and aggregate keys (constant strings, looked up once).
inline CFStringRef kDriverID() {
    static const CFStringRef s = CFSTR("DriverID");
    return s;
}
inline CFStringRef kDriverName() {
    static const CFStringRef s = CFSTR("DriverName");
    return s;
}
inline CFStringRef kLegendChannel() {
    static const CFStringRef s = CFSTR("LegendChannel");
    return s;
}
inline CFStringRef kGroupName() {
    static const CFStringRef s = CFSTR("IOReportGroupName");
    return s;
}
inline CFStringRef kSubGroupName() {
    static const CFStringRef s = CFSTR("IOReportSubGroupName");
    return s;
}
inline CFStringRef kChannelInfo() {
    static const CFStringRef s = CFSTR("IOReportChannelInfo");
    return s;
}
inline CFStringRef kChannelName() {
    static const CFStringRef s = CFSTR("ChannelName");
    return s;
}
inline CFStringRef kUnitLabel() {
    static const CFStringRef s = CFSTR("UnitLabel");
    return s;
}
inline CFStringRef kProcessedConfig() {
    static const CFStringRef s = CFSTR("ProcessedChannelConfig");
    return s;
}
inline CFStringRef kStateNames() {
    static const CFStringRef s = CFSTR("StateNames");
    return s;
}
inline CFStringRef kRawElements() {
    static const CFStringRef s = CFSTR("RawElements");
    return s;
}
inline CFStringRef kQueryOpts() {
    static const CFStringRef s = CFSTR("QueryOpts");
    return s;
}
inline CFStringRef kChannels() {
    static const CFStringRef s = CFSTR("IOReportChannels");
    return s;
}
inline CFStringRef kDrivers() {
    static const CFStringRef s = CFSTR("IOReportDrivers");
    return s;
}
inline CFStringRef kGroups() {
    static const CFStringRef s = CFSTR("IOReportChannelGroups");
    return s;
}
inline CFStringRef kUnitKey() {
    static const CFStringRef s = CFSTR("IOReportChannelUnit");
    return s;
}
inline CFStringRef kConfigKey() {
    static const CFStringRef s = CFSTR("IOReportChannelConfig");
    return s;
}

inline constexpr uint64_t kSentinel = 0x8000000000000000ull;

// The public format names are the wire's.
static_assert(uint8_t{kIOReportFormatSimple} == kReportSimple && uint8_t{kIOReportFormatState} == kReportState &&
              uint8_t{kIOReportFormatHistogram} == kReportHistogram &&
              uint8_t{kIOReportFormatSimpleArray} == kReportArray);

// Elements and interest lists are little-endian: read and written with
// wire::load_le64 and its kin.
namespace wire = talvex::wire;

// CoreFoundation references are owned by talvex::CFRef.
using talvex::CFRef;

inline bool isType(CFTypeRef v, CFTypeID type) { return v && CFGetTypeID(v) == type; }
inline bool isDict(CFTypeRef v) { return isType(v, CFDictionaryGetTypeID()); }
inline bool isArray(CFTypeRef v) { return isType(v, CFArrayGetTypeID()); }
inline bool isString(CFTypeRef v) { return isType(v, CFStringGetTypeID()); }
inline bool isNumber(CFTypeRef v) { return isType(v, CFNumberGetTypeID()); }
inline bool isData(CFTypeRef v) { return isType(v, CFDataGetTypeID()); }

// Records are mutable dictionaries; accessors cache values in them.
inline CFMutableDictionaryRef mut(CFDictionaryRef d) { return const_cast<CFMutableDictionaryRef>(d); }

// A 64-bit number, or the sentinel when missing, not a number or unreadable.
inline uint64_t readU64(CFTypeRef v) {
    if (!isNumber(v)) return kSentinel;
    long long out = 0;
    if (!CFNumberGetValue(static_cast<CFNumberRef>(v), kCFNumberLongLongType, &out)) return kSentinel;
    return static_cast<uint64_t>(out);
}
inline uint64_t dictU64(CFDictionaryRef d, CFStringRef key) { return d ? readU64(CFDictionaryGetValue(d, key)) : kSentinel; }
inline CFNumberRef makeNumber(uint64_t v) {
    long long s = static_cast<long long>(v);
    return CFNumberCreate(nullptr, kCFNumberLongLongType, &s);
}
inline CFStringRef dictString(CFDictionaryRef d, CFStringRef key) {
    if (!d) return nullptr;
    CFTypeRef v = CFDictionaryGetValue(d, key);
    return isString(v) ? static_cast<CFStringRef>(v) : nullptr;
}

inline CFMutableDictionaryRef newDict() {
    return CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
}
inline CFMutableArrayRef newArray() { return CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks); }

// Stores an error object in the slot when there is a slot and a message.
void setError(CFErrorRef *slot, IOReturn code, const char *message);

// Makes a channel record for a legend channel array ("couldn't create channel").
// `driver_number`, when given, is `driver_id` as a number already made, which
// the records of one driver then share.
CFMutableDictionaryRef createChannel(uint64_t driver_id, CFStringRef driver_name, CFArrayRef legend,
                                     CFStringRef group, CFStringRef subgroup, CFDictionaryRef info, CFErrorRef *error,
                                     CFNumberRef driver_number = nullptr);
// Files a record into an aggregate ("_addChannel() failed").
IOReturn addChannel(CFMutableDictionaryRef aggregate, CFMutableDictionaryRef channel, uint32_t options,
                    CFErrorRef *error);

// True when both channels' types read, and read the same (then in `type`).
bool sameChannelType(CFDictionaryRef a, CFDictionaryRef b, uint64_t *type);

// The element count of the channel type, or -1 when the type is unreadable.
int typeCountOf(CFDictionaryRef channel);
// The channel ID (IOReportChannelGetChannelID) and type (getChannelType) from
// one read of the legend; false, with the type the sentinel, when the type is
// unreadable.
bool getChannelIDAndType(CFDictionaryRef channel, uint64_t *id, uint64_t *type);

// UTF-8 text of a string: the internal pointer when the string offers one,
// else a heap copy owned by this object. Empty when neither can be had.
class Utf8Text {
public:
    explicit Utf8Text(CFStringRef s);
    ~Utf8Text();
    Utf8Text(const Utf8Text &) = delete;
    Utf8Text &operator=(const Utf8Text &) = delete;
    const char *get() const { return text_; }

private:
    const char *text_ = nullptr;
    char *copy_ = nullptr;
};

}  // namespace ioreport
