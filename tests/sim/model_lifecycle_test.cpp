// The coprocessor's life in the simulator, in-process on a clock that moves
// only when told: state changes and their messages, delayed boot and halt
// steps, time synchronisation, the start request, panics, assertions and the
// test report. Calls go through the protocol, so the trace is the real one.
#include <gtest/gtest.h>

#include <IOKit/IOCFSerialize.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "cf_ref.h"
#include "coprocessor.h"
#include "simulation.h"

using namespace talvex;
using namespace talvex::sim;

namespace {

constexpr int32_t kOk = 0;
constexpr int32_t kNotReady = static_cast<int32_t>(0xe00002d8);
constexpr int32_t kBusy = static_cast<int32_t>(0xe00002d5);
constexpr int32_t kBadArgument = static_cast<int32_t>(0xe00002c2);
constexpr int32_t kNotFound = static_cast<int32_t>(0xe00002f0);
constexpr uint64_t kMs = 1'000'000;
constexpr uint64_t kApAtStart = 120 * kNanosPerSecond;

struct Event {
    uint32_t type = 0;
    wire::ArgKind kind = wire::ArgKind::None;
    uint64_t value = 0;
    std::vector<uint8_t> data;
};

// A simulation with one client (7) that has an open user client and an
// interest registration on the coprocessor.
class Rig : public Outbox {
public:
    Rig() {
        auto clock = std::make_unique<StepClock>();
        step_ = clock.get();
        sim_ = std::make_unique<Simulation>(*this, std::move(clock));
        service_ = sim_->registry().find_class(kCoprocessorClass);
        cop_ = dynamic_cast<Coprocessor *>(service_->model.get());
        wire::Writer interest;
        interest.u64(service_->id);
        interest.str("IOGeneralInterest");
        request(wire::Op::AddInterest, interest);
        wire::Writer open;
        open.u64(service_->id);
        open.u32(0);
        wire::Reader r(request(wire::Op::Open, open));
        connection_ = r.u32();
    }

    void send(ClientId, std::vector<uint8_t> frame, int) override {
        wire::Reader r(frame);
        r.u32();   // length
        if (r.u16() == static_cast<uint16_t>(wire::Op::Event)) {
            r.u16();
            r.u32();
            r.u32();   // notification
            r.u64();   // entry
            Event e;
            e.type = r.u32();
            e.kind = static_cast<wire::ArgKind>(r.u8());
            if (e.kind == wire::ArgKind::Value) e.value = r.u64();
            if (e.kind == wire::ArgKind::Data) {
                auto b = r.blob();
                e.data.assign(b.begin(), b.end());
            }
            events_.push_back(e);
        } else {
            reply_ = std::move(frame);
        }
    }

    // One external-method call; returns its code.
    int32_t call(uint32_t selector, std::vector<uint64_t> scalars, std::span<const uint8_t> input = {}) {
        wire::Writer w;
        w.u32(connection_);
        w.u32(selector);
        w.u32(static_cast<uint32_t>(scalars.size()));
        for (uint64_t v : scalars) w.u64(v);
        w.blob(input);
        w.u32(0);
        w.u64(0);
        w.u8(input.empty() ? 0 : 2);
        request(wire::Op::Call, w);
        return last_code_;
    }
    int32_t call_text(uint32_t selector, const std::string &bytes) {
        return call(selector, {}, {reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()});
    }

    // Moves the clock on and runs what fell due.
    void advance_ms(uint64_t ms) {
        step_->advance(ms * kMs);
        sim_->run_timers();
    }

    // The events since the last look.
    std::vector<Event> events() { return std::exchange(events_, {}); }
    // The state-change values among them, in order.
    std::vector<uint64_t> states() {
        std::vector<uint64_t> out;
        for (auto &e : events()) {
            EXPECT_EQ(e.type, kTalvexMessageStateChanged);
            out.push_back(e.value);
        }
        return out;
    }

