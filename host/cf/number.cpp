// CFNumber (keeps the type it was made with; compares by value across types)
// and the two CFBoolean singletons.
#include "cf_internal.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

struct __CFNumber {
    CFRuntimeBase base;
    CFNumberType type;
    bool is_float;
    int64_t integer;   // the value, for integer types
    double real;       // the value, for floating-point types
};

struct __CFBoolean {
    CFRuntimeBase base;
    bool value;
};

namespace cf {
namespace {

struct TypeInfo {
    size_t size;     // 0: not a number type
    bool is_float;
};

TypeInfo type_info(CFNumberType type) {
    switch (type) {
        case kCFNumberSInt8Type:
        case kCFNumberCharType: return {1, false};
        case kCFNumberSInt16Type:
        case kCFNumberShortType: return {2, false};
        case kCFNumberSInt32Type:
        case kCFNumberIntType: return {4, false};
        case kCFNumberSInt64Type:
        case kCFNumberLongLongType:
        case kCFNumberLongType:
        case kCFNumberCFIndexType:
        case kCFNumberNSIntegerType: return {8, false};
        case kCFNumberFloat32Type:
        case kCFNumberFloatType: return {4, true};
        case kCFNumberFloat64Type:
        case kCFNumberDoubleType:
        case kCFNumberCGFloatType: return {8, true};
        default: return {0, false};
    }
}

constexpr double kTwo63 = 9223372036854775808.0;

// Three-way comparison of an integer with a double; NaN orders below every number.
int compare_integer_real(int64_t i, double d) {
    if (std::isnan(d)) return 1;
    if (d >= kTwo63) return -1;
    if (d < -kTwo63) return 1;
    double whole = std::trunc(d);
    auto w = static_cast<int64_t>(whole);
    if (i != w) return i < w ? -1 : 1;
    if (d > whole) return -1;
    if (d < whole) return 1;
    return 0;
}

int compare_reals(double a, double b) {
    if (std::isnan(a) || std::isnan(b)) return std::isnan(a) == std::isnan(b) ? 0 : std::isnan(a) ? -1 : 1;
    return a < b ? -1 : a > b ? 1 : 0;
}

int compare_numbers(const __CFNumber *a, const __CFNumber *b) {
    if (!a->is_float && !b->is_float) return a->integer < b->integer ? -1 : a->integer > b->integer ? 1 : 0;
    if (a->is_float && b->is_float) return compare_reals(a->real, b->real);
    if (!a->is_float) return compare_integer_real(a->integer, b->real);
    return -compare_integer_real(b->integer, a->real);
}

bool fits(int64_t v, size_t size) {
    switch (size) {
        case 1: return v >= INT8_MIN && v <= INT8_MAX;
        case 2: return v >= INT16_MIN && v <= INT16_MAX;
        case 4: return v >= INT32_MIN && v <= INT32_MAX;
        default: return true;
    }
}

// Stores v truncated to `size` bytes.
void store_integer(void *out, size_t size, int64_t v) {
    switch (size) {
        case 1: { auto x = static_cast<int8_t>(v); std::memcpy(out, &x, 1); break; }
        case 2: { auto x = static_cast<int16_t>(v); std::memcpy(out, &x, 2); break; }
        case 4: { auto x = static_cast<int32_t>(v); std::memcpy(out, &x, 4); break; }
        default: std::memcpy(out, &v, 8); break;
    }
}

// Stores v as a float or double; false when the stored value differs.
bool store_real(void *out, size_t size, double v) {
    if (size == 8) {
        std::memcpy(out, &v, 8);
        return true;
    }
    float f;
    if (std::isfinite(v) && std::fabs(v) > std::numeric_limits<float>::max()) {
        f = v > 0 ? std::numeric_limits<float>::infinity() : -std::numeric_limits<float>::infinity();
    } else {
        f = static_cast<float>(v);
    }
    std::memcpy(out, &f, 4);
    return std::isnan(v) || static_cast<double>(f) == v;
}

const __CFNumber *as_number(CFTypeRef cf, const char *function) {
    return cast<__CFNumber>(cf, kNumberTypeID, function);
}

Boolean number_equal(CFTypeRef a, CFTypeRef b) {
    return compare_numbers(static_cast<const __CFNumber *>(a), static_cast<const __CFNumber *>(b)) == 0;
}

// Equal values hash equally whatever their types: a whole-valued real hashes
// as the integer it equals.
CFHashCode number_hash(CFTypeRef cf) {
    auto n = static_cast<const __CFNumber *>(cf);
    if (!n->is_float) return static_cast<CFHashCode>(n->integer);
    double d = n->real;
    if (std::isnan(d)) return 0x7ff8000000000000ull;
    if (d >= -kTwo63 && d < kTwo63 && std::trunc(d) == d) return static_cast<CFHashCode>(static_cast<int64_t>(d));
    return hash_bytes(&d, sizeof d);
}

CFStringRef number_description(CFTypeRef cf) {
    auto n = static_cast<const __CFNumber *>(cf);
    char text[64];
    std::to_chars_result r;
    if (!n->is_float) {
        r = std::to_chars(text, text + sizeof text, n->integer);
    } else if (type_info(n->type).size == 4) {
        r = std::to_chars(text, text + sizeof text, static_cast<float>(n->real));
    } else {
        r = std::to_chars(text, text + sizeof text, n->real);
    }
    return make_string(std::string_view(text, static_cast<size_t>(r.ptr - text)));
}

Boolean boolean_equal(CFTypeRef a, CFTypeRef b) {
    return static_cast<const __CFBoolean *>(a)->value == static_cast<const __CFBoolean *>(b)->value;
}

CFHashCode boolean_hash(CFTypeRef cf) { return static_cast<const __CFBoolean *>(cf)->value ? 1 : 0; }

CFStringRef boolean_description(CFTypeRef cf) {
    return static_cast<const __CFBoolean *>(cf)->value ? CFSTR("true") : CFSTR("false");
}

__CFBoolean g_true{immortal_header(kBooleanTypeID), true};
__CFBoolean g_false{immortal_header(kBooleanTypeID), false};

}  // namespace

const CFRuntimeClass kNumberClass = {0,            "CFNumber",  nullptr, nullptr, nullptr,
                                     number_equal, number_hash, nullptr, number_description};
const CFRuntimeClass kBooleanClass = {0,             "CFBoolean",  nullptr, nullptr, nullptr,
                                      boolean_equal, boolean_hash, nullptr, boolean_description};

}  // namespace cf

