#include "agent/detail/NtfsStream.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "agent/ErrorText.h"
#include "agent/detail/NtfsNames.h"
#include "agent/detail/OutOfMemory.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "ntfs/detail/Lznt1.h"
#include "ntfs/detail/NtfsFormat.h"
#include "ntfs/detail/VolumeSteps.h"

namespace {

constexpr uint64_t NoUnit = std::numeric_limits<uint64_t>::max();
constexpr uint32_t LargestUnitBytes = 1U << 20U;  // NTFS itself makes none above 64 KiB
constexpr uint16_t MethodLznt1 = 1;
constexpr char NoSuchStream[] = ": has no such stream";

std::u16string NameOf(const ATTR_RECORD_HEADER_t* attribute) {
    return NtfsNameAt(reinterpret_cast<const char*>(attribute) + attribute->NameOffset, attribute->NameLength);
}

bool IsFirstSegment(const ATTR_RECORD_HEADER_t* attribute) {
    return attribute->IsNonResident == 0 || NonResidentFormOf(attribute).lowestVcn == 0;
}

NtfsAttribute_t Describe(const ATTR_RECORD_HEADER_t* attribute) {
    NtfsAttribute_t described;
    described.type = attribute->Type;
    described.name = NameOf(attribute);
    described.bytes = CDRFileRecord::GetAttributeDataSize(attribute);
    described.isResident = attribute->IsNonResident == 0;
    described.isEncrypted = (attribute->Flags & AttrEncrypted) != 0;
    described.isCompressed = (attribute->Flags & AttrCompressed) != 0;
    described.isSparse = (attribute->Flags & AttrSparse) != 0;
    return described;
}

// By their lowest VCN.
std::vector<ATTR_RECORD_HEADER_t*> FindSegments(CAutoMemory<char>& record, uint32_t type, const std::u16string& name) {
    std::vector<ATTR_RECORD_HEADER_t*> segments;
    for (ATTR_RECORD_HEADER_t* attribute = CDRFileRecord::FindFirstAttr(record.GetPtr(), type); attribute != nullptr;
         attribute = CDRFileRecord::FindNextAttr(type, attribute)) {
        if (NameOf(attribute) == name)
            segments.push_back(attribute);
    }
    const auto lowestVcn = [](const ATTR_RECORD_HEADER_t* segment) -> uint64_t {
        return segment->IsNonResident == 0 ? 0 : uint64_t{NonResidentFormOf(segment).lowestVcn};
    };
    std::stable_sort(segments.begin(), segments.end(),
                     [&](const auto* left, const auto* right) { return lowestVcn(left) < lowestVcn(right); });
    return segments;
}

}  // namespace

std::vector<NtfsAttribute_t> ListNtfsAttributes(CAutoMemory<char>& record) {
    std::vector<NtfsAttribute_t> attributes;
    for (ATTR_RECORD_HEADER_t* attribute = CDRFileRecord::GetFirstAttr(record.GetPtr()); attribute != nullptr;
         attribute = CDRFileRecord::GetNextAttr(attribute)) {
        if (IsFirstSegment(attribute))
            attributes.push_back(Describe(attribute));
    }
    return attributes;
}

CZuError CNtfsStream::Open(IClusterSource& volume, CAutoMemory<char>& record, uint32_t type, const std::u16string& name,
                           const std::string& where) {
    Begin(where);
    m_Volume = &volume;
    std::vector<ATTR_RECORD_HEADER_t*> segments = FindSegments(record, type, name);
    if (segments.empty())
        return Refusal(where + NoSuchStream);
    m_Attribute = Describe(segments.front());
    if (!m_Attribute.isResident)
        return AddSegments(segments);
    const CByteView value = ResidentValueOf(segments.front());
    m_Value.assign(value.Data(), static_cast<size_t>(value.Size()));
    return CZuError();
}

