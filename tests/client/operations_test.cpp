// The client operations in-process against a private simulator: the exact
// bytes and scalars each sends, what it does with the reply, and its failure
// reports. One simulator serves the whole process.
#include "harness.h"
#include "talvex_client.h"
#include "../tool/trace_calls.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

using talvex::test::normalise;
using talvex::test::RunResult;
using talvex::test::Simulator;
using talvex::test::TraceCall;
using talvex::test::trace_calls;

Simulator *g_sim = nullptr;

class SimulatorEnvironment : public testing::Environment {
public:
    void SetUp() override {
        sim_ = std::make_unique<Simulator>();
        g_sim = sim_.get();
        setenv("TALVEX_SIM_SOCKET", sim_->socket().c_str(), 1);
    }
    void TearDown() override {
        g_sim = nullptr;
        sim_.reset();
    }

private:
    std::unique_ptr<Simulator> sim_;
};

[[maybe_unused]] testing::Environment *const g_env = testing::AddGlobalTestEnvironment(new SimulatorEnvironment);

class Operations : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(g_sim->control({"stub", "--clear"}).status, 0);
        talvex_ = TalvexOpen();
        ASSERT_NE(talvex_, nullptr);
        g_sim->trace(true);
    }
    void TearDown() override {
        if (talvex_) TalvexClose(talvex_);
    }

    // The one method call made since the last look.
    TraceCall only_call() {
        auto calls = trace_calls(g_sim->trace(true));
        EXPECT_EQ(calls.size(), 1u);
        return calls.empty() ? TraceCall{} : calls[0];
    }

    void stub(const std::vector<std::string> &args) {
        std::vector<std::string> all{"stub"};
        all.insert(all.end(), args.begin(), args.end());
        RunResult r = g_sim->control(all);
        ASSERT_EQ(r.status, 0) << r.err;
    }

    std::string handle_text() const {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%p", static_cast<void *>(talvex_));
        return buf;
    }

    TalvexHandle *talvex_ = nullptr;
};

std::string hex(const uint8_t *p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 0xf];
    }
    return s;
}

TEST_F(Operations, ScalarOperationsSendTheirNumbersAsGiven) {
    stub({"--selector", "0", "--code", "0"});
    stub({"--selector", "28", "--code", "0"});
    EXPECT_EQ(TalvexSelectFirmware(talvex_, 1), 0);
    TraceCall c = only_call();
    EXPECT_EQ(c.selector, 0);
    EXPECT_EQ(c.scalars, (std::vector<uint64_t>{1}));
    EXPECT_EQ(c.input, "");
    EXPECT_EQ(c.output_size, 0u);

    EXPECT_EQ(TalvexClockRedirect(talvex_, 0x123456789abcdef0ull), 0);
    c = only_call();
    EXPECT_EQ(c.selector, 28);
    EXPECT_EQ(c.scalars, (std::vector<uint64_t>{0x123456789abcdef0ull}));
}

TEST_F(Operations, GetPropertyCutsThePropertyAndReportsTheReplySize) {
    uint8_t reply[128];
    std::fill(std::begin(reply), std::end(reply), 0xff);
    uint32_t size = sizeof reply;
    stub({"--selector", "13", "--output", "0a0b0c"});
    EXPECT_EQ(TalvexGetProperty(talvex_, 3, 0x100000016ull, reply, &size), 0);
    TraceCall c = only_call();
    EXPECT_EQ(c.selector, 13);
    EXPECT_EQ(c.scalars, (std::vector<uint64_t>{3, 0x16}));
    EXPECT_EQ(c.input, "");
    EXPECT_EQ(c.output_size, 128u);
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(hex(reply, 4), "0a0b0cff");
}

TEST_F(Operations, GetPropertyFailureKeepsTheSizeAndDescribesTheCall) {
    uint8_t reply[40];
    std::fill(std::begin(reply), std::end(reply), 0xff);
    uint32_t size = sizeof reply;
    stub({"--selector", "13", "--code", "0xe00002c7"});
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(TalvexGetProperty(talvex_, 0xfe, 0xabcdef01ull, reply, &size), static_cast<IOReturn>(0xe00002c7));
    std::string err = testing::internal::GetCapturedStderr();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(size, 40u);
    EXPECT_EQ(reply[0], 0xff);
    EXPECT_EQ(out, "TalvexGetProperty(handle=" + handle_text() + ",dev=254,prop=abcdef01,size=40) -> e00002c7\n");
    EXPECT_EQ(normalise(err),
              "AssertMacros: result == 0 , (iokit/common) unsupported function (0xe00002c7)  file: "
              "client/operations.cpp, line: N\n");
    EXPECT_EQ(only_call().output_size, 40u);
}

