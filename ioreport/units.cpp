// Unit words, scaling between units, unit labels, sample descriptions and
// writing text to a descriptor.
#include "internal.h"

#include <unistd.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

using namespace ioreport;

namespace {

constexpr uint64_t kScaleMask = 0x00FFFFFFFFFFFFFFull;

uint8_t quantityOf(uint64_t unit) { return static_cast<uint8_t>(unit >> 56); }

}  // namespace

// ---------------------------------------------------------------- scaling

IOReturn getFactorsFromScale(uint64_t scale, uint64_t *numerator, uint64_t *denominator) {
    if ((scale >> 48) & 0xFF) return kIOReturnBadArgument;
    uint64_t factor = scale & 0x7FFFFFFF;
    bool divides = (scale >> 31) & 1;
    uint64_t num = (factor != 0 && !divides) ? factor : 1;
    uint64_t den = (factor != 0 && divides) ? factor : 1;

    uint8_t ten = static_cast<uint8_t>(scale >> 32);
    if (ten != 0) {
        int e = static_cast<int8_t>(static_cast<uint8_t>(ten - 127));
        uint64_t p = 1;
        for (int i = 0; i < std::abs(e); ++i) p *= 10;
        if (e >= 1)
            num *= p;
        else
            den *= p;
    }
    uint8_t two = static_cast<uint8_t>(scale >> 40);
    if (two != 0) {
        int e = static_cast<int8_t>(static_cast<uint8_t>(two - 127));
        if (e >= 1)
            num <<= (e % 64);
        else
            den <<= ((-e) % 64);
    }
    if (numerator) *numerator = num;
    if (denominator) *denominator = den;
    return kIOReturnSuccess;
}

double IOReportScaleValue(uint64_t value, uint64_t from_unit, uint64_t to_unit) {
    const double nan = std::nan("");
    if (quantityOf(from_unit) != quantityOf(to_unit)) return nan;
    uint64_t fn = 0, fd = 0, tn = 0, td = 0;
    if (getFactorsFromScale(from_unit & kScaleMask, &fn, &fd) != kIOReturnSuccess ||
        getFactorsFromScale(to_unit & kScaleMask, &tn, &td) != kIOReturnSuccess)
        return nan;
    double v = static_cast<double>(value);
    v = v * static_cast<double>(fn);
    v = v / static_cast<double>(fd);
    v = v / static_cast<double>(tn);
    v = v * static_cast<double>(td);
    return v;
}

CFMutableDictionaryRef IOReportCreateUnitInfo(uint64_t unit) {
    CFRef<CFMutableDictionaryRef> info(newDict());
    CFRef<CFNumberRef> n(makeNumber(unit));
    if (!info || !n) return nullptr;
    CFDictionarySetValue(info.get(), kUnitKey(), n.get());
    return info.release();
}

// ---------------------------------------------------------------- labels

namespace {

struct ScaleText {
    uint64_t scale;
    const char *text;
};

// Scales that name the whole label, whatever the quantity.
constexpr ScaleText kWholeLabels[] = {
    {0x7980000018ull, "24Mticks"},
    {0x7600000001ull, "1Gticks"},
    {0x1000000000000ull, "hwticks?"},
    {0x2000000000000ull, "hwpage?"},
};

// Prefixes by exact scale. The prefix is kept in a 4-byte buffer, so the
// longer texts lose their fourth character ("4KiB" shows as "4Ki").
constexpr ScaleText kPrefixes[] = {
    {0x7300000000ull, "p"},      {0x7600000000ull, "n"},      {0x7900000000ull, "u"},
    {0x7C00000000ull, "m"},      {0x8200000000ull, "k"},      {0x8500000000ull, "M"},
    {0x8800000000ull, "G"},      {0x8B00000000ull, "T"},      {0x890000000000ull, "Ki"},
    {0x8C0000000000ull, "KiB"},  {0x8C0000000004ull, "4KiB"}, {0x8C0000000008ull, "8KiB"},
    {0x930000000000ull, "Mi"},   {0x960000000000ull, "MiB"},  {0x9D0000000000ull, "Gi"},
    {0xA00000000000ull, "GiB"},  {0xA70000000000ull, "Ti"},   {0xAA0000000000ull, "TiB"},
};

const char *symbolFor(uint8_t quantity, uint64_t scale) {
    switch (quantity) {
    case 0: return "";
    case 1: return "s";
    case 2: return "W";
    case 3: return "J";
    case 4: return "A";
    case 5: return "V";
    case 6: return "F";
    case 7: return "H";
    case 8: return "Hz";
    case 9: return scale == 0x820000000000ull ? "B" : scale == 0 ? "b" : "";
    case 10: return "C";
    case 100: return "events";
    case 101: return "packets";
    default: return "??";
    }
}

}  // namespace

