// The platform layer's client side against a hostile peer that answers
// each request as the input says (any codes and values, raw bodies, stale
// replies, interest messages in between, a full simulator's refusal, memory
// of any size, garbage, hanging up) while the client finds, opens and reads
// the coprocessor, calls a method, maps memory and serves an interest on the
// main queue. Nothing crashes or hangs (the peer always answers or hangs
// up), and what the API hands back stays within what the caller offered.
#include <IOKit/IOKitLib.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "main_queue.h"
#include "plist_gen.h"
#include "safe_connect.h"
#include "socket_io.h"
#include "sim_host.h"
#include "transport.h"
#include "wire.h"

namespace {

namespace wire = talvex::wire;
using talvex::host::Transport;

constexpr uint32_t kService = 42, kConnection = 9, kNotification = 5, kTimesync = 0xe3ff8100;

using talvex::fuzz::fail;
using talvex::fuzz::one_of;
using talvex::fuzz::usually;

// The listening socket, in a private directory, that TALVEX_SIM_SOCKET names.
int listener() {
    static int fd = [] {
        std::string path;
        return talvex::fuzz::listen_private(path);
    }();
    return fd;
}

// A well-shaped reply body for a request of kind `op`, with input-chosen values.
std::vector<uint8_t> shaped_body(wire::Op op, FuzzedDataProvider &in) {
    wire::Writer w;
    switch (op) {
    case wire::Op::Hello: w.u32(usually(in, wire::kProtocolVersion)); break;
    case wire::Op::Match: {
        w.u64(in.ConsumeIntegral<uint8_t>());
        uint32_t n = in.ConsumeIntegralInRange<uint32_t>(0, 3);
        w.u32(usually(in, n));
        for (uint32_t i = 0; i < n; ++i) w.u64(usually(in, kService));
        break;
    }
    case wire::Op::Generation: w.u64(in.ConsumeIntegral<uint8_t>()); break;
    case wire::Op::EntryInfo:
        w.str(in.ConsumeRandomLengthString(200));
        w.str(in.ConsumeBool() ? std::string("ZantraTalvexProcessor") : in.ConsumeRandomLengthString(200));
        break;
    case wire::Op::GetProperty:
    case wire::Op::GetProperties: {
        static const char *const kLists[] = {
            "<integer size=\"64\">0x10002</integer>", "<dict><key>talvex-state</key><integer size=\"32\">0x1</integer></dict>",
            "<string>booted</string>", "<dict><key>a</key><array><true/><data>AAEC</data></array></dict>", "<dict>"};
        std::string text = in.ConsumeBool() ? one_of(in, kLists) : in.ConsumeRandomLengthString(300);
        std::vector<uint8_t> bytes(text.begin(), text.end());
        if (in.ConsumeBool()) bytes.push_back(0);
        w.blob(bytes);
        break;
    }
    case wire::Op::Open: w.u32(usually(in, kConnection)); break;
    case wire::Op::AddInterest: w.u32(usually(in, kNotification)); break;
    case wire::Op::Call: {
        uint32_t n = in.ConsumeIntegralInRange<uint32_t>(0, 20);
        w.u32(usually(in, n));
        for (uint32_t i = 0; i < n; ++i) w.u64(in.ConsumeIntegral<uint64_t>());
        w.blob(in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 600)));
        break;
    }
    case wire::Op::Map: w.u64(in.ConsumeBool() ? in.ConsumeIntegralInRange<uint64_t>(0, 1 << 16) : in.ConsumeIntegral<uint64_t>()); break;
    default: break;
    }
    return w.take();
}