TEST_F(Operations, SetPropertySendsLow32BitsAndPrintsThemOnFailure) {
    stub({"--selector", "14", "--code", "0", "--times", "1"});
    EXPECT_EQ(TalvexSetProperty(talvex_, 3, 0x500000016ull, 0x1ffffffffull), 0);
    TraceCall c = only_call();
    EXPECT_EQ(c.selector, 14);
    EXPECT_EQ(c.scalars, (std::vector<uint64_t>{3, 0x16, 0xffffffff}));

    stub({"--selector", "14", "--code", "0xe00002c2"});
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(TalvexSetProperty(talvex_, 6, 0x700000001ull, 0x123456789ull), static_cast<IOReturn>(0xe00002c2));
    std::string err = testing::internal::GetCapturedStderr();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "TalvexSetProperty(handle=" + handle_text() + ",dev=6,prop=1,val=23456789) -> e00002c2\n");
    EXPECT_EQ(normalise(err),
              "AssertMacros: result == 0 , (iokit/common) invalid argument (0xe00002c2)  file: "
              "client/operations.cpp, line: N\n");
    c = only_call();
    EXPECT_EQ(c.scalars, (std::vector<uint64_t>{6, 1, 0x23456789}));
}

TEST_F(Operations, ProfileQueryLayout) {
    uint8_t reply[kTalvexProfileQueryOutSize] = {};
    stub({"--selector", "23", "--output", "5566"});
    EXPECT_EQ(TalvexProfileQuery(talvex_, 0x04030201, 0xa0b0c0d0, reply), 0);
    TraceCall c = only_call();
    EXPECT_EQ(c.selector, 23);
    EXPECT_TRUE(c.scalars.empty());
    EXPECT_EQ(c.input, "01020304d0c0b0a0" + std::string(128, '0'));
    EXPECT_EQ(c.output_size, 82u);
    EXPECT_EQ(reply[0], 0x55);
    EXPECT_EQ(reply[1], 0x66);
}

TEST_F(Operations, ClientListLayoutIsUnaligned) {
    uint8_t reply[kTalvexClientListOutSize] = {};
    stub({"--selector", "30", "--code", "0"});
    EXPECT_EQ(TalvexClientList(talvex_, 0x05, 0x11223344, reply), 0);
    TraceCall c = only_call();
    EXPECT_EQ(c.selector, 30);
    EXPECT_EQ(c.input, "0544332211");
    EXPECT_EQ(c.output_size, 89u);
}

TEST_F(Operations, I2CReadRegisterFieldAndLength) {
    uint8_t reply[16];
    std::fill(std::begin(reply), std::end(reply), 0xff);
    stub({"--selector", "34", "--output", "a1a2"});
    EXPECT_EQ(TalvexI2CRead(talvex_, 1, 0x50, nullptr, reply, 4), 0);
    TraceCall c = only_call();
    EXPECT_EQ(c.selector, 34);
    EXPECT_EQ(c.input, "0150ffff04");   // no register: 0xffff
    EXPECT_EQ(c.output_size, 4u);
    EXPECT_EQ(hex(reply, 3), "a1a2ff");

    uint8_t reg = 0x00;
    EXPECT_EQ(TalvexI2CRead(talvex_, 2, 0x1e, &reg, reply, 16), 0);
    EXPECT_EQ(only_call().input, "021e000010");   // register 0 is 0x0000

    reg = 0xfe;
    std::vector<uint8_t> big(0x104);
    EXPECT_EQ(TalvexI2CRead(talvex_, 0xff, 0x7f, &reg, big.data(), 0x104), 0);
    c = only_call();
    EXPECT_EQ(c.input, "ff7ffe0004");   // the length byte is cut to 8 bits...
    EXPECT_EQ(c.output_size, 0x104u);   // ...the offered reply is not
}

