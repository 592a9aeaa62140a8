#pragma once

#include <algorithm>
#include <cstdint>

#include "foundation/detail/ByteView.h"

// Bitmaps as disks and dumps have them: the high bit of each byte first.

// A bit that lies behind the bitmap is a clear one.
inline bool HasBit(CByteView bitmap, uint64_t index) {
    const uint64_t byte = index / 8;
    return byte < bitmap.Size() && (static_cast<uint8_t>(bitmap.Data()[byte]) & (0x80U >> (index % 8))) != 0;
}

inline void SetBit(char* bitmap, uint64_t index) {
    bitmap[index / 8] = static_cast<char>(bitmap[index / 8] | (0x80 >> (index % 8)));
}

// The bits from `first` on, at least one and at most `most`, that are as the first one is.
inline uint64_t CountEqualBits(CByteView bitmap, uint64_t first, uint64_t most) {
    const bool isSet = HasBit(bitmap, first);
    const uint64_t words = isSet ? ~uint64_t{0} : 0;
    const char whole = isSet ? '\xFF' : '\0';
    uint64_t count = 1;
    while (count < most) {
        const uint64_t index = first + count;
        const uint64_t byte = index / 8;
        if (byte >= bitmap.Size())
            return isSet ? count : most;
        uint64_t word = 0;
        if (index % 8 == 0 && bitmap.Get(byte, word) && word == words)
            count += 64;
        else if (index % 8 == 0 && bitmap.Data()[byte] == whole)
            count += 8;
        else if (HasBit(bitmap, index) == isSet)
            ++count;
        else
            break;
    }
    return std::min(count, most);
}
