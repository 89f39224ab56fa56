// What every command checks before or instead of the driver call it makes:
// dispatch to its handler, a driver that is missing or refuses the open,
// argument checks on either side of the open, word-level refusals, and a
// failed call reported by the client and again by the command.
#include "tool_support.h"

#include <gtest/gtest.h>

#include <iterator>
#include <regex>
#include <set>
#include <string>

namespace {

using namespace talvex::test;

// No simulator listens here, so the registry is empty.
RunResult without_simulator(const Words &args) {
    Words argv{talvexctl_path()};
    argv.insert(argv.end(), args.begin(), args.end());
    return talvex::test::run(argv, {{"TALVEX_SIM_SOCKET", "/nonexistent/talvex-test/sim.sock"}});
}

TEST(Dispatch, EveryRowReachesItsOwnHandlerWhichReportsTheMissingDriver) {
    // All 44 rows of the command table, with words that pass the checks made
    // before the open; where the open comes first, words that would fail them.
    struct Row {
        Words args;
        const char *file;   // the handler's file, named by its "talvex" line
    };
    const Row rows[] = {
        {{"reset"}, "lifecycle.cpp"},          {{"ping"}, "lifecycle.cpp"},
        {{"start", "a", "b", "c"}, "start.cpp"}, {{"stop"}, "lifecycle.cpp"},
        {{"monitor"}, "client/monitor.cpp"},   {{"gettalvexstate"}, "lifecycle.cpp"},
        {{"readreg", "gyro", "0", "1"}, "registers.cpp"}, {{"writereg", "gyro", "0", "1"}, "registers.cpp"},
        {{"bb", "junk"}, "registers.cpp"},     {{"timesync"}, "lifecycle.cpp"},
        {{"tymesync"}, "lifecycle.cpp"},       {{"cma"}, "registers.cpp"},
        {{"spi", "write", "0", "x"}, "spi_i2c.cpp"}, {{"i2c", "read", "0", "50", "1"}, "spi_i2c.cpp"},
        {{"mem", "read", "0", "0", "1"}, "memory.cpp"}, {{"gpio", "read"}, "memory.cpp"},
        {{"rate", "1"}, "power.cpp"},          {{"fw0"}, "power.cpp"},
        {{"fw1"}, "power.cpp"},                {{"conn"}, "power.cpp"},
        {{"pmu", "junk"}, "memory.cpp"},       {{"get", "junk", "junk"}, "properties.cpp"},
        {{"set", "1", "2", "3"}, "properties.cpp"}, {{"setstate", "1"}, "power.cpp"},
        {{"wake", "1"}, "power.cpp"},          {{"halt"}, "power.cpp"},
        {{"halt_ms", "1"}, "power.cpp"},       {{"profile", "Start"}, "profile.cpp"},
        {{"clkredirect"}, "clocks.cpp"},       {{"clkmeasure"}, "clocks.cpp"},
        {{"clkstartup"}, "clocks.cpp"},        {{"powerlog"}, "powerlog.cpp"},
        {{"setbaudrate", "1"}, "perfmon.cpp"}, {{"listclients", "accel"}, "listings.cpp"},
        {{"listsensors"}, "listings.cpp"},     {{"sensorinfo", "accel"}, "sensorinfo.cpp"},
        {{"panic"}, "power.cpp"},              {{"report"}, "power.cpp"},
        {{"setproperty"}, "power.cpp"},        {{"uart", "ping", "ap"}, "uart.cpp"},
        {{"ioreport", "extra"}, nullptr},      {{"cpuload"}, nullptr},
        {{"perfmon", "gyro", "report"}, "perfmon.cpp"}, {{"help"}, nullptr},
    };
    std::set<std::string> commands;
    for (const Row &row : rows) commands.insert(row.args[0]);
    ASSERT_EQ(commands.size(), 44u);
    for (const Row &row : rows) {
        RunResult r = without_simulator(row.args);
        const std::string &word = row.args[0];
        EXPECT_FALSE(r.timed_out) << word;
        if (word == "help") {
            EXPECT_EQ(r.status, 0);
            EXPECT_EQ(r.out.rfind("usage: talvexctl <command....>\n", 0), 0u);
        } else if (!row.file) {   // the report commands find no channels to subscribe to
            EXPECT_EQ(r.status, 1) << word;
            EXPECT_EQ(r.out, "ERROR: IOReportCreateSubscription() failed\n") << word;
            EXPECT_EQ(r.err, "") << word;
        } else {
            EXPECT_EQ(r.status, 1) << word;
            EXPECT_EQ(r.out, "") << word;
            EXPECT_EQ(normalise(r.err), no_driver(row.file)) << word;
        }
    }
}

TEST(Open, ARefusedOpenIsReportedWithItsCodeAndNothingIsCalled) {
    Simulator sim;
    control(sim, {"stub", "--open", "--code", "0xe00002e2"});
    const std::pair<Words, const char *> rows[] = {{{"reset"}, "lifecycle.cpp"},
                                                   {{"monitor"}, "client/monitor.cpp"},
                                                   {{"report"}, "power.cpp"},   // announces itself only once open
                                                   {{"start", "a", "b", "c"}, "start.cpp"},
                                                   {{"gpio"}, "memory.cpp"},
                                                   {{"sensorinfo", "gyro"}, "sensorinfo.cpp"}};
    for (const auto &[args, file] : rows) {
        Outcome o = run(sim, args);
        EXPECT_EQ(o.r.status, 1) << args[0];
        EXPECT_EQ(o.r.out, "") << args[0];
        EXPECT_EQ(o.err, coded("(iokit/common) not permitted (0xe00002e2)", "client/handle.cpp") +
                             check("talvex", file))
            << args[0];
        EXPECT_EQ(o.opens, 1u) << args[0];
        EXPECT_TRUE(o.calls.empty()) << args[0];
    }
}

Words with(Words words, size_t count, const std::string &word) {
    words.resize(words.size() + count, word);
    return words;
}

TEST(Arguments, EachCheckHasItsConditionAndComesBeforeOrAfterTheOpen) {
    Simulator sim;
    struct Refusal {
        Words args;
        std::string condition;
        const char *file;
        bool opened = false;   // judged after the open: opened and closed, nothing else
        std::string message = "";
    };
    const std::string unexpected = "unexpected parameter", read_or_write = "expected 'read' or 'write'";
    const std::string rates = "rate==112500||rate==750000||rate==1500000||rate==3000000";
    const Refusal refusals[] = {
        {{"readreg", "gyro", "0", "11"}, "len <= sizeof(buffer)", "registers.cpp"},
        {{"readreg", "0", "0", "1"}, "device != 0xff", "registers.cpp"},
        {{"readreg", "Gyro", "0", "1"}, "device != 0xff", "registers.cpp"},
        {{"readreg", "gyro", "0"}, "argc == 4", "registers.cpp"},
        {{"readreg", "gyro", "0", "1", "2"}, "argc == 4", "registers.cpp"},
        {with({"writereg", "compass", "40"}, 17, "1"), "len <= sizeof(buffer)", "registers.cpp"},
        {{"writereg", "accel", "20"}, "argc >= 4", "registers.cpp"},
        {{"writereg", "1", "20", "5"}, "device != 0xff", "registers.cpp"},
        {{"bb"}, "argc == 2", "registers.cpp"}, {{"bb", "1", "2"}, "argc == 2", "registers.cpp"},
        {with({"cma"}, 257, "5a"), "len <= sizeof(buffer)", "registers.cpp"},
        // 125 data bytes fit the SPI request; 126 are refused once the driver is open.
        {with({"spi", "write", "0", "x"}, 124, "1"), "inputLength <= sizeof(dataBuffer)", "spi_i2c.cpp", true},
        // A count that wraps the 8-bit length to 0, with no output length.
        {with({"spi", "write", "0", "x"}, 254, "1"), "inputLength > 0 || outputLength > 0", "spi_i2c.cpp"},
        {{"spi", "read", "0"}, "argc > 3", "spi_i2c.cpp"},
        {{"spi", "peek", "0", "1"}, "", "spi_i2c.cpp", false, read_or_write},
        {with({"i2c", "write", "0", "50"}, 17, "7"), "len <= sizeof(buffer)", "spi_i2c.cpp"},
        {{"i2c", "read", "0", "50", "11"}, "len <= sizeof(buffer)", "spi_i2c.cpp"},
        {{"i2c", "read"}, "argc > 2", "spi_i2c.cpp"}, {{"i2c", "read", "0", "50"}, "argc == 5", "spi_i2c.cpp"},
        {{"i2c", "readreg", "0", "50", "1"}, "argc == 6", "spi_i2c.cpp"},
        {{"i2c", "write", "0", "50"}, "argc >= 5", "spi_i2c.cpp"},
        {{"i2c", "writereg", "0", "50", "1"}, "argc >= 6", "spi_i2c.cpp"},
        {{"mem", "read", "0", "0", "11"}, "len <= sizeof(buffer)", "memory.cpp"},
        {with({"mem", "write", "0", "0"}, 17, "1"), "len <= sizeof(buffer)", "memory.cpp"},
        {{"mem", "read"}, "argc > 2", "memory.cpp"}, {{"mem", "read", "0", "0"}, "argc == 5", "memory.cpp"},
        {{"mem", "write", "0", "0"}, "argc >= 5", "memory.cpp"},
        {{"gpio", "read"}, "argc == 3", "memory.cpp", true},
        {{"gpio", "write", "5"}, "argc == 4", "memory.cpp", true},
        {{"gpio"}, "", "memory.cpp", true, read_or_write},
        {{"pmu"}, "argc == 2", "memory.cpp"},
        {{"get", "1"}, "argc == 3", "properties.cpp"}, {{"set", "1", "2"}, "argc == 4", "properties.cpp"},
        {with({"uart", "cmreply", "ap"}, 100, "1"), "inputLength < sizeof(inputBuffer)", "uart.cpp"},
        {{"uart", "raw", "ap"}, "inputLength > 0 && inputLength < sizeof(inputBuffer)", "uart.cpp"},
        {{"uart", "ping", "ap", std::string(100, 'x')}, "inputLength > 0 && inputLength < sizeof(inputBuffer)",
         "uart.cpp"},
        {{"uart", "ping"}, "argc >= 3", "uart.cpp"},
        {{"setstate"}, "argc == 2", "power.cpp"}, {{"setstate", "1", "2"}, "argc == 2", "power.cpp"},
        {{"wake"}, "argc == 2", "power.cpp"},     {{"wake", "1", "2"}, "argc == 2", "power.cpp"},
        {{"rate"}, "argc == 2", "power.cpp"},     {{"rate", "1", "2"}, "argc == 2", "power.cpp"},
        {{"panic", "a", "b"}, "argc == 1 || argc == 2", "power.cpp"},
        {{"halt"}, "argc == 2 || argc == 3", "power.cpp", true},
        {{"halt", "1", "2", "3"}, "argc == 2 || argc == 3", "power.cpp", true},
        {{"halt_ms", "1"}, "argc == 3 || argc == 4", "power.cpp", true},
        {{"halt_ms", "1", "2", "3", "4"}, "argc == 3 || argc == 4", "power.cpp", true},
        // setproperty never reads past its words; nothing is written.
        {{"setproperty", "key"}, "argc == 3", "power.cpp", true}, {{"setproperty"}, "argc == 3", "power.cpp", true},
        {{"profile"}, "argv[1]", "profile.cpp"},
        {{"profile", "Start"}, "", "profile.cpp", true, unexpected},
        {{"profile", "gethitpoint"}, "", "profile.cpp", true, unexpected},
        {{"profile", ""}, "", "profile.cpp", true, unexpected},
        {{"clkredirect"}, "", "clocks.cpp", true, unexpected},
        {{"clkredirect", "Enable"}, "", "clocks.cpp", true, unexpected},
        {{"powerlog"}, "", "powerlog.cpp", true, unexpected},
        {{"powerlog", "getPowerLog"}, "", "powerlog.cpp", true, unexpected},
        {{"listclients"}, "argc == 2", "listings.cpp"}, {{"listclients", "accel", "gyro"}, "argc == 2", "listings.cpp"},
        {{"listclients", "Accel"}, "device != 0xff", "listings.cpp"},
        {{"sensorinfo"}, "argc == 2", "sensorinfo.cpp"},
        {{"sensorinfo", "accel", "gyro"}, "argc == 2", "sensorinfo.cpp"},
        {{"sensorinfo", "GYRO"}, "device != 0xff", "sensorinfo.cpp"},
        {{"perfmon", "accel"}, "argc == 3", "perfmon.cpp"},
        {{"perfmon", "accel", "report", "x"}, "argc == 3", "perfmon.cpp"},
        {{"perfmon", "accelerometer", "report"}, "device != 0xff", "perfmon.cpp"},
        {{"setbaudrate"}, "argc == 2", "perfmon.cpp"},
        {{"setbaudrate", "115200"}, rates, "perfmon.cpp", true},
        {{"setbaudrate", "-112500"}, rates, "perfmon.cpp", true},
        {{"setbaudrate", "fast"}, rates, "perfmon.cpp", true},
    };
    for (const Refusal &refusal : refusals) {
        Outcome o = run(sim, refusal.args);
        std::string what = refusal.args[0] + " (" + std::to_string(refusal.args.size()) + " words)";
        EXPECT_EQ(o.r.status, 1) << what;
        EXPECT_EQ(o.r.out, "") << what;
        EXPECT_EQ(o.err, check(refusal.condition, refusal.file, refusal.message)) << what;
        EXPECT_EQ(o.opens, refusal.opened ? 1u : 0u) << what;
        EXPECT_EQ(o.lines, o.opens) << what;   // no call, no event, no registry write
    }
}

TEST(Arguments, WordLevelRefusalsAreOneLineOnStandardOutput) {
    Simulator sim;
    const std::pair<Words, std::string> said[] = {
        {{"i2c", "scan", "0"}, "Unknown command: scan"},
        {{"mem", "peek", "0"}, "Unknown command: peek"},
        {{"uart", "pong", "ap"}, "unknown container, use ping, pingreply, cmreply, or raw"},
        {{"uart", "ping", "usb"}, "unknown port, use ap, bb or isp"},
        {{"uart", "ping", "ap", "--preamble", "4097"}, "preamble too long, max is 4096 bytes"},
        {{"uart", "ping", "ap", "--preamble", "-1"}, "preamble too long, max is 4096 bytes"},
        {{"uart", "ping", "ap", "--retry", "0"}, "retry must be between 1 and 100"},
        {{"uart", "ping", "ap", "--retry", "101"}, "retry must be between 1 and 100"},
        {{"uart", "ping", "ap", "--retry"}, "--retry needs a value"},
        {{"clkmeasure", "IRC"}, "Usage: talvexctl clkmeasure [irc|ircdiff|pll|lfosc|current]"},
    };
    for (const auto &[args, line] : said) {
        Outcome o = run(sim, args);
        EXPECT_EQ(o.r.status, 1) << line;
        EXPECT_EQ(o.r.out, line + "\n");
        EXPECT_EQ(o.r.err, "") << line;
        EXPECT_EQ(o.lines, 0u) << line;
    }
    // An unknown perfmon word: its text without a newline, a success, no call.
    Outcome o = run(sim, {"perfmon", "gyro", "foo"});
    EXPECT_EQ(o.r.status, 0);
    EXPECT_EQ(o.r.out + o.r.err, "unknown command: perfmon foo");
    EXPECT_EQ(o.opens, 1u);
    EXPECT_TRUE(o.calls.empty());
}

TEST(FailedCall, ReportedByTheClientAndOnceMoreByTheCommand) {
    Simulator sim;
    struct Row {
        uint32_t selector;
        Words args;
        const char *file;
        std::string out = "";       // what the command printed before the call
        std::string message = "";   // the command's own report carries the code's text
    };
    const std::string text = "(iokit/common) general error";
    const Row rows[] = {
        {kTalvexMethodRegisterWrite, {"writereg", "gyro", "20", "1"}, "registers.cpp"},
        {kTalvexMethodSetContextLimit, {"bb", "1"}, "registers.cpp"},
        {kTalvexMethodRawBytes, {"cma", "1"}, "registers.cpp"},
        {kTalvexMethodSpiTransfer, {"spi", "read", "0", "x", "1", "2"}, "spi_i2c.cpp"},
        {kTalvexMethodGpioRead, {"gpio", "read", "1"}, "memory.cpp"},
        {kTalvexMethodUartTest, {"uart", "pingreply", "ap", "1"}, "uart.cpp"},
        {kTalvexMethodReset, {"reset"}, "lifecycle.cpp"},
        {kTalvexMethodStop, {"stop"}, "lifecycle.cpp"},
        {kTalvexMethodTimeSync, {"timesync"}, "lifecycle.cpp"},
        {kTalvexMethodTimeSync, {"tymesync"}, "lifecycle.cpp"},
        {kTalvexMethodWake, {"wake", "1"}, "power.cpp"},
        {kTalvexMethodHalt, {"halt_ms", "1", "1"}, "power.cpp"},
        {kTalvexMethodPanic, {"panic", "again"}, "power.cpp"},
        {kTalvexMethodTestReport, {"report"}, "power.cpp", "calling test report\n"},
        {kTalvexMethodSelectFirmware, {"fw1"}, "power.cpp"},
        {kTalvexMethodConnect, {"conn"}, "power.cpp"},
        {kTalvexMethodClockRedirect, {"clkredirect", "enable"}, "clocks.cpp"},
        {kTalvexMethodSetBaudRate, {"setbaudrate", "1500000"}, "perfmon.cpp"},
        {kTalvexMethodProfileStart, {"profile", "start"}, "profile.cpp"},
        {kTalvexMethodProfileStop, {"profile", "stop"}, "profile.cpp"},
        {kTalvexMethodProfileReset, {"profile", "reset"}, "profile.cpp"},
        {kTalvexMethodProfileSummary, {"profile", "print"}, "profile.cpp"},
        {kTalvexMethodClientList, {"listclients", "accel"}, "listings.cpp"},
        {kTalvexMethodPowerLogRead, {"powerlog", "getpowerlog"}, "powerlog.cpp"},
        {kTalvexMethodPerfMonitor, {"perfmon", "compass", "enable"}, "perfmon.cpp", "", text},
        {kTalvexMethodPerfMonitor, {"perfmon", "talvex", "report"}, "perfmon.cpp", "", text},
    };
    for (const Row &row : rows) {
        stub_code(sim, row.selector, "0xe00002bc");
        Outcome o = run(sim, row.args);
        EXPECT_EQ(o.r.status, 1) << row.args[0];
        EXPECT_EQ(o.r.out, row.out) << row.args[0];
        EXPECT_EQ(o.err, coded(kGeneralError, "client/operations.cpp") + coded(kGeneralError, row.file, row.message))
            << row.args[0] << " " << row.args[1 % row.args.size()];
        ASSERT_EQ(o.calls.size(), 1u) << row.args[0];
        EXPECT_EQ(o.calls[0].selector, row.selector);
    }
}

}  // namespace

