// User clients: open and close, external-method calls, shared memory.
#include <IOKit/IOKitLib.h>

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

#include <owned_fd.h>

#include "objects.h"
#include "transport.h"

namespace talvex::host {
namespace {

// A method hands back at most this many scalars, whatever room the caller offers.
constexpr uint32_t kMaxScalarOutputs = 16;

// The simulator's connection ID behind an open connection handle.
kern_return_t open_connection(io_connect_t handle, uint32_t &id) {
    return Objects::instance().with(handle, Kind::Connection, [&](Object &o) -> kern_return_t {
        if (!o.open) return kIOReturnNotOpen;
        id = o.connection;
        return KERN_SUCCESS;
    });
}

// Memory mapped into this process, kept until unmapped or the process ends.
struct Mapping {
    uint32_t connection;
    uint32_t type;
    uintptr_t address;
    size_t size;
};

struct Mappings {
    std::mutex mu;
    std::vector<Mapping> list;
};

Mappings &mappings() {
    static Mappings *m = new Mappings;   // never destroyed: mappings live until exit
    return *m;
}

}  // namespace
}  // namespace talvex::host

using namespace talvex::host;
namespace wire = talvex::wire;

kern_return_t IOServiceOpen(io_service_t service, task_port_t, uint32_t type, io_connect_t *connect) {
    return guarded<kern_return_t>(kIOReturnNoMemory, [&]() -> kern_return_t {
        if (!connect) return kIOReturnBadArgument;
        *connect = 0;
        uint64_t entry = 0;
        uint32_t id = 0;
        auto write_type = [&](wire::Writer &b) { b.u32(type); };
        if (kern_return_t kr = make_on_entry(service, wire::Op::Open, write_type, entry, id)) return kr;
        Object o;
        o.kind = Kind::Connection;
        o.entry = entry;
        o.connection = id;
        o.open = true;
        *connect = Objects::instance().add(std::move(o));
        return KERN_SUCCESS;
    });
}

kern_return_t IOServiceClose(io_connect_t connect) {
    return guarded<kern_return_t>(kIOReturnNoMemory, [&]() -> kern_return_t {
        uint32_t id = 0;
        bool was_open = false;
        kern_return_t kr = Objects::instance().with(connect, Kind::Connection, [&](Object &o) {
            id = o.connection;
            was_open = o.open;
            o.open = false;
            return KERN_SUCCESS;
        });
        if (kr != KERN_SUCCESS) return kr;
        kern_return_t result = kIOReturnNotOpen;
        if (was_open) {
            // The simulator closes any connection of ours it is asked to, so
            // the close is sent without waiting for its answer: one round trip
            // less for every command, and a stalled simulator cannot hold a
            // closing process up.
            Exchange ex(wire::Op::Close);
            ex.body().u32(id);
            Sent s = ex.post();
            result = s == Sent::Ok ? KERN_SUCCESS : link_error(s, kIOReturnNoDevice);
        }
        // Closing also gives up the caller's reference to the connection.
        std::optional<Object> removed;
        Objects::instance().release(connect, removed);
        return result;
    });
}

kern_return_t IOConnectCallMethod(io_connect_t connection, uint32_t selector, const uint64_t *input,
                                  uint32_t input_count, const void *input_struct, size_t input_struct_count,
                                  uint64_t *output, uint32_t *output_count, void *output_struct,
                                  size_t *output_struct_count) {
    return guarded<kern_return_t>(kIOReturnNoMemory, [&]() -> kern_return_t {
        uint32_t id;
        if (kern_return_t kr = open_connection(connection, id)) return kr;
        if ((input_count && !input) || (input_struct_count && !input_struct)) return kIOReturnBadArgument;
        if (input_struct_count > wire::kMaxFrame || input_count > wire::kMaxFrame / 8)
            return kIOReturnMessageTooLarge;
        // What the caller can take: a missing buffer holds nothing.
        uint32_t scalar_capacity = output && output_count ? std::min(*output_count, kMaxScalarOutputs) : 0;
        size_t struct_capacity = output_struct && output_struct_count ? *output_struct_count : 0;
        uint8_t flags = static_cast<uint8_t>((output_struct ? 1 : 0) | (input_struct ? 2 : 0));

        Exchange ex(wire::Op::Call);
        wire::Writer &b = ex.body();
        b.u32(id);
        b.u32(selector);
        b.u32(input_count);
        for (uint32_t i = 0; i < input_count; ++i) b.u64(input[i]);
        b.blob({static_cast<const uint8_t *>(input_struct), input_struct_count});
        b.u32(scalar_capacity);
        b.u64(struct_capacity);
        b.u8(flags);
        Sent s = ex.run();
        if (s != Sent::Ok) return link_error(s, kIOReturnNotOpen);
        // A failed method hands nothing back: the caller's buffers and counts
        // stay as they were.
        if (ex.code() != 0) return ex.code();
        wire::Reader r = ex.reply();
        uint32_t n = r.u32();
        auto scalars = r.bytes(static_cast<size_t>(n) * 8);
        auto structure = r.blob();
        if (!r.ok() || (n && scalars.empty())) return kIOReturnIPCError;

        uint32_t scalars_out = std::min(n, scalar_capacity);
        for (uint32_t i = 0; i < scalars_out; ++i) output[i] = wire::load_le64(scalars.data() + 8 * i);
        if (output_count) *output_count = scalars_out;
        size_t struct_out = std::min(structure.size(), struct_capacity);
        if (struct_out) std::memcpy(output_struct, structure.data(), struct_out);
        if (output_struct_count) *output_struct_count = struct_out;
        return KERN_SUCCESS;
    });
}

