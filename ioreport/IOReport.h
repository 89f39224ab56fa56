// Report-channel client library.
//
// Drivers publish report channels (counters, state residencies, histograms,
// arrays of counters) through a legend in their registry entry. This library
// turns legends into channel records gathered in aggregates, subscribes to
// channels through the report hub, takes samples, reads values out of them,
// differences samples and describes them as text.
//
// Everything is a CoreFoundation property-list object. Create/Copy results
// belong to the caller; Get results are borrowed from the record they came
// from. Operations that take a `CFErrorRef *` slot (which may be null) store a
// new error object there on failure when the failure carries a message; the
// caller owns it.
//
// Walkers take C++ callables in place of blocks. A callable's result drives
// the walk: 0 goes on; 16 removes the channel in a prune; any odd value stops
// the walk and becomes its result. Even results are OR-ed into the walk's
// result; callers test bit 0 for failure.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOKitLib.h>
#include <IOKit/IOReturn.h>

#include <cstdint>
#include <functional>

// What this header declares is the shared library's exported interface; the
// library is built with everything else hidden.
#pragma GCC visibility push(default)

// ---------------------------------------------------------------- constants

// The no-value result of every 64-bit accessor.
inline constexpr int64_t kIOReportInvalidValue = INT64_MIN;
inline constexpr uint64_t kIOReportInvalidUnit = 0x8000000000000000ull;

// Walk results.
inline constexpr int kIOReportIterOk = 0;
inline constexpr int kIOReportIterSkipped = 0x10;   // prune: remove the channel
inline constexpr int kIOReportIterFailed = 0x111;   // the library's own failure value

// Report formats (byte 0 of the channel type).
enum : uint8_t {
    kIOReportInvalidFormat,
    kIOReportFormatSimple,
    kIOReportFormatState,
    kIOReportFormatHistogram,
    kIOReportFormatSimpleArray,
};

// Aggregate option bits.
enum : uint32_t {
    kIOReportOptionByDriver = 1u << 0,   // file channels under "IOReportDrivers" by driver name
    kIOReportOptionByGroup = 1u << 1,    // file channels under "IOReportChannelGroups" by group, subgroup
};

// The plain time unit (seconds) that state residencies are described in.
inline constexpr uint64_t kIOReportUnitTime = 0x0100000000000000ull;

// ---------------------------------------------------------------- callables

using IOReportChannelIterationBlock = std::function<int(CFMutableDictionaryRef channel)>;

// ---------------------------------------------------------------- aggregates

// New empty aggregate holding only "QueryOpts", or null.
CFMutableDictionaryRef IOReportCreateAggregate(uint32_t options);

// Adds one hand-described channel, filed with the aggregate's own options.
// `channel_name`, `group`, `subgroup` and `channel_info` may be null.
IOReturn IOReportAddChannelDescription(CFMutableDictionaryRef aggregate, uint64_t driver_id, CFStringRef driver_name,
                                       uint64_t channel_id, uint64_t channel_type, CFStringRef channel_name,
                                       CFStringRef group, CFStringRef subgroup, CFDictionaryRef channel_info,
                                       CFErrorRef *error);

// Adds every record of `source` (shared, not copied) to `destination`.
int IOReportMergeChannels(CFMutableDictionaryRef destination, CFDictionaryRef source, CFErrorRef *error);

// Calls `block` with every channel record, at every level.
int IOReportIterate(CFDictionaryRef aggregate, const IOReportChannelIterationBlock &block);
// As IOReportIterate; a result of 16 removes the channel. Emptied levels go away.
int IOReportPrune(CFMutableDictionaryRef aggregate, const IOReportChannelIterationBlock &block);

// Number of channel records at all levels; -1 when the walk fails.
int IOReportGetChannelCount(CFDictionaryRef aggregate);

// ---------------------------------------------------------------- channel accessors

uint64_t IOReportChannelGetChannelID(CFDictionaryRef channel);
uint64_t IOReportChannelGetDriverID(CFDictionaryRef channel);
CFStringRef IOReportChannelGetDriverName(CFDictionaryRef channel);
CFStringRef IOReportChannelGetGroup(CFDictionaryRef channel);
CFStringRef IOReportChannelGetSubGroup(CFDictionaryRef channel);
uint8_t IOReportChannelGetFormat(CFDictionaryRef channel);
uint16_t IOReportChannelGetCategories(CFDictionaryRef channel);
uint64_t IOReportChannelGetUnit(CFDictionaryRef channel);
// The channel's name, cached in the record as "ChannelName"; null when none.
CFStringRef IOReportChannelGetChannelName(CFDictionaryRef channel);
// The unit label, cached in the record as "UnitLabel"; null when none.
CFStringRef IOReportChannelGetUnitLabel(CFDictionaryRef channel);
// One line describing the channel; `unused` is ignored, `prefix` may be null.
CFStringRef IOReportChannelCopyDescription(CFDictionaryRef channel, const void *unused, const char *prefix);

// ---------------------------------------------------------------- subscriptions and samples

typedef struct __IOReportSubscriptionCF *IOReportSubscriptionRef;

