// profile end to end: the subcommands, the exact listing formats from
// stubbed replies, the requests that reach the driver, and the live
// profiler's figures growing, freezing and clearing.
#include "tool_support.h"

#include <cstdlib>
#include <string>

namespace {

using namespace talvex::test;

Hex request(uint32_t kind, uint32_t index, const std::string &name = "") {
    return Hex().u32(kind).u32(index).text(name, 64);
}

std::string hitpoint(uint32_t index, const std::string &name, uint32_t max, uint32_t min, uint16_t hits,
                     uint16_t saves) {
    return Hex().u32(index).text(name, 64).u32(max).u32(min).u16(hits).u16(saves).zeros(2).str();
}

std::string function(uint32_t index, const std::string &name, uint32_t max, uint32_t min, uint16_t hits,
                     uint32_t total) {
    return Hex().u32(index).text(name, 64).u32(max).u32(min).u16(hits).u32(total).str();
}

std::string padded(const std::string &name) { return name + std::string(32 - name.size(), ' '); }

// The number after `key` on the listing line that starts with `name`.
long figure(const std::string &listing, const std::string &name, const std::string &key) {
    for (const auto &line : lines(listing)) {
        if (line.rfind(name + " ", 0) != 0) continue;
        size_t at = line.find(key);
        if (at != std::string::npos) return std::strtol(line.c_str() + at + key.size(), nullptr, 10);
    }
    ADD_FAILURE() << name << " has no " << key << " in\n" << listing;
    return -2;
}

TEST(Profile, StartAndResetSayOkStopSaysNothing) {
    Simulator sim;
    for (auto [word, selector, out] : {std::tuple{"start", kTalvexMethodProfileStart, "Ok\n"},
                                       {"stop", kTalvexMethodProfileStop, ""},
                                       {"reset", kTalvexMethodProfileReset, "Ok\n"}}) {
        TraceCall c = one_call(sim, {"profile", word}, out);
        EXPECT_EQ(c.selector, selector);
        EXPECT_TRUE(c.scalars.empty() && c.input.empty() && c.output_size == 0) << word;
    }
}

TEST(Profile, PrintListsEveryEntryInItsOwnFormat) {
    Simulator sim;
    stub_once(sim, kTalvexMethodProfileSummary, Hex().u32(2).u32(1).u32(1234).str());
    // No terminator in the name field: only 63 characters show.
    stub_once(sim, kTalvexMethodProfileEntry, hitpoint(0, std::string(64, 'x'), 7, 0xffffffff, 65535, 3),
              {"--input-prefix", Hex().u32(0).u32(0).str()});
    stub_once(sim, kTalvexMethodProfileEntry, hitpoint(1, "spi_rx_isr", 19, 2, 12, 1),
              {"--input-prefix", Hex().u32(0).u32(1).str()});
    stub_once(sim, kTalvexMethodProfileEntry, function(0, "fusion_update", 960, 180, 97, 0x80000000),
              {"--input-prefix", Hex().u32(1).u32(0).str()});
    Outcome o = run(sim, {"profile", "print"});
    EXPECT_EQ(o.r.status, 0) << o.r.err;
    EXPECT_EQ(o.r.err, "");
    EXPECT_EQ(o.r.out, "profile runtime: 1234\n"
                       "\n"
                       "profile hitpoints (2):\n" +
                           std::string(63, 'x') + " min:   -1 max:    7 hits:65535 saves:   3\n" +
                           padded("spi_rx_isr") + " min:    2 max:   19 hits:   12 saves:   1\n"
                                                  "\n"
                                                  "profile functions (1):\n"
                                                  "fusion_update\n"
                                                  "\tmin:  180 max:  960 hits:   97 total_time:-2147483648\n");
    ASSERT_EQ(o.calls.size(), 4u);
    EXPECT_EQ(o.calls[0].selector, kTalvexMethodProfileSummary);
    EXPECT_EQ(o.calls[0].output_size, 12u);
    const std::string asked[] = {request(0, 0).str(), request(0, 1).str(), request(1, 0).str()};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(o.calls[i + 1].selector, kTalvexMethodProfileEntry);
        EXPECT_EQ(o.calls[i + 1].input, asked[i]);
        EXPECT_EQ(o.calls[i + 1].output_size, 82u);
    }
}

TEST(Profile, EmptySummaryAndFailuresPartWay) {
    Simulator sim;
    stub_once(sim, kTalvexMethodProfileSummary, Hex().u32(0).u32(0).u32(0).str());
    Outcome o = run(sim, {"profile", "print"});
    EXPECT_EQ(o.r.status, 0);
    EXPECT_EQ(o.r.out, "profile runtime: 0\n\nprofile hitpoints (0):\n\nprofile functions (0):\n");
    EXPECT_EQ(o.calls.size(), 1u);

    // The second function fails: what was printed stays, nothing follows.
    stub_once(sim, kTalvexMethodProfileSummary, Hex().u32(0).u32(3).u32(5).str());
    stub_code(sim, kTalvexMethodProfileEntry, "0xe00002bc", {"--input-prefix", Hex().u32(1).u32(1).str()});
    o = run(sim, {"profile", "print"});
    EXPECT_EQ(o.r.status, 1);
    EXPECT_EQ(o.r.out, "profile runtime: 5\n\nprofile hitpoints (0):\n\nprofile functions (3):\n"
                       "sensor_task_run\n\tmin:   -1 max:    0 hits:    0 total_time:   0\n");
    EXPECT_EQ(o.err, from_operation(kGeneralError) + coded(kGeneralError, "profile.cpp"));
    EXPECT_EQ(o.calls.size(), 3u);
}

