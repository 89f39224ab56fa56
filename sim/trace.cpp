#include "trace.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "cf_ref.h"
#include "wire.h"

namespace talvex::sim {

char *Trace::room(size_t most) {
    if (blocks_.empty() || blocks_.back().size - blocks_.back().used < most) {
        size_t size = std::max(most, kBlockBytes);
        blocks_.push_back(Block{std::make_unique_for_overwrite<char[]>(size), size, 0, 0});
    }
    Block &b = blocks_.back();
    return b.bytes.get() + b.used;
}

void Trace::keep(const char *begin, const char *end) {
    Block &b = blocks_.back();
    auto size = static_cast<size_t>(end - begin);
    b.used += size;
    ++b.lines;
    lines_.emplace_back(begin, size);
    bytes_ += size + 1;
    while (lines_.size() > kMaxLines || bytes_ > kMaxBytes) {
        bytes_ -= lines_.front().size() + 1;
        lines_.pop_front();
        if (--blocks_.front().lines == 0) blocks_.pop_front();
    }
}

void Trace::add(std::string_view line) {
    char *p = room(line.size());
    std::memcpy(p, line.data(), line.size());
    keep(p, p + line.size());
}

std::string Trace::text() const {
    std::string out;
    out.reserve(bytes_);
    for (auto l : lines_) {
        out += l;
        out += '\n';
    }
    return out;
}

void Trace::clear() {
    lines_.clear();
    blocks_.clear();
    bytes_ = 0;
}

namespace {

// Length of the valid UTF-8 sequence at s[i], or 0 when it is not one.
size_t utf8_sequence(std::string_view s, size_t i) {
    auto b = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    unsigned char c = b(i);
    size_t n;
    uint32_t cp;
    if (c < 0x80) return 1;
    if (c >= 0xc2 && c <= 0xdf) n = 2, cp = c & 0x1f;
    else if (c >= 0xe0 && c <= 0xef) n = 3, cp = c & 0x0f;
    else if (c >= 0xf0 && c <= 0xf4) n = 4, cp = c & 0x07;
    else return 0;
    if (s.size() - i < n) return 0;
    for (size_t k = 1; k < n; ++k) {
        if ((b(i + k) & 0xc0) != 0x80) return 0;
        cp = cp << 6 | (b(i + k) & 0x3f);
    }
    // Overlong forms, surrogates and values past U+10FFFF are invalid.
    if ((n == 3 && cp < 0x800) || (n == 4 && (cp < 0x10000 || cp > 0x10ffff)) || (cp >= 0xd800 && cp <= 0xdfff))
        return 0;
    return n;
}

struct JsonWriter {
    std::string out;
    size_t limit;
    bool overflow = false;

    void value(CFTypeRef v, int depth) {
        if (overflow) return;
        if (out.size() > limit || depth > 64) {
            overflow = true;
            return;
        }
        if (!v) {
            out += "null";
            return;
        }
        CFTypeID t = CFGetTypeID(v);
        if (t == CFStringGetTypeID()) {
            out += json_string(to_std_string(static_cast<CFStringRef>(v)));
        } else if (t == CFNumberGetTypeID()) {
            auto n = static_cast<CFNumberRef>(v);
            if (CFNumberIsFloatType(n)) {
                double d = 0;
                CFNumberGetValue(n, kCFNumberFloat64Type, &d);
                if (!std::isfinite(d)) {
                    out += "null";
                } else {
                    char buf[40];
                    std::snprintf(buf, sizeof buf, "%.17g", d);
                    out += buf;
                }
            } else {
                int64_t i = 0;
                CFNumberGetValue(n, kCFNumberSInt64Type, &i);
                out += std::to_string(i);
            }
        } else if (t == CFBooleanGetTypeID()) {
            out += CFBooleanGetValue(static_cast<CFBooleanRef>(v)) ? "true" : "false";
        } else if (t == CFDataGetTypeID()) {
            auto d = static_cast<CFDataRef>(v);
            if (static_cast<size_t>(CFDataGetLength(d)) * 2 > limit) {
                overflow = true;
                return;
            }
            out += '"';
            out += wire::to_hex({CFDataGetBytePtr(d), static_cast<size_t>(CFDataGetLength(d))});
            out += '"';
        } else if (t == CFArrayGetTypeID()) {
            auto a = static_cast<CFArrayRef>(v);
            out += '[';
            for (CFIndex i = 0, n = CFArrayGetCount(a); i < n && !overflow; ++i) {
                if (i) out += ',';
                value(CFArrayGetValueAtIndex(a, i), depth + 1);
            }
            out += ']';
        } else if (t == CFDictionaryGetTypeID()) {
            auto d = static_cast<CFDictionaryRef>(v);
            CFIndex n = CFDictionaryGetCount(d);
            std::vector<const void *> keys(static_cast<size_t>(n)), values(static_cast<size_t>(n));
            CFDictionaryGetKeysAndValues(d, keys.data(), values.data());
            out += '{';
            for (size_t i = 0; i < keys.size() && !overflow; ++i) {
                if (i) out += ',';
                CFTypeRef k = keys[i];
                if (k && CFGetTypeID(k) == CFStringGetTypeID()) {
                    out += json_string(to_std_string(static_cast<CFStringRef>(k)));
                } else {
                    CFRef<CFStringRef> desc(k ? CFCopyDescription(k) : nullptr);
                    out += json_string(to_std_string(desc.get()));
                }
                out += ':';
                value(values[i], depth + 1);
            }
            out += '}';
        } else {
            out += "null";
        }
    }
};

}  // namespace

void append_json_string(std::string &out, std::string_view text) {
    static constexpr char kDigits[] = "0123456789abcdef";
    // Printable ASCII other than a quote or backslash stands as it is: such
    // runs are copied whole.
    auto plain = [](unsigned char c) { return c >= 0x20 && c < 0x7f && c != '"' && c != '\\'; };
    out += '"';
    for (size_t i = 0; i < text.size();) {
        size_t run = i;
        while (run < text.size() && plain(static_cast<unsigned char>(text[run]))) ++run;
        if (run > i) {
            out += text.substr(i, run - i);
            i = run;
            continue;
        }
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '"') {
            out += "\\\"", ++i;
        } else if (c == '\\') {
            out += "\\\\", ++i;
        } else if (c == '\n') {
            out += "\\n", ++i;
        } else if (c == '\t') {
            out += "\\t", ++i;
        } else if (c == '\r') {
            out += "\\r", ++i;
        } else if (c < 0x20 || c == 0x7f) {
            const char escape[] = {'\\', 'u', '0', '0', kDigits[c >> 4], kDigits[c & 15]};
            out += std::string_view(escape, sizeof escape);
            ++i;
        } else if (size_t n = utf8_sequence(text, i)) {
            out += text.substr(i, n);
            i += n;
        } else {
            out += "\\ufffd";
            ++i;
        }
    }
    out += '"';
}

