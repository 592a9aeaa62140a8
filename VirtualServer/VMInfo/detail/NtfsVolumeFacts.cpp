#include "VirtualServer/VMInfo/detail/NtfsVolumeFacts.h"

#include <cstdint>

namespace {

void FillFromBootSector(const NtfsBootSector_t& sector, NTFS_VOLUME_DATA_BUFFER& info) {
    const uint64_t sectorsPerCluster = sector.sectorsPerCluster;
    const uint64_t total = sector.totalSectors;
    info.VolumeSerialNumber.QuadPart = static_cast<int64_t>(uint64_t{sector.serialNumber});
    info.NumberSectors.QuadPart = static_cast<int64_t>(total);
    info.TotalClusters.QuadPart = static_cast<int64_t>(sectorsPerCluster != 0 ? total / sectorsPerCluster : 0);
    info.TotalReserved.QuadPart =
        static_cast<int64_t>(sectorsPerCluster != 0 ? sector.reservedSectors / sectorsPerCluster : 0);
    info.BytesPerSector = sector.bytesPerSector;
    info.BytesPerCluster = static_cast<uint32_t>(sectorsPerCluster) * sector.bytesPerSector;
    info.MftStartLcn.QuadPart = static_cast<int64_t>(uint64_t{sector.mftCluster});
    info.Mft2StartLcn.QuadPart = static_cast<int64_t>(uint64_t{sector.mirrorMftCluster});
}

// Small numbers, negative ones included, count clusters; of larger ones the low byte is the negative
// power of two of the size in bytes.
void FillRecordSize(uint32_t clustersPerRecord, NTFS_VOLUME_DATA_BUFFER& info) {
    constexpr int32_t mostClusters = 126;
    if (static_cast<int32_t>(clustersPerRecord) <= mostClusters) {
        info.BytesPerFileRecordSegment = clustersPerRecord * info.BytesPerCluster;
        info.ClustersPerFileRecordSegment = clustersPerRecord;
        return;
    }
    const auto power = static_cast<uint32_t>(-static_cast<int8_t>(clustersPerRecord));
    info.BytesPerFileRecordSegment = 1U << (power % 32);
    info.ClustersPerFileRecordSegment = 1;
}

}  // namespace

void FillNtfsVolumeFacts(const NtfsBootSector_t& sector, NTFS_VOLUME_DATA_BUFFER& info) {
    FillFromBootSector(sector, info);
    FillRecordSize(sector.clustersPerRecord, info);
}
