// CFDictionary: a table that remembers insertion order.
//
// Entries live in one array in the order their keys were first added; the
// array starts in the dictionary's own allocation (sized when the dictionary
// is made) and moves to a buffer of its own only when it outgrows that room.
// Removal marks an entry dead and the array is compacted once more than half
// of it is dead, so iteration stays proportional to the live count. A small
// dictionary (most have under ten keys) is searched by scanning its entries;
// a larger one gets an open-addressing index (linear probing) of positions in
// the array, kept at most three quarters full counting the tombstones removal
// leaves.
#include "cf_internal.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <span>
#include <vector>

namespace cf {
namespace {

struct Entry {
    const void *key;
    const void *value;
    CFHashCode hash;
    bool live;
};

// Index slot values: empty, tombstone, or entry position + 2.
constexpr uint32_t kEmpty = 0;
constexpr uint32_t kDeleted = 1;
constexpr size_t kMaxEntries = std::numeric_limits<uint32_t>::max() - 2;

// Up to this many live entries a dictionary has no index.
constexpr size_t kScanEntries = 12;
// Room in the dictionary's own allocation when no capacity is asked for.
constexpr size_t kDefaultRoom = 8;

}  // namespace
}  // namespace cf

struct __CFDictionary {
    CFRuntimeBase base;
    CFDictionaryKeyCallBacks key_callbacks;       // all null for plain pointers
    CFDictionaryValueCallBacks value_callbacks;   // all null for plain pointers
    cf::Entry *entries;                           // inline room or a buffer of its own
    size_t count;                                 // entries used, live and dead
    size_t capacity;
    std::vector<uint32_t> slots;                  // empty (scanned) or a power of two
    size_t live;                                  // live entries
    size_t used_slots;                            // slots not empty (entries and tombstones)
    bool own_entries;                             // entries is a buffer to free
    bool is_mutable;
};

