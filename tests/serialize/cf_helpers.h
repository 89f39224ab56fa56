// Building property lists, and serialising and parsing them, for the tests.
#pragma once

#include "cf_support.h"

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOCFSerialize.h>
#include <IOKit/IOCFUnserialize.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>

namespace talvex::test {

using CF = CFRef<CFTypeRef>;

inline CF str(std::string_view text) { return CF(make_cf_string(text).release()); }

template <typename T>
CF num(CFNumberType type, T value) { return CF(CFNumberCreate(kCFAllocatorDefault, type, &value)); }

inline CF cfdata(std::string_view bytes) {
    return CF(CFDataCreate(kCFAllocatorDefault, reinterpret_cast<const uint8_t *>(bytes.data()),
                           static_cast<CFIndex>(bytes.size())));
}

// The serialised bytes (with the final NUL), or "<null>" when there are none.
inline std::string serialized(CFTypeRef obj, CFOptionFlags options = 0) {
    CF out(IOCFSerialize(obj, options));
    if (!out) return "<null>";
    const auto *d = static_cast<CFDataRef>(out.get());
    return std::string(reinterpret_cast<const char *>(CFDataGetBytePtr(d)), static_cast<size_t>(CFDataGetLength(d)));
}

// The serialised text without its NUL (expects exactly one NUL at the end).
inline std::string xml(CFTypeRef obj) {
    std::string s = serialized(obj);
    return !s.empty() && s.back() == '\0' ? s.substr(0, s.size() - 1) : "<no NUL>" + s;
}

struct Parsed {
    CF obj;
    std::string error;  // empty when none was stored
};

// Parses exactly the bytes of `input` from a heap copy of that size, so that a
// read past the end is caught by the address sanitizer.
inline Parsed parse(std::string_view input, CFOptionFlags options = 0) {
    std::unique_ptr<char[]> copy(new char[input.size()]);
    std::copy(input.begin(), input.end(), copy.get());
    CFStringRef err = nullptr;
    Parsed p;
    p.obj = CF(IOCFUnserializeWithSize(copy.get(), input.size(), kCFAllocatorDefault, options, &err));
    if (err != nullptr) {
        p.error = text(err);
        CFRelease(err);
    }
    return p;
}

}  // namespace talvex::test
