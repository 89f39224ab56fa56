// SPI and I2C commands: spi, i2c.
#include "talvexctl.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

// spi: a read dump starts at the handler's 16-byte reply area and runs on
// through the first 16 bytes of the data area into the request buffer that
// the driver answers in. The data area itself holds 125 bytes, so that every
// byte sent comes from a parsed word or the fill; only its first 16 are shown.
// A dump never runs past the request buffer: a longer one stops there.
constexpr size_t kSpiReplyAreaSize = 16;
constexpr size_t kSpiDataSize = 125;
constexpr size_t kSpiDataShown = 16;
constexpr size_t kSpiHeaderSize = 3;   // chip select, input length, output length
constexpr size_t kSpiRequestSize = kSpiHeaderSize + kSpiDataSize;
constexpr size_t kSpiDumpLimit = kSpiReplyAreaSize + kSpiDataShown + kSpiRequestSize;

constexpr size_t kI2CBufferSize = 16;

int i2c_read(const char *port_word, const char *address_word, const char *reg_word, const char *len_word) {
    uint8_t port = TalvexParseHexByte(port_word);
    uint8_t address = TalvexParseHexByte(address_word);
    uint8_t reg = reg_word ? TalvexParseHexByte(reg_word) : 0;
    uint8_t len = TalvexParseHexByte(len_word);
    uint8_t buffer[kI2CBufferSize];
    if (!TALVEX_CHECK(len <= sizeof(buffer), "len <= sizeof(buffer)")) return 1;
    std::memset(buffer, 0xff, sizeof buffer);

    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    IOReturn result = TalvexI2CRead(talvex, port, address, reg_word ? &reg : nullptr, buffer, len);
    if (result == 0) TalvexHexDump(buffer, len);
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}

// `words` are the data words, `count` of them.
int i2c_write(const char *port_word, const char *address_word, const char *reg_word, char *words[], int count) {
    uint8_t port = TalvexParseHexByte(port_word);
    uint8_t address = TalvexParseHexByte(address_word);
    uint8_t reg = reg_word ? TalvexParseHexByte(reg_word) : 0;
    uint8_t buffer[kI2CBufferSize] = {};
    // Words past the buffer are refused below, whatever they hold.
    for (int i = 0; i < count && static_cast<size_t>(i) < sizeof(buffer); ++i) buffer[i] = TalvexParseHexByte(words[i]);
    auto len = static_cast<uint32_t>(count);
    if (!TALVEX_CHECK(len <= sizeof(buffer), "len <= sizeof(buffer)")) return 1;

    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    IOReturn result = TalvexI2CWrite(talvex, port, address, reg_word ? &reg : nullptr, buffer, len);
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}

}  // namespace

// spi read <cs> [<byte0> ...] <len> | spi write <cs> [<byte0> ...]
//
// Read form: the output length is the second-to-last word, the data area
// takes words 4 onward and the input length is one more than that, so the
// last byte sent is the data area's 0xff fill. Write form: the input length
// is count-2, from word 4 onward; the one byte without a word is 0. The
// read form dumps from the reply area, not from the driver's reply (at most
// reply area + 16 data bytes + request buffer: 160 bytes).
int TalvexCmdSpi(int argc, char *argv[]) {
    if (!TALVEX_CHECK(argc > 3, "argc > 3")) return 1;
    bool read;
    if (std::strcmp(argv[1], "read") == 0) {
        read = true;
    } else if (std::strcmp(argv[1], "write") == 0) {
        read = false;
    } else {
        TALVEX_ASSERT_REPORT("", "expected 'read' or 'write'", 0);
        return 1;
    }

    // What a read dump shows, in order: the reply area, the start of the data
    // area, the request buffer.
    uint8_t shown[kSpiDumpLimit];
    uint8_t data[kSpiDataSize];
    std::memset(shown, 0xff, kSpiReplyAreaSize);
    std::memset(data, 0xff, sizeof data);
    uint8_t *request = shown + kSpiReplyAreaSize + kSpiDataShown;
    std::memset(request, 0, kSpiRequestSize);

    uint8_t output_length = 0;
    uint8_t input_length;
    if (read) {
        output_length = TalvexParseHexByte(argv[argc - 2]);
        auto count = static_cast<size_t>(argc - 4);
        for (size_t i = 0; i < count && i < kSpiDataSize; ++i) data[i] = TalvexParseHexByte(argv[4 + i]);
        input_length = static_cast<uint8_t>(argc - 3);
    } else {
        auto count = static_cast<size_t>(argc - 3);
        for (size_t i = 0; i < count && i < kSpiDataSize; ++i)
            data[i] = 4 + i < static_cast<size_t>(argc) ? TalvexParseHexByte(argv[4 + i]) : 0;
        input_length = static_cast<uint8_t>(argc - 2);
    }
    if (!TALVEX_CHECK(input_length > 0 || output_length > 0, "inputLength > 0 || outputLength > 0")) return 1;

    // A plain number is the chip select; a device's own is 0x80 | its identifier.
    // Word 1 is always "read" or "write" here, so the lookup never matches:
    // the command has always looked there, and keeps doing so.
    uint8_t device = TalvexDeviceLookup(argv[1]);
    uint8_t chip_select =
        device != kTalvexNoDevice ? static_cast<uint8_t>(0x80 | device) : TalvexParseHexByte(argv[2]);

    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    if (!TALVEX_CHECK(input_length <= kSpiDataSize, "inputLength <= sizeof(dataBuffer)")) {
        TalvexClose(talvex);
        return 1;
    }
    request[0] = chip_select;
    request[1] = input_length;
    request[2] = 0;   // the output length has no field value of its own
    std::memcpy(request + kSpiHeaderSize, data, input_length);
    size_t reply_size = kSpiRequestSize;
    size_t request_size = kSpiHeaderSize + input_length;
    IOReturn result = TalvexCallStruct(talvex, kTalvexMethodSpiTransfer, request, request_size, request, &reply_size);
    if (result == 0 && read) {
        std::memcpy(shown + kSpiReplyAreaSize, data, kSpiDataShown);
        TalvexHexDump(shown, static_cast<uint32_t>(std::min<size_t>(output_length, kSpiDumpLimit)));
    }
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}

// i2c read <port> <addr> <len> | write <port> <addr> <data> ... |
//     readreg <port> <addr> <reg> <len> | writereg <port> <addr> <reg> <data> ...
int TalvexCmdI2C(int argc, char *argv[]) {
    if (!TALVEX_CHECK(argc > 2, "argc > 2")) return 1;
    const char *form = argv[1];
    if (std::strcmp(form, "read") == 0) {
        if (!TALVEX_CHECK(argc == 5, "argc == 5")) return 1;
        return i2c_read(argv[2], argv[3], nullptr, argv[4]);
    }
    if (std::strcmp(form, "readreg") == 0) {
        if (!TALVEX_CHECK(argc == 6, "argc == 6")) return 1;
        return i2c_read(argv[2], argv[3], argv[4], argv[5]);
    }
    if (std::strcmp(form, "write") == 0) {
        if (!TALVEX_CHECK(argc >= 5, "argc >= 5")) return 1;
        return i2c_write(argv[2], argv[3], nullptr, argv + 4, argc - 4);
    }
    if (std::strcmp(form, "writereg") == 0) {
        if (!TALVEX_CHECK(argc >= 6, "argc >= 6")) return 1;
        return i2c_write(argv[2], argv[3], argv[4], argv + 5, argc - 5);
    }
    std::printf("Unknown command: %s\n", form);
    return 1;
}
