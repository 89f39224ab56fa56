// The registry's XML property-list dialect.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

// What this header declares is the shared library's exported interface; the
// library is built with everything else hidden.
#pragma GCC visibility push(default)

// Serialises a property list (dictionary, array, string, number, boolean,
// data) to the registry's XML dialect, ending with one NUL byte. Options other
// than 0, or an object of another type, give null.
CFDataRef IOCFSerialize(CFTypeRef object, CFOptionFlags options);

#pragma GCC visibility pop
