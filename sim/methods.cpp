#include "methods.h"

namespace talvex::sim {

namespace {
// Selectors are small numbers; a table larger than this is a programming error.
constexpr uint32_t kMaxSelector = 1024;
}  // namespace

bool MethodShape::accepts(const CallArgs &args) const {
    return scalars_in.contains(args.scalars.size()) && input.contains(args.input.size()) &&
           output.contains(args.output_capacity) && scalars_out.contains(args.scalar_output_capacity);
}

void MethodTable::define(uint32_t selector, MethodShape shape, MethodHandler handler) {
    if (selector >= kMaxSelector) return;
    if (entries_.size() <= selector) entries_.resize(selector + 1);
    entries_[selector] = Entry{true, shape, std::move(handler)};
}

bool MethodTable::set_handler(uint32_t selector, MethodHandler handler) {
    if (selector >= entries_.size() || !entries_[selector].defined) return false;
    entries_[selector].handler = std::move(handler);
    return true;
}

const MethodShape *MethodTable::shape(uint32_t selector) const {
    if (selector >= entries_.size() || !entries_[selector].defined) return nullptr;
    return &entries_[selector].shape;
}

IOReturn MethodTable::dispatch(const CallArgs &args, CallReply &reply) const {
    const MethodShape *s = shape(args.selector);
    if (!s || !s->accepts(args)) return kIOReturnBadArgument;
    const Entry &e = entries_[args.selector];
    if (!e.handler) {
        zero_fill(args, reply);
        return kIOReturnSuccess;
    }
    return e.handler(args, reply);
}

void zero_fill(const CallArgs &args, CallReply &reply) {
    reply.scalars.assign(args.scalar_output_capacity, 0);
    reply.output.assign(static_cast<size_t>(args.output_capacity), 0);
}

}  // namespace talvex::sim
