#include "ntfs/DRFileRecord.h"

#include <cstring>

#include "foundation/detail/ByteView.h"
#include "ntfs/detail/NtfsFormat.h"

const char _ErrMsg[26][50] = {
    "No Error",
    "Invalid Parameter",
    "Out Of Memory",
    "Invalid MFT Record",
    "File Record is Corrupted",
    "Reached End of Data run",
    "Value Out Of Range",
    "Too many File records",
    "No $DATA in file",
    "Run Offset More than 8 Bytes",
    "File Not in Use",
    "Cannot read Directory",
    "Unknown Compression Unit",
    "Not a valid Index File",
    "Collation Rule Not set to File Name",
    "Index Record is Corrupted",
    "Index Not Found",
    "Index Found",
    "File Record is not a base record",
    "Attribute not found",
    "Error Opening MFT CTree table",
    "Error inserting new entried into CTree",
    "Error Closing CTree table",
    "See Previous log line",
    "Cluster size is not supported",
    "Quit flag set. Processing aborted",
};

namespace {

constexpr uint32_t UnknownLength = 0xFFFFFFFF;  // of a buffer whose owner vouches for its end marks
constexpr uint32_t HighestSearchable = 0xFFFFFFFD;

template <typename Record> Record Load(const void* from) {
    Record record{};
    std::memcpy(&record, from, sizeof(record));
    return record;
}

NtfsResidentForm_t ResidentForm(const ATTR_RECORD_HEADER_t* attribute) {
    return Load<NtfsResidentForm_t>(reinterpret_cast<const char*>(attribute) + ResidentFormOffset);
}

NtfsNonResidentForm_t NonResidentForm(const ATTR_RECORD_HEADER_t* attribute) {
    return Load<NtfsNonResidentForm_t>(reinterpret_cast<const char*>(attribute) + NonResidentFormOffset);
}

uint32_t SignatureOf(const char* record) {
    return Load<Le32_t>(record);
}

ATTR_RECORD_HEADER_t* AttributeAt(char* place) {
    return reinterpret_cast<ATTR_RECORD_HEADER_t*>(place);
}

ATTR_RECORD_HEADER_t* FirstAttribute(char* record) {
    return AttributeAt(record + Load<Le16_t>(record + offsetof(NtfsFileRecord_t, firstAttribute)));
}

ATTR_RECORD_HEADER_t* Behind(ATTR_RECORD_HEADER_t* attribute) {
    return AttributeAt(reinterpret_cast<char*>(attribute) + attribute->Length);
}

// Ends at the end marker, or at a length that would stand still.
ATTR_RECORD_HEADER_t* Search(ATTR_RECORD_HEADER_t* attribute, uint32_t type) {
    while (attribute->Type != type) {
        if (attribute->Type == AttrEndMarker || attribute->Length == 0)
            return nullptr;
        attribute = Behind(attribute);
    }
    return attribute;
}

int FixSectors(char* record, uint32_t recordBytes, uint32_t sectorSize, int failure) {
    const CByteView view(record, recordBytes);
    NtfsRecordHead_t head{};
    Le16_t check{};
    if (!view.Get(0, head) || !view.Get(head.sequenceOffset, check))
        return failure;
    for (uint64_t index = 1; index < head.sequenceCount; ++index) {
        const uint64_t sectorEnd = index * sectorSize;
        Le16_t stored{};
        Le16_t original{};
        if (sectorEnd < sizeof(stored) || !view.Get(sectorEnd - sizeof(stored), stored) || stored != check ||
            !view.Get(head.sequenceOffset + index * sizeof(original), original))
            return failure;
        std::memcpy(record + sectorEnd - sizeof(original), &original, sizeof(original));
    }
    return NtfsOk;
}

struct Run_t {
    uint64_t length = 0;
    uint64_t lcn = 0;
    bool isHole = false;
};

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

// Takes the runs off a list, one after the other.
class CRunListReader {
public:
    CRunListReader(CByteView list, uint64_t startVcn) : m_List(list), m_Vcn(startVcn) {}

