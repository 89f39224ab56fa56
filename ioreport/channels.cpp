// Channel records and aggregates: making and filing records, merging, the
// aggregate walker (iterate, prune, clone, compare), channel accessors, names
// and one-line channel descriptions.
#include "internal.h"

#include <cctype>
#include <cstring>
#include <string>
#include <vector>

using namespace ioreport;

// ---------------------------------------------------------------- errors

CFErrorRef createCFErr(IOReturn code, const char *message) {
    if (!message) return nullptr;
    CFRef<CFStringRef> text(CFStringCreateWithCString(nullptr, message, kCFStringEncodingASCII));
    if (!text) return nullptr;
    const void *keys[] = {kCFErrorDescriptionKey};
    const void *values[] = {text.get()};
    CFRef<CFDictionaryRef> info(
        CFDictionaryCreate(nullptr, keys, values, 1, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
    if (!info) return nullptr;
    return CFErrorCreate(nullptr, kCFErrorDomainMach, static_cast<CFIndex>(static_cast<int32_t>(code)), info.get());
}

void ioreport::setError(CFErrorRef *slot, IOReturn code, const char *message) {
    if (!slot || !message) return;
    if (CFErrorRef e = createCFErr(code, message)) *slot = e;
}

// ---------------------------------------------------------------- aggregates

CFMutableDictionaryRef IOReportCreateAggregate(uint32_t options) {
    CFRef<CFMutableDictionaryRef> agg(newDict());
    if (!agg) return nullptr;
    int32_t opts = static_cast<int32_t>(options);
    CFRef<CFNumberRef> n(CFNumberCreate(nullptr, kCFNumberIntType, &opts));
    if (!n) return nullptr;
    CFDictionarySetValue(agg.get(), kQueryOpts(), n.get());
    return agg.release();
}

uint32_t _getAggregateOpts(CFDictionaryRef aggregate) {
    if (!aggregate) return 0;
    CFTypeRef v = CFDictionaryGetValue(aggregate, kQueryOpts());
    if (!isNumber(v)) return 0;
    int32_t out = 0;
    if (!CFNumberGetValue(static_cast<CFNumberRef>(v), kCFNumberIntType, &out)) return 0;
    return static_cast<uint32_t>(out);
}

CFMutableDictionaryRef ioreport::createChannel(uint64_t driver_id, CFStringRef driver_name, CFArrayRef legend,
                                               CFStringRef group, CFStringRef subgroup, CFDictionaryRef info,
                                               CFErrorRef *error, CFNumberRef driver_number) {
    if (!isArray(legend) || CFArrayGetCount(legend) < 2 || readU64(CFArrayGetValueAtIndex(legend, 0)) == kSentinel ||
        readU64(CFArrayGetValueAtIndex(legend, 1)) == kSentinel) {
        setError(error, kIOReturnError, "couldn't create channel");
        return nullptr;
    }
    CFRef<CFMutableDictionaryRef> rec(newDict());
    CFRef<CFNumberRef> id(driver_number ? static_cast<CFNumberRef>(CFRetain(driver_number)) : makeNumber(driver_id));
    if (!rec || !id) {
        setError(error, kIOReturnError, "couldn't create channel");
        return nullptr;
    }
    CFDictionarySetValue(rec.get(), kDriverID(), id.get());
    if (driver_name) CFDictionarySetValue(rec.get(), kDriverName(), driver_name);
    CFDictionarySetValue(rec.get(), kLegendChannel(), legend);
    if (group) CFDictionarySetValue(rec.get(), kGroupName(), group);
    if (subgroup) CFDictionarySetValue(rec.get(), kSubGroupName(), subgroup);
    if (info) CFDictionarySetValue(rec.get(), kChannelInfo(), info);
    return rec.release();
}

namespace {

// The child dictionary `key` of `level`, created empty when missing; null
// when an existing value is not a dictionary.
CFMutableDictionaryRef childOf(CFMutableDictionaryRef level, CFStringRef key) {
    CFTypeRef v = CFDictionaryGetValue(level, key);
    if (v) return isDict(v) ? mut(static_cast<CFDictionaryRef>(v)) : nullptr;
    CFRef<CFMutableDictionaryRef> child(newDict());
    if (!child) return nullptr;
    CFDictionarySetValue(level, key, child.get());
    return child.get();   // held by `level`
}

IOReturn fileChannel(CFMutableDictionaryRef aggregate, CFMutableDictionaryRef channel, uint32_t options) {
    if (!isDict(aggregate) || !isDict(channel)) return kIOReturnBadArgument;
    CFMutableDictionaryRef level = aggregate;
    if (options & kIOReportOptionByDriver) {
        CFStringRef name = dictString(channel, kDriverName());
        if (!name) return kIOReturnError;
        level = childOf(level, kDrivers());
        if (level) level = childOf(level, name);
        if (!level) return kIOReturnError;
    }
    CFStringRef group = dictString(channel, kGroupName());
    if ((options & kIOReportOptionByGroup) && group) {
        level = childOf(level, kGroups());
        if (level) level = childOf(level, group);
        if (!level) return kIOReturnError;
        if (CFStringRef sub = dictString(channel, kSubGroupName())) {
            level = childOf(level, kGroups());
            if (level) level = childOf(level, sub);
            if (!level) return kIOReturnError;
        }
    }
    CFTypeRef list = CFDictionaryGetValue(level, kChannels());
    if (!list) {
        CFRef<CFMutableArrayRef> fresh(newArray());
        if (!fresh) return kIOReturnError;
        CFDictionarySetValue(level, kChannels(), fresh.get());
        list = fresh.get();
    } else if (!isArray(list)) {
        return kIOReturnError;
    }
    CFArrayAppendValue(const_cast<CFMutableArrayRef>(static_cast<CFArrayRef>(list)), channel);
    return kIOReturnSuccess;
}

}  // namespace

IOReturn ioreport::addChannel(CFMutableDictionaryRef aggregate, CFMutableDictionaryRef channel, uint32_t options,
                              CFErrorRef *error) {
    IOReturn rc = fileChannel(aggregate, channel, options);
    if (rc != kIOReturnSuccess) setError(error, rc, "_addChannel() failed");
    return rc;
}

IOReturn IOReportAddChannelDescription(CFMutableDictionaryRef aggregate, uint64_t driver_id, CFStringRef driver_name,
                                       uint64_t channel_id, uint64_t channel_type, CFStringRef channel_name,
                                       CFStringRef group, CFStringRef subgroup, CFDictionaryRef channel_info,
                                       CFErrorRef *error) {
    CFRef<CFMutableArrayRef> legend(newArray());
    CFRef<CFNumberRef> id(makeNumber(channel_id));
    CFRef<CFNumberRef> type(makeNumber(channel_type));
    if (!legend || !id || !type) return kIOReturnError;
    CFArrayAppendValue(legend.get(), id.get());
    CFArrayAppendValue(legend.get(), type.get());
    if (channel_name) CFArrayAppendValue(legend.get(), channel_name);
    CFRef<CFMutableDictionaryRef> rec(
        createChannel(driver_id, driver_name, legend.get(), group, subgroup, channel_info, error));
    if (!rec) return kIOReturnError;
    return addChannel(aggregate, rec.get(), _getAggregateOpts(aggregate), error);
}

int IOReportMergeChannels(CFMutableDictionaryRef destination, CFDictionaryRef source, CFErrorRef *error) {
    if (!destination || !source || static_cast<CFDictionaryRef>(destination) == source) {
        setError(error, kIOReturnBadArgument, "bad argument");
        return kIOReportIterFailed;
    }
    uint32_t opts = _getAggregateOpts(destination);
    return IOReportIterate(source, [&](CFMutableDictionaryRef channel) {
        return addChannel(destination, channel, opts, error) == kIOReturnSuccess ? kIOReportIterOk : 1;
    });
}

// ---------------------------------------------------------------- the walker

namespace {

enum class Walk { Iterate, Prune, Clone, Compare };

struct Walker {
    Walk kind;
    const IOReportChannelIterationBlock *iterate = nullptr;
    const IOReportChannelCloneBlock *clone = nullptr;
    const IOReportChannelCompareBlock *compare = nullptr;

    static bool odd(int r) { return (r & 1) != 0; }

    // Walks one level. `other` is the older aggregate's same level (compare);
    // `result` receives the kept copies (clone and compare).
    int level(CFMutableDictionaryRef here, CFDictionaryRef other, CFMutableDictionaryRef result) {
        int acc = 0;
        int r = records(here, other, result, acc);
        if (odd(r)) return r;
        for (CFStringRef key : {kDrivers(), kGroups()}) {
            r = nested(here, other, result, key, acc);
            if (odd(r)) return r;
        }
        return acc;
    }

    int records(CFMutableDictionaryRef here, CFDictionaryRef other, CFMutableDictionaryRef result, int &acc) {
        CFTypeRef v = CFDictionaryGetValue(here, kChannels());
        CFMutableArrayRef kept = nullptr;
        if (result) {
            // Room for every record: most walks keep them all.
            CFIndex room = isArray(v) ? CFArrayGetCount(static_cast<CFArrayRef>(v)) : 0;
            CFRef<CFMutableArrayRef> fresh(CFArrayCreateMutable(nullptr, room, &kCFTypeArrayCallBacks));
            if (!fresh) return kIOReportIterFailed;
            CFDictionarySetValue(result, kChannels(), fresh.get());
            kept = fresh.get();
        }
        if (!isArray(v)) return 0;
        CFMutableArrayRef list = const_cast<CFMutableArrayRef>(static_cast<CFArrayRef>(v));

        CFArrayRef older = nullptr;
        if (kind == Walk::Compare) {
            CFTypeRef o = other ? CFDictionaryGetValue(other, kChannels()) : nullptr;
            if (!isArray(o)) return kIOReportIterFailed;
            older = static_cast<CFArrayRef>(o);
        }

        for (CFIndex i = 0; i < CFArrayGetCount(list);) {
            CFTypeRef item = CFArrayGetValueAtIndex(list, i);
            if (!isDict(item)) return kIOReportIterFailed;
            CFMutableDictionaryRef rec = mut(static_cast<CFDictionaryRef>(item));
            int r = 0;
            switch (kind) {
            case Walk::Iterate:
                r = (*iterate)(rec);
                break;
            case Walk::Prune:
                r = (*iterate)(rec);
                if (r == kIOReportIterSkipped) {
                    CFArrayRemoveValueAtIndex(list, i);
                    acc |= r;
                    continue;
                }
                break;
            case Walk::Clone: {
                CFRef<CFMutableDictionaryRef> copy(CFDictionaryCreateMutableCopy(nullptr, 0, rec));
                if (!copy) return kIOReportIterFailed;
                r = (*clone)(rec, copy.get());
                if (r == 0) CFArrayAppendValue(kept, copy.get());
                break;
            }
            case Walk::Compare: {
                CFRef<CFMutableDictionaryRef> copy(CFDictionaryCreateMutableCopy(nullptr, 0, rec));
                if (!copy) return kIOReportIterFailed;
                if (i >= CFArrayGetCount(older)) {
                    // No partner at this place: the plain copy goes in as it is.
                    CFArrayAppendValue(kept, copy.get());
                    break;
                }
                CFTypeRef o = CFArrayGetValueAtIndex(older, i);
                if (!isDict(o)) return kIOReportIterFailed;
                CFMutableDictionaryRef old = mut(static_cast<CFDictionaryRef>(o));
                uint64_t type = 0;
                if (!sameChannelType(old, rec, &type)) return kIOReportIterFailed;
                // The copy shares the newer record's legend, so its format is the one just read.
                if (cloneElements(copy.get(), old, 1, typeFormat(type)) != kIOReturnSuccess) return kIOReportIterFailed;
                r = (*compare)(old, rec, copy.get(), type);
                if (r == 0) CFArrayAppendValue(kept, copy.get());
                break;
            }
            }
            if (odd(r)) return r;
            acc |= r;
            ++i;
        }
        if (kind == Walk::Prune && CFArrayGetCount(list) == 0) CFDictionaryRemoveValue(here, kChannels());
        return 0;
    }

    int nested(CFMutableDictionaryRef here, CFDictionaryRef other, CFMutableDictionaryRef result, CFStringRef key,
               int &acc) {
        CFTypeRef v = CFDictionaryGetValue(here, key);
        if (!isDict(v)) return 0;
        CFMutableDictionaryRef dict = mut(static_cast<CFDictionaryRef>(v));

        CFDictionaryRef otherDict = nullptr;
        if (kind == Walk::Compare) {
            CFTypeRef o = other ? CFDictionaryGetValue(other, key) : nullptr;
            if (!isDict(o)) return kIOReportIterFailed;
            otherDict = static_cast<CFDictionaryRef>(o);
        }
        CFMutableDictionaryRef resultDict = nullptr;
        if (result) {
            CFRef<CFMutableDictionaryRef> fresh(newDict());
            if (!fresh) return kIOReportIterFailed;
            CFDictionarySetValue(result, key, fresh.get());
            resultDict = fresh.get();
        }

        // Snapshot the entries: a prune removes some while walking.
        CFIndex n = CFDictionaryGetCount(dict);
        std::vector<const void *> keys(static_cast<size_t>(n)), values(static_cast<size_t>(n));
        CFDictionaryGetKeysAndValues(dict, keys.data(), values.data());
        for (CFIndex i = 0; i < n; ++i) {
            if (!isString(keys[i]) || !isDict(values[i])) continue;
            CFMutableDictionaryRef child = mut(static_cast<CFDictionaryRef>(values[i]));
            CFDictionaryRef otherChild = nullptr;
            if (kind == Walk::Compare) {
                CFTypeRef o = CFDictionaryGetValue(otherDict, keys[i]);
                if (!isDict(o)) return kIOReportIterFailed;
                otherChild = static_cast<CFDictionaryRef>(o);
            }
            CFRef<CFMutableDictionaryRef> childResult;
            if (result) {
                childResult.reset(newDict());
                if (!childResult) return kIOReportIterFailed;
            }
            int r = level(child, otherChild, childResult.get());
            if (odd(r)) return r;
            acc |= r;
            if (result) CFDictionarySetValue(resultDict, keys[i], childResult.get());
            if (kind == Walk::Prune && CFDictionaryGetCount(child) == 0) CFDictionaryRemoveValue(dict, keys[i]);
        }
        if (kind == Walk::Prune && CFDictionaryGetCount(dict) == 0) CFDictionaryRemoveValue(here, key);
        return 0;
    }

    // Runs the walk from the top. Returns the walk result; `out` receives
    // the result aggregate of a clone or compare.
    int run(CFDictionaryRef aggregate, CFDictionaryRef older, CFMutableDictionaryRef *out) {
        if (!isDict(aggregate)) return kIOReportIterFailed;
        if (kind == Walk::Compare && !isDict(older)) return kIOReportIterFailed;
        CFRef<CFMutableDictionaryRef> result;
        if (out) {
            result.reset(IOReportCreateAggregate(_getAggregateOpts(aggregate)));
            if (!result) return kIOReportIterFailed;
        }
        int r = level(mut(aggregate), older, result.get());
        if (out && !odd(r)) *out = result.release();
        return r;
    }
};

}  // namespace

int IOReportIterate(CFDictionaryRef aggregate, const IOReportChannelIterationBlock &block) {
    Walker w{Walk::Iterate};
    w.iterate = &block;
    return w.run(aggregate, nullptr, nullptr);
}

int IOReportPrune(CFMutableDictionaryRef aggregate, const IOReportChannelIterationBlock &block) {
    Walker w{Walk::Prune};
    w.iterate = &block;
    return w.run(aggregate, nullptr, nullptr);
}

CFMutableDictionaryRef cloneAggregate(CFDictionaryRef aggregate, const IOReportChannelCloneBlock &block) {
    Walker w{Walk::Clone};
    w.clone = &block;
    CFMutableDictionaryRef out = nullptr;
    w.run(aggregate, nullptr, &out);
    return out;
}

CFMutableDictionaryRef compareAggregates(CFDictionaryRef older, CFDictionaryRef newer,
                                         const IOReportChannelCompareBlock &block) {
    Walker w{Walk::Compare};
    w.compare = &block;
    CFMutableDictionaryRef out = nullptr;
    w.run(newer, older, &out);
    return out;
}

int IOReportGetChannelCount(CFDictionaryRef aggregate) {
    int count = 0;
    int r = IOReportIterate(aggregate, [&](CFMutableDictionaryRef) {
        ++count;
        return kIOReportIterOk;
    });
    return r == 0 ? count : -1;
}

// ---------------------------------------------------------------- accessors

namespace {

CFArrayRef legendOf(CFDictionaryRef channel) {
    if (!channel) return nullptr;
    CFTypeRef v = CFDictionaryGetValue(channel, kLegendChannel());
    return isArray(v) ? static_cast<CFArrayRef>(v) : nullptr;
}

CFDictionaryRef infoOf(CFDictionaryRef channel) {
    if (!channel) return nullptr;
    CFTypeRef v = CFDictionaryGetValue(channel, kChannelInfo());
    return isDict(v) ? static_cast<CFDictionaryRef>(v) : nullptr;
}

}  // namespace

namespace {

IOReturn legendType(CFArrayRef legend, uint64_t *type) {
    if (!legend || CFArrayGetCount(legend) < 2) return kIOReturnError;
    uint64_t t = readU64(CFArrayGetValueAtIndex(legend, 1));
    if (t == kSentinel) return kIOReturnError;
    if (type) *type = t;
    return kIOReturnSuccess;
}

}  // namespace

IOReturn getChannelType(CFDictionaryRef channel, uint64_t *type) { return legendType(legendOf(channel), type); }

bool ioreport::sameChannelType(CFDictionaryRef a, CFDictionaryRef b, uint64_t *type) {
    CFArrayRef la = legendOf(a), lb = legendOf(b);
    uint64_t ta = 0, tb = 0;
    if (legendType(la, &ta) != kIOReturnSuccess) return false;
    // Copies of one channel share its legend: the type is read once then.
    if (lb != la && (legendType(lb, &tb) != kIOReturnSuccess || tb != ta)) return false;
    *type = ta;
    return true;
}

IOReturn setChannelType(CFDictionaryRef channel, const uint64_t *type) {
    CFArrayRef legend = legendOf(channel);
    if (!legend || !type || CFArrayGetCount(legend) < 2) return kIOReturnError;
    CFRef<CFNumberRef> n(makeNumber(*type));
    if (!n) return kIOReturnError;
    CFArraySetValueAtIndex(const_cast<CFMutableArrayRef>(legend), 1, n.get());
    return kIOReturnSuccess;
}

int ioreport::typeCountOf(CFDictionaryRef channel) {
    uint64_t t = 0;
    if (getChannelType(channel, &t) != kIOReturnSuccess) return -1;
    return typeElementCount(t);
}

CFDataRef getChannelConfig(CFDictionaryRef channel) {
    CFDictionaryRef info = infoOf(channel);
    if (!info) return nullptr;
    CFTypeRef v = CFDictionaryGetValue(info, kConfigKey());
    return isData(v) ? static_cast<CFDataRef>(v) : nullptr;
}

bool ioreport::getChannelIDAndType(CFDictionaryRef channel, uint64_t *id, uint64_t *type) {
    CFArrayRef legend = legendOf(channel);
    CFIndex count = legend ? CFArrayGetCount(legend) : 0;
    *id = count >= 1 ? readU64(CFArrayGetValueAtIndex(legend, 0)) : kSentinel;
    *type = count >= 2 ? readU64(CFArrayGetValueAtIndex(legend, 1)) : kSentinel;
    return *type != kSentinel;
}

uint64_t IOReportChannelGetChannelID(CFDictionaryRef channel) {
    CFArrayRef legend = legendOf(channel);
    if (!legend || CFArrayGetCount(legend) < 1) return kSentinel;
    return readU64(CFArrayGetValueAtIndex(legend, 0));
}

uint64_t IOReportChannelGetDriverID(CFDictionaryRef channel) { return dictU64(channel, kDriverID()); }

CFStringRef IOReportChannelGetDriverName(CFDictionaryRef channel) { return dictString(channel, kDriverName()); }
CFStringRef IOReportChannelGetGroup(CFDictionaryRef channel) { return dictString(channel, kGroupName()); }
CFStringRef IOReportChannelGetSubGroup(CFDictionaryRef channel) { return dictString(channel, kSubGroupName()); }

uint8_t IOReportChannelGetFormat(CFDictionaryRef channel) {
    uint64_t t = 0;
    return getChannelType(channel, &t) == kIOReturnSuccess ? typeFormat(t) : 0;
}

uint16_t IOReportChannelGetCategories(CFDictionaryRef channel) {
    uint64_t t = 0;
    return getChannelType(channel, &t) == kIOReturnSuccess ? typeCategories(t) : 0xFFFF;
}

uint64_t IOReportChannelGetUnit(CFDictionaryRef channel) { return dictU64(infoOf(channel), kUnitKey()); }

// ---------------------------------------------------------------- names

CFStringRef _copyPrintableIDString(uint64_t value) {
    std::string text;
    for (int shift = 56; shift >= 0; shift -= 8) {
        unsigned char b = static_cast<unsigned char>(value >> shift);
        if (b == 0) continue;
        if (!std::isprint(b)) return nullptr;
        text.push_back(static_cast<char>(b));
    }
    if (text.empty()) return nullptr;
    return CFStringCreateWithBytes(nullptr, reinterpret_cast<const uint8_t *>(text.data()),
                                   static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false);
}

namespace {

// Stores `value` under `key` in the record and returns the record's reference.
CFStringRef cacheString(CFDictionaryRef record, CFStringRef key, CFStringRef value) {
    CFDictionarySetValue(mut(record), key, value);
    return value;
}

}  // namespace

CFStringRef IOReportChannelGetChannelName(CFDictionaryRef channel) {
    if (!channel) return nullptr;
    if (CFStringRef cached = dictString(channel, kChannelName())) return cached;
    CFArrayRef legend = legendOf(channel);
    if (legend && CFArrayGetCount(legend) > 2) {
        CFTypeRef name = CFArrayGetValueAtIndex(legend, 2);
        if (isString(name)) return cacheString(channel, kChannelName(), static_cast<CFStringRef>(name));
    }
    CFRef<CFStringRef> printable(_copyPrintableIDString(IOReportChannelGetChannelID(channel)));
    if (!printable) return nullptr;
    return cacheString(channel, kChannelName(), printable.get());
}

CFStringRef IOReportChannelCopyDescription(CFDictionaryRef channel, const void *, const char *prefix) {
    if (!channel) return nullptr;
    uint64_t type = 0;
    if (getChannelType(channel, &type) != kIOReturnSuccess) return nullptr;
    CFStringRef group = IOReportChannelGetGroup(channel);
    CFStringRef subgroup = IOReportChannelGetSubGroup(channel);
    return CFStringCreateWithFormat(
        nullptr, nullptr, CFSTR("%s%@ %@ < %#llx (%@) | G/g %@/%@ | cat %#04x | format %#04x | elts %u >\n"),
        prefix ? prefix : "", IOReportChannelGetDriverName(channel), IOReportChannelGetChannelName(channel),
        static_cast<unsigned long long>(IOReportChannelGetChannelID(channel)), IOReportChannelGetUnitLabel(channel),
        group ? group : CFSTR("(none)"), subgroup ? subgroup : CFSTR("(none)"),
        static_cast<unsigned>(typeCategories(type)), static_cast<unsigned>(typeFormat(type)),
        static_cast<unsigned>(typeElementCount(type)));
}
