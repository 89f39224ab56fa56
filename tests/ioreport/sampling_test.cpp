// Cutting hub buffer images into samples, and the subscription's argument
// checks (none of which reach the hub). (Raw element access by format and
// size: the value tests.)
#include "report_fixtures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

using namespace rt;

namespace {

const uint64_t kSimple = type(kIOReportFormatSimple, 0, 1);
const uint64_t kState2 = type(kIOReportFormatState, 0, 2);

// A subscribed-channels aggregate holding the given (driver, channel, type) records.
CFMutableDictionaryRef subscribed(const std::vector<std::tuple<uint64_t, uint64_t, uint64_t>> &channels) {
    CFMutableDictionaryRef agg = IOReportCreateAggregate(0);
    CFRef<CFStringRef> name(str("drv"));
    for (auto [driver, id, t] : channels)
        EXPECT_EQ(IOReportAddChannelDescription(agg, driver, name.get(), id, t, nullptr, nullptr, nullptr, nullptr,
                                                nullptr),
                  0);
    return agg;
}

CFMutableDictionaryRef samplesOf(CFMutableDictionaryRef channels, const std::vector<uint8_t> &image,
                                 CFErrorRef *error = nullptr) {
    CFRef<CFDataRef> data(CFDataCreate(nullptr, image.data(), static_cast<CFIndex>(image.size())));
    return IOReportCreateSamplesRaw(channels, data.get(), error);
}

CFDataRef rawOf(CFDictionaryRef rec) { return static_cast<CFDataRef>(getValue(rec, "RawElements")); }

}  // namespace

