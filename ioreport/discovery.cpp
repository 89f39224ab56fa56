// Channel discovery from the registry (one service, a matching dictionary,
// every public legend, one channel by ID), the filters that narrow an
// aggregate, and the driver and process name routines.
#include "internal.h"

#include <unistd.h>

#include <cerrno>
#include <functional>

using namespace ioreport;

CFStringRef IOReportCopyDriverName(io_registry_entry_t entry) {
    io_name_t name;
    uint64_t id = 0;
    if (IORegistryEntryGetName(entry, name) != kIOReturnSuccess) return nullptr;
    if (IORegistryEntryGetRegistryEntryID(entry, &id) != kIOReturnSuccess) return nullptr;
    return CFStringCreateWithFormat(nullptr, nullptr, CFSTR("%s <id %#llx>"), name, static_cast<unsigned long long>(id));
}

CFStringRef IOReportCopyCurrentProcessName(void) {
    return CFStringCreateWithFormat(nullptr, nullptr, CFSTR("%s <pid %d>"), program_invocation_short_name,
                                    static_cast<int>(getpid()));
}

namespace {

// Calls `step` with every service that `matching` finds. A non-zero step
// result ends the walk with that result; a registry change under the walk
// ends it with kIOReturnAborted.
IOReturn forEachService(CFDictionaryRef matching, const std::function<IOReturn(io_service_t)> &step) {
    CFRetain(matching);   // the lookup consumes one reference; the caller keeps its own
    io_iterator_t it = 0;
    IOReturn rc = IOServiceGetMatchingServices(kIOMainPortDefault, matching, &it);
    if (rc != kIOReturnSuccess) return rc;
    if (IOIteratorIsValid(it)) {
        while (IOIteratorIsValid(it)) {
            io_service_t service = IOIteratorNext(it);
            if (!service) break;
            rc = step(service);
            IOObjectRelease(service);
            if (rc != kIOReturnSuccess) break;
        }
        if (rc == kIOReturnSuccess && !IOIteratorIsValid(it)) rc = kIOReturnAborted;
    }
    IOObjectRelease(it);
    return rc;
}

// The driver's identity for its records, looked up once per service. Its
// records share one ID number.
struct DriverIdentity {
    explicit DriverIdentity(io_service_t s) : service(s) {}
    io_service_t service;
    bool known = false;
    uint64_t id = 0;
    CFRef<CFStringRef> name;
    CFRef<CFNumberRef> number;

    IOReturn get(CFErrorRef *error) {
        if (known) return kIOReturnSuccess;
        IOReturn rc = IORegistryEntryGetRegistryEntryID(service, &id);
        if (rc != kIOReturnSuccess) {
            setError(error, rc, "error extracting driver info");
            return rc;
        }
        name.reset(IOReportCopyDriverName(service));
        if (!name) return kIOReturnError;
        number.reset(makeNumber(id));
        known = true;
        return kIOReturnSuccess;
    }
};

IOReturn addLegendChannels(CFMutableDictionaryRef aggregate, io_service_t service, CFArrayRef legend,
                           uint32_t options, CFErrorRef *error) {
    DriverIdentity driver(service);
    for (CFIndex g = 0; g < CFArrayGetCount(legend); ++g) {
        CFTypeRef entry = CFArrayGetValueAtIndex(legend, g);
        if (!isDict(entry)) return kIOReturnSuccess;
        CFDictionaryRef groupDict = static_cast<CFDictionaryRef>(entry);
        CFStringRef group = dictString(groupDict, kGroupName());
        CFStringRef subgroup = dictString(groupDict, kSubGroupName());
        CFTypeRef infoValue = CFDictionaryGetValue(groupDict, kChannelInfo());
        CFDictionaryRef info = isDict(infoValue) ? static_cast<CFDictionaryRef>(infoValue) : nullptr;
        if (subgroup && !group) return kIOReturnSuccess;
        CFTypeRef channelsValue = CFDictionaryGetValue(groupDict, kChannels());
        if (!isArray(channelsValue)) return kIOReturnSuccess;
        CFArrayRef channels = static_cast<CFArrayRef>(channelsValue);
        for (CFIndex c = 0; c < CFArrayGetCount(channels); ++c) {
            CFTypeRef legendChannel = CFArrayGetValueAtIndex(channels, c);
            if (!isArray(legendChannel)) break;   // ends this group only
            if (driver.get(error) != kIOReturnSuccess) return kIOReturnError;
            CFRef<CFMutableDictionaryRef> record(createChannel(driver.id, driver.name.get(),
                                                                 static_cast<CFArrayRef>(legendChannel), group,
                                                                 subgroup, info, error, driver.number.get()));
            if (!record) return kIOReturnError;
            if (addChannel(aggregate, record.get(), options, error) != kIOReturnSuccess) return kIOReturnError;
        }
    }
    return kIOReturnSuccess;
}

}  // namespace

