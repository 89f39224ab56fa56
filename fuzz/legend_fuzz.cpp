// Legend discovery: the in-process simulator's services carry legends of
// the shape drivers publish, any part now and then swapped for another
// property list, public or not. The library discovers them through the
// platform API (every public legend, and one driver's, a matching
// dictionary's, one channel ID's or a category's), walks each
// aggregate with every channel accessor, merges, clones, compares and prunes
// it with walk results from the input. The counts of walked, merged, cloned
// and pruned channels agree, a prune leaves no empty level, and discovery
// leaves no handle on a service behind.
#include <IOReport.h>
#include <internal.h>   // library routines called directly
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "plist_gen.h"
#include "sim_host.h"

namespace {

namespace sim = talvex::sim;
using talvex::fuzz::new_dictionary;
using talvex::fuzz::new_string;
using talvex::fuzz::one_of;
using talvex::fuzz::PlistGen;
using talvex::CFRef;
using talvex::fuzz::SimHost;

const std::vector<std::string_view> kWords = {
    "IOReportGroupName", "IOReportSubGroupName", "IOReportChannelInfo", "IOReportChannels", "IOReportChannelUnit",
    "IOReportChannelConfig", "Energy", "Power", "States", "", "\xc3\xa9t\xc3\xa9",
};
constexpr const char *kGroups[] = {"Energy", "Power", "States", "Perf", ""};
constexpr std::string_view kExtraClasses[] = {"TalvexSensorHub", "TalvexPMU", sim::kCoprocessorClass};

using talvex::fuzz::fail;
using talvex::fuzz::release;

CFNumberRef num(uint64_t v) {
    auto s = static_cast<long long>(v);
    return CFNumberCreate(nullptr, kCFNumberLongLongType, &s);
}

// Legend parts: each usually of the right shape, sometimes anything at all.
class LegendGen {
public:
    explicit LegendGen(FuzzedDataProvider &in) : in_(in), any_(in, kWords) {}

    CFTypeRef legend() {
        if (odd()) return any_.value();
        CFMutableArrayRef groups = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
        size_t n = in_.ConsumeIntegralInRange<size_t>(0, 4);
        for (size_t i = 0; i < n; ++i) {
            CFRef<CFTypeRef> g(group());
            CFArrayAppendValue(groups, g.get());
        }
        return groups;
    }

private:
    bool odd() { return in_.ConsumeIntegralInRange(0, 15) == 0; }

    CFTypeRef text() {
        if (odd()) return any_.value();
        return new_string(one_of(in_, kGroups));
    }

    CFTypeRef group() {
        if (odd()) return any_.value();
        CFMutableDictionaryRef d = new_dictionary();
        if (in_.ConsumeBool()) set(d, "IOReportGroupName", text());
        if (in_.ConsumeBool()) set(d, "IOReportSubGroupName", text());
        if (in_.ConsumeBool()) set(d, "IOReportChannelInfo", info());
        CFMutableArrayRef channels = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
        size_t n = in_.ConsumeIntegralInRange<size_t>(0, 6);
        for (size_t i = 0; i < n; ++i) {
            CFRef<CFTypeRef> c(channel());
            CFArrayAppendValue(channels, c.get());
        }
        set(d, "IOReportChannels", odd() ? (CFRelease(channels), any_.value()) : channels);
        return d;
    }

    CFTypeRef info() {
        if (odd()) return any_.value();
        CFMutableDictionaryRef d = new_dictionary();
        if (in_.ConsumeBool()) set(d, "IOReportChannelUnit", odd() ? any_.value() : num(in_.ConsumeIntegral<uint64_t>()));
        if (in_.ConsumeBool()) {
            auto bytes = in_.ConsumeBytes<uint8_t>(in_.ConsumeIntegralInRange<size_t>(0, 48));
            set(d, "IOReportChannelConfig", CFDataCreate(nullptr, bytes.data(), static_cast<CFIndex>(bytes.size())));
        }
        return d;
    }

