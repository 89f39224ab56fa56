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

namespace {

// "key=value ..." in the order the dictionary walks its entries.
std::string entries(CFDictionaryRef d) {
    std::string out;
    CFDictionaryApplyFunction(
        d,
        [](const void *k, const void *v, void *context) {
            int64_t n = 0;
            CFNumberGetValue(static_cast<CFNumberRef>(v), kCFNumberSInt64Type, &n);
            auto &s = *static_cast<std::string *>(context);
            if (!s.empty()) s += ' ';
            s += text(static_cast<CFStringRef>(k));
            s += '=';
            s += std::to_string(n);
        },
        &out);
    return out;
}

void put(CFMutableDictionaryRef d, const std::string &key, int64_t v) {
    CFRef<CFStringRef> k(talvex::make_cf_string(key));
    CFRef<CFNumberRef> n(make_int(v));
    CFDictionarySetValue(d, k, n);
}

}  // namespace

// Copies share their original's entries; whichever side changes afterwards,
// the other keeps what it had, in order, however many copies deep.
TEST(CFDictionary, CopiesAndOriginalsChangeIndependently) {
    CFRef<CFMutableDictionaryRef> m(make_dict());
    for (const char *key : {"a", "b", "c", "d", "e"}) put(m, key, key[0] - 'a' + 1);
    CFRef<CFMutableDictionaryRef> c1(CFDictionaryCreateMutableCopy(nullptr, 0, m));
    put(m, "a", 10);
    CFDictionaryRemoveValue(m, CFSTR("e"));
    put(c1, "b", 20);
    put(c1, "f", 6);
    EXPECT_EQ(entries(m), "a=10 b=2 c=3 d=4");
    CFRef<CFDictionaryRef> m_now(CFDictionaryCreateCopy(nullptr, m));
    put(m, "b", 22);
    EXPECT_EQ(entries(m_now), "a=10 b=2 c=3 d=4");
    EXPECT_EQ(entries(m), "a=10 b=22 c=3 d=4");
    EXPECT_EQ(entries(c1), "a=1 b=20 c=3 d=4 e=5 f=6");
    EXPECT_EQ(CFDictionaryGetCount(c1), 6);

    CFRef<CFMutableDictionaryRef> c2(CFDictionaryCreateMutableCopy(nullptr, 0, c1));
    CFRef<CFDictionaryRef> frozen(CFDictionaryCreateCopy(nullptr, c1));
    CFDictionaryAddValue(c2, CFSTR("a"), kCFBooleanTrue);      // present: no change
    CFDictionaryReplaceValue(c2, CFSTR("g"), kCFBooleanTrue);  // absent: no change
    CFRef<CFNumberRef> thirty(make_int(30));
    CFDictionaryReplaceValue(c2, CFSTR("c"), thirty);
    CFDictionaryRemoveValue(c2, CFSTR("d"));
    put(c1, "f", 60);
    EXPECT_EQ(entries(c2), "a=1 b=20 c=30 e=5 f=6");
    EXPECT_EQ(entries(frozen), "a=1 b=20 c=3 d=4 e=5 f=6");
    EXPECT_EQ(entries(c1), "a=1 b=20 c=3 d=4 e=5 f=60");

    // Equal to a dictionary built directly, and found by an equal key that
    // is another object.
    CFRef<CFMutableDictionaryRef> direct(make_dict());
    for (auto [key, v] : {std::pair{"f", 60}, {"e", 5}, {"d", 4}, {"c", 3}, {"b", 20}, {"a", 1}}) put(direct, key, v);
    EXPECT_TRUE(CFEqual(c1, direct));
    EXPECT_TRUE(CFEqual(direct, c1));
    EXPECT_EQ(CFHash(c1), CFHash(direct));
    EXPECT_FALSE(CFEqual(c2, direct));
    CFRef<CFStringRef> b(talvex::make_cf_string("b"));
    EXPECT_TRUE(CFEqual(CFDictionaryGetValue(c1, b), CFDictionaryGetValue(direct, CFSTR("b"))));

    // Looked up by the very key object the shared entries hold, a key is
    // found shadowed however many keys the copy has added.
    const void *keys[6];
    CFDictionaryGetKeysAndValues(frozen, keys, nullptr);
    CFRef<CFMutableDictionaryRef> big(CFDictionaryCreateMutableCopy(nullptr, 0, frozen));
    CFRef<CFNumberRef> hundred(make_int(100));
    CFDictionarySetValue(big, keys[0], hundred);
    for (int i = 0; i < 20; ++i) put(big, std::string(1, 'k').append(std::to_string(i)), i);
    EXPECT_EQ(CFDictionaryGetValue(big, keys[0]), hundred.get());

    // Emptied copies hold nothing, and their originals lose nothing.
    CFDictionaryRemoveAllValues(c1);
    EXPECT_EQ(CFDictionaryGetCount(c1), 0);
    EXPECT_EQ(CFDictionaryGetValue(c1, CFSTR("a")), nullptr);
    put(c1, "z", 26);
    EXPECT_EQ(entries(c1), "z=26");
    m.reset();
    EXPECT_EQ(entries(frozen), "a=1 b=20 c=3 d=4 e=5 f=6");
}
