#include "simulation.h"

#include <IOKit/IOCFSerialize.h>
#include <IOKit/IOCFUnserialize.h>

#include <algorithm>

#include "cf_ref.h"
#include "control.h"
#include "coprocessor.h"
#include "hub.h"
#include "report_models.h"
#include "scenario.h"

namespace talvex::sim {

using wire::Op;
using wire::Reader;
using wire::Writer;

namespace {

// Replies up to this size go out whatever the budget says.
constexpr size_t kSmallReply = 4096;
// The room a reply starts with: most fit. A reply that outgrew it is cut to
// its size before it is queued, so that what a client's queued replies hold
// stays what its buffer budget counts.
constexpr size_t kReplyRoom = 64;

CFRef<CFTypeRef> unserialize(std::span<const uint8_t> bytes) {
    if (bytes.empty()) return {};
    return CFRef<CFTypeRef>(IOCFUnserializeWithSize(reinterpret_cast<const char *>(bytes.data()), bytes.size(),
                                                    kCFAllocatorDefault, 0, nullptr));
}

// The serialised form of a property list; false when it cannot be serialised.
bool serialize(CFTypeRef value, Writer &out) {
    CFRef<CFDataRef> data(value ? IOCFSerialize(value, 0) : nullptr);
    if (!data) return false;
    out.blob({CFDataGetBytePtr(data.get()), static_cast<size_t>(CFDataGetLength(data.get()))});
    return true;
}

}  // namespace

Simulation::Simulation(Outbox &outbox, std::unique_ptr<Clock> clock, const BudgetLimits &limits)
    : outbox_(outbox), budget_(limits), clock_(clock ? std::move(clock) : std::make_unique<RealClock>()) {
    Service &cp = registry_.add(kCoprocessorClass, kCoprocessorClass);
    auto coprocessor = std::make_unique<Coprocessor>(*this, cp);
    scenario_ = std::make_unique<ScenarioRunner>(*this);
    coprocessor->add_state_listener([this](uint64_t from, uint64_t to) { scenario_->on_state(from, to); });
    cp.model = std::move(coprocessor);
    Service &hub = registry_.add(kReportHubClass, kReportHubClass);
    hub.model = std::make_unique<ReportHub>(*this, hub);
    install_report_models(*this);
}

Simulation::~Simulation() {
    // User clients refer to their services' models: close them first.
    connections_.clear();
    interests_.clear();
    timers_.clear();
}

void Simulation::client_gone(ClientId client) {
    std::erase_if(connections_, [&](const auto &kv) { return kv.second.client == client; });
    std::erase_if(interests_, [&](const auto &kv) { return kv.second.client == client; });
    // Its properties stay, counted in the total only.
    property_bytes_.erase(client);
    budget_.forget(client);
}

void Simulation::handle(ClientId client, std::span<const uint8_t> message) {
    Reader header(message);
    uint16_t op = header.u16();
    header.u16();   // flags: none defined
    uint32_t seq = header.u32();
    Reader r(message.subspan(std::min<size_t>(message.size(), 8)));
    // The reply is written in place behind its head, and goes as it is.
    const Op reply_op = static_cast<Op>(op & ~wire::kReplyBit);
    Writer out{std::vector<uint8_t>(kReplyRoom)};
    wire::begin_frame(out, static_cast<uint16_t>(op | wire::kReplyBit), seq);
    int fd = -1;
    IOReturn code;
    switch (static_cast<Op>(op)) {
    case Op::Hello: code = op_hello(r, out); break;
    case Op::Match: code = op_match(r, out); break;
    case Op::Generation: code = op_generation(r, out); break;
    case Op::EntryInfo: code = op_entry_info(r, out); break;
    case Op::GetProperty: code = op_get_property(r, out); break;
    case Op::GetProperties: code = op_get_properties(r, out); break;
    case Op::SetProperty: code = op_set_property(client, r, out); break;
    case Op::Open: code = op_open(client, r, out); break;
    case Op::Close: code = op_close(client, r, out); break;
    case Op::Call: code = op_call(client, r, out); break;
    case Op::Map: code = op_map(client, r, out, fd); break;
    case Op::AddInterest: code = op_add_interest(client, r, out); break;
    case Op::RemoveInterest: code = op_remove_interest(client, r, out); break;
    case Op::Control: code = op_control(client, r, out); break;
    default: code = kIOReturnUnsupported; break;
    }
    if (!header.ok()) code = kIOReturnBadArgument;
    const ReplyPlan plan = std::exchange(reply_plan_, {});
    if (plan.never) return;   // a scenario step said so: the client waits in vain
    out.patch_u32(wire::kCodeAt, static_cast<uint32_t>(code));
    wire::end_frame(out);
    std::vector<uint8_t> frame = out.take();
    if (frame.capacity() - frame.size() > kReplyRoom) frame.shrink_to_fit();
    if (frame.size() - 4 > wire::kMaxFrame) {
        frame = wire::make_reply(reply_op, seq, kIOReturnMessageTooLarge, {});
        fd = -1;
    }
    // A large reply that the client's budget cannot hold is refused instead
    // (small ones always go: the client stops being read once it is behind).
    if (frame.size() > kSmallReply || fd >= 0) {
        Shortfall room = outbox_.reply_room(client, frame.size(), fd >= 0);
        if (!room.verdict) {
            trace_.add(Trace::refusal_line({}, resource_name(room.resource), room.verdict));
            frame = wire::make_reply(reply_op, seq, kIOReturnNoResources, {});
            fd = -1;
        }
    }
    if (plan.delay_ns && fd < 0) hold_reply(client, std::move(frame), *plan.delay_ns);
    else outbox_.send(client, std::move(frame), fd);
}

void Simulation::hold_reply(ClientId client, std::vector<uint8_t> frame, uint64_t delay_ns) {
    if (held_replies_ >= kMaxHeldReplies || frame.size() > kMaxHeldReplyBytes - held_bytes_) {
        trace_.add(Trace::refusal_line({}, "late replies", "overall", kMaxHeldReplies));
        outbox_.send(client, std::move(frame));
        return;
    }
    ++held_replies_;
    held_bytes_ += frame.size();
    timers_.add(clock_->now_ns() + delay_ns, [this, client, frame = std::move(frame)]() mutable {
        --held_replies_;
        held_bytes_ -= frame.size();
        outbox_.send(client, std::move(frame));
    });
    // Under the step clock the late answer takes its simulated time now.
    if (clock_->pass(delay_ns)) run_timers();
}

IOReturn Simulation::op_hello(Reader &r, Writer &out) {
    uint32_t version = r.u32();
    r.u32();   // the client's process ID, informational
    if (!r.at_end()) return kIOReturnBadArgument;
    out.u32(wire::kProtocolVersion);
    return version == wire::kProtocolVersion ? kIOReturnSuccess : kIOReturnUnsupported;
}

IOReturn Simulation::op_match(Reader &r, Writer &out) {
    auto bytes = r.blob();
    if (!r.at_end()) return kIOReturnBadArgument;
    auto matching = unserialize(bytes);
    if (!matching || CFGetTypeID(matching.get()) != CFDictionaryGetTypeID()) return kIOReturnBadArgument;
    auto ids = registry_.match(static_cast<CFDictionaryRef>(matching.get()));
    out.u64(registry_.generation());
    out.u32(static_cast<uint32_t>(ids.size()));
    for (uint64_t id : ids) out.u64(id);
    return kIOReturnSuccess;
}

IOReturn Simulation::op_generation(Reader &r, Writer &out) {
    if (!r.at_end()) return kIOReturnBadArgument;
    out.u64(registry_.generation());
    return kIOReturnSuccess;
}

IOReturn Simulation::op_entry_info(Reader &r, Writer &out) {
    uint64_t id = r.u64();
    if (!r.at_end()) return kIOReturnBadArgument;
    Service *s = registry_.find(id);
    if (!s) return kIOReturnBadArgument;
    out.str(s->name);
    out.str(s->class_name);
    return kIOReturnSuccess;
}

IOReturn Simulation::op_get_property(Reader &r, Writer &out) {
    uint64_t id = r.u64();
    std::string key = r.str();
    if (!r.at_end()) return kIOReturnBadArgument;
    Service *s = registry_.find(id);
    if (!s) return kIOReturnBadArgument;
    CFTypeRef value = s->get_property(key);
    if (!value) return kIOReturnNotFound;
    return serialize(value, out) ? kIOReturnSuccess : kIOReturnInternalError;
}

IOReturn Simulation::op_get_properties(Reader &r, Writer &out) {
    uint64_t id = r.u64();
    if (!r.at_end()) return kIOReturnBadArgument;
    Service *s = registry_.find(id);
    if (!s) return kIOReturnBadArgument;
    return serialize(s->properties.get(), out) ? kIOReturnSuccess : kIOReturnInternalError;
}

IOReturn Simulation::op_set_property(ClientId client, Reader &r, Writer &) {
    uint64_t id = r.u64();
    std::string key = r.str();
    auto bytes = r.blob();
    if (!r.at_end()) return kIOReturnBadArgument;
    Service *s = registry_.find(id);
    if (!s) return kIOReturnBadArgument;
    auto value = unserialize(bytes);
    auto cf_key = make_cf_string(key);
    if (!value || !cf_key) return kIOReturnBadArgument;
    IOReturn code = set_client_property(client, *s, key, value.get());
    if (code == kIOReturnSuccess) trace_.add(Trace::write_line(s->class_name, key, value.get()));
    return code;
}

IOReturn Simulation::set_client_property(ClientId client, Service &service, const std::string &key, CFTypeRef value,
                                         std::string *why) {
    const BudgetLimits &l = budget_.limits();
    CFRef<CFDataRef> serialised(IOCFSerialize(value, 0));
    if (!serialised) return kIOReturnBadArgument;
    size_t bytes = static_cast<size_t>(CFDataGetLength(serialised.get())) + key.size();
    serialised.reset();
    auto it = client_properties_.find({service.id, key});
    // What replacing the old value gives back, to the total and to the client.
    size_t old_total = it == client_properties_.end() ? 0 : it->second.bytes;
    size_t old_own = it != client_properties_.end() && it->second.writer == client ? old_total : 0;
    const char *scope = nullptr;
    size_t limit = 0;
    if (bytes > l.property_value)
        scope = "value", limit = l.property_value;
    else if (property_bytes(client) - old_own + bytes > l.property_client)
        scope = "client", limit = l.property_client;
    else if (property_total_ - old_total + bytes > l.property_total)
        scope = "overall", limit = l.property_total;
    if (scope) {
        trace_.add(Trace::refusal_line(service.class_name, "property bytes", scope, limit));
        if (why)
            *why = "a value of " + std::to_string(bytes) + " bytes would exceed the " + scope + " property budget (" +
                   std::to_string(limit) + " bytes)";
        return kIOReturnNoResources;
    }
    if (it != client_properties_.end()) release_property_charge(it);
    service.set_property(key, value);
    client_properties_.emplace(std::pair{service.id, key}, PropertyCharge{client, bytes});
    property_bytes_[client] += bytes;
    property_total_ += bytes;
    return kIOReturnSuccess;
}

void Simulation::property_deleted(const Service &service, const std::string &key) {
    auto it = client_properties_.find({service.id, key});
    if (it != client_properties_.end()) release_property_charge(it);
}

void Simulation::release_property_charge(std::map<std::pair<uint64_t, std::string>, PropertyCharge>::iterator it) {
    property_total_ -= it->second.bytes;
    auto writer = property_bytes_.find(it->second.writer);
    if (writer != property_bytes_.end() && (writer->second -= it->second.bytes) == 0) property_bytes_.erase(writer);
    client_properties_.erase(it);
}

size_t Simulation::property_bytes(ClientId client) const {
    auto it = property_bytes_.find(client);
    return it == property_bytes_.end() ? 0 : it->second;
}

IOReturn Simulation::op_open(ClientId client, Reader &r, Writer &out) {
    uint64_t id = r.u64();
    uint32_t type = r.u32();
    if (!r.at_end()) return kIOReturnBadArgument;
    Service *s = registry_.find(id);
    if (!s) return kIOReturnBadArgument;
    std::unique_ptr<UserClient> uc;
    Budget::Charge charge;
    Verdict verdict;
    IOReturn code;
    reply_plan_ = scenario_->on_open(s->class_name);
    if (auto stubbed = stubs_.answer_open(s->class_name))
        code = *stubbed;
    else if (!s->published)
        code = kIOReturnNoDevice;
    else if (!s->model)
        code = kIOReturnUnsupported;
    else if (charge = budget_.take(client, Resource::UserClients, 1, verdict); !verdict)
        code = kIOReturnNoResources;
    else
        code = s->model->open(type, uc);
    if (code == kIOReturnSuccess && !uc) code = kIOReturnError;
    if (!verdict) trace_.add(Trace::refusal_line(s->class_name, resource_name(Resource::UserClients), verdict));
    trace_.add(Trace::open_line(s->class_name, type, code));
    if (code != kIOReturnSuccess) return code;
    uc->attach(budget_, client);
    while (next_connection_ == 0 || connections_.count(next_connection_)) ++next_connection_;
    uint32_t conn = next_connection_++;
    connections_.emplace(conn, Connection{client, s, std::move(uc), std::move(charge)});
    out.u32(conn);
    return kIOReturnSuccess;
}

Simulation::Connection *Simulation::connection(ClientId client, uint32_t id) {
    auto it = connections_.find(id);
    if (it == connections_.end() || it->second.client != client) return nullptr;
    return &it->second;
}

IOReturn Simulation::op_close(ClientId client, Reader &r, Writer &) {
    uint32_t id = r.u32();
    if (!r.at_end()) return kIOReturnBadArgument;
    if (!connection(client, id)) return kIOReturnBadArgument;
    connections_.erase(id);
    return kIOReturnSuccess;
}

IOReturn Simulation::op_call(ClientId client, Reader &r, Writer &out) {
    uint32_t id = r.u32();
    uint32_t selector = r.u32();
    uint32_t n = r.u32();
    if (!r.ok() || n > kMaxScalars) return kIOReturnBadArgument;
    std::vector<uint64_t> scalars(n);
    for (auto &v : scalars) v = r.u64();
    auto input = r.blob();
    uint32_t scalar_capacity = r.u32();
    uint64_t output_capacity = r.u64();
    uint8_t flags = r.u8();
    if (!r.at_end() || scalar_capacity > kMaxScalars) return kIOReturnBadArgument;
    Connection *c = connection(client, id);
    if (!c) return kIOReturnBadArgument;

    CallArgs args;
    args.selector = selector;
    args.scalars = scalars;
    args.input = input;
    args.scalar_output_capacity = scalar_capacity;
    args.output_capacity = (flags & 1) ? output_capacity : 0;
    CallReply reply;
    IOReturn code;
    reply_plan_ = scenario_->on_call(c->service->class_name, selector, scalars, input);
    if (auto stubbed = stubs_.answer_call(c->service->class_name, args, reply))
        code = *stubbed;
    else if (!c->service->published)
        code = kIOReturnNoDevice;
    else
        code = c->user_client->call(args, reply);
    trace_.add_call(c->service->class_name, args, code);

    if (reply.scalars.size() > scalar_capacity) reply.scalars.resize(scalar_capacity);
    if (reply.output.size() > args.output_capacity) reply.output.resize(static_cast<size_t>(args.output_capacity));
    out.u32(static_cast<uint32_t>(reply.scalars.size()));
    for (uint64_t v : reply.scalars) out.u64(v);
    out.blob(reply.output);
    return code;
}

IOReturn Simulation::op_map(ClientId client, Reader &r, Writer &out, int &fd) {
    uint32_t id = r.u32();
    uint32_t memory_type = r.u32();
    r.u32();   // options: the mapping is always placed anywhere, read-only
    if (!r.at_end()) return kIOReturnBadArgument;
    Connection *c = connection(client, id);
    if (!c) return kIOReturnBadArgument;
    SharedRegion *region = c->user_client->region(memory_type);
    if (!region) return kIOReturnBadArgument;
    out.u64(region->size());
    fd = region->client_fd();
    return kIOReturnSuccess;
}

IOReturn Simulation::op_add_interest(ClientId client, Reader &r, Writer &out) {
    uint64_t id = r.u64();
    std::string type = r.str();
    if (!r.at_end()) return kIOReturnBadArgument;
    Service *s = registry_.find(id);
    if (!s || type.empty() || type.size() > kMaxInterestType) return kIOReturnBadArgument;
    Verdict verdict;
    auto charge = budget_.take(client, Resource::Interests, 1, verdict);
    if (!verdict) {
        trace_.add(Trace::refusal_line(s->class_name, resource_name(Resource::Interests), verdict));
        return kIOReturnNoResources;
    }
    while (next_interest_ == 0 || interests_.count(next_interest_)) ++next_interest_;
    uint32_t nid = next_interest_++;
    interests_.emplace(nid, Interest{client, s, std::move(type), std::move(charge)});
    out.u32(nid);
    return kIOReturnSuccess;
}

IOReturn Simulation::op_remove_interest(ClientId client, Reader &r, Writer &) {
    uint32_t id = r.u32();
    if (!r.at_end()) return kIOReturnBadArgument;
    auto it = interests_.find(id);
    if (it == interests_.end() || it->second.client != client) return kIOReturnBadArgument;
    interests_.erase(it);
    return kIOReturnSuccess;
}

IOReturn Simulation::op_control(ClientId client, Reader &r, Writer &out) {
    uint32_t argc = r.u32();
    if (!r.ok() || argc > kMaxControlWords) return kIOReturnBadArgument;
    std::vector<std::string> words;
    words.reserve(argc);
    for (uint32_t i = 0; i < argc && r.ok(); ++i) words.push_back(r.str());
    if (!r.at_end()) return kIOReturnBadArgument;
    ControlResult result = control(words, client);
    out.str(result.out);
    out.str(result.err);
    return result.code;
}

ControlResult Simulation::control(const std::vector<std::string> &words, ClientId client) {
    std::string error;
    auto command = parse_control(words, error);
    if (!command) return ControlResult{1, {}, error + "\n"};
    return execute_control(*this, *command, client);
}

size_t Simulation::notify(const Service &service, uint32_t message_type, const MessageArg &arg) {
    size_t sent = 0;
    for (auto &[nid, interest] : interests_) {
        if (interest.service != &service) continue;
        Writer body;
        body.u32(nid);
        body.u64(service.id);
        body.u32(message_type);
        body.u8(static_cast<uint8_t>(arg.kind));
        if (arg.kind == wire::ArgKind::Value) body.u64(arg.value);
        if (arg.kind == wire::ArgKind::Data) body.blob(arg.data);
        outbox_.send(interest.client, wire::make_event(body.data()));
        ++sent;
    }
    return sent;
}

bool Simulation::set_published(Service &service, bool published) {
    if (!registry_.set_published(service, published)) return false;
    if (!published) notify(service, kIOMessageServiceIsTerminated, MessageArg::none());
    return true;
}

}  // namespace talvex::sim
