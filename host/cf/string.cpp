// CFString: UTF-8 text with its UTF-16 length kept alongside; constant strings
// are interned and immortal.
#include "cf_internal.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace cf {
namespace {

bool continuation(unsigned char c) { return (c & 0xc0) == 0x80; }

// Length of the well-formed UTF-8 sequence at text[i], or 0 when it is not one.
size_t sequence_length(std::string_view text, size_t i) {
    auto at = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    unsigned char b = at(i);
    size_t left = text.size() - i;
    if (b < 0x80) return 1;
    if (b >= 0xc2 && b <= 0xdf) return left >= 2 && continuation(at(i + 1)) ? 2 : 0;
    if (b >= 0xe0 && b <= 0xef) {
        if (left < 3) return 0;
        unsigned char lo = b == 0xe0 ? 0xa0 : 0x80;
        unsigned char hi = b == 0xed ? 0x9f : 0xbf;
        unsigned char b1 = at(i + 1);
        return b1 >= lo && b1 <= hi && continuation(at(i + 2)) ? 3 : 0;
    }
    if (b >= 0xf0 && b <= 0xf4) {
        if (left < 4) return 0;
        unsigned char lo = b == 0xf0 ? 0x90 : 0x80;
        unsigned char hi = b == 0xf4 ? 0x8f : 0xbf;
        unsigned char b1 = at(i + 1);
        return b1 >= lo && b1 <= hi && continuation(at(i + 2)) && continuation(at(i + 3)) ? 4 : 0;
    }
    return 0;
}

__CFString *as_string(CFTypeRef cf, const char *function) { return cast<__CFString>(cf, kStringTypeID, function); }

__CFString *as_mutable_string(CFTypeRef cf, const char *function) {
    __CFString *str = as_string(cf, function);
    if (str != nullptr && !str->is_mutable) fatal(function, "%p is an immutable string", cf);
    return str;
}

// A new string holding `text`, which must be valid UTF-8 described by `info`.
__CFString *new_string(std::string_view text, const TextInfo &info, bool is_mutable) noexcept {
    size_t capacity = text.size() + 1;
    char *bytes = static_cast<char *>(std::malloc(capacity));
    if (bytes == nullptr) return nullptr;
    if (!text.empty()) std::memcpy(bytes, text.data(), text.size());
    bytes[text.size()] = 0;
    __CFString *str = make_object<__CFString>(kStringTypeID);
    if (str == nullptr) {
        std::free(bytes);
        return nullptr;
    }
    str->bytes = bytes;
    str->length = text.size();
    str->capacity = capacity;
    str->utf16_length = info.utf16_length;
    str->ascii = info.ascii;
    str->is_mutable = is_mutable;
    str->hash_kept = false;
    return str;
}

// Appends valid UTF-8 text described by `info`; aborts when memory runs out,
// since a mutator has no way to report it and must not lose text silently.
void append_text(__CFString *str, std::string_view text, const TextInfo &info) {
    if (text.empty()) return;
    size_t needed = str->length + text.size() + 1;
    if (needed > str->capacity) {
        // The appended text may live inside this very string.
        std::string copy;
        bool inside = text.data() >= str->bytes && text.data() < str->bytes + str->length;
        if (inside) {
            try {
                copy.assign(text);
            } catch (...) {
                fatal("CFStringAppend", "out of memory");
            }
            text = copy;
        }
        size_t capacity = std::max(needed, str->capacity * 2);
        char *bytes = static_cast<char *>(std::realloc(str->bytes, capacity));
        if (bytes == nullptr) fatal("CFStringAppend", "out of memory");
        str->bytes = bytes;
        str->capacity = capacity;
        std::memcpy(str->bytes + str->length, text.data(), text.size());
    } else {
        std::memmove(str->bytes + str->length, text.data(), text.size());
    }
    str->length += text.size();
    str->bytes[str->length] = 0;
    str->utf16_length += info.utf16_length;
    str->ascii = str->ascii && info.ascii;
}

bool encodable(std::string_view text, CFStringEncoding encoding, TextInfo &info) {
    info = scan_utf8(text);
    if (encoding == kCFStringEncodingUTF8) return info.valid;
    if (encoding == kCFStringEncodingASCII) return info.ascii;
    return false;
}

void string_finalize(CFTypeRef cf) {
    auto str = static_cast<const __CFString *>(cf);
    if (str->capacity != 0) std::free(str->bytes);
}

Boolean string_equal(CFTypeRef a, CFTypeRef b) { return string_view_of(CFStringRef(a)) == string_view_of(CFStringRef(b)); }

CFHashCode string_hash(CFTypeRef cf) {
    auto str = static_cast<const __CFString *>(cf);
    return str->hash_kept ? str->hash : hash_bytes(str->bytes, str->length);
}

CFStringRef string_description(CFTypeRef cf) { return CFStringCreateCopy(nullptr, CFStringRef(cf)); }

// ------------------------------------------------------------ constant strings
struct ConstantTable {
    std::shared_mutex lock;
    std::unordered_map<std::string_view, __CFString *> strings;  // keyed by the strings' own text
};

// Makes a new string one of the constants: never freed, its hash kept.
void keep_constant(__CFString *str) noexcept {
    str->base._cfinfoa = kImmortal;
    str->hash = hash_bytes(str->bytes, str->length);
    str->hash_kept = true;
}

ConstantTable &constants() noexcept {
    // Never destroyed: constant strings stay valid through static destruction.
    static ConstantTable *table = [] {
        auto t = new ConstantTable;
        for (CFStringRef known : {kCFErrorDomainMach, kCFErrorDomainPOSIX, kCFErrorDescriptionKey})
            t->strings.emplace(string_view_of(known), const_cast<__CFString *>(known));
        return t;
    }();
    return *table;
}

}  // namespace

