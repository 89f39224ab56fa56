// IOCFUnserialize: the registry's XML dialect back to property lists.
//
// Accepted input: one root element, optionally surrounded by whitespace; the
// text ends at the first NUL byte or at the end of the buffer.
//   <dict> (<key>…</key> value)* </dict>     <array> value* </array>
//   <string>…</string>   <key>…</key>        <data>base64</data>
//   <integer [size="8|16|32|64"]>[-](decimal | 0x hex)</integer>
//   <true/>  <false/>
// Whitespace may stand between elements and between attributes. dict, array,
// string, key and data may be written self-closing (<dict/>) when empty; true
// and false may also be written <true></true>. Text may use the entities
// &lt; &gt; &amp; &quot; &apos; and numeric character references (&#65;
// &#x41;); raw '>' is accepted. Base64 may contain whitespace and must be
// padded to a multiple of four symbols.
//
// Any element may carry ID="n" (decimal); the object is registered under n
// once its element is complete, so an element cannot refer to itself. Any
// element written self-closing with IDREF="n" stands for the object registered
// under n, whatever the element's name (for a key it must be a string).
//
// An integer without size is 64 bits wide. The value is taken as the bits of
// that width: a positive value may use all N bits (0xffffffff with size 32 is
// -1), a negative one must lie in -2^(N-1)..-1. The result is a SInt8, SInt16,
// SInt32 or SInt64 number.
//
// Errors (null result, and "line N: what" when an error string is asked for):
// options other than 0, an unknown element or attribute, a malformed tag, text
// outside an element, a mismatched or missing end tag, containers nested more
// than kMaxNesting deep, an unknown IDREF, a duplicate ID, a duplicate key, a
// key without value, bad base64, an integer that does not fit, an entity that
// is not one of the above, text that is not UTF-8, and anything but whitespace
// after the root element. The parser reads only inside the given bounds,
// never recurses deeper than the nesting limit and always moves forward, so
// its cost is linear in the length of the text.
#include <IOKit/IOCFUnserialize.h>

#include "cf_internal.h"
#include "cf_ref.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>

namespace {

// Deepest nesting of containers accepted; the serialiser writes no deeper.
constexpr int kMaxNesting = 128;
// Longest element or attribute name quoted in an error message.
constexpr size_t kMaxQuotedName = 32;

using talvex::CFRef;

enum class Elem { Dict, Key, Array, String, Integer, Data, True, False };

bool lookup_elem(std::string_view name, Elem &out) {
    static constexpr struct {
        std::string_view name;
        Elem elem;
    } kElems[] = {
        {"dict", Elem::Dict},       {"key", Elem::Key},   {"array", Elem::Array}, {"string", Elem::String},
        {"integer", Elem::Integer}, {"data", Elem::Data}, {"true", Elem::True},   {"false", Elem::False},
    };
    for (const auto &e : kElems) {
        if (e.name == name) {
            out = e.elem;
            return true;
        }
    }
    return false;
}

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
bool is_name_char(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
           c == '.' || c == ':';
}
int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
int base64_value(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

enum class Digits { Ok, Bad, Overflow };

// Digits in the given base into a 64-bit value: Bad when empty or when a
// character is not a digit, Overflow when the value needs more than 64 bits.
Digits read_unsigned(std::string_view digits, unsigned base, uint64_t &out) {
    if (digits.empty()) return Digits::Bad;
    uint64_t v = 0;
    bool overflow = false;
    for (char c : digits) {
        const int d = hex_value(c);
        if (d < 0 || static_cast<unsigned>(d) >= base) return Digits::Bad;
        if (v > (UINT64_MAX - static_cast<unsigned>(d)) / base) overflow = true;
        v = v * base + static_cast<unsigned>(d);
    }
    if (overflow) return Digits::Overflow;
    out = v;
    return Digits::Ok;
}

bool parse_unsigned(std::string_view digits, unsigned base, uint64_t &out) {
    return read_unsigned(digits, base, out) == Digits::Ok;
}

// Input text for an error message: at most kMaxQuotedName characters, bytes
// other than printable ASCII shown as '?'.
std::string quoted(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size() && i < kMaxQuotedName; ++i)
        out += text[i] >= 0x20 && text[i] < 0x7f ? text[i] : '?';
    if (text.size() > kMaxQuotedName) out += "...";
    return out;
}

struct Tag {
    Elem elem = Elem::Dict;
    std::string_view name;
    size_t at = 0;          // offset of '<'
    bool empty = false;     // self-closing
    bool has_id = false;
    uint64_t id = 0;
    bool has_idref = false;
    uint64_t idref = 0;
    int size = 0;           // 0: no size attribute
};

class Parser {
public:
    Parser(std::string_view text, CFAllocatorRef alloc) : t_(text), alloc_(alloc) {}
    Parser(const Parser &) = delete;
    Parser &operator=(const Parser &) = delete;
    ~Parser() {
        for (auto &entry : ids_) CFRelease(entry.second);
    }

