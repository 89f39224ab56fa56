// Operations that wrap one driver method each. Request structures are laid
// out byte by byte, multi-byte fields little-endian.
#include "talvex_client.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

IOReturn TalvexCallScalar(TalvexHandle *talvex, uint32_t selector, const uint64_t *input, uint32_t input_count,
                          uint64_t *output, uint32_t *output_count) {
    IOReturn result =
        IOConnectCallScalarMethod(talvex->connection, selector, input, input_count, output, output_count);
    TALVEX_CALL_OK(result);
    return result;
}

IOReturn TalvexCallStruct(TalvexHandle *talvex, uint32_t selector, const void *input, size_t input_size,
                          void *output, size_t *output_size) {
    IOReturn result = IOConnectCallStructMethod(talvex->connection, selector, input, input_size, output, output_size);
    TALVEX_CALL_OK(result);
    return result;
}

IOReturn TalvexSelectFirmware(TalvexHandle *talvex, uint64_t firmware) {
    uint64_t input[1] = {firmware};
    return TalvexCallScalar(talvex, kTalvexMethodSelectFirmware, input, 1, nullptr, nullptr);
}

IOReturn TalvexGetProperty(TalvexHandle *talvex, uint8_t device, uint64_t property, void *reply,
                           uint32_t *size) {
    uint32_t prop = static_cast<uint32_t>(property);
    uint64_t input[2] = {device, prop};
    size_t reply_size = *size;
    IOReturn result = IOConnectCallMethod(talvex->connection, kTalvexMethodGetProperty, input, 2, nullptr, 0, nullptr,
                                          nullptr, reply, &reply_size);
    if (result == 0) {
        *size = static_cast<uint32_t>(reply_size);
    } else {
        TALVEX_ASSERT_REPORT("result == 0 ", nullptr, result);
        std::printf("TalvexGetProperty(handle=%p,dev=%d,prop=%x,size=%d) -> %x\n", static_cast<void *>(talvex),
                    static_cast<int>(device), prop, static_cast<int>(*size), static_cast<uint32_t>(result));
    }
    return result;
}

IOReturn TalvexSetProperty(TalvexHandle *talvex, uint8_t device, uint64_t property, uint64_t value) {
    uint32_t prop = static_cast<uint32_t>(property);
    uint32_t val = static_cast<uint32_t>(value);
    uint64_t input[3] = {device, prop, val};
    IOReturn result = TalvexCallScalar(talvex, kTalvexMethodSetProperty, input, 3, nullptr, nullptr);
    if (result != 0) {
        std::printf("TalvexSetProperty(handle=%p,dev=%d,prop=%x,val=%x) -> %x\n", static_cast<void *>(talvex),
                    static_cast<int>(device), prop, val, static_cast<uint32_t>(result));
    }
    return result;
}

IOReturn TalvexProfileQuery(TalvexHandle *talvex, uint32_t first, uint32_t second, void *reply) {
    uint8_t request[TalvexProfileEntryLayout::kRequestSize] = {};
    store_le32(request + 0, first);
    store_le32(request + 4, second);
    // bytes 8..71: a text field this operation leaves zero
    size_t reply_size = TalvexProfileEntryLayout::kReplySize;
    return TalvexCallStruct(talvex, kTalvexMethodProfileEntry, request, sizeof request, reply, &reply_size);
}

IOReturn TalvexClockRedirect(TalvexHandle *talvex, uint64_t value) {
    uint64_t input[1] = {value};
    return TalvexCallScalar(talvex, kTalvexMethodClockRedirect, input, 1, nullptr, nullptr);
}

IOReturn TalvexClientList(TalvexHandle *talvex, uint8_t first, uint32_t second, void *reply) {
    uint8_t request[TalvexClientListLayout::kRequestSize];
    request[0] = first;
    store_le32(request + 1, second);
    size_t reply_size = TalvexClientListLayout::kReplySize;
    return TalvexCallStruct(talvex, kTalvexMethodClientList, request, sizeof request, reply, &reply_size);
}

IOReturn TalvexI2CRead(TalvexHandle *talvex, uint8_t port, uint8_t address, const uint8_t *reg, void *reply,
                       uint32_t length) {
    uint8_t request[TalvexI2CLayout::kReadRequestSize];
    request[0] = port;
    request[1] = address;
    store_le16(request + 2, reg ? *reg : TalvexI2CLayout::kNoRegister);
    request[4] = static_cast<uint8_t>(length);
    size_t reply_size = length;
    return TalvexCallStruct(talvex, kTalvexMethodI2CRead, request, sizeof request, reply, &reply_size);
}

IOReturn TalvexI2CWrite(TalvexHandle *talvex, uint8_t port, uint8_t address, const uint8_t *reg,
                        const void *data, uint32_t length) {
    if (length > TalvexI2CLayout::kMaxData) {
        // Callers refuse longer writes before they get here.
        std::fprintf(stderr, "TalvexI2CWrite: length %u exceeds %zu data bytes\n", length, TalvexI2CLayout::kMaxData);
        std::abort();
    }
    uint8_t request[TalvexI2CLayout::kWriteRequestSize] = {};
    request[0] = port;
    request[1] = address;
    store_le16(request + 2, reg ? *reg : TalvexI2CLayout::kNoRegister);
    request[4] = static_cast<uint8_t>(length);
    if (length) std::memcpy(request + 5, data, length);
    return TalvexCallStruct(talvex, kTalvexMethodI2CWrite, request, sizeof request, nullptr, nullptr);
}

IOReturn TalvexPerfmonCall(TalvexHandle *talvex, uint32_t first, uint32_t second, const void *input,
                           size_t input_size, void *output, size_t *output_size) {
    uint64_t scalars[2] = {first, second};
    IOReturn result = IOConnectCallMethod(talvex->connection, kTalvexMethodPerfMonitor, scalars, 2, input, input_size,
                                          nullptr, nullptr, output, output_size);
    TALVEX_CALL_OK(result);
    return result;
}
