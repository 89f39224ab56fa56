// Report channels as a simulated driver publishes them: the legend in its
// registry entry ("IOReportLegend", and "IOReportLegendPublic" when clients
// may read it) and the channels' current raw elements, which the report hub
// copies into its clients' buffers.
//
// The element layout, the formats and the type word are the report hub's
// wire (talvex_report.h); the category names below are the simulator's own.
//
// A source keeps its channels in legend order. Values are made on demand
// (fill) from the source's figures, which advance() brings up to the
// simulation's current time, so the cost of a hub update is the cost of the
// channels it copies.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cf_ref.h"
#include "registry.h"
#include "talvex_report.h"

namespace talvex::sim {

// Channel categories (bits of the type's bytes 2-3).
enum : uint16_t {
    kReportCategoryPower = 0x0002,
    kReportCategoryTraffic = 0x0004,
    kReportCategoryPerformance = 0x0008,
    kReportCategoryPeripheral = 0x0010,
    kReportCategoryField = 0x0100,
    kReportCategoryDebug = 0x8000,
};

// Unit words ("IOReportChannelUnit"): quantity in the top byte, then the
// scale (powers of two and ten biased by 127, a factor that multiplies or,
// with bit 31, divides).
inline constexpr uint64_t kUnitMilliseconds = 0x0100007C00000000ull;
inline constexpr uint64_t kUnitMicroseconds = 0x0100007900000000ull;
inline constexpr uint64_t kUnit24MHzTicks = 0x0100007980000018ull;
inline constexpr uint64_t kUnitMillijoules = 0x0300007C00000000ull;
inline constexpr uint64_t kUnitEvents = 0x6400000000000000ull;

// An ID made of up to eight ASCII characters, the first in the most
// significant byte ("TOTAL MS" is 0x544F54414C204D53); shorter text is
// padded with zero bytes at the low end.
constexpr uint64_t report_id(std::string_view text) {
    uint64_t id = 0;
    for (size_t i = 0; i < 8; ++i) id = (id << 8) | (i < text.size() ? static_cast<uint8_t>(text[i]) : 0);
    return id;
}

// The text of an ID as the channel publishes it: its non-zero bytes, most
// significant first, blanks kept ("IDLE MS " ends in one).
std::string report_id_text(uint64_t id);

// One segment of a histogram's bucket configuration ("IOReportChannelConfig",
// 16 bytes each: base, scale kind 0 linear / 1 exponential, unused, buckets).
struct HistogramSegment {
    uint32_t base;
    uint32_t exponential;
    int32_t buckets;
};
CFRef<CFDataRef> histogram_config(std::span<const HistogramSegment> segments);
// Upper bounds of every bucket of a configuration.
std::vector<uint64_t> histogram_bounds(std::span<const HistogramSegment> segments);

// A channel-info dictionary with a unit and, for histograms, a configuration.
CFRef<CFDictionaryRef> channel_info(uint64_t unit, CFDataRef config = nullptr);

struct ReportChannel {
    uint64_t id = 0;
    uint64_t type = 0;
    std::string name;        // the legend's name, else the ID's text: what `channel set` looks for
    uint32_t model = 0;      // which of the source's figures fill it (the source's own numbering)
    uint32_t param = 0;      // a parameter of that figure
    int32_t adjust = -1;     // index of its adjustments (set values), -1 for none

    uint8_t format() const { return typeFormat(type); }
    uint16_t elements() const { return typeElementCount(type); }
    // How many values `channel set` can address: 1 for simple, four per
    // element for arrays, 0 for the others.
    size_t settable_values() const;
};

class ReportSource {
public:
    ReportSource(Service &service, bool is_public);
    virtual ~ReportSource();
    ReportSource(const ReportSource &) = delete;
    ReportSource &operator=(const ReportSource &) = delete;

    Service &service() const { return service_; }
    uint64_t driver_id() const { return service_.id; }
    const std::vector<ReportChannel> &channels() const { return channels_; }
    // Bumped whenever channels are added.
    uint64_t version() const { return version_; }

    // Brings the figures up to the simulation's current time.
    virtual void advance() {}

    // Writes channel `index`'s driver ID, channel ID and type into every one
    // of its elements (the parts that never change).
    void write_header(size_t index, uint8_t *elements) const;
    // Writes its current stamps and values (bytes 24-63 of every element),
    // set values applied.
    void fill(size_t index, uint8_t *elements) const;

    // The channel with the name (or, for "0x..." text, the ID); nothing when
    // there is none.
    std::optional<size_t> find(std::string_view name_or_id) const;
    // Holds value `slot` of a simple or array channel at `value` until
    // released. False when the channel has no such value.
    bool set_value(size_t index, size_t slot, int64_t value);
    // Lets a held value move with the model again, onward from where it was
    // held. False when it was not held.
    bool release_value(size_t index, size_t slot);

protected:
    // Starts a legend group; the channels added next belong to it. Empty
    // names are left out of the legend.
    void begin_group(std::string group, std::string subgroup, CFRef<CFDictionaryRef> info);
    // Adds a channel to the current group. An empty `legend_name` leaves the
    // name out of the legend (clients then name it by its ID).
    size_t add_channel(uint64_t id, uint64_t type, std::string legend_name, uint32_t model, uint32_t param = 0);
    // Writes "IOReportLegend" (and "IOReportLegendPublic") into the service.
    void publish_legend();

    // Writes the model's stamps and values of one channel (bytes 24-63 of
    // every element).
    virtual void fill_model(const ReportChannel &channel, uint8_t *elements) const = 0;

private:
    struct Adjustment {
        bool held = false;
        int64_t value = 0;    // while held
        int64_t offset = 0;   // added to the model's value when not held
    };
    struct Group {
        std::string group, subgroup;
        CFRef<CFDictionaryRef> info;
        CFRef<CFMutableArrayRef> legend_channels;
    };
    std::vector<Adjustment> &adjustments(size_t index);

    Service &service_;
    bool public_;
    std::vector<ReportChannel> channels_;
    std::vector<Group> groups_;
    std::vector<std::vector<Adjustment>> adjustments_;
    uint64_t version_ = 0;
};

}  // namespace talvex::sim
