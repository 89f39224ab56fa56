// CoreFoundation helpers for tests: an owner for Create/Copy results, the
// text of a string or of any object's description, and the usual makers.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace talvex::test {

// Holds one reference and releases it at scope exit.
template <class T>
class Owned {
public:
    explicit Owned(T ref = nullptr) : ref_(ref) {}
    ~Owned() {
        if (ref_) CFRelease(ref_);
    }
    Owned(const Owned &) = delete;
    Owned &operator=(const Owned &) = delete;
    Owned(Owned &&o) noexcept : ref_(std::exchange(o.ref_, nullptr)) {}
    Owned &operator=(Owned &&o) noexcept {
        if (this != &o) {
            if (ref_) CFRelease(ref_);
            ref_ = std::exchange(o.ref_, nullptr);
        }
        return *this;
    }
    T get() const { return ref_; }
    operator T() const { return ref_; }
    explicit operator bool() const { return ref_ != nullptr; }
    T *slot() { return &ref_; }   // for out-parameters
    T release() { return std::exchange(ref_, nullptr); }

private:
    T ref_;
};

// A string's UTF-8 text; "<null>" for none.
inline std::string text(CFStringRef s) {
    if (!s) return "<null>";
    std::vector<char> buf(static_cast<size_t>(CFStringGetMaximumSizeForEncoding(CFStringGetLength(s),
                                                                                 kCFStringEncodingUTF8)) + 1);
    if (!CFStringGetCString(s, buf.data(), static_cast<CFIndex>(buf.size()), kCFStringEncodingUTF8)) return "<bad>";
    return buf.data();
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

}  // namespace talvex::test
