// Object references, service matching, iterators and registry entries.
#include <IOKit/IOCFSerialize.h>
#include <IOKit/IOCFUnserialize.h>
#include <IOKit/IOKitLib.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <string>

#include "cf_ref.h"
#include "objects.h"
#include "transport.h"

namespace talvex::host {

namespace {

// The registry's serialised form of a property list (NUL included); nothing
// when the object cannot be serialised.
std::optional<std::vector<uint8_t>> serialise(CFTypeRef object) {
    if (!object) return std::nullopt;
    CFRef<CFDataRef> data(IOCFSerialize(object, 0));
    if (!data) return std::nullopt;
    const uint8_t *p = CFDataGetBytePtr(data.get());
    return std::vector<uint8_t>(p, p + CFDataGetLength(data.get()));
}

// Parses a serialised property list; null when the bytes are not one.
CFTypeRef unserialise(std::span<const uint8_t> bytes, CFAllocatorRef allocator) {
    if (bytes.empty()) return nullptr;
    return IOCFUnserializeWithSize(reinterpret_cast<const char *>(bytes.data()), bytes.size(), allocator, 0,
                                   nullptr);
}

struct Matched {
    kern_return_t code = KERN_SUCCESS;
    bool offline = false;   // no simulator: the registry is empty
    uint64_t generation = 0;
    std::vector<uint64_t> ids;
};

Matched match(std::span<const uint8_t> matching) {
    Matched m;
    Exchange ex(wire::Op::Match);
    ex.body().blob(matching);
    Sent s = ex.run();
    if (s == Sent::NoSimulator) {
        m.offline = true;
        return m;
    }
    if (s != Sent::Ok) {
        m.code = link_error(s, kIOReturnIPCError);
        return m;
    }
    if (ex.code() != 0) {
        m.code = ex.code();
        return m;
    }
    wire::Reader r = ex.reply();
    m.generation = r.u64();
    uint32_t n = r.u32();
    if (n > r.remaining() / 8) {
        m.code = kIOReturnIPCError;
        return m;
    }
    m.ids.reserve(n);
    for (uint32_t i = 0; i < n; ++i) m.ids.push_back(r.u64());
    if (!r.ok()) m.code = kIOReturnIPCError;
    return m;
}

// The current registry generation; nullopt when the simulator cannot say.
std::optional<uint64_t> current_generation() {
    Exchange ex(wire::Op::Generation);
    if (ex.run() != Sent::Ok || ex.code() != 0) return std::nullopt;
    wire::Reader r = ex.reply();
    uint64_t g = r.u64();
    if (!r.ok()) return std::nullopt;
    return g;
}

kern_return_t entry_info(uint64_t id, std::string &name, std::string &class_name) {
    Exchange ex(wire::Op::EntryInfo);
    ex.body().u64(id);
    Sent s = ex.run();
    if (s != Sent::Ok) return link_error(s, kIOReturnNoDevice);
    if (ex.code() != 0) return ex.code();
    wire::Reader r = ex.reply();
    name = r.str();
    class_name = r.str();
    if (!r.ok()) return kIOReturnIPCError;
    return KERN_SUCCESS;
}

void copy_name(const std::string &text, io_name_t out) {
    size_t n = std::min(text.size(), sizeof(io_name_t) - 1);
    std::memcpy(out, text.data(), n);
    out[n] = '\0';
}

// Releases a matching dictionary when it goes out of scope: the lookups
// consume it whatever they return.
struct Consumed {
    CFTypeRef dict;
    ~Consumed() {
        if (dict) CFRelease(dict);
    }
};

}  // namespace

void finish_notification(Object &removed);   // notification.cpp

}  // namespace talvex::host

using namespace talvex::host;
namespace wire = talvex::wire;

// ---------------------------------------------------------------- objects

kern_return_t IOObjectRelease(io_object_t object) {
    return guarded<kern_return_t>(kIOReturnNoMemory, [&] {
        std::optional<Object> removed;
        kern_return_t kr = Objects::instance().release(object, removed);
        if (removed && removed->kind == Kind::Notification) finish_notification(*removed);
        return kr;
    });
}

kern_return_t IOObjectRetain(io_object_t object) {
    return guarded<kern_return_t>(kIOReturnNoMemory, [&] { return Objects::instance().retain(object); });
}

uint32_t IOObjectGetUserRetainCount(io_object_t object) {
    return guarded<uint32_t>(0, [&] { return Objects::instance().retain_count(object); });
}

boolean_t IOObjectIsEqualTo(io_object_t object, io_object_t another) {
    return guarded<boolean_t>(false, [&] {
        if (object == another) return boolean_t(true);
        uint64_t a = 0, b = 0;
        if (entry_of(object, a) != KERN_SUCCESS || entry_of(another, b) != KERN_SUCCESS) return boolean_t(false);
        return boolean_t(a == b);
    });
}

