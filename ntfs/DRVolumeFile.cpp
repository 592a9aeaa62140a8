#include <cstring>
#include <unordered_set>

#include "ntfs/DRVolume.h"
#include "ntfs/detail/AttributeList.h"
#include "ntfs/detail/NtfsFormat.h"
#include "ntfs/detail/ReadPosition.h"
#include "ntfs/detail/VolumeSteps.h"
#include "ntfs/detail/WithinMemory.h"

namespace {

constexpr size_t MostRecordsOfFile = 10000;
constexpr uint32_t NoSecurityStream = 1;  // the place in the stream order behind it

ATTR_RECORD_HEADER_t* FindUnnamedData(char* record) {
    ATTR_RECORD_HEADER_t* data = CDRFileRecord::FindFirstAttr(record, AttrData);
    while (data != nullptr && data->NameLength != 0)
        data = CDRFileRecord::FindNextAttr(AttrData, data);
    return data;
}

}  // namespace

int CDRVolume::OpenFile(uint64_t frn, CAutoMemory<char>* record, int withSecurity, READFILECONTEXT* ctx) {
    if (record == nullptr || ctx == nullptr)
        return NtfsInvalidParameter;
    *ctx = READFILECONTEXT();
    if (withSecurity == 0)
        ctx->attrIndex = NoSecurityStream;
    return NtfsWithinMemory([&]() -> int {
        NTFS_RETURN_IF_FAILED(ReadMendedRecord(frn, *record));
        const NtfsFileRecord_t head = HeadOf(record->GetPtr());
        if ((head.flags & RecordInUse) == 0)
            return NtfsNotInUse;
        NTFS_RETURN_IF_FAILED(CheckRecord(record->GetPtr()));
        if (head.baseReference != 0)
            return NtfsNotBaseRecord;
        ATTR_RECORD_HEADER_t* const list = CDRFileRecord::FindFirstAttr(record->GetPtr(), AttrAttributeList);
        return list == nullptr ? NtfsOk : MergeExtensions(frn, list, *record);
    });
}

int CDRVolume::MergeExtensions(uint64_t frn, ATTR_RECORD_HEADER_t* list, CAutoMemory<char>& record) {
    CAutoMemory<char> entries;
    NTFS_RETURN_IF_FAILED(ReadWholeValue(list, entries));
    const auto* const marker = CDRFileRecord::FindFirstAttr(record.GetPtr(), AttrEndMarker);
    auto markerOffset = static_cast<uint64_t>(reinterpret_cast<const char*>(marker) - record.GetPtr());
    std::unordered_set<uint64_t> merged = {frn};
    CAutoMemory<char> scratch;
    CAttributeListWalk walk(CByteView(entries.GetPtr(), entries.GetSize()));
    NtfsAttributeListEntry_t entry{};
    while (walk.Next(entry)) {
        const uint64_t extension = entry.reference & FrnMask;
        if (merged.count(extension) != 0)
            continue;
        if (merged.size() == MostRecordsOfFile)
            return NtfsTooManyRecords;
        merged.insert(extension);
        NTFS_RETURN_IF_FAILED(MergeRecord(extension, scratch, record, markerOffset));
    }
    return CDRFileRecord::CheckAttributes(record.GetPtr(), record.GetSize());
}

// Lays the attributes of an extension record, and its end marker, over the end marker of those merged so far.
int CDRVolume::MergeRecord(uint64_t frn, CAutoMemory<char>& scratch, CAutoMemory<char>& record,
                           uint64_t& markerOffset) {
    NTFS_RETURN_IF_FAILED(ReadSoundRecord(frn, scratch));
    const auto* const first = scratch.GetPtr() + HeadOf(scratch.GetPtr()).firstAttribute;
    const auto* const marker =
        reinterpret_cast<const char*>(CDRFileRecord::FindFirstAttr(scratch.GetPtr(), AttrEndMarker));
    if (!GrowBuffer(record, markerOffset + scratch.GetSize()))
        return NtfsOutOfMemory;
    const auto bytes = static_cast<uint64_t>(scratch.GetPtr() + scratch.GetSize() - first);
    char* const target = record.GetPtr() + markerOffset;
    std::memcpy(target, first, bytes);
    std::memset(target + bytes, 0, scratch.GetSize() - bytes);
    markerOffset += static_cast<uint64_t>(marker - first);
    return NtfsOk;
}

int CDRVolume::CloseFile(CAutoMemory<char>* record, READFILECONTEXT* ctx) {
    if (ctx != nullptr)
        *ctx = READFILECONTEXT();
    if (record != nullptr && record->GetPtr() != nullptr)
        *record->GetPtr() = 0;
    return NtfsOk;
}

int CDRVolume::ReadFile(CAutoMemory<char>* record, char* buffer, uint32_t size, uint32_t* read, READFILECONTEXT* ctx) {
    if (record == nullptr || read == nullptr || ctx == nullptr)
        return NtfsInvalidParameter;
    *read = 0;
    NTFS_RETURN_IF_FAILED(CDRFileRecord::IsValidFileRec(record->GetPtr()));
    if ((HeadOf(record->GetPtr()).flags & RecordIsDirectory) != 0)
        return NtfsIsDirectory;
    if (ctx->currentAttr == nullptr) {
        ATTR_RECORD_HEADER_t* const data = FindUnnamedData(record->GetPtr());
        if (data == nullptr)
            return NtfsNoData;
        NTFS_RETURN_IF_FAILED(DecodeRuns(data, ctx->extents, 0));
        ctx->currentAttr = data;
    }
    return ReadAttribute(ctx->currentAttr, ExtentsOf(ctx->extents), &ctx->vcn, &ctx->offsetInCluster, buffer, size,
                         read);
}

int CDRVolume::GetFileTime(CAutoMemory<char>* record, uint64_t* creation, uint64_t* access, uint64_t* write) {
    return GetFileTimeAndAttribs(record, creation, access, write, nullptr);
}

int CDRVolume::GetFileTimeAndAttribs(CAutoMemory<char>* record, uint64_t* creation, uint64_t* access, uint64_t* write,
                                     unsigned int* attributes) {
    for (uint64_t* const time : {creation, access, write})
        if (time != nullptr)
            *time = 0;
    if (record == nullptr || record->GetPtr() == nullptr || creation == nullptr || access == nullptr ||
        write == nullptr)
        return NtfsInvalidParameter;
    ATTR_RECORD_HEADER_t* const information = CDRFileRecord::FindFirstAttr(record->GetPtr(), AttrStandardInformation);
    if (information == nullptr)
        return NtfsInvalidMftRecord;
    NtfsStandardInformation_t value{};
    Position_t position;
    uint32_t read = 0;
    NTFS_RETURN_IF_FAILED(ReadAttribute(information, nullptr, &position.vcn, &position.offset,
                                        reinterpret_cast<char*>(&value), sizeof(value), &read));
    const bool isDirectory = (HeadOf(record->GetPtr()).flags & RecordIsDirectory) != 0;
    *creation = value.creation;
    *access = value.access;
    *write = isDirectory ? value.mftChange : value.modification;
    if (attributes != nullptr)
        *attributes = value.attributes;
    return NtfsOk;
}