CFMutableDictionaryRef IOReportCopyChannelsForDriver(io_registry_entry_t service, uint32_t options,
                                                     CFErrorRef *error) {
    if (service == 0 || IOObjectGetUserRetainCount(service) == 0) {
        setError(error, kIOReturnBadArgument, "invalid driver");
        return nullptr;
    }
    CFRef<CFMutableDictionaryRef> aggregate(IOReportCreateAggregate(options));
    if (!aggregate) {
        setError(error, kIOReturnNoMemory, "could not allocate collection");
        return nullptr;
    }
    CFRef<CFTypeRef> isPublic(IORegistryEntryCreateCFProperty(service, CFSTR("IOReportLegendPublic"), nullptr, 0));
    if (!isPublic) return aggregate.release();
    CFRef<CFTypeRef> legend(IORegistryEntryCreateCFProperty(service, CFSTR("IOReportLegend"), nullptr, 0));
    if (!isArray(legend.get())) {
        setError(error, kIOReturnUnsupportedMode, "bad legend");
        return nullptr;
    }
    if (addLegendChannels(aggregate.get(), service, static_cast<CFArrayRef>(legend.get()), options, error) !=
        kIOReturnSuccess)
        return nullptr;
    return aggregate.release();
}

CFMutableDictionaryRef IOReportCopyChannelsForDrivers(CFDictionaryRef matching, uint32_t options, CFErrorRef *error) {
    CFRef<CFMutableDictionaryRef> aggregate(IOReportCreateAggregate(options));
    if (!aggregate) {
        setError(error, kIOReturnNoMemory, "couldn't make dict");
        return nullptr;
    }
    if (!matching) {
        setError(error, kIOReturnBadArgument, "no matching dict");
        return nullptr;
    }
    IOReturn rc = forEachService(matching, [&](io_service_t service) -> IOReturn {
        CFRef<CFMutableDictionaryRef> channels(IOReportCopyChannelsForDriver(service, 0, error));
        if (!channels) return kIOReturnError;
        return IOReportMergeChannels(aggregate.get(), channels.get(), error);
    });
    return rc == kIOReturnSuccess ? aggregate.release() : nullptr;
}

CFMutableDictionaryRef IOReportCopyAllChannels(uint32_t options, CFErrorRef *error) {
    const void *propKeys[] = {CFSTR("IOReportLegendPublic")};
    const void *propValues[] = {kCFBooleanTrue};
    CFRef<CFDictionaryRef> property(CFDictionaryCreate(nullptr, propKeys, propValues, 1,
                                                         &kCFTypeDictionaryKeyCallBacks,
                                                         &kCFTypeDictionaryValueCallBacks));
    if (!property) {
        setError(error, kIOReturnNoMemory, "prop create failed");
        return nullptr;
    }
    const void *matchKeys[] = {CFSTR(kIOPropertyMatchKey)};
    const void *matchValues[] = {property.get()};
    CFRef<CFDictionaryRef> matching(CFDictionaryCreate(nullptr, matchKeys, matchValues, 1,
                                                         &kCFTypeDictionaryKeyCallBacks,
                                                         &kCFTypeDictionaryValueCallBacks));
    if (!matching) {
        setError(error, kIOReturnNoMemory, "dict create failed");
        return nullptr;
    }
    CFRef<CFMutableDictionaryRef> aggregate(IOReportCreateAggregate(options));
    if (!aggregate) {
        setError(error, kIOReturnNoMemory, "couldn't make dict");
        return nullptr;
    }
    IOReturn rc = forEachService(matching.get(), [&](io_service_t service) -> IOReturn {
        // A driver whose channels can't be read is left out; the rest still count.
        CFErrorRef ignored = nullptr;
        CFRef<CFMutableDictionaryRef> channels(
            IOReportCopyChannelsForDriver(service, _getAggregateOpts(aggregate.get()), &ignored));
        if (ignored) CFRelease(ignored);
        if (!channels) return kIOReturnSuccess;
        return IOReportMergeChannels(aggregate.get(), channels.get(), error);
    });
    return rc == kIOReturnSuccess ? aggregate.release() : nullptr;
}

