#pragma once

#include <cstdint>
#include <vector>

#include "foundation/Guid.h"

// The database of a Windows dynamic disk, as the disk's reader gives it. Numbers are those of the
// machine; docs/formats/ldm.md describes what lies on the disk.

// The private header: what the database is, and where it lies.
struct LDM_privhead_t {
    uint16_t VersionMajor = 0;
    uint16_t VersionMinor = 0;
    uint64_t LogicalDiskStart = 0;  // sectors of the disk
    uint64_t LogicalDiskSize = 0;   // sectors
    uint64_t ConfigStart = 0;       // of the database, sectors of the disk
    uint64_t ConfigSize = 0;        // sectors
    GUID DiskGUID{};
};

// The table of contents: two stretches of the database, in sectors from its start.
struct LDM_tocblock_t {
    char Bitmap1Name[9] = {};
    uint64_t Bitmap1Start = 0;
    uint64_t Bitmap1Size = 0;
    char Bitmap2Name[9] = {};
    uint64_t Bitmap2Start = 0;
    uint64_t Bitmap2Size = 0;
};

// The head of the records.
struct LDM_vmdb_t {
    uint16_t VersionMajor = 0;
    uint16_t VersionMinor = 0;
    uint32_t VBLKSize = 0;         // bytes of a slot
    uint32_t VBLKFirstOffset = 0;  // bytes from the head
    uint32_t LastVBLKSeq = 0;      // one behind the last slot's number
};

enum LdmRecordType_t : uint8_t {
    LdmRecord_None = 0,
    LdmRecord_Component = 0x32,
    LdmRecord_Partition = 0x33,
    LdmRecord_Disk3 = 0x34,
    LdmRecord_DiskGroup3 = 0x35,
    LdmRecord_Disk4 = 0x44,
    LdmRecord_DiskGroup4 = 0x45,
    LdmRecord_Volume = 0x51,
};

// One record of any type. The texts fill their room where they are as long as it, and then have no
// terminator. NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): the union's largest member is set
class CLDM_VBLK {
public:
    struct Component_t {
        char State[16];
        uint8_t Layout;
        uint64_t ChildCount;
        uint64_t ParentId;    // of the volume
        uint64_t StripeSize;  // sectors; 0 for no stripes
    };
    struct Partition_t {
        uint64_t Start;         // sectors from the disk's data start
        uint64_t VolumeOffset;  // sectors
        uint64_t Size;          // sectors
        uint64_t ParentId;      // of the component
        uint64_t DiskId;
        uint64_t ColumnIndex;
    };
    struct Disk_t {
        ::GUID GUID;
        char AlternateName[128];
    };
    struct DiskGroup_t {
        ::GUID GUID;
    };
    struct Volume_t {
        char VolumeType[16];
        char State[16];
        uint64_t ChildCount;
        uint64_t Size;  // sectors
        uint8_t PartitionType;
        GUID VolumeGUID;
    };

    uint8_t Flags = 0;
    uint8_t Type = LdmRecord_None;
    uint64_t ObjectId = 0;
    char Name[64] = {};
    union {
        Component_t Component;
        Partition_t Partition;
        Disk_t Disk{};  // the largest: so all of them start as zeros
        DiskGroup_t DiskGroup;
        Volume_t Volume;
    };
    std::vector<CLDM_VBLK> Children;  // volumes of a group, components, partitions, and a partition's disk
};

struct LDM_DB_t {
    LDM_privhead_t PrivateHead;
    LDM_tocblock_t TocBlock;
    LDM_vmdb_t Vmdb;
    CLDM_VBLK Group;
};
