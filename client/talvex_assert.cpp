#include "talvex_assert.h"

#include <mach/mach.h>

#include <cstdio>

void TalvexAssertReport(const char *condition, const char *message, const char *file, long line,
                        uint32_t code) {
    // Whatever a command printed before this check goes out first, so that
    // with both streams on one file or pipe every line stands where it was
    // made (result lines printed between two diagnostics included).
    std::fflush(stdout);
    const char *msg = message ? message : "";
    if (code != 0) {
        // A code of a system without texts has no text; show what the C library
        // shows for a null %s rather than handing it a null pointer.
        const char *text = mach_error_string(static_cast<mach_error_t>(code));
        std::fprintf(stderr, "AssertMacros: %s, %s (%#x) %s file: %s, line: %ld\n", condition,
                     text ? text : "(null)", code, msg, file, line);
    } else {
        std::fprintf(stderr, "AssertMacros: %s, %s file: %s, line: %ld\n", condition, msg, file, line);
    }
}
