// CFEqual on property lists that hold one object in many places, as the XML
// dialect's IDREF makes them: each pair of containers is compared once, so
// lists whose trees have 2^60 paths compare at once.
#include "cf_support.h"

#include <gtest/gtest.h>

using namespace talvex::test;

namespace {

// Level 0 holds `leaf`; level i holds level i-1 twice, in an array or in a
// dictionary under "a" and "b".
CFRef<CFTypeRef> chain(int levels, CFTypeRef leaf, bool dictionaries) {
    CFRef<CFTypeRef> level = CFRef<CFTypeRef>::retain(leaf);
    for (int i = 0; i <= levels; ++i) {
        const void *keys[] = {CFSTR("a"), CFSTR("b")};
        const void *values[] = {level.get(), level.get()};
        level.reset(dictionaries ? CFTypeRef(CFDictionaryCreate(nullptr, keys, values, 2, &kCFTypeDictionaryKeyCallBacks,
                                                                &kCFTypeDictionaryValueCallBacks))
                                 : CFTypeRef(CFArrayCreate(nullptr, values, 2, &kCFTypeArrayCallBacks)));
    }
    return level;
}

CFRef<CFTypeRef> pair(CFTypeRef p, CFTypeRef q) {
    const void *v[] = {p, q};
    return CFRef<CFTypeRef>(CFArrayCreate(nullptr, v, 2, &kCFTypeArrayCallBacks));
}

}  // namespace

TEST(CFEqual, SharedObjectsCostOneComparisonPerPair) {
    for (bool dictionaries : {false, true}) {
        CFRef<CFStringRef> x1 = talvex::make_cf_string("x"), x2 = talvex::make_cf_string("x"), y = talvex::make_cf_string("y");
        EXPECT_TRUE(CFEqual(chain(60, x1, dictionaries), chain(60, x2, dictionaries))) << dictionaries;
        EXPECT_FALSE(CFEqual(chain(60, x1, dictionaries), chain(60, y, dictionaries))) << dictionaries;
        // One side differs in one of the two places the other shares.
        CFRef<CFTypeRef> half = chain(59, x2, dictionaries), top = chain(59, x1, dictionaries);
        EXPECT_FALSE(CFEqual(pair(top, top), pair(half, chain(59, y, dictionaries)))) << dictionaries;
        EXPECT_TRUE(CFEqual(pair(top, top), pair(half, half))) << dictionaries;
    }
}
