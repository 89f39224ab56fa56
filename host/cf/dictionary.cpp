// CFDictionary: a table that remembers insertion order.
//
// Entries live in the order their keys were first added, in arrays that start
// in the dictionary's own allocation (sized when the dictionary is made) and
// move to a buffer of their own only when they outgrow that room.
// Removal marks an entry dead and the array is compacted once more than half
// of it is dead, so iteration stays proportional to the live count. A small
// dictionary (most have under ten keys) is searched by scanning its entries;
// a larger one gets an open-addressing index (linear probing) of positions in
// the array, kept at most three quarters full counting the tombstones removal
// leaves.
//
// Copying a dictionary of standard objects does not copy its entries: the
// copy shares them with an immutable dictionary, and its own arrays hold only
// what differs: its values for keys the shared dictionary holds too (the
// entries that shadow those keys) and the keys it added. Its contents are the
// shared entries in their order, shadowed ones with the copy's values, then
// the added keys in theirs. A sample copies a record per channel twice a step
// and changes one key of each; sharing spares the retains, the releases and
// the bytes of every other key.
//
// What is shared never changes and never shares in turn: it is an immutable
// dictionary, or a mutable one that has been copied and so is frozen: its
// entries stay as they are, and its later changes go to an overlay, a
// dictionary it owns that shares its frozen entries like any copy and holds
// its changes. Nothing is allocated when a dictionary is first copied, so a
// long-lived body is never made among short-lived copies (which would leave
// the heap full of holes once they are freed). Removing a key from a sharing
// dictionary first gives it all its entries.
#include "cf_internal.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

namespace cf {
namespace {

// Index slot values: empty, tombstone, or entry position + 2.
constexpr uint32_t kEmpty = 0;
constexpr uint32_t kDeleted = 1;
constexpr size_t kMaxEntries = std::numeric_limits<uint32_t>::max() - 2;

// Up to this many live entries a dictionary has no index.
constexpr size_t kScanEntries = 12;
// Room in the dictionary's own allocation when no capacity is asked for.
constexpr size_t kDefaultRoom = 8;
// Copies of a dictionary with fewer entries than this copy them.
constexpr size_t kShareEntries = 4;

// The key of a removed entry: an address no caller can pass.
const char g_removed = 0;
const void *const kRemoved = &g_removed;

}  // namespace
}  // namespace cf

// The entries are three parallel arrays (keys, values, key hashes), so a
// lookup by identity reads the keys alone, mostly one cache line, and the
// fields a scanning lookup needs fill the header's first line.
//
// A sample holds a dictionary per channel, so every byte here is paid once
// per channel in each sample and delta: counts are 32 bits wide (a
// dictionary holds fewer than 2^32 entries), a stored key hash is the
// 32-bit fold of the key's hash code, and the index is a bare array.
struct __CFDictionary {
    CFRuntimeBase base;
    const void **keys;                            // kRemoved marks a dead entry
    const void **values;
    uint32_t *hashes;                             // folded, see fold_hash
    uint32_t count;                               // entries used, live and dead
    uint32_t live;                                // live entries
    // The standard callbacks (and the all-null ones of plain pointers) are
    // shared; other callbacks are a copy the dictionary owns.
    const CFDictionaryKeyCallBacks *key_callbacks;
    const CFDictionaryValueCallBacks *value_callbacks;
    uint32_t *slots;                              // null (scanned) or slot_count slots
    uint32_t slot_count;                          // 0 or a power of two
    uint32_t used_slots;                          // slots not empty (entries and tombstones)
    uint32_t capacity;
    uint32_t shadowing;                           // entries whose keys `shared` holds too
    bool own_key_callbacks;
    bool own_value_callbacks;
    bool own_entries;                             // the arrays are a buffer to free
    bool is_mutable;
    // With `shares`, `shared` holds the entries this dictionary shares (see
    // the top of this file), retained unless `borrowed` (an overlay's, whose
    // owner is what it shares). Without, `shared` is null or the overlay of
    // a frozen dictionary, retained.
    bool shares;
    bool borrowed;
    bool frozen;                                  // copies share the arrays above
    uint8_t block;                                // the memory's block class (see take_block)
    const __CFDictionary *shared;
};

