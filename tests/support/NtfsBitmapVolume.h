#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/ImageFile.h"
#include "tests/support/NtfsRecordBuilder.h"
#include "tests/support/PartitionTableBuilder.h"

// An NTFS volume with nothing on it but what tells which of its clusters are in use: the boot sector and its copy
// behind the volume's end, the file records of $MFT and $Bitmap, and the bitmap.
//
// Without a word a cluster is a sector of 512 bytes, the clusters up to the bitmap's last one are in use, and three
// sectors are left behind the last whole cluster where a cluster has more than that.
class CNtfsBitmapVolume {
public:
    static constexpr uint64_t MftLcn = 16;
    static constexpr uint64_t BitmapLcn = 64;
    static constexpr uint64_t BitmapFrn = 6;

    explicit CNtfsBitmapVolume(uint64_t clusters, uint32_t sectorsPerCluster = 1);

    CNtfsBitmapVolume& SectorBytes(uint32_t bytes);
    CNtfsBitmapVolume& Use(uint64_t firstLcn, uint64_t count = 1);
    CNtfsBitmapVolume& Data(uint64_t lcn, const std::string& bytes);   // in clusters in use
    CNtfsBitmapVolume& Stale(uint64_t lcn, const std::string& bytes);  // what a deleted file left
    CNtfsBitmapVolume& BitmapRuns(const std::vector<NtfsRun_t>& runs);
    CNtfsBitmapVolume& MftRuns(const std::vector<NtfsRun_t>& runs);

    // Instead of what the volume has.
    CNtfsBitmapVolume& Boot(const CNtfsBootBuilder& boot);
    CNtfsBitmapVolume& Record(uint64_t frn, const CNtfsFileRecordBuilder& record);
    CNtfsBitmapVolume& BitmapAttribute(const CNtfsAttributeBuilder& attribute);

    CNtfsBootBuilder SoundBoot() const;
    uint64_t ClusterBytes() const { return uint64_t{m_SectorsPerCluster} * m_SectorBytes; }
    uint64_t Sectors() const { return m_Clusters * m_SectorsPerCluster + (m_SectorsPerCluster > 3 ? 3 : 0); }
    uint64_t VolumeBytes() const { return (Sectors() + 1) * m_SectorBytes; }  // with the boot sector's copy
    bool IsUsed(uint64_t lcn) const;
    std::string Bitmap() const;  // as it lies on the disk: eight bytes more than needed, their bits set

    CImageFile Image() const;
    std::string WriteTo(const CTempDir& dir, const std::string& name = "volume") const;

private:
    std::vector<NtfsRun_t> RunsOfBitmap() const;
    std::vector<NtfsRun_t> RunsOfMft() const;
    void PutInRuns(CImageFile& image, const std::vector<NtfsRun_t>& runs, uint64_t offset,
                   const std::string& bytes) const;
    CNtfsFileRecordBuilder MftRecord() const;
    CNtfsFileRecordBuilder BitmapRecord() const;

    uint64_t m_Clusters;
    uint32_t m_SectorsPerCluster;
    uint32_t m_SectorBytes = 512;
    std::vector<std::pair<uint64_t, uint64_t>> m_Used;  // first and count
    std::vector<std::pair<uint64_t, std::string>> m_Data;
    std::vector<NtfsRun_t> m_BitmapRuns;
    std::vector<NtfsRun_t> m_MftRuns;
    std::optional<CNtfsBootBuilder> m_Boot;
    std::map<uint64_t, CNtfsFileRecordBuilder> m_Records;
    std::optional<CNtfsAttributeBuilder> m_BitmapAttribute;
};