    uint64_t state() const { return cop_->state(); }
    uint64_t now() const { return step_->now_ns(); }
    Simulation &sim() { return *sim_; }

private:
    std::span<const uint8_t> request(wire::Op op, const wire::Writer &body) {
        auto frame = wire::make_request(op, ++seq_, body.data());
        sim_->handle(7, std::span(frame).subspan(4));
        wire::Reader r(reply_);
        r.u32();
        r.u16();
        r.u16();
        r.u32();
        last_code_ = r.i32();
        return std::span(reply_).subspan(16);
    }

    StepClock *step_ = nullptr;
    std::unique_ptr<Simulation> sim_;
    Service *service_ = nullptr;
    Coprocessor *cop_ = nullptr;
    uint32_t connection_ = 0;
    uint32_t seq_ = 0;
    int32_t last_code_ = 0;
    std::vector<uint8_t> reply_;
    std::vector<Event> events_;
};

// The start request's structure: the serialised one-entry image dictionary.
std::vector<uint8_t> image_request(const std::string &path, const char *key = "firmware-image-path") {
    auto k = make_cf_string(key);
    auto v = make_cf_string(path);
    const void *keys[] = {k.get()};
    const void *values[] = {v.get()};
    CFRef<CFDictionaryRef> dict(CFDictionaryCreate(kCFAllocatorDefault, keys, values, 1, &kCFTypeDictionaryKeyCallBacks,
                                                   &kCFTypeDictionaryValueCallBacks));
    CFRef<CFDataRef> data(IOCFSerialize(dict.get(), 0));
    const uint8_t *p = CFDataGetBytePtr(data.get());
    return {p, p + CFDataGetLength(data.get())};
}

// The time-sync message's two clocks.
std::pair<uint64_t, uint64_t> times_of(const Event &e) {
    EXPECT_EQ(e.type, kTalvexMessageTimeSync);
    EXPECT_EQ(e.kind, wire::ArgKind::Data);
    if (e.data.size() != 16) {
        ADD_FAILURE() << "time-sync argument of " << e.data.size() << " bytes";
        return {0, 0};
    }
    return {wire::load_le64(e.data.data()), wire::load_le64(e.data.data() + 8)};
}

// The trace lines that are not call or open lines.
std::vector<std::string> event_lines(Simulation &sim) {
    std::vector<std::string> out;
    for (size_t i = 0; i < sim.trace().lines(); ++i)
        if (sim.trace().line(i).find("\"event\":") != std::string::npos) out.push_back(sim.trace().line(i));
    return out;
}

class TempFile {
public:
    TempFile() {
        char name[] = "/tmp/talvex-image-XXXXXX";
        int fd = mkstemp(name);
        EXPECT_GE(fd, 0);
        if (fd >= 0) close(fd);
        path = name;
    }
    ~TempFile() { std::remove(path.c_str()); }
    std::string path;
};

TEST(ModelLifecycle, ResetGoesOffThenBootingThenBootedAndSynchronisesTime) {
    Rig rig;
    EXPECT_EQ(rig.state(), kTalvexStateBooted);
    EXPECT_EQ(rig.call(4, {}), kOk);

    EXPECT_EQ(rig.call(1, {}), kOk);
    EXPECT_EQ(rig.state(), kTalvexStateOff);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateOff});
    // Nothing that needs firmware answers while it is down.
    EXPECT_EQ(rig.call(4, {}), kNotReady);
    EXPECT_EQ(rig.call(10, {}), kNotReady);
    EXPECT_EQ(rig.call(31, {}), kNotReady);
    EXPECT_EQ(rig.call(33, {}), kNotReady);
    EXPECT_EQ(rig.call(40, {0, 0, 96}), kNotReady);
    EXPECT_TRUE(rig.events().empty());

    rig.advance_ms(49);
    EXPECT_TRUE(rig.events().empty());
    rig.advance_ms(1);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateBooting});
    EXPECT_EQ(rig.call(4, {}), kNotReady);
    rig.advance_ms(299);
    EXPECT_TRUE(rig.events().empty());
    rig.advance_ms(1);
    EXPECT_EQ(rig.state(), kTalvexStateBooted);
    auto up = rig.events();
    ASSERT_EQ(up.size(), 2u);
    EXPECT_EQ(up[0].type, kTalvexMessageStateChanged);
    EXPECT_EQ(up[0].value, kTalvexStateBooted);
    // The firmware synchronises as it comes up: its clock starts at zero.
    auto [ap, cp] = times_of(up[1]);
    EXPECT_EQ(ap, kApAtStart + 350 * kMs);
    EXPECT_EQ(cp, 0u);
    EXPECT_EQ(rig.call(4, {}), kOk);

    // The coprocessor's clock counts from its boot, 20 ppm fast.
    rig.advance_ms(1000);
    EXPECT_EQ(rig.call(10, {}), kOk);
    auto sync = rig.events();
    ASSERT_EQ(sync.size(), 1u);
    std::tie(ap, cp) = times_of(sync[0]);
    EXPECT_EQ(ap, kApAtStart + rig.now());
    EXPECT_EQ(cp, kNanosPerSecond + 20'000);

    // A reset during a reset starts over; nothing of the first one is left.
    EXPECT_EQ(rig.call(1, {}), kOk);
    rig.advance_ms(60);
    EXPECT_EQ(rig.call(1, {}), kOk);
    EXPECT_EQ(rig.states(), (std::vector<uint64_t>{kTalvexStateOff, kTalvexStateBooting, kTalvexStateOff}));
    rig.advance_ms(340);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateBooting});
    rig.advance_ms(10);
    EXPECT_EQ(rig.state(), kTalvexStateBooted);
    EXPECT_EQ(rig.sim().timers().size(), 0u);
}

