// The report hub (IOReportHub): the service through which clients subscribe
// to the report channels that drivers publish (see report_source.h).
//
// Its user client (connection type 0) answers:
//   0  open                 no arguments; must come before 2 and 3
//   2  configure interests  input: the interest list; output: one scalar, the buffer token
//   3  update buffer        one scalar input, the token; no output
// Interest list (little-endian): u32 N, 4 unused bytes, then N entries of
// 24 bytes: driver ID, channel ID, channel type (the type is not needed: the
// buffer carries each channel's real one). The input must be exactly
// 24 * N + 8 bytes with N at least 1.
//
// Configuring makes a buffer sized for the requested channels that exist
// (each once; unknown ones are left out) and answers its token. The client
// maps the buffer with the token's low 32 bits as memory type. Updating
// copies the current raw elements of those channels into the buffer, in
// legend order (drivers in registry order, channels in legend order), each
// channel's elements consecutive. A channel whose driver is unpublished is
// left out; the space it leaves at the end becomes filler runs that name no
// channel (driver and channel ID 0x8000000000000000), so the runs still end
// exactly at the end of the buffer. Memory type 0 is the buffer of a client
// that has configured nothing: one zero-filled page.
//
// Every buffer costs its client a descriptor and its size in whole pages of
// the client's budget (see budget.h); the unconfigured page is one for all,
// and costs nothing.
//
// Codes: 2 or 3 before 0, kIOReturnNotOpen; a malformed interest list, a
// missing scalar output slot or an unknown token, kIOReturnBadArgument; more
// than kMaxSubscriptions buffers on one user client, or a buffer over the
// client's budget, kIOReturnNoResources (with a refusal line in the trace).
//
// With a step clock attached, every update first moves simulated time on by
// exactly one second (and runs the timers that became due), so figures are
// the same from run to run.
#pragma once

#include <IOKit/IOReturn.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "clock.h"
#include "registry.h"
#include "report_source.h"
#include "user_client.h"

namespace talvex::sim {

class Simulation;

inline constexpr uint32_t kHubBufferMemoryType = 0;   // the unconfigured buffer
inline constexpr size_t kHubBufferSize = 4096;

class ReportHub final : public ServiceModel {
public:
    static constexpr size_t kMaxSubscriptions = 256;   // per user client

    ReportHub(Simulation &sim, Service &service);
    ~ReportHub() override;
    // The hub of a simulation; null when it has none.
    static ReportHub *of(Simulation &sim);

    // Connection type 0 only; other types fail with kIOReturnBadArgument.
    IOReturn open(uint32_t type, std::unique_ptr<UserClient> &out) override;

    // Makes a driver's channels reachable, after those of the sources added
    // before it. Call reindex() after a source gains channels.
    void add_source(std::shared_ptr<ReportSource> source);
    void reindex();
    // The source that publishes for a service; null when none does.
    ReportSource *source_for(const Service &service) const;
    const std::vector<std::shared_ptr<ReportSource>> &sources() const { return sources_; }

    // Every update moves this clock on by one second (null: time is not the hub's business).
    void set_step_clock(StepClock *clock) { step_clock_ = clock; }

    Simulation &simulation() { return sim_; }
    // The zero-filled page that every unconfigured client maps; null when
    // the system refuses to make it.
    std::shared_ptr<SharedRegion> empty_buffer();
    Service &service() { return service_; }

    // A channel: which source (in order of addition) and its legend position.
    struct ChannelRef {
        uint32_t source;
        uint32_t index;
        uint64_t order() const { return (uint64_t{source} << 32) | index; }
    };
    // The channel a driver ID and channel ID name; null when none.
    const ChannelRef *lookup(uint64_t driver_id, uint64_t channel_id) const;
    // Brings every source up to the current time; begin_update moves a
    // step clock on first.
    void advance_sources();
    void begin_update();
    // Changes whenever a driver is published or unpublished, which changes
    // which channels a buffer holds.
    uint64_t layout_epoch() const;

private:
    struct KeyHash {
        size_t operator()(const std::pair<uint64_t, uint64_t> &k) const {
            return std::hash<uint64_t>()(k.first * 0x9e3779b97f4a7c15ull ^ k.second);
        }
    };

    Simulation &sim_;
    Service &service_;
    std::vector<std::shared_ptr<ReportSource>> sources_;
    std::unordered_map<std::pair<uint64_t, uint64_t>, ChannelRef, KeyHash> index_;
    StepClock *step_clock_ = nullptr;
    std::shared_ptr<SharedRegion> empty_buffer_;
};

}  // namespace talvex::sim
