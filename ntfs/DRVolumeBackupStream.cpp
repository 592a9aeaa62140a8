#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>

#include "foundation/detail/CheckedMath.h"
#include "ntfs/DRVolume.h"
#include "ntfs/detail/BackupStreamFormat.h"
#include "ntfs/detail/NtfsFormat.h"
#include "ntfs/detail/ReadPosition.h"
#include "ntfs/detail/VolumeSteps.h"
#include "ntfs/detail/WithinMemory.h"

namespace {

constexpr uint32_t Finished = 255;
constexpr uint32_t ObjectIdBytes = 16;

bool HasHole(const DATARUN_EXTENTS* extents) {
    if (extents == nullptr)
        return false;
    const DATARUN_EXTENT_t* const runs = extents->Runs();
    return std::any_of(runs, runs + extents->Count,
                       [](const DATARUN_EXTENT_t& run) { return run.StartLcn == HoleLcn && run.EndLcn == HoleLcn; });
}

// Their data goes out with their head.
bool IsWrittenWithHead(const ATTR_RECORD_HEADER_t* attribute) {
    return attribute->Type == AttrStandardInformation || attribute->Type == AttrObjectId;
}

// The form that Windows gives an object id without the ids of its birth: the volume's and the file's own stand in.
void ExpandObjectId(char* id, uint32_t bytes, const uint8_t (&volumeId)[16]) {
    if (bytes == ObjectIdBytes)
        std::memcpy(id + ObjectIdBytes, volumeId, ObjectIdBytes);
    if (bytes == ObjectIdBytes || bytes == 2 * ObjectIdBytes)
        std::memcpy(id + 2 * ObjectIdBytes, id, ObjectIdBytes);
    if (bytes == ObjectIdBytes || bytes == 2 * ObjectIdBytes || bytes == 3 * ObjectIdBytes)
        std::memset(id + 3 * ObjectIdBytes, 0, ObjectIdBytes);
}

}  // namespace

// One call of `BackupRead`. Its steps answer NtfsOk when the call goes on.
class CDRVolume::CBackupStream {
public:
    CBackupStream(CDRVolume& volume, CAutoMemory<char>& record, READFILECONTEXT& context, char* buffer, uint32_t size,
                  uint32_t& read)
        : m_Volume(volume), m_Record(record), m_Context(context), m_Buffer(buffer), m_Size(size), m_Read(read) {}

    int Run() {
        for (;;) {
            DeliverPending();
            if (Room() == 0 || m_Context.pending.GetSize() != 0)
                return NtfsOk;
            const uint32_t readBefore = m_Read;
            const bool isBlock = m_Context.currentAttr != nullptr && m_Context.sparseMode != 0;
            if (m_Context.currentAttr != nullptr && !IsWrittenWithHead(m_Context.currentAttr)) {
                NTFS_RETURN_IF_FAILED(DeliverAttribute());
                if (m_Context.pending.GetSize() != 0)
                    continue;
                if (Room() == 0)
                    return NtfsOk;
                if (isBlock) {
                    if (m_Read == readBefore)
                        return NtfsEndOfRun;  // neither a byte nor a step: it would go round for ever
                    continue;
                }
            }
            NTFS_RETURN_IF_FAILED(BeginNextStream());
            if (m_Context.attrIndex == Finished)
                return NtfsOk;
        }
    }

private:
    uint32_t Room() const { return m_Size - m_Read; }
    uint64_t ClusterBytes() const { return m_Volume.m_VolumeData.BytesPerCluster; }
    uint64_t DataBytes() const { return CDRFileRecord::GetAttributeDataSize(m_Context.currentAttr); }

    // Callers rely on the place's being taken off the clipped count: what doesn't fit whole isn't delivered whole.
    void DeliverPending() {
        const uint32_t bytes = m_Context.pending.GetSize();
        if (bytes == 0)
            return;
        const uint32_t clipped = std::min(Room(), bytes);
        const uint32_t count = clipped > m_Context.offsetInCluster ? clipped - m_Context.offsetInCluster : 0;
        if (count != 0)
            std::memcpy(m_Buffer + m_Read, m_Context.pending.GetPtr() + m_Context.offsetInCluster, count);
        m_Read += count;
        m_Context.offsetInCluster += count;
        if (m_Context.offsetInCluster < bytes)
            return;
        m_Context.pending.Alloc(0);
        m_Context.offsetInCluster = 0;
    }

