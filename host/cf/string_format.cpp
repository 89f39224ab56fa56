// The format engine of CFStringCreateWithFormat and CFStringAppendFormat: the
// format is walked here; each ordinary conversion is handed to the C library
// with an argument of the type its length modifier names, and %@ inserts the
// description of a CF object.
#include "cf_internal.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cwchar>
#include <string>

namespace cf {
namespace {

enum class Length { none, hh, h, l, ll, z, j, t, L };

struct Conversion {
    std::string flags;
    int width = -1;       // -1: none
    int precision = -1;   // -1: none
    Length length = Length::none;
    char conversion = 0;
    bool left() const { return flags.find('-') != std::string::npos; }
};

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Reads a decimal field; false when it does not fit an int.
bool read_number(std::string_view fmt, size_t &i, int &value) {
    long long v = 0;
    while (i < fmt.size() && is_digit(fmt[i])) {
        v = v * 10 + (fmt[i] - '0');
        if (v > INT_MAX) return false;
        ++i;
    }
    value = static_cast<int>(v);
    return true;
}

// The printf directive for `c`, with `*` fields already replaced by their
// values and `integer_length` spelling the length modifier.
std::string directive(const Conversion &c, const char *integer_length) {
    std::string d(1, '%');
    d += c.flags;
    if (c.width >= 0) d += std::to_string(c.width);
    if (c.precision >= 0) {
        d += '.';
        d += std::to_string(c.precision);
    }
    d += integer_length;
    d += c.conversion;
    return d;
}

const char *length_text(Length length) {
    switch (length) {
        case Length::none: return "";
        case Length::hh: return "hh";
        case Length::h: return "h";
        case Length::l: return "l";
        case Length::ll: return "ll";
        case Length::z: return "z";
        case Length::j: return "j";
        case Length::t: return "t";
        case Length::L: return "L";
    }
    return "";
}

// One conversion through snprintf; false when the C library refuses it.
template <class T>
bool emit(std::string &out, const std::string &directive_text, T value) {
    char small[256];
    int n = std::snprintf(small, sizeof small, directive_text.c_str(), value);
    if (n < 0) return false;
    if (static_cast<size_t>(n) < sizeof small) {
        out.append(small, static_cast<size_t>(n));
        return true;
    }
    std::string big(static_cast<size_t>(n) + 1, '\0');
    if (std::snprintf(big.data(), big.size(), directive_text.c_str(), value) != n) return false;
    out.append(big.data(), static_cast<size_t>(n));
    return true;
}

// Text conversions done here (%@, %ls, %lc): precision limits and width pads
// in characters, not bytes, so multi-byte text is never cut in half.
void append_padded(std::string &out, std::string_view text, const Conversion &c) {
    size_t characters = 0;
    size_t end = 0;
    while (end < text.size()) {
        if (c.precision >= 0 && characters == static_cast<size_t>(c.precision)) break;
        ++end;
        while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80) ++end;
        ++characters;
    }
    size_t pad = c.width > 0 && static_cast<size_t>(c.width) > characters ? static_cast<size_t>(c.width) - characters : 0;
    if (!c.left()) out.append(pad, ' ');
    out.append(text.substr(0, end));
    if (c.left()) out.append(pad, ' ');
}

bool emit_signed(std::string &out, const Conversion &c, va_list *ap) {
    switch (c.length) {
        case Length::none:
        case Length::hh:
        case Length::h: return emit(out, directive(c, length_text(c.length)), va_arg(*ap, int));
        case Length::l: return emit(out, directive(c, "l"), va_arg(*ap, long));
        case Length::ll:
        case Length::L: return emit(out, directive(c, "ll"), va_arg(*ap, long long));
        case Length::z: return emit(out, directive(c, "z"), va_arg(*ap, std::make_signed_t<size_t>));
        case Length::j: return emit(out, directive(c, "j"), va_arg(*ap, intmax_t));
        case Length::t: return emit(out, directive(c, "t"), va_arg(*ap, ptrdiff_t));
    }
    return false;
}

bool emit_unsigned(std::string &out, const Conversion &c, va_list *ap) {
    switch (c.length) {
        case Length::none:
        case Length::hh:
        case Length::h: return emit(out, directive(c, length_text(c.length)), va_arg(*ap, unsigned));
        case Length::l: return emit(out, directive(c, "l"), va_arg(*ap, unsigned long));
        case Length::ll:
        case Length::L: return emit(out, directive(c, "ll"), va_arg(*ap, unsigned long long));
        case Length::z: return emit(out, directive(c, "z"), va_arg(*ap, size_t));
        case Length::j: return emit(out, directive(c, "j"), va_arg(*ap, uintmax_t));
        case Length::t: return emit(out, directive(c, "t"), va_arg(*ap, std::make_unsigned_t<ptrdiff_t>));
    }
    return false;
}

bool emit_object(std::string &out, const Conversion &c, CFDictionaryRef options, va_list *ap) {
    CFTypeRef object = va_arg(*ap, CFTypeRef);
    if (object == nullptr) {
        append_padded(out, "(null)", c);
        return true;
    }
    CFStringRef desc = copy_format_description(object, options);
    if (desc == nullptr) return false;
    try {
        append_padded(out, string_view_of(desc), c);
    } catch (...) {
        CFRelease(desc);
        throw;
    }
    CFRelease(desc);
    return true;
}

bool emit_wide(std::string &out, const Conversion &c, va_list *ap) {
    std::string text;
    if (c.conversion == 'c') {
        append_code_point(text, static_cast<uint32_t>(va_arg(*ap, wint_t)));
    } else {
        const wchar_t *s = va_arg(*ap, const wchar_t *);
        if (s == nullptr) {
            text = "(null)";
        } else {
            for (; *s != 0; ++s) append_code_point(text, static_cast<uint32_t>(*s));
        }
    }
    append_padded(out, text, c);
    return true;
}

// Formats `fmt` into `out`; false when a conversion fails. Throws
// std::bad_alloc when memory runs out.
bool format_into(std::string &out, std::string_view fmt, CFDictionaryRef options, va_list *ap) {
    static constexpr std::string_view kFlags = "-+ #0'";
    size_t i = 0;
    while (i < fmt.size()) {
        size_t percent = fmt.find('%', i);
        if (percent == std::string_view::npos) {
            out.append(fmt.substr(i));
            break;
        }
        out.append(fmt.substr(i, percent - i));
        size_t j = percent + 1;
        Conversion c;
        while (j < fmt.size() && kFlags.find(fmt[j]) != std::string_view::npos) c.flags += fmt[j++];
        bool well_formed = true;
        if (j < fmt.size() && fmt[j] == '*') {
            int w = va_arg(*ap, int);
            ++j;
            if (w < 0) {
                c.flags += '-';
                w = w == INT_MIN ? INT_MAX : -w;
            }
            c.width = w;
        } else if (j < fmt.size() && is_digit(fmt[j])) {
            well_formed = read_number(fmt, j, c.width);
        }
        if (well_formed && j < fmt.size() && fmt[j] == '.') {
            ++j;
            if (j < fmt.size() && fmt[j] == '*') {
                int p = va_arg(*ap, int);
                ++j;
                c.precision = p < 0 ? -1 : p;
            } else {
                c.precision = 0;
                well_formed = read_number(fmt, j, c.precision);
            }
        }
        if (well_formed && j < fmt.size()) {
            auto next_is = [&](char ch) { return j + 1 < fmt.size() && fmt[j + 1] == ch; };
            switch (fmt[j]) {
                case 'h':
                    c.length = next_is('h') ? Length::hh : Length::h;
                    j += c.length == Length::hh ? 2 : 1;
                    break;
                case 'l':
                    c.length = next_is('l') ? Length::ll : Length::l;
                    j += c.length == Length::ll ? 2 : 1;
                    break;
                case 'q': c.length = Length::ll; ++j; break;
                case 'z': c.length = Length::z; ++j; break;
                case 'j': c.length = Length::j; ++j; break;
                case 't': c.length = Length::t; ++j; break;
                case 'L': c.length = Length::L; ++j; break;
                default: break;
            }
        }
        if (!well_formed || j >= fmt.size()) {
            // A directive cut short or out of range is kept as text.
            out.append(fmt.substr(percent, j - percent));
            i = j;
            continue;
        }
        c.conversion = fmt[j++];
        bool ok = true;
        switch (c.conversion) {
            case '%': out += '%'; break;
            case 'd':
            case 'i': ok = emit_signed(out, c, ap); break;
            case 'u':
            case 'o':
            case 'x':
            case 'X': ok = emit_unsigned(out, c, ap); break;
            case 'c':
            case 's':
                if (c.length == Length::l) {
                    ok = emit_wide(out, c, ap);
                } else if (c.conversion == 'c') {
                    ok = emit(out, directive(c, ""), va_arg(*ap, int));
                } else {
                    ok = emit(out, directive(c, ""), va_arg(*ap, const char *));
                }
                break;
            case 'p': ok = emit(out, directive(c, ""), va_arg(*ap, void *)); break;
            case 'f':
            case 'F':
            case 'e':
            case 'E':
            case 'g':
            case 'G':
            case 'a':
            case 'A':
                if (c.length == Length::L) {
                    ok = emit(out, directive(c, "L"), va_arg(*ap, long double));
                } else {
                    ok = emit(out, directive(c, ""), va_arg(*ap, double));
                }
                break;
            case 'n': (void)va_arg(*ap, void *); break;  // writes through a pointer: not supported, skipped
            case '@': ok = emit_object(out, c, options, ap); break;
            default: out.append(fmt.substr(percent, j - percent)); break;  // unknown: kept as text
        }
        if (!ok) return false;
        i = j;
    }
    if (!scan_utf8(out).valid) out = sanitize_utf8(out);
    return true;
}

const __CFString *format_of(CFStringRef format, const char *function) {
    return cast<__CFString>(format, kStringTypeID, function);
}

enum class Formatted { Ok, Refused, OutOfMemory };

// `format` with a copy of `arguments` into `out`: Refused when the C library
// refuses a conversion.
Formatted format_arguments(std::string &out, const __CFString *format, CFDictionaryRef options, va_list arguments) {
    va_list ap;
    va_copy(ap, arguments);
    Formatted done = Formatted::Refused;
    try {
        if (format_into(out, string_view_of(format), options, &ap)) done = Formatted::Ok;
    } catch (...) {
        done = Formatted::OutOfMemory;
    }
    va_end(ap);
    return done;
}

}  // namespace
}  // namespace cf

