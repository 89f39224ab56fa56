#include "stubs.h"

#include <algorithm>

namespace talvex::sim {

namespace {

template <typename T>
bool starts_with(std::span<const T> have, const std::vector<T> &prefix) {
    return have.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), have.begin());
}

// Counts one match; true when the stub is now spent.
bool spend(std::optional<uint64_t> &times) {
    if (!times) return false;
    return --*times == 0;
}

// What a stub holds, roughly: its bytes and a fixed cost for the rest.
size_t footprint(const CallStub &s) {
    return 128 + s.service.size() + s.input_prefix.size() + s.output.size() +
           8 * (s.scalars_prefix.size() + s.scalar_outputs.size());
}
size_t footprint(const OpenStub &s) { return 128 + s.service.size(); }

}  // namespace

bool StubTable::add(CallStub stub) {
    size_t bytes = footprint(stub);
    if (size() >= kMaxStubs || bytes > kMaxBytes - bytes_) return false;
    bytes_ += bytes;
    calls_.push_back(std::move(stub));
    return true;
}

bool StubTable::add(OpenStub stub) {
    size_t bytes = footprint(stub);
    if (size() >= kMaxStubs || bytes > kMaxBytes - bytes_) return false;
    bytes_ += bytes;
    opens_.push_back(std::move(stub));
    return true;
}

void StubTable::clear() {
    calls_.clear();
    opens_.clear();
    bytes_ = 0;
}

std::optional<IOReturn> StubTable::answer_call(std::string_view service, const CallArgs &args, CallReply &reply) {
    for (size_t i = calls_.size(); i-- > 0;) {
        CallStub &s = calls_[i];
        if (s.service != service || s.selector != args.selector || !starts_with(args.scalars, s.scalars_prefix) ||
            !starts_with(args.input, s.input_prefix))
            continue;
        uint64_t size = std::min(s.output_size.value_or(s.output.size()), args.output_capacity);
        reply.output.assign(static_cast<size_t>(size), 0);
        std::copy_n(s.output.begin(), std::min<size_t>(s.output.size(), reply.output.size()), reply.output.begin());
        reply.scalars = s.scalar_outputs;
        IOReturn code = s.code;
        if (spend(s.times)) {
            bytes_ -= footprint(s);
            calls_.erase(calls_.begin() + static_cast<std::ptrdiff_t>(i));
        }
        return code;
    }
    return std::nullopt;
}

std::optional<IOReturn> StubTable::answer_open(std::string_view service) {
    for (size_t i = opens_.size(); i-- > 0;) {
        OpenStub &s = opens_[i];
        if (s.service != service) continue;
        IOReturn code = s.code;
        if (spend(s.times)) {
            bytes_ -= footprint(s);
            opens_.erase(opens_.begin() + static_cast<std::ptrdiff_t>(i));
        }
        return code;
    }
    return std::nullopt;
}

}  // namespace talvex::sim
