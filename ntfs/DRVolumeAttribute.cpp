#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

#include "foundation/detail/ByteView.h"
#include "foundation/detail/CheckedMath.h"
#include "ntfs/DRVolume.h"
#include "ntfs/detail/Lznt1.h"
#include "ntfs/detail/NtfsFormat.h"
#include "ntfs/detail/ReadPosition.h"
#include "ntfs/detail/VolumeSteps.h"
#include "ntfs/detail/WithinMemory.h"

namespace {

constexpr uint64_t AttributePieceBytes = uint64_t{1} << 20U;
constexpr unsigned UnitShiftMask = 31;
constexpr uint64_t LargestStoredUnit = uint64_t{1} << 24U;  // NTFS itself makes none above 64 KiB

struct ClusterRun_t {
    uint64_t lcn = 0;  // HoleLcn for a hole
    uint64_t clusters = 0;
};

int ReadResident(const ATTR_RECORD_HEADER_t* attribute, uint32_t* offset, char* buffer, uint32_t size, uint32_t* read) {
    NtfsResidentForm_t form{};
    const char* const start = reinterpret_cast<const char*>(attribute);
    std::memcpy(&form, start + ResidentFormOffset, sizeof(form));
    if (*offset >= form.valueLength)
        return NtfsEndOfRun;
    const uint32_t bytes = std::min(size, form.valueLength - *offset);
    if (bytes != 0)
        std::memcpy(buffer, start + form.valueOffset + *offset, bytes);
    *offset += bytes;
    *read = bytes;
    return NtfsOk;
}

}  // namespace

// Hands out the clusters of decoded runs in VCN order. Runs of no clusters are passed over.
class CDRVolume::CExtentWalk {
public:
    explicit CExtentWalk(const DATARUN_EXTENTS& extents) : m_Runs(extents.Runs()), m_Count(extents.Count) {}

    // Goes to the run that holds `vcn`; false when there is none.
    bool Seek(uint64_t vcn) {
        uint64_t runStart = 0;
        for (m_Index = 0; m_Index < m_Count; ++m_Index) {
            const uint64_t nextVcn = m_Runs[m_Index].NextVcn;
            if (nextVcn > vcn) {
                m_Used = vcn - runStart;
                PassEmpty();
                return true;
            }
            runStart = nextVcn;
        }
        return false;
    }

    bool AtEnd() const { return m_Index == m_Count; }

    // How many clusters of nothing begin here, in whole compression units. `vcn` is the one that was sought.
    uint64_t HoleClusters(uint64_t vcn, uint64_t unitClusters) const {
        if (AtEnd() || m_Runs[m_Index].StartLcn != HoleLcn || m_Runs[m_Index].EndLcn != HoleLcn)
            return 0;
        const uint64_t holeEnd = vcn + Left();
        const uint64_t unitStart = vcn - vcn % unitClusters;
        const bool isUnitInHole = vcn - unitStart <= m_Used;
        const uint64_t wholeEnd = holeEnd - holeEnd % unitClusters;
        return isUnitInHole && wholeEnd > vcn ? wholeEnd - vcn : 0;
    }

    ClusterRun_t Take(uint64_t mostClusters) {
        const DATARUN_EXTENT_t& run = m_Runs[m_Index];
        const bool isHole = run.StartLcn == HoleLcn && run.EndLcn == HoleLcn;
        const ClusterRun_t taken{isHole ? HoleLcn : run.StartLcn + m_Used, std::min(mostClusters, Left())};
        m_Used += taken.clusters;
        PassEmpty();
        return taken;
    }

private:
    uint64_t Left() const {
        const uint64_t length = m_Runs[m_Index].RunLength;
        return length > m_Used ? length - m_Used : 0;
    }

    void PassEmpty() {
        while (m_Index < m_Count && Left() == 0) {
            ++m_Index;
            m_Used = 0;
        }
    }

    const DATARUN_EXTENT_t* m_Runs;
    uint32_t m_Count;
    uint32_t m_Index = 0;
    uint64_t m_Used = 0;  // clusters of the run in work
};

