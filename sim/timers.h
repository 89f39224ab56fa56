// One-shot timers for delayed model events, ordered by due time (simulated
// nanoseconds, see Clock); timers due at the same instant run in the order
// they were added.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <unordered_map>
#include <utility>

namespace talvex::sim {

class TimerQueue {
public:
    using Id = uint64_t;
    using Callback = std::function<void()>;

    // Schedules `callback` to run once when time reaches `due_ns`.
    Id add(uint64_t due_ns, Callback callback);
    // Cancels a pending timer; false when it already ran or never existed.
    bool cancel(Id id);
    // The earliest due time, if any timer is pending.
    std::optional<uint64_t> next_due() const;
    // Runs every timer due at or before `now_ns`, earliest first, and returns
    // how many ran. A callback may add or cancel timers; one it adds that is
    // already due runs in this same call.
    size_t run_due(uint64_t now_ns);
    size_t size() const { return timers_.size(); }
    void clear();

private:
    using Key = std::pair<uint64_t, Id>;   // (due, id): ids grow, so ties keep insertion order
    std::map<Key, Callback> timers_;
    std::unordered_map<Id, uint64_t> due_of_;
    Id next_id_ = 1;
};

}  // namespace talvex::sim