CFMutableDictionaryRef IOReportCopyChannelsWithID(CFDictionaryRef matching, uint64_t channel_id, CFErrorRef *error) {
    if (!matching || channel_id == 0) return nullptr;
    CFRef<CFMutableDictionaryRef> aggregate(IOReportCreateAggregate(0));
    if (!aggregate) {
        setError(error, kIOReturnNoMemory, "couldn't make dict");
        return nullptr;
    }
    IOReturn rc = forEachService(matching, [&](io_service_t service) -> IOReturn {
        CFRef<CFMutableArrayRef> legend(newArray());
        CFRef<CFNumberRef> id(makeNumber(channel_id));
        CFRef<CFNumberRef> type(makeNumber(0));
        if (!legend || !id || !type) {
            setError(error, kIOReturnNoMemory, "couldn't create channel legend");
            return kIOReturnNoMemory;
        }
        CFArrayAppendValue(legend.get(), id.get());
        CFArrayAppendValue(legend.get(), type.get());
        DriverIdentity driver(service);
        if (driver.get(error) != kIOReturnSuccess) return kIOReturnError;
        CFRef<CFMutableDictionaryRef> record(
            createChannel(driver.id, driver.name.get(), legend.get(), nullptr, nullptr, nullptr, error));
        if (!record) return kIOReturnError;
        return addChannel(aggregate.get(), record.get(), 0, error);
    });
    return rc == kIOReturnSuccess ? aggregate.release() : nullptr;
}

// ---------------------------------------------------------------- filters

namespace {

// All channels, pruned to those `keep` accepts; null when the prune fails.
CFMutableDictionaryRef copyAllMatching(uint32_t options, CFErrorRef *error,
                                       const std::function<bool(CFDictionaryRef)> &keep) {
    CFRef<CFMutableDictionaryRef> aggregate(IOReportCopyAllChannels(options, error));
    if (!aggregate) return nullptr;
    int r = IOReportPrune(aggregate.get(), [&](CFMutableDictionaryRef channel) {
        return keep(channel) ? kIOReportIterOk : kIOReportIterSkipped;
    });
    if (r & 1) return nullptr;
    return aggregate.release();
}

}  // namespace

int IOReportSelectChannelsInGroup(CFMutableDictionaryRef aggregate, CFStringRef group, CFStringRef subgroup,
                                  CFErrorRef *error) {
    if (!group && !subgroup) {
        setError(error, kIOReturnBadArgument, "no group or subgroup!");
        return 1;
    }
    int r = IOReportPrune(aggregate, [&](CFMutableDictionaryRef channel) {
        if (group) {
            CFStringRef g = IOReportChannelGetGroup(channel);
            if (!g || !CFEqual(g, group)) return kIOReportIterSkipped;
        }
        if (subgroup) {
            CFStringRef s = IOReportChannelGetSubGroup(channel);
            if (!s || !CFEqual(s, subgroup)) return kIOReportIterSkipped;
        }
        return kIOReportIterOk;
    });
    if (r & 1) {
        setError(error, kIOReturnError, "channel pruning failed");
        return 1;
    }
    return r;
}

CFMutableDictionaryRef IOReportCopyChannelsInGroup(CFStringRef group, CFStringRef subgroup, uint32_t options,
                                                   CFErrorRef *error) {
    CFRef<CFMutableDictionaryRef> aggregate(IOReportCopyAllChannels(options, error));
    if (!aggregate) return nullptr;
    if (IOReportSelectChannelsInGroup(aggregate.get(), group, subgroup, error) & 1) return nullptr;
    return aggregate.release();
}

CFMutableDictionaryRef IOReportCopyChannelsInCategories(uint16_t categories, uint32_t options, CFErrorRef *error) {
    return copyAllMatching(options, error, [categories](CFDictionaryRef channel) {
        return (IOReportChannelGetCategories(channel) & categories) != 0;
    });
}

CFMutableDictionaryRef IOReportCopyChannelsOfFormat(uint8_t format, uint32_t options, CFErrorRef *error) {
    return copyAllMatching(options, error,
                           [format](CFDictionaryRef channel) { return IOReportChannelGetFormat(channel) == format; });
}

CFMutableDictionaryRef IOReportCopyChannelsWithUnit(uint64_t unit, uint32_t options, CFErrorRef *error) {
    return copyAllMatching(options, error,
                           [unit](CFDictionaryRef channel) { return IOReportChannelGetUnit(channel) == unit; });
}
