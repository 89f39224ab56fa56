// SPI (5), I2C (34, 35) and UART test frames (36). See model_bus.h.
#include <string>
#include <vector>

#include "model_bus.h"
#include "simulation.h"
#include "trace.h"
#include "wire.h"

namespace talvex::sim {

namespace {

// SPI chip selects.
constexpr uint8_t kSpiLoopback = 0;
constexpr uint8_t kSpiController = 1;
constexpr uint8_t kSpiLastPlain = 3;          // 2 and 3 have nothing attached
constexpr uint8_t kSpiDeviceBit = 0x80;       // 0x80 | device identifier
constexpr uint8_t kSpiReadBit = 0x80;         // in the first byte of a register transfer
constexpr uint8_t kSpiAddressMask = 0x7f;
constexpr uint8_t kSpiControllerWhoAmI = 0x0f;
constexpr size_t kSpiHeader = 3;

// I2C.
using I2C = TalvexI2CLayout;
constexpr uint8_t kI2CPorts = 3;
constexpr uint8_t kI2CMaxAddress = 0x7f;
constexpr uint8_t kThermometer = 0x48, kGauge = 0x36;

// UART.
using Uart = TalvexUartTestLayout;
constexpr uint8_t kUartMaxPayload = 99;
constexpr uint8_t kUartPorts = 3, kUartPortBB = 2;
[[maybe_unused]] constexpr uint8_t kPing = 0;   // the plain container: no code checks for it
constexpr uint8_t kRaw = 1, kPingReply = 2, kCmReply = 3;
constexpr uint8_t kUartSof = 0x7e;
constexpr uint8_t kUartReplyBit = 0x80;
constexpr uint32_t kUartWakePreamble = 8;   // bytes that wake the sleeping bb partner in time
const char *const kUartPortNames[] = {"ap", "isp", "bb"};
const char *const kUartContainerNames[] = {"ping", "raw", "pingreply", "cmreply"};
const char *const kUartVersions[] = {"ap 2.4.1", "isp 1.0.7", "bb 11.30.2"};

uint8_t crc8(std::span<const uint8_t> bytes) {
    uint8_t crc = 0;
    for (uint8_t b : bytes) {
        crc ^= b;
        for (int i = 0; i < 8; ++i) crc = static_cast<uint8_t>(crc & 0x80 ? (crc << 1) ^ 0x07 : crc << 1);
    }
    return crc;
}

// 0x7e, container, length, body, CRC-8 over container, length and body.
std::vector<uint8_t> uart_frame(uint8_t container, std::span<const uint8_t> body) {
    std::vector<uint8_t> frame;
    frame.reserve(body.size() + 4);
    frame.push_back(kUartSof);
    frame.push_back(container);
    frame.push_back(static_cast<uint8_t>(body.size()));
    for (uint8_t b : body) frame.push_back(b);
    frame.push_back(crc8(std::span(frame).subspan(1)));
    return frame;
}

// The partner's answer to a command frame: command | 0x80, status, data.
std::vector<uint8_t> uart_command_reply(uint8_t port, std::span<const uint8_t> payload) {
    if (payload.empty()) return {kUartReplyBit, 0x02};
    uint8_t command = payload[0];
    auto args = payload.subspan(1);
    std::vector<uint8_t> body{static_cast<uint8_t>(command | kUartReplyBit), 0x00};
    switch (command) {
    case 0x01: {
        std::string version = kUartVersions[port];
        body.insert(body.end(), version.begin(), version.end());
        break;
    }
    case 0x02:
        for (uint8_t b : args) body.push_back(static_cast<uint8_t>(~b));
        break;
    case 0x03: {
        unsigned sum = 0;
        for (uint8_t b : args) sum += b;
        body.push_back(static_cast<uint8_t>(sum));
        body.push_back(static_cast<uint8_t>(sum >> 8));
        break;
    }
    default: body[1] = 0x01; break;
    }
    return body;
}

}  // namespace

// ---------------------------------------------------------------------------
// SPI: request chip select, length L, output length (unused), L bytes.

uint8_t BusModel::spi_exchange(uint8_t chip_select, size_t index, uint8_t mosi, uint8_t &pointer, bool &reading) {
    if (chip_select == kSpiLoopback) return mosi;
    bool device = (chip_select & kSpiDeviceBit) != 0;
    if (!device && chip_select != kSpiController) return 0xff;   // nothing drives the line
    if (index == 0) {
        reading = (mosi & kSpiReadBit) != 0;
        pointer = mosi & kSpiAddressMask;
        return 0x00;
    }
    uint8_t reg = pointer;
    pointer = (pointer + 1) & kSpiAddressMask;
    uint8_t id = chip_select & kSpiAddressMask;
    if (reading) return device ? register_value(id, reg) : spi_controller_[reg];
    if (device)
        register_store(id, reg, mosi);
    else if (reg != kSpiControllerWhoAmI)
        spi_controller_[reg] = mosi;
    return 0x00;
}

IOReturn BusModel::spi(const CallArgs &a, CallReply &r) {
    if (!booted()) return kIOReturnNotReady;
    if (a.input.size() < kSpiHeader) return kIOReturnBadArgument;
    uint8_t chip_select = a.input[0], length = a.input[1];
    if (length != a.input.size() - kSpiHeader) return kIOReturnBadArgument;
    if (chip_select & kSpiDeviceBit) {
        uint8_t device = chip_select & kSpiAddressMask;
        if (device >= kTalvexDeviceCount) return kIOReturnBadArgument;
        if (!powered(device)) return kIOReturnNoPower;
    } else if (chip_select > kSpiLastPlain) {
        return kIOReturnBadArgument;
    }
    r.output.assign(a.input.begin(), a.input.begin() + kSpiHeader);
    uint8_t pointer = 0;
    bool reading = false;
    for (size_t i = 0; i < length; ++i)
        r.output.push_back(spi_exchange(chip_select, i, a.input[kSpiHeader + i], pointer, reading));
    return kIOReturnSuccess;
}

// ---------------------------------------------------------------------------
// I2C.

BusModel::I2CTarget *BusModel::i2c_target(uint8_t port, uint8_t address) {
    for (auto &t : i2c_)
        if (t.port == port && t.address == address) return &t;
    return nullptr;
}

namespace {
// Registers the target computes rather than stores: reads give the value now,
// writes are ignored.
bool i2c_read_only(uint8_t port, uint8_t address, uint8_t reg) {
    if (port == 0 && address == kThermometer) return reg <= 0x01;
    if (port == 2 && address == kGauge) return reg == 0x00 || reg == 0x02 || reg == 0x03;
    return false;
}
}  // namespace

uint8_t BusModel::i2c_value(const I2CTarget &t, uint8_t reg) const {
    if (t.port == 0 && t.address == kThermometer && reg <= 0x01) {
        int temp = 25 * 256 + bus_wobble(now_ns(), 10'000, 128);   // 1/256 degree
        return static_cast<uint8_t>(reg == 0 ? temp >> 8 : temp);
    }
    if (t.port == 2 && t.address == kGauge && (reg == 0x02 || reg == 0x03)) {
        int millivolts = 3870 + bus_wobble(now_ns(), 60'000, 15);
        return static_cast<uint8_t>(reg == 0x02 ? millivolts >> 8 : millivolts);
    }
    return t.regs[reg];
}

// Request head: port, address, register (LE16, 0xffff none), count.
IOReturn BusModel::i2c_request(const CallArgs &a, size_t size, I2CRequest &q) {
    if (!booted()) return kIOReturnNotReady;
    if (a.input.size() != size) return kIOReturnBadArgument;
    q.port = a.input[0];
    q.address = a.input[1];
    q.count = a.input[4];
    q.reg = wire::load_le16(a.input.data() + 2);
    if (q.port >= kI2CPorts || q.address > kI2CMaxAddress || q.count > I2C::kMaxData) return kIOReturnBadArgument;
    if (q.reg != I2C::kNoRegister && q.reg > 0xff) return kIOReturnBadArgument;
    q.target = i2c_target(q.port, q.address);
    return q.target ? kIOReturnSuccess : kIOReturnNotResponding;
}

// Request: the head. Reply: count bytes.
IOReturn BusModel::i2c_read(const CallArgs &a, CallReply &r) {
    I2CRequest q;
    if (IOReturn code = i2c_request(a, I2C::kReadRequestSize, q); code != kIOReturnSuccess) return code;
    I2CTarget *t = q.target;
    if (q.reg != I2C::kNoRegister) {
        if (t->has_pointer)
            t->pointer = static_cast<uint8_t>(q.reg);
        else
            t->regs[0] = static_cast<uint8_t>(q.reg);   // taken as data: it lands in the latch
    }
    r.output.resize(q.count);
    for (uint8_t i = 0; i < q.count; ++i) {
        if (t->has_pointer) {
            r.output[i] = i2c_value(*t, t->pointer);
            t->pointer = static_cast<uint8_t>(t->pointer + 1);
        } else {
            r.output[i] = t->regs[0];
        }
    }
    return kIOReturnSuccess;
}

// Request: the head, then 16 data bytes of which the first count (0-16) go out.
IOReturn BusModel::i2c_write(const CallArgs &a, CallReply &) {
    I2CRequest q;
    if (IOReturn code = i2c_request(a, I2C::kWriteRequestSize, q); code != kIOReturnSuccess) return code;
    I2CTarget *t = q.target;

    // What goes over the bus after the address byte.
    std::vector<uint8_t> bytes;
    if (q.reg != I2C::kNoRegister) bytes.push_back(static_cast<uint8_t>(q.reg));
    bytes.insert(bytes.end(), a.input.begin() + 5, a.input.begin() + 5 + q.count);
    if (!t->has_pointer) {
        if (!bytes.empty()) t->regs[0] = bytes.back();
        return kIOReturnSuccess;
    }
    if (bytes.empty()) return kIOReturnSuccess;   // an address probe
    t->pointer = bytes[0];
    for (size_t i = 1; i < bytes.size(); ++i) {
        if (!i2c_read_only(q.port, q.address, t->pointer)) t->regs[t->pointer] = bytes[i];
        t->pointer = static_cast<uint8_t>(t->pointer + 1);
    }
    return kIOReturnSuccess;
}

// ---------------------------------------------------------------------------
// UART: request port, container, length, retries, preamble flag, preamble
// (LE32 at offset 5), 100 payload bytes.

IOReturn BusModel::uart(const CallArgs &a, CallReply &r) {
    if (!booted()) return kIOReturnNotReady;
    if (a.input.size() != Uart::kRequestSize) return kIOReturnBadArgument;
    uint8_t port = a.input[0], container = a.input[1], length = a.input[2], retries = a.input[3], flag = a.input[4];
    uint32_t preamble = wire::load_le32(a.input.data() + 5);
    if (port >= kUartPorts || container > kCmReply || length > kUartMaxPayload || retries > Uart::kMaxRetries ||
        flag > 1)
        return kIOReturnBadArgument;
    if (flag && preamble > Uart::kMaxPreamble) return kIOReturnBadArgument;
    if (container == kRaw && length == 0) return kIOReturnBadArgument;
    auto payload = a.input.subspan(Uart::kPayloadOffset, length);

    std::vector<uint8_t> frame =
        container == kRaw ? std::vector<uint8_t>(payload.begin(), payload.end()) : uart_frame(container, payload);
    uint32_t preamble_bytes = flag ? preamble : 0;
    bool misses_first = port == kUartPortBB && preamble_bytes < kUartWakePreamble;

    // Raw frames are not acknowledged: one transmission, whatever happens to it.
    unsigned needed = misses_first ? 2 : 1;
    unsigned allowed = container == kRaw ? 1 : 1u + retries;
    unsigned attempts = needed <= allowed ? needed : allowed;
    bool delivered = needed <= allowed;

    std::vector<uint8_t> reply;
    if (delivered && container == kPingReply)
        reply = uart_frame(kPingReply | kUartReplyBit, payload);
    else if (delivered && container == kCmReply)
        reply = uart_frame(kCmReply | kUartReplyBit, uart_command_reply(port, payload));
    if (reply.size() > a.output_capacity) reply.resize(static_cast<size_t>(a.output_capacity));

    trace_event(std::string("\"event\":\"uart\",\"port\":\"") + kUartPortNames[port] + "\",\"container\":\"" +
                kUartContainerNames[container] + "\",\"retries\":" + std::to_string(retries) +
                ",\"preamble\":" + (flag ? std::to_string(preamble) : std::string("null")) +
                ",\"attempts\":" + std::to_string(attempts) + ",\"delivered\":" + (delivered ? "true" : "false") +
                ",\"frame\":\"" + trace_hex(frame) + "\",\"reply\":\"" + trace_hex(reply) + "\"");
    if (!delivered && container != kRaw) return kIOReturnNotResponding;
    r.output = std::move(reply);
    return kIOReturnSuccess;
}

}  // namespace talvex::sim