namespace cf {
namespace {

using Dict = __CFDictionary;

const void *retain_cf(CFAllocatorRef, const void *value) { return CFRetain(value); }
void release_cf(CFAllocatorRef, const void *value) { CFRelease(value); }
const void *copy_string(CFAllocatorRef, const void *value) {
    return CFStringCreateCopy(nullptr, static_cast<CFStringRef>(value));
}

Dict *as_dictionary(CFTypeRef cf, const char *function) { return cast<Dict>(cf, kDictionaryTypeID, function); }

Dict *as_mutable_dictionary(CFTypeRef cf, const char *function) {
    Dict *d = as_dictionary(cf, function);
    if (d != nullptr && !d->is_mutable) fatal(function, "%p is an immutable dictionary", cf);
    return d;
}

std::span<Entry> entries_of(const Dict *d) { return {d->entries, d->count}; }

CFHashCode hash_key(const Dict *d, const void *key) {
    return d->key_callbacks.hash != nullptr ? d->key_callbacks.hash(key) : hash_pointer(key);
}

bool keys_equal(const Dict *d, const void *a, const void *b) {
    return a == b || (d->key_callbacks.equal != nullptr && d->key_callbacks.equal(a, b));
}

bool values_equal(const Dict *d, const void *a, const void *b) {
    return a == b || (d->value_callbacks.equal != nullptr && d->value_callbacks.equal(a, b));
}

void release_entry(const Dict *d, const Entry &e) {
    if (d->key_callbacks.release != nullptr) d->key_callbacks.release(nullptr, e.key);
    if (d->value_callbacks.release != nullptr) d->value_callbacks.release(nullptr, e.value);
}

size_t home_slot(CFHashCode hash, size_t mask) {
    uint64_t h = hash;
    h ^= h >> 32;
    h *= 0x9e3779b97f4a7c15ull;
    h ^= h >> 29;
    return static_cast<size_t>(h) & mask;
}

constexpr size_t kNotFound = std::numeric_limits<size_t>::max();

// An entry and, for an indexed dictionary, the slot that points at it.
struct Found {
    Entry *entry;
    size_t slot;
};

// The entry holding `key`, or a null entry.
Found find(const Dict *d, const void *key, CFHashCode hash) {
    if (d->slots.empty()) {
        for (Entry &e : entries_of(d))
            if (e.live && e.hash == hash && keys_equal(d, e.key, key)) return {&e, kNotFound};
        return {nullptr, kNotFound};
    }
    size_t mask = d->slots.size() - 1;
    for (size_t pos = home_slot(hash, mask);; pos = (pos + 1) & mask) {
        uint32_t s = d->slots[pos];
        if (s == kEmpty) return {nullptr, kNotFound};
        if (s != kDeleted) {
            Entry &e = d->entries[s - 2];
            if (e.hash == hash && keys_equal(d, e.key, key)) return {&e, pos};
        }
    }
}

// Small dictionaries are looked up by the key's identity first: keys are
// mostly the very objects they were stored with (constant strings), and a
// scan of a few neighbouring entries costs less than hashing the key.
// Identity implies equality, so the result is the same.
constexpr size_t kIdentityScanEntries = 16;

Entry *find_identical(const Dict *d, const void *key) {
    if (d->count > kIdentityScanEntries) return nullptr;
    for (Entry &e : entries_of(d))
        if (e.key == key && e.live) return &e;
    return nullptr;
}

const Entry *find_entry(const Dict *d, const void *key) {
    if (const Entry *e = find_identical(d, key)) return e;
    return find(d, key, hash_key(d, key)).entry;
}

// Makes room for `wanted` entries. Throws std::bad_alloc before changing anything.
void grow(Dict *d, size_t wanted) {
    if (wanted <= d->capacity) return;
    size_t capacity = std::max({wanted, d->capacity * 2, kDefaultRoom});
    if (capacity > std::numeric_limits<size_t>::max() / sizeof(Entry)) throw std::bad_alloc();
    auto buffer = static_cast<Entry *>(std::malloc(capacity * sizeof(Entry)));
    if (buffer == nullptr) throw std::bad_alloc();
    if (d->count != 0) std::memcpy(static_cast<void *>(buffer), d->entries, d->count * sizeof(Entry));
    if (d->own_entries) std::free(d->entries);
    d->entries = buffer;
    d->capacity = capacity;
    d->own_entries = true;
}

// Drops dead entries, keeping the order of the others.
void compact(Dict *d) {
    Entry *end = std::remove_if(d->entries, d->entries + d->count, [](const Entry &e) { return !e.live; });
    d->count = static_cast<size_t>(end - d->entries);
}

// Drops dead entries and makes the index fit `expected` entries (none when
// they are few enough to scan). Throws std::bad_alloc before changing anything.
void rebuild(Dict *d, size_t expected) {
    std::vector<uint32_t> slots;
    if (expected > kScanEntries) {
        size_t capacity = 8;
        while (capacity < expected * 2) capacity *= 2;
        slots.assign(capacity, kEmpty);
    }
    compact(d);
    if (!slots.empty()) {
        size_t mask = slots.size() - 1;
        for (size_t i = 0; i < d->count; ++i) {
            size_t pos = home_slot(d->entries[i].hash, mask);
            while (slots[pos] != kEmpty) pos = (pos + 1) & mask;
            slots[pos] = static_cast<uint32_t>(i + 2);
        }
    }
    d->used_slots = slots.empty() ? 0 : d->count;
    d->slots.swap(slots);
}

// Adds a key known to be absent, retaining key and value through the
// callbacks. Throws std::bad_alloc before changing anything.
void insert_new(Dict *d, const void *key, const void *value, CFHashCode hash) {
    if (d->count >= kMaxEntries) throw std::bad_alloc();
    if (d->slots.empty()) {
        if (d->live + 1 > kScanEntries) {
            rebuild(d, d->live + 1);
        } else if (d->count == d->capacity && d->count != d->live) {
            compact(d);
        }
    } else if ((d->used_slots + 1) * 4 > d->slots.size() * 3) {
        rebuild(d, d->live + 1);
    }
    grow(d, d->count + 1);
    size_t pos = kNotFound;
    if (!d->slots.empty()) {
        size_t mask = d->slots.size() - 1;
        pos = home_slot(hash, mask);
        while (d->slots[pos] != kEmpty && d->slots[pos] != kDeleted) pos = (pos + 1) & mask;
    }
    const void *k = d->key_callbacks.retain != nullptr ? d->key_callbacks.retain(nullptr, key) : key;
    const void *v = d->value_callbacks.retain != nullptr ? d->value_callbacks.retain(nullptr, value) : value;
    d->entries[d->count++] = Entry{k, v, hash, true};
    if (pos != kNotFound) {
        if (d->slots[pos] == kEmpty) ++d->used_slots;
        d->slots[pos] = static_cast<uint32_t>(d->count - 1 + 2);
    }
    ++d->live;
}

void replace_value(Dict *d, Entry &e, const void *value) {
    const void *v = d->value_callbacks.retain != nullptr ? d->value_callbacks.retain(nullptr, value) : value;
    const void *old = e.value;
    e.value = v;
    if (d->value_callbacks.release != nullptr) d->value_callbacks.release(nullptr, old);
}

// A new empty dictionary with room for `room` entries in its own allocation.
Dict *new_dictionary(const CFDictionaryKeyCallBacks *keys, const CFDictionaryValueCallBacks *values,
                     bool is_mutable, size_t room) noexcept {
    if (room > (std::numeric_limits<size_t>::max() - sizeof(Dict)) / sizeof(Entry)) return nullptr;
    void *memory = std::malloc(sizeof(Dict) + room * sizeof(Entry));
    if (memory == nullptr) return nullptr;
    Dict *d = new (memory) Dict();
    d->base = CFRuntimeBase{kDictionaryTypeID, 1};
    d->key_callbacks = keys != nullptr ? *keys : CFDictionaryKeyCallBacks{0, nullptr, nullptr, nullptr, nullptr, nullptr};
    d->value_callbacks = values != nullptr ? *values : CFDictionaryValueCallBacks{0, nullptr, nullptr, nullptr, nullptr};
    d->entries = reinterpret_cast<Entry *>(static_cast<unsigned char *>(memory) + sizeof(Dict));
    d->count = 0;
    d->capacity = room;
    d->live = 0;
    d->used_slots = 0;
    d->own_entries = false;
    d->is_mutable = is_mutable;
    return d;
}

// A new dictionary with the entries (and callbacks) of `source`, in its order.
Dict *copy_dictionary(const Dict *source, size_t capacity, bool is_mutable) noexcept {
    // A mutable copy usually gains a key or two (a copied record gets its
    // sample data): room for them saves moving the entries.
    size_t room = std::max(source->live + (is_mutable ? 2 : 0), capacity);
    Dict *d = new_dictionary(&source->key_callbacks, &source->value_callbacks, is_mutable, room);
    if (d == nullptr) return nullptr;
    try {
        rebuild(d, room);
        for (const Entry &e : entries_of(source))
            if (e.live) insert_new(d, e.key, e.value, e.hash);
    } catch (...) {
        CFRelease(d);
        return nullptr;
    }
    return d;
}

void dictionary_finalize(CFTypeRef cf) {
    auto d = static_cast<Dict *>(const_cast<void *>(cf));
    for (const Entry &e : entries_of(d))
        if (e.live) release_entry(d, e);
    if (d->own_entries) std::free(d->entries);
    destroy_fields<Dict>(cf);
}

// Same keys and equal values, whatever the order.
Boolean dictionary_equal(CFTypeRef x, CFTypeRef y) {
    auto a = static_cast<const Dict *>(x);
    auto b = static_cast<const Dict *>(y);
    if (a->live != b->live) return false;
    for (const Entry &e : entries_of(a)) {
        if (!e.live) continue;
        const Entry *other = find_entry(b, e.key);
        if (other == nullptr || !values_equal(a, e.value, other->value)) return false;
    }
    return true;
}

CFHashCode dictionary_hash(CFTypeRef cf) { return static_cast<const Dict *>(cf)->live; }

CFStringRef dictionary_description(CFTypeRef cf) {
    auto d = static_cast<const Dict *>(cf);
    try {
        std::string text = "{\n";
        for (const Entry &e : entries_of(d)) {
            if (!e.live) continue;
            text += "    ";
            append_value_description(text, e.key, d->key_callbacks.copyDescription);
            text += " = ";
            append_value_description(text, e.value, d->value_callbacks.copyDescription);
            text += ";\n";
        }
        text += '}';
        return make_string(text);
    } catch (...) {
        return nullptr;
    }
}

}  // namespace

const CFRuntimeClass kDictionaryClass = {0,
                                         "CFDictionary",
                                         nullptr,
                                         nullptr,
                                         dictionary_finalize,
                                         dictionary_equal,
                                         dictionary_hash,
                                         nullptr,
                                         dictionary_description};

}  // namespace cf

