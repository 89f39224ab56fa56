// Discovery from the registry of a private simulator. (A legend that is not
// public, or not a list: tests/cases/report.case.)
// Legends are written into the registry through the platform's own
// property write.
#include "report_fixtures.h"

#include <harness.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

using namespace rt;

namespace {

// The private simulator, started on first use for the whole process.
talvex::test::Simulator &simulator() {
    static std::unique_ptr<talvex::test::Simulator> sim = [] {
        auto s = std::make_unique<talvex::test::Simulator>();
        setenv("TALVEX_SIM_SOCKET", s->socket().c_str(), 1);
        return s;
    }();
    return *sim;
}

constexpr const char *kTalvex = "ZantraTalvexProcessor";
constexpr const char *kHub = "IOReportHub";
constexpr uint64_t kTotal = 0x544F54414C204D53ull;
constexpr uint64_t kMs = 0x0100007C00000000ull;

io_service_t service(const char *cls) {
    simulator();
    return IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching(cls));
}

// Builders for legend property lists.
using talvex::test::make_array;
void push(CFMutableArrayRef a, CFTypeRef v) {
    CFArrayAppendValue(a, v);
    CFRelease(v);
}
CFArrayRef channel(uint64_t id, uint64_t channel_type, const char *name = nullptr) {
    CFMutableArrayRef a = make_array();
    push(a, num(id));
    push(a, num(channel_type));
    if (name) push(a, str(name));
    return a;
}
CFDictionaryRef group(const char *name, const char *subgroup, CFDictionaryRef info, std::vector<CFTypeRef> channels) {
    CFMutableDictionaryRef g = talvex::test::make_dict();
    if (name) setValue(g, "IOReportGroupName", CFRef<CFStringRef>(str(name)).get());
    if (subgroup) setValue(g, "IOReportSubGroupName", CFRef<CFStringRef>(str(subgroup)).get());
    if (info) setValue(g, "IOReportChannelInfo", info);
    CFMutableArrayRef list = make_array();
    for (CFTypeRef c : channels) push(list, c);
    setValue(g, "IOReportChannels", list);
    CFRelease(list);
    return g;
}

void setProperty(const char *cls, const char *key, CFTypeRef value) {
    io_service_t s = service(cls);
    CFRef<CFStringRef> k(str(key));
    EXPECT_EQ(IORegistryEntrySetCFProperty(s, k.get(), value), 0);
    IOObjectRelease(s);
}
void deleteProperty(const char *cls, const char *key) {
    simulator().control({"property", "delete", "--service", cls, key});
}
// Makes `legend` (taken over) the driver's public legend.
void publish(const char *cls, CFMutableArrayRef legend) {
    setProperty(cls, "IOReportLegend", legend);
    CFRelease(legend);
    setProperty(cls, "IOReportLegendPublic", kCFBooleanTrue);
}

// The coprocessor's legend: a group with a subgroup and unit info its
// channels share, a named group and a nameless one. The hub's: one channel.
void publishLegends() {
    CFRef<CFMutableDictionaryRef> info(IOReportCreateUnitInfo(kMs));
    CFMutableArrayRef legend = make_array();
    push(legend, group("Power", "Rails", info.get(),
                       {channel(0x52414931, type(1, 0x0001, 1), "rail1"), channel(0x50535441, type(2, 0x0002, 3))}));
    push(legend, group("Load", nullptr, nullptr, {channel(kTotal, type(1, 0x0004, 1))}));
    push(legend, group(nullptr, nullptr, nullptr, {channel(0x48495354, type(3, 0x0008, 4))}));
    publish(kTalvex, legend);

    CFMutableArrayRef hub = make_array();
    push(hub, group("Hub", nullptr, nullptr, {channel(0x48554231, type(1, 0x0004, 1))}));
    publish(kHub, hub);
}

void unpublishAll() {
    // The simulator's other driver with a public legend is hidden too, so
    // that only the legends written here are public.
    for (const char *cls : {kTalvex, kHub, "ZantraPowerController"}) {
        deleteProperty(cls, "IOReportLegendPublic");
        deleteProperty(cls, "IOReportLegend");
    }
}

