#include "coprocessor.h"

#include "cf_ref.h"
#include "simulation.h"

namespace talvex::sim {

namespace {

constexpr const char *kStateKey = "talvex-state";

// The driver's user client: every call goes through the method table.
class CoprocessorClient final : public UserClient {
public:
    explicit CoprocessorClient(Coprocessor &cp) : cp_(cp) {}
    IOReturn call(const CallArgs &args, CallReply &reply) override { return cp_.methods().dispatch(args, reply); }

private:
    Coprocessor &cp_;
};

}  // namespace

void define_coprocessor_methods(MethodTable &t) {
    // Where a size depends on the request (a length asked, a property's
    // size, text), the range is what the driver's buffers hold.
    const MethodShape scalar_call{};   // no arguments at all
    auto scalars = [](uint64_t n) { return MethodShape{exactly(n), none(), none(), none()}; };

    t.define(0, scalars(1));                                              // select firmware
    t.define(1, scalar_call);                                             // reset
    t.define(2, {exactly(2), between(0, 32768), none(), none()});        // start: number, flags, image dictionary
    t.define(3, scalar_call);                                             // stop
    t.define(4, scalar_call);                                             // ping
    t.define(5, {none(), between(3, 128), exactly(128), none()});        // SPI transfer
    t.define(6, {none(), exactly(3), between(0, 16), none()});           // register read
    t.define(7, {none(), exactly(19), none(), none()});                  // register write
    t.define(8, scalars(1));                                              // context limit
    t.define(9, {none(), between(0, 256), none(), none()});              // raw bytes
    t.define(10, scalar_call);                                            // time synchronisation
    t.define(11, scalars(2));                                             // GPIO set
    t.define(12, {exactly(1), none(), none(), exactly(1)});              // GPIO read
    t.define(13, {exactly(2), none(), between(0, 128), none()});         // device property read
    t.define(14, scalars(3));                                             // device property write
    t.define(15, scalar_call);                                            // connect
    t.define(16, scalars(1));                                             // power rails
    t.define(17, scalars(1));                                             // power-state assertion
    t.define(18, scalars(1));                                             // wake
    t.define(19, scalar_call);                                            // profiler start
    t.define(20, scalar_call);                                            // profiler stop
    t.define(21, scalar_call);                                            // profiler reset
    t.define(22, {none(), none(), exactly(12), none()});                 // profile summary
    t.define(23, {none(), exactly(72), exactly(82), none()});            // profile entry
    t.define(24, scalar_call);                                            // power log start
    t.define(25, scalar_call);                                            // power log stop
    t.define(26, scalar_call);                                            // power log reset
    t.define(27, {none(), none(), exactly(196), none()});                // power log read
    t.define(28, scalars(1));                                             // clock redirect
    t.define(29, scalars(1));                                             // baud rate
    t.define(30, {none(), exactly(5), exactly(89), none()});             // client list
    t.define(31, {none(), between(0, 256), none(), none()});             // panic, optional text
    t.define(32, {none(), exactly(4), exactly(8), none()});              // clock measurement
    t.define(33, scalar_call);                                            // test report
    t.define(34, {none(), exactly(5), between(0, 16), none()});          // I2C read
    t.define(35, {none(), exactly(21), none(), none()});                 // I2C write
    t.define(36, {none(), exactly(109), between(0, 128), none()});       // UART test frame
    t.define(37, {none(), exactly(6), between(0, 16), none()});          // memory read
    t.define(38, {none(), exactly(22), none(), none()});                 // memory write
    t.define(39, {exactly(2), between(0, 256), between(0, 256), none()});   // performance monitor
    t.define(40, scalars(3));                                             // halt
}

Coprocessor::Coprocessor(Simulation &sim, Service &service) : sim_(sim), service_(service) {
    define_coprocessor_methods(methods_);
    install_lifecycle_methods(*this);
    install_diag_methods(*this);
    install_bus_methods(*this);
    int64_t booted = kTalvexStateBooted;
    CFRef<CFNumberRef> state(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &booted));
    service_.set_property(kStateKey, state.get());
}

Coprocessor::~Coprocessor() = default;

IOReturn Coprocessor::open(uint32_t type, std::unique_ptr<UserClient> &out) {
    if (type != 0) return kIOReturnBadArgument;
    out = std::make_unique<CoprocessorClient>(*this);
    return kIOReturnSuccess;
}

uint64_t Coprocessor::state() const {
    CFTypeRef v = service_.get_property(kStateKey);
    int64_t value = -1;
    if (v && CFGetTypeID(v) == CFNumberGetTypeID()) CFNumberGetValue(static_cast<CFNumberRef>(v), kCFNumberSInt64Type, &value);
    return static_cast<uint64_t>(value);
}

void Coprocessor::set_state(uint64_t state) {
    uint64_t from = this->state();
    auto value = static_cast<int64_t>(state);
    CFRef<CFNumberRef> number(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &value));
    service_.set_property(kStateKey, number.get());
    sim_.notify(service_, kTalvexMessageStateChanged, MessageArg::of_value(state));
    for (const auto &listener : state_listeners_) listener(from, state);
}

}  // namespace talvex::sim
