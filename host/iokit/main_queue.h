// The link between the notification machinery and the main queue.
#pragma once

#include "transport.h"

namespace talvex::host {

// Hands one interest message to its notification's callback, when the
// notification still exists and its port is attached to the main queue.
// Runs on the thread that serves the main queue.
void deliver_event(const Event &ev);

}  // namespace talvex::host
