// The `talvexsim` command line: serve, run, shell, and the control commands
// (which it forwards to a running simulator).
#pragma once

#include <string>
#include <vector>

namespace talvex::sim {

// The whole program; returns the exit status.
int cli_main(int argc, char **argv);

// Sends a control command's words to the simulator at `socket_path`, prints
// its output and returns the exit status (1 with a message when no simulator
// answers).
int forward_control(const std::string &socket_path, const std::vector<std::string> &words);

// `talvexsim status`: 0 with a line on standard output when a simulator of
// ours answers at `socket_path`; 1 with a line on standard error saying why
// not.
int report_status(const std::string &socket_path);

}  // namespace talvex::sim
