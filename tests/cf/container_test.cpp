// CFArray and CFDictionary: callbacks, copies, order, equality, descriptions,
// and the cost of large dictionaries.
#include "cf_support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

using namespace talvex::test;

namespace {

std::vector<std::string> keys_in_order(CFDictionaryRef d) {
    std::vector<std::string> out;
    CFDictionaryApplyFunction(
        d, [](const void *key, const void *, void *ctx) {
            static_cast<std::vector<std::string> *>(ctx)->push_back(text(static_cast<CFStringRef>(key)));
        },
        &out);
    return out;
}

std::vector<std::string> values_of(CFArrayRef a) {
    std::vector<std::string> out;
    CFArrayApplyFunction(
        a, CFRangeMake(0, CFArrayGetCount(a)),
        [](const void *value, void *ctx) {
            static_cast<std::vector<std::string> *>(ctx)->push_back(describe(value));
        },
        &out);
    return out;
}

using Strings = std::vector<std::string>;

}  // namespace

TEST(CFArray, EditingKeepsOrderAndFindsByValue) {
    CFRef<CFMutableArrayRef> a(make_array());
    CFArrayAppendValue(a, CFSTR("b"));
    CFArrayInsertValueAtIndex(a, 0, CFSTR("a"));
    CFArrayInsertValueAtIndex(a, 2, CFSTR("d"));
    CFArrayInsertValueAtIndex(a, 2, CFSTR("c"));
    EXPECT_EQ(values_of(a), (Strings{"a", "b", "c", "d"}));
    CFArraySetValueAtIndex(a, 1, CFSTR("B"));
    CFArraySetValueAtIndex(a, 4, CFSTR("e"));   // one past the end appends
    CFArrayRemoveValueAtIndex(a, 0);
    EXPECT_EQ(values_of(a), (Strings{"B", "c", "d", "e"}));

    CFArrayAppendArray(a, a, CFRangeMake(1, 2));   // from itself
    EXPECT_EQ(values_of(a), (Strings{"B", "c", "d", "e", "c", "d"}));

    // Lookups compare with CFEqual: another string object with the same text is found.
    CFRef<CFStringRef> d(CFStringCreateWithCString(nullptr, "d", kCFStringEncodingUTF8));
    EXPECT_EQ(CFArrayGetFirstIndexOfValue(a, CFRangeMake(0, 6), d), 2);
    EXPECT_EQ(CFArrayGetFirstIndexOfValue(a, CFRangeMake(3, 3), d), 5);
    EXPECT_EQ(CFArrayGetFirstIndexOfValue(a, CFRangeMake(0, 2), d), kCFNotFound);
    EXPECT_TRUE(CFArrayContainsValue(a, CFRangeMake(0, 6), CFSTR("e")));
    EXPECT_FALSE(CFArrayContainsValue(a, CFRangeMake(0, 6), CFSTR("z")));

    const void *some[2];
    CFArrayGetValues(a, CFRangeMake(3, 2), some);
    EXPECT_EQ(some[0], CFSTR("e"));
    EXPECT_EQ(some[1], CFSTR("c"));

    CFArrayRemoveAllValues(a);
    EXPECT_EQ(CFArrayGetCount(a), 0);
}

TEST(CFArray, PlainPointerArraysNeitherRetainNorCompareByValue) {
    CFRef<CFStringRef> s(CFStringCreateWithCString(nullptr, "x", kCFStringEncodingUTF8));
    CFRef<CFMutableArrayRef> plain(CFArrayCreateMutable(nullptr, 0, nullptr));
    CFArrayAppendValue(plain, s);
    CFArrayAppendValue(plain, reinterpret_cast<const void *>(uintptr_t{42}));
    EXPECT_EQ(CFGetRetainCount(s), 1);
    CFRef<CFStringRef> other(CFStringCreateWithCString(nullptr, "x", kCFStringEncodingUTF8));
    EXPECT_EQ(CFArrayGetFirstIndexOfValue(plain, CFRangeMake(0, 2), other), kCFNotFound);
    EXPECT_EQ(CFArrayGetFirstIndexOfValue(plain, CFRangeMake(0, 2), reinterpret_cast<const void *>(uintptr_t{42})), 1);
    CFRef<CFArrayRef> copy(CFArrayCreateCopy(nullptr, plain));
    EXPECT_EQ(CFGetRetainCount(s), 1);
    EXPECT_EQ(CFArrayGetValueAtIndex(copy, 1), reinterpret_cast<const void *>(uintptr_t{42}));
}

