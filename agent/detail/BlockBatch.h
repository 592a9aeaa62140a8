#pragma once

#include <algorithm>
#include <cstdint>
#include <thread>
#include <vector>

#include "agent/BackupSet.h"
#include "agent/detail/OrderedPipeline.h"
#include "foundation/AutoMemory.h"
#include "foundation/detail/CheckedMath.h"

// One block on its way between a disk and a set.
struct BatchBlock_t {
    SetBlock_t block;
    CAutoMemory<char> plain;
    CAutoMemory<char> packed;
    bool isSound = true;
    bool isUnknown = false;  // not told as changed, and yet not in the base
};

// Blocks travel in batches, so that threads meet once for half a megabyte and not for each block. The
// buffers are used again and again.
struct BlockBatch_t {
    std::vector<BatchBlock_t> blocks;
    size_t count = 0;

    // The next free place.
    BatchBlock_t& Add() {
        if (count == blocks.size())
            blocks.emplace_back();
        return blocks[count++];
    }
    void DropLast() { --count; }
};

using BlockPipeline_t = COrderedPipeline<BlockBatch_t>;

// How many blocks, batches and workers move blocks of one size: all buffers together stay below
// 20 MiB unless a single block is larger.
struct PipelineShape_t {
    explicit PipelineShape_t(uint32_t blockSectors) {
        constexpr uint64_t batchBytes = uint64_t{1} << 19U;
        constexpr uint64_t allBytes = uint64_t{20} << 20U;
        constexpr uint64_t mostBatches = 8;
        constexpr size_t mostWorkers = 8;
        const uint64_t blockBytes = uint64_t{blockSectors} << SectorShift;
        blocksPerBatch = static_cast<size_t>(std::max<uint64_t>(batchBytes / blockBytes, 1));
        const uint64_t plainAndPacked = 2 * blocksPerBatch * blockBytes;
        batches = static_cast<size_t>(std::clamp<uint64_t>(allBytes / plainAndPacked, 1, mostBatches));
        workers = std::clamp<size_t>(std::thread::hardware_concurrency(), 1, std::min(mostWorkers, batches));
    }

    size_t blocksPerBatch;
    size_t batches;
    size_t workers;
};