    CFRef<CFTypeRef> parse_document() {
        skip_space();
        if (pos_ == t_.size()) {
            fail(pos_, "no root element");
            return nullptr;
        }
        CFRef<CFTypeRef> root = parse_value(0);
        if (!root) return nullptr;
        skip_space();
        if (pos_ != t_.size()) {
            fail(pos_, "unexpected text after the root element");
            return nullptr;
        }
        return root;
    }

    // "line N: what" for the first failure.
    std::string message() const {
        size_t line = 1;
        for (size_t i = 0; i < error_at_ && i < t_.size(); ++i) line += t_[i] == '\n';
        return "line " + std::to_string(line) + ": " + error_;
    }

private:
    bool fail(size_t at, std::string what) {
        if (error_.empty()) {
            error_ = std::move(what);
            error_at_ = at;
        }
        return false;
    }

    bool at_end() const { return pos_ >= t_.size(); }
    bool looking_at(std::string_view s) const { return t_.substr(pos_).starts_with(s); }
    void skip_space() {
        while (!at_end() && is_space(t_[pos_])) ++pos_;
    }
    std::string_view read_name() {
        const size_t start = pos_;
        while (!at_end() && is_name_char(t_[pos_])) ++pos_;
        return t_.substr(start, pos_ - start);
    }

    // At '<' of a start tag.
    bool parse_start_tag(Tag &tag) {
        tag = Tag{};
        tag.at = pos_;
        ++pos_;
        tag.name = read_name();
        if (tag.name.empty()) return fail(tag.at, "malformed tag");
        if (!at_end() && !is_space(t_[pos_]) && t_[pos_] != '/' && t_[pos_] != '>')
            return fail(tag.at, "malformed tag <" + quoted(tag.name) + ">");
        if (!lookup_elem(tag.name, tag.elem)) return fail(tag.at, "unknown element <" + quoted(tag.name) + ">");
        for (;;) {
            const size_t before_space = pos_;
            skip_space();
            if (at_end()) return fail(tag.at, "unterminated tag <" + quoted(tag.name) + ">");
            const char c = t_[pos_];
            if (c == '>') {
                ++pos_;
                break;
            }
            if (c == '/') {
                ++pos_;
                if (at_end() || t_[pos_] != '>') return fail(tag.at, "malformed tag <" + quoted(tag.name) + ">");
                ++pos_;
                tag.empty = true;
                break;
            }
            if (pos_ == before_space || !is_name_char(c))
                return fail(tag.at, "malformed tag <" + quoted(tag.name) + ">");
            if (!parse_attribute(tag)) return false;
        }
        if (tag.has_id && tag.has_idref) return fail(tag.at, "both ID and IDREF in <" + quoted(tag.name) + ">");
        if (tag.has_idref && !tag.empty)
            return fail(tag.at, "<" + quoted(tag.name) + "> with IDREF must be self-closing");
        if (tag.size != 0 && tag.elem != Elem::Integer)
            return fail(tag.at, "size attribute in <" + quoted(tag.name) + ">");
        return true;
    }

