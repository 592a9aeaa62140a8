#pragma once

#include <cstdint>

// Arithmetic on numbers that somebody else wrote. Each operation says whether the result fitted;
// `result` holds it only then.

constexpr uint32_t SectorSize = 512;
constexpr unsigned SectorShift = 9;

[[nodiscard]] inline bool CheckedAdd(uint64_t left, uint64_t right, uint64_t& result) {
    return !__builtin_add_overflow(left, right, &result);
}

[[nodiscard]] inline bool CheckedMul(uint64_t left, uint64_t right, uint64_t& result) {
    return !__builtin_mul_overflow(left, right, &result);
}

[[nodiscard]] inline bool SectorsToBytes(uint64_t sectors, uint64_t& bytes) {
    return CheckedMul(sectors, SectorSize, bytes);
}

// The byte offset of a sector in a file, all ones where it doesn't fit: a seek there fails, so the
// system words the error.
[[nodiscard]] inline uint64_t FileOffsetOfSector(uint64_t sector) {
    uint64_t bytes = 0;
    return SectorsToBytes(sector, bytes) ? bytes : ~uint64_t{0};
}

// For buffers, whose sizes are 32-bit.
[[nodiscard]] inline bool NarrowTo32(uint64_t value, uint32_t& result) {
    result = static_cast<uint32_t>(value);
    return result == value;
}

// `divisor` isn't 0. Doesn't wrap, whatever the dividend.
[[nodiscard]] constexpr uint64_t DivideRoundingUp(uint64_t dividend, uint64_t divisor) {
    return dividend / divisor + (dividend % divisor != 0 ? 1 : 0);
}
