// The `talvexsim` command line: --socket, the command table's lookup and
// help, the commands talvexsim runs itself (serve, run, shell, status), and
// the control commands, which it checks and forwards to a running simulator.
#pragma once

#include <string>

#include "commands.h"

namespace talvex::sim {

// The whole program; returns the exit status.
int cli_main(int argc, char **argv);

// Prints "talvexsim: MESSAGE" on standard error and returns 1.
int complain(const std::string &message);

// The command table's handlers of the commands talvexsim runs itself.
int serve_command(const Invocation &invocation);
int run_command(const Invocation &invocation);
int shell_command(const Invocation &invocation);
int status_command(const Invocation &invocation);

}  // namespace talvex::sim
