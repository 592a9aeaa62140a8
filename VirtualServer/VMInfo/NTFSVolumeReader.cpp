#include "VirtualServer/VMInfo/NTFSVolumeReader.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/detail/MetadataRecord.h"
#include "VirtualServer/VMInfo/detail/NtfsVolumeControlOf.h"
#include "VirtualServer/VMInfo/detail/SparseDumpRecord.h"
#include "foundation/ByteOrder.h"
#include "foundation/detail/ByteView.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "foundation/detail/ScopeGuard.h"

namespace {

constexpr Condition_t EndOfVolume{ErrorType::Condition, 7001, 1, nullptr};
constexpr Condition_t NothingAllocated{ErrorType::Condition, 7001, 2, nullptr};

constexpr char NameIsNull[] = "Volume name is NULL";
constexpr char NothingOpened[] = "Object is in invalid state. Make sure OpenVolume succeeded";
constexpr char NoMemory[] = "Out Of memory";

constexpr uint32_t CachedBlocks = 1000;

struct BitmapHead_t {
    Le64_t firstLcn;
    Le64_t clusters;  // from there to the volume's end
};
static_assert(sizeof(BitmapHead_t) == NtfsBitmapHeadBytes);

// Behind the head of the volume's record.
struct NtfsRecordBody_t {
    char bytesPerCluster[16];
    char blockSectors[16];
};
static_assert(sizeof(NtfsRecordBody_t) == 32);

uint64_t NumberIn(const char (&field)[16]) {
    return std::strtoull(std::string(field, sizeof(field)).c_str(), nullptr, 16);
}

CZuError ReadVolumeData(INtfsVolumeControl& control, NTFS_VOLUME_DATA_BUFFER& data) {
    uint32_t got = 0;
    ZU_RETURN_IF_ERROR(SystemFailure(control.ReadVolumeData(data, got)));
    return SystemFailure(got < sizeof(data) || data.BytesPerSector == 0 ? BadVolumeReplyError() : 0);
}

}  // namespace

CZuError CNTFSVolumeReader::OpenVolume(const char* name) {
    if (name == nullptr)
        return Refusal(NameIsNull);
    if (m_VolumeFile.IsValid())
        return Refusal("Object already have an open volume.");
    return WithinMemory(NoMemory, [&] {
        ScopeGuard closeUnlessKept([this] { Dropped(CloseVolume()); });  // the first error is the one to report
        ZU_RETURN_IF_ERROR(OpenDevice(name));
        closeUnlessKept.Dismiss();
        return CZuError();
    });
}

CZuError CNTFSVolumeReader::OpenDevice(const char* name) {
    NTFS_VOLUME_DATA_BUFFER data{};
    ZU_RETURN_IF_ERROR(m_VolumeFile.Open(name, OpenAsBinary | OpenNotInherited, 0));
    m_Control = NtfsVolumeControlOf(m_VolumeFile);
    ZU_RETURN_IF_ERROR(SystemFailure(m_Control->AllowExtendedAccess()));
    ZU_RETURN_IF_ERROR(ReadVolumeData(*m_Control, data));
    return ComputeGeometry(static_cast<uint64_t>(data.NumberSectors.QuadPart),
                           static_cast<uint64_t>(data.TotalClusters.QuadPart), data.BytesPerCluster,
                           data.BytesPerSector);
}

CZuError CNTFSVolumeReader::CloseVolume() {
    m_BytesPerSector = 0;
    m_SectorsPerCluster = 0;
    m_TotalSectors = 0;
    m_TotalBlocks = 0;
    m_BlockSize = 0;
    m_LastBitmapBytes = 0;
    m_LastBlockClusters = 0;
    m_Bitmap.Free();
    m_FirstCachedBlock = 0;
    m_LastCachedBlock = 0;
    m_Control.reset();
    return m_VolumeFile.Close();
}

