#include "VirtualServer/VMInfo/detail/NtfsRecordWalk.h"

#include <algorithm>
#include <cstring>

#include "VirtualServer/VMInfo/detail/NtfsRecordFormat.h"

namespace {

// Nothing is read where there are no bytes, so their place may be any.
bool PieceLiesInside(CByteView record, uint64_t offset, uint64_t bytes) {
    return bytes == 0 || record.Holds(offset, bytes);
}

bool FormLiesInside(CByteView record, uint64_t at, const ATTR_RECORD_HEADER_t& attribute) {
    if (attribute.IsNonResident == 0) {
        NtfsResidentForm_t form{};
        return record.Get(at + ResidentFormOffset, form) &&
               PieceLiesInside(record, at + form.valueOffset, form.valueLength);
    }
    NtfsNonResidentForm_t form{};
    return record.Get(at + NonResidentFormOffset, form) && record.Holds(at + form.runListOffset, 1);
}

uint64_t LittleEndianNumber(const char* bytes, unsigned count) {
    uint64_t value = 0;
    for (unsigned index = count; index-- > 0;)
        value = value << 8U | static_cast<uint8_t>(bytes[index]);
    return value;
}

uint64_t SignExtended(uint64_t value, unsigned count) {
    const bool isNegative = count != 0 && count < 8 && (value >> (8 * count - 1) & 1U) != 0;
    return isNegative ? value | ~uint64_t{0} << (8 * count) : value;
}

}  // namespace

bool MendSectorEnds(char* record, uint32_t recordBytes, uint32_t sectorSize) {
    const CByteView view(record, recordBytes);
    NtfsRecordHead_t head{};
    Le16_t check{};
    if (!view.Get(0, head) || !view.Get(head.sequenceOffset, check))
        return false;
    for (uint64_t index = 1; index < head.sequenceCount; ++index) {
        const uint64_t sectorEnd = index * sectorSize;
        Le16_t stored{};
        Le16_t original{};
        if (sectorEnd < sizeof(stored) || !view.Get(sectorEnd - sizeof(stored), stored) || stored != check ||
            !view.Get(head.sequenceOffset + index * sizeof(original), original))
            return false;
        std::memcpy(record + sectorEnd - sizeof(original), &original, sizeof(original));
    }
    return true;
}

bool AttributesLieInside(CByteView record) {
    NtfsFileRecord_t head{};
    if (!record.Get(0, head))
        return false;
    // Each step moves on by at least a byte, so the check ends on any bytes.
    for (uint64_t at = head.firstAttribute;;) {
        Le32_t type{};
        if (!record.Get(at, type))
            return false;
        if (type == AttrEndMarker)
            return true;
        ATTR_RECORD_HEADER_t attribute{};
        if (!record.Get(at, attribute) || attribute.Length == 0 || !record.Holds(at, attribute.Length) ||
            !PieceLiesInside(record, at + attribute.NameOffset, uint64_t{attribute.NameLength} * 2) ||
            !FormLiesInside(record, at, attribute))
            return false;
        at += attribute.Length;
    }
}

CByteView FindUnnamedAttribute(CByteView record, uint32_t type) {
    NtfsFileRecord_t head{};
    ATTR_RECORD_HEADER_t attribute{};
    if (!record.Get(0, head))
        return {};
    // The end marker may be too close to the record's end to be a whole head. A length of 0 would stand still.
    for (uint64_t at = head.firstAttribute; record.Get(at, attribute); at += attribute.Length) {
        if (attribute.Type == AttrEndMarker || attribute.Length == 0)
            break;
        if (attribute.Type == type && attribute.NameLength == 0)
            return {record.Data() + at, std::min<uint64_t>(attribute.Length, record.Size() - at)};
    }
    return {};
}

NtfsRunStep_t CNtfsRunReader::Next(NtfsDataRun_t& run) {
    U8_t head{};
    if (!m_List.Get(m_At, head))
        return NtfsRunStep_t::Corrupted;
    if (head == 0)
        return NtfsRunStep_t::End;
    const unsigned lengthBytes = head & 0xFU;
    const unsigned offsetBytes = head >> 4U;
    if (lengthBytes > 8 || offsetBytes > 8)
        return NtfsRunStep_t::TooWide;
    if (!m_List.Holds(m_At + 1, lengthBytes + offsetBytes))
        return NtfsRunStep_t::Corrupted;
    const char* const numbers = m_List.Data() + m_At + 1;
    m_At += 1 + lengthBytes + offsetBytes;
    const uint64_t clusters = LittleEndianNumber(numbers, lengthBytes);
    if (clusters > ~m_Vcn)
        return NtfsRunStep_t::Corrupted;
    run.firstVcn = m_Vcn;
    m_Vcn += clusters;
    // Offsets count from the last run with clusters, so holes leave it where it is.
    m_Lcn += SignExtended(LittleEndianNumber(numbers + lengthBytes, offsetBytes), offsetBytes);
    run.clusters = clusters;
    run.firstLcn = m_Lcn;
    run.isHole = offsetBytes == 0;
    return NtfsRunStep_t::Run;
}
