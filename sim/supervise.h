// The processes of talvexsim: `serve` in the foreground (stopping with its
// parent when asked), and the private simulator that `run` and `shell`
// start for one command and stop after it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace talvex::sim {

// The simulator's options that serve, run and shell share.
struct SimOptions {
    bool step_clock = false;
    size_t channels = 0;
    std::string scenario;   // a scenario file to run from the start, if any

    // The options as serve takes them.
    std::vector<std::string> words() const;
};

// What `serve` may hold: from the process's limits, or smaller when told.
struct BudgetOptions {
    std::optional<size_t> memory, descriptors;
};

// Serves on `socket_path` until SIGINT or SIGTERM (or, with
// `exit_with_parent`, until the parent process ends); returns the exit status.
int serve(const std::string &socket_path, bool exit_with_parent, const SimOptions &opts, const BudgetOptions &budget);

// Starts `talvexsim serve` on a fresh socket in a fresh private directory,
// runs `cmd` against it, stops it and cleans up. Returns cmd's exit status.
int run_private(std::vector<std::string> cmd, const SimOptions &opts);

}  // namespace talvex::sim
