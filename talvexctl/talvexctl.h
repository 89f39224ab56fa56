// Shared pieces of the talvexctl tool: the diagnostic, the device table, the
// hex dump, the number-parsing rules and the command handlers.
#pragma once

#include "talvex_client.h"

#include <cstdint>

// ---------------------------------------------------------------------------
// Diagnostics. A failed check is reported at its own site, in the handler's
// file, with the call-site macros of talvex_assert.h and talvex_client.h:
//   if (!TALVEX_CHECK(argc == 2, "argc == 2")) return 1;   argument checks
//   TalvexHandle *talvex = TALVEX_OPEN();                   "talvex" when the open fails
//   return TALVEX_REPORT_AND_CLOSE(talvex, result);         "result == 0 " once more, close
// and TALVEX_ASSERT_REPORT for the rest. The diagnostic never ends the command
// by itself: the handler releases what it holds and returns 1.
//
// A request no client operation makes goes through TalvexCallScalar or
// TalvexCallStruct (talvex_client.h), which report a failure at the client
// level as the operations do. Where a command's rules give a failed call no
// client-level report, or put it after the command's own output (setstate,
// the power log controls, clkmeasure, a profile entry by name), the command
// calls IOConnectCall*Method itself; property reads of that kind (listsensors,
// sensorinfo, perfmon enabled) go through TalvexReadProperty below.

// ---------------------------------------------------------------------------
// Devices.

struct TalvexDevice {
    const char *name;
    uint8_t id;
};

inline constexpr uint8_t kTalvexNoDevice = 0xff;

// gyro, accel, compass, pressure, talvex, corvel, prox, then {null, 0xff}.
// The row order matters: the power log walks the first five rows in it.
extern const TalvexDevice kTalvexDevices[];

// The identifier of the device named `word` (exact, case-sensitive), or
// kTalvexNoDevice when it names none.
uint8_t TalvexDeviceLookup(const char *word);

// ---------------------------------------------------------------------------
// Output.

// Prints `length` bytes to standard output, 16 to a line:
//   "00000000: 41 42 .. 48  49 .. 50  | ABCDEFGH IJKLMNOP"
// Nothing at all for length 0.
void TalvexHexDump(const void *bytes, uint32_t length);

// ---------------------------------------------------------------------------
// Number parsing. No syntax or range check: text that is not a number gives 0,
// and callers cut a value to the width of the field it goes into.

long TalvexParseHex(const char *word);         // strtol, base 16 ("10" is sixteen; 0x optional)
long TalvexParseDec(const char *word);         // strtol, base 10
long long TalvexParseHex64(const char *word);  // strtoll, base 16
uint8_t TalvexParseHexByte(const char *word);  // base 16, cut to one byte ("1ff" is 0xff)

// The text of a return code; empty when the system has none.
const char *TalvexCodeText(IOReturn code);

// Method 13 called directly, for the commands whose failed property reads
// get no client-level report and no TalvexGetProperty line: *size is the
// capacity in and, on success, the driver's size out.
IOReturn TalvexReadProperty(TalvexHandle *talvex, uint8_t device, uint32_t property, void *value, uint32_t *size);

// The reads that answer with at most kTalvexReadDumpMax bytes (readreg, mem
// read): method `selector` called directly with `request`, and its
// `length`-byte reply dumped when the call succeeds (bytes it does not send
// show as ff). The handler checks `length` first and reports the code.
inline constexpr uint8_t kTalvexReadDumpMax = 16;
IOReturn TalvexReadAndDump(TalvexHandle *talvex, uint32_t selector, const void *request, size_t request_size,
                           uint8_t length);

// ---------------------------------------------------------------------------
// Command handlers: (argument count, argument vector from the command word on)
// -> exit status. One group of handlers per file.

// lifecycle.cpp
int TalvexCmdReset(int argc, char *argv[]);
int TalvexCmdPing(int argc, char *argv[]);
int TalvexCmdStop(int argc, char *argv[]);
int TalvexCmdTimesync(int argc, char *argv[]);
int TalvexCmdGetState(int argc, char *argv[]);

// monitor: TalvexMonitor (talvex_client.h)

// ---------------------------------------------------------------------------
// Bus and memory access commands.

// registers.cpp
int TalvexCmdReadReg(int argc, char *argv[]);
int TalvexCmdWriteReg(int argc, char *argv[]);
int TalvexCmdBB(int argc, char *argv[]);
int TalvexCmdCma(int argc, char *argv[]);
// spi_i2c.cpp
int TalvexCmdSpi(int argc, char *argv[]);
int TalvexCmdI2C(int argc, char *argv[]);
// memory.cpp
int TalvexCmdMem(int argc, char *argv[]);
int TalvexCmdGpio(int argc, char *argv[]);
int TalvexCmdPmu(int argc, char *argv[]);
// properties.cpp
int TalvexCmdGet(int argc, char *argv[]);
int TalvexCmdSet(int argc, char *argv[]);
// uart.cpp
int TalvexCmdUart(int argc, char *argv[]);

// start.cpp
int TalvexCmdStart(int argc, char *argv[]);

// power.cpp
int TalvexCmdSetState(int argc, char *argv[]);
int TalvexCmdWake(int argc, char *argv[]);
int TalvexCmdHalt(int argc, char *argv[]);   // halt and halt_ms
int TalvexCmdPanic(int argc, char *argv[]);
int TalvexCmdReport(int argc, char *argv[]);
int TalvexCmdRate(int argc, char *argv[]);
int TalvexCmdFw0(int argc, char *argv[]);
int TalvexCmdFw1(int argc, char *argv[]);
int TalvexCmdConn(int argc, char *argv[]);
int TalvexCmdSetProperty(int argc, char *argv[]);

// ---------------------------------------------------------------------------
// Diagnostics commands.

// profile.cpp
int TalvexCmdProfile(int argc, char *argv[]);
// clocks.cpp
int TalvexCmdClkRedirect(int argc, char *argv[]);
int TalvexCmdClkMeasure(int argc, char *argv[]);
int TalvexCmdClkStartup(int argc, char *argv[]);
// powerlog.cpp
int TalvexCmdPowerLog(int argc, char *argv[]);
// listings.cpp
int TalvexCmdListClients(int argc, char *argv[]);
int TalvexCmdListSensors(int argc, char *argv[]);
// sensorinfo.cpp
int TalvexCmdSensorInfo(int argc, char *argv[]);
// perfmon.cpp
int TalvexCmdPerfmon(int argc, char *argv[]);
int TalvexCmdSetBaudRate(int argc, char *argv[]);

// ---------------------------------------------------------------------------
// Report commands.

// report.cpp: they read the driver's report channels through the
// report-channel library (IOReport.h), not through a connection handle.
int TalvexCmdIoreport(int argc, char *argv[]);
int TalvexCmdCpuload(int argc, char *argv[]);

// cpuload's load over one pass, in percent: 100 x (1 - idle delta / total
// delta), computed in wrapping unsigned 64-bit arithmetic, then in double,
// rounded to single precision. A total that did not move divides by zero
// (inf or nan).
float TalvexCpuLoad(uint64_t previous_idle, uint64_t previous_total, uint64_t idle, uint64_t total);
