// The registry's XML property-list dialect.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

// Serialises a property list (dictionary, array, string, number, boolean,
// data) to the registry's XML dialect, ending with one NUL byte. Options other
// than 0, or an object of another type, give null.
CFDataRef IOCFSerialize(CFTypeRef object, CFOptionFlags options);
