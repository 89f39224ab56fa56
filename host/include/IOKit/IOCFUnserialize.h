// Parses the registry's XML property-list dialect.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstddef>

// What this header declares is the shared library's exported interface; the
// library is built with everything else hidden.
#pragma GCC visibility push(default)

// Parses a NUL-terminated buffer. On failure returns null and, when
// error_string is given, stores a new string describing the failure there.
CFTypeRef IOCFUnserialize(const char *buffer, CFAllocatorRef allocator, CFOptionFlags options,
                          CFStringRef *error_string);
// Parses exactly `size` bytes (a trailing NUL, if any, ends the text).
CFTypeRef IOCFUnserializeWithSize(const char *buffer, size_t size, CFAllocatorRef allocator, CFOptionFlags options,
                                  CFStringRef *error_string);

#pragma GCC visibility pop
