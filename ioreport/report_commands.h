// The loops of the two report commands, `ioreport` and `cpuload`.
//
// Both read the coprocessor driver's (ZantraTalvexProcessor) report channels
// through the report hub, take a sample once a second and run until a sample
// can no longer be taken. A setup failure prints one "ERROR: ..." line on
// standard output and gives 1; the end of sampling gives 0.
#pragma once

#include <cstdint>

// `ioreport`: per pass, the line "\nZantraTalvexProcessor ioreport:" through
// buffered standard output, then every channel's description written straight
// to descriptor 1. The values are the raw cumulative ones.
int IOReportCommandIoreport(void);

// `cpuload`: from the second pass on, "Talvex CPU load: %.2f%%\n" computed from
// the "TOTAL MS" and "IDLE MS " counters.
int IOReportCommandCpuload(void);

// The report channels `cpuload` reads.
inline constexpr uint64_t kIOReportTotalChannelID = 0x544F54414C204D53ull;   // "TOTAL MS"
inline constexpr uint64_t kIOReportIdleChannelID = 0x49444C45204D5320ull;    // "IDLE MS "

// The load over one pass, in percent: 100 x (1 - idle delta / total delta),
// computed in wrapping unsigned 64-bit arithmetic, then in double, rounded to
// single precision. A total that did not move divides by zero (inf or nan).
float IOReportCpuLoad(uint64_t previous_idle, uint64_t previous_total, uint64_t idle, uint64_t total);
