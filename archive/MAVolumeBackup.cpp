#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <unordered_map>

#include "archive/MAVolume.h"
#include "archive/detail/ArchiveTexts.h"
#include "ntfs/detail/BackupStreamFormat.h"
#include "ntfs/detail/MetadataFormat.h"
#include "ntfs/detail/NtfsFormat.h"
#include "ntfs/detail/VolumeSteps.h"
#include "ntfs/detail/WithinMemory.h"
#include "platform/StandardFile.h"

// The two halves of a file: what the metadata holds, as bytes, and what lies elsewhere on the volume, as descriptions.

namespace {

constexpr uint32_t StreamOrder[] = {AttrSecurityDescriptor, AttrData, AttrObjectId, AttrReparsePoint, AttrEa, 0};
constexpr uint32_t StreamIdReparsePoint = 8;
constexpr uint64_t CompressedBytesOffset = 64;  // in an attribute

uint32_t TypeAt(uint32_t tableIndex) {
    return tableIndex < std::size(StreamOrder) ? StreamOrder[tableIndex] : 0;
}

void PassOver(MA_BACKUPREAD_CONTEXT& context) {
    context.needLoad = 1;
    context.position = 0;
    ++context.tableIndex;
}

// Names of NTFS aren't ended; a name of no characters leaves the buffer empty.
int CopyName(const ATTR_RECORD_HEADER_t* attribute, CAutoMemory<char>& name) {
    const uint32_t bytes = uint32_t{attribute->NameLength} * 2;
    name.Alloc(0);
    if (bytes == 0)
        return NtfsOk;
    if (name.Alloc(bytes) == nullptr)
        return NtfsOutOfMemory;
    std::memcpy(name.GetPtr(), reinterpret_cast<const char*>(attribute) + attribute->NameOffset, bytes);
    return NtfsOk;
}

// Callers rely on half of the name alone. The other half is zeros.
int CopyHalfName(const ATTR_RECORD_HEADER_t* attribute, CAutoMemory<char>& name) {
    NTFS_RETURN_IF_FAILED(CopyName(attribute, name));
    if (name.GetSize() != 0)
        std::memset(name.GetPtr() + attribute->NameLength, 0, attribute->NameLength);
    return NtfsOk;
}

// The first part of an attribute that lies outside of the record, of the lowest instance from `instance` on; the last
// one of those of the same instance.
ATTR_RECORD_HEADER_t* FindNonResident(char* record, uint32_t instance) {
    ATTR_RECORD_HEADER_t* found = nullptr;
    for (ATTR_RECORD_HEADER_t* each = CDRFileRecord::GetFirstAttr(record); each != nullptr;
         each = CDRFileRecord::GetNextAttr(each)) {
        const bool isCandidate =
            each->IsNonResident != 0 && NonResidentFormOf(each).lowestVcn == 0 && each->Instance >= instance;
        if (isCandidate && (found == nullptr || each->Instance <= found->Instance))
            found = each;
    }
    return found;
}

// Where clusters are left out, the attribute has a field more, which counts those that aren't.
uint64_t SizeOnDisk(const ATTR_RECORD_HEADER_t* attribute) {
    const NtfsNonResidentForm_t form = NonResidentFormOf(attribute);
    Le64_t compressed{};
    const CByteView bytes(reinterpret_cast<const char*>(attribute), attribute->Length);
    return form.compressionUnit != 0 && bytes.Get(CompressedBytesOffset, compressed) ? compressed : form.dataBytes;
}

// Callers rely on characters being held against the name's bytes, which only an attribute without a name passes.
bool ContinuesAttribute(const ATTR_RECORD_HEADER_t* attribute, const CAutoMemory<char>& name) {
    if (attribute->IsNonResident == 0 || attribute->NameLength != name.GetSize())
        return false;
    const char* const itsName = reinterpret_cast<const char*>(attribute) + attribute->NameOffset;
    return name.GetSize() == 0 || std::memcmp(itsName, name.GetPtr(), name.GetSize()) == 0;
}

}  // namespace

int CMAVolume::ReadSecurityStream(CAutoMemory<char>* record, CAutoMemory<char>* data) {
    data->Alloc(0);
    if (CDRFileRecord::FindFirstAttr(record->GetPtr(), AttrSecurityDescriptor) != nullptr)
        return NtfsOk;
    NtfsStandardInformation_t value{};
    NTFS_RETURN_IF_FAILED(ReadStandardInformation(record, value));
    return ReadSecurityFromFile(value.securityId, data);
}

