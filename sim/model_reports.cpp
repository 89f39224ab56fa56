// The simulated drivers' report channels; what they publish is listed in
// report_models.h.
#include "report_models.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <memory>
#include <numbers>

#include "coprocessor.h"
#include "hub.h"
#include "model_support.h"
#include "simulation.h"
#include "wire.h"

namespace talvex::sim {

namespace {

constexpr uint32_t kFullLoad = 10'000;   // basis points

// The counters start with the running time since the coprocessor first
// came up behind them.
constexpr uint64_t kRunningAtStartNs = kApUptimeAtStartNs - kFirstBootApNs;

// a * b / c without overflow for a up to 2^64 and b, c below 2^32.
uint64_t mul_div(uint64_t a, uint64_t b, uint64_t c) { return a / c * b + a % c * b / c; }

void put(uint8_t *element, size_t slot, uint64_t v) { wire::store_le64(element + kElemValues + 8 * slot, v); }
void stamp(uint8_t *element, uint64_t v) { wire::store_le64(element + kElemStamp, v); }

// ------------------------------------------------------------ the coprocessor

enum CoprocessorFigure : uint32_t {
    kTotalMs,
    kIdleMs,
    kPowerStates,
    kLatency,
    kEvents,
    kExtraSimple,
    kExtraState,
    kExtraHistogram,
    kExtraArray,
};

enum PowerState : size_t { kDeepSleep, kSleep, kRun12M, kRun100M, kPowerStateCount };
constexpr std::array<uint64_t, kPowerStateCount> kPowerStateIDs = {report_id("DEEPSLP"), report_id("SLEEP"),
                                                                   report_id("RUN12M"), report_id("RUN100M")};
// Shares of the idle and busy time, in percent; mean stay per entry.
constexpr std::array<uint64_t, kPowerStateCount> kStateShare = {65, 35, 70, 30};
constexpr std::array<uint64_t, kPowerStateCount> kMeanStayNs = {100 * kNanosPerMilli, 40 * kNanosPerMilli,
                                                                 5 * kNanosPerMilli, 20 * kNanosPerMilli};

constexpr std::array<HistogramSegment, 2> kLatencySegments = {{{25, 0, 8}, {400, 0, 8}}};
constexpr size_t kLatencyBuckets = 16;
constexpr std::array<uint64_t, kLatencyBuckets> kLatencyWeight = {3, 9, 16, 18, 14, 10, 7, 5, 5, 4, 3, 2, 1, 1, 1, 1};
constexpr uint64_t kLatencyWeightSum = 100;
constexpr uint64_t kBusyNsPerLatencySample = 400'000;

// Event rates in millihertz: gyro, accel, compass, talvex, pressure, corvel,
// prox (the device identifiers' order), host-link frames.
constexpr std::array<uint64_t, 8> kEventMilliHz = {200'000, 100'000, 50'000, 10'000, 25'000, 5'000, 2'000, 60'000};

constexpr std::array<uint64_t, 3> kExtraStateIDs = {report_id("ON"), report_id("IDLE"), report_id("OFF")};
constexpr std::array<HistogramSegment, 1> kExtraSegments = {{{100, 0, 4}}};
constexpr std::array<uint64_t, 4> kExtraWeight = {4, 3, 2, 1};

struct Bucket {
    uint64_t lower, upper;
};

std::vector<Bucket> buckets(std::span<const HistogramSegment> segments) {
    std::vector<Bucket> out;
    uint64_t previous = 0;
    for (uint64_t upper : histogram_bounds(segments)) {
        out.push_back({previous, upper});
        previous = upper;
    }
    return out;
}

// One histogram bucket: hits, a minimum and maximum inside the bucket, and
// a sum at the bucket's middle.
void put_bucket(uint8_t *element, const Bucket &b, uint64_t hits) {
    uint64_t margin = (b.upper - b.lower) / 10;
    put(element, 0, hits);
    put(element, 1, hits ? b.lower + margin : 0);
    put(element, 2, hits ? b.upper - margin : 0);
    put(element, 3, hits * ((b.lower + b.upper) / 2));
}

class CoprocessorReports final : public ReportSource {
public:
    explicit CoprocessorReports(Coprocessor &cop)
        : ReportSource(cop.service(), true), cop_(cop), latency_(buckets(kLatencySegments)),
          extra_buckets_(buckets(kExtraSegments)) {
        begin_group("CPU", "Time", channel_info(kUnitMilliseconds));
        add_channel(report_id("TOTAL MS"), report_type(kReportSimple, kReportCategoryPerformance, 1), {}, kTotalMs);
        add_channel(report_id("IDLE MS "), report_type(kReportSimple, kReportCategoryPerformance, 1), {}, kIdleMs);
        begin_group("Power", "States", channel_info(kUnit24MHzTicks));
        add_channel(report_id("PWRSTATE"), report_type(kReportState, kReportCategoryPower, kPowerStateCount), {},
                    kPowerStates);
        begin_group("Firmware", "Latency",
                    channel_info(kUnitMicroseconds, histogram_config(kLatencySegments).get()));
        add_channel(report_id("PROCLAT"), report_type(kReportHistogram, kReportCategoryPerformance, kLatencyBuckets),
                    {}, kLatency);
        begin_group("Firmware", "Events", channel_info(kUnitEvents));
        add_channel(report_id("EVENTS"),
                    report_type(kReportArray, kReportCategoryTraffic | kReportCategoryPeripheral,
                                (kEventMilliHz.size() + 3) / 4),
                    {}, kEvents);
        publish_legend();

        last_ns_ = now();
        was_booted_ = booted();
        integrate(kRunningAtStartNs);
    }

