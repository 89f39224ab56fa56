// CFData: immutable, mutable and no-copy byte buffers.
#include "cf_internal.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

// Bytes the object owns start in the same allocation, right after the
// header, so a data object is one allocation; a mutable one that outgrows that
// room moves its bytes to a buffer of their own.
struct __CFData {
    CFRuntimeBase base;
    uint8_t *bytes;
    size_t length;
    size_t capacity;
    bool free_bytes;   // bytes is a buffer of its own to free (not inline, not no-copy)
    bool is_mutable;
    uint8_t block;     // the memory's block class (see take_block)
};

namespace cf {
namespace {

__CFData *as_data(CFTypeRef cf, const char *function) { return cast<__CFData>(cf, kDataTypeID, function); }

__CFData *as_mutable_data(CFTypeRef cf, const char *function) {
    __CFData *d = as_data(cf, function);
    if (d != nullptr && !d->is_mutable) fatal(function, "%p is immutable data", cf);
    return d;
}

uint8_t *inline_bytes(__CFData *d) { return reinterpret_cast<uint8_t *>(d) + sizeof(__CFData); }

// A data object owning a copy of `length` bytes (zero-filled when bytes is
// null), with room for `capacity` bytes in the same allocation.
__CFData *new_data(const uint8_t *bytes, size_t length, size_t capacity, bool is_mutable) noexcept {
    capacity = std::max({capacity, length, size_t{1}});
    if (capacity > std::numeric_limits<size_t>::max() - sizeof(__CFData)) return nullptr;
    uint8_t block = 0;
    void *memory = object_memory(sizeof(__CFData) + capacity, block);
    if (memory == nullptr) return nullptr;
    auto d = new (memory) __CFData{CFRuntimeBase{kDataTypeID, 1}, nullptr, length, capacity, false, is_mutable, block};
    d->bytes = inline_bytes(d);
    // Bytes past the length are never read: growing the length zeroes them.
    if (bytes != nullptr && length != 0) std::memcpy(d->bytes, bytes, length);
    else if (length != 0) std::memset(d->bytes, 0, length);
    return d;
}

// Makes room for `length` bytes; new bytes are zero.
void reserve(__CFData *d, size_t length, const char *function) {
    if (length > d->capacity) {
        size_t capacity = std::max(length, d->capacity * 2);
        uint8_t *buffer;
        if (d->free_bytes) {
            buffer = static_cast<uint8_t *>(std::realloc(d->bytes, capacity));
        } else {
            buffer = static_cast<uint8_t *>(std::malloc(capacity));
            if (buffer != nullptr) std::memcpy(buffer, d->bytes, d->length);
        }
        if (buffer == nullptr) fatal(function, "out of memory");
        d->bytes = buffer;
        d->capacity = capacity;
        d->free_bytes = true;
    }
}

void set_length(__CFData *d, size_t length, const char *function) {
    reserve(d, length, function);
    if (length > d->length) std::memset(d->bytes + d->length, 0, length - d->length);
    d->length = length;
}

size_t checked_length(CFIndex length, const char *function) {
    if (length < 0) fatal(function, "negative length %ld", length);
    return static_cast<size_t>(length);
}

void data_finalize(CFTypeRef cf) {
    auto d = static_cast<const __CFData *>(cf);
    if (d->free_bytes) std::free(d->bytes);
}

Boolean data_equal(CFTypeRef a, CFTypeRef b) {
    auto da = static_cast<const __CFData *>(a);
    auto db = static_cast<const __CFData *>(b);
    return da->length == db->length && (da->length == 0 || std::memcmp(da->bytes, db->bytes, da->length) == 0);
}

CFHashCode data_hash(CFTypeRef cf) {
    auto d = static_cast<const __CFData *>(cf);
    return d->length == 0 ? 0 : hash_bytes(d->bytes, d->length);
}

CFStringRef data_description(CFTypeRef cf) {
    auto d = static_cast<const __CFData *>(cf);
    static constexpr char kHex[] = "0123456789abcdef";
    try {
        std::string text = "<";
        text.reserve(2 + d->length * 2 + d->length / 4);
        for (size_t i = 0; i < d->length; ++i) {
            if (i != 0 && i % 4 == 0) text += ' ';
            text += kHex[d->bytes[i] >> 4];
            text += kHex[d->bytes[i] & 15];
        }
        text += '>';
        return make_string(text);
    } catch (...) {
        return nullptr;
    }
}

}  // namespace

const CFRuntimeClass kDataClass = {0, "CFData", nullptr, nullptr, data_finalize, data_equal, data_hash, nullptr,
                                   data_description};

uint8_t data_block(CFTypeRef cf) noexcept { return static_cast<const __CFData *>(cf)->block; }

}  // namespace cf

using namespace cf;

CFTypeID CFDataGetTypeID(void) { return kDataTypeID; }

CFDataRef CFDataCreate(CFAllocatorRef, const uint8_t *bytes, CFIndex length) {
    if (length < 0 || (bytes == nullptr && length > 0)) return nullptr;
    return new_data(bytes, static_cast<size_t>(length), 0, false);
}

