// Helpers for the diagnostics commands' end-to-end tests: a command's run
// with what reached the driver, stubbed replies built field by field, and
// the diagnostic lines the commands print.
#pragma once

#include "harness.h"
#include "trace_calls.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace talvex::test::diag {

using Words = std::vector<std::string>;

struct Outcome {
    RunResult r;
    std::string err;   // normalised
    size_t opens = 0;
    std::vector<TraceCall> calls;
};

inline Outcome run(const Simulator &sim, const Words &args) {
    sim.trace(true);
    Outcome o;
    o.r = sim.tool(args);
    o.err = normalise(o.r.err);
    auto trace = sim.trace();
    o.opens = trace_opens(trace);
    o.calls = trace_calls(trace);
    return o;
}

inline void control(const Simulator &sim, const Words &args) {
    RunResult r = sim.control(args);
    ASSERT_EQ(r.status, 0) << r.err;
}

// A stub for one call of `selector` answering `output` (hex).
inline void stub_once(const Simulator &sim, const std::string &selector, const std::string &output,
                      const Words &match = {}) {
    Words args{"stub", "--selector", selector, "--output", output, "--times", "1"};
    args.insert(args.end(), match.begin(), match.end());
    control(sim, args);
}

inline void stub_code(const Simulator &sim, const std::string &selector, const std::string &code,
                      const Words &match = {}) {
    Words args{"stub", "--selector", selector, "--code", code, "--times", "1"};
    args.insert(args.end(), match.begin(), match.end());
    control(sim, args);
}

// Reply and request bytes, little-endian, as hex text.
class Hex {
public:
    Hex &u8(uint8_t v) { return byte(v); }
    Hex &u16(uint16_t v) { return byte(v & 0xff).byte(v >> 8); }
    Hex &u32(uint32_t v) {
        for (int i = 0; i < 4; ++i) byte(static_cast<uint8_t>(v >> (8 * i)));
        return *this;
    }
    Hex &i32(int32_t v) { return u32(static_cast<uint32_t>(v)); }
    // The text's bytes, then zeros up to `field` bytes.
    Hex &text(const std::string &s, size_t field) {
        for (size_t i = 0; i < field; ++i) byte(i < s.size() ? static_cast<uint8_t>(s[i]) : 0);
        return *this;
    }
    Hex &zeros(size_t n) {
        for (size_t i = 0; i < n; ++i) byte(0);
        return *this;
    }
    const std::string &str() const { return s_; }
    size_t size() const { return s_.size() / 2; }

private:
    Hex &byte(uint8_t b) {
        static const char digits[] = "0123456789abcdef";
        s_ += digits[b >> 4];
        s_ += digits[b & 15];
        return *this;
    }
    std::string s_;
};

// Normalised diagnostic lines.
inline std::string coded(const std::string &text, const std::string &file, const std::string &message = "") {
    return "AssertMacros: result == 0 , " + text + " " + message + " file: talvexctl/" + file + ", line: N\n";
}
inline std::string check(const std::string &condition, const std::string &file, const std::string &message = "") {
    return "AssertMacros: " + condition + ", " + message + " file: talvexctl/" + file + ", line: N\n";
}
inline std::string from_operation(const std::string &text) {
    return "AssertMacros: result == 0 , " + text + "  file: client/operations.cpp, line: N\n";
}

inline const std::string kGeneralError = "(iokit/common) general error (0xe00002bc)";
inline const std::string kNotReady = "(iokit/common) not ready (0xe00002d8)";
inline const std::string kUnsupported = "(iokit/common) unsupported function (0xe00002c7)";

inline void pause_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

}  // namespace talvex::test::diag
