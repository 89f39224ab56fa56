// IOCFSerialize: property lists to the registry's XML dialect.
//
// Output form (options 0):
//   - no declaration or wrapper; the text is the root element, then one NUL byte;
//   - <dict> holds <key>k</key> followed by the value, in the dictionary's order;
//     <array>, <string>, <data> (base64, no line breaks), <true/>, <false/>;
//   - <integer size="N">0x…</integer>: N is 8, 16, 32 or 64 after the number's
//     type, the value is the unsigned bits of that width in lower-case hex;
//   - empty containers, strings and data are written open/close:
//     <dict></dict>, <array></array>, <string></string>, <data></data>;
//   - in keys and strings only '<', '>' and '&' are escaped.
//
// Shared objects: a value object reached more than once (by identity) is
// written in full at its first appearance with ID="n" and afterwards as
// <kind IDREF="n"/>, where kind is the element name of that object (an
// integer's ID follows its size: <integer size="32" ID="0">). IDs are
// numbered from 0 in the order in which the shared objects first appear in the
// text. Keys are always written inline and never take part in the sharing;
// neither do the two boolean singletons (<true/> is shorter than a reference).
//
// A first pass counts how often each value object is reached (a hash table
// keyed by identity; a container reached again is not descended into again)
// and records the order of the visits; the second pass writes the text,
// reaching the objects in the same order. Both are linear in the size of the
// property list.
//
// Nesting is limited to kMaxNesting containers, the same limit the parser
// enforces, so whatever is written can be read back. Options other than 0, a
// floating-point number, a non-string key, a string with a NUL inside, a
// container that contains itself or an object of another type give null.
#include <IOKit/IOCFSerialize.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

// Deepest nesting of containers written; the parser accepts the same depth.
constexpr int kMaxNesting = 128;

enum class Kind { Dict, Array, String, Number, Data, Boolean, Unsupported };

Kind kind_of(CFTypeRef obj) {
    const CFTypeID id = CFGetTypeID(obj);
    if (id == CFDictionaryGetTypeID()) return Kind::Dict;
    if (id == CFArrayGetTypeID()) return Kind::Array;
    if (id == CFStringGetTypeID()) return Kind::String;
    if (id == CFNumberGetTypeID()) return Kind::Number;
    if (id == CFDataGetTypeID()) return Kind::Data;
    if (id == CFBooleanGetTypeID()) return Kind::Boolean;
    return Kind::Unsupported;
}

const char *element_name(Kind kind, CFTypeRef obj) {
    switch (kind) {
    case Kind::Dict: return "dict";
    case Kind::Array: return "array";
    case Kind::String: return "string";
    case Kind::Number: return "integer";
    case Kind::Data: return "data";
    case Kind::Boolean: return CFBooleanGetValue(static_cast<CFBooleanRef>(obj)) ? "true" : "false";
    case Kind::Unsupported: break;
    }
    return nullptr;
}

// The bit width written for an integral number type; 0 for floating point and
// unknown types.
int integer_width(CFNumberRef number) {
    if (CFNumberIsFloatType(number)) return 0;
    switch (CFNumberGetType(number)) {
    case kCFNumberSInt8Type:
    case kCFNumberCharType: return 8;
    case kCFNumberSInt16Type:
    case kCFNumberShortType: return 16;
    case kCFNumberSInt32Type:
    case kCFNumberIntType: return 32;
    case kCFNumberSInt64Type:
    case kCFNumberLongType:
    case kCFNumberLongLongType:
    case kCFNumberCFIndexType:
    case kCFNumberNSIntegerType: return 64;
    default: return 0;
    }
}

// Dictionary entries in the dictionary's own order.
struct Entries {
    std::vector<const void *> keys;
    std::vector<const void *> values;
};

Entries entries_of(CFDictionaryRef dict) {
    const CFIndex count = CFDictionaryGetCount(dict);
    Entries e;
    e.keys.resize(static_cast<size_t>(count));
    e.values.resize(static_cast<size_t>(count));
    if (count > 0) CFDictionaryGetKeysAndValues(dict, e.keys.data(), e.values.data());
    return e;
}

std::vector<const void *> elements_of(CFArrayRef array) {
    const CFIndex count = CFArrayGetCount(array);
    std::vector<const void *> v(static_cast<size_t>(count));
    if (count > 0) CFArrayGetValues(array, CFRangeMake(0, count), v.data());
    return v;
}

// UTF-16 units needed for UTF-8 text: one per character, two for characters
// beyond the basic plane (four-byte sequences).
CFIndex utf16_length(std::string_view utf8) {
    CFIndex n = 0;
    for (char c : utf8) {
        const auto b = static_cast<uint8_t>(c);
        if ((b & 0xc0) != 0x80) ++n;
        if (b >= 0xf0) ++n;
    }
    return n;
}