CZuError CNTFSVolumeReader::ReadData(uint64_t offset, char* buffer, uint32_t size) {
    if (!m_VolumeFile.IsValid())
        return Refusal(NothingOpened);
    ZU_RETURN_IF_ERROR(ReadFileAt(m_VolumeFile, offset, 0, buffer, size, nullptr));
    return CZuError();
}

CZuError CNTFSVolumeReader::ReadBlock(uint64_t block, char* buffer, uint32_t* sectors) {
    if (buffer == nullptr || sectors == nullptr)
        return Refusal("Invalid input parameter");
    if (!m_VolumeFile.IsValid())
        return Refusal(NothingOpened);
    *sectors = 0;
    return WithinMemory(NoMemory, [&] { return ReadHeldBlock(block, buffer, *sectors); });
}

CZuError CNTFSVolumeReader::ReadHeldBlock(uint64_t block, char* buffer, uint32_t& sectors) {
    if (!IsCached(block))
        ZU_RETURN_IF_ERROR(FillCache(block));
    if (!HoldsClusters(block))
        return NothingAllocated.Error();
    const uint64_t blockSectors = block == m_LastCachedBlock ? m_LastBlockClusters * m_SectorsPerCluster : m_BlockSize;
    uint64_t offset = 0;
    uint32_t sizeBytes = 0;
    if (!OffsetOfBlock(block, offset))
        return EndOfVolume.Error();
    if (!NarrowTo32(blockSectors << SectorShift, sizeBytes))
        return Refusal("Cannot read 4 GiB or more at once");
    ZU_RETURN_IF_ERROR(ReadData(offset, buffer, sizeBytes));
    sectors = sizeBytes >> SectorShift;
    return CZuError();
}

CZuError CNTFSVolumeReader::GetMetadataInfo(CAutoMemory<char>& metadata) {
    if (!m_VolumeFile.IsValid())
        return Refusal("Don't have a valid opened NTFS volume");
    constexpr uint32_t recordBytes = MetadataHeadBytes + sizeof(NtfsRecordBody_t);
    if (metadata.Alloc(recordBytes) == nullptr)
        return Refusal(NoMemory);
    NtfsRecordBody_t body{};
    PutHexText(body.bytesPerCluster, sizeof(body.bytesPerCluster), m_SectorsPerCluster * m_BytesPerSector);
    PutHexText(body.blockSectors, sizeof(body.blockSectors), m_BlockSize);
    WriteMetadataHead(metadata, SignatureNtfsVolume, m_TotalSectors);
    std::memcpy(metadata.GetPtr() + MetadataHeadBytes, &body, sizeof(body));
    return CZuError();
}

CZuError CNTFSVolumeReader::CreateVolume(const char* name, CAutoMemory<char>& metadata) {
    if (name == nullptr)
        return Refusal(NameIsNull);
    if (m_VolumeFile.IsValid())
        return Refusal("Object already have an open volue.");  // callers know the text as it is
    return WithinMemory(NoMemory, [&] {
        ZU_RETURN_IF_ERROR(CheckMetadataHead(metadata, SignatureNtfsVolume));
        ScopeGuard closeUnlessKept([this] { Dropped(CloseVolume()); });  // the first error is the one to report
        ZU_RETURN_IF_ERROR(CreateOnDevice(name, metadata));
        closeUnlessKept.Dismiss();
        return CZuError();
    });
}

