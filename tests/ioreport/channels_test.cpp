// Channel records and aggregates: filing, merging, the walker, accessors,
// names and error objects. (A channel's one-line description, which no
// command prints: the legend fuzzer runs it.)
#include "report_fixtures.h"

#include <gtest/gtest.h>

using namespace rt;

namespace {

CFDictionaryRef sub(CFDictionaryRef d, std::initializer_list<const char *> path) {
    for (const char *key : path) {
        if (!d) return nullptr;
        CFTypeRef v = getValue(d, key);
        if (!v || CFGetTypeID(v) != CFDictionaryGetTypeID()) return nullptr;
        d = static_cast<CFDictionaryRef>(v);
    }
    return d;
}

CFIndex channelCount(CFDictionaryRef level) {
    CFTypeRef v = level ? getValue(level, "IOReportChannels") : nullptr;
    return v ? CFArrayGetCount(static_cast<CFArrayRef>(v)) : -1;
}

IOReturn add(CFMutableDictionaryRef agg, const char *driver, uint64_t id, const char *group = nullptr,
             const char *subgroup = nullptr, CFErrorRef *error = nullptr, uint64_t channel_type = type(1, 0, 1)) {
    CFRef<CFStringRef> d(driver ? str(driver) : nullptr);
    CFRef<CFStringRef> g(group ? str(group) : nullptr);
    CFRef<CFStringRef> s(subgroup ? str(subgroup) : nullptr);
    return IOReportAddChannelDescription(agg, 7, d.get(), id, channel_type, nullptr, g.get(), s.get(), nullptr, error);
}

}  // namespace

TEST(Aggregates, FileChannelsByDriverThenGroupThenSubgroup) {
    CFRef<CFMutableDictionaryRef> agg(IOReportCreateAggregate(kIOReportOptionByDriver | kIOReportOptionByGroup));
    EXPECT_EQ(_getAggregateOpts(agg.get()), 3u);

    ASSERT_EQ(add(agg.get(), "A", 1, "G", "S"), 0);
    ASSERT_EQ(add(agg.get(), "A", 2, "G"), 0);
    ASSERT_EQ(add(agg.get(), "A", 3), 0);
    ASSERT_EQ(add(agg.get(), "B", 4, nullptr, "S"), 0);   // a subgroup without a group files at the driver level

    EXPECT_EQ(channelCount(agg.get()), -1);
    EXPECT_EQ(channelCount(sub(agg.get(), {"IOReportDrivers", "A"})), 1);
    EXPECT_EQ(channelCount(sub(agg.get(), {"IOReportDrivers", "A", "IOReportChannelGroups", "G"})), 1);
    EXPECT_EQ(channelCount(sub(agg.get(), {"IOReportDrivers", "A", "IOReportChannelGroups", "G",
                                           "IOReportChannelGroups", "S"})),
              1);
    EXPECT_EQ(channelCount(sub(agg.get(), {"IOReportDrivers", "B"})), 1);
    EXPECT_EQ(IOReportGetChannelCount(agg.get()), 4);

    // Other option bits are kept but file nothing.
    CFRef<CFMutableDictionaryRef> flat(IOReportCreateAggregate(8));
    ASSERT_EQ(add(flat.get(), "A", 1, "G", "S"), 0);
    EXPECT_EQ(channelCount(flat.get()), 1);
}

TEST(Aggregates, FilingFailuresReportTheirCodes) {
    CFRef<CFMutableDictionaryRef> agg(IOReportCreateAggregate(kIOReportOptionByDriver));
    CFRef<CFErrorRef> e1;
    EXPECT_EQ(add(agg.get(), nullptr, 1, nullptr, nullptr, e1.slot()), mach(0xe00002bc));
    EXPECT_EQ(errorText(e1.get()), "_addChannel() failed");
    EXPECT_TRUE(CFEqual(CFErrorGetDomain(e1.get()), kCFErrorDomainMach));

    CFRef<CFErrorRef> e2;
    EXPECT_EQ(add(agg.get(), "A", kNone, nullptr, nullptr, e2.slot()), mach(0xe00002bc));
    EXPECT_EQ(errorText(e2.get()), "couldn't create channel");

    EXPECT_EQ(add(nullptr, "A", 1), mach(0xe00002c2));
    EXPECT_FALSE(createCFErr(static_cast<IOReturn>(0xe00002c2u), nullptr));   // no message, no error object
}

TEST(Aggregates, MergeSharesRecordsAndRefusesItself) {
    CFRef<CFMutableDictionaryRef> src(IOReportCreateAggregate(0));
    ASSERT_EQ(add(src.get(), "A", 1), 0);
    ASSERT_EQ(add(src.get(), "B", 2), 0);
    CFRef<CFMutableDictionaryRef> dst(IOReportCreateAggregate(kIOReportOptionByDriver));
    EXPECT_EQ(IOReportMergeChannels(dst.get(), src.get(), nullptr), 0);
    EXPECT_EQ(IOReportGetChannelCount(dst.get()), 2);
    auto before = channelsOf(src.get());
    CFDictionaryRef b = sub(dst.get(), {"IOReportDrivers", "B"});
    ASSERT_TRUE(b);
    EXPECT_EQ(CFArrayGetValueAtIndex(static_cast<CFArrayRef>(getValue(b, "IOReportChannels")), 0), before[1]);

    CFRef<CFErrorRef> e;
    EXPECT_EQ(IOReportMergeChannels(dst.get(), dst.get(), e.slot()), kIOReportIterFailed);
    EXPECT_EQ(errorText(e.get()), "bad argument");

    // A record that can't be filed stops the merge with the block's failure.
    CFRef<CFMutableDictionaryRef> nameless(IOReportCreateAggregate(0));
    ASSERT_EQ(add(nameless.get(), nullptr, 3), 0);
    CFRef<CFErrorRef> e2;
    EXPECT_EQ(IOReportMergeChannels(dst.get(), nameless.get(), e2.slot()), 1);
    EXPECT_EQ(errorText(e2.get()), "_addChannel() failed");
}

