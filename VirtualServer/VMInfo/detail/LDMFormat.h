#pragma once

#include <cstddef>
#include <cstdint>

#include "foundation/ByteOrder.h"

// The structures of a dynamic disk's database as they lie on the disk, most significant byte first.
// docs/formats/ldm.md describes them.

struct LdmPrivateHead_t {
    char signature[8];        //   0  "PRIVHEAD"
    char unused8[4];          //   8
    Be16_t versionMajor;      //  12  2
    Be16_t versionMinor;      //  14  11 or 12
    char unused16[32];        //  16
    char diskGuid[64];        //  48  text, ended by 0 where it is shorter
    char unused112[171];      // 112
    Be64_t logicalDiskStart;  // 283  sectors
    Be64_t logicalDiskSize;   // 291  sectors
    Be64_t configStart;       // 299  sectors of the disk
    Be64_t configSize;        // 307  sectors
};
static_assert(sizeof(LdmPrivateHead_t) == 315 && offsetof(LdmPrivateHead_t, logicalDiskStart) == 283);

struct LdmTocBlock_t {
    char signature[8];    //  0  "TOCBLOCK"
    char unused8[28];     //  8
    char bitmap1Name[8];  // 36  "config"
    char unused44[2];     // 44
    Be64_t bitmap1Start;  // 46  sectors of the database
    Be64_t bitmap1Size;   // 54  sectors
    char unused62[8];     // 62
    char bitmap2Name[8];  // 70  "log"
    char unused78[2];     // 78
    Be64_t bitmap2Start;  // 80
    Be64_t bitmap2Size;   // 88
};
static_assert(sizeof(LdmTocBlock_t) == 96 && offsetof(LdmTocBlock_t, bitmap2Start) == 80);

struct LdmVmdb_t {
    char signature[4];       //  0  "VMDB"
    Be32_t lastVblk;         //  4
    Be32_t vblkSize;         //  8  bytes
    Be32_t firstVblkOffset;  // 12  bytes
    Be16_t state;            // 16  1 for consistent
    Be16_t versionMajor;     // 18  4
    Be16_t versionMinor;     // 20  10
    char groupName[31];      // 22
    char groupGuid[64];      // 53  text
    Be64_t commit;           // 117  grows with each change of the database
};
static_assert(sizeof(LdmVmdb_t) == 125 && offsetof(LdmVmdb_t, commit) == 117);

// The head of each slot; what a record holds follows at byte 24 of its first.
struct LdmVblkHead_t {
    char signature[4];     //  0  "VBLK"
    Be32_t sequence;       //  4
    Be32_t group;          //  8  of the fragments of one record
    Be16_t fragment;       // 12  from 0
    Be16_t fragmentCount;  // 14  0 for a slot that isn't used
    char unused16[2];      // 16
    U8_t flags;            // 18
    U8_t type;             // 19
};
static_assert(sizeof(LdmVblkHead_t) == 20);
