#pragma once

#include <cstddef>
#include <cstdint>

#include "VirtualServer/VMInfo/NtfsAttributeHeader.h"
#include "foundation/AutoMemory.h"
#include "foundation/ByteOrder.h"
#include "ntfs/NtfsResults.h"
#include "platform/Export.h"

constexpr uint64_t HoleLcn = ~uint64_t{0};

// One run of clusters of a decoded run list.
struct DATARUN_EXTENT_t {
    Le64_t NextVcn;  // the first one behind the run
    Le64_t RunLength;
    Le64_t StartLcn;  // `HoleLcn` for a hole
    Le64_t EndLcn;    // inside; `HoleLcn` for a hole
};
static_assert(sizeof(DATARUN_EXTENT_t) == 32);

// A decoded run list: this head, and `Count` runs in VCN order behind it, without a gap. Blocks of memory and files
// hold it as it stands, 8 + 32 * `Count` bytes.
struct DATARUN_EXTENTS {
    Le32_t Count;
    uint8_t Reserved[4];

    DATARUN_EXTENT_t* Runs() { return reinterpret_cast<DATARUN_EXTENT_t*>(this + 1); }
    const DATARUN_EXTENT_t* Runs() const { return reinterpret_cast<const DATARUN_EXTENT_t*>(this + 1); }
};
static_assert(sizeof(DATARUN_EXTENTS) == 8);

// The texts of the results, by their negated number.
DISKSTREAM_EXPORT extern const char _ErrMsg[26][50];

// The text of `result`; null for a number that has none.
DISKSTREAM_EXPORT const char* NtfsErrorText(int result);

// Parses file records ("FILE") and index records ("INDX") of NTFS in buffers that the caller owns. Pointers that it
// gives lie in the buffer given. It keeps nothing and touches no disk, so any thread may use it.
//
// The walks end at the end marker alone. The owner of a buffer, who knows its size, makes sure of the marker first:
// signature, fixups, then the chain of the attributes. An attribute of length 0 ends a walk too.
class DISKSTREAM_EXPORT CDRFileRecord {
public:
    // NtfsInvalidParameter for null, NtfsNotInUse for another signature.
    static int IsValidFileRec(const char* record);
    // NtfsInvalidParameter for null and for another signature.
    static int IsValidIndexRec(const char* record);

    // Null when there is no such attribute. The end marker, 0xFFFFFFFF, can be searched for by the first of these.
    static ATTR_RECORD_HEADER_t* FindFirstAttr(char* record, unsigned int type);
    static ATTR_RECORD_HEADER_t* FindNextAttr(unsigned int type, ATTR_RECORD_HEADER_t* attribute);
    static ATTR_RECORD_HEADER_t* GetFirstAttr(char* record);
    static ATTR_RECORD_HEADER_t* GetNextAttr(ATTR_RECORD_HEADER_t* attribute);

    // The run list; null for a resident attribute, which has no extents.
    static char* GetDataRunFromAttr(ATTR_RECORD_HEADER_t* attribute);
    // A power of two of clusters; 0 for a resident attribute.
    static uint16_t GetCompressionUnit(const ATTR_RECORD_HEADER_t* attribute);
    // Bytes. In a segment that isn't an attribute's first one the number means nothing.
    static uint64_t GetAttributeDataSize(const ATTR_RECORD_HEADER_t* attribute);

    // Decodes `runList`, whose first cluster is `startVcn` of its attribute, into `extents` as `DATARUN_EXTENTS`.
    // NtfsRunTooWide for a number of more than 8 bytes, NtfsOutOfMemory; the runs in front of it are there then. The
    // list has to end within its buffer.
    static int ConvertDataRunToExtent(char* runList, CAutoMemory<char>* extents, uint64_t startVcn);

    // Put the last two bytes of each sector back, once after each reading of a record. NtfsRecordCorrupted and
    // NtfsIndexCorrupted when a sector's end isn't what it should be: the sectors before it are mended then.
    static int DoFILESectorFixup(char* record, uint32_t sectorSize);
    static int DoINDXSectorFixup(char* record, uint32_t sectorSize);

    // The same for a buffer whose size is known. What would leave it is NtfsRecordCorrupted, or NtfsIndexCorrupted.
    static int ConvertDataRunToExtent(char* runList, uint32_t runListBytes, CAutoMemory<char>* extents,
                                      uint64_t startVcn);
    static int DoFILESectorFixup(char* record, uint32_t recordBytes, uint32_t sectorSize);
    static int DoINDXSectorFixup(char* record, uint32_t recordBytes, uint32_t sectorSize);

    // NtfsOk when all attributes of `record`, up to the end marker, lie wholly in its `recordBytes` bytes, with their
    // names, their values and the beginnings of their run lists; else NtfsRecordCorrupted. Where a run list ends shows
    // when it is decoded.
    static int CheckAttributes(const char* record, uint32_t recordBytes);

    // Bytes from the run list's start to the attribute's end; 0 for a resident attribute.
    static uint32_t GetDataRunBytes(const ATTR_RECORD_HEADER_t* attribute);
};
