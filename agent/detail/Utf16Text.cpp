#include "agent/detail/Utf16Text.h"

#include <cstddef>
#include <cstdint>

#include "foundation/detail/UnicodeText.h"

namespace {

uint32_t UnitAt(const std::string& bytes, size_t at, ByteOrder_t order) {
    const auto first = static_cast<uint8_t>(bytes[at]);
    const auto second = static_cast<uint8_t>(bytes[at + 1]);
    return order == ByteOrder_t::LittleEndian ? first | second << 8U : first << 8U | second;
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
            unit = CharacterOfPair(unit, UnitAt(bytes, at + 2, order));
            at += 2;
        } else if (IsHighSurrogate(unit) || IsLowSurrogate(unit)) {
            unit = ReplacementCharacter;
        }
        AppendUtf8(unit, text);
    }
    return text;
}
