#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "agent/DiskImage.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

class IBlockSource;

// One block of a stream: it lies at sector `number` times the stream's block size of its extent.
// Blocks of a dynamic VHD carry the bitmap of their sectors in front, and count without it.
struct BlockPlace_t {
    uint64_t number = 0;
    uint32_t sectors = 0;      // at most the stream's block size; fewer only where the extent ends
    bool isUnchanged = false;  // since the extent's change id: its bytes don't come
};

// The stream of one extent, made whole: the core's blocks, and what the core's rules leave out (the
// last sectors of a flat extent or a fixed VHD, the last grain of a file that ends inside it, the
// last blocks of a large dynamic VHD). Open, take the record, take blocks until the end. One thread
// at a time.
class DISKSTREAM_EXPORT CExtentStream {
public:
    CExtentStream();
    CExtentStream(const CExtentStream&) = delete;
    CExtentStream& operator=(const CExtentStream&) = delete;
    ~CExtentStream();

    // Errors of all operations name the file.
    CZuError Open(const DiskExtent_t& extent);

    uint32_t BlockSectors() const;

    // The record from which the core recreates the extent; empty for a raw disk. Given away: the
    // stream keeps none.
    CAutoMemory<char> TakeRecord();

    // The bytes that the blocks will have together, or somewhat more.
    uint64_t ExpectedBytes() const;

    // Makes `bytes` the next block; `place` is empty behind the last one.
    CZuError Next(CAutoMemory<char>& bytes, std::optional<BlockPlace_t>& place);

    // Makes `bytes` the block `number`, which came as unchanged and so without them.
    CZuError ReadUnchanged(uint64_t number, CAutoMemory<char>& bytes);

private:
    std::string m_Path;
    std::unique_ptr<IBlockSource> m_Source;
};

// The block size of streams whose format has none: that of the grains of most sparse disks, so
// that blocks of zeros are found as finely.
constexpr uint32_t FlatBlockSectors = 128;
