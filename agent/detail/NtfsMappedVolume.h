#pragma once

#include <cstdint>
#include <string>

#include "agent/VolumeSet.h"
#include "foundation/ZuError.h"
#include "ntfs/DRVolume.h"

// The core's reader of NTFS over the agent's mapping from volumes to disks, which goes on rightly behind every stripe
// and every part, and puts mirrors and parity in for missing disks. It opens volumes with smaller clusters as well.
class CNtfsMappedVolume : public CDRVolume {
public:
    // `set` and `volume` are the caller's and outlive this. A volume whose $Secure can't be read opens all the same:
    // `SecurityProblem` tells of it.
    CZuError Open(CVolumeSet& set, const VolumeInfo_t& volume);

    const std::string& SecurityProblem() const { return m_SecurityProblem; }
    uint32_t ClusterBytes() const { return VolumeData().BytesPerCluster; }
    uint32_t SectorBytes() const { return VolumeData().BytesPerSector; }
    uint64_t RecordCount() const;
    uint64_t Bytes() const;

    // The merged record of that file; the contexts of the core are of no use here.
    CZuError ReadRecord(uint64_t frn, CAutoMemory<char>& record);
    CZuError ReadBytes(uint64_t offset, char* buffer, uint32_t size);
    CZuError ReadClusters(uint64_t lcn, uint64_t skip, char* buffer, uint32_t size);

    // The descriptor in its canonical form; empty where the volume has none for that id.
    CZuError ReadDescriptor(uint32_t securityId, CAutoMemory<char>& descriptor);

    const std::string& Name() const { return m_Info->name; }

protected:
    int ReadVolumeInformation(NTFS_VOLUME_DATA_BUFFER* info) override;
    int ReadDisk(uint64_t offset, char* buffer, uint32_t size) override;
    uint32_t SmallestCluster() const override;

private:
    CZuError ErrorOf(const std::string& where, int result) const;

    CVolumeSet* m_Set = nullptr;
    const VolumeInfo_t* m_Info = nullptr;
    CZuError m_DiskError;  // behind the last NtfsSeeLog
    std::string m_SecurityProblem;
};
