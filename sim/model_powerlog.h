// The firmware's power log (see model_powerlog.cpp).
#pragma once

#include <IOKit/IOReturn.h>

#include <array>
#include <cstdint>

#include "firmware_run.h"
#include "model_properties.h"
#include "model_support.h"
#include "user_client.h"

namespace talvex::sim::diag {

// The power log (24 start, 25 stop, 26 reset, 27 read).
class PowerLog {
public:
    PowerLog(FirmwareRun &run, DeviceProperties &props);
    IOReturn start();
    IOReturn stop();
    IOReturn reset();
    IOReturn read(CallReply &reply);
    // Brings the figures up to the current running time.
    void follow();

private:
    struct Pair {
        RateCounter period_ns, entries;
    };
    struct DeviceBlock {
        Pair sleep, active;
        RateCounter events, dropped;
    };
    void clear();

    FirmwareRun &run_;
    DeviceProperties &props_;
    uint64_t seen_run_ = 0;
    uint64_t last_ns_ = 0;
    uint64_t step_ = 0;
    bool started_ = false;
    std::array<Pair, 4> states_;
    std::array<Pair, 3> threads_;
    std::array<DeviceBlock, 5> devices_;
};

}  // namespace talvex::sim::diag
