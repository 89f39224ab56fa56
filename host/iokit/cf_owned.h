// Ownership helpers for CoreFoundation objects and strings inside host/.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace talvex::host {

// Owns one reference to a CF object (null owns nothing) and releases it.
template <class T>
class CFOwned {
public:
    explicit CFOwned(T object = nullptr) : p_(object) {}
    ~CFOwned() {
        if (p_) CFRelease(p_);
    }
    CFOwned(const CFOwned &) = delete;
    CFOwned &operator=(const CFOwned &) = delete;
    T get() const { return p_; }
    // Gives the reference to the caller.
    T release() {
        T p = p_;
        p_ = nullptr;
        return p;
    }
    explicit operator bool() const { return p_ != nullptr; }

private:
    T p_;
};

// The UTF-8 text of a CF string; nullopt for null or a non-string.
std::optional<std::string> utf8_of(CFTypeRef string);

// The registry's serialised form of a property list (NUL included); nullopt
// when the object cannot be serialised.
std::optional<std::vector<uint8_t>> serialise(CFTypeRef object);

// Parses a serialised property list; null when the bytes are not one.
CFTypeRef unserialise(std::span<const uint8_t> bytes, CFAllocatorRef allocator);

}  // namespace talvex::host