CFStringRef copyUnitLabel(uint64_t unit) {
    if (unit == kSentinel) return nullptr;
    uint64_t scale = unit & kScaleMask;
    for (const ScaleText &w : kWholeLabels)
        if (w.scale == scale) return CFStringCreateWithCString(nullptr, w.text, kCFStringEncodingUTF8);
    char prefix[4] = {0, 0, 0, 0};
    for (const ScaleText &p : kPrefixes) {
        if (p.scale == scale) {
            std::strncpy(prefix, p.text, sizeof prefix - 1);
            break;
        }
    }
    std::string label = std::string(prefix) + symbolFor(quantityOf(unit), scale);
    return CFStringCreateWithCString(nullptr, label.c_str(), kCFStringEncodingUTF8);
}

CFStringRef IOReportChannelGetUnitLabel(CFDictionaryRef channel) {
    if (!channel) return nullptr;
    if (CFStringRef cached = dictString(channel, kUnitLabel())) return cached;
    uint64_t unit = IOReportChannelGetUnit(channel);
    if (unit == kSentinel) return nullptr;
    CFRef<CFStringRef> label(copyUnitLabel(unit));
    if (!label) return nullptr;
    CFDictionarySetValue(mut(channel), kUnitLabel(), label.get());
    return label.get();   // held by the record
}

// ---------------------------------------------------------------- text

Utf8Text::Utf8Text(CFStringRef s) {
    if (!s) return;
    if ((text_ = CFStringGetCStringPtr(s, kCFStringEncodingUTF8))) return;
    CFIndex size = CFStringGetMaximumSizeForEncoding(CFStringGetLength(s), kCFStringEncodingUTF8);
    if (size <= 0) return;
    copy_ = new (std::nothrow) char[static_cast<size_t>(size)];
    if (!copy_) return;
    if (!CFStringGetCString(s, copy_, size, kCFStringEncodingUTF8)) {
        delete[] copy_;
        copy_ = nullptr;
        return;
    }
    text_ = copy_;
}

Utf8Text::~Utf8Text() { delete[] copy_; }

namespace {

// A description is built as UTF-8 text and made a string once at the end.
// Its lines are laid out here field by field as the C library's printf
// conversions they stand for would lay them out: formatting every line
// through vsnprintf cost more than everything else in a description.
class Line {
public:
    explicit Line(std::string &out) : out_(out) {}