const CFRuntimeClass kStringClass = {0,           "CFString",  nullptr, nullptr, string_finalize,
                                     string_equal, string_hash, nullptr, string_description};

TextInfo scan_utf8(std::string_view text) noexcept {
    TextInfo info{true, true, 0};
    size_t i = 0;
    while (i < text.size()) {
        // Runs of ASCII are the common case: eight bytes at a time while
        // none has its top bit set.
        if (text.size() - i >= 8) {
            uint64_t word;
            std::memcpy(&word, text.data() + i, 8);
            if ((word & 0x8080808080808080ull) == 0) {
                info.utf16_length += 8;
                i += 8;
                continue;
            }
        }
        if (static_cast<unsigned char>(text[i]) < 0x80) {
            ++info.utf16_length;
            ++i;
            continue;
        }
        info.ascii = false;
        size_t n = sequence_length(text, i);
        if (n == 0) {
            info.valid = false;
            return info;
        }
        info.utf16_length += n == 4 ? 2 : 1;
        i += n;
    }
    return info;
}

std::string sanitize_utf8(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        size_t n = sequence_length(text, i);
        if (n == 0) {
            append_code_point(out, static_cast<unsigned char>(text[i]));
            ++i;
        } else {
            out.append(text.substr(i, n));
            i += n;
        }
    }
    return out;
}

void append_code_point(std::string &out, uint32_t c) {
    if (c > 0x10ffff || (c >= 0xd800 && c <= 0xdfff)) c = 0xfffd;
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xc0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3f));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xe0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3f));
        out += static_cast<char>(0x80 | (c & 0x3f));
    } else {
        out += static_cast<char>(0xf0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3f));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3f));
        out += static_cast<char>(0x80 | (c & 0x3f));
    }
}

CFStringRef make_string(std::string_view utf8) noexcept { return new_string(utf8, scan_utf8(utf8), false); }

std::string_view string_view_of(CFStringRef str) noexcept {
    auto s = static_cast<const __CFString *>(str);
    return std::string_view(s->bytes, s->length);
}

}  // namespace cf

using namespace cf;

CFTypeID CFStringGetTypeID(void) { return kStringTypeID; }

CFStringRef __CFStringMakeConstantString(const char *cstr) {
    if (cstr == nullptr) fatal("CFSTR", "called with a null C string");
    std::string_view text(cstr);
    ConstantTable &table = constants();
    {
        std::shared_lock lock(table.lock);
        auto found = table.strings.find(text);
        if (found != table.strings.end()) return found->second;
    }
    std::unique_lock lock(table.lock);
    auto found = table.strings.find(text);
    if (found != table.strings.end()) return found->second;
    try {
        // Text that is not UTF-8 is stored with its stray bytes taken as
        // Latin-1, and the caller's spelling becomes one more key for it.
        TextInfo info = scan_utf8(text);
        if (info.valid) {
            __CFString *str = new_string(text, info, false);
            if (str == nullptr) fatal("CFSTR", "out of memory");
            keep_constant(str);
            table.strings.emplace(string_view_of(str), str);
            return str;
        }
        std::string clean = sanitize_utf8(text);
        __CFString *str;
        if (auto same = table.strings.find(clean); same != table.strings.end()) {
            str = same->second;
        } else {
            str = new_string(clean, scan_utf8(clean), false);
            if (str == nullptr) fatal("CFSTR", "out of memory");
            keep_constant(str);
            table.strings.emplace(string_view_of(str), str);
        }
        char *spelling = strdup(cstr);
        if (spelling == nullptr) fatal("CFSTR", "out of memory");
        table.strings.emplace(spelling, str);
        return str;
    } catch (...) {
        fatal("CFSTR", "out of memory");
    }
}

CFStringRef CFStringCreateWithCString(CFAllocatorRef, const char *cstr, CFStringEncoding encoding) {
    if (cstr == nullptr) return nullptr;
    std::string_view text(cstr);
    TextInfo info;
    if (!encodable(text, encoding, info)) return nullptr;
    return new_string(text, info, false);
}