    bool parse_attribute(Tag &tag) {
        const size_t at = pos_;
        const std::string_view name = read_name();
        skip_space();
        if (at_end() || t_[pos_] != '=') return fail(at, "malformed attribute " + quoted(name));
        ++pos_;
        skip_space();
        if (at_end() || (t_[pos_] != '"' && t_[pos_] != '\''))
            return fail(at, "malformed attribute " + quoted(name));
        const char quote = t_[pos_++];
        const size_t value_start = pos_;
        while (!at_end() && t_[pos_] != quote && t_[pos_] != '<') ++pos_;
        if (at_end() || t_[pos_] != quote) return fail(at, "unterminated attribute " + quoted(name));
        const std::string_view value = t_.substr(value_start, pos_ - value_start);
        ++pos_;

        uint64_t number = 0;
        if (name == "ID" || name == "IDREF") {
            const bool is_id = name == "ID";
            if ((is_id && tag.has_id) || (!is_id && tag.has_idref)) return fail(at, "duplicate attribute " + quoted(name));
            if (!parse_unsigned(value, 10, number)) return fail(at, "bad " + std::string(name) + " value");
            (is_id ? tag.has_id : tag.has_idref) = true;
            (is_id ? tag.id : tag.idref) = number;
            return true;
        }
        if (name == "size") {
            if (tag.size != 0) return fail(at, "duplicate attribute size");
            if (!parse_unsigned(value, 10, number) || (number != 8 && number != 16 && number != 32 && number != 64))
                return fail(at, "bad integer size");
            tag.size = static_cast<int>(number);
            return true;
        }
        return fail(at, "unknown attribute " + quoted(name) + " in <" + quoted(tag.name) + ">");
    }

    // Expects </name> (whitespace allowed before '>').
    bool parse_end_tag(std::string_view name) {
        const size_t at = pos_;
        if (at_end()) return fail(at, "unexpected end of input, expected </" + quoted(name) + ">");
        if (!looking_at("</")) return fail(at, "expected </" + quoted(name) + ">");
        pos_ += 2;
        const std::string_view found = read_name();
        skip_space();
        if (at_end() || t_[pos_] != '>') return fail(at, "malformed end tag");
        ++pos_;
        if (found != name) return fail(at, "mismatched </" + quoted(found) + ">, expected </" + quoted(name) + ">");
        return true;
    }

    // Raw text up to the next '<'; fails at the end of input.
    bool raw_text(const Tag &tag, std::string_view &out) {
        const size_t start = pos_;
        while (!at_end() && t_[pos_] != '<') ++pos_;
        if (at_end()) return fail(tag.at, "unexpected end of input in <" + quoted(tag.name) + ">");
        out = t_.substr(start, pos_ - start);
        return true;
    }

    // Text with entities replaced.
    bool decoded_text(const Tag &tag, std::string &out) {
        std::string_view raw;
        if (!raw_text(tag, raw)) return false;
        const size_t base = pos_ - raw.size();
        out.clear();
        out.reserve(raw.size());
        for (size_t i = 0; i < raw.size(); ++i) {
            if (raw[i] != '&') {
                out += raw[i];
                continue;
            }
            const size_t semi = raw.find(';', i);
            if (semi == std::string_view::npos || semi - i > 12) return fail(base + i, "unterminated entity");
            const std::string_view ent = raw.substr(i + 1, semi - i - 1);
            if (ent == "lt") {
                out += '<';
            } else if (ent == "gt") {
                out += '>';
            } else if (ent == "amp") {
                out += '&';
            } else if (ent == "quot") {
                out += '"';
            } else if (ent == "apos") {
                out += '\'';
            } else if (ent.starts_with('#')) {
                uint64_t cp = 0;
                const bool hex = ent.size() > 1 && (ent[1] == 'x' || ent[1] == 'X');
                if (!parse_unsigned(ent.substr(hex ? 2 : 1), hex ? 16 : 10, cp) || cp == 0 || cp > 0x10ffff ||
                    (cp >= 0xd800 && cp <= 0xdfff))
                    return fail(base + i, "bad character reference &" + quoted(ent) + ";");
                cf::append_code_point(out, static_cast<uint32_t>(cp));
            } else {
                return fail(base + i, "unknown entity &" + quoted(ent) + ";");
            }
            i = semi;
        }
        return true;
    }