using namespace cf;

const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks = {0,       retain_cf, release_cf, CFCopyDescription,
                                                                CFEqual, CFHash};
const CFDictionaryKeyCallBacks kCFCopyStringDictionaryKeyCallBacks = {0,       copy_string, release_cf,
                                                                      CFCopyDescription, CFEqual, CFHash};
const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks = {0, retain_cf, release_cf, CFCopyDescription,
                                                                    CFEqual};

CFTypeID CFDictionaryGetTypeID(void) { return kDictionaryTypeID; }

// A key given twice keeps its first position and its last value.
CFDictionaryRef CFDictionaryCreate(CFAllocatorRef, const void **keys, const void **values, CFIndex num_values,
                                   const CFDictionaryKeyCallBacks *key_callbacks,
                                   const CFDictionaryValueCallBacks *value_callbacks) {
    if (num_values < 0 || (num_values > 0 && (keys == nullptr || values == nullptr))) return nullptr;
    auto n = static_cast<size_t>(num_values);
    Dict *d = new_dictionary(key_callbacks, value_callbacks, false, n);
    if (d == nullptr) return nullptr;
    try {
        rebuild(d, n);
        for (size_t i = 0; i < n; ++i) {
            CFHashCode hash = hash_key(d, keys[i]);
            if (Entry *e = find(d, keys[i], hash).entry) {
                replace_value(d, *e, values[i]);
            } else {
                insert_new(d, keys[i], values[i], hash);
            }
        }
    } catch (...) {
        CFRelease(d);
        return nullptr;
    }
    return d;
}