namespace {

// Writes the text at `p`; returns the end.
char *put(char *p, std::string_view text) {
    std::memcpy(p, text.data(), text.size());
    return p + text.size();
}

// Writes the decimal digits of `v` (at most 20) at `p`; returns the end.
char *put_decimal(char *p, uint64_t v) { return std::to_chars(p, p + 20, v).ptr; }

// Bytes trace_hex() can give for `size` bytes: two a byte up to the limit,
// and the cut mark.
size_t hex_bound(size_t size, size_t limit) { return 2 * std::min(size, limit) + 3; }

// Writes trace_hex(bytes, limit) at `p`; returns the end.
char *put_trace_hex(char *p, std::span<const uint8_t> bytes, size_t limit) {
    p = wire::put_hex(p, bytes.first(std::min(bytes.size(), limit)));
    return bytes.size() > limit ? put(p, "...") : p;
}

// A call line is made for every call a client makes: it is written straight
// into room for the longest line these arguments can give. The fixed part is
// 96 bytes of names and punctuation and four numbers of at most 20 digits;
// each scalar takes at most 21. `service` is the JSON string of its name.
size_t call_line_bound(std::string_view service, const CallArgs &args) {
    constexpr size_t kFixed = 96 + 4 * 20;
    return kFixed + service.size() + 21 * args.scalars.size() + hex_bound(args.input.size(), kMaxTracedInput);
}

char *put_call_line(char *p, std::string_view service, const CallArgs &args, IOReturn result) {
    p = put(p, "{\"service\":");
    p = put(p, service);
    p = put(p, ",\"selector\":");
    p = put_decimal(p, args.selector);
    p = put(p, ",\"scalars\":[");
    for (size_t i = 0; i < args.scalars.size(); ++i) {
        if (i) *p++ = ',';
        p = put_decimal(p, args.scalars[i]);
    }
    p = put(p, "],\"input\":\"");
    p = put_trace_hex(p, args.input, kMaxTracedInput);
    p = put(p, "\",\"output_size\":");
    p = put_decimal(p, args.output_capacity);
    p = put(p, ",\"scalar_output_count\":");
    p = put_decimal(p, args.scalar_output_capacity);
    p = put(p, ",\"result\":");
    p = put_decimal(p, static_cast<uint32_t>(result));
    *p++ = '}';
    return p;
}

}  // namespace

std::string Trace::call_line(std::string_view service, const CallArgs &args, IOReturn result) {
    const std::string name = json_string(service);
    std::string out(call_line_bound(name, args), '\0');
    out.resize(static_cast<size_t>(put_call_line(out.data(), name, args, result) - out.data()));
    return out;
}

void Trace::add_call(std::string_view service, const CallArgs &args, IOReturn result) {
    // Calls come in runs to one service: its name is escaped once a run.
    if (service != call_service_) {
        call_service_ = service;
        call_service_json_ = json_string(service);
    }
    char *p = room(call_line_bound(call_service_json_, args));
    keep(p, put_call_line(p, call_service_json_, args, result));
}

std::string Trace::open_line(std::string_view service, uint32_t type, IOReturn result) {
    return "{\"service\":" + json_string(service) + ",\"open\":" + std::to_string(type) +
           ",\"result\":" + std::to_string(static_cast<uint32_t>(result)) + "}";
}

std::string Trace::write_line(std::string_view service, std::string_view key, CFTypeRef value) {
    return "{\"service\":" + json_string(service) + ",\"property\":" + json_string(key) +
           ",\"value\":" + cf_to_json(value) + "}";
}

std::string Trace::refusal_line(std::string_view service, std::string_view what, std::string_view scope,
                                size_t limit) {
    return "{\"service\":" + (service.empty() ? std::string("null") : json_string(service)) +
           ",\"refused\":\"budget\",\"what\":" + json_string(what) + ",\"scope\":" + json_string(scope) +
           ",\"limit\":" + std::to_string(limit) + "}";
}

std::string json_string(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 2);
    append_json_string(out, text);
    return out;
}

std::string cf_to_json(CFTypeRef value, size_t limit) {
    JsonWriter w{{}, limit};
    w.value(value, 0);
    if (w.overflow) return json_string("(value too large to trace)");
    return std::move(w.out);
}

std::string trace_hex(std::span<const uint8_t> bytes, size_t limit) {
    std::string out(hex_bound(bytes.size(), limit), '\0');
    out.resize(static_cast<size_t>(put_trace_hex(out.data(), bytes, limit) - out.data()));
    return out;
}

}  // namespace talvex::sim
