// IOCFUnserialize: accepted variations, integer widths, shared objects and
// rejection of malformed input with a located error.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cf_helpers.h"

using namespace talvex::test;

namespace {

std::string nested_arrays(int depth) {
    std::string s;
    for (int i = 0; i < depth; ++i) s += "<array>";
    s += "<true/>";
    for (int i = 0; i < depth; ++i) s += "</array>";
    return s;
}

}  // namespace

// Each accepted input with the list it gives, written back out: the written
// form shows types, integer widths and bits, and which objects are shared.
// (That the written form reads back as itself: fuzz/unserialize_fuzz.cpp.)
TEST(Unserialize, AcceptedVariationsGiveTheirLists) {
    const std::pair<const char *, const char *> cases[] = {
        {"  \n<dict>\n  <key>d</key> <dict/>\n  <key>a</key>\t<array />\n</dict >\n\n",
         "<dict><key>d</key><dict></dict><key>a</key><array></array></dict>"},
        {"<array><string/><data/><true></true><false /></array>",
         "<array><string></string><data></data><true/><false/></array>"},
        {"<string>&lt;a&gt; &amp; &quot;b&quot; &apos;c&apos; &#65;&#x42;&#x263a; > x\n y</string>",
         "<string>&lt;a&gt; &amp; \"b\" 'c' AB\xe2\x98\xba &gt; x\n y</string>"},
        {"<data>TW\n  Fu eQ==</data>", "<data>TWFueQ==</data>"},
        {"<integer size='32' >0X1F</integer>", "<integer size=\"32\">0x1f</integer>"},
        {"<integer> 1234 </integer>", "<integer size=\"64\">0x4d2</integer>"},
        {"<integer size=\"8\">-128</integer>", "<integer size=\"8\">0x80</integer>"},
        {"<integer size=\"32\">-0x80000000</integer>", "<integer size=\"32\">0x80000000</integer>"},
        {"<integer>18446744073709551615</integer>", "<integer size=\"64\">0xffffffffffffffff</integer>"},
        {"<integer>-9223372036854775808</integer>", "<integer size=\"64\">0x8000000000000000</integer>"},
        // IDREF gives the same object again, whatever the element name of the
        // reference; a key is a string that a value may refer to.
        {"<array><string ID=\"0\">a</string><string IDREF=\"0\"/>"
         "<dict ID=\"7\"><key ID=\"1\">k</key><integer ID=\"2\">5</integer></dict>"
         "<dict IDREF=\"7\"/><integer IDREF=\"2\"/><string IDREF=\"1\"/>"
         "<dict><key IDREF=\"1\"/><true ID=\"3\"/></dict><false IDREF=\"3\"/></array>",
         "<array><string ID=\"0\">a</string><string IDREF=\"0\"/>"
         "<dict ID=\"1\"><key>k</key><integer size=\"64\" ID=\"2\">0x5</integer></dict>"
         "<dict IDREF=\"1\"/><integer IDREF=\"2\"/><string>k</string><dict><key>k</key><true/></dict><true/></array>"},
    };
    for (const auto &[input, written] : cases) {
        const Parsed p = parse(input);
        ASSERT_TRUE(p.obj) << input << ": " << p.error;
        EXPECT_EQ(p.error, "");
        EXPECT_EQ(xml(p.obj.get()), written) << input;
    }
}

