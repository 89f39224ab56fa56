// The registry's XML dialect, read and written. Whatever the bytes,
// IOCFUnserialize returns a list or null with "line N: what", the same with
// and without a size; a list it returns is written back, reads back equal
// and writes the same text again. An input starting 0x01 (no parse gets
// past it) builds a list instead: IOCFSerialize writes exactly the lists the
// dialect can carry, and what it writes reads back equal.
#include <IOKit/IOCFSerialize.h>
#include <IOKit/IOCFUnserialize.h>

#include <cstdint>
#include <string>

#include "plist_gen.h"

using talvex::CFRef;
using talvex::fuzz::check;

static void write_generated(const uint8_t *data, size_t size) {
    FuzzedDataProvider in(data, size);
    talvex::fuzz::PlistGen gen(in, {"", "key", "IOReportLegend", "<", "&amp;", "]]>", "\xc3\xa9", "\xf0\x9f\x98\x80"});
    CFRef<CFTypeRef> root(in.ConsumeIntegralInRange(0, 7) == 0 ? gen.value() : gen.container());
    CFRef<CFDataRef> written(IOCFSerialize(root, 0));
    if (!gen.dialect_can_carry(root)) return check(!written, "a list the dialect cannot carry was written");
    check(bool(written), "a list the dialect can carry was refused");
    check(!CFRef<CFDataRef>(IOCFSerialize(root, 1)), "options other than 0 were accepted");
    talvex::fuzz::check_written(root, written);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 0 && data[0] == 0x01) {
        write_generated(data + 1, size - 1);
        return 0;
    }
    const char *text = reinterpret_cast<const char *>(data);
    CFStringRef message = nullptr;
    CFRef<CFTypeRef> parsed(IOCFUnserializeWithSize(text, size, nullptr, 0, &message));
    CFRef<CFStringRef> error(message);
    check(!parsed != !error, "a parse gave both a list and a message, or neither");
    if (error) {
        std::string m = talvex::to_std_string(error);
        size_t digits = m.size() > 5 ? m.find_first_not_of("0123456789", 5) : std::string::npos;
        check(m.starts_with("line ") && digits != 5 && digits != std::string::npos && m.compare(digits, 2, ": ") == 0 &&
                  m.size() > digits + 2,
              "a parse error message is not \"line N: what\"");
    }
    std::string terminated(text, size);
    CFRef<CFTypeRef> again(IOCFUnserialize(terminated.c_str(), nullptr, 0, nullptr));
    check(parsed.get() == again.get() || (parsed && again && CFEqual(parsed, again)),
          "sized and NUL-terminated parses differ");
    check(size == 0 || !CFRef<CFTypeRef>(IOCFUnserializeWithSize(text, size, nullptr, 1, nullptr)),
          "options other than 0 were accepted");
    if (!parsed) return 0;

    CFRef<CFDataRef> first(IOCFSerialize(parsed, 0));
    check(bool(first), "a parsed list could not be written back");
    talvex::fuzz::check_written(parsed, first);
    CFRef<CFTypeRef> reread(IOCFUnserializeWithSize(reinterpret_cast<const char *>(CFDataGetBytePtr(first)),
                                                    static_cast<size_t>(CFDataGetLength(first)), nullptr, 0, nullptr));
    CFRef<CFDataRef> second(IOCFSerialize(reread, 0));
    check(second && CFEqual(first, second), "writing the list again gives different text");
    return 0;
}