    // NtfsEndOfRun behind the last one. Each run takes at least its own head off the list, so it ends.
    int Next(DATARUN_EXTENT_t& extent) {
        U8_t head{};
        if (!m_List.Get(m_At, head))
            return NtfsRecordCorrupted;
        if (head == 0)
            return NtfsEndOfRun;
        const unsigned lengthBytes = head & 0xFU;
        const unsigned offsetBytes = head >> 4U;
        if (lengthBytes > 8 || offsetBytes > 8)
            return NtfsRunTooWide;
        if (!m_List.Holds(m_At + 1, lengthBytes + offsetBytes))
            return NtfsRecordCorrupted;
        const char* const numbers = m_List.Data() + m_At + 1;
        m_At += 1 + lengthBytes + offsetBytes;
        const uint64_t length = LittleEndianNumber(numbers, lengthBytes);
        if (length > ~m_Vcn)
            return NtfsRecordCorrupted;
        m_Vcn += length;
        // Offsets count from the last run with clusters, so holes leave it where it is.
        m_Lcn += SignExtended(LittleEndianNumber(numbers + lengthBytes, offsetBytes), offsetBytes);
        extent.NextVcn = m_Vcn;
        extent.RunLength = length;
        extent.StartLcn = offsetBytes == 0 ? HoleLcn : m_Lcn;
        extent.EndLcn = offsetBytes == 0 ? HoleLcn : m_Lcn + length - 1;
        return NtfsOk;
    }

private:
    CByteView m_List;
    uint64_t m_At = 0;
    uint64_t m_Vcn;
    uint64_t m_Lcn = 0;
};

// How many runs are whole, and how the list ends.
uint32_t CountRuns(CByteView list, uint64_t startVcn, int& result) {
    CRunListReader reader(list, startVcn);
    DATARUN_EXTENT_t extent{};
    uint32_t count = 0;
    while ((result = reader.Next(extent)) == NtfsOk)
        ++count;
    if (result == NtfsEndOfRun)
        result = NtfsOk;
    return count;
}

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

}  // namespace

const char* NtfsErrorText(int result) {
    constexpr int lastResult = NtfsQuit;
    return result <= 0 && result >= lastResult ? _ErrMsg[-result] : nullptr;
}

int CDRFileRecord::IsValidFileRec(const char* record) {
    if (record == nullptr)
        return NtfsInvalidParameter;
    return SignatureOf(record) == FileSignature ? NtfsOk : NtfsNotInUse;
}

int CDRFileRecord::IsValidIndexRec(const char* record) {
    return record != nullptr && SignatureOf(record) == IndexSignature ? NtfsOk : NtfsInvalidParameter;
}

ATTR_RECORD_HEADER_t* CDRFileRecord::FindFirstAttr(char* record, unsigned int type) {
    return Search(FirstAttribute(record), type);
}

ATTR_RECORD_HEADER_t* CDRFileRecord::FindNextAttr(unsigned int type, ATTR_RECORD_HEADER_t* attribute) {
    if (attribute->Type > HighestSearchable || attribute->Length == 0 || type == AttrEndMarker)
        return nullptr;
    return Search(Behind(attribute), type);
}

ATTR_RECORD_HEADER_t* CDRFileRecord::GetFirstAttr(char* record) {
    ATTR_RECORD_HEADER_t* const first = FirstAttribute(record);
    return first->Type == AttrEndMarker ? nullptr : first;
}

ATTR_RECORD_HEADER_t* CDRFileRecord::GetNextAttr(ATTR_RECORD_HEADER_t* attribute) {
    if (attribute->Type == AttrEndMarker || attribute->Length == 0)
        return nullptr;
    ATTR_RECORD_HEADER_t* const next = Behind(attribute);
    return next->Type == AttrEndMarker ? nullptr : next;
}