    Line &text(std::string_view s) {
        out_.append(s);
        return *this;
    }
    // %<width>s
    Line &right(std::string_view s, size_t width) {
        if (s.size() < width) out_.append(width - s.size(), ' ');
        out_.append(s);
        return *this;
    }
    // %<width>lld
    Line &number(long long v, size_t width) { return right(digits(v), width); }
    // %<width>llu
    Line &unsignedNumber(unsigned long long v, size_t width) { return right(digits(v), width); }
    // %-<width>llu
    Line &unsignedLeft(unsigned long long v, size_t width) {
        std::string_view s = digits(v);
        out_.append(s);
        if (s.size() < width) out_.append(width - s.size(), ' ');
        return *this;
    }
    // %<width>.<precision>e and %<width>.<precision>f
    Line &scientific(double v, int precision, size_t width) {
        return right(real(v, std::chars_format::scientific, precision), width);
    }
    Line &fixed(double v, int precision, size_t width) { return right(real(v, std::chars_format::fixed, precision), width); }

private:
    template <class T>
    std::string_view digits(T v) {
        auto r = std::to_chars(buffer_, buffer_ + sizeof buffer_, v);
        return {buffer_, static_cast<size_t>(r.ptr - buffer_)};
    }
    // As printf writes them: no-values as "nan"/"inf" with their sign.
    std::string_view real(double v, std::chars_format format, int precision) {
        if (std::isnan(v) || std::isinf(v)) {
            std::string_view word = std::isnan(v) ? "nan" : "inf";
            return std::signbit(v) ? (std::isnan(v) ? std::string_view("-nan") : std::string_view("-inf")) : word;
        }
        auto r = std::to_chars(buffer_, buffer_ + sizeof buffer_, v, format, precision);
        if (r.ec != std::errc()) return {};
        return {buffer_, static_cast<size_t>(r.ptr - buffer_)};
    }

    std::string &out_;
    char buffer_[400];   // the widest fixed-point double with one decimal fits
};

// The four values of each element, read once for a whole description. When
// the element data does not match the channel type every value reads as
// kIOReportInvalidValue and a state's duty cycle as NaN, as the accessors
// give them one by one.
struct Elements {
    const uint8_t *bytes = nullptr;
    bool whole = false;
    double total_residency = 0;   // of a state channel, for duty cycles

    void values(int i, uint64_t v[4]) const {
        for (int k = 0; k < 4; ++k)
            v[k] = whole ? wire::load_le64(bytes + static_cast<size_t>(i) * kElementSize + kElemValues + 8 * static_cast<size_t>(k))
                         : static_cast<uint64_t>(kIOReportInvalidValue);
    }
};

bool describeState(std::string &out, CFDictionaryRef sample, const Elements &elements, int i, uint64_t unit,
                   const char *prefix, const char *name) {
    uint64_t v[4];
    elements.values(i, v);
    char buffer[20];
    const char *state = nullptr;
    if (CFStringRef sname = IOReportStateGetNameForIndex(sample, i)) {
        state = CFStringGetCStringPtr(sname, kCFStringEncodingUTF8);
        if (!state && CFStringGetCString(sname, buffer, sizeof buffer, kCFStringEncodingUTF8)) state = buffer;
    }
    if (!state) {
        std::snprintf(buffer, sizeof buffer, "%llx", static_cast<unsigned long long>(v[0]));
        state = buffer;
    }
    const double duty = elements.whole && elements.total_residency != 0
                            ? static_cast<double>(v[2]) / elements.total_residency
                            : std::nan("");
    Line(out)
        .text(prefix)
        .right(name, 20)
        .text("[")
        .right(state, 8)
        .text("] = { # ")
        .unsignedLeft(v[1], 8)
        .text(" ")
        .scientific(IOReportScaleValue(v[2], unit, kIOReportUnitTime), 3, 9)
        .text(" s / ")
        .fixed(duty * 100.0, 1, 4)
        .text("% }\n");
    return true;
}

bool describeBucket(std::string &out, CFDictionaryRef sample, const Elements &elements, int i, const char *prefix,
                    const char *name, const char *label) {
    uint64_t lo = 0, hi = 0;
    if (IOReportHistogramGetBucketBounds(sample, i, &lo, &hi) != kIOReturnSuccess) return false;
    uint64_t v[4];   // hits, least, greatest, sum
    elements.values(i, v);
    if (static_cast<int64_t>(v[0]) == kIOReportInvalidValue) return false;
    Line line(out);
    line.text(prefix)
        .right(name, 20)
        .text("[")
        .number(static_cast<long long>(lo), 12)
        .text(" - ")
        .number(static_cast<long long>(hi), 12)
        .text(" ")
        .text(label);
    if (v[0] == 0) {
        line.text("] = { <no hits>; # 0 }\n");
        return true;
    }
    line.text("] = { m ")
        .number(static_cast<long long>(v[1]), 12)
        .text("; M ")
        .number(static_cast<long long>(v[2]), 12)
        .text("; s ")
        .number(static_cast<long long>(v[3]), 12)
        .text("; # ")
        .unsignedNumber(v[0], 12)
        .text(" }\n");
    return true;
}

}  // namespace

