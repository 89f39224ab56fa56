// IOCFUnserialize: accepted variations, integer widths, shared objects and
// rejection of malformed input with a located error.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "cf_helpers.h"

using namespace talvex::test;

namespace {

int64_t int_value(CFTypeRef n) {
    int64_t v = 0;
    EXPECT_EQ(CFGetTypeID(n), CFNumberGetTypeID());
    EXPECT_TRUE(CFNumberGetValue(static_cast<CFNumberRef>(n), kCFNumberSInt64Type, &v));
    return v;
}

CFTypeRef at(CFTypeRef array, CFIndex i) { return CFArrayGetValueAtIndex(static_cast<CFArrayRef>(array), i); }

CFTypeRef get(CFTypeRef dict, const char *key) {
    CF k = str(key);
    return CFDictionaryGetValue(static_cast<CFDictionaryRef>(dict), k.get());
}

std::string string_value(CFTypeRef s) {
    if (s == nullptr || CFGetTypeID(s) != CFStringGetTypeID()) return "<not a string>";
    return text(static_cast<CFStringRef>(s));
}

std::string nested_arrays(int depth) {
    std::string s;
    for (int i = 0; i < depth; ++i) s += "<array>";
    s += "<true/>";
    for (int i = 0; i < depth; ++i) s += "</array>";
    return s;
}

}  // namespace

TEST(Unserialize, AcceptsWhitespaceSelfClosingElementsAndEntities) {
    const Parsed p = parse(
        "  \n<dict>\n"
        "  <key>empty-dict</key> <dict/>\n"
        "  <key>empty-array</key>\t<array />\n"
        "  <key>empty-string</key><string/>\n"
        "  <key>empty-data</key><data/>\n"
        "  <key>t</key><true></true><key>f</key><false />\n"
        "  <key>text</key><string>&lt;a&gt; &amp; &quot;b&quot; &apos;c&apos; &#65;&#x42;&#x263a; > x\n y</string>\n"
        "  <key>hex</key><integer size='32' >0X1F</integer>\n"
        "  <key>dec</key><integer> 1234 </integer>\n"
        "  <key>neg</key><integer size=\"16\">-7</integer>\n"
        "  <key>wrapped-data</key><data>TW\n  Fu eQ==</data>\n"
        "  <key>&amp;key</key><string>k</string>\n"
        "</dict >\n\n");
    ASSERT_TRUE(p.obj) << p.error;
    EXPECT_EQ(p.error, "");
    CFTypeRef d = p.obj.get();
    EXPECT_EQ(CFDictionaryGetCount(static_cast<CFDictionaryRef>(d)), 12);
    EXPECT_EQ(CFDictionaryGetCount(static_cast<CFDictionaryRef>(get(d, "empty-dict"))), 0);
    EXPECT_EQ(CFArrayGetCount(static_cast<CFArrayRef>(get(d, "empty-array"))), 0);
    EXPECT_EQ(string_value(get(d, "empty-string")), "");
    EXPECT_EQ(CFDataGetLength(static_cast<CFDataRef>(get(d, "empty-data"))), 0);
    EXPECT_EQ(get(d, "t"), kCFBooleanTrue);
    EXPECT_EQ(get(d, "f"), kCFBooleanFalse);
    EXPECT_EQ(string_value(get(d, "text")), "<a> & \"b\" 'c' AB\xe2\x98\xba > x\n y");
    EXPECT_EQ(int_value(get(d, "hex")), 31);
    EXPECT_EQ(CFNumberGetType(static_cast<CFNumberRef>(get(d, "hex"))), kCFNumberSInt32Type);
    EXPECT_EQ(int_value(get(d, "dec")), 1234);
    EXPECT_EQ(CFNumberGetType(static_cast<CFNumberRef>(get(d, "dec"))), kCFNumberSInt64Type);
    EXPECT_EQ(int_value(get(d, "neg")), -7);
    const auto *bytes = static_cast<CFDataRef>(get(d, "wrapped-data"));
    ASSERT_EQ(CFDataGetLength(bytes), 4);
    EXPECT_EQ(std::memcmp(CFDataGetBytePtr(bytes), "Many", 4), 0);
    EXPECT_EQ(string_value(get(d, "&key")), "k");
}

