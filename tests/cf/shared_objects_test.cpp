// CFEqual on property lists that hold one object in many places, as the XML
// dialect's IDREF makes them: each pair of containers is compared once, so
// lists whose trees have 2^60 paths compare at once, and the answer stays
// exact.
#include "cf_support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

using namespace talvex::test;

namespace {

// Level 0 holds `leaf`; level i holds level i-1 twice, in an array or in a
// dictionary under "a" and "b".
CFTypeRef chain(int levels, CFTypeRef leaf, bool dictionaries) {
    CFTypeRef level = CFRetain(leaf);
    for (int i = 0; i <= levels; ++i) {
        CFTypeRef next;
        if (dictionaries) {
            CFMutableDictionaryRef d = make_dict();
            CFDictionarySetValue(d, CFSTR("a"), level);
            CFDictionarySetValue(d, CFSTR("b"), level);
            next = d;
        } else {
            CFMutableArrayRef a = make_array();
            CFArrayAppendValue(a, level);
            CFArrayAppendValue(a, level);
            next = a;
        }
        CFRelease(level);
        level = next;
    }
    return level;
}

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

TEST(CFEqual, SharedObjectsCostOneComparisonPerPair) {
    auto start = std::chrono::steady_clock::now();
    for (bool dictionaries : {false, true}) {
        CFRef<CFStringRef> x1(CFStringCreateWithCString(nullptr, "x", kCFStringEncodingUTF8));
        CFRef<CFStringRef> x2(CFStringCreateWithCString(nullptr, "x", kCFStringEncodingUTF8));
        CFRef<CFStringRef> y(CFStringCreateWithCString(nullptr, "y", kCFStringEncodingUTF8));
        CFRef<CFTypeRef> a(chain(60, x1, dictionaries));
        CFRef<CFTypeRef> b(chain(60, x2, dictionaries));
        CFRef<CFTypeRef> c(chain(60, y, dictionaries));
        EXPECT_TRUE(CFEqual(a, b)) << dictionaries;
        EXPECT_FALSE(CFEqual(a, c)) << dictionaries;

        // One side differs in one of the two places the other shares.
        CFRef<CFTypeRef> half(chain(59, x2, dictionaries));
        CFRef<CFTypeRef> other(chain(59, y, dictionaries));
        CFRef<CFMutableArrayRef> mixed(make_array());
        CFArrayAppendValue(mixed, half);
        CFArrayAppendValue(mixed, other);
        CFRef<CFMutableArrayRef> same(make_array());
        CFArrayAppendValue(same, half);
        CFArrayAppendValue(same, half);
        CFRef<CFTypeRef> top(chain(59, x1, dictionaries));
        CFRef<CFMutableArrayRef> shared(make_array());
        CFArrayAppendValue(shared, top);
        CFArrayAppendValue(shared, top);
        EXPECT_FALSE(CFEqual(shared, mixed)) << dictionaries;
        EXPECT_TRUE(CFEqual(shared, same)) << dictionaries;
    }
    // Path by path this would take about 2^61 comparisons.
    EXPECT_LT(seconds_since(start), 10.0);
}

TEST(CFEqual, PairsFoundEqualAreForgottenAfterTheComparison) {
    // Enough containers to use the table of equal pairs.
    CFRef<CFMutableArrayRef> a(make_array()), b(make_array());
    for (int i = 0; i < 1000; ++i) {
        CFRef<CFNumberRef> n1(make_int(i)), n2(make_int(i));
        CFRef<CFMutableArrayRef> ia(make_array()), ib(make_array());
        CFArrayAppendValue(ia, n1);
        CFArrayAppendValue(ib, n2);
        CFArrayAppendValue(a, ia);
        CFArrayAppendValue(b, ib);
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