char* CDRFileRecord::GetDataRunFromAttr(ATTR_RECORD_HEADER_t* attribute) {
    if (attribute->IsNonResident == 0)
        return nullptr;
    return reinterpret_cast<char*>(attribute) + NonResidentForm(attribute).runListOffset;
}

uint32_t CDRFileRecord::GetDataRunBytes(const ATTR_RECORD_HEADER_t* attribute) {
    if (attribute->IsNonResident == 0)
        return 0;
    const uint32_t offset = NonResidentForm(attribute).runListOffset;
    return offset < attribute->Length ? attribute->Length - offset : 0;
}

uint16_t CDRFileRecord::GetCompressionUnit(const ATTR_RECORD_HEADER_t* attribute) {
    return attribute->IsNonResident == 0 ? uint16_t{0} : NonResidentForm(attribute).compressionUnit;
}

uint64_t CDRFileRecord::GetAttributeDataSize(const ATTR_RECORD_HEADER_t* attribute) {
    if (attribute->IsNonResident == 0)
        return ResidentForm(attribute).valueLength;
    return NonResidentForm(attribute).dataBytes;
}

int CDRFileRecord::ConvertDataRunToExtent(char* runList, CAutoMemory<char>* extents, uint64_t startVcn) {
    return ConvertDataRunToExtent(runList, UnknownLength, extents, startVcn);
}

int CDRFileRecord::ConvertDataRunToExtent(char* runList, uint32_t runListBytes, CAutoMemory<char>* extents,
                                          uint64_t startVcn) {
    const CByteView list(runList, runListBytes);
    int result = NtfsOk;
    const uint32_t count = CountRuns(list, startVcn, result);
    const uint64_t bytes = sizeof(DATARUN_EXTENTS) + uint64_t{count} * sizeof(DATARUN_EXTENT_t);
    if (bytes > UnknownLength || extents->Alloc(static_cast<uint32_t>(bytes)) == nullptr)
        return NtfsOutOfMemory;
    auto* const block = reinterpret_cast<DATARUN_EXTENTS*>(extents->GetPtr());
    *block = DATARUN_EXTENTS{};
    block->Count = count;
    CRunListReader reader(list, startVcn);
    for (uint32_t index = 0; index < count; ++index)
        reader.Next(block->Runs()[index]);
    return result;
}

int CDRFileRecord::DoFILESectorFixup(char* record, uint32_t sectorSize) {
    return FixSectors(record, UnknownLength, sectorSize, NtfsRecordCorrupted);
}

int CDRFileRecord::DoINDXSectorFixup(char* record, uint32_t sectorSize) {
    return FixSectors(record, UnknownLength, sectorSize, NtfsIndexCorrupted);
}

int CDRFileRecord::DoFILESectorFixup(char* record, uint32_t recordBytes, uint32_t sectorSize) {
    return FixSectors(record, recordBytes, sectorSize, NtfsRecordCorrupted);
}

int CDRFileRecord::DoINDXSectorFixup(char* record, uint32_t recordBytes, uint32_t sectorSize) {
    return FixSectors(record, recordBytes, sectorSize, NtfsIndexCorrupted);
}

int CDRFileRecord::CheckAttributes(const char* record, uint32_t recordBytes) {
    const CByteView view(record, recordBytes);
    NtfsFileRecord_t head{};
    if (!view.Get(0, head))
        return NtfsRecordCorrupted;
    // Each step moves on by at least a byte, so the walk ends on any bytes.
    for (uint64_t at = head.firstAttribute;;) {
        Le32_t type{};
        if (!view.Get(at, type))
            return NtfsRecordCorrupted;
        if (type == AttrEndMarker)
            return NtfsOk;
        ATTR_RECORD_HEADER_t attribute{};
        if (!view.Get(at, attribute) || attribute.Length == 0 || !view.Holds(at, attribute.Length) ||
            !PieceLiesInside(view, at + attribute.NameOffset, uint64_t{attribute.NameLength} * 2) ||
            !FormLiesInside(view, at, attribute))
            return NtfsRecordCorrupted;
        at += attribute.Length;
    }
}
