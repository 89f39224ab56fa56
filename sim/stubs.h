// Stubs: canned answers that take the place of a service's model for calls
// (and opens) that match them. The newest matching stub answers; a stub with
// a match budget retires when it is spent.
#pragma once

#include <IOKit/IOReturn.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "user_client.h"

namespace talvex::sim {

struct CallStub {
    std::string service;                    // class name
    uint32_t selector = 0;
    std::vector<uint64_t> scalars_prefix;   // the call's scalar inputs start with these
    std::vector<uint8_t> input_prefix;      // the call's input structure starts with these bytes
    IOReturn code = kIOReturnSuccess;
    std::vector<uint8_t> output;
    std::optional<uint64_t> output_size;    // size reported back; default the output's length
    std::vector<uint64_t> scalar_outputs;
    std::optional<uint64_t> times;          // matches left; unlimited when empty
};

struct OpenStub {
    std::string service;
    IOReturn code = kIOReturnError;
    std::optional<uint64_t> times;
};

class StubTable {
public:
    static constexpr size_t kMaxStubs = 10'000;
    static constexpr size_t kMaxBytes = size_t{16} << 20;   // what all stubs hold together, roughly

    // False when the table is full (kMaxStubs stubs, or kMaxBytes).
    bool add(CallStub stub);
    bool add(OpenStub stub);
    void clear();
    size_t size() const { return calls_.size() + opens_.size(); }

    // When a stub matches the call: counts the match, fills the reply (the
    // reported output size cut to the caller's capacity, the output bytes
    // zero-padded or cut to that size) and returns the stub's code.
    std::optional<IOReturn> answer_call(std::string_view service, const CallArgs &args, CallReply &reply);
    // When an open stub matches the service: counts the match and returns its code.
    std::optional<IOReturn> answer_open(std::string_view service);

private:
    // Takes the stub into list unless the table is full.
    template <typename Stub>
    bool keep(std::vector<Stub> &list, Stub stub);
    // Counts a match of list[i] and returns its code; a spent stub retires.
    template <typename Stub>
    IOReturn spend(std::vector<Stub> &list, size_t i);

    std::vector<CallStub> calls_;   // oldest first
    std::vector<OpenStub> opens_;
    size_t bytes_ = 0;
};

}  // namespace talvex::sim
