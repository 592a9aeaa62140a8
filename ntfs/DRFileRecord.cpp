#include "ntfs/DRFileRecord.h"

#include <cstring>

#include "VirtualServer/VMInfo/detail/NtfsRecordWalk.h"
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

// Takes the runs off a list as extents, one after the other.
class CDataRunExtents {
public:
    CDataRunExtents(CByteView list, uint64_t startVcn) : m_Runs(list, startVcn) {}

    // NtfsEndOfRun behind the last one.
    int Next(DATARUN_EXTENT_t& extent) {
        NtfsDataRun_t run;
        switch (m_Runs.Next(run)) {
        case NtfsRunStep_t::Run: break;
        case NtfsRunStep_t::End: return NtfsEndOfRun;
        case NtfsRunStep_t::TooWide: return NtfsRunTooWide;
        case NtfsRunStep_t::Corrupted: return NtfsRecordCorrupted;
        }
        extent.NextVcn = run.firstVcn + run.clusters;
        extent.RunLength = run.clusters;
        extent.StartLcn = run.isHole ? HoleLcn : run.firstLcn;
        extent.EndLcn = run.isHole ? HoleLcn : run.firstLcn + run.clusters - 1;
        return NtfsOk;
    }

private:
    CNtfsRunReader m_Runs;
};

// How many runs are whole, and how the list ends.
uint32_t CountRuns(CByteView list, uint64_t startVcn, int& result) {
    CDataRunExtents reader(list, startVcn);
    DATARUN_EXTENT_t extent{};
    uint32_t count = 0;
    while ((result = reader.Next(extent)) == NtfsOk)
        ++count;
    if (result == NtfsEndOfRun)
        result = NtfsOk;
    return count;
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
    CDataRunExtents reader(list, startVcn);
    for (uint32_t index = 0; index < count; ++index)
        reader.Next(block->Runs()[index]);
    return result;
}

int CDRFileRecord::DoFILESectorFixup(char* record, uint32_t sectorSize) {
    return MendSectorEnds(record, UnknownLength, sectorSize) ? NtfsOk : NtfsRecordCorrupted;
}

int CDRFileRecord::DoINDXSectorFixup(char* record, uint32_t sectorSize) {
    return MendSectorEnds(record, UnknownLength, sectorSize) ? NtfsOk : NtfsIndexCorrupted;
}

int CDRFileRecord::DoFILESectorFixup(char* record, uint32_t recordBytes, uint32_t sectorSize) {
    return MendSectorEnds(record, recordBytes, sectorSize) ? NtfsOk : NtfsRecordCorrupted;
}

int CDRFileRecord::DoINDXSectorFixup(char* record, uint32_t recordBytes, uint32_t sectorSize) {
    return MendSectorEnds(record, recordBytes, sectorSize) ? NtfsOk : NtfsIndexCorrupted;
}

int CDRFileRecord::CheckAttributes(const char* record, uint32_t recordBytes) {
    return AttributesLieInside(CByteView(record, recordBytes)) ? NtfsOk : NtfsRecordCorrupted;
}
