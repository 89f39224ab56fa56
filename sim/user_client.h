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

#include "budget.h"
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
        return it == regions_.end() ? nullptr : it->second.region.get();
    }

    // The simulator's client that opened it, whose budget pays for the
    // memory it makes. Until attached, nothing is charged.
    void attach(Budget &budget, ClientId client) {
        budget_ = &budget;
        client_ = client;
    }

protected:
    // Creates (or replaces) the memory of a type, charged to the client: one
    // descriptor and its size in whole pages. Over budget, answers
    // kIOReturnNoResources with `why` saying which limit; when the system
    // refuses, kIOReturnNoMemory.
    IOReturn add_region(uint32_t memory_type, size_t size, SharedRegion *&out, Shortfall &why) {
        Held held;
        if (budget_) {
            held.descriptor = budget_->take(client_, Resource::Descriptors, 1, why.verdict);
            why.resource = Resource::Descriptors;
            if (why.verdict) {
                size_t pages = (size + kPageSize - 1) / kPageSize * kPageSize;
                held.memory = budget_->take(client_, Resource::HubMemory, pages, why.verdict);
                why.resource = Resource::HubMemory;
            }
            if (!why.verdict) return kIOReturnNoResources;
        }
        held.region = SharedRegion::create(size);
        if (!held.region) return kIOReturnNoMemory;
        out = held.region.get();
        regions_[memory_type] = std::move(held);
        return kIOReturnSuccess;
    }
    // Makes memory that others share (and that is paid for elsewhere) mappable as a type.
    void share_region(uint32_t memory_type, std::shared_ptr<SharedRegion> region) {
        regions_[memory_type] = Held{std::move(region), {}, {}};
    }

private:
    static constexpr size_t kPageSize = 4096;
    struct Held {
        std::shared_ptr<SharedRegion> region;
        Budget::Charge descriptor, memory;
    };
    std::map<uint32_t, Held> regions_;
    Budget *budget_ = nullptr;
    ClientId client_ = 0;
};

class ServiceModel {
public:
    virtual ~ServiceModel() = default;
    // Opens a user client of the connection type; on failure returns the
    // error code and leaves `out` empty.
    virtual IOReturn open(uint32_t type, std::unique_ptr<UserClient> &out) = 0;
};

}  // namespace talvex::sim
