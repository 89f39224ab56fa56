// CoreFoundation helpers for tests: the text of a string or of any object's
// description, and the usual makers. References are owned by talvex::CFRef.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include "cf_ref.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace talvex::test {

using talvex::CFRef;

// A string's UTF-8 text; "<null>" for none.
inline std::string text(CFStringRef s) {
    if (!s) return "<null>";
    std::vector<char> buf(static_cast<size_t>(CFStringGetMaximumSizeForEncoding(CFStringGetLength(s),
                                                                                 kCFStringEncodingUTF8)) + 1);
    if (!CFStringGetCString(s, buf.data(), static_cast<CFIndex>(buf.size()), kCFStringEncodingUTF8)) return "<bad>";
    return buf.data();
}

inline std::string describe(CFTypeRef cf) {
    CFRef<CFStringRef> d(CFCopyDescription(cf));
    return text(d);
}

inline CFNumberRef make_int(int64_t v) { return CFNumberCreate(nullptr, kCFNumberSInt64Type, &v); }

inline CFMutableDictionaryRef make_dict() {
    return CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
}

inline CFMutableArrayRef make_array() { return CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks); }

}  // namespace talvex::test