// One compression unit, or what there is of it.
struct CDRVolume::Unit_t {
    uint64_t start = 0;  // VCN
    uint64_t clusters = 0;
    bool hasHole = false;
    std::vector<ClusterRun_t> runs;

    bool IsHole() const { return !runs.empty() && runs.front().lcn == HoleLcn; }

    // False when the runs end inside a unit that has a hole.
    bool Fill(CExtentWalk& walk, uint64_t unitStart, uint64_t unitClusters) {
        start = unitStart;
        clusters = 0;
        hasHole = false;
        runs.clear();
        while (clusters < unitClusters && !walk.AtEnd()) {
            runs.push_back(walk.Take(unitClusters - clusters));
            clusters += runs.back().clusters;
            hasHole = hasHole || runs.back().lcn == HoleLcn;
        }
        return !hasHole || clusters == unitClusters;
    }
};

// What one call of `ReadAttribute` asks for. Its steps answer NtfsOk when the buffer is full, and NtfsEndOfRun when
// they are through and there is room left.
struct CDRVolume::Request_t {
    const ATTR_RECORD_HEADER_t* attribute = nullptr;
    uint64_t& vcn;
    uint32_t& offset;
    char* buffer = nullptr;
    uint32_t size = 0;
    uint32_t& read;
    uint64_t clusterBytes = 0;
    uint64_t lastVcn = 0;
    uint64_t dataBytes = 0;

    char* Target() const { return buffer + read; }
    uint32_t Room() const { return size - read; }

    // What the cluster of that number delivers. In a later segment, whose data size means nothing, the difference
    // wraps: all of its clusters are whole.
    uint64_t BytesOfCluster(uint64_t cluster) const {
        return cluster == lastVcn ? std::min(dataBytes - lastVcn * clusterBytes, clusterBytes) : clusterBytes;
    }

    // How many clusters from the next one on can be taken together: no more than the room asks for, and no further
    // than the attribute's last one, behind which they are whole again.
    uint64_t ClustersTogether(uint64_t clusters) const {
        const uint64_t wanted = (uint64_t{offset} + Room()) / clusterBytes + 1;
        const uint64_t together = std::min(clusters, wanted);
        return vcn <= lastVcn && lastVcn - vcn < together ? lastVcn - vcn + 1 : together;
    }

    void MoveTo(uint64_t cluster, uint64_t inCluster) {
        vcn = cluster;
        offset = static_cast<uint32_t>(inCluster);
    }
};

int CDRVolume::ReadAttribute(ATTR_RECORD_HEADER_t* attr, DATARUN_EXTENTS* extents, uint64_t* vcn, uint32_t* offset,
                             char* buffer, uint32_t size, uint32_t* read) {
    *read = 0;
    if (attr == nullptr)
        return NtfsEndOfRun;
    if (attr->IsNonResident == 0)
        return ReadResident(attr, offset, buffer, size, read);
    if (extents == nullptr || m_VolumeData.BytesPerCluster == 0)
        return NtfsEndOfRun;
    *vcn += *offset / m_VolumeData.BytesPerCluster;
    *offset %= m_VolumeData.BytesPerCluster;
    const NtfsNonResidentForm_t form = NonResidentFormOf(attr);
    Request_t request{attr, *vcn, *offset, buffer, size, *read, m_VolumeData.BytesPerCluster};
    request.lastVcn = form.highestVcn - form.lowestVcn;
    request.dataBytes = form.dataBytes;
    if (*vcn > request.lastVcn)
        return NtfsEndOfRun;
    return NtfsWithinMemory([&] { return ReadNonResident(request, *extents); });
}

int CDRVolume::ReadNonResident(Request_t& request, const DATARUN_EXTENTS& extents) {
    const uint64_t unitClusters = uint64_t{1} << (CDRFileRecord::GetCompressionUnit(request.attribute) & UnitShiftMask);
    CExtentWalk walk(extents);
    if (!walk.Seek(request.vcn - request.vcn % unitClusters))
        return NtfsEndOfRun;
    return unitClusters == 1 ? DeliverRuns(request, walk) : DeliverUnits(request, walk, unitClusters);
}