// The text of a string as UTF-8 (without its NUL); false when it cannot be
// had whole. A string with a NUL inside has no form in the dialect (the NUL
// would end the text), so it is refused rather than cut short.
bool string_bytes(CFStringRef str, std::string &scratch, std::string_view &out) {
    const CFIndex length = CFStringGetLength(str);
    if (const char *p = CFStringGetCStringPtr(str, kCFStringEncodingUTF8)) {
        out = p;
    } else {
        const CFIndex size = CFStringGetMaximumSizeForEncoding(length, kCFStringEncodingUTF8) + 1;
        scratch.assign(static_cast<size_t>(size), '\0');
        if (!CFStringGetCString(str, scratch.data(), size, kCFStringEncodingUTF8)) return false;
        out = std::string_view(scratch.c_str());
    }
    return utf16_length(out) == length;
}

// Per-object use counts keyed by identity: open addressing with linear
// probing over a power-of-two table kept at most half full, so a lookup
// touches one or two cache lines even for very large lists.
class IdentityTable {
public:
    // The index of obj's slot in the record list, adding a record if new.
    size_t find_or_add(CFTypeRef obj) {
        if ((count_ + 1) * 2 > keys_.size()) grow();
        size_t i = slot_of(obj);
        while (keys_[i] != nullptr) {
            if (keys_[i] == obj) return records_[i];
            i = (i + 1) & (keys_.size() - 1);
        }
        keys_[i] = obj;
        records_[i] = count_;
        return count_++;
    }
    size_t size() const { return count_; }

private:
    size_t slot_of(CFTypeRef obj) const {
        const uint64_t h = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(obj)) * 0x9e3779b97f4a7c15ull;
        return static_cast<size_t>(h >> (64 - bits_));
    }
    void grow() {
        std::vector<CFTypeRef> old_keys = std::exchange(keys_, std::vector<CFTypeRef>(keys_.size() * 2, nullptr));
        std::vector<size_t> old_records = std::exchange(records_, std::vector<size_t>(records_.size() * 2));
        ++bits_;
        for (size_t j = 0; j < old_keys.size(); ++j) {
            if (old_keys[j] == nullptr) continue;
            size_t i = slot_of(old_keys[j]);
            while (keys_[i] != nullptr) i = (i + 1) & (keys_.size() - 1);
            keys_[i] = old_keys[j];
            records_[i] = old_records[j];
        }
    }

    unsigned bits_ = 3;
    std::vector<CFTypeRef> keys_ = std::vector<CFTypeRef>(8, nullptr);
    std::vector<size_t> records_ = std::vector<size_t>(8);
    size_t count_ = 0;
};

class Serializer {
public:
    bool count(CFTypeRef obj, int depth) {
        const Kind kind = kind_of(obj);
        if (kind == Kind::Unsupported) return false;
        if (kind == Kind::Boolean) return true;
        if (kind == Kind::Number && integer_width(static_cast<CFNumberRef>(obj)) == 0) return false;
        const size_t record = table_.find_or_add(obj);
        if (record == uses_.size()) uses_.emplace_back();
        visits_.push_back(record);
        if (++uses_[record].count > 1) return true;  // written once; its contents were checked then
        if (kind == Kind::Dict) {
            if (depth >= kMaxNesting) return false;
            const Entries e = entries_of(static_cast<CFDictionaryRef>(obj));
            for (size_t i = 0; i < e.keys.size(); ++i) {
                if (e.keys[i] == nullptr || CFGetTypeID(e.keys[i]) != CFStringGetTypeID()) return false;
                if (e.values[i] == nullptr || !count(e.values[i], depth + 1)) return false;
            }
        } else if (kind == Kind::Array) {
            if (depth >= kMaxNesting) return false;
            for (const void *v : elements_of(static_cast<CFArrayRef>(obj))) {
                if (v == nullptr || !count(v, depth + 1)) return false;
            }
        }
        return true;
    }

