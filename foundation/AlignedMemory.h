#pragma once

#include <cstddef>
#include <new>

// Memory for buffers that the system reads into. Some processors copy several times slower to an
// address a few bytes behind the start of a page, which is what an ordinary allocation of a large
// block gives.

constexpr std::align_val_t BufferAlignment{64};

// Null when out of memory. Give it back to `FreeAligned`.
inline void* AllocateAligned(size_t sizeBytes) {
    return ::operator new(sizeBytes, BufferAlignment, std::nothrow);
}

inline void FreeAligned(void* block) {
    ::operator delete(block, BufferAlignment);
}
