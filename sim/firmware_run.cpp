#include "firmware_run.h"

#include "coprocessor.h"
#include "simulation.h"

namespace talvex::sim::diag {

FirmwareRun::FirmwareRun(Coprocessor &cop) : cop_(cop), since_ns_(cop.simulation().clock().now_ns()) {}

void FirmwareRun::state_changed(uint64_t from, uint64_t to) {
    uint64_t now = cop_.simulation().clock().now_ns();
    bool booted = to == kTalvexStateBooted;
    if (counting_ && !booted) {
        base_ns_ += now - since_ns_;
        counting_ = false;
    } else if (!counting_ && booted) {
        // Waking from a halt continues the run; any other way up is a new one.
        if (from != kTalvexStateNotResponding) {
            ++run_;
            base_ns_ = 0;
        }
        since_ns_ = now;
        counting_ = true;
    }
}

bool FirmwareRun::running() const { return cop_.state() == kTalvexStateBooted; }

uint64_t FirmwareRun::now_ns() const {
    return base_ns_ + (counting_ ? cop_.simulation().clock().now_ns() - since_ns_ : 0);
}

}  // namespace talvex::sim::diag
