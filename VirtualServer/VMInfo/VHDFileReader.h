#pragma once

#include <cstdint>
#include <unordered_map>

#include "VirtualServer/VMInfo/DiskTypes.h"
#include "VirtualServer/VMInfo/SectorRun.h"
#include "VirtualServer/VMInfo/VHDFormat.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "foundation/ZuFile.h"
#include "platform/Export.h"

class CByteReader;

// One VHD file, fixed, dynamic or differencing, for reading by sector and by block. The parent of a
// differencing disk is never followed: what the file itself doesn't hold is reported as not found.
//
// Open, read in any order, close. Or create from the record of such a file, which puts footers,
// header, locators and table back byte for byte, and write the blocks that the table has. No
// checksum is proved or computed. Not for use by two threads at once: reads fill a cache of bitmaps.
// A copy has its own tables and shares the open file.
class DISKSTREAM_EXPORT CVHDFileReader {
public:
    // Opens `name` as one of the types 12 to 14, which has to be the footer's. Only the footer at
    // the end is looked at, never its copy at the start. After a failure nothing is open.
    CZuError OpenDisk(const char* name, DiskType_t type);

    // Creates `name`, emptying a file of that name, from the record. The file is made before the
    // record is looked at: a refused record leaves an empty file behind, closed.
    CZuError CreateDisk(const char* name, DiskType_t type, CAutoMemory<char>& metadata);

    // Returns what the system says to the closing of the file. What isn't open closes well.
    CZuError CloseDisk();

    // Reads the first `size` bytes (at most 512) of `sector`. `IsErrorSectorNotFound` holds when no
    // block holds it or its bit is clear. Callers rely on the sector behind the last one being
    // refused with another error than the one that `IsErrorEOF` knows.
    CZuError ReadSector(uint64_t sector, char* data, uint32_t size);

    // Tells how far the answer for `sector` holds, over at most `mostSectors` sectors. Fails as
    // `ReadSector` does, but a sector that isn't held is an answer and no failure.
    CZuError FindRun(uint64_t sector, uint64_t mostSectors, SectorRun_t& run);

    // Reads `size` bytes of a held run of this file from its start on.
    CZuError ReadRun(const SectorRun_t& run, char* data, uint32_t size);

    // Reads block `index` of `blockSectors` sectors. A block of a dynamic disk comes as it lies in
    // the file, the bitmap in front, and its size is `GetBlockSize`; bitmap bits aren't looked at.
    // Callers rely on two edges: a fixed disk's last block, whole or not, comes without the disk's
    // last sector, and the end condition goes by the size with the bitmap, so that the last blocks
    // of a large dynamic disk never come. `IsErrorEOF` and `IsErrorSectorNotFound` tell the rest.
    CZuError ReadBlock(uint64_t index, char* data, uint32_t blockSectors, unsigned int& gotSectors);

    // Where reading block by block from `index` on would come to first: a block that the table has,
    // one behind its last entry, or the first block behind the disk's end. To step over holes.
    uint64_t NextHeldBlock(uint64_t index) const;

    // Writes `data`, at most `blockSectors` sectors, as block `index`: for a dynamic disk the bitmap
    // and what follows. `IsErrorSectorNotFound` holds where the table has no place for it.
    CZuError WriteBlock(uint64_t index, uint32_t blockSectors, CAutoMemory<char>& data);

    // Makes `metadata` the record from which `CreateDisk` rebuilds the file.
    CZuError GetMetadataInfo(CAutoMemory<char>& metadata);

    // Writes the number of extents, 1, this file's record of the sparse dump and its bitmaps.
    CZuError DumpSparseInfo(CZuFile& out, const char* name, uint64_t blockSectors);

    void GetFooterInformation(VHD_FOOTER_t& footer) const { footer = m_Footer; }
    void GetDynamicHeaderInformation(VHD_DYNAMIC_HEADER_t& header) const { header = m_DynamicHeader; }

    // Sectors of a block of a dynamic disk with its bitmap; 0 for a fixed one.
    uint64_t GetBlockSize() const { return uint64_t{m_BitmapSectors} + m_SectorsPerBlock; }
    uint64_t GetTotalSectors() const { return m_LastSector + 1; }

    int IsErrorEOF(const CZuError& error) const;
    int IsErrorSectorNotFound(const CZuError& error) const;

private:
    static constexpr uint32_t KindClosed = 0;
    static constexpr uint32_t KindFixed = 1;
    static constexpr uint32_t KindDynamic = 2;

    CZuError ReadFooter(const char* name, uint32_t wantedType);
    CZuError OpenDynamicDisk();
    CZuError RefuseOtherType(const char* name, uint32_t wantedType) const;
    CZuError RefuseOtherBlockSize(uint32_t blockSectors) const;
    void SetShapeAndSize();

    CZuError FindFixedRun(uint64_t sector, uint64_t mostSectors, SectorRun_t& run);
    CZuError FindDynamicRun(uint64_t sector, uint64_t mostSectors, SectorRun_t& run);
    uint64_t NextTableEntry(uint64_t index) const;
    CZuError FindBlock(uint64_t index, uint32_t& sector) const;
    CZuError LoadBitmap(uint32_t blockSector, const CAutoMemory<char>*& bitmap);
    CZuError ReadFixedBlock(uint64_t index, char* data, uint32_t blockSectors, unsigned int& gotSectors);
    bool HasNoSectors() const { return GetTotalSectors() == 0; }

    CZuError CreateFromRecord(const char* name, DiskType_t type, uint32_t wantedType,
                              const CAutoMemory<char>& metadata);
    CZuError CreateFlatDisk(const CAutoMemory<char>& metadata);
    CZuError CreateDynamicDisk(const CAutoMemory<char>& metadata);
    CZuError ReplayHeaders(CByteReader& record);
    CZuError ReplayTable(CByteReader& record);
    CZuError ReplayEndFooter(CByteReader& record, VhdFileFooter_t& footer);

    CZuError ReadFixedRecord(CAutoMemory<char>& metadata);
    CZuError ReadDynamicRecord(CAutoMemory<char>& metadata);
    CZuError ReadLocators(CAutoMemory<char>& data);
    CZuError WriteBitmaps(CZuFile& out);

    uint32_t m_DiskKind = KindClosed;
    CZuFile m_File;
    VHD_FOOTER_t m_Footer{};
    uint32_t m_SectorSize = 512;
    uint64_t m_LastSector = 0;  // inside the disk
    VHD_DYNAMIC_HEADER_t m_DynamicHeader{};
    CAutoMemory<Be32_t> m_BAT;  // file sectors, in the order of the file's bytes
    // By the sector at which a block lies, made when first needed: entries that name one block share
    // its bitmap.
    std::unordered_map<uint32_t, CAutoMemory<char>> m_SectorBitmaps;
    uint64_t m_TakenBytes = 0;  // by table and bitmaps, against the ceiling
    uint32_t m_BitmapSectors = 0;
    uint32_t m_SectorsPerBlock = 0;
};
