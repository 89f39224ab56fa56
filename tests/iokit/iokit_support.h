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

// Runs `body` in a forked child with TALVEX_SIM_SOCKET set to `socket`. The
// calling test fails when the child fails an assertion, crashes, leaks (under
// LeakSanitizer) or outlives `timeout`.
void in_child(const std::string &socket, const std::function<void()> &body,
              std::chrono::milliseconds timeout = std::chrono::seconds(30));

// Like in_child, but the child's standard output is captured and returned;
// `ready` (if given) is called in the parent once the child has printed
// `ready_line`. The child is expected to end with exit status `expect_status`.
std::string child_output(const std::string &socket, const std::function<void()> &body,
                         const std::string &ready_line = {}, const std::function<void()> &ready = {},
                         int expect_status = 0, std::chrono::milliseconds timeout = std::chrono::seconds(30));

// printf to standard output, flushed at once (a child's output is a pipe).
[[gnu::format(printf, 1, 2)]] void say(const char *format, ...);

// The ZantraTalvexProcessor service of the simulator the process talks to (0 if none).
io_service_t coprocessor();
// An open type-0 connection to `service`; fails the test when it cannot be made.
io_connect_t open_client(io_service_t service);

}  // namespace talvex::test