TEST(CFArray, MutableCopiesAreIndependentAndEqualityIsDeep) {
    CFRef<CFMutableArrayRef> inner(make_array());
    CFArrayAppendValue(inner, CFSTR("x"));
    CFRef<CFMutableArrayRef> a(make_array());
    CFArrayAppendValue(a, inner);
    CFRef<CFNumberRef> one(make_int(1));
    CFArrayAppendValue(a, one);

    CFRef<CFMutableArrayRef> copy(CFArrayCreateMutableCopy(nullptr, 0, a));
    EXPECT_TRUE(CFEqual(a, copy));
    CFArrayAppendValue(copy, CFSTR("more"));
    EXPECT_EQ(CFArrayGetCount(a), 2);
    EXPECT_FALSE(CFEqual(a, copy));
    CFArrayRemoveValueAtIndex(copy, 2);

    // Deep: equal contents in distinct objects.
    CFRef<CFMutableArrayRef> inner2(make_array());
    CFRef<CFStringRef> x(CFStringCreateWithCString(nullptr, "x", kCFStringEncodingUTF8));
    CFArrayAppendValue(inner2, x);
    int32_t one32 = 1;
    CFRef<CFNumberRef> one_again(CFNumberCreate(nullptr, kCFNumberSInt32Type, &one32));
    const void *values[] = {inner2.get(), one_again.get()};
    CFRef<CFArrayRef> built(CFArrayCreate(nullptr, values, 2, &kCFTypeArrayCallBacks));
    EXPECT_TRUE(CFEqual(a, built));
    EXPECT_EQ(CFHash(a), CFHash(built));
    // The copy is shallow: changing the shared inner array shows in both.
    CFArrayAppendValue(inner, CFSTR("y"));
    EXPECT_TRUE(CFEqual(a, copy));
    EXPECT_FALSE(CFEqual(a, built));
}

TEST(CFArray, Description) {
    CFRef<CFMutableArrayRef> a(make_array());
    EXPECT_EQ(describe(a), "(\n)");
    CFRef<CFNumberRef> n(make_int(7));
    CFArrayAppendValue(a, CFSTR("a"));
    CFArrayAppendValue(a, n);
    EXPECT_EQ(describe(a), "(\n    a,\n    7\n)");
    CFRef<CFMutableArrayRef> outer(make_array());
    CFArrayAppendValue(outer, a);
    CFRef<CFMutableDictionaryRef> d(make_dict());
    CFDictionarySetValue(d, CFSTR("k"), kCFBooleanTrue);
    CFArrayAppendValue(outer, d);
    EXPECT_EQ(describe(outer), "(\n    (\n        a,\n        7\n    ),\n    {\n        k = true;\n    }\n)");
}

