#pragma once

#include <cstdint>

// The kinds of disk that the system knows, and the caller's cursor in a stream of blocks.
// Sectors are 512 bytes everywhere.

enum ProductType_t : int {
    VirtualProdType_VMware = 1,    // VMDK files
    VirtualProdType_HyperV = 2,    // VHD files
    VirtualProdType_Physical = 3,  // physical disks, NTFS volumes, Xen VDI
};

// 1 to 11 are the `createType` words of a VMDK descriptor.
enum DiskType_t : int {
    DiskType_MonolithicSparse = 1,
    DiskType_VmfsSparse = 2,
    DiskType_MonolithicFlat = 3,
    DiskType_Vmfs = 4,
    DiskType_TwoGbMaxExtentSparse = 5,
    DiskType_TwoGbMaxExtentFlat = 6,
    DiskType_FullDevice = 7,
    DiskType_VmfsRaw = 8,
    DiskType_PartitionedDevice = 9,
    DiskType_VmfsRawDeviceMap = 10,
    DiskType_VmfsPassthroughRawDeviceMap = 11,
    DiskType_VhdFixed = 12,
    DiskType_VhdDynamic = 13,
    DiskType_VhdDifferencing = 14,
    DiskType_PhysicalDisk = 15,
    DiskType_PhysicalDisk2 = 16,
    DiskType_NTFSVolume = 17,
    DiskType_VMInfoDisk = 18,
    DiskType_XenVDI = 19,
};

// No disk: what a closed object has for its disk type.
constexpr DiskType_t NoDiskType = DiskType_t{0};

// The type words of an extent line.
enum VwExtentType : int {
    VwExtentTypeFlat = 1,
    VwExtentTypeSparse = 2,
    VwExtentTypeZero = 3,
    VwExtentTypeVmfs = 4,
    VwExtentTypeVmfsSparse = 5,
    VwExtentTypeVmfsRdm = 6,
    VwExtentTypeVmfsRaw = 7,
};

// The caller's cursor in a stream of blocks. Block N starts at sector N times `blockSectors`.
struct Context_t {
    uint64_t blockNumber;   // of the block last returned; all ones for none yet
    uint64_t blockSectors;  // sectors of 512 bytes
};

constexpr uint64_t NoBlockYet = ~uint64_t{0};

struct DiskGeometry_t {
    uint32_t cylinders;
    uint32_t heads;
    uint32_t sectors;
};

// A stretch of a disk behind a hypervisor, in sectors. Callers rely on the end counting as inside: a stretch takes in
// one sector more than its length has, which keeps a last sector that it holds in part.
struct ExtentTableEntry_t {
    uint64_t firstSector;
    uint64_t endSector;
};

enum DiskProvisioningType_t : int {
    DiskProvisioning_Unknown = 0,
    DiskProvisioning_Thick = 1,
    DiskProvisioning_Thin = 2,
};
