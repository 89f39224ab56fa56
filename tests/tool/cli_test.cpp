// The tool's front end, run as a binary: dispatch, the help text, hidden
// rows, and commands run where no driver is published.
#include "harness.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iterator>
#include <string>

namespace {

using talvex::test::Env;
using talvex::test::lines;
using talvex::test::normalise;
using talvex::test::RunResult;

// No simulator listens here, so the registry is empty.
Env no_simulator() { return {{"TALVEX_SIM_SOCKET", "/nonexistent/talvex-test/sim.sock"}}; }

RunResult tool(std::vector<std::string> args) {
    args.insert(args.begin(), talvex::test::talvexctl_path());
    return talvex::test::run(args, no_simulator());
}

const char kHelp[] =
    "usage: talvexctl <command....>\n"
    "\n"
    "Available commands:\n"
    "\thelp    \t\n"
    "\treset   \t\n"
    "\tping    \t\n"
    "\tstart   \tstart [firwmare image]\n"
    "\tstop    \t\n"
    "\tmonitor \t\n"
    "\tgettalvexstate\t\n"
    "\treadreg \treadreg <device> <addr> <len>\n"
    "\twritereg\twritereg <device> <addr> <byte0> [<byte1> ...]\n"
    "\tbb      \tbb <context_max> where context is 0-3\n"
    "\ttimesync\t\n"
    "\tcma     \tcma [<byte0> <byte1> <byte2> ...]\n"
    "\tspi     \tspi read <cs> [<byte0> <byte1> <byte2> ...] <len> OR spi write <cs> [<byte0> <byte1> <byte2> ...]\n"
    "\ti2c     \ti2c read <port> <addr> <len> | write <port> <addr> <data> ... | readreg <port> <addr> <reg> <len> | "
    "writereg <port> <addr> <reg> <data> ...\n"
    "\tmem     \tmem read <addr> <block> <len> | write <addr> <block> <data> ...\n"
    "\tgpio    \tgpio read <gpio> <state> OR gpio read <gpio>\n"
    "\tpmu     \tpmu <mask>  0x01 = PPV1V2_TALVEX, 0x02 = PPV1V8_TALVEX, 0x04 = PP3V0_IMU\n"
    "\tget     \tget <device> <property>\n"
    "\tset     \tset <device> <property> <value>\n"
    "\tsetstate\tset/release power state assertion: 0x0/0x80 - Deep Sleep, 0x1/0x81 - Sleep, 0x2/0x82 - 12M, "
    "0x3/0x83 - 100M\n"
    "\thalt    \thalt <delay_s> <irql>\n"
    "\thalt_ms \thalt_ms <delay_ms> <duration_ms> <irql>\n"
    "\tprofile \tprofile start|stop|reset|print|gethitpoint id|getfunction id\n"
    "\tpowerlog\tpowerlog start|stop|reset|getpowerlog\n"
    "\tsetbaudrate\tsetbaudrate 112500|750000|1500000|3000000\n"
    "\tlistclients\tlistclients <device>\n"
    "\tlistsensors\tlistsensors\n"
    "\tsensorinfo\tsensorinfo <device>\n"
    "\tuart    \tuart ping|pingreply|raw <port> [--preamble <len>] [--retry <count>] <data>\n"
    "\tperfmon \tperfmon <device> enable|disable|report\n"
    "\n"
    "Talvex devices:\n"
    "\taccel\n"
    "\tgyro\n"
    "\tcompass\n"
    "\ttalvex\n"
    "\tpressure\n"
    "\tcorvel\n"
    "\tprox\n"
    "\n";

TEST(Help, ExactTextForNoUnknownAndMiscasedCommands) {
    for (auto args : std::vector<std::vector<std::string>>{
             {}, {"help"}, {"help", "extra", "words"}, {"nosuchcommand"}, {"HELP"}, {"Reset"}, {"reset "}, {""}}) {
        RunResult r = tool(args);
        std::string shown = args.empty() ? "(none)" : args[0];
        EXPECT_EQ(r.status, 0) << shown;
        EXPECT_EQ(r.out, kHelp) << shown;
        EXPECT_EQ(r.err, "") << shown;
    }
}

TEST(Help, ListsThirtyCommandsAndHidesNullUsageRows) {
    RunResult r = tool({});
    size_t listed = 0;
    bool in_commands = false;
    for (const auto &line : lines(r.out)) {
        if (line == "Available commands:") in_commands = true;
        else if (line.empty()) in_commands = false;
        else if (in_commands) ++listed;
    }
    EXPECT_EQ(listed, 30u);
    for (const char *hidden : {"\ttymesync", "\trate", "\tfw0", "\tfw1", "\tconn", "\twake", "\tclkredirect",
                               "\tclkmeasure", "\tclkstartup", "\tpanic", "\treport", "\tsetproperty", "\tioreport",
                               "\tcpuload"})
        EXPECT_EQ(r.out.find(std::string(hidden) + " "), std::string::npos) << hidden;
}

TEST(Dispatch, EveryRowReachesItsOwnHandler) {
    // All 44 rows of the command table, hidden ones included. Without a driver
    // every command fails or prints at once, so each run is short. A row that
    // is missing would fall back to the help text; a placeholder would say so.
    const char *const rows[] = {
        "help", "reset", "ping", "start", "stop", "monitor", "gettalvexstate", "readreg", "writereg", "bb",
        "timesync", "tymesync", "cma", "spi", "i2c", "mem", "gpio", "rate", "fw0", "fw1", "conn", "pmu", "get",
        "set", "setstate", "wake", "halt", "halt_ms", "profile", "clkredirect", "clkmeasure", "clkstartup",
        "powerlog", "setbaudrate", "listclients", "listsensors", "sensorinfo", "panic", "report", "setproperty",
        "uart", "ioreport", "cpuload", "perfmon"};
    ASSERT_EQ(std::size(rows), 44u);
    for (const char *row : rows) {
        RunResult r = tool({row});
        EXPECT_FALSE(r.timed_out) << row;
        if (std::string(row) == "help") {
            EXPECT_EQ(r.out, kHelp);
            continue;
        }
        EXPECT_NE(r.out, kHelp) << row;
        EXPECT_EQ(r.err.find("not built"), std::string::npos) << row << ": " << r.err;
        EXPECT_NE(r.out + r.err, "") << row;
    }
}

TEST(NoDriver, EveryLifecycleCommandReportsTheMissingServiceAndFails) {
    for (const char *command : {"reset", "ping", "stop", "timesync", "tymesync", "gettalvexstate", "monitor"}) {
        RunResult r = tool({command});
        EXPECT_EQ(r.status, 1) << command;
        EXPECT_EQ(r.out, "") << command;
        std::string owner = std::string(command) == "monitor" ? "client/monitor.cpp" : "talvexctl/lifecycle.cpp";
        EXPECT_EQ(normalise(r.err),
                  "AssertMacros: service, cannot find ZantraTalvexProcessor file: client/handle.cpp, line: N\n"
                  "AssertMacros: talvex,  file: " + owner + ", line: N\n")
            << command;
    }
}

}  // namespace
