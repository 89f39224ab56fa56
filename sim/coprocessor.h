// The coprocessor driver (ZantraTalvexProcessor): its state, its registry
// properties and its user client's external methods 0 to 40 (selectors,
// states and messages in talvex_driver.h).
//
// Every selector is declared with the argument shape the driver accepts (see
// define_coprocessor_methods). Behaviour is added per area in files of its
// own: a file defines `void install_<area>_methods(Coprocessor &)`, which
// gives selectors their handlers with `methods().set_handler(...)`, and the
// Coprocessor constructor calls it. Until a selector has a handler, a call of
// the right shape succeeds with zero-filled outputs.
#pragma once

#include <IOKit/IOReturn.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "clock.h"
#include "methods.h"
#include "registry.h"
#include "talvex_driver.h"
#include "user_client.h"

namespace talvex::sim {

class Simulation;

// The simulated application processor has been up this long when the
// simulator starts; the coprocessor first came up this far into it.
inline constexpr uint64_t kApUptimeAtStartNs = 120 * kNanosPerSecond;
inline constexpr uint64_t kFirstBootApNs = 2'500 * kNanosPerMilli;

// Declares selectors 0 to 40 with their argument shapes.
void define_coprocessor_methods(MethodTable &table);

class Coprocessor;

// Behaviour per area (sim/model_<area>.cpp), installed by the constructor.
void install_lifecycle_methods(Coprocessor &cop);   // 0-4, 10, 15, 17, 18, 31, 33, 40
void install_diag_methods(Coprocessor &cop);        // 13, 14, 19-30, 32, 39
void install_bus_methods(Coprocessor &cop);         // 5-9, 11, 12, 16, 34-38

class Coprocessor final : public ServiceModel {
public:
    Coprocessor(Simulation &sim, Service &service);
    ~Coprocessor() override;

    // Connection type 0 opens the driver's user client; any other type fails
    // with kIOReturnBadArgument.
    IOReturn open(uint32_t type, std::unique_ptr<UserClient> &out) override;

    MethodTable &methods() { return methods_; }
    Simulation &simulation() { return sim_; }
    Service &service() { return service_; }

    // The coprocessor state ("talvex-state"; all ones when it is missing or
    // not a number).
    uint64_t state() const;
    // Sets the state property and tells interested clients (state-change
    // message with the state as its value).
    void set_state(uint64_t state);

    // --- state listeners (models whose firmware-side state follows restarts)
    // Runs after every change made through set_state, with the old and the
    // new state.
    using StateListener = std::function<void(uint64_t from, uint64_t to)>;
    void add_state_listener(StateListener listener) { state_listeners_.push_back(std::move(listener)); }

private:
    Simulation &sim_;
    Service &service_;
    MethodTable methods_;
    std::vector<StateListener> state_listeners_;
};

}  // namespace talvex::sim
