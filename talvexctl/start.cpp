// start: boots the coprocessor firmware (method 2) with boot options, an
// optional image and an optional start number.
#include "talvexctl.h"

#include <getopt.h>

#include <cstdlib>

namespace {

// Boot flags, the second scalar of the request.
enum : uint32_t {
    kBootNoAutobaud = 0x01,
    kBootNoWaitForReady = 0x02,
    kBootNoTimesync = 0x04,
    kBootNoHeartbeat = 0x08,
    kBootNoConfig = 0x10,
    // --debug: the five flags above; never nopaniccheck.
    kBootDebug = kBootNoAutobaud | kBootNoWaitForReady | kBootNoTimesync | kBootNoHeartbeat | kBootNoConfig,
    kBootNoPanicCheck = 0x20,
};

struct BootOption {
    struct option option;
    uint32_t bits;
};

const BootOption kBootOptions[] = {
    {{"noautobaud", no_argument, nullptr, 'a'}, kBootNoAutobaud},
    {{"nowaitforready", no_argument, nullptr, 'w'}, kBootNoWaitForReady},
    {{"notimesync", no_argument, nullptr, 't'}, kBootNoTimesync},
    {{"noheartbeat", no_argument, nullptr, 'h'}, kBootNoHeartbeat},
    {{"noconfig", no_argument, nullptr, 'c'}, kBootNoConfig},
    {{"debug", no_argument, nullptr, 'd'}, kBootDebug},
    {{"nopaniccheck", no_argument, nullptr, 'p'}, kBootNoPanicCheck},
    {{nullptr, 0, nullptr, 0}, 0},
};

constexpr size_t kBootOptionCount = sizeof kBootOptions / sizeof kBootOptions[0];

// The long-option table getopt_long walks, built from the rows above.
const struct option *long_options() {
    static struct option table[kBootOptionCount];
    for (size_t i = 0; i < kBootOptionCount; ++i) table[i] = kBootOptions[i].option;
    return table;
}

uint32_t bits_for(int letter) {
    for (const BootOption *row = kBootOptions; row->option.name; ++row)
        if (row->option.val == letter) return row->bits;
    return 0;
}

}  // namespace

int TalvexCmdStart(int argc, char *argv[]) {
    uint32_t flags = 0;
    // getopt_long moves the words behind the options; an unknown option is
    // reported by getopt_long itself and otherwise ignored.
    const struct option *options = long_options();
    int letter;
    while ((letter = getopt_long(argc, argv, "awthcdp", options, nullptr)) != -1) flags |= bits_for(letter);
    int words = argc - optind;
    char **word = argv + optind;

    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;

    const char *image = nullptr;
    uint32_t number = 0;
    switch (words) {
    case 0:
        break;
    case 1:
        image = word[0];
        break;
    case 2:
        // A start number always goes with autobaud off.
        image = word[0];
        number = static_cast<uint32_t>(std::atoi(word[1]));
        flags |= kBootNoAutobaud;
        break;
    default:
        // More words are refused as a failed call would be, with the bad-argument code.
        return TALVEX_REPORT_AND_CLOSE(talvex, kIOReturnBadArgument);
    }

    IOReturn result = TalvexLoadFirmware(talvex, image, number, flags);
    return TALVEX_REPORT_AND_CLOSE(talvex, result);
}
