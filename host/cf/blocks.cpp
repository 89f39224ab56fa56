// Kept blocks: the memory of dictionaries and data objects, kept per thread
// when freed and handed out again (see cf_internal.h).
#include "cf_internal.h"

#include <array>

#if defined(__SANITIZE_ADDRESS__)
#define TALVEX_POISON_KEPT 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TALVEX_POISON_KEPT 1
#endif
#endif
#ifdef TALVEX_POISON_KEPT
#include <sanitizer/asan_interface.h>
#endif

namespace cf {
namespace {

// Under the address sanitizer a kept block is poisoned but for its link, so
// that touching an object after its last release is still reported.
void poison(void *block, size_t size) noexcept {
#ifdef TALVEX_POISON_KEPT
    ASAN_POISON_MEMORY_REGION(static_cast<char *>(block) + sizeof(void *), size - sizeof(void *));
#else
    (void)block, (void)size;
#endif
}
void unpoison(void *block, size_t size) noexcept {
#ifdef TALVEX_POISON_KEPT
    ASAN_UNPOISON_MEMORY_REGION(block, size);
#else
    (void)block, (void)size;
#endif
}

// A thread's kept blocks: per class a queue linked through each block's
// first word, oldest at the head. Plain data, so it needs no construction
// and stays usable while the thread's other objects are destroyed.
struct Kept {
    std::array<void *, kBlockClasses> head;
    std::array<void *, kBlockClasses> tail;
    size_t bytes;
    bool owner_made;   // this thread's Owner exists
    bool closed;       // the thread is ending: freed blocks go back to the C library
};
thread_local Kept t_kept;

void *&next_of(void *block) noexcept { return *static_cast<void **>(block); }

// Frees the thread's kept blocks when it ends.
struct Owner {
    ~Owner() {
        Kept &k = t_kept;
        k.closed = true;
        for (size_t c = 1; c < kBlockClasses; ++c) {
            for (void *b = k.head[c]; b != nullptr;) {
                void *next = next_of(b);
                std::free(b);
                b = next;
            }
            k.head[c] = k.tail[c] = nullptr;
        }
        k.bytes = 0;
    }
};

}  // namespace

void *take_block(uint8_t block_class) noexcept {
    Kept &k = t_kept;
    const size_t size = size_t{block_class} * kBlockUnit;
    void *b = k.head[block_class];
    if (b == nullptr) return std::malloc(size);
    k.head[block_class] = next_of(b);
    if (k.head[block_class] == nullptr) k.tail[block_class] = nullptr;
    k.bytes -= size;
    unpoison(b, size);
    return b;
}

void give_block(void *block, uint8_t block_class) noexcept {
    Kept &k = t_kept;
    const size_t size = size_t{block_class} * kBlockUnit;
    if (k.closed || k.bytes + size > kKeptBytes) {
        std::free(block);
        return;
    }
    if (!k.owner_made) {
        thread_local Owner owner;
        k.owner_made = true;
    }
    next_of(block) = nullptr;
    if (k.tail[block_class] != nullptr) next_of(k.tail[block_class]) = block;
    else k.head[block_class] = block;
    k.tail[block_class] = block;
    k.bytes += size;
    poison(block, size);
}

size_t kept_block_bytes() noexcept { return t_kept.bytes; }

}  // namespace cf
