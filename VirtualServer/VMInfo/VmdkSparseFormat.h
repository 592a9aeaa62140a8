#pragma once

#include <cstddef>
#include <cstdint>

#include "foundation/ByteOrder.h"

// The two published forms of a sparse extent file, as they lie on disk: the hosted sparse extent
// ("KDMV") and the older ESX copy-on-write disk ("COWD"). All numbers are little-endian; offsets
// and sizes count sectors of 512 bytes. docs/formats/vmdk-sparse.md tells what is made of them.

constexpr uint32_t VmdkSparseMagic = 0x564D444B;  // the bytes "KDMV"
constexpr uint32_t CowdMagic = 0x44574F43;        // the bytes "COWD"

// File offset 0 of a hosted sparse extent, one sector.
struct VmdkSparseHeader_t {
    Le32_t magic;              //  0
    Le32_t version;            //  4  1
    Le32_t flags;              //  8  VmdkSparseFlag_t
    Le64_t capacity;           // 12  sectors
    Le64_t grainSize;          // 20  sectors
    Le64_t descriptorOffset;   // 28  sectors; 0 for no embedded descriptor
    Le64_t descriptorSize;     // 36  sectors
    Le32_t numGTEsPerGT;       // 44  512
    Le64_t rgdOffset;          // 48  sectors; redundant grain directory
    Le64_t gdOffset;           // 56  sectors; grain directory
    Le64_t overHead;           // 64  sectors
    U8_t uncleanShutdown;      // 72
    U8_t singleEndLineChar;    // 73  0x0A
    U8_t nonEndLineChar;       // 74  0x20
    U8_t doubleEndLineChar1;   // 75  0x0D
    U8_t doubleEndLineChar2;   // 76  0x0A
    Le16_t compressAlgorithm;  // 77  0 for none
    U8_t rest[433];            // 79
};
static_assert(sizeof(VmdkSparseHeader_t) == 512 && offsetof(VmdkSparseHeader_t, uncleanShutdown) == 72);

enum VmdkSparseFlag_t : uint32_t {
    VmdkSparseNewLinesAreValid = 0x1,
    VmdkSparseRedundantIsActive = 0x2,
    VmdkSparseZeroGrains = 0x4,  // a table entry of 1 is a grain of zeros
    VmdkSparseCompressed = 0x10000,
    VmdkSparseMarkers = 0x20000,
};

// File offset 0 of a COWD extent, 2048 bytes.
struct CowdHeader_t {
    Le32_t magic;            //    0
    Le32_t version;          //    4  1
    Le32_t flags;            //    8  3
    Le32_t numSectors;       //   12  capacity
    Le32_t grainSize;        //   16  sectors
    Le32_t gdOffset;         //   20  sectors
    Le32_t numGDEntries;     //   24
    U8_t between[1620];      //   28
    Le32_t uncleanShutdown;  // 1648
    U8_t rest[396];          // 1652
};
static_assert(sizeof(CowdHeader_t) == 2048 && offsetof(CowdHeader_t, uncleanShutdown) == 1648);

constexpr uint32_t VmdkEntriesPerTable = 512;
constexpr uint32_t CowdEntriesPerTable = 4096;