namespace cf {
namespace {

using Dict = __CFDictionary;

constexpr size_t kEntryBytes = 2 * sizeof(const void *) + sizeof(uint32_t);

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

bool is_live(const Dict *d, size_t i) { return d->keys[i] != kRemoved; }

// What an entry keeps of its key's hash code: both halves folded together.
uint32_t fold_hash(CFHashCode hash) {
    auto h = static_cast<uint64_t>(hash);
    return static_cast<uint32_t>(h ^ (h >> 32));
}

uint32_t hash_key(const Dict *d, const void *key) {
    return fold_hash(d->key_callbacks->hash != nullptr ? d->key_callbacks->hash(key) : hash_pointer(key));
}

bool keys_equal(const Dict *d, const void *a, const void *b) {
    return a == b || (d->key_callbacks->equal != nullptr && d->key_callbacks->equal(a, b));
}

bool values_equal(const Dict *d, const void *a, const void *b) {
    return a == b || (d->value_callbacks->equal != nullptr && d->value_callbacks->equal(a, b));
}

void release_entry(const Dict *d, const void *key, const void *value) {
    if (d->key_callbacks->release != nullptr) d->key_callbacks->release(nullptr, key);
    if (d->value_callbacks->release != nullptr) d->value_callbacks->release(nullptr, value);
}

size_t home_slot(uint32_t hash, size_t mask) {
    uint64_t h = hash;
    h *= 0x9e3779b97f4a7c15ull;
    h ^= h >> 29;
    return static_cast<size_t>(h) & mask;
}

constexpr size_t kNotFound = std::numeric_limits<size_t>::max();

// An entry's position and, for an indexed dictionary, the slot that points
// at it; kNotFound when absent.
struct Found {
    size_t entry;
    size_t slot;
};

Found find(const Dict *d, const void *key, uint32_t hash) {
    if (d->slots == nullptr) {
        for (size_t i = 0; i < d->count; ++i)
            if (is_live(d, i) && d->hashes[i] == hash && keys_equal(d, d->keys[i], key)) return {i, kNotFound};
        return {kNotFound, kNotFound};
    }
    size_t mask = d->slot_count - 1;
    for (size_t pos = home_slot(hash, mask);; pos = (pos + 1) & mask) {
        uint32_t s = d->slots[pos];
        if (s == kEmpty) return {kNotFound, kNotFound};
        if (s != kDeleted) {
            size_t i = s - 2;
            if (d->hashes[i] == hash && keys_equal(d, d->keys[i], key)) return {i, pos};
        }
    }
}

// Small dictionaries are looked up by the key's identity first: keys are
// mostly the very objects they were stored with (constant strings), and a
// scan of a few neighbouring keys costs less than hashing the key.
// Identity implies equality, so the result is the same.
constexpr size_t kIdentityScanEntries = 16;

size_t find_identical(const Dict *d, const void *key) {
    if (d->count > kIdentityScanEntries) return kNotFound;
    for (size_t i = 0; i < d->count; ++i)
        if (d->keys[i] == key) return i;   // a removed entry's key is never a caller's
    return kNotFound;
}

// The dictionary that holds what `d` holds now: its overlay if it has one.
const Dict *view(const Dict *d) { return !d->shares && d->shared != nullptr ? d->shared : d; }

size_t live_count(const Dict *d) {
    return d->shares ? size_t{d->shared->live} + d->live - d->shadowing : d->live;
}

// The value for `key`, found among the dictionary's own entries or the ones
// it shares; false when absent. Both are searched by identity before the key
// is hashed: an entry here that shadows a shared key holds the same key
// object, so once all of this dictionary's keys have been compared, an
// identical shared key is known not to be shadowed.
bool lookup(const Dict *d, const void *key, const void **value) {
    const Dict *s = d->shares ? d->shared : nullptr;
    const Dict *holder = d;
    size_t e = find_identical(d, key);
    if (e == kNotFound && s != nullptr && d->count <= kIdentityScanEntries) e = find_identical(holder = s, key);
    if (e == kNotFound) {
        uint32_t hash = hash_key(d, key);
        e = find(holder = d, key, hash).entry;
        if (e == kNotFound && s != nullptr) e = find(holder = s, key, hash).entry;
    }
    if (e == kNotFound) return false;
    *value = holder->values[e];
    return true;
}

// Calls visit(holder, i) for each entry in order, where holder->keys[i] and
// holder->values[i] are the entry and holder is the dictionary or the one it
// shares.
template <class F>
void for_each_entry(const Dict *d, F &&visit) {
    const Dict *s = d->shares ? d->shared : nullptr;
    for (size_t i = 0; s != nullptr && i < s->count; ++i) {
        if (!is_live(s, i)) continue;
        size_t e = d->shadowing == 0 ? kNotFound : find(d, s->keys[i], s->hashes[i]).entry;
        if (e == kNotFound) visit(s, i);
        else visit(d, e);
    }
    for (size_t i = 0; i < d->count; ++i) {
        if (!is_live(d, i)) continue;
        if (s != nullptr && d->shadowing != 0 && find(s, d->keys[i], d->hashes[i]).entry != kNotFound) continue;
        visit(d, i);
    }
}

// Points the arrays into `memory`, which has room for `capacity` entries.
void place_arrays(Dict *d, void *memory, size_t capacity) {
    auto bytes = static_cast<unsigned char *>(memory);
    d->keys = reinterpret_cast<const void **>(bytes);
    d->values = reinterpret_cast<const void **>(bytes + capacity * sizeof(const void *));
    d->hashes = reinterpret_cast<uint32_t *>(bytes + 2 * capacity * sizeof(const void *));
    d->capacity = static_cast<uint32_t>(capacity);
}

// Makes room for `wanted` entries. Throws std::bad_alloc before changing anything.
void grow(Dict *d, size_t wanted) {
    if (wanted <= d->capacity) return;
    size_t capacity = std::min(std::max({wanted, size_t{d->capacity} * 2, kDefaultRoom}), kMaxEntries);
    if (capacity > std::numeric_limits<size_t>::max() / kEntryBytes) throw std::bad_alloc();
    void *buffer = std::malloc(capacity * kEntryBytes);
    if (buffer == nullptr) throw std::bad_alloc();
    const void **old_keys = d->keys;
    const void **old_values = d->values;
    uint32_t *old_hashes = d->hashes;
    place_arrays(d, buffer, capacity);
    if (d->count != 0) {
        std::memcpy(static_cast<void *>(d->keys), old_keys, d->count * sizeof(const void *));
        std::memcpy(static_cast<void *>(d->values), old_values, d->count * sizeof(const void *));
        std::memcpy(d->hashes, old_hashes, d->count * sizeof *old_hashes);
    }
    if (d->own_entries) std::free(static_cast<void *>(old_keys));
    d->own_entries = true;
}

// Drops dead entries, keeping the order of the others.
void compact(Dict *d) {
    size_t kept = 0;
    for (size_t i = 0; i < d->count; ++i) {
        if (!is_live(d, i)) continue;
        d->keys[kept] = d->keys[i];
        d->values[kept] = d->values[i];
        d->hashes[kept] = d->hashes[i];
        ++kept;
    }
    d->count = static_cast<uint32_t>(kept);
}

// Drops dead entries and makes the index fit `expected` entries (none when
// they are few enough to scan). Throws std::bad_alloc before changing anything.
void rebuild(Dict *d, size_t expected) {
    uint32_t *slots = nullptr;
    size_t slot_count = 0;
    if (expected > kScanEntries) {
        slot_count = 8;
        while (slot_count < expected * 2) slot_count *= 2;
        if (slot_count > std::numeric_limits<uint32_t>::max()) throw std::bad_alloc();
        slots = static_cast<uint32_t *>(std::calloc(slot_count, sizeof *slots));   // all kEmpty
        if (slots == nullptr) throw std::bad_alloc();
    }
    compact(d);
    size_t mask = slot_count - 1;
    for (size_t i = 0; slots != nullptr && i < d->count; ++i) {
        size_t pos = home_slot(d->hashes[i], mask);
        while (slots[pos] != kEmpty) pos = (pos + 1) & mask;
        slots[pos] = static_cast<uint32_t>(i + 2);
    }
    std::free(d->slots);
    d->slots = slots;
    d->slot_count = static_cast<uint32_t>(slot_count);
    d->used_slots = slots == nullptr ? 0 : d->count;
}

// A new dictionary with its index made for `room` entries, or null (the
// dictionary released) when there is no memory for the index.
Dict *indexed_or_null(Dict *d, size_t room) noexcept {
    try {
        rebuild(d, room);
    } catch (...) {
        CFRelease(d);
        return nullptr;
    }
    return d;
}

// Adds a key known to be absent, retaining key and value through the
// callbacks. Throws std::bad_alloc before changing anything.
void insert_new(Dict *d, const void *key, const void *value, uint32_t hash) {
    if (d->count >= kMaxEntries) throw std::bad_alloc();
    if (d->slots == nullptr) {
        if (d->live + 1 > kScanEntries) {
            rebuild(d, d->live + 1);
        } else if (d->count == d->capacity && d->count != d->live) {
            compact(d);
        }
    } else if ((size_t{d->used_slots} + 1) * 4 > size_t{d->slot_count} * 3) {
        rebuild(d, d->live + 1);
    }
    grow(d, size_t{d->count} + 1);
    size_t pos = kNotFound;
    if (d->slots != nullptr) {
        size_t mask = d->slot_count - 1;
        pos = home_slot(hash, mask);
        while (d->slots[pos] != kEmpty && d->slots[pos] != kDeleted) pos = (pos + 1) & mask;
    }
    const void *k = d->key_callbacks->retain != nullptr ? d->key_callbacks->retain(nullptr, key) : key;
    const void *v = d->value_callbacks->retain != nullptr ? d->value_callbacks->retain(nullptr, value) : value;
    uint32_t i = d->count++;
    d->keys[i] = k;
    d->values[i] = v;
    d->hashes[i] = hash;
    if (pos != kNotFound) {
        if (d->slots[pos] == kEmpty) ++d->used_slots;
        d->slots[pos] = i + 2;
    }
    ++d->live;
}

void replace_value(Dict *d, size_t i, const void *value) {
    const void *v = d->value_callbacks->retain != nullptr ? d->value_callbacks->retain(nullptr, value) : value;
    const void *old = d->values[i];
    d->values[i] = v;
    if (d->value_callbacks->release != nullptr) d->value_callbacks->release(nullptr, old);
}

constexpr CFDictionaryKeyCallBacks kPlainKeys = {{0, nullptr, nullptr, nullptr, nullptr}, nullptr};
constexpr CFDictionaryValueCallBacks kPlainValues = {0, nullptr, nullptr, nullptr, nullptr};

bool same_callbacks(const CFDictionaryKeyCallBacks &a, const CFDictionaryKeyCallBacks &b) {
    return a.version == b.version && a.retain == b.retain && a.release == b.release &&
           a.copyDescription == b.copyDescription && a.equal == b.equal && a.hash == b.hash;
}
bool same_callbacks(const CFDictionaryValueCallBacks &a, const CFDictionaryValueCallBacks &b) {
    return a.version == b.version && a.retain == b.retain && a.release == b.release &&
           a.copyDescription == b.copyDescription && a.equal == b.equal;
}

// The shared callbacks equal to `cb`, or a new copy (owned) when none is;
// null when memory runs out.
template <class CallBacks, size_t N>
const CallBacks *intern_callbacks(const CallBacks *cb, const CallBacks *const (&shared)[N], bool *owned) noexcept {
    *owned = false;
    for (const CallBacks *s : shared)
        if (cb == s || same_callbacks(*cb, *s)) return s;
    auto copy = static_cast<CallBacks *>(std::malloc(sizeof(CallBacks)));
    if (copy == nullptr) return nullptr;
    *copy = *cb;
    *owned = true;
    return copy;
}

void free_callbacks(Dict *d) {
    if (d->own_key_callbacks) std::free(const_cast<CFDictionaryKeyCallBacks *>(d->key_callbacks));
    if (d->own_value_callbacks) std::free(const_cast<CFDictionaryValueCallBacks *>(d->value_callbacks));
}

// A new empty dictionary with room for `room` entries in its own allocation.
Dict *new_dictionary(const CFDictionaryKeyCallBacks *keys, const CFDictionaryValueCallBacks *values,
                     bool is_mutable, size_t room) noexcept {
    static const CFDictionaryKeyCallBacks *const kSharedKeys[] = {&kCFTypeDictionaryKeyCallBacks,
                                                                  &kCFCopyStringDictionaryKeyCallBacks, &kPlainKeys};
    static const CFDictionaryValueCallBacks *const kSharedValues[] = {&kCFTypeDictionaryValueCallBacks, &kPlainValues};
    if (room > kMaxEntries || room > (std::numeric_limits<size_t>::max() - sizeof(Dict)) / kEntryBytes) return nullptr;
    uint8_t block = 0;
    void *memory = object_memory(sizeof(Dict) + room * kEntryBytes, block);
    if (memory == nullptr) return nullptr;
    Dict *d = new (memory) Dict();
    d->block = block;
    d->base = CFRuntimeBase{kDictionaryTypeID, 1};
    d->key_callbacks = intern_callbacks(keys != nullptr ? keys : &kPlainKeys, kSharedKeys, &d->own_key_callbacks);
    d->value_callbacks =
        intern_callbacks(values != nullptr ? values : &kPlainValues, kSharedValues, &d->own_value_callbacks);
    if (d->key_callbacks == nullptr || d->value_callbacks == nullptr) {
        if (d->key_callbacks == nullptr) d->own_key_callbacks = false;
        if (d->value_callbacks == nullptr) d->own_value_callbacks = false;
        free_callbacks(d);
        d->~Dict();
        free_object_memory(memory, block);
        return nullptr;
    }
    place_arrays(d, static_cast<unsigned char *>(memory) + sizeof(Dict), room);
    d->count = 0;
    d->live = 0;
    d->used_slots = 0;
    d->own_entries = false;
    d->is_mutable = is_mutable;
    return d;
}

// The dictionary a copy of `source` (a view) shares entries with, or null
// when the copy gets entries of its own. A mutable source is frozen: copies
// on several threads at once may each mark it so.
const Dict *shared_for_copy(const Dict *source) noexcept {
    if (source->shares) return source->shared;
    if (source->key_callbacks != &kCFTypeDictionaryKeyCallBacks ||
        source->value_callbacks != &kCFTypeDictionaryValueCallBacks || source->live < kShareEntries)
        return nullptr;
    if (source->is_mutable)
        std::atomic_ref<bool>(const_cast<Dict *>(source)->frozen).store(true, std::memory_order_relaxed);
    return source;
}

// A new dictionary with the entries (and callbacks) of `source`, in its order.
Dict *copy_dictionary(const Dict *source, size_t capacity, bool is_mutable) noexcept {
    source = view(source);
    const Dict *shared = shared_for_copy(source);
    // Whether the copy takes over the source's own arrays: all of them, or
    // what it has beside the entries it shares.
    const bool own = shared == nullptr || source->shares;
    // A mutable copy usually gains a key (a copied record gets its sample
    // data): room for it saves moving the entries.
    size_t room = std::max((own ? size_t{source->live} : 0) + (is_mutable ? 1 : 0), capacity);
    Dict *d = new_dictionary(source->key_callbacks, source->value_callbacks, is_mutable, room);
    if (d == nullptr) return nullptr;
    if (shared != nullptr) {
        retain_held(shared);
        d->shared = shared;
        d->shares = true;
        d->shadowing = source->shares ? source->shadowing : 0;
    }
    if (!own) return room > kScanEntries ? indexed_or_null(d, room) : d;
    // The live entries go over in order into the room made for them, each
    // retained through the callbacks (the standard ones update the counts
    // directly); the index, when the copy needs one, is built afterwards.
    const auto key_retain = d->key_callbacks->retain;
    const auto value_retain = d->value_callbacks->retain;
    const void **keys = d->keys;
    const void **values = d->values;
    uint32_t *hashes = d->hashes;
    const void *const *source_keys = source->keys;
    const void *const *source_values = source->values;
    if (key_retain == retain_cf && value_retain == retain_cf && source->live == source->count) {
        // The common case, objects with the standard callbacks and no
        // removed entries: the three arrays go over as they are, then the
        // counts are updated in one pass.
        const uint32_t count = source->count;
        std::memcpy(static_cast<void *>(keys), source_keys, count * sizeof *keys);
        std::memcpy(static_cast<void *>(values), source_values, count * sizeof *values);
        std::memcpy(hashes, source->hashes, count * sizeof *hashes);
        visit_prefetched(values, count, [&](size_t i) {
            retain_held(keys[i]);
            retain_held(values[i]);
        });
        d->count = d->live = count;
        return room > kScanEntries ? indexed_or_null(d, room) : d;
    }
    uint32_t n = 0;
    auto copy_entry = [&](size_t i) {
        const void *key = source_keys[i];
        if (key == kRemoved) return;
        const void *value = source_values[i];
        if (key_retain == retain_cf) retain_held(key);
        else if (key_retain != nullptr) key = key_retain(nullptr, key);
        if (value_retain == retain_cf) retain_held(value);
        else if (value_retain != nullptr) value = value_retain(nullptr, value);
        keys[n] = key;
        values[n] = value;
        hashes[n] = source->hashes[i];
        ++n;
    };
    if (value_retain == retain_cf) {
        visit_prefetched(source_values, source->count, copy_entry);
    } else {
        for (size_t i = 0; i < source->count; ++i) copy_entry(i);
    }
    d->count = d->live = n;
    return room > kScanEntries ? indexed_or_null(d, room) : d;
}

void dictionary_finalize(CFTypeRef cf) {
    auto d = static_cast<Dict *>(const_cast<void *>(cf));
    const void **keys = d->keys;
    const void **values = d->values;
    const auto key_release = d->key_callbacks->release;
    if (d->value_callbacks->release == release_cf && key_release == release_cf && d->live == d->count) {
        // The common case, as in copy_dictionary.
        visit_prefetched(values, d->count, [&](size_t i) {
            release_held(keys[i]);
            release_held(values[i]);
        });
    } else if (d->value_callbacks->release == release_cf) {
        visit_prefetched(values, d->count, [&](size_t i) {
            if (!is_live(d, i)) return;
            if (key_release == release_cf) release_held(keys[i]);
            else if (key_release != nullptr) key_release(nullptr, keys[i]);
            release_held(values[i]);
        });
    } else {
        for (size_t i = 0; i < d->count; ++i)
            if (is_live(d, i)) release_entry(d, keys[i], values[i]);
    }
    if (d->own_entries) std::free(static_cast<void *>(d->keys));
    std::free(d->slots);
    if (d->shared != nullptr && !d->borrowed) release_held(d->shared);
    free_callbacks(d);
    destroy_fields<Dict>(cf);
}

// Same keys and equal values, whatever the order.
Boolean dictionary_equal(CFTypeRef x, CFTypeRef y) {
    const Dict *a = view(static_cast<const Dict *>(x));
    const Dict *b = view(static_cast<const Dict *>(y));
    if (live_count(a) != live_count(b)) return false;
    bool equal = true;
    for_each_entry(a, [&](const Dict *holder, size_t i) {
        const void *other = nullptr;
        if (equal && (!lookup(b, holder->keys[i], &other) || !values_equal(a, holder->values[i], other))) equal = false;
    });
    return equal;
}

CFHashCode dictionary_hash(CFTypeRef cf) { return live_count(view(static_cast<const Dict *>(cf))); }

CFStringRef dictionary_description(CFTypeRef cf) {
    const Dict *d = view(static_cast<const Dict *>(cf));
    try {
        std::string text = "{\n";
        for_each_entry(d, [&](const Dict *holder, size_t i) {
            text += "    ";
            append_value_description(text, holder->keys[i], d->key_callbacks->copyDescription);
            text += " = ";
            append_value_description(text, holder->values[i], d->value_callbacks->copyDescription);
            text += ";\n";
        });
        text += '}';
        return make_string(text);
    } catch (...) {
        return nullptr;
    }
}

}  // namespace

void prefetch_dictionary_contents(CFTypeRef cf) noexcept {
    auto d = static_cast<const Dict *>(cf);
    if (d->value_callbacks->release == release_cf)
        prefetch_objects(d->values, std::min(size_t{d->count}, kPrefetchWindow));
    if (d->shares) prefetch_objects(reinterpret_cast<const void *const *>(&d->shared), 1);
}

const CFRuntimeClass kDictionaryClass = {0,
                                         "CFDictionary",
                                         nullptr,
                                         nullptr,
                                         dictionary_finalize,
                                         dictionary_equal,
                                         dictionary_hash,
                                         nullptr,
                                         dictionary_description};

uint8_t dictionary_block(CFTypeRef cf) noexcept { return static_cast<const Dict *>(cf)->block; }

}  // namespace cf

