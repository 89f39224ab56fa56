// CFArray: an ordered sequence of values held with the array's callbacks.
#include "cf_internal.h"

#include <algorithm>
#include <vector>

struct __CFArray {
    CFRuntimeBase base;
    CFArrayCallBacks callbacks;   // all null for plain pointers
    std::vector<const void *> values;
    bool is_mutable;
};

namespace cf {
namespace {

const void *retain_cf(CFAllocatorRef, const void *value) { return CFRetain(value); }
void release_cf(CFAllocatorRef, const void *value) { CFRelease(value); }

__CFArray *as_array(CFTypeRef cf, const char *function) { return cast<__CFArray>(cf, kArrayTypeID, function); }

__CFArray *as_mutable_array(CFTypeRef cf, const char *function) {
    __CFArray *a = as_array(cf, function);
    if (a != nullptr && !a->is_mutable) fatal(function, "%p is an immutable array", cf);
    return a;
}

CFIndex count_of(const __CFArray *a) { return static_cast<CFIndex>(a->values.size()); }

void check_range(const __CFArray *a, CFRange range, const char *function) {
    if (!range_ok(range, count_of(a)))
        fatal(function, "range {%ld, %ld} is outside the array's %ld values", range.location, range.length,
              count_of(a));
}

void check_index(const __CFArray *a, CFIndex index, CFIndex limit, const char *function) {
    if (index < 0 || index >= limit)
        fatal(function, "index %ld is outside the array's %ld values", index, count_of(a));
}

const void *retain_value(const __CFArray *a, const void *value) {
    return a->callbacks.retain != nullptr ? a->callbacks.retain(nullptr, value) : value;
}

void release_value(const __CFArray *a, const void *value) {
    if (a->callbacks.release != nullptr) a->callbacks.release(nullptr, value);
}

bool equal_values(const __CFArray *a, const void *x, const void *y) {
    return a->callbacks.equal != nullptr ? a->callbacks.equal(x, y) != 0 : x == y;
}

// A new array with the given callbacks (null: plain pointers) holding `values`,
// each retained through the callbacks.
__CFArray *new_array(const CFArrayCallBacks *callbacks, const void *const *values, size_t count, size_t capacity,
                     bool is_mutable) noexcept {
    __CFArray *a = make_object<__CFArray>(kArrayTypeID);
    if (a == nullptr) return nullptr;
    a->callbacks = callbacks != nullptr ? *callbacks : CFArrayCallBacks{0, nullptr, nullptr, nullptr, nullptr};
    a->is_mutable = is_mutable;
    try {
        a->values.reserve(std::max(count, capacity));
    } catch (...) {
        CFRelease(a);
        return nullptr;
    }
    for (size_t i = 0; i < count; ++i) a->values.push_back(retain_value(a, values[i]));
    return a;
}

// Inserts `count` values at `at`; a mutator cannot report failure, so running
// out of memory is fatal.
void insert_values(__CFArray *a, size_t at, const void *const *values, size_t count, const char *function) {
    if (count == 1 && at == a->values.size() && a->callbacks.retain == retain_cf && values[0] != nullptr) {
        // One object appended with the standard callbacks (a walk building
        // a list of records does it for every record).
        try {
            a->values.push_back(values[0]);
        } catch (...) {
            fatal(function, "out of memory");
        }
        retain_held(values[0]);
        return;
    }
    try {
        a->values.insert(a->values.begin() + static_cast<ptrdiff_t>(at), values, values + count);
    } catch (...) {
        fatal(function, "out of memory");
    }
    for (size_t i = 0; i < count; ++i) a->values[at + i] = retain_value(a, a->values[at + i]);
}

void array_finalize(CFTypeRef cf) {
    auto a = static_cast<__CFArray *>(const_cast<void *>(cf));
    // Values are fetched ahead of releasing them: a value's header
    // kPrefetchWindow places ahead, and what it holds half as far ahead (by
    // then its header has arrived), so a list of records that fell out of
    // cache costs overlapping misses rather than a chain of them.
    constexpr size_t kContentsAhead = kPrefetchWindow / 2;
    const size_t n = a->values.size();
    if (a->callbacks.release != release_cf) {
        for (const void *value : a->values) release_value(a, value);
    } else {
        for (size_t i = 0; i < std::min(n, kContentsAhead); ++i) prefetch_contents(a->values[i]);
        visit_prefetched(a->values.data(), n, [&](size_t i) {
            if (i + kContentsAhead < n) prefetch_contents(a->values[i + kContentsAhead]);
            release_held(a->values[i]);
        });
    }
    destroy_fields<__CFArray>(cf);
}

Boolean array_equal(CFTypeRef x, CFTypeRef y) {
    auto a = static_cast<const __CFArray *>(x);
    auto b = static_cast<const __CFArray *>(y);
    if (a->values.size() != b->values.size()) return false;
    for (size_t i = 0; i < a->values.size(); ++i)
        if (!equal_values(a, a->values[i], b->values[i])) return false;
    return true;
}

CFHashCode array_hash(CFTypeRef cf) { return static_cast<const __CFArray *>(cf)->values.size(); }

CFStringRef array_description(CFTypeRef cf) {
    auto a = static_cast<const __CFArray *>(cf);
    try {
        std::string text = "(\n";
        for (size_t i = 0; i < a->values.size(); ++i) {
            text += "    ";
            append_value_description(text, a->values[i], a->callbacks.copyDescription);
            text += i + 1 < a->values.size() ? ",\n" : "\n";
        }
        text += ')';
        return make_string(text);
    } catch (...) {
        return nullptr;
    }
}

}  // namespace

void prefetch_array_contents(CFTypeRef cf) noexcept {
    auto a = static_cast<const __CFArray *>(cf);
    if (a->callbacks.release == release_cf)
        prefetch_objects(a->values.data(), std::min(a->values.size(), kPrefetchWindow));
}

const CFRuntimeClass kArrayClass = {0, "CFArray", nullptr, nullptr, array_finalize, array_equal, array_hash, nullptr,
                                    array_description};

}  // namespace cf

