#pragma once

#include <cstdint>
#include <cstring>

#include "foundation/AutoMemory.h"
#include "foundation/detail/ByteView.h"
#include "ntfs/DRFileRecord.h"
#include "ntfs/detail/NtfsFormat.h"
#include "platform/Export.h"

// What the readers of file records share.

// Holds a record's head, whatever the size of records is said to be.
constexpr uint32_t SmallestRecordBuffer = 64;

// `record` is at least that large.
inline NtfsFileRecord_t HeadOf(const char* record) {
    NtfsFileRecord_t head{};
    std::memcpy(&head, record, sizeof(head));
    return head;
}

// Null for an empty block, as a resident attribute leaves it.
inline DATARUN_EXTENTS* ExtentsOf(CAutoMemory<char>& block) {
    return reinterpret_cast<DATARUN_EXTENTS*>(block.GetPtr());
}

// Of an attribute that isn't resident.
inline NtfsNonResidentForm_t NonResidentFormOf(const ATTR_RECORD_HEADER_t* attribute) {
    NtfsNonResidentForm_t form{};
    std::memcpy(&form, reinterpret_cast<const char*>(attribute) + NonResidentFormOffset, sizeof(form));
    return form;
}

// The value of a resident attribute; empty for another one.
inline CByteView ResidentValueOf(const ATTR_RECORD_HEADER_t* attribute) {
    if (attribute->IsNonResident != 0)
        return {};
    NtfsResidentForm_t form{};
    const char* const start = reinterpret_cast<const char*>(attribute);
    std::memcpy(&form, start + ResidentFormOffset, sizeof(form));
    return {start + form.valueOffset, form.valueLength};
}

// Makes `extents` the runs of an attribute that begins at `startVcn`; empty for a resident one.
inline int DecodeRuns(ATTR_RECORD_HEADER_t* attribute, CAutoMemory<char>& extents, uint64_t startVcn) {
    extents.Free();
    char* const runs = CDRFileRecord::GetDataRunFromAttr(attribute);
    if (runs == nullptr)
        return NtfsOk;
    return CDRFileRecord::ConvertDataRunToExtent(runs, CDRFileRecord::GetDataRunBytes(attribute), &extents, startVcn);
}

// Decodes the runs of a later segment and puts them behind those of `extents`.
int AppendRuns(ATTR_RECORD_HEADER_t* attribute, CAutoMemory<char>& extents, uint64_t startVcn);

// True when the attribute has a name and `text` begins with it, or is it.
bool HasName(const ATTR_RECORD_HEADER_t* attribute, const char16_t* text);

// The first name of that kind; callers rely on kind 3, a long name that is a short one too, serving for both. Null for
// none.
DISKSTREAM_EXPORT ATTR_RECORD_HEADER_t* FindFileName(char* record, uint32_t kind);

// 16-bit characters without an end. NtfsIndexNotFound for no attribute at all.
int CopyFileName(const ATTR_RECORD_HEADER_t* attribute, CAutoMemory<char>& name);

// Grows `buffer`, with its contents, and makes room ahead, so that many small steps copy little. False: out of memory,
// and the buffer may be empty.
[[nodiscard]] bool GrowBuffer(CAutoMemory<char>& buffer, uint64_t bytes);
