// Values built from fuzz input: picks from tables, CF values, and property
// lists with what the registry's XML dialect can carry of them.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <fuzzer/FuzzedDataProvider.h>

#include "cf_ref.h"
#include "fuzz_check.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace talvex::fuzz {

// One entry of `table`, chosen by the input.
template <class T, size_t N>
const T &one_of(FuzzedDataProvider &in, const T (&table)[N]) {
    return table[in.ConsumeIntegralInRange<size_t>(0, N - 1)];
}

// `usual`, or one time in eight any value of its type.
template <class T>
T usually(FuzzedDataProvider &in, T usual) {
    return in.ConsumeIntegralInRange(0, 7) ? usual : in.ConsumeIntegral<T>();
}

// A new, empty mutable dictionary of CF values.
inline CFMutableDictionaryRef new_dictionary() {
    return CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
}

// A new string of `text` (owned by the caller); null for null.
inline CFStringRef new_string(const char *text) { return text ? make_cf_string(text).release() : nullptr; }

// Builds property lists of every kind the dialect knows and some it does
// not (floats, non-string keys, strings with a NUL), sharing objects and
// nesting past the dialect's limit.
class PlistGen {
public:
    explicit PlistGen(FuzzedDataProvider &in, std::vector<std::string_view> words = {})
        : in_(in), words_(std::move(words)) {}
    ~PlistGen();
    PlistGen(const PlistGen &) = delete;
    PlistGen &operator=(const PlistGen &) = delete;

    // A new value of any kind (owned by the caller); never null.
    CFTypeRef value(int depth = 0);
    // A new dictionary or array (owned by the caller).
    CFTypeRef container(int depth = 0);
    // A new string: a vocabulary word or text from the input.
    CFStringRef string();
    // A new integer of a random width.
    CFNumberRef integer();
    // A new integer holding `bits` cut to the width of number type `kind` (0-9).
    static CFNumberRef integer_of(int kind, uint64_t bits);

    // Whether IOCFSerialize must write `root`, a list made by this generator:
    // every number integral, every key a string, no string with a NUL in it,
    // and no container written in full deeper than the dialect's 128 levels.
    // Objects reached again are written by reference, so only their first
    // appearance (in document order) counts.
    bool dialect_can_carry(CFTypeRef root) const;

    // Deepest nesting the generator builds on its own.
    static constexpr int kMaxDepth = 140;

private:
    void place(CFTypeRef v);

    FuzzedDataProvider &in_;
    std::vector<std::string_view> words_;
    std::vector<CFTypeRef> placed_;   // retained: candidates for sharing
    std::unordered_set<const void *> with_nul_;   // retained: strings with a NUL inside
};

// Checks text IOCFSerialize wrote for `root`: ended by exactly one NUL, and
// read back equal to `root` both with its size and up to its NUL.
void check_written(CFTypeRef root, CFDataRef written);

}  // namespace talvex::fuzz
