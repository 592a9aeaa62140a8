#pragma once

#include <cstdint>

#include "foundation/ByteOrder.h"

// The head that every attribute of a file record begins with. Its form, resident or not, follows. See
// docs/formats/ntfs.md.
struct ATTR_RECORD_HEADER_t {
    Le32_t Type;         //  0  0xFFFFFFFF ends the record
    Le32_t Length;       //  4  bytes to the next attribute
    U8_t IsNonResident;  //  8
    U8_t NameLength;     //  9  16-bit characters
    Le16_t NameOffset;   // 10  from the attribute's start
    Le16_t Flags;        // 12  0x4000 encrypted, 0x8000 sparse
    Le16_t Instance;     // 14
};
static_assert(sizeof(ATTR_RECORD_HEADER_t) == 16);