// An interest message. A time-synchronisation message (whose argument the
// monitor reads as a 16-byte record) comes with data or with none, never
// with a bare value: that would be a pointer of the peer's choosing.
std::vector<uint8_t> event(FuzzedDataProvider &in) {
    wire::Writer w;
    w.u32(in.ConsumeIntegralInRange(0, 3) ? kNotification : in.ConsumeIntegral<uint32_t>());
    w.u64(kService);
    uint32_t type = in.ConsumeBool() ? kTimesync : in.ConsumeBool() ? 0xe0000130u : in.ConsumeIntegral<uint32_t>();
    uint8_t kind = in.ConsumeIntegralInRange<uint8_t>(0, 3);
    if (type == kTimesync && kind == 1) type = 0xe0000130u;
    w.u32(type);
    w.u8(kind);
    if (kind == 1) w.u64(in.ConsumeIntegral<uint64_t>());
    if (kind == 2) w.blob(in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 300)));
    if (in.ConsumeIntegralInRange(0, 7) == 0) w.bytes(in.ConsumeBytes<uint8_t>(8));   // trailing bytes
    return wire::make_event(w.data());
}

// Answers one request as the input says; false once it has hung up.
bool answer(int sock, wire::Op op, uint32_t seq, FuzzedDataProvider &in) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    auto send = [&](const std::vector<uint8_t> &frame) { return wire::send_before(sock, frame, deadline); };
    auto code = [&]() -> int32_t {
        if (in.ConsumeIntegralInRange(0, 3)) return 0;
        return in.ConsumeBool() ? static_cast<int32_t>(kIOReturnNotReady) : in.ConsumeIntegral<int32_t>();
    };
    switch (in.ConsumeIntegralInRange(0, 15)) {
    case 0: return send(wire::make_reply(op, seq, code(), in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 64))));
    case 1:   // messages first
        for (int i = in.ConsumeIntegralInRange(1, 3); i > 0; --i)
            if (!send(event(in))) return false;
        break;
    case 2:   // a reply to something else first
        if (!send(wire::make_reply(op, seq + in.ConsumeIntegralInRange<uint32_t>(1, 3), 0, shaped_body(op, in)))) return false;
        break;
    case 3:   // the refusal of a full simulator, which then hangs up
        send(wire::make_reply(wire::Op::Hello, 0, kIOReturnNoResources, {}));
        return false;
    case 4: return send(wire::make_reply(static_cast<wire::Op>(in.ConsumeIntegral<uint16_t>()), seq, code(), {}));
    case 5: {   // whatever bytes, then nothing more
        send(in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 64)));
        return false;
    }
    case 6: return false;
    case 7:
        if (op == wire::Op::Map) {   // memory whose size may disagree with the reply's
            int fd = memfd_create("client_fuzz", MFD_CLOEXEC);
            bool ok = fd >= 0 && ftruncate(fd, in.ConsumeIntegralInRange<off_t>(0, 1 << 16)) == 0 &&
                      wire::send_with_descriptor_before(sock, wire::make_reply(op, seq, code(), shaped_body(op, in)), fd,
                                                         deadline);
            if (fd >= 0) close(fd);
            return ok;
        }
        break;
    default: break;
    }
    return send(wire::make_reply(op, seq, code(), shaped_body(op, in)));
}

// The peer: accepts the client's one connection and answers until the input
// or the connection ends (then it hangs up), or the client is done.
void play(std::vector<uint8_t> script, const std::atomic<bool> &done) {
    FuzzedDataProvider in(script.data(), script.size());
    int sock = -1;
    while (sock < 0 && !done) {
        pollfd p{listener(), POLLIN, 0};
        if (poll(&p, 1, 20) > 0) sock = accept4(listener(), nullptr, nullptr, SOCK_CLOEXEC);
    }
    if (sock < 0) return;
    while (in.remaining_bytes() > 0) {
        auto request = wire::read_frame_before(sock, std::chrono::steady_clock::now() + std::chrono::seconds(3), wire::kMaxFrame);
        if (!request) break;
        wire::Reader r(*request);
        auto op = static_cast<wire::Op>(r.u16());
        r.u16();
        if (!answer(sock, op, r.u32(), in)) break;
    }
    close(sock);
}

