#pragma once

#include <cstddef>
#include <cstdint>

#include "foundation/ByteOrder.h"

// The structures of an LVM2 physical volume as they lie on the disk. docs/formats/lvm2.md describes
// them and the text that they lead to.

// A stretch of the device, in bytes. A pair of zeros ends a list of them.
struct Lvm2Location_t {
    Le64_t offset;
    Le64_t size;
};

// In one of the first four sectors.
struct Lvm2Label_t {
    char signature[8];            //  0  "LABELONE"
    Le64_t sector;                //  8  in which the label lies
    Le32_t crc;                   // 16
    Le32_t offset;                // 20  of what follows the label's head
    char type[8];                 // 24  "LVM2 001"
    char pvId[32];                // 32  characters without dashes
    Le64_t deviceSize;            // 64  bytes
    Lvm2Location_t locations[1];  // 72  data areas, a pair of zeros, metadata areas, a pair of zeros
};
static_assert(sizeof(Lvm2Label_t) == 88 && offsetof(Lvm2Label_t, locations) == 72);

// At the start of a metadata area. Raw locations follow it.
struct Lvm2AreaHeader_t {
    Le32_t crc;     //  0
    char magic[5];  //  4  " LVM2"
    char moreMagic[11];
    Le32_t version;    // 20
    Le64_t areaStart;  // 24  bytes
    Le64_t areaSize;   // 32  bytes
};
static_assert(sizeof(Lvm2AreaHeader_t) == 40 && offsetof(Lvm2AreaHeader_t, areaSize) == 32);

// Where a text lies, in bytes from the area's start.
struct Lvm2RawLocation_t {
    Le64_t offset;
    Le64_t size;
    Le32_t crc;
    Le32_t flags;
};
static_assert(sizeof(Lvm2RawLocation_t) == 24);
