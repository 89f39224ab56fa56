#include "report_source.h"

#include "control.h"
#include "wire.h"

namespace talvex::sim {

namespace {

CFRef<CFNumberRef> number(uint64_t v) {
    auto s = static_cast<int64_t>(v);
    return CFRef<CFNumberRef>(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &s));
}

CFRef<CFMutableDictionaryRef> dictionary() {
    return CFRef<CFMutableDictionaryRef>(CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                                                   &kCFTypeDictionaryValueCallBacks));
}

CFRef<CFMutableArrayRef> array() {
    return CFRef<CFMutableArrayRef>(CFArrayCreateMutable(kCFAllocatorDefault, 0, &kCFTypeArrayCallBacks));
}

void set(CFMutableDictionaryRef d, const char *key, CFTypeRef value) {
    CFRef<CFStringRef> k = make_cf_string(key);
    CFDictionarySetValue(d, k.get(), value);
}

}  // namespace

std::string report_id_text(uint64_t id) {
    std::string text;
    for (int shift = 56; shift >= 0; shift -= 8)
        if (char c = static_cast<char>(id >> shift)) text += c;
    return text;
}

CFRef<CFDataRef> histogram_config(std::span<const HistogramSegment> segments) {
    std::vector<uint8_t> bytes(segments.size() * 16, 0);
    for (size_t i = 0; i < segments.size(); ++i) {
        uint8_t *p = bytes.data() + 16 * i;
        wire::store_le32(p, segments[i].base);
        wire::store_le32(p + 4, segments[i].exponential);
        wire::store_le32(p + 12, static_cast<uint32_t>(segments[i].buckets));
    }
    return CFRef<CFDataRef>(CFDataCreate(kCFAllocatorDefault, bytes.data(), static_cast<CFIndex>(bytes.size())));
}

std::vector<uint64_t> histogram_bounds(std::span<const HistogramSegment> segments) {
    std::vector<uint64_t> bounds;
    for (const auto &s : segments) {
        uint64_t power = 1;
        for (int32_t j = 0; j < s.buckets; ++j) {
            power *= s.base;
            bounds.push_back(s.exponential ? power : uint64_t{s.base} * static_cast<uint64_t>(j + 1));
        }
    }
    return bounds;
}

CFRef<CFDictionaryRef> channel_info(uint64_t unit, CFDataRef config) {
    auto info = dictionary();
    set(info.get(), "IOReportChannelUnit", number(unit).get());
    if (config) set(info.get(), "IOReportChannelConfig", config);
    return CFRef<CFDictionaryRef>(info.release());
}

size_t ReportChannel::settable_values() const {
    switch (format()) {
    case kReportSimple: return 1;
    case kReportArray: return size_t{elements()} * 4;
    default: return 0;
    }
}

ReportSource::ReportSource(Service &service, bool is_public) : service_(service), public_(is_public) {}

ReportSource::~ReportSource() = default;

void ReportSource::begin_group(std::string group, std::string subgroup, CFRef<CFDictionaryRef> info) {
    groups_.push_back(Group{std::move(group), std::move(subgroup), std::move(info), array()});
}

size_t ReportSource::add_channel(uint64_t id, uint64_t type, std::string legend_name, uint32_t model, uint32_t param) {
    if (groups_.empty()) begin_group({}, {}, {});
    auto entry = array();
    CFArrayAppendValue(entry.get(), number(id).get());
    CFArrayAppendValue(entry.get(), number(type).get());
    if (!legend_name.empty()) CFArrayAppendValue(entry.get(), make_cf_string(legend_name).get());
    CFArrayAppendValue(groups_.back().legend_channels.get(), entry.get());

    ReportChannel c;
    c.id = id;
    c.type = type;
    c.name = legend_name.empty() ? report_id_text(id) : std::move(legend_name);
    c.model = model;
    c.param = param;
    channels_.push_back(std::move(c));
    ++version_;
    return channels_.size() - 1;
}

void ReportSource::publish_legend() {
    auto legend = array();
    for (const auto &g : groups_) {
        auto d = dictionary();
        if (!g.group.empty()) set(d.get(), "IOReportGroupName", make_cf_string(g.group).get());
        if (!g.subgroup.empty()) set(d.get(), "IOReportSubGroupName", make_cf_string(g.subgroup).get());
        if (g.info) set(d.get(), "IOReportChannelInfo", g.info.get());
        set(d.get(), "IOReportChannels", g.legend_channels.get());
        CFArrayAppendValue(legend.get(), d.get());
    }
    service_.set_property("IOReportLegend", legend.get());
    if (public_) service_.set_property("IOReportLegendPublic", kCFBooleanTrue);
}

void ReportSource::write_header(size_t index, uint8_t *elements) const {
    const ReportChannel &c = channels_[index];
    for (size_t e = 0; e < c.elements(); ++e) {
        uint8_t *p = elements + e * kElementSize;
        wire::store_le64(p + kElemDriverID, driver_id());
        wire::store_le64(p + kElemChannelID, c.id);
        wire::store_le64(p + kElemType, c.type);
    }
}

void ReportSource::fill(size_t index, uint8_t *elements) const {
    const ReportChannel &c = channels_[index];
    fill_model(c, elements);
    if (c.adjust < 0) return;
    const auto &adj = adjustments_[static_cast<size_t>(c.adjust)];
    for (size_t slot = 0; slot < adj.size(); ++slot) {
        const Adjustment &a = adj[slot];
        if (!a.held && a.offset == 0) continue;
        uint8_t *p = elements + (slot / 4) * kElementSize + kElemValues + (slot % 4) * 8;
        uint64_t model = wire::load_le64(p);
        wire::store_le64(p, a.held ? static_cast<uint64_t>(a.value) : model + static_cast<uint64_t>(a.offset));
    }
}

std::optional<size_t> ReportSource::find(std::string_view name_or_id) const {
    std::optional<uint64_t> id;
    if (name_or_id.starts_with("0x") || name_or_id.starts_with("0X")) id = parse_unsigned(name_or_id);
    for (size_t i = 0; i < channels_.size(); ++i)
        if (id ? channels_[i].id == *id : channels_[i].name == name_or_id) return i;
    return std::nullopt;
}

std::vector<ReportSource::Adjustment> &ReportSource::adjustments(size_t index) {
    ReportChannel &c = channels_[index];
    if (c.adjust < 0) {
        c.adjust = static_cast<int32_t>(adjustments_.size());
        adjustments_.emplace_back(c.settable_values());
    }
    return adjustments_[static_cast<size_t>(c.adjust)];
}

bool ReportSource::set_value(size_t index, size_t slot, int64_t value) {
    if (index >= channels_.size() || slot >= channels_[index].settable_values()) return false;
    Adjustment &a = adjustments(index)[slot];
    a.held = true;
    a.value = value;
    return true;
}

bool ReportSource::release_value(size_t index, size_t slot) {
    if (index >= channels_.size() || slot >= channels_[index].settable_values() || channels_[index].adjust < 0)
        return false;
    Adjustment &a = adjustments(index)[slot];
    if (!a.held) return false;
    // Onward from the held value: the model's current value plus the offset
    // gives the held value now.
    std::vector<uint8_t> scratch(size_t{channels_[index].elements()} * kElementSize, 0);
    fill_model(channels_[index], scratch.data());
    uint64_t model = wire::load_le64(scratch.data() + (slot / 4) * kElementSize + kElemValues + (slot % 4) * 8);
    a.offset = static_cast<int64_t>(static_cast<uint64_t>(a.value) - model);
    a.held = false;
    return true;
}

}  // namespace talvex::sim
