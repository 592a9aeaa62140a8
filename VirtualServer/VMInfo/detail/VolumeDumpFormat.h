#pragma once

#include <cstddef>
#include <cstdint>

// The records of a volume dump. Numbers are hexadecimal text with its terminator. See docs/formats/volume-dump.md.

constexpr uint32_t DumpSignatureBytes = 10;
constexpr char DumpSignature10[] = "LVMDUMP1.0";
constexpr char DumpSignature11[] = "LVMDUMP1.1";

constexpr size_t DumpNumber64 = 17;  // sixteen characters and the terminator
constexpr size_t DumpNumber32 = 9;
constexpr size_t DumpCountBytes = 8;  // of a number that stands between records, without a terminator
constexpr size_t DumpGuidBytes = 39;

struct DumpVolumeHead_t {
    char guid[DumpGuidBytes];  //   0
    char name[100];            //  39
    char isRaid5;              // 139  '1' or '0'
    char systemId[3];          // 140
    char allDiskFound;         // 143  '1' or '0'
};

struct DumpVolumeRecord_t {
    DumpVolumeHead_t head;            //   0
    char segmentCount[DumpNumber32];  // 144
};
static_assert(sizeof(DumpVolumeRecord_t) == 153);

// Of version 1.0, where a volume has one segment.
struct DumpVolumeRecord10_t {
    DumpVolumeHead_t head;              //   0
    char stripeSize[DumpNumber64];      // 144
    char componentCount[DumpNumber32];  // 161  decimal, unlike every other number
};
static_assert(sizeof(DumpVolumeRecord10_t) == 170);

struct DumpSegmentRecord_t {
    char stripeSize[DumpNumber64];      //  0
    char lbaStart[DumpNumber64];        // 17
    char lbaEnd[DumpNumber64];          // 34
    char componentCount[DumpNumber32];  // 51
};
static_assert(sizeof(DumpSegmentRecord_t) == 60);

struct DumpComponentRecord_t {
    char diskGuid[DumpGuidBytes];      //   0
    char diskLbaStart[DumpNumber64];   //  39
    char diskLbaEnd[DumpNumber64];     //  56
    char volLbaStart[DumpNumber64];    //  73
    char volLbaEnd[DumpNumber64];      //  90
    char columnIndex[DumpNumber32];    // 107
    char hardDiskIndex[DumpNumber32];  // 116  ffffffff for none
};
static_assert(sizeof(DumpComponentRecord_t) == 125);

// What each reader's `DumpSparseInfo` writes for an extent. Its top bitmap and its bitmaps of buckets may follow.
struct DumpExtentRecord_t {
    char extentName[1024];               //    0
    char startLba[DumpNumber64];         // 1024
    char endLba[DumpNumber64];           // 1041
    char blockSectors[DumpNumber64];     // 1058
    char grainSectors[DumpNumber64];     // 1075
    char fileOffset[DumpNumber32];       // 1092
    char grainsPerBucket[DumpNumber64];  // 1101
    char bucketCount[DumpNumber64];      // 1118
    char topBitmapBytes[DumpNumber32];   // 1135
    char bucketBytes[DumpNumber32];      // 1144
};
static_assert(sizeof(DumpExtentRecord_t) == 1153 && offsetof(DumpExtentRecord_t, bucketBytes) == 1144);
