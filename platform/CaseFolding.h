#pragma once

#include <cstddef>

#include "platform/Export.h"

// Upper and lower case of 16-bit characters as NTFS sees them: by the table that Windows writes into each volume that
// it formats, and so the same on every machine and in every language. Each half of a surrogate pair stands for itself.

// The character's upper case; the character itself where it has none.
DISKSTREAM_EXPORT char16_t FoldCase(char16_t character);

// True when the first `count` characters of both are the same but for their case.
DISKSTREAM_EXPORT bool EqualIgnoringCase(const char16_t* left, const char16_t* right, size_t count);