    CFTypeRef channel() {
        if (odd()) return any_.value();
        CFMutableArrayRef c = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
        size_t n = in_.ConsumeIntegralInRange<size_t>(0, 4);
        for (size_t i = 0; i < n; ++i) {
            CFRef<CFTypeRef> v;
            if (odd()) {
                v.reset(any_.value());
            } else if (i == 0) {
                v.reset(num(in_.ConsumeBool() ? in_.ConsumeIntegralInRange<uint64_t>(1, 8) : in_.ConsumeIntegral<uint64_t>()));
            } else if (i == 1) {
                uint64_t type = in_.ConsumeIntegralInRange<uint64_t>(0, 5) | uint64_t{in_.ConsumeIntegral<uint16_t>()} << 16 |
                                uint64_t{in_.ConsumeIntegralInRange<uint16_t>(0, 8)} << 32;
                v.reset(num(in_.ConsumeBool() ? type : in_.ConsumeIntegral<uint64_t>()));
            } else {
                v.reset(any_.string());
            }
            CFArrayAppendValue(c, v.get());
        }
        return c;
    }

    static void set(CFMutableDictionaryRef d, const char *key, CFTypeRef value) {
        CFRef<CFStringRef> k(new_string(key));
        CFDictionarySetValue(d, k.get(), value);
        CFRelease(value);
    }

