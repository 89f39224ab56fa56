// Opening and closing the connection handle.
#include "talvex_client.h"

#include <cstdlib>

TalvexHandle *TalvexOpen(void) {
    io_service_t service =
        IOServiceGetMatchingService(kIOMasterPortDefault, IOServiceMatching(kTalvexServiceClass));
    if (!service) {
        TALVEX_ASSERT_REPORT("service", "cannot find ZantraTalvexProcessor", 0);
        return nullptr;
    }

    io_connect_t connect = 0;
    kern_return_t result = IOServiceOpen(service, mach_task_self(), 0, &connect);
    if (result != 0) {
        TALVEX_ASSERT_REPORT("result == 0 ", nullptr, result);
    } else if (!connect) {
        TALVEX_ASSERT_REPORT("connect", "", 0);
    } else {
        auto *talvex = static_cast<TalvexHandle *>(std::calloc(1, sizeof(TalvexHandle)));
        if (talvex) {
            talvex->service = service;
            talvex->connection = connect;
            return talvex;
        }
        TALVEX_ASSERT_REPORT("talvex", "", 0);
    }

    if (connect) IOServiceClose(connect);
    IOObjectRelease(service);
    return nullptr;
}

void TalvexClose(TalvexHandle *talvex) {
    if (talvex->notification) IOObjectRelease(talvex->notification);
    if (talvex->notifyPort) IONotificationPortDestroy(talvex->notifyPort);
    if (talvex->notification_handler) _Block_release(talvex->notification_handler);
    if (talvex->connection) IOServiceClose(talvex->connection);
    if (talvex->service) IOObjectRelease(talvex->service);
    std::free(talvex);
}
