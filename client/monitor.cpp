// `monitor`: the current coprocessor state, then state changes and time
// synchronisations as the driver announces them, until the process is killed.
//
// Every line is flushed as soon as it is printed, so a pipe or a file sees
// each event when it happens and nothing is lost when a signal ends the
// process.
#include "talvex_client.h"

#include <sys/time.h>

#include <cstdio>

namespace {

// Time of the last printed line, in seconds since the epoch; 0.0 before any.
double g_last_event_time = 0.0;

double now_seconds() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
}

void monitor_event(uint32_t message_type, void *message_argument) {
    double now = now_seconds();
    double interval = g_last_event_time == 0.0 ? 0.0 : now - g_last_event_time;
    switch (message_type) {
    case kTalvexMessageStateChanged: {
        g_last_event_time = now;
        auto state = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(message_argument));
        std::printf("%10.2f [%6.2f]: talvex new state: %s (0x%x)\n", now, interval, TalvexStateNameFor(state),
                    state);
        std::fflush(stdout);
        break;
    }
    case kTalvexMessageTimeSync: {
        g_last_event_time = now;
        uint64_t ap = ~0ull, talvex = ~0ull;
        if (message_argument) {
            const auto *times = static_cast<const uint8_t *>(message_argument);
            ap = load_le64(times);
            talvex = load_le64(times + 8);
        }
        std::printf("%10.2f [%6.2f]: timesync event: ap %llx, talvex %llx\n", now, interval,
                    static_cast<unsigned long long>(ap), static_cast<unsigned long long>(talvex));
        std::fflush(stdout);
        break;
    }
    default:
        break;
    }
}

void interest_callback(void *refcon, io_service_t, uint32_t message_type, void *message_argument) {
    auto *talvex = static_cast<TalvexHandle *>(refcon);
    (*talvex->notification_handler)(message_type, message_argument);
}

void release_notification(TalvexHandle *talvex) {
    if (talvex->notifyPort) IONotificationPortDestroy(talvex->notifyPort);
    if (talvex->notification) IOObjectRelease(talvex->notification);
    if (talvex->notification_handler) _Block_release(talvex->notification_handler);
    talvex->notifyPort = nullptr;
    talvex->notification = 0;
    talvex->notification_handler = nullptr;
}

}  // namespace

int TalvexMonitor(int, char *[]) {
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;

    release_notification(talvex);

    bool failed = true;
    talvex->notifyPort = IONotificationPortCreate(kIOMasterPortDefault);
    if (!talvex->notifyPort) {
        TALVEX_ASSERT_REPORT("talvex->notifyPort", "", 0);
    } else {
        TalvexEventBlock event = monitor_event;
        talvex->notification_handler = _Block_copy(event);
        if (!talvex->notification_handler) {
            TALVEX_ASSERT_REPORT("talvex->notification_handler", "", 0);
        } else {
            kern_return_t result = IOServiceAddInterestNotification(
                talvex->notifyPort, talvex->service, kIOGeneralInterest, interest_callback, talvex,
                &talvex->notification);
            if (result != 0) {
                TALVEX_ASSERT_REPORT("result == 0 ", nullptr, result);
            } else {
                IONotificationPortSetDispatchQueue(talvex->notifyPort, dispatch_get_main_queue());
                failed = false;
            }
        }
    }
    // Without notifications the monitor still shows the current state.
    if (failed) release_notification(talvex);

    double now = now_seconds();
    int64_t state = -1;
    TalvexReadState(talvex, &state);
    g_last_event_time = now;
    // "%6.2d" of 0 on purpose: this line's bracket has always read "    00".
    std::printf("%10.2f [%6.2d]: talvex current state: %s (0x%lx)\n", now, 0,
                TalvexStateNameFor(static_cast<uint64_t>(state)), static_cast<unsigned long>(state));
    std::fflush(stdout);

    atexit_b([talvex] { TalvexClose(talvex); });
    dispatch_main();
}
