#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "VirtualServer/VMInfo/DiskTypes.h"
#include "VirtualServer/VMInfo/SectorRun.h"
#include "VirtualServer/VMInfo/VmdkSparseFormat.h"
#include "foundation/AutoMemory.h"
#include "foundation/ByteOrder.h"
#include "foundation/ZuError.h"
#include "foundation/ZuFile.h"
#include "platform/Export.h"

// One grain table in memory.
struct GrainTableRef_t {
    uint64_t sector = 0;                      // of the file, as the directory has it; 0 for no table
    std::shared_ptr<const Le32_t[]> entries;  // null for no table; tables at one sector share theirs
};

// One sparse extent file of a VMDK disk, in the hosted form ("KDMV") or the older COWD form. All
// tables are read at open, so a read costs one file read: four bytes of memory for each grain,
// twice for the hosted form. A hole is reported, never filled: the caller decides what it means.
//
// Open, read by sector or grain, close. Or create from the record of such an extent, which puts
// every header and table back where it lay, and write the grains that the tables have.
// Grains are read as they lie: compressed extents come out wrong, so callers refuse those before.
// Not for use by two threads at once. A copy has its own tables and shares the open file.
class DISKSTREAM_EXPORT CVmdkSparseExtentReader {
public:
    // Opens `name` as the extent that begins at disk sector `startSector`. `type` is one of the two
    // sparse types. Both copies of the tables must be readable though only one is used. After a
    // failure the file is closed.
    CZuError OpenExtent(const char* name, uint64_t startSector, VwExtentType type);

    // Creates `name`, emptying a file of that name, and writes header, descriptor and tables from
    // the record. A record that isn't one is refused before a file is touched. After any later
    // failure the file stays open with what was written; the caller closes it.
    //
    // Callers rely on two edges. A record taken from a COWD extent is refused ("Unknown sparse
    // header type"). A directory entry of 0 takes a table from the record all the same, which
    // lands on the header: records with such entries have to be kept away.
    CZuError CreateExtent(const char* name, VwExtentType type, CAutoMemory<char>& metadata);

    // Forgets all tables. Always succeeds; what the system says to the closing goes to the log.
    CZuError CloseExtent();

    // Reads the first `size` bytes (at most 512) of disk sector `sector`. `IsErrorEOF` holds when
    // it lies outside the extent, `IsErrorSectorNotFound` when no grain holds it.
    CZuError ReadExtentSector(uint64_t sector, char* data, uint32_t size);

    // Tells how far the answer for `sector` holds, over at most `mostSectors` sectors: grains that lie
    // one behind the other in the file make one run, and so do grains that none holds. `IsErrorEOF`
    // holds when the sector lies outside the extent.
    CZuError FindRun(uint64_t sector, uint64_t mostSectors, SectorRun_t& run);

    // Reads grain `index`, counted from the extent's start, into `data`, which holds a whole grain.
    // `IsErrorEOF` holds behind the last table's last grain, which may lie beyond the capacity.
    CZuError ReadGrain(uint64_t index, char* data);

    // The first grain from `index` on that the extent holds, or an index behind its last grain. To
    // step over holes, of which an empty disk has millions.
    uint64_t NextHeldGrain(uint64_t index) const;

    // Writes a whole grain; longer data is cut. `IsErrorSectorNotFound` holds when the tables have
    // no place for it, `IsErrorEOF` as for `ReadGrain`.
    CZuError WriteGrain(uint64_t index, CAutoMemory<char>& data);

    // Makes `metadata` the record from which `CreateExtent` rebuilds the extent.
    CZuError GetMetadataInfo(CAutoMemory<char>& metadata);

    // Writes this extent's record of the sparse dump and its bitmaps: one bit for each directory
    // entry, then one bitmap for each table that is there, one bit for each of its entries.
    CZuError DumpSparseInfo(CZuFile& out, const char* name);

    uint64_t GetBlockSize() const { return m_GrainSize; }  // sectors
    uint64_t GetTotalSectors() const { return m_EndSector - m_StartSector + 1; }

    int IsErrorEOF(const CZuError& error) const;
    int IsErrorSectorNotFound(const CZuError& error) const;

private:
    using Directory_t = CAutoMemory<Le32_t>;
    using Tables_t = std::vector<GrainTableRef_t>;

    void ForgetTables();
    CZuError RefuseUnlessFree(const char* name, VwExtentType type) const;
    CZuError ReadHeaderAndTables(uint64_t startSector);
    CZuError OpenVMDK();
    CZuError OpenCOWD();
    CZuError ReadVMDKSparseTableInfo();
    CZuError ReadCOWDSparseTableInfo();
    CZuError SetVMDKGeometry(const VmdkSparseHeader_t& header);
    void SetCOWDGeometry(const CowdHeader_t& header);

    CZuError ReplayRecord(const CAutoMemory<char>& metadata);
    CZuError WriteVMDKSparseTableInfo(const char* body, uint64_t bodyBytes);
    CZuError WriteCOWDSparseTableInfo(const char* body, uint64_t bodyBytes);

    uint64_t GrainBound() const;
    CZuError FindGrain(uint64_t index, uint32_t& sector) const;
    uint32_t GrainSectorOrHole(uint64_t index) const;
    uint64_t CountEqualGrains(uint64_t index, uint64_t mostGrains) const;
    bool ComputeMetadataSize(uint32_t& sizeBytes) const;
    uint32_t HeaderBytes() const;
    CZuError WriteBitmaps(CZuFile& out) const;

    const Directory_t& ActiveGD() const { return m_RedundantIsActive ? m_RedundantGD : m_GD; }
    const Tables_t& ActiveGTs() const { return m_RedundantIsActive ? m_RedundantGTs : m_GTs; }

    uint32_t m_SectorSize = 512;
    uint64_t m_StartSector = 0;
    uint64_t m_EndSector = 0;  // inside the extent
    CZuFile m_File;
    uint32_t m_IsCOWD = 0;
    char m_SparseHeader[sizeof(CowdHeader_t)] = {};  // the hosted form uses its first sector
    CAutoMemory<char> m_Descriptor;
    Directory_t m_RedundantGD;
    Directory_t m_GD;
    Tables_t m_RedundantGTs;
    Tables_t m_GTs;
    bool m_RedundantIsActive = false;
    uint64_t m_GrainSize = 0;     // sectors
    uint64_t m_SectorsPerGT = 0;  // sectors that one table covers
    uint64_t m_NumGDEntries = 0;
    uint64_t m_NumGTEsPerGT = 0;
};
