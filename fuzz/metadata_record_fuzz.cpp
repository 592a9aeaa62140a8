// The input is a metadata record from a backup set that somebody else wrote: a target is made from
// it and written to. The record states its own size, which no mutation of its length keeps right,
// so that it is tried as it stands and with the size put right, alone and with zeros behind it.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "VirtualServer/VMInfo/VmdkFlatExtentReader.h"
#include "VirtualServer/VMInfo/VmdkSparseExtentReader.h"
#include "fuzz/support/Demand.h"
#include "fuzz/support/MemoryFiles.h"

namespace {

constexpr char TargetName[] = "target.vmdk";
constexpr uint32_t BlockSectors = 128;
constexpr uint32_t BlockBytes = BlockSectors * 512;
constexpr uint64_t MostGrainSectors = 2048;
constexpr uint32_t ZerosBehind = 20 * 1024;
// Tables in the holes of a larger target cost up to the reader's ceiling, which is seconds for one input.
constexpr uint64_t LargestReadBackBytes = 1024 * 1024;
constexpr uint64_t BlockNumbers[] = {0, 1, 511, 512, 4095, 4096, uint64_t{1} << 32U, ~uint64_t{0} / 2, ~uint64_t{0}};

CAutoMemory<char> Data(uint64_t sizeBytes, char fill) {
    CAutoMemory<char> data;
    if (data.Alloc(static_cast<uint32_t>(sizeBytes)) != nullptr)
        std::fill_n(data.GetPtr(), data.GetSize(), fill);
    return data;
}

bool StartsWith(const CMemoryFile& file, uint64_t offset, const CAutoMemory<char>& data) {
    CAutoMemory<char> found;
    return found.Alloc(data.GetSize()) != nullptr &&
           file.ReadAt(offset, found.GetPtr(), found.GetSize()) == data.GetSize() &&
           std::memcmp(found.GetPtr(), data.GetPtr(), data.GetSize()) == 0;
}

void TryFlat(CAutoMemory<char>& record) {
    CMemoryFiles files;
    CVmdkFlatExtentReader extent;
    if (extent.CreateExtent(TargetName, VwExtentTypeFlat, record).IsErrorSet()) {
        Demand(files.OpenCount() == 0, "a failed creation leaves no file open");
        return;
    }
    const CMemoryFile& target = *files.Find(TargetName);
    Demand(target.Size() % 512 == 0 && target.Size() / 512 == extent.GetTotalSectors(),
           "a flat target has its size at once");
    CAutoMemory<char> block = Data(BlockBytes, 'F');
    for (const uint64_t number : BlockNumbers) {
        if (!extent.WriteGrain(number, BlockSectors, block).IsErrorSet())
            Demand(StartsWith(target, number * BlockBytes, block), "a written block lies at its place");
    }
    CAutoMemory<char> again;
    DemandSuccess(extent.GetMetadataInfo(again), "an open extent has a record");
    DemandSuccess(extent.CloseExtent(), "an extent closes");
}

// What was made may hold anything, its own tables overwritten too: reading it has to stay sound.
void ReadBack(uint64_t grainSectors) {
    CVmdkSparseExtentReader reader;
    if (reader.OpenExtent(TargetName, 0, VwExtentTypeSparse).IsErrorSet() || reader.GetBlockSize() != grainSectors)
        return;
    CAutoMemory<char> grain = Data(grainSectors * 512, '\0');
    for (const uint64_t number : BlockNumbers)
        EitherWay(reader.ReadGrain(number, grain.GetPtr()));
    CAutoMemory<char> record;
    EitherWay(reader.GetMetadataInfo(record));
}

void TrySparse(CAutoMemory<char>& record) {
    CMemoryFiles files;
    CVmdkSparseExtentReader extent;
    const bool isMade = !extent.CreateExtent(TargetName, VwExtentTypeSparse, record).IsErrorSet();
    const uint64_t grainSectors = std::min(extent.GetBlockSize(), MostGrainSectors);
    CAutoMemory<char> grain = Data(grainSectors * 512, 'S');
    for (const uint64_t number : BlockNumbers) {
        const CZuError error = extent.WriteGrain(number, grain);
        Demand(error.IsErrorSet() || files.OpenCount() == 1, "nothing is written to a closed file");
        Demand(error.IsErrorSet() || grainSectors == extent.GetBlockSize(), "a short grain is refused");
    }
    DemandSuccess(extent.CloseExtent(), "an extent closes");
    Demand(files.OpenCount() == 0, "a closed extent has no file open");
    if (isMade && files.Find(TargetName)->Size() <= LargestReadBackBytes)
        ReadBack(grainSectors);
}

void TryFacade(CAutoMemory<char>& record, DiskType_t type) {
    CMemoryFiles files;
    CArchiveVirtualDiskFile disk(VirtualProdType_VMware);
    Context_t context{};
    if (disk.Create(TargetName, type, record, BlockSectors, context).IsErrorSet())
        return;
    CAutoMemory<char> block = Data(std::min(context.blockSectors, MostGrainSectors) * 512, 'B');
    for (const uint64_t number : BlockNumbers)
        EitherWay(disk.WriteBlock(block, number, context));
    DemandSuccess(disk.Close(), "a disk closes");
}

void TryRecord(CAutoMemory<char>& record) {
    TryFlat(record);
    TrySparse(record);
    TryFacade(record, DiskType_MonolithicFlat);
    TryFacade(record, DiskType_MonolithicSparse);
}

CAutoMemory<char> Record(const uint8_t* data, size_t size, uint32_t zerosBehind) {
    CAutoMemory<char> record;
    if (record.Alloc(static_cast<uint32_t>(size) + zerosBehind) != nullptr) {
        std::fill_n(record.GetPtr(), record.GetSize(), '\0');
        std::copy_n(data, size, record.GetPtr());
    }
    return record;
}

void PutSizeRight(CAutoMemory<char>& record) {
    if (record.GetSize() < 16)
        return;
    char text[9];
    std::snprintf(text, sizeof(text), "%08x", record.GetSize());
    std::copy_n(text, 8, record.GetPtr() + 8);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CAutoMemory<char> asItStands = Record(data, size, 0);
    TryRecord(asItStands);
    for (const uint32_t zerosBehind : {uint32_t{0}, ZerosBehind}) {
        CAutoMemory<char> record = Record(data, size, zerosBehind);
        PutSizeRight(record);
        TryRecord(record);
    }
    return 0;
}
