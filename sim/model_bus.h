// The buses and memory behind the coprocessor, as its firmware serves them:
// sensor registers (6, 7), the context limit (8), raw bytes (9), GPIO (11,
// 12), power rails (16), SPI (5), I2C (34, 35), UART test frames (36) and
// coprocessor memory (37, 38). Every one of them needs running firmware and
// answers kIOReturnNotReady unless the coprocessor is booted.
//
// Devices (the tool's device identifiers):
//
//   register files  every sensor device 0-6 has 256 registers. Identity
//                   registers are fixed; data registers follow the simulated
//                   clock; both ignore writes. Every other register keeps
//                   what is written. An access runs on from the address
//                   given, wrapping from 0xff to 0x00.
//                     gyro     0x0f WHO_AM_I 0xd7, 0x28-0x2d rate x/y/z (LE16)
//                     accel    0x0f WHO_AM_I 0x33, 0x28-0x2d x/y/z, z near 1 g
//                     compass  0x0a-0x0c "H43", 0x03-0x08 field x/z/y (BE16)
//                     talvex   0x00-0x03 "TLVX", 0x04 hardware rev 0x21
//                     pressure 0xd0 chip id 0x58, 0xf7-0xf9 pressure (20-bit)
//                     corvel   0x00 id 0xc5, 0x01 rev 0x02
//                     prox     0x92 id 0xab, 0x9c-0x9d proximity count (LE16)
//                   gyro and accel sit on the PP3V0_IMU rail: with it off
//                   they answer kIOReturnNoPower, and they come back with
//                   their power-on registers.
//   power rails     mask 0x07 at start (0x01 PPV1V2_TALVEX, 0x02 PPV1V8_TALVEX,
//                   0x04 PP3V0_IMU); other bits are kIOReturnBadArgument.
//   context limit   0 to 3.
//   GPIO            lines 0-31. Lines 0-3 are inputs (0 AP wake request, high;
//                   1 low; 2 high; 3 the sensors' data-ready interrupt, a
//                   square wave of 10 ms period): driving one is
//                   kIOReturnNotPermitted. Lines 4-31 are outputs, low at
//                   start, that take 0 or 1.
//   memory          blocks 0 sram, 1 rom, 2 shared, 3 retention, each a 32-bit
//                   address space. Written bytes are kept in 256-byte pages
//                   made on first write (at most kMaxPagesPerBlock per
//                   block, then kIOReturnNoMemory); bytes never written read
//                   0. The rom reads a fixed pattern and refuses writes
//                   (kIOReturnNotWritable). An access may not run past
//                   0xffffffff.
//   SPI             chip select 0: loopback (what is shifted out comes back);
//                   1: a controller with 128 registers and a register
//                   protocol (first byte: bit 7 read, bits 0-6 address; then
//                   one register per byte, running on; 0x0f WHO_AM_I 0x6c);
//                   2, 3: nothing attached (0xff back); 0x80 | device: that
//                   sensor's register file with the same protocol (registers
//                   0x00-0x7f). Others are kIOReturnBadArgument. The reply is
//                   the request's 3 header bytes followed by one byte clocked
//                   in for each byte shifted out.
//   I2C             port 0: 0x50 a 256-byte calibration EEPROM, 0x48 a
//                   temperature sensor (0x00-0x01 temperature, 1/256 degree,
//                   BE16, read-only; 0x02 config; 0x03-0x06 limits); port 1:
//                   0x20 an 8-bit I/O expander with no register pointer (a
//                   write sets its latch to the last byte, a read returns the
//                   latch); port 2: 0x36 a fuel gauge (0x00 id 0x5a, 0x02-0x03
//                   voltage in mV, BE16). A target with a register pointer
//                   sets it from the register field, or, with none, from the
//                   first byte written; reads run on from it. A target with
//                   no pointer takes a register as one more data byte. An
//                   address nothing answers is kIOReturnNotResponding; ports
//                   above 2, addresses above 0x7f and registers above 0xff
//                   (other than 0xffff, none) are kIOReturnBadArgument.
//   UART            ports 0 ap, 1 isp, 2 bb. A frame on the link is the
//                   preamble (that many 0x55 bytes, when set), then 0x7e, the
//                   container, the length, the payload and a CRC-8 (poly
//                   0x07) over container, length and payload; raw sends the
//                   payload alone. The partner acknowledges ping, echoes the
//                   payload of pingreply in its reply frame (container 0x82)
//                   and answers cmreply (0x83) with the command byte | 0x80, a
//                   status and the command's data: 01 version text, 02 the
//                   arguments inverted, 03 their sum (LE16); any other command
//                   status 1, an empty payload status 2. The bb partner
//                   sleeps: without a preamble of at least 8 bytes it wakes
//                   on the first frame and misses it, so a frame needs one
//                   retry; with none left that is kIOReturnNotResponding.
//
// What the model did shows in the trace, beside the call lines (an event
// line comes before the line of the call that caused it):
//   {"service":S,"event":"bb","context_max":N}
//   {"service":S,"event":"cma","bytes":"hex"}
//   {"service":S,"event":"pmu","mask":N,"previous":N}
//   {"service":S,"event":"uart","port":"bb","container":"pingreply","retries":N,
//    "preamble":N|null,"attempts":N,"delivered":true|false,"frame":"hex","reply":"hex"}
#pragma once

