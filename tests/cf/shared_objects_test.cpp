// CFEqual on property lists that hold one object in many places, as the XML
// dialect's IDREF makes them: each pair of containers is compared once, so
// lists whose trees have 2^60 paths compare at once (path by path the test
// would never end), and the answer stays exact.
#include "cf_support.h"

#include <gtest/gtest.h>

#include <string>

using namespace talvex::test;
using talvex::make_cf_string;

namespace {

// Level 0 holds `leaf`; level i holds level i-1 twice, in an array or in a
// dictionary under "a" and "b".
CFTypeRef chain(int levels, CFTypeRef leaf, bool dictionaries) {
    CFTypeRef level = CFRetain(leaf);
    for (int i = 0; i <= levels; ++i) {
        const void *keys[] = {CFSTR("a"), CFSTR("b")};
        const void *values[] = {level, level};
        CFTypeRef next = dictionaries ? CFTypeRef(CFDictionaryCreate(nullptr, keys, values, 2, &kCFTypeDictionaryKeyCallBacks,
                                                                     &kCFTypeDictionaryValueCallBacks))
                                      : CFTypeRef(CFArrayCreate(nullptr, values, 2, &kCFTypeArrayCallBacks));
        CFRelease(level);
        level = next;
    }
    return level;
}

}  // namespace

TEST(CFEqual, SharedObjectsCostOneComparisonPerPair) {
    for (bool dictionaries : {false, true}) {
        CFRef<CFStringRef> x1 = make_cf_string("x"), x2 = make_cf_string("x"), y = make_cf_string("y");
        CFRef<CFTypeRef> a(chain(60, x1, dictionaries)), b(chain(60, x2, dictionaries)), c(chain(60, y, dictionaries));
        EXPECT_TRUE(CFEqual(a, b)) << dictionaries;
        EXPECT_FALSE(CFEqual(a, c)) << dictionaries;

        // One side differs in one of the two places the other shares.
        CFRef<CFTypeRef> half(chain(59, x2, dictionaries)), other(chain(59, y, dictionaries));
        auto two = [](CFTypeRef p, CFTypeRef q) {
            const void *v[] = {p, q};
            return CFRef<CFArrayRef>(CFArrayCreate(nullptr, v, 2, &kCFTypeArrayCallBacks));
        };
        CFRef<CFTypeRef> top(chain(59, x1, dictionaries));
        CFRef<CFArrayRef> mixed = two(half, other), same = two(half, half), shared = two(top, top);
        EXPECT_FALSE(CFEqual(shared, mixed)) << dictionaries;
        EXPECT_TRUE(CFEqual(shared, same)) << dictionaries;
    }
}

TEST(CFEqual, PairsFoundEqualAreForgottenAfterTheComparison) {
    // Enough containers to use the table of equal pairs.
    CFRef<CFMutableArrayRef> a(make_array()), b(make_array());
    for (int i = 0; i < 1000; ++i)
        for (CFMutableArrayRef side : {a.get(), b.get()}) {
            CFRef<CFNumberRef> n(make_int(i));
            CFRef<CFMutableArrayRef> inner(make_array());
            CFArrayAppendValue(inner, n);
            CFArrayAppendValue(side, inner);
        }
    EXPECT_TRUE(CFEqual(a, b));
    // A pair found equal above no longer is.
    auto inner = const_cast<CFMutableArrayRef>(static_cast<CFArrayRef>(CFArrayGetValueAtIndex(b, 400)));
    CFArrayAppendValue(inner, CFSTR("more"));
    EXPECT_FALSE(CFEqual(a, b));
    EXPECT_FALSE(CFEqual(b, a));
    CFArrayRemoveValueAtIndex(inner, 1);
    EXPECT_TRUE(CFEqual(a, b));
    // The last pair differs: everything before it was equal.
    CFRef<CFNumberRef> other(make_int(-1));
    auto last = const_cast<CFMutableArrayRef>(static_cast<CFArrayRef>(CFArrayGetValueAtIndex(a, 999)));
    CFArraySetValueAtIndex(last, 0, other);
    EXPECT_FALSE(CFEqual(a, b));
}
