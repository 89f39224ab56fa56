// Driver calls made directly by the bus and memory commands, and the byte
// parse they share.
#include "talvexctl.h"

IOReturn TalvexBusStructCall(TalvexHandle *talvex, uint32_t selector, const void *input, size_t input_size,
                             void *output, size_t *output_size) {
    IOReturn result = IOConnectCallStructMethod(talvex->connection, selector, input, input_size, output, output_size);
    if (result != 0) TALVEX_ASSERT_REPORT("result == 0 ", nullptr, result);
    return result;
}

IOReturn TalvexBusScalarCall(TalvexHandle *talvex, uint32_t selector, const uint64_t *input, uint32_t input_count,
                             uint64_t *output, uint32_t *output_count) {
    IOReturn result =
        IOConnectCallScalarMethod(talvex->connection, selector, input, input_count, output, output_count);
    if (result != 0) TALVEX_ASSERT_REPORT("result == 0 ", nullptr, result);
    return result;
}

uint8_t TalvexParseHexByte(const char *word) { return static_cast<uint8_t>(TalvexParseHex(word)); }
