// CFNumber, CFBoolean and CFData: values across types, conversions that
// lose, ownership of bytes.
#include "cf_support.h"

#include <gtest/gtest.h>

using namespace talvex::test;

namespace {

template <class T>
CFNumberRef number(CFNumberType type, T value) {
    return CFNumberCreate(nullptr, type, &value);
}

}  // namespace

TEST(CFNumber, EqualityAndHashAreByValueAcrossTypes) {
    CFRef<CFNumberRef> i8(number<int8_t>(kCFNumberSInt8Type, 5)), ll(number<long long>(kCFNumberLongLongType, 5));
    CFRef<CFNumberRef> d(number<double>(kCFNumberDoubleType, 5.0)), f(number<float>(kCFNumberFloat32Type, 5.0f));
    CFRef<CFNumberRef> half(number<double>(kCFNumberDoubleType, 5.5));
    for (CFNumberRef a : {i8.get(), ll.get(), d.get(), f.get()}) {
        for (CFNumberRef b : {i8.get(), ll.get(), d.get(), f.get()}) {
            EXPECT_TRUE(CFEqual(a, b));
            EXPECT_EQ(CFHash(a), CFHash(b));
        }
        EXPECT_FALSE(CFEqual(a, half));
    }
    CFRef<CFNumberRef> one(make_int(1));
    EXPECT_FALSE(CFEqual(kCFBooleanTrue, one));
}

// Each conversion gives whether it was exact and the value it stored anyway.
TEST(CFNumber, GetValueConvertsAndReportsLoss) {
    auto get = [](auto out, CFNumberRef n, CFNumberType type) {
        bool exact = CFNumberGetValue(n, type, &out);
        return std::pair{exact, out};
    };
    CFRef<CFNumberRef> n300(number<int32_t>(kCFNumberSInt32Type, 300)), neg(make_int(-1));
    EXPECT_EQ(get(int8_t{}, n300, kCFNumberSInt8Type), std::pair(false, int8_t{44}));   // truncated
    EXPECT_EQ(get(int16_t{}, n300, kCFNumberSInt16Type), std::pair(true, int16_t{300}));
    EXPECT_EQ(get(uint32_t{}, neg, kCFNumberSInt32Type), std::pair(true, 0xffffffffu));
    // Types that do not exist are refused both ways.
    int iv = 0;
    EXPECT_FALSE(CFNumberGetValue(n300, 99, &iv));
    EXPECT_EQ(CFNumberCreate(nullptr, 0, &iv), nullptr);
    EXPECT_EQ(CFNumberCreate(nullptr, kCFNumberIntType, nullptr), nullptr);
}

// Editing in place and copies: fuzz/containers_fuzz.cpp.
TEST(CFData, CopiesOwnAndNoCopyBorrows) {
    uint8_t source[] = {'a', 'b', 'c', 'd', 0};
    CFRef<CFDataRef> copied(CFDataCreate(nullptr, source, 5));
    // kCFAllocatorNull: the stack buffer must never be freed (the sanitizer would say so).
    CFRef<CFDataRef> borrowed(CFDataCreateWithBytesNoCopy(nullptr, source, 5, kCFAllocatorNull));
    EXPECT_EQ(CFDataGetBytePtr(borrowed), source);
    source[0] = 'z';
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(CFDataGetBytePtr(copied)), 5), std::string("abcd\0", 5));
}