    int DeliverAttribute() {
        if (m_Context.currentAttr->IsNonResident != 0 && m_Context.offsetInCluster == ClusterBytes()) {
            ++m_Context.vcn;
            m_Context.offsetInCluster = 0;
        }
        if (m_Context.sparseMode != 0 && IsStretchOver())
            return BeginSparseBlock();
        uint32_t limit = Room();
        if (m_Context.sparseMode != 0)
            limit = static_cast<uint32_t>(std::min<uint64_t>(limit, StretchEnd() - StretchPosition()));
        uint32_t read = 0;
        const int result = m_Volume.ReadAttribute(m_Context.currentAttr, ExtentsOf(m_Context.extents), &m_Context.vcn,
                                                  &m_Context.offsetInCluster, m_Buffer + m_Read, limit, &read);
        m_Read += read;
        return result == NtfsEndOfRun ? NtfsOk : result;
    }

    uint64_t StretchPosition() const { return m_Context.vcn * ClusterBytes() + m_Context.offsetInCluster; }

    // The attribute's data may end inside the last cluster.
    uint64_t StretchEnd() const { return std::min(m_Context.sparseEndVcn * ClusterBytes(), DataBytes()); }

    bool IsStretchOver() const { return m_Context.vcn >= m_Context.sparseEndVcn || StretchPosition() >= StretchEnd(); }

    // The clusters behind the data's end are no data; what a hole leaves out follows from the next block's offset.
    void FindNextStretch() {
        m_Context.vcn = m_Context.sparseEndVcn;
        const DATARUN_EXTENTS* const extents = ExtentsOf(m_Context.extents);
        for (uint32_t index = 0; index < extents->Count; ++index) {
            const DATARUN_EXTENT_t& run = extents->Runs()[index];
            m_Context.sparseEndVcn = run.NextVcn;
            const bool isHole = run.StartLcn == HoleLcn && run.EndLcn == HoleLcn;
            if (isHole || m_Context.vcn * ClusterBytes() >= DataBytes())
                m_Context.vcn = std::max<uint64_t>(m_Context.vcn, run.NextVcn);
            if (m_Context.sparseEndVcn > m_Context.vcn)
                return;
        }
    }

    int BeginSparseBlock() {
        FindNextStretch();
        m_Context.offsetInCluster = 0;
        SparseBlockHead_t head{};
        head.stream.id = StreamIdSparseBlock;
        head.stream.attributes = StreamIsSparse;
        const uint64_t start = m_Context.vcn * ClusterBytes();
        const uint64_t end = StretchEnd();
        head.stream.bytes = sizeof(head.offset) + (end > start ? end - start : 0);
        head.offset = start;
        if (m_Context.sparseEndVcn == m_Context.vcn)
            m_Context.sparseMode = 0;  // the closing block
        if (m_Context.pending.Alloc(sizeof(head)) == nullptr)
            return NtfsOutOfMemory;
        std::memcpy(m_Context.pending.GetPtr(), &head, sizeof(head));
        return NtfsOk;
    }

    // Sets the place behind the last one when all is written.
    int BeginNextStream() {
        NTFS_RETURN_IF_FAILED(FindNextAttribute());
        if (m_Context.attrIndex == Finished)
            return NtfsOk;
        BackupStreamHead_t head{};
        if (!DescribeBackupStream(m_Context.currentAttr->Type, m_Context.currentAttr->NameLength != 0, head))
            return NtfsInvalidParameter;
        NTFS_RETURN_IF_FAILED(PrepareExtents(head));
        return PutHead(head);
    }

    int FindNextAttribute() {
        m_Data.Alloc(0);
        for (;;) {
            const uint32_t type = BackupStreamOrder[m_Context.attrIndex];
            if (type == 0) {
                m_Context.attrIndex = Finished;
                return NtfsOk;
            }
            ATTR_RECORD_HEADER_t* const next = NextWithData(type);
            if (next != nullptr) {
                m_Context.currentAttr = next;
                return BeginAttribute();
            }
            ++m_Context.attrIndex;
            m_Context.currentAttr = nullptr;
            if (type == AttrSecurityDescriptor &&
                CDRFileRecord::FindFirstAttr(m_Record.GetPtr(), AttrSecurityDescriptor) == nullptr)
                return TakeSharedDescriptor();
        }
    }

    ATTR_RECORD_HEADER_t* NextWithData(uint32_t type) {
        ATTR_RECORD_HEADER_t* attribute = m_Context.currentAttr == nullptr
                                              ? CDRFileRecord::FindFirstAttr(m_Record.GetPtr(), type)
                                              : CDRFileRecord::FindNextAttr(type, m_Context.currentAttr);
        while (attribute != nullptr && CDRFileRecord::GetAttributeDataSize(attribute) == 0)
            attribute = CDRFileRecord::FindNextAttr(type, attribute);
        return attribute;
    }

