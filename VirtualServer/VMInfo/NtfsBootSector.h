#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "foundation/ByteOrder.h"

// The first sector of an NTFS volume, of which the file system's own structures follow from the MFT's
// cluster on.
struct NtfsBootSector_t {
    char jump[3];
    char oemName[8];           //  3  begins with "NTFS"
    Le16_t bytesPerSector;     // 11
    U8_t sectorsPerCluster;    // 13
    Le16_t reservedSectors;    // 14
    char unused16[24];         // 16
    Le64_t totalSectors;       // 40
    Le64_t mftCluster;         // 48
    Le64_t mirrorMftCluster;   // 56
    Le32_t clustersPerRecord;  // 64
    char unused68[4];          // 68
    Le64_t serialNumber;       // 72
    char bootProgram[432];     // 80
};
static_assert(sizeof(NtfsBootSector_t) == 512 && offsetof(NtfsBootSector_t, totalSectors) == 40 &&
              offsetof(NtfsBootSector_t, serialNumber) == 72);

inline bool IsNtfs(const NtfsBootSector_t& sector) {
    constexpr char name[] = {'N', 'T', 'F', 'S'};
    return std::memcmp(sector.oemName, name, sizeof(name)) == 0;
}
