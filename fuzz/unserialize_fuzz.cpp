// IOCFUnserialize on arbitrary bytes.
//
// Whatever the bytes, the parser returns a property list or null with a
// message. What it returns must go back out through IOCFSerialize (the parser
// accepts nothing the writer cannot write), read back equal, and write the
// same text again. Reading with and without an explicit size gives the same
// result, since a NUL ends the text either way. A failed parse explains
// itself as "line N: what".
#include <IOKit/IOCFSerialize.h>
#include <IOKit/IOCFUnserialize.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "plist_gen.h"

using talvex::CFRef;

namespace {

[[noreturn]] void fail(const char *what) {
    std::fprintf(stderr, "unserialize_fuzz: %s\n", what);
    std::abort();
}

bool same(CFTypeRef a, CFTypeRef b) { return a == b || (a && b && CFEqual(a, b)); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const char *text = reinterpret_cast<const char *>(data);
    CFStringRef message = nullptr;
    CFRef<CFTypeRef> parsed(IOCFUnserializeWithSize(text, size, nullptr, 0, &message));
    CFRef<CFStringRef> error(message);
    if (!parsed && !error) fail("a failed parse gave no message");
    if (parsed && error) fail("a successful parse gave a message");
    if (error) {
        // "line N: what"
        std::string m = talvex::to_std_string(error.get());
        size_t digits = m.size() > 5 ? m.find_first_not_of("0123456789", 5) : std::string::npos;
        if (m.compare(0, 5, "line ") != 0 || digits == 5 || digits == std::string::npos || m.compare(digits, 2, ": ") != 0 ||
            m.size() == digits + 2)
            fail("a parse error message is not \"line N: what\"");
    }

    // The same text, ended by a NUL instead of a size.
    std::string terminated(text, size);
    CFRef<CFTypeRef> again(IOCFUnserialize(terminated.c_str(), nullptr, 0, nullptr));
    if (!same(parsed.get(), again.get())) fail("sized and NUL-terminated parses differ");

    // Options are refused.
    if (size > 0) {
        CFRef<CFTypeRef> with_options(IOCFUnserializeWithSize(text, size, nullptr, 1, nullptr));
        if (with_options) fail("options other than 0 were accepted");
    }
    if (!parsed) return 0;

    CFRef<CFDataRef> first(IOCFSerialize(parsed.get(), 0));
    if (!first) fail("a parsed list could not be written back");
    const auto *bytes = reinterpret_cast<const char *>(CFDataGetBytePtr(first.get()));
    auto length = static_cast<size_t>(CFDataGetLength(first.get()));
    if (length == 0 || bytes[length - 1] != '\0' || std::memchr(bytes, '\0', length - 1))
        fail("written text is not ended by exactly one NUL");
    CFRef<CFTypeRef> reread(IOCFUnserializeWithSize(bytes, length, nullptr, 0, nullptr));
    if (!reread) fail("written text does not parse");
    if (!CFEqual(parsed.get(), reread.get())) fail("written text parses to a different list");
    CFRef<CFDataRef> second(IOCFSerialize(reread.get(), 0));
    if (!second || !CFEqual(first.get(), second.get())) fail("writing the list again gives different text");
    return 0;
}