    void advance() override {
        uint64_t t = now();
        if (was_booted_ && t > last_ns_) integrate(t - last_ns_);
        last_ns_ = t;
        was_booted_ = booted();
    }

    void state_changed(uint64_t to) {
        advance();
        was_booted_ = to == kTalvexStateBooted;
    }

    void set_load(std::optional<uint32_t> basis_points) {
        advance();
        pinned_load_ = basis_points;
    }

    void add_extras(size_t count) {
        static constexpr std::array<const char *, 4> kSubgroups = {"Simple", "State", "Histogram", "Array"};
        for (uint32_t f = 0; f < 4; ++f) {
            CFRef<CFDictionaryRef> info;
            if (f == 0 || f == 3) info = channel_info(kUnitEvents);
            if (f == 1) info = channel_info(kUnitMilliseconds);
            if (f == 2) info = channel_info(kUnitMicroseconds, histogram_config(kExtraSegments).get());
            begin_group("Extra", kSubgroups[f], std::move(info));
            for (size_t i = extras_ + 1 + f; i <= extras_ + count; i += 4) {
                char id[16];
                std::snprintf(id, sizeof id, "X%07zu", i);
                uint64_t type = f == 0   ? report_type(kReportSimple, kReportCategoryDebug, 1)
                                : f == 1 ? report_type(kReportState, kReportCategoryDebug, kExtraStateIDs.size())
                                : f == 2 ? report_type(kReportHistogram, kReportCategoryDebug, kExtraWeight.size())
                                         : report_type(kReportArray, kReportCategoryDebug, 1);
                add_channel(report_id(id), type, {}, kExtraSimple + f, static_cast<uint32_t>(i));
            }
        }
        extras_ += count;
        publish_legend();
    }
    size_t extras() const { return extras_; }

protected:
    void fill_model(const ReportChannel &c, uint8_t *e) const override {
        const uint64_t ms = running_ns_ / kNanosPerMilli;
        switch (c.model) {
        case kTotalMs:
            stamp(e, seq_);
            put(e, 0, ms);
            return;
        case kIdleMs:
            stamp(e, seq_);
            put(e, 0, idle_ns_ / kNanosPerMilli);
            return;
        case kPowerStates:
            for (size_t s = 0; s < kPowerStateCount; ++s, e += kElementSize) {
                uint64_t ns = state_ns(s);
                stamp(e, stamps_[s]);
                put(e, 0, kPowerStateIDs[s]);
                put(e, 1, ns / kMeanStayNs[s]);
                put(e, 2, mul_div(ns, 3, 125));   // 24 ticks per microsecond
                put(e, 3, 0);
            }
            return;
        case kLatency: {
            uint64_t samples = (running_ns_ - idle_ns_) / kBusyNsPerLatencySample;
            for (size_t b = 0; b < kLatencyBuckets; ++b, e += kElementSize) {
                stamp(e, seq_);
                put_bucket(e, latency_[b], mul_div(samples, kLatencyWeight[b], kLatencyWeightSum));
            }
            return;
        }
        case kEvents:
            for (size_t v = 0; v < kEventMilliHz.size(); ++v) {
                if (v % 4 == 0) stamp(e + v / 4 * kElementSize, seq_);
                put(e + v / 4 * kElementSize, v % 4, mul_div(ms, kEventMilliHz[v], 1'000'000));
            }
            return;
        case kExtraSimple:
            stamp(e, seq_);
            put(e, 0, ms * (1 + c.param % 7));
            return;
        case kExtraState: {
            size_t current = (ms / 1000 + c.param) % kExtraStateIDs.size();
            for (size_t s = 0; s < kExtraStateIDs.size(); ++s, e += kElementSize) {
                uint64_t residency = ms * (kExtraStateIDs.size() - (s + c.param) % kExtraStateIDs.size()) / 6;
                stamp(e, 3 * seq_ + 2 - (current + 3 - s) % 3);
                put(e, 0, kExtraStateIDs[s]);
                put(e, 1, residency / 50);
                put(e, 2, residency);
                put(e, 3, 0);
            }
            return;
        }
        case kExtraHistogram: {
            uint64_t samples = ms / (1 + c.param % 3);
            for (size_t b = 0; b < kExtraWeight.size(); ++b, e += kElementSize) {
                stamp(e, seq_);
                put_bucket(e, extra_buckets_[b], samples * kExtraWeight[b] / 10);
            }
            return;
        }
        case kExtraArray:
            stamp(e, seq_);
            for (size_t v = 0; v < 4; ++v) put(e, v, ms * (v + 1) + c.param);
            return;
        default: return;
        }
    }

private:
    uint64_t now() const { return cop_.simulation().clock().now_ns(); }
    bool booted() const { return cop_.state() == kTalvexStateBooted; }

