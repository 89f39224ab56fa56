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

// The same entry found twice is one handle with two counts; after the last
// release the handle names nothing. (Finding by class and by property, and
// the matching dictionary given up every time, which the sanitizer run of
// the cases would report as a leak: every command and report case.)
TEST(Matching, OneHandlePerEntryCountedUntilItsLastRelease) {
    Simulator sim;
    in_child(sim.socket(), [] {
        io_service_t cp = coprocessor(), again = coprocessor();
        ASSERT_NE(cp, 0u);
        EXPECT_EQ(cp, again);
        EXPECT_EQ(IOObjectGetUserRetainCount(cp), 2u);
        io_iterator_t it = 0;
        ASSERT_EQ(IOServiceGetMatchingServices(kIOMainPortDefault, IOServiceMatching("NoSuchDriver"), &it),
                  KERN_SUCCESS);
        EXPECT_TRUE(IOIteratorIsValid(it));   // nothing matches: an empty but valid iterator
        EXPECT_EQ(IOIteratorNext(it), 0u);
        EXPECT_EQ(IOObjectRelease(it), KERN_SUCCESS);
        for (io_object_t o : {cp, again}) EXPECT_EQ(IOObjectRelease(o), KERN_SUCCESS);
        EXPECT_EQ(IOObjectGetUserRetainCount(cp), 0u);
        EXPECT_NE(IOObjectRelease(cp), KERN_SUCCESS);
        EXPECT_NE(IOObjectRetain(cp), KERN_SUCCESS);
        io_name_t name;
        EXPECT_EQ(IOObjectGetClass(cp, name), kInvalidHandle);
        uint64_t id = 0;
        EXPECT_EQ(IORegistryEntryGetRegistryEntryID(cp, &id), kInvalidHandle);
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
        EXPECT_EQ(IOObjectRelease(it), KERN_SUCCESS);
        EXPECT_FALSE(IOIteratorIsValid(it));
        EXPECT_EQ(IOIteratorNext(it), 0u);

        // Bad keys, values and handles never reach the simulator.
        sim.trace(true);
        io_service_t cp = coprocessor();
        ASSERT_NE(cp, 0u);
        EXPECT_EQ(IORegistryEntryCreateCFProperty(cp, CFSTR("no-such-key"), kCFAllocatorDefault, 0), nullptr);
        CFRef<CFURLRef> url(
            CFURLCreateWithFileSystemPath(kCFAllocatorDefault, CFSTR("/tmp"), kCFURLPOSIXPathStyle, true));
        EXPECT_EQ(IORegistryEntrySetCFProperty(cp, CFSTR("url"), url), kIOReturnBadArgument);
        EXPECT_EQ(IORegistryEntrySetCFProperty(cp, CFSTR("null"), nullptr), kIOReturnBadArgument);
        EXPECT_EQ(IORegistryEntrySetCFProperty(0, CFSTR("key"), CFSTR("x")), kInvalidHandle);
        IOObjectRelease(cp);
    });
    EXPECT_EQ(sim.trace(), std::vector<std::string>{});
}

}  // namespace
}  // namespace talvex::test
