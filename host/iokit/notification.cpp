// Notification ports and interest notifications, and their delivery on the
// main queue.
#include <IOKit/IOKitLib.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_map>

#include "main_queue.h"
#include "objects.h"
#include "transport.h"

struct IONotificationPort {
    uint64_t serial = 0;
    dispatch_queue_t queue = nullptr;
};

namespace talvex::host {
namespace {

// The live ports, each with its serial number, so a notification never
// reaches a destroyed port or a later one that reuses its address.
struct Ports {
    std::mutex mu;
    std::unordered_map<IONotificationPortRef, uint64_t> live;
    uint64_t next_serial = 1;
};

Ports &ports() {
    static Ports *p = new Ports;   // never destroyed: exit-time callables may destroy ports
    return *p;
}

// A data argument is handed over in a zero-padded copy, so a callback that
// reads a fixed-size record from a shorter message reads zeros, not past the end.
constexpr size_t kMinDataCopy = 128;

}  // namespace

// Called when the last count of a notification object goes: the simulator
// forgets the interest and the service reference it held is given back.
void finish_notification(Object &removed) {
    if (!removed.notification) return;
    {
        Exchange ex(wire::Op::RemoveInterest);
        ex.body().u32(removed.notification->id);
        ex.run();   // a simulator that went away has forgotten it anyway
    }
    IOObjectRelease(removed.notification->service);
}

void deliver_event(const Event &ev) {
    auto note = Objects::instance().routed(ev.notification);
    if (!note || !note->callback) return;
    {
        std::lock_guard lk(ports().mu);
        auto it = ports().live.find(note->port);
        if (it == ports().live.end() || it->second != note->port_serial) return;
        if (note->port->queue != dispatch_get_main_queue()) return;
    }
    std::vector<uint8_t> copy;
    void *argument = nullptr;
    switch (ev.kind) {
    case wire::ArgKind::None: break;
    case wire::ArgKind::Value: argument = reinterpret_cast<void *>(static_cast<uintptr_t>(ev.value)); break;
    case wire::ArgKind::Data:
        copy.assign(std::max(ev.data.size(), kMinDataCopy), 0);
        std::copy(ev.data.begin(), ev.data.end(), copy.begin());
        argument = copy.data();
        break;
    }
    note->callback(note->refcon, note->service, ev.type, argument);
}

}  // namespace talvex::host

using namespace talvex::host;
namespace wire = talvex::wire;

IONotificationPortRef IONotificationPortCreate(mach_port_t) {
    return guarded<IONotificationPortRef>(nullptr, []() -> IONotificationPortRef {
        auto *port = new (std::nothrow) IONotificationPort;
        if (!port) return nullptr;
        try {
            std::lock_guard lk(ports().mu);
            port->serial = ports().next_serial++;
            ports().live.emplace(port, port->serial);
        } catch (...) {
            delete port;
            return nullptr;
        }
        return port;
    });
}

void IONotificationPortDestroy(IONotificationPortRef notify) {
    guarded<int>(0, [&] {
        if (!notify) return 0;
        std::lock_guard lk(ports().mu);
        // Only a live port is freed: destroying one twice is ignored.
        if (ports().live.erase(notify)) delete notify;
        return 0;
    });
}

void IONotificationPortSetDispatchQueue(IONotificationPortRef notify, dispatch_queue_t queue) {
    guarded<int>(0, [&] {
        if (!notify) return 0;
        std::lock_guard lk(ports().mu);
        if (ports().live.contains(notify)) notify->queue = queue;
        return 0;
    });
}

kern_return_t IOServiceAddInterestNotification(IONotificationPortRef notify_port, io_service_t service,
                                               const char *interest_type, IOServiceInterestCallback callback,
                                               void *ref_con, io_object_t *notification) {
    return guarded<kern_return_t>(kIOReturnNoMemory, [&]() -> kern_return_t {
        if (!notification) return kIOReturnBadArgument;
        *notification = 0;
        if (!notify_port || !interest_type || !callback) return kIOReturnBadArgument;
        uint64_t serial;
        {
            std::lock_guard lk(ports().mu);
            auto it = ports().live.find(notify_port);
            if (it == ports().live.end()) return kIOReturnBadArgument;
            serial = it->second;
        }
        uint64_t entry = 0;
        uint32_t id = 0;
        auto write_type = [&](wire::Writer &b) { b.str(interest_type); };
        if (kern_return_t kr = make_on_entry(service, wire::Op::AddInterest, write_type, entry, id)) return kr;
        // The notification keeps the service alive for its callbacks.
        IOObjectRetain(service);
        auto state = std::make_unique<NotificationState>();
        state->id = id;
        state->port = notify_port;
        state->port_serial = serial;
        state->callback = callback;
        state->refcon = ref_con;
        state->service = service;
        Object o;
        o.kind = Kind::Notification;
        o.entry = entry;
        o.notification = std::move(state);
        try {
            io_object_t h = Objects::instance().add(std::move(o));
            Objects::instance().route(id, h);
            *notification = h;
        } catch (...) {
            Object undo;
            undo.notification = std::make_unique<NotificationState>();
            undo.notification->id = id;
            undo.notification->service = service;
            finish_notification(undo);
            throw;
        }
        return KERN_SUCCESS;
    });
}
