#pragma once

#include <cstddef>
#include <cstdint>

#include "foundation/ByteOrder.h"
#include "foundation/Guid.h"

// The partition tables of a disk as they lie in its sectors. docs/formats/partition-tables.md
// describes them.

// One of the four slots of a master or extended boot record.
struct BootRecordSlot_t {
    uint8_t status;       //  0  0x80 for the partition to boot from
    uint8_t firstCHS[3];  //  1
    uint8_t type;         //  4  0 for an empty slot
    uint8_t lastCHS[3];   //  5
    Le32_t firstLba;      //  8  counted from the record's own base
    Le32_t sectorCount;   // 12
};
static_assert(sizeof(BootRecordSlot_t) == 16);

constexpr size_t BootRecordSlotCount = 4;

// The first sector of a disk, or of an extended partition and each of its links.
struct BootRecord_t {
    char bootProgram[440];
    Le32_t diskSignature;                         // 440
    Le16_t reserved;                              // 444
    BootRecordSlot_t slots[BootRecordSlotCount];  // 446
    Le16_t signature;                             // 510
};
static_assert(sizeof(BootRecord_t) == 512 && offsetof(BootRecord_t, slots) == 446);

constexpr uint16_t BootRecordSignature = 0xAA55;

enum PartitionType_t : uint8_t {
    PartitionType_Empty = 0x00,
    PartitionType_Extended = 0x05,
    PartitionType_NTFS = 0x07,
    PartitionType_ExtendedLba = 0x0F,
    PartitionType_DynamicDisk = 0x42,
    PartitionType_Linux = 0x83,
    PartitionType_LinuxExtended = 0x85,
    PartitionType_LinuxLvm = 0x8E,
    PartitionType_ProtectsGpt = 0xEE,
};

constexpr bool IsExtendedPartition(uint8_t type) {
    return type == PartitionType_Extended || type == PartitionType_ExtendedLba || type == PartitionType_LinuxExtended;
}

// A GUID as disks keep it: its numbers least significant byte first.
struct DiskGuid_t {
    Le32_t data1;
    Le16_t data2;
    Le16_t data3;
    uint8_t data4[8];

    operator GUID() const {
        return GUID{
            data1, data2, data3, {data4[0], data4[1], data4[2], data4[3], data4[4], data4[5], data4[6], data4[7]}};
    }
};
static_assert(sizeof(DiskGuid_t) == 16);

// Sector 1 of a disk with a GPT, and its last sector.
struct GptHeader_t {
    char signature[8];      //  0  "EFI PART"
    Le32_t revision;        //  8  0x00010000
    Le32_t headerBytes;     // 12
    Le32_t headerCrc;       // 16  CRC-32 of the header's bytes with this field 0
    Le32_t reserved;        // 20
    Le64_t ownLba;          // 24
    Le64_t otherLba;        // 32  where the other copy lies
    Le64_t firstUsableLba;  // 40
    Le64_t lastUsableLba;   // 48
    DiskGuid_t diskGuid;    // 56
    Le64_t entriesLba;      // 72
    Le32_t entryCount;      // 80
    Le32_t entryBytes;      // 84
    Le32_t entriesCrc;      // 88
};
static_assert(sizeof(GptHeader_t) == 92 && offsetof(GptHeader_t, entryCount) == 80);

constexpr char GptSignature[] = "EFI PART";

struct GptEntry_t {
    DiskGuid_t type;       //  0  zero for an entry that isn't used
    DiskGuid_t partition;  // 16
    Le64_t firstLba;       // 32
    Le64_t lastLba;        // 40  inside the partition
    Le64_t attributes;     // 48
    Le16_t name[36];       // 56  UTF-16, ended by 0 where it is shorter
};
static_assert(sizeof(GptEntry_t) == 128 && offsetof(GptEntry_t, name) == 56);

constexpr GUID GptTypeLdmMetadata{0x5808C8AA, 0x7E8F, 0x42E0, {0x85, 0xD2, 0xE1, 0xE9, 0x04, 0x34, 0xCF, 0xB3}};
constexpr GUID GptTypeLdmData{0xAF9B60A0, 0x1431, 0x4F62, {0xBC, 0x68, 0x33, 0x11, 0x71, 0x4A, 0x69, 0xAD}};
constexpr GUID GptTypeBasicData{0xEBD0A0A2, 0xB9E5, 0x4433, {0x87, 0xC0, 0x68, 0xB6, 0xB7, 0x26, 0x99, 0xC7}};