    CFRef<CFTypeRef> make_string(const Tag &tag, const std::string &bytes) {
        CFStringRef s = CFStringCreateWithBytes(alloc_, reinterpret_cast<const uint8_t *>(bytes.data()),
                                                static_cast<CFIndex>(bytes.size()), kCFStringEncodingUTF8, false);
        if (s == nullptr) fail(tag.at, "text of <" + quoted(tag.name) + "> is not UTF-8");
        return CFRef<CFTypeRef>(s);
    }

    // The text of a <string> or <key> whose start tag has been read.
    CFRef<CFTypeRef> string_body(const Tag &tag) {
        std::string bytes;
        if (!tag.empty && (!decoded_text(tag, bytes) || !parse_end_tag(tag.name))) return nullptr;
        return make_string(tag, bytes);
    }

    CFRef<CFTypeRef> integer_body(const Tag &tag) {
        if (tag.empty) {
            fail(tag.at, "empty <integer>");
            return nullptr;
        }
        std::string_view text;
        const size_t text_at = pos_;
        if (!raw_text(tag, text) || !parse_end_tag(tag.name)) return nullptr;
        while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
        while (!text.empty() && is_space(text.back())) text.remove_suffix(1);
        const bool negative = text.starts_with('-');
        if (negative) text.remove_prefix(1);
        const bool hex = text.starts_with("0x") || text.starts_with("0X");
        uint64_t magnitude = 0;
        const Digits digits = read_unsigned(hex ? text.substr(2) : text, hex ? 16 : 10, magnitude);
        if (digits == Digits::Bad) {
            fail(text_at, "bad integer");
            return nullptr;
        }
        const int width = tag.size != 0 ? tag.size : 64;
        const uint64_t limit = negative ? uint64_t{1} << (width - 1)
                                        : (width == 64 ? UINT64_MAX : (uint64_t{1} << width) - 1);
        if (digits == Digits::Overflow || magnitude > limit) {
            fail(text_at, "integer does not fit in " + std::to_string(width) + " bits");
            return nullptr;
        }
        const uint64_t bits = negative ? uint64_t{0} - magnitude : magnitude;
        CFNumberRef n = nullptr;
        switch (width) {
        case 8: {
            const auto v = static_cast<int8_t>(static_cast<uint8_t>(bits));
            n = CFNumberCreate(alloc_, kCFNumberSInt8Type, &v);
            break;
        }
        case 16: {
            const auto v = static_cast<int16_t>(static_cast<uint16_t>(bits));
            n = CFNumberCreate(alloc_, kCFNumberSInt16Type, &v);
            break;
        }
        case 32: {
            const auto v = static_cast<int32_t>(static_cast<uint32_t>(bits));
            n = CFNumberCreate(alloc_, kCFNumberSInt32Type, &v);
            break;
        }
        default: {
            const auto v = static_cast<int64_t>(bits);
            n = CFNumberCreate(alloc_, kCFNumberSInt64Type, &v);
            break;
        }
        }
        if (n == nullptr) fail(tag.at, "out of memory");
        return CFRef<CFTypeRef>(n);
    }

