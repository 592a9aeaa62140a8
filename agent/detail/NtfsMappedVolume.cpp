#include "agent/detail/NtfsMappedVolume.h"

#include <cerrno>
#include <cstdio>
#include <limits>

#include "VirtualServer/VMInfo/NtfsBootSector.h"
#include "VirtualServer/VMInfo/detail/NtfsVolumeFacts.h"
#include "agent/ErrorText.h"
#include "agent/detail/NtfsRecordFacts.h"
#include "agent/detail/NtfsStream.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "ntfs/detail/MetadataFormat.h"
#include "platform/StandardFile.h"

namespace {

constexpr uint32_t SmallestNtfsCluster = 512;
constexpr uint8_t MostPlainSectors = 128;  // per cluster; a larger number is the negative power of two

}  // namespace

CZuError CNtfsMappedVolume::Open(CVolumeSet& set, const VolumeInfo_t& volume) {
    m_Set = &set;
    m_Info = &volume;
    m_SecurityProblem.clear();
    LVM_Volume_t layout = volume.layout;
    const int result = OpenVolume(nullptr, layout);
    if (result == NtfsOk)
        return CZuError();
    CZuError error = ErrorOf(volume.name, result);
    if (MftSize() == 0)
        return error;
    m_SecurityProblem = DescribeError(error);
    return CZuError();
}

uint64_t CNtfsMappedVolume::RecordCount() const {
    const uint32_t recordBytes = VolumeData().BytesPerFileRecordSegment;
    return recordBytes == 0 ? 0 : DivideRoundingUp(MftSize(), recordBytes);
}

uint64_t CNtfsMappedVolume::Bytes() const {
    uint64_t bytes = 0;
    return SectorsToBytes(m_Info->sectors, bytes) ? bytes : std::numeric_limits<uint64_t>::max();
}

CZuError CNtfsMappedVolume::ReadRecord(uint64_t frn, CAutoMemory<char>& record) {
    const int result = TryRecord(frn, record);
    return result == NtfsOk ? CZuError()
                            : ErrorOf(CZuString::Format("{1}: file record {2}", Name(), frn).c_str(), result);
}

int CNtfsMappedVolume::TryRecord(uint64_t frn, CAutoMemory<char>& record) {
    READFILECONTEXT context;
    return OpenFile(frn, &record, 1, &context);
}

CZuError CNtfsMappedVolume::ReadBytes(uint64_t offset, char* buffer, uint32_t size) {
    return m_Set->Read(*m_Info, offset, buffer, size);
}

CZuError CNtfsMappedVolume::ReadClusters(uint64_t lcn, uint64_t skip, char* buffer, uint32_t size) {
    uint64_t offset = 0;
    if (!CheckedMul(lcn, ClusterBytes(), offset) || !CheckedAdd(offset, skip, offset))
        return Refusal(CZuString::Format("{1}: has no cluster {2}", Name(), lcn));
    return ReadBytes(offset, buffer, size);
}

CZuError CNtfsMappedVolume::OpenStream(uint64_t /*frn*/, CAutoMemory<char>& record, uint32_t type,
                                       const std::u16string& name, const std::string& where, CNtfsStream& stream) {
    return stream.Open(*this, record, type, name, where);
}

CZuError CNtfsMappedVolume::ReadSharedDescriptor(uint64_t /*frn*/, CAutoMemory<char>& record,
                                                 CAutoMemory<char>& descriptor) {
    NtfsFileInfo_t info;
    DescribeNtfsRecord(record, info);
    const int result = GetSecurityInformation(info.securityId, &descriptor);
    if (result == NtfsOk || result == NtfsIndexFound || result == NtfsIndexNotFound)
        return CZuError();
    return ErrorOf(CZuString::Format("{1}: security descriptor {2}", Name(), info.securityId).c_str(), result);
}

int CNtfsMappedVolume::ReadVolumeInformation(NTFS_VOLUME_DATA_BUFFER* info) {
    *info = NTFS_VOLUME_DATA_BUFFER{};
    NtfsBootSector_t sector{};
    const int result = ReadDisk(0, reinterpret_cast<char*>(&sector), sizeof(sector));
    if (result != NtfsOk)
        return result;
    if (!IsNtfs(sector)) {
        m_DiskError = Refusal("is no NTFS volume");
        return NtfsSeeLog;
    }
    FillNtfsVolumeFacts(sector, *info);
    const auto powerOfTwo = static_cast<uint8_t>(-static_cast<int>(sector.sectorsPerCluster));
    if (sector.sectorsPerCluster > MostPlainSectors && powerOfTwo < 16) {
        const uint32_t clustersPerRecord = info->ClustersPerFileRecordSegment;
        info->BytesPerCluster = uint32_t{sector.bytesPerSector} << powerOfTwo;
        if (clustersPerRecord > 1)
            info->BytesPerFileRecordSegment = clustersPerRecord * info->BytesPerCluster;
    }
    return NtfsOk;
}

int CNtfsMappedVolume::ReadDisk(uint64_t offset, char* buffer, uint32_t size) {
    m_DiskError = ReadBytes(offset, buffer, size);
    return m_DiskError.IsErrorSet() ? NtfsSeeLog : NtfsOk;
}

uint32_t CNtfsMappedVolume::SmallestCluster() const {
    return SmallestNtfsCluster;
}

CZuError CNtfsMappedVolume::WriteSecurityFile(const std::string& path) {
    std::FILE* file = nullptr;
    int result = OpenStandardFile(path.c_str(), "wb", file);
    if (result != 0)
        return ErrorAt(path, SystemFailure(result));
    const bool hasBegun =
        std::fwrite(MetadataSignature, 1, sizeof(MetadataSignature), file) == sizeof(MetadataSignature);
    result = hasBegun ? DumpSecuirtyInformation(file) : EIO;
    const bool isClosed = std::fclose(file) == 0;
    if (result == NtfsOk && !isClosed)
        result = EIO;
    return result == NtfsOk ? CZuError() : ErrorOf(Name(), result);
}

CZuError CNtfsMappedVolume::ErrorOf(const std::string& where, int result) const {
    if (result == NtfsSeeLog)
        return ErrorAt(where, m_DiskError);
    const char* const text = NtfsErrorText(result);
    return text != nullptr ? Refusal(where + ": " + text) : ErrorAt(where, SystemFailure(result));
}