CFStringRef CFStringCreateWithBytes(CFAllocatorRef, const uint8_t *bytes, CFIndex num_bytes, CFStringEncoding encoding,
                                    Boolean is_external_representation) {
    if (num_bytes < 0 || (bytes == nullptr && num_bytes > 0)) return nullptr;
    std::string_view text(reinterpret_cast<const char *>(bytes), static_cast<size_t>(num_bytes));
    if (is_external_representation && encoding == kCFStringEncodingUTF8 && text.starts_with("\xef\xbb\xbf"))
        text.remove_prefix(3);
    TextInfo info;
    if (!encodable(text, encoding, info)) return nullptr;
    return new_string(text, info, false);
}

CFStringRef CFStringCreateCopy(CFAllocatorRef, CFStringRef str) {
    const __CFString *s = as_string(str, "CFStringCreateCopy");
    if (s == nullptr) return nullptr;
    if (!s->is_mutable) return static_cast<CFStringRef>(CFRetain(s));
    return new_string(string_view_of(s), TextInfo{true, s->ascii, s->utf16_length}, false);
}

// The maximum length is not enforced: mutable strings grow as needed.
CFMutableStringRef CFStringCreateMutable(CFAllocatorRef, CFIndex) {
    return new_string({}, TextInfo{true, true, 0}, true);
}

CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef, CFIndex, CFStringRef str) {
    const __CFString *s = as_string(str, "CFStringCreateMutableCopy");
    if (s == nullptr) return nullptr;
    return new_string(string_view_of(s), TextInfo{true, s->ascii, s->utf16_length}, true);
}

void CFStringAppend(CFMutableStringRef str, CFStringRef appended) {
    __CFString *s = as_mutable_string(str, "CFStringAppend");
    const __CFString *a = as_string(appended, "CFStringAppend");
    if (s == nullptr || a == nullptr) return;
    append_text(s, string_view_of(a), TextInfo{true, a->ascii, a->utf16_length});
}

void CFStringAppendCString(CFMutableStringRef str, const char *cstr, CFStringEncoding encoding) {
    __CFString *s = as_mutable_string(str, "CFStringAppendCString");
    if (s == nullptr || cstr == nullptr) return;
    std::string_view text(cstr);
    TextInfo info;
    if (encodable(text, encoding, info)) append_text(s, text, info);
}

CFIndex CFStringGetLength(CFStringRef str) {
    const __CFString *s = as_string(str, "CFStringGetLength");
    return s == nullptr ? 0 : s->utf16_length;
}

const char *CFStringGetCStringPtr(CFStringRef str, CFStringEncoding encoding) {
    const __CFString *s = as_string(str, "CFStringGetCStringPtr");
    if (s == nullptr) return nullptr;
    if (encoding == kCFStringEncodingUTF8 || (encoding == kCFStringEncodingASCII && s->ascii)) return s->bytes;
    return nullptr;
}

Boolean CFStringGetCString(CFStringRef str, char *buffer, CFIndex buffer_size, CFStringEncoding encoding) {
    const __CFString *s = as_string(str, "CFStringGetCString");
    if (s == nullptr || buffer == nullptr || buffer_size <= 0) return false;
    bool ok = (encoding == kCFStringEncodingUTF8 || (encoding == kCFStringEncodingASCII && s->ascii)) &&
              s->length < static_cast<size_t>(buffer_size);
    if (!ok) {
        buffer[0] = 0;
        return false;
    }
    std::memcpy(buffer, s->bytes, s->length + 1);
    return true;
}

CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding) {
    constexpr CFIndex kNone = kCFNotFound;
    if (length < 0) return kNone;
    if (encoding == kCFStringEncodingASCII) return length;
    if (encoding == kCFStringEncodingUTF8) return length > std::numeric_limits<CFIndex>::max() / 3 ? kNone : length * 3;
    return kNone;
}

// Compares by Unicode code point (the byte order of UTF-8). No options are
// supported; they are ignored.
CFComparisonResult CFStringCompare(CFStringRef a, CFStringRef b, CFOptionFlags) {
    const __CFString *sa = as_string(a, "CFStringCompare");
    const __CFString *sb = as_string(b, "CFStringCompare");
    std::string_view va = sa != nullptr ? string_view_of(sa) : std::string_view();
    std::string_view vb = sb != nullptr ? string_view_of(sb) : std::string_view();
    int c = va.compare(vb);
    return c < 0 ? kCFCompareLessThan : c > 0 ? kCFCompareGreaterThan : kCFCompareEqualTo;
}

Boolean CFStringHasPrefix(CFStringRef str, CFStringRef prefix) {
    const __CFString *s = as_string(str, "CFStringHasPrefix");
    const __CFString *p = as_string(prefix, "CFStringHasPrefix");
    if (s == nullptr || p == nullptr) return false;
    return string_view_of(s).starts_with(string_view_of(p));
}

namespace cf {
// Used by the format engine: appends formatted UTF-8 text to a mutable string.
void append_to_string(CFMutableStringRef str, std::string_view text) {
    append_text(as_mutable_string(str, "CFStringAppendFormat"), text, scan_utf8(text));
}
}  // namespace cf