CFDictionaryRef CFDictionaryCreateCopy(CFAllocatorRef, CFDictionaryRef dict) {
    const Dict *d = as_dictionary(dict, "CFDictionaryCreateCopy");
    if (d == nullptr) return nullptr;
    if (!d->is_mutable) return static_cast<CFDictionaryRef>(CFRetain(d));
    return copy_dictionary(d, 0, false);
}

// The capacity is a hint: mutable dictionaries grow as needed.
CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef, CFIndex capacity,
                                                 const CFDictionaryKeyCallBacks *key_callbacks,
                                                 const CFDictionaryValueCallBacks *value_callbacks) {
    size_t room = capacity > 0 ? static_cast<size_t>(capacity) : kDefaultRoom;
    Dict *d = new_dictionary(key_callbacks, value_callbacks, true, room);
    if (d == nullptr || capacity <= 0) return d;
    try {
        rebuild(d, room);
    } catch (...) {
        CFRelease(d);
        return nullptr;
    }
    return d;
}

CFMutableDictionaryRef CFDictionaryCreateMutableCopy(CFAllocatorRef, CFIndex capacity, CFDictionaryRef dict) {
    const Dict *d = as_dictionary(dict, "CFDictionaryCreateMutableCopy");
    if (d == nullptr) return nullptr;
    return copy_dictionary(d, capacity > 0 ? static_cast<size_t>(capacity) : 0, true);
}

CFIndex CFDictionaryGetCount(CFDictionaryRef dict) {
    const Dict *d = as_dictionary(dict, "CFDictionaryGetCount");
    return d == nullptr ? 0 : static_cast<CFIndex>(d->live);
}

const void *CFDictionaryGetValue(CFDictionaryRef dict, const void *key) {
    const Dict *d = as_dictionary(dict, "CFDictionaryGetValue");
    if (d == nullptr) return nullptr;
    const Entry *e = find_entry(d, key);
    return e == nullptr ? nullptr : e->value;
}

