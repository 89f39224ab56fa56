#include "trace.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <vector>

#include "cf_ref.h"
#include "wire.h"

namespace talvex::sim {

void Trace::add(std::string line) {
    bytes_ += line.size() + 1;
    lines_.push_back(std::move(line));
    while (!lines_.empty() && (lines_.size() > kMaxLines || bytes_ > kMaxBytes)) {
        bytes_ -= lines_.front().size() + 1;
        lines_.pop_front();
    }
}

std::string Trace::text() const {
    std::string out;
    out.reserve(bytes_);
    for (auto &l : lines_) {
        out += l;
        out += '\n';
    }
    return out;
}

void Trace::clear() {
    lines_.clear();
    bytes_ = 0;
}

namespace {

void append_decimal(std::string &out, uint64_t v) {
    char buf[20];
    auto end = std::to_chars(buf, buf + sizeof buf, v).ptr;
    out.append(buf, end);
}

}  // namespace

// Built in one buffer: a call line is made for every call a client makes.
std::string Trace::call_line(std::string_view service, const CallArgs &args, IOReturn result) {
    const size_t hex = 2 * std::min(args.input.size(), kMaxTracedInput) + 3;
    std::string out;
    out.reserve(120 + service.size() + 21 * args.scalars.size() + hex);
    out += "{\"service\":";
    append_json_string(out, service);
    out += ",\"selector\":";
    append_decimal(out, args.selector);
    out += ",\"scalars\":[";
    for (size_t i = 0; i < args.scalars.size(); ++i) {
        if (i) out += ',';
        append_decimal(out, args.scalars[i]);
    }
    out += "],\"input\":\"";
    if (!args.input.empty()) out += trace_hex(args.input, kMaxTracedInput);
    out += "\",\"output_size\":";
    append_decimal(out, args.output_capacity);
    out += ",\"scalar_output_count\":";
    append_decimal(out, args.scalar_output_capacity);
    out += ",\"result\":";
    append_decimal(out, static_cast<uint32_t>(result));
    out += '}';
    return out;
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
    static const char digits[] = "0123456789abcdef";
    // Printable ASCII other than a quote or backslash stands as it is: such
    // runs are copied whole.
    auto plain = [](unsigned char c) { return c >= 0x20 && c < 0x7f && c != '"' && c != '\\'; };
    out += '"';
    for (size_t i = 0; i < text.size();) {
        size_t run = i;
        while (run < text.size() && plain(static_cast<unsigned char>(text[run]))) ++run;
        if (run > i) {
            out.append(text.data() + i, run - i);
            i = run;
            continue;
        }
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
            ++i;
        } else if (c == '\n') {
            out += "\\n", ++i;
        } else if (c == '\t') {
            out += "\\t", ++i;
        } else if (c == '\r') {
            out += "\\r", ++i;
        } else if (c < 0x20 || c == 0x7f) {
            out += "\\u00";
            out += digits[c >> 4];
            out += digits[c & 15];
            ++i;
        } else if (size_t n = utf8_sequence(text, i)) {
            out.append(text.substr(i, n));
            i += n;
        } else {
            out += "\\ufffd";
            ++i;
        }
    }
    out += '"';
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
    if (bytes.size() <= limit) return wire::to_hex(bytes);
    return wire::to_hex(bytes.first(limit)) + "...";
}

}  // namespace talvex::sim
