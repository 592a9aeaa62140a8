#include "agent/detail/NtfsNames.h"

#include <cstring>

#include "foundation/ByteOrder.h"
#include "foundation/detail/UnicodeText.h"
#include "platform/CaseFolding.h"

namespace {

// Takes one character off `text` at `at`. A byte that begins none stands for itself as one that no name has.
uint32_t TakeCharacter(const std::string& text, size_t& at) {
    const auto byte = [&](size_t index) { return static_cast<uint8_t>(text[index]); };
    const uint8_t first = byte(at++);
    if (first < 0x80)
        return first;
    const size_t more = first >= 0xF0 ? 3 : first >= 0xE0 ? 2 : first >= 0xC0 ? 1 : 0;
    if (more == 0 || text.size() - at < more)
        return ReplacementCharacter;
    uint32_t character = first & (0x3FU >> more);
    for (size_t index = 0; index < more; ++index) {
        const uint8_t next = byte(at + index);
        if ((next & 0xC0U) != 0x80)
            return ReplacementCharacter;
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
            unit = CharacterOfPair(unit, name[++at]);
        AppendUtf8(unit, text);
    }
    return text;
}

std::u16string NtfsNameOfText(const std::string& text) {
    std::u16string name;
    name.reserve(text.size());
    for (size_t at = 0; at < text.size();)
        AppendUtf16(TakeCharacter(text, at), name);
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

std::vector<std::string> NamesOfPath(const std::string& path) {
    std::vector<std::string> names;
    for (size_t at = 0; at < path.size();) {
        const size_t end = std::min(path.find_first_of("/\\", at), path.size());
        std::string name = path.substr(at, end - at);
        at = end + 1;
        if (!name.empty() && name != ".")
            names.push_back(std::move(name));
    }
    return names;
}

bool IsSameNtfsName(const std::u16string& left, const std::u16string& right) {
    return left.size() == right.size() && EqualIgnoringCase(left.data(), right.data(), left.size());
}
