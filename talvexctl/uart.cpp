// UART test traffic: uart.
#include "talvexctl.h"

#include <cstdio>
#include <cstring>

namespace {

using Layout = TalvexUartTestLayout;
constexpr size_t kUartPayloadSize = 100;
constexpr size_t kUartReplySize = 100;
constexpr uint32_t kUartNoPreamble = 0xffffffff;
constexpr size_t kUartMinTextLength = 3;

struct UartName {
    const char *name;
    uint8_t code;
};

// Compared in this order.
const UartName kContainers[] = {{"ping", 0}, {"pingreply", 2}, {"cmreply", 3}, {"raw", 1}, {nullptr, 0}};
const UartName kPorts[] = {{"ap", 0}, {"bb", 2}, {"isp", 1}, {nullptr, 0}};

const UartName *find_name(const UartName *table, const char *word) {
    for (const UartName *row = table; row->name; ++row)
        if (std::strcmp(row->name, word) == 0) return row;
    return nullptr;
}

constexpr uint8_t kContainerRaw = 1;
constexpr uint8_t kContainerReplyBit = 2;   // pingreply and cmreply: a reply comes back

}  // namespace

// uart ping|pingreply|cmreply|raw <port> [--preamble <len> | --retry <count>] <data>
int TalvexCmdUart(int argc, char *argv[]) {
    if (!TALVEX_CHECK(argc >= 3, "argc >= 3")) return 1;
    const UartName *container = find_name(kContainers, argv[1]);
    if (!container) {
        std::printf("unknown container, use ping, pingreply, cmreply, or raw\n");
        return 1;
    }
    const UartName *port = find_name(kPorts, argv[2]);
    if (!port) {
        std::printf("unknown port, use ap, bb or isp\n");
        return 1;
    }
    bool with_reply = (container->code & kContainerReplyBit) != 0;
    uint8_t retry = with_reply ? 0 : 3;
    uint32_t preamble = container->code == kContainerRaw ? 0 : kUartNoPreamble;

    // At most one option, right after the port; its value is the next word.
    int payload_start = 3;
    if (argc >= 4) {
        bool is_preamble = std::strcmp(argv[3], "--preamble") == 0;
        bool is_retry = std::strcmp(argv[3], "--retry") == 0;
        if (is_preamble || is_retry) {
            if (argc < 5) {
                std::printf("%s needs a value\n", argv[3]);
                return 1;
            }
            auto value = static_cast<uint32_t>(TalvexParseDec(argv[4]));
            if (is_preamble) {
                if (value > Layout::kMaxPreamble) {
                    std::printf("preamble too long, max is 4096 bytes\n");
                    return 1;
                }
                preamble = value;
            } else {
                if (value - 1 >= Layout::kMaxRetries) {
                    std::printf("retry must be between 1 and 100\n");
                    return 1;
                }
                retry = static_cast<uint8_t>(value);
            }
            payload_start = 5;
        }
    }

    uint8_t payload[kUartPayloadSize] = {};
    auto input_length = static_cast<size_t>(argc - payload_start);
    if (container->code == kContainerRaw) {
        if (!TALVEX_CHECK(input_length > 0 && input_length < sizeof(payload),
                          "inputLength > 0 && inputLength < sizeof(inputBuffer)"))
            return 1;
    } else if (!TALVEX_CHECK(input_length < sizeof(payload), "inputLength < sizeof(inputBuffer)")) {
        return 1;
    }
    const char *first = input_length == 1 ? argv[payload_start] : nullptr;
    if (first && std::strlen(first) >= kUartMinTextLength) {
        // One word of three characters or more is text, sent without its terminator.
        input_length = std::strlen(first);
        if (!TALVEX_CHECK(input_length > 0 && input_length < sizeof(payload),
                          "inputLength > 0 && inputLength < sizeof(inputBuffer)"))
            return 1;
        std::memcpy(payload, first, input_length);
    } else {
        for (size_t i = 0; i < input_length; ++i) payload[i] = TalvexParseHexByte(argv[payload_start + i]);
    }

    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    uint8_t request[Layout::kRequestSize] = {};
    request[0] = port->code;
    request[1] = container->code;
    request[2] = static_cast<uint8_t>(input_length);
    request[3] = retry;
    request[4] = preamble != kUartNoPreamble ? 1 : 0;
    store_le32(request + 5, preamble);
    std::memcpy(request + Layout::kPayloadOffset, payload, sizeof payload);
    uint8_t reply[kUartReplySize];
    std::memset(reply, 0xff, sizeof reply);
    size_t reply_size = sizeof reply;
    IOReturn result = TalvexCallStruct(talvex, kTalvexMethodUartTest, request, sizeof request, reply, &reply_size);
    if (result == 0 && with_reply)
        TalvexHexDump(reply, static_cast<uint32_t>(reply_size < sizeof reply ? reply_size : sizeof reply));
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}
