// Driver calls made directly by the diagnostics commands.
#include "talvexctl.h"

IOReturn TalvexDiagScalarCall(TalvexHandle *talvex, uint32_t selector, const uint64_t *input, uint32_t input_count) {
    IOReturn result = IOConnectCallScalarMethod(talvex->connection, selector, input, input_count, nullptr, nullptr);
    if (result != 0) TALVEX_ASSERT_REPORT("result == 0 ", nullptr, result);
    return result;
}

IOReturn TalvexDiagStructCall(TalvexHandle *talvex, uint32_t selector, const void *input, size_t input_size,
                              void *output, size_t *output_size) {
    IOReturn result = IOConnectCallStructMethod(talvex->connection, selector, input, input_size, output, output_size);
    if (result != 0) TALVEX_ASSERT_REPORT("result == 0 ", nullptr, result);
    return result;
}

const char *TalvexDiagCodeText(IOReturn code) {
    const char *text = mach_error_string(code);
    return text ? text : "";
}