TEST(Unserialize, IntegerSizesGiveTypedNumbersFromTheBits) {
    struct Case {
        const char *text;
        CFNumberType type;
        int64_t value;
    };
    const Case cases[] = {
        {"<integer size=\"8\">0xff</integer>", kCFNumberSInt8Type, -1},
        {"<integer size=\"8\">0x7f</integer>", kCFNumberSInt8Type, 127},
        {"<integer size=\"8\">-128</integer>", kCFNumberSInt8Type, -128},
        {"<integer size=\"16\">0x8000</integer>", kCFNumberSInt16Type, -32768},
        {"<integer size=\"32\">0xffffffff</integer>", kCFNumberSInt32Type, -1},
        {"<integer size=\"32\">4294967294</integer>", kCFNumberSInt32Type, -2},
        {"<integer size=\"32\">-0x80000000</integer>", kCFNumberSInt32Type, INT32_MIN},
        {"<integer size=\"64\">0xffffffffffffffff</integer>", kCFNumberSInt64Type, -1},
        {"<integer>18446744073709551615</integer>", kCFNumberSInt64Type, -1},
        {"<integer>-9223372036854775808</integer>", kCFNumberSInt64Type, INT64_MIN},
        {"<integer>-0</integer>", kCFNumberSInt64Type, 0},
    };
    for (const Case &c : cases) {
        const Parsed p = parse(c.text);
        ASSERT_TRUE(p.obj) << c.text << ": " << p.error;
        EXPECT_EQ(CFNumberGetType(static_cast<CFNumberRef>(p.obj.get())), c.type) << c.text;
        EXPECT_EQ(int_value(p.obj.get()), c.value) << c.text;
    }
    const char *overflows[] = {
        "<integer size=\"8\">0x100</integer>",      "<integer size=\"8\">-129</integer>",
        "<integer size=\"16\">65536</integer>",     "<integer size=\"32\">-0x80000001</integer>",
        "<integer>18446744073709551616</integer>",  "<integer>0x10000000000000000</integer>",
        "<integer>-9223372036854775809</integer>",
    };
    for (const char *text : overflows) {
        const Parsed p = parse(text);
        EXPECT_FALSE(p.obj) << text;
        EXPECT_NE(p.error.find("does not fit"), std::string::npos) << text << ": " << p.error;
    }
    // Far too many digits: caught while reading them, not after wrapping.
    EXPECT_EQ(parse("<integer size=\"8\">99999999999999999999999</integer>").error,
              "line 1: integer does not fit in 8 bits");
}

TEST(Unserialize, IdrefGivesTheSameObjectAgain) {
    const Parsed p = parse(
        "<array><string ID=\"0\">a</string><string IDREF=\"0\"/>"
        "<dict ID=\"7\"><key ID=\"1\">k</key><integer ID=\"2\">5</integer></dict>"
        "<dict IDREF=\"7\"/><integer IDREF=\"2\"/><string IDREF=\"1\"/>"
        "<dict><key IDREF=\"1\"/><true ID=\"3\"/></dict><false IDREF=\"3\"/></array>");
    ASSERT_TRUE(p.obj) << p.error;
    CFTypeRef a = p.obj.get();
    ASSERT_EQ(CFArrayGetCount(static_cast<CFArrayRef>(a)), 8);
    EXPECT_EQ(string_value(at(a, 0)), "a");
    EXPECT_EQ(at(a, 0), at(a, 1));
    EXPECT_EQ(at(a, 2), at(a, 3));
    EXPECT_EQ(at(a, 4), get(at(a, 2), "k"));
    EXPECT_EQ(string_value(at(a, 5)), "k");
    EXPECT_EQ(get(at(a, 6), "k"), kCFBooleanTrue);
    // The element name of a reference is not checked against the object.
    EXPECT_EQ(at(a, 7), kCFBooleanTrue);
}

