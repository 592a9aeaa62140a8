#pragma once

#include <cstddef>
#include <cstdint>

#include "foundation/ByteOrder.h"

// The structures of NTFS on disk. See docs/formats/ntfs.md.

constexpr uint64_t FrnMask = 0xFFFFFFFFFFFFULL;  // the upper 16 bits of a reference count how often a record was reused

constexpr uint64_t MftFrn = 0;
constexpr uint64_t VolumeFrn = 3;
constexpr uint64_t RootFrn = 5;

constexpr uint32_t AttrStandardInformation = 0x10;
constexpr uint32_t AttrAttributeList = 0x20;
constexpr uint32_t AttrFileName = 0x30;
constexpr uint32_t AttrObjectId = 0x40;
constexpr uint32_t AttrSecurityDescriptor = 0x50;
constexpr uint32_t AttrData = 0x80;
constexpr uint32_t AttrIndexRoot = 0x90;
constexpr uint32_t AttrIndexAllocation = 0xA0;
constexpr uint32_t AttrReparsePoint = 0xC0;
constexpr uint32_t AttrEa = 0xE0;
constexpr uint32_t AttrPropertySet = 0xF0;
constexpr uint32_t AttrEndMarker = 0xFFFFFFFF;

constexpr uint16_t AttrCompressed = 0x00FF;  // a mask: the method of compression, 0 for none
constexpr uint16_t AttrEncrypted = 0x4000;
constexpr uint16_t AttrSparse = 0x8000;

constexpr uint16_t RecordInUse = 1;
constexpr uint16_t RecordIsDirectory = 2;

constexpr uint32_t FileSignature = 0x454C4946;   // "FILE"
constexpr uint32_t IndexSignature = 0x58444E49;  // "INDX"

// What a file record and an index record begin with.
struct NtfsRecordHead_t {
    Le32_t signature;       //  0
    Le16_t sequenceOffset;  //  4  of the update sequence array, from the record's start
    Le16_t sequenceCount;   //  6  entries, the check value included
};
static_assert(sizeof(NtfsRecordHead_t) == 8);

struct NtfsFileRecord_t {
    NtfsRecordHead_t head;
    Le64_t logSequence;     //  8
    Le16_t reuseCount;      // 16
    Le16_t linkCount;       // 18
    Le16_t firstAttribute;  // 20  offset
    Le16_t flags;           // 22  RecordInUse, RecordIsDirectory
    Le32_t usedBytes;       // 24
    Le32_t allocatedBytes;  // 28
    Le64_t baseReference;   // 32  0 in a base record
    Le16_t nextInstance;    // 40
};
static_assert(sizeof(NtfsFileRecord_t) == 42 && offsetof(NtfsFileRecord_t, baseReference) == 32);

constexpr uint32_t IndexHeaderOffset = 24;   // in an index record
constexpr uint32_t IndexRootHeadBytes = 16;  // of an index root's value, in front of the index header

// Both forms of attribute begin alike; `ATTR_RECORD_HEADER_t` is what they share.
struct NtfsResidentForm_t {
    Le32_t valueLength;  // 16
    Le16_t valueOffset;  // 20
};
constexpr uint32_t ResidentFormOffset = 16;

struct NtfsNonResidentForm_t {
    Le64_t lowestVcn;         // 16
    Le64_t highestVcn;        // 24
    Le16_t runListOffset;     // 32
    Le16_t compressionUnit;   // 34  power of two of clusters; 0 when not compressed
    Le32_t reserved;          // 36
    Le64_t allocatedBytes;    // 40
    Le64_t dataBytes;         // 48
    Le64_t initializedBytes;  // 56
};
static_assert(sizeof(NtfsNonResidentForm_t) == 48);
constexpr uint32_t NonResidentFormOffset = 16;

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

struct NtfsFileName_t {
    Le64_t parent;          //  0  reference
    Le64_t creation;        //  8  times in units of 100 ns since 1601
    Le64_t modification;    // 16
    Le64_t mftChange;       // 24
    Le64_t access;          // 32
    Le64_t allocatedBytes;  // 40
    Le64_t dataBytes;       // 48
    Le32_t attributes;      // 56
    Le32_t reparseTag;      // 60
    U8_t nameLength;        // 64  16-bit characters
    U8_t nameKind;          // 65
};
static_assert(sizeof(NtfsFileName_t) == 66);

constexpr uint8_t NameKindPosix = 0;
constexpr uint8_t NameKindLong = 1;
constexpr uint8_t NameKindShort = 2;

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