using namespace cf;

const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks = {0, retain_cf, release_cf, CFCopyDescription,
                                                                    CFEqual};
const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks = {
    {0, retain_cf, release_cf, CFCopyDescription, CFEqual}, CFHash};
const CFDictionaryKeyCallBacks kCFCopyStringDictionaryKeyCallBacks = {
    {0, copy_string, release_cf, CFCopyDescription, CFEqual}, CFHash};

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
            uint32_t hash = hash_key(d, keys[i]);
            if (size_t e = find(d, keys[i], hash).entry; e != kNotFound) {
                replace_value(d, e, values[i]);
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
    return indexed_or_null(d, room);
}

CFMutableDictionaryRef CFDictionaryCreateMutableCopy(CFAllocatorRef, CFIndex capacity, CFDictionaryRef dict) {
    const Dict *d = as_dictionary(dict, "CFDictionaryCreateMutableCopy");
    if (d == nullptr) return nullptr;
    return copy_dictionary(d, capacity > 0 ? static_cast<size_t>(capacity) : 0, true);
}

CFIndex CFDictionaryGetCount(CFDictionaryRef dict) {
    const Dict *d = as_dictionary(dict, "CFDictionaryGetCount");
    return d == nullptr ? 0 : static_cast<CFIndex>(live_count(view(d)));
}

