#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "foundation/AlignedMemory.h"

// An owned buffer that grows: capacity, data and size, counted in elements of at most 32 bits'
// worth. Element types are plain (char, 32-bit numbers); new elements hold no particular value.
// Nothing here throws: a failed allocation is a null pointer, and the caller words the error.
// Copies are deep.
template <typename T> class CAutoMemory {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    CAutoMemory() = default;
    CAutoMemory(const CAutoMemory& other) { Assign(other); }
    CAutoMemory(CAutoMemory&& other) noexcept { Swap(other); }
    CAutoMemory& operator=(const CAutoMemory& other) {
        if (this != &other)
            Assign(other);
        return *this;
    }
    CAutoMemory& operator=(CAutoMemory&& other) noexcept {
        if (this != &other) {
            Free();
            Swap(other);
        }
        return *this;
    }
    ~CAutoMemory() { Free(); }

    // Makes the buffer hold `count` elements and returns them. Within the capacity only the size
    // changes and the contents stay; else the contents are lost. Count 0 gives null and keeps the
    // allocation for later. Null for any other count: out of memory, and the buffer is empty.
    T* Alloc(uint32_t count) {
        if (FitsCapacity(count))
            return Resize(count);
        Free();
        T* const block = NewBlock(count);
        return block != nullptr ? TakeBlock(block, count) : nullptr;
    }

    // As `Alloc`, but growing keeps the elements in use. On failure the buffer is empty.
    T* ReAlloc(uint32_t count) {
        if (FitsCapacity(count))
            return Resize(count);
        T* const block = NewBlock(count);
        if (block != nullptr && m_Size != 0)
            std::copy_n(m_Data, m_Size, block);
        Free();
        return block != nullptr ? TakeBlock(block, count) : nullptr;
    }

    void Free() {
        FreeAligned(m_Data);
        m_Data = nullptr;
        m_Capacity = 0;
        m_Size = 0;
    }

    // Null when the size is 0, also while an allocation is kept.
    T* GetPtr() { return m_Size != 0 ? m_Data : nullptr; }
    const T* GetPtr() const { return m_Size != 0 ? m_Data : nullptr; }

    uint32_t GetSize() const { return m_Size; }

    // Takes `count` elements off the end, all of them when there are no more.
    void Shrink(uint32_t count) { ReAlloc(count < m_Size ? m_Size - count : 0); }

private:
    bool FitsCapacity(uint32_t count) const { return count == 0 || (m_Data != nullptr && count <= m_Capacity); }

    // 64-bit counts of bytes don't fit where sizes are 32-bit.
    static T* NewBlock(uint32_t count) {
        if (count > static_cast<size_t>(-1) / sizeof(T))
            return nullptr;
        return static_cast<T*>(AllocateAligned(count * sizeof(T)));
    }

    T* Resize(uint32_t count) {
        m_Size = count;
        return GetPtr();
    }

    T* TakeBlock(T* block, uint32_t count) {
        m_Data = block;
        m_Capacity = count;
        m_Size = count;
        return block;
    }

    void Assign(const CAutoMemory& other) {
        if (Alloc(other.m_Size) != nullptr)
            std::copy_n(other.m_Data, other.m_Size, m_Data);
    }

    void Swap(CAutoMemory& other) noexcept {
        std::swap(m_Capacity, other.m_Capacity);
        std::swap(m_Data, other.m_Data);
        std::swap(m_Size, other.m_Size);
    }

    uint32_t m_Capacity = 0;
    T* m_Data = nullptr;
    uint32_t m_Size = 0;
};
