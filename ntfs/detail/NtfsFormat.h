#pragma once

#include <cstddef>
#include <cstdint>

#include "VirtualServer/VMInfo/detail/NtfsRecordFormat.h"
#include "foundation/ByteOrder.h"

// The structures of NTFS on disk. See docs/formats/ntfs.md.

// Of a reference; the bits above count how often the record was used again.
constexpr unsigned ReuseCountShift = 48;
constexpr uint64_t FrnMask = 0xFFFFFFFFFFFFULL;

constexpr uint64_t MftFrn = 0;
constexpr uint64_t VolumeFrn = 3;
constexpr uint64_t RootFrn = 5;
constexpr uint64_t FirstSystemFrn = 6;  // the files from here to the first of the users make the volume itself
constexpr uint64_t FirstUserFrn = 16;

constexpr uint32_t IndexSignature = 0x58444E49;  // "INDX"

constexpr uint32_t IndexHeaderOffset = 24;   // in an index record
constexpr uint32_t IndexRootHeadBytes = 16;  // of an index root's value, in front of the index header

struct NtfsAttributeListEntry_t {
    Le32_t type;       //  0
    Le16_t length;     //  4
    U8_t nameLength;   //  6
    U8_t nameOffset;   //  7
    Le64_t lowestVcn;  //  8
    Le64_t reference;  // 16
    Le16_t instance;   // 24
};
static_assert(sizeof(NtfsAttributeListEntry_t) == 26);

struct NtfsIndexHeader_t {
    Le32_t firstEntry;      //  0  from the header's start
    Le32_t usedBytes;       //  4
    Le32_t allocatedBytes;  //  8
    Le32_t flags;           // 12
};
static_assert(sizeof(NtfsIndexHeader_t) == 16);

struct NtfsIndexRoot_t {
    Le32_t attributeType;  //  0
    Le32_t collation;      //  4  1: by file name
    Le32_t blockBytes;     //  8
    Le32_t reserved;       // 12
};
static_assert(sizeof(NtfsIndexRoot_t) == IndexRootHeadBytes);
constexpr uint32_t CollationFileName = 1;

constexpr uint16_t IndexEntryHasSubNode = 1;
constexpr uint16_t IndexEntryLast = 2;

struct NtfsStandardInformation_t {
    Le64_t creation;      //  0
    Le64_t modification;  //  8
    Le64_t mftChange;     // 16
    Le64_t access;        // 24
    Le32_t attributes;    // 32
    Le32_t versions[3];   // 36
    Le32_t ownerId;       // 48  behind here only since version 3 of NTFS
    Le32_t securityId;    // 52
};
static_assert(sizeof(NtfsStandardInformation_t) == 56);

constexpr uint32_t SdsRecordHeadBytes = 20;