TEST(CFDictionary, InsertionOrderSurvivesRemovalAndReplacement) {
    CFRef<CFMutableDictionaryRef> d(make_dict());
    for (const char *k : {"d", "a", "c", "b"}) CFDictionarySetValue(d, __CFStringMakeConstantString(k), CFSTR("1"));
    EXPECT_EQ(keys_in_order(d), (Strings{"d", "a", "c", "b"}));

    CFDictionarySetValue(d, CFSTR("a"), CFSTR("2"));       // replaced in place
    CFDictionaryReplaceValue(d, CFSTR("c"), CFSTR("3"));
    CFDictionaryAddValue(d, CFSTR("d"), CFSTR("ignored"));  // present: unchanged
    CFDictionaryReplaceValue(d, CFSTR("zz"), CFSTR("x"));   // absent: not added
    EXPECT_EQ(keys_in_order(d), (Strings{"d", "a", "c", "b"}));
    EXPECT_EQ(CFDictionaryGetValue(d, CFSTR("d")), CFSTR("1"));
    EXPECT_EQ(CFDictionaryGetValue(d, CFSTR("a")), CFSTR("2"));
    EXPECT_FALSE(CFDictionaryContainsKey(d, CFSTR("zz")));

    CFDictionaryRemoveValue(d, CFSTR("a"));
    CFDictionaryRemoveValue(d, CFSTR("nothing"));
    CFDictionaryAddValue(d, CFSTR("a"), CFSTR("4"));        // re-added: now last
    CFDictionaryAddValue(d, CFSTR("e"), CFSTR("5"));
    EXPECT_EQ(keys_in_order(d), (Strings{"d", "c", "b", "a", "e"}));
    EXPECT_EQ(CFDictionaryGetCount(d), 5);

    const void *keys[5];
    const void *values[5];
    CFDictionaryGetKeysAndValues(d, keys, values);
    EXPECT_EQ(keys[3], CFSTR("a"));
    EXPECT_EQ(values[3], CFSTR("4"));
    EXPECT_EQ(values[1], CFSTR("3"));

    // Copies keep the order, and so does the description.
    CFRef<CFDictionaryRef> copy(CFDictionaryCreateCopy(nullptr, d));
    EXPECT_EQ(keys_in_order(copy), (Strings{"d", "c", "b", "a", "e"}));
    CFRef<CFMutableDictionaryRef> mcopy(CFDictionaryCreateMutableCopy(nullptr, 0, copy));
    CFDictionaryRemoveValue(mcopy, CFSTR("d"));
    CFDictionarySetValue(mcopy, CFSTR("d"), CFSTR("6"));
    EXPECT_EQ(keys_in_order(mcopy), (Strings{"c", "b", "a", "e", "d"}));
    EXPECT_EQ(keys_in_order(d), (Strings{"d", "c", "b", "a", "e"}));   // the original is untouched
    EXPECT_EQ(describe(copy), "{\n    d = 1;\n    c = 3;\n    b = 1;\n    a = 4;\n    e = 5;\n}");

    CFDictionaryRemoveAllValues(d);
    EXPECT_EQ(CFDictionaryGetCount(d), 0);
    EXPECT_EQ(describe(d), "{\n}");
    CFDictionarySetValue(d, CFSTR("again"), CFSTR("x"));
    EXPECT_EQ(keys_in_order(d), (Strings{"again"}));
}