using namespace cf;

CFStringRef CFStringCreateWithFormat(CFAllocatorRef alloc, CFDictionaryRef format_options, CFStringRef format, ...) {
    va_list args;
    va_start(args, format);
    CFStringRef result = CFStringCreateWithFormatAndArguments(alloc, format_options, format, args);
    va_end(args);
    return result;
}

CFStringRef CFStringCreateWithFormatAndArguments(CFAllocatorRef, CFDictionaryRef format_options, CFStringRef format,
                                                 va_list arguments) {
    const __CFString *f = format_of(format, "CFStringCreateWithFormat");
    if (f == nullptr) return nullptr;
    std::string out;
    return format_arguments(out, f, format_options, arguments) == Formatted::Ok ? make_string(out) : nullptr;
}

void CFStringAppendFormat(CFMutableStringRef str, CFDictionaryRef format_options, CFStringRef format, ...) {
    va_list args;
    va_start(args, format);
    CFStringAppendFormatAndArguments(str, format_options, format, args);
    va_end(args);
}

// A conversion the C library refuses appends nothing at all.
void CFStringAppendFormatAndArguments(CFMutableStringRef str, CFDictionaryRef format_options, CFStringRef format,
                                      va_list arguments) {
    const __CFString *f = format_of(format, "CFStringAppendFormat");
    if (str == nullptr || f == nullptr) return;
    std::string out;
    Formatted done = format_arguments(out, f, format_options, arguments);
    if (done == Formatted::OutOfMemory) fatal("CFStringAppendFormat", "out of memory");
    if (done == Formatted::Ok) append_to_string(str, out);
}
