// The firmware profiler: hitpoints (marked places, counting hits and saves)
// and timed functions (counting hits and total time), each with the smallest
// and largest figure seen, in microseconds.
//
// While started, every point is passed at its own rate; figures freeze when
// stopped and clear on reset (a point that has not been hit shows min
// 0xffffffff and max 0). Hits and saves are 16-bit counters and total time
// a 32-bit one; they stop at their largest value. The runtime is the
// profiler's started time in milliseconds.
//
// Entry request (72 bytes): kind (0 hitpoint, 1 function), index, and, when
// the index is 0xffffffff, a NUL-terminated name at offset 8. An index past
// the end or a kind above 1 is kIOReturnBadArgument, so is a name without
// its NUL in the 64 bytes; an unknown name is kIOReturnNotFound.
// Entry reply (82 bytes): index, name (64), max, min, hits (16-bit), then
// saves (16-bit) for a hitpoint or total time (32-bit) for a function.
#include <algorithm>
#include <cstring>

#include "clock.h"
#include "model_profiler.h"
#include "model_support.h"
#include "talvex_driver.h"

namespace talvex::sim::diag {

namespace {

using EntryLayout = TalvexProfileEntryLayout;
constexpr uint64_t kSamplesPerBatch = 8;   // figures drawn per advance and point

std::vector<Profiler::Point> hitpoints() {
    // name, millihertz, low, high, save_every
    return {
        {"spi_rx_isr", 800'000, 2, 19, 64, {}},
        {"fifo_watermark", 100'000, 4, 37, 16, {}},
        {"i2c_nack_retry", 400, 120, 2'400, 1, {}},
        {"host_wake_assert", 4'000, 9, 85, 4, {}},
        {"batch_flush", 1'000, 35, 310, 1, {}},
        {"pm_deep_sleep_enter", 6'000, 3, 14, 8, {}},
        {"uart_rx_overrun", 50, 1, 6, 1, {}},
        {"sensor_fifo_overflow_recovery_path", 20, 480, 3'900, 1, {}},
    };
}

std::vector<Profiler::Point> functions() {
    return {
        {"sensor_task_run", 100'000, 40, 310, 0, {}},
        {"fusion_update", 100'000, 180, 960, 0, {}},
        {"accel_fifo_read", 100'000, 25, 140, 0, {}},
        {"gyro_fifo_read", 100'000, 30, 160, 0, {}},
        {"compass_calibrate", 20'000, 90, 520, 0, {}},
        {"pressure_filter", 25'000, 12, 45, 0, {}},
        {"report_batch_send", 1'000, 400, 2'900, 0, {}},
        {"timesync_handler", 200, 15, 60, 0, {}},
        {"pm_select_state", 40'000, 3, 22, 0, {}},
    };
}

// Advances one point by `elapsed_ns` of profiled time.
void advance(Profiler::Point &p, uint64_t elapsed_ns, uint64_t key) {
    uint64_t before = p.hits.value() / 1000;
    // The rate wanders by up to 10% from one advance to the next.
    double wander = 0.9 + 0.2 * unit_noise(noise_key(key, 1));
    p.hits.advance(elapsed_ns, static_cast<uint64_t>(p.millihertz * wander));
    uint64_t hits = p.hits.value() / 1000 - before;
    if (hits == 0) return;
    // Most passes are quick; the slow end is rare (cubic skew).
    uint64_t draws = std::min(hits, kSamplesPerBatch);
    double sum = 0;
    for (uint64_t i = 0; i < draws; ++i) {
        double u = unit_noise(noise_key(key, 2, i));
        auto us = static_cast<uint32_t>(p.low_us + (p.high_us - p.low_us) * u * u * u);
        p.min_us = std::min(p.min_us, us);
        p.max_us = std::max(p.max_us, us);
        sum += us;
    }
    p.total_us += static_cast<uint64_t>(sum / static_cast<double>(draws) * static_cast<double>(hits));
}

uint16_t counter16(uint64_t v) { return v > UINT16_MAX ? UINT16_MAX : static_cast<uint16_t>(v); }

}  // namespace

Profiler::Profiler(FirmwareRun &run) : run_(run), hitpoints_(hitpoints()), functions_(functions()) {}

void Profiler::follow() {
    if (seen_run_ != run_.run()) {
        // A new firmware run: the profiler starts stopped and empty.
        seen_run_ = run_.run();
        started_ = false;
        runtime_ns_ = 0;
        hitpoints_ = hitpoints();
        functions_ = functions();
        last_ns_ = 0;
    }
    uint64_t now = run_.now_ns();
    uint64_t elapsed = now - last_ns_;
    last_ns_ = now;
    if (!started_ || elapsed == 0) return;
    runtime_ns_ += elapsed;
    ++batch_;
    for (size_t i = 0; i < hitpoints_.size(); ++i) advance(hitpoints_[i], elapsed, noise_key(batch_, 0, i));
    for (size_t i = 0; i < functions_.size(); ++i) advance(functions_[i], elapsed, noise_key(batch_, 1, i));
}

IOReturn Profiler::start() {
    follow();
    started_ = true;
    return kIOReturnSuccess;
}

IOReturn Profiler::stop() {
    follow();
    started_ = false;
    return kIOReturnSuccess;
}

IOReturn Profiler::reset() {
    follow();
    runtime_ns_ = 0;
    hitpoints_ = hitpoints();
    functions_ = functions();
    return kIOReturnSuccess;
}

IOReturn Profiler::summary(CallReply &reply) {
    follow();
    reply.output.assign(12, 0);
    wire::store_le32(reply.output, 0, static_cast<uint32_t>(hitpoints_.size()));
    wire::store_le32(reply.output, 4, static_cast<uint32_t>(functions_.size()));
    wire::store_le32(reply.output, 8, saturate32(runtime_ns_ / kNanosPerMilli));
    return kIOReturnSuccess;
}

IOReturn Profiler::entry(const CallArgs &args, CallReply &reply) {
    follow();
    if (args.input.size() != EntryLayout::kRequestSize) return kIOReturnBadArgument;
    uint32_t kind = wire::load_le32(args.input, 0);
    uint32_t index = wire::load_le32(args.input, 4);
    if (kind > 1) return kIOReturnBadArgument;
    const std::vector<Point> &points = kind == 0 ? hitpoints_ : functions_;
    if (index == EntryLayout::kByName) {
        auto name = args.input.subspan(8, EntryLayout::kNameSize);
        auto end = std::find(name.begin(), name.end(), uint8_t{0});
        if (end == name.end()) return kIOReturnBadArgument;
        std::string wanted(name.begin(), end);
        auto it = std::find_if(points.begin(), points.end(), [&](const Point &p) { return wanted == p.name; });
        if (it == points.end()) return kIOReturnNotFound;
        index = static_cast<uint32_t>(it - points.begin());
    } else if (index >= points.size()) {
        return kIOReturnBadArgument;
    }
    const Point &p = points[index];
    uint64_t hits = p.hits.value() / 1000;
    reply.output.assign(EntryLayout::kReplySize, 0);
    wire::store_le32(reply.output, 0, index);
    put_text(reply.output, 4, EntryLayout::kNameSize, p.name);
    wire::store_le32(reply.output, 68, p.max_us);
    wire::store_le32(reply.output, 72, p.min_us);
    wire::store_le16(reply.output, 76, counter16(hits));
    if (kind == 0)
        wire::store_le16(reply.output, 78, counter16(hits / p.save_every));
    else
        wire::store_le32(reply.output, 78, saturate32(p.total_us));
    return kIOReturnSuccess;
}

}  // namespace talvex::sim::diag
