// External-method tables: per selector, the argument shape a call must have
// and the handler that answers it.
//
// A call is checked against its selector's shape before its handler runs: the
// scalar input count, the input structure size, the structure output capacity
// and the scalar output capacity must each lie in their range. An unknown
// selector or a call of the wrong shape answers kIOReturnBadArgument. A
// selector defined without a handler answers success with zero-filled
// outputs: the full structure output capacity and as many scalars as asked.
#pragma once

#include <IOKit/IOReturn.h>

#include <cstdint>
#include <functional>
#include <vector>

#include "user_client.h"

namespace talvex::sim {

struct Range {
    uint64_t min = 0, max = 0;
    bool contains(uint64_t v) const { return v >= min && v <= max; }
};

// Shorthands for shape tables.
constexpr Range none() { return {0, 0}; }
constexpr Range exactly(uint64_t n) { return {n, n}; }
constexpr Range between(uint64_t lo, uint64_t hi) { return {lo, hi}; }

struct MethodShape {
    Range scalars_in = none();    // number of scalar inputs
    Range input = none();         // input structure bytes
    Range output = none();        // structure output capacity, bytes
    Range scalars_out = none();   // scalar output capacity
    bool accepts(const CallArgs &args) const;
};

using MethodHandler = std::function<IOReturn(const CallArgs &args, CallReply &reply)>;

class MethodTable {
public:
    // Declares a selector with its shape (replacing any earlier declaration).
    void define(uint32_t selector, MethodShape shape, MethodHandler handler = nullptr);
    // Gives a declared selector its handler; false when the selector is not declared.
    bool set_handler(uint32_t selector, MethodHandler handler);
    const MethodShape *shape(uint32_t selector) const;
    IOReturn dispatch(const CallArgs &args, CallReply &reply) const;

private:
    struct Entry {
        bool defined = false;
        MethodShape shape;
        MethodHandler handler;
    };
    std::vector<Entry> entries_;   // indexed by selector
};

// Zero-filled outputs of the full asked size (the default answer).
void zero_fill(const CallArgs &args, CallReply &reply);

}  // namespace talvex::sim