using namespace cf;

const CFBooleanRef kCFBooleanTrue = &cf::g_true;
const CFBooleanRef kCFBooleanFalse = &cf::g_false;

CFTypeID CFNumberGetTypeID(void) { return kNumberTypeID; }

CFNumberRef CFNumberCreate(CFAllocatorRef, CFNumberType type, const void *value_ptr) {
    TypeInfo info = type_info(type);
    if (info.size == 0 || value_ptr == nullptr) return nullptr;
    __CFNumber *n = make_object<__CFNumber>(kNumberTypeID);
    if (n == nullptr) return nullptr;
    n->type = type;
    n->is_float = info.is_float;
    n->integer = 0;
    n->real = 0;
    if (info.is_float) {
        if (info.size == 4) {
            float f;
            std::memcpy(&f, value_ptr, 4);
            n->real = f;
        } else {
            std::memcpy(&n->real, value_ptr, 8);
        }
    } else {
        switch (info.size) {
            case 1: { int8_t v; std::memcpy(&v, value_ptr, 1); n->integer = v; break; }
            case 2: { int16_t v; std::memcpy(&v, value_ptr, 2); n->integer = v; break; }
            case 4: { int32_t v; std::memcpy(&v, value_ptr, 4); n->integer = v; break; }
            default: std::memcpy(&n->integer, value_ptr, 8); break;
        }
    }
    return n;
}

CFNumberType CFNumberGetType(CFNumberRef number) {
    const __CFNumber *n = as_number(number, "CFNumberGetType");
    return n == nullptr ? 0 : n->type;
}

CFIndex CFNumberGetByteSize(CFNumberRef number) {
    const __CFNumber *n = as_number(number, "CFNumberGetByteSize");
    return n == nullptr ? 0 : static_cast<CFIndex>(type_info(n->type).size);
}

Boolean CFNumberIsFloatType(CFNumberRef number) {
    const __CFNumber *n = as_number(number, "CFNumberIsFloatType");
    return n != nullptr && n->is_float;
}

Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void *value_ptr) {
    const __CFNumber *n = as_number(number, "CFNumberGetValue");
    if (n != nullptr && !n->is_float && value_ptr != nullptr &&
        (type == kCFNumberLongLongType || type == kCFNumberSInt64Type)) {
        // The common case: a 64-bit integer read as one.
        std::memcpy(value_ptr, &n->integer, 8);
        return true;
    }
    TypeInfo want = type_info(type);
    if (n == nullptr || want.size == 0 || value_ptr == nullptr) return false;
    if (!n->is_float && !want.is_float) {
        store_integer(value_ptr, want.size, n->integer);
        return fits(n->integer, want.size);
    }
    if (!n->is_float) {
        // Exact when the stored real compares equal to the integer.
        double d = static_cast<double>(n->integer);
        bool exact = store_real(value_ptr, want.size, d);
        double stored = d;
        if (want.size == 4) {
            float f;
            std::memcpy(&f, value_ptr, 4);
            stored = f;
        }
        return exact && compare_integer_real(n->integer, stored) == 0;
    }
    if (want.is_float) return store_real(value_ptr, want.size, n->real);
    // Real to integer: toward zero, saturated to 64 bits, then truncated.
    double d = n->real;
    int64_t v;
    if (std::isnan(d)) {
        v = 0;
    } else if (d >= kTwo63) {
        v = INT64_MAX;
    } else if (d < -kTwo63) {
        v = INT64_MIN;
    } else {
        v = static_cast<int64_t>(std::trunc(d));
    }
    store_integer(value_ptr, want.size, v);
    return compare_integer_real(v, d) == 0 && fits(v, want.size);
}

CFComparisonResult CFNumberCompare(CFNumberRef a, CFNumberRef b, void *) {
    const __CFNumber *na = as_number(a, "CFNumberCompare");
    const __CFNumber *nb = as_number(b, "CFNumberCompare");
    if (na == nullptr || nb == nullptr) return na == nb ? kCFCompareEqualTo : na == nullptr ? kCFCompareLessThan : kCFCompareGreaterThan;
    int c = compare_numbers(na, nb);
    return c < 0 ? kCFCompareLessThan : c > 0 ? kCFCompareGreaterThan : kCFCompareEqualTo;
}

CFTypeID CFBooleanGetTypeID(void) { return kBooleanTypeID; }

Boolean CFBooleanGetValue(CFBooleanRef boolean) {
    const __CFBoolean *b = cast<__CFBoolean>(boolean, kBooleanTypeID, "CFBooleanGetValue");
    return b != nullptr && b->value;
}
