#include <algorithm>
#include <cerrno>
#include <cstring>

#include "archive/MAVolume.h"
#include "archive/detail/ArchiveTexts.h"
#include "ntfs/detail/NtfsFormat.h"
#include "ntfs/detail/VolumeSteps.h"
#include "ntfs/detail/WithinMemory.h"

// Opening of files, and what their records tell of them.

namespace {

constexpr uint32_t DirectoryAttribute = 0x10;
constexpr uint64_t NeededInformationBytes = 36;  // up to the attributes
constexpr uint32_t LeaveSecurityOut = 1;         // the place in the stream order behind it

void ResetContext(MA_BACKUPREAD_CONTEXT& context, int withSecurity) {
    context = MA_BACKUPREAD_CONTEXT();
    context.tableIndex = withSecurity == 1 ? 0 : LeaveSecurityOut;
}

bool HoldsRecord(CAutoMemory<char>* record) {
    return record != nullptr && record->GetPtr() != nullptr;
}

}  // namespace

int CMAVolume::OpenFile(uint64_t frn, CAutoMemory<char>* record, int withSecurity, MA_BACKUPREAD_CONTEXT* ctx) {
    if (record == nullptr || ctx == nullptr || m_MftFile == nullptr)
        return Fail(NtfsInvalidParameter, InvalidParameterText);
    ResetContext(*ctx, withSecurity);
    record->Alloc(0);
    const uint32_t bytes = std::max(RecordBytes(), SmallestRecordBuffer);
    if (bytes > NtfsCeilingBytes || m_RecordScratch.Alloc(bytes) == nullptr)
        return Fail(NtfsOutOfMemory, OutOfMemoryText);
    NTFS_RETURN_IF_FAILED(ReadSoundRecord(frn));
    if (HeadOf(m_RecordScratch.GetPtr()).baseReference != 0)
        return FailByResult(NtfsNotBaseRecord);
    if (record->Alloc(bytes) == nullptr)
        return Fail(NtfsOutOfMemory, OutOfMemoryText);
    std::memcpy(record->GetPtr(), m_RecordScratch.GetPtr(), bytes);
    const auto* const marker =
        reinterpret_cast<const char*>(CDRFileRecord::FindFirstAttr(record->GetPtr(), AttrEndMarker));
    auto markerOffset = static_cast<uint64_t>(marker - record->GetPtr());
    const Le64_t* const end = reinterpret_cast<const Le64_t*>(m_AssocList.GetPtr()) + uint64_t{m_AssocCount} * 2;
    for (const Le64_t* pair = FindAssociation(frn); pair != nullptr && pair != end && pair[0] == frn; pair += 2) {
        NTFS_RETURN_IF_FAILED(ReadSoundRecord(pair[1]));
        NTFS_RETURN_IF_FAILED(MergeScratch(*record, markerOffset));
    }
    ClearLastErrorStr();
    return NtfsOk;
}

// Reads a record into the scratch buffer, mends it, and makes sure that it can be walked.
int CMAVolume::ReadSoundRecord(uint64_t frn) {
    char* const record = m_RecordScratch.GetPtr();
    std::memset(record, 0, SmallestRecordBuffer);
    NTFS_RETURN_IF_FAILED(ReadMFTRecord(frn, record));
    int result = CDRFileRecord::IsValidFileRec(record);
    if (result == NtfsOk)
        result = CDRFileRecord::DoFILESectorFixup(record, m_RecordScratch.GetSize(), m_VolumeData.BytesPerSector);
    if (result == NtfsOk && (HeadOf(record).flags & RecordInUse) == 0)
        result = NtfsNotInUse;
    if (result == NtfsOk)
        result = CDRFileRecord::CheckAttributes(record, m_RecordScratch.GetSize());
    return result == NtfsOk ? NtfsOk : FailByResult(result);
}

// The first pair of that base; null for none.
const Le64_t* CMAVolume::FindAssociation(uint64_t baseFrn) const {
    const auto* const pairs = reinterpret_cast<const Le64_t*>(m_AssocList.GetPtr());
    uint32_t first = 0;
    for (uint32_t count = m_AssocCount; count != 0;) {
        const uint32_t half = count / 2;
        const bool isBefore = pairs[(uint64_t{first} + half) * 2] < baseFrn;
        first = isBefore ? first + half + 1 : first;
        count = isBefore ? count - half - 1 : half;
    }
    return first < m_AssocCount && pairs[uint64_t{first} * 2] == baseFrn ? pairs + uint64_t{first} * 2 : nullptr;
}

