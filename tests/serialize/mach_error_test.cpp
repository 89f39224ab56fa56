// mach_error_string: table texts across every system and subsystem, old-style
// codes moved to their modern place, and the fallback rules for everything else.
#include <mach/mach.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

TEST(MachError, TextsAndFallbacks) {
    // Each text with every code that must give it. Negative and small positive
    // values are old-style codes.
    const std::pair<const char *, std::vector<int64_t>> groups[] = {
        {"(os/kern) successful", {0x00000000}},
        {"(os/unix) quota on available disk space exceeded", {0x0000c045}},
        {"(ipc/send) message size changed while being copied", {0x0c00000b, -111}},
        {"(ipc/rcv) port receiver changed or port became enabled", {0x0c004008, -208}},
        {"(ipc/mig) unknown trailer format", {0x10008009, -309}},
        {"(server/netname) host not found", {0x08000003, 1003}},
        // The one text that ends in a blank keeps it.
        {"(server/env_mgr) attempting to enter a null port ", {0x08004007, 1607}},
        {"(server/execd) fork failed", {0x08008003, 27603}},
        {"(server/xkernel) bad addr", {0x0803c00c}},
        {"(iokit/common) invalid - should never be seen", {0xe0000001}},
        // A known subsystem without a text for the code: the edges of each
        // table, and old-style codes inside the moved ranges or just outside
        // them (then os/kern codes).
        {"unknown error code",
         {0x0000c000, 0x00000030, 0x0000c046, 0x0c00000c, 0x1000800a, 0x0803c00d, 0xdc000005, 0xe0000000,
          0xe00002f1, 0xe3ffc123, -112, -199, -399, 1099, 1600, 27600, 999, 27700}},
        // Subsystems the system does not know.
        {"(user space/?) unknown subsystem error", {0x04000001}},
        {"(ipc/?) unknown subsystem error", {0x0c00c000}},
        {"(iokit/?) unknown subsystem error", {0xe0028000}},
        // Systems without texts, and old-style values just outside the moved ranges.
        {"<null>", {0x14000000, 0xe4000000, 0xffffffff, -99, -400}},
    };
    for (const auto &[text, codes] : groups)
        for (int64_t code : codes) {
            const char *t = mach_error_string(static_cast<mach_error_t>(static_cast<uint32_t>(code)));
            EXPECT_EQ(t != nullptr ? std::string(t) : "<null>", text) << std::hex << code;
        }
}