using namespace cf;

const CFArrayCallBacks kCFTypeArrayCallBacks = {0, retain_cf, release_cf, CFCopyDescription, CFEqual};

CFTypeID CFArrayGetTypeID(void) { return kArrayTypeID; }

CFArrayRef CFArrayCreate(CFAllocatorRef, const void **values, CFIndex num_values, const CFArrayCallBacks *callbacks) {
    if (num_values < 0 || (values == nullptr && num_values > 0)) return nullptr;
    return new_array(callbacks, values, static_cast<size_t>(num_values), 0, false);
}

CFArrayRef CFArrayCreateCopy(CFAllocatorRef, CFArrayRef array) {
    const __CFArray *a = as_array(array, "CFArrayCreateCopy");
    if (a == nullptr) return nullptr;
    if (!a->is_mutable) return static_cast<CFArrayRef>(CFRetain(a));
    return new_array(&a->callbacks, a->values.data(), a->values.size(), 0, false);
}

// The capacity is a hint: mutable arrays grow as needed.
CFMutableArrayRef CFArrayCreateMutable(CFAllocatorRef, CFIndex capacity, const CFArrayCallBacks *callbacks) {
    return new_array(callbacks, nullptr, 0, capacity > 0 ? static_cast<size_t>(capacity) : 0, true);
}

CFMutableArrayRef CFArrayCreateMutableCopy(CFAllocatorRef, CFIndex capacity, CFArrayRef array) {
    const __CFArray *a = as_array(array, "CFArrayCreateMutableCopy");
    if (a == nullptr) return nullptr;
    return new_array(&a->callbacks, a->values.data(), a->values.size(),
                     capacity > 0 ? static_cast<size_t>(capacity) : 0, true);
}

CFIndex CFArrayGetCount(CFArrayRef array) {
    const __CFArray *a = as_array(array, "CFArrayGetCount");
    return a == nullptr ? 0 : count_of(a);
}

const void *CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index) {
    const __CFArray *a = as_array(array, "CFArrayGetValueAtIndex");
    if (a == nullptr) return nullptr;
    check_index(a, index, count_of(a), "CFArrayGetValueAtIndex");
    return a->values[static_cast<size_t>(index)];
}

void CFArrayGetValues(CFArrayRef array, CFRange range, const void **values) {
    const __CFArray *a = as_array(array, "CFArrayGetValues");
    if (a == nullptr) return;
    check_range(a, range, "CFArrayGetValues");
    for (CFIndex i = 0; i < range.length; ++i) values[i] = a->values[static_cast<size_t>(range.location + i)];
}

