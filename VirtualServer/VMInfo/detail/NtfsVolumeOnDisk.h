#pragma once

#include <cstdint>
#include <vector>

#include "VirtualServer/VMInfo/NtfsVolumeData.h"
#include "VirtualServer/VMInfo/detail/NtfsRecordWalk.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "foundation/ZuFile.h"
#include "platform/Export.h"

// The geometry of an NTFS volume and the bitmap of its clusters, read from the volume's own bytes, and held to the
// bytes that are there: the boot sector, the file records of $MFT and $Bitmap, and what the latter's runs name.
//
// Open, and read the bitmap in any order. Texts say what is the matter with the volume; its name goes in front of them.
class DISKSTREAM_EXPORT CNtfsVolumeOnDisk {
public:
    // Takes the volume that begins at the start of `volume`, which it shares. Reads the boot sector alone.
    CZuError Open(const CZuFile& volume);

    // What the boot sector tells. The number of free clusters isn't in it, and is 0.
    const NTFS_VOLUME_DATA_BUFFER& Data() const { return m_Data; }
    uint64_t ClusterCount() const { return static_cast<uint64_t>(m_Data.TotalClusters.QuadPart); }

    // Reads the bitmap of the clusters from `firstLcn` on, a multiple of 8, into `bitmap`: as many bytes as it has, or
    // as there are clusters left. The low bit of each byte comes first; bits behind the last cluster are clear. `got`
    // is the bytes read, 0 behind the volume.
    CZuError ReadBitmap(uint64_t firstLcn, char* bitmap, uint32_t bitmapBytes, uint32_t& got);

private:
    CZuError CheckGeometry() const;
    CZuError FindBitmap();
    CZuError CheckMftPlace() const;
    CZuError ReadMftRuns(std::vector<NtfsDataRun_t>& runs);
    NtfsDataRun_t FirstRecords() const;
    CZuError ReadFirstRecord(CAutoMemory<char>& record);
    CZuError ReadBitmapRecord(CAutoMemory<char>& record);
    CZuError CheckRecord(CAutoMemory<char>& record, const char* name) const;
    CZuError TakeBitmapAttribute(CByteView attribute);
    CZuError TakeRuns(CByteView attribute, const char* name, std::vector<NtfsDataRun_t>& runs) const;
    CZuError CheckBitmapRuns() const;
    CZuError ReadFromRuns(const std::vector<NtfsDataRun_t>& runs, uint64_t offset, char* buffer, uint32_t size);
    CZuError CopyBitmap(uint64_t offset, char* bitmap, uint32_t size);
    uint64_t BitmapBytes() const;

    CZuFile m_Volume;
    NTFS_VOLUME_DATA_BUFFER m_Data{};
    bool m_HasBitmap = false;            // found
    std::vector<NtfsDataRun_t> m_Runs;   // of the bitmap
    CAutoMemory<char> m_ResidentBitmap;  // of a volume so small that its record holds it
};
