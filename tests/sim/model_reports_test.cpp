// The report hub and the drivers' report channels in-process, on a step clock
// attached to the hub. (Through the report library: hub_test.cpp.)
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "coprocessor.h"
#include "hub.h"
#include "report_models.h"
#include "sim_rig.h"
#include "simulation.h"
#include "wire.h"

using namespace talvex;
using namespace talvex::sim;

namespace {

constexpr uint64_t kFiller = 0x8000000000000000ull;
const uint64_t kTotal = report_id("TOTAL MS"), kIdle = report_id("IDLE MS "), kStates = report_id("PWRSTATE"),
               kLatency = report_id("PROCLAT"), kEvents = report_id("EVENTS");

struct BufferRun {
    uint64_t driver, channel, type;
    size_t at, count;
};

// The simulation of sim_rig.h with the hub on its step clock.
struct Rig : test::SimRig {
    Rig() : hub(ReportHub::of(*sim)) { hub->set_step_clock(step); }

    uint64_t driver(const char *cls) { return sim->registry().find_class(cls)->id; }
    uint64_t cp() { return driver(kCoprocessorClass); }
    uint64_t power() { return driver(kPowerControllerClass); }

    std::unique_ptr<UserClient> client(bool opened = true) {
        std::unique_ptr<UserClient> uc;
        EXPECT_EQ(hub->open(0, uc), kIOReturnSuccess);
        if (opened) {
            EXPECT_EQ(call(*uc, kIOReportUserClientOpen, {}, {}, 0), kIOReturnSuccess);
        }
        return uc;
    }
    IOReturn call(UserClient &uc, uint32_t selector, std::vector<uint64_t> scalars, std::vector<uint8_t> input,
                  uint32_t scalar_capacity, std::vector<uint64_t> *out = nullptr) {
        CallArgs a;
        a.selector = selector;
        a.scalars = scalars;
        a.input = input;
        a.scalar_output_capacity = scalar_capacity;
        CallReply r;
        IOReturn code = uc.call(a, r);
        if (out) *out = r.scalars;
        return code;
    }
    // Configures the channels (driver, channel) and returns the token (0 on failure).
    uint64_t subscribe(UserClient &uc, const std::vector<std::pair<uint64_t, uint64_t>> &channels) {
        std::vector<uint64_t> out;
        IOReturn code = call(uc, kIOReportUserClientConfigureInterests, {}, interests(channels), 1, &out);
        if (code != kIOReturnSuccess || out.size() != 1) return 0;
        return out[0];
    }
    IOReturn update(UserClient &uc, uint64_t token) {
        return call(uc, kIOReportUserClientUpdateKernelBuffer, {token}, {}, 0);
    }
    std::span<const uint8_t> buffer(UserClient &uc, uint64_t token) {
        SharedRegion *r = uc.region(static_cast<uint32_t>(token));
        return r ? r->bytes() : std::span<const uint8_t>{};
    }
    ControlResult control(std::vector<std::string> words) { return sim->control(words); }

    static std::vector<uint8_t> interests(const std::vector<std::pair<uint64_t, uint64_t>> &channels) {
        std::vector<uint8_t> b(8 + 24 * channels.size(), 0);
        wire::store_le32(b.data(), static_cast<uint32_t>(channels.size()));
        for (size_t i = 0; i < channels.size(); ++i) {
            wire::store_le64(b.data() + 8 + 24 * i, channels[i].first);
            wire::store_le64(b.data() + 16 + 24 * i, channels[i].second);
        }
        return b;
    }

    ReportHub *hub;
};

// The buffer's runs; the walk must end exactly at the end of the buffer.
std::vector<BufferRun> runs(std::span<const uint8_t> b) {
    std::vector<BufferRun> out;
    size_t at = 0;
    while (at + 64 <= b.size()) {
        size_t count = wire::load_le16(b.data() + at + 20);
        if (count == 0) break;
        out.push_back({wire::load_le64(b.data() + at), wire::load_le64(b.data() + at + 8),
                       wire::load_le64(b.data() + at + 16), at, count});
        at += count * 64;
    }
    EXPECT_EQ(at, b.size()) << "runs do not end at the end of the buffer";
    return out;
}

// Value `slot` (0-3) of element `element` of the run starting at `at`.
uint64_t value(std::span<const uint8_t> b, size_t at, size_t element, size_t slot) {
    return wire::load_le64(b.data() + at + 64 * element + 32 + 8 * slot);
}

}  // namespace

