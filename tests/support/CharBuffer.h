#pragma once

#include <algorithm>
#include <cstdint>
#include <string>

#include "foundation/AutoMemory.h"

// Between the texts of a test and the buffers of the interfaces.

inline CAutoMemory<char> BufferOf(const std::string& bytes) {
    CAutoMemory<char> buffer;
    if (buffer.Alloc(static_cast<uint32_t>(bytes.size())) != nullptr)
        std::copy(bytes.begin(), bytes.end(), buffer.GetPtr());
    return buffer;
}

inline std::string BytesOf(const CAutoMemory<char>& buffer) {
    return buffer.GetSize() != 0 ? std::string(buffer.GetPtr(), buffer.GetSize()) : std::string();
}
