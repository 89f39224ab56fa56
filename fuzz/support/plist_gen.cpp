#include "plist_gen.h"

#include <unordered_set>

namespace talvex::fuzz {

namespace {

constexpr int kDialectNesting = 128;

CFNumberRef number_of(CFNumberType type, const void *value) { return CFNumberCreate(nullptr, type, value); }

}  // namespace

PlistGen::~PlistGen() {
    for (CFTypeRef v : placed_) CFRelease(v);
    for (const void *s : with_nul_) CFRelease(s);
}

void PlistGen::place(CFTypeRef v) { placed_.push_back(CFRetain(v)); }

CFStringRef PlistGen::string() {
    if (!words_.empty() && in_.ConsumeBool()) {
        std::string_view w = words_[in_.ConsumeIntegralInRange<size_t>(0, words_.size() - 1)];
        return CFStringCreateWithBytes(nullptr, reinterpret_cast<const uint8_t *>(w.data()),
                                       static_cast<CFIndex>(w.size()), kCFStringEncodingUTF8, false);
    }
    std::string text = in_.ConsumeRandomLengthString(40);
    CFStringRef s = CFStringCreateWithBytes(nullptr, reinterpret_cast<const uint8_t *>(text.data()),
                                            static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false);
    if (!s) {
        // Text that is not UTF-8 is read as Latin-1, which takes every byte.
        std::string latin;
        for (char c : text) {
            auto b = static_cast<uint8_t>(c);
            if (b < 0x80) {
                latin += c;
            } else {
                latin += static_cast<char>(0xc0 | (b >> 6));
                latin += static_cast<char>(0x80 | (b & 0x3f));
            }
        }
        text = latin;
        s = CFStringCreateWithBytes(nullptr, reinterpret_cast<const uint8_t *>(text.data()),
                                    static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false);
    }
    if (s && text.find('\0') != std::string::npos) with_nul_.insert(CFRetain(s));
    return s;
}

CFNumberRef PlistGen::integer() {
    auto bits = in_.ConsumeIntegral<uint64_t>();
    switch (in_.ConsumeIntegralInRange(0, 9)) {
    case 0: {
        auto v = static_cast<int8_t>(bits);
        return number_of(kCFNumberSInt8Type, &v);
    }
    case 1: {
        auto v = static_cast<char>(bits);
        return number_of(kCFNumberCharType, &v);
    }
    case 2: {
        auto v = static_cast<int16_t>(bits);
        return number_of(kCFNumberSInt16Type, &v);
    }
    case 3: {
        auto v = static_cast<short>(bits);
        return number_of(kCFNumberShortType, &v);
    }
    case 4: {
        auto v = static_cast<int32_t>(bits);
        return number_of(kCFNumberSInt32Type, &v);
    }
    case 5: {
        auto v = static_cast<int>(bits);
        return number_of(kCFNumberIntType, &v);
    }
    case 6: {
        auto v = static_cast<long>(bits);
        return number_of(kCFNumberLongType, &v);
    }
    case 7: {
        auto v = static_cast<long long>(bits);
        return number_of(kCFNumberLongLongType, &v);
    }
    case 8: {
        auto v = static_cast<CFIndex>(bits);
        return number_of(kCFNumberCFIndexType, &v);
    }
    default: {
        auto v = static_cast<int64_t>(bits);
        return number_of(kCFNumberSInt64Type, &v);
    }
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
        CFMutableDictionaryRef d =
            CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
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

namespace {

class CarryCheck {
public:
    explicit CarryCheck(const std::unordered_set<const void *> &with_nul) : with_nul_(with_nul) {}

    bool visit(CFTypeRef v, int depth) {
        if (!v) return false;
        CFTypeID t = CFGetTypeID(v);
        if (t == CFBooleanGetTypeID()) return true;
        if (!seen_.insert(v).second) return true;   // written by reference
        if (t == CFNumberGetTypeID()) return !CFNumberIsFloatType(static_cast<CFNumberRef>(v));
        if (t == CFDataGetTypeID()) return true;
        if (t == CFStringGetTypeID()) return string_ok(static_cast<CFStringRef>(v));
        if (t == CFArrayGetTypeID()) {
            if (depth >= kDialectNesting) return false;
            auto a = static_cast<CFArrayRef>(v);
            for (CFIndex i = 0; i < CFArrayGetCount(a); ++i)
                if (!visit(CFArrayGetValueAtIndex(a, i), depth + 1)) return false;
            return true;
        }
        if (t == CFDictionaryGetTypeID()) {
            if (depth >= kDialectNesting) return false;
            auto d = static_cast<CFDictionaryRef>(v);
            CFIndex n = CFDictionaryGetCount(d);
            std::vector<const void *> keys(static_cast<size_t>(n)), values(static_cast<size_t>(n));
            CFDictionaryGetKeysAndValues(d, keys.data(), values.data());
            for (size_t i = 0; i < keys.size(); ++i) {
                if (!keys[i] || CFGetTypeID(keys[i]) != CFStringGetTypeID()) return false;
                if (!string_ok(static_cast<CFStringRef>(keys[i]))) return false;
                if (!visit(values[i], depth + 1)) return false;
            }
            return true;
        }
        return false;
    }

private:
    bool string_ok(CFStringRef s) const { return with_nul_.count(s) == 0; }
    const std::unordered_set<const void *> &with_nul_;
    std::unordered_set<const void *> seen_;
};

}  // namespace

bool PlistGen::dialect_can_carry(CFTypeRef root) const { return CarryCheck(with_nul_).visit(root, 0); }

}  // namespace talvex::fuzz