int CDRVolume::DeliverRuns(Request_t& request, CExtentWalk& walk) {
    while (!walk.AtEnd()) {
        const ClusterRun_t run = walk.Take(std::numeric_limits<uint64_t>::max());
        const int result = DeliverRun(request, run.lcn, run.clusters);
        if (result != NtfsEndOfRun)
            return result;
    }
    return NtfsEndOfRun;
}

int CDRVolume::DeliverUnits(Request_t& request, CExtentWalk& walk, uint64_t unitClusters) {
    Unit_t unit;
    for (uint64_t start = request.vcn - request.vcn % unitClusters; !walk.AtEnd(); start += unitClusters) {
        if (!unit.Fill(walk, start, unitClusters))
            return NtfsBadCompression;
        const int result = DeliverUnit(request, unit);
        if (result != NtfsEndOfRun)
            return result;
    }
    return NtfsEndOfRun;
}

// Callers rely on these two looks alone: a unit with a hole in front is empty, one with any other hole is compressed,
// and one without holes is plain, whatever its bytes are.
int CDRVolume::DeliverUnit(Request_t& request, const Unit_t& unit) {
    uint64_t passed = request.vcn - unit.start;
    if (passed >= unit.clusters)
        return NtfsEndOfRun;
    if (unit.IsHole())
        return DeliverRun(request, HoleLcn, unit.clusters - passed);
    if (unit.hasHole)
        return DeliverCompressed(request, unit);
    for (const ClusterRun_t& run : unit.runs) {
        const uint64_t skipped = std::min(passed, run.clusters);
        passed -= skipped;
        const int result = DeliverRun(request, run.lcn + skipped, run.clusters - skipped);
        if (result != NtfsEndOfRun)
            return result;
    }
    return NtfsEndOfRun;
}

int CDRVolume::DeliverRun(Request_t& request, uint64_t lcn, uint64_t clusters) {
    while (clusters != 0) {
        const uint64_t together = request.ClustersTogether(clusters);
        const int result = DeliverStretch(request, lcn, together);
        if (result != NtfsEndOfRun)
            return result;
        clusters -= together;
        if (lcn != HoleLcn)
            lcn += together;
    }
    return NtfsEndOfRun;
}

// Of the clusters together only the last one may be the attribute's last. They are read at once, straight into the
// buffer. Where that fails, they are read one by one, so that those in front of the one that fails are delivered.
int CDRVolume::DeliverStretch(Request_t& request, uint64_t lcn, uint64_t clusters) {
    const uint64_t bytes = (clusters - 1) * request.clusterBytes + request.BytesOfCluster(request.vcn + clusters - 1);
    const uint64_t skip = std::min<uint64_t>(request.offset, bytes);
    const auto take = static_cast<uint32_t>(std::min<uint64_t>(request.Room(), bytes - skip));
    const int result = Fetch(lcn, skip, request.Target(), take);
    if (result != NtfsOk)
        return clusters > 1 ? DeliverByCluster(request, lcn, clusters) : result;
    request.read += take;
    if (request.Room() != 0) {
        request.MoveTo(request.vcn + clusters, 0);
        return NtfsEndOfRun;
    }
    if (take != 0) {
        const uint64_t lastCluster = (skip + take - 1) / request.clusterBytes;
        request.MoveTo(request.vcn + lastCluster, skip + take - lastCluster * request.clusterBytes);
    }
    return NtfsOk;
}

int CDRVolume::DeliverByCluster(Request_t& request, uint64_t lcn, uint64_t clusters) {
    for (uint64_t index = 0; index < clusters; ++index) {
        const int result = DeliverStretch(request, lcn + index, 1);
        if (result != NtfsEndOfRun)
            return result;
    }
    return NtfsEndOfRun;
}