const void *CFDictionaryGetValue(CFDictionaryRef dict, const void *key) {
    const Dict *d = as_dictionary(dict, "CFDictionaryGetValue");
    const void *value = nullptr;
    return d != nullptr && lookup(view(d), key, &value) ? value : nullptr;
}

Boolean CFDictionaryGetValueIfPresent(CFDictionaryRef dict, const void *key, const void **value) {
    const Dict *d = as_dictionary(dict, "CFDictionaryGetValueIfPresent");
    const void *found = nullptr;
    if (d == nullptr || !lookup(view(d), key, &found)) return false;
    if (value != nullptr) *value = found;
    return true;
}

Boolean CFDictionaryContainsKey(CFDictionaryRef dict, const void *key) {
    const Dict *d = as_dictionary(dict, "CFDictionaryContainsKey");
    const void *value = nullptr;
    return d != nullptr && lookup(view(d), key, &value);
}

void CFDictionaryGetKeysAndValues(CFDictionaryRef dict, const void **keys, const void **values) {
    const Dict *d = as_dictionary(dict, "CFDictionaryGetKeysAndValues");
    if (d == nullptr) return;
    size_t n = 0;
    for_each_entry(view(d), [&](const Dict *holder, size_t i) {
        if (keys != nullptr) keys[n] = holder->keys[i];
        if (values != nullptr) values[n] = holder->values[i];
        ++n;
    });
}