TEST(Unserialize, MalformedInputGivesNullAndALocatedError) {
    // Each error text with every input that must give it.
    const std::pair<const char *, std::vector<std::string>> cases[] = {
        {"line 1: no root element", {""}}, {"line 2: no root element", {" \n\t"}},
        {"line 1: text outside an element", {"hello"}},
        {"line 1: unexpected end of input, expected </dict>", {"<dict>", "<dict><key>a</key><string>b</string>"}},
        {"line 1: key without value in <dict>", {"<dict><key>a</key>"}},
        {"line 1: unexpected end of input in <string>", {"<dict><key>a</key><string>b"}},
        {"line 1: mismatched </array>, expected </string>", {"<array><string>x</array>"}},
        {"line 1: expected </string>", {"<array><string>x<true/></string></array>"}},
        {"line 1: unterminated tag <array>", {"<array\n", "<array"}},
        {"line 1: malformed tag", {"<>"}}, {"line 1: malformed tag <array>", {"<array/ >"}},
        {"line 1: malformed tag <str>", {"<str\xc3\xa9ng/>"}},
        {"line 2: unknown element <foo>", {"<dict>\n  <foo/>\n</dict>"}},
        {"line 2: unknown IDREF 3", {"<array>\n<string IDREF=\"3\"/></array>"}},
        {"line 1: unknown IDREF 0", {"<array ID=\"0\"><array IDREF=\"0\"/></array>"}},
        {"line 1: duplicate ID 1", {"<array><true ID=\"1\"/><false ID=\"1\"/></array>"}},
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
        {"line 1: bad base64 in <data>",
         {"<data>A</data>", "<data>AB=C</data>", "<data>A===</data>", "<data>AB*=</data>", "<data>TWFu=</data>"}},
        {"line 1: bad integer",
         {"<integer>12a</integer>", "<integer>0x</integer>", "<integer>-</integer>", "<integer></integer>"}},
        {"line 1: empty <integer>", {"<integer/>"}},
        {"line 1: integer does not fit in 8 bits",
         {"<integer size=\"8\">0x100</integer>", "<integer size=\"8\">-129</integer>"}},
        {"line 1: integer does not fit in 16 bits", {"<integer size=\"16\">65536</integer>"}},
        {"line 1: integer does not fit in 32 bits", {"<integer size=\"32\">-0x80000001</integer>"}},
        {"line 1: integer does not fit in 64 bits",
         {"<integer>18446744073709551616</integer>", "<integer>0x10000000000000000</integer>",
          "<integer>-9223372036854775809</integer>"}},
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
        {"line 1: unexpected end tag", {"</array>"}}, {"line 1: expected </true>", {"<true>x</true>"}},
    };
    for (const auto &[error, inputs] : cases)
        for (const std::string &input : inputs) {
            const Parsed p = parse(input);
            EXPECT_FALSE(p.obj) << input;
            EXPECT_EQ(p.error, error) << input;
        }
}

// Reading and writing both stop at 128 nested containers; far deeper input
// fails the same way, without running out of stack.
TEST(SerializeAndUnserialize, NestingIsLimitedTo128Containers) {
    const Parsed ok = parse(nested_arrays(128));
    ASSERT_TRUE(ok.obj) << ok.error;
    EXPECT_EQ(xml(ok.obj.get()), nested_arrays(128));
    const void *values[] = {ok.obj.get()};
    CF deeper(CFArrayCreate(nullptr, values, 1, &kCFTypeArrayCallBacks));
    EXPECT_EQ(serialized(deeper.get()), "<null>");
    for (int depth : {129, 200000})
        EXPECT_EQ(parse(nested_arrays(depth)).error, "line 1: containers nested deeper than 128") << depth;
}

// (Bytes past the size never looked at, and a NUL ending the text as the
// size does: fuzz/unserialize_fuzz.cpp.)
TEST(Unserialize, NoInputIsAnError) {
    CFStringRef err = nullptr;
    EXPECT_EQ(IOCFUnserialize(nullptr, kCFAllocatorDefault, 0, &err), nullptr);
    EXPECT_EQ(text(err), "no input");
    CFRelease(err);
}

// Every prefix of a valid document fails with a located error, without
// reading past its end. (Random corruptions are the fuzzer's job.)
TEST(Unserialize, EveryPrefixFails) {
    const std::string doc =
        "<dict><key>a&amp;b</key><array ID=\"0\"><integer size=\"32\">0x10</integer><data>TWFueQ==</data>"
        "<string>x&#x263a;y</string><true/><false/><dict/></array><key>r</key><array IDREF=\"0\"/></dict>";
    ASSERT_TRUE(parse(doc).obj) << parse(doc).error;
    for (size_t n = 0; n < doc.size(); ++n) {
        const Parsed p = parse(std::string_view(doc).substr(0, n));
        EXPECT_FALSE(p.obj) << n;
        EXPECT_EQ(p.error.rfind("line 1: ", 0), 0u) << n << ": " << p.error;
    }
}
