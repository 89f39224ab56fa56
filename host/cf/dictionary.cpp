// CFDictionary: a hash table that remembers insertion order.
//
// Entries live in a vector in the order their keys were first added; removal
// marks an entry dead and the vector is compacted once more than half of it is
// dead, so iteration stays proportional to the live count. Lookups go through
// an open-addressing index (linear probing) of positions in that vector, kept
// at most three quarters full counting the tombstones removal leaves.
#include "cf_internal.h"

#include <algorithm>
#include <limits>
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

}  // namespace
}  // namespace cf

struct __CFDictionary {
    CFRuntimeBase base;
    CFDictionaryKeyCallBacks key_callbacks;       // all null for plain pointers
    CFDictionaryValueCallBacks value_callbacks;   // all null for plain pointers
    std::vector<cf::Entry> entries;
    std::vector<uint32_t> slots;                  // size 0 or a power of two
    size_t live;                                  // live entries
    size_t used_slots;                            // slots not empty (entries and tombstones)
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

// The slot holding `key`, or kNotFound.
size_t find_slot(const Dict *d, const void *key, CFHashCode hash) {
    if (d->slots.empty()) return kNotFound;
    size_t mask = d->slots.size() - 1;
    for (size_t pos = home_slot(hash, mask);; pos = (pos + 1) & mask) {
        uint32_t s = d->slots[pos];
        if (s == kEmpty) return kNotFound;
        if (s != kDeleted) {
            const Entry &e = d->entries[s - 2];
            if (e.hash == hash && keys_equal(d, e.key, key)) return pos;
        }
    }
}

// Small dictionaries are looked up by the key's identity first: keys are
// mostly the very objects they were stored with (constant strings), and a
// scan of a few neighbouring entries costs less than hashing the key and
// reaching the index. Identity implies equality, so the result is the same.
constexpr size_t kIdentityScanEntries = 16;

Entry *find_identical(const Dict *d, const void *key) {
    if (d->entries.size() > kIdentityScanEntries) return nullptr;
    for (const Entry &e : d->entries)
        if (e.key == key && e.live) return const_cast<Entry *>(&e);
    return nullptr;
}

const Entry *find_entry(const Dict *d, const void *key) {
    if (const Entry *e = find_identical(d, key)) return e;
    size_t pos = find_slot(d, key, hash_key(d, key));
    return pos == kNotFound ? nullptr : &d->entries[d->slots[pos] - 2];
}

// Drops dead entries and rebuilds the index for `expected` entries. Throws
// std::bad_alloc before changing anything.
void rebuild(Dict *d, size_t expected) {
    size_t capacity = 8;
    while (capacity < expected * 2) capacity *= 2;
    std::vector<uint32_t> slots(capacity, kEmpty);
    std::erase_if(d->entries, [](const Entry &e) { return !e.live; });
    size_t mask = capacity - 1;
    for (size_t i = 0; i < d->entries.size(); ++i) {
        size_t pos = home_slot(d->entries[i].hash, mask);
        while (slots[pos] != kEmpty) pos = (pos + 1) & mask;
        slots[pos] = static_cast<uint32_t>(i + 2);
    }
    d->slots.swap(slots);
    d->used_slots = d->entries.size();
}

// Adds a key known to be absent, retaining key and value through the
// callbacks. Throws std::bad_alloc before changing anything.
void insert_new(Dict *d, const void *key, const void *value, CFHashCode hash) {
    if (d->entries.size() >= kMaxEntries) throw std::bad_alloc();
    if ((d->used_slots + 1) * 4 > d->slots.size() * 3) rebuild(d, d->live + 1);
    if (d->entries.size() == d->entries.capacity()) d->entries.reserve(std::max<size_t>(8, d->entries.size() * 2));
    size_t mask = d->slots.size() - 1;
    size_t pos = home_slot(hash, mask);
    while (d->slots[pos] != kEmpty && d->slots[pos] != kDeleted) pos = (pos + 1) & mask;
    if (d->slots[pos] == kEmpty) ++d->used_slots;
    const void *k = d->key_callbacks.retain != nullptr ? d->key_callbacks.retain(nullptr, key) : key;
    const void *v = d->value_callbacks.retain != nullptr ? d->value_callbacks.retain(nullptr, value) : value;
    d->entries.push_back(Entry{k, v, hash, true});
    d->slots[pos] = static_cast<uint32_t>(d->entries.size() - 1 + 2);
    ++d->live;
}

void replace_value(Dict *d, Entry &e, const void *value) {
    const void *v = d->value_callbacks.retain != nullptr ? d->value_callbacks.retain(nullptr, value) : value;
    const void *old = e.value;
    e.value = v;
    if (d->value_callbacks.release != nullptr) d->value_callbacks.release(nullptr, old);
}

Dict *new_dictionary(const CFDictionaryKeyCallBacks *keys, const CFDictionaryValueCallBacks *values,
                     bool is_mutable) noexcept {
    Dict *d = make_object<Dict>(kDictionaryTypeID);
    if (d == nullptr) return nullptr;
    d->key_callbacks = keys != nullptr ? *keys : CFDictionaryKeyCallBacks{0, nullptr, nullptr, nullptr, nullptr, nullptr};
    d->value_callbacks = values != nullptr ? *values : CFDictionaryValueCallBacks{0, nullptr, nullptr, nullptr, nullptr};
    d->live = 0;
    d->used_slots = 0;
    d->is_mutable = is_mutable;
    return d;
}

// A new dictionary with the entries (and callbacks) of `source`, in its order.
Dict *copy_dictionary(const Dict *source, size_t capacity, bool is_mutable) noexcept {
    Dict *d = new_dictionary(&source->key_callbacks, &source->value_callbacks, is_mutable);
    if (d == nullptr) return nullptr;
    // A mutable copy usually gains a key or two (a copied record gets its
    // sample data): room for them saves regrowing the entries.
    size_t room = std::max(source->live + (is_mutable ? 2 : 0), capacity);
    try {
        d->entries.reserve(room);
        rebuild(d, room);
        for (const Entry &e : source->entries)
            if (e.live) insert_new(d, e.key, e.value, e.hash);
    } catch (...) {
        CFRelease(d);
        return nullptr;
    }
    return d;
}

void dictionary_finalize(CFTypeRef cf) {
    auto d = static_cast<Dict *>(const_cast<void *>(cf));
    for (const Entry &e : d->entries)
        if (e.live) release_entry(d, e);
    destroy_fields<Dict>(cf);
}

// Same keys and equal values, whatever the order.
Boolean dictionary_equal(CFTypeRef x, CFTypeRef y) {
    auto a = static_cast<const Dict *>(x);
    auto b = static_cast<const Dict *>(y);
    if (a->live != b->live) return false;
    for (const Entry &e : a->entries) {
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
        for (const Entry &e : d->entries) {
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
    Dict *d = new_dictionary(key_callbacks, value_callbacks, false);
    if (d == nullptr) return nullptr;
    try {
        auto n = static_cast<size_t>(num_values);
        d->entries.reserve(n);
        rebuild(d, n);
        for (size_t i = 0; i < n; ++i) {
            CFHashCode hash = hash_key(d, keys[i]);
            size_t pos = find_slot(d, keys[i], hash);
            if (pos == kNotFound) {
                insert_new(d, keys[i], values[i], hash);
            } else {
                replace_value(d, d->entries[d->slots[pos] - 2], values[i]);
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
    Dict *d = new_dictionary(key_callbacks, value_callbacks, true);
    if (d == nullptr || capacity <= 0) return d;
    try {
        d->entries.reserve(static_cast<size_t>(capacity));
        rebuild(d, static_cast<size_t>(capacity));
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
    for (const Entry &e : d->entries) {
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
    size_t pos = find_slot(d, key, hash);
    if (pos != kNotFound) {
        if (mode != Mode::add) replace_value(d, d->entries[d->slots[pos] - 2], value);
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
    size_t pos = find_slot(d, key, hash_key(d, key));
    if (pos == kNotFound) return;
    Entry &e = d->entries[d->slots[pos] - 2];
    Entry removed = e;
    e.live = false;
    d->slots[pos] = kDeleted;
    --d->live;
    size_t dead = d->entries.size() - d->live;
    if (dead > 16 && dead * 2 > d->entries.size()) {
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
    old.swap(d->entries);
    std::vector<uint32_t>().swap(d->slots);
    d->live = 0;
    d->used_slots = 0;
    for (const Entry &e : old)
        if (e.live) release_entry(d, e);
}

void CFDictionaryApplyFunction(CFDictionaryRef dict, CFDictionaryApplierFunction applier, void *context) {
    const Dict *d = as_dictionary(dict, "CFDictionaryApplyFunction");
    if (d == nullptr || applier == nullptr) return;
    for (size_t i = 0; i < d->entries.size(); ++i) {
        Entry e = d->entries[i];
        if (e.live) applier(e.key, e.value, context);
    }
}