CZuError CNtfsStream::OpenValue(CAutoMemory<char>& record, uint32_t type, const std::u16string& name, std::string value,
                                const std::string& where) {
    Begin(where);
    const std::vector<ATTR_RECORD_HEADER_t*> segments = FindSegments(record, type, name);
    if (segments.empty() || segments.front()->IsNonResident != 0)
        return Refusal(where + NoSuchStream);
    m_Attribute = Describe(segments.front());
    m_Attribute.bytes = value.size();
    m_Value = std::move(value);
    return CZuError();
}

CZuError CNtfsStream::OpenExtents(IClusterSource& volume, CAutoMemory<char>& record, uint32_t type,
                                  const std::u16string& name, const DATARUN_EXTENTS& extents,
                                  const std::string& where) {
    Begin(where);
    m_Volume = &volume;
    const std::vector<ATTR_RECORD_HEADER_t*> segments = FindSegments(record, type, name);
    if (segments.empty() || segments.front()->IsNonResident == 0)
        return Refusal(where + NoSuchStream);
    m_Attribute = Describe(segments.front());
    ZU_RETURN_IF_ERROR(BeginRuns(segments.front()));
    AddExtents(extents, 0);
    if (NextVcn() < DivideRoundingUp(m_Attribute.bytes, volume.ClusterBytes()))
        return Unplaced(NextVcn() * volume.ClusterBytes());
    return PrepareUnits(segments.front());
}

void CNtfsStream::Begin(const std::string& where) {
    m_Where = where;
    m_Value.clear();
    m_Runs.clear();
    m_LastRun = 0;
    m_UnitNumber = NoUnit;
    m_UnitBytes = 0;
}

CZuError CNtfsStream::BeginRuns(const ATTR_RECORD_HEADER_t* first) {
    const NtfsNonResidentForm_t form = NonResidentFormOf(first);
    if (form.dataBytes > uint64_t{std::numeric_limits<int64_t>::max()})
        return Refusal(m_Where + ": claims more bytes than a file can have");
    m_InitializedBytes = std::min<uint64_t>(form.initializedBytes, form.dataBytes);
    return CZuError();
}

CZuError CNtfsStream::AddSegments(std::vector<ATTR_RECORD_HEADER_t*>& segments) {
    ZU_RETURN_IF_ERROR(BeginRuns(segments.front()));
    for (ATTR_RECORD_HEADER_t* const segment : segments) {
        const uint64_t expectedVcn = NextVcn();
        if (segment->IsNonResident == 0 || NonResidentFormOf(segment).lowestVcn != expectedVcn)
            return Refusal(
                CZuString::Format("{1}: its records don't say where cluster {2} of it lies", m_Where, expectedVcn));
        ZU_RETURN_IF_ERROR(AddRuns(segment, expectedVcn));
    }
    return PrepareUnits(segments.front());
}

CZuError CNtfsStream::PrepareUnits(const ATTR_RECORD_HEADER_t* first) {
    if (!m_Attribute.isCompressed || m_Attribute.isEncrypted)
        return CZuError();
    const NtfsNonResidentForm_t form = NonResidentFormOf(first);
    const uint64_t unitBytes = uint64_t{m_Volume->ClusterBytes()} << (form.compressionUnit & 31U);
    const uint16_t method = first->Flags & AttrCompressed;
    if (method != MethodLznt1 || form.compressionUnit == 0 || unitBytes > LargestUnitBytes)
        return Refusal(m_Where + ": is compressed in a way that isn't known");
    m_UnitBytes = static_cast<uint32_t>(unitBytes);
    return CZuError();
}

CZuError CNtfsStream::AddRuns(ATTR_RECORD_HEADER_t* segment, uint64_t lowestVcn) {
    CAutoMemory<char> block;
    const int result = DecodeRuns(segment, block, lowestVcn);
    if (result != NtfsOk)
        return Refusal(m_Where + ": its list of clusters is damaged");
    AddExtents(*ExtentsOf(block), lowestVcn);
    return CZuError();
}