Boolean CFDictionaryGetValueIfPresent(CFDictionaryRef dict, const void *key, const void **value) {
    const Dict *d = as_dictionary(dict, "CFDictionaryGetValueIfPresent");
    if (d == nullptr) return false;
    const Entry *e = find_entry(d, key);
    if (e == nullptr) return false;
    if (value != nullptr) *value = e->value;
    return true;
}

Boolean CFDictionaryContainsKey(CFDictionaryRef dict, const void *key) {
    const Dict *d = as_dictionary(dict, "CFDictionaryContainsKey");
    return d != nullptr && find_entry(d, key) != nullptr;
}

void CFDictionaryGetKeysAndValues(CFDictionaryRef dict, const void **keys, const void **values) {
    const Dict *d = as_dictionary(dict, "CFDictionaryGetKeysAndValues");
    if (d == nullptr) return;
    size_t n = 0;
    for (const Entry &e : entries_of(d)) {
        if (!e.live) continue;
        if (keys != nullptr) keys[n] = e.key;
        if (values != nullptr) values[n] = e.value;
        ++n;
    }
}

namespace {

enum class Mode { add, set, replace };

void store(CFMutableDictionaryRef dict, const void *key, const void *value, Mode mode, const char *function) {
    Dict *d = as_mutable_dictionary(dict, function);
    if (d == nullptr) return;
    if (Entry *e = find_identical(d, key)) {
        if (mode != Mode::add) replace_value(d, *e, value);
        return;
    }
    CFHashCode hash = hash_key(d, key);
    if (Entry *e = find(d, key, hash).entry) {
        if (mode != Mode::add) replace_value(d, *e, value);
        return;
    }
    if (mode == Mode::replace) return;
    try {
        insert_new(d, key, value, hash);
    } catch (...) {
        fatal(function, "out of memory");
    }
}

}  // namespace

void CFDictionaryAddValue(CFMutableDictionaryRef dict, const void *key, const void *value) {
    store(dict, key, value, Mode::add, "CFDictionaryAddValue");
}

void CFDictionarySetValue(CFMutableDictionaryRef dict, const void *key, const void *value) {
    store(dict, key, value, Mode::set, "CFDictionarySetValue");
}

void CFDictionaryReplaceValue(CFMutableDictionaryRef dict, const void *key, const void *value) {
    store(dict, key, value, Mode::replace, "CFDictionaryReplaceValue");
}

void CFDictionaryRemoveValue(CFMutableDictionaryRef dict, const void *key) {
    Dict *d = as_mutable_dictionary(dict, "CFDictionaryRemoveValue");
    if (d == nullptr) return;
    Found found = find(d, key, hash_key(d, key));
    if (found.entry == nullptr) return;
    Entry removed = *found.entry;
    found.entry->live = false;
    if (found.slot != kNotFound) d->slots[found.slot] = kDeleted;
    --d->live;
    size_t dead = d->count - d->live;
    if (dead > 16 && dead * 2 > d->count) {
        try {
            rebuild(d, d->live);
        } catch (...) {
            // Compaction only saves time; the table is still whole without it.
        }
    }
    // Released last: a finalizer run by the release sees a consistent dictionary.
    release_entry(d, removed);
}

void CFDictionaryRemoveAllValues(CFMutableDictionaryRef dict) {
    Dict *d = as_mutable_dictionary(dict, "CFDictionaryRemoveAllValues");
    if (d == nullptr) return;
    std::vector<Entry> old;
    try {
        old.assign(d->entries, d->entries + d->count);
    } catch (...) {
        fatal("CFDictionaryRemoveAllValues", "out of memory");
    }
    d->count = 0;
    std::vector<uint32_t>().swap(d->slots);
    d->live = 0;
    d->used_slots = 0;
    for (const Entry &e : old)
        if (e.live) release_entry(d, e);
}

void CFDictionaryApplyFunction(CFDictionaryRef dict, CFDictionaryApplierFunction applier, void *context) {
    const Dict *d = as_dictionary(dict, "CFDictionaryApplyFunction");
    if (d == nullptr || applier == nullptr) return;
    for (size_t i = 0; i < d->count; ++i) {
        Entry e = d->entries[i];
        if (e.live) applier(e.key, e.value, context);
    }
}
