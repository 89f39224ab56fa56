// Main dispatch queue subset: the main queue serves the notification ports
// attached to it; dispatch_once; exit-time callables.
#pragma once

#include <Block.h>

#include <atomic>
#include <functional>

// What this header declares is the shared library's exported interface; the
// library is built with everything else hidden.
#pragma GCC visibility push(default)

typedef struct dispatch_queue_s *dispatch_queue_t;
typedef long dispatch_once_t;

dispatch_queue_t dispatch_get_main_queue(void);
// The label a queue was made with ("talvex.main-thread" for the main queue).
const char *dispatch_queue_get_label(dispatch_queue_t queue);

// Serves the notification ports attached to the main queue on the calling
// thread, forever. Never returns; the process ends by a signal or exit().
[[noreturn]] void dispatch_main(void);

// Runs `fn` exactly once per predicate (which must start at 0), even when
// several threads arrive together; later callers wait until it has run.
void dispatch_once(dispatch_once_t *predicate, const std::function<void()> &fn);

// Registers a callable to run at normal process exit (exit() or return from
// main), most recently registered first, like atexit(). Returns 0 on success.
int atexit_b(std::function<void()> fn);

#pragma GCC visibility pop
