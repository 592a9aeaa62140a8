#pragma once

#include <cstdint>
#include <string>

#include "agent/VolumeSet.h"
#include "agent/detail/NtfsRecords.h"
#include "foundation/ZuError.h"
#include "ntfs/DRVolume.h"

// The core's reader of NTFS over the agent's mapping from volumes to disks, which goes on rightly behind every stripe
// and every part, and puts mirrors and parity in for missing disks. It opens volumes with smaller clusters as well.
class CNtfsMappedVolume : public CDRVolume, public INtfsRecords {
public:
    // `set` and `volume` are the caller's and outlive this. A volume whose $Secure can't be read opens all the same:
    // `SecurityProblem` tells of it.
    CZuError Open(CVolumeSet& set, const VolumeInfo_t& volume);

    const std::string& SecurityProblem() const override { return m_SecurityProblem; }
    uint32_t ClusterBytes() const override { return VolumeData().BytesPerCluster; }
    uint32_t SectorBytes() const { return VolumeData().BytesPerSector; }
    uint64_t RecordCount() const;
    uint64_t Bytes() const;

    // The merged record of that file; the contexts of the core are of no use here.
    CZuError ReadRecord(uint64_t frn, CAutoMemory<char>& record) override;
    // The same with the core's result, for those who read many.
    int TryRecord(uint64_t frn, CAutoMemory<char>& record);
    CZuError OpenStream(uint64_t frn, CAutoMemory<char>& record, uint32_t type, const std::u16string& name,
                        const std::string& where, CNtfsStream& stream) override;
    CZuError ReadBytes(uint64_t offset, char* buffer, uint32_t size);
    CZuError ReadClusters(uint64_t lcn, uint64_t skip, char* buffer, uint32_t size) override;

    CZuError ReadSharedDescriptor(uint64_t frn, CAutoMemory<char>& record, CAutoMemory<char>& descriptor) override;

    const std::string& Name() const override { return m_Info->name; }

    uint32_t RecordBytes() const { return VolumeData().BytesPerFileRecordSegment; }

    // Writes the security file of a metadata collection by itself. A failure leaves what came before it.
    CZuError WriteSecurityFile(const std::string& path);

    // The result of one of the core's operations in words.
    CZuError ErrorOf(const std::string& where, int result) const;

protected:
    int ReadVolumeInformation(NTFS_VOLUME_DATA_BUFFER* info) override;
    int ReadDisk(uint64_t offset, char* buffer, uint32_t size) override;
    uint32_t SmallestCluster() const override;

private:
    CVolumeSet* m_Set = nullptr;
    const VolumeInfo_t* m_Info = nullptr;
    CZuError m_DiskError;  // behind the last NtfsSeeLog
    std::string m_SecurityProblem;
};
