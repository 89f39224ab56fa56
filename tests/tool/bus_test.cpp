// The bus and memory commands end to end against a private simulator: what
// they print and the exact bytes and scalars that reach the driver, against
// the simulated devices. (Argument checks and stubbed failures: checks_test.cpp.)
#include "talvexctl.h"
#include "tool_support.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

namespace {

using namespace talvex::test;
using Bytes = std::vector<uint8_t>;

std::string dump(const Bytes &bytes) {
    testing::internal::CaptureStdout();
    TalvexHexDump(bytes.data(), static_cast<uint32_t>(bytes.size()));
    return testing::internal::GetCapturedStdout();
}

Bytes with(Bytes bytes, size_t size, uint8_t fill) {
    bytes.resize(size, fill);
    return bytes;
}

// The first line of an SPI read dump longer than 16 bytes: the reply area's fill.
const std::string kSpiFillLine =
    "00000000: ff ff ff ff ff ff ff ff  ff ff ff ff ff ff ff ff  | ........ ........\n";
const std::string kSpiZeroLine = ": 00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00  | ........ ........\n";

// A failed call the model made: reported by the client and by the command.
void expect_call_failed(const Simulator &sim, const Words &args, const std::string &text, const std::string &file) {
    Outcome o = run(sim, args);
    EXPECT_EQ(o.r.status, 1) << args[0];
    EXPECT_EQ(o.r.out, "") << args[0];
    EXPECT_EQ(o.err, twice(text, file)) << args[0];
    EXPECT_EQ(o.calls.size(), 1u) << args[0];
}

TEST(Registers, ReadRegAsksForTheHexLengthAndDumpsIt) {
    Simulator sim;
    TraceCall c = one_call(sim, {"readreg", "gyro", "0", "10"}, dump(with(Bytes(15, 0), 16, 0xd7)));
    EXPECT_EQ(c.selector, kTalvexMethodRegisterRead);
    EXPECT_EQ(c.input, "000010");
    EXPECT_EQ(c.output_size, 16u);
    // Only the low 8 bits of address and length count.
    c = one_call(sim, {"readreg", "accel", "10f", "101"}, dump({0x33}));
    EXPECT_EQ(c.input, "010f01");
    EXPECT_EQ(one_call(sim, {"readreg", "prox", "0", "110"}, dump(Bytes(16, 0))).input, "060010");
    c = one_call(sim, {"readreg", "talvex", "0", "0"});
    EXPECT_EQ(c.input, "030000");
    EXPECT_EQ(c.output_size, 0u);

    // Bytes the driver does not write stay 0xff; the dump covers the length asked.
    stub_once(sim, kTalvexMethodRegisterRead, "0102");
    one_call(sim, {"readreg", "corvel", "0", "4"}, dump({1, 2, 0xff, 0xff}));
}

TEST(Registers, WriteRegSendsNineteenBytesAndReadsBack) {
    Simulator sim;
    TraceCall c = one_call(sim, {"writereg", "accel", "20", "1", "2"});
    EXPECT_EQ(c.selector, kTalvexMethodRegisterWrite);
    EXPECT_EQ(c.input, "012002" "0102" + zeros(14));
    EXPECT_EQ(c.output_size, 0u);
    one_call(sim, {"readreg", "accel", "20", "2"}, dump({1, 2}));

    // Bytes are cut to 8 bits; a write runs on past 0xff to 0x00, where the
    // identity registers of talvex ignore it.
    EXPECT_EQ(one_call(sim, {"writereg", "talvex", "fe", "1ff", "2", "3"}).input, "03fe03" "ff0203" + zeros(13));
    one_call(sim, {"readreg", "talvex", "fe", "3"}, dump({0xff, 0x02, 'T'}));

    Words sixteen{"writereg", "compass", "40"};
    for (int i = 0; i < 16; ++i) sixteen.push_back(std::to_string(i));
    EXPECT_EQ(one_call(sim, sixteen).input, "024010" "00010203040506070809101112131415");
}

TEST(Registers, BbSendsOneScalarAndCmaItsBytes) {
    Simulator sim;
    TraceCall c = one_call(sim, {"bb", "3"});
    EXPECT_EQ(c.selector, kTalvexMethodSetContextLimit);
    EXPECT_EQ(c.scalars, std::vector<uint64_t>{3});
    EXPECT_EQ(one_call(sim, {"bb", "0x3"}).scalars, std::vector<uint64_t>{0});   // decimal, as atoi reads it
    Outcome o = run(sim, {"bb", "-1"});
    ASSERT_EQ(o.calls.size(), 1u);
    EXPECT_EQ(o.calls[0].scalars, std::vector<uint64_t>{0xffffffff});   // 32-bit two's complement
    EXPECT_EQ(o.err, twice(kBadArgument, "registers.cpp"));

    c = one_call(sim, {"cma"});
    EXPECT_EQ(c.selector, kTalvexMethodRawBytes);
    EXPECT_EQ(c.input, "");
    EXPECT_EQ(c.output_size, 0u);
    EXPECT_EQ(one_call(sim, {"cma", "1", "ff", "1ff", "zz", "0x7e"}).input, "01ffff007e");
    o = run(sim, {"cma", "a", "b"});
    ASSERT_EQ(o.events.size(), 1u);
    EXPECT_EQ(trace_field(o.events[0], "bytes"), "0a0b");
    Words many{"cma"};
    for (int i = 0; i < 256; ++i) many.push_back("5a");
    EXPECT_EQ(one_call(sim, many).input, hex(Bytes(256, 0x5a)));
}

TEST(Spi, ReadFormDumpsReplyAreaDataStartAndRequestBuffer) {
    Simulator sim;
    // Count 4: the length comes from the chip-select word, and the one byte
    // sent is the data area's fill.
    TraceCall c = one_call(sim, {"spi", "read", "2", "x"},
                           "00000000: ff ff                                             | ..\n");
    EXPECT_EQ(c.selector, kTalvexMethodSpiTransfer);
    EXPECT_EQ(c.input, "020100ff");
    EXPECT_EQ(c.output_size, 128u);

    // Words 4 on are data, the second-to-last is the output length (0x30):
    // 16 bytes of reply area, the first 16 of the data area, then the
    // request buffer as the driver answered it.
    stub_once(sim, kTalvexMethodSpiTransfer, "0102030405");
    one_call(sim, {"spi", "read", "5", "30", "25"},
             kSpiFillLine + "00000010: 25 ff ff ff ff ff ff ff  ff ff ff ff ff ff ff ff  | %....... ........\n"
                            "00000020: 01 02 03 04 05 00 00 00  00 00 00 00 00 00 00 00  | ........ ........\n");
    c = one_call(sim, {"spi", "read", "0", "x", "11", "22", "30", "33"},
                 kSpiFillLine + "00000010: 11 22 30 33 ff ff ff ff  ff ff ff ff ff ff ff ff  | .\"03.... ........\n"
                                "00000020: 00 05 00 11 22 30 33 ff  00 00 00 00 00 00 00 00  | ....\"03. ........\n");
    EXPECT_EQ(c.input, "000500" "112230" "33ff");
    // The gyro's own chip select speaks the register protocol: 0x8f reads
    // from WHO_AM_I on.
    c = one_call(sim, {"spi", "read", "80", "x", "8f", "0", "30", "0"},
                 kSpiFillLine + "00000010: 8f 00 30 00 ff ff ff ff  ff ff ff ff ff ff ff ff  | ..0..... ........\n"
                                "00000020: 80 05 00 00 d7 00 00 00  00 00 00 00 00 00 00 00  | ........ ........\n");
    EXPECT_EQ(c.input, "800500" "8f003000ff");
    // A length up to 16 shows only fill; one past reply area + 16 data bytes
    // + request buffer (160) stops at the request buffer's end.
    one_call(sim, {"spi", "read", "0", "x", "1", "10", "2"}, kSpiFillLine);
    Outcome o = run(sim, {"spi", "read", "0", "x", "1", "a1", "2"});
    EXPECT_EQ(o.r.status, 0);
    EXPECT_EQ(o.r.out.substr(o.r.out.size() - 2 * kSpiFillLine.size()),
              "00000080" + kSpiZeroLine + "00000090" + kSpiZeroLine);
}

TEST(Spi, WriteFormLengths) {
    Simulator sim;
    // count-2 bytes from word 4 on: the byte without a word is 0, then the fill.
    EXPECT_EQ(one_call(sim, {"spi", "write", "1", "x", "8f", "00"}).input, "010400" "8f0000ff");
    EXPECT_EQ(one_call(sim, {"spi", "write", "101", "x"}).input, "010200" "00ff");

    // Writes to the controller's registers from 0x20 (0xab, the word-less 0,
    // the fill), read back through the read form.
    one_call(sim, {"spi", "write", "1", "x", "20", "ab"});
    one_call(sim, {"spi", "read", "1", "x", "a0", "0", "30", "0"},
             kSpiFillLine + "00000010: a0 00 30 00 ff ff ff ff  ff ff ff ff ff ff ff ff  | ..0..... ........\n"
                            "00000020: 01 05 00 00 ab 00 ff 00  00 00 00 00 00 00 00 00  | ........ ........\n");

    // 125 data bytes fit (126 are refused).
    Words words{"spi", "write", "0", "x"};
    words.resize(4 + 123, "1");
    EXPECT_EQ(one_call(sim, words).input.size(), 2u * 128);
    // Chip selects the controller does not have.
    expect_call_failed(sim, {"spi", "write", "7", "x"}, kBadArgument, "spi_i2c.cpp");
}

TEST(I2C, ReadsAndWritesTargetsWithAndWithoutARegister) {
    Simulator sim;
    Bytes eeprom{'T', 'L', 'V', 'X', '-', 'C', 'A', 'L', 0x01, 0x07};
    TraceCall c = one_call(sim, {"i2c", "read", "0", "50", "10"}, dump(with(eeprom, 16, 0xff)));
    EXPECT_EQ(c.selector, kTalvexMethodI2CRead);
    EXPECT_EQ(c.input, "0050ffff10");
    EXPECT_EQ(c.output_size, 16u);
    // With no register the read runs on where the last one stopped; 0x110 counts as 0x10.
    EXPECT_EQ(one_call(sim, {"i2c", "read", "0", "50", "110"}, dump(Bytes(16, 0xff))).input, "0050ffff10");
    // Register 0x1ff keeps its low byte; the read runs on from 0xff to 0x00.
    EXPECT_EQ(one_call(sim, {"i2c", "readreg", "0", "50", "1ff", "2"}, dump({0xff, 'T'})).input, "0050ff0002");

    c = one_call(sim, {"i2c", "writereg", "0", "50", "20", "de", "ad"});
    EXPECT_EQ(c.selector, kTalvexMethodI2CWrite);
    EXPECT_EQ(c.input, "0050200002" "dead" + zeros(14));
    one_call(sim, {"i2c", "readreg", "0", "50", "20", "2"}, dump({0xde, 0xad}));
    // Without a register the first byte written moves the pointer.
    EXPECT_EQ(one_call(sim, {"i2c", "write", "0", "50", "30", "be", "ef"}).input, "0050ffff03" "30beef" + zeros(13));
    one_call(sim, {"i2c", "write", "0", "50", "30"});
    one_call(sim, {"i2c", "read", "0", "50", "2"}, dump({0xbe, 0xef}));
    // The expander has no pointer: it keeps the last byte.
    one_call(sim, {"i2c", "write", "1", "20", "0", "5a"});
    one_call(sim, {"i2c", "read", "1", "20", "2"}, dump({0x5a, 0x5a}));

    Words sixteen{"i2c", "write", "0", "50"};
    for (int i = 0; i < 16; ++i) sixteen.push_back("7");
    EXPECT_EQ(one_call(sim, sixteen).input, "0050ffff10" + hex(Bytes(16, 7)));

    // Nothing at that address: reported by the operation and the command.
    expect_call_failed(sim, {"i2c", "read", "0", "51", "1"}, kNotResponding, "spi_i2c.cpp");
    expect_call_failed(sim, {"i2c", "writereg", "2", "37", "0", "1"}, kNotResponding, "spi_i2c.cpp");
}

TEST(Memory, MemKeepsWhatItWrites) {
    Simulator sim;
    TraceCall c = one_call(sim, {"mem", "write", "100", "0", "de", "ad", "be", "ef"});
    EXPECT_EQ(c.selector, kTalvexMethodMemoryWrite);
    EXPECT_EQ(c.input, "00010000" "00" "04" "deadbeef" + zeros(12));
    c = one_call(sim, {"mem", "read", "fe", "0", "8"}, dump({0, 0, 0xde, 0xad, 0xbe, 0xef, 0, 0}));
    EXPECT_EQ(c.selector, kTalvexMethodMemoryRead);
    EXPECT_EQ(c.input, "fe000000" "00" "08");
    EXPECT_EQ(c.output_size, 8u);
    // Addresses keep their low 32 bits; one byte still sends 22.
    EXPECT_EQ(one_call(sim, {"mem", "write", "1ffffffff", "103", "1ff"}).input, "ffffffff" "03" "01" "ff" + zeros(15));
    one_call(sim, {"mem", "read", "ffffffff", "3", "1"}, dump({0xff}));
    c = one_call(sim, {"mem", "read", "0", "0", "0"});
    EXPECT_EQ(c.input, "00000000" "00" "00");
    EXPECT_EQ(one_call(sim, {"mem", "read", "0", "0", "110"}, dump(Bytes(16, 0))).input, "00000000" "00" "10");

    expect_call_failed(sim, {"mem", "write", "0", "1", "1"}, "(iokit/common) write not supported (0xe00002cf)",
                       "memory.cpp");   // the rom
    expect_call_failed(sim, {"mem", "read", "0", "4", "1"}, kBadArgument, "memory.cpp");
}

TEST(Memory, GpioParsesDecimal) {
    Simulator sim;
    TraceCall c = one_call(sim, {"gpio", "write", "10", "1"});
    EXPECT_EQ(c.selector, kTalvexMethodGpioSet);
    EXPECT_EQ(c.scalars, (std::vector<uint64_t>{10, 1}));
    c = one_call(sim, {"gpio", "read", "10"}, dump({1}));
    EXPECT_EQ(c.selector, kTalvexMethodGpioRead);
    EXPECT_EQ(c.scalars, std::vector<uint64_t>{10});
    EXPECT_EQ(c.scalar_output_count, 1u);
    EXPECT_EQ(one_call(sim, {"gpio", "read", "0x10"}, dump({1})).scalars, std::vector<uint64_t>{0});
    EXPECT_EQ(one_call(sim, {"gpio", "read", "266"}, dump({1})).scalars, std::vector<uint64_t>{10});

    // Line 2 is an input.
    expect_call_failed(sim, {"gpio", "write", "2", "1"}, "(iokit/common) not permitted (0xe00002e2)", "memory.cpp");
}

TEST(Memory, PmuMaskSwitchesTheImuRail) {
    Simulator sim;
    one_call(sim, {"writereg", "gyro", "21", "44"});
    TraceCall c = one_call(sim, {"pmu", "3"});
    EXPECT_EQ(c.selector, kTalvexMethodPowerRails);
    EXPECT_EQ(c.scalars, std::vector<uint64_t>{3});
    expect_call_failed(sim, {"readreg", "gyro", "21", "1"}, "(iokit/common) no power to device (0xe00002e3)",
                       "registers.cpp");
    one_call(sim, {"readreg", "compass", "a", "3"}, dump({'H', '4', '3'}));   // not on that rail
    EXPECT_EQ(one_call(sim, {"pmu", "100000007"}).scalars, std::vector<uint64_t>{7});
    one_call(sim, {"readreg", "gyro", "20", "2"}, dump({0x07, 0x00}));   // back with power-on values

    expect_call_failed(sim, {"pmu", "8"}, kBadArgument, "memory.cpp");
}

TEST(Properties, GetAndSetTakeNumbersAndCutTheDevice) {
    Simulator sim;
    Bytes value(128);
    for (size_t i = 0; i < value.size(); ++i) value[i] = static_cast<uint8_t>(i * 3);
    stub_once(sim, kTalvexMethodGetProperty, hex(value));
    TraceCall c = one_call(sim, {"get", "103", "ffffffff"}, dump(value));
    EXPECT_EQ(c.selector, kTalvexMethodGetProperty);
    EXPECT_EQ(c.scalars, (std::vector<uint64_t>{3, 0xffffffff}));
    EXPECT_EQ(c.output_size, 128u);
    stub_once(sim, kTalvexMethodGetProperty, "0102", {"--output-size", "0"});
    EXPECT_EQ(one_call(sim, {"get", "accel", "0x1"}).scalars, (std::vector<uint64_t>{0xce, 1}));
    stub_once(sim, kTalvexMethodGetProperty, "0a0b0c");
    one_call(sim, {"get", "0x1", "2"}, dump({0x0a, 0x0b, 0x0c}));

    // Against the device model: property numbers are hexadecimal, 16 is the
    // talvex report rate (22), and what set wrote get reads back.
    c = one_call(sim, {"set", "103", "16", "3c"});
    EXPECT_EQ(c.selector, kTalvexMethodSetProperty);
    EXPECT_EQ(c.scalars, (std::vector<uint64_t>{3, 22, 0x3c}));
    EXPECT_EQ(one_call(sim, {"get", "3", "16"}, dump({0x3c, 0, 0, 0})).scalars, (std::vector<uint64_t>{3, 22}));

    // A failure: the client describes the call, then two reports.
    const std::pair<Words, std::string> failures[] = {
        {{"get", "2", "1ff"},
         R"(TalvexGetProperty\(handle=0x[0-9a-f]+,dev=2,prop=1ff,size=128\) -> e00002c7\n)"},
        {{"set", "1", "2", "ffffffff"},
         R"(TalvexSetProperty\(handle=0x[0-9a-f]+,dev=1,prop=2,val=ffffffff\) -> e00002c7\n)"},
    };
    for (const auto &[args, out] : failures) {
        stub_code(sim, args[0] == "get" ? kTalvexMethodGetProperty : kTalvexMethodSetProperty, "0xe00002c7");
        Outcome o = run(sim, args);
        EXPECT_EQ(o.r.status, 1) << args[0];
        EXPECT_EQ(o.err, twice(kUnsupported, "properties.cpp")) << args[0];
        EXPECT_TRUE(std::regex_match(o.r.out, std::regex(out))) << o.r.out;
    }
}

// The 109-byte request: port, container, length, retry, flag, preamble (LE32 at 5), payload.
std::string uart_request(uint8_t port, uint8_t container, uint8_t retry, uint32_t preamble, const Bytes &payload) {
    Bytes head{port, container, static_cast<uint8_t>(payload.size()), retry, preamble != 0xffffffff ? uint8_t{1} : uint8_t{0},
               static_cast<uint8_t>(preamble), static_cast<uint8_t>(preamble >> 8), static_cast<uint8_t>(preamble >> 16),
               static_cast<uint8_t>(preamble >> 24)};
    return hex(head) + hex(with(payload, 100, 0));
}

TEST(Uart, PacksTheRequestWithItsDefaultsAndOption) {
    Simulator sim;
    TraceCall c = one_call(sim, {"uart", "ping", "ap"});
    EXPECT_EQ(c.selector, kTalvexMethodUartTest);
    EXPECT_EQ(c.input, uart_request(0, 0, 3, 0xffffffff, {}));
    EXPECT_EQ(c.output_size, 100u);
    const uint32_t none = 0xffffffff;
    const std::pair<Words, std::string> requests[] = {
        {{"uart", "raw", "isp", "1", "2"}, uart_request(1, 1, 3, 0, {1, 2})},
        {{"uart", "ping", "bb", "--retry", "100"}, uart_request(2, 0, 100, none, {})},
        {{"uart", "ping", "ap", "--preamble", "4096"}, uart_request(0, 0, 3, 4096, {})},
        // One option only: a second is payload.
        {{"uart", "ping", "ap", "--preamble", "8", "--retry", "5"}, uart_request(0, 0, 3, 8, {0x00, 0x05})},
        // A single word of three characters or more is text.
        {{"uart", "ping", "ap", "abc"}, uart_request(0, 0, 3, none, {'a', 'b', 'c'})},
        {{"uart", "ping", "ap", "ab"}, uart_request(0, 0, 3, none, {0xab})},
        {{"uart", "ping", "ap", "0x5"}, uart_request(0, 0, 3, none, {'0', 'x', '5'})},
    };
    for (const auto &[args, request] : requests) EXPECT_EQ(one_call(sim, args).input, request) << args.back();
    Words hexes{"uart", "cmreply", "ap"};
    hexes.resize(3 + 99, "1ee");
    EXPECT_EQ(one_call(sim, hexes, dump({0x7e, 0x83, 0x02, 0xee, 0x01, 0x4f})).input,
              uart_request(0, 3, 0, none, Bytes(99, 0xee)));
}

TEST(Uart, RepliesDependOnThePayloadAndTheLinkIsLogged) {
    Simulator sim;
    one_call(sim, {"uart", "pingreply", "ap", "abc"}, dump({0x7e, 0x82, 0x03, 'a', 'b', 'c', 0x36}));
    one_call(sim, {"uart", "cmreply", "isp", "2", "f0", "0f"}, dump({0x7e, 0x83, 0x04, 0x82, 0x00, 0x0f, 0xf0, 0x18}));
    stub_once(sim, kTalvexMethodUartTest, "0102");
    one_call(sim, {"uart", "ping", "ap", "1"});   // ping prints nothing even when bytes come back

    // The bb partner misses a frame without a long enough preamble.
    Outcome o = run(sim, {"uart", "pingreply", "bb", "1"});
    EXPECT_EQ(o.r.out, "");
    EXPECT_EQ(o.err, twice(kNotResponding, "uart.cpp"));
    ASSERT_EQ(o.events.size(), 1u);
    EXPECT_EQ(o.events[0],
              R"({"service":"ZantraTalvexProcessor","event":"uart","port":"bb","container":"pingreply","retries":0,)"
              R"("preamble":null,"attempts":1,"delivered":false,"frame":"7e020101c4","reply":""})");
    o = run(sim, {"uart", "pingreply", "bb", "--retry", "1", "1"});
    EXPECT_EQ(o.r.status, 0) << o.r.err;
    ASSERT_EQ(o.events.size(), 1u);
    EXPECT_EQ(trace_field(o.events[0], "attempts"), "2");
    o = run(sim, {"uart", "pingreply", "bb", "--preamble", "8", "1"});
    EXPECT_EQ(o.r.status, 0) << o.r.err;
    ASSERT_EQ(o.events.size(), 1u);
    EXPECT_EQ(trace_field(o.events[0], "attempts"), "1");
    EXPECT_EQ(trace_field(o.events[0], "preamble"), "8");
}

}  // namespace
