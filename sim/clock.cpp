#include "clock.h"

namespace talvex::sim {

RealClock::RealClock() : start_(std::chrono::steady_clock::now()) {}

uint64_t RealClock::now_ns() const {
    auto d = std::chrono::steady_clock::now() - start_;
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(d).count());
}

std::optional<std::chrono::milliseconds> RealClock::real_wait_until(uint64_t due_ns) const {
    uint64_t now = now_ns();
    if (due_ns <= now) return std::chrono::milliseconds(0);
    // Round up so a timer never fires early.
    uint64_t ms = (due_ns - now + 999'999) / 1'000'000;
    return std::chrono::milliseconds(static_cast<int64_t>(ms));
}

std::optional<std::chrono::milliseconds> StepClock::real_wait_until(uint64_t due_ns) const {
    if (due_ns <= now_) return std::chrono::milliseconds(0);
    return std::nullopt;
}

}  // namespace talvex::sim
