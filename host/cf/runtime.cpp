// Object runtime: retain counts, the class table (built-in types and registered
// classes), polymorphic equality, hashing and descriptions, allocators.
#include "cf_internal.h"

#include <climits>
#include <cstdarg>
#include <cstring>
#include <limits>
#include <mutex>
#include <unordered_set>
#include <utility>

struct __CFAllocator {
    CFRuntimeBase base;
};

namespace cf {
namespace {

__CFAllocator g_allocator_null{immortal_header(kAllocatorTypeID)};
__CFAllocator g_allocator_malloc{immortal_header(kAllocatorTypeID)};

CFStringRef allocator_description(CFTypeRef cf) {
    return make_string(cf == &g_allocator_null ? "<CFAllocator kCFAllocatorNull>" : "<CFAllocator kCFAllocatorMalloc>");
}

const CFRuntimeClass *const g_builtin[kLastBuiltinTypeID + 1] = {
    nullptr,     &kAllocatorClass,  &kStringClass, &kNumberClass, &kBooleanClass,
    &kDataClass, &kArrayClass, &kDictionaryClass, &kErrorClass,  &kURLClass,
};

constexpr size_t kMaxRegisteredClasses = 1024;
std::atomic<const CFRuntimeClass *> g_registered[kMaxRegisteredClasses];
size_t g_registered_count = 0;  // guarded by g_register_lock
std::mutex g_register_lock;

const CFRuntimeClass *class_for(CFTypeID id) {
    if (id >= 1 && id <= kLastBuiltinTypeID) return g_builtin[id];
    if (id >= kFirstRegisteredTypeID && id - kFirstRegisteredTypeID < kMaxRegisteredClasses)
        return g_registered[id - kFirstRegisteredTypeID].load(std::memory_order_acquire);
    return nullptr;
}

std::atomic_ref<uint64_t> count_of(CFTypeRef cf) { return std::atomic_ref<uint64_t>(header(cf)->_cfinfoa); }

void append_default_description(std::string &out, CFTypeRef cf) {
    const CFRuntimeClass *cls = class_for(type_of(cf));
    char address[32];
    std::snprintf(address, sizeof address, "%p", cf);
    out += '<';
    out += cls != nullptr && cls->className != nullptr ? cls->className : "CFType";
    out += ' ';
    out += address;
    out += '>';
}

}  // namespace

const CFRuntimeClass kAllocatorClass = {0, "CFAllocator", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                        allocator_description};

void fatal(const char *function, const char *fmt, ...) {
    std::fprintf(stderr, "CoreFoundation: %s: ", function);
    va_list args;
    va_start(args, fmt);
    std::vfprintf(stderr, fmt, args);
    va_end(args);
    std::fputc('\n', stderr);
    std::abort();
}

const char *type_name(CFTypeID id) {
    const CFRuntimeClass *cls = class_for(id);
    return cls != nullptr && cls->className != nullptr ? cls->className : "CF object";
}

CFStringRef copy_format_description(CFTypeRef cf, CFDictionaryRef format_options) noexcept {
    const CFRuntimeClass *cls = class_for(type_of(cf));
    if (cls != nullptr && cls->copyFormattingDesc != nullptr) {
        if (CFStringRef desc = cls->copyFormattingDesc(cf, format_options)) return desc;
    }
    return CFCopyDescription(cf);
}

void append_indented(std::string &out, std::string_view text) {
    for (char c : text) {
        out += c;
        if (c == '\n') out += "    ";
    }
}

void append_value_description(std::string &out, const void *value, CFStringRef (*copy)(const void *)) {
    if (copy == nullptr) {
        char address[32];
        std::snprintf(address, sizeof address, "<%p>", value);
        out += address;
        return;
    }
    CFStringRef desc = copy(value);
    if (desc == nullptr) {
        out += "(null)";
        return;
    }
    try {
        append_indented(out, string_view_of(desc));
    } catch (...) {
        CFRelease(desc);
        throw;
    }
    CFRelease(desc);
}

}  // namespace cf

using namespace cf;

const CFAllocatorRef kCFAllocatorDefault = nullptr;
const CFAllocatorRef kCFAllocatorNull = &cf::g_allocator_null;
const CFAllocatorRef kCFAllocatorMalloc = &cf::g_allocator_malloc;

CFTypeRef CFRetain(CFTypeRef cf) {
    if (cf == nullptr) fatal("CFRetain", "called with a null object");
    retain_held(cf);
    return cf;
}

void cf::free_object(CFTypeRef cf) {
    const CFRuntimeClass *cls = class_for(type_of(cf));
    if (cls != nullptr && cls->finalize != nullptr) cls->finalize(cf);
    const CFTypeID type = type_of(cf);
    uint8_t block = type == kDictionaryTypeID ? dictionary_block(cf) : type == kDataTypeID ? data_block(cf) : 0;
    free_object_memory(const_cast<void *>(cf), block);
}

void CFRelease(CFTypeRef cf) {
    if (cf == nullptr) fatal("CFRelease", "called with a null object");
    release_held(cf);
}

CFIndex CFGetRetainCount(CFTypeRef cf) {
    if (cf == nullptr) return 0;
    uint64_t count = count_of(cf).load(std::memory_order_relaxed);
    if ((count & kImmortal) != 0) return std::numeric_limits<CFIndex>::max();
    return static_cast<CFIndex>(count);
}