    // The load of running second `k`, in basis points.
    uint32_t load(uint64_t k) const {
        if (pinned_load_) return *pinned_load_;
        double v = 0.30 + 0.15 * std::sin(2 * std::numbers::pi * static_cast<double>(k) / 97.0) +
                   0.10 * (unit_noise(k) - 0.5);
        return static_cast<uint32_t>(std::lround(std::clamp(v, 0.03, 0.95) * kFullLoad));
    }

    // Running time in a power state: its share of the idle or busy time.
    uint64_t state_ns(size_t s) const {
        uint64_t part = s <= kSleep ? idle_ns_ : running_ns_ - idle_ns_;
        return mul_div(part, kStateShare[s], 100);
    }

    // Adds `dt` of running time, one running second at a time so that each
    // part follows its second's load. Idle time is kept exactly (the
    // remainder in ten-thousandths of a nanosecond carries over).
    void integrate(uint64_t dt) {
        if (dt == 0) return;
        while (dt > 0) {
            uint64_t k = running_ns_ / kNanosPerSecond;
            uint64_t part = std::min(dt, (k + 1) * kNanosPerSecond - running_ns_);
            uint64_t scaled = part * (kFullLoad - load(k)) + idle_rem_;
            idle_ns_ += scaled / kFullLoad;
            idle_rem_ = scaled % kFullLoad;
            running_ns_ += part;
            dt -= part;
        }
        ++seq_;
        // The state the firmware is in now: busy or idle by the load, then
        // by the states' shares.
        uint64_t slot = running_ns_ / (100 * kNanosPerMilli);
        bool busy = unit_noise(slot) * kFullLoad < load(running_ns_ / kNanosPerSecond);
        double pick = unit_noise(slot ^ 0x5a5a5a5a5a5a5a5aull) * 100;
        size_t current = busy ? (pick < kStateShare[kRun12M] ? kRun12M : kRun100M)
                              : (pick < kStateShare[kDeepSleep] ? kDeepSleep : kSleep);
        stamps_[current] = seq_;
    }