    // The descriptor that the volume keeps once for many files. Callers rely on a head of the size of
    // $STANDARD_INFORMATION, with no data behind it, where the volume has none for the file's id.
    int TakeSharedDescriptor() {
        ATTR_RECORD_HEADER_t* const information =
            CDRFileRecord::FindFirstAttr(m_Record.GetPtr(), AttrStandardInformation);
        if (information == nullptr)
            return NtfsInvalidParameter;
        m_Context.currentAttr = information;
        m_Context.sparseMode = 0;
        m_Context.sparseEndVcn = 0;
        NtfsStandardInformation_t value{};
        Position_t position;
        uint32_t read = 0;
        const int result = m_Volume.ReadAttribute(information, nullptr, &position.vcn, &position.offset,
                                                  reinterpret_cast<char*>(&value), sizeof(value), &read);
        if (result != NtfsOk && result != NtfsEndOfRun)
            return result;
        const int found = m_Volume.GetSecurityInformation(value.securityId, &m_Data);
        return found == NtfsIndexNotFound || found == NtfsIndexFound ? NtfsOk : found;
    }

    int BeginAttribute() {
        if ((m_Context.currentAttr->Flags & AttrEncrypted) != 0) {
            m_Context.attrIndex = Finished;
            return NtfsEndOfRun;
        }
        return m_Context.currentAttr->Type == AttrObjectId ? ReadObjectId() : NtfsOk;
    }

    int ReadObjectId() {
        if (m_Data.Alloc(ObjectIdStreamBytes) == nullptr)
            return NtfsOutOfMemory;
        std::memset(m_Data.GetPtr(), 0, ObjectIdStreamBytes);
        CAutoMemory<char> extents;
        NTFS_RETURN_IF_FAILED(DecodeRuns(m_Context.currentAttr, extents, 0));
        Position_t position;
        uint32_t read = 0;
        const int result = m_Volume.ReadAttribute(m_Context.currentAttr, ExtentsOf(extents), &position.vcn,
                                                  &position.offset, m_Data.GetPtr(), ObjectIdStreamBytes, &read);
        if (result != NtfsOk && result != NtfsEndOfRun)
            return result;
        ExpandObjectId(m_Data.GetPtr(), read, m_Volume.m_ParentObjId);
        return NtfsOk;
    }

    int PrepareExtents(BackupStreamHead_t& head) {
        head.bytes = m_Data.GetSize() != 0 ? m_Data.GetSize() : DataBytes();
        NTFS_RETURN_IF_FAILED(DecodeRuns(m_Context.currentAttr, m_Context.extents, 0));
        if ((m_Context.currentAttr->Flags & AttrSparse) != 0 && HasHole(ExtentsOf(m_Context.extents))) {
            head.attributes = StreamIsSparse;
            head.bytes = 0;
            m_Context.sparseMode = 1;
            m_Context.sparseEndVcn = 0;
        }
        m_Context.vcn = 0;
        m_Context.offsetInCluster = 0;
        return NtfsOk;
    }

    int PutHead(BackupStreamHead_t& head) {
        const ATTR_RECORD_HEADER_t* const attribute = m_Context.currentAttr;
        const uint32_t nameBytes = uint32_t{attribute->NameLength} * 2;
        if (nameBytes != 0)
            head.nameBytes = sizeof(StreamNameFront) + nameBytes + sizeof(StreamNameEnd);
        const uint32_t bytes = uint32_t{sizeof(head)} + head.nameBytes + m_Data.GetSize();
        char* target = m_Context.pending.Alloc(bytes);
        if (target == nullptr)
            return NtfsOutOfMemory;
        const auto put = [&target](const void* from, size_t size) {
            if (size != 0)
                std::memcpy(target, from, size);
            target += size;
        };
        put(&head, sizeof(head));
        if (nameBytes != 0) {
            put(StreamNameFront, sizeof(StreamNameFront));
            put(reinterpret_cast<const char*>(attribute) + attribute->NameOffset, nameBytes);
            put(StreamNameEnd, sizeof(StreamNameEnd));
        }
        put(m_Data.GetPtr(), m_Data.GetSize());
        return NtfsOk;
    }

    CDRVolume& m_Volume;
    CAutoMemory<char>& m_Record;
    READFILECONTEXT& m_Context;
    char* m_Buffer;
    uint32_t m_Size;
    uint32_t& m_Read;
    CAutoMemory<char> m_Data;  // that goes out with the head
};

int CDRVolume::BackupRead(CAutoMemory<char>* record, char* buffer, uint32_t size, uint32_t* read,
                          READFILECONTEXT* ctx) {
    if (record == nullptr || read == nullptr || ctx == nullptr)
        return NtfsInvalidParameter;
    *read = 0;
    if (ctx->attrIndex >= std::size(BackupStreamOrder))
        return NtfsEndOfRun;
    NTFS_RETURN_IF_FAILED(CDRFileRecord::IsValidFileRec(record->GetPtr()));
    return NtfsWithinMemory([&] { return CBackupStream(*this, *record, *ctx, buffer, size, *read).Run(); });
}
