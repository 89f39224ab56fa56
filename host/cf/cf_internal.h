// Internal layout and helpers of the CoreFoundation subset. Only host/cf/ sources
// that implement the object types include this; everything else goes through the
// public header.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
#define TALVEX_KNOWS_SINGLE_THREADED 1
#endif

// A string: NUL-terminated UTF-8 text. Constant strings point at static or
// never-freed text and have capacity 0.
struct __CFString {
    CFRuntimeBase base;
    char *bytes;
    size_t length;        // bytes, without the NUL
    size_t capacity;      // bytes allocated, with the NUL; 0 when the text is not owned
    CFIndex utf16_length;
    bool ascii;
    bool is_mutable;
    bool hash_kept;       // `hash` holds the text's hash (constant strings, which are looked up most)
    CFHashCode hash;
};

namespace cf {

// ---------------------------------------------------------------- type IDs
// Built-in types have fixed IDs; registered classes get IDs from
// kFirstRegisteredTypeID upwards.
enum : CFTypeID {
    kAllocatorTypeID = 1,
    kStringTypeID,
    kNumberTypeID,
    kBooleanTypeID,
    kDataTypeID,
    kArrayTypeID,
    kDictionaryTypeID,
    kErrorTypeID,
    kURLTypeID,
    kLastBuiltinTypeID = kURLTypeID,
    kFirstRegisteredTypeID = 16,
};

// The header's _cfinfoa holds the retain count; this bit marks an immortal
// object (constant strings, booleans, allocators) whose count never changes.
inline constexpr uint64_t kImmortal = uint64_t{1} << 63;

constexpr CFRuntimeBase immortal_header(CFTypeID id) { return CFRuntimeBase{id, kImmortal}; }

// The class records of the built-in types (each defined beside its type).
extern const CFRuntimeClass kAllocatorClass;
extern const CFRuntimeClass kStringClass;
extern const CFRuntimeClass kNumberClass;
extern const CFRuntimeClass kBooleanClass;
extern const CFRuntimeClass kDataClass;
extern const CFRuntimeClass kArrayClass;
extern const CFRuntimeClass kDictionaryClass;
extern const CFRuntimeClass kErrorClass;
extern const CFRuntimeClass kURLClass;

// ---------------------------------------------------------------- misuse
// Misuse of the API (wrong type, out-of-range index, mutating an immutable
// object, retaining null) is a programming error: report it and abort, as the
// platform does.
[[noreturn]] void fatal(const char *function, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

const char *type_name(CFTypeID id);

inline CFRuntimeBase *header(CFTypeRef cf) { return static_cast<CFRuntimeBase *>(const_cast<void *>(cf)); }
inline CFTypeID type_of(CFTypeRef cf) { return static_cast<CFTypeID>(header(cf)->_cfisa); }

// The object behind `cf` as a T, or null for null. Any other type is misuse.
template <class T>
T *cast(CFTypeRef cf, CFTypeID id, const char *function) {
    if (cf == nullptr) return nullptr;
    if (type_of(cf) != id) fatal(function, "%p is not a %s", cf, type_name(id));
    return static_cast<T *>(const_cast<void *>(cf));
}
// Allocates a built-in object of type T (whose first member is the
// CFRuntimeBase `base`), constructed from args, retain count 1. Null when
// memory runs out. The object is freed by CFRelease after the class's
// finalize, which runs ~T().
template <class T, class... Args>
T *make_object(CFTypeID id, Args &&...args) noexcept {
    static_assert(std::is_standard_layout_v<T>, "objects start with their header");
    void *memory = std::malloc(sizeof(T));
    if (memory == nullptr) return nullptr;
    T *object;
    try {
        object = new (memory) T(std::forward<Args>(args)...);
    } catch (...) {
        std::free(memory);
        return nullptr;
    }
    object->base._cfisa = id;
    object->base._cfinfoa = 1;
    return object;
}

// ---------------------------------------------------------------- kept blocks
// Dictionaries and data objects are made and freed by the hundred thousand in
// a sampling step, in blocks of a few hundred bytes. Each thread keeps the
// blocks it frees and hands them out again oldest first, so one step's
// objects take the blocks of the step before in the order those were made,
// and the C library neither searches its bins for each block nor gives the
// memory back to the system and faults it in again every step. Blocks go in
// classes of kBlockUnit bytes; larger objects use malloc. A thread keeps up
// to kKeptBytes, room for the records of three samples or deltas of 100,000
// channels: the limit is there for threads that free what others made, and
// is better not reached, as blocks freed past it leave holes between the
// kept ones that strew the objects made next. A thread's blocks are freed
// when it ends.
inline constexpr size_t kBlockUnit = 16;
inline constexpr size_t kBlockClasses = 33;   // class c: blocks of c * kBlockUnit bytes, up to 512
inline constexpr size_t kKeptBytes = size_t{128} << 20;
// The class of the block an object of `bytes` takes; 0 when it uses malloc.
constexpr uint8_t block_class(size_t bytes) noexcept {
    size_t c = (bytes + kBlockUnit - 1) / kBlockUnit;
    return c < kBlockClasses ? static_cast<uint8_t>(c) : 0;
}
void *take_block(uint8_t block_class) noexcept;
void give_block(void *block, uint8_t block_class) noexcept;
// Bytes this thread keeps now.
size_t kept_block_bytes() noexcept;
// Memory for an object of `bytes`, and what frees it: `block` is its class (0: malloc's).
inline void *object_memory(size_t bytes, uint8_t &block) noexcept {
    block = block_class(bytes);
    return block != 0 ? take_block(block) : std::malloc(bytes);
}
inline void free_object_memory(void *memory, uint8_t block) noexcept {
    if (block != 0) give_block(memory, block);
    else std::free(memory);
}
// The block class of a dictionary's and of a data object's memory.
uint8_t dictionary_block(CFTypeRef cf) noexcept;
uint8_t data_block(CFTypeRef cf) noexcept;

// Runs the class's finalize and frees an object whose last reference went.
void free_object(CFTypeRef cf);

// CFRetain and CFRelease for an object a container already holds (never
// null): containers holding values with the standard callbacks update the
// counts here rather than through the callbacks' function pointers.
//
// While the C library's flag says that this thread is the only one in the
// process (it is cleared before a second thread starts), nothing else can
// touch a count, so it is updated without the atomic read-modify-write: a
// sampling step updates dozens of counts per channel.
inline bool one_thread() noexcept {
#if TALVEX_KNOWS_SINGLE_THREADED
    return __libc_single_threaded != 0;
#else
    return false;
#endif
}
inline void retain_held(CFTypeRef cf) noexcept {
    uint64_t &raw = header(cf)->_cfinfoa;
    if (one_thread()) {
        if ((raw & kImmortal) == 0) ++raw;
        return;
    }
    std::atomic_ref<uint64_t> count(raw);
    if ((count.load(std::memory_order_relaxed) & kImmortal) == 0) count.fetch_add(1, std::memory_order_relaxed);
}
inline void release_held(CFTypeRef cf) {
    uint64_t &raw = header(cf)->_cfinfoa;
    if (one_thread()) {
        if ((raw & kImmortal) != 0) return;
        if (raw == 0) fatal("CFRelease", "%p was already freed", cf);
        if (--raw == 0) free_object(cf);
        return;
    }
    std::atomic_ref<uint64_t> count(raw);
    uint64_t current = count.load(std::memory_order_relaxed);
    if ((current & kImmortal) != 0) return;
    if (current == 0) fatal("CFRelease", "%p was already freed", cf);
    if (count.fetch_sub(1, std::memory_order_acq_rel) == 1) free_object(cf);
}

template <class T>
void destroy_fields(CFTypeRef cf) {
    static_cast<T *>(const_cast<void *>(cf))->~T();
}

// ---------------------------------------------------------------- text
struct TextInfo {
    bool valid;             // well-formed UTF-8 (no overlongs, surrogates or values past U+10FFFF)
    bool ascii;             // every byte below 0x80
    CFIndex utf16_length;   // UTF-16 units of the valid prefix
};
TextInfo scan_utf8(std::string_view text) noexcept;
// `text` with every byte that does not start a well-formed UTF-8 sequence taken
// as a Latin-1 character, so nothing is lost and the result is valid UTF-8.
std::string sanitize_utf8(std::string_view text);
// Appends the UTF-8 form of code point `c` (U+FFFD for a value that is not one).
void append_code_point(std::string &out, uint32_t c);

// The hash of a string's text and of data's bytes (FNV-1a).
constexpr CFHashCode hash_text(std::string_view text) noexcept {
    uint64_t h = 0xcbf29ce484222325ull;
    for (char c : text) {
        h ^= static_cast<unsigned char>(c);
        h *= 0x100000001b3ull;
    }
    return static_cast<CFHashCode>(h);
}

// A static, immortal string for ASCII text known at compile time.
consteval __CFString constant_string(const char *ascii) {
    size_t n = 0;
    while (ascii[n] != 0) ++n;
    return __CFString{immortal_header(kStringTypeID), const_cast<char *>(ascii), n, 0, static_cast<CFIndex>(n), true,
                      false, true, hash_text(std::string_view(ascii, n))};
}

// ---------------------------------------------------------------- shared helpers
// A new immutable string holding `utf8`, which must be valid UTF-8; null when
// memory runs out.
CFStringRef make_string(std::string_view utf8) noexcept;
// The text of a string (valid UTF-8, not copied).
std::string_view string_view_of(CFStringRef str) noexcept;
// The description %@ inserts: the class's formatting description when it has
// one, else CFCopyDescription. Null when memory runs out.
CFStringRef copy_format_description(CFTypeRef cf, CFDictionaryRef format_options) noexcept;
// Appends UTF-8 text to a mutable string (the format engine's output).
void append_to_string(CFMutableStringRef str, std::string_view text);
// Appends `text`, indenting every line after the first by four spaces, so a
// nested container's description lines up under its parent.
void append_indented(std::string &out, std::string_view text);
// The description of a value held with container callbacks.
void append_value_description(std::string &out, const void *value, CFStringRef (*copy)(const void *));

// 64-bit FNV-1a.
inline CFHashCode hash_bytes(const void *bytes, size_t length) noexcept {
    return hash_text(std::string_view(static_cast<const char *>(bytes), length));
}

inline CFHashCode hash_pointer(const void *p) noexcept {
    auto v = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(p));
    v ^= v >> 33;
    v *= 0xff51afd7ed558ccdull;
    v ^= v >> 33;
    return static_cast<CFHashCode>(v);
}

// Asks for the header of each object ahead of retaining or releasing them.
// A retain or release is a locked update of the count, which waits for the
// object's line before anything after it may load; with containers of
// thousands of objects that are no longer in cache those misses would be
// paid one after another. Fetching the headers first lets them overlap.
inline void prefetch_objects(const void *const *objects, size_t count) noexcept {
    for (size_t i = 0; i < count; ++i)
        if (objects[i] != nullptr) __builtin_prefetch(objects[i], 1);
}

// How far ahead a walk over a container's objects fetches: enough to cover
// a miss, few enough that what was fetched is still there when it is used.
inline constexpr size_t kPrefetchWindow = 8;

// Visits objects[0..count) in order, each after the header of the object
// kPrefetchWindow places further on was asked for.
template <class F>
void visit_prefetched(const void *const *objects, size_t count, F &&visit) {
    prefetch_objects(objects, count < kPrefetchWindow ? count : kPrefetchWindow);
    for (size_t i = 0; i < count; ++i) {
        if (i + kPrefetchWindow < count) prefetch_objects(&objects[i + kPrefetchWindow], 1);
        visit(i);
    }
}

// Fetches the headers of the first objects a container holds with the
// standard callbacks (nothing for other types), for a caller about to
// release it; the container's own release fetches the rest as it goes.
void prefetch_array_contents(CFTypeRef cf) noexcept;
void prefetch_dictionary_contents(CFTypeRef cf) noexcept;
inline void prefetch_contents(CFTypeRef cf) noexcept {
    if (cf == nullptr) return;
    if (type_of(cf) == kDictionaryTypeID) prefetch_dictionary_contents(cf);
    else if (type_of(cf) == kArrayTypeID) prefetch_array_contents(cf);
}

// True when [location, location+length) lies within [0, count).
inline bool range_ok(CFRange range, CFIndex count) {
    return range.location >= 0 && range.length >= 0 && range.location <= count && range.length <= count - range.location;
}

}  // namespace cf
