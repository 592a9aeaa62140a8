#include "agent/detail/Utf16Text.h"

#include <cstddef>
#include <cstdint>

namespace {

constexpr uint32_t NoCharacter = 0xFFFD;

bool IsHighSurrogate(uint32_t unit) {
    return unit >= 0xD800 && unit < 0xDC00;
}

bool IsLowSurrogate(uint32_t unit) {
    return unit >= 0xDC00 && unit < 0xE000;
}

uint32_t UnitAt(const std::string& bytes, size_t at, ByteOrder_t order) {
    const auto first = static_cast<uint8_t>(bytes[at]);
    const auto second = static_cast<uint8_t>(bytes[at + 1]);
    return order == ByteOrder_t::LittleEndian ? first | second << 8U : first << 8U | second;
}

void AppendUtf8(uint32_t character, std::string& text) {
    const auto put = [&text](uint32_t byte) { text += static_cast<char>(byte); };
    if (character < 0x80) {
        put(character);
    } else if (character < 0x800) {
        put(0xC0U | character >> 6U);
        put(0x80U | (character & 0x3FU));
    } else if (character < 0x10000) {
        put(0xE0U | character >> 12U);
        put(0x80U | (character >> 6U & 0x3FU));
        put(0x80U | (character & 0x3FU));
    } else {
        put(0xF0U | character >> 18U);
        put(0x80U | (character >> 12U & 0x3FU));
        put(0x80U | (character >> 6U & 0x3FU));
        put(0x80U | (character & 0x3FU));
    }
}

}  // namespace

std::string Utf8FromUtf16(const std::string& bytes, ByteOrder_t order) {
    std::string text;
    for (size_t at = 0; at + 1 < bytes.size(); at += 2) {
        uint32_t unit = UnitAt(bytes, at, order);
        if (unit == 0)
            break;
        const bool hasNext = at + 3 < bytes.size();
        if (IsHighSurrogate(unit) && hasNext && IsLowSurrogate(UnitAt(bytes, at + 2, order))) {
            unit = 0x10000 + ((unit - 0xD800) << 10U) + (UnitAt(bytes, at + 2, order) - 0xDC00);
            at += 2;
        } else if (IsHighSurrogate(unit) || IsLowSurrogate(unit)) {
            unit = NoCharacter;
        }
        AppendUtf8(unit, text);
    }
    return text;
}
