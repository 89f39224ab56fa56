// The coprocessor firmware's running time, which every diagnostics model
// follows (see model_diag.cpp).
#pragma once

#include <cstdint>

namespace talvex::sim {

class Coprocessor;

namespace diag {

// The firmware's running time, and its restarts.
class FirmwareRun {
public:
    explicit FirmwareRun(Coprocessor &cop);
    // Follows the coprocessor's state changes (installed as a state listener).
    void state_changed(uint64_t from, uint64_t to);

    bool running() const;
    // Nanoseconds the current firmware run has been executing.
    uint64_t now_ns() const;
    // Counts fresh boots; state kept per run compares it to notice a restart.
    uint64_t run() const { return run_; }
    Coprocessor &coprocessor() const { return cop_; }

private:
    Coprocessor &cop_;
    uint64_t base_ns_ = 0;         // running time before the current booted stretch
    uint64_t since_ns_ = 0;        // simulation time the current booted stretch began
    bool counting_ = true;         // the simulator starts with the firmware up
    uint64_t run_ = 0;
};

}  // namespace diag
}  // namespace talvex::sim
