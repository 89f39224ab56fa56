// The firmware's clocks (see model_clocks.cpp).
#pragma once

#include <IOKit/IOReturn.h>

#include <cstdint>
#include <vector>

#include "firmware_run.h"
#include "user_client.h"

namespace talvex::sim::diag {

// Clock redirection (28), measurement (32) and the IRC start-up statistics
// (property 240 of the talvex device).
class ClockUnit {
public:
    explicit ClockUnit(FirmwareRun &run);
    IOReturn redirect(uint64_t value);
    IOReturn measure(const CallArgs &args, CallReply &reply);
    std::vector<uint8_t> irc_startup();

private:
    struct Stat {
        int64_t sum = 0;
        uint64_t count = 0;
        int32_t min = 0, max = 0;
        void add(int32_t v, uint64_t weight);
    };
    void follow();

    FirmwareRun &run_;
    uint64_t seen_run_ = 0;
    bool redirected_ = false;
    uint64_t wakeups_ = 0;   // IRC start-ups counted so far in this run
    Stat startup_, pre_startup_, total_;
};

}  // namespace talvex::sim::diag