// Reads what the monitor reads: a time-synchronisation message's 16-byte record.
void count_message(void *refcon, io_service_t, uint32_t type, void *argument) {
    ++*static_cast<int *>(refcon);
    if (type == kTimesync && argument) {
        uint8_t record[16];
        std::memcpy(record, argument, sizeof record);
        *static_cast<int *>(refcon) += record[0] & record[15] & 1;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider in(data, size);
    // The client's choices first; the rest of the input is the peer's script.
    const uint32_t selector = in.ConsumeIntegralInRange<uint32_t>(0, 40);
    std::vector<uint64_t> scalars(in.ConsumeIntegralInRange<size_t>(0, 4), in.ConsumeIntegral<uint8_t>());
    std::vector<uint8_t> input = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 16));
    uint32_t scalar_capacity = in.ConsumeIntegralInRange<uint32_t>(0, 20);
    size_t struct_capacity = in.ConsumeIntegralInRange<size_t>(0, 300);
    const uint32_t memory_type = in.ConsumeIntegralInRange<uint32_t>(0, 2);
    const int turns = in.ConsumeIntegralInRange(0, 3);

    listener();
    Transport::instance().reset();
    std::atomic<bool> done{false};
    std::thread peer(play, in.ConsumeRemainingBytes<uint8_t>(), std::cref(done));

    io_service_t service = IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching("ZantraTalvexProcessor"));
    if (service) {
        io_name_t name;
        IOObjectGetClass(service, name);
        if (CFTypeRef state = IORegistryEntryCreateCFProperty(service, CFSTR("talvex-state"), nullptr, 0)) CFRelease(state);
        io_connect_t connection = 0;
        if (IOServiceOpen(service, mach_task_self(), 0, &connection) == KERN_SUCCESS) {
            if (!connection) fail("an open succeeded without a connection");
            std::vector<uint64_t> scalars_out(scalar_capacity + 1, 0xa5);
            std::vector<uint8_t> struct_out(struct_capacity + 1, 0xa5);
            uint32_t scalar_count = scalar_capacity;
            size_t struct_size = struct_capacity;
            if (IOConnectCallMethod(connection, selector, scalars.data(), static_cast<uint32_t>(scalars.size()),
                                    input.data(), input.size(), scalars_out.data(), &scalar_count, struct_out.data(),
                                    &struct_size) == KERN_SUCCESS &&
                (scalar_count > scalar_capacity || struct_size > struct_capacity || scalars_out.back() != 0xa5 ||
                 struct_out.back() != 0xa5))
                fail("a call handed back more than the caller offered");
            mach_vm_address_t address = 0;
            mach_vm_size_t mapped = 0;
            if (IOConnectMapMemory(connection, memory_type, mach_task_self(), &address, &mapped, kIOMapAnywhere) ==
                KERN_SUCCESS) {
                if (!address || !mapped) fail("a mapping succeeded without memory");
                volatile const uint8_t *bytes = reinterpret_cast<const uint8_t *>(address);
                (void)bytes[0];
                (void)bytes[mapped - 1];
                IOConnectUnmapMemory(connection, memory_type, mach_task_self(), address);
            }
        }
        IONotificationPortRef port = IONotificationPortCreate(kIOMainPortDefault);
        IONotificationPortSetDispatchQueue(port, dispatch_get_main_queue());
        io_object_t notification = 0;
        int delivered = 0;
        if (IOServiceAddInterestNotification(port, service, kIOGeneralInterest, count_message, &delivered,
                                             &notification) == KERN_SUCCESS) {
            for (int i = 0; i < turns; ++i) talvex::host::serve_main_queue(0);
            IOObjectRelease(notification);
        }
        IONotificationPortDestroy(port);
        if (connection) IOServiceClose(connection);
        IOObjectRelease(service);
    }
    done = true;
    Transport::instance().reset();   // the peer sees the end of the stream
    peer.join();
    return 0;
}