TEST(ModelLifecycle, StopThenStartBootsWithWhatTheRequestNamed) {
    Rig rig;
    TempFile image;
    EXPECT_EQ(rig.call(3, {}), kOk);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateStopped});
    EXPECT_EQ(rig.call(3, {}), kOk);   // already stopped: no change, no message
    EXPECT_TRUE(rig.events().empty());
    EXPECT_EQ(rig.call(4, {}), kNotReady);
    EXPECT_EQ(rig.call(10, {}), kNotReady);

    // Requests the driver cannot take leave it stopped and log nothing.
    auto request = image_request(image.path);
    const std::string relative = "fw.bin";
    EXPECT_EQ(rig.call(2, {0, 0}, image_request(image.path + ".missing")), kNotFound);
    EXPECT_EQ(rig.call(2, {0, 0}, image_request("/")), kNotFound);   // not a file
    EXPECT_EQ(rig.call(2, {0, 0}, image_request(relative)), kBadArgument);
    EXPECT_EQ(rig.call(2, {0, 0}, image_request(image.path, "image")), kBadArgument);
    EXPECT_EQ(rig.call_text(2, std::string("<string>x</string>", 19)), kBadArgument);   // not a dictionary
    EXPECT_EQ(rig.call_text(2, "<dict>"), kBadArgument);   // does not parse
    EXPECT_EQ(rig.call(2, {uint64_t{1} << 32, 0}), kBadArgument);
    EXPECT_EQ(rig.call(2, {0, uint64_t{1} << 32}), kBadArgument);
    EXPECT_TRUE(rig.events().empty());
    EXPECT_TRUE(event_lines(rig.sim()).empty());
    EXPECT_EQ(rig.state(), kTalvexStateStopped);

    // notimesync (0x04): the firmware comes up without synchronising.
    rig.sim().trace().clear();
    EXPECT_EQ(rig.call(2, {12, 0x05}, request), kOk);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateBooting});
    EXPECT_EQ(rig.call(2, {0, 0}), kBusy);   // a boot is under way
    rig.advance_ms(300);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateBooted});
    EXPECT_EQ(rig.call(2, {0, 0}), kBusy);   // and done
    // The boot's event line comes before its call line.
    ASSERT_GE(rig.sim().trace().lines(), 2u);
    EXPECT_EQ(rig.sim().trace().line(0), R"({"service":"ZantraTalvexProcessor","event":"boot","number":12,"flags":5,"image":")" +
                                             image.path + "\"}");
    EXPECT_NE(rig.sim().trace().line(1).find("\"selector\":2,\"scalars\":[12,5]"), std::string::npos);

    // From off, in the middle of a reset: the reset's own boot step is dropped.
    EXPECT_EQ(rig.call(1, {}), kOk);
    rig.advance_ms(10);
    EXPECT_EQ(rig.call(2, {0, 0}), kOk);
    EXPECT_EQ(rig.states(), (std::vector<uint64_t>{kTalvexStateOff, kTalvexStateBooting}));
    rig.advance_ms(299);
    EXPECT_TRUE(rig.events().empty());
    rig.advance_ms(1);
    auto up = rig.events();
    ASSERT_EQ(up.size(), 2u);   // booted, then the time sync of a boot without notimesync
    EXPECT_EQ(up[0].value, kTalvexStateBooted);
    EXPECT_EQ(up[1].type, kTalvexMessageTimeSync);
    EXPECT_EQ(event_lines(rig.sim()).back(),
              R"({"service":"ZantraTalvexProcessor","event":"boot","number":0,"flags":0,"image":null})");

    // stop during a boot: it never completes.
    EXPECT_EQ(rig.call(3, {}), kOk);
    EXPECT_EQ(rig.call(2, {0, 0}), kOk);
    EXPECT_EQ(rig.call(3, {}), kOk);
    rig.advance_ms(1000);
    EXPECT_EQ(rig.states(), (std::vector<uint64_t>{kTalvexStateStopped, kTalvexStateBooting, kTalvexStateStopped}));
    EXPECT_EQ(rig.state(), kTalvexStateStopped);
}

