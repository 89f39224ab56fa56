// The coprocessor firmware's diagnostics, as the driver serves them: device
// properties (13, 14), the profiler (19-23), the power log (24-27), clock
// redirection and measurement (28, 32), the link baud rate (29), client lists
// (30) and the performance monitor (39).
//
// Everything here lives in the firmware, so it needs running firmware: every
// selector answers kIOReturnNotReady unless the coprocessor is booted, and
// every figure moves with the firmware's running time only (the simulation's
// clock while the state is booted; it stands still while the coprocessor is
// off, stopped, booting, halted or in panic). A fresh boot (booted reached
// from anything but notresponding) starts a new firmware run: properties go
// back to their defaults, and the profiler, power log, perfmon and the link
// rate start over. Waking from a halt continues the same run.
//
// Figures are made from the running time with deterministic noise, so a run
// on a step clock gives the same numbers every time.
//
// Each part is a model of its own (model_properties.h, model_profiler.h,
// model_powerlog.h, model_clocks.h, model_clients.h, model_perfmon.h); this
// file wires the selectors to them.
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
#include "cf_ref.h"
#include "coprocessor.h"
#include "firmware_run.h"
#include "model_clients.h"
#include "model_clocks.h"
#include "model_perfmon.h"
#include "model_powerlog.h"
#include "model_profiler.h"
#include "model_properties.h"
#include "simulation.h"

namespace talvex::sim {

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
