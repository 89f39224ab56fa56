// The process's object references: 32-bit handles (0 is none) naming registry
// entries, iterators, user-client connections and interest notifications,
// each with a user retain count. A registry entry has one handle per process:
// getting the same entry again returns the same handle with one more count,
// as port names do on the platform.
#pragma once

#include <IOKit/IOKitLib.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

namespace talvex::host {

// What a call on a handle that names nothing returns (the platform's
// "invalid destination port").
inline constexpr kern_return_t kInvalidHandle = 0x10000003;

enum class Kind : uint8_t { Entry, Iterator, Connection, Notification };

struct IteratorState {
    std::vector<uint64_t> ids;         // the matched entries, in registry order
    size_t next = 0;
    uint64_t generation = 0;           // the registry generation the snapshot was taken at
    bool offline = false;              // made with no simulator: the empty registry never changes
    std::vector<uint8_t> matching;     // the serialised matching dictionary, for a reset
};

struct NotificationState {
    uint32_t id = 0;                   // the simulator's notification ID
    IONotificationPortRef port = nullptr;
    uint64_t port_serial = 0;          // tells a live port from a later one at the same address
    IOServiceInterestCallback callback = nullptr;
    void *refcon = nullptr;
    io_service_t service = 0;          // one count held for the notification's life
};

struct Object {
    Kind kind = Kind::Entry;
    uint32_t retain = 1;
    uint64_t entry = 0;                // Entry: its ID. Connection: its service's ID
    uint32_t connection = 0;           // Connection: the simulator's connection ID
    bool open = false;                 // Connection: not yet closed
    std::unique_ptr<IteratorState> iterator;
    std::unique_ptr<NotificationState> notification;
};

class Objects {
public:
    static Objects &instance();

    // The handle of a registry entry, with one more count (a new handle at 1
    // when the process holds none yet); 0 when out of memory.
    io_object_t add_entry(uint64_t entry_id);
    // A new handle for a non-entry object, count 1; 0 when out of memory.
    io_object_t add(Object object);

    // Runs f(Object &) under the lock when `handle` names an object of `kind`.
    // Returns kInvalidHandle for a handle that names nothing, kIOReturnBadArgument
    // for another kind, else what f returns.
    template <class F>
    kern_return_t with(io_object_t handle, Kind kind, F &&f) {
        std::lock_guard lk(mu_);
        Object *o = find(handle);
        if (!o) return kInvalidHandle;
        if (o->kind != kind) return kIOReturnBadArgument;
        return f(*o);
    }
    // Runs f(Object *) under the lock; null when the handle names nothing.
    template <class F>
    auto peek(io_object_t handle, F &&f) {
        std::lock_guard lk(mu_);
        return f(find(handle));
    }

    kern_return_t retain(io_object_t handle);
    // Drops one count. When it was the last, the object is removed from the
    // table and handed back so the caller can finish it off outside the lock.
    kern_return_t release(io_object_t handle, std::optional<Object> &removed);
    uint32_t retain_count(io_object_t handle);

    // Routes a simulator notification ID to its notification's state.
    void route(uint32_t notification_id, io_object_t handle);
    std::optional<NotificationState> routed(uint32_t notification_id);

private:
    Objects();
    Object *find(io_object_t handle);
    io_object_t next_handle();   // lock held

    static void before_fork();
    static void after_fork_parent();
    static void after_fork_child();

    std::mutex mu_;
    std::unordered_map<io_object_t, Object> objects_;
    std::unordered_map<uint64_t, io_object_t> entries_;       // entry ID -> its handle
    std::unordered_map<uint32_t, io_object_t> notifications_; // simulator ID -> handle
    io_object_t next_ = 0x1003;
};

// The entry ID behind a registry-entry handle.
inline kern_return_t entry_of(io_object_t handle, uint64_t &id) {
    return Objects::instance().with(handle, Kind::Entry, [&](Object &o) {
        id = o.entry;
        return KERN_SUCCESS;
    });
}

// Runs `body`, turning any exception into `fallback`: nothing thrown crosses
// the platform API.
template <class R, class F>
R guarded(R fallback, F &&body) noexcept {
    try {
        return body();
    } catch (...) {
        return fallback;
    }
}

}  // namespace talvex::host