void CNtfsStream::AddExtents(const DATARUN_EXTENTS& extents, uint64_t lowestVcn) {
    uint64_t vcn = lowestVcn;
    for (uint32_t index = 0; index < extents.Count; ++index) {
        const DATARUN_EXTENT_t& run = extents.Runs()[index];
        const bool isHole = run.StartLcn == HoleLcn && run.EndLcn == HoleLcn;
        if (run.RunLength != 0)
            m_Runs.push_back({vcn, run.RunLength, isHole ? HoleLcn : uint64_t{run.StartLcn}});
        vcn = run.NextVcn;
    }
}

CZuError CNtfsStream::Read(uint64_t offset, char* buffer, uint32_t size) {
    if (offset > Bytes() || size > Bytes() - offset)
        return Refusal(m_Where + ": a read leads behind its end");
    if (m_Attribute.isResident) {
        std::memcpy(buffer, m_Value.data() + offset, size);
        return CZuError();
    }
    // What was never written is zeros, whatever its clusters held before.
    const uint64_t initialized =
        offset < m_InitializedBytes ? std::min<uint64_t>(m_InitializedBytes - offset, size) : 0;
    const auto stored = static_cast<uint32_t>(initialized);
    std::memset(buffer + stored, 0, size - stored);
    if (stored == 0)
        return CZuError();
    return m_UnitBytes != 0 ? ReadCompressed(offset, buffer, stored) : ReadStored(offset, buffer, stored);
}

CZuError CNtfsStream::ReadStored(uint64_t offset, char* buffer, uint32_t size) {
    const uint64_t clusterBytes = m_Volume->ClusterBytes();
    for (uint32_t done = 0; done < size;) {
        const uint64_t at = offset + done;
        const size_t index = FindRun(at / clusterBytes);
        if (index == m_Runs.size())
            return Unplaced(at);
        const NtfsExtent_t& run = m_Runs[index];
        const uint64_t inRun = at - run.vcn * clusterBytes;
        uint64_t runBytes = 0;
        if (!CheckedMul(run.clusters, clusterBytes, runBytes))
            runBytes = std::numeric_limits<uint64_t>::max();
        const auto piece = static_cast<uint32_t>(std::min<uint64_t>(runBytes - inRun, size - done));
        if (run.lcn == HoleLcn)
            std::memset(buffer + done, 0, piece);
        else
            ZU_RETURN_IF_ERROR(ErrorAt(m_Where, m_Volume->ReadClusters(run.lcn, inRun, buffer + done, piece)));
        done += piece;
    }
    return CZuError();
}

CZuError CNtfsStream::ReadCompressed(uint64_t offset, char* buffer, uint32_t size) {
    for (uint32_t done = 0; done < size;) {
        const uint64_t unit = (offset + done) / m_UnitBytes;
        const auto inUnit = static_cast<uint32_t>((offset + done) % m_UnitBytes);
        const uint32_t piece = std::min(m_UnitBytes - inUnit, size - done);
        if (piece == m_UnitBytes) {
            ZU_RETURN_IF_ERROR(ReadUnit(unit, buffer + done));
        } else {
            ZU_RETURN_IF_ERROR(LoadUnit(unit));
            std::memcpy(buffer + done, m_Unit.GetPtr() + inUnit, piece);
        }
        done += piece;
    }
    return CZuError();
}

CZuError CNtfsStream::LoadUnit(uint64_t unit) {
    if (unit == m_UnitNumber)
        return CZuError();
    m_UnitNumber = NoUnit;
    if (m_Unit.Alloc(m_UnitBytes) == nullptr)
        return Refusal(OutOfMemory);
    ZU_RETURN_IF_ERROR(ReadUnit(unit, m_Unit.GetPtr()));
    m_UnitNumber = unit;
    return CZuError();
}

