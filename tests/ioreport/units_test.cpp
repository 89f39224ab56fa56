// Unit words: factors, scaling and labels; sample descriptions of every
// format; writing text to a descriptor.
#include "report_fixtures.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cmath>

using namespace rt;

namespace {

std::string label(uint64_t unit) {
    CFRef<CFStringRef> s(copyUnitLabel(unit));
    return text(s.get());
}

std::string describe(CFDictionaryRef sample, const char *prefix = nullptr) {
    CFRef<CFStringRef> s(IOReportSampleCopyDescription(sample, nullptr, prefix));
    return text(s.get());
}

constexpr uint64_t kMs = 0x0100007C00000000ull;

}  // namespace

// Scales: a power of ten with a multiplier or a divisor, or a power of two.
TEST(Units, ScaleValue) {
    EXPECT_DOUBLE_EQ(IOReportScaleValue(1500, kMs, kIOReportUnitTime), 1.5);
    EXPECT_DOUBLE_EQ(IOReportScaleValue(24000000, 0x0100007980000018ull, kIOReportUnitTime), 1.0);
    EXPECT_DOUBLE_EQ(IOReportScaleValue(3, kIOReportUnitTime, kMs), 3000.0);
    EXPECT_DOUBLE_EQ(IOReportScaleValue(1, 0x0100008200000003ull, kIOReportUnitTime), 3000.0);   // 3 * 10^3
    EXPECT_DOUBLE_EQ(IOReportScaleValue(4, 0x01007D0000000000ull, kIOReportUnitTime), 1.0);      // 2^-2
    EXPECT_TRUE(std::isnan(IOReportScaleValue(1, 0x0100000000000000ull, 0x0200000000000000ull)));
    EXPECT_TRUE(std::isnan(IOReportScaleValue(1, 0x0101000000000000ull, kIOReportUnitTime)));
    EXPECT_TRUE(std::isnan(IOReportScaleValue(1, kIOReportInvalidUnit, kIOReportUnitTime)));
}

TEST(Units, Labels) {
    EXPECT_EQ(label(0x0100000000000000ull), "s");
    EXPECT_EQ(label(kMs), "ms");
    EXPECT_EQ(label(0x0900820000000000ull), "B");
    EXPECT_EQ(label(0x0900000000000000ull), "b");
    EXPECT_EQ(label(0x09008C0000000004ull), "4Ki");
    EXPECT_EQ(label(0x08008C0000000008ull), "8KiHz");
    EXPECT_EQ(label(0x6400008200000000ull), "kevents");
    EXPECT_EQ(label(0x3700000000000000ull), "??");
    EXPECT_EQ(label(0x0200001234000000ull), "W");   // an unlisted scale has no prefix
    EXPECT_EQ(label(0x0000008500000000ull), "M");
    EXPECT_EQ(label(0x3700007980000018ull), "24Mticks");   // whole labels, whatever the quantity
    EXPECT_EQ(label(0x0001000000000000ull), "hwticks?");
    EXPECT_EQ(label(0x0502000000000000ull), "hwpage?");
    EXPECT_FALSE(copyUnitLabel(kIOReportInvalidUnit));

    CFRef<CFMutableDictionaryRef> rec(record(1, 2, type(1, 0, 1), nullptr, kMs));
    EXPECT_EQ(text(IOReportChannelGetUnitLabel(rec.get())), "ms");
}

// (Arrays, and every format's lines as the tool prints them: tests/tool/report_test.cpp.)
TEST(Descriptions, Simple) {
    const uint64_t simple = type(kIOReportFormatSimple, 0, 1);
    CFRef<CFMutableDictionaryRef> s(sample(simple, run(1, 2, simple, {{1234}}), kMs, "TOTAL MS"));
    EXPECT_EQ(describe(s.get(), "  "), "                          TOTAL MS = {         1234 ms }\n");
    // A prefix that is not UTF-8 is repaired, its bytes read as Latin-1.
    EXPECT_EQ(describe(s.get(), "\xff"), "\xc3\xbf                        TOTAL MS = {         1234 ms }\n");

    // No name: the first element's channel ID in hex, at most nine digits.
    CFRef<CFMutableDictionaryRef> anon(record(1, 0x0101, simple));
    CFRef<CFMutableDataRef> d(mutableData(run(1, 0x0123456789ABCDEFull, simple, {{static_cast<uint64_t>(-1)}})));
    setValue(anon.get(), "RawElements", d.get());
    EXPECT_EQ(describe(anon.get()), "                       123456789 = {           -1 (null) }\n");
}