// Looks through the file from its start each time: it has no index, and callers with many files pay for that.
int CMAVolume::ReadSecurityFromFile(uint32_t id, CAutoMemory<char>* data) {
    if (m_SecurityFile == nullptr)
        return Fail(NtfsInvalidParameter, InvalidParameterText);  // the volume was closed under the file
    int64_t position = sizeof(MetadataSignature);
    for (;;) {
        const int result = SeekStandardFile(m_SecurityFile, position, SEEK_SET);
        if (result != 0) {
            SetLastErrorStr("Failed to set the file pointer, error %d", result);
            return result;
        }
        MetadataSecurityHead_t head{};
        errno = 0;
        if (std::fread(&head, 1, sizeof(head), m_SecurityFile) != sizeof(head)) {
            if (std::ferror(m_SecurityFile) == 0) {
                SetLastErrorStr("Security information not found for ID %d", static_cast<int>(id));
                return NtfsIndexNotFound;
            }
            const int error = errno != 0 ? errno : EIO;
            SetLastErrorStr("Failed to read the security header, error %d", error);
            return error;
        }
        if (head.securityId == id)
            return ReadSecurityData(head.bytes, data);
        position += int64_t{sizeof(head)} + int64_t{uint32_t{head.bytes}};
    }
}

// The memory follows what the file holds, not what the head promises.
int CMAVolume::ReadSecurityData(uint32_t bytes, CAutoMemory<char>* data) {
    constexpr uint32_t pieceBytes = 1U << 20U;
    data->Alloc(0);
    for (uint32_t done = 0; done < bytes;) {
        const uint32_t piece = std::min(bytes - done, pieceBytes);
        if (!GrowBuffer(*data, uint64_t{done} + piece))
            return Fail(NtfsOutOfMemory, OutOfMemoryText);
        errno = 0;
        if (std::fread(data->GetPtr() + done, 1, piece, m_SecurityFile) != piece) {
            const int error = errno != 0 ? errno : EIO;
            SetLastErrorStr("Failed to read the security data, error %d", error);
            return error;
        }
        done += piece;
    }
    return NtfsOk;
}

// Callers rely on this form, which isn't the one that a live volume gives: the id at the end, the volume's own in
// front.
int CMAVolume::ReadObjectIdStream(CAutoMemory<char>* record, CAutoMemory<char>* data) {
    data->Alloc(0);
    const ATTR_RECORD_HEADER_t* const attribute = CDRFileRecord::FindFirstAttr(record->GetPtr(), AttrObjectId);
    if (attribute == nullptr)
        return NtfsOk;
    CAutoMemory<char> value;
    NTFS_RETURN_IF_FAILED(ReadResidentAttribute(attribute, &value));
    if (data->Alloc(ObjectIdStreamBytes) == nullptr)
        return Fail(NtfsOutOfMemory, OutOfMemoryText);
    std::memset(data->GetPtr(), 0, ObjectIdStreamBytes);
    const uint32_t bytes = std::min(value.GetSize(), ObjectIdStreamBytes);
    if (bytes != 0)
        std::memcpy(data->GetPtr() + ObjectIdStreamBytes - bytes, value.GetPtr() + value.GetSize() - bytes, bytes);
    if (bytes < ObjectIdStreamBytes)
        std::memcpy(data->GetPtr(), m_ParentObjId, sizeof(m_ParentObjId));
    return NtfsOk;
}

int CMAVolume::ReadReparsePointStream(CAutoMemory<char>* record, CAutoMemory<char>* name, CAutoMemory<char>* data) {
    return ReadNamedStream(record, AttrReparsePoint, name, data);
}

int CMAVolume::ReadEAStream(CAutoMemory<char>* record, CAutoMemory<char>* name, CAutoMemory<char>* data) {
    return ReadNamedStream(record, AttrEa, name, data);
}

int CMAVolume::ReadNamedStream(CAutoMemory<char>* record, uint32_t type, CAutoMemory<char>* name,
                               CAutoMemory<char>* data) {
    name->Alloc(0);
    data->Alloc(0);
    const ATTR_RECORD_HEADER_t* const attribute = CDRFileRecord::FindFirstAttr(record->GetPtr(), type);
    if (attribute == nullptr || attribute->IsNonResident != 0)
        return NtfsOk;
    if (CopyHalfName(attribute, *name) != NtfsOk)
        return Fail(NtfsOutOfMemory, OutOfMemoryText);
    return ReadResidentAttribute(attribute, data);
}

