#pragma once

#include <cstdint>
#include <optional>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "agent/DiskImage.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

// One block of a stream: it lies at sector `number` times the stream's block size of its extent.
struct BlockPlace_t {
    uint64_t number = 0;
    uint32_t sectors = 0;  // at most the stream's block size; fewer only where the extent ends
};

// The stream of one extent, made whole: the core's blocks, and behind them what the core's rules
// leave out (the last sectors of a flat extent, the last grain of a file that ends inside it).
// Open, take the record, take blocks until the end. One thread at a time.
class DISKSTREAM_EXPORT CExtentStream {
public:
    // Errors of all operations name the file.
    CZuError Open(const DiskExtent_t& extent);

    // True when every sector of the extent is in its file.
    bool IsFlat() const;

    uint32_t BlockSectors() const { return static_cast<uint32_t>(m_Context.blockSectors); }

    // The record from which the core recreates the extent. Given away: the stream keeps none.
    CAutoMemory<char> TakeRecord();

    // The bytes that the blocks will have together, or somewhat more.
    uint64_t ExpectedBytes() const { return m_ExpectedBytes; }

    // Makes `bytes` the next block; `place` is empty behind the last one.
    CZuError Next(CAutoMemory<char>& bytes, std::optional<BlockPlace_t>& place);

private:
    CZuError OpenCore();
    CZuError NextSparse(CAutoMemory<char>& bytes, std::optional<BlockPlace_t>& place);
    CZuError NextFlat(CAutoMemory<char>& bytes, std::optional<BlockPlace_t>& place);
    CZuError ReadCutGrain(const CZuError& whole, CAutoMemory<char>& bytes, BlockPlace_t& place);
    CZuError ReadBySector(const CZuError& whole, uint64_t firstSector, uint32_t sectors, CAutoMemory<char>& bytes);
    CZuError ReadFlatTail(uint32_t tailSectors, CAutoMemory<char>& bytes);

    DiskExtent_t m_Extent;
    std::optional<CArchiveVirtualDiskFile> m_Core;
    bool m_IsAtEnd = false;
    CAutoMemory<char> m_Record;
    Context_t m_Context{};
    uint64_t m_ExpectedBytes = 0;
};

// The block size of streams whose format has none: that of the grains of most sparse disks, so
// that blocks of zeros are found as finely.
constexpr uint32_t FlatBlockSectors = 128;
