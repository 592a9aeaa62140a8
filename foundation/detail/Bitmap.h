#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

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

// How many of the `count` words of 64 bits from `bytes` on are `word`, up to the first one that isn't.
inline uint64_t CountEqualWords(const char* bytes, uint64_t count, uint64_t word) {
    constexpr uint64_t together = 8;
    const auto difference = [&](uint64_t index) {
        uint64_t found = 0;
        std::memcpy(&found, bytes + index * sizeof(found), sizeof(found));
        return found ^ word;
    };
    uint64_t equal = 0;
    for (uint64_t differences = 0; count - equal >= together; equal += together) {
        for (uint64_t index = equal; index < equal + together; ++index)
            differences |= difference(index);
        if (differences != 0)
            break;
    }
    while (equal < count && difference(equal) == 0)
        ++equal;
    return equal;
}

// The bits from `first` on, at least one and at most `most`, that are as the first one is.
inline uint64_t CountEqualBits(CByteView bitmap, uint64_t first, uint64_t most) {
    const bool isSet = HasBit(bitmap, first);
    const char whole = isSet ? '\xFF' : '\0';
    uint64_t count = 0;
    while (count < most) {  // the first bit is as itself, so each round counts or ends it
        const uint64_t index = first + count;
        const uint64_t byte = index / 8;
        if (byte >= bitmap.Size())
            return isSet ? count : most;
        const uint64_t words = index % 8 == 0 ? std::min((most - count) / 64, (bitmap.Size() - byte) / 8) : 0;
        const uint64_t equal = CountEqualWords(bitmap.Data() + byte, words, isSet ? ~uint64_t{0} : 0);
        if (equal != 0)
            count += equal * 64;
        else if (index % 8 == 0 && bitmap.Data()[byte] == whole)
            count += 8;
        else if (HasBit(bitmap, index) == isSet)
            ++count;
        else
            break;
    }
    return std::min(count, most);
}
