#pragma once

#include <cstdint>
#include <string>

// Between the 16-bit characters of disks and the UTF-8 of our texts. Callers decide what half a surrogate pair, which
// is no character, becomes.

inline bool IsHighSurrogate(uint32_t unit) {
    return unit >= 0xD800 && unit < 0xDC00;
}

inline bool IsLowSurrogate(uint32_t unit) {
    return unit >= 0xDC00 && unit < 0xE000;
}

// The character that both halves of a pair make.
inline uint32_t CharacterOfPair(uint32_t high, uint32_t low) {
    return 0x10000 + ((high - 0xD800) << 10U) + (low - 0xDC00);
}

// What stands for something that is no character.
constexpr uint32_t ReplacementCharacter = 0xFFFD;

inline void AppendUtf8(uint32_t character, std::string& text) {
    const auto put = [&text](uint32_t byte) { text += static_cast<char>(byte); };
    if (character < 0x80) {
        put(character);
        return;
    }
    if (character < 0x800) {
        put(0xC0U | character >> 6U);
    } else if (character < 0x10000) {
        put(0xE0U | character >> 12U);
        put(0x80U | (character >> 6U & 0x3FU));
    } else {
        put(0xF0U | character >> 18U);
        put(0x80U | (character >> 12U & 0x3FU));
        put(0x80U | (character >> 6U & 0x3FU));
    }
    put(0x80U | (character & 0x3FU));
}

// What lies beyond 16 bits becomes a pair.
inline void AppendUtf16(uint32_t character, std::u16string& text) {
    if (character < 0x10000) {
        text += static_cast<char16_t>(character);
        return;
    }
    text += static_cast<char16_t>(0xD800 + ((character - 0x10000) >> 10U));
    text += static_cast<char16_t>(0xDC00 + (character & 0x3FFU));
}