int CDRVolume::Fetch(uint64_t lcn, uint64_t skip, char* target, uint32_t bytes) {
    if (bytes == 0)
        return NtfsOk;
    if (lcn == HoleLcn) {
        std::memset(target, 0, bytes);
        return NtfsOk;
    }
    uint64_t offset = 0;
    if (!CheckedMul(lcn, m_VolumeData.BytesPerCluster, offset) || !CheckedAdd(offset, skip, offset))
        offset = std::numeric_limits<uint64_t>::max();  // behind any volume's end: the read tells of it
    return ReadDisk(offset, target, bytes);
}

// One chunk counts for one cluster, which holds for the clusters of 4096 bytes that NTFS compresses.
int CDRVolume::DeliverCompressed(Request_t& request, const Unit_t& unit) {
    uint64_t unitBytes = 0;
    if (!CheckedMul(unit.clusters, request.clusterBytes, unitBytes) || unitBytes > std::numeric_limits<uint32_t>::max())
        return NtfsOutOfMemory;
    NTFS_RETURN_IF_FAILED(ReadCompressedClusters(unit));
    CByteView chunks(m_CompressedBuffer.GetPtr(), m_CompressedBuffer.GetSize());
    const auto pass = [&chunks] {
        const Lznt1Chunk_t chunk = DescribeLznt1Chunk(chunks);
        if (chunk.isCompressed)
            chunks = chunks.From(chunk.bytes);
    };
    const uint64_t passed = request.vcn - unit.start;
    for (uint64_t index = 0; index < passed; ++index)
        pass();
    for (uint64_t index = passed; index < unit.clusters; ++index) {
        const int result = DeliverChunk(request, chunks);
        if (result != NtfsEndOfRun)
            return result;
        pass();
    }
    return NtfsEndOfRun;
}

// Callers rely on a stored chunk's giving nothing, and on the length that isn't made shorter by what was delivered of
// the chunk before: zeros follow it.
int CDRVolume::DeliverChunk(Request_t& request, CByteView chunk) {
    uint32_t length = 0;
    if (DescribeLznt1Chunk(chunk).isCompressed)
        NTFS_RETURN_IF_FAILED(DecodeLznt1Chunk(chunk, m_ClusterBuffer.GetPtr(), length));
    const uint32_t take = std::min(length, request.Room());
    const uint32_t end = request.offset + take;
    if (end > length)
        std::memset(m_ClusterBuffer.GetPtr() + length, 0, end - length);
    if (take != 0)
        std::memcpy(request.Target(), m_ClusterBuffer.GetPtr() + request.offset, take);
    request.read += take;
    if (request.Room() == 0) {
        request.offset = end;
        return NtfsOk;
    }
    request.MoveTo(request.vcn + 1, 0);
    return NtfsEndOfRun;
}

// Up to the first hole, which pads a compressed unit. The runs of a hostile one may name the same clusters many times.
int CDRVolume::ReadCompressedClusters(const Unit_t& unit) {
    m_CompressedBuffer.Alloc(0);
    uint64_t done = 0;
    for (const ClusterRun_t& run : unit.runs) {
        if (run.lcn == HoleLcn)
            break;
        const uint64_t runBytes = run.clusters * m_VolumeData.BytesPerCluster;
        for (uint64_t inRun = 0; inRun < runBytes;) {
            const uint64_t piece = std::min(runBytes - inRun, AttributePieceBytes);
            if (done + piece > LargestStoredUnit || !GrowBuffer(m_CompressedBuffer, done + piece))
                return NtfsOutOfMemory;
            NTFS_RETURN_IF_FAILED(
                Fetch(run.lcn, inRun, m_CompressedBuffer.GetPtr() + done, static_cast<uint32_t>(piece)));
            inRun += piece;
            done += piece;
        }
    }
    return NtfsOk;
}

int CDRVolume::UnCompress(char* source, char* target, uint32_t* size) {
    *size = 0;
    const Lznt1Chunk_t chunk = DescribeLznt1Chunk(CByteView(source, Lznt1HeadBytes));
    if (!chunk.isCompressed)
        return NtfsOk;
    constexpr uint32_t endOfToken = 1;  // the second byte of a token that begins in the chunk's last one
    return DecodeLznt1Chunk(CByteView(source, uint64_t{chunk.bytes} + endOfToken), target, *size);
}

