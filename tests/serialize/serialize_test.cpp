// IOCFSerialize: the exact bytes of the registry's XML dialect.
#include <gtest/gtest.h>

#include "cf_helpers.h"

using namespace talvex::test;

// Every leaf kind as a document of its own: only <, > and & are escaped,
// base64 is padded for every tail length and stays on one line, and an
// integer's width follows its number type and writes its bits. (Every other
// number type, by value: fuzz/unserialize_fuzz.cpp.)
TEST(Serialize, EveryLeafKind) {
    const std::pair<CF, std::string> cases[] = {
        {str("a<b>&c\"d'e \t\n\xc3\xa9"), "<string>a&lt;b&gt;&amp;c\"d'e \t\n\xc3\xa9</string>"},
        {CF(CFRetain(kCFBooleanTrue)), "<true/>"},
        {CF(CFRetain(kCFBooleanFalse)), "<false/>"},
        {cfdata(""), "<data></data>"},
        {cfdata("M"), "<data>TQ==</data>"},
        {cfdata("Ma"), "<data>TWE=</data>"},
        {cfdata("Man"), "<data>TWFu</data>"},
        {cfdata({"\xff\xfe\x00\x3e", 4}), "<data>//4APg==</data>"},
        {cfdata(std::string(48, '\0')), "<data>" + std::string(64, 'A') + "</data>"},
        {num(kCFNumberSInt8Type, int8_t{-1}), "<integer size=\"8\">0xff</integer>"},
        {num(kCFNumberSInt16Type, int16_t{-2}), "<integer size=\"16\">0xfffe</integer>"},
        {num(kCFNumberSInt32Type, int32_t{-1}), "<integer size=\"32\">0xffffffff</integer>"},
        {num(kCFNumberLongLongType, INT64_MIN), "<integer size=\"64\">0x8000000000000000</integer>"},
    };
    for (const auto &[object, expect] : cases) EXPECT_EQ(xml(object.get()), expect);
}

// (How IDs are numbered, and that containers keep their order, shows in the
// parser's table of accepted input.)
// Equal but distinct objects are each written in full; the boolean
// singletons are never referenced.
TEST(Serialize, OnlyTheSameObjectTakesAnId) {
    CFMutableArrayRef twins = make_array();
    CF owner(twins), a1 = str("same"), a2 = str("same");
    for (CFTypeRef v : {a1.get(), a2.get(), CFTypeRef(kCFBooleanTrue), CFTypeRef(kCFBooleanTrue), a1.get()})
        CFArrayAppendValue(twins, v);
    EXPECT_EQ(xml(twins), "<array><string ID=\"0\">same</string><string>same</string><true/><true/>"
                          "<string IDREF=\"0\"/></array>");
}

// Refused, not written in part: an object of another type inside a list, a
// container inside itself. (Floats, non-string keys, NUL inside strings and
// options: fuzz/unserialize_fuzz.cpp checks every list is written
// exactly when the dialect can carry it.)
TEST(Serialize, UnsupportedInputGivesNothing) {
    CFRef<CFMutableArrayRef> outer(make_array()), inner(make_array());
    CF error(CFErrorCreate(kCFAllocatorDefault, kCFErrorDomainPOSIX, 2, nullptr));
    CFArrayAppendValue(outer, inner);
    CFArrayAppendValue(inner, error.get());
    EXPECT_EQ(serialized(outer), "<null>");
    EXPECT_EQ(serialized(nullptr), "<null>");
    CFArraySetValueAtIndex(inner, 0, outer);
    EXPECT_EQ(serialized(outer), "<null>");
    CFArrayRemoveAllValues(inner);  // break the cycle so both can be freed
}