TEST(HubInProcess, RefusesWhatIsNotAProperRequest) {
    Rig rig;
    const uint64_t cp = rig.cp();
    auto uc = rig.client(false);
    std::vector<uint8_t> good = Rig::interests({{cp, kTotal}});
    EXPECT_EQ(rig.call(*uc, kIOReportUserClientConfigureInterests, {}, good, 1), kIOReturnNotOpen);
    EXPECT_EQ(rig.call(*uc, kIOReportUserClientUpdateKernelBuffer, {1}, {}, 0), kIOReturnNotOpen);
    ASSERT_EQ(rig.call(*uc, kIOReportUserClientOpen, {}, {}, 0), kIOReturnSuccess);

    auto with_count = [&](uint32_t n, size_t size) {
        std::vector<uint8_t> b(size, 0);
        wire::store_le32(b.data(), n);
        return b;
    };
    // Short of the count; no entries; a count the entries do not match; a part of an entry.
    for (auto bad : {std::vector<uint8_t>(7, 0), with_count(0, 8), with_count(2, 32), with_count(1, 33)})
        EXPECT_EQ(rig.call(*uc, kIOReportUserClientConfigureInterests, {}, bad, 1), kIOReturnBadArgument) << bad.size();
    // Nowhere to put the token.
    EXPECT_EQ(rig.call(*uc, kIOReportUserClientConfigureInterests, {}, good, 0), kIOReturnBadArgument);
    std::unique_ptr<UserClient> other;
    EXPECT_EQ(rig.hub->open(1, other), kIOReturnBadArgument);

    // Nothing requested exists: one filler element that names no channel.
    uint64_t token = rig.subscribe(*uc, {{cp, report_id("NOPE")}, {7, kTotal}});
    ASSERT_NE(token, 0u);
    auto r = runs(rig.buffer(*uc, token));
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].driver, kFiller);
    EXPECT_EQ(r[0].channel, kFiller);
    EXPECT_EQ(r[0].count, 1u);

    // Tokens belong to the client that got them.
    auto second = rig.client();
    EXPECT_EQ(rig.update(*second, token), kIOReturnBadArgument);

    // A bounded number of buffers per client.
    for (size_t i = 1; i < ReportHub::kMaxSubscriptions; ++i) ASSERT_NE(rig.subscribe(*uc, {{cp, kTotal}}), 0u);
    EXPECT_EQ(rig.call(*uc, kIOReportUserClientConfigureInterests, {}, good, 1), kIOReturnNoResources);
    EXPECT_EQ(rig.update(*uc, token), kIOReturnSuccess);
}

