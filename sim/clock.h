// Simulated time. Models and timers read time only through Clock, so the
// simulator can run on real time or on time that moves only when told to.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace talvex::sim {

class Clock {
public:
    virtual ~Clock() = default;
    // Simulated nanoseconds since the simulator started.
    virtual uint64_t now_ns() const = 0;
    // How long to wait in real time until simulated time reaches `due_ns`:
    // zero when it already has, nothing when only an explicit advance moves
    // time (the event loop then waits for input alone).
    virtual std::optional<std::chrono::milliseconds> real_wait_until(uint64_t due_ns) const = 0;
    // Lets `ns` of simulated time pass for something that takes that long
    // (a reply answered late): a clock that moves only when told moves on
    // and returns true; real time passes by itself (false).
    virtual bool pass(uint64_t ns) {
        (void)ns;
        return false;
    }
};

// Time follows the monotonic system clock.
class RealClock final : public Clock {
public:
    RealClock();
    uint64_t now_ns() const override;
    std::optional<std::chrono::milliseconds> real_wait_until(uint64_t due_ns) const override;

private:
    std::chrono::steady_clock::time_point start_;
};

// Time stands still until advance() moves it.
class StepClock final : public Clock {
public:
    uint64_t now_ns() const override { return now_; }
    std::optional<std::chrono::milliseconds> real_wait_until(uint64_t due_ns) const override;
    void advance(uint64_t ns) { now_ += ns; }
    bool pass(uint64_t ns) override {
        advance(ns);
        return true;
    }

private:
    uint64_t now_ = 0;
};

inline constexpr uint64_t kNanosPerSecond = 1'000'000'000;
inline constexpr uint64_t kNanosPerMilli = 1'000'000;
inline constexpr uint64_t kNanosPerMicro = 1'000;

}  // namespace talvex::sim
