// mach_error_string: table texts across every system and subsystem, and the
// fallback rules for everything else.
#include <mach/mach.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

// The text as a string, "<null>" for no text.
std::string text(uint32_t code) {
    const char *t = mach_error_string(static_cast<mach_error_t>(code));
    return t != nullptr ? t : "<null>";
}

std::string old_style(int value) {
    const char *t = mach_error_string(value);
    return t != nullptr ? t : "<null>";
}

}  // namespace

TEST(MachError, TableTextsOfEverySystemAndSubsystem) {
    struct Row {
        uint32_t code;
        const char *text;
    };
    const Row rows[] = {
        {0x00000000, "(os/kern) successful"},
        {0x00000005, "(os/kern) failure"},
        {0x0000002f, "(os/kern) remote node down"},
        {0x0000c000, "unknown error code"},
        {0x0000c02a, "(os/unix) protocol type is not availaible"},
        {0x0000c045, "(os/unix) quota on available disk space exceeded"},
        {0x0c000000, "(ipc/send) unknown error"},
        {0x0c00000b, "(ipc/send) message size changed while being copied"},
        {0x0c004008, "(ipc/rcv) port receiver changed or port became enabled"},
        {0x0c008007, "(ipc/mig) user specified array not large enough for return info"},
        {0x10000015, "(ipc/send) out-of-line buffer too large"},
        {0x10004010, "(ipc/rcv) DIPC transport error"},
        {0x10008009, "(ipc/mig) unknown trailer format"},
        {0x08000003, "(server/netname) host not found"},
        {0x08004000, "unknown error code"},
        {0x08004007, "(server/env_mgr) attempting to enter a null port "},
        {0x08008000, "unknown error code"},
        {0x08008003, "(server/execd) fork failed"},
        {0x0800c002, "(server/netmemory) resource shortage"},
        {0x08010000, "unknown error code"},
        {0x08014005, "(server/task_master) invalid action"},
        {0x08018011, "(server/ns) entry not reserved"},
        {0x0801c005, "(server/io) operation rejected under current I/O strategy"},
        {0x08020004, "(server/auth) bad pauthsword"},
        {0x08024017, "(server/us) internal error"},
        {0x08028011, "(server/sunrpc) unknown protocol"},
        {0x0802c005, "(server/object system) bad ipc message format"},
        {0x08030005, "(server/loader) memory region overlap"},
        {0x08034006, "(server/exception) breakpoint exception"},
        {0x0803801d, "(server/unix-signal) user-defined signal 2"},
        {0x0803c00c, "(server/xkernel) bad addr"},
        {0xdc000000, "unknown error code"},
        {0xdc004000, "unknown error code"},
        {0xdc008000, "unknown error code"},
        {0xe0000001, "(iokit/common) invalid - should never be seen"},
        {0xe00002bc, "(iokit/common) general error"},
        {0xe00002c2, "(iokit/common) invalid argument"},
        {0xe00002c7, "(iokit/common) unsupported function"},
        {0xe00002cb, "(iokit/common) ???"},
        {0xe00002f0, "(iokit/common) data was not found"},
    };
    for (const Row &r : rows) EXPECT_EQ(text(r.code), r.text) << std::hex << r.code;
    // The one text that ends in a blank keeps it.
    EXPECT_EQ(text(0x08004007).back(), ' ');
}

TEST(MachError, FallbackTexts) {
    struct Row {
        uint32_t code;
        const char *text;
    };
    const Row rows[] = {
        // Known subsystem, code without a text.
        {0x00000030, "unknown error code"},
        {0x00004000, "unknown error code"},  // os subsystem 1
        {0x00008001, "unknown error code"},  // os subsystem 2
        {0x0000c046, "unknown error code"},
        {0x0c00000c, "unknown error code"},
        {0x1000800a, "unknown error code"},
        {0x0803c00d, "unknown error code"},  // server subsystem 15
        {0xdc000005, "unknown error code"},
        {0xdc008fff, "unknown error code"},
        {0xe0000000, "unknown error code"},
        {0xe0000002, "unknown error code"},
        {0xe00002bb, "unknown error code"},
        {0xe00002f1, "unknown error code"},
        {0xe0004000, "unknown error code"},  // iokit subsystem 1
        {0xe0024001, "unknown error code"},  // iokit subsystem 9
        {0xe3ff8100, "unknown error code"},  // iokit subsystem 0xffe
        {0xe3ffc123, "unknown error code"},  // iokit subsystem 0xfff
        // Subsystem the system does not know.
        {0x00010000, "(operating system/?) unknown subsystem error"},
        {0x03ffc000, "(operating system/?) unknown subsystem error"},
        {0x04000000, "(user space/?) unknown subsystem error"},
        {0x04000001, "(user space/?) unknown subsystem error"},
        {0x04004000, "(user space/?) unknown subsystem error"},
        {0x08040000, "(server/?) unknown subsystem error"},
        {0x0c00c000, "(ipc/?) unknown subsystem error"},
        {0x1000c005, "(ipc/?) unknown subsystem error"},
        {0xdc00c000, "(libkern/?) unknown subsystem error"},
        {0xe0028000, "(iokit/?) unknown subsystem error"},
        {0xe3ff4000, "(iokit/?) unknown subsystem error"},  // 0xffd
        // Systems without texts.
        {0x14000000, "<null>"},
        {0x18000000, "<null>"},
        {0xd8000000, "<null>"},
        {0xe4000000, "<null>"},
        {0xfc000000, "<null>"},
        {0xffffffff, "<null>"},
    };
    for (const Row &r : rows) EXPECT_EQ(text(r.code), r.text) << std::hex << r.code;
}

TEST(MachError, OldStyleCodesMoveToTheirModernPlace) {
    struct Row {
        int value;
        const char *text;
    };
    const Row rows[] = {
        {-100, "(ipc/send) unknown error"},
        {-101, "(ipc/send) invalid memory"},
        {-111, "(ipc/send) message size changed while being copied"},
        {-112, "unknown error code"},
        {-199, "unknown error code"},
        {-200, "(ipc/rcv) unknown error"},
        {-208, "(ipc/rcv) port receiver changed or port became enabled"},
        {-250, "unknown error code"},
        {-300, "(ipc/mig) client type check failure"},
        {-309, "(ipc/mig) unknown trailer format"},
        {-399, "unknown error code"},
        {1000, "(server/netname) name is not yours"},
        {1003, "(server/netname) host not found"},
        {1099, "unknown error code"},
        {1600, "unknown error code"},
        {1607, "(server/env_mgr) attempting to enter a null port "},
        {27600, "unknown error code"},
        {27603, "(server/execd) fork failed"},
        // Just outside the ranges nothing moves.
        {-99, "<null>"},
        {-400, "<null>"},
        {999, "unknown error code"},   // os/kern code 999
        {1100, "unknown error code"},  // os/kern code 1100
        {27700, "unknown error code"},  // 0x6c34: os subsystem 1
    };
    for (const Row &r : rows) EXPECT_EQ(old_style(r.value), r.text) << r.value;
}

TEST(MachError, TaskSelfIsAFixedPort) {
    const mach_port_t self = mach_task_self();
    EXPECT_NE(self, MACH_PORT_NULL);
    EXPECT_EQ(mach_task_self(), self);
}
