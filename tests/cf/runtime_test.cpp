// Object runtime: retain counts, registered classes, ownership through
// containers, identity fallbacks and misuse.
#include "cf_internal.h"
#include "cf_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

using namespace talvex::test;

namespace {

// A registered class whose instances carry an id and a payload, with only a
// finalizer, as the library's classes have; it counts its calls so tests can
// see exactly when an instance is freed.
struct Widget {
    CFRuntimeBase base;
    int64_t id;
    uint8_t payload[40];
};

std::atomic<int> g_widget_finalized{0};

void widget_finalize(CFTypeRef) { ++g_widget_finalized; }

const CFRuntimeClass kWidgetClass = {0, "Widget", nullptr, nullptr, widget_finalize, nullptr, nullptr, nullptr, nullptr};

CFTypeID widget_type() {
    static CFTypeID id = _CFRuntimeRegisterClass(&kWidgetClass);
    return id;
}

Widget *make_widget(int64_t id) {
    auto w = static_cast<Widget *>(const_cast<void *>(
        _CFRuntimeCreateInstance(nullptr, widget_type(), sizeof(Widget) - sizeof(CFRuntimeBase), nullptr)));
    if (w != nullptr) w->id = id;
    return w;
}

}  // namespace

// Instances have zeroed fields after the header and are finalized with their
// last release; without an equality of its own, a class's instances are
// equal only to themselves.
TEST(CFRuntime, RegisteredClassesGiveTheirInstancesFieldsAndIdentity) {
    CFTypeID type = widget_type();
    ASSERT_NE(type, _kCFRuntimeNotATypeID);
    int finalized = g_widget_finalized;
    Widget *w = make_widget(7);
    ASSERT_NE(w, nullptr);
    EXPECT_EQ(CFGetTypeID(w), type);
    for (uint8_t b : w->payload) EXPECT_EQ(b, 0);
    std::memset(w->payload, 0xab, sizeof w->payload);   // every byte usable (the sanitizer catches an overrun)
    EXPECT_EQ(w->id, 7);
    CFRelease(CFRetain(w));
    EXPECT_EQ(g_widget_finalized, finalized);
    CFRelease(w);
    EXPECT_EQ(g_widget_finalized, finalized + 1);

    CFRef<CFTypeRef> x(make_widget(5)), y(make_widget(5));
    EXPECT_TRUE(CFEqual(x, x));
    EXPECT_FALSE(CFEqual(x, y));
    EXPECT_FALSE(CFEqual(x, CFSTR("w5")));   // different types never equal
}

TEST(CFRuntime, ContainersRetainTheirValuesAndCopiesShareThem) {
    int finalized = g_widget_finalized;
    Widget *w = make_widget(1);
    CFMutableArrayRef array = make_array();
    CFArrayAppendValue(array, w);
    CFMutableDictionaryRef dict = make_dict();
    CFDictionarySetValue(dict, CFSTR("w"), w);
    CFArrayRef array_copy = CFArrayCreateCopy(nullptr, array);
    CFDictionaryRef dict_copy = CFDictionaryCreateCopy(nullptr, dict);
    CFMutableArrayRef array_mcopy = CFArrayCreateMutableCopy(nullptr, 0, array_copy);
    EXPECT_NE(static_cast<CFTypeRef>(array_copy), static_cast<CFTypeRef>(array));
    EXPECT_EQ(CFArrayGetValueAtIndex(array_copy, 0), w);   // shallow: the same object
    EXPECT_EQ(CFGetRetainCount(w), 6);
    // An immutable copy of an immutable container is the container itself.
    CFArrayRef again = CFArrayCreateCopy(nullptr, array_copy);
    EXPECT_EQ(again, array_copy);
    CFRelease(again);

    CFRelease(w);   // the containers keep it alive
    for (CFTypeRef c : {CFTypeRef(array), CFTypeRef(dict), CFTypeRef(array_copy), CFTypeRef(array_mcopy)}) CFRelease(c);
    EXPECT_EQ(CFGetRetainCount(w), 1);
    CFRelease(dict_copy);
    EXPECT_EQ(g_widget_finalized, finalized + 1);

    // Replacement and removal release exactly once.
    Widget *a = make_widget(2);
    Widget *b = make_widget(3);
    CFMutableArrayRef m = make_array();
    CFArrayAppendValue(m, a);
    CFArraySetValueAtIndex(m, 0, b);
    CFMutableDictionaryRef d = make_dict();
    CFDictionarySetValue(d, a, b);
    CFDictionaryRemoveValue(d, a);
    EXPECT_EQ(CFGetRetainCount(a), 1);
    EXPECT_EQ(CFGetRetainCount(b), 2);
    for (CFTypeRef object : {CFTypeRef(a), CFTypeRef(b), CFTypeRef(m), CFTypeRef(d)}) CFRelease(object);
    EXPECT_EQ(g_widget_finalized, finalized + 3);
}

