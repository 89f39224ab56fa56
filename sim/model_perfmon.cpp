// The performance monitor (39): per device a mode (item 38) and a report of
// processing latencies per stage (item 47), in microseconds.
//
// Mode 1 (enabled) samples every stage once per sample the device delivers,
// mode 2 (auto) one sample in eight; any other mode (0 disabled, or a value
// the firmware does not know) samples nothing. Figures stay when the monitor
// is disabled and start over with a new firmware run, as the modes do (all
// disabled). The mode is also property 38 of the device.
//
// Item 38: scalars (device, 38), input the mode (4 bytes); any other input
// size is kIOReturnBadArgument. Item 47: scalars (device, 47), output at
// least 256 bytes (else kIOReturnNoSpace): the number of stages (32-bit),
// then per stage 24 bytes: name (8 bytes, NUL-terminated when shorter),
// samples, min, max, average. Other items are kIOReturnUnsupported, devices
// above 6 kIOReturnNoDevice.
#include <algorithm>

#include "model_perfmon.h"
#include "model_support.h"

namespace talvex::sim::diag {

namespace {

constexpr size_t kReportSize = 256;
constexpr size_t kMaxStages = 10;
constexpr uint32_t kModeEnabled = 1;
constexpr uint32_t kModeAuto = 2;
constexpr uint64_t kAutoDivisor = 8;
constexpr uint64_t kDrawsPerUpdate = 8;

std::vector<PerfMonitor::Stage> stages_of(uint32_t device) {
    // name, low, high, fixed rate (mHz; 0 follows the device)
    switch (device) {
    case kTalvexDeviceGyro:
        return {{"isr", 4, 31, 0, {}},       {"fifo", 22, 140, 0, {}},  {"calib", 8, 45, 0, {}},
                {"fusion", 180, 960, 0, {}}, {"report", 35, 410, 0, {}}};
    case kTalvexDeviceAccel:
        return {{"isr", 4, 28, 0, {}},        {"fifo", 18, 120, 0, {}},   {"calib", 6, 40, 0, {}},
                {"fusion", 170, 940, 0, {}},  {"gesture", 60, 520, 0, {}}, {"report", 30, 390, 0, {}},
                {"timesync", 12, 95, 1'000, {}}};
    case kTalvexDeviceCompass:
        return {{"isr", 5, 26, 0, {}},
                {"i2c_read", 140, 610, 0, {}},
                {"calib", 40, 230, 0, {}},
                {"heading", 25, 160, 0, {}},
                {"report", 30, 380, 0, {}}};
    case kTalvexDeviceTalvex:
        return {{"sched", 2, 19, 0, {}},
                {"hostcomm", 60, 1'800, 0, {}},
                {"timesync", 12, 95, 1'000, {}},
                {"pm", 3, 48, 0, {}}};
    case kTalvexDevicePressure:
        return {{"isr", 5, 24, 0, {}}, {"i2c_read", 150, 580, 0, {}}, {"filter", 10, 55, 0, {}},
                {"report", 30, 360, 0, {}}};
    case kTalvexDeviceCorvel:
        return {{"isr", 4, 22, 0, {}}, {"spi_read", 40, 210, 0, {}}, {"report", 30, 350, 0, {}}};
    case kTalvexDeviceProx:
        return {{"isr", 5, 25, 0, {}}, {"i2c_read", 130, 540, 0, {}}, {"threshld", 3, 21, 0, {}},
                {"report", 30, 340, 0, {}}};
    default: return {};
    }
}

}  // namespace

PerfMonitor::PerfMonitor(FirmwareRun &run, DeviceProperties &props) : run_(run), props_(props) {
    for (uint32_t d = 0; d < kTalvexDeviceCount; ++d) stages_[d] = stages_of(d);
}

void PerfMonitor::follow() {
    if (seen_run_ != run_.run()) {
        seen_run_ = run_.run();
        modes_ = {};
        for (uint32_t d = 0; d < kTalvexDeviceCount; ++d) stages_[d] = stages_of(d);
        last_ns_ = 0;
    }
    uint64_t now = run_.now_ns();
    uint64_t elapsed = now - last_ns_;
    last_ns_ = now;
    if (elapsed == 0) return;
    ++step_;
    for (uint32_t d = 0; d < kTalvexDeviceCount; ++d) {
        uint64_t divisor = modes_[d] == kModeEnabled ? 1 : modes_[d] == kModeAuto ? kAutoDivisor : 0;
        if (!divisor) continue;
        uint64_t device_rate = props_.sample_millihertz(d);
        for (size_t i = 0; i < stages_[d].size(); ++i) {
            Stage &s = stages_[d][i];
            uint64_t before = s.samples.value() / 1000;
            s.samples.advance(elapsed, (s.fixed_millihertz ? s.fixed_millihertz : device_rate) / divisor);
            uint64_t fresh = s.samples.value() / 1000 - before;
            if (!fresh) continue;
            uint64_t draws = std::min(fresh, kDrawsPerUpdate);
            double sum = 0;
            for (uint64_t k = 0; k < draws; ++k) {
                double u = unit_noise(noise_key(step_, d * 16 + i, k));
                auto us = static_cast<uint32_t>(s.low_us + (s.high_us - s.low_us) * u * u * u);
                bool first = before == 0 && k == 0;
                s.min_us = first ? us : std::min(s.min_us, us);
                s.max_us = first ? us : std::max(s.max_us, us);
                sum += us;
            }
            s.sum_us += static_cast<uint64_t>(sum / static_cast<double>(draws) * static_cast<double>(fresh));
        }
    }
}

uint32_t PerfMonitor::mode(uint32_t device) {
    follow();
    return device < kTalvexDeviceCount ? modes_[device] : 0;
}

void PerfMonitor::set_mode(uint32_t device, uint32_t mode) {
    follow();
    if (device < kTalvexDeviceCount) modes_[device] = mode;
}

IOReturn PerfMonitor::call(const CallArgs &args, CallReply &reply) {
    follow();
    if (args.scalars[0] > UINT32_MAX || args.scalars[1] > UINT32_MAX) return kIOReturnBadArgument;
    auto device = static_cast<uint32_t>(args.scalars[0]);
    auto item = static_cast<uint32_t>(args.scalars[1]);
    if (!props_.exists(device)) return kIOReturnNoDevice;
    if (item == kTalvexPerfmonItemMode) {
        if (args.input.size() != 4) return kIOReturnBadArgument;
        modes_[device] = wire::load_le32(args.input, 0);
        return kIOReturnSuccess;
    }
    if (item != kTalvexPerfmonItemReport) return kIOReturnUnsupported;
    if (args.output_capacity < kReportSize) return kIOReturnNoSpace;
    const auto &stages = stages_[device];
    size_t count = std::min(stages.size(), kMaxStages);
    auto &out = reply.output;
    out.assign(kReportSize, 0);
    wire::store_le32(out, 0, static_cast<uint32_t>(count));
    for (size_t i = 0; i < count; ++i) {
        const Stage &s = stages[i];
        size_t at = 4 + 24 * i;
        // The name field is 8 bytes; an 8-character name fills it.
        for (size_t k = 0; k < 8 && s.name[k]; ++k) out[at + k] = static_cast<uint8_t>(s.name[k]);
        uint64_t samples = s.samples.value() / 1000;
        wire::store_le32(out, at + 8, saturate32(samples));
        wire::store_le32(out, at + 12, s.min_us);
        wire::store_le32(out, at + 16, s.max_us);
        wire::store_le32(out, at + 20, samples ? static_cast<uint32_t>(s.sum_us / samples) : 0);
    }
    return kIOReturnSuccess;
}

}  // namespace talvex::sim::diag