CFDataRef CFDataCreateWithBytesNoCopy(CFAllocatorRef, const uint8_t *bytes, CFIndex length,
                                      CFAllocatorRef bytes_deallocator) {
    if (length < 0 || (bytes == nullptr && length > 0)) return nullptr;
    __CFData *d = make_object<__CFData>(kDataTypeID);
    if (d == nullptr) return nullptr;
    d->bytes = const_cast<uint8_t *>(bytes);
    d->length = static_cast<size_t>(length);
    d->capacity = d->length;
    d->free_bytes = bytes_deallocator != kCFAllocatorNull;
    d->is_mutable = false;
    return d;
}

CFDataRef CFDataCreateCopy(CFAllocatorRef, CFDataRef data) {
    const __CFData *d = as_data(data, "CFDataCreateCopy");
    if (d == nullptr) return nullptr;
    if (!d->is_mutable) return static_cast<CFDataRef>(CFRetain(d));
    return new_data(d->bytes, d->length, 0, false);
}

// The capacity is a hint: mutable data grows as needed.
CFMutableDataRef CFDataCreateMutable(CFAllocatorRef, CFIndex capacity) {
    return new_data(nullptr, 0, capacity > 0 ? static_cast<size_t>(capacity) : 0, true);
}

CFMutableDataRef CFDataCreateMutableCopy(CFAllocatorRef, CFIndex capacity, CFDataRef data) {
    const __CFData *d = as_data(data, "CFDataCreateMutableCopy");
    if (d == nullptr) return nullptr;
    return new_data(d->bytes, d->length, capacity > 0 ? static_cast<size_t>(capacity) : 0, true);
}

CFIndex CFDataGetLength(CFDataRef data) {
    const __CFData *d = as_data(data, "CFDataGetLength");
    return d == nullptr ? 0 : static_cast<CFIndex>(d->length);
}

const uint8_t *CFDataGetBytePtr(CFDataRef data) {
    const __CFData *d = as_data(data, "CFDataGetBytePtr");
    return d == nullptr ? nullptr : d->bytes;
}

uint8_t *CFDataGetMutableBytePtr(CFMutableDataRef data) {
    __CFData *d = as_mutable_data(data, "CFDataGetMutableBytePtr");
    return d == nullptr ? nullptr : d->bytes;
}

void CFDataGetBytes(CFDataRef data, CFRange range, uint8_t *buffer) {
    const __CFData *d = as_data(data, "CFDataGetBytes");
    if (d == nullptr) return;
    if (!range_ok(range, static_cast<CFIndex>(d->length)))
        fatal("CFDataGetBytes", "range {%ld, %ld} is outside the data's %zu bytes", range.location, range.length,
              d->length);
    if (range.length > 0) std::memcpy(buffer, d->bytes + range.location, static_cast<size_t>(range.length));
}

void CFDataSetLength(CFMutableDataRef data, CFIndex length) {
    __CFData *d = as_mutable_data(data, "CFDataSetLength");
    if (d != nullptr) set_length(d, checked_length(length, "CFDataSetLength"), "CFDataSetLength");
}

void CFDataIncreaseLength(CFMutableDataRef data, CFIndex extra_length) {
    __CFData *d = as_mutable_data(data, "CFDataIncreaseLength");
    if (d != nullptr)
        set_length(d, d->length + checked_length(extra_length, "CFDataIncreaseLength"), "CFDataIncreaseLength");
}

void CFDataAppendBytes(CFMutableDataRef data, const uint8_t *bytes, CFIndex length) {
    __CFData *d = as_mutable_data(data, "CFDataAppendBytes");
    if (d == nullptr) return;
    CFDataReplaceBytes(data, CFRangeMake(static_cast<CFIndex>(d->length), 0), bytes, length);
}

void CFDataReplaceBytes(CFMutableDataRef data, CFRange range, const uint8_t *new_bytes, CFIndex new_length) {
    __CFData *d = as_mutable_data(data, "CFDataReplaceBytes");
    if (d == nullptr) return;
    if (!range_ok(range, static_cast<CFIndex>(d->length)))
        fatal("CFDataReplaceBytes", "range {%ld, %ld} is outside the data's %zu bytes", range.location, range.length,
              d->length);
    size_t add = checked_length(new_length, "CFDataReplaceBytes");
    if (new_bytes == nullptr && add > 0) fatal("CFDataReplaceBytes", "null bytes with length %zu", add);
    // The new bytes may come from this very buffer, which may move or shift.
    std::vector<uint8_t> copy;
    if (add > 0 && new_bytes >= d->bytes && new_bytes < d->bytes + d->capacity) {
        try {
            copy.assign(new_bytes, new_bytes + add);
        } catch (...) {
            fatal("CFDataReplaceBytes", "out of memory");
        }
        new_bytes = copy.data();
    }
    auto at = static_cast<size_t>(range.location);
    auto removed = static_cast<size_t>(range.length);
    size_t tail = d->length - at - removed;
    size_t length = d->length - removed + add;
    reserve(d, length, "CFDataReplaceBytes");
    if (tail > 0) std::memmove(d->bytes + at + add, d->bytes + at + removed, tail);
    if (add > 0) std::memcpy(d->bytes + at, new_bytes, add);
    d->length = length;
}