// Subscribes to `desired` through the report hub. `*subscribed` receives the
// aggregate to pass to every sample call. `unused` is ignored (pass 0).
IOReportSubscriptionRef IOReportCreateSubscription(CFAllocatorRef allocator, CFMutableDictionaryRef desired,
                                                   CFMutableDictionaryRef *subscribed, uint64_t unused,
                                                   CFErrorRef *error);
// A new sample of the subscribed channels.
CFMutableDictionaryRef IOReportCreateSamples(IOReportSubscriptionRef subscription, CFMutableDictionaryRef subscribed,
                                             CFErrorRef *error);
// A new sample cut from an image of the hub buffer.
CFMutableDictionaryRef IOReportCreateSamplesRaw(CFMutableDictionaryRef subscribed, CFDataRef buffer,
                                                CFErrorRef *error);

// ---------------------------------------------------------------- sample values

int64_t IOReportSimpleGetIntegerValue(CFDictionaryRef sample);
int64_t IOReportArrayGetValueAtIndex(CFDictionaryRef sample, int32_t index);

int IOReportHistogramGetBucketCount(CFDictionaryRef sample);
int64_t IOReportHistogramGetBucketHits(CFDictionaryRef sample, int32_t index);
int64_t IOReportHistogramGetBucketMinValue(CFDictionaryRef sample, int32_t index);
int64_t IOReportHistogramGetBucketMaxValue(CFDictionaryRef sample, int32_t index);
int64_t IOReportHistogramGetBucketSum(CFDictionaryRef sample, int32_t index);
int64_t IOReportHistogramGetMinValue(CFDictionaryRef sample);
int64_t IOReportHistogramGetMaxValue(CFDictionaryRef sample);
// Bounds of bucket `index`; either out pointer may be null.
IOReturn IOReportHistogramGetBucketBounds(CFDictionaryRef sample, int32_t index, uint64_t *lower, uint64_t *upper);

int IOReportStateGetCount(CFDictionaryRef sample);
uint64_t IOReportStateGetIDForIndex(CFDictionaryRef sample, int32_t index);
int IOReportStateGetIndexForID(CFDictionaryRef sample, uint64_t state_id);
int64_t IOReportStateGetInTransitions(CFDictionaryRef sample, int32_t index);
int64_t IOReportStateGetResidency(CFDictionaryRef sample, int32_t index);
CFStringRef IOReportStateGetNameForIndex(CFDictionaryRef sample, int32_t index);
double IOReportStateGetDutyCycle(CFDictionaryRef sample, int32_t index);
int IOReportStateGetCurrent(CFDictionaryRef sample);

// Difference of two sample records. The result is a shallow copy of `older`
// and writes the difference into the element data it shares with `older`:
// for the simple format both then hold newer - older; for the other formats
// the newer elements are copied over that data first, so their differences
// come out as 0 (histogram sums as the no-value sentinel).
CFMutableDictionaryRef IOReportSampleCreateDelta(CFDictionaryRef older, CFDictionaryRef newer, CFErrorRef *error);
// Difference of two whole samples of one subscription: each delta record has
// its own elements; one failing channel fails the whole delta.
CFMutableDictionaryRef IOReportCreateSamplesDelta(CFDictionaryRef older, CFDictionaryRef newer, CFErrorRef *error);

// ---------------------------------------------------------------- units and text

double IOReportScaleValue(uint64_t value, uint64_t from_unit, uint64_t to_unit);
CFMutableDictionaryRef IOReportCreateUnitInfo(uint64_t unit);
// One line per element; `unused` is ignored, `prefix` may be null.
CFStringRef IOReportSampleCopyDescription(CFDictionaryRef sample, const void *unused, const char *prefix);
IOReturn IOReportWriteStringUTF8(int fd, CFStringRef string);

// ---------------------------------------------------------------- discovery and filters

CFMutableDictionaryRef IOReportCopyChannelsForDriver(io_registry_entry_t service, uint32_t options,
                                                     CFErrorRef *error);
CFMutableDictionaryRef IOReportCopyChannelsForDrivers(CFDictionaryRef matching, uint32_t options, CFErrorRef *error);
CFMutableDictionaryRef IOReportCopyAllChannels(uint32_t options, CFErrorRef *error);
CFMutableDictionaryRef IOReportCopyChannelsWithID(CFDictionaryRef matching, uint64_t channel_id, CFErrorRef *error);

int IOReportSelectChannelsInGroup(CFMutableDictionaryRef aggregate, CFStringRef group, CFStringRef subgroup,
                                  CFErrorRef *error);
CFMutableDictionaryRef IOReportCopyChannelsInGroup(CFStringRef group, CFStringRef subgroup, uint32_t options,
                                                   CFErrorRef *error);
CFMutableDictionaryRef IOReportCopyChannelsInCategories(uint16_t categories, uint32_t options, CFErrorRef *error);
CFMutableDictionaryRef IOReportCopyChannelsOfFormat(uint8_t format, uint32_t options, CFErrorRef *error);
CFMutableDictionaryRef IOReportCopyChannelsWithUnit(uint64_t unit, uint32_t options, CFErrorRef *error);

CFStringRef IOReportCopyDriverName(io_registry_entry_t entry);
CFStringRef IOReportCopyCurrentProcessName(void);

#pragma GCC visibility pop