    Coprocessor &cop_;
    std::vector<Bucket> latency_, extra_buckets_;
    std::optional<uint32_t> pinned_load_;
    uint64_t last_ns_ = 0;
    bool was_booted_ = false;
    uint64_t running_ns_ = 0;
    uint64_t idle_ns_ = 0;
    uint64_t idle_rem_ = 0;
    uint64_t seq_ = 0;
    std::array<uint64_t, kPowerStateCount> stamps_{};
    size_t extras_ = 0;
};

// ------------------------------------------------------------ the other drivers

// Figures that follow simulated time (the application processor's uptime).
class TimedSource : public ReportSource {
public:
    TimedSource(Simulation &sim, Service &service, bool is_public)
        : ReportSource(service, is_public), sim_(sim) {}
    void advance() override { uptime_ms_ = (kApUptimeAtStartNs + sim_.clock().now_ns()) / kNanosPerMilli; }

protected:
    Simulation &sim_;
    uint64_t uptime_ms_ = 0;
};

// Energy per power rail in millijoules, at each rail's mean power (mW).
class PowerControllerReports final : public TimedSource {
public:
    PowerControllerReports(Simulation &sim, Service &service) : TimedSource(sim, service, true) {
        begin_group("Energy", "Rails", channel_info(kUnitMillijoules));
        add_channel(report_id("VDD CPU"), report_type(kReportSimple, kReportCategoryPower, 1), "vdd_cpu", 0, 180);
        add_channel(report_id("VDD SNS"), report_type(kReportSimple, kReportCategoryPower, 1), "vdd_sns", 0, 35);
        add_channel(report_id("VDD IO"), report_type(kReportSimple, kReportCategoryPower, 1), "vdd_io", 0, 12);
        publish_legend();
        advance();
    }

protected:
    void fill_model(const ReportChannel &c, uint8_t *e) const override {
        stamp(e, uptime_ms_);
        put(e, 0, uptime_ms_ * c.param / 1000);
    }
};

// Temperatures in milli-degrees Celsius, swinging slowly around a mean.
class ThermalMonitorReports final : public TimedSource {
public:
    ThermalMonitorReports(Simulation &sim, Service &service) : TimedSource(sim, service, false) {
        begin_group("Thermal", {}, {});
        add_channel(report_id("TEMP SOC"), report_type(kReportSimple, kReportCategoryField, 1), {}, 0);
        add_channel(report_id("TEMP SKN"), report_type(kReportSimple, kReportCategoryField, 1), {}, 1);
        publish_legend();
        advance();
    }

protected:
    void fill_model(const ReportChannel &c, uint8_t *e) const override {
        static constexpr int64_t kMean[] = {41'000, 33'000}, kSwing[] = {3'000, 800};
        double swing = std::sin(2 * std::numbers::pi * static_cast<double>(uptime_ms_) / 300'000.0);
        stamp(e, uptime_ms_);
        put(e, 0, static_cast<uint64_t>(kMean[c.model] + std::lround(swing * static_cast<double>(kSwing[c.model]))));
    }
};

CoprocessorReports *coprocessor_reports(Simulation &sim) {
    ReportHub *hub = ReportHub::of(sim);
    Service *cp = sim.registry().find_class(kCoprocessorClass);
    if (!hub || !cp) return nullptr;
    return dynamic_cast<CoprocessorReports *>(hub->source_for(*cp));
}

}  // namespace

void install_report_models(Simulation &sim) {
    ReportHub *hub = ReportHub::of(sim);
    Service *cp_service = sim.registry().find_class(kCoprocessorClass);
    auto *cop = cp_service ? dynamic_cast<Coprocessor *>(cp_service->model.get()) : nullptr;
    if (!hub || !cop) return;

    auto cp = std::make_shared<CoprocessorReports>(*cop);
    cop->add_state_listener([cp](uint64_t, uint64_t to) { cp->state_changed(to); });
    hub->add_source(cp);
    Service &power = sim.registry().add(kPowerControllerClass, kPowerControllerClass);
    hub->add_source(std::make_shared<PowerControllerReports>(sim, power));
    Service &thermal = sim.registry().add(kThermalMonitorClass, kThermalMonitorClass);
    hub->add_source(std::make_shared<ThermalMonitorReports>(sim, thermal));
}

bool add_extra_report_channels(Simulation &sim, size_t count) {
    CoprocessorReports *cp = coprocessor_reports(sim);
    if (!cp || count > kMaxExtraChannels - cp->extras()) return false;
    if (count == 0) return true;
    cp->add_extras(count);
    ReportHub::of(sim)->reindex();
    return true;
}

bool set_coprocessor_load(Simulation &sim, std::optional<uint32_t> basis_points) {
    CoprocessorReports *cp = coprocessor_reports(sim);
    if (!cp || (basis_points && *basis_points > kFullLoad)) return false;
    cp->set_load(basis_points);
    return true;
}

}  // namespace talvex::sim