TEST(ModelLifecycle, HaltStopsAnsweringAfterTheDelayForTheDuration) {
    Rig rig;
    EXPECT_EQ(rig.call(40, {100, 200, 96}), kOk);
    rig.advance_ms(99);
    EXPECT_TRUE(rig.events().empty());
    EXPECT_EQ(rig.call(4, {}), kOk);
    rig.advance_ms(1);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateNotResponding});
    EXPECT_EQ(rig.call(4, {}), kNotReady);
    EXPECT_EQ(rig.call(40, {0, 0, 96}), kNotReady);
    rig.advance_ms(199);
    EXPECT_TRUE(rig.events().empty());
    rig.advance_ms(1);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateBooted});   // no time sync on recovery
    EXPECT_EQ(rig.call(4, {}), kOk);

    // A second halt replaces one that has not happened yet.
    EXPECT_EQ(rig.call(40, {50, 10, 96}), kOk);
    EXPECT_EQ(rig.call(40, {500, 10, 96}), kOk);
    rig.advance_ms(499);
    EXPECT_TRUE(rig.events().empty());
    rig.advance_ms(11);
    EXPECT_EQ(rig.states(), (std::vector<uint64_t>{kTalvexStateNotResponding, kTalvexStateBooted}));

    // Duration 0 (what `halt` sends): halted until something wakes it.
    EXPECT_EQ(rig.call(18, {1}), kOk);   // awake already: nothing to do
    EXPECT_EQ(rig.call(40, {0, 0, 3}), kOk);
    rig.advance_ms(0);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateNotResponding});
    rig.advance_ms(3'600'000);
    EXPECT_TRUE(rig.events().empty());
    EXPECT_EQ(rig.call(18, {7}), kOk);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateBooted});

    // A pending halt dies with a stop; wake has nothing to wake then.
    EXPECT_EQ(rig.call(40, {4294967295u, 1, 96}), kOk);
    EXPECT_EQ(rig.call(3, {}), kOk);
    EXPECT_EQ(rig.sim().timers().size(), 0u);
    EXPECT_EQ(rig.call(18, {1}), kNotReady);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStateStopped});

    // Values wider than the driver's 32-bit fields are refused.
    EXPECT_EQ(rig.call(18, {uint64_t{1} << 32}), kBadArgument);
    for (auto scalars : std::vector<std::vector<uint64_t>>{{uint64_t{1} << 32, 0, 0}, {0, uint64_t{1} << 32, 0},
                                                           {0, 0, uint64_t{1} << 32}})
        EXPECT_EQ(rig.call(40, scalars), kBadArgument);
}