CFTypeID CFGetTypeID(CFTypeRef cf) { return cf == nullptr ? _kCFRuntimeNotATypeID : type_of(cf); }

namespace cf {
namespace {

// Container pairs found equal within one outermost CFEqual on this thread. A
// property list may hold one object in many places (the XML dialect's IDREF
// makes a 2 KB document whose tree has 2^40 paths); compared path by path,
// two such lists take exponential time. Between property lists a mismatch
// ends the whole comparison, so remembering the pairs found equal makes each
// pair of containers cost one comparison. Small comparisons never touch the
// table: it is used only after the first kMemoAfter container pairs.
struct PairHash {
    size_t operator()(const std::pair<CFTypeRef, CFTypeRef> &p) const noexcept {
        auto x = reinterpret_cast<uintptr_t>(p.first), y = reinterpret_cast<uintptr_t>(p.second);
        return std::hash<uintptr_t>()(x * 0x9E3779B97F4A7C15ull ^ y);
    }
};
struct EqualScope {
    int depth = 0;
    size_t pairs = 0;
    std::unordered_set<std::pair<CFTypeRef, CFTypeRef>, PairHash> equal;
};
thread_local EqualScope t_equal;
constexpr size_t kMemoAfter = 256;

bool is_container(CFTypeID id) { return id == kArrayTypeID || id == kDictionaryTypeID; }

}  // namespace
}  // namespace cf

Boolean CFEqual(CFTypeRef a, CFTypeRef b) {
    if (a == b) return true;
    if (a == nullptr || b == nullptr) return false;
    CFTypeID id = type_of(a);
    if (id != type_of(b)) return false;
    const CFRuntimeClass *cls = class_for(id);
    if (cls == nullptr || cls->equal == nullptr) return false;
    if (!is_container(id)) return cls->equal(a, b);

    EqualScope &scope = t_equal;
    bool memo = ++scope.pairs > kMemoAfter;
    if (memo && scope.equal.count({a, b}) != 0) {
        if (scope.depth == 0) scope.pairs = 0;
        return true;
    }
    ++scope.depth;
    Boolean equal = cls->equal(a, b);
    --scope.depth;
    if (equal && memo && scope.depth > 0) {
        try {
            scope.equal.insert({a, b});
        } catch (...) {
            // Only an optimisation: without the entry the pair is compared again.
        }
    }
    if (scope.depth == 0) {
        scope.pairs = 0;
        if (!scope.equal.empty()) scope.equal = {};
    }
    return equal;
}

CFHashCode CFHash(CFTypeRef cf) {
    if (cf == nullptr) return 0;
    const CFRuntimeClass *cls = class_for(type_of(cf));
    if (cls != nullptr && cls->hash != nullptr) return cls->hash(cf);
    return hash_pointer(cf);
}

CFStringRef CFCopyDescription(CFTypeRef cf) {
    if (cf == nullptr) return nullptr;
    const CFRuntimeClass *cls = class_for(type_of(cf));
    if (cls != nullptr && cls->copyDebugDesc != nullptr) {
        if (CFStringRef desc = cls->copyDebugDesc(cf)) return desc;
    }
    if (cls != nullptr && cls->copyFormattingDesc != nullptr) {
        if (CFStringRef desc = cls->copyFormattingDesc(cf, nullptr)) return desc;
    }
    try {
        std::string text;
        append_default_description(text, cf);
        return make_string(text);
    } catch (...) {
        return nullptr;
    }
}

CFStringRef CFCopyTypeIDDescription(CFTypeID type_id) {
    const CFRuntimeClass *cls = class_for(type_id);
    if (cls == nullptr || cls->className == nullptr) return nullptr;
    return CFStringCreateWithCString(nullptr, cls->className, kCFStringEncodingUTF8);
}

void CFShow(CFTypeRef obj) {
    if (obj == nullptr) {
        std::fputs("(null)\n", stderr);
        return;
    }
    CFStringRef desc = CFCopyDescription(obj);
    if (desc == nullptr) return;
    std::string_view text = string_view_of(desc);
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fputc('\n', stderr);
    CFRelease(desc);
}

CFTypeID _CFRuntimeRegisterClass(const CFRuntimeClass *cls) {
    if (cls == nullptr || cls->className == nullptr) return _kCFRuntimeNotATypeID;
    std::lock_guard lock(g_register_lock);
    if (g_registered_count == kMaxRegisteredClasses) return _kCFRuntimeNotATypeID;
    size_t slot = g_registered_count++;
    g_registered[slot].store(cls, std::memory_order_release);
    return kFirstRegisteredTypeID + slot;
}

CFTypeRef _CFRuntimeCreateInstance(CFAllocatorRef, CFTypeID type_id, CFIndex extra_bytes, unsigned char *) {
    if (type_id < kFirstRegisteredTypeID || extra_bytes < 0) return nullptr;
    const CFRuntimeClass *cls = class_for(type_id);
    if (cls == nullptr) return nullptr;
    if (static_cast<size_t>(extra_bytes) > std::numeric_limits<size_t>::max() - sizeof(CFRuntimeBase)) return nullptr;
    void *memory = std::calloc(1, sizeof(CFRuntimeBase) + static_cast<size_t>(extra_bytes));
    if (memory == nullptr) return nullptr;
    auto base = new (memory) CFRuntimeBase{type_id, 1};
    if (cls->init != nullptr) cls->init(base);
    return base;
}
