// Device table, hex dump, number parsing and code texts.
#include "talvexctl.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

const TalvexDevice kTalvexDevices[] = {
    {"gyro", kTalvexDeviceGyro},
    {"accel", kTalvexDeviceAccel},
    {"compass", kTalvexDeviceCompass},
    {"pressure", kTalvexDevicePressure},   // before talvex: the power log walks the rows in this order
    {"talvex", kTalvexDeviceTalvex},
    {"corvel", kTalvexDeviceCorvel},
    {"prox", kTalvexDeviceProx},
    {nullptr, kTalvexNoDevice},
};

uint8_t TalvexDeviceLookup(const char *word) {
    for (const TalvexDevice *row = kTalvexDevices; row->name; ++row)
        if (std::strcmp(row->name, word) == 0) return row->id;
    return kTalvexNoDevice;
}

void TalvexHexDump(const void *bytes, uint32_t length) {
    static const char kHex[] = "0123456789abcdef";
    const auto *data = static_cast<const uint8_t *>(bytes);
    char line[94];
    for (uint32_t offset = 0; offset < length; offset += 16) {
        uint32_t count = length - offset < 16 ? length - offset : 16;
        const uint8_t *row = data + offset;
        size_t n = static_cast<size_t>(std::snprintf(line, sizeof line, "%08x: ", offset));
        for (uint32_t i = 0; i < 16; ++i) {
            if (i < count) {
                line[n++] = kHex[row[i] >> 4];
                line[n++] = kHex[row[i] & 0xf];
                line[n++] = ' ';
            } else {
                line[n++] = ' ';
                line[n++] = ' ';
                line[n++] = ' ';
            }
            if (i == 7) line[n++] = ' ';
        }
        line[n++] = ' ';
        line[n++] = '|';
        line[n++] = ' ';
        for (uint32_t i = 0; i < count; ++i) {
            line[n++] = row[i] >= 0x21 && row[i] <= 0x7e ? static_cast<char>(row[i]) : '.';
            if (i == 7) line[n++] = ' ';
        }
        line[n++] = '\n';
        std::fwrite(line, 1, n, stdout);
    }
}

long TalvexParseHex(const char *word) { return std::strtol(word, nullptr, 16); }

long TalvexParseDec(const char *word) { return std::strtol(word, nullptr, 10); }

long long TalvexParseHex64(const char *word) { return std::strtoll(word, nullptr, 16); }

uint8_t TalvexParseHexByte(const char *word) { return static_cast<uint8_t>(TalvexParseHex(word)); }

IOReturn TalvexReadProperty(TalvexHandle *talvex, uint8_t device, uint32_t property, void *value, uint32_t *size) {
    uint64_t input[2] = {device, property};
    size_t out_size = *size;
    IOReturn result = IOConnectCallMethod(talvex->connection, kTalvexMethodGetProperty, input, 2, nullptr, 0, nullptr,
                                          nullptr, value, &out_size);
    if (result == 0) *size = static_cast<uint32_t>(out_size);
    return result;
}

IOReturn TalvexReadAndDump(TalvexHandle *talvex, uint32_t selector, const void *request, size_t request_size,
                           uint8_t length) {
    uint8_t reply[kTalvexReadDumpMax];
    std::memset(reply, 0xff, sizeof reply);
    size_t reply_size = length;
    IOReturn result = TalvexCallStruct(talvex, selector, request, request_size, reply, &reply_size);
    if (result == 0) TalvexHexDump(reply, length);
    return result;
}

const char *TalvexCodeText(IOReturn code) {
    const char *text = mach_error_string(code);
    return text ? text : "";
}
