// The firmware's performance monitor (see model_perfmon.cpp).
#pragma once

#include <IOKit/IOReturn.h>

#include <array>
#include <cstdint>
#include <vector>

#include "firmware_run.h"
#include "model_properties.h"
#include "model_support.h"
#include "talvex_driver.h"
#include "user_client.h"

namespace talvex::sim::diag {

// The performance monitor (39): a mode per device (item 38) and a latency
// report (item 47).
class PerfMonitor {
public:
    PerfMonitor(FirmwareRun &run, DeviceProperties &props);
    IOReturn call(const CallArgs &args, CallReply &reply);
    uint32_t mode(uint32_t device);
    void set_mode(uint32_t device, uint32_t mode);
    // Brings the figures up to the current running time.
    void follow();

    // One processing stage whose latency the monitor samples (microseconds).
    struct Stage {
        const char *name;         // at most 8 characters
        uint32_t low_us, high_us;
        uint32_t fixed_millihertz;   // 0: once per sample of the device
        RateCounter samples;         // in thousandths of a sample
        uint64_t sum_us = 0;
        uint32_t min_us = 0, max_us = 0;
    };

private:
    FirmwareRun &run_;
    DeviceProperties &props_;
    uint64_t seen_run_ = 0;
    uint64_t last_ns_ = 0;
    uint64_t step_ = 0;
    std::array<uint32_t, kTalvexDeviceCount> modes_{};
    std::array<std::vector<Stage>, kTalvexDeviceCount> stages_;
};

}  // namespace talvex::sim::diag