TEST(Profile, SingleEntriesByIndexOrByName) {
    Simulator sim;
    // An id of digits is an index; the function's line is a single one here.
    stub_once(sim, kTalvexMethodProfileEntry, function(4, "compass_calibrate", 520, 90, 21, 6187));
    EXPECT_EQ(one_call(sim, {"profile", "getfunction", "4"},
                       padded("compass_calibrate") + " min:   90 max:  520 hits:   21 total_time:6187\n")
                  .input,
              request(1, 4).str());
    // An empty id is index 0.
    EXPECT_EQ(one_call(sim, {"profile", "getfunction", ""},
                       padded("sensor_task_run") + " min:   -1 max:    0 hits:    0 total_time:   0\n")
                  .input,
              request(1, 0).str());
    // 12abc is a name, not index 12.
    stub_once(sim, kTalvexMethodProfileEntry, hitpoint(0, "12abc", 5, 4, 3, 2));
    TraceCall c = one_call(sim, {"profile", "gethitpoint", "12abc"},
                           padded("12abc") + " min:    4 max:    5 hits:    3 saves:   2\n");
    EXPECT_EQ(c.input, request(0, 0xffffffff, "12abc").str());
    EXPECT_EQ(c.output_size, 82u);

    // A name of 63 characters is sent; 64 are refused before the driver.
    std::string name(63, 'n');
    Outcome o = run(sim, {"profile", "gethitpoint", name});
    ASSERT_EQ(o.calls.size(), 1u);
    EXPECT_EQ(o.calls[0].input, request(0, 0xffffffff, name).str());
    EXPECT_EQ(o.err, coded("(iokit/common) data was not found (0xe00002f0)", "profile.cpp"));
    EXPECT_EQ(o.r.status, 1);
    o = run(sim, {"profile", "gethitpoint", name + "n"});
    EXPECT_EQ(o.r.status, 1);
    EXPECT_EQ(o.err, coded("(iokit/common) invalid argument (0xe00002c2)", "profile.cpp"));
    EXPECT_EQ(o.opens, 1u);
    EXPECT_TRUE(o.calls.empty());

    // By index a failure is the operation's report alone.
    o = run(sim, {"profile", "gethitpoint", "99"});
    EXPECT_EQ(o.r.status, 1);
    EXPECT_EQ(o.r.out, "");
    EXPECT_EQ(o.err, from_operation("(iokit/common) invalid argument (0xe00002c2)"));
}

TEST(Profile, LiveFiguresGrowWhileStartedFreezeWhenStoppedAndClearOnReset) {
    Simulator sim;
    ASSERT_EQ(run(sim, {"profile", "start"}).r.status, 0);
    pause_ms(300);
    std::string first = run(sim, {"profile", "print"}).r.out;
    pause_ms(300);
    Outcome second = run(sim, {"profile", "print"});
    ASSERT_EQ(second.r.status, 0) << second.r.err;
    long hits1 = figure(first, "spi_rx_isr", "hits:"), hits2 = figure(second.r.out, "spi_rx_isr", "hits:");
    EXPECT_GT(hits1, 100);
    EXPECT_GT(hits2, hits1);
    EXPECT_GT(figure(second.r.out, "spi_rx_isr", "max:"), 0);
    EXPECT_EQ(lines(second.r.out).size(), 2u + 1 + 8 + 1 + 1 + 2 * 9);   // runtime, blank, 8 hitpoints, 9 functions
    long runtime = std::strtol(second.r.out.c_str() + std::string("profile runtime: ").size(), nullptr, 10);
    EXPECT_GE(runtime, 600);

    Outcome by_name = run(sim, {"profile", "gethitpoint", "spi_rx_isr"});
    EXPECT_EQ(by_name.r.status, 0);
    EXPECT_GE(figure(by_name.r.out, "spi_rx_isr", "hits:"), hits2);

    ASSERT_EQ(run(sim, {"profile", "stop"}).r.status, 0);
    std::string stopped = run(sim, {"profile", "print"}).r.out;
    pause_ms(200);
    EXPECT_EQ(run(sim, {"profile", "print"}).r.out, stopped);

    ASSERT_EQ(run(sim, {"profile", "reset"}).r.out, "Ok\n");
    std::string cleared = run(sim, {"profile", "print"}).r.out;
    EXPECT_EQ(figure(cleared, "spi_rx_isr", "hits:"), 0);
    EXPECT_EQ(figure(cleared, "spi_rx_isr", "min:"), -1);
    EXPECT_EQ(lines(cleared)[0], "profile runtime: 0");
}

}  // namespace