TEST(CoprocessorReports, CountersFollowThePinnedLoadAndStandStillUnlessBooted) {
    Rig rig;
    auto uc = rig.client();
    const uint64_t cp = rig.cp();
    uint64_t token = rig.subscribe(
        *uc, {{cp, kTotal}, {cp, kIdle}, {cp, kStates}, {cp, kLatency}, {cp, kEvents}, {rig.power(), report_id("VDD CPU")}});
    auto b = rig.buffer(*uc, token);
    auto deltas = [&](int passes) {
        uint64_t total = value(b, 0, 0, 0), idle = value(b, 64, 0, 0);
        for (int i = 0; i < passes; ++i) EXPECT_EQ(rig.update(*uc, token), kIOReturnSuccess);
        return std::pair{value(b, 0, 0, 0) - total, value(b, 64, 0, 0) - idle};
    };

    ASSERT_EQ(rig.control({"load", "12.34"}).code, 0);
    EXPECT_EQ(deltas(5), (std::pair<uint64_t, uint64_t>{5000, 4383}));   // 87.66% idle, kept exactly
    ASSERT_EQ(rig.control({"load", "100"}).code, 0);
    EXPECT_EQ(deltas(1), (std::pair<uint64_t, uint64_t>{1000, 0}));

    // The model's own load changes from second to second, within bounds.
    ASSERT_EQ(rig.control({"load", "auto"}).code, 0);
    uint64_t lowest = 1000, highest = 0;
    for (int i = 0; i < 60; ++i) {
        auto [total, idle] = deltas(1);
        ASSERT_EQ(total, 1000u);
        lowest = std::min(lowest, total - idle);
        highest = std::max(highest, total - idle);
    }
    EXPECT_GE(lowest, 25u);    // 3% to 95%, give or take the millisecond rounding
    EXPECT_LE(highest, 955u);
    EXPECT_GT(highest - lowest, 100u);

    // Unless booted, the coprocessor's figures stand still; the rail's driver keeps counting.
    const size_t rail = b.size() - 64;
    auto coprocessor_part = [&] { return std::vector<uint8_t>(b.begin(), b.begin() + static_cast<long>(rail)); };
    auto frozen = [&](const char *what) {
        std::vector<uint8_t> before = coprocessor_part();
        uint64_t energy = value(b, rail, 0, 0);
        ASSERT_EQ(rig.update(*uc, token), kIOReturnSuccess);
        ASSERT_EQ(rig.update(*uc, token), kIOReturnSuccess);
        EXPECT_EQ(coprocessor_part(), before) << what;
        EXPECT_EQ(value(b, rail, 0, 0), energy + 360) << what;
    };
    ASSERT_EQ(rig.code(3), kIOReturnSuccess);   // stop
    frozen("stopped");

    // A reset boots within the first second; counting starts from then on.
    ASSERT_EQ(rig.code(1), kIOReturnSuccess);
    ASSERT_EQ(rig.update(*uc, token), kIOReturnSuccess);
    ASSERT_EQ(rig.cop->state(), kTalvexStateBooted);
    EXPECT_EQ(deltas(1).first, 1000u);

    ASSERT_EQ(rig.code(31), kIOReturnSuccess);   // panic
    frozen("panic");
}

TEST(ReportControl, ChannelSetHoldsAValueAndReleaseLetsItMoveOn) {
    Rig rig;
    auto uc = rig.client();
    const uint64_t cp = rig.cp();
    uint64_t token = rig.subscribe(*uc, {{cp, kTotal}, {cp, kEvents}, {rig.power(), report_id("VDD CPU")}});
    auto b = rig.buffer(*uc, token);
    auto update = [&] { ASSERT_EQ(rig.update(*uc, token), kIOReturnSuccess); };

    ASSERT_EQ(rig.control({"channel", "set", "TOTAL MS", "5"}).code, 0);
    update();
    update();
    EXPECT_EQ(value(b, 0, 0, 0), 5u);
    ASSERT_EQ(rig.control({"channel", "release", "TOTAL MS"}).code, 0);
    update();
    EXPECT_EQ(value(b, 0, 0, 0), 1005u);
    ASSERT_EQ(rig.control({"channel", "set", "0x544F54414C204D53", "-7"}).code, 0);
    update();
    EXPECT_EQ(value(b, 0, 0, 0), static_cast<uint64_t>(-7));

    // One value of an array; the others keep moving.
    std::vector<uint64_t> before;
    for (size_t v = 0; v < 8; ++v) before.push_back(value(b, 64, v / 4, v % 4));
    ASSERT_EQ(rig.control({"channel", "set", "--index", "5", "EVENTS", "42"}).code, 0);
    update();
    for (size_t v = 0; v < 8; ++v) {
        if (v == 5) {
            EXPECT_EQ(value(b, 64, 1, 1), 42u);
        } else {
            EXPECT_GT(value(b, 64, v / 4, v % 4), before[v]) << v;
        }
    }
    ASSERT_EQ(rig.control({"channel", "set", "--service", kPowerControllerClass, "vdd_cpu", "0"}).code, 0);
    update();
    EXPECT_EQ(value(b, 192, 0, 0), 0u);
}
