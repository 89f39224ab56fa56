// Cutting hub buffer images into samples, and the subscription's argument
// checks (none of which reach the hub). (Raw element access by format and
// size: the value tests.)
#include "report_fixtures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

using namespace rt;

namespace {

const uint64_t kSimple = type(kIOReportFormatSimple, 0, 1);
const uint64_t kState2 = type(kIOReportFormatState, 0, 2);

CFDataRef rawOf(CFDictionaryRef rec) { return static_cast<CFDataRef>(getValue(rec, "RawElements")); }

// How each subscribed channel ends up in the sample, in the sample's order:
// "a=2" for channel 0xA with two elements copied whole from the buffer, "b=-"
// for a copy kept without elements. Channels left out don't appear.
std::string outcome(CFDictionaryRef sample, const std::vector<uint8_t> &image) {
    std::string out;
    for (auto *r : channelsOf(sample)) {
        char id[32];
        snprintf(id, sizeof id, "%s%llx=", out.empty() ? "" : " ",
                 static_cast<unsigned long long>(IOReportChannelGetChannelID(r)));
        out += id;
        CFDataRef raw = rawOf(r);
        if (!raw) {
            out += "-";
            continue;
        }
        auto *bytes = CFDataGetBytePtr(raw);
        auto found = std::search(image.begin(), image.end(), bytes, bytes + CFDataGetLength(raw));
        out += found == image.end() ? "?" : std::to_string(CFDataGetLength(raw) / 64);
    }
    return out;
}

}  // namespace

// The refusals, with their errors.
TEST(SamplesRaw, RefusesShortMissingOrZeroCountBuffers) {
    CFRef<CFMutableDictionaryRef> subs(subscribed({{1, 0xA, kSimple}, {1, 0xC, kSimple}}));
    EXPECT_EQ(failure([&](CFErrorRef *err) { return samplesOf(subs.get(), std::vector<uint8_t>(63, 0), err); }),
              "couldn't create samples (0xe00002c2)");
    EXPECT_FALSE(IOReportCreateSamplesRaw(subs.get(), nullptr, nullptr));
    EXPECT_FALSE(samplesOf(nullptr, run(1, 0xA, kSimple, {{7}})));

    // A zero-count run fails the sample when the walk for 0xC reaches it.
    auto image = run(1, 0xA, kSimple, {{7}});
    append(image, Element{5, 5, type(1, 0, 0), 0, {}});
    EXPECT_EQ(failure([&](CFErrorRef *err) { return samplesOf(subs.get(), image, err); }),
              "couldn't create samples (0xe00002bc)");
}

TEST(SamplesRaw, UnknownTypeIsLearntFromTheFirstSample) {
    CFRef<CFMutableDictionaryRef> subs(subscribed({{1, 0xA, 0}}));
    EXPECT_EQ(IOReportChannelGetFormat(channelsOf(subs.get())[0]), 0);
    auto image = run(1, 0xA, kState2, {{1, 1, 1}, {2, 2, 2}});
    append(image, Element{1, 0xA, kSimple, 0, {9}});
    CFRef<CFMutableDictionaryRef> s(samplesOf(subs.get(), image));
    ASSERT_TRUE(s);
    // The first run with the IDs wins; its type is kept by the subscribed record and the sample.
    EXPECT_EQ(IOReportChannelGetFormat(channelsOf(subs.get())[0]), kIOReportFormatState);
    EXPECT_EQ(IOReportStateGetCount(channelsOf(s.get())[0]), 2);
    EXPECT_EQ(IOReportStateGetResidency(channelsOf(s.get())[0], 1), 2);

    // A known type is not overwritten.
    CFRef<CFMutableDictionaryRef> known(subscribed({{1, 0xA, kSimple}}));
    CFRef<CFMutableDictionaryRef> s2(samplesOf(known.get(), image));
    EXPECT_EQ(IOReportChannelGetFormat(channelsOf(known.get())[0]), kIOReportFormatSimple);
}

// A walk that finds nothing ends exactly on the buffer's end (the channel is
// left out) or past it, because the last run claims more elements than
// remain (the copy is kept without elements). A found run that would read
// past the end is kept without elements too; bytes after the last whole
// element are ignored.
TEST(SamplesRaw, WhereTheWalkEndsDecidesWhatAChannelKeeps) {
    CFRef<CFMutableDictionaryRef> subs(subscribed({{1, 0xA, kSimple}, {1, 0xB, kSimple}, {1, 0xC, kSimple}}));
    auto overshoot = run(1, 0xA, type(1, 0, 2), {{7}, {8}});
    auto claims2 = run(1, 0xB, type(1, 0, 2), {{9}});
    overshoot.insert(overshoot.end(), claims2.begin(), claims2.end());
    CFRef<CFMutableDictionaryRef> s(samplesOf(subs.get(), overshoot));
    ASSERT_TRUE(s);
    EXPECT_EQ(outcome(s.get(), overshoot), "a=2 b=- c=-");
    for (auto *r : channelsOf(subs.get())) EXPECT_FALSE(rawOf(r));   // the subscribed records stay bare

    auto exact = run(1, 0xB, kSimple, {{9}});
    auto a = run(1, 0xA, kSimple, {{7}});
    exact.insert(exact.end(), a.begin(), a.end());
    exact.resize(exact.size() + 63, 0xAB);
    CFRef<CFMutableDictionaryRef> s2(samplesOf(subs.get(), exact));
    ASSERT_TRUE(s2);
    EXPECT_EQ(outcome(s2.get(), exact), "a=1 b=1");
}

TEST(Subscription, ArgumentChecksFailBeforeTheHub) {
    CFMutableDictionaryRef out = nullptr;
    CFRef<CFErrorRef> e;
    CFRef<CFMutableDictionaryRef> empty(IOReportCreateAggregate(0));
    EXPECT_FALSE(IOReportCreateSubscription(nullptr, empty.get(), nullptr, 0, e.slot()));
    EXPECT_FALSE(e);
    EXPECT_EQ(failure([&](CFErrorRef *err) { return IOReportCreateSubscription(nullptr, empty.get(), &out, 0, err); }),
              "no channels (0xe00002c2)");

    // A record whose driver ID is missing can't go into the interest list.
    CFRef<CFMutableDictionaryRef> nodriver(subscribed({{1, 0xA, kSimple}}));
    CFRef<CFNumberRef> sentinel(num(kNone));
    setValue(channelsOf(nodriver.get())[0], "DriverID", sentinel.get());
    EXPECT_EQ(failure([&](CFErrorRef *err) { return IOReportCreateSubscription(nullptr, nodriver.get(), &out, 0, err); }),
              "createInterestList() failed (0xe00002bd)");
    EXPECT_FALSE(out);

    EXPECT_FALSE(IOReportCreateSamples(nullptr, nodriver.get(), nullptr));
}