TEST_F(Operations, I2CWriteLayout) {
    stub({"--selector", "35", "--code", "0"});
    const uint8_t data[16] = {0xde, 0xad, 0xbe, 0xef, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    EXPECT_EQ(TalvexI2CWrite(talvex_, 3, 0x42, nullptr, data, 3), 0);
    TraceCall c = only_call();
    EXPECT_EQ(c.selector, 35);
    EXPECT_EQ(c.input, "0342ffff03deadbe" + std::string(26, '0'));
    EXPECT_EQ(c.output_size, 0u);

    uint8_t reg = 0x80;
    EXPECT_EQ(TalvexI2CWrite(talvex_, 0, 0x10, &reg, data, 16), 0);
    EXPECT_EQ(only_call().input, "0010800010" + hex(data, 16));

    EXPECT_EQ(TalvexI2CWrite(talvex_, 0, 0x10, &reg, data, 0), 0);
    EXPECT_EQ(only_call().input, "0010800000" + std::string(32, '0'));
}

TEST_F(Operations, I2CWriteOverSixteenBytesStopsTheProcess) {
    const uint8_t data[17] = {};
    EXPECT_DEATH(TalvexI2CWrite(talvex_, 0, 0x10, nullptr, data, 17), "exceeds 16");
}

TEST_F(Operations, PerfmonCallPassesItsPartsThrough) {
    const uint8_t in[3] = {1, 2, 3};
    uint8_t out[8];
    std::fill(std::begin(out), std::end(out), 0xff);
    size_t out_size = sizeof out;
    stub({"--selector", "39", "--output", "0908", "--output-size", "2"});
    EXPECT_EQ(TalvexPerfmonCall(talvex_, 0x100, 7, in, sizeof in, out, &out_size), 0);
    TraceCall c = only_call();
    EXPECT_EQ(c.selector, 39);
    EXPECT_EQ(c.scalars, (std::vector<uint64_t>{0x100, 7}));
    EXPECT_EQ(c.input, "010203");
    EXPECT_EQ(c.output_size, 8u);
    EXPECT_EQ(c.scalar_output_count, 0u);
    EXPECT_EQ(out_size, 2u);
    EXPECT_EQ(hex(out, 3), "0908ff");
}

TEST_F(Operations, EveryOperationReportsItsFailureOnce) {
    stub({"--selector", "0", "--code", "0xe00002bc"});
    stub({"--selector", "28", "--code", "0xe00002bc"});
    stub({"--selector", "23", "--code", "0xe00002bc"});
    stub({"--selector", "30", "--code", "0xe00002bc"});
    stub({"--selector", "34", "--code", "0xe00002bc"});
    stub({"--selector", "35", "--code", "0xe00002bc"});
    stub({"--selector", "39", "--code", "0xe00002bc"});
    uint8_t buf[128] = {};
    size_t size = 8;
    const IOReturn failed = static_cast<IOReturn>(0xe00002bc);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(TalvexSelectFirmware(talvex_, 0), failed);
    EXPECT_EQ(TalvexClockRedirect(talvex_, 0), failed);
    EXPECT_EQ(TalvexProfileQuery(talvex_, 0, 0, buf), failed);
    EXPECT_EQ(TalvexClientList(talvex_, 0, 0, buf), failed);
    EXPECT_EQ(TalvexI2CRead(talvex_, 0, 0, nullptr, buf, 1), failed);
    EXPECT_EQ(TalvexI2CWrite(talvex_, 0, 0, nullptr, buf, 1), failed);
    EXPECT_EQ(TalvexPerfmonCall(talvex_, 0, 0, nullptr, 0, buf, &size), failed);
    std::string err = testing::internal::GetCapturedStderr();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "");
    std::string line =
        "AssertMacros: result == 0 , (iokit/common) general error (0xe00002bc)  file: client/operations.cpp, line: N\n";
    std::string expected;
    for (int i = 0; i < 7; ++i) expected += line;
    EXPECT_EQ(normalise(err), expected);
}

TEST_F(Operations, ReadStateLeavesTheValueAloneWithoutANumber) {
    int64_t state = 42;
    TalvexReadState(talvex_, &state);
    EXPECT_EQ(state, 0x10002);
    TalvexReadState(talvex_, nullptr);   // a null destination is allowed

    ASSERT_EQ(g_sim->control({"property", "set", "talvex-state", "-5", "--type", "number"}).status, 0);
    TalvexReadState(talvex_, &state);
    EXPECT_EQ(state, -5);

    ASSERT_EQ(g_sim->control({"property", "set", "talvex-state", "0102", "--type", "data"}).status, 0);
    state = 42;
    testing::internal::CaptureStderr();
    TalvexReadState(talvex_, &state);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(state, 42);
    EXPECT_EQ(normalise(err),
              "AssertMacros: prop && CFGetTypeID(prop) == CFNumberGetTypeID(),  file: client/state.cpp, line: N\n");
    ASSERT_EQ(g_sim->control({"property", "set", "talvex-state", "0x10002", "--type", "number"}).status, 0);
}

TEST_F(Operations, OpenUsesConnectionTypeZero) {
    TalvexHandle *second = TalvexOpen();
    ASSERT_NE(second, nullptr);
    EXPECT_NE(second->service, 0u);
    EXPECT_NE(second->connection, 0u);
    EXPECT_EQ(second->notifyPort, nullptr);
    EXPECT_EQ(second->notification, 0u);
    EXPECT_EQ(second->notification_handler, nullptr);
    TalvexClose(second);
    auto trace = g_sim->trace(true);
    ASSERT_EQ(talvex::test::trace_opens(trace), 1u);
    for (const auto &l : trace)
        if (l.find("\"open\"") != std::string::npos) {
            EXPECT_EQ(talvex::test::trace_field(l, "open"), "0");
            EXPECT_EQ(talvex::test::trace_field(l, "result"), "0");
        }
}

}  // namespace
