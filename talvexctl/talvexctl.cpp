// talvexctl: control and diagnostics for the Talvex coprocessor.
//
// Entry point, command table and help. `talvexctl COMMAND ARGS...` runs the
// handler of the row named COMMAND (exact, case-sensitive) with the argument
// vector from COMMAND on, and exits with its result. No command, or an
// unknown one, prints the help.
#include "talvexctl.h"

#include <cstdio>
#include <cstring>

namespace {

using Handler = int (*)(int argc, char *argv[]);

struct Command {
    const char *name;
    Handler handler;
    const char *usage;   // null: callable but not listed in the help
};

int help(int, char *[]);

// The usage texts are part of the interface as they stand, oddities included
// ("firwmare", gpio's two "read"s, uart without cmreply, the 112500 rate).
const Command kCommands[] = {
    {"help", help, ""},
    {"reset", TalvexCmdReset, ""},
    {"ping", TalvexCmdPing, ""},
    {"start", TalvexCmdStart, "start [firwmare image]"},
    {"stop", TalvexCmdStop, ""},
    {"monitor", TalvexMonitor, ""},
    {"gettalvexstate", TalvexCmdGetState, ""},
    {"readreg", TalvexCmdReadReg, "readreg <device> <addr> <len>"},
    {"writereg", TalvexCmdWriteReg, "writereg <device> <addr> <byte0> [<byte1> ...]"},
    {"bb", TalvexCmdBB, "bb <context_max> where context is 0-3"},
    {"timesync", TalvexCmdTimesync, ""},
    {"tymesync", TalvexCmdTimesync, nullptr},
    {"cma", TalvexCmdCma, "cma [<byte0> <byte1> <byte2> ...]"},
    {"spi", TalvexCmdSpi,
     "spi read <cs> [<byte0> <byte1> <byte2> ...] <len> OR spi write <cs> [<byte0> <byte1> <byte2> ...]"},
    {"i2c", TalvexCmdI2C,
     "i2c read <port> <addr> <len> | write <port> <addr> <data> ... | readreg <port> <addr> <reg> <len> | "
     "writereg <port> <addr> <reg> <data> ..."},
    {"mem", TalvexCmdMem, "mem read <addr> <block> <len> | write <addr> <block> <data> ..."},
    {"gpio", TalvexCmdGpio, "gpio read <gpio> <state> OR gpio read <gpio>"},
    {"rate", TalvexCmdRate, nullptr},
    {"fw0", TalvexCmdFw0, nullptr},
    {"fw1", TalvexCmdFw1, nullptr},
    {"conn", TalvexCmdConn, nullptr},
    {"pmu", TalvexCmdPmu, "pmu <mask>  0x01 = PPV1V2_TALVEX, 0x02 = PPV1V8_TALVEX, 0x04 = PP3V0_IMU"},
    {"get", TalvexCmdGet, "get <device> <property>"},
    {"set", TalvexCmdSet, "set <device> <property> <value>"},
    {"setstate", TalvexCmdSetState,
     "set/release power state assertion: 0x0/0x80 - Deep Sleep, 0x1/0x81 - Sleep, 0x2/0x82 - 12M, 0x3/0x83 - 100M"},
    {"wake", TalvexCmdWake, nullptr},
    {"halt", TalvexCmdHalt, "halt <delay_s> <irql>"},
    {"halt_ms", TalvexCmdHalt, "halt_ms <delay_ms> <duration_ms> <irql>"},
    {"profile", TalvexCmdProfile, "profile start|stop|reset|print|gethitpoint id|getfunction id"},
    {"clkredirect", TalvexCmdClkRedirect, nullptr},
    {"clkmeasure", TalvexCmdClkMeasure, nullptr},
    {"clkstartup", TalvexCmdClkStartup, nullptr},
    {"powerlog", TalvexCmdPowerLog, "powerlog start|stop|reset|getpowerlog"},
    {"setbaudrate", TalvexCmdSetBaudRate, "setbaudrate 112500|750000|1500000|3000000"},
    {"listclients", TalvexCmdListClients, "listclients <device>"},
    {"listsensors", TalvexCmdListSensors, "listsensors"},
    {"sensorinfo", TalvexCmdSensorInfo, "sensorinfo <device>"},
    {"panic", TalvexCmdPanic, nullptr},
    {"report", TalvexCmdReport, nullptr},
    {"setproperty", TalvexCmdSetProperty, nullptr},
    {"uart", TalvexCmdUart, "uart ping|pingreply|raw <port> [--preamble <len>] [--retry <count>] <data>"},
    {"ioreport", TalvexCmdIoreport, nullptr},
    {"cpuload", TalvexCmdCpuload, nullptr},
    {"perfmon", TalvexCmdPerfmon, "perfmon <device> enable|disable|report"},
    {nullptr, nullptr, nullptr},
};

int help(int, char *[]) {
    std::printf("usage: talvexctl <command....>\n\n");
    std::printf("Available commands:\n");
    for (const Command *row = kCommands; row->name; ++row)
        if (row->usage) std::printf("\t%-8s\t%s\n", row->name, row->usage);
    std::printf("\nTalvex devices:\n");
    // The listing has its own order, not the device table's.
    for (const char *name : {"accel", "gyro", "compass", "talvex", "pressure", "corvel", "prox"})
        std::printf("\t%s\n", name);
    std::printf("\n");
    return 0;
}

}  // namespace

int main(int argc, char *argv[]) {
    if (argc < 2) {
        help(argc - 1, argv + 1);
        return 0;
    }
    for (const Command *row = kCommands; row->name; ++row)
        if (std::strcmp(row->name, argv[1]) == 0) return row->handler(argc - 1, argv + 1);
    return help(argc - 1, argv + 1);
}
