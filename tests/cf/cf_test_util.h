// Helpers for the CoreFoundation tests: an owner for Create/Copy results and
// the text of a string.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>

namespace cftest {

// Holds one reference and releases it at scope exit.
template <class T>
class Owned {
public:
    explicit Owned(T ref = nullptr) : ref_(ref) {}
    Owned(const Owned &) = delete;
    Owned &operator=(const Owned &) = delete;
    ~Owned() {
        if (ref_ != nullptr) CFRelease(ref_);
    }
    T get() const { return ref_; }
    operator T() const { return ref_; }
    T release() {
        T r = ref_;
        ref_ = nullptr;
        return r;
    }

private:
    T ref_;
};

inline std::string text(CFStringRef str) {
    if (str == nullptr) return "<null string>";
    const char *p = CFStringGetCStringPtr(str, kCFStringEncodingUTF8);
    return p == nullptr ? "<no text>" : std::string(p);
}

// The description of any object, as text.
inline std::string describe(CFTypeRef cf) {
    Owned<CFStringRef> d(CFCopyDescription(cf));
    return text(d);
}

inline CFNumberRef make_int(int64_t v) { return CFNumberCreate(nullptr, kCFNumberSInt64Type, &v); }

inline CFMutableDictionaryRef make_dict() {
    return CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
}

inline CFMutableArrayRef make_array() { return CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks); }

}  // namespace cftest
