// Reads the simulator's trace lines (one JSON object each) into the fields the
// tool's tests check. The trace's format is fixed; this is not a JSON parser,
// only enough to pick out flat fields.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

namespace talvex::test {

struct TraceCall {
    std::string service;
    long selector = -1;
    std::vector<uint64_t> scalars;
    std::string input;
    uint64_t output_size = 0;
    uint64_t scalar_output_count = 0;
    long long result = 0;
};

// The raw text of `"key":VALUE` in a flat JSON object (strings without quotes).
inline std::optional<std::string> trace_field(const std::string &line, const std::string &key) {
    std::string tag = "\"" + key + "\":";
    size_t at = line.find(tag);
    if (at == std::string::npos) return std::nullopt;
    at += tag.size();
    if (at < line.size() && line[at] == '"') {
        size_t end = line.find('"', at + 1);
        return line.substr(at + 1, end - at - 1);
    }
    if (at < line.size() && line[at] == '[') {
        size_t end = line.find(']', at);
        return line.substr(at + 1, end - at - 1);
    }
    size_t end = line.find_first_of(",}", at);
    return line.substr(at, end - at);
}

// The external-method calls of a trace, oldest first.
inline std::vector<TraceCall> trace_calls(const std::vector<std::string> &trace) {
    std::vector<TraceCall> calls;
    for (const auto &line : trace) {
        auto selector = trace_field(line, "selector");
        if (!selector) continue;
        TraceCall c;
        c.service = trace_field(line, "service").value_or("");
        c.selector = std::strtol(selector->c_str(), nullptr, 10);
        std::string scalars = trace_field(line, "scalars").value_or("");
        for (size_t pos = 0; pos < scalars.size();) {
            size_t comma = scalars.find(',', pos);
            if (comma == std::string::npos) comma = scalars.size();
            c.scalars.push_back(std::strtoull(scalars.substr(pos, comma - pos).c_str(), nullptr, 10));
            pos = comma + 1;
        }
        c.input = trace_field(line, "input").value_or("");
        c.output_size = std::strtoull(trace_field(line, "output_size").value_or("0").c_str(), nullptr, 10);
        c.scalar_output_count =
            std::strtoull(trace_field(line, "scalar_output_count").value_or("0").c_str(), nullptr, 10);
        c.result = std::strtoll(trace_field(line, "result").value_or("0").c_str(), nullptr, 10);
        calls.push_back(c);
    }
    return calls;
}

// How many user-client opens the trace shows.
inline size_t trace_opens(const std::vector<std::string> &trace) {
    size_t n = 0;
    for (const auto &line : trace) n += trace_field(line, "open").has_value();
    return n;
}

}  // namespace talvex::test