// Counts stay exact while several threads retain and release one object at
// once, directly and through the copies of a container that holds it (the
// copies share its entries, and the threads race to mark it shared). The
// threads start together, so they overlap wherever they get two processors.
TEST(CFRuntime, CountsStayExactAcrossThreads) {
    Widget *w = make_widget(9);
    CFRef<CFMutableDictionaryRef> dict(make_dict());
    for (CFStringRef key : {CFSTR("w"), CFSTR("x"), CFSTR("y"), CFSTR("z")}) CFDictionarySetValue(dict, key, w);
    std::atomic<int> waiting{4};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (--waiting; waiting > 0;) std::this_thread::yield();
            for (int i = 0; i < 100000; ++i) {
                CFRelease(CFRetain(w));
                CFRelease(CFDictionaryCreateMutableCopy(nullptr, 0, dict));
            }
        });
    for (std::thread &t : threads) t.join();
    dict.reset();
    EXPECT_EQ(CFGetRetainCount(w), 1);
    CFRelease(w);
}

// Dictionary and data memory is kept by the thread that frees it and handed
// out again oldest first, up to the limit. The blocks here are of a class no
// other test makes (data of 448 bytes: 496-byte blocks).
TEST(CFRuntime, FreedObjectMemoryIsKeptAndReusedInOrder) {
    auto make = [] { return CFDataCreateMutable(nullptr, 448); };
    constexpr size_t kBlock = 496;
    std::vector<CFMutableDataRef> made;
    for (int i = 0; i < 64; ++i) made.push_back(make());
    const size_t before = cf::kept_block_bytes();
    for (CFMutableDataRef d : made) CFRelease(d);
    EXPECT_EQ(cf::kept_block_bytes(), before + 64 * kBlock);
    for (int i = 0; i < 64; ++i) {
        CFRef<CFMutableDataRef> again(make());
        EXPECT_EQ(static_cast<const void *>(again.get()), static_cast<const void *>(made[i])) << "object " << i;
        made[i] = nullptr;
    }
    // Each went to the back of the queue when released: it turned once.
    EXPECT_EQ(cf::kept_block_bytes(), before + 64 * kBlock);

    // Past the limit blocks go back to the C library.
    made.resize(cf::kKeptBytes / kBlock + 100);
    for (CFMutableDataRef &d : made) d = make();
    for (CFMutableDataRef d : made) CFRelease(d);
    EXPECT_LE(cf::kept_block_bytes(), cf::kKeptBytes);
    EXPECT_GT(cf::kept_block_bytes(), cf::kKeptBytes - kBlock);
}

#if defined(__SANITIZE_ADDRESS__)
#define TALVEX_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TALVEX_TEST_ASAN 1
#endif
#endif
#ifdef TALVEX_TEST_ASAN
// Under the address sanitizer a kept block is poisoned: an object touched
// after its last release is still reported.
TEST(CFRuntimeDeathTest, AnObjectTouchedAfterItsReleaseIsReported) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            CFMutableDataRef d = CFDataCreateMutable(nullptr, 448);
            CFRelease(d);
            (void)static_cast<const volatile char *>(static_cast<const void *>(d))[16];
        },
        "use-after-poison");
}
#endif

TEST(CFRuntimeDeathTest, MisuseAbortsWithAClearMessage) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(CFRetain(nullptr), "CFRetain: called with a null object");
    EXPECT_DEATH(CFRelease(nullptr), "CFRelease: called with a null object");
    CFRef<CFArrayRef> fixed(CFArrayCreate(nullptr, nullptr, 0, &kCFTypeArrayCallBacks));
    EXPECT_DEATH(CFArrayGetValueAtIndex(fixed, 0), "CFArrayGetValueAtIndex: index 0 is outside");
    EXPECT_DEATH(CFArrayAppendValue(const_cast<CFMutableArrayRef>(fixed.get()), CFSTR("x")), "immutable array");
    EXPECT_DEATH(CFStringGetLength(reinterpret_cast<CFStringRef>(fixed.get())), "is not a CFString");
}
