// From a range of a volume to the backup blocks of its disks, by what a dump tells of them. There is no peer: the
// counters are the runs that come out and how long one takes.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"

namespace {

constexpr uint64_t TiB = uint64_t{1} << 40U;
constexpr uint64_t DiskSectors = TiB / 512;
constexpr char WholeByte = '\xFF';

void Fill(CAutoMemory<char>& bitmap, uint32_t bytes, char value) {
    bitmap.Alloc(bytes);
    std::memset(bitmap.GetPtr(), value, bytes);
}

// An extent of 1 TiB whose blocks lie in files, all of them.
ExtentSparseInfo_t FlatExtent(const char* name, uint64_t blockSectors) {
    ExtentSparseInfo_t extent;
    extent.ExtentName = name;
    extent.ExtentEndLBA = DiskSectors - 1;
    extent.BlockSize = blockSectors;
    extent.GrainSize = blockSectors;
    return extent;
}

// The same with bitmaps; `grains` are the bits of each byte of them, whose high one is the first grain of eight.
ExtentSparseInfo_t SparseExtent(const char* name, uint64_t blockSectors, uint64_t grainSectors,
                                uint64_t grainsPerBucket, char grains) {
    ExtentSparseInfo_t extent = FlatExtent(name, blockSectors);
    extent.GrainSize = grainSectors;
    extent.GrainsPerBucket = grainsPerBucket;
    extent.BucketCount = DiskSectors / (grainSectors * grainsPerBucket);
    extent.BucketBytes = static_cast<uint32_t>(grainsPerBucket / 8);
    extent.TopBitmapBytes = static_cast<uint32_t>(extent.BucketCount / 8);
    Fill(extent.TopBitmap, extent.TopBitmapBytes, WholeByte);
    extent.Buckets.resize(static_cast<size_t>(extent.BucketCount));
    for (CAutoMemory<char>& bucket : extent.Buckets)
        Fill(bucket, extent.BucketBytes, grains);
    return extent;
}

LVM_Volume_t VolumeOfWholeDisk() {
    LVM_Component_t component;
    component.HardDiskIndex = 0;
    component.DiskLBAEnd = DiskSectors - 1;
    component.VolLBAEnd = DiskSectors - 1;
    LVM_Volume_t volume;
    volume.AllDiskFound = 1;
    volume.Segments.resize(1);
    volume.Segments[0].Components = {component};
    volume.Segments[0].LBAEnd = DiskSectors;
    return volume;
}

// `links` are those of one disk, the base first.
void MapAll(benchmark::State& state, std::vector<std::vector<ExtentSparseInfo_t>> links) {
    const LVM_Volume_t volume = VolumeOfWholeDisk();
    SparseInfo_t disks;
    disks.push_back(std::move(links));
    size_t count = 0;
    for (auto _ : state) {
        std::vector<LVM_Disk_Offset_Len_t> runs;
        if (CLVM::ConvertVolumeOffsetToDiskExtents(0, TiB, volume, disks, runs).IsErrorSet())
            state.SkipWithError("The range isn't mapped");
        count = runs.size();
        benchmark::DoNotOptimize(runs.data());
        state.PauseTiming();
        runs = {};
        state.ResumeTiming();
    }
    state.counters["runs"] = static_cast<double>(count);
    state.counters["per_run"] = benchmark::Counter(
        static_cast<double>(count), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// Blocks of 2 MiB with a bit for each sector, all of them set, and a sector of bits in front of each block.
void MapDynamicVhd(benchmark::State& state) {
    ExtentSparseInfo_t extent = SparseExtent("disk", 4096, 1, 4096, WholeByte);
    extent.ExtentFileOffset = 512;
    MapAll(state, {{extent}});
}
BENCHMARK(MapDynamicVhd)->Unit(benchmark::kMillisecond)->Iterations(5);

// All grains, 64 KiB each, which are the blocks too: a run for each.
void MapSparseVmdk(benchmark::State& state) {
    MapAll(state, {{SparseExtent("disk_00000000", 128, 128, 512, WholeByte)}});
}
BENCHMARK(MapSparseVmdk)->Unit(benchmark::kMillisecond)->Iterations(1);

// A flat disk in blocks of 1 MiB, and a newer link that holds one grain of 64 KiB in every thousand or so.
void MapSmallChild(benchmark::State& state) {
    ExtentSparseInfo_t child = SparseExtent("child_00000000", 128, 128, 512, '\0');
    for (size_t bucket = 0; bucket < child.Buckets.size(); bucket += 2)
        *child.Buckets[bucket].GetPtr() = '\x10';
    MapAll(state, {{FlatExtent("disk_00000000", 2048)}, {child}});
}
BENCHMARK(MapSmallChild)->Unit(benchmark::kMillisecond)->Iterations(5);

// The same where the child's buckets are empty, so that its top bitmap alone tells.
void MapEmptyChild(benchmark::State& state) {
    ExtentSparseInfo_t child = SparseExtent("child_00000000", 128, 128, 512, '\0');
    std::memset(child.TopBitmap.GetPtr(), 0, child.TopBitmap.GetSize());
    child.Buckets.assign(child.Buckets.size(), {});
    MapAll(state, {{FlatExtent("disk_00000000", 2048)}, {child}});
}
BENCHMARK(MapEmptyChild)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
