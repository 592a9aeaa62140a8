#include "agent/detail/NtfsUsedPieces.h"

#include <algorithm>

#include "VirtualServer/VMInfo/detail/NtfsVolumeControlOf.h"
#include "VirtualServer/VMInfo/detail/NtfsVolumeOnDisk.h"
#include "agent/ErrorText.h"
#include "agent/detail/OutOfMemory.h"
#include "foundation/ByteOrder.h"
#include "foundation/detail/Bitmap.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr uint32_t BitmapReplyBytes = NtfsBitmapHeadBytes + (1U << 20U);
constexpr char AllBytesAdvice[] = "; as --type raw all of its bytes can be kept";
constexpr uint64_t LargestTablesBytes = uint64_t{1} << 30U;  // what the tables of an object may take: pieces of 512 TiB

bool IsInUse(const char* bitmap, uint64_t index) {
    return (static_cast<uint8_t>(bitmap[index / 8]) >> index % 8 & 1U) != 0;
}

// The first cluster from `index` on, below `end`, that is as `isInUse` says. Most of a bitmap is bytes of one kind.
uint64_t FindCluster(const char* bitmap, uint64_t index, uint64_t end, bool isInUse) {
    const char passedOver = isInUse ? '\0' : '\xFF';
    while (index < end && IsInUse(bitmap, index) != isInUse)
        index += index % 8 == 0 && bitmap[index / 8] == passedOver ? 8 : 1;
    return std::min(index, end);
}

}  // namespace

CZuError CNtfsUsedPieces::Open(const std::string& path) {
    NTFS_VOLUME_DATA_BUFFER data{};
    uint32_t got = 0;
    ZU_RETURN_IF_ERROR(m_File.Open(path.c_str(), OpenAsBinary | OpenNotInherited, 0));
    m_Control = NtfsVolumeControlOf(m_File);
    if (const int error = m_Control->AllowExtendedAccess(); error != 0)
        return Explained(error);
    if (const int error = m_Control->ReadVolumeData(data, got); error != 0 || got < sizeof(data))
        return Explained(error != 0 ? error : BadVolumeReplyError());
    return Measure(data);
}

CZuError CNtfsUsedPieces::Measure(const NTFS_VOLUME_DATA_BUFFER& data) {
    const auto sectors = static_cast<uint64_t>(data.NumberSectors.QuadPart);
    uint64_t fileBytes = 0;
    uint64_t volumeBytes = 0;
    ZU_RETURN_IF_ERROR(m_File.Size(fileBytes));
    m_ClusterBytes = data.BytesPerCluster;
    m_Clusters = static_cast<uint64_t>(data.TotalClusters.QuadPart);
    uint64_t clusterBytes = 0;
    if (m_ClusterBytes == 0 || !CheckedMul(sectors, data.BytesPerSector, volumeBytes) ||
        !CheckedMul(m_Clusters, m_ClusterBytes, clusterBytes) || clusterBytes > volumeBytes)
        return Explained(BadVolumeReplyError());
    if (m_Clusters == 0 || volumeBytes < BytesOfSector)
        return Refusal(std::string("its boot sector tells of no clusters") + AllBytesAdvice);
    if (volumeBytes > fileBytes)
        return Refusal(
            CZuString::Format("holds {1} bytes where its volume needs {2}; it is cut short", fileBytes, volumeBytes));
    m_DiskBytes = volumeBytes + std::min<uint64_t>(fileBytes - volumeBytes, data.BytesPerSector);
    m_DiskBytes -= m_DiskBytes % BytesOfSector;
    return CZuError();
}

CZuError CNtfsUsedPieces::FindPieces(uint32_t pieceBytes) {
    m_PieceBytes = pieceBytes;
    m_PieceCount = DivideRoundingUp(m_DiskBytes, pieceBytes);
    m_HeldPieces = 0;
    m_UsedClusters = 0;
    if (m_PieceCount / 8 >= LargestTablesBytes)
        return Refusal(OutOfMemory);
    m_Held.assign(static_cast<size_t>(m_PieceCount / 8 + 1), '\0');
    std::vector<char> reply(BitmapReplyBytes);
    // Each reply has at least a byte, so that it ends.
    for (uint64_t lcn = 0; lcn < m_Clusters;) {
        uint32_t bitmapBytes = 0;
        ZU_RETURN_IF_ERROR(ReadBitmapAt(lcn, reply, bitmapBytes));
        TakeBitmap(lcn, reply.data() + NtfsBitmapHeadBytes, bitmapBytes);
        lcn += uint64_t{bitmapBytes} * 8;
    }
    HoldBytes(m_Clusters * m_ClusterBytes, m_DiskBytes);
    return CZuError();
}

CZuError CNtfsUsedPieces::ReadBitmapAt(uint64_t firstLcn, std::vector<char>& reply, uint32_t& bitmapBytes) {
    uint32_t got = 0;
    Le64_t first{};
    const int outcome = m_Control->ReadBitmap(firstLcn, reply.data(), BitmapReplyBytes, got);
    if (outcome != 0 && outcome != NtfsBitmapIsCut)
        return Explained(outcome);
    if (got <= NtfsBitmapHeadBytes || !CByteView(reply.data(), reply.size()).Get(0, first) || first != firstLcn)
        return Explained(BadVolumeReplyError());
    bitmapBytes = got - NtfsBitmapHeadBytes;
    return CZuError();
}

void CNtfsUsedPieces::TakeBitmap(uint64_t firstLcn, const char* bitmap, uint32_t bitmapBytes) {
    const uint64_t count = std::min(uint64_t{bitmapBytes} * 8, m_Clusters - firstLcn);
    for (uint64_t from = FindCluster(bitmap, 0, count, true); from < count;) {
        const uint64_t end = FindCluster(bitmap, from, count, false);
        HoldClusters(firstLcn + from, firstLcn + end);
        from = FindCluster(bitmap, end, count, true);
    }
}

void CNtfsUsedPieces::HoldClusters(uint64_t firstLcn, uint64_t endLcn) {
    m_UsedClusters += endLcn - firstLcn;
    HoldBytes(firstLcn * m_ClusterBytes, endLcn * m_ClusterBytes);
}

void CNtfsUsedPieces::HoldBytes(uint64_t first, uint64_t end) {
    if (first >= end)
        return;
    const CByteView held(m_Held.data(), m_Held.size());
    for (uint64_t piece = first / m_PieceBytes; piece <= (end - 1) / m_PieceBytes; ++piece) {
        m_HeldPieces += HasBit(held, piece) ? 0 : 1;
        SetBit(m_Held.data(), piece);
    }
}

uint64_t CNtfsUsedPieces::NextPiece(uint64_t piece) const {
    const CByteView held(m_Held.data(), m_Held.size());
    if (piece >= m_PieceCount || HasBit(held, piece))
        return std::min(piece, m_PieceCount);
    return piece + CountEqualBits(held, piece, m_PieceCount - piece);
}

// Systems have a number for what is wrong, and the volume's own bytes tell it.
CZuError CNtfsUsedPieces::Explained(int systemError) {
    CNtfsVolumeOnDisk volume;
    char bits = 0;
    uint32_t got = 0;
    CZuError reason = volume.Open(m_File);
    if (!reason.IsErrorSet())
        reason = volume.ReadBitmap(0, &bits, sizeof(bits), got);
    if (reason.GetErrorType() != ErrorType::Text)
        return SystemFailure(systemError);
    return Refusal(DescribeError(reason) + AllBytesAdvice);
}