TEST(Descriptions, StateLines) {
    const uint64_t t = type(kIOReportFormatState, 0, 2);
    CFRef<CFMutableDictionaryRef> s(
        sample(t, run(1, 2, t, {{0x49444C45, 3, 1500}, {0x52554E, 12, 500}}), kMs, "pstate"));
    EXPECT_EQ(describe(s.get()),
              "              pstate[    IDLE] = { # 3        1.500e+00 s / 75.0% }\n"
              "              pstate[     RUN] = { # 12       5.000e-01 s / 25.0% }\n");

    // Unprintable state IDs name every state by its hex ID; a unit that is not
    // a time unit gives no residency in seconds.
    CFRef<CFMutableDictionaryRef> w(
        sample(t, run(1, 2, t, {{0x4101, 3, 1500}, {0x52554E, 12, 500}}), 0x0200000000000000ull, "pstate"));
    EXPECT_EQ(describe(w.get()),
              "              pstate[    4101] = { # 3              nan s / 75.0% }\n"
              "              pstate[  52554e] = { # 12             nan s / 25.0% }\n");

    // No residency at all: no duty cycle.
    CFRef<CFMutableDictionaryRef> idle(sample(t, run(1, 2, t, {{0x49444C45, 0, 0}, {0x52554E, 0, 0}}), kMs, "pstate"));
    EXPECT_EQ(describe(idle.get()),
              "              pstate[    IDLE] = { # 0        0.000e+00 s /  nan% }\n"
              "              pstate[     RUN] = { # 0        0.000e+00 s /  nan% }\n");
}

TEST(Descriptions, HistogramLines) {
    const uint64_t t = type(kIOReportFormatHistogram, 0, 2);
    CFRef<CFMutableDictionaryRef> h(sample(t, run(1, 2, t, {{3, 1, 9, 15}, {0, 0, 0, 0}}), kMs, "lat"));
    CFRef<CFMutableDictionaryRef> info(IOReportCreateUnitInfo(kMs));
    std::vector<uint8_t> cfg(16, 0);
    cfg[0] = 10;
    cfg[12] = 2;
    CFRef<CFDataRef> c(CFDataCreate(nullptr, cfg.data(), 16));
    setValue(info.get(), "IOReportChannelConfig", c.get());
    setValue(h.get(), "IOReportChannelInfo", info.get());
    EXPECT_EQ(describe(h.get(), "> "),
              ">                  lat[           0 -           10 ms] = { m            1; M            9; s           "
              "15; #            3 }\n"
              ">                  lat[          10 -           20 ms] = { <no hits>; # 0 }\n");

    // No line can be made without a bucket configuration or for a format
    // the library doesn't know.
    CFRef<CFMutableDictionaryRef> nocfg(sample(t, run(1, 2, t, {{3, 1, 9, 15}, {0}}), kMs, "lat"));
    const uint64_t five = type(5, 0, 1);
    CFRef<CFMutableDictionaryRef> f(sample(five, run(1, 2, five, {{1}})));
    EXPECT_EQ(describe(nocfg.get()), "<null>");
    EXPECT_EQ(describe(f.get()), "<null>");
}

TEST(WriteString, WritesAllOrReportsHowItFailed) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    CFRef<CFStringRef> s(str("h\xC3\xA9llo\n"));
    EXPECT_EQ(IOReportWriteStringUTF8(p[1], s.get()), 0);
    char buf[16] = {};
    ASSERT_EQ(read(p[0], buf, sizeof buf), 7);
    EXPECT_EQ(std::string(buf, 7), "h\xC3\xA9llo\n");
    EXPECT_EQ(IOReportWriteStringUTF8(p[1], nullptr), mach(0xe00002c2));
    EXPECT_EQ(IOReportWriteStringUTF8(-1, s.get()), mach(0xe00002ca));

    // A write that the pipe takes only in part is not retried.
    ASSERT_EQ(fcntl(p[1], F_SETFL, O_NONBLOCK), 0);
    std::vector<char> fill(4096, 'x');
    while (write(p[1], fill.data(), fill.size()) > 0) {
    }
    ASSERT_EQ(read(p[0], fill.data(), fill.size()), 4096);
    std::string big(100000, 'y');
    CFRef<CFStringRef> bigs(str(big.c_str()));
    EXPECT_EQ(IOReportWriteStringUTF8(p[1], bigs.get()), mach(0xe00002e7));
    close(p[0]);
    close(p[1]);
}
