#pragma once

#include <cstdint>
#include <vector>

#include "foundation/AutoMemory.h"
#include "foundation/ZuString.h"

// What a volume dump tells of one extent of a disk: the sectors of the disk that lie in it, and which of them its file
// holds. docs/formats/volume-dump.md describes the dump.
//
// An extent is cut into grains, and a number of grains make a bucket with a bitmap of its own. The top bitmap has a bit
// for each bucket; a bucket whose bit is clear holds nothing and has no bitmap. In all bitmaps the high bit of each
// byte comes first.
struct ExtentSparseInfo_t {
    CZuString ExtentName;           // by which the archive knows it
    uint64_t ExtentStartLBA = 0;    // sectors of the disk
    uint64_t ExtentEndLBA = 0;      // inside the extent; all ones for an open end
    uint64_t BlockSize = 0;         // sectors of a backup block
    uint64_t GrainSize = 0;         // sectors
    uint32_t ExtentFileOffset = 0;  // bytes in front of a block's data
    uint64_t GrainsPerBucket = 0;   // 0: everything in the extent is allocated
    uint64_t BucketCount = 0;
    uint32_t TopBitmapBytes = 0;
    uint32_t BucketBytes = 0;  // of one bucket's bitmap
    CAutoMemory<char> TopBitmap;
    std::vector<CAutoMemory<char>> Buckets;  // one for each; empty where the top bitmap's bit is clear
};

// By disk, by link of its chain with the base first, by extent.
using SparseInfo_t = std::vector<std::vector<std::vector<ExtentSparseInfo_t>>>;