    CFRef<CFTypeRef> data_body(const Tag &tag) {
        std::string bytes;
        if (!tag.empty) {
            std::string_view text;
            const size_t text_at = pos_;
            if (!raw_text(tag, text) || !parse_end_tag(tag.name)) return nullptr;
            bytes.reserve(text.size() / 4 * 3);
            uint32_t acc = 0;
            int acc_bits = 0;
            size_t symbols = 0;
            size_t padding = 0;
            for (char c : text) {
                if (is_space(c)) continue;
                ++symbols;
                if (c == '=') {
                    ++padding;
                    continue;
                }
                const int v = base64_value(c);
                if (v < 0 || padding != 0) {
                    fail(text_at, "bad base64 in <data>");
                    return nullptr;
                }
                acc = (acc << 6) | static_cast<uint32_t>(v);
                acc_bits += 6;
                if (acc_bits >= 8) {
                    acc_bits -= 8;
                    bytes += static_cast<char>((acc >> acc_bits) & 0xff);
                }
            }
            if (symbols % 4 != 0 || padding > 2) {
                fail(text_at, "bad base64 in <data>");
                return nullptr;
            }
        }
        CFDataRef d = CFDataCreate(alloc_, reinterpret_cast<const uint8_t *>(bytes.data()),
                                   static_cast<CFIndex>(bytes.size()));
        if (d == nullptr) fail(tag.at, "out of memory");
        return CFRef<CFTypeRef>(d);
    }

