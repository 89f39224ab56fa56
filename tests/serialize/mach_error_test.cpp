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
    struct Group {
        const char *text;
        std::vector<int64_t> codes;
    };
    const Group groups[] = {
        {"(os/kern) successful", {0x00000000}},
        {"(os/kern) failure", {0x00000005}},
        {"(os/kern) remote node down", {0x0000002f}},
        {"(os/unix) protocol type is not availaible", {0x0000c02a}},
        {"(os/unix) quota on available disk space exceeded", {0x0000c045}},
        {"(ipc/send) unknown error", {0x0c000000, -100}},
        {"(ipc/send) invalid memory", {-101}},
        {"(ipc/send) message size changed while being copied", {0x0c00000b, -111}},
        {"(ipc/rcv) unknown error", {-200}},
        {"(ipc/rcv) port receiver changed or port became enabled", {0x0c004008, -208}},
        {"(ipc/mig) client type check failure", {-300}},
        {"(ipc/mig) user specified array not large enough for return info", {0x0c008007}},
        {"(ipc/mig) unknown trailer format", {0x10008009, -309}},
        {"(ipc/send) out-of-line buffer too large", {0x10000015}},
        {"(ipc/rcv) DIPC transport error", {0x10004010}},
        {"(server/netname) name is not yours", {1000}},
        {"(server/netname) host not found", {0x08000003, 1003}},
        // The one text that ends in a blank keeps it.
        {"(server/env_mgr) attempting to enter a null port ", {0x08004007, 1607}},
        {"(server/execd) fork failed", {0x08008003, 27603}},
        {"(server/netmemory) resource shortage", {0x0800c002}},
        {"(server/task_master) invalid action", {0x08014005}},
        {"(server/ns) entry not reserved", {0x08018011}},
        {"(server/io) operation rejected under current I/O strategy", {0x0801c005}},
        {"(server/auth) bad pauthsword", {0x08020004}},
        {"(server/us) internal error", {0x08024017}},
        {"(server/sunrpc) unknown protocol", {0x08028011}},
        {"(server/object system) bad ipc message format", {0x0802c005}},
        {"(server/loader) memory region overlap", {0x08030005}},
        {"(server/exception) breakpoint exception", {0x08034006}},
        {"(server/unix-signal) user-defined signal 2", {0x0803801d}},
        {"(server/xkernel) bad addr", {0x0803c00c}},
        {"(iokit/common) invalid - should never be seen", {0xe0000001}},
        {"(iokit/common) general error", {0xe00002bc}},
        {"(iokit/common) invalid argument", {0xe00002c2}},
        {"(iokit/common) unsupported function", {0xe00002c7}},
        {"(iokit/common) ???", {0xe00002cb}},
        {"(iokit/common) data was not found", {0xe00002f0}},
        // A known subsystem without a text for the code: table entries of
        // their own, the edges of each table, subsystems 1 and 2 of os,
        // 15 of server, 1, 9, 0xffe and 0xfff of iokit, and old-style codes
        // inside the moved ranges or just outside them (then os/kern codes).
        {"unknown error code",
         {0x0000c000, 0x08004000, 0x08008000, 0x08010000, 0xdc000000, 0xdc004000, 0xdc008000, 0x00000030,
          0x00004000, 0x00008001, 0x0000c046, 0x0c00000c, 0x1000800a, 0x0803c00d, 0xdc000005, 0xdc008fff,
          0xe0000000, 0xe0000002, 0xe00002bb, 0xe00002f1, 0xe0004000, 0xe0024001, 0xe3ff8100, 0xe3ffc123,
          -112, -199, -250, -399, 1099, 1600, 27600, 999, 1100, 27700}},
        // Subsystems the system does not know.
        {"(operating system/?) unknown subsystem error", {0x00010000, 0x03ffc000}},
        {"(user space/?) unknown subsystem error", {0x04000000, 0x04000001, 0x04004000}},
        {"(server/?) unknown subsystem error", {0x08040000}},
        {"(ipc/?) unknown subsystem error", {0x0c00c000, 0x1000c005}},
        {"(libkern/?) unknown subsystem error", {0xdc00c000}},
        {"(iokit/?) unknown subsystem error", {0xe0028000, 0xe3ff4000}},
        // Systems without texts, and old-style values just outside the moved ranges.
        {"<null>", {0x14000000, 0x18000000, 0xd8000000, 0xe4000000, 0xfc000000, 0xffffffff, -99, -400}},
    };
    for (const Group &g : groups)
        for (int64_t code : g.codes) {
            const char *t = mach_error_string(static_cast<mach_error_t>(static_cast<uint32_t>(code)));
            EXPECT_EQ(t != nullptr ? std::string(t) : "<null>", g.text) << std::hex << code;
        }
}
