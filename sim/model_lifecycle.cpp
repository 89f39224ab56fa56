// The coprocessor's life as the driver runs it: firmware selection (0), reset
// (1), start (2), stop (3), ping (4), time synchronisation (10), connect (15),
// power-state assertions (17), wake (18), panic (31), test report (33) and
// timed halts (40).
//
// States and how they change (every change goes through set_state, so the
// "talvex-state" property follows and interested clients get the state-change
// message):
//
//   reset            any state -> off; 50 ms later booting; 300 ms later booted
//   start            off or stopped -> booting; 300 ms later booted
//   stop             any state -> stopped
//   panic            booted -> panic
//   halt D, T, L     booted; after D ms notresponding; after T ms more booted
//                    again (T = 0: it stays halted until reset, stop or wake)
//   wake             notresponding -> booted; booted stays booted
//
// reset, start, stop and panic cancel whatever was still pending (a boot in
// progress, a halt). When the firmware comes up it synchronises time with the
// application processor (the time-sync message), unless the boot flags carry
// notimesync (0x04); a reset boots with the flags of the last start.
//
// Codes: methods that need running firmware (ping, time sync, panic, report,
// halt) answer kIOReturnNotReady unless the state is booted; start answers
// kIOReturnBusy unless the coprocessor is off or stopped, kIOReturnBadArgument
// for a request that is not the image dictionary with an absolute path, and
// kIOReturnNotFound when the image is not a file on this machine (the boot
// does not begin); wake answers kIOReturnNotReady when there is nothing to
// wake. Firmware numbers above 1 and power-state codes other than 0x0-0x3 and
// 0x80-0x83 are kIOReturnBadArgument; so are scalars wider than the driver's
// 32-bit fields.
//
// Times: the application processor's clock is its uptime in nanoseconds; the
// simulator starts 120 s into it. The coprocessor's clock counts nanoseconds
// since its firmware last came up, running 20 ppm fast against the AP's.
//
// What the driver keeps shows in the trace, beside the call lines:
//   {"service":S,"event":"boot","number":N,"flags":F,"image":"/abs/path"|null}
//   {"service":S,"event":"panic","text":"..."|null}
//   {"service":S,"event":"report","state":N,"uptime_ns":N,"firmware":N,"number":N,
//    "flags":N,"image":...,"assertions":[..],"wake":N,"connects":N,"panic":...}
// An event line comes before the line of the call that caused it (a call's
// line is written when the call returns).
#include <IOKit/IOCFUnserialize.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "cf_ref.h"
#include "coprocessor.h"
#include "simulation.h"
#include "trace.h"
#include "wire.h"

namespace talvex::sim {

namespace {

constexpr uint64_t kResetOffNs = 50 * kNanosPerMilli;   // a reset holds the coprocessor off this long
constexpr uint64_t kBootNs = 300 * kNanosPerMilli;      // booting to booted
constexpr uint64_t kCoprocessorDriftPpm = 20;

constexpr uint32_t kBootNoTimesync = 0x04;
constexpr const char *kImageKey = "firmware-image-path";

// Power-state assertion codes: 0x0-0x3 take one, 0x80-0x83 release it.
constexpr uint64_t kAssertionRelease = 0x80;
constexpr uint64_t kAssertionCount = 4;

struct BootRecord {
    uint32_t number = 0;
    uint32_t flags = 0;
    std::optional<std::string> image;   // none: the driver's own image
};

class Lifecycle : public std::enable_shared_from_this<Lifecycle> {
public:
    explicit Lifecycle(Coprocessor &cop) : cop_(cop) {}

    // The external methods it serves, bound to their selectors by
    // install_lifecycle_methods.
    using Method = IOReturn(const CallArgs &a);
    Method select_firmware, reset, start, stop, ping, timesync, connect, power_state, wake, panic, report, halt;

private:
    bool booted() const { return cop_.state() == kTalvexStateBooted; }
    uint64_t now() const { return cop_.simulation().clock().now_ns(); }
    uint64_t ap_time() const { return kApUptimeAtStartNs + now(); }
    uint64_t coprocessor_time() const {
        uint64_t up = ap_time() - booted_at_ap_;
        return up + up / (1'000'000 / kCoprocessorDriftPpm);
    }

    void move_to(uint64_t state) {
        if (cop_.state() != state) cop_.set_state(state);
    }
    // Runs `step` at simulated time `due_ns`, as part of the pending
    // transition. A step that follows another counts from when that one was
    // due, not from when it ran, so a coarse clock step keeps the timing.
    // Steps hold the model alive (shared_from_this), whatever happens to the
    // handlers.
    void at(uint64_t due_ns, std::function<void()> step);
    void cancel_pending();
    // booting at `since`, booted kBootNs later.
    void begin_boot(uint64_t since);
    void firmware_up(uint64_t since);
    void send_timesync();
    void trace_event(const std::string &fields);