std::vector<uint64_t> ids(CFDictionaryRef agg, bool sorted = false) {
    std::vector<uint64_t> out;
    for (auto *c : channelsOf(agg)) out.push_back(IOReportChannelGetChannelID(c));
    if (sorted) std::sort(out.begin(), out.end());
    return out;
}

}  // namespace

TEST(Discovery, PublicLegendsByDriverByMatchingAndAll) {
    unpublishAll();
    publishLegends();
    io_service_t s = service(kTalvex);
    ASSERT_NE(s, 0u);
    CFRef<CFErrorRef> e;
    CFRef<CFMutableDictionaryRef> agg(
        IOReportCopyChannelsForDriver(s, kIOReportOptionByDriver | kIOReportOptionByGroup, e.slot()));
    ASSERT_TRUE(agg) << errorText(e.get());
    EXPECT_EQ(ids(agg.get()), (std::vector<uint64_t>{0x48495354, 0x52414931, 0x50535441, kTotal}));

    uint64_t id = 0;
    EXPECT_EQ(IORegistryEntryGetRegistryEntryID(s, &id), 0);
    char expected[128];
    snprintf(expected, sizeof expected, "ZantraTalvexProcessor <id %#llx>", static_cast<unsigned long long>(id));
    CFRef<CFStringRef> name(IOReportCopyDriverName(s));
    EXPECT_EQ(text(name.get()), expected);

    auto recs = channelsOf(agg.get());
    CFMutableDictionaryRef rail = recs[1];
    EXPECT_EQ(IOReportChannelGetDriverID(rail), id);
    EXPECT_EQ(text(IOReportChannelGetDriverName(rail)), expected);
    EXPECT_EQ(text(IOReportChannelGetChannelName(rail)), "rail1");
    EXPECT_EQ(text(IOReportChannelGetGroup(rail)), "Power");
    EXPECT_EQ(text(IOReportChannelGetSubGroup(rail)), "Rails");
    EXPECT_EQ(IOReportChannelGetUnit(recs[2]), kMs);   // the group's info is shared
    EXPECT_EQ(IOReportChannelGetFormat(recs[2]), kIOReportFormatState);
    EXPECT_FALSE(IOReportChannelGetGroup(recs[0]));
    EXPECT_FALSE(IOReportCopyDriverName(0));
    IOObjectRelease(s);
    EXPECT_FALSE(IOReportCopyChannelsForDriver(s, 0, nullptr));   // released: no references left
    EXPECT_EQ(failure([](CFErrorRef *err) { return IOReportCopyChannelsForDriver(0, 0, err); }),
              "invalid driver (0xe00002c2)");

    CFRef<CFMutableDictionaryRef> matching(IOServiceMatching(kTalvex));
    CFIndex refs = CFGetRetainCount(matching.get());
    CFRef<CFMutableDictionaryRef> matched(IOReportCopyChannelsForDrivers(matching.get(), kIOReportOptionByDriver, nullptr));
    ASSERT_TRUE(matched);
    EXPECT_EQ(CFGetRetainCount(matching.get()), refs);   // the caller keeps its reference
    EXPECT_EQ(IOReportGetChannelCount(matched.get()), 4);
    EXPECT_TRUE(getValue(matched.get(), "IOReportDrivers"));

    EXPECT_EQ(failure([](CFErrorRef *err) { return IOReportCopyChannelsForDrivers(nullptr, 0, err); }),
              "no matching dict (0xe00002c2)");

    CFRef<CFMutableDictionaryRef> all(IOReportCopyAllChannels(0, nullptr));
    EXPECT_EQ(ids(all.get(), true), (std::vector<uint64_t>{0x48495354, 0x48554231, 0x50535441, 0x52414931, kTotal}));

    // A public driver whose legend is unusable is left out of all channels.
    // (A lookup that names it fails: tests/cases/report.case.)
    CFRef<CFStringRef> bad(str("bad"));
    setProperty(kHub, "IOReportLegend", bad.get());
    CFRef<CFMutableDictionaryRef> rest(IOReportCopyAllChannels(0, nullptr));
    EXPECT_EQ(IOReportGetChannelCount(rest.get()), 4);
}

