// The client side of the control commands and `status`: one connection to
// a running simulator, checked to be the user's own.
#pragma once

#include <string>
#include <vector>

namespace talvex::sim {

// Sends a control command's words to the simulator at `socket_path`, prints
// its output and returns the exit status (1 with a message when no simulator
// answers).
int forward_control(const std::string &socket_path, const std::vector<std::string> &words);

// `talvexsim status`: 0 with a line on standard output when a simulator of
// ours answers at `socket_path`; 1 with a line on standard error saying why
// not.
int report_status(const std::string &socket_path);

}  // namespace talvex::sim
