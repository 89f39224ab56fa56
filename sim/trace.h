// The trace of what clients did: one JSON object per line, oldest first,
// bounded to the newest lines.
//
//   call:  {"service":S,"selector":N,"scalars":[..],"input":"hex","output_size":N,"scalar_output_count":N,"result":N}
//   write: {"service":S,"property":K,"value":V}
//   open:  {"service":S,"open":TYPE,"result":N}
//   refusal (a request over budget):
//          {"service":S,"refused":"budget","what":W,"scope":"client"|"overall"|"connection"|"value","limit":N}
//          (S is null when the request names no service)
//
// Scalars and return codes print as unsigned decimal numbers (a code is its
// 32-bit pattern, so 0xe00002c2 prints as 3758097090). Property values print
// as JSON: numbers, strings, true/false, data as a lower-case hex string,
// arrays and objects.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOReturn.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "budget.h"
#include "user_client.h"

namespace talvex::sim {

class Trace {
public:
    static constexpr size_t kMaxLines = 100'000;
    // Also bounded in bytes, so that the whole trace fits one reply frame
    // (100 000 lines of ordinary calls take about 13 MB).
    static constexpr size_t kMaxBytes = (31u << 20) / 2;

    void add(std::string_view line);
    // Adds call_line(service, args, result), written in place.
    void add_call(std::string_view service, const CallArgs &args, IOReturn result);
    // Every line, each ended by a newline.
    std::string text() const;
    void clear();
    size_t lines() const { return lines_.size(); }
    size_t bytes() const { return bytes_; }
    std::string_view line(size_t i) const { return lines_[i]; }

    static std::string call_line(std::string_view service, const CallArgs &args, IOReturn result);
    static std::string open_line(std::string_view service, uint32_t type, IOReturn result);
    static std::string write_line(std::string_view service, std::string_view key, CFTypeRef value);
    static std::string refusal_line(std::string_view service, std::string_view what, std::string_view scope,
                                    size_t limit);
    static std::string refusal_line(std::string_view service, std::string_view what, const Verdict &verdict) {
        return refusal_line(service, what, verdict.per_client ? "client" : "overall", verdict.limit);
    }

private:
    // Lines are kept end to end in blocks, oldest block first: a line costs
    // no allocation of its own, and a block is freed once its last line is
    // dropped. A line longer than a block has a block to itself.
    static constexpr size_t kBlockBytes = 64u << 10;
    struct Block {
        std::unique_ptr<char[]> bytes;
        size_t size = 0, used = 0, lines = 0;
    };
    // Room for a line of at most `most` bytes at the end of the newest block.
    char *room(size_t most);
    // Keeps the line just written into room(), then drops the oldest lines
    // while over either bound.
    void keep(const char *begin, const char *end);

    std::deque<Block> blocks_;
    std::deque<std::string_view> lines_;
    size_t bytes_ = 0;
    std::string call_service_, call_service_json_;   // the last call's service, and its JSON string
};

// A JSON string literal (quotes included). Bytes that are not valid UTF-8
// become U+FFFD.
std::string json_string(std::string_view text);
// The same, appended to `out`.
void append_json_string(std::string &out, std::string_view text);

// A property-list value as JSON; null for a type JSON cannot show. A value
// whose JSON would exceed `limit` bytes is shown as a string saying so.
std::string cf_to_json(CFTypeRef value, size_t limit = 1u << 20);

// How much of a call's input structure its trace line shows.
inline constexpr size_t kMaxTracedInput = 256u << 10;

// Lower-case hex of at most `limit` bytes; longer input ends in "..." after them.
std::string trace_hex(std::span<const uint8_t> bytes, size_t limit = kMaxTracedInput);

}  // namespace talvex::sim
