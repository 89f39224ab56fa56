// Heap copies of callables, standing in for block copy and release.
#pragma once

#include <new>
#include <utility>

// A heap copy of a callable (a lambda, a std::function); null when memory runs out.
template <class F>
F *_Block_copy(const F &block) {
    return new (std::nothrow) F(block);
}

// Releases a heap copy made by _Block_copy. Null is ignored.
template <class F>
void _Block_release(F *block) {
    delete block;
}
