// Kernel types, the own task port and return-code texts.
#pragma once

#include <cstdint>

// What this header declares is the shared library's exported interface; the
// library is built with everything else hidden.
#pragma GCC visibility push(default)

typedef int kern_return_t;
typedef kern_return_t mach_error_t;
typedef uint32_t mach_port_t;
typedef mach_port_t task_port_t;
typedef mach_port_t task_t;
typedef uint64_t mach_vm_address_t;
typedef uint64_t mach_vm_size_t;
typedef int boolean_t;

enum : kern_return_t { KERN_SUCCESS = 0, KERN_INVALID_ARGUMENT = 4, KERN_FAILURE = 5 };
#define MACH_PORT_NULL 0u
// A message awaited with a time limit did not come in time.
#define MACH_RCV_TIMED_OUT 0x10004003

// Names the calling task.
mach_port_t mach_task_self(void);

// The text of a return code, or null for a system that has no texts.
const char *mach_error_string(mach_error_t error_value);

#pragma GCC visibility pop
