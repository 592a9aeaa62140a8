#pragma once

#include <string>

// UTF-8 to the 16-bit text of the system, and back. Bytes that aren't UTF-8 become U+FFFD.
std::wstring WideFromUtf8(const char* text);
std::string Utf8FromWide(const wchar_t* text);
