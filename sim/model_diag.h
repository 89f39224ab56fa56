// The coprocessor firmware's diagnostics, as the driver serves them: device
// properties (13, 14), the profiler (19-23), the power log (24-27), clock
// redirection and measurement (28, 32), the link baud rate (29), client lists
// (30) and the performance monitor (39).
//
// Everything here lives in the firmware, so it needs running firmware: every
// selector answers kIOReturnNotReady unless the coprocessor is booted, and
// every figure moves with the firmware's running time only (the simulation's
// clock while the state is booted; it stands still while the coprocessor is
// off, stopped, booting, halted or in panic). A fresh boot (booted reached
// from anything but notresponding) starts a new firmware run: properties go
// back to their defaults, and the profiler, power log, perfmon and the link
// rate start over. Waking from a halt continues the same run.
//
// Figures are made from the running time with deterministic noise, so a run
// on a step clock gives the same numbers every time.
#pragma once

#include <IOKit/IOReturn.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "clock.h"
#include "talvex_driver.h"
#include "user_client.h"

namespace talvex::sim {

class Coprocessor;

namespace diag {

inline constexpr uint64_t kNanosPerMilli = 1'000'000;
inline constexpr uint64_t kNanosPerMicro = 1'000;

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

// Deterministic noise.
uint64_t mix64(uint64_t x);
// A number in [0, 1) for the key.
double unit_noise(uint64_t key);
// A key from a few parts.
uint64_t noise_key(uint64_t a, uint64_t b, uint64_t c = 0);

// A count that grows at a rate per second of running time, keeping the
// fraction between advances so that many short advances add up to the same
// total as one long one.
class RateCounter {
public:
    void advance(uint64_t elapsed_ns, uint64_t per_second);
    uint64_t value() const { return value_; }
    void clear() { *this = {}; }

private:
    uint64_t value_ = 0;
    uint64_t remainder_ = 0;   // (units x 1e9) not yet whole
};

// Little-endian field writers for the replies.
void put_le16(std::vector<uint8_t> &out, size_t at, uint16_t v);
void put_le32(std::vector<uint8_t> &out, size_t at, uint32_t v);
uint32_t get_le32(std::span<const uint8_t> in, size_t at);
// Writes `text` and a NUL into out[at, at + field), cut to field - 1 bytes.
void put_text(std::vector<uint8_t> &out, size_t at, size_t field, const std::string &text);
// 32-bit figures saturate, as the firmware's counters do.
uint32_t saturate32(uint64_t v);

class DeviceProperties;
class PerfMonitor;
class ClockUnit;

// Device properties (13 get, 14 set): per device a table of numbered values,
// each with its size. See model_properties.cpp for the tables.
class DeviceProperties {
public:
    explicit DeviceProperties(FirmwareRun &run);
    ~DeviceProperties();

    // The property's bytes; kIOReturnNoDevice for a device that does not
    // exist, kIOReturnUnsupported for a property the device does not have,
    // kIOReturnNoSpace when the caller's buffer is smaller than the value.
    IOReturn get(uint32_t device, uint32_t property, uint64_t capacity, std::vector<uint8_t> &out);
    // kIOReturnNotWritable for read-only properties, kIOReturnBadArgument for
    // a value the property does not take.
    IOReturn set(uint32_t device, uint32_t property, uint32_t value);

    bool exists(uint32_t device) const { return device < kTalvexDeviceCount; }
    // The device's sample rate in millihertz (from its sample interval).
    uint64_t sample_millihertz(uint32_t device);

    // Properties served by other parts of the firmware.
    void attach(PerfMonitor *perfmon, ClockUnit *clocks) {
        perfmon_ = perfmon;
        clocks_ = clocks;
    }
    // Runs before any value changes, so that figures made from the old
    // values are brought up to date first.
    void on_change(std::function<void()> hook) { on_change_.push_back(std::move(hook)); }

    struct Table;

private:
    void follow_run();

    FirmwareRun &run_;
    uint64_t seen_run_ = 0;
    std::unique_ptr<Table> table_;
    PerfMonitor *perfmon_ = nullptr;
    ClockUnit *clocks_ = nullptr;
    std::vector<std::function<void()>> on_change_;
};

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

// Clients per device (30).
class ClientList {
public:
    explicit ClientList(DeviceProperties &props) : props_(props) {}
    IOReturn query(const CallArgs &args, CallReply &reply);

private:
    DeviceProperties &props_;
};

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

}  // namespace diag
}  // namespace talvex::sim