kern_return_t IOConnectCallScalarMethod(io_connect_t connection, uint32_t selector, const uint64_t *input,
                                        uint32_t input_count, uint64_t *output, uint32_t *output_count) {
    return IOConnectCallMethod(connection, selector, input, input_count, nullptr, 0, output, output_count, nullptr,
                               nullptr);
}

kern_return_t IOConnectCallStructMethod(io_connect_t connection, uint32_t selector, const void *input_struct,
                                        size_t input_struct_count, void *output_struct,
                                        size_t *output_struct_count) {
    return IOConnectCallMethod(connection, selector, nullptr, 0, input_struct, input_struct_count, nullptr, nullptr,
                               output_struct, output_struct_count);
}

kern_return_t IOConnectMapMemory(io_connect_t connect, uint32_t memory_type, task_port_t,
                                 mach_vm_address_t *at_address, mach_vm_size_t *of_size, IOOptionBits options) {
    return guarded<kern_return_t>(kIOReturnNoMemory, [&]() -> kern_return_t {
        if (!at_address || !of_size) return kIOReturnBadArgument;
        uint32_t id;
        if (kern_return_t kr = open_connection(connect, id)) return kr;
        uint64_t size;
        wire::OwnedFd fd;
        {
            Exchange ex(wire::Op::Map);
            ex.body().u32(id);
            ex.body().u32(memory_type);
            ex.body().u32(options);
            Sent s = ex.run();
            if (s != Sent::Ok) return link_error(s, kIOReturnNotOpen);
            if (ex.code() != 0) return ex.code();
            wire::Reader r = ex.reply();
            size = r.u64();
            fd.reset(ex.take_fd());
            if (!r.ok() || !fd) return kIOReturnIPCError;
        }
        // Map no more than the memory holds: touching past its end would fault.
        struct stat st {};
        if (size == 0 || fstat(fd.get(), &st) != 0 || static_cast<uint64_t>(st.st_size) < size) return kIOReturnVMError;
        bool anywhere = (options & kIOMapAnywhere) || *at_address == 0;
        void *want = anywhere ? nullptr : reinterpret_cast<void *>(static_cast<uintptr_t>(*at_address));
        void *p = mmap(want, static_cast<size_t>(size), PROT_READ, MAP_SHARED | (anywhere ? 0 : MAP_FIXED_NOREPLACE),
                       fd.get(), 0);
        if (p == MAP_FAILED) return kIOReturnVMError;
        if (!anywhere && p != want) {
            munmap(p, static_cast<size_t>(size));
            return kIOReturnVMError;
        }
        try {
            std::lock_guard lk(mappings().mu);
            mappings().list.push_back({id, memory_type, reinterpret_cast<uintptr_t>(p), static_cast<size_t>(size)});
        } catch (...) {
            munmap(p, static_cast<size_t>(size));
            return kIOReturnNoMemory;
        }
        *at_address = reinterpret_cast<uintptr_t>(p);
        *of_size = size;
        return KERN_SUCCESS;
    });
}

kern_return_t IOConnectUnmapMemory(io_connect_t connect, uint32_t memory_type, task_port_t,
                                   mach_vm_address_t at_address) {
    return guarded<kern_return_t>(kIOReturnNoMemory, [&]() -> kern_return_t {
        uint32_t id = 0;
        kern_return_t kr = Objects::instance().with(connect, Kind::Connection, [&](Object &o) {
            id = o.connection;
            return KERN_SUCCESS;
        });
        if (kr != KERN_SUCCESS) return kr;
        std::lock_guard lk(mappings().mu);
        auto &list = mappings().list;
        auto it = std::find_if(list.begin(), list.end(), [&](const Mapping &m) {
            return m.connection == id && m.type == memory_type && m.address == at_address;
        });
        if (it == list.end()) return kIOReturnBadArgument;
        munmap(reinterpret_cast<void *>(it->address), it->size);
        list.erase(it);
        return KERN_SUCCESS;
    });
}
