// The report commands, ioreport and cpuload: their setup failures, the load
// arithmetic, and both loops run against a private simulator.
#include "harness.h"
#include "report_commands.h"
#include "trace_calls.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using talvex::test::RunResult;
using talvex::test::Simulator;
using talvex::test::trace_calls;

using Args = std::vector<std::string>;

const char *const kReportCommands[] = {"ioreport", "cpuload"};

void expect_control(const Simulator &sim, const Args &args) {
    RunResult r = sim.control(args);
    ASSERT_EQ(r.status, 0) << r.err;
}

std::string percent(float load) {
    char text[64];
    std::snprintf(text, sizeof text, "%.2f", static_cast<double>(load));
    return text;
}

// Both commands, extra words included (they are ignored), failing at setup
// with `line` on standard output and touching no hub.
void expect_setup_failure(const Simulator &sim, const std::string &line) {
    for (const char *command : kReportCommands) {
        for (const Args &args : {Args{command}, Args{command, "1", "--help"}}) {
            sim.trace(true);
            RunResult r = sim.tool(args);
            EXPECT_EQ(r.status, 1) << command;
            EXPECT_EQ(r.out, line + "\n") << command;
            EXPECT_EQ(r.err, "") << command;
            for (const auto &call : trace_calls(sim.trace())) EXPECT_NE(call.service, "IOReportHub") << command;
        }
    }
}

TEST(CpuLoad, ShareOfTheTotalThatWasNotIdle) {
    EXPECT_EQ(IOReportCpuLoad(750, 1000, 1500, 2000), 25.0f);
    EXPECT_EQ(IOReportCpuLoad(1, 1, 1, 2), 100.0f);
    EXPECT_EQ(IOReportCpuLoad(5, 5, 10, 10), 0.0f);

    // Rounded to single precision before printing: the double quotient
    // 98.0549966... would print as 98.05.
    EXPECT_EQ(percent(IOReportCpuLoad(1000, 10000, 1029, 11491)), "98.06");
    EXPECT_EQ(percent(IOReportCpuLoad(0, 1, 467, 1542)), "69.69");

    // Counters that wrapped around between passes give the same figure.
    EXPECT_EQ(percent(IOReportCpuLoad(UINT64_MAX - 9, UINT64_MAX - 499, 19, 991)), "98.06");

    // A total that did not move divides by zero.
    EXPECT_EQ(IOReportCpuLoad(100, 1000, 90, 1000), INFINITY);
    EXPECT_EQ(IOReportCpuLoad(100, 1000, 110, 1000), INFINITY);   // the idle step wraps to a huge number
    EXPECT_TRUE(std::isnan(IOReportCpuLoad(100, 1000, 100, 1000)));
}

TEST(ReportSetup, NoDriverMeansNoChannelsAndTheSubscriptionFails) {
    // No simulator at all: an empty registry.
    for (const char *command : kReportCommands) {
        RunResult r = talvex::test::run({talvex::test::talvexctl_path(), command},
                                        {{"TALVEX_SIM_SOCKET", "/nonexistent/talvex-test/sim.sock"}});
        EXPECT_EQ(r.status, 1) << command;
        EXPECT_EQ(r.out, "ERROR: IOReportCreateSubscription() failed\n") << command;
        EXPECT_EQ(r.err, "") << command;
    }

    // A registry without the coprocessor driver.
    Simulator sim;
    expect_control(sim, {"service", "unpublish", "ZantraTalvexProcessor"});
    expect_setup_failure(sim, "ERROR: IOReportCreateSubscription() failed");
}

TEST(ReportSetup, AnUnreadableLegendFailsDiscovery) {
    Simulator sim;
    expect_control(sim, {"property", "set", "IOReportLegendPublic", "true", "--type", "bool"});
    expect_control(sim, {"property", "set", "IOReportLegend", "5"});
    expect_setup_failure(sim, "ERROR: IOReportCopyChannelsForDrivers() failed");
}

}  // namespace