CFStringRef IOReportSampleCopyDescription(CFDictionaryRef sample, const void *, const char *prefix) {
    if (!prefix) prefix = "";
    uint16_t count = 0;
    const uint8_t format = IOReportChannelGetFormat(sample);
    const uint8_t *elements = getRawElements(sample, &count, format);
    if (!elements) return nullptr;

    Utf8Text nameText(IOReportChannelGetChannelName(sample));
    char idText[10];
    const char *name = nameText.get();
    if (!name) {
        std::snprintf(idText, sizeof idText, "%llx", static_cast<unsigned long long>(wire::load_le64(elements + kElemChannelID)));
        name = idText;
    }
    // The unit's label as the string formatter shows an object ("(null)" for none).
    Utf8Text labelText(IOReportChannelGetUnitLabel(sample));
    const char *label = labelText.get() ? labelText.get() : "(null)";

    Elements values;
    values.bytes = elements;
    values.whole = count == typeCountOf(sample);
    if (values.whole && format == kIOReportFormatState) {
        uint64_t total = 0;
        for (int i = 0; i < count; ++i) total += wire::load_le64(elements + static_cast<size_t>(i) * kElementSize + kElemValues + 16);
        values.total_residency = static_cast<double>(total);
    }
    const uint64_t unit = format == kIOReportFormatState ? IOReportChannelGetUnit(sample) : 0;

    std::string text;
    try {
        for (int i = 0; i < count; ++i) {
            bool ok = false;
            switch (format) {
            case kIOReportFormatSimple:
                Line(text)
                    .text(prefix)
                    .right(name, 32)
                    .text(" = { ")
                    .number(static_cast<long long>(IOReportSimpleGetIntegerValue(sample)), 12)
                    .text(" ")
                    .text(label)
                    .text(" }\n");
                ok = true;
                break;
            case kIOReportFormatState:
                ok = describeState(text, sample, values, i, unit, prefix, name);
                break;
            case kIOReportFormatHistogram:
                ok = describeBucket(text, sample, values, i, prefix, name, label);
                break;
            case kIOReportFormatSimpleArray:
                text += "arrays unsupported?";
                ok = true;
                break;
            default:
                break;
            }
            if (!ok) return nullptr;
        }
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
    if (CFStringRef out = CFStringCreateWithBytes(nullptr, reinterpret_cast<const uint8_t *>(text.data()),
                                                  static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false))
        return out;
    // Not UTF-8 (a caller's prefix): the formatter replaces what is not, as it always did.
    return CFStringCreateWithFormat(nullptr, nullptr, CFSTR("%s"), text.c_str());
}

IOReturn IOReportWriteStringUTF8(int fd, CFStringRef string) {
    if (!string) return kIOReturnBadArgument;
    Utf8Text text(string);
    if (!text.get()) return kIOReturnNoMemory;
    size_t length = std::strlen(text.get());
    ssize_t written = ::write(fd, text.get(), length);
    if (written < 0) return kIOReturnIOError;
    if (static_cast<size_t>(written) < length) return kIOReturnUnderrun;
    if (static_cast<size_t>(written) > length) return kIOReturnError;
    return kIOReturnSuccess;
}