    Coprocessor &cop_;
    std::vector<TimerQueue::Id> pending_;
    uint64_t booted_at_ap_ = kFirstBootApNs;
    uint32_t firmware_ = 0;
    BootRecord boot_;
    std::set<uint64_t> assertions_;
    std::optional<std::string> panic_text_;
    uint32_t last_wake_ = 0;
    uint64_t connects_ = 0;
};

bool fits32(uint64_t v) { return v <= UINT32_MAX; }

std::string json_or_null(const std::optional<std::string> &text) { return text ? json_string(*text) : "null"; }

void Lifecycle::at(uint64_t due_ns, std::function<void()> step) {
    pending_.push_back(cop_.simulation().timers().add(due_ns, std::move(step)));
}

void Lifecycle::cancel_pending() {
    for (auto id : pending_) cop_.simulation().timers().cancel(id);
    pending_.clear();
}

void Lifecycle::trace_event(const std::string &fields) {
    cop_.simulation().trace().add("{\"service\":" + json_string(cop_.service().class_name) + "," + fields + "}");
}

void Lifecycle::begin_boot(uint64_t since) {
    move_to(kTalvexStateBooting);
    at(since + kBootNs, [self = shared_from_this(), up = since + kBootNs] { self->firmware_up(up); });
}

void Lifecycle::firmware_up(uint64_t since) {
    pending_.clear();
    booted_at_ap_ = kApUptimeAtStartNs + since;
    move_to(kTalvexStateBooted);
    if (!(boot_.flags & kBootNoTimesync)) send_timesync();
}

void Lifecycle::send_timesync() {
    std::vector<uint8_t> times(16);
    wire::store_le64(times.data(), ap_time());
    wire::store_le64(times.data() + 8, coprocessor_time());
    cop_.simulation().notify(cop_.service(), kTalvexMessageTimeSync, MessageArg::of_data(std::move(times)));
}

IOReturn Lifecycle::select_firmware(const CallArgs &a) {
    if (a.scalars[0] > 1) return kIOReturnBadArgument;
    firmware_ = static_cast<uint32_t>(a.scalars[0]);
    return kIOReturnSuccess;
}

IOReturn Lifecycle::reset(const CallArgs &) {
    cancel_pending();
    move_to(kTalvexStateOff);
    uint64_t boot = now() + kResetOffNs;
    at(boot, [self = shared_from_this(), boot] { self->begin_boot(boot); });
    return kIOReturnSuccess;
}

IOReturn Lifecycle::start(const CallArgs &a) {
    if (!fits32(a.scalars[0]) || !fits32(a.scalars[1])) return kIOReturnBadArgument;
    BootRecord boot{static_cast<uint32_t>(a.scalars[0]), static_cast<uint32_t>(a.scalars[1]), std::nullopt};
    if (!a.input.empty()) {
        CFRef<CFTypeRef> request(IOCFUnserializeWithSize(reinterpret_cast<const char *>(a.input.data()), a.input.size(),
                                                         kCFAllocatorDefault, 0, nullptr));
        if (!request || CFGetTypeID(request.get()) != CFDictionaryGetTypeID()) return kIOReturnBadArgument;
        auto key = make_cf_string(kImageKey);
        CFTypeRef path = key ? CFDictionaryGetValue(static_cast<CFDictionaryRef>(request.get()), key.get()) : nullptr;
        if (!path || CFGetTypeID(path) != CFStringGetTypeID()) return kIOReturnBadArgument;
        boot.image = to_std_string(static_cast<CFStringRef>(path));
        if (!boot.image->starts_with('/')) return kIOReturnBadArgument;
    }
    uint64_t state = cop_.state();
    if (state != kTalvexStateOff && state != kTalvexStateStopped) return kIOReturnBusy;
    if (boot.image) {
        std::error_code ec;
        if (!std::filesystem::is_regular_file(*boot.image, ec)) return kIOReturnNotFound;
    }
    boot_ = std::move(boot);
    trace_event("\"event\":\"boot\",\"number\":" + std::to_string(boot_.number) +
                ",\"flags\":" + std::to_string(boot_.flags) + ",\"image\":" + json_or_null(boot_.image));
    cancel_pending();
    begin_boot(now());
    return kIOReturnSuccess;
}

IOReturn Lifecycle::stop(const CallArgs &) {
    cancel_pending();
    move_to(kTalvexStateStopped);
    return kIOReturnSuccess;
}

IOReturn Lifecycle::ping(const CallArgs &) { return booted() ? kIOReturnSuccess : kIOReturnNotReady; }

IOReturn Lifecycle::timesync(const CallArgs &) {
    if (!booted()) return kIOReturnNotReady;
    send_timesync();
    return kIOReturnSuccess;
}

IOReturn Lifecycle::connect(const CallArgs &) {
    ++connects_;
    return kIOReturnSuccess;
}

IOReturn Lifecycle::power_state(const CallArgs &a) {
    uint64_t code = a.scalars[0];
    if (code < kAssertionCount) {
        assertions_.insert(code);
    } else if (code >= kAssertionRelease && code < kAssertionRelease + kAssertionCount) {
        assertions_.erase(code - kAssertionRelease);
    } else {
        return kIOReturnBadArgument;
    }
    return kIOReturnSuccess;
}

IOReturn Lifecycle::wake(const CallArgs &a) {
    if (!fits32(a.scalars[0])) return kIOReturnBadArgument;
    uint64_t state = cop_.state();
    if (state == kTalvexStateNotResponding) {
        cancel_pending();
        move_to(kTalvexStateBooted);
    } else if (state != kTalvexStateBooted) {
        return kIOReturnNotReady;
    }
    last_wake_ = static_cast<uint32_t>(a.scalars[0]);
    return kIOReturnSuccess;
}

IOReturn Lifecycle::panic(const CallArgs &a) {
    if (!booted()) return kIOReturnNotReady;
    std::optional<std::string> text;
    if (!a.input.empty()) {
        // The text ends at its NUL (or with the request).
        std::string bytes(reinterpret_cast<const char *>(a.input.data()), a.input.size());
        text = bytes.substr(0, bytes.find('\0'));
    }
    panic_text_ = std::move(text);
    cancel_pending();
    trace_event("\"event\":\"panic\",\"text\":" + json_or_null(panic_text_));
    move_to(kTalvexStatePanic);
    return kIOReturnSuccess;
}

IOReturn Lifecycle::report(const CallArgs &) {
    if (!booted()) return kIOReturnNotReady;
    std::string held;
    for (uint64_t code : assertions_) {
        if (!held.empty()) held += ',';
        held += std::to_string(code);
    }
    trace_event("\"event\":\"report\",\"state\":" + std::to_string(cop_.state()) +
                ",\"uptime_ns\":" + std::to_string(coprocessor_time()) + ",\"firmware\":" + std::to_string(firmware_) +
                ",\"number\":" + std::to_string(boot_.number) + ",\"flags\":" + std::to_string(boot_.flags) +
                ",\"image\":" + json_or_null(boot_.image) + ",\"assertions\":[" + held + "]" +
                ",\"wake\":" + std::to_string(last_wake_) + ",\"connects\":" + std::to_string(connects_) +
                ",\"panic\":" + json_or_null(panic_text_));
    return kIOReturnSuccess;
}

IOReturn Lifecycle::halt(const CallArgs &a) {
    uint64_t delay_ms = a.scalars[0], duration_ms = a.scalars[1];
    if (!fits32(delay_ms) || !fits32(duration_ms) || !fits32(a.scalars[2])) return kIOReturnBadArgument;
    if (!booted()) return kIOReturnNotReady;
    // A new halt replaces one that has not happened yet.
    cancel_pending();
    auto self = shared_from_this();
    uint64_t halt = now() + delay_ms * kNanosPerMilli;
    at(halt, [self] { self->move_to(kTalvexStateNotResponding); });
    if (duration_ms != 0) at(halt + duration_ms * kNanosPerMilli, [self] {
        self->pending_.clear();
        self->move_to(kTalvexStateBooted);
    });
    return kIOReturnSuccess;
}

}  // namespace

void install_lifecycle_methods(Coprocessor &cop) {
    auto model = std::make_shared<Lifecycle>(cop);
    auto bind = [&](uint32_t selector, Lifecycle::Method Lifecycle::*method) {
        cop.methods().set_handler(selector,
                                  [model, method](const CallArgs &a, CallReply &) { return (*model.*method)(a); });
    };
    bind(kTalvexMethodSelectFirmware, &Lifecycle::select_firmware);
    bind(kTalvexMethodReset, &Lifecycle::reset);
    bind(kTalvexMethodLoadFirmware, &Lifecycle::start);
    bind(kTalvexMethodStop, &Lifecycle::stop);
    bind(kTalvexMethodPing, &Lifecycle::ping);
    bind(kTalvexMethodTimeSync, &Lifecycle::timesync);
    bind(kTalvexMethodConnect, &Lifecycle::connect);
    bind(kTalvexMethodPowerAssertion, &Lifecycle::power_state);
    bind(kTalvexMethodWake, &Lifecycle::wake);
    bind(kTalvexMethodPanic, &Lifecycle::panic);
    bind(kTalvexMethodTestReport, &Lifecycle::report);
    bind(kTalvexMethodHalt, &Lifecycle::halt);
}

}  // namespace talvex::sim
