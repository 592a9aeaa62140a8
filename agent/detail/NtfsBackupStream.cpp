#include "agent/detail/NtfsBackupStream.h"

#include <algorithm>

#include "agent/ErrorText.h"
#include "agent/detail/NtfsNames.h"
#include "agent/detail/OutOfMemory.h"
#include "agent/detail/Pieces.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "ntfs/detail/NtfsFormat.h"
#include "ntfs/detail/VolumeSteps.h"

namespace {

constexpr uint64_t LargestDescriptor = 1U << 20U;  // its own lengths have 16 bits
constexpr size_t ObjectIdBytes = 16;

CZuError ReadSmallValue(CNtfsStream& stream, const std::string& where, std::string& value) {
    if (stream.Bytes() > LargestDescriptor)
        return Refusal(where + ": is larger than any that Windows writes");
    value.resize(static_cast<size_t>(stream.Bytes()));
    return stream.Read(0, value.data(), static_cast<uint32_t>(value.size()));
}

bool HasHole(const CNtfsStream& stream) {
    return std::any_of(stream.Runs().begin(), stream.Runs().end(),
                       [](const NtfsExtent_t& run) { return run.lcn == HoleLcn; });
}

}  // namespace

CZuError ReadNtfsSecurity(INtfsRecords& volume, uint64_t frn, CAutoMemory<char>& record, std::string& descriptor) {
    const std::string where = CZuString::Format("{1}: security of file record {2}", volume.Name(), frn).c_str();
    descriptor.clear();
    if (CDRFileRecord::FindFirstAttr(record.GetPtr(), AttrSecurityDescriptor) != nullptr) {
        CNtfsStream own;
        ZU_RETURN_IF_ERROR(volume.OpenStream(frn, record, AttrSecurityDescriptor, u"", where, own));
        return ReadSmallValue(own, where, descriptor);
    }
    CAutoMemory<char> shared;
    ZU_RETURN_IF_ERROR(volume.ReadSharedDescriptor(frn, record, shared));
    if (shared.GetSize() == 0 && !volume.SecurityProblem().empty())
        return Refusal(where + ": can't be read: " + volume.SecurityProblem());
    if (shared.GetSize() != 0)
        descriptor.assign(shared.GetPtr(), shared.GetSize());
    return CZuError();
}

CZuError CNtfsBackupStream::Write(uint64_t frn) {
    m_Frn = frn;
    m_Where = CZuString::Format("{1}: file record {2}", m_Volume.Name(), frn).c_str();
    if (m_Buffer.Alloc(PieceBytes) == nullptr)
        return Refusal(OutOfMemory);
    ZU_RETURN_IF_ERROR(m_Volume.ReadRecord(frn, m_Record));
    const std::vector<NtfsAttribute_t> attributes = ListNtfsAttributes(m_Record);
    for (const NtfsAttribute_t& attribute : attributes)
        if (attribute.isEncrypted)
            return Refusal(m_Where + ": is encrypted; it has no backup stream without the key");
    ZU_RETURN_IF_ERROR(WriteSecurity());
    for (const uint32_t type : BackupStreamOrder)
        for (const NtfsAttribute_t& attribute : attributes)
            if (attribute.type == type && type != AttrSecurityDescriptor && attribute.bytes != 0 && !m_IsEnded)
                ZU_RETURN_IF_ERROR(WriteAttribute(attribute));
    return CZuError();
}

CZuError CNtfsBackupStream::WriteSecurity() {
    std::string descriptor;
    ZU_RETURN_IF_ERROR(ReadNtfsSecurity(m_Volume, m_Frn, m_Record, descriptor));
    if (descriptor.empty())
        return CZuError();
    PutHead(StreamIdSecurity, StreamContainsSecurity, descriptor.size(), u"");
    Put(descriptor.data(), descriptor.size());
    return CZuError();
}

CZuError CNtfsBackupStream::WriteAttribute(const NtfsAttribute_t& attribute) {
    CNtfsStream stream;
    ZU_RETURN_IF_ERROR(m_Volume.OpenStream(m_Frn, m_Record, attribute.type, attribute.name, m_Where, stream));
    if (attribute.type == AttrObjectId)
        return WriteObjectId(stream);
    BackupStreamHead_t head{};
    if (!DescribeBackupStream(attribute.type, !attribute.name.empty(), head))
        return CZuError();
    // A compressed stream's holes are what its compression saved.
    if (attribute.isSparse && !attribute.isCompressed && HasHole(stream)) {
        PutHead(head.id, StreamIsSparse, 0, attribute.name);
        return WriteStretches(stream);
    }
    PutHead(head.id, head.attributes, stream.Bytes(), attribute.name);
    return WriteBytes(stream, 0, stream.Bytes());
}

