// Support for the IOKit-layer tests: every scenario runs in a forked child,
// so each gets a fresh transport and object table. (The scripted peer that
// plays a misbehaving simulator: wire_peer.h.)
#pragma once

#include <IOKit/IOKitLib.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"
#include "wire_peer.h"

namespace talvex::test {

// What a call on a handle that names nothing returns.
constexpr kern_return_t kInvalidHandle = 0x10000003;

// Runs `body` in a forked child with TALVEX_SIM_SOCKET set to `socket` and
// returns what it printed; `ready` (if given) is called in the parent once the
// child has printed `ready_line`. The calling test fails when the child fails
// an assertion, crashes, leaks (under LeakSanitizer) or outlives 30 seconds.
std::string child_output(const std::string &socket, const std::function<void()> &body,
                         const std::string &ready_line = {}, const std::function<void()> &ready = {});
// The same when the output does not matter (it is shown if the child fails).
inline void in_child(const std::string &socket, const std::function<void()> &body) { child_output(socket, body); }

// printf to standard output, flushed at once (a child's output is a pipe).
[[gnu::format(printf, 1, 2)]] void say(const char *format, ...);

// The ZantraTalvexProcessor service of the simulator the process talks to (0 if none).
io_service_t coprocessor();
// An open type-0 connection to `service`; fails the test when it cannot be made.
io_connect_t open_client(io_service_t service);

}  // namespace talvex::test
