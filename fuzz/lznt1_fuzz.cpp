// The input is a source that begins with a chunk, it is the inside of a chunk, and it is what a chunk gives. Decoding
// may look at no byte behind the source and put none behind 4096, and what is behind the chunk mustn't matter.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "fuzz/support/Demand.h"
#include "ntfs/NtfsResults.h"
#include "ntfs/detail/Lznt1.h"

namespace {

// In a block of exactly its size.
using Bytes_t = std::vector<char>;

constexpr size_t MostLiterals = 3640;  // with a byte for each eight of them a chunk's 4096 aren't full

struct Decoded_t {
    int result = NtfsOk;
    Bytes_t bytes;
};

Decoded_t Decode(const Bytes_t& source) {
    Decoded_t decoded;
    decoded.bytes.resize(Lznt1ChunkBytes);
    uint32_t size = ~uint32_t{0};
    decoded.result = DecodeLznt1Chunk(CByteView(source.data(), source.size()), decoded.bytes.data(), size);
    Demand(decoded.result == NtfsOk || decoded.result == NtfsBadCompression, "a chunk is sound or not");
    Demand(size <= (decoded.result == NtfsOk ? Lznt1ChunkBytes : 0), "a chunk gives at most 4096 bytes, or none");
    decoded.bytes.resize(size);
    return decoded;
}

Bytes_t ChunkOf(const Bytes_t& inside) {
    const size_t head = 0xB000U | (inside.size() - 1);
    Bytes_t chunk = {static_cast<char>(head & 0xFFU), static_cast<char>(head >> 8U)};
    chunk.insert(chunk.end(), inside.begin(), inside.end());
    return chunk;
}

// The chunk ends inside of what is there, so that more behind it changes nothing.
void CheckChunk(const Bytes_t& source) {
    const Lznt1Chunk_t chunk = DescribeLznt1Chunk(CByteView(source.data(), source.size()));
    Demand(chunk.bytes == 0 || (chunk.bytes >= 3 && chunk.bytes <= 4098), "a chunk has few lengths");
    const Decoded_t decoded = Decode(source);
    Demand(chunk.bytes <= source.size() || decoded.result == NtfsBadCompression, "a chunk that isn't all there fails");
    if (decoded.result != NtfsOk || source.size() < Lznt1HeadBytes)
        return;
    Bytes_t longer = source;
    longer.resize(source.size() + 100, '\x55');
    const Decoded_t again = Decode(longer);
    Demand(again.result == NtfsOk && again.bytes == decoded.bytes, "what is behind the source doesn't matter");
}

void CheckLiterals(const Bytes_t& content) {
    Bytes_t inside;
    for (size_t index = 0; index < content.size(); ++index) {
        if (index % 8 == 0)
            inside.push_back(0);
        inside.push_back(content[index]);
    }
    const Decoded_t decoded = Decode(ChunkOf(inside));
    Demand(decoded.result == NtfsOk && decoded.bytes == content, "literals come back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Bytes_t input(data, data + size);
    CheckChunk(input);
    if (size == 0)
        return 0;
    CheckChunk(ChunkOf(Bytes_t(input.begin(), input.begin() + std::min<size_t>(size, Lznt1ChunkBytes))));
    CheckLiterals(Bytes_t(input.begin(), input.begin() + std::min(size, MostLiterals)));
    return 0;
}
