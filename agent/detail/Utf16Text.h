#pragma once

#include <string>

enum class ByteOrder_t { LittleEndian, BigEndian };

// UTF-8 of the UTF-16 text in `bytes`, which ends at its first NUL. What is no character becomes
// U+FFFD, so that the name can be shown but opens nothing.
std::string Utf8FromUtf16(const std::string& bytes, ByteOrder_t order);
