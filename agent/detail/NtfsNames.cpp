#include "agent/detail/NtfsNames.h"

#include <cstring>

#include "foundation/ByteOrder.h"
#include "platform/CaseFolding.h"

namespace {

constexpr uint32_t NoCharacter = 0xFFFD;

bool IsHighSurrogate(uint32_t unit) {
    return unit >= 0xD800 && unit < 0xDC00;
}

bool IsLowSurrogate(uint32_t unit) {
    return unit >= 0xDC00 && unit < 0xE000;
}

void AppendUtf8(uint32_t character, std::string& text) {
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

// Takes one character off `text` at `at`. A byte that begins none stands for itself as one that no name has.
uint32_t TakeCharacter(const std::string& text, size_t& at) {
    const auto byte = [&](size_t index) { return static_cast<uint8_t>(text[index]); };
    const uint8_t first = byte(at++);
    if (first < 0x80)
        return first;
    const size_t more = first >= 0xF0 ? 3 : first >= 0xE0 ? 2 : first >= 0xC0 ? 1 : 0;
    if (more == 0 || text.size() - at < more)
        return NoCharacter;
    uint32_t character = first & (0x3FU >> more);
    for (size_t index = 0; index < more; ++index) {
        const uint8_t next = byte(at + index);
        if ((next & 0xC0U) != 0x80)
            return NoCharacter;
        character = character << 6U | (next & 0x3FU);
    }
    at += more;
    return character;
}

}  // namespace

std::string TextOfNtfsName(const std::u16string& name) {
    std::string text;
    text.reserve(name.size());
    for (size_t at = 0; at < name.size(); ++at) {
        uint32_t unit = name[at];
        if (IsHighSurrogate(unit) && at + 1 < name.size() && IsLowSurrogate(name[at + 1]))
            unit = 0x10000 + ((unit - 0xD800) << 10U) + (name[++at] - 0xDC00U);
        AppendUtf8(unit, text);
    }
    return text;
}

std::u16string NtfsNameOfText(const std::string& text) {
    std::u16string name;
    name.reserve(text.size());
    for (size_t at = 0; at < text.size();) {
        const uint32_t character = TakeCharacter(text, at);
        if (character >= 0x10000) {
            name += static_cast<char16_t>(0xD800 + ((character - 0x10000) >> 10U));
            name += static_cast<char16_t>(0xDC00 + (character & 0x3FFU));
        } else {
            name += static_cast<char16_t>(character);
        }
    }
    return name;
}

std::u16string NtfsNameAt(const char* bytes, uint32_t characters) {
    std::u16string name(characters, u'\0');
    for (uint32_t index = 0; index < characters; ++index) {
        Le16_t unit{};
        std::memcpy(&unit, bytes + size_t{index} * sizeof(unit), sizeof(unit));
        name[index] = static_cast<char16_t>(uint16_t{unit});
    }
    return name;
}

bool IsSameNtfsName(const std::u16string& left, const std::u16string& right) {
    return left.size() == right.size() && EqualIgnoringCase(left.data(), right.data(), left.size());
}
