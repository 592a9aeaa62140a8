#pragma once

#include <cstdint>
#include <string_view>

// What writing and reading XML have in common: the characters that XML 1.0 can hold, and how a text of others is told.

// The attribute of an element whose text stands there as pairs of hexadecimal digits.
constexpr char XmlEncodingAttribute[] = "encoding";
constexpr char XmlHexEncoding[] = "hex";

// True for what XML can hold at all, be it as it stands or as a reference.
bool IsXmlCharacter(uint32_t character);

// True when `text` is UTF-8, each character in its shortest form, and XML can hold all of it.
bool IsXmlText(std::string_view text);

inline bool IsXmlBlank(char character) {
    return character == ' ' || character == '\t' || character == '\n' || character == '\r';
}

// `text` without the blanks at its beginning and its end.
std::string_view WithoutXmlBlanks(std::string_view text);