CZuError CNTFSVolumeReader::CreateOnDevice(const char* name, const CAutoMemory<char>& metadata) {
    NtfsRecordBody_t body{};
    NTFS_VOLUME_DATA_BUFFER data{};
    if (!MetadataBody(metadata).Get(0, body) || NumberIn(body.bytesPerCluster) == 0)
        return Refusal(MetadataIsCorrupted);
    ZU_RETURN_IF_ERROR(m_VolumeFile.Open(name, OpenAsBinary | OpenNotInherited | OpenForBoth, 0));
    m_Control = NtfsVolumeControlOf(m_VolumeFile);
    ZU_RETURN_IF_ERROR(ReadVolumeData(*m_Control, data));
    ZU_RETURN_IF_ERROR(SystemFailure(m_Control->AllowExtendedAccess()));

    const uint64_t totalSectors = MetadataTotalSectors(metadata);
    const auto targetSectors = static_cast<uint64_t>(data.NumberSectors.QuadPart);
    if (totalSectors > targetSectors)
        return Refusal(CZuString::Format("Volume size {2} bytes is less than the original volume size is {1} Bytes",
                                         FileOffsetOfSector(totalSectors), FileOffsetOfSector(targetSectors)));
    // Sectors are divided by bytes: callers rely on the count of blocks that this gives.
    const uint64_t bytesPerCluster = NumberIn(body.bytesPerCluster);
    ZU_RETURN_IF_ERROR(
        ComputeGeometry(totalSectors, totalSectors / bytesPerCluster, bytesPerCluster, data.BytesPerSector));
    if (NumberIn(body.blockSectors) != m_BlockSize)
        return Refusal(CZuString::Format("Block size {1} sectors does not match the computed block size {2} sectors",
                                         NumberIn(body.blockSectors), m_BlockSize));
    return SystemFailure(m_Control->Lock());
}

// `bytesPerSector` isn't 0.
CZuError CNTFSVolumeReader::ComputeGeometry(uint64_t totalSectors, uint64_t clusters, uint64_t bytesPerCluster,
                                            uint64_t bytesPerSector) {
    m_BytesPerSector = bytesPerSector;
    m_SectorsPerCluster = bytesPerCluster / bytesPerSector;
    m_TotalSectors = totalSectors;
    m_TotalBlocks = DivideRoundingUp(clusters, ClustersPerBlock());
    uint64_t blockBytes = 0;
    // A block of no sectors, or of more than a number has bytes, is none.
    const bool isSound = m_SectorsPerCluster != 0 && CheckedMul(ClustersPerBlock(), m_SectorsPerCluster, m_BlockSize) &&
                         SectorsToBytes(m_BlockSize, blockBytes);
    return isSound ? CZuError() : SystemFailure(BadVolumeReplyError());
}

CZuError CNTFSVolumeReader::WriteBlock(uint64_t block, CAutoMemory<char>& data) {
    if (!m_VolumeFile.IsValid())
        return Refusal("Object is in invalid state. Make sure CreateVolume succeeded");
    if (data.GetSize() > m_BlockSize << SectorShift)
        return Refusal("Data size is greater than grain size");
    uint64_t offset = 0;
    if (!OffsetOfBlock(block, offset))
        return EndOfVolume.Error();
    ZU_RETURN_IF_ERROR(WriteFileAt(m_VolumeFile, offset, 0, data.GetPtr(), data.GetSize(), nullptr));
    return CZuError();
}

CZuError CNTFSVolumeReader::DumpSparseInfo(CZuFile& file, const char* name, uint64_t size) {
    SparseDumpFields_t fields;
    fields.endLba = ~uint64_t{0};
    fields.blockSectors = size;
    fields.grainSectors = size;
    ZU_RETURN_IF_ERROR(WriteSparseDumpRecord(file, name, fields));
    return CZuError();
}

int CNTFSVolumeReader::IsErrorEOF(const CZuError& error) const {
    return EndOfVolume.Holds(error) ? 1 : 0;
}

int CNTFSVolumeReader::IsErrorSectorNotFound(const CZuError& error) const {
    return NothingAllocated.Holds(error) ? 1 : 0;
}

