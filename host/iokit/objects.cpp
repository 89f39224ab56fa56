#include "objects.h"

#include <pthread.h>

namespace talvex::host {

Objects &Objects::instance() {
    // Never destroyed: exit-time callables may still release objects.
    static Objects *o = new Objects;
    return *o;
}

Objects::Objects() {
    pthread_atfork(&Objects::before_fork, &Objects::after_fork_parent, &Objects::after_fork_child);
}

Object *Objects::find(io_object_t handle) {
    if (handle == 0) return nullptr;
    auto it = objects_.find(handle);
    return it == objects_.end() ? nullptr : &it->second;
}

io_object_t Objects::next_handle() {
    for (;;) {
        io_object_t h = next_++;
        if (h != 0 && !objects_.contains(h)) return h;
    }
}

io_object_t Objects::add_entry(uint64_t entry_id) {
    std::lock_guard lk(mu_);
    auto it = entries_.find(entry_id);
    if (it != entries_.end()) {
        ++objects_.at(it->second).retain;
        return it->second;
    }
    io_object_t h = next_handle();
    Object o;
    o.kind = Kind::Entry;
    o.entry = entry_id;
    objects_.emplace(h, std::move(o));
    try {
        entries_.emplace(entry_id, h);
    } catch (...) {
        objects_.erase(h);
        throw;
    }
    return h;
}

io_object_t Objects::add(Object object) {
    std::lock_guard lk(mu_);
    io_object_t h = next_handle();
    objects_.emplace(h, std::move(object));
    return h;
}

kern_return_t Objects::retain(io_object_t handle) {
    std::lock_guard lk(mu_);
    Object *o = find(handle);
    if (!o) return KERN_INVALID_ARGUMENT;
    ++o->retain;
    return KERN_SUCCESS;
}

kern_return_t Objects::release(io_object_t handle, std::optional<Object> &removed) {
    std::lock_guard lk(mu_);
    Object *o = find(handle);
    if (!o) return KERN_INVALID_ARGUMENT;
    if (--o->retain > 0) return KERN_SUCCESS;
    if (o->kind == Kind::Entry) entries_.erase(o->entry);
    if (o->kind == Kind::Notification && o->notification) notifications_.erase(o->notification->id);
    removed.emplace(std::move(*o));
    objects_.erase(handle);
    return KERN_SUCCESS;
}

uint32_t Objects::retain_count(io_object_t handle) {
    std::lock_guard lk(mu_);
    Object *o = find(handle);
    return o ? o->retain : 0;
}

void Objects::route(uint32_t notification_id, io_object_t handle) {
    std::lock_guard lk(mu_);
    notifications_[notification_id] = handle;
}

std::optional<NotificationState> Objects::routed(uint32_t notification_id) {
    std::lock_guard lk(mu_);
    auto it = notifications_.find(notification_id);
    if (it == notifications_.end()) return std::nullopt;
    Object *o = find(it->second);
    if (!o || !o->notification) return std::nullopt;
    return *o->notification;
}

// A forked child holds no object references of its parent, as on the
// platform, where port rights are not inherited.
void Objects::before_fork() { instance().mu_.lock(); }

void Objects::after_fork_parent() { instance().mu_.unlock(); }

void Objects::after_fork_child() {
    Objects &o = instance();
    o.objects_.clear();
    o.entries_.clear();
    o.notifications_.clear();
    o.mu_.unlock();
}

}  // namespace talvex::host
