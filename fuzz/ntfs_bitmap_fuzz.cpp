// The input is pieces of a small NTFS volume, see NtfsImage.h. Its geometry and its bitmap are read from its own bytes,
// and its blocks by them.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/NTFSVolumeReader.h"
#include "VirtualServer/VMInfo/detail/NtfsVolumeOnDisk.h"
#include "fuzz/support/Demand.h"
#include "fuzz/support/MemoryCeiling.h"
#include "fuzz/support/MemoryFiles.h"
#include "fuzz/support/NtfsImage.h"

extern "C" __attribute__((weak)) size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);

namespace {

constexpr uint64_t MostMemory = 4 * NtfsImageBytes;
constexpr uint64_t MostBlockSectors = 1U << 16U;
constexpr uint32_t PieceBytes = 999;  // no divisor of a cluster

bool IsUsed(const std::string& bitmap, uint64_t lcn) {
    return lcn / 8 < bitmap.size() && (static_cast<uint8_t>(bitmap[lcn / 8]) >> lcn % 8 & 1U) != 0;
}

// The whole bitmap, piece by piece; empty where it can't be read.
std::string BitmapOf(const CZuFile& file) {
    CNtfsVolumeOnDisk volume;
    if (volume.Open(file).IsErrorSet())
        return {};
    std::string bitmap;
    std::vector<char> piece(PieceBytes);
    for (uint32_t got = PieceBytes; got == PieceBytes;) {
        if (volume.ReadBitmap(bitmap.size() * 8, piece.data(), PieceBytes, got).IsErrorSet())
            return {};
        bitmap.append(piece.data(), got);
        Demand(bitmap.size() <= NtfsImageBytes, "a bitmap lies in its volume's file");
    }
    const uint64_t clusters = volume.ClusterCount();
    Demand(bitmap.size() == clusters / 8 + (clusters % 8 != 0 ? 1 : 0), "a bitmap has a bit for each cluster");
    for (uint64_t lcn = clusters; lcn < bitmap.size() * 8; ++lcn)
        Demand(!IsUsed(bitmap, lcn), "no cluster behind the last one is in use");
    return bitmap;
}

// What lies behind is zeros, which a file keeps as a hole.
size_t EndOfBytes(const std::string& image) {
    constexpr size_t pageBytes = 4096;
    const std::string zeros(pageBytes, '\0');
    size_t end = image.size();
    while (end >= pageBytes && std::memcmp(image.data() + end - pageBytes, zeros.data(), pageBytes) == 0)
        end -= pageBytes;
    return end;
}

bool HoldsClusters(const std::string& bitmap, uint64_t block) {
    const auto from = static_cast<size_t>(std::min<uint64_t>(block * 1024, bitmap.size()));
    const auto to = static_cast<size_t>(std::min<uint64_t>(block * 1024 + 1024, bitmap.size()));
    return std::any_of(bitmap.begin() + static_cast<ptrdiff_t>(from), bitmap.begin() + static_cast<ptrdiff_t>(to),
                       [](char byte) { return byte != 0; });
}

// Every block is the end, free, or read, and the bitmap says the same. Clusters behind the file's end can't be read.
void ReadBlocks(CNTFSVolumeReader& reader, const std::string& bitmap, std::vector<char>& buffer) {
    for (uint64_t block = 0;; ++block) {
        uint32_t sectors = 0;
        const CZuError error = reader.ReadBlock(block, buffer.data(), &sectors);
        Demand(sectors <= reader.GetBlockSize(), "a block has no more sectors than blocks have");
        if (reader.IsErrorEOF(error) != 0) {
            Demand(block * 1024 >= bitmap.size(), "the end comes behind all clusters");
            return;
        }
        if (bitmap.empty()) {
            Demand(error.IsErrorSet(), "without a bitmap no block is given out");
            return;
        }
        Demand((reader.IsErrorSectorNotFound(error) != 0) == !HoldsClusters(bitmap, block),
               "a block is passed over where it has no cluster in use, and only there");
    }
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize, unsigned int seed) {
    return CNtfsImageMutator(data, size, maxSize, seed, LLVMFuzzerMutate).Run();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static std::vector<char> buffer(MostBlockSectors * 512);
    CMemoryFiles files;
    const std::string image = NtfsImageFrom(data, size);
    const size_t end = EndOfBytes(image);
    files.Put("volume", image.data(), end, image.size() - end);
    CZuFile file;
    DemandSuccess(file.Open("volume", OpenAsBinary, 0), "a file that is there opens");
    {
        const CMemoryCeiling ceiling(MostMemory);
        const std::string bitmap = BitmapOf(file);
        CNTFSVolumeReader reader;
        if (!reader.OpenVolume("volume").IsErrorSet()) {
            CAutoMemory<char> metadata;
            DemandSuccess(reader.GetMetadataInfo(metadata), "an open volume has a record");
            if (reader.GetBlockSize() <= MostBlockSectors)
                ReadBlocks(reader, bitmap, buffer);
            DemandSuccess(reader.CloseVolume(), "what is open closes");
        }
    }
    DemandSuccess(file.Close(), "what is open closes");
    Demand(files.OpenCount() == 0, "nothing stays open");
    return 0;
}
