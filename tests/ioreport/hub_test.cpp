// Subscribing through the simulator's report hub, with its selectors told
// how to answer. The hub connection is opened once per process, so the whole
// sequence is one test.
#include "report_fixtures.h"
#include "sim_fixture.h"
#include "talvex_driver.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

using namespace rt;

namespace {

void stub(std::vector<std::string> args) {
    args.insert(args.begin(), {"stub", "--service", "IOReportHub"});
    auto r = simulator().control(args);
    ASSERT_EQ(r.status, 0) << r.err;
}

// The hub's trace lines for one selector.
std::vector<std::string> calls(int selector) {
    std::vector<std::string> out;
    std::string key = "\"service\":\"IOReportHub\",\"selector\":" + std::to_string(selector) + ",";
    for (auto &line : simulator().trace())
        if (line.find(key) != std::string::npos) out.push_back(line);
    return out;
}

std::string field(const std::string &line, const std::string &name) {
    auto at = line.find("\"" + name + "\":");
    if (at == std::string::npos) return "<missing>";
    at += name.size() + 3;
    auto end = line[at] == '"' ? line.find('"', at + 1) + 1 : line.find_first_of(",}", at);
    return line.substr(at, end - at);
}

// A 64-bit value as the trace shows it: its little-endian bytes in hex.
std::string hex64(uint64_t v) {
    char s[17];
    for (int i = 0; i < 8; ++i) std::snprintf(s + 2 * i, 3, "%02x", static_cast<unsigned>(v >> (8 * i)) & 0xffu);
    return s;
}

}  // namespace

TEST(Hub, SubscribeMapAndSample) {
    simulator().control({"trace", "--clear"});
    const uint64_t t1 = type(kIOReportFormatSimple, 4, 1), t2 = type(kIOReportFormatState, 2, 3);
    CFRef<CFMutableDictionaryRef> desired(IOReportCreateAggregate(kIOReportOptionByDriver));
    CFRef<CFStringRef> name(str("drv"));
    ASSERT_EQ(IOReportAddChannelDescription(desired.get(), 0x11, name.get(), 0xA1, t1, nullptr, nullptr, nullptr,
                                            nullptr, nullptr),
              0);
    ASSERT_EQ(IOReportAddChannelDescription(desired.get(), 0x22, name.get(), 0xB2, t2, nullptr, nullptr, nullptr,
                                            nullptr, nullptr),
              0);

    // (Refusals of the interest list and of an update: tests/sim/hub_test.cpp.)
    // A token that names no memory fails the mapping.
    stub({"--selector", std::to_string(kIOReportUserClientOpen), "--code", "0"});
    CFMutableDictionaryRef subscribed = nullptr;
    stub({"--selector", std::to_string(kIOReportUserClientConfigureInterests), "--scalar-outputs", "7", "--times",
          "1"});
    CFRef<CFErrorRef> e2;
    EXPECT_FALSE(IOReportCreateSubscription(nullptr, desired.get(), &subscribed, 0, e2.slot()));
    EXPECT_EQ(errorText(e2.get()), "IOConnectMapMemory() failed");
    EXPECT_NE(errorCode(e2.get()), 0);

    // Token 0 names the hub buffer.
    stub({"--selector", std::to_string(kIOReportUserClientConfigureInterests), "--scalar-outputs", "0"});
    stub({"--selector", std::to_string(kIOReportUserClientUpdateKernelBuffer), "--code", "0"});
    CFRef<CFErrorRef> e3;
    CFRef<IOReportSubscriptionRef> sub(IOReportCreateSubscription(nullptr, desired.get(), &subscribed, 0, e3.slot()));
    ASSERT_TRUE(sub) << errorText(e3.get());
    CFRef<CFMutableDictionaryRef> owned(subscribed);
    ASSERT_TRUE(subscribed);
    EXPECT_NE(subscribed, desired.get());
    EXPECT_EQ(IOReportGetChannelCount(subscribed), 2);

    // One open for the process; the interest list as the hub received it.
    auto trace = simulator().trace();
    EXPECT_EQ(std::count_if(trace.begin(), trace.end(),
                            [](const std::string &l) { return l.find("\"open\":0") != std::string::npos; }),
              1);
    EXPECT_EQ(calls(kIOReportUserClientOpen).size(), 1u);
    auto configure = calls(kIOReportUserClientConfigureInterests);
    ASSERT_EQ(configure.size(), 2u);
    std::string input = field(configure.back(), "input");
    ASSERT_EQ(input.size(), 2 + 2 * (8 + 24 * 2u)) << input;
    EXPECT_EQ(input.substr(1, 8), "02000000");
    EXPECT_EQ(input.substr(17, 96), hex64(0x11) + hex64(0xA1) + hex64(t1) + hex64(0x22) + hex64(0xB2) + hex64(t2));
    EXPECT_EQ(field(configure.back(), "scalar_output_count"), "1");

    // The hub buffer is all zeros here: its first run has no elements, which
    // fails the sample after the update call.
    CFRef<CFErrorRef> e4;
    EXPECT_FALSE(IOReportCreateSamples(sub.get(), subscribed, e4.slot()));
    EXPECT_EQ(errorText(e4.get()), "couldn't create samples");
    auto update = calls(kIOReportUserClientUpdateKernelBuffer);
    ASSERT_EQ(update.size(), 1u);
    EXPECT_EQ(field(update[0], "scalars"), "[0]");
}
