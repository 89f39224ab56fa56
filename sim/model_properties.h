// Device properties, as the firmware keeps them (see model_properties.cpp).
#pragma once

#include <IOKit/IOReturn.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "firmware_run.h"
#include "talvex_driver.h"

namespace talvex::sim::diag {

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

}  // namespace talvex::sim::diag
