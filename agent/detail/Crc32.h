#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// The CRC-32 with the polynomial of IEEE 802.3. GPT starts with all ones and inverts the result; LVM2
// has a start of its own and takes the state as it is.
class CCrc32 {
public:
    explicit CCrc32(uint32_t start = ~uint32_t{0}) : m_State(start) {}

    void Add(const char* bytes, size_t size) {
        for (size_t index = 0; index < size; ++index)
            m_State = Table()[(m_State ^ static_cast<uint8_t>(bytes[index])) & 0xFFU] ^ (m_State >> 8U);
    }

    uint32_t State() const { return m_State; }

private:
    static const std::array<uint32_t, 256>& Table() {
        static const std::array<uint32_t, 256> table = [] {
            std::array<uint32_t, 256> made{};
            for (uint32_t index = 0; index < made.size(); ++index) {
                uint32_t value = index;
                for (int bit = 0; bit < 8; ++bit)
                    value = (value & 1U) != 0 ? 0xEDB88320U ^ (value >> 1U) : value >> 1U;
                made[index] = value;
            }
            return made;
        }();
        return table;
    }

    uint32_t m_State;
};