// Without the ids of its birth, the volume's id and the file's own stand in for them.
CZuError CNtfsBackupStream::WriteObjectId(CNtfsStream& stream) {
    std::string id;
    ZU_RETURN_IF_ERROR(ReadSmallValue(stream, m_Where, id));
    const size_t known = std::min<size_t>(id.size(), ObjectIdStreamBytes);
    id.resize(ObjectIdStreamBytes, '\0');
    if (known == ObjectIdBytes) {
        std::string volumeId;
        ZU_RETURN_IF_ERROR(ReadVolumeObjectId(volumeId));
        id.replace(ObjectIdBytes, ObjectIdBytes, volumeId);
    }
    if (known == ObjectIdBytes || known == 2 * ObjectIdBytes)
        id.replace(2 * ObjectIdBytes, ObjectIdBytes, id.substr(0, ObjectIdBytes));
    PutHead(StreamIdObjectId, 0, id.size(), stream.Attribute().name);
    Put(id.data(), id.size());
    return CZuError();
}

// Zeros for a volume without one.
CZuError CNtfsBackupStream::ReadVolumeObjectId(std::string& id) {
    id.assign(ObjectIdBytes, '\0');
    CAutoMemory<char> record;
    CNtfsStream stream;
    if (m_Volume.ReadRecord(VolumeFrn, record).IsErrorSet() ||
        m_Volume.OpenStream(VolumeFrn, record, AttrObjectId, u"", m_Where, stream).IsErrorSet())
        return CZuError();
    return stream.Read(0, id.data(), static_cast<uint32_t>(std::min<uint64_t>(stream.Bytes(), ObjectIdBytes)));
}

CZuError CNtfsBackupStream::WriteBytes(CNtfsStream& stream, uint64_t offset, uint64_t bytes) {
    for (uint64_t done = 0; done < bytes && !m_IsEnded;) {
        const auto piece = static_cast<uint32_t>(std::min<uint64_t>(bytes - done, PieceBytes));
        ZU_RETURN_IF_ERROR(stream.Read(offset + done, m_Buffer.GetPtr(), piece));
        Put(m_Buffer.GetPtr(), piece);
        done += piece;
    }
    return CZuError();
}

// A block for each run of clusters, and one without data that tells where the runs end.
CZuError CNtfsBackupStream::WriteStretches(CNtfsStream& stream) {
    const uint64_t clusterBytes = m_Volume.ClusterBytes();
    const uint64_t dataClusters = DivideRoundingUp(stream.Bytes(), clusterBytes);
    for (const NtfsExtent_t& run : stream.Runs()) {
        if (run.lcn == HoleLcn || run.vcn >= dataClusters)
            continue;
        const uint64_t start = run.vcn * clusterBytes;
        const uint64_t clusters = std::min(run.clusters, dataClusters - run.vcn);
        ZU_RETURN_IF_ERROR(WriteSparseBlock(stream, start, std::min(clusters * clusterBytes, stream.Bytes() - start)));
    }
    const NtfsExtent_t& last = stream.Runs().back();
    uint64_t end = 0;
    if (!CheckedMul(last.vcn + last.clusters, clusterBytes, end) || end < stream.Bytes())
        return Refusal(CZuString::Format("{1}: its records don't say where byte {2} of it lies", m_Where, end));
    return WriteSparseBlock(stream, end, 0);
}

CZuError CNtfsBackupStream::WriteSparseBlock(CNtfsStream& stream, uint64_t offset, uint64_t bytes) {
    Le64_t stored{};
    stored = offset;
    PutHead(StreamIdSparseBlock, StreamIsSparse, bytes + sizeof(stored), u"");
    Put(&stored, sizeof(stored));
    return WriteBytes(stream, offset, bytes);
}

void CNtfsBackupStream::PutHead(uint32_t id, uint32_t flags, uint64_t bytes, const std::u16string& name) {
    BackupStreamHead_t head{};
    head.id = id;
    head.attributes = flags;
    head.bytes = bytes;
    std::string text;
    if (!name.empty()) {
        text.assign(StreamNameFront, sizeof(StreamNameFront));
        for (const char16_t character : name) {
            text += static_cast<char>(character & 0xFF);
            text += static_cast<char>(character >> 8);
        }
        text.append(StreamNameEnd, sizeof(StreamNameEnd));
    }
    head.nameBytes = static_cast<uint32_t>(text.size());
    Put(&head, sizeof(head));
    Put(text.data(), text.size());
}

void CNtfsBackupStream::Put(const void* bytes, size_t size) {
    if (size != 0 && !m_IsEnded)
        m_IsEnded = !m_Take(static_cast<const char*>(bytes), static_cast<uint32_t>(size));
}