// Steps over the blocks that lie in a hole as a whole. The last cluster of an attribute, which may end inside, is left
// to a read.
void CDRVolume::PassHole(const ATTR_RECORD_HEADER_t* attr, const DATARUN_EXTENTS* extents, uint32_t blockBytes,
                         Position_t& position) const {
    const uint64_t clusterBytes = m_VolumeData.BytesPerCluster;
    if (attr == nullptr || attr->IsNonResident == 0 || extents == nullptr || clusterBytes == 0)
        return;
    position.vcn += position.offset / clusterBytes;
    position.offset = static_cast<uint32_t>(position.offset % clusterBytes);
    const NtfsNonResidentForm_t form = NonResidentFormOf(attr);
    const uint64_t lastVcn = form.highestVcn - form.lowestVcn;
    CExtentWalk walk(*extents);
    if (position.vcn >= lastVcn || !walk.Seek(position.vcn))
        return;
    const uint64_t unitClusters = uint64_t{1} << (form.compressionUnit & UnitShiftMask);
    const uint64_t clusters = std::min({walk.HoleClusters(position.vcn, unitClusters), lastVcn - position.vcn,
                                        uint64_t{std::numeric_limits<int64_t>::max()} / clusterBytes});
    const uint64_t bytes = clusters * clusterBytes;
    if (bytes < position.offset)
        return;
    const uint64_t passed = position.offset + (bytes - position.offset) / blockBytes * blockBytes;
    position.vcn += passed / clusterBytes;
    position.offset = static_cast<uint32_t>(passed % clusterBytes);
}

// What the clusters of `extents` hold, up to the ceiling.
uint64_t CDRVolume::StoredBytes(const DATARUN_EXTENTS& extents) const {
    uint64_t stored = 0;
    for (uint32_t index = 0; index < extents.Count; ++index) {
        const DATARUN_EXTENT_t& run = extents.Runs()[index];
        const bool isHole = run.StartLcn == HoleLcn && run.EndLcn == HoleLcn;
        uint64_t bytes = 0;
        if (!isHole && (!CheckedMul(run.RunLength, m_VolumeData.BytesPerCluster, bytes) || bytes > NtfsCeilingBytes))
            return NtfsCeilingBytes;
        stored = std::min(stored + bytes, NtfsCeilingBytes);
    }
    return stored;
}

// The value grows with what is there: a size that lies costs nothing. Nor does a hole, whose zeros are as many as it
// says: beyond the first piece a value has to have clusters to lie in.
int CDRVolume::ReadValue(ATTR_RECORD_HEADER_t* attr, CAutoMemory<char>& extents, Position_t& position, uint64_t size,
                         CAutoMemory<char>& value) {
    value.Alloc(0);
    if (size > NtfsCeilingBytes)
        return NtfsOutOfMemory;
    const DATARUN_EXTENTS* const runs = ExtentsOf(extents);
    const uint64_t room =
        size > AttributePieceBytes && runs != nullptr ? StoredBytes(*runs) + AttributePieceBytes : NtfsCeilingBytes;
    int result = NtfsOk;
    for (uint64_t done = 0; done < size && result == NtfsOk;) {
        const auto piece = static_cast<uint32_t>(std::min(size - done, AttributePieceBytes));
        if (done + piece > room || !GrowBuffer(value, done + piece))
            return NtfsOutOfMemory;
        uint32_t read = 0;
        result = ReadAttribute(attr, ExtentsOf(extents), &position.vcn, &position.offset, value.GetPtr() + done, piece,
                               &read);
        done += read;
        value.ReAlloc(static_cast<uint32_t>(done));
        if (read < piece)
            break;
    }
    return result;
}

int CDRVolume::ReadWholeValue(ATTR_RECORD_HEADER_t* attr, CAutoMemory<char>& value) {
    CAutoMemory<char> extents;
    NTFS_RETURN_IF_FAILED(DecodeRuns(attr, extents, 0));
    Position_t position;
    return ReadValue(attr, extents, position, CDRFileRecord::GetAttributeDataSize(attr), value);
}
