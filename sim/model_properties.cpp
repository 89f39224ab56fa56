// Device properties: per device a table of numbered values, each with its own
// size, as the firmware keeps them for its sensors (13 get, 14 set).
//
// Every device 0-6 exists. Properties and sizes (little-endian values):
//
//   0    4   sample interval, microseconds; writable within the device's
//            supported rates (1e6 / fastest .. 1e6 / slowest)
//   4    4   accel: bandwidth, Hz; writable, one of property 57
//   6    4   accel: full-scale range, g; gyro: range, degrees/s; writable,
//            one of property 56
//   10   4   raw mode flag; writable, any value
//   11   36  calibration matrix, 3x3 signed 16.16 fixed point, row by row
//   13   4   factory mode flag; writable, any value
//   15   32  part name, NUL-terminated
//   16   32  vendor and revision, NUL-terminated
//   22   4   talvex: report rate, Hz (0: the firmware's default); writable, any value
//   24   9   orientation matrix, 3x3 signed bytes, row by row
//   25   4/12 internal calibration: the measured sample period at a nominal
//            100 Hz, microseconds; the IMU parts (accel, gyro) give three
//            figures (as configured, in combo mode, accel only)
//   26   12  calibration offsets, 3 signed numbers
//   33   n*4 supported sample rates, Hz
//   36   4   decimation, 1 to 16; writable
//   38   4   perfmon mode (kept by the performance monitor); writable, any value
//   45   4   start-up time, microseconds; the compass, talvex and prox parts
//            do not have one (kIOReturnUnsupported)
//   56   n*4 accel: supported full-scale ranges; gyro: supported ranges
//   57   n*4 accel: supported bandwidths
//   240  36  talvex: IRC start-up statistics (kept by the clock unit)
//
// Codes: kIOReturnNoDevice for a device above 6, kIOReturnUnsupported for a
// property the device does not have, kIOReturnNoSpace when the caller's
// buffer is smaller than the value, kIOReturnNotWritable for a read-only
// property, kIOReturnBadArgument for a value a writable one does not take.
// A new firmware run starts from the defaults below.
#include <algorithm>
#include <map>

#include "model_clocks.h"
#include "model_perfmon.h"
#include "model_properties.h"
#include "model_support.h"

