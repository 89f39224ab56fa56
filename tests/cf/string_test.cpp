// CFString: UTF-8 text, UTF-16 length, C-string access and the format engine
// (checked against the C library's snprintf).
#include "cf_support.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>

using namespace talvex::test;

namespace {

std::string format(CFStringRef fmt, ...) {
    va_list args;
    va_start(args, fmt);
    CFRef<CFStringRef> s(CFStringCreateWithFormatAndArguments(nullptr, nullptr, fmt, args));
    va_end(args);
    return text(s);
}

}  // namespace

// The same directive through snprintf and through the format engine.
#define EXPECT_LIKE_SNPRINTF(fmt, ...)                                                        \
    do {                                                                                      \
        char expect_[4096];                                                                   \
        std::snprintf(expect_, sizeof expect_, fmt, __VA_ARGS__);                             \
        EXPECT_EQ(format(CFSTR(fmt), __VA_ARGS__), std::string(expect_)) << "format " << fmt; \
    } while (0)

// The conversions the library's names, descriptions and errors use, at
// their edges: zero with the alternate form, the widest values, and text
// longer than any fixed buffer.
TEST(CFStringFormat, ConversionsInUseMatchTheCLibrary) {
    EXPECT_LIKE_SNPRINTF("%d|%d|%u|%ld", INT_MIN, 42, UINT_MAX, LONG_MIN);
    EXPECT_LIKE_SNPRINTF("%#llx|%#llx|%#04x|%#04x|%#04x", 0x1ULL, ULLONG_MAX, 0u, 0x12u, 0x1234u);
    EXPECT_LIKE_SNPRINTF("%s|%s|%s", "abc", "", std::string(3000, 'x').c_str());
}

// Objects by their description. Wide text becomes UTF-8; what is no
// character (a lone surrogate, beyond U+10FFFF) becomes U+FFFD.
TEST(CFStringFormat, ObjectsAndWideText) {
    EXPECT_EQ(format(CFSTR("%@ and %@"), CFSTR("text"), nullptr), "text and (null)");
    EXPECT_EQ(format(CFSTR("%ls %lc"), L"h\u00e9\U0001F600", static_cast<wint_t>(0x65e5)), "h\u00e9\U0001F600 \u65e5");
    const wchar_t odd[] = {L'a', static_cast<wchar_t>(0xdfff), static_cast<wchar_t>(0x110000), 0};
    EXPECT_EQ(format(CFSTR("%lc|%ls"), static_cast<wint_t>(0xd800), odd), "\ufffd|a\ufffd\ufffd");
}

TEST(CFString, UTF16LengthsBadBytesAndRoomForTheNul) {
    const std::pair<const char *, CFIndex> cases[] = {{"", 0}, {"h\u00e9llo", 5}, {"\u65e5\u672c", 2}, {"a\U0001F600b\u00e9", 5}};
    for (auto [utf8, units] : cases) {
        CFRef<CFStringRef> s(CFStringCreateWithCString(nullptr, utf8, kCFStringEncodingUTF8));
        EXPECT_EQ(CFStringGetLength(s), units) << utf8;
        EXPECT_EQ(text(s), utf8);
    }
    for (const char *bad : {"\xc3\x28", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82", "\xff"})
        EXPECT_EQ(CFStringCreateWithCString(nullptr, bad, kCFStringEncodingUTF8), nullptr) << "accepted " << bad;

    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(5, kCFStringEncodingUTF8), 15);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(LONG_MAX / 2, kCFStringEncodingUTF8), kCFNotFound);
    char buffer[8];
    EXPECT_TRUE(CFStringGetCString(CFSTR("hello"), buffer, 6, kCFStringEncodingUTF8));
    EXPECT_STREQ(buffer, "hello");
    EXPECT_FALSE(CFStringGetCString(CFSTR("hello"), buffer, 5, kCFStringEncodingUTF8));   // no room for the NUL
    EXPECT_STREQ(buffer, "");
}

// Constant strings keep their hash; it must stay the hash of their text, the
// same as any equal string's, or dictionaries miss keys given as other objects.
TEST(CFString, ConstantsHashAsTheirText) {
    CFRef<CFStringRef> made(CFStringCreateWithCString(nullptr, "RawElements", kCFStringEncodingUTF8));
    CFRef<CFStringRef> domain(CFStringCreateWithCString(nullptr, "NSMachErrorDomain", kCFStringEncodingUTF8));
    CFRef<CFStringRef> a(CFStringCreateWithCString(nullptr, "a", kCFStringEncodingUTF8));
    EXPECT_EQ(CFHash(CFSTR("RawElements")), CFHash(made));
    EXPECT_EQ(CFHash(kCFErrorDomainMach), CFHash(domain));
    EXPECT_EQ(CFHash(CFSTR("a")), CFHash(a));
    EXPECT_EQ(CFHash(CFSTR("a")), CFHashCode{0xaf63dc4c8601ec8cull});   // FNV-1a of "a"

    CFRef<CFMutableDictionaryRef> d(CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                                                              &kCFTypeDictionaryValueCallBacks));
    for (int i = 0; i < 20; ++i) {   // enough keys for the dictionary to be looked up by hash
        CFRef<CFStringRef> key(CFStringCreateWithFormat(nullptr, nullptr, CFSTR("key%d"), i));
        CFDictionarySetValue(d, key, kCFBooleanTrue);
    }
    CFDictionarySetValue(d, made, kCFBooleanFalse);
    CFDictionarySetValue(d, CFSTR("NSMachErrorDomain"), kCFBooleanFalse);
    EXPECT_EQ(CFDictionaryGetValue(d, CFSTR("RawElements")), kCFBooleanFalse);
    EXPECT_EQ(CFDictionaryGetValue(d, domain), kCFBooleanFalse);
    EXPECT_EQ(CFDictionaryGetValue(d, CFSTR("key7")), kCFBooleanTrue);

    // A mutable string's hash follows its text.
    CFRef<CFMutableStringRef> growing(CFStringCreateMutable(nullptr, 0));
    CFStringAppend(growing, CFSTR("Raw"));
    CFStringAppend(growing, CFSTR("Elements"));
    EXPECT_EQ(CFHash(growing), CFHash(made));
}