namespace {

// The dictionary a change to `d` goes to: `d`, or the overlay of a frozen
// dictionary. An overlay is made on the first change, sharing the frozen
// entries; one that has stopped sharing and has been copied in turn (so is
// frozen too) is replaced by a new one that shares it, so an overlay never
// has an overlay.
Dict *writable(Dict *d, const char *function) {
    if (d->shares || !d->frozen) return d;
    const Dict *current = d->shared;
    if (current != nullptr && !current->frozen) return const_cast<Dict *>(current);
    Dict *overlay = new_dictionary(d->key_callbacks, d->value_callbacks, true, 1);
    if (overlay == nullptr) fatal(function, "out of memory");
    overlay->shares = true;
    if (current == nullptr) {
        overlay->shared = d;
        overlay->borrowed = true;
    } else {
        overlay->shared = current;   // the reference `d` held
    }
    d->shared = overlay;
    return overlay;
}

// Forgets the dictionary `d` shares, or its overlay; returns the reference
// to release once `d` is whole again (null when there is none to release).
const Dict *forget_shared(Dict *d) {
    const Dict *shared = d->borrowed ? nullptr : d->shared;
    d->shared = nullptr;
    d->shares = false;
    d->borrowed = false;
    d->shadowing = 0;
    return shared;
}

// Gives a sharing dictionary all its entries, in order, and stops it sharing.
// Throws std::bad_alloc before changing anything.
void stop_sharing(Dict *d) {
    const Dict *s = d->shared;
    struct Entry {
        const void *key;
        const void *value;
        uint32_t hash;
        bool shared;
    };
    std::vector<Entry> entries;
    entries.reserve(live_count(d));
    for_each_entry(d, [&](const Dict *holder, size_t i) {
        entries.push_back({holder->keys[i], holder->values[i], holder->hashes[i], holder == s});
    });
    grow(d, entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
        const Entry &e = entries[i];
        if (e.shared) {
            retain_held(e.key);
            retain_held(e.value);
        }
        d->keys[i] = e.key;
        d->values[i] = e.value;
        d->hashes[i] = e.hash;
    }
    d->count = d->live = static_cast<uint32_t>(entries.size());
    std::free(d->slots);
    d->slots = nullptr;
    d->slot_count = d->used_slots = 0;
    const Dict *release = forget_shared(d);
    try {
        rebuild(d, d->live);
    } catch (...) {
        // Without its index the dictionary is scanned, and still whole.
    }
    if (release != nullptr) CFRelease(release);
}

enum class Mode { add, set, replace };

void store(CFMutableDictionaryRef dict, const void *key, const void *value, Mode mode, const char *function) {
    Dict *d = as_mutable_dictionary(dict, function);
    if (d == nullptr) return;
    d = writable(d, function);
    if (size_t e = find_identical(d, key); e != kNotFound) {
        if (mode != Mode::add) replace_value(d, e, value);
        return;
    }
    uint32_t hash = hash_key(d, key);
    if (size_t e = find(d, key, hash).entry; e != kNotFound) {
        if (mode != Mode::add) replace_value(d, e, value);
        return;
    }
    // A key the shared entries hold gets an entry here that shadows it,
    // keeping the shared key object, as a replaced value keeps its key.
    bool shadows = false;
    if (d->shares) {
        if (size_t e = find(d->shared, key, hash).entry; e != kNotFound) {
            if (mode == Mode::add) return;
            key = d->shared->keys[e];
            shadows = true;
        }
    }
    if (mode == Mode::replace && !shadows) return;
    try {
        insert_new(d, key, value, hash);
    } catch (...) {
        fatal(function, "out of memory");
    }
    if (shadows) ++d->shadowing;
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
    d = writable(d, "CFDictionaryRemoveValue");
    if (d->shares) {
        const void *value = nullptr;
        if (!lookup(d, key, &value)) return;
        try {
            stop_sharing(d);
        } catch (...) {
            fatal("CFDictionaryRemoveValue", "out of memory");
        }
    }
    Found found = find(d, key, hash_key(d, key));
    if (found.entry == kNotFound) return;
    const void *removed_key = d->keys[found.entry];
    const void *removed_value = d->values[found.entry];
    d->keys[found.entry] = kRemoved;
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
    release_entry(d, removed_key, removed_value);
}

void CFDictionaryRemoveAllValues(CFMutableDictionaryRef dict) {
    Dict *d = as_mutable_dictionary(dict, "CFDictionaryRemoveAllValues");
    if (d == nullptr) return;
    d = writable(d, "CFDictionaryRemoveAllValues");
    std::vector<std::pair<const void *, const void *>> old;
    try {
        old.reserve(d->live);
        for (size_t i = 0; i < d->count; ++i)
            if (is_live(d, i)) old.emplace_back(d->keys[i], d->values[i]);
    } catch (...) {
        fatal("CFDictionaryRemoveAllValues", "out of memory");
    }
    const Dict *shared = forget_shared(d);
    d->count = 0;
    std::free(d->slots);
    d->slots = nullptr;
    d->slot_count = 0;
    d->live = 0;
    d->used_slots = 0;
    for (const auto &[key, value] : old) release_entry(d, key, value);
    if (shared != nullptr) CFRelease(shared);
}

void CFDictionaryApplyFunction(CFDictionaryRef dict, CFDictionaryApplierFunction applier, void *context) {
    const Dict *d = as_dictionary(dict, "CFDictionaryApplyFunction");
    if (d == nullptr || applier == nullptr) return;
    for_each_entry(view(d), [&](const Dict *holder, size_t i) { applier(holder->keys[i], holder->values[i], context); });
}