namespace talvex::sim::diag {

namespace {

constexpr size_t kIdentitySize = 32;

enum class Write { No, Any, Interval, Decimation, InList };

struct Value {
    std::vector<uint8_t> bytes;
    Write write = Write::No;
    uint32_t list = 0;   // InList: the property holding the allowed values
};

std::vector<uint8_t> words(std::initializer_list<int32_t> values) {
    std::vector<uint8_t> out(values.size() * 4);
    size_t at = 0;
    for (int32_t v : values) {
        wire::store_le32(out, at, static_cast<uint32_t>(v));
        at += 4;
    }
    return out;
}

std::vector<uint8_t> text(const std::string &s) {
    std::vector<uint8_t> out(kIdentitySize);
    put_text(out, 0, kIdentitySize, s);
    return out;
}

std::vector<uint8_t> signed_bytes(std::initializer_list<int8_t> values) {
    std::vector<uint8_t> out;
    for (int8_t v : values) out.push_back(static_cast<uint8_t>(v));
    return out;
}

using DeviceTable = std::map<uint32_t, Value>;

// What every sensor has.
DeviceTable sensor(int32_t interval_us, int32_t decimation, const std::string &part, const std::string &vendor,
                   std::vector<uint8_t> matrix, std::vector<uint8_t> offsets, std::vector<uint8_t> orientation,
                   std::vector<uint8_t> rates, std::vector<uint8_t> internal_cal) {
    DeviceTable t;
    t[kTalvexPropertySampleInterval] = {words({interval_us}), Write::Interval};
    t[kTalvexPropertyDecimation] = {words({decimation}), Write::Decimation};
    t[kTalvexPropertyRawMode] = {words({0}), Write::Any};
    t[kTalvexPropertyFactoryMode] = {words({0}), Write::Any};
    t[kTalvexPropertyPartName] = {text(part)};
    t[kTalvexPropertyVendor] = {text(vendor)};
    t[kTalvexPropertyCalMatrix] = {std::move(matrix)};
    t[kTalvexPropertyCalOffset] = {std::move(offsets)};
    t[kTalvexPropertyOrientation] = {std::move(orientation)};
    t[kTalvexPropertySampleRates] = {std::move(rates)};
    t[kTalvexPropertyInternalCal] = {std::move(internal_cal)};
    return t;
}

constexpr int32_t kOne = 65536;   // 1.0 in 16.16

std::vector<uint8_t> identity_matrix() { return words({kOne, 0, 0, 0, kOne, 0, 0, 0, kOne}); }
std::vector<uint8_t> identity_orientation() { return signed_bytes({1, 0, 0, 0, 1, 0, 0, 0, 1}); }

std::array<DeviceTable, kTalvexDeviceCount> defaults() {
    std::array<DeviceTable, kTalvexDeviceCount> d;
    // The IMU is one package: gyro and accel share its mounting.
    auto imu_orientation = [] { return signed_bytes({0, 1, 0, -1, 0, 0, 0, 0, 1}); };

    d[kTalvexDeviceGyro] = sensor(10'000, 1, "ZMG-6031 gyroscope", "Zantra C1 fw 2.4.1",
                      words({65'512, -203, 88, 187, 65'561, -64, -92, 71, 65'498}), words({3, -5, 2}),
                      imu_orientation(), words({10, 25, 50, 100, 200, 400, 800}), words({9'991, 9'983, 10'008}));
    d[kTalvexDeviceGyro][kTalvexPropertyStartupTime] = {words({35'000})};
    d[kTalvexDeviceGyro][kTalvexPropertyRange] = {words({2'000}), Write::InList, kTalvexPropertyRanges};
    d[kTalvexDeviceGyro][kTalvexPropertyRanges] = {words({125, 250, 500, 1'000, 2'000})};

    d[kTalvexDeviceAccel] = sensor(10'000, 1, "ZMA-6031 accelerometer", "Zantra C1 fw 2.4.1",
                       words({65'874, 312, -58, -296, 65'190, 120, 44, -131, 66'003}), words({-12, 7, 31}),
                       imu_orientation(), words({10, 25, 50, 100, 200, 400, 800, 1'600}),
                       words({9'986, 9'979, 10'004}));
    d[kTalvexDeviceAccel][kTalvexPropertyStartupTime] = {words({3'000})};
    d[kTalvexDeviceAccel][kTalvexPropertyRange] = {words({8}), Write::InList, kTalvexPropertyRanges};
    d[kTalvexDeviceAccel][kTalvexPropertyRanges] = {words({2, 4, 8, 16})};
    d[kTalvexDeviceAccel][kTalvexPropertyBandwidth] = {words({100}), Write::InList, kTalvexPropertyBandwidths};
    d[kTalvexDeviceAccel][kTalvexPropertyBandwidths] = {words({25, 50, 100, 200, 400, 800})};

    // Soft-iron matrix and hard-iron offsets of the magnetometer as fitted.
    d[kTalvexDeviceCompass] = sensor(20'000, 1, "MX-330 magnetometer", "Halvorsen Magnetics rev 3",
                         words({66'102, -412, 230, -398, 64'987, 515, 221, 507, 65'843}), words({-212, 87, 415}),
                         signed_bytes({1, 0, 0, 0, -1, 0, 0, 0, -1}), words({10, 20, 50, 100}), words({10'041}));

    d[kTalvexDeviceTalvex] = sensor(20'000, 1, "Talvex sensor hub", "fw 7.18.2 build 1420", identity_matrix(),
                        words({0, 0, 0}), identity_orientation(), words({25, 50, 100}), words({10'000}));
    d[kTalvexDeviceTalvex][kTalvexPropertyReportRate] = {words({100}), Write::Any};

    d[kTalvexDevicePressure] = sensor(40'000, 4, "BP-2210 barometer", "Orlen Sensortech rev A7", identity_matrix(),
                          words({-35, 0, 0}), identity_orientation(), words({1, 2, 5, 10, 25, 50}), words({10'034}));
    d[kTalvexDevicePressure][kTalvexPropertyStartupTime] = {words({12'000})};

    d[kTalvexDeviceCorvel] = sensor(100'000, 1, "CV-118", "Corvel Systems rev 2", identity_matrix(), words({0, 0, 0}),
                        identity_orientation(), words({1, 5, 10, 20}), words({10'008}));
    d[kTalvexDeviceCorvel][kTalvexPropertyStartupTime] = {words({20'000})};

    d[kTalvexDeviceProx] = sensor(50'000, 1, "PX-9 proximity", "Lumetra rev B", identity_matrix(), words({120, 0, 0}),
                      identity_orientation(), words({5, 10, 20, 50}), words({9'995}));
    return d;
}

int32_t as_int(const std::vector<uint8_t> &bytes, size_t index = 0) {
    return static_cast<int32_t>(wire::load_le32(bytes, index * 4));
}

bool listed(const std::vector<uint8_t> &list, uint32_t value) {
    for (size_t at = 0; at + 4 <= list.size(); at += 4)
        if (wire::load_le32(list, at) == value) return true;
    return false;
}

}  // namespace

struct DeviceProperties::Table {
    std::array<DeviceTable, kTalvexDeviceCount> devices = defaults();
};

DeviceProperties::DeviceProperties(FirmwareRun &run) : run_(run), table_(std::make_unique<Table>()) {}

DeviceProperties::~DeviceProperties() = default;

void DeviceProperties::follow_run() {
    if (seen_run_ == run_.run()) return;
    seen_run_ = run_.run();
    table_ = std::make_unique<Table>();
}

IOReturn DeviceProperties::get(uint32_t device, uint32_t property, uint64_t capacity, std::vector<uint8_t> &out) {
    follow_run();
    if (!exists(device)) return kIOReturnNoDevice;
    std::vector<uint8_t> value;
    if (property == kTalvexPropertyPerfmonMode && perfmon_) {
        value.assign(4, 0);
        wire::store_le32(value, 0, perfmon_->mode(device));
    } else if (property == kTalvexPropertyIrcStartup && device == kTalvexDeviceTalvex && clocks_) {
        value = clocks_->irc_startup();
    } else {
        const DeviceTable &t = table_->devices[device];
        auto it = t.find(property);
        if (it == t.end()) return kIOReturnUnsupported;
        value = it->second.bytes;
    }
    if (capacity < value.size()) return kIOReturnNoSpace;
    out = std::move(value);
    return kIOReturnSuccess;
}

IOReturn DeviceProperties::set(uint32_t device, uint32_t property, uint32_t value) {
    follow_run();
    if (!exists(device)) return kIOReturnNoDevice;
    if (property == kTalvexPropertyPerfmonMode && perfmon_) {
        for (auto &hook : on_change_) hook();
        perfmon_->set_mode(device, value);
        return kIOReturnSuccess;
    }
    if (property == kTalvexPropertyIrcStartup && device == kTalvexDeviceTalvex) return kIOReturnNotWritable;
    DeviceTable &t = table_->devices[device];
    auto it = t.find(property);
    if (it == t.end()) return kIOReturnUnsupported;
    Value &v = it->second;
    switch (v.write) {
    case Write::No: return kIOReturnNotWritable;
    case Write::Any: break;
    case Write::Interval: {
        // Between the fastest and the slowest supported rate.
        const auto &rates = t[kTalvexPropertySampleRates].bytes;
        int32_t fastest = 1, slowest = INT32_MAX;
        for (size_t i = 0; i < rates.size() / 4; ++i) {
            fastest = std::max(fastest, as_int(rates, i));
            slowest = std::min(slowest, as_int(rates, i));
        }
        if (value < 1'000'000u / static_cast<uint32_t>(fastest) || value > 1'000'000u / static_cast<uint32_t>(slowest))
            return kIOReturnBadArgument;
        break;
    }
    case Write::Decimation:
        if (value < 1 || value > 16) return kIOReturnBadArgument;
        break;
    case Write::InList:
        if (!listed(t[v.list].bytes, value)) return kIOReturnBadArgument;
        break;
    }
    for (auto &hook : on_change_) hook();
    wire::store_le32(v.bytes, 0, value);
    return kIOReturnSuccess;
}

uint64_t DeviceProperties::sample_millihertz(uint32_t device) {
    follow_run();
    if (!exists(device)) return 0;
    auto interval = static_cast<uint64_t>(as_int(table_->devices[device][kTalvexPropertySampleInterval].bytes));
    return interval ? 1'000'000'000 / interval : 0;
}

}  // namespace talvex::sim::diag
