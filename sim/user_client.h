// User clients: what a client opens on a service and calls external methods
// on. A service's model (ServiceModel) decides which connection types open
// and which user client serves them.
#pragma once

#include <IOKit/IOReturn.h>

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <vector>

#include "shared_memory.h"

namespace talvex::sim {

// One external-method call as the caller made it.
struct CallArgs {
    uint32_t selector = 0;
    std::span<const uint64_t> scalars;    // scalar inputs
    std::span<const uint8_t> input;       // input structure (empty for none)
    uint32_t scalar_output_capacity = 0;  // how many scalar outputs the caller can take
    uint64_t output_capacity = 0;         // structure output capacity in bytes (0 for none)
};

// What the method answers besides its return code. The caller's capacities
// are applied afterwards: extra scalars are dropped and a structure longer
// than the capacity is cut to it.
struct CallReply {
    std::vector<uint64_t> scalars;
    std::vector<uint8_t> output;
};

class UserClient {
public:
    virtual ~UserClient() = default;
    virtual IOReturn call(const CallArgs &args, CallReply &reply) = 0;

    // Memory of the given type that the client can map; null when there is none.
    SharedRegion *region(uint32_t memory_type) const {
        auto it = regions_.find(memory_type);
        return it == regions_.end() ? nullptr : it->second.get();
    }

protected:
    // Creates (or replaces) the memory of a type; null when it cannot be made.
    SharedRegion *add_region(uint32_t memory_type, size_t size) {
        auto region = SharedRegion::create(size);
        if (!region) return nullptr;
        auto *raw = region.get();
        regions_[memory_type] = std::move(region);
        return raw;
    }

private:
    std::map<uint32_t, std::unique_ptr<SharedRegion>> regions_;
};

class ServiceModel {
public:
    virtual ~ServiceModel() = default;
    // Opens a user client of the connection type; on failure returns the
    // error code and leaves `out` empty.
    virtual IOReturn open(uint32_t type, std::unique_ptr<UserClient> &out) = 0;
};

}  // namespace talvex::sim