#include <IOKit/IOReturn.h>

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "coprocessor.h"
#include "talvex_driver.h"
#include "user_client.h"

namespace talvex::sim {

// A triangle wave of the simulated time: `amplitude` either side of zero,
// once every `period_ms` (not 0). The clock-driven readings wobble with it.
int bus_wobble(uint64_t now_ns, uint32_t period_ms, int amplitude);

class BusModel {
public:
    static constexpr size_t kRegisterCount = 256;
    static constexpr size_t kGpioCount = 32;
    static constexpr size_t kMemoryBlocks = 4;
    static constexpr size_t kPageSize = 256;
    static constexpr size_t kMaxPagesPerBlock = 4096;
    static constexpr uint32_t kRailMask = 0x07;
    static constexpr uint32_t kRailImu = 0x04;

    explicit BusModel(Coprocessor &cop);

    // The external methods it serves, bound to their selectors by
    // install_bus_methods.
    using Method = IOReturn(const CallArgs &a, CallReply &r);
    Method spi, read_registers, write_registers, context_limit, raw_bytes, gpio_set, gpio_read, power_rails, i2c_read,
        i2c_write, uart, memory_read, memory_write;

    // How many memory pages a block holds (for tests of the bound).
    size_t pages(size_t block) const { return block < kMemoryBlocks ? memory_[block].size() : 0; }

private:
    using RegisterFile = std::array<uint8_t, kRegisterCount>;
    using Page = std::array<uint8_t, kPageSize>;

    // One I2C target: a register file with or without a register pointer.
    struct I2CTarget {
        uint8_t port = 0, address = 0;
        bool has_pointer = true;
        RegisterFile regs{};
        uint8_t pointer = 0;
    };

    bool booted() const;
    uint64_t now_ns() const;
    void trace_event(const std::string &fields);

    // Registers of a sensor device. A read of a clock-driven register gives
    // its value now; writes to fixed and clock-driven registers are ignored.
    bool powered(uint8_t device) const;
    uint8_t register_value(uint8_t device, uint8_t reg) const;
    void register_store(uint8_t device, uint8_t reg, uint8_t value);
    void reset_registers(uint8_t device);

    uint8_t spi_exchange(uint8_t chip_select, size_t index, uint8_t mosi, uint8_t &pointer, bool &reading);

    I2CTarget *i2c_target(uint8_t port, uint8_t address);
    uint8_t i2c_value(const I2CTarget &t, uint8_t reg) const;
    // The head that reads and writes share: port, address, register, count.
    struct I2CRequest {
        uint8_t port = 0, address = 0, count = 0;
        uint16_t reg = 0;
        I2CTarget *target = nullptr;
    };
    IOReturn i2c_request(const CallArgs &a, size_t size, I2CRequest &request);

    uint8_t memory_value(size_t block, uint32_t address) const;

    Coprocessor &cop_;
    std::array<RegisterFile, kTalvexDeviceCount> registers_{};
    RegisterFile spi_controller_{};
    std::vector<I2CTarget> i2c_;
    std::array<uint8_t, kGpioCount> gpio_{};
    uint32_t rails_ = kRailMask;
    uint32_t context_max_ = 3;
    std::array<std::map<uint32_t, Page>, kMemoryBlocks> memory_;
};

}  // namespace talvex::sim