TEST(Walker, IterateCombinesEvenResultsAndStopsOnOdd) {
    CFRef<CFMutableDictionaryRef> agg(IOReportCreateAggregate(kIOReportOptionByDriver | kIOReportOptionByGroup));
    ASSERT_EQ(add(agg.get(), "A", 1, "G"), 0);
    ASSERT_EQ(add(agg.get(), "A", 2), 0);
    ASSERT_EQ(add(agg.get(), "B", 3), 0);

    int seen = 0;
    EXPECT_EQ(IOReportIterate(agg.get(), [&](CFMutableDictionaryRef) { return ++seen == 1 ? 2 : seen == 2 ? 4 : 0; }), 6);
    EXPECT_EQ(seen, 3);

    int calls = 0;
    EXPECT_EQ(IOReportIterate(agg.get(), [&](CFMutableDictionaryRef) { return ++calls == 2 ? 5 : 2; }), 5);
    EXPECT_EQ(calls, 2);

    EXPECT_EQ(IOReportIterate(nullptr, [](CFMutableDictionaryRef) { return 0; }), kIOReportIterFailed);
}

// (Prune: the legend fuzzer checks what it removes and that no level is left
// empty. Comparing two aggregates: the delta tests in values_test.cpp.)

// (A legend's records read back whole: tests/ioreport/discovery_test.cpp.)
TEST(Channels, AccessorsReadTheRecordOrReportNoValue) {
    CFRef<CFMutableDictionaryRef> rec(record(0x55, 0x41, type(3, 0x0102, 5)));
    EXPECT_EQ(IOReportChannelGetCategories(rec.get()), 0x0102);

    CFRef<CFMutableDictionaryRef> empty(talvex::test::make_dict());
    uint64_t t = 0;
    EXPECT_EQ(IOReportChannelGetChannelID(empty.get()), kNone);
    EXPECT_EQ(IOReportChannelGetFormat(empty.get()), 0);
    EXPECT_EQ(IOReportChannelGetCategories(empty.get()), 0xFFFF);
    EXPECT_EQ(IOReportChannelGetUnit(empty.get()), kNone);
    EXPECT_EQ(getChannelType(empty.get(), &t), mach(0xe00002bc));
    EXPECT_EQ(setChannelType(empty.get(), &t), mach(0xe00002bc));
    EXPECT_FALSE(IOReportChannelGetDriverName(nullptr));
    // A stored sentinel reads as missing; a non-number too.
    CFRef<CFNumberRef> sentinel(num(kNone));
    setValue(empty.get(), "DriverID", sentinel.get());
    EXPECT_EQ(IOReportChannelGetDriverID(empty.get()), kNone);
    CFRef<CFStringRef> s(str("12"));
    setValue(empty.get(), "DriverID", s.get());
    EXPECT_EQ(IOReportChannelGetDriverID(empty.get()), kNone);
}

TEST(Channels, NamesComeFromTheLegendOrThePrintableID) {
    CFRef<CFStringRef> idle(_copyPrintableIDString(0x49444C45204D5320ull));
    EXPECT_EQ(text(idle.get()), "IDLE MS ");
    CFRef<CFStringRef> gaps(_copyPrintableIDString(0x0041004200000043ull));
    EXPECT_EQ(text(gaps.get()), "ABC");
    EXPECT_FALSE(_copyPrintableIDString(0));
    EXPECT_FALSE(_copyPrintableIDString(0x4142014300000000ull));

    CFRef<CFMutableDictionaryRef> a(record(1, 0x544F54414C204D53ull, type(1, 0, 1)));
    EXPECT_EQ(text(IOReportChannelGetChannelName(a.get())), "TOTAL MS");
    EXPECT_EQ(text(static_cast<CFStringRef>(getValue(a.get(), "ChannelName"))), "TOTAL MS");

    CFRef<CFMutableDictionaryRef> b(record(1, 0x4101, type(1, 0, 1)));
    EXPECT_FALSE(IOReportChannelGetChannelName(b.get()));
    EXPECT_FALSE(getValue(b.get(), "ChannelName"));

    CFRef<CFMutableDictionaryRef> c(record(1, 0x4101, type(1, 0, 1), "legend name"));
    EXPECT_EQ(text(IOReportChannelGetChannelName(c.get())), "legend name");

    // A cached name wins over everything else.
    CFRef<CFStringRef> cached(str("cached"));
    setValue(c.get(), "ChannelName", cached.get());
    EXPECT_EQ(text(IOReportChannelGetChannelName(c.get())), "cached");
    EXPECT_FALSE(IOReportChannelGetChannelName(nullptr));
}
