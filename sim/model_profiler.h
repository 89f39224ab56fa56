// The firmware profiler (see model_profiler.cpp).
#pragma once

#include <IOKit/IOReturn.h>

#include <cstdint>
#include <vector>

#include "firmware_run.h"
#include "model_support.h"
#include "user_client.h"

namespace talvex::sim::diag {

// The profiler (19 start, 20 stop, 21 reset, 22 summary, 23 entry).
class Profiler {
public:
    explicit Profiler(FirmwareRun &run);
    IOReturn start();
    IOReturn stop();
    IOReturn reset();
    IOReturn summary(CallReply &reply);
    IOReturn entry(const CallArgs &args, CallReply &reply);

    // A measuring point: a hitpoint (hits, saves) or a timed function (hits,
    // total time); min and max are microseconds.
    struct Point {
        const char *name;
        uint32_t millihertz;    // how often the firmware passes it
        uint32_t low_us, high_us;
        uint32_t save_every;    // hitpoints: one save per this many hits
        RateCounter hits;       // in thousandths of a hit
        uint64_t total_us = 0;
        uint32_t min_us = UINT32_MAX, max_us = 0;
    };

private:
    void follow();
    FirmwareRun &run_;
    uint64_t seen_run_ = 0;
    uint64_t last_ns_ = 0;
    bool started_ = false;
    uint64_t runtime_ns_ = 0;
    uint64_t batch_ = 0;
    std::vector<Point> hitpoints_, functions_;
};

}  // namespace talvex::sim::diag
