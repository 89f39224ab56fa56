// Serialise-unserialise round trips of generated property lists.
//
// The generator builds a list from the input and knows what the registry's
// XML dialect can carry of it. IOCFSerialize must write exactly those lists
// (and refuse the rest with null), and what it writes must read back equal
// to the list it came from.
#include <IOKit/IOCFSerialize.h>
#include <IOKit/IOCFUnserialize.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "plist_gen.h"

using talvex::fuzz::PlistGen;
using talvex::CFRef;

namespace {

[[noreturn]] void fail(const char *what) {
    std::fprintf(stderr, "plist_roundtrip_fuzz: %s\n", what);
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider in(data, size);
    PlistGen gen(in, {"", "key", "IOReportLegend", "<", "&amp;", "]]>", "\xc3\xa9", "\xf0\x9f\x98\x80"});
    bool leaf_root = in.ConsumeIntegralInRange(0, 7) == 0;
    CFRef<CFTypeRef> root(leaf_root ? gen.value() : gen.container());
    bool carried = gen.dialect_can_carry(root.get());

    CFRef<CFDataRef> written(IOCFSerialize(root.get(), 0));
    if (!carried) {
        if (written) fail("a list the dialect cannot carry was written");
        return 0;
    }
    if (!written) fail("a list the dialect can carry was refused");
    CFRef<CFDataRef> with_options(IOCFSerialize(root.get(), 1));
    if (with_options) fail("options other than 0 were accepted");

    const auto *bytes = reinterpret_cast<const char *>(CFDataGetBytePtr(written.get()));
    auto length = static_cast<size_t>(CFDataGetLength(written.get()));
    if (length == 0 || bytes[length - 1] != '\0' || std::memchr(bytes, '\0', length - 1))
        fail("written text is not ended by exactly one NUL");
    CFStringRef message = nullptr;
    CFRef<CFTypeRef> back(IOCFUnserializeWithSize(bytes, length, nullptr, 0, &message));
    CFRef<CFStringRef> error(message);
    if (!back) {
        std::fprintf(stderr, "parse error: %s\ntext: %s\n", talvex::to_std_string(error.get()).c_str(), bytes);
        fail("written text does not parse");
    }
    if (!CFEqual(root.get(), back.get())) {
        std::fprintf(stderr, "text: %s\n", bytes);
        fail("written text parses to a different list");
    }
    CFRef<CFTypeRef> terminated(IOCFUnserialize(bytes, nullptr, 0, nullptr));
    if (!terminated || !CFEqual(root.get(), terminated.get())) fail("NUL-terminated parse differs");
    return 0;
}
