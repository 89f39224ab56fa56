#include "plist_gen.h"

#include <IOKit/IOCFUnserialize.h>

#include <cstring>

namespace talvex::fuzz {

constexpr int kDialectNesting = 128;

PlistGen::~PlistGen() {
    for (CFTypeRef v : placed_) CFRelease(v);
    for (const void *s : with_nul_) CFRelease(s);
}

void PlistGen::place(CFTypeRef v) { placed_.push_back(CFRetain(v)); }

CFStringRef PlistGen::string() {
    if (!words_.empty() && in_.ConsumeBool())
        return make_cf_string(words_[in_.ConsumeIntegralInRange<size_t>(0, words_.size() - 1)]).release();
    std::string text = in_.ConsumeRandomLengthString(40);
    CFStringRef s = make_cf_string(text).release();
    if (!s) {   // text that is not UTF-8 is read as Latin-1, which takes every byte
        std::string latin;
        for (unsigned char b : text) {
            if (b >= 0x80) latin += static_cast<char>(0xc0 | (b >> 6));
            latin += static_cast<char>(b < 0x80 ? b : 0x80 | (b & 0x3f));
        }
        text = latin;
        s = make_cf_string(text).release();
    }
    if (s && text.find('\0') != std::string::npos) with_nul_.insert(CFRetain(s));
    return s;
}

CFNumberRef PlistGen::integer() {
    auto bits = in_.ConsumeIntegral<uint64_t>();
    return integer_of(in_.ConsumeIntegralInRange(0, 9), bits);
}

CFNumberRef PlistGen::integer_of(int kind, uint64_t bits) {
    auto make = [](CFNumberType type, auto v) { return CFNumberCreate(nullptr, type, &v); };
    switch (kind) {
    case 0: return make(kCFNumberSInt8Type, static_cast<int8_t>(bits));
    case 1: return make(kCFNumberCharType, static_cast<char>(bits));
    case 2: return make(kCFNumberSInt16Type, static_cast<int16_t>(bits));
    case 3: return make(kCFNumberShortType, static_cast<short>(bits));
    case 4: return make(kCFNumberSInt32Type, static_cast<int32_t>(bits));
    case 5: return make(kCFNumberIntType, static_cast<int>(bits));
    case 6: return make(kCFNumberLongType, static_cast<long>(bits));
    case 7: return make(kCFNumberLongLongType, static_cast<long long>(bits));
    case 8: return make(kCFNumberCFIndexType, static_cast<CFIndex>(bits));
    default: return make(kCFNumberSInt64Type, static_cast<int64_t>(bits));
    }
}

CFTypeRef PlistGen::container(int depth) {
    // A run of one-element arrays reaches the nesting limit quickly.
    if (depth < kMaxDepth && in_.ConsumeIntegralInRange(0, 15) == 0) {
        CFMutableArrayRef a = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
        CFRef<CFTypeRef> child(container(depth + 1));
        CFArrayAppendValue(a, child.get());
        return a;
    }
    size_t n = in_.ConsumeIntegralInRange<size_t>(0, 6);
    if (in_.ConsumeBool()) {
        CFMutableDictionaryRef d = new_dictionary();
        for (size_t i = 0; i < n && in_.remaining_bytes() > 0; ++i) {
            // Now and then a key that is not a string, which the dialect cannot carry.
            CFRef<CFTypeRef> key(in_.ConsumeIntegralInRange(0, 31) == 0 ? static_cast<CFTypeRef>(integer())
                                                                       : static_cast<CFTypeRef>(string()));
            CFRef<CFTypeRef> v(value(depth + 1));
            if (key && v) CFDictionarySetValue(d, key.get(), v.get());
        }
        return d;
    }
    CFMutableArrayRef a = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
    for (size_t i = 0; i < n && in_.remaining_bytes() > 0; ++i) {
        CFRef<CFTypeRef> v(value(depth + 1));
        if (v) CFArrayAppendValue(a, v.get());
    }
    return a;
}

CFTypeRef PlistGen::value(int depth) {
    if (!placed_.empty() && in_.ConsumeIntegralInRange(0, 7) == 0)
        return CFRetain(placed_[in_.ConsumeIntegralInRange<size_t>(0, placed_.size() - 1)]);
    CFTypeRef v = nullptr;
    switch (in_.ConsumeIntegralInRange(0, 7)) {
    case 0:
    case 1:
        if (depth < kMaxDepth && in_.remaining_bytes() > 0) {
            v = container(depth);
            break;
        }
        [[fallthrough]];
    case 2:
        v = string();
        break;
    case 3:
        v = integer();
        break;
    case 4: {
        std::vector<uint8_t> bytes = in_.ConsumeBytes<uint8_t>(in_.ConsumeIntegralInRange<size_t>(0, 48));
        v = CFDataCreate(nullptr, bytes.data(), static_cast<CFIndex>(bytes.size()));
        break;
    }
    case 5:
        v = CFRetain(in_.ConsumeBool() ? kCFBooleanTrue : kCFBooleanFalse);
        break;
    case 6:
        if (in_.ConsumeIntegralInRange(0, 15) == 0) {
            double d = in_.ConsumeFloatingPoint<double>();
            v = CFNumberCreate(nullptr, kCFNumberFloat64Type, &d);
            break;
        }
        [[fallthrough]];
    default:
        v = string();
        break;
    }
    if (!v) v = CFRetain(kCFBooleanFalse);
    place(v);
    return v;
}

bool PlistGen::dialect_can_carry(CFTypeRef root) const {
    std::unordered_set<const void *> seen;
    auto carries = [&](auto &self, CFTypeRef v, int depth) -> bool {
        if (!v) return false;
        CFTypeID t = CFGetTypeID(v);
        if (t == CFBooleanGetTypeID() || !seen.insert(v).second) return true;   // an object seen again: by reference
        if (t == CFNumberGetTypeID()) return !CFNumberIsFloatType(static_cast<CFNumberRef>(v));
        if (t == CFDataGetTypeID()) return true;
        if (t == CFStringGetTypeID()) return with_nul_.count(v) == 0;
        if (depth >= kDialectNesting) return false;
        if (t == CFArrayGetTypeID()) {
            auto a = static_cast<CFArrayRef>(v);
            for (CFIndex i = 0; i < CFArrayGetCount(a); ++i)
                if (!self(self, CFArrayGetValueAtIndex(a, i), depth + 1)) return false;
            return true;
        }
        if (t != CFDictionaryGetTypeID()) return false;
        auto d = static_cast<CFDictionaryRef>(v);
        auto n = static_cast<size_t>(CFDictionaryGetCount(d));
        std::vector<const void *> keys(n), values(n);
        CFDictionaryGetKeysAndValues(d, keys.data(), values.data());
        for (size_t i = 0; i < n; ++i)
            if (!keys[i] || CFGetTypeID(keys[i]) != CFStringGetTypeID() || with_nul_.count(keys[i]) != 0 ||
                !self(self, values[i], depth + 1))
                return false;
        return true;
    };
    return carries(carries, root, 0);
}

void check_written(CFTypeRef root, CFDataRef written) {
    const auto *text = reinterpret_cast<const char *>(CFDataGetBytePtr(written));
    auto length = static_cast<size_t>(CFDataGetLength(written));
    check(length > 0 && text[length - 1] == '\0' && !std::memchr(text, '\0', length - 1),
          "written text is not ended by exactly one NUL");
    CFStringRef message = nullptr;
    CFRef<CFTypeRef> sized(IOCFUnserializeWithSize(text, length, nullptr, 0, &message));
    CFRef<CFStringRef> error(message);
    if (!sized) fail("written text does not parse (%s): %s", to_std_string(error).c_str(), text);
    if (!CFEqual(root, sized)) fail("written text parses to a different list: %s", text);
    CFRef<CFTypeRef> terminated(IOCFUnserialize(text, nullptr, 0, nullptr));
    check(terminated && CFEqual(root, terminated), "the NUL-ended parse of written text differs");
}

}  // namespace talvex::fuzz
