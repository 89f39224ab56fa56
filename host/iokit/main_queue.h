// The link between the notification machinery and the main queue.
#pragma once

#include "transport.h"

namespace talvex::host {

// Hands one interest message to its notification's callback, when the
// notification still exists and its port is attached to the main queue.
// Runs on the thread that serves the main queue.
void deliver_event(const Event &ev);

// One turn of the main queue: delivers the queued interest messages, then
// waits up to `timeout_ms` (-1: without a limit) for the simulator or a
// wake-up and reads what came. dispatch_main runs it forever.
void serve_main_queue(int timeout_ms);

}  // namespace talvex::host
