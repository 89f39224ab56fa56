// Serialise-unserialise round trips of generated property lists.
//
// The generator builds a list from the input and knows what the registry's
// XML dialect can carry of it. IOCFSerialize must write exactly those lists
// (and refuse the rest with null), and what it writes must read back equal
// to the list it came from.
#include <IOKit/IOCFSerialize.h>

#include <cstdint>

#include "plist_gen.h"

using talvex::CFRef;
using talvex::fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider in(data, size);
    talvex::fuzz::PlistGen gen(in, {"", "key", "IOReportLegend", "<", "&amp;", "]]>", "\xc3\xa9", "\xf0\x9f\x98\x80"});
    bool leaf_root = in.ConsumeIntegralInRange(0, 7) == 0;
    CFRef<CFTypeRef> root(leaf_root ? gen.value() : gen.container());
    CFRef<CFDataRef> written(IOCFSerialize(root, 0));
    if (!gen.dialect_can_carry(root)) {
        check(!written, "a list the dialect cannot carry was written");
        return 0;
    }
    check(bool(written), "a list the dialect can carry was refused");
    check(!CFRef<CFDataRef>(IOCFSerialize(root, 1)), "options other than 0 were accepted");
    talvex::fuzz::check_written(root, written);
    return 0;
}