kern_return_t IOObjectGetClass(io_object_t object, io_name_t class_name) {
    return guarded<kern_return_t>(kIOReturnNoMemory, [&]() -> kern_return_t {
        if (!class_name) return kIOReturnBadArgument;
        std::optional<Kind> kind;
        uint64_t id = 0;
        Objects::instance().peek(object, [&](Object *o) {
            if (o) {
                kind = o->kind;
                id = o->entry;
            }
            return 0;
        });
        if (!kind) return kInvalidHandle;
        switch (*kind) {
        case Kind::Iterator: copy_name("IOUserIterator", class_name); return KERN_SUCCESS;
        case Kind::Connection: copy_name("IOUserClient", class_name); return KERN_SUCCESS;
        case Kind::Notification: copy_name("IOServiceMessageUserNotification", class_name); return KERN_SUCCESS;
        case Kind::Entry: break;
        }
        std::string name, cls;
        kern_return_t kr = entry_info(id, name, cls);
        if (kr == KERN_SUCCESS) copy_name(cls, class_name);
        return kr;
    });
}

// ---------------------------------------------------------------- matching

CFMutableDictionaryRef IOServiceMatching(const char *class_name) {
    return guarded<CFMutableDictionaryRef>(nullptr, [&]() -> CFMutableDictionaryRef {
        if (!class_name) return nullptr;
        auto name = talvex::make_cf_string(class_name);
        if (!name) return nullptr;
        CFMutableDictionaryRef dict = CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                                                &kCFTypeDictionaryValueCallBacks);
        if (dict) CFDictionarySetValue(dict, CFSTR(kIOProviderClassKey), name.get());
        return dict;
    });
}

io_service_t IOServiceGetMatchingService(mach_port_t, CFDictionaryRef matching) {
    Consumed consumed{matching};
    return guarded<io_service_t>(0, [&]() -> io_service_t {
        auto blob = serialise(matching);
        if (!blob) return 0;
        Matched m = match(*blob);
        if (m.code != KERN_SUCCESS || m.ids.empty()) return 0;
        return Objects::instance().add_entry(m.ids.front());
    });
}

kern_return_t IOServiceGetMatchingServices(mach_port_t, CFDictionaryRef matching, io_iterator_t *existing) {
    Consumed consumed{matching};
    return guarded<kern_return_t>(kIOReturnNoMemory, [&]() -> kern_return_t {
        if (!existing) return kIOReturnBadArgument;
        *existing = 0;
        auto blob = serialise(matching);
        if (!blob) return kIOReturnBadArgument;
        Matched m = match(*blob);
        if (m.code != KERN_SUCCESS) return m.code;
        auto state = std::make_unique<IteratorState>();
        state->ids = std::move(m.ids);
        state->generation = m.generation;
        state->offline = m.offline;
        state->matching = std::move(*blob);
        Object o;
        o.kind = Kind::Iterator;
        o.iterator = std::move(state);
        *existing = Objects::instance().add(std::move(o));
        return KERN_SUCCESS;
    });
}

// ---------------------------------------------------------------- iterators

io_object_t IOIteratorNext(io_iterator_t iterator) {
    return guarded<io_object_t>(0, [&]() -> io_object_t {
        std::optional<uint64_t> id;
        Objects::instance().with(iterator, Kind::Iterator, [&](Object &o) {
            IteratorState &it = *o.iterator;
            if (it.next < it.ids.size()) id = it.ids[it.next++];
            return KERN_SUCCESS;
        });
        return id ? Objects::instance().add_entry(*id) : 0;
    });
}

boolean_t IOIteratorIsValid(io_iterator_t iterator) {
    return guarded<boolean_t>(false, [&]() -> boolean_t {
        uint64_t generation = 0;
        bool offline = false;
        kern_return_t kr = Objects::instance().with(iterator, Kind::Iterator, [&](Object &o) {
            generation = o.iterator->generation;
            offline = o.iterator->offline;
            return KERN_SUCCESS;
        });
        if (kr != KERN_SUCCESS) return false;
        if (offline) return true;
        // A registry that can no longer be asked has changed for good.
        auto now = current_generation();
        return now && *now == generation;
    });
}

