#include "stubs.h"

#include <algorithm>

namespace talvex::sim {

namespace {

template <typename T>
bool starts_with(std::span<const T> have, const std::vector<T> &prefix) {
    return have.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), have.begin());
}

// What a stub holds, roughly: its bytes and a fixed cost for the rest.
size_t footprint(const CallStub &s) {
    return 128 + s.service.size() + s.input_prefix.size() + s.output.size() +
           8 * (s.scalars_prefix.size() + s.scalar_outputs.size());
}
size_t footprint(const OpenStub &s) { return 128 + s.service.size(); }

}  // namespace

template <typename Stub>
bool StubTable::keep(std::vector<Stub> &list, Stub stub) {
    size_t bytes = footprint(stub);
    if (size() >= kMaxStubs || bytes > kMaxBytes - bytes_) return false;
    bytes_ += bytes;
    list.push_back(std::move(stub));
    return true;
}

template <typename Stub>
IOReturn StubTable::spend(std::vector<Stub> &list, size_t i) {
    IOReturn code = list[i].code;
    if (list[i].times && --*list[i].times == 0) {
        bytes_ -= footprint(list[i]);
        list.erase(list.begin() + static_cast<std::ptrdiff_t>(i));
    }
    return code;
}

bool StubTable::add(CallStub stub) { return keep(calls_, std::move(stub)); }

bool StubTable::add(OpenStub stub) { return keep(opens_, std::move(stub)); }

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
        return spend(calls_, i);
    }
    return std::nullopt;
}

std::optional<IOReturn> StubTable::answer_open(std::string_view service) {
    for (size_t i = opens_.size(); i-- > 0;)
        if (opens_[i].service == service) return spend(opens_, i);
    return std::nullopt;
}

}  // namespace talvex::sim