    FuzzedDataProvider &in_;
    PlistGen any_;
};

void publish_legends(FuzzedDataProvider &in, sim::Simulation &s) {
    size_t extra = in.ConsumeIntegralInRange<size_t>(0, 2);
    for (size_t i = 0; i < extra; ++i) {
        std::string cls(one_of(in, kExtraClasses));
        std::string name = in.ConsumeBool() ? cls : in.ConsumeRandomLengthString(20);
        s.registry().add(cls, name);
    }
    LegendGen gen(in);
    for (const auto &service : s.registry().services()) {
        if (in.ConsumeIntegralInRange(0, 3) == 0) continue;
        CFRef<CFTypeRef> legend(gen.legend());
        service->set_property("IOReportLegend", legend.get());
        switch (in.ConsumeIntegralInRange(0, 7)) {
        case 0: break;   // not public
        case 1: service->set_property("IOReportLegendPublic", kCFBooleanFalse); break;
        default: service->set_property("IOReportLegendPublic", kCFBooleanTrue); break;
        }
    }
}

// A walk result for a clone or prune block: mostly ok, now and then skip, 2 or stop.
int walk_result(FuzzedDataProvider &in) {
    constexpr int kOdd[] = {kIOReportIterSkipped, 2, 1};
    int k = in.ConsumeIntegralInRange(0, 15);
    return k < 3 ? kOdd[k] : kIOReportIterOk;
}

// No level of the aggregate is left empty: every channel list has a channel
// and every driver or group table an entry, each holding something.
bool no_empty_levels(CFDictionaryRef level) {
    CFTypeRef list = CFDictionaryGetValue(level, CFSTR("IOReportChannels"));
    if (list && CFGetTypeID(list) == CFArrayGetTypeID() && CFArrayGetCount(static_cast<CFArrayRef>(list)) == 0)
        return false;
    for (CFStringRef key : {CFSTR("IOReportDrivers"), CFSTR("IOReportChannelGroups")}) {
        CFTypeRef table = CFDictionaryGetValue(level, key);
        if (!table || CFGetTypeID(table) != CFDictionaryGetTypeID()) continue;
        auto t = static_cast<CFDictionaryRef>(table);
        CFIndex n = CFDictionaryGetCount(t);
        if (n == 0) return false;
        std::vector<const void *> keys(static_cast<size_t>(n)), values(static_cast<size_t>(n));
        CFDictionaryGetKeysAndValues(t, keys.data(), values.data());
        for (const void *v : values) {
            if (!v || CFGetTypeID(v) != CFDictionaryGetTypeID()) continue;
            auto child = static_cast<CFDictionaryRef>(v);
            if (CFDictionaryGetCount(child) == 0 || !no_empty_levels(child)) return false;
        }
    }
    return true;
}

void exercise(FuzzedDataProvider &in, CFMutableDictionaryRef agg) {
    if (!agg) return;
    int count = IOReportGetChannelCount(agg);
    int seen = 0;
    IOReportIterate(agg, [&](CFMutableDictionaryRef c) {
        talvex::fuzz::touch_channel(c);
        uint64_t type = 0;
        if (getChannelType(c, &type) == kIOReturnSuccess) setChannelType(c, &type);
        getChannelConfig(c);
        ++seen;
        return kIOReportIterOk;
    });
    if (count >= 0 && seen != count) fail("%d channels counted, %d walked", count, seen);

    // Merges into aggregates of every filing option.
    for (uint32_t options = 0; options < 4; ++options) {
        CFRef<CFMutableDictionaryRef> merged(IOReportCreateAggregate(options));
        CFErrorRef error = nullptr;
        int r = IOReportMergeChannels(merged.get(), agg, &error);
        release(error);
        if (r == 0 && count >= 0 && IOReportGetChannelCount(merged.get()) != count)
            fail("a merge of %d channels holds %d", count, IOReportGetChannelCount(merged.get()));
    }

    // A clone keeps the copies its block returned 0 for.
    int kept = 0;
    bool stopped = false;
    CFRef<CFMutableDictionaryRef> clone(cloneAggregate(agg, [&](CFMutableDictionaryRef, CFMutableDictionaryRef) {
        int r = walk_result(in);
        kept += r == 0;
        stopped |= (r & 1) != 0;
        return r;
    }));
    if (!stopped && count >= 0 && (!clone || IOReportGetChannelCount(clone.get()) != kept))
        fail("a clone kept %d of %d channels, not %d", clone ? IOReportGetChannelCount(clone.get()) : -1, count, kept);
    CFRef<CFMutableDictionaryRef> whole(cloneAggregate(agg, [](CFMutableDictionaryRef, CFMutableDictionaryRef) { return 0; }));
    CFRef<CFMutableDictionaryRef> compared(compareAggregates(
        whole.get(), agg, [&](CFMutableDictionaryRef, CFMutableDictionaryRef, CFMutableDictionaryRef, uint64_t) {
            return walk_result(in);
        }));

    CFRef<CFStringRef> group(in.ConsumeBool() ? new_string(one_of(in, kGroups)) : nullptr);
    CFRef<CFStringRef> subgroup(in.ConsumeBool() ? new_string(one_of(in, kGroups)) : nullptr);
    if (whole) {
        CFErrorRef error = nullptr;
        IOReportSelectChannelsInGroup(whole.get(), group.get(), subgroup.get(), &error);
        release(error);
    }

    // A prune removes the channels its block returned 16 for, and the levels it empties.
    int removed = 0, visited = 0;
    stopped = false;
    IOReportPrune(agg, [&](CFMutableDictionaryRef) {
        int r = walk_result(in);
        ++visited;
        removed += r == kIOReportIterSkipped;
        stopped |= (r & 1) != 0;
        return r;
    });
    if (!stopped && count >= 0) {
        int left = IOReportGetChannelCount(agg);
        if (visited != count || left != count - removed || !no_empty_levels(agg))
            fail("a prune of %d channels (%d walked, %d removed) left %d%s", count, visited, removed, left,
                 no_empty_levels(agg) ? "" : " and an empty level");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider in(data, size);
    SimHost &host = SimHost::instance();
    host.reset([&](sim::Simulation &s) { publish_legends(in, s); });

    uint32_t options = in.ConsumeIntegralInRange<uint32_t>(0, 3);
    std::vector<CFRef<CFMutableDictionaryRef>> found;
    CFErrorRef error = nullptr;
    found.emplace_back(IOReportCopyAllChannels(options, &error));
    release(error);

    // One more way to discover. The category, format and unit filters share
    // their code, the category one stands for them; the group filter is the
    // selection exercise() makes.
    error = nullptr;
    switch (in.ConsumeIntegralInRange(0, 3)) {
    case 0: {
        io_service_t service =
            IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching(sim::kCoprocessorClass));
        if (service) {
            found.emplace_back(IOReportCopyChannelsForDriver(service, options, &error));
            release(IOReportCopyDriverName(service));
            IOObjectRelease(service);
        }
        break;
    }
    case 1: {
        CFRef<CFMutableDictionaryRef> matching(IOServiceMatching(in.ConsumeBool() ? sim::kReportHubClass : "TalvexSensorHub"));
        found.emplace_back(IOReportCopyChannelsForDrivers(matching.get(), options, &error));
        break;
    }
    case 2: {
        CFRef<CFMutableDictionaryRef> matching(IOServiceMatching(sim::kCoprocessorClass));
        uint64_t id = in.ConsumeBool() ? in.ConsumeIntegralInRange<uint64_t>(1, 8) : in.ConsumeIntegral<uint64_t>();
        found.emplace_back(IOReportCopyChannelsWithID(matching.get(), id, &error));
        break;
    }
    default: found.emplace_back(IOReportCopyChannelsInCategories(in.ConsumeIntegral<uint16_t>(), options, &error)); break;
    }
    release(error);

    for (auto &agg : found) exercise(in, agg.get());
    host.check_link();
    for (const auto *cls : {sim::kCoprocessorClass, sim::kReportHubClass, "TalvexSensorHub", "TalvexPMU"})
        SimHost::check_released(cls, "discovery");
    return 0;
}
