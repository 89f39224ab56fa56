// CFString: encodings, UTF-16 length, C-string access and the format engine
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

// The conversions the library's descriptions use, with the flags, widths
// and precisions they may carry.
TEST(CFStringFormat, OrdinaryConversionsMatchTheCLibrary) {
    EXPECT_LIKE_SNPRINTF("%d|%i|%5d|%-5d|%05d|%+d|% d|%.3d", 42, -42, 42, 42, -42, 42, 42, 7);
    EXPECT_LIKE_SNPRINTF("%ld %lu %lld %llu %lx %#llx", LONG_MIN, ULONG_MAX, LLONG_MIN, ULLONG_MAX, 0xfeedfacecafebeefUL,
                         0x1ULL);
    EXPECT_LIKE_SNPRINTF("%u %o %#o %x %#x %X %#X %#.8x %08X %#04x", 7u, 8u, 8u, 255u, 255u, 255u, 255u, 0x1234u, 0xabcu, 0u);
    EXPECT_LIKE_SNPRINTF("%s|%10s|%-10s|%.2s|%5.1s", "abc", "right", "left", "truncate", "xyz");
    EXPECT_LIKE_SNPRINTF("100%% sure %s", "yes");
    // Width and precision from arguments, negative ones included.
    EXPECT_LIKE_SNPRINTF("[%*d|%-*d|%*d|%.*d|%.*s]", 6, 1, 6, 2, -6, 3, -1, 5, 3, "abcdef");
    // Output longer than any fixed buffer.
    EXPECT_LIKE_SNPRINTF("%600d|%-700s|", 1, "x");
}

TEST(CFStringFormat, ObjectsNullsAndText) {
    CFRef<CFNumberRef> n(make_int(42));
    EXPECT_EQ(format(CFSTR("%@ and %@ and %@"), CFSTR("text"), n.get(), kCFBooleanFalse), "text and 42 and false");
    EXPECT_EQ(format(CFSTR("[%@]"), nullptr), "[(null)]");
    EXPECT_EQ(format(CFSTR("[%8@|%-6@|%.2@]"), CFSTR("héllo"), CFSTR("ab"), CFSTR("日本語")), "[   héllo|ab    |日本]");

    // Wide text beyond ASCII becomes UTF-8; what is no character (a lone
    // surrogate, beyond U+10FFFF) becomes U+FFFD.
    EXPECT_EQ(format(CFSTR("%ls %lc"), L"h\u00e9\U0001F600", static_cast<wint_t>(0x65e5)), "h\u00e9\U0001F600 \u65e5");
    const wchar_t odd[] = {L'a', static_cast<wchar_t>(0xdfff), static_cast<wchar_t>(0x110000), 0};
    EXPECT_EQ(format(CFSTR("%lc|%ls"), static_cast<wint_t>(0xd800), odd), "\ufffd|a\ufffd\ufffd");
    // Bytes that are not UTF-8 are taken as Latin-1, never lost and never invalid.
    EXPECT_EQ(format(CFSTR("<%s>"), "caf\xe9"), "<caf\u00e9>");
    // Directives that are not conversions stay as written and consume nothing.
    EXPECT_EQ(format(CFSTR("%y %d 100%"), 5), "%y 5 100%");
    EXPECT_EQ(format(CFSTR("%99999999999d|%d"), 7), "%99999999999d|7");
    // %n stores nothing but still takes its argument.
    int ignored = 0;
    EXPECT_EQ(format(CFSTR("a%nb%d"), &ignored, 9), "ab9");
    EXPECT_EQ(ignored, 0);
}

TEST(CFString, LengthIsInUTF16UnitsAndBadBytesAreRefused) {
    const std::pair<const char *, CFIndex> cases[] = {{"", 0}, {"h\u00e9llo", 5}, {"\u65e5\u672c", 2}, {"a\U0001F600b\u00e9", 5}};
    for (auto [utf8, units] : cases) {
        CFRef<CFStringRef> s(CFStringCreateWithCString(nullptr, utf8, kCFStringEncodingUTF8));
        EXPECT_EQ(CFStringGetLength(s), units) << utf8;
        EXPECT_EQ(text(s), utf8);
    }
    for (const char *bad : {"\xc3\x28", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82", "\xff"})
        EXPECT_EQ(CFStringCreateWithCString(nullptr, bad, kCFStringEncodingUTF8), nullptr) << "accepted " << bad;
    EXPECT_EQ(CFStringCreateWithCString(nullptr, "caf\u00e9", kCFStringEncodingASCII), nullptr);
    EXPECT_EQ(CFStringCreateWithCString(nullptr, "x", 0x0500), nullptr);   // unsupported encoding

    const uint8_t bytes[] = {0xef, 0xbb, 0xbf, 'a', 0, 'b'};
    CFRef<CFStringRef> with_bom(CFStringCreateWithBytes(nullptr, bytes, 6, kCFStringEncodingUTF8, true));
    EXPECT_EQ(CFStringGetLength(with_bom), 3);   // BOM dropped, NUL kept

    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(5, kCFStringEncodingUTF8), 15);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(LONG_MAX / 2, kCFStringEncodingUTF8), kCFNotFound);
}

TEST(CFString, CStringAccessNeedsRoomAndTheEncoding) {
    char buffer[8];
    EXPECT_TRUE(CFStringGetCString(CFSTR("hello"), buffer, 6, kCFStringEncodingUTF8));
    EXPECT_STREQ(buffer, "hello");
    EXPECT_FALSE(CFStringGetCString(CFSTR("hello"), buffer, 5, kCFStringEncodingUTF8));   // no room for the NUL
    EXPECT_STREQ(buffer, "");
    EXPECT_FALSE(CFStringGetCString(CFSTR("h\u00e9"), buffer, sizeof buffer, kCFStringEncodingASCII));
    EXPECT_EQ(CFStringGetCStringPtr(CFSTR("h\u00e9"), kCFStringEncodingASCII), nullptr);
}