// A failure leaves the cache empty.
CZuError CNTFSVolumeReader::FillCache(uint64_t block) {
    ScopeGuard emptyUnlessFilled([this] { m_Bitmap.Alloc(0); });
    const uint32_t cacheBytes = NtfsBitmapHeadBytes + m_BitmapBytesPerBlock * CachedBlocks;
    if (m_Bitmap.Alloc(cacheBytes) == nullptr)
        return Refusal(NoMemory);
    std::memset(m_Bitmap.GetPtr(), 0, cacheBytes);
    if (block > m_TotalBlocks)
        return EndOfVolume.Error();
    uint32_t replyBytes = 0;
    const int outcome = m_Control->ReadBitmap(block * ClustersPerBlock(), m_Bitmap.GetPtr(), cacheBytes, replyBytes);
    if (outcome == NtfsBitmapIsOver)
        return EndOfVolume.Error();
    if (outcome != 0 && outcome != NtfsBitmapIsCut)
        return SystemFailure(outcome);
    ZU_RETURN_IF_ERROR(TakeReply(block, replyBytes, outcome == NtfsBitmapIsCut));
    emptyUnlessFilled.Dismiss();
    return CZuError();
}

// Where a reply is cut short, the volume goes on: blocks that it has in part count as those that it doesn't have, and
// come with a later one. A reply whose parts don't fit each other would lose clusters in use, so it is none.
CZuError CNTFSVolumeReader::TakeReply(uint64_t block, uint32_t replyBytes, bool isCut) {
    BitmapHead_t head{};
    if (replyBytes <= sizeof(head) || !CByteView(m_Bitmap.GetPtr(), m_Bitmap.GetSize()).Get(0, head) ||
        replyBytes > m_Bitmap.GetSize() || head.firstLcn % ClustersPerBlock() != 0)
        return SystemFailure(BadVolumeReplyError());
    const auto clustersPerBlock = static_cast<uint32_t>(ClustersPerBlock());
    const uint32_t bitmapBytes = replyBytes - NtfsBitmapHeadBytes;
    const uint32_t blocks = isCut ? bitmapBytes / m_BitmapBytesPerBlock : (bitmapBytes - 1) / m_BitmapBytesPerBlock + 1;
    // The low 32 bits are enough for the rest of a division by a power of two.
    const auto clusters = static_cast<uint32_t>(head.clusters) - static_cast<uint32_t>(head.firstLcn);
    const uint32_t bytesOfLast = isCut ? 0 : bitmapBytes % m_BitmapBytesPerBlock;
    const uint32_t clustersOfLast = isCut ? 0 : clusters % clustersPerBlock;
    m_FirstCachedBlock = head.firstLcn / clustersPerBlock;
    m_LastCachedBlock = m_FirstCachedBlock + blocks - 1;
    m_LastBitmapBytes = bytesOfLast != 0 ? bytesOfLast : m_BitmapBytesPerBlock;
    m_LastBlockClusters = clustersOfLast != 0 ? clustersOfLast : clustersPerBlock;
    const bool isSound = blocks != 0 && IsCached(block) && m_LastBlockClusters <= m_LastBitmapBytes * 8;
    return SystemFailure(isSound ? 0 : BadVolumeReplyError());
}

bool CNTFSVolumeReader::IsCached(uint64_t block) const {
    return m_Bitmap.GetSize() != 0 && block >= m_FirstCachedBlock && block <= m_LastCachedBlock;
}

// `block` is in the cache.
bool CNTFSVolumeReader::HoldsClusters(uint64_t block) const {
    const auto index = static_cast<uint32_t>(block - m_FirstCachedBlock);
    const char* const bits = m_Bitmap.GetPtr() + NtfsBitmapHeadBytes + index * m_BitmapBytesPerBlock;
    const uint32_t count = block == m_LastCachedBlock ? m_LastBitmapBytes : m_BitmapBytesPerBlock;
    return std::any_of(bits, bits + count, [](char byte) { return byte != 0; });
}

bool CNTFSVolumeReader::OffsetOfBlock(uint64_t block, uint64_t& offset) const {
    uint64_t firstSector = 0;
    return CheckedMul(block, m_BlockSize, firstSector) && SectorsToBytes(firstSector, offset);
}