    bool write(CFTypeRef obj) {
        const Kind kind = kind_of(obj);
        const char *name = element_name(kind, obj);
        if (kind == Kind::Boolean) {
            out_ += '<';
            out_ += name;
            out_ += "/>";
            return true;
        }
        // The writer reaches objects in the order the counting pass did.
        Use &use = uses_[visits_[next_visit_++]];
        if (use.id >= 0) {  // written before
            if (use.open) return false;  // a container inside itself: no finite text
            out_ += '<';
            out_ += name;
            out_ += " IDREF=\"";
            out_ += std::to_string(use.id);
            out_ += "\"/>";
            return true;
        }
        out_ += '<';
        out_ += name;
        if (kind == Kind::Number) {
            out_ += " size=\"";
            out_ += std::to_string(integer_width(static_cast<CFNumberRef>(obj)));
            out_ += '"';
        }
        if (use.count > 1) {
            use.id = next_id_++;
            out_ += " ID=\"";
            out_ += std::to_string(use.id);
            out_ += '"';
        }
        out_ += '>';
        use.open = true;
        switch (kind) {
        case Kind::Dict: {
            const Entries e = entries_of(static_cast<CFDictionaryRef>(obj));
            for (size_t i = 0; i < e.keys.size(); ++i) {
                out_ += "<key>";
                if (!write_text(static_cast<CFStringRef>(e.keys[i]))) return false;
                out_ += "</key>";
                if (!write(e.values[i])) return false;
            }
            break;
        }
        case Kind::Array:
            for (const void *v : elements_of(static_cast<CFArrayRef>(obj))) {
                if (!write(v)) return false;
            }
            break;
        case Kind::String:
            if (!write_text(static_cast<CFStringRef>(obj))) return false;
            break;
        case Kind::Number:
            write_integer(static_cast<CFNumberRef>(obj));
            break;
        case Kind::Data:
            write_base64(static_cast<CFDataRef>(obj));
            break;
        case Kind::Boolean:
        case Kind::Unsupported: return false;
        }
        use.open = false;
        out_ += "</";
        out_ += name;
        out_ += '>';
        return true;
    }

    std::string &text() { return out_; }

private:
    struct Use {
        uint32_t count = 0;
        long id = -1;
        bool open = false;  // being written right now
    };

    bool write_text(CFStringRef str) {
        std::string_view bytes;
        if (!string_bytes(str, scratch_, bytes)) return false;
        while (!bytes.empty()) {
            const size_t special = bytes.find_first_of("<>&");
            out_.append(bytes.substr(0, special));
            if (special == std::string_view::npos) break;
            out_ += bytes[special] == '<' ? "&lt;" : bytes[special] == '>' ? "&gt;" : "&amp;";
            bytes.remove_prefix(special + 1);
        }
        return true;
    }

    void write_integer(CFNumberRef number) {
        const int width = integer_width(number);
        int64_t value = 0;
        CFNumberGetValue(number, kCFNumberSInt64Type, &value);
        uint64_t bits = static_cast<uint64_t>(value);
        if (width < 64) bits &= (uint64_t{1} << width) - 1;
        static constexpr char kHex[] = "0123456789abcdef";
        char digits[16];
        int n = 0;
        do {
            digits[n++] = kHex[bits & 0xf];
            bits >>= 4;
        } while (bits != 0);
        out_ += "0x";
        while (n > 0) out_ += digits[--n];
    }

    void write_base64(CFDataRef data) {
        static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        const CFIndex length = CFDataGetLength(data);
        const uint8_t *p = length > 0 ? CFDataGetBytePtr(data) : nullptr;
        const size_t n = static_cast<size_t>(length);
        out_.reserve(out_.size() + (n + 2) / 3 * 4 + 16);
        size_t i = 0;
        for (; i + 3 <= n; i += 3) {
            const uint32_t v = uint32_t{p[i]} << 16 | uint32_t{p[i + 1]} << 8 | p[i + 2];
            out_ += kAlphabet[(v >> 18) & 0x3f];
            out_ += kAlphabet[(v >> 12) & 0x3f];
            out_ += kAlphabet[(v >> 6) & 0x3f];
            out_ += kAlphabet[v & 0x3f];
        }
        if (n - i == 1) {
            const uint32_t v = uint32_t{p[i]} << 16;
            out_ += kAlphabet[(v >> 18) & 0x3f];
            out_ += kAlphabet[(v >> 12) & 0x3f];
            out_ += "==";
        } else if (n - i == 2) {
            const uint32_t v = uint32_t{p[i]} << 16 | uint32_t{p[i + 1]} << 8;
            out_ += kAlphabet[(v >> 18) & 0x3f];
            out_ += kAlphabet[(v >> 12) & 0x3f];
            out_ += kAlphabet[(v >> 6) & 0x3f];
            out_ += '=';
        }
    }

    IdentityTable table_;
    std::vector<Use> uses_;       // by record index
    std::vector<size_t> visits_;  // record index of each value reached, in order
    size_t next_visit_ = 0;
    long next_id_ = 0;
    std::string out_;
    std::string scratch_;
};

}  // namespace

CFDataRef IOCFSerialize(CFTypeRef object, CFOptionFlags options) {
    if (object == nullptr || options != 0) return nullptr;
    try {
        Serializer s;
        if (!s.count(object, 0)) return nullptr;
        if (!s.write(object)) return nullptr;
        std::string &text = s.text();
        text += '\0';
        return CFDataCreate(kCFAllocatorDefault, reinterpret_cast<const uint8_t *>(text.data()),
                            static_cast<CFIndex>(text.size()));
    } catch (...) {  // allocation failure: nothing crosses the platform API
        return nullptr;
    }
}
