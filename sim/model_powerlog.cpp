// The power log: while started, how often the firmware entered each of its
// power states and how long it stayed (periods in milliseconds), the same
// for five sensor devices (sleep and active, plus delivered and dropped
// events) and for its three threads. Stopping freezes the figures, reset
// clears them.
//
// The record (196 bytes, 32-bit fields, each pair period first):
//   0   deep sleep, sleep, running at 12 MHz, running at 100 MHz
//   32  threads 0 (sensor task), 1 (host link), 2 (maintenance)
//   56  five device blocks of 28 bytes, in the tool's device-table order
//       (gyro, accel, compass, pressure, talvex): sleep pair, active pair,
//       events, dropped events, device identifier
//
// Devices deliver one event per sample at their current sample interval
// (property 0), wake once per 8 samples and drop about one event in 25000.
#include "clock.h"
#include "model_powerlog.h"
#include "model_support.h"

namespace talvex::sim::diag {

namespace {

constexpr size_t kRecordSize = 196;

struct Share {
    double fraction;       // of running time
    uint64_t millihertz;   // entries
};

// Deep sleep, sleep, running at 12 MHz, running at 100 MHz.
constexpr Share kStates[4] = {{0.62, 6'000}, {0.21, 22'000}, {0.13, 28'000}, {0.04, 3'000}};
constexpr Share kThreads[3] = {{0.085, 100'000}, {0.031, 36'000}, {0.006, 2'000}};

struct DeviceShape {
    TalvexDeviceId device;
    double active;   // fraction of time awake
};
constexpr DeviceShape kDevices[5] = {
    {kTalvexDeviceGyro, 0.30},     {kTalvexDeviceAccel, 0.06},  {kTalvexDeviceCompass, 0.11},
    {kTalvexDevicePressure, 0.02}, {kTalvexDeviceTalvex, 0.45},
};

constexpr uint64_t kSamplesPerWake = 8;
constexpr uint64_t kEventsPerDrop = 25'000;

uint64_t ns_per_second(double fraction) { return static_cast<uint64_t>(fraction * 1e9); }

}  // namespace

PowerLog::PowerLog(FirmwareRun &run, DeviceProperties &props) : run_(run), props_(props) {}

void PowerLog::clear() {
    states_ = {};
    threads_ = {};
    devices_ = {};
}

void PowerLog::follow() {
    if (seen_run_ != run_.run()) {
        seen_run_ = run_.run();
        started_ = false;
        clear();
        last_ns_ = 0;
    }
    uint64_t now = run_.now_ns();
    uint64_t elapsed = now - last_ns_;
    last_ns_ = now;
    if (!started_ || elapsed == 0) return;
    ++step_;

    // The states share the time between them; their shares wander a little
    // from one stretch to the next.
    double weights[4], total = 0;
    for (size_t i = 0; i < 4; ++i) {
        weights[i] = kStates[i].fraction * (0.9 + 0.2 * unit_noise(noise_key(step_, 10, i)));
        total += weights[i];
    }
    for (size_t i = 0; i < 4; ++i) {
        states_[i].period_ns.advance(elapsed, ns_per_second(weights[i] / total));
        states_[i].entries.advance(elapsed, kStates[i].millihertz);
    }
    for (size_t t = 0; t < 3; ++t) {
        double wander = 0.9 + 0.2 * unit_noise(noise_key(step_, 11, t));
        threads_[t].period_ns.advance(elapsed, ns_per_second(kThreads[t].fraction * wander));
        threads_[t].entries.advance(elapsed, kThreads[t].millihertz);
    }
    for (size_t d = 0; d < 5; ++d) {
        DeviceBlock &b = devices_[d];
        uint64_t rate = props_.sample_millihertz(kDevices[d].device);
        b.events.advance(elapsed, rate);
        b.dropped.advance(elapsed, rate / kEventsPerDrop);
        b.active.entries.advance(elapsed, rate / kSamplesPerWake);
        b.sleep.entries.advance(elapsed, rate / kSamplesPerWake);
        b.active.period_ns.advance(elapsed, ns_per_second(kDevices[d].active));
        b.sleep.period_ns.advance(elapsed, ns_per_second(1.0 - kDevices[d].active));
    }
}

IOReturn PowerLog::start() {
    follow();
    started_ = true;
    return kIOReturnSuccess;
}

IOReturn PowerLog::stop() {
    follow();
    started_ = false;
    return kIOReturnSuccess;
}

IOReturn PowerLog::reset() {
    follow();
    clear();
    return kIOReturnSuccess;
}

IOReturn PowerLog::read(CallReply &reply) {
    follow();
    auto &out = reply.output;
    out.assign(kRecordSize, 0);
    auto put_pair = [&](size_t at, const Pair &p) {
        wire::store_le32(out, at, saturate32(p.period_ns.value() / kNanosPerMilli));
        wire::store_le32(out, at + 4, saturate32(p.entries.value() / 1000));
    };
    for (size_t i = 0; i < 4; ++i) put_pair(8 * i, states_[i]);
    for (size_t t = 0; t < 3; ++t) put_pair(32 + 8 * t, threads_[t]);
    for (size_t d = 0; d < 5; ++d) {
        size_t at = 56 + 28 * d;
        const DeviceBlock &b = devices_[d];
        put_pair(at, b.sleep);
        put_pair(at + 8, b.active);
        wire::store_le32(out, at + 16, saturate32(b.events.value() / 1000));
        wire::store_le32(out, at + 20, saturate32(b.dropped.value() / 1000));
        wire::store_le32(out, at + 24, kDevices[d].device);
    }
    return kIOReturnSuccess;
}

}  // namespace talvex::sim::diag
