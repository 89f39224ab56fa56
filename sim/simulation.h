// The simulated driver world: the registry and its services' models, the
// clients' open user clients and interest registrations, stubs, the trace,
// simulated time and timers. It speaks the wire protocol one message at a
// time and knows nothing of sockets: replies and events go to an Outbox.
#pragma once

#include <IOKit/IOReturn.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "budget.h"
#include "clock.h"
#include "registry.h"
#include "stubs.h"
#include "timers.h"
#include "trace.h"
#include "user_client.h"
#include "wire.h"

namespace talvex::sim {

// Where frames for clients go.
class Outbox {
public:
    virtual ~Outbox() = default;
    // Queues one complete frame (length prefix included) for the client.
    // `fd`, when not -1, is a borrowed descriptor that travels with the
    // frame's first byte (the receiver gets its own copy).
    virtual void send(ClientId client, std::vector<uint8_t> frame, int fd = -1) = 0;
    // Whether a reply of `bytes` (with a descriptor when `descriptor`) fits
    // the client's budget; when it does not, the request is refused instead.
    virtual Shortfall reply_room(ClientId client, size_t bytes, bool descriptor) {
        (void)client, (void)bytes, (void)descriptor;
        return {};
    }
};

// The argument of an interest message: none, a 64-bit value, or bytes.
struct MessageArg {
    wire::ArgKind kind = wire::ArgKind::None;
    uint64_t value = 0;
    std::vector<uint8_t> data;

    static MessageArg none() { return {}; }
    static MessageArg of_value(uint64_t v) { return {wire::ArgKind::Value, v, {}}; }
    static MessageArg of_data(std::vector<uint8_t> d) { return {wire::ArgKind::Data, 0, std::move(d)}; }
};

// What a request's reply becomes when a scenario step says so (scenario.h).
struct ReplyPlan {
    std::optional<uint64_t> delay_ns;   // answered this much later
    bool never = false;                 // never answered
};

class ScenarioRunner;

struct ControlResult {
    int code = 0;   // 0 success, 1 failure
    std::string out, err;
};

inline constexpr const char *kCoprocessorClass = "ZantraTalvexProcessor";
inline constexpr const char *kReportHubClass = "IOReportHub";

class Simulation {
public:
    static constexpr uint32_t kMaxScalars = 16;
    static constexpr uint32_t kMaxControlWords = 4096;
    static constexpr size_t kMaxInterestType = 256;   // bytes of an interest type's name
    // The budget of a simulation made without one: the default memory
    // budget and 65536 descriptors.
    static BudgetLimits default_limits() { return BudgetLimits::derive(kDefaultMemoryBudget, 65536); }

    // What clients may hold comes from `limits` (see budget.h).
    explicit Simulation(Outbox &outbox, std::unique_ptr<Clock> clock = nullptr,
                        const BudgetLimits &limits = default_limits());
    ~Simulation();
    Simulation(const Simulation &) = delete;
    Simulation &operator=(const Simulation &) = delete;

    // A client disconnected: its user clients close and its interest
    // registrations go away.
    void client_gone(ClientId client);
    // One request (a frame without its length prefix, at least 8 bytes).
    // Exactly one reply goes to the outbox for it.
    void handle(ClientId client, std::span<const uint8_t> message);

    // A control command's words (e.g. "trace" "--clear"), on behalf of a
    // client (0: none in particular).
    ControlResult control(const std::vector<std::string> &words, ClientId client = 0);

    // A registry write by a client: the value's serialised size is charged
    // to the client until the property is replaced or deleted (it outlives
    // the client). Over budget, returns kIOReturnNoResources, adds a refusal
    // line to the trace and sets `why`; changes nothing. Does not trace the write.
    IOReturn set_client_property(ClientId client, Service &service, const std::string &key, CFTypeRef value,
                                 std::string *why = nullptr);
    // A property was deleted: what its writer was charged is given back.
    void property_deleted(const Service &service, const std::string &key);
    // Serialised bytes of client-set properties, all of them and one client's.
    size_t property_bytes() const { return property_total_; }
    size_t property_bytes(ClientId client) const;