// Small dictionaries are scanned and larger ones indexed, and entries start in
// the dictionary's own room: every size across those limits, growing and
// shrinking, must find keys by equality (fresh key objects), keep the order
// and copy faithfully.
TEST(CFDictionary, EverySizeAcrossTheScannedLimitFindsKeysByEquality) {
    auto key = [](int i) {
        return CFRef<CFStringRef>(
            CFStringCreateWithCString(nullptr, ("key" + std::to_string(i)).c_str(), kCFStringEncodingUTF8));
    };
    for (int n = 1; n <= 40; ++n) {
        for (CFIndex capacity : {CFIndex{0}, CFIndex{3}, CFIndex{64}}) {
            CFRef<CFMutableDictionaryRef> d(CFDictionaryCreateMutable(nullptr, capacity, &kCFTypeDictionaryKeyCallBacks,
                                                                      &kCFTypeDictionaryValueCallBacks));
            for (int i = 0; i < n; ++i) CFDictionarySetValue(d, key(i), key(i + 1000));
            ASSERT_EQ(CFDictionaryGetCount(d), n);
            for (int i = 0; i < n; ++i)
                ASSERT_TRUE(CFEqual(CFDictionaryGetValue(d, key(i)), key(i + 1000))) << n << " " << i;
            EXPECT_FALSE(CFDictionaryContainsKey(d, key(n)));

            // Remove the even keys, then add them back: they come last, in order.
            for (int i = 0; i < n; i += 2) CFDictionaryRemoveValue(d, key(i));
            EXPECT_EQ(CFDictionaryGetCount(d), n / 2);
            for (int i = 0; i < n; ++i) ASSERT_EQ(CFDictionaryContainsKey(d, key(i)), i % 2 == 1) << n << " " << i;
            for (int i = 0; i < n; i += 2) CFDictionaryAddValue(d, key(i), key(i));
            Strings expected;
            for (int i = 1; i < n; i += 2) expected.push_back("key" + std::to_string(i));
            for (int i = 0; i < n; i += 2) expected.push_back("key" + std::to_string(i));
            EXPECT_EQ(keys_in_order(d), expected) << n;

            CFRef<CFMutableDictionaryRef> copy(CFDictionaryCreateMutableCopy(nullptr, 0, d));
            CFRef<CFDictionaryRef> frozen(CFDictionaryCreateCopy(nullptr, copy));
            EXPECT_TRUE(CFEqual(copy, d));
            EXPECT_TRUE(CFEqual(frozen, d));
            EXPECT_EQ(keys_in_order(frozen), expected);
            CFDictionarySetValue(copy, key(0), key(7));
            EXPECT_FALSE(CFEqual(copy, d));
            EXPECT_TRUE(CFEqual(CFDictionaryGetValue(d, key(0)), key(0)));
        }
    }
}

