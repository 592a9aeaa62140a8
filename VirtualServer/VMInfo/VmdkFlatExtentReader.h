#pragma once

#include <cstdint>

#include "VirtualServer/VMInfo/DiskTypes.h"
#include "VirtualServer/VMInfo/SectorRun.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "foundation/ZuFile.h"
#include "platform/Export.h"

// One flat extent: a plain file whose bytes are the sectors of a stretch of the disk.
// Open or create, read or write in any order, close; then it can be opened again. A closed object
// refuses reads and writes. Not for use by two threads at once: reads move the file's position.
// A copy shares the open file.
class DISKSTREAM_EXPORT CVmdkFlatExtentReader {
public:
    // Opens `name` as the extent that begins at disk sector `firstSector`. Fails, leaving the
    // object closed, when the file can't be opened, when its size isn't a multiple of 512 bytes, or
    // when `type` isn't the flat type. An empty file opens and answers all with the end condition.
    CZuError OpenExtent(const char* name, uint64_t firstSector, VwExtentType type);

    // Creates `name`, emptying a file of that name, at the full size that the record from
    // `GetMetadataInfo` tells. The object is then open for writing alone. A record that isn't one
    // is refused before a file is touched.
    CZuError CreateExtent(const char* name, VwExtentType type, CAutoMemory<char>& metadata);

    // Returns what the system says to the closing of the file. What isn't open closes well.
    CZuError CloseExtent();

    // Makes `metadata` the 32-byte record of this extent.
    CZuError GetMetadataInfo(CAutoMemory<char>& metadata);

    // Reads the first `size` bytes (at most 512) of disk sector `sector` into `buffer`.
    // `IsErrorEOF` holds for the error when the sector lies outside this extent.
    CZuError ReadExtentSector(uint64_t sector, char* buffer, unsigned long size);

    // Tells where `sector` and those behind it lie, at most `mostSectors`. `IsErrorEOF` holds when it
    // lies outside this extent.
    CZuError FindRun(uint64_t sector, uint64_t mostSectors, SectorRun_t& run);

    // Reads block `number` of `sectors` sectors; `gotSectors` tells how many came. Callers rely on
    // blocks being counted from the file's start, whatever the extent's first sector: blocks are
    // for a disk of one extent. A block that begins inside the extent and reaches past its end
    // fails with the read's own error. `IsErrorEOF` holds when it begins behind the end.
    CZuError ReadGrain(uint64_t number, char* buffer, unsigned int sectors, unsigned int& gotSectors);

    // Writes `data`, at most `sectors` sectors, where block `number` of that size begins. Shorter
    // data leaves the end of the block as it is. `IsErrorEOF` as for `ReadGrain`.
    CZuError WriteGrain(uint64_t number, unsigned int sectors, CAutoMemory<char>& data);

    // Writes this extent's record of the sparse dump to `out`; `blockSectors` is the block size
    // that the record tells.
    CZuError DumpSparseInfo(CZuFile& out, const char* name, uint64_t blockSectors);

    // Of an open extent. A closed one has no answer that means anything.
    uint64_t GetTotalSectors() const { return m_LastSector - m_FirstSector + 1; }

    int IsErrorEOF(const CZuError& error) const;

private:
    CZuError RefuseUnlessFree(const char* name, VwExtentType type) const;
    CZuError MeasureExtent(uint64_t firstSector);
    CZuError FindGrain(uint64_t number, unsigned int sectors, uint64_t& offset) const;

    uint32_t m_SectorSize = 512;
    uint64_t m_FirstSector = 0;
    uint64_t m_LastSector = 0;  // inside the extent; one before the first in an empty file
    CZuFile m_File;
};
