#include "agent/detail/SetBlocks.h"

#include <cstring>
#include <memory>
#include <new>
#include <optional>

#include "foundation/detail/ErrorHandling.h"

namespace {

// SQLite's bytes live until its next row, so they are copied: plain ones straight to their place.
void CopyIn(const SetBlock_t& block, BatchBlock_t& target) {
    target.block = block;
    const EncodedBlock_t& encoded = block.encoded;
    if (encoded.sizeBytes == 0)
        return;
    CAutoMemory<char>& buffer = encoded.encoding == BlockEncoding_t::Plain ? target.plain : target.packed;
    if (buffer.Alloc(encoded.sizeBytes) == nullptr)
        throw std::bad_alloc();
    std::memcpy(buffer.GetPtr(), encoded.data, encoded.sizeBytes);
    target.block.encoded.data = buffer.GetPtr();
}

bool ReadBatch(CBackupSetReader& set, size_t mostBlocks, BlockBatch_t& batch, CZuError& error) {
    batch.count = 0;
    while (batch.count < mostBlocks && !error.IsErrorSet()) {
        std::optional<SetBlock_t> block;
        error = set.NextBlock(block);
        if (error.IsErrorSet() || !block.has_value())
            break;
        CopyIn(*block, batch.Add());
    }
    return batch.count != 0;
}

void DecodeBatch(CBlockDecoder& decoder, BlockBatch_t& batch) {
    for (size_t index = 0; index < batch.count; ++index) {
        BatchBlock_t& each = batch.blocks[index];
        each.isSound = decoder.Decode(each.block.encoded, each.block.sectors << SectorShift, each.plain);
    }
}

bool ConsumeBatch(const CBackupSetReader& set, const SetStream_t& stream, const ConsumeBlock_t& consume,
                  BlockBatch_t& batch, CZuError& error) {
    for (size_t index = 0; index < batch.count; ++index) {
        BatchBlock_t& each = batch.blocks[index];
        error = each.isSound ? consume(each)
                             : set.Damaged(CZuString::Format("block {1} of {2} isn't what was backed up",
                                                             each.block.number, stream.fileName)
                                               .c_str());
        if (error.IsErrorSet())
            return false;
    }
    return true;
}

}  // namespace

CZuError ForEachBlock(CBackupSetReader& set, const SetStream_t& stream, const ConsumeBlock_t& consume) {
    ZU_RETURN_IF_ERROR(set.BeginBlocks(stream));
    const PipelineShape_t shape(stream.blockSectors);
    std::vector<std::unique_ptr<CBlockDecoder>> decoders;
    for (size_t worker = 0; worker < shape.workers; ++worker)
        decoders.push_back(std::make_unique<CBlockDecoder>());

    CZuError reading;
    CZuError consuming;
    BlockPipeline_t(shape.batches, shape.workers)
        .Run([&](BlockBatch_t& batch) { return ReadBatch(set, shape.blocksPerBatch, batch, reading); },
             [&](BlockBatch_t& batch, size_t worker) { DecodeBatch(*decoders[worker], batch); },
             [&](BlockBatch_t& batch) { return ConsumeBatch(set, stream, consume, batch, consuming); });
    ZU_RETURN_IF_ERROR(consuming);
    ZU_RETURN_IF_ERROR(reading);
    return CZuError();
}
