// Sensor registers, context limit, raw bytes, GPIO, power rails and memory;
// the model's state and its installation. SPI, I2C and UART are in
// model_bus_links.cpp. See model_bus.h for what each device does.
#include "model_bus.h"

#include <bitset>
#include <string>

#include "simulation.h"
#include "trace.h"
#include "wire.h"

namespace talvex::sim {

namespace {

struct FixedRegister {
    uint8_t device, reg, value;
};

// Identity registers: read-only, the same on every part.
constexpr FixedRegister kIdentity[] = {
    {kTalvexDeviceGyro, 0x0f, 0xd7}, {kTalvexDeviceAccel, 0x0f, 0x33}, {kTalvexDeviceCompass, 0x0a, 'H'},
    {kTalvexDeviceCompass, 0x0b, '4'}, {kTalvexDeviceCompass, 0x0c, '3'}, {kTalvexDeviceTalvex, 0x00, 'T'},
    {kTalvexDeviceTalvex, 0x01, 'L'}, {kTalvexDeviceTalvex, 0x02, 'V'}, {kTalvexDeviceTalvex, 0x03, 'X'},
    {kTalvexDeviceTalvex, 0x04, 0x21}, {kTalvexDevicePressure, 0xd0, 0x58}, {kTalvexDeviceCorvel, 0x00, 0xc5},
    {kTalvexDeviceCorvel, 0x01, 0x02}, {kTalvexDeviceProx, 0x92, 0xab},
};

// Power-on values of writable registers (all others start at 0).
constexpr FixedRegister kPowerOn[] = {
    {kTalvexDeviceGyro, 0x20, 0x07}, {kTalvexDeviceAccel, 0x20, 0x07}, {kTalvexDeviceCompass, 0x00, 0x10},
    {kTalvexDeviceCompass, 0x01, 0x20}, {kTalvexDeviceCompass, 0x02, 0x03}, {kTalvexDevicePressure, 0xf4, 0x27},
    {kTalvexDevicePressure, 0xf5, 0xa0}, {kTalvexDeviceProx, 0x80, 0x03},
};

// Registers whose value follows the clock: [first, last] per device.
struct LiveSpan {
    uint8_t device, first, last;
};
constexpr LiveSpan kLive[] = {
    {kTalvexDeviceGyro, 0x28, 0x2d}, {kTalvexDeviceAccel, 0x28, 0x2d}, {kTalvexDeviceCompass, 0x03, 0x08},
    {kTalvexDevicePressure, 0xf7, 0xf9}, {kTalvexDeviceProx, 0x9c, 0x9d},
};

bool is_identity(uint8_t device, uint8_t reg) {
    for (const auto &f : kIdentity)
        if (f.device == device && f.reg == reg) return true;
    return false;
}

const LiveSpan *live_span(uint8_t device, uint8_t reg) {
    for (const auto &s : kLive)
        if (s.device == device && reg >= s.first && reg <= s.last) return &s;
    return nullptr;
}

uint8_t lo(int v) { return static_cast<uint8_t>(static_cast<uint16_t>(v)); }
uint8_t hi(int v) { return static_cast<uint8_t>(static_cast<uint16_t>(v) >> 8); }

// GPIO lines 0-3 are inputs.
constexpr size_t kGpioInputs = 4;

const char *const kRailNames[] = {"PPV1V2_TALVEX", "PPV1V8_TALVEX", "PP3V0_IMU"};

}  // namespace

int bus_wobble(uint64_t now_ns, uint32_t period_ms, int amplitude) {
    auto period = static_cast<int64_t>(period_ms);
    auto phase = static_cast<int64_t>((now_ns / 1'000'000) % period_ms);
    int64_t a = amplitude;
    int64_t v = phase < period / 2 ? -a + 4 * a * phase / period : 3 * a - 4 * a * phase / period;
    return static_cast<int>(v);
}

BusModel::BusModel(Coprocessor &cop) : cop_(cop) {
    for (uint8_t d = 0; d < kTalvexDeviceCount; ++d) reset_registers(d);

    spi_controller_[0x0f] = 0x6c;   // WHO_AM_I
    spi_controller_[0x10] = 0x01;   // power-on control value

    I2CTarget eeprom{0, 0x50, true, {}, 0};
    eeprom.regs.fill(0xff);   // erased
    const char kCal[] = "TLVX-CAL";
    for (size_t i = 0; i + 1 < sizeof kCal; ++i) eeprom.regs[i] = static_cast<uint8_t>(kCal[i]);
    eeprom.regs[8] = 0x01;    // calibration format
    eeprom.regs[9] = 0x07;    // record count
    i2c_.push_back(eeprom);

    I2CTarget thermometer{0, 0x48, true, {}, 0};
    thermometer.regs[0x02] = 0x60;   // config: 12-bit, continuous
    thermometer.regs[0x03] = 0x4b;   // low limit 75 degrees (BE16 with 0x04)
    thermometer.regs[0x05] = 0x50;   // high limit 80 degrees (BE16 with 0x06)
    i2c_.push_back(thermometer);

    I2CTarget expander{1, 0x20, false, {}, 0};
    expander.regs[0] = 0xff;   // latch high after power-on
    i2c_.push_back(expander);

    I2CTarget gauge{2, 0x36, true, {}, 0};
    gauge.regs[0x00] = 0x5a;
    i2c_.push_back(gauge);
}

bool BusModel::booted() const { return cop_.state() == kTalvexStateBooted; }

uint64_t BusModel::now_ns() const { return cop_.simulation().clock().now_ns(); }

void BusModel::trace_event(const std::string &fields) {
    cop_.simulation().trace().add("{\"service\":" + json_string(cop_.service().class_name) + "," + fields + "}");
}

// ---------------------------------------------------------------------------
// Sensor registers.

bool BusModel::powered(uint8_t device) const {
    return (device != kTalvexDeviceGyro && device != kTalvexDeviceAccel) || (rails_ & kRailImu) != 0;
}

void BusModel::reset_registers(uint8_t device) {
    RegisterFile &file = registers_[device];
    file.fill(0);
    for (const auto &f : kPowerOn)
        if (f.device == device) file[f.reg] = f.value;
    for (const auto &f : kIdentity)
        if (f.device == device) file[f.reg] = f.value;
}

uint8_t BusModel::register_value(uint8_t device, uint8_t reg) const {
    const LiveSpan *span = live_span(device, reg);
    if (!span) return registers_[device][reg];
    uint64_t t = now_ns();
    auto at = static_cast<unsigned>(reg - span->first);
    switch (device) {
    case kTalvexDeviceGyro: {   // angular rate, LE16 x, y, z: a still device's noise
        int v[3] = {bus_wobble(t, 1000, 12), bus_wobble(t, 1300, 9), bus_wobble(t, 700, 15)};
        return at % 2 ? hi(v[at / 2]) : lo(v[at / 2]);
    }
    case kTalvexDeviceAccel: {   // LE16 x, y, z at 16384 per g: lying flat
        int v[3] = {bus_wobble(t, 900, 40), bus_wobble(t, 1100, 40), 16384 + bus_wobble(t, 1500, 60)};
        return at % 2 ? hi(v[at / 2]) : lo(v[at / 2]);
    }
    case kTalvexDeviceCompass: {   // BE16 x, z, y
        int v[3] = {220 + bus_wobble(t, 4000, 6), -410 + bus_wobble(t, 4500, 6), 95 + bus_wobble(t, 5000, 6)};
        return at % 2 ? lo(v[at / 2]) : hi(v[at / 2]);
    }
    case kTalvexDevicePressure: {   // 20-bit raw pressure: msb, lsb, xlsb (top nibble)
        auto p = static_cast<uint32_t>(415148 + bus_wobble(t, 5000, 300));
        uint8_t bytes[3] = {static_cast<uint8_t>(p >> 12), static_cast<uint8_t>(p >> 4),
                            static_cast<uint8_t>((p & 0xf) << 4)};
        return bytes[at];
    }
    case kTalvexDeviceProx: {   // LE16 count: nothing near
        int v = 180 + bus_wobble(t, 2000, 25);
        return at ? hi(v) : lo(v);
    }
    default: return registers_[device][reg];
    }
}

void BusModel::register_store(uint8_t device, uint8_t reg, uint8_t value) {
    if (is_identity(device, reg) || live_span(device, reg)) return;
    registers_[device][reg] = value;
}

// Request: device, address, count. Reply: count registers.
IOReturn BusModel::read_registers(const CallArgs &a, CallReply &r) {
    if (!booted()) return kIOReturnNotReady;
    if (a.input.size() != 3) return kIOReturnBadArgument;
    uint8_t device = a.input[0], reg = a.input[1], count = a.input[2];
    if (device >= kTalvexDeviceCount) return kIOReturnNoDevice;
    if (count > 16) return kIOReturnBadArgument;
    if (!powered(device)) return kIOReturnNoPower;
    r.output.resize(count);
    for (uint8_t i = 0; i < count; ++i) r.output[i] = register_value(device, static_cast<uint8_t>(reg + i));
    return kIOReturnSuccess;
}

// Request: device, address, count N (1-16), 16 data bytes of which N are used.
IOReturn BusModel::write_registers(const CallArgs &a, CallReply &) {
    if (!booted()) return kIOReturnNotReady;
    if (a.input.size() != 19) return kIOReturnBadArgument;
    uint8_t device = a.input[0], reg = a.input[1], count = a.input[2];
    if (device >= kTalvexDeviceCount) return kIOReturnNoDevice;
    if (count == 0 || count > 16) return kIOReturnBadArgument;
    if (!powered(device)) return kIOReturnNoPower;
    for (uint8_t i = 0; i < count; ++i) register_store(device, static_cast<uint8_t>(reg + i), a.input[3 + i]);
    return kIOReturnSuccess;
}

// ---------------------------------------------------------------------------
// Context limit and raw bytes: kept and logged.

IOReturn BusModel::context_limit(const CallArgs &a, CallReply &) {
    if (!booted()) return kIOReturnNotReady;
    if (a.scalars.size() != 1 || a.scalars[0] > 3) return kIOReturnBadArgument;
    context_max_ = static_cast<uint32_t>(a.scalars[0]);
    trace_event("\"event\":\"bb\",\"context_max\":" + std::to_string(context_max_));
    return kIOReturnSuccess;
}

IOReturn BusModel::raw_bytes(const CallArgs &a, CallReply &) {
    if (!booted()) return kIOReturnNotReady;
    trace_event("\"event\":\"cma\",\"bytes\":\"" + trace_hex(a.input) + "\"");
    return kIOReturnSuccess;
}

// ---------------------------------------------------------------------------
// GPIO and power rails.

IOReturn BusModel::gpio_set(const CallArgs &a, CallReply &) {
    if (!booted()) return kIOReturnNotReady;
    if (a.scalars.size() != 2) return kIOReturnBadArgument;
    uint64_t line = a.scalars[0], state = a.scalars[1];
    if (line >= kGpioCount || state > 1) return kIOReturnBadArgument;
    if (line < kGpioInputs) return kIOReturnNotPermitted;
    gpio_[line] = static_cast<uint8_t>(state);
    return kIOReturnSuccess;
}

IOReturn BusModel::gpio_read(const CallArgs &a, CallReply &r) {
    if (!booted()) return kIOReturnNotReady;
    if (a.scalars.size() != 1) return kIOReturnBadArgument;
    uint64_t line = a.scalars[0];
    if (line >= kGpioCount) return kIOReturnBadArgument;
    uint64_t level;
    switch (line) {
    case 0: level = 1; break;
    case 1: level = 0; break;
    case 2: level = 1; break;
    case 3: level = (now_ns() / 5'000'000) % 2; break;   // data-ready, 10 ms period
    default: level = gpio_[line]; break;
    }
    r.scalars.assign(1, level);
    return kIOReturnSuccess;
}

IOReturn BusModel::power_rails(const CallArgs &a, CallReply &) {
    if (!booted()) return kIOReturnNotReady;
    if (a.scalars.size() != 1 || (a.scalars[0] & ~uint64_t{kRailMask}) != 0) return kIOReturnBadArgument;
    uint32_t previous = rails_;
    rails_ = static_cast<uint32_t>(a.scalars[0]);
    // The IMU parts lose their registers when their rail goes down.
    if ((previous & kRailImu) && !(rails_ & kRailImu)) {
        reset_registers(kTalvexDeviceGyro);
        reset_registers(kTalvexDeviceAccel);
    }
    std::string on;
    for (uint32_t bit = 0; bit < 3; ++bit)
        if (rails_ & (1u << bit)) on += std::string(on.empty() ? "" : ",") + "\"" + kRailNames[bit] + "\"";
    trace_event("\"event\":\"pmu\",\"mask\":" + std::to_string(rails_) + ",\"previous\":" + std::to_string(previous) +
                ",\"on\":[" + on + "]");
    return kIOReturnSuccess;
}

// ---------------------------------------------------------------------------
// Memory.

namespace {
constexpr size_t kRomBlock = 1;
}

uint8_t BusModel::memory_value(size_t block, uint32_t address) const {
    if (block == kRomBlock) return static_cast<uint8_t>((address * 0x9e3779b1u) >> 24);
    auto it = memory_[block].find(address / kPageSize);
    return it == memory_[block].end() ? 0 : it->second[address % kPageSize];
}

// Request: address (LE32), block, count (0-16). Reply: count bytes.
IOReturn BusModel::memory_read(const CallArgs &a, CallReply &r) {
    if (!booted()) return kIOReturnNotReady;
    if (a.input.size() != 6) return kIOReturnBadArgument;
    uint32_t address = wire::load_le32(a.input.data());
    uint8_t block = a.input[4], count = a.input[5];
    if (block >= kMemoryBlocks || count > 16) return kIOReturnBadArgument;
    if (uint64_t{address} + count > (uint64_t{1} << 32)) return kIOReturnBadArgument;
    r.output.resize(count);
    for (uint8_t i = 0; i < count; ++i) r.output[i] = memory_value(block, address + i);
    return kIOReturnSuccess;
}

// Request: address (LE32), block, count N (1-16), 16 data bytes.
IOReturn BusModel::memory_write(const CallArgs &a, CallReply &) {
    if (!booted()) return kIOReturnNotReady;
    if (a.input.size() != 22) return kIOReturnBadArgument;
    uint32_t address = wire::load_le32(a.input.data());
    uint8_t block = a.input[4], count = a.input[5];
    if (block >= kMemoryBlocks || count == 0 || count > 16) return kIOReturnBadArgument;
    if (uint64_t{address} + count > (uint64_t{1} << 32)) return kIOReturnBadArgument;
    if (block == kRomBlock) return kIOReturnNotWritable;
    auto &pages = memory_[block];
    uint32_t first = address / kPageSize, last = (address + count - 1) / kPageSize;
    size_t missing = (pages.count(first) ? 0 : 1) + (last != first && !pages.count(last) ? 1 : 0);
    if (pages.size() + missing > kMaxPagesPerBlock) return kIOReturnNoMemory;
    for (uint8_t i = 0; i < count; ++i) {
        uint32_t at = address + i;
        auto [it, made] = pages.try_emplace(at / kPageSize);
        if (made) it->second.fill(0);
        it->second[at % kPageSize] = a.input[6 + i];
    }
    return kIOReturnSuccess;
}

// ---------------------------------------------------------------------------

void install_bus_methods(Coprocessor &cop) {
    auto model = std::make_shared<BusModel>(cop);
    auto bind = [&](uint32_t selector, BusModel::Method BusModel::*method) {
        cop.methods().set_handler(selector,
                                  [model, method](const CallArgs &a, CallReply &r) { return (*model.*method)(a, r); });
    };
    bind(kTalvexMethodSpiTransfer, &BusModel::spi);
    bind(kTalvexMethodRegisterRead, &BusModel::read_registers);
    bind(kTalvexMethodRegisterWrite, &BusModel::write_registers);
    bind(kTalvexMethodSetContextLimit, &BusModel::context_limit);
    bind(kTalvexMethodRawBytes, &BusModel::raw_bytes);
    bind(kTalvexMethodGpioSet, &BusModel::gpio_set);
    bind(kTalvexMethodGpioRead, &BusModel::gpio_read);
    bind(kTalvexMethodPowerRails, &BusModel::power_rails);
    bind(kTalvexMethodI2CRead, &BusModel::i2c_read);
    bind(kTalvexMethodI2CWrite, &BusModel::i2c_write);
    bind(kTalvexMethodUartTest, &BusModel::uart);
    bind(kTalvexMethodMemoryRead, &BusModel::memory_read);
    bind(kTalvexMethodMemoryWrite, &BusModel::memory_write);
}

}  // namespace talvex::sim
