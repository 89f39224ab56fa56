// The report channels of the simulated drivers (sim/model_reports.cpp).
//
// ZantraTalvexProcessor (public legend):
//   group "CPU", subgroup "Time" (unit ms)
//     "TOTAL MS"  simple  the coprocessor's running time
//     "IDLE MS "  simple  the idle part of it (the ID ends in a blank)
//   group "Power", subgroup "States" (unit 24 MHz ticks)
//     "PWRSTATE"  state   residency in DEEPSLP, SLEEP, RUN12M, RUN100M
//   group "Firmware", subgroup "Latency" (unit us, bucket configuration)
//     "PROCLAT"   histogram of processing latencies, 16 buckets:
//                 25 us linear steps to 200 us, then 400 us steps to 3.2 ms
//   group "Firmware", subgroup "Events" (unit events)
//     "EVENTS"    array of 8 counters: samples from gyro, accel, compass,
//                 talvex, pressure, corvel, prox, and host-link frames
//   group "Extra" (only with --channels N): N channels "X0000001"... of
//     the four formats in turn, in subgroups "Simple", "State",
//     "Histogram", "Array"
// ZantraPowerController (public legend): group "Energy", subgroup "Rails"
//   (unit mJ): simple counters vdd_cpu, vdd_sns, vdd_io.
// ZantraThermalMonitor (legend without "IOReportLegendPublic"): group
//   "Thermal": simple "TEMP SOC", "TEMP SKN" (milli-degrees Celsius).
//
// The coprocessor's figures move only while it is booted: stopped, halted,
// booting, off or in panic, they stand still. Each booted second has a load
// (the busy share); the idle counter grows by the rest. The load varies
// with time unless pinned (set_coprocessor_load). The power states share
// the time by load (busy: 70% RUN12M, 30% RUN100M; idle: 65% DEEPSLP, 35%
// SLEEP), processing latencies are sampled once per 400 us of busy time.
// The other drivers' figures follow simulated time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace talvex::sim {

class Simulation;

inline constexpr const char *kPowerControllerClass = "ZantraPowerController";
inline constexpr const char *kThermalMonitorClass = "ZantraThermalMonitor";

// Adds the two other drivers to the registry and gives every driver its
// report channels, reachable through the simulation's hub.
void install_report_models(Simulation &sim);

inline constexpr size_t kMaxExtraChannels = 100'000;
// Adds `count` channels of mixed formats to the coprocessor's legend. False
// when the total would pass kMaxExtraChannels (or there is no hub).
bool add_extra_report_channels(Simulation &sim, size_t count);

// Pins the coprocessor's load, in hundredths of a percent (at most 10000);
// nothing lets the model vary it again. False when there is no such model.
bool set_coprocessor_load(Simulation &sim, std::optional<uint32_t> basis_points);

}  // namespace talvex::sim
