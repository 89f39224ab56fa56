// Support for tests that drive the driver client or the tool against a
// private simulator: the trace's call lines, a command's run with what
// reached the driver, stubs, reply bytes built field by field, and the
// diagnostic lines the tool prints (normalised).
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

// How many user-client opens the trace shows.
inline size_t trace_opens(const std::vector<std::string> &trace) {
    size_t n = 0;
    for (const auto &line : trace) n += trace_field(line, "open").has_value();
    return n;
}

// ---------------------------------------------------------------------------
// Running the tool.

struct Outcome {
    RunResult r;
    std::string err;                  // normalised
    size_t opens = 0;
    std::vector<TraceCall> calls;
    std::vector<std::string> events;  // the models' event lines
    size_t lines = 0;                 // every trace line: opens, calls, events, registry writes
};

inline Outcome run(const Simulator &sim, const Words &args) {
    sim.trace(true);
    Outcome o;
    o.r = sim.tool(args);
    o.err = normalise(o.r.err);
    auto trace = sim.trace();
    o.opens = trace_opens(trace);
    o.calls = trace_calls(trace);
    for (const auto &line : trace)
        if (trace_field(line, "event")) o.events.push_back(line);
    o.lines = trace.size();
    return o;
}

// A control command that must succeed.
inline void control(const Simulator &sim, const Words &args) {
    RunResult r = sim.control(args);
    ASSERT_EQ(r.status, 0) << r.err;
}

// Stubs answering one call of `selector` with `output` (hex) or with `code`;
// `match` narrows them (--scalars, --input-prefix, --service).
inline void stub_once(const Simulator &sim, uint32_t selector, const std::string &output, const Words &match = {}) {
    Words args{"stub", "--selector", std::to_string(selector), "--output", output, "--times", "1"};
    args.insert(args.end(), match.begin(), match.end());
    control(sim, args);
}
inline void stub_code(const Simulator &sim, uint32_t selector, const std::string &code, const Words &match = {}) {
    Words args{"stub", "--selector", std::to_string(selector), "--code", code, "--times", "1"};
    args.insert(args.end(), match.begin(), match.end());
    control(sim, args);
}

// Runs a command that must succeed printing `out`, with one driver call; returns it.
inline TraceCall one_call(const Simulator &sim, const Words &args, const std::string &out = "") {
    Outcome o = run(sim, args);
    EXPECT_EQ(o.r.status, 0) << args[0] << ": " << o.r.err;
    EXPECT_EQ(o.r.out, out) << args[0];
    EXPECT_EQ(o.r.err, "") << args[0];
    EXPECT_EQ(o.calls.size(), 1u) << args[0];
    return o.calls.empty() ? TraceCall{} : o.calls[0];
}

// ---------------------------------------------------------------------------
// Bytes.

// Request and reply bytes, little-endian, as the trace's hex text.
class Hex {
public:
    Hex &u8(uint8_t v) { return byte(v); }
    Hex &u16(uint16_t v) { return byte(v & 0xff).byte(v >> 8); }
    Hex &u32(uint32_t v) {
        for (int i = 0; i < 4; ++i) byte(static_cast<uint8_t>(v >> (8 * i)));
        return *this;
    }
    Hex &i32(int32_t v) { return u32(static_cast<uint32_t>(v)); }
    Hex &bytes(const std::vector<uint8_t> &v) {
        for (uint8_t b : v) byte(b);
        return *this;
    }
    // The text's bytes, then zeros up to `field` bytes (all of them and no more by default).
    Hex &text(const std::string &s, size_t field = std::string::npos) {
        if (field == std::string::npos) field = s.size();
        for (size_t i = 0; i < field; ++i) byte(i < s.size() ? static_cast<uint8_t>(s[i]) : 0);
        return *this;
    }
    Hex &zeros(size_t n) { return fill(n, 0); }
    Hex &fill(size_t n, uint8_t b) {
        for (size_t i = 0; i < n; ++i) byte(b);
        return *this;
    }
    const std::string &str() const { return s_; }
    operator const std::string &() const { return s_; }
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

inline std::string hex(const std::vector<uint8_t> &bytes) { return Hex().bytes(bytes).str(); }
inline std::string zeros(size_t n) { return std::string(2 * n, '0'); }

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

inline const std::string kGeneralError = "(iokit/common) general error (0xe00002bc)";
inline const std::string kNotReady = "(iokit/common) not ready (0xe00002d8)";
inline const std::string kUnsupported = "(iokit/common) unsupported function (0xe00002c7)";
inline const std::string kBadArgument = "(iokit/common) invalid argument (0xe00002c2)";
inline const std::string kNotResponding = "(iokit/common) device not responding (0xe00002ed)";

inline void pause_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

}  // namespace talvex::test