// Callers rely on the search beginning above the instance given: instance 0 is never found.
int CMAVolume::ReadRADataStream(CAutoMemory<char>* record, CAutoMemory<char>* name, CAutoMemory<char>* data,
                                uint32_t* instance) {
    const ATTR_RECORD_HEADER_t* found = nullptr;
    for (ATTR_RECORD_HEADER_t* each = CDRFileRecord::FindFirstAttr(record->GetPtr(), AttrData); each != nullptr;
         each = CDRFileRecord::FindNextAttr(AttrData, each)) {
        if (each->IsNonResident == 0 && each->Instance > *instance &&
            (found == nullptr || each->Instance <= found->Instance))
            found = each;
    }
    if (found == nullptr) {
        ClearLastErrorStr();
        return NtfsEndOfRun;
    }
    *instance = found->Instance;
    if (CopyName(found, *name) != NtfsOk)
        return Fail(NtfsOutOfMemory, OutOfMemoryText);
    return ReadResidentAttribute(found, data);
}

int CMAVolume::LoadStream(uint32_t type, CAutoMemory<char>* record, MA_BACKUPREAD_CONTEXT& ctx, bool& isThere) {
    ctx.name.Alloc(0);
    if (type == AttrData) {
        const int result = ReadRADataStream(record, &ctx.name, &ctx.data, &ctx.instance);
        isThere = result == NtfsOk;
        return result == NtfsEndOfRun ? NtfsOk : result;
    }
    int result = NtfsOk;
    switch (type) {
    case AttrSecurityDescriptor: result = ReadSecurityStream(record, &ctx.data); break;
    case AttrObjectId: result = ReadObjectIdStream(record, &ctx.data); break;
    case AttrReparsePoint: result = ReadReparsePointStream(record, &ctx.name, &ctx.data); break;
    default: result = ReadEAStream(record, &ctx.name, &ctx.data); break;
    }
    isThere = ctx.data.GetSize() != 0;
    return result;
}

int CMAVolume::BuildHeader(uint32_t type, MA_BACKUPREAD_CONTEXT& ctx) {
    const bool isNamedData = type == AttrData && ctx.name.GetSize() != 0;
    const uint32_t front = isNamedData ? sizeof(StreamNameFront) : 0;
    const uint32_t end = isNamedData ? sizeof(StreamNameEnd) : 0;
    BackupStreamHead_t head{};
    DescribeBackupStream(type, isNamedData, head);
    if (type == AttrReparsePoint)
        head.id = StreamIdReparsePoint;
    head.bytes = ctx.data.GetSize();
    head.nameBytes = front + ctx.name.GetSize() + end;
    if (ctx.header.Alloc(sizeof(head) + head.nameBytes) == nullptr)
        return Fail(NtfsOutOfMemory, OutOfMemoryText);
    char* at = ctx.header.GetPtr();
    at = std::copy_n(reinterpret_cast<const char*>(&head), sizeof(head), at);
    at = std::copy_n(StreamNameFront, front, at);
    if (ctx.name.GetSize() != 0)
        at = std::copy_n(ctx.name.GetPtr(), ctx.name.GetSize(), at);
    std::copy_n(StreamNameEnd, end, at);
    // Where the next entry of extended attributes lies means nothing outside of the record.
    if (type == AttrEa && ctx.data.GetSize() >= sizeof(Le32_t))
        std::memset(ctx.data.GetPtr(), 0, sizeof(Le32_t));
    return NtfsOk;
}

// Goes to the next stream that is there, unless one is in work. `type` is 0 behind the last one.
int CMAVolume::LoadNextStream(CAutoMemory<char>* record, MA_BACKUPREAD_CONTEXT& ctx, uint32_t& type) {
    for (;;) {
        type = TypeAt(ctx.tableIndex);
        if (type == 0 || ctx.needLoad == 0)
            return NtfsOk;
        bool isThere = false;
        const int result = LoadStream(type, record, ctx, isThere);
        if (result == NtfsOk && isThere) {
            NTFS_RETURN_IF_FAILED(BuildHeader(type, ctx));
            ctx.needLoad = 0;
            return NtfsOk;
        }
        PassOver(ctx);
        if (result != NtfsOk)
            return result;
    }
}

