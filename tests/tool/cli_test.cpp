// The help text, byte for byte: 30 listed commands (hidden rows left out),
// then the devices in their own order. (Dispatch: checks_test.cpp.)
#include "harness.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using talvex::test::RunResult;

// No simulator listens here: the help text needs none.
RunResult tool(std::vector<std::string> args) {
    args.insert(args.begin(), talvex::test::talvexctl_path());
    return talvex::test::run(args, {{"TALVEX_SIM_SOCKET", "/nonexistent/talvex-test/sim.sock"}});
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

}  // namespace
