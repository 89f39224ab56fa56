#include "timers.h"

namespace talvex::sim {

TimerQueue::Id TimerQueue::add(uint64_t due_ns, Callback callback) {
    Id id = next_id_++;
    timers_.emplace(Key{due_ns, id}, std::move(callback));
    due_of_.emplace(id, due_ns);
    return id;
}

bool TimerQueue::cancel(Id id) {
    auto it = due_of_.find(id);
    if (it == due_of_.end()) return false;
    timers_.erase(Key{it->second, id});
    due_of_.erase(it);
    return true;
}

std::optional<uint64_t> TimerQueue::next_due() const {
    if (timers_.empty()) return std::nullopt;
    return timers_.begin()->first.first;
}

size_t TimerQueue::run_due(uint64_t now_ns) {
    size_t ran = 0;
    while (!timers_.empty() && timers_.begin()->first.first <= now_ns) {
        auto node = timers_.extract(timers_.begin());
        due_of_.erase(node.key().second);
        node.mapped()();
        ++ran;
    }
    return ran;
}

void TimerQueue::clear() {
    timers_.clear();
    due_of_.clear();
}

}  // namespace talvex::sim
