#include "VirtualServer/VMInfo/detail/XmlText.h"

#include <cstddef>

namespace {

// The character at the beginning of `text`, which isn't empty. Returns its bytes, 0 where there is no character.
size_t DecodeUtf8Character(std::string_view text, uint32_t& character) {
    constexpr uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};  // for which so many bytes are the shortest form
    const auto byteAt = [text](size_t at) { return static_cast<uint32_t>(static_cast<unsigned char>(text[at])); };
    const uint32_t first = byteAt(0);
    character = first;
    if (first < 0x80)
        return 1;
    if (first < 0xC0 || first >= 0xF8)
        return 0;
    const size_t length = first >= 0xF0 ? 4 : (first >= 0xE0 ? 3 : 2);
    if (text.size() < length)
        return 0;
    character &= 0x7FU >> length;
    for (size_t at = 1; at < length; ++at) {
        if ((byteAt(at) & 0xC0U) != 0x80)
            return 0;
        character = character << 6U | (byteAt(at) & 0x3FU);
    }
    return character >= smallest[length] ? length : 0;
}

}  // namespace

bool IsXmlCharacter(uint32_t character) {
    if (character < 0x20)
        return character == '\t' || character == '\n' || character == '\r';
    return character < 0xD800 || (character >= 0xE000 && character < 0xFFFE) ||
           (character >= 0x10000 && character < 0x110000);
}

bool IsXmlText(std::string_view text) {
    while (!text.empty()) {
        uint32_t character = 0;
        const size_t length = DecodeUtf8Character(text, character);
        if (length == 0 || !IsXmlCharacter(character))
            return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string_view WithoutXmlBlanks(std::string_view text) {
    while (!text.empty() && IsXmlBlank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && IsXmlBlank(text.back()))
        text.remove_suffix(1);
    return text;
}
