// The assertion diagnostic: one line on standard error naming a failed check,
// the return code that made it fail (when there is one) and the source file
// and line of the check.
#pragma once

#include <cstdint>

// Prints
//   "AssertMacros: COND, TEXT (CODE) MESSAGE file: FILE, line: LINE"   when code != 0
//   "AssertMacros: COND, MESSAGE file: FILE, line: LINE"               when code == 0
// where TEXT is mach_error_string(code) and a null message prints as empty.
// Standard output is flushed first, so lines a command printed before the
// check come out before the diagnostic on a shared file or pipe.
void TalvexAssertReport(const char *condition, const char *message, const char *file, long line,
                        uint32_t code);

// Reports a failed check at the calling site.
#define TALVEX_ASSERT_REPORT(condition, message, code) \
    TalvexAssertReport((condition), (message), __FILE__, static_cast<long>(__LINE__), static_cast<uint32_t>(code))

// A command's argument check, written where the command makes it:
//   if (!TALVEX_CHECK(argc == 2, "argc == 2")) return 1;
// reports `condition` (no code, empty message) at the calling site when `ok`
// is false, and gives `ok`.
#define TALVEX_CHECK(ok, condition) TalvexCheckAt((ok), (condition), __FILE__, static_cast<long>(__LINE__))

inline bool TalvexCheckAt(bool ok, const char *condition, const char *file, long line) {
    if (!ok) TalvexAssertReport(condition, "", file, line, 0);
    return ok;
}