TEST(Unserialize, MalformedInputGivesNullAndALocatedError) {
    // Each error text with every input that must give it.
    struct Case {
        const char *error;
        std::vector<std::string> inputs;
    };
    const Case cases[] = {
        {"line 1: no root element", {""}},
        {"line 2: no root element", {" \n\t"}},
        {"line 1: text outside an element", {"hello"}},
        {"line 1: unexpected end of input, expected </dict>", {"<dict>", "<dict><key>a</key><string>b</string>"}},
        {"line 1: key without value in <dict>", {"<dict><key>a</key>"}},
        {"line 1: unexpected end of input in <string>", {"<dict><key>a</key><string>b"}},
        {"line 1: mismatched </array>, expected </string>", {"<array><string>x</array>"}},
        {"line 1: mismatched </dict>, expected </array>", {"<array></dict>"}},
        {"line 1: expected </string>", {"<array><string>x<true/></string></array>"}},
        {"line 1: unterminated tag <array>", {"<array\n", "<array"}},
        {"line 1: malformed tag", {"<>"}},
        {"line 1: malformed tag <array>", {"<array/ >"}},
        {"line 1: malformed tag <string>", {"<string\"x\"/>"}},
        {"line 1: malformed tag <str>", {"<str\xc3\xa9ng/>"}},
        {"line 2: unknown element <foo>", {"<dict>\n  <foo/>\n</dict>"}},
        {"line 3: unknown element <foo>", {"<array>\n\n<foo/></array>"}},
        {"line 1: unknown element <plist>", {"<plist version=\"1.0\"><dict/></plist>"}},
        {"line 2: unknown IDREF 3", {"<array>\n<string IDREF=\"3\"/></array>"}},
        {"line 1: unknown IDREF 0", {"<array ID=\"0\"><array IDREF=\"0\"/></array>"}},
        {"line 1: duplicate ID 1", {"<array><true ID=\"1\"/><false ID=\"1\"/></array>"}},
        {"line 1: duplicate ID 2", {"<array ID=\"2\"><true ID=\"2\"/></array>"}},
        {"line 1: both ID and IDREF in <string>", {"<string ID=\"1\" IDREF=\"1\"/>"}},
        {"line 1: <string> with IDREF must be self-closing", {"<string IDREF=\"0\">a</string>"}},
        {"line 1: bad ID value", {"<string ID=\"x\">a</string>"}},
        {"line 1: unknown attribute foo in <string>", {"<string foo=\"1\">a</string>"}},
        {"line 1: size attribute in <string>", {"<string size=\"8\">a</string>"}},
        {"line 1: bad integer size", {"<integer size=\"12\">1</integer>"}},
        {"line 1: duplicate attribute size", {"<integer size=\"8\" size=\"8\">1</integer>"}},
        {"line 1: malformed attribute size", {"<integer size=8>1</integer>"}},
        {"line 1: unterminated attribute size", {"<integer size=\"8>1</integer>"}},
        {"line 1: unexpected text after the root element", {"<dict/>garbage"}},
        {"line 2: unexpected text after the root element", {"<dict/>\n<dict/>"}},
        {"line 1: bad base64 in <data>",
         {"<data>A</data>", "<data>AB=C</data>", "<data>A===</data>", "<data>AB*=</data>", "<data>TWFu=</data>"}},
        {"line 1: bad integer",
         {"<integer>12a</integer>", "<integer>0x</integer>", "<integer>-</integer>", "<integer></integer>"}},
        {"line 1: empty <integer>", {"<integer/>"}},
        {"line 1: unknown entity &bogus;", {"<string>&bogus;</string>"}},
        {"line 1: unterminated entity", {"<string>a &amp b</string>"}},
        {"line 1: bad character reference &#0;", {"<string>&#0;</string>"}},
        {"line 1: bad character reference &#xD800;", {"<string>&#xD800;</string>"}},
        {"line 1: bad character reference &#x110000;", {"<string>&#x110000;</string>"}},
        {"line 1: text of <string> is not UTF-8", {"<string>\xff\xfe</string>"}},
        {"line 1: duplicate key in <dict>", {"<dict><key>a</key><true/><key>a</key><false/></dict>"}},
        {"line 1: expected <key> in <dict>, found <string>", {"<dict><string>a</string></dict>"}},
        {"line 1: key IDREF 1 is not a string",
         {"<dict><key ID=\"0\">a</key><integer ID=\"1\">1</integer><key IDREF=\"1\"/><true/></dict>"}},
        {"line 1: <key> outside a dictionary", {"<key>a</key>"}},
        {"line 1: unexpected end tag", {"</array>"}},
        {"line 1: expected </true>", {"<true>x</true>"}},
    };
    for (const Case &c : cases)
        for (const std::string &input : c.inputs) {
            const Parsed p = parse(input);
            EXPECT_FALSE(p.obj) << input;
            EXPECT_EQ(p.error, c.error) << input;
        }
}

