// The client operations in-process against a private simulator: the exact
// bytes and scalars each sends (values cut to their fields), what it does
// with the reply, and its one failure report. One simulator serves the
// whole process.
#include "talvex_client.h"
#include "tool_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

namespace {

using namespace talvex::test;

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
        control(*g_sim, {"stub", "--clear"});
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
    void stub(Words args) {
        args.insert(args.begin(), "stub");
        control(*g_sim, args);
    }
    std::string handle_text() const {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%p", static_cast<void *>(talvex_));
        return buf;
    }

    TalvexHandle *talvex_ = nullptr;
};

std::string hex(const uint8_t *p, size_t n) { return talvex::test::hex(std::vector<uint8_t>(p, p + n)); }

TEST_F(Operations, EachSendsItsRequestAsLaidOutAndTakesItsReply) {
    uint8_t buf[0x104];
    const uint8_t data[16] = {0xde, 0xad, 0xbe, 0xef, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const uint8_t reg0 = 0x00, reg80 = 0x80, regfe = 0xfe;
    size_t perfmon_size = 8;
    uint32_t property_size = 128;
    struct Row {
        std::function<IOReturn()> call;
        uint32_t selector;
        std::vector<uint64_t> scalars;
        std::string input;
        uint64_t output_size;
        std::string reply = {};   // hex; must land at the start of buf and nothing after it
    };
    const Row rows[] = {
        {[&] { return TalvexSelectFirmware(talvex_, 1); }, 0, {1}, "", 0},
        {[&] { return TalvexClockRedirect(talvex_, 0x123456789abcdef0ull); }, 28, {0x123456789abcdef0ull}, "", 0},
        // Property and value keep their low 32 bits.
        {[&] { return TalvexGetProperty(talvex_, 3, 0x100000016ull, buf, &property_size); }, 13, {3, 0x16}, "", 128,
         "0a0b0c"},
        {[&] { return TalvexSetProperty(talvex_, 3, 0x500000016ull, 0x1ffffffffull); }, 14, {3, 0x16, 0xffffffff},
         "", 0},
        {[&] { return TalvexProfileQuery(talvex_, 0x04030201, 0xa0b0c0d0, buf); }, 23, {},
         "01020304d0c0b0a0" + zeros(64), 82},
        {[&] { return TalvexClientList(talvex_, 0x05, 0x11223344, buf); }, 30, {}, "0544332211", 89},   // unaligned
        // No register is 0xffff; register 0 is 0x0000.
        {[&] { return TalvexI2CRead(talvex_, 1, 0x50, nullptr, buf, 4); }, 34, {}, "0150ffff04", 4, "a1a2"},
        {[&] { return TalvexI2CRead(talvex_, 2, 0x1e, &reg0, buf, 16); }, 34, {}, "021e000010", 16},
        // The length byte is cut to 8 bits; the offered reply is not.
        {[&] { return TalvexI2CRead(talvex_, 0xff, 0x7f, &regfe, buf, 0x104); }, 34, {}, "ff7ffe0004", 0x104},
        {[&] { return TalvexI2CWrite(talvex_, 3, 0x42, nullptr, data, 3); }, 35, {}, "0342ffff03deadbe" + zeros(13), 0},
        {[&] { return TalvexI2CWrite(talvex_, 0, 0x10, &reg80, data, 16); }, 35, {}, "0010800010" + hex(data, 16), 0},
        {[&] { return TalvexI2CWrite(talvex_, 0, 0x10, &reg80, data, 0); }, 35, {}, "0010800000" + zeros(16), 0},
        {[&] { return TalvexPerfmonCall(talvex_, 0x100, 7, data, 3, buf, &perfmon_size); }, 39, {0x100, 7}, "deadbe",
         8, "0908"},
    };
    for (const Row &row : rows) {
        std::fill(std::begin(buf), std::end(buf), 0xff);
        Words args{"--selector", std::to_string(row.selector), "--times", "1"};
        if (!row.reply.empty()) args.insert(args.end(), {"--output", row.reply});
        stub(args);
        EXPECT_EQ(row.call(), 0) << row.selector;
        TraceCall c = only_call();
        EXPECT_EQ(c.selector, row.selector);
        EXPECT_EQ(c.scalars, row.scalars) << row.selector;
        EXPECT_EQ(c.input, row.input) << row.selector;
        EXPECT_EQ(c.output_size, row.output_size) << row.selector;
        EXPECT_EQ(c.scalar_output_count, 0u) << row.selector;
        if (!row.reply.empty()) {
            EXPECT_EQ(hex(buf, row.reply.size() / 2 + 1), row.reply + "ff") << row.selector;
        }
    }
    // The sizes the caller gets back are the reply's.
    EXPECT_EQ(property_size, 3u);
    EXPECT_EQ(perfmon_size, 2u);
}

TEST_F(Operations, FailuresAreReportedOnceAndPropertyFailuresKeepTheSizeAndDescribeTheCall) {
    stub({"--selector", std::to_string(kTalvexMethodGetProperty), "--code", "0xe00002c7"});
    stub({"--selector", std::to_string(kTalvexMethodSetProperty), "--code", "0xe00002c2"});
    for (uint32_t selector :
         {kTalvexMethodSelectFirmware, kTalvexMethodClockRedirect, kTalvexMethodProfileEntry, kTalvexMethodClientList,
          kTalvexMethodI2CRead, kTalvexMethodI2CWrite, kTalvexMethodPerfMonitor, kTalvexMethodPing,
          kTalvexMethodRegisterWrite})
        stub({"--selector", std::to_string(selector), "--code", "0xe00002bc"});
    uint8_t buf[128];
    std::fill(std::begin(buf), std::end(buf), 0xff);
    uint32_t property_size = 40;
    size_t size = 8;
    const IOReturn failed = static_cast<IOReturn>(0xe00002bc);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(TalvexGetProperty(talvex_, 0xfe, 0xabcdef01ull, buf, &property_size), static_cast<IOReturn>(0xe00002c7));
    EXPECT_EQ(TalvexSetProperty(talvex_, 6, 0x700000001ull, 0x123456789ull), static_cast<IOReturn>(0xe00002c2));
    EXPECT_EQ(TalvexSelectFirmware(talvex_, 0), failed);
    EXPECT_EQ(TalvexClockRedirect(talvex_, 0), failed);
    EXPECT_EQ(TalvexProfileQuery(talvex_, 0, 0, buf), failed);
    EXPECT_EQ(TalvexClientList(talvex_, 0, 0, buf), failed);
    EXPECT_EQ(TalvexI2CRead(talvex_, 0, 0, nullptr, buf, 1), failed);
    EXPECT_EQ(TalvexI2CWrite(talvex_, 0, 0, nullptr, buf, 1), failed);
    EXPECT_EQ(TalvexPerfmonCall(talvex_, 0, 0, nullptr, 0, buf, &size), failed);
    EXPECT_EQ(TalvexCallScalar(talvex_, kTalvexMethodPing, nullptr, 0, nullptr, nullptr), failed);
    EXPECT_EQ(TalvexCallStruct(talvex_, kTalvexMethodRegisterWrite, buf, 19, nullptr, nullptr), failed);
    std::string err = testing::internal::GetCapturedStderr();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(property_size, 40u);
    EXPECT_EQ(buf[0], 0xff);
    EXPECT_EQ(out, "TalvexGetProperty(handle=" + handle_text() + ",dev=254,prop=abcdef01,size=40) -> e00002c7\n"
                   "TalvexSetProperty(handle=" + handle_text() + ",dev=6,prop=1,val=23456789) -> e00002c2\n");
    std::string expected = from_operation(kUnsupported) + from_operation(kBadArgument);
    for (int i = 0; i < 9; ++i) expected += from_operation(kGeneralError);
    EXPECT_EQ(normalise(err), expected);
    auto calls = trace_calls(g_sim->trace());
    ASSERT_EQ(calls.size(), 11u);
    EXPECT_EQ(calls[0].output_size, 40u);
    EXPECT_EQ(calls[1].scalars, (std::vector<uint64_t>{6, 1, 0x23456789}));
}

TEST_F(Operations, I2CWriteOverSixteenBytesStopsTheProcess) {
    const uint8_t data[17] = {};
    EXPECT_DEATH(TalvexI2CWrite(talvex_, 0, 0x10, nullptr, data, 17), "exceeds 16");
}

TEST_F(Operations, ReadStateLeavesTheValueAloneWithoutANumber) {
    int64_t state = 42;
    TalvexReadState(talvex_, &state);
    EXPECT_EQ(state, 0x10002);
    TalvexReadState(talvex_, nullptr);   // a null destination is allowed

    control(*g_sim, {"property", "set", "talvex-state", "0102", "--type", "data"});
    state = 42;
    testing::internal::CaptureStderr();
    TalvexReadState(talvex_, &state);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(state, 42);
    EXPECT_EQ(normalise(err), check("prop && CFGetTypeID(prop) == CFNumberGetTypeID()", "client/state.cpp"));
    control(*g_sim, {"property", "set", "talvex-state", "0x10002", "--type", "number"});
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
    ASSERT_EQ(trace_opens(trace), 1u);
    for (const auto &line : trace)
        if (trace_field(line, "open")) {
            EXPECT_EQ(line, R"({"service":"ZantraTalvexProcessor","open":0,"result":0})");
        }
}

}  // namespace