// With both streams on one pipe, a line printed to standard output keeps its
// place among the diagnostics.
TEST(FailedCall, ResultLinesKeepTheirPlaceOnASharedStream) {
    Simulator sim;
    auto merged = [&](const Words &args) {
        std::vector<std::string> argv{"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>&1", talvexctl_path()};
        argv.insert(argv.end(), args.begin(), args.end());
        std::string out = normalise(talvex::test::run(argv, sim.env()).out);
        return std::regex_replace(out, std::regex("handle=0x[0-9a-f]+"), "handle=P");
    };
    stub_code(sim, kTalvexMethodGetProperty, "0xe00002bc");
    EXPECT_EQ(merged({"get", "0", "1"}),
              from_operation(kGeneralError) + "TalvexGetProperty(handle=P,dev=0,prop=1,size=128) -> e00002bc\n" +
                  coded(kGeneralError, "properties.cpp"));
    stub_code(sim, kTalvexMethodSetProperty, "0xe00002bc");
    EXPECT_EQ(merged({"set", "0", "1", "2"}),
              from_operation(kGeneralError) + "TalvexSetProperty(handle=P,dev=0,prop=1,val=2) -> e00002bc\n" +
                  coded(kGeneralError, "properties.cpp"));
    // Lines printed before a later call fails come before its reports.
    stub_code(sim, kTalvexMethodProfileEntry, "0xe00002bc");
    EXPECT_EQ(merged({"profile", "print"}), "profile runtime: 0\n\nprofile hitpoints (8):\n" +
                                                from_operation(kGeneralError) + coded(kGeneralError, "profile.cpp"));
}
