#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Names of NTFS are any 16-bit characters. As text they are UTF-8; half a surrogate pair, which is no character, has
// the three bytes that it would have as one, so that each name has a text of its own that leads back to it.
std::string TextOfNtfsName(const std::u16string& name);
std::u16string NtfsNameOfText(const std::string& text);

// The name's 16-bit characters as they lie on disk.
std::u16string NtfsNameAt(const char* bytes, uint32_t characters);

// The names on a path with separators of either kind, as text. Empty ones and "." lead nowhere and aren't among them.
std::vector<std::string> NamesOfPath(const std::string& path);

// The same but for their case.
bool IsSameNtfsName(const std::u16string& left, const std::u16string& right);