// Lays the attributes of the scratch record, and its end marker, over the end marker of those merged so far.
int CMAVolume::MergeScratch(CAutoMemory<char>& record, uint64_t& markerOffset) {
    const uint32_t oldBytes = record.GetSize();
    if (!GrowBuffer(record, uint64_t{oldBytes} + m_RecordScratch.GetSize()))
        return Fail(NtfsOutOfMemory, OutOfMemoryText);
    char* const scratch = m_RecordScratch.GetPtr();
    const char* const first = scratch + HeadOf(scratch).firstAttribute;
    const auto* const marker = reinterpret_cast<const char*>(CDRFileRecord::FindFirstAttr(scratch, AttrEndMarker));
    const auto bytes = static_cast<uint64_t>(scratch + m_RecordScratch.GetSize() - first);
    char* const target = record.GetPtr() + markerOffset;
    std::memcpy(target, first, bytes);
    std::memset(target + bytes, 0, record.GetSize() - markerOffset - bytes);
    markerOffset += static_cast<uint64_t>(marker - first);
    return NtfsOk;
}

int CMAVolume::CloseFile(CAutoMemory<char>* record, MA_BACKUPREAD_CONTEXT* ctx) {
    if (ctx != nullptr)
        ResetContext(*ctx, 1);
    if (HoldsRecord(record))
        *record->GetPtr() = 0;
    ClearLastErrorStr();
    return NtfsOk;
}

int CMAVolume::ReadResidentAttribute(const ATTR_RECORD_HEADER_t* attribute, CAutoMemory<char>* value) {
    if (attribute->IsNonResident != 0)
        return Fail(NtfsInvalidParameter, InvalidParameterText);
    const CByteView bytes = ResidentValueOf(attribute);
    value->Alloc(0);
    if (bytes.Size() == 0)
        return NtfsOk;
    if (value->Alloc(static_cast<uint32_t>(bytes.Size())) == nullptr)
        return Fail(NtfsOutOfMemory, OutOfMemoryText);
    std::memcpy(value->GetPtr(), bytes.Data(), static_cast<size_t>(bytes.Size()));
    return NtfsOk;
}

// Before version 3 of NTFS the value ended in front of the ids, which are 0 then.
int CMAVolume::ReadStandardInformation(CAutoMemory<char>* record, NtfsStandardInformation_t& value) {
    const ATTR_RECORD_HEADER_t* const attribute =
        CDRFileRecord::FindFirstAttr(record->GetPtr(), AttrStandardInformation);
    if (attribute == nullptr)
        return Fail(NtfsInvalidMftRecord, InvalidRecordText);
    if (attribute->IsNonResident != 0)
        return Fail(NtfsInvalidParameter, InvalidParameterText);
    const CByteView bytes = ResidentValueOf(attribute);
    value = NtfsStandardInformation_t();
    const bool isRead = bytes.Size() >= NeededInformationBytes &&
                        bytes.CopyOut(0, &value, std::min<uint64_t>(bytes.Size(), sizeof(value)));
    return isRead ? NtfsOk : Fail(NtfsInvalidMftRecord, InvalidRecordText);
}

int CMAVolume::GetFileName(CAutoMemory<char>* record, CAutoMemory<char>* name, uint32_t kind) {
    if (!HoldsRecord(record) || name == nullptr)
        return FailByResult(NtfsIndexNotFound);
    const int result = CopyFileName(FindFileName(record->GetPtr(), kind), *name);
    if (result != NtfsOk)
        return FailByResult(result);
    ClearLastErrorStr();
    return NtfsOk;
}

int CMAVolume::GetFileAttribute(CAutoMemory<char>* record, uint32_t* attributes) {
    if (!HoldsRecord(record) || attributes == nullptr)
        return Fail(NtfsInvalidParameter, InvalidParameterText);
    NtfsStandardInformation_t value{};
    NTFS_RETURN_IF_FAILED(ReadStandardInformation(record, value));
    const bool isDirectory = (HeadOf(record->GetPtr()).flags & RecordIsDirectory) != 0;
    *attributes = value.attributes | (isDirectory ? DirectoryAttribute : 0U);
    ClearLastErrorStr();
    return NtfsOk;
}

int CMAVolume::GetFileTime(CAutoMemory<char>* record, uint64_t* creation, uint64_t* access, uint64_t* write) {
    if (!HoldsRecord(record) || creation == nullptr || access == nullptr || write == nullptr)
        return Fail(NtfsInvalidParameter, InvalidParameterText);
    NtfsStandardInformation_t value{};
    NTFS_RETURN_IF_FAILED(ReadStandardInformation(record, value));
    const bool isDirectory = (HeadOf(record->GetPtr()).flags & RecordIsDirectory) != 0;
    *creation = value.creation;
    *access = value.access;
    *write = isDirectory ? value.mftChange : value.modification;
    ClearLastErrorStr();
    return NtfsOk;
}
