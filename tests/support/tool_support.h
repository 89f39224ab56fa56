// Support for tests that drive the tool against a private simulator: the
// trace's call lines, control commands, and the diagnostic lines the tool
// prints (normalised).
#pragma once

#include "harness.h"
#include "talvex_driver.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace talvex::test {

using Words = std::vector<std::string>;

// The trace: one JSON object per line; its external-method calls.
struct TraceCall {
    std::string service;
    long selector = -1;
    std::vector<uint64_t> scalars;
    std::string input;
    uint64_t output_size = 0;
    uint64_t scalar_output_count = 0;
    long long result = 0;
};

// The external-method calls of a trace, oldest first.
inline std::vector<TraceCall> trace_calls(const std::vector<std::string> &trace) {
    std::vector<TraceCall> calls;
    for (const auto &line : trace) {
        auto j = nlohmann::json::parse(line);
        if (j.contains("selector"))
            calls.push_back({j["service"], j["selector"], j["scalars"], j["input"], j["output_size"],
                             j["scalar_output_count"], j["result"]});
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
inline std::string twice(const std::string &text, const std::string &file) {
    return coded(text, "client/operations.cpp") + coded(text, file);
}
// A driver that is not there, or that refuses the open, seen by a command.
inline std::string no_driver(const std::string &file) {
    return check("service", "client/handle.cpp", "cannot find ZantraTalvexProcessor") + check("talvex", file);
}

inline void pause_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

}  // namespace talvex::test
