#include "coprocessor.h"

#include "cf_ref.h"
#include "simulation.h"

namespace talvex::sim {

namespace {

// The state's key, made once: every call reads the state.
CFStringRef state_key() {
    static const CFStringRef key = CFSTR("talvex-state");
    return key;
}

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

    t.define(kTalvexMethodSelectFirmware, scalars(1));
    t.define(kTalvexMethodReset, scalar_call);
    t.define(kTalvexMethodLoadFirmware, {exactly(2), between(0, 32768), none(), none()});   // image dictionary
    t.define(kTalvexMethodStop, scalar_call);
    t.define(kTalvexMethodPing, scalar_call);
    t.define(kTalvexMethodSpiTransfer, {none(), between(3, 128), exactly(128), none()});
    t.define(kTalvexMethodRegisterRead, {none(), exactly(3), between(0, 16), none()});
    t.define(kTalvexMethodRegisterWrite, {none(), exactly(19), none(), none()});
    t.define(kTalvexMethodSetContextLimit, scalars(1));
    t.define(kTalvexMethodRawBytes, {none(), between(0, 256), none(), none()});
    t.define(kTalvexMethodTimeSync, scalar_call);
    t.define(kTalvexMethodGpioSet, scalars(2));
    t.define(kTalvexMethodGpioRead, {exactly(1), none(), none(), exactly(1)});
    t.define(kTalvexMethodGetProperty, {exactly(2), none(), between(0, 128), none()});
    t.define(kTalvexMethodSetProperty, scalars(3));
    t.define(kTalvexMethodConnect, scalar_call);
    t.define(kTalvexMethodPowerRails, scalars(1));
    t.define(kTalvexMethodPowerAssertion, scalars(1));
    t.define(kTalvexMethodWake, scalars(1));
    t.define(kTalvexMethodProfileStart, scalar_call);
    t.define(kTalvexMethodProfileStop, scalar_call);
    t.define(kTalvexMethodProfileReset, scalar_call);
    t.define(kTalvexMethodProfileSummary, {none(), none(), exactly(12), none()});
    t.define(kTalvexMethodProfileEntry, {none(), exactly(72), exactly(82), none()});
    t.define(kTalvexMethodPowerLogStart, scalar_call);
    t.define(kTalvexMethodPowerLogStop, scalar_call);
    t.define(kTalvexMethodPowerLogReset, scalar_call);
    t.define(kTalvexMethodPowerLogRead, {none(), none(), exactly(196), none()});
    t.define(kTalvexMethodClockRedirect, scalars(1));
    t.define(kTalvexMethodSetBaudRate, scalars(1));
    t.define(kTalvexMethodClientList, {none(), exactly(5), exactly(89), none()});
    t.define(kTalvexMethodPanic, {none(), between(0, 256), none(), none()});   // optional text
    t.define(kTalvexMethodClockMeasure, {none(), exactly(4), exactly(8), none()});
    t.define(kTalvexMethodTestReport, scalar_call);
    t.define(kTalvexMethodI2CRead, {none(), exactly(5), between(0, 16), none()});
    t.define(kTalvexMethodI2CWrite, {none(), exactly(21), none(), none()});
    t.define(kTalvexMethodUartTest, {none(), exactly(109), between(0, 128), none()});
    t.define(kTalvexMethodMemoryRead, {none(), exactly(6), between(0, 16), none()});
    t.define(kTalvexMethodMemoryWrite, {none(), exactly(22), none(), none()});
    t.define(kTalvexMethodPerfMonitor, {exactly(2), between(0, 256), between(0, 256), none()});
    t.define(kTalvexMethodHalt, scalars(3));
}

Coprocessor::Coprocessor(Simulation &sim, Service &service) : sim_(sim), service_(service) {
    define_coprocessor_methods(methods_);
    install_lifecycle_methods(*this);
    install_diag_methods(*this);
    install_bus_methods(*this);
    int64_t booted = kTalvexStateBooted;
    CFRef<CFNumberRef> state(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &booted));
    service_.set_property(state_key(), state.get());
}

Coprocessor::~Coprocessor() = default;

IOReturn Coprocessor::open(uint32_t type, std::unique_ptr<UserClient> &out) {
    if (type != 0) return kIOReturnBadArgument;
    out = std::make_unique<CoprocessorClient>(*this);
    return kIOReturnSuccess;
}

uint64_t Coprocessor::state() const {
    CFTypeRef v = service_.get_property(state_key());
    int64_t value = -1;
    if (v && CFGetTypeID(v) == CFNumberGetTypeID()) CFNumberGetValue(static_cast<CFNumberRef>(v), kCFNumberSInt64Type, &value);
    return static_cast<uint64_t>(value);
}

void Coprocessor::set_state(uint64_t state) {
    uint64_t from = this->state();
    auto value = static_cast<int64_t>(state);
    CFRef<CFNumberRef> number(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &value));
    service_.set_property(state_key(), number.get());
    sim_.notify(service_, kTalvexMessageStateChanged, MessageArg::of_value(state));
    for (const auto &listener : state_listeners_) listener(from, state);
}

}  // namespace talvex::sim
