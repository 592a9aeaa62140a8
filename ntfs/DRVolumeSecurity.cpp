#include <cerrno>
#include <cstring>
#include <limits>

#include "ntfs/DRVolume.h"
#include "ntfs/detail/IndexWalk.h"
#include "ntfs/detail/NtfsFormat.h"
#include "ntfs/detail/ReadPosition.h"
#include "ntfs/detail/VolumeSteps.h"
#include "ntfs/detail/WithinMemory.h"
#include "platform/SecurityDescriptor.h"

namespace {

constexpr uint16_t ControlSelfRelative = 0x8000;

// A security descriptor in one block: this head, and the parts behind it.
struct SelfRelativeDescriptor_t {
    uint8_t revision;  //  0
    uint8_t reserved;  //  1
    Le16_t control;    //  2
    Le32_t owner;      //  4  offsets from the start; 0 for a part that isn't there
    Le32_t group;      //  8
    Le32_t sacl;       // 12
    Le32_t dacl;       // 16
};
static_assert(sizeof(SelfRelativeDescriptor_t) == 20);

// Puts the parts into the order owner, group, SACL, DACL, without gaps.
int LayOut(const SecurityDescriptorParts_t& parts, CAutoMemory<char>& descriptor) {
    const uint64_t bytes = sizeof(SelfRelativeDescriptor_t) + uint64_t{parts.owner.size} + parts.group.size +
                           parts.sacl.size + parts.dacl.size;
    if (bytes > NtfsCeilingBytes || descriptor.Alloc(static_cast<uint32_t>(bytes)) == nullptr)
        return NtfsOutOfMemory;
    auto end = static_cast<uint32_t>(sizeof(SelfRelativeDescriptor_t));
    const auto place = [&](const SecurityDescriptorPart_t& part) -> uint32_t {
        if (part.size == 0)
            return 0;
        const uint32_t offset = end;
        std::memcpy(descriptor.GetPtr() + offset, part.bytes, part.size);
        end += part.size;
        return offset;
    };
    SelfRelativeDescriptor_t head{};
    head.revision = parts.revision;
    head.reserved = parts.reserved;
    head.control = static_cast<uint16_t>(parts.control | ControlSelfRelative);
    head.owner = place(parts.owner);
    head.group = place(parts.group);
    head.sacl = place(parts.sacl);
    head.dacl = place(parts.dacl);
    std::memcpy(descriptor.GetPtr(), &head, sizeof(head));
    return NtfsOk;
}

int SearchIds(const char* indexHeader, uint64_t size, uint32_t securityId, INDEX_ENTRY_SII** entry) {
    const CByteView node(indexHeader, size);
    CIndexWalk walk(node);
    uint64_t at = 0;
    NtfsIndexEntryHead_t head{};
    for (;;) {
        NTFS_RETURN_IF_FAILED(walk.Next(at, head));
        INDEX_ENTRY_SII fields{};
        if (!node.Get(at, fields))
            return NtfsIndexCorrupted;
        if (fields.Key != securityId)
            continue;
        *entry = reinterpret_cast<INDEX_ENTRY_SII*>(const_cast<char*>(indexHeader) + at);
        return NtfsIndexFound;
    }
}

int WriteBytes(const void* bytes, size_t size, FILE* file) {
    if (std::fwrite(bytes, 1, size, file) == size)
        return NtfsOk;
    return errno != 0 ? errno : EIO;
}

}  // namespace

int CDRVolume::SearchIndexBlock_SII(char* indexHeader, uint32_t securityId, INDEX_ENTRY_SII** entry) {
    return SearchIds(indexHeader, UnknownNodeBytes, securityId, entry);
}

int CDRVolume::GetSecurityInformation(uint32_t securityId, CAutoMemory<char>* descriptor) {
    const int result = NtfsWithinMemory([&]() -> int {
        if (m_SecureRecord.GetPtr() == nullptr)
            return NtfsIndexFound;
        INDEX_ENTRY_SII* entry = nullptr;
        CAutoMemory<char> block;
        int search = SearchIds(m_SiiRoot.GetPtr(), m_SiiRoot.GetSize(), securityId, &entry);
        if (search == NtfsIndexNotFound)
            search = SearchSiiAllocation(securityId, block, &entry);
        return search == NtfsIndexFound ? ReadSecurityData(entry, descriptor) : search;
    });
    if (result != NtfsOk)
        descriptor->Alloc(0);
    return result;
}

