// Support for tests that drive the tool against a private simulator: the
// trace's call lines, control commands, and the diagnostic lines the tool
// prints (normalised).
#pragma once

#include "harness.h"
#include "talvex_driver.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace talvex::test {

using Words = std::vector<std::string>;

// ---------------------------------------------------------------------------
// The trace: one flat JSON object per line, of a fixed format. Only enough
// parsing to pick out flat fields.

struct TraceCall {
    std::string service;
    long selector = -1;
    std::vector<uint64_t> scalars;
    std::string input;
    uint64_t output_size = 0;
    uint64_t scalar_output_count = 0;
    long long result = 0;
};

// The raw text of `"key":VALUE` (strings without quotes, arrays without brackets).
inline std::optional<std::string> trace_field(const std::string &line, const std::string &key) {
    std::string tag = "\"" + key + "\":";
    size_t at = line.find(tag);
    if (at == std::string::npos) return std::nullopt;
    at += tag.size();
    if (at < line.size() && (line[at] == '"' || line[at] == '[')) {
        size_t end = line.find(line[at] == '"' ? '"' : ']', at + 1);
        return line.substr(at + 1, end - at - 1);
    }
    return line.substr(at, line.find_first_of(",}", at) - at);
}

// The external-method calls of a trace, oldest first.
inline std::vector<TraceCall> trace_calls(const std::vector<std::string> &trace) {
    auto number = [](const std::string &line, const char *key) {
        return std::strtoull(trace_field(line, key).value_or("0").c_str(), nullptr, 10);
    };
    std::vector<TraceCall> calls;
    for (const auto &line : trace) {
        auto selector = trace_field(line, "selector");
        if (!selector) continue;
        TraceCall c;
        c.service = trace_field(line, "service").value_or("");
        c.selector = std::strtol(selector->c_str(), nullptr, 10);
        std::string scalars = trace_field(line, "scalars").value_or("");
        for (size_t pos = 0; pos < scalars.size();) {
            c.scalars.push_back(std::strtoull(scalars.c_str() + pos, nullptr, 10));
            size_t comma = scalars.find(',', pos);
            if (comma == std::string::npos) break;
            pos = comma + 1;
        }
        c.input = trace_field(line, "input").value_or("");
        c.output_size = number(line, "output_size");
        c.scalar_output_count = number(line, "scalar_output_count");
        c.result = static_cast<long long>(number(line, "result"));
        calls.push_back(c);
    }
    return calls;
}

// ---------------------------------------------------------------------------
// Running the tool.

// A control command that must succeed.
inline void control(const Simulator &sim, const Words &args) {
    RunResult r = sim.control(args);
    ASSERT_EQ(r.status, 0) << r.err;
}

// ---------------------------------------------------------------------------
// Diagnostic lines, normalised. A file without a folder is the tool's.

inline std::string source(const std::string &file) {
    return file.find('/') == std::string::npos ? "talvexctl/" + file : file;
}
// "AssertMacros: COND, MESSAGE file: ..." (no code).
inline std::string check(const std::string &condition, const std::string &file, const std::string &message = "") {
    return "AssertMacros: " + condition + ", " + message + " file: " + source(file) + ", line: N\n";
}
// A failed call's line: "AssertMacros: result == 0 , TEXT (CODE) MESSAGE file: ...".
inline std::string coded(const std::string &text, const std::string &file, const std::string &message = "") {
    return "AssertMacros: result == 0 , " + text + " " + message + " file: " + source(file) + ", line: N\n";
}
// A failed call reported by the client (client/operations.cpp), and then by the command.
inline std::string from_operation(const std::string &text) { return coded(text, "client/operations.cpp"); }
inline std::string twice(const std::string &text, const std::string &file) {
    return from_operation(text) + coded(text, file);
}
// A driver that is not there, or that refuses the open, seen by a command.
inline std::string no_driver(const std::string &file) {
    return check("service", "client/handle.cpp", "cannot find ZantraTalvexProcessor") + check("talvex", file);
}

inline void pause_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

}  // namespace talvex::test