TEST(ModelLifecycle, PanicAssertionsFirmwareAndTheTestReport) {
    Rig rig;
    // Power-state assertions: 0x0-0x3 take, 0x80-0x83 release; nothing else.
    for (uint64_t code : std::initializer_list<uint64_t>{0x0, 0x3, 0x2, 0x82, 0x81})
        EXPECT_EQ(rig.call(17, {code}), kOk) << code;
    for (uint64_t code : std::initializer_list<uint64_t>{0x4, 0x7f, 0x84, 0x100, 0x10000000000})
        EXPECT_EQ(rig.call(17, {code}), kBadArgument) << code;
    EXPECT_EQ(rig.call(0, {1}), kOk);
    EXPECT_EQ(rig.call(0, {2}), kBadArgument);
    EXPECT_EQ(rig.call(15, {}), kOk);
    EXPECT_EQ(rig.call(15, {}), kOk);
    EXPECT_EQ(rig.call(18, {9}), kOk);
    rig.advance_ms(1500);
    EXPECT_EQ(rig.call(33, {}), kOk);
    ASSERT_EQ(event_lines(rig.sim()).size(), 1u);
    // The coprocessor first came up 2.5 s into the AP's uptime.
    uint64_t uptime = kApAtStart + 1500 * kMs - 2500 * kMs;
    uptime += uptime / 50'000;
    EXPECT_EQ(event_lines(rig.sim())[0],
              R"({"service":"ZantraTalvexProcessor","event":"report","state":65538,"uptime_ns":)" +
                  std::to_string(uptime) +
                  R"(,"firmware":1,"number":0,"flags":0,"image":null,"assertions":[0,3],"wake":9,"connects":2,"panic":null})");

    // A panic keeps its text (up to the NUL) and stops everything that needs firmware.
    EXPECT_EQ(rig.call_text(31, std::string("abc\0def", 7)), kOk);
    EXPECT_EQ(rig.states(), std::vector<uint64_t>{kTalvexStatePanic});
    EXPECT_EQ(event_lines(rig.sim()).back(), R"({"service":"ZantraTalvexProcessor","event":"panic","text":"abc"})");
    EXPECT_EQ(rig.call_text(31, "again"), kNotReady);
    EXPECT_EQ(rig.call(33, {}), kNotReady);
    EXPECT_EQ(rig.call(18, {0}), kNotReady);
    EXPECT_EQ(rig.call(2, {0, 0}), kBusy);

    // Only a reset (or stop and start) brings it back; the report remembers the panic.
    EXPECT_EQ(rig.call(1, {}), kOk);
    rig.advance_ms(350);
    EXPECT_EQ(rig.state(), kTalvexStateBooted);
    EXPECT_EQ(rig.call(33, {}), kOk);
    EXPECT_NE(event_lines(rig.sim()).back().find(R"("assertions":[0,3],"wake":9,"connects":2,"panic":"abc"})"),
              std::string::npos)
        << event_lines(rig.sim()).back();
    // A panic without text.
    EXPECT_EQ(rig.call(31, {}), kOk);
    EXPECT_EQ(event_lines(rig.sim()).back(), R"({"service":"ZantraTalvexProcessor","event":"panic","text":null})");
}

}  // namespace
