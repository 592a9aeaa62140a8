#pragma once

#include <cstdint>

#include "VirtualServer/VMInfo/LDMDatabase.h"
#include "foundation/ZuError.h"
#include "foundation/detail/ByteView.h"

// The fields of a record, taken one behind the other. A number and a text have a byte for their length
// in front. What would leave the record fails with the words for a length that is too large, and the
// bytes that are left.
class CVblkFields {
public:
    static constexpr uint64_t FirstField = 24;

    explicit CVblkFields(CByteView record) : m_Record(record) {}

    // Fills all of `text`'s `most` bytes, with zeros behind the text. One of exactly `most` bytes has no
    // terminator.
    CZuError GetLDMVarStr(char* text, uint32_t most);
    CZuError GetLDMVarNum(uint64_t& number);
    CZuError TakeBytes(void* bytes, uint32_t size);
    CZuError Skip(uint32_t size);

private:
    CZuError TakeLength(uint32_t& length);
    CZuError RunOut(uint64_t size) const;

    CByteView m_Record;
    uint64_t m_At = FirstField;
};

// Reads one whole record of any type.
CZuError ParseVblkRecord(CByteView bytes, CLDM_VBLK& record);