// What a walk that finds nothing leaves in the sample (the channel left out,
// or kept without elements) is compared with the walk from the start on
// random buffers below. These are the refusals, with their errors.
TEST(SamplesRaw, RefusesShortMissingOrZeroCountBuffers) {
    CFRef<CFMutableDictionaryRef> subs(subscribed({{1, 0xA, kSimple}, {1, 0xC, kSimple}}));
    CFRef<CFErrorRef> e;
    EXPECT_FALSE(samplesOf(subs.get(), std::vector<uint8_t>(63, 0), e.slot()));
    EXPECT_EQ(errorText(e.get()), "couldn't create samples");
    EXPECT_EQ(errorCode(e.get()), mach(0xe00002c2));
    EXPECT_FALSE(IOReportCreateSamplesRaw(subs.get(), nullptr, nullptr));
    EXPECT_FALSE(samplesOf(nullptr, run(1, 0xA, kSimple, {{7}})));

    // A zero-count run fails the sample when the walk for 0xC reaches it.
    auto image = run(1, 0xA, kSimple, {{7}});
    append(image, Element{5, 5, type(1, 0, 0), 0, {}});
    CFRef<CFErrorRef> e3;
    EXPECT_FALSE(samplesOf(subs.get(), image, e3.slot()));
    EXPECT_EQ(errorText(e3.get()), "couldn't create samples");
    EXPECT_EQ(errorCode(e3.get()), mach(0xe00002bc));
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

// The per-channel search done the slow way: walk the buffer from its start
// for every channel. The library builds the same outcomes in one pass; this
// compares them on random buffers, which cover every way a walk can end.
namespace {

enum class Outcome { Elements, NoElements, LeftOut, Fails };

Outcome reference(const std::vector<uint8_t> &image, uint64_t driver, uint64_t id, size_t *start, size_t *count) {
    size_t end = image.size() / 64 * 64, off = 0;
    while (off < end) {
        const uint8_t *e = image.data() + off;
        size_t n = static_cast<size_t>(e[20] | (e[21] << 8));
        if (n == 0) return Outcome::Fails;
        if (get64(e) == driver && get64(e + 8) == id) {
            *start = off;
            *count = n;
            return off + n * 64 > end ? Outcome::NoElements : Outcome::Elements;
        }
        off += n * 64;
    }
    return off == end ? Outcome::LeftOut : Outcome::NoElements;
}

}  // namespace

TEST(SamplesRaw, MatchesTheWalkFromTheStartOnRandomBuffers) {
    std::mt19937_64 rng(12345);
    for (int round = 0; round < 300; ++round) {
        std::vector<uint8_t> image;
        std::vector<std::tuple<uint64_t, uint64_t, uint64_t>> inBufferOrder;
        int runs = 1 + static_cast<int>(rng() % 12);
        for (int r = 0; r < runs; ++r) {
            uint16_t n = static_cast<uint16_t>(rng() % 40 == 0 ? 0 : 1 + rng() % 3);
            uint64_t driver = 1 + rng() % 2, id = 1 + rng() % 6;
            inBufferOrder.emplace_back(driver, id, kSimple);
            std::vector<std::vector<uint64_t>> values;
            int present = static_cast<int>(n == 0 ? 1 : n);
            if (r == runs - 1 && rng() % 3 == 0) present = 1;   // the last run may overshoot
            for (int k = 0; k < present; ++k) values.push_back({rng(), rng(), rng(), rng()});
            auto part = run(driver, id, type(1, 0, n), values);
            image.insert(image.end(), part.begin(), part.end());
        }
        if (rng() % 4 == 0) image.resize(image.size() + rng() % 64, 0xAB);

        // The channels in the buffer's own order (repeats included), as a
        // subscription usually meets them, or a shuffled part of every key,
        // sometimes with one of them twice.
        std::vector<std::tuple<uint64_t, uint64_t, uint64_t>> wanted;
        if (round % 3 == 0) {
            wanted = inBufferOrder;
        } else {
            for (uint64_t d = 1; d <= 2; ++d)
                for (uint64_t id = 1; id <= 6; ++id) wanted.emplace_back(d, id, kSimple);
            std::shuffle(wanted.begin(), wanted.end(), rng);
            wanted.resize(1 + rng() % wanted.size());
            if (rng() % 4 == 0) wanted.push_back(wanted[rng() % wanted.size()]);
        }
        CFRef<CFMutableDictionaryRef> subs(subscribed(wanted));

        bool fails = false;
        std::map<std::pair<uint64_t, uint64_t>, std::tuple<Outcome, size_t, size_t>> expect;
        for (auto [d, id, t] : wanted) {
            size_t start = 0, count = 0;
            Outcome o = reference(image, d, id, &start, &count);
            fails |= o == Outcome::Fails;
            expect[{d, id}] = {o, start, count};
        }
        CFRef<CFMutableDictionaryRef> s(samplesOf(subs.get(), image));
        ASSERT_EQ(!s, fails) << "round " << round;
        if (!s) continue;
        for (auto *r : channelsOf(subs.get())) ASSERT_FALSE(rawOf(r));   // the subscribed records stay bare
        std::map<std::pair<uint64_t, uint64_t>, CFMutableDictionaryRef> got;
        for (auto *r : channelsOf(s.get()))
            got[{IOReportChannelGetDriverID(r), IOReportChannelGetChannelID(r)}] = r;
        for (auto &[key, e] : expect) {
            auto [o, start, count] = e;
            auto it = got.find(key);
            if (o == Outcome::LeftOut) {
                EXPECT_EQ(it, got.end()) << "round " << round;
                continue;
            }
            ASSERT_NE(it, got.end()) << "round " << round;
            CFDataRef raw = rawOf(it->second);
            if (o == Outcome::NoElements) {
                EXPECT_FALSE(raw) << "round " << round;
            } else {
                ASSERT_TRUE(raw) << "round " << round;
                ASSERT_EQ(static_cast<size_t>(CFDataGetLength(raw)), count * 64);
                EXPECT_EQ(0, memcmp(CFDataGetBytePtr(raw), image.data() + start, count * 64));
            }
        }
    }
}

TEST(Subscription, ArgumentChecksFailBeforeTheHub) {
    CFMutableDictionaryRef out = nullptr;
    CFRef<CFErrorRef> e;
    CFRef<CFMutableDictionaryRef> empty(IOReportCreateAggregate(0));
    EXPECT_FALSE(IOReportCreateSubscription(nullptr, empty.get(), nullptr, 0, e.slot()));
    EXPECT_FALSE(e);
    EXPECT_FALSE(IOReportCreateSubscription(nullptr, empty.get(), &out, 0, e.slot()));
    EXPECT_EQ(errorText(e.get()), "no channels");

    // A record whose driver ID is missing can't go into the interest list.
    CFRef<CFMutableDictionaryRef> nodriver(subscribed({{1, 0xA, kSimple}}));
    CFRef<CFNumberRef> sentinel(num(kNone));
    setValue(channelsOf(nodriver.get())[0], "DriverID", sentinel.get());
    CFRef<CFErrorRef> e3;
    EXPECT_FALSE(IOReportCreateSubscription(nullptr, nodriver.get(), &out, 0, e3.slot()));
    EXPECT_EQ(errorText(e3.get()), "createInterestList() failed");
    EXPECT_EQ(errorCode(e3.get()), mach(0xe00002bd));
    EXPECT_FALSE(out);

    EXPECT_FALSE(IOReportCreateSamples(nullptr, nodriver.get(), nullptr));
}
