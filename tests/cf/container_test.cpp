// CFArray and CFDictionary: deep equality, and the work lookups do in large
// dictionaries. (Editing, order and copies against a model, at
// every size across the scanned limit: fuzz/containers_fuzz.cpp.)
#include "cf_support.h"

#include <gtest/gtest.h>

#include <vector>

using namespace talvex::test;

// Distinct objects with equal contents are equal, dictionaries in any order.
TEST(CFContainers, EqualityIsDeep) {
    CFRef<CFMutableArrayRef> inner(make_array()), inner2(make_array());
    for (CFMutableArrayRef list : {inner.get(), inner2.get()}) CFArrayAppendValue(list, talvex::make_cf_string("x"));
    CFRef<CFNumberRef> one(make_int(1)), one_again(make_int(1));
    const void *k1[] = {CFSTR("a"), CFSTR("b")};
    const void *v1[] = {one.get(), inner.get()};
    CFRef<CFArrayRef> a(CFArrayCreate(nullptr, v1, 2, &kCFTypeArrayCallBacks));
    CFRef<CFDictionaryRef> x(
        CFDictionaryCreate(nullptr, k1, v1, 2, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
    CFRef<CFMutableArrayRef> b(make_array());
    CFArrayAppendValue(b, inner2);
    CFArrayAppendValue(b, one_again);
    CFRef<CFMutableDictionaryRef> y(make_dict());
    CFDictionarySetValue(y, CFSTR("b"), inner2);
    CFDictionarySetValue(y, CFSTR("a"), one_again);
    EXPECT_FALSE(CFEqual(a, b));   // order counts in arrays
    CFArrayRemoveValueAtIndex(b, 0);
    CFArrayAppendValue(b, inner2);
    for (auto [p, q] : {std::pair<CFTypeRef, CFTypeRef>{a, b}, {x, y}, {y, x}}) {
        EXPECT_TRUE(CFEqual(p, q));
        EXPECT_EQ(CFHash(p), CFHash(q));
    }
    CFArrayAppendValue(inner2, CFSTR("y"));
    EXPECT_FALSE(CFEqual(a, b));
    EXPECT_FALSE(CFEqual(x, y));
    CFArrayRemoveValueAtIndex(inner2, 1);
    CFDictionarySetValue(y, CFSTR("a"), CFSTR("1"));
    EXPECT_FALSE(CFEqual(x, y));
}

namespace {

// Key callbacks that count comparisons: the work a lookup does, measured exactly.
long g_key_compares = 0;
Boolean counting_equal(const void *a, const void *b) {
    ++g_key_compares;
    return CFEqual(a, b);
}
const CFDictionaryKeyCallBacks kCountingKeys = {{0, kCFTypeDictionaryKeyCallBacks.retain,
                                                 kCFTypeDictionaryKeyCallBacks.release, CFCopyDescription, counting_equal},
                                                CFHash};

}  // namespace

TEST(CFDictionary, LargeDictionariesStayHashedAndChurnLeavesNoResidue) {
    constexpr int kKeys = 50000;
    std::vector<CFRef<CFNumberRef>> keys;
    for (int i = 0; i < kKeys; ++i) keys.emplace_back(make_int(i * 7919));
    auto k = [&](int i) { return keys[static_cast<size_t>(i)].get(); };
    CFRef<CFMutableDictionaryRef> d(CFDictionaryCreateMutable(nullptr, 0, &kCountingKeys, &kCFTypeDictionaryValueCallBacks));
    g_key_compares = 0;
    for (int i = 0; i < kKeys; ++i) CFDictionarySetValue(d, k(i), k(i));
    for (int i = 0; i < kKeys; i += 2) CFDictionaryRemoveValue(d, k(i));
    for (int i = 0; i < kKeys; ++i) ASSERT_EQ(CFDictionaryContainsKey(d, k(i)), i % 2 == 1) << i;
    for (int i = 0; i < kKeys; i += 2) CFDictionaryAddValue(d, k(i), kCFBooleanTrue);
    // 175k operations; a linear table would compare billions of times.
    EXPECT_LT(g_key_compares, 4L * kKeys) << "lookups are not hashed";
    EXPECT_EQ(CFDictionaryGetCount(d), kKeys);

    // A small working set churning through many keys: iteration visits only
    // what is there, not everything ever removed.
    CFRef<CFMutableDictionaryRef> churn(make_dict());
    for (int i = 0; i < kKeys; ++i) {
        CFDictionarySetValue(churn, k(i), kCFBooleanTrue);
        if (i >= 8) CFDictionaryRemoveValue(churn, k(i - 8));
        long visited = 0;
        CFDictionaryApplyFunction(churn, [](const void *, const void *, void *n) { ++*static_cast<long *>(n); }, &visited);
        ASSERT_LE(visited, 9);
    }
}
