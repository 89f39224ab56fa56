// The firmware's diagnostics: running time, shared helpers, and the selectors
// wired to their models (see model_diag.h for what each part keeps).
//
// Selectors and their codes, beyond kIOReturnNotReady when the firmware is
// not running:
//   13 get property    (device, property) -> the value; see DeviceProperties
//   14 set property    (device, property, value); values wider than 32 bits
//                      are kIOReturnBadArgument
//   19-23 profiler, 24-27 power log, 28 clock redirect (0 or 1),
//   29 link baud rate  112500, 750000, 1500000 or 3000000, else
//                      kIOReturnBadArgument; the rate in force shows as the
//                      registry property "talvex-baud-rate"
//   30 client list, 32 clock measurement, 39 perfmon
#include "model_diag.h"

#include "cf_ref.h"
#include "coprocessor.h"
#include "simulation.h"

namespace talvex::sim {

namespace diag {

FirmwareRun::FirmwareRun(Coprocessor &cop) : cop_(cop), since_ns_(cop.simulation().clock().now_ns()) {}

void FirmwareRun::state_changed(uint64_t from, uint64_t to) {
    uint64_t now = cop_.simulation().clock().now_ns();
    bool booted = to == kTalvexStateBooted;
    if (counting_ && !booted) {
        base_ns_ += now - since_ns_;
        counting_ = false;
    } else if (!counting_ && booted) {
        // Waking from a halt continues the run; any other way up is a new one.
        if (from != kTalvexStateNotResponding) {
            ++run_;
            base_ns_ = 0;
        }
        since_ns_ = now;
        counting_ = true;
    }
}

bool FirmwareRun::running() const { return cop_.state() == kTalvexStateBooted; }

uint64_t FirmwareRun::now_ns() const {
    return base_ns_ + (counting_ ? cop_.simulation().clock().now_ns() - since_ns_ : 0);
}

uint64_t mix64(uint64_t x) {
    x += 0x9e3779b97f4a7c15ull;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    return x ^ (x >> 31);
}

double unit_noise(uint64_t key) { return static_cast<double>(mix64(key) >> 11) * 0x1.0p-53; }

uint64_t noise_key(uint64_t a, uint64_t b, uint64_t c) { return mix64(mix64(mix64(a) ^ b) ^ c); }

void RateCounter::advance(uint64_t elapsed_ns, uint64_t per_second) {
    // Whole seconds first, so the product below stays within 64 bits for
    // any rate up to 10^9 per second.
    value_ += (elapsed_ns / kNanosPerSecond) * per_second;
    uint64_t part = (elapsed_ns % kNanosPerSecond) * per_second + remainder_;
    value_ += part / kNanosPerSecond;
    remainder_ = part % kNanosPerSecond;
}

void put_le16(std::vector<uint8_t> &out, size_t at, uint16_t v) {
    out[at] = static_cast<uint8_t>(v);
    out[at + 1] = static_cast<uint8_t>(v >> 8);
}

void put_le32(std::vector<uint8_t> &out, size_t at, uint32_t v) {
    for (size_t i = 0; i < 4; ++i) out[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

uint32_t get_le32(std::span<const uint8_t> in, size_t at) {
    return static_cast<uint32_t>(in[at]) | static_cast<uint32_t>(in[at + 1]) << 8 |
           static_cast<uint32_t>(in[at + 2]) << 16 | static_cast<uint32_t>(in[at + 3]) << 24;
}

void put_text(std::vector<uint8_t> &out, size_t at, size_t field, const std::string &text) {
    size_t n = text.size() < field ? text.size() : field - 1;
    for (size_t i = 0; i < field; ++i) out[at + i] = i < n ? static_cast<uint8_t>(text[i]) : 0;
}

uint32_t saturate32(uint64_t v) { return v > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(v); }

}  // namespace diag

namespace {

using namespace diag;

constexpr const char *kBaudKey = "talvex-baud-rate";
constexpr uint32_t kDefaultBaud = 3'000'000;   // what the link runs at after a boot

struct DiagModel {
    explicit DiagModel(Coprocessor &coprocessor)
        : cop(coprocessor), run(coprocessor), props(run), profiler(run), powerlog(run, props), clocks(run), clients(props),
          perfmon(run, props) {
        props.attach(&perfmon, &clocks);
        // Figures made from the sample intervals catch up before they change.
        props.on_change([this] {
            powerlog.follow();
            perfmon.follow();
        });
        publish_baud(kDefaultBaud);
    }

    IOReturn get_property(const CallArgs &a, CallReply &reply) {
        if (a.scalars[0] > UINT32_MAX || a.scalars[1] > UINT32_MAX) return kIOReturnBadArgument;
        return props.get(static_cast<uint32_t>(a.scalars[0]), static_cast<uint32_t>(a.scalars[1]),
                         a.output_capacity, reply.output);
    }

    IOReturn set_property(const CallArgs &a) {
        for (uint64_t v : a.scalars)
            if (v > UINT32_MAX) return kIOReturnBadArgument;
        return props.set(static_cast<uint32_t>(a.scalars[0]), static_cast<uint32_t>(a.scalars[1]),
                         static_cast<uint32_t>(a.scalars[2]));
    }

    IOReturn set_baud(uint64_t rate) {
        follow_link();
        if (rate != 112'500 && rate != 750'000 && rate != 1'500'000 && rate != 3'000'000) return kIOReturnBadArgument;
        publish_baud(static_cast<uint32_t>(rate));
        return kIOReturnSuccess;
    }

    // A new firmware run negotiates the link again at the default rate.
    void follow_link() {
        if (link_run == run.run()) return;
        link_run = run.run();
        publish_baud(kDefaultBaud);
    }

    void publish_baud(uint32_t rate) {
        baud = rate;
        int64_t value = rate;
        CFRef<CFNumberRef> number(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &value));
        cop.service().set_property(kBaudKey, number.get());
    }

    Coprocessor &cop;
    FirmwareRun run;
    DeviceProperties props;
    Profiler profiler;
    PowerLog powerlog;
    ClockUnit clocks;
    ClientList clients;
    PerfMonitor perfmon;
    uint32_t baud = kDefaultBaud;
    uint64_t link_run = 0;
};

}  // namespace

void install_diag_methods(Coprocessor &cop) {
    auto model = std::make_shared<DiagModel>(cop);
    cop.add_state_listener([model](uint64_t from, uint64_t to) {
        model->run.state_changed(from, to);
        if (to == kTalvexStateBooted) model->follow_link();
    });
    using Body = std::function<IOReturn(DiagModel &, const CallArgs &, CallReply &)>;
    auto bind = [&](uint32_t selector, Body body) {
        cop.methods().set_handler(selector, [model, body = std::move(body)](const CallArgs &a, CallReply &reply) -> IOReturn {
            if (!model->run.running()) return kIOReturnNotReady;
            return body(*model, a, reply);
        });
    };
    bind(kTalvexMethodGetProperty, [](DiagModel &m, const CallArgs &a, CallReply &r) { return m.get_property(a, r); });
    bind(kTalvexMethodSetProperty, [](DiagModel &m, const CallArgs &a, CallReply &) { return m.set_property(a); });
    bind(kTalvexMethodProfileStart, [](DiagModel &m, const CallArgs &, CallReply &) { return m.profiler.start(); });
    bind(kTalvexMethodProfileStop, [](DiagModel &m, const CallArgs &, CallReply &) { return m.profiler.stop(); });
    bind(kTalvexMethodProfileReset, [](DiagModel &m, const CallArgs &, CallReply &) { return m.profiler.reset(); });
    bind(kTalvexMethodProfileSummary,
         [](DiagModel &m, const CallArgs &, CallReply &r) { return m.profiler.summary(r); });
    bind(kTalvexMethodProfileEntry,
         [](DiagModel &m, const CallArgs &a, CallReply &r) { return m.profiler.entry(a, r); });
    bind(kTalvexMethodPowerLogStart, [](DiagModel &m, const CallArgs &, CallReply &) { return m.powerlog.start(); });
    bind(kTalvexMethodPowerLogStop, [](DiagModel &m, const CallArgs &, CallReply &) { return m.powerlog.stop(); });
    bind(kTalvexMethodPowerLogReset, [](DiagModel &m, const CallArgs &, CallReply &) { return m.powerlog.reset(); });
    bind(kTalvexMethodPowerLogRead, [](DiagModel &m, const CallArgs &, CallReply &r) { return m.powerlog.read(r); });
    bind(kTalvexMethodClockRedirect,
         [](DiagModel &m, const CallArgs &a, CallReply &) { return m.clocks.redirect(a.scalars[0]); });
    bind(kTalvexMethodSetBaudRate,
         [](DiagModel &m, const CallArgs &a, CallReply &) { return m.set_baud(a.scalars[0]); });
    bind(kTalvexMethodClientList, [](DiagModel &m, const CallArgs &a, CallReply &r) { return m.clients.query(a, r); });
    bind(kTalvexMethodClockMeasure,
         [](DiagModel &m, const CallArgs &a, CallReply &r) { return m.clocks.measure(a, r); });
    bind(kTalvexMethodPerfMonitor, [](DiagModel &m, const CallArgs &a, CallReply &r) { return m.perfmon.call(a, r); });
}

}  // namespace talvex::sim
