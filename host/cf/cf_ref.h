// The one owner of CoreFoundation references, and the conversions between CF
// strings and standard strings. For the platform layer, the report library,
// the simulator, tests, benchmarks and fuzz targets; not an installed header.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace talvex {

// Holds one reference to a CoreFoundation object and releases it when
// destroyed; a null reference owns nothing. Made from a Create or Copy
// result (the reference is adopted) or with retain() from a borrowed object.
// A copy takes a reference of its own; a move hands the one it has over.
template <class T>
class CFRef {
public:
    CFRef() = default;
    CFRef(std::nullptr_t) noexcept {}
    explicit CFRef(T ref) noexcept : ref_(ref) {}
    // Takes a reference of its own to a borrowed object.
    static CFRef retain(T ref) {
        if (ref) CFRetain(ref);
        return CFRef(ref);
    }
    ~CFRef() { reset(); }
    CFRef(const CFRef &other) : ref_(other.ref_) {
        if (ref_) CFRetain(ref_);
    }
    CFRef &operator=(const CFRef &other) {
        CFRef copy(other);
        swap(copy);
        return *this;
    }
    CFRef(CFRef &&other) noexcept : ref_(std::exchange(other.ref_, nullptr)) {}
    CFRef &operator=(CFRef &&other) noexcept {
        CFRef moved(std::move(other));
        swap(moved);
        return *this;
    }

    T get() const { return ref_; }
    // Stands for the object where a call takes it (a temporary owner lives
    // to the end of the call; the object must not be kept past the owner).
    operator T() const { return ref_; }
    explicit operator bool() const { return ref_ != nullptr; }
    // Gives the reference to the caller, who then releases it.
    T release() { return std::exchange(ref_, nullptr); }
    // Releases what is held and adopts `ref`.
    void reset(T ref = nullptr) {
        if (T old = std::exchange(ref_, ref)) CFRelease(old);
    }
    // Releases what is held; the place a Create or Copy out-parameter fills.
    T *slot() {
        reset();
        return &ref_;
    }
    void swap(CFRef &other) noexcept { std::swap(ref_, other.ref_); }
    // Releasing through the owner would release its reference twice.
    friend void CFRelease(const CFRef &) = delete;

private:
    T ref_ = nullptr;
};

// A new CF string holding the UTF-8 text; null when the text is not UTF-8.
inline CFRef<CFStringRef> make_cf_string(std::string_view text) {
    return CFRef<CFStringRef>(CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const uint8_t *>(text.data()),
                                                      static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false));
}

// The UTF-8 text of a CF string (up to a NUL inside it); nothing for null,
// for an object that is not a string, or when the text cannot be had.
inline std::optional<std::string> utf8_text(CFTypeRef object) {
    if (!object || CFGetTypeID(object) != CFStringGetTypeID()) return std::nullopt;
    auto s = static_cast<CFStringRef>(object);
    if (const char *p = CFStringGetCStringPtr(s, kCFStringEncodingUTF8)) return std::string(p);
    CFIndex cap = CFStringGetMaximumSizeForEncoding(CFStringGetLength(s), kCFStringEncodingUTF8) + 1;
    std::string out(static_cast<size_t>(cap), '\0');
    if (!CFStringGetCString(s, out.data(), cap, kCFStringEncodingUTF8)) return std::nullopt;
    out.resize(std::char_traits<char>::length(out.c_str()));
    return out;
}

// The UTF-8 text of a CF string; "" when utf8_text has none.
inline std::string to_std_string(CFStringRef s) { return utf8_text(s).value_or(std::string()); }

}  // namespace talvex