Boolean CFArrayContainsValue(CFArrayRef array, CFRange range, const void *value) {
    return CFArrayGetFirstIndexOfValue(array, range, value) != kCFNotFound;
}

CFIndex CFArrayGetFirstIndexOfValue(CFArrayRef array, CFRange range, const void *value) {
    const __CFArray *a = as_array(array, "CFArrayGetFirstIndexOfValue");
    if (a == nullptr) return kCFNotFound;
    check_range(a, range, "CFArrayGetFirstIndexOfValue");
    for (CFIndex i = range.location; i < range.location + range.length; ++i) {
        const void *v = a->values[static_cast<size_t>(i)];
        if (v == value || equal_values(a, v, value)) return i;
    }
    return kCFNotFound;
}

void CFArrayAppendValue(CFMutableArrayRef array, const void *value) {
    __CFArray *a = as_mutable_array(array, "CFArrayAppendValue");
    if (a != nullptr) insert_values(a, a->values.size(), &value, 1, "CFArrayAppendValue");
}

void CFArrayInsertValueAtIndex(CFMutableArrayRef array, CFIndex index, const void *value) {
    __CFArray *a = as_mutable_array(array, "CFArrayInsertValueAtIndex");
    if (a == nullptr) return;
    check_index(a, index, count_of(a) + 1, "CFArrayInsertValueAtIndex");
    insert_values(a, static_cast<size_t>(index), &value, 1, "CFArrayInsertValueAtIndex");
}

// Setting the index one past the end appends.
void CFArraySetValueAtIndex(CFMutableArrayRef array, CFIndex index, const void *value) {
    __CFArray *a = as_mutable_array(array, "CFArraySetValueAtIndex");
    if (a == nullptr) return;
    check_index(a, index, count_of(a) + 1, "CFArraySetValueAtIndex");
    if (index == count_of(a)) {
        insert_values(a, a->values.size(), &value, 1, "CFArraySetValueAtIndex");
        return;
    }
    const void *retained = retain_value(a, value);
    const void *old = a->values[static_cast<size_t>(index)];
    a->values[static_cast<size_t>(index)] = retained;
    release_value(a, old);
}

void CFArrayRemoveValueAtIndex(CFMutableArrayRef array, CFIndex index) {
    __CFArray *a = as_mutable_array(array, "CFArrayRemoveValueAtIndex");
    if (a == nullptr) return;
    check_index(a, index, count_of(a), "CFArrayRemoveValueAtIndex");
    const void *old = a->values[static_cast<size_t>(index)];
    a->values.erase(a->values.begin() + index);
    release_value(a, old);
}

void CFArrayRemoveAllValues(CFMutableArrayRef array) {
    __CFArray *a = as_mutable_array(array, "CFArrayRemoveAllValues");
    if (a == nullptr) return;
    std::vector<const void *> old;
    old.swap(a->values);
    for (const void *value : old) release_value(a, value);
}

void CFArrayAppendArray(CFMutableArrayRef array, CFArrayRef other, CFRange other_range) {
    __CFArray *a = as_mutable_array(array, "CFArrayAppendArray");
    const __CFArray *o = as_array(other, "CFArrayAppendArray");
    if (a == nullptr || o == nullptr) return;
    check_range(o, other_range, "CFArrayAppendArray");
    // Appending an array to itself: take the values before the vector grows.
    std::vector<const void *> values;
    try {
        values.assign(o->values.begin() + other_range.location,
                      o->values.begin() + other_range.location + other_range.length);
    } catch (...) {
        fatal("CFArrayAppendArray", "out of memory");
    }
    insert_values(a, a->values.size(), values.data(), values.size(), "CFArrayAppendArray");
}

void CFArrayApplyFunction(CFArrayRef array, CFRange range, CFArrayApplierFunction applier, void *context) {
    const __CFArray *a = as_array(array, "CFArrayApplyFunction");
    if (a == nullptr || applier == nullptr) return;
    check_range(a, range, "CFArrayApplyFunction");
    for (CFIndex i = range.location; i < range.location + range.length && i < count_of(a); ++i)
        applier(a->values[static_cast<size_t>(i)], context);
}
