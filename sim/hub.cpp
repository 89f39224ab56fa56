#include "hub.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "methods.h"
#include "simulation.h"
#include "talvex_driver.h"
#include "wire.h"

namespace talvex::sim {

namespace {

constexpr size_t kInterestHeader = 8;
constexpr size_t kInterestEntry = 24;
// Driver and channel ID of the filler runs: the no-value sentinel, which no
// subscribable channel carries.
constexpr uint64_t kFillerID = 0x8000000000000000ull;
constexpr size_t kMaxRunElements = 0xffff;
constexpr size_t kAbsent = std::numeric_limits<size_t>::max();

class HubClient final : public UserClient {
public:
    explicit HubClient(ReportHub &hub) : hub_(hub) {
        methods_.define(kIOReportUserClientOpen, MethodShape{}, [this](const CallArgs &, CallReply &) {
            opened_ = true;
            return kIOReturnSuccess;
        });
        methods_.define(kIOReportUserClientConfigureInterests,
                        {none(), between(kInterestHeader, wire::kMaxFrame), none(), between(1, 16)},
                        [this](const CallArgs &a, CallReply &r) { return configure(a, r); });
        methods_.define(kIOReportUserClientUpdateKernelBuffer, {exactly(1), none(), none(), between(0, 16)},
                        [this](const CallArgs &a, CallReply &) { return update(a.scalars[0]); });
    }

    bool init() {
        auto empty = hub_.empty_buffer();
        if (!empty) return false;
        share_region(kHubBufferMemoryType, std::move(empty));
        return true;
    }

    IOReturn call(const CallArgs &args, CallReply &reply) override { return methods_.dispatch(args, reply); }

private:
    struct Entry {
        ReportSource *source;
        size_t index;
        size_t offset;   // bytes into the buffer; kAbsent while its driver is unpublished
    };
    struct Subscription {
        SharedRegion *region = nullptr;
        std::vector<Entry> entries;   // legend order
        uint64_t epoch = 0;
    };

    IOReturn configure(const CallArgs &a, CallReply &reply);
    IOReturn update(uint64_t token);
    void lay_out(Subscription &s);
    void fill(Subscription &s);

