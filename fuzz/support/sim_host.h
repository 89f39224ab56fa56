// An in-process simulator for fuzz targets that drive code through the
// platform API: one thread serves a private socket that TALVEX_SIM_SOCKET
// names, handing each request to the current Simulation (on a step clock).
// reset() swaps in a fresh one for every input while the host's connection
// stays up.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "fuzz_check.h"
#include "simulation.h"

namespace talvex::fuzz {

class SimHost {
public:
    // The process's one instance; starts listening on first use. Call it
    // before anything touches the platform API.
    static SimHost &instance();

    // Replaces the simulation with a fresh one and lets `setup` edit it
    // (stubs, properties, state) before any request reaches it.
    void reset(const std::function<void(sim::Simulation &)> &setup = {});

    // Simulated time moves on by `ns` before each request is handled (0 by
    // default; reset() keeps the setting), so delayed model steps happen
    // between the calls of one input.
    void set_step(uint64_t ns);

    // Runs `f` on the current simulation while no request is being served.
    void with(const std::function<void(sim::Simulation &)> &f);

    // Aborts with a message when the host's link to the simulator broke: the
    // host drops its link only when the simulator breaks the protocol, which
    // a fresh simulation never should. Costs one round trip.
    void check_link();

    // Aborts with a message naming `who` when the process still holds a
    // handle on the published service of `class_name`: a registry entry has
    // one handle per process, so a fresh lookup must find its count at 1.
    static void check_released(const char *class_name, const char *who);

private:
    SimHost();
    struct State;
    State *s_;
};

// A socket listening in a fresh private directory, at `path`, which
// TALVEX_SIM_SOCKET now names.
int listen_private(std::string &path);

}  // namespace talvex::fuzz
