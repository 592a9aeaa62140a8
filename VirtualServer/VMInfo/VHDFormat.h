#pragma once

#include <cstddef>
#include <cstdint>

#include "foundation/ByteOrder.h"
#include "platform/Export.h"

// The structures of a VHD file, after the published description of the Virtual Hard Disk image
// format, version 1.0. docs/formats/vhd.md describes them. Each is declared once and exists in two forms: as the
// file has it, most significant byte first, and in the numbers of the machine.

// The last 512 bytes of every VHD file; files with a table begin with a copy.
template <typename Number16, typename Number32, typename Number64> struct VhdFooterLayout_t {
    char cookie[8];              //  0  "conectix"
    Number32 features;           //  8
    Number32 fileFormatVersion;  // 12  0x00010000
    Number64 dataOffset;         // 16  bytes; where the dynamic header lies, all ones for a fixed disk
    Number32 timeStamp;          // 24
    char creatorApplication[4];  // 28
    Number32 creatorVersion;     // 32
    Number32 creatorHostOS;      // 36
    Number64 originalSize;       // 40  bytes
    Number64 currentSize;        // 48  bytes; the disk's size
    Number16 cylinders;          // 56
    uint8_t heads;               // 58
    uint8_t sectorsPerTrack;     // 59
    Number32 diskType;           // 60  VhdDiskType_t
    Number32 checksum;           // 64  one's complement of the sum of the other bytes
    uint8_t uniqueId[16];        // 68
    uint8_t savedState;          // 84
    char reserved[427];          // 85
};

// Where the name of a differencing disk's parent is kept, in one of several forms.
template <typename Number32, typename Number64> struct VhdParentLocatorLayout_t {
    Number32 platformCode;        //  0  VhdPlatform_t
    Number32 platformDataSpace;   //  4  room that the data has in the file
    Number32 platformDataLength;  //  8  bytes; 0 for a locator that isn't there
    char reserved[4];             // 12
    Number64 platformDataOffset;  // 16  bytes
};

constexpr size_t VhdParentLocatorCount = 8;

// The head of the block allocation table, at the footer's data offset.
template <typename Number32, typename Number64> struct VhdDynamicHeaderLayout_t {
    char cookie[8];               //  0  "cxsparse"
    Number64 dataOffset;          //  8
    Number64 tableOffset;         // 16  bytes
    Number32 headerVersion;       // 24  0x00010000
    Number32 maxTableEntries;     // 28
    Number32 blockSize;           // 32  data bytes in a block
    Number32 checksum;            // 36  as the footer's, over this header
    uint8_t parentUniqueId[16];   // 40
    Number32 parentTimeStamp;     // 56
    char reserved[4];             // 60
    char parentUnicodeName[512];  // 64  UTF-16, most significant byte first
    VhdParentLocatorLayout_t<Number32, Number64> parentLocators[VhdParentLocatorCount];  // 576
    char reserved2[256];                                                                 // 768
};

using VHD_FOOTER_t = VhdFooterLayout_t<uint16_t, uint32_t, uint64_t>;
using VHD_DYNAMIC_HEADER_t = VhdDynamicHeaderLayout_t<uint32_t, uint64_t>;
using VhdParentLocator_t = VhdParentLocatorLayout_t<uint32_t, uint64_t>;

using VhdFileFooter_t = VhdFooterLayout_t<Be16_t, Be32_t, Be64_t>;
using VhdFileDynamicHeader_t = VhdDynamicHeaderLayout_t<Be32_t, Be64_t>;

static_assert(sizeof(VHD_FOOTER_t) == 512 && sizeof(VhdFileFooter_t) == 512);
static_assert(offsetof(VhdFileFooter_t, currentSize) == 48 && offsetof(VhdFileFooter_t, uniqueId) == 68);
static_assert(sizeof(VHD_DYNAMIC_HEADER_t) == 1024 && sizeof(VhdFileDynamicHeader_t) == 1024);
static_assert(offsetof(VhdFileDynamicHeader_t, parentUnicodeName) == 64 &&
              offsetof(VhdFileDynamicHeader_t, parentLocators) == 576);
static_assert(sizeof(VhdParentLocator_t) == 24);

constexpr char VhdFooterCookie[] = "conectix";
constexpr char VhdDynamicHeaderCookie[] = "cxsparse";
constexpr uint32_t VhdFormatVersion = 0x00010000;
constexpr uint32_t VhdBlockNotAllocated = 0xFFFFFFFF;

enum VhdDiskType_t : uint32_t {
    VhdDiskTypeFixed = 2,
    VhdDiskTypeDynamic = 3,
    VhdDiskTypeDifferencing = 4,
};

enum VhdPlatform_t : uint32_t {
    VhdPlatformRelativePath = 0x57327275,  // "W2ru": UTF-16, least significant byte first
    VhdPlatformAbsolutePath = 0x57326B75,  // "W2ku": the same
};

// The numbers of the machine from what the file has; everything that is no number stays as it is.
DISKSTREAM_EXPORT void ConvertFooterFromNetToHost(const VhdFileFooter_t& file, VHD_FOOTER_t& host);
DISKSTREAM_EXPORT void ConvertDynHdrFromNetToHost(const VhdFileDynamicHeader_t& file, VHD_DYNAMIC_HEADER_t& host);

// How a block of a dynamic disk lies in its file: a bitmap of its sectors, then the sectors.
struct VhdBlockShape_t {
    uint32_t bitmapSectors = 0;
    uint32_t dataSectors = 0;
};

// The bitmap's size is rounded down to whole sectors, and at least one. Files are laid out that way
// for every block size that is written in practice; callers rely on the same rule for the others,
// whose published form rounds up.
DISKSTREAM_EXPORT VhdBlockShape_t ShapeOfVhdBlock(uint32_t blockBytes);
