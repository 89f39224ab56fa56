// What the fuzz targets share beyond the sanitizers: failing a check with a
// message that names the target, and reading every accessor of a channel.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <errno.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace talvex::fuzz {

// Prints "fuzz_NAME: what" and aborts, so libFuzzer keeps the input.
[[noreturn, gnu::format(printf, 1, 2)]] inline void fail(const char *format, ...) {
    std::fprintf(stderr, "%s: ", program_invocation_short_name);
    va_list ap;
    va_start(ap, format);
    std::vfprintf(stderr, format, ap);
    va_end(ap);
    std::fputc('\n', stderr);
    std::abort();
}

inline void check(bool ok, const char *what) {
    if (!ok) fail("%s", what);
}

inline void release(CFTypeRef v) {
    if (v) CFRelease(v);
}

// Every channel accessor and both descriptions of a legend channel or a
// sample record (support/channel_touch.cpp, for the report-library targets).
void touch_channel(CFDictionaryRef channel);

}  // namespace talvex::fuzz
