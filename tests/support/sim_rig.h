// For the simulator's in-process tests: a simulation on a clock that moves
// only when told, with one client (7) that holds an open user client and an
// interest registration on the coprocessor. Calls go through the protocol,
// so shape checks, stubs and the trace are the real ones; the client's
// events are kept for the test to look at.
#pragma once

#include "coprocessor.h"
#include "simulation.h"
#include "wire_peer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace talvex::test {

inline constexpr uint64_t kMs = 1'000'000;

struct SimEvent {
    uint32_t type = 0;
    wire::ArgKind kind = wire::ArgKind::None;
    uint64_t value = 0;
    std::vector<uint8_t> data;
};

inline std::vector<uint8_t> le32(std::initializer_list<uint32_t> values) {
    std::vector<uint8_t> out(4 * values.size());
    size_t at = 0;
    for (uint32_t v : values) wire::store_le32(out.data() + 4 * at++, v);
    return out;
}

// The requests of the register, memory, UART and profile-entry methods in
// their full sizes; a write's count is the size of its data.
inline std::vector<uint8_t> register_write_request(uint8_t device, uint8_t reg, const std::vector<uint8_t> &data) {
    std::vector<uint8_t> request(19, 0);
    request[0] = device;
    request[1] = reg;
    request[2] = static_cast<uint8_t>(data.size());
    std::copy(data.begin(), data.end(), request.begin() + 3);
    return request;
}
inline std::vector<uint8_t> memory_request(uint32_t address, uint8_t block, uint8_t count,
                                           const std::vector<uint8_t> *write = nullptr) {
    std::vector<uint8_t> request(write ? 22 : 6, 0);
    wire::store_le32(request.data(), address);
    request[4] = block;
    request[5] = count;
    if (write) std::copy(write->begin(), write->end(), request.begin() + 6);
    return request;
}
inline std::vector<uint8_t> memory_write_request(uint32_t address, uint8_t block, const std::vector<uint8_t> &data) {
    return memory_request(address, block, static_cast<uint8_t>(data.size()), &data);
}
inline std::vector<uint8_t> uart_request(uint8_t port, uint8_t container, bool flag, uint32_t preamble) {
    std::vector<uint8_t> request(109, 0);   // nothing to send: length 0, no retries
    request[0] = port;
    request[1] = container;
    request[4] = flag ? 1 : 0;
    wire::store_le32(request.data() + 5, preamble);
    return request;
}
inline std::vector<uint8_t> profile_entry_request(uint32_t kind, uint32_t index) {
    std::vector<uint8_t> request(72, 0);
    wire::store_le32(request.data(), kind);
    wire::store_le32(request.data() + 4, index);
    return request;
}

class SimRig : public sim::Outbox {
public:
    SimRig() {
        auto clock = std::make_unique<sim::StepClock>();
        step = clock.get();
        sim = std::make_unique<sim::Simulation>(*this, std::move(clock));
        service = sim->registry().find_class(sim::kCoprocessorClass);
        cop = dynamic_cast<sim::Coprocessor *>(service->model.get());
        wire::Writer interest;
        interest.u64(service->id);
        interest.str("IOGeneralInterest");
        request(wire::Op::AddInterest, interest);
        wire::Writer open;
        open.u64(service->id);
        open.u32(0);
        request(wire::Op::Open, open);
        connection_ = wire::Reader(reply_body()).u32();
    }

    void send(sim::ClientId, std::vector<uint8_t> frame, int) override {
        wire::Reader r(frame);
        r.u32();   // length
        if (r.u16() != static_cast<uint16_t>(wire::Op::Event)) {
            reply_ = std::move(frame);
            return;
        }
        r.u16();   // flags
        r.u32();   // seq
        r.u32();   // notification
        r.u64();   // entry
        SimEvent e;
        e.type = r.u32();
        e.kind = static_cast<wire::ArgKind>(r.u8());
        if (e.kind == wire::ArgKind::Value) e.value = r.u64();
        if (e.kind == wire::ArgKind::Data) {
            auto b = r.blob();
            e.data.assign(b.begin(), b.end());
        }
        events_.push_back(std::move(e));
    }

    // One external-method call; an output structure is offered when `capacity` is not 0.
    CallResult call(uint32_t selector, const std::vector<uint64_t> &scalars = {},
                    const std::vector<uint8_t> &input = {}, uint64_t capacity = 0, uint32_t scalar_capacity = 0) {
        CallResult out;
        out.code = request(wire::Op::Call, call_request(connection_, selector, scalars, input, scalar_capacity,
                                                         capacity, capacity != 0));
        if (!reply_body().empty()) read_call_reply(reply_body(), out);   // empty: refused before the method
        return out;
    }
    IOReturn code(uint32_t selector, const std::vector<uint64_t> &scalars = {}, const std::vector<uint8_t> &input = {}) {
        return call(selector, scalars, input).code;
    }
    IOReturn code_text(uint32_t selector, const std::string &bytes) {
        return code(selector, {}, std::vector<uint8_t>(bytes.begin(), bytes.end()));
    }

    // Moves the clock on in steps of at most 10 ms, running what falls due after each.
    void advance_ms(uint64_t ms) {
        do {
            uint64_t now = ms < 10 ? ms : 10;
            step->advance(now * kMs);
            sim->run_timers();
            ms -= now;
        } while (ms);
    }

    // The client's events since the last look; the state-change values among them.
    std::vector<SimEvent> events() { return std::exchange(events_, {}); }
    std::vector<uint64_t> states() {
        std::vector<uint64_t> out;
        for (auto &e : events()) {
            EXPECT_EQ(e.type, kTalvexMessageStateChanged);
            out.push_back(e.value);
        }
        return out;
    }
    // The trace's model event lines (not call or open lines).
    std::vector<std::string> event_lines() const {
        std::vector<std::string> out;
        for (size_t i = 0; i < sim->trace().lines(); ++i)
            if (sim->trace().line(i).find("\"event\":") != std::string::npos) out.emplace_back(sim->trace().line(i));
        return out;
    }

    sim::StepClock *step = nullptr;
    std::unique_ptr<sim::Simulation> sim;
    sim::Service *service = nullptr;
    sim::Coprocessor *cop = nullptr;

private:
    IOReturn request(wire::Op op, const wire::Writer &body) {
        auto frame = wire::make_request(op, ++seq_, body.data());
        reply_.clear();
        sim->handle(7, std::span(frame).subspan(4));   // the message after its length
        if (reply_.size() < 16) {
            ADD_FAILURE() << "no reply to op " << static_cast<int>(op);
            return -1;
        }
        return static_cast<IOReturn>(wire::load_le32(reply_.data() + 12));
    }
    std::span<const uint8_t> reply_body() const {
        return reply_.size() < 16 ? std::span<const uint8_t>() : std::span(reply_).subspan(16);
    }

    uint32_t connection_ = 0;
    uint32_t seq_ = 0;
    std::vector<uint8_t> reply_;
    std::vector<SimEvent> events_;
};

}  // namespace talvex::test
