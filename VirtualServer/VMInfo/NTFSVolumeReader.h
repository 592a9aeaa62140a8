#pragma once

#include <cstdint>
#include <memory>

#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "foundation/ZuFile.h"
#include "platform/Export.h"

class INtfsVolumeControl;

// One NTFS volume as a source and target of blocks: the volume's device, or where the system lets it be read as one a
// file with the volume's bytes. Only blocks that hold clusters in use are given out; such a block comes whole, its free
// clusters included.
//
// Open or create, read or write in any order, close. Not for use by two threads at once: reads fill the cache of the
// bitmap. A copy shares the open volume and has a cache of its own.
//
// Places and sizes of blocks count sectors of 512 bytes, whatever the volume's own sectors are. Callers rely on it: of
// a volume with larger sectors the blocks don't lie where its bitmap has them.
class DISKSTREAM_EXPORT CNTFSVolumeReader {
public:
    // Opens the volume `name` for reading.
    CZuError OpenVolume(const char* name);

    // Returns what the system says to the closing. What isn't open closes well.
    CZuError CloseVolume();

    // Reads `size` bytes at byte `offset` of the volume.
    CZuError ReadData(uint64_t offset, char* buffer, uint32_t size);

    // Reads block `block` into `buffer`, which has room for a whole one; the volume's last block is shorter where the
    // volume ends in it. `*sectors` is the sectors read. `IsErrorSectorNotFound` holds for a block without a cluster in
    // use, `IsErrorEOF` behind the volume's end.
    CZuError ReadBlock(uint64_t block, char* buffer, uint32_t* sectors);

    // Makes `metadata` the volume's record, from which `CreateVolume` takes a target.
    CZuError GetMetadataInfo(CAutoMemory<char>& metadata);

    // Opens the NTFS volume `name`, which is as large as the one of `metadata` or larger, for writing that one's blocks
    // over it, and locks it until it is closed. A failure leaves the object closed.
    CZuError CreateVolume(const char* name, CAutoMemory<char>& metadata);

    // Writes `data`, at most a block, where block `block` begins.
    CZuError WriteBlock(uint64_t block, CAutoMemory<char>& data);

    // Writes one record of the sparse dump, in which `size` stands for the block size.
    CZuError DumpSparseInfo(CZuFile& file, const char* name, uint64_t size);

    uint64_t GetBlockSize() const { return m_BlockSize; }
    uint64_t GetTotalSectors() const { return m_TotalSectors; }

    int IsErrorEOF(const CZuError& error) const;
    int IsErrorSectorNotFound(const CZuError& error) const;

private:
    CZuError OpenDevice(const char* name);
    CZuError CreateOnDevice(const char* name, const CAutoMemory<char>& metadata);
    CZuError ComputeGeometry(uint64_t totalSectors, uint64_t clusters, uint64_t bytesPerCluster,
                             uint64_t bytesPerSector);
    CZuError ReadHeldBlock(uint64_t block, char* buffer, uint32_t& sectors);
    CZuError FillCache(uint64_t block);
    CZuError TakeReply(uint64_t block, uint32_t replyBytes, bool isCut);
    bool IsCached(uint64_t block) const;
    bool HoldsClusters(uint64_t block) const;
    bool OffsetOfBlock(uint64_t block, uint64_t& offset) const;
    uint64_t ClustersPerBlock() const { return uint64_t{m_BitmapBytesPerBlock} * 8; }

    uint64_t m_BytesPerSector = 0;
    uint64_t m_SectorsPerCluster = 0;
    uint64_t m_TotalSectors = 0;
    uint64_t m_TotalBlocks = 0;
    uint64_t m_BlockSize = 0;  // sectors
    uint32_t m_BitmapBytesPerBlock = 1024;
    uint32_t m_LastBitmapBytes = 0;    // of the last block in the cache
    uint32_t m_LastBlockClusters = 0;  // the same
    CZuFile m_VolumeFile;
    CAutoMemory<char> m_Bitmap;  // a reply, with its head; empty when nothing is cached
    uint64_t m_FirstCachedBlock = 0;
    uint64_t m_LastCachedBlock = 0;
    std::shared_ptr<INtfsVolumeControl> m_Control;  // of the open volume
};