// A unit without holes is stored as it is, one with nothing but a hole is zeros, and another one is compressed up to
// its first hole.
CZuError CNtfsStream::ReadUnit(uint64_t unit, char* target) {
    const uint64_t clusterBytes = m_Volume->ClusterBytes();
    const uint64_t firstVcn = unit * (m_UnitBytes / clusterBytes);
    const uint64_t endVcn = firstVcn + m_UnitBytes / clusterBytes;
    if (m_StoredUnit.Alloc(m_UnitBytes) == nullptr)
        return Refusal(OutOfMemory);
    if (FindRun(firstVcn) == m_Runs.size())
        return Unplaced(firstVcn * clusterBytes);
    uint64_t vcn = firstVcn;
    while (vcn < endVcn) {
        const size_t index = FindRun(vcn);
        if (index == m_Runs.size() || m_Runs[index].lcn == HoleLcn)
            break;
        const NtfsExtent_t& run = m_Runs[index];
        const uint64_t clusters = std::min(run.vcn + run.clusters, endVcn) - vcn;
        ZU_RETURN_IF_ERROR(
            ErrorAt(m_Where, m_Volume->ReadClusters(run.lcn, (vcn - run.vcn) * clusterBytes,
                                                    m_StoredUnit.GetPtr() + (vcn - firstVcn) * clusterBytes,
                                                    static_cast<uint32_t>(clusters * clusterBytes))));
        vcn += clusters;
    }
    const uint64_t storedBytes = (vcn - firstVcn) * clusterBytes;
    if (storedBytes == m_UnitBytes) {
        std::memcpy(target, m_StoredUnit.GetPtr(), m_UnitBytes);
        return CZuError();
    }
    return DecodeUnit(storedBytes, target);
}

CZuError CNtfsStream::DecodeUnit(uint64_t storedBytes, char* target) {
    CByteView chunks(m_StoredUnit.GetPtr(), storedBytes);
    uint32_t done = 0;
    while (done < m_UnitBytes) {
        const Lznt1Chunk_t chunk = DescribeLznt1Chunk(chunks);
        if (chunk.bytes == 0)
            break;
        uint32_t given = 0;
        const uint32_t room = std::min(m_UnitBytes - done, Lznt1ChunkBytes);
        const bool isSound =
            chunks.Holds(0, chunk.bytes) && room == Lznt1ChunkBytes &&
            (chunk.isCompressed ? DecodeLznt1Chunk(chunks, target + done, given) == NtfsOk
                                : chunks.CopyOut(Lznt1HeadBytes, target + done, given = chunk.bytes - Lznt1HeadBytes));
        if (!isSound)
            return Refusal(m_Where + ": its compressed data is damaged");
        std::memset(target + done + given, 0, Lznt1ChunkBytes - given);
        done += Lznt1ChunkBytes;
        chunks = chunks.From(chunk.bytes);
    }
    std::memset(target + done, 0, m_UnitBytes - done);
    return CZuError();
}

CZuError CNtfsStream::Unplaced(uint64_t offset) const {
    return Refusal(CZuString::Format("{1}: its records don't say where byte {2} of it lies", m_Where, offset));
}

// The index of the run that holds `vcn`, all of them for none.
size_t CNtfsStream::FindRun(uint64_t vcn) {
    const auto holds = [&](size_t index) {
        return index < m_Runs.size() && m_Runs[index].vcn <= vcn && vcn - m_Runs[index].vcn < m_Runs[index].clusters;
    };
    for (const size_t index : {m_LastRun, m_LastRun + 1}) {
        if (holds(index))
            return m_LastRun = index;
    }
    const auto behind = std::upper_bound(m_Runs.begin(), m_Runs.end(), vcn,
                                         [](uint64_t value, const NtfsExtent_t& run) { return value < run.vcn; });
    if (behind == m_Runs.begin())
        return m_Runs.size();
    const auto index = static_cast<size_t>(behind - m_Runs.begin()) - 1;
    return holds(index) ? m_LastRun = index : m_Runs.size();
}
