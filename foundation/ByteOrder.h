#pragma once

#include <cstddef>
#include <cstdint>

// On-disk numbers as types that know their byte order and need no alignment, so that a structure
// of them has the bytes of the disk, field by field.
template <typename Number> class LittleEndian_t {
public:
    constexpr operator Number() const {
        Number value = 0;
        for (size_t index = sizeof(Number); index-- > 0;)
            value = static_cast<Number>(static_cast<Number>(value << 8U) | m_Bytes[index]);
        return value;
    }

    constexpr LittleEndian_t& operator=(Number value) {
        for (uint8_t& byte : m_Bytes) {
            byte = static_cast<uint8_t>(value);
            value = static_cast<Number>(value >> 8U);
        }
        return *this;
    }

private:
    uint8_t m_Bytes[sizeof(Number)];
};

// The same, most significant byte first.
template <typename Number> class BigEndian_t {
public:
    constexpr operator Number() const {
        Number value = 0;
        for (const uint8_t byte : m_Bytes)
            value = static_cast<Number>(static_cast<Number>(value << 8U) | byte);
        return value;
    }

    constexpr BigEndian_t& operator=(Number value) {
        for (size_t index = sizeof(Number); index-- > 0;) {
            m_Bytes[index] = static_cast<uint8_t>(value);
            value = static_cast<Number>(value >> 8U);
        }
        return *this;
    }

private:
    uint8_t m_Bytes[sizeof(Number)];
};

// A single byte can't be shifted by eight.
template <> class LittleEndian_t<uint8_t> {
public:
    constexpr operator uint8_t() const { return m_Byte; }

private:
    uint8_t m_Byte;
};

using U8_t = LittleEndian_t<uint8_t>;
using Le16_t = LittleEndian_t<uint16_t>;
using Le32_t = LittleEndian_t<uint32_t>;
using Le64_t = LittleEndian_t<uint64_t>;

using Be16_t = BigEndian_t<uint16_t>;
using Be32_t = BigEndian_t<uint32_t>;
using Be64_t = BigEndian_t<uint64_t>;
