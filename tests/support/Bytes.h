#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Bytes for builders, put at their own offsets. Nothing here knows the structures that the readers
// use, so that one mistake can't hide in both.

// Puts `bytes` at `offset`; the text grows with zeros as far as needed.
inline void PutBytes(std::string& target, size_t offset, std::string_view bytes) {
    if (target.size() < offset + bytes.size())
        target.resize(offset + bytes.size(), '\0');
    target.replace(offset, bytes.size(), bytes);
}

// The number, cut to `width` bytes, least significant byte first.
inline std::string LittleEndianBytes(uint64_t value, size_t width) {
    std::string bytes(width, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(value & 0xFFU);
        value >>= 8U;
    }
    return bytes;
}

// The same, most significant byte first.
inline std::string BigEndianBytes(uint64_t value, size_t width) {
    const std::string reversed = LittleEndianBytes(value, width);
    return {reversed.rbegin(), reversed.rend()};
}

inline void PutLe8(std::string& target, size_t offset, uint8_t value) {
    PutBytes(target, offset, LittleEndianBytes(value, 1));
}
inline void PutLe16(std::string& target, size_t offset, uint16_t value) {
    PutBytes(target, offset, LittleEndianBytes(value, 2));
}
inline void PutLe32(std::string& target, size_t offset, uint32_t value) {
    PutBytes(target, offset, LittleEndianBytes(value, 4));
}
inline void PutLe64(std::string& target, size_t offset, uint64_t value) {
    PutBytes(target, offset, LittleEndianBytes(value, 8));
}
inline void PutBe16(std::string& target, size_t offset, uint16_t value) {
    PutBytes(target, offset, BigEndianBytes(value, 2));
}
inline void PutBe32(std::string& target, size_t offset, uint32_t value) {
    PutBytes(target, offset, BigEndianBytes(value, 4));
}
inline void PutBe64(std::string& target, size_t offset, uint64_t value) {
    PutBytes(target, offset, BigEndianBytes(value, 8));
}

// The `width` bytes at `offset` as a number, least significant byte first. The caller knows that they are there.
inline uint64_t LittleEndianAt(std::string_view bytes, size_t offset, size_t width) {
    uint64_t value = 0;
    for (size_t index = width; index-- > 0;)
        value = (value << 8U) | static_cast<unsigned char>(bytes.at(offset + index));
    return value;
}

// `size` bytes that look random and are the same for the same seed, on every machine. Bytes of
// different seeds differ, and no sector of a pattern repeats.
inline std::string PatternedBytes(size_t size, uint64_t seed = 1) {
    std::string bytes(size, '\0');
    uint64_t state = seed * 0x9E3779B97F4A7C15U + 1;
    for (char& byte : bytes) {
        state = state * 6364136223846793005U + 1442695040888963407U;
        byte = static_cast<char>(state >> 56U);
    }
    return bytes;
}
