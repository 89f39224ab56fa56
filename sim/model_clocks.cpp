// The firmware's clocks: redirection (28: 0 off, 1 on, anything else
// kIOReturnBadArgument), measurement (32) and the start-up statistics of the
// internal RC oscillator (IRC), property 240 of the talvex device.
//
// Measurement request: the clock selector (32-bit); reply: the clock's
// nominal frequency and the frequency measured against the crystal, both in
// Hz. Selectors above 4 are kIOReturnBadArgument.
//
//   0 current   the clock driving the firmware: the PLL, or the IRC while
//               clock redirection is on
//   1 irc       12 MHz, drifting up to 0.4% with temperature over about a
//               minute and a half, with 0.15% of jitter
//   2 pll       100 MHz, locked to the crystal: within 25 ppm
//   3 lfosc     32768 Hz, within about 80 ppm
//   4 ircdiff   the IRC measured differentially: the same drift, far less jitter
//
// The IRC starts up every time the firmware leaves deep sleep, eight times a
// second of running time. Each start-up takes a pre-start-up phase (the
// regulator settling, about 9.4-11.2 us), then the oscillator's own
// start-up (about 2.1-3.0 us). Property 240 holds mean, min and max of each
// phase and of their total, in nanoseconds (nine signed 32-bit numbers).
// The statistics start over with every firmware run.
#include <algorithm>
#include <cmath>
#include <numbers>

#include "clock.h"
#include "model_clocks.h"
#include "model_support.h"

namespace talvex::sim::diag {

namespace {

constexpr uint64_t kWakeupsPerSecond = 8;
// Start-ups older than this many per update count by their expected value only.
constexpr uint64_t kMaxDrawnPerUpdate = 4096;
constexpr double kDriftPeriodNs = 97e9;

struct Oscillator {
    uint32_t nominal_hz;
    double drift;    // largest slow deviation, as a fraction
    double jitter;   // spread of one measurement, as a fraction
};

constexpr Oscillator kClocks[5] = {
    {0, 0, 0},                     // current: one of the others
    {12'000'000, 4e-3, 1.5e-3},    // irc
    {100'000'000, 20e-6, 5e-6},    // pll
    {32'768, 60e-6, 20e-6},        // lfosc
    {12'000'000, 4e-3, 1e-4},      // ircdiff
};

struct Startup {
    int32_t pre_ns, startup_ns;
};

Startup startup_of(uint64_t n) {
    double a = unit_noise(noise_key(n, 30)), b = unit_noise(noise_key(n, 31));
    return {static_cast<int32_t>(9'400 + 1'800 * a * a * a), static_cast<int32_t>(2'100 + 900 * b * b)};
}

}  // namespace

void ClockUnit::Stat::add(int32_t v, uint64_t weight) {
    if (count == 0) {
        min = max = v;
    } else {
        min = std::min(min, v);
        max = std::max(max, v);
    }
    sum += static_cast<int64_t>(v) * static_cast<int64_t>(weight);
    count += weight;
}

ClockUnit::ClockUnit(FirmwareRun &run) : run_(run) {}

void ClockUnit::follow() {
    if (seen_run_ != run_.run()) {
        seen_run_ = run_.run();
        redirected_ = false;
        wakeups_ = 0;
        startup_ = pre_startup_ = total_ = {};
    }
    // The first start-up is the one that brought the firmware up.
    uint64_t due = 1 + run_.now_ns() / (kNanosPerSecond / kWakeupsPerSecond);
    if (due <= wakeups_) return;
    uint64_t fresh = due - wakeups_;
    if (fresh > kMaxDrawnPerUpdate) {
        // Long unobserved stretches: their start-ups enter the means at the
        // expected figures; extremes come from the ones drawn below.
        uint64_t skipped = fresh - kMaxDrawnPerUpdate;
        startup_.sum += static_cast<int64_t>(skipped) * 2'400;
        startup_.count += skipped;
        pre_startup_.sum += static_cast<int64_t>(skipped) * 9'850;
        pre_startup_.count += skipped;
        total_.sum += static_cast<int64_t>(skipped) * 12'250;
        total_.count += skipped;
        wakeups_ += skipped;
    }
    for (; wakeups_ < due; ++wakeups_) {
        Startup s = startup_of(wakeups_);
        startup_.add(s.startup_ns, 1);
        pre_startup_.add(s.pre_ns, 1);
        total_.add(s.pre_ns + s.startup_ns, 1);
    }
}

IOReturn ClockUnit::redirect(uint64_t value) {
    follow();
    if (value > 1) return kIOReturnBadArgument;
    redirected_ = value == 1;
    return kIOReturnSuccess;
}

IOReturn ClockUnit::measure(const CallArgs &args, CallReply &reply) {
    follow();
    if (args.input.size() != 4) return kIOReturnBadArgument;
    uint32_t selector = wire::load_le32(args.input, 0);
    if (selector >= std::size(kClocks)) return kIOReturnBadArgument;
    uint32_t clock = selector == 0 ? (redirected_ ? 1 : 2) : selector;
    const Oscillator &osc = kClocks[clock];
    double t = static_cast<double>(run_.now_ns());
    // Each oscillator drifts on its own phase; ircdiff sees the IRC's.
    double phase = clock == 4 ? 1 : static_cast<double>(clock);
    double drift = osc.drift * std::sin(2 * std::numbers::pi * t / kDriftPeriodNs + phase);
    double jitter = osc.jitter * (2 * unit_noise(noise_key(run_.now_ns(), 32, selector)) - 1);
    auto measured = static_cast<uint32_t>(std::lround(osc.nominal_hz * (1 + drift + jitter)));
    reply.output.assign(8, 0);
    wire::store_le32(reply.output, 0, osc.nominal_hz);
    wire::store_le32(reply.output, 4, measured);
    return kIOReturnSuccess;
}

std::vector<uint8_t> ClockUnit::irc_startup() {
    follow();
    std::vector<uint8_t> out(36, 0);
    const Stat *stats[3] = {&startup_, &pre_startup_, &total_};
    for (size_t i = 0; i < 3; ++i) {
        const Stat &s = *stats[i];
        auto mean = static_cast<int32_t>(s.count ? s.sum / static_cast<int64_t>(s.count) : 0);
        wire::store_le32(out, 12 * i, static_cast<uint32_t>(mean));
        wire::store_le32(out, 12 * i + 4, static_cast<uint32_t>(s.min));
        wire::store_le32(out, 12 * i + 8, static_cast<uint32_t>(s.max));
    }
    return out;
}

}  // namespace talvex::sim::diag