int CMAVolume::BackupReadRA(CAutoMemory<char>* record, char* buffer, uint32_t size, uint32_t* read,
                            MA_BACKUPREAD_CONTEXT* ctx) {
    if (record == nullptr || record->GetPtr() == nullptr || buffer == nullptr || read == nullptr || ctx == nullptr)
        return Fail(NtfsInvalidParameter, InvalidParameterText);
    *read = 0;
    ClearLastErrorStr();
    for (;;) {
        uint32_t type = 0;
        NTFS_RETURN_IF_FAILED(LoadNextStream(record, *ctx, type));
        const uint64_t streamBytes = uint64_t{ctx->header.GetSize()} + ctx->data.GetSize();
        // Callers rely on whole streams: one that doesn't fit waits for a buffer that it fits into.
        if (type == 0 || streamBytes - ctx->position > size - *read)
            return NtfsOk;
        const auto copy = [&](const CAutoMemory<char>& from, uint64_t start) {
            if (ctx->position < start || ctx->position - start >= from.GetSize())
                return;
            const auto at = static_cast<uint32_t>(ctx->position - start);
            std::memcpy(buffer + *read, from.GetPtr() + at, from.GetSize() - at);
            *read += from.GetSize() - at;
            ctx->position += from.GetSize() - at;
        };
        copy(ctx->header, 0);
        copy(ctx->data, ctx->header.GetSize());
        ctx->needLoad = 1;
        ctx->position = 0;
        if (type != AttrData)
            ++ctx->tableIndex;
        if (*read == size)
            return NtfsOk;
    }
}

int CMAVolume::BackupReadNRA(CAutoMemory<char>* record, CAutoMemory<char>* name, uint64_t* size, uint64_t* sizeOnDisk,
                             uint32_t* type, uint16_t* compressionUnit, CAutoMemory<char>* extents,
                             MA_BACKUPREAD_CONTEXT* ctx) {
    if (record == nullptr || record->GetPtr() == nullptr || name == nullptr || size == nullptr ||
        sizeOnDisk == nullptr || type == nullptr || compressionUnit == nullptr || extents == nullptr || ctx == nullptr)
        return Fail(NtfsInvalidParameter, InvalidParameterText);
    name->Alloc(0);
    extents->Alloc(0);
    *size = 0;
    *sizeOnDisk = 0;
    *type = 0;
    *compressionUnit = 0;
    ClearLastErrorStr();
    ATTR_RECORD_HEADER_t* const attribute = FindNonResident(record->GetPtr(), ctx->instance);
    if (attribute == nullptr)
        return NtfsEndOfRun;
    ctx->instance = attribute->Instance + 1U;
    *type = attribute->Type;
    if (CopyName(attribute, *name) != NtfsOk)
        return Fail(NtfsOutOfMemory, OutOfMemoryText);
    const int result = DecodeRuns(attribute, *extents, 0);
    if (result != NtfsOk)
        return FailByResult(result);
    *size = CDRFileRecord::GetAttributeDataSize(attribute);
    *sizeOnDisk = SizeOnDisk(attribute);
    *compressionUnit = CDRFileRecord::GetCompressionUnit(attribute);
    if (*sizeOnDisk == 0)
        return NtfsEndOfRun;
    const int joined = NtfsWithinMemory([&] { return JoinSegments(record, attribute, *name, extents); });
    return joined == NtfsOk ? NtfsOk : FailByResult(joined);
}

// Each segment follows the one before by its first cluster; the first in the record that does so is taken. One that
// leads back to a segment taken before would be found for ever, and ends the walk.
int CMAVolume::JoinSegments(CAutoMemory<char>* record, const ATTR_RECORD_HEADER_t* first, const CAutoMemory<char>& name,
                            CAutoMemory<char>* extents) {
    std::unordered_map<uint64_t, ATTR_RECORD_HEADER_t*> segments;
    for (ATTR_RECORD_HEADER_t* each = CDRFileRecord::FindFirstAttr(record->GetPtr(), first->Type); each != nullptr;
         each = CDRFileRecord::FindNextAttr(first->Type, each)) {
        if (each != first && ContinuesAttribute(each, name))
            segments.emplace(NonResidentFormOf(each).lowestVcn, each);
    }
    for (uint64_t nextVcn = NonResidentFormOf(first).highestVcn + 1;;) {
        const auto segment = segments.find(nextVcn);
        if (segment == segments.end())
            return NtfsOk;
        NTFS_RETURN_IF_FAILED(AppendRuns(segment->second, *extents, nextVcn));
        nextVcn = NonResidentFormOf(segment->second).highestVcn + 1;
        segments.erase(segment);
    }
}