    CFRef<CFTypeRef> dict_body(const Tag &tag, int depth) {
        CFMutableDictionaryRef d =
            CFDictionaryCreateMutable(alloc_, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
        CFRef<CFTypeRef> dict(d);
        if (d == nullptr) {
            fail(tag.at, "out of memory");
            return nullptr;
        }
        if (tag.empty) return dict;
        for (;;) {
            skip_space();
            if (at_end() || looking_at("</")) {
                if (!parse_end_tag(tag.name)) return nullptr;
                return dict;
            }
            if (t_[pos_] != '<') {
                fail(pos_, "text in <dict>");
                return nullptr;
            }
            Tag key_tag;
            if (!parse_start_tag(key_tag)) return nullptr;
            if (key_tag.elem != Elem::Key) {
                fail(key_tag.at, "expected <key> in <dict>, found <" + quoted(key_tag.name) + ">");
                return nullptr;
            }
            CFRef<CFTypeRef> key = key_tag.has_idref ? reference(key_tag) : string_body(key_tag);
            if (!key) return nullptr;
            if (CFGetTypeID(key.get()) != CFStringGetTypeID()) {
                fail(key_tag.at, "key IDREF " + std::to_string(key_tag.idref) + " is not a string");
                return nullptr;
            }
            if (!remember(key_tag, key.get())) return nullptr;
            skip_space();
            if (at_end() || looking_at("</")) {
                fail(pos_, "key without value in <dict>");
                return nullptr;
            }
            if (CFDictionaryContainsKey(d, key.get())) {
                fail(key_tag.at, "duplicate key in <dict>");
                return nullptr;
            }
            CFRef<CFTypeRef> value = parse_value(depth + 1);
            if (!value) return nullptr;
            CFDictionarySetValue(d, key.get(), value.get());
        }
    }

    CFRef<CFTypeRef> array_body(const Tag &tag, int depth) {
        CFMutableArrayRef a = CFArrayCreateMutable(alloc_, 0, &kCFTypeArrayCallBacks);
        CFRef<CFTypeRef> array(a);
        if (a == nullptr) {
            fail(tag.at, "out of memory");
            return nullptr;
        }
        if (tag.empty) return array;
        for (;;) {
            skip_space();
            if (at_end() || looking_at("</")) {
                if (!parse_end_tag(tag.name)) return nullptr;
                return array;
            }
            CFRef<CFTypeRef> value = parse_value(depth + 1);
            if (!value) return nullptr;
            CFArrayAppendValue(a, value.get());
        }
    }

    CFRef<CFTypeRef> boolean_body(const Tag &tag) {
        if (!tag.empty) {
            skip_space();
            if (!parse_end_tag(tag.name)) return nullptr;
        }
        return CFRef<CFTypeRef>(CFRetain(tag.elem == Elem::True ? kCFBooleanTrue : kCFBooleanFalse));
    }

    CFRef<CFTypeRef> reference(const Tag &tag) {
        const auto it = ids_.find(tag.idref);
        if (it == ids_.end()) {
            fail(tag.at, "unknown IDREF " + std::to_string(tag.idref));
            return nullptr;
        }
        return CFRef<CFTypeRef>(CFRetain(it->second));
    }

    // Registers a completed element's object under its ID, if it has one.
    bool remember(const Tag &tag, CFTypeRef obj) {
        if (!tag.has_id) return true;
        if (!ids_.emplace(tag.id, obj).second) return fail(tag.at, "duplicate ID " + std::to_string(tag.id));
        CFRetain(obj);
        return true;
    }

    // A value element at the current position; depth counts the containers
    // around it.
    CFRef<CFTypeRef> parse_value(int depth) {
        skip_space();
        if (at_end()) {
            fail(pos_, "unexpected end of input");
            return nullptr;
        }
        if (t_[pos_] != '<') {
            fail(pos_, "text outside an element");
            return nullptr;
        }
        if (looking_at("</")) {
            fail(pos_, "unexpected end tag");
            return nullptr;
        }
        Tag tag;
        if (!parse_start_tag(tag)) return nullptr;
        if (tag.has_id && ids_.count(tag.id) != 0) {
            fail(tag.at, "duplicate ID " + std::to_string(tag.id));
            return nullptr;
        }
        if (tag.has_idref) return reference(tag);
        CFRef<CFTypeRef> obj;
        switch (tag.elem) {
        case Elem::Key:
            fail(tag.at, "<key> outside a dictionary");
            return nullptr;
        case Elem::Dict:
        case Elem::Array:
            if (depth >= kMaxNesting) {
                fail(tag.at, "containers nested deeper than " + std::to_string(kMaxNesting));
                return nullptr;
            }
            obj = tag.elem == Elem::Dict ? dict_body(tag, depth) : array_body(tag, depth);
            break;
        case Elem::String: obj = string_body(tag); break;
        case Elem::Integer: obj = integer_body(tag); break;
        case Elem::Data: obj = data_body(tag); break;
        case Elem::True:
        case Elem::False: obj = boolean_body(tag); break;
        }
        if (!obj || !remember(tag, obj.get())) return nullptr;
        return obj;
    }

    std::string_view t_;
    size_t pos_ = 0;
    CFAllocatorRef alloc_;
    std::unordered_map<uint64_t, CFTypeRef> ids_;  // each holds one retain
    std::string error_;
    size_t error_at_ = 0;
};

void set_error(CFStringRef *error_string, const std::string &message) {
    if (error_string != nullptr)
        *error_string = CFStringCreateWithCString(kCFAllocatorDefault, message.c_str(), kCFStringEncodingUTF8);
}

}  // namespace

CFTypeRef IOCFUnserializeWithSize(const char *buffer, size_t size, CFAllocatorRef allocator, CFOptionFlags options,
                                  CFStringRef *error_string) {
    if (error_string != nullptr) *error_string = nullptr;
    try {
        if (buffer == nullptr) {
            set_error(error_string, "no input");
            return nullptr;
        }
        if (options != 0) {
            set_error(error_string, "unsupported options");
            return nullptr;
        }
        const void *nul = size != 0 ? std::memchr(buffer, '\0', size) : nullptr;
        const size_t length = nul != nullptr ? static_cast<size_t>(static_cast<const char *>(nul) - buffer) : size;
        Parser parser(std::string_view(buffer, length), allocator);
        CFRef<CFTypeRef> result = parser.parse_document();
        if (!result) {
            set_error(error_string, parser.message());
            return nullptr;
        }
        return result.release();
    } catch (...) {  // allocation failure: nothing crosses the platform API
        return nullptr;
    }
}

CFTypeRef IOCFUnserialize(const char *buffer, CFAllocatorRef allocator, CFOptionFlags options,
                          CFStringRef *error_string) {
    return IOCFUnserializeWithSize(buffer, buffer != nullptr ? std::strlen(buffer) : 0, allocator, options,
                                   error_string);
}