TEST(CFDictionary, EqualityIsDeepAndIgnoresOrder) {
    CFRef<CFNumberRef> one(make_int(1));
    CFRef<CFMutableArrayRef> list(make_array());
    CFArrayAppendValue(list, CFSTR("v"));
    const void *k1[] = {CFSTR("a"), CFSTR("b")};
    const void *v1[] = {one.get(), list.get()};
    CFRef<CFDictionaryRef> x(
        CFDictionaryCreate(nullptr, k1, v1, 2, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));

    CFRef<CFMutableArrayRef> list2(make_array());
    CFRef<CFStringRef> v(CFStringCreateWithCString(nullptr, "v", kCFStringEncodingUTF8));
    CFArrayAppendValue(list2, v);
    double one_d = 1.0;
    CFRef<CFNumberRef> one_real(CFNumberCreate(nullptr, kCFNumberDoubleType, &one_d));
    CFRef<CFMutableDictionaryRef> y(make_dict());
    CFDictionarySetValue(y, CFSTR("b"), list2);
    CFDictionarySetValue(y, CFSTR("a"), one_real);
    EXPECT_TRUE(CFEqual(x, y));
    EXPECT_TRUE(CFEqual(y, x));
    EXPECT_EQ(CFHash(x), CFHash(y));

    CFArrayAppendValue(list2, CFSTR("w"));
    EXPECT_FALSE(CFEqual(x, y));
    CFArrayRemoveValueAtIndex(list2, 1);
    CFDictionarySetValue(y, CFSTR("c"), one);
    EXPECT_FALSE(CFEqual(x, y));
    CFDictionaryRemoveValue(y, CFSTR("c"));
    CFDictionarySetValue(y, CFSTR("a"), CFSTR("1"));
    EXPECT_FALSE(CFEqual(x, y));

    // A key given twice to CFDictionaryCreate: first position, last value.
    const void *k2[] = {CFSTR("k"), CFSTR("j"), CFSTR("k")};
    const void *v2[] = {CFSTR("first"), CFSTR("j"), CFSTR("last")};
    CFRef<CFDictionaryRef> dup(
        CFDictionaryCreate(nullptr, k2, v2, 3, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
    EXPECT_EQ(CFDictionaryGetCount(dup), 2);
    EXPECT_EQ(keys_in_order(dup), (Strings{"k", "j"}));
    EXPECT_EQ(CFDictionaryGetValue(dup, CFSTR("k")), CFSTR("last"));
}

TEST(CFDictionary, KeyCallbacksCopyStringsOrHoldPlainPointers) {
    // Copy-string keys: changing the caller's mutable key later changes nothing.
    CFRef<CFMutableStringRef> key(CFStringCreateMutableCopy(nullptr, 0, CFSTR("name")));
    CFRef<CFMutableDictionaryRef> d(
        CFDictionaryCreateMutable(nullptr, 0, &kCFCopyStringDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
    CFDictionarySetValue(d, key, CFSTR("v"));
    CFStringAppend(key, CFSTR("-changed"));
    EXPECT_EQ(CFDictionaryGetValue(d, CFSTR("name")), CFSTR("v"));
    EXPECT_EQ(CFDictionaryGetValue(d, key), nullptr);
    EXPECT_EQ(CFGetRetainCount(key), 1);

    // Null callbacks: identity keys, nothing retained.
    CFRef<CFStringRef> s(CFStringCreateWithCString(nullptr, "k", kCFStringEncodingUTF8));
    CFRef<CFStringRef> same_text(CFStringCreateWithCString(nullptr, "k", kCFStringEncodingUTF8));
    CFRef<CFMutableDictionaryRef> plain(CFDictionaryCreateMutable(nullptr, 0, nullptr, nullptr));
    CFDictionarySetValue(plain, s, s);
    CFDictionarySetValue(plain, reinterpret_cast<const void *>(uintptr_t{1}), reinterpret_cast<const void *>(uintptr_t{2}));
    EXPECT_EQ(CFGetRetainCount(s), 1);
    EXPECT_EQ(CFDictionaryGetValue(plain, s), s.get());
    EXPECT_FALSE(CFDictionaryContainsKey(plain, same_text));
    const void *value = nullptr;
    EXPECT_TRUE(CFDictionaryGetValueIfPresent(plain, reinterpret_cast<const void *>(uintptr_t{1}), &value));
    EXPECT_EQ(value, reinterpret_cast<const void *>(uintptr_t{2}));
    CFRef<CFDictionaryRef> copy(CFDictionaryCreateCopy(nullptr, plain));
    EXPECT_EQ(CFGetRetainCount(s), 1);
    EXPECT_EQ(CFDictionaryGetValue(copy, s), s.get());
}

namespace {

// Key callbacks that count comparisons: the work a lookup does, measured exactly.
long g_key_compares = 0;
Boolean counting_equal(const void *a, const void *b) {
    ++g_key_compares;
    return CFEqual(a, b);
}
const CFDictionaryKeyCallBacks kCountingKeys = {0, kCFTypeDictionaryKeyCallBacks.retain,
                                                kCFTypeDictionaryKeyCallBacks.release, CFCopyDescription,
                                                counting_equal, CFHash};

}  // namespace

// Callbacks are taken by value: the caller's structure may be gone while
// the dictionary and its copies still use them.
TEST(CFDictionary, KeepsItsOwnCopyOfCallerCallbacks) {
    auto *callbacks = new CFDictionaryKeyCallBacks(kCountingKeys);
    CFRef<CFMutableDictionaryRef> d(CFDictionaryCreateMutable(nullptr, 0, callbacks, &kCFTypeDictionaryValueCallBacks));
    std::memset(static_cast<void *>(callbacks), 0, sizeof *callbacks);
    delete callbacks;
    CFRef<CFStringRef> key(CFStringCreateWithCString(nullptr, "key", kCFStringEncodingUTF8));
    CFRef<CFStringRef> same(CFStringCreateWithCString(nullptr, "key", kCFStringEncodingUTF8));
    CFDictionarySetValue(d, key, kCFBooleanTrue);
    CFRef<CFMutableDictionaryRef> copy(CFDictionaryCreateMutableCopy(nullptr, 0, d));
    CFRelease(d.release());
    g_key_compares = 0;
    EXPECT_EQ(CFDictionaryGetValue(copy, same), kCFBooleanTrue);
    EXPECT_GT(g_key_compares, 0);
}

TEST(CFDictionary, LargeDictionariesStayHashed) {
    constexpr int kKeys = 100000;
    auto start = std::chrono::steady_clock::now();
    std::vector<CFNumberRef> keys;
    for (int i = 0; i < kKeys; ++i) keys.push_back(make_int(i * 7919));
    CFRef<CFMutableDictionaryRef> d(CFDictionaryCreateMutable(nullptr, 0, &kCountingKeys, &kCFTypeDictionaryValueCallBacks));
    g_key_compares = 0;
    for (CFNumberRef k : keys) CFDictionarySetValue(d, k, k);
    for (int i = 0; i < kKeys; i += 2) CFDictionaryRemoveValue(d, keys[static_cast<size_t>(i)]);
    for (int i = 0; i < kKeys; ++i)
        EXPECT_EQ(CFDictionaryContainsKey(d, keys[static_cast<size_t>(i)]), i % 2 == 1) << i;
    for (int i = 0; i < kKeys; i += 2) CFDictionaryAddValue(d, keys[static_cast<size_t>(i)], kCFBooleanTrue);
    // 350k operations; a linear table would compare billions of times.
    EXPECT_LT(g_key_compares, 4L * kKeys) << "lookups are not hashed";
    EXPECT_EQ(CFDictionaryGetCount(d), kKeys);

    // Order: the odd keys as first added, then the re-added even ones.
    std::vector<const void *> order(kKeys);
    CFDictionaryGetKeysAndValues(d, order.data(), nullptr);
    EXPECT_EQ(order[0], keys[1]);
    EXPECT_EQ(order[kKeys / 2 - 1], keys[kKeys - 1]);
    EXPECT_EQ(order[kKeys / 2], keys[0]);
    EXPECT_EQ(order[kKeys - 1], keys[kKeys - 2]);

    // A small working set churning through many keys: removal must not leave
    // lookups or iteration paying for everything ever removed.
    CFRef<CFMutableDictionaryRef> churn(make_dict());
    for (size_t i = 0; i < keys.size(); ++i) {
        CFDictionarySetValue(churn, keys[i], kCFBooleanTrue);
        if (i >= 8) CFDictionaryRemoveValue(churn, keys[i - 8]);
        long visited = 0;
        CFDictionaryApplyFunction(churn, [](const void *, const void *, void *n) { ++*static_cast<long *>(n); }, &visited);
        ASSERT_LE(visited, 9);
    }
    // Emptied by removal alone (no insert to trigger a rebuild), a dictionary
    // must iterate as fast as a fresh one of the same size.
    CFRef<CFMutableDictionaryRef> emptied(make_dict());
    CFRef<CFMutableDictionaryRef> fresh(make_dict());
    for (CFNumberRef k : keys) CFDictionarySetValue(emptied, k, k);
    for (size_t i = 0; i + 10 < keys.size(); ++i) CFDictionaryRemoveValue(emptied, keys[i]);
    for (size_t i = keys.size() - 10; i < keys.size(); ++i) CFDictionarySetValue(fresh, keys[i], keys[i]);
    auto time_applies = [](CFDictionaryRef dict) {
        auto t0 = std::chrono::steady_clock::now();
        long visited = 0;
        for (int i = 0; i < 20000; ++i)
            CFDictionaryApplyFunction(dict, [](const void *, const void *, void *n) { ++*static_cast<long *>(n); }, &visited);
        EXPECT_EQ(visited, 20000 * 10);
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    };
    double fresh_time = time_applies(fresh);
    double emptied_time = time_applies(emptied);
    EXPECT_LT(emptied_time, 20 * fresh_time + 0.05) << "iteration still walks removed entries";

    for (CFNumberRef k : keys) CFRelease(k);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_LT(seconds, 10.0);   // well under a second unsanitised; quadratic would take minutes
}
