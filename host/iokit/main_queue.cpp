// The main dispatch queue, dispatch_once and exit-time callables.
#include "main_queue.h"

#include <dispatch/dispatch.h>
#include <poll.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <vector>

struct dispatch_queue_s {
    const char *label;
};

namespace {

dispatch_queue_s main_queue{"talvex.main-thread"};

// dispatch_once predicate states; 0 is "not yet run".
constexpr long kOnceRunning = 1;
constexpr long kOnceDone = ~0L;

struct OnceGate {
    std::mutex mu;
    std::condition_variable done;
};

OnceGate &once_gate() {
    static OnceGate *g = new OnceGate;   // never destroyed: usable during exit
    return *g;
}

struct ExitCallables {
    std::mutex mu;
    std::vector<std::function<void()>> list;
};

ExitCallables &exit_callables() {
    static ExitCallables *e = new ExitCallables;
    return *e;
}

// One of these is registered with atexit() per atexit_b call; each run takes
// the newest callable left, so they run newest first and interleave with
// other atexit() handlers in registration order.
void run_newest_exit_callable() {
    std::function<void()> fn;
    {
        std::lock_guard lk(exit_callables().mu);
        if (exit_callables().list.empty()) return;
        fn = std::move(exit_callables().list.back());
        exit_callables().list.pop_back();
    }
    try {
        if (fn) fn();
    } catch (...) {
        // an exception cannot leave an exit handler
    }
}

}  // namespace

dispatch_queue_t dispatch_get_main_queue(void) { return &main_queue; }

const char *dispatch_queue_get_label(dispatch_queue_t queue) { return queue ? queue->label : ""; }

namespace talvex::host {

void serve_main_queue(int timeout_ms) {
    Transport &t = Transport::instance();
    // Messages that arrived during synchronous calls come first, in order.
    while (auto ev = t.pop_event()) {
        try {
            deliver_event(*ev);
        } catch (...) {
            // a failing callback loses its own message only
        }
    }
    // Wait for the simulator or for a message queued by another thread.
    // With no simulator left only the wake-up descriptor is watched, so
    // the wait does not spin.
    pollfd fds[2] = {{t.wake_fd(), POLLIN, 0}, {-1, POLLIN, 0}};
    int sock = t.poll_fd();
    nfds_t n = 1;
    if (sock >= 0) {
        fds[1].fd = sock;
        n = 2;
    }
    if (poll(fds, n, timeout_ms) <= 0) return;   // nothing yet, or EINTR: look again
    if (fds[0].revents) t.drain_wake();
    if (n == 2 && fds[1].revents) t.pump();
}

}  // namespace talvex::host

void dispatch_main(void) {
    for (;;) talvex::host::serve_main_queue(-1);
}

void dispatch_once(dispatch_once_t *predicate, const std::function<void()> &fn) {
    if (!predicate) return;
    std::atomic_ref<long> state(*predicate);
    if (state.load(std::memory_order_acquire) == kOnceDone) return;
    OnceGate &gate = once_gate();
    std::unique_lock lk(gate.mu);
    for (;;) {
        long v = state.load(std::memory_order_acquire);
        if (v == kOnceDone) return;
        if (v != kOnceRunning) break;
        gate.done.wait(lk);
    }
    state.store(kOnceRunning, std::memory_order_relaxed);
    lk.unlock();
    try {
        if (fn) fn();
    } catch (...) {
        // it ran; an exception does not make it run again
    }
    lk.lock();
    state.store(kOnceDone, std::memory_order_release);
    gate.done.notify_all();
}

int atexit_b(std::function<void()> fn) {
    try {
        std::lock_guard lk(exit_callables().mu);
        exit_callables().list.push_back(std::move(fn));
        if (std::atexit(run_newest_exit_callable) != 0) {
            exit_callables().list.pop_back();
            return -1;
        }
        return 0;
    } catch (...) {
        return -1;
    }
}
