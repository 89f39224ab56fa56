// Owning references to CoreFoundation objects, and small conversions between
// CF strings and standard strings.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>
#include <string_view>
#include <utility>

namespace talvex::sim {

// Holds one reference (from a Create/Copy call, or explicitly retained) and
// releases it when destroyed. A null reference owns nothing.
template <typename T>
class CFRef {
public:
    CFRef() = default;
    explicit CFRef(T ref) : ref_(ref) {}
    ~CFRef() { reset(); }
    CFRef(const CFRef &other) : ref_(other.ref_) {
        if (ref_) CFRetain(ref_);
    }
    CFRef &operator=(const CFRef &other) {
        if (this != &other) {
            CFRef copy(other);
            swap(copy);
        }
        return *this;
    }
    CFRef(CFRef &&other) noexcept : ref_(std::exchange(other.ref_, nullptr)) {}
    CFRef &operator=(CFRef &&other) noexcept {
        if (this != &other) {
            reset();
            ref_ = std::exchange(other.ref_, nullptr);
        }
        return *this;
    }

    // Takes an additional reference to a borrowed object.
    static CFRef retain(T ref) {
        if (ref) CFRetain(ref);
        return CFRef(ref);
    }

    T get() const { return ref_; }
    explicit operator bool() const { return ref_ != nullptr; }
    void reset(T ref = nullptr) {
        if (ref_) CFRelease(ref_);
        ref_ = ref;
    }
    T release() { return std::exchange(ref_, nullptr); }
    void swap(CFRef &other) noexcept { std::swap(ref_, other.ref_); }

private:
    T ref_ = nullptr;
};

// A new CF string holding the UTF-8 text; null when the text is not UTF-8.
inline CFRef<CFStringRef> make_cf_string(std::string_view text) {
    return CFRef<CFStringRef>(CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const uint8_t *>(text.data()),
                                                      static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false));
}

// The UTF-8 text of a CF string ("" for null).
inline std::string to_std_string(CFStringRef s) {
    if (!s) return {};
    if (const char *p = CFStringGetCStringPtr(s, kCFStringEncodingUTF8)) return p;
    CFIndex cap = CFStringGetMaximumSizeForEncoding(CFStringGetLength(s), kCFStringEncodingUTF8) + 1;
    std::string out(static_cast<size_t>(cap), '\0');
    if (!CFStringGetCString(s, out.data(), cap, kCFStringEncodingUTF8)) return {};
    out.resize(std::char_traits<char>::length(out.c_str()));
    return out;
}

}  // namespace talvex::sim
