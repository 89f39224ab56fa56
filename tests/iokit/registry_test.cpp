// Matching, iterators, registry properties and object references against a
// private simulator.
#include <IOKit/IOKitLib.h>
#include <gtest/gtest.h>

#include <string>

#include "cf_support.h"
#include "iokit_support.h"
#include "tool_support.h"

namespace talvex::test {
namespace {

int64_t number_value(CFTypeRef n) {
    int64_t v = -1;
    EXPECT_EQ(CFGetTypeID(n), CFNumberGetTypeID());
    CFNumberGetValue(static_cast<CFNumberRef>(n), kCFNumberSInt64Type, &v);
    return v;
}

// { key: { inner: value } }, value consumed.
CFMutableDictionaryRef nested(const char *key, CFStringRef inner, CFTypeRef value) {
    CFMutableDictionaryRef in = make_dict(), out = make_dict();
    CFDictionarySetValue(in, inner, value);
    CFRelease(value);
    CFStringRef k = CFStringCreateWithCString(nullptr, key, kCFStringEncodingUTF8);
    CFDictionarySetValue(out, k, in);
    CFRelease(k);
    CFRelease(in);
    return out;
}

// The names of what the iterator hands out from here on.
std::vector<std::string> names(io_iterator_t it) {
    std::vector<std::string> out;
    while (io_object_t s = IOIteratorNext(it)) {
        io_name_t name;
        EXPECT_EQ(IORegistryEntryGetName(s, name), KERN_SUCCESS);
        out.emplace_back(name);
        IOObjectRelease(s);
    }
    return out;
}

TEST(Matching, FindsServicesByClassNameAndPropertyCountsReferencesAndConsumesTheDictionary) {
    Simulator sim;
    in_child(sim.socket(), [] {
        CFMutableDictionaryRef m = IOServiceMatching("ZantraTalvexProcessor");
        CFStringRef cls = static_cast<CFStringRef>(CFDictionaryGetValue(m, CFSTR(kIOProviderClassKey)));
        EXPECT_EQ(text(cls), "ZantraTalvexProcessor");
        io_service_t cp = IOServiceGetMatchingService(kIOMainPortDefault, m);
        io_service_t hub = IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching("IOReportHub"));
        ASSERT_TRUE(cp && hub);
        io_name_t name;
        ASSERT_EQ(IORegistryEntryGetName(hub, name), KERN_SUCCESS);
        EXPECT_STREQ(name, "IOReportHub");
        uint64_t cp_id = 0, hub_id = 0;
        ASSERT_EQ(IORegistryEntryGetRegistryEntryID(cp, &cp_id), KERN_SUCCESS);
        ASSERT_EQ(IORegistryEntryGetRegistryEntryID(hub, &hub_id), KERN_SUCCESS);
        EXPECT_NE(hub_id, cp_id);
        EXPECT_FALSE(IOObjectIsEqualTo(cp, hub));

        // The same entry found another way is the same object, one more count.
        io_service_t by_prop = IOServiceGetMatchingService(
            kIOMainPortDefault, nested(kIOPropertyMatchKey, CFSTR("talvex-state"), make_int(0x10002)));
        EXPECT_TRUE(IOObjectIsEqualTo(by_prop, cp));
        CFMutableDictionaryRef by_name_dict = make_dict();
        CFDictionarySetValue(by_name_dict, CFSTR(kIONameMatchKey), CFSTR("IOReportHub"));
        io_service_t by_name = IOServiceGetMatchingService(kIOMainPortDefault, by_name_dict);
        EXPECT_TRUE(IOObjectIsEqualTo(by_name, hub));
        EXPECT_EQ(IOObjectGetUserRetainCount(cp), 2u);

        // Nothing matches: no service, and an empty but valid iterator.
        EXPECT_EQ(IOServiceGetMatchingService(
                      kIOMainPortDefault, nested(kIOPropertyMatchKey, CFSTR("talvex-state"), make_int(0x10003))),
                  0u);
        io_iterator_t it = 0;
        ASSERT_EQ(IOServiceGetMatchingServices(kIOMainPortDefault, IOServiceMatching("NoSuchDriver"), &it),
                  KERN_SUCCESS);
        EXPECT_TRUE(IOIteratorIsValid(it));
        EXPECT_EQ(IOIteratorNext(it), 0u);
        EXPECT_EQ(IOObjectRelease(it), KERN_SUCCESS);

        for (io_object_t o : {cp, by_prop, hub, by_name}) EXPECT_EQ(IOObjectRelease(o), KERN_SUCCESS);
        // Gone: the handle names nothing now.
        EXPECT_EQ(IOObjectGetUserRetainCount(cp), 0u);
        EXPECT_NE(IOObjectRelease(cp), KERN_SUCCESS);
        EXPECT_NE(IOObjectRetain(cp), KERN_SUCCESS);
        EXPECT_EQ(IOObjectGetClass(cp, name), kInvalidHandle);
        EXPECT_EQ(IORegistryEntryGetRegistryEntryID(cp, &cp_id), kInvalidHandle);

        // The matching dictionary is consumed whatever happens.
        m = IOServiceMatching("ZantraTalvexProcessor");
        CFRetain(m);
        io_service_t s = IOServiceGetMatchingService(kIOMainPortDefault, m);
        EXPECT_EQ(CFGetRetainCount(m), 1);
        CFRetain(m);
        EXPECT_EQ(IOServiceGetMatchingServices(kIOMainPortDefault, m, &it), KERN_SUCCESS);
        EXPECT_EQ(CFGetRetainCount(m), 1);
        CFRetain(m);
        EXPECT_EQ(IOServiceGetMatchingServices(kIOMainPortDefault, m, nullptr), kIOReturnBadArgument);
        EXPECT_EQ(CFGetRetainCount(m), 1);
        CFRelease(m);

        // A dictionary that cannot be serialised is refused, and still consumed.
        CFMutableDictionaryRef bad = IOServiceMatching("x");
        CFURLRef url = CFURLCreateWithFileSystemPath(kCFAllocatorDefault, CFSTR("/tmp"), kCFURLPOSIXPathStyle, true);
        CFDictionarySetValue(bad, CFSTR("url"), url);
        CFRelease(url);
        io_iterator_t none = 123;
        EXPECT_EQ(IOServiceGetMatchingServices(kIOMainPortDefault, bad, &none), kIOReturnBadArgument);
        EXPECT_EQ(none, 0u);
        EXPECT_EQ(IOServiceGetMatchingServices(kIOMainPortDefault, nullptr, &none), kIOReturnBadArgument);
        EXPECT_EQ(IOServiceMatching(nullptr), nullptr);
        IOObjectRelease(s);
        IOObjectRelease(it);
    });
}

TEST(Registry, IteratorsGoInvalidWhenTheRegistryChangesAndBadPropertiesNeverReachTheSimulator) {
    Simulator sim;
    in_child(sim.socket(), [&] {
        // An empty matching dictionary matches every published service.
        io_iterator_t it = 0;
        ASSERT_EQ(IOServiceGetMatchingServices(kIOMainPortDefault, make_dict(), &it), KERN_SUCCESS);
        EXPECT_EQ(names(it), (std::vector<std::string>{"ZantraTalvexProcessor", "IOReportHub", "ZantraPowerController",
                                                      "ZantraThermalMonitor"}));
        EXPECT_TRUE(IOIteratorIsValid(it));

        control(sim, {"service", "unpublish", "IOReportHub"});
        EXPECT_FALSE(IOIteratorIsValid(it));
        IOIteratorReset(it);
        EXPECT_TRUE(IOIteratorIsValid(it));
        EXPECT_EQ(names(it),
                  (std::vector<std::string>{"ZantraTalvexProcessor", "ZantraPowerController", "ZantraThermalMonitor"}));
        EXPECT_EQ(IOObjectRelease(it), KERN_SUCCESS);
        EXPECT_FALSE(IOIteratorIsValid(it));
        EXPECT_EQ(IOIteratorNext(it), 0u);

        // Bad keys, values and handles never reach the simulator.
        sim.trace(true);
        io_service_t cp = coprocessor();
        ASSERT_NE(cp, 0u);
        EXPECT_EQ(IORegistryEntryCreateCFProperty(cp, CFSTR("no-such-key"), kCFAllocatorDefault, 0), nullptr);
        CFRef<CFNumberRef> not_a_key(make_int(1));
        auto bad_key = reinterpret_cast<CFStringRef>(not_a_key.get());
        EXPECT_EQ(IORegistryEntryCreateCFProperty(cp, bad_key, nullptr, 0), nullptr);
        CFRef<CFURLRef> url(
            CFURLCreateWithFileSystemPath(kCFAllocatorDefault, CFSTR("/tmp"), kCFURLPOSIXPathStyle, true));
        EXPECT_EQ(IORegistryEntrySetCFProperty(cp, CFSTR("url"), url), kIOReturnBadArgument);
        EXPECT_EQ(IORegistryEntrySetCFProperty(cp, CFSTR("null"), nullptr), kIOReturnBadArgument);
        EXPECT_EQ(IORegistryEntrySetCFProperty(cp, bad_key, CFSTR("x")), kIOReturnBadArgument);
        EXPECT_EQ(IORegistryEntrySetCFProperty(0, CFSTR("key"), CFSTR("x")), kInvalidHandle);

        // All of them at once, in a dictionary the caller may change.
        control(sim, {"property", "set", "talvex-state", "0x10004"});
        CFMutableDictionaryRef all = nullptr;
        ASSERT_EQ(IORegistryEntryCreateCFProperties(cp, &all, kCFAllocatorDefault, 0), KERN_SUCCESS);
        CFRef<CFMutableDictionaryRef> owned(all);
        EXPECT_EQ(number_value(CFDictionaryGetValue(all, CFSTR("talvex-state"))), 0x10004);
        CFDictionarySetValue(all, CFSTR("mutable"), kCFBooleanTrue);
        IOObjectRelease(cp);
    });
    EXPECT_EQ(sim.trace(), std::vector<std::string>{});
}

}  // namespace
}  // namespace talvex::test
