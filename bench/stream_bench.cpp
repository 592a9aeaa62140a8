// Streams of the core against plain system calls on the same bytes, the page cache warm.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "VirtualServer/VMInfo/VmdkSparseExtentReader.h"
#include "bench/support/BenchFiles.h"
#include "bench/support/PeerComparison.h"
#include "bench/support/PlainFile.h"

namespace {

constexpr uint64_t SectorBytes = 512;
constexpr unsigned int FlatBlockSectors = 2048;
constexpr uint64_t WrittenGrains = 4096;

// Every program starts like this, but the C library changes its mind once a large block was freed:
// a benchmark's figures would depend on the ones that ran before it.
const bool g_largeBlocksAreMapped = mallopt(M_MMAP_THRESHOLD, 128 * 1024) != 0;

uint64_t BytesOf(const std::vector<FileRange_t>& ranges) {
    uint64_t bytes = 0;
    for (const FileRange_t& range : ranges)
        bytes += range.size;
    return bytes;
}

// Reads the whole stream of an open disk into nothing; true when it had that many bytes.
bool StreamAll(CArchiveVirtualDiskFile& disk, unsigned int blockSectors, uint64_t expectedBytes) {
    CAutoMemory<char> block;
    Context_t context{};
    if (disk.GetFirstBlock(block, blockSectors, context).IsErrorSet())
        return false;
    uint64_t bytes = 0;
    uint64_t number = 0;
    CZuError error;
    while (!(error = disk.GetNextBlock(block, number, context)).IsErrorSet())
        bytes += block.GetSize();
    return disk.IsErrorEOF(error) != 0 && bytes == expectedBytes;
}

void CompareStream(benchmark::State& state, const BenchFile_t& file, DiskType_t type, unsigned int blockSectors) {
    CArchiveVirtualDiskFile disk(VirtualProdType_VMware);
    if (disk.Open(file.path.c_str(), type).IsErrorSet()) {
        state.SkipWithError("The disk doesn't open");
        return;
    }
    CPlainFile plain(file.path, O_RDONLY);
    const uint64_t bytes = BytesOf(file.data);
    CompareWithPeer(
        state, bytes, [&] { return StreamAll(disk, blockSectors, bytes); }, [&] { return plain.Read(file.data); });
}

// 4 GiB, half full with scattered grains of 64 KiB, against pread of 64 KiB at the same places.
void StreamSparse(benchmark::State& state) {
    CompareStream(state, HalfFullSparseDisk(), DiskType_MonolithicSparse, 0);
}
BENCHMARK(StreamSparse)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(15);

// 1 GiB in blocks of 1 MiB, against pread of 1 MiB.
void StreamFlat(benchmark::State& state) {
    CompareStream(state, FlatDisk(), DiskType_MonolithicFlat, FlatBlockSectors);
}
BENCHMARK(StreamFlat)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(25);

bool OpenAndClose(const BenchFile_t& file) {
    CVmdkSparseExtentReader extent;
    return !extent.OpenExtent(file.path.c_str(), 0, VwExtentTypeSparse).IsErrorSet() &&
           !extent.CloseExtent().IsErrorSet();
}

void CompareOpening(benchmark::State& state, const BenchFile_t& file) {
    CompareWithPeer(
        state, BytesOf(file.tables), [&] { return OpenAndClose(file); },
        [&] { return CPlainFile(file.path, O_RDONLY).Read(file.tables); });
}

// Opening loads both copies of the tables, here 512 KiB, against open and pread of the same bytes.
void OpenSparse(benchmark::State& state) {
    CompareOpening(state, HalfFullSparseDisk());
}
BENCHMARK(OpenSparse)->UseManualTime()->Unit(benchmark::kMicrosecond)->MinTime(1);

// The same for 2 TiB: 256 MiB of tables.
void OpenSparse2TiB(benchmark::State& state) {
    CompareOpening(state, EmptySparseDisk(true));
}
BENCHMARK(OpenSparse2TiB)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(15);

// 2 TiB without a grain: how fast a stream passes over 33 554 432 holes to the disk's end. There is
// no peer; `holes_per_second` is the figure.
void SkipHoles(benchmark::State& state) {
    constexpr double holes = 2.0 * 1024 * 1024 * 1024 * 1024 / BenchGrainBytes;
    const BenchFile_t& file = EmptySparseDisk(state.range(0) != 0);
    CArchiveVirtualDiskFile disk(VirtualProdType_VMware);
    if (disk.Open(file.path.c_str(), DiskType_MonolithicSparse).IsErrorSet()) {
        state.SkipWithError("The disk doesn't open");
        return;
    }
    CAutoMemory<char> block;
    Context_t context{};
    bool isDone = !disk.GetFirstBlock(block, 0, context).IsErrorSet();
    for (auto _ : state) {
        Context_t cursor{NoBlockYet, context.blockSectors};
        uint64_t number = 0;
        isDone = isDone && disk.IsErrorEOF(disk.GetNextBlock(block, number, cursor)) != 0;
    }
    if (!isDone)
        state.SkipWithError("The stream doesn't end as it has to");
    state.counters["holes_per_second"] = benchmark::Counter(holes, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(SkipHoles)->ArgName("tables")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->MinTime(1);

// The numbers of the first grains that the disk holds, in order.
std::vector<uint64_t> HeldGrains(CArchiveVirtualDiskFile& disk, CAutoMemory<char>& record) {
    std::vector<uint64_t> numbers;
    Context_t context{};
    if (disk.GetFirstBlock(record, 0, context).IsErrorSet())
        return numbers;
    CAutoMemory<char> block;
    uint64_t number = 0;
    while (numbers.size() < WrittenGrains && !disk.GetNextBlock(block, number, context).IsErrorSet())
        numbers.push_back(number);
    return numbers;
}

bool WriteGrains(CVmdkSparseExtentReader& target, const std::vector<uint64_t>& numbers, CAutoMemory<char>& grain) {
    return std::none_of(numbers.begin(), numbers.end(),
                        [&](uint64_t number) { return target.WriteGrain(number, grain).IsErrorSet(); });
}

// 256 MiB of grains to a disk made from a record, against pwrite to another file at the same
// places. Both files have their blocks before the first iteration.
void WriteSparse(benchmark::State& state) {
    const BenchFile_t& file = HalfFullSparseDisk();
    const std::string ourPath = BenchTarget("written.vmdk");
    const std::string plainPath = BenchTarget("written-plainly");
    CArchiveVirtualDiskFile source(VirtualProdType_VMware);
    CAutoMemory<char> record;
    CAutoMemory<char> grain;
    CVmdkSparseExtentReader target;
    if (source.Open(file.path.c_str(), DiskType_MonolithicSparse).IsErrorSet() ||
        grain.Alloc(BenchGrainBytes) == nullptr) {
        state.SkipWithError("The disk doesn't open");
        return;
    }
    std::fill_n(grain.GetPtr(), grain.GetSize(), 'W');
    const std::vector<uint64_t> numbers = HeldGrains(source, record);
    if (numbers.size() != WrittenGrains ||
        target.CreateExtent(ourPath.c_str(), VwExtentTypeSparse, record).IsErrorSet()) {
        state.SkipWithError("The target can't be made");
        return;
    }
    const std::vector<FileRange_t> places(file.data.begin(), file.data.begin() + WrittenGrains);
    {
        CPlainFile plain(plainPath, O_WRONLY | O_CREAT | O_TRUNC);
        CompareWithPeer(
            state, BytesOf(places), [&] { return WriteGrains(target, numbers, grain); },
            [&] { return plain.Write(places); });
    }
    std::remove(ourPath.c_str());
    std::remove(plainPath.c_str());
}
BENCHMARK(WriteSparse)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(25);

}  // namespace
