#pragma once

#include <cstdint>

#include "foundation/detail/ByteView.h"
#include "platform/Export.h"

// LZNT1, the compression of NTFS: chunks, each of a 16-bit head and what gives at most 4096 bytes.

constexpr uint32_t Lznt1ChunkBytes = 4096;
constexpr uint32_t Lznt1HeadBytes = 2;

struct Lznt1Chunk_t {
    uint32_t bytes = 0;  // with its head; 0 for the end of the chunks
    bool isCompressed = false;
};

// What the head at `source` says. Fewer than two bytes are the end, as a head of zero is.
DISKSTREAM_EXPORT Lznt1Chunk_t DescribeLznt1Chunk(CByteView source);

// Decodes the compressed chunk that `source` begins with, head included, into `target` of 4096 bytes.
// NtfsBadCompression for a reference in front of the output's start, for a chunk that leaves the source, and for one
// that gives more than 4096 bytes.
DISKSTREAM_EXPORT int DecodeLznt1Chunk(CByteView source, char* target, uint32_t& size);