void IOIteratorReset(io_iterator_t iterator) {
    guarded<int>(0, [&] {
        std::vector<uint8_t> matching;
        kern_return_t kr = Objects::instance().with(iterator, Kind::Iterator, [&](Object &o) {
            o.iterator->next = 0;
            matching = o.iterator->matching;
            return KERN_SUCCESS;
        });
        if (kr != KERN_SUCCESS) return 0;
        // Take a fresh snapshot, valid from now on; if the registry cannot be
        // asked, the old one is only rewound.
        Matched m = match(matching);
        if (m.code != KERN_SUCCESS) return 0;
        Objects::instance().with(iterator, Kind::Iterator, [&](Object &o) {
            o.iterator->ids = std::move(m.ids);
            o.iterator->generation = m.generation;
            o.iterator->offline = m.offline;
            o.iterator->next = 0;
            return KERN_SUCCESS;
        });
        return 0;
    });
}

// ---------------------------------------------------------------- registry entries

CFTypeRef IORegistryEntryCreateCFProperty(io_registry_entry_t entry, CFStringRef key, CFAllocatorRef allocator,
                                          IOOptionBits) {
    return guarded<CFTypeRef>(nullptr, [&]() -> CFTypeRef {
        uint64_t id;
        if (entry_of(entry, id) != KERN_SUCCESS) return nullptr;
        auto name = talvex::utf8_text(key);
        if (!name) return nullptr;
        Exchange ex(wire::Op::GetProperty);
        ex.body().u64(id);
        ex.body().str(*name);
        if (ex.run() != Sent::Ok || ex.code() != 0) return nullptr;
        wire::Reader r = ex.reply();
        auto blob = r.blob();
        if (!r.ok()) return nullptr;
        return unserialise(blob, allocator);
    });
}

kern_return_t IORegistryEntryCreateCFProperties(io_registry_entry_t entry, CFMutableDictionaryRef *properties,
                                                CFAllocatorRef allocator, IOOptionBits) {
    return guarded<kern_return_t>(kIOReturnNoMemory, [&]() -> kern_return_t {
        if (!properties) return kIOReturnBadArgument;
        *properties = nullptr;
        uint64_t id;
        if (kern_return_t kr = entry_of(entry, id)) return kr;
        CFTypeRef parsed = nullptr;
        {
            Exchange ex(wire::Op::GetProperties);
            ex.body().u64(id);
            Sent s = ex.run();
            if (s != Sent::Ok) return link_error(s, kIOReturnNoDevice);
            if (ex.code() != 0) return ex.code();
            wire::Reader r = ex.reply();
            auto blob = r.blob();
            if (!r.ok()) return kIOReturnIPCError;
            parsed = unserialise(blob, allocator);
        }
        talvex::CFRef<CFTypeRef> dict(parsed);
        if (!dict || CFGetTypeID(dict.get()) != CFDictionaryGetTypeID()) return kIOReturnIPCError;
        *properties = CFDictionaryCreateMutableCopy(allocator, 0, static_cast<CFDictionaryRef>(dict.get()));
        if (!*properties) return kIOReturnNoMemory;
        return KERN_SUCCESS;
    });
}

kern_return_t IORegistryEntrySetCFProperty(io_registry_entry_t entry, CFStringRef property_name,
                                           CFTypeRef property) {
    return guarded<kern_return_t>(kIOReturnNoMemory, [&]() -> kern_return_t {
        uint64_t id;
        if (kern_return_t kr = entry_of(entry, id)) return kr;
        auto name = talvex::utf8_text(property_name);
        if (!name) return kIOReturnBadArgument;
        auto blob = serialise(property);
        if (!blob) return kIOReturnBadArgument;
        Exchange ex(wire::Op::SetProperty);
        ex.body().u64(id);
        ex.body().str(*name);
        ex.body().blob(*blob);
        Sent s = ex.run();
        if (s != Sent::Ok) return link_error(s, kIOReturnNoDevice);
        return ex.code();
    });
}

kern_return_t IORegistryEntryGetName(io_registry_entry_t entry, io_name_t name) {
    return guarded<kern_return_t>(kIOReturnNoMemory, [&]() -> kern_return_t {
        if (!name) return kIOReturnBadArgument;
        uint64_t id;
        if (kern_return_t kr = entry_of(entry, id)) return kr;
        std::string entry_name, cls;
        kern_return_t kr = entry_info(id, entry_name, cls);
        if (kr == KERN_SUCCESS) copy_name(entry_name, name);
        return kr;
    });
}

kern_return_t IORegistryEntryGetRegistryEntryID(io_registry_entry_t entry, uint64_t *entry_id) {
    return guarded<kern_return_t>(kIOReturnNoMemory, [&]() -> kern_return_t {
        if (!entry_id) return kIOReturnBadArgument;
        uint64_t id;
        if (kern_return_t kr = entry_of(entry, id)) return kr;
        *entry_id = id;
        return KERN_SUCCESS;
    });
}