int CDRVolume::SearchSiiAllocation(uint32_t securityId, CAutoMemory<char>& block, INDEX_ENTRY_SII** entry) {
    Position_t position;
    for (;;) {
        const int read = ReadIndexBlock(m_SiiAllocAttr, m_SiiExtents, position, m_SiiBlockSize, block);
        if (read != NtfsOk)
            return read == NtfsEndOfRun ? NtfsIndexNotFound : read;
        const CByteView node = NodeOf(block);
        const int search = SearchIds(node.Data(), node.Size(), securityId, entry);
        if (search != NtfsIndexNotFound)
            return search;
    }
}

int CDRVolume::ReadSecurityData(INDEX_ENTRY_SII* entry, CAutoMemory<char>* descriptor) {
    if (entry->RecordLength < SdsRecordHeadBytes || m_VolumeData.BytesPerCluster == 0)
        return NtfsInvalidMftRecord;
    const uint64_t start = entry->Offset + SdsRecordHeadBytes;
    Position_t position{start / m_VolumeData.BytesPerCluster,
                        static_cast<uint32_t>(start % m_VolumeData.BytesPerCluster)};
    m_SdsAttr = FindSdsSegment(position.vcn);
    if (m_SdsAttr == nullptr)
        return NtfsInvalidMftRecord;
    NTFS_RETURN_IF_FAILED(DecodeRuns(m_SdsAttr, m_SdsExtents, 0));
    position.vcn -= NonResidentFormOf(m_SdsAttr).lowestVcn;
    CAutoMemory<char> stored;
    NTFS_RETURN_IF_FAILED(
        ReadValue(m_SdsAttr, m_SdsExtents, position, entry->RecordLength - SdsRecordHeadBytes, stored));
    SecurityDescriptorParts_t parts{};
    NTFS_RETURN_IF_FAILED(SplitSecurityDescriptor(stored.GetPtr(), stored.GetSize(), parts));
    return LayOut(parts, *descriptor);
}

ATTR_RECORD_HEADER_t* CDRVolume::FindSdsSegment(uint64_t vcn) {
    ATTR_RECORD_HEADER_t* segment = CDRFileRecord::FindFirstAttr(m_SecureRecord.GetPtr(), AttrData);
    for (; segment != nullptr; segment = CDRFileRecord::FindNextAttr(AttrData, segment)) {
        if (segment->IsNonResident == 0 || !HasName(segment, u"$SDS"))
            continue;
        const NtfsNonResidentForm_t form = NonResidentFormOf(segment);
        if (form.lowestVcn <= vcn && vcn <= form.highestVcn)
            return segment;
    }
    return nullptr;
}

int CDRVolume::DumpSecuirtyInformation(FILE* file) {
    if (m_SecureRecord.GetPtr() == nullptr)
        return NtfsOk;
    return NtfsWithinMemory([&]() -> int {
        NTFS_RETURN_IF_FAILED(DumpSiiNode(CByteView(m_SiiRoot.GetPtr(), m_SiiRoot.GetSize()), file));
        Position_t position;
        CAutoMemory<char> block;
        for (;;) {
            const int read = ReadIndexBlock(m_SiiAllocAttr, m_SiiExtents, position, m_SiiBlockSize, block);
            if (read != NtfsOk)
                return read == NtfsEndOfRun ? NtfsOk : read;
            NTFS_RETURN_IF_FAILED(DumpSiiNode(NodeOf(block), file));
        }
    });
}

int CDRVolume::DumpSiiNode(CByteView node, FILE* file) {
    CIndexWalk walk(node);
    uint64_t at = 0;
    NtfsIndexEntryHead_t head{};
    for (;;) {
        const int step = walk.Next(at, head);
        if (step != NtfsOk)
            return step == NtfsIndexNotFound ? NtfsOk : step;
        INDEX_ENTRY_SII entry{};
        if (!node.Get(at, entry))
            return NtfsIndexCorrupted;
        NTFS_RETURN_IF_FAILED(DumpSiiEntry(entry, file));
    }
}

int CDRVolume::DumpSiiEntry(INDEX_ENTRY_SII& entry, FILE* file) {
    CAutoMemory<char> descriptor;
    const int result = ReadSecurityData(&entry, &descriptor);
    if (result != NtfsOk)
        return result == NtfsEndOfRun ? NtfsOk : result;
    struct {
        Le32_t securityId;
        Le32_t bytes;
    } head{};
    head.securityId = entry.SecurityId;
    head.bytes = descriptor.GetSize();
    NTFS_RETURN_IF_FAILED(WriteBytes(&head, sizeof(head), file));
    return WriteBytes(descriptor.GetPtr(), descriptor.GetSize(), file);
}
