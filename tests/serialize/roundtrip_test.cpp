// Serialising and parsing back gives an equal property list, for generated
// nested lists with shared objects, awkward text and every integer width.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "cf_helpers.h"

using namespace talvex::test;

namespace {

class Generator {
public:
    explicit Generator(uint32_t seed) : rng_(seed) {}

    // A container at the root; leaves and containers below it, some of them
    // objects already placed elsewhere in the list.
    CF make_root() { return make_container(0); }

private:
    uint32_t below(uint32_t n) { return static_cast<uint32_t>(rng_() % n); }

    std::string text() {
        static const char *const pieces[] = {"a", "Z", "0", " ", "\t", "\n", "\r\n", "<", ">", "&", "&amp;",
                                             "\"", "'", "]]>", "\xc3\xa9", "\xe2\x98\xba", "\xf0\x9f\x98\x80",
                                             "<dict>", "&#65;", "=", "/"};
        std::string s;
        const uint32_t n = below(8);
        for (uint32_t i = 0; i < n; ++i) s += pieces[below(std::size(pieces))];
        return s;
    }

    CF number() {
        const uint64_t bits = (uint64_t{rng_()} << 32) ^ rng_();
        switch (below(8)) {
        case 0: return num(kCFNumberSInt8Type, static_cast<int8_t>(bits));
        case 1: return num(kCFNumberCharType, static_cast<char>(bits));
        case 2: return num(kCFNumberSInt16Type, static_cast<int16_t>(bits));
        case 3: return num(kCFNumberSInt32Type, static_cast<int32_t>(bits));
        case 4: return num(kCFNumberIntType, static_cast<int>(below(3)) - 1);
        case 5: return num(kCFNumberSInt64Type, static_cast<int64_t>(bits));
        case 6: return num(kCFNumberLongLongType, static_cast<long long>(bits >> below(64)));
        default: return num(kCFNumberCFIndexType, -static_cast<CFIndex>(below(1000)));
        }
    }

    CF leaf() {
        switch (below(6)) {
        case 0: return str(text());
        case 1: return number();
        case 2: {
            std::string bytes(below(10), '\0');
            for (char &c : bytes) c = static_cast<char>(rng_());
            return cfdata(bytes);
        }
        case 3: return CF(CFRetain(kCFBooleanTrue));
        case 4: return CF(CFRetain(kCFBooleanFalse));
        default: return str("");
        }
    }

    CF value(int depth) {
        if (!placed_.empty() && below(6) == 0) return CF(CFRetain(placed_[below(placed_.size())].get()));
        CF v = depth < 5 && below(3) == 0 ? make_container(depth + 1) : leaf();
        placed_.emplace_back(CFRetain(v.get()));  // a replaced dictionary value must stay alive
        return v;
    }

    CF make_container(int depth) {
        const uint32_t n = below(6);
        if (below(2) == 0) {
            CFMutableArrayRef a = make_array();
            CF owner(a);
            for (uint32_t i = 0; i < n; ++i) CFArrayAppendValue(a, value(depth).get());
            return owner;
        }
        CFMutableDictionaryRef d = make_dict();
        CF owner(d);
        for (uint32_t i = 0; i < n; ++i) {
            CF key = str(text());
            CFDictionarySetValue(d, key.get(), value(depth).get());
        }
        return owner;
    }

    std::mt19937 rng_;
    std::vector<CF> placed_;
};

}  // namespace

TEST(RoundTrip, GeneratedPropertyListsComeBackEqual) {
    int with_ids = 0;
    for (uint32_t seed = 1; seed <= 300; ++seed) {
        Generator gen(seed);
        CF original = gen.make_root();
        const std::string bytes = serialized(original.get());
        ASSERT_NE(bytes, "<null>") << "seed " << seed;
        with_ids += bytes.find("IDREF=") != std::string::npos;
        const Parsed back = parse(bytes);
        ASSERT_TRUE(back.obj) << "seed " << seed << ": " << back.error << "\n" << bytes;
        EXPECT_TRUE(CFEqual(original.get(), back.obj.get())) << "seed " << seed << "\n" << bytes;
        // Writing the parsed list again gives the same text: same order, same
        // integer widths, same sharing.
        EXPECT_EQ(serialized(back.obj.get()), bytes) << "seed " << seed;
    }
    EXPECT_GT(with_ids, 30);  // the generator does exercise shared objects
}