TEST(Unserialize, NestingIsLimitedTo128Containers) {
    const Parsed ok = parse(nested_arrays(128));
    ASSERT_TRUE(ok.obj) << ok.error;
    // Far deeper input fails the same way, without running out of stack.
    for (int depth : {129, 200000}) {
        const Parsed deep = parse(nested_arrays(depth));
        EXPECT_FALSE(deep.obj) << depth;
        EXPECT_EQ(deep.error, "line 1: containers nested deeper than 128") << depth;
    }
}

TEST(Unserialize, TextEndsAtTheSizeOrTheFirstNul) {
    // Bytes past `size` are never looked at.
    const char buffer[] = "<true/>garbage";
    CF t(IOCFUnserializeWithSize(buffer, 7, kCFAllocatorDefault, 0, nullptr));
    EXPECT_EQ(t.get(), kCFBooleanTrue);
    // A NUL ends the text (the serialiser's output carries one).
    const Parsed nul = parse(std::string("<array/>\0\0junk", 14));
    ASSERT_TRUE(nul.obj) << nul.error;
    EXPECT_EQ(CFGetTypeID(nul.obj.get()), CFArrayGetTypeID());
    const Parsed cut = parse(std::string("<array>\0</array>", 16));
    EXPECT_FALSE(cut.obj);
    EXPECT_EQ(cut.error, "line 1: unexpected end of input, expected </array>");

    CF f(IOCFUnserialize("  <false/>\n", kCFAllocatorDefault, 0, nullptr));
    EXPECT_EQ(f.get(), kCFBooleanFalse);

    CFStringRef err = nullptr;
    EXPECT_EQ(IOCFUnserialize(nullptr, kCFAllocatorDefault, 0, &err), nullptr);
    EXPECT_EQ(text(err), "no input");
    CFRelease(err);
    const Parsed options = parse("<true/>", 1);
    EXPECT_FALSE(options.obj);
    EXPECT_EQ(options.error, "unsupported options");
}

// Every prefix of a valid document, and many corrupted copies of it, parse
// without crashing or reading out of bounds; the prefixes all fail.
TEST(Unserialize, PrefixesAndCorruptionsNeverCrash) {
    const std::string doc =
        "<dict><key>a&amp;b</key><array ID=\"0\"><integer size=\"32\">0x10</integer><data>TWFueQ==</data>"
        "<string>x&#x263a;y</string><true/><false/><dict/></array><key>r</key><array IDREF=\"0\"/></dict>";
    ASSERT_TRUE(parse(doc).obj) << parse(doc).error;
    for (size_t n = 0; n < doc.size(); ++n) {
        const Parsed p = parse(std::string_view(doc).substr(0, n));
        EXPECT_FALSE(p.obj) << n;
        EXPECT_EQ(p.error.rfind("line 1: ", 0), 0u) << n << ": " << p.error;
    }
    uint32_t state = 12345;
    auto next = [&state] {
        state = state * 1103515245u + 12345u;
        return state >> 8;
    };
    const char alphabet[] = "<>/=\"'&;#x0123456789abcdefIDREFsize \n\xff\xc3";
    int accepted = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string mutated = doc;
        const int edits = 1 + static_cast<int>(next() % 4);
        for (int e = 0; e < edits; ++e) {
            const size_t pos = next() % mutated.size();
            switch (next() % 3) {
            case 0: mutated[pos] = alphabet[next() % (sizeof alphabet - 1)]; break;
            case 1: mutated.erase(pos, 1 + next() % 8); break;
            default: mutated.insert(pos, 1, alphabet[next() % (sizeof alphabet - 1)]); break;
            }
            if (mutated.empty()) mutated.push_back('<');
        }
        const Parsed p = parse(mutated);
        EXPECT_NE(!p.obj, p.error.empty()) << mutated;  // an error string exactly when it fails
        accepted += p.obj != nullptr;
    }
    EXPECT_GT(accepted, 0);
    EXPECT_LT(accepted, 20000);
}