    ReportHub &hub_;
    MethodTable methods_;
    bool opened_ = false;
    std::unordered_map<uint64_t, Subscription> subscriptions_;
    uint64_t next_token_ = 1;
};

IOReturn HubClient::configure(const CallArgs &a, CallReply &reply) {
    if (!opened_) return kIOReturnNotOpen;
    std::span<const uint8_t> in = a.input;
    uint32_t n = wire::load_le32(in.data());
    size_t body = in.size() - kInterestHeader;
    if (n == 0 || body % kInterestEntry != 0 || body / kInterestEntry != n) return kIOReturnBadArgument;
    if (subscriptions_.size() >= ReportHub::kMaxSubscriptions) {
        hub_.simulation().trace().add(Trace::refusal_line(kReportHubClass, "hub subscriptions", "connection",
                                                          ReportHub::kMaxSubscriptions));
        return kIOReturnNoResources;
    }

    std::vector<ReportHub::ChannelRef> refs;
    refs.reserve(n);
    for (size_t i = 0; i < n; ++i) {
        const uint8_t *e = in.data() + kInterestHeader + kInterestEntry * i;
        if (const auto *ref = hub_.lookup(wire::load_le64(e + kElemDriverID), wire::load_le64(e + kElemChannelID))) refs.push_back(*ref);
    }
    auto by_order = [](const ReportHub::ChannelRef &x, const ReportHub::ChannelRef &y) { return x.order() < y.order(); };
    std::sort(refs.begin(), refs.end(), by_order);
    refs.erase(std::unique(refs.begin(), refs.end(),
                           [](const auto &x, const auto &y) { return x.order() == y.order(); }),
               refs.end());

    Subscription s;
    s.entries.reserve(refs.size());
    size_t elements = 0;
    for (const auto &ref : refs) {
        ReportSource *source = hub_.sources()[ref.source].get();
        elements += source->channels()[ref.index].elements();
        s.entries.push_back(Entry{source, ref.index, kAbsent});
    }
    // Room for one filler element when nothing requested exists.
    size_t bytes = std::max<size_t>(elements, 1) * kElementSize;
    Shortfall why;
    IOReturn made = add_region(static_cast<uint32_t>(next_token_), bytes, s.region, why);
    if (made == kIOReturnNoResources)
        hub_.simulation().trace().add(Trace::refusal_line(kReportHubClass, resource_name(why.resource), why.verdict));
    if (made != kIOReturnSuccess) return made;
    uint64_t token = next_token_++;
    lay_out(s);
    hub_.advance_sources();
    fill(s);
    subscriptions_.emplace(token, std::move(s));
    reply.scalars.push_back(token);
    return kIOReturnSuccess;
}

IOReturn HubClient::update(uint64_t token) {
    if (!opened_) return kIOReturnNotOpen;
    auto it = subscriptions_.find(token);
    if (it == subscriptions_.end()) return kIOReturnBadArgument;
    Subscription &s = it->second;
    hub_.begin_update();
    if (s.epoch != hub_.layout_epoch()) lay_out(s);
    fill(s);
    return kIOReturnSuccess;
}

void HubClient::lay_out(Subscription &s) {
    std::span<uint8_t> buffer = s.region->bytes();
    size_t at = 0;
    for (Entry &e : s.entries) {
        if (!e.source->service().published) {
            e.offset = kAbsent;
            continue;
        }
        e.offset = at;
        e.source->write_header(e.index, buffer.data() + at);
        at += size_t{e.source->channels()[e.index].elements()} * kElementSize;
    }
    // What the absent channels leave is filler, so the runs end exactly at
    // the end of the buffer.
    std::memset(buffer.data() + at, 0, buffer.size() - at);
    for (size_t left = (buffer.size() - at) / kElementSize; left > 0;) {
        size_t run = std::min(left, kMaxRunElements);
        uint8_t *p = buffer.data() + at;
        wire::store_le64(p + kElemDriverID, kFillerID);
        wire::store_le64(p + kElemChannelID, kFillerID);
        wire::store_le64(p + kElemType, report_type(0, 0, static_cast<uint16_t>(run)));
        at += run * kElementSize;
        left -= run;
    }
    s.epoch = hub_.layout_epoch();
}

void HubClient::fill(Subscription &s) {
    uint8_t *base = s.region->bytes().data();
    for (const Entry &e : s.entries)
        if (e.offset != kAbsent) e.source->fill(e.index, base + e.offset);
}

}  // namespace

ReportHub::ReportHub(Simulation &sim, Service &service) : sim_(sim), service_(service) {}

ReportHub::~ReportHub() = default;

std::shared_ptr<SharedRegion> ReportHub::empty_buffer() {
    if (!empty_buffer_) empty_buffer_ = SharedRegion::create(kHubBufferSize);
    return empty_buffer_;
}

ReportHub *ReportHub::of(Simulation &sim) {
    Service *s = sim.registry().find_class(kReportHubClass);
    return s ? dynamic_cast<ReportHub *>(s->model.get()) : nullptr;
}

IOReturn ReportHub::open(uint32_t type, std::unique_ptr<UserClient> &out) {
    if (type != 0) return kIOReturnBadArgument;
    auto client = std::make_unique<HubClient>(*this);
    if (!client->init()) return kIOReturnNoMemory;
    out = std::move(client);
    return kIOReturnSuccess;
}

void ReportHub::add_source(std::shared_ptr<ReportSource> source) {
    sources_.push_back(std::move(source));
    reindex();
}

void ReportHub::reindex() {
    size_t total = 0;
    for (const auto &s : sources_) total += s->channels().size();
    index_.clear();
    index_.reserve(total);
    for (size_t si = 0; si < sources_.size(); ++si) {
        const auto &channels = sources_[si]->channels();
        for (size_t ci = 0; ci < channels.size(); ++ci)
            index_.emplace(std::pair{sources_[si]->driver_id(), channels[ci].id},
                           ChannelRef{static_cast<uint32_t>(si), static_cast<uint32_t>(ci)});
    }
}

ReportSource *ReportHub::source_for(const Service &service) const {
    for (const auto &s : sources_)
        if (&s->service() == &service) return s.get();
    return nullptr;
}

const ReportHub::ChannelRef *ReportHub::lookup(uint64_t driver_id, uint64_t channel_id) const {
    auto it = index_.find({driver_id, channel_id});
    return it == index_.end() ? nullptr : &it->second;
}

void ReportHub::advance_sources() {
    for (const auto &s : sources_) s->advance();
}

void ReportHub::begin_update() {
    if (step_clock_) {
        step_clock_->advance(kNanosPerSecond);
        sim_.run_timers();
    }
    advance_sources();
}

uint64_t ReportHub::layout_epoch() const { return sim_.registry().generation(); }

}  // namespace talvex::sim
