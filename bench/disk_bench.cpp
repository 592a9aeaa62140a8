// Whole disks and volumes in requests of 1 MiB, against pread of 1 MiB from a flat file of the same
// size, the page cache warm.
#include <benchmark/benchmark.h>
#include <fcntl.h>

#include <cstdint>
#include <vector>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "VirtualServer/VMInfo/LVM.h"
#include "bench/support/BenchFiles.h"
#include "bench/support/PeerComparison.h"
#include "bench/support/PlainFile.h"
#include "foundation/AutoMemory.h"

namespace {

constexpr uint32_t RequestBytes = 1U << 20U;

Disk_t LinkOf(const BenchFile_t& file, DiskType_t type) {
    Disk_t disk;
    disk.FileName = file.path;
    disk.Type = type;
    return disk;
}

// `read(offset, buffer)` reads one request.
template <typename Read> bool ReadAll(uint64_t sizeBytes, CAutoMemory<char>& buffer, Read read) {
    for (uint64_t offset = 0; offset < sizeBytes; offset += RequestBytes) {
        if (read(offset, buffer.GetPtr()).IsErrorSet())
            return false;
    }
    return true;
}

template <typename Read> void CompareReading(benchmark::State& state, uint64_t sizeBytes, Read read) {
    CAutoMemory<char> buffer;
    buffer.Alloc(RequestBytes);
    CPlainFile plain(FlatDisk().path, O_RDONLY);
    std::vector<FileRange_t> ranges = FlatDisk().data;
    ranges.resize(static_cast<size_t>(sizeBytes / RequestBytes));
    CompareWithPeer(
        state, sizeBytes, [&] { return ReadAll(sizeBytes, buffer, read); }, [&] { return plain.Read(ranges); });
}

void CompareDisk(benchmark::State& state, ProductType_t product, std::vector<Disk_t> chain) {
    CHardDiskReader disk(product);
    if (disk.OpenHardDisk(chain).IsErrorSet()) {
        state.SkipWithError("The disk doesn't open");
        return;
    }
    CompareReading(state, WholeDiskBytes,
                   [&](uint64_t offset, char* buffer) { return disk.ReadHardDiskData(offset, buffer, RequestBytes); });
}

void ReadDynamicVhd(benchmark::State& state) {
    CompareDisk(state, VirtualProdType_HyperV, {LinkOf(DynamicVhdDisk(), DiskType_VhdDynamic)});
}
BENCHMARK(ReadDynamicVhd)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(15);

void ReadSparseVmdk(benchmark::State& state) {
    CompareDisk(state, VirtualProdType_VMware, {LinkOf(FullSparseDisk(), DiskType_MonolithicSparse)});
}
BENCHMARK(ReadSparseVmdk)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(15);

// Every fourth grain comes from one of the two newer links, so a request takes some eight reads.
void ReadChainOfThree(benchmark::State& state) {
    CompareDisk(state, VirtualProdType_VMware,
                {LinkOf(FullSparseDisk(), DiskType_MonolithicSparse), LinkOf(SparseLink(0), DiskType_MonolithicSparse),
                 LinkOf(SparseLink(1), DiskType_MonolithicSparse)});
}
BENCHMARK(ReadChainOfThree)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(15);

void ReadVolumeOfVmdk(benchmark::State& state) {
    std::vector<LVM_HardDisk_t> disks(1);
    disks[0].Disks = {LinkOf(FullSparseDisk(), DiskType_MonolithicSparse)};
    CLVM volumes;
    if (volumes.InitializeFromDisk(disks).IsErrorSet() || volumes.GetVolumes().size() != 1) {
        state.SkipWithError("The disk has no volume");
        return;
    }
    const LVM_Volume_t volume = volumes.GetVolumes().front();
    CompareReading(state, WholeDiskBytes - RequestBytes, [&](uint64_t offset, char* buffer) {
        return volumes.ReadVolumeData(volume, offset, buffer, RequestBytes, nullptr);
    });
}
BENCHMARK(ReadVolumeOfVmdk)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(15);

// Opening a disk and finding its volumes; there is no peer.
void FindVolumes(benchmark::State& state) {
    for (auto _ : state) {
        std::vector<LVM_HardDisk_t> disks(1);
        disks[0].Disks = {LinkOf(FullSparseDisk(), DiskType_MonolithicSparse)};
        CLVM volumes;
        if (volumes.InitializeFromDisk(disks).IsErrorSet())
            state.SkipWithError("The disk has no volume");
    }
}
BENCHMARK(FindVolumes)->Unit(benchmark::kMicrosecond);

}  // namespace