    // Delivers an interest message to every registration on the service;
    // returns how many were sent.
    size_t notify(const Service &service, uint32_t message_type, const MessageArg &arg);
    // Publishes or unpublishes a service. Unpublishing tells its interest
    // registrations that the service terminated.
    bool set_published(Service &service, bool published);

    Registry &registry() { return registry_; }
    Trace &trace() { return trace_; }
    StubTable &stubs() { return stubs_; }
    Budget &budget() { return budget_; }
    const Budget &budget() const { return budget_; }
    ScenarioRunner &scenario() { return *scenario_; }
    Clock &clock() { return *clock_; }
    const Clock &clock() const { return *clock_; }
    TimerQueue &timers() { return timers_; }
    const TimerQueue &timers() const { return timers_; }
    // Runs due timers; returns how many ran.
    size_t run_timers() { return timers_.size() ? timers_.run_due(clock_->now_ns()) : 0; }

    size_t connection_count() const { return connections_.size(); }
    // Replies a scenario holds back (at most kMaxHeldReplies, kMaxHeldReplyBytes).
    size_t held_replies() const { return held_replies_; }
    size_t interest_count() const { return interests_.size(); }

private:
    struct Connection {
        ClientId client;
        Service *service;
        std::unique_ptr<UserClient> user_client;
        Budget::Charge charge;
    };
    struct Interest {
        ClientId client;
        Service *service;
        std::string type;
        Budget::Charge charge;
    };
    struct PropertyCharge {
        ClientId writer;
        size_t bytes;
    };

    // Each decodes its request body and either fills `out` (the reply body)
    // and returns a code, or returns kIOReturnBadArgument for a body it
    // cannot decode. `fd` receives a descriptor to send with the reply.
    IOReturn op_hello(wire::Reader &r, wire::Writer &out);
    IOReturn op_match(wire::Reader &r, wire::Writer &out);
    IOReturn op_generation(wire::Reader &r, wire::Writer &out);
    IOReturn op_entry_info(wire::Reader &r, wire::Writer &out);
    IOReturn op_get_property(wire::Reader &r, wire::Writer &out);
    IOReturn op_get_properties(wire::Reader &r, wire::Writer &out);
    IOReturn op_set_property(ClientId client, wire::Reader &r, wire::Writer &out);
    IOReturn op_open(ClientId client, wire::Reader &r, wire::Writer &out);
    IOReturn op_close(ClientId client, wire::Reader &r, wire::Writer &out);
    IOReturn op_call(ClientId client, wire::Reader &r, wire::Writer &out);
    IOReturn op_map(ClientId client, wire::Reader &r, wire::Writer &out, int &fd);
    IOReturn op_add_interest(ClientId client, wire::Reader &r, wire::Writer &out);
    IOReturn op_remove_interest(ClientId client, wire::Reader &r, wire::Writer &out);
    IOReturn op_control(ClientId client, wire::Reader &r, wire::Writer &out);

    Connection *connection(ClientId client, uint32_t id);
    // Sends `frame` to the client `delay_ns` from now (at once when too many
    // replies are held already).
    void hold_reply(ClientId client, std::vector<uint8_t> frame, uint64_t delay_ns);
    void release_property_charge(std::map<std::pair<uint64_t, std::string>, PropertyCharge>::iterator it);

    Outbox &outbox_;
    Budget budget_;   // before everything that holds charges
    std::unique_ptr<Clock> clock_;
    TimerQueue timers_;
    Registry registry_;
    Trace trace_;
    StubTable stubs_;
    std::map<uint32_t, Connection> connections_;
    std::map<uint32_t, Interest> interests_;
    std::map<std::pair<uint64_t, std::string>, PropertyCharge> client_properties_;   // (entry ID, key)
    std::unordered_map<ClientId, size_t> property_bytes_;                            // by live writer
    size_t property_total_ = 0;
    std::unique_ptr<ScenarioRunner> scenario_;   // after the timers it uses
    ReplyPlan reply_plan_;                       // for the request being handled
    size_t held_replies_ = 0, held_bytes_ = 0;
    uint32_t next_connection_ = 1;
    uint32_t next_interest_ = 1;
};

}  // namespace talvex::sim
