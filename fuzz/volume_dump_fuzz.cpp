// The input is a volume dump, tried as it is and with a hole in front of its footer, which lets an input of a few
// hundred bytes promise large bitmaps. What is read of it takes memory by what the file holds, and what a stretch of a
// disk maps to at once has to be what it maps to sector by sector.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "fuzz/support/Demand.h"
#include "fuzz/support/MemoryCeiling.h"
#include "fuzz/support/MemoryFiles.h"

extern "C" __attribute__((weak)) size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);

namespace {

constexpr char Name[] = "dump";
constexpr size_t SignatureBytes = 10;
constexpr uint64_t HoleBytes = 32 * 1024;
// A bit of the top bitmap stands for a bucket, and growing takes as much again for a time.
constexpr uint64_t MemoryPerByte = 8 * sizeof(CAutoMemory<char>) + 16;
constexpr uint64_t MemoryForWork = 4U << 20U;
// What one input may cost.
constexpr size_t MostVolumes = 6;
constexpr size_t MostSegments = 3;
constexpr size_t MostDisks = 3;
constexpr size_t MostSectors = 10;
constexpr uint64_t MostBytesMapped = 40 * 512;

using Runs_t = std::vector<LVM_Disk_Offset_Len_t>;

std::string TextOf(const CZuError& error) {
    const char* const text = error.GetErrorText();
    return error.IsErrorSet() ? std::string("failed: ") + (text != nullptr ? text : "") : std::string();
}

bool IsSame(const LVM_Disk_Offset_Len_t& left, const LVM_Disk_Offset_Len_t& right) {
    return left.DiskOffset == right.DiskOffset && left.Length == right.Length && left.ExtentName == right.ExtentName &&
           left.BlockNumber == right.BlockNumber && left.BlockOffset == right.BlockOffset;
}

CZuError CheckRange(uint64_t offset, uint64_t length, const LVM_Volume_t& volume, const SparseInfo_t& disks,
                    Runs_t& runs) {
    CZuError error = CLVM::ConvertVolumeOffsetToDiskExtents(offset, length, volume, disks, runs);
    uint64_t mapped = 0;
    for (const LVM_Disk_Offset_Len_t& run : runs)
        mapped += run.Length;
    Demand(mapped <= length && (mapped == length) == !error.IsErrorSet(), "all that was asked for is mapped");
    return error;
}

void MapVolume(const LVM_Volume_t& volume, const SparseInfo_t& disks) {
    const auto map = [&](uint64_t offset, uint64_t length) {
        Runs_t runs;
        EitherWay(CheckRange(offset, length, volume, disks, runs));
    };
    map(0, MostBytesMapped);
    map(700, 10'000);
    for (size_t index = 0; index < std::min(volume.Segments.size(), MostSegments); ++index) {
        const LVM_Segment_t& segment = volume.Segments[index];
        for (const uint64_t sector : {segment.LBAStart, segment.LBAEnd, segment.StripeSize * 3}) {
            map(sector * 512 - 1024, 2560);
            map(sector * 512 + 100, 1000);
        }
        for (size_t component = 0; component < std::min(segment.Components.size(), MostSegments); ++component)
            map(segment.Components[component].VolLBAEnd * 512 - 512, MostBytesMapped / 4);
    }
}

// A volume that is the disk from that sector on.
LVM_Volume_t WholeDisk(uint32_t disk, uint64_t firstLba) {
    LVM_Component_t component;
    component.HardDiskIndex = disk;
    component.DiskLBAStart = firstLba;
    component.VolLBAEnd = uint64_t{1} << 54U;
    LVM_Volume_t volume;
    volume.Segments.resize(1);
    volume.Segments[0].Components = {component};
    return volume;
}

void CompareWithSectors(uint64_t offset, uint64_t length, const LVM_Volume_t& disk, const SparseInfo_t& disks) {
    Runs_t atOnce;
    const CZuError error = CheckRange(offset, length, disk, disks, atOnce);
    Runs_t stepwise;
    std::string failure;
    for (uint64_t done = 0; done < length && failure.empty();) {
        const uint64_t step = std::min(512 - (offset + done) % 512, length - done);
        failure = TextOf(CLVM::ConvertVolumeOffsetToDiskExtents(offset + done, step, disk, disks, stepwise));
        done += step;
    }
    Demand(TextOf(error) == failure, "a stretch is mapped as its sectors are");
    Demand(std::equal(atOnce.begin(), atOnce.end(), stepwise.begin(), stepwise.end(), IsSame),
           "the runs of a stretch are those of its sectors");
}

void MapDisks(const SparseInfo_t& disks) {
    for (size_t index = 0; index < std::min(disks.size(), MostDisks); ++index) {
        std::vector<uint64_t> sectors = {0};
        for (const auto& link : disks[index]) {
            for (const ExtentSparseInfo_t& extent : link) {
                for (const uint64_t sector :
                     {extent.ExtentStartLBA - 1, extent.ExtentEndLBA - 1,
                      extent.ExtentStartLBA + extent.GrainSize * (extent.GrainsPerBucket * extent.BucketCount - 2)})
                    sectors.push_back(sector);
            }
        }
        sectors.resize(std::min(sectors.size(), MostSectors));
        for (const uint64_t sector : sectors) {
            const LVM_Volume_t disk = WholeDisk(static_cast<uint32_t>(index), sector);
            CompareWithSectors(100, MostBytesMapped, disk, disks);
        }
    }
}

void CheckExtent(const ExtentSparseInfo_t& extent) {
    Demand(extent.TopBitmap.GetSize() == extent.TopBitmapBytes, "a top bitmap is as long as it is said to be");
    Demand(extent.Buckets.size() == (extent.TopBitmapBytes != 0 ? extent.BucketCount : 0), "each bucket has a place");
    for (const CAutoMemory<char>& bucket : extent.Buckets)
        Demand(bucket.GetSize() == 0 || bucket.GetSize() == extent.BucketBytes, "a bucket is whole or not there");
}

void CheckDisks(const SparseInfo_t& disks) {
    for (const auto& links : disks) {
        for (const auto& link : links) {
            for (const ExtentSparseInfo_t& extent : link)
                CheckExtent(extent);
        }
    }
}

void ReadDump(uint64_t fileBytes) {
    std::vector<LVM_Volume_t> volumes;
    SparseInfo_t disks;
    CZuError error;
    {
        const CMemoryCeiling ceiling(MemoryForWork + fileBytes * MemoryPerByte);
        error = CLVM::ReadVolumeInfoFromDump(Name, volumes, &disks);
    }
    std::vector<LVM_Volume_t> alone;
    const CZuError errorAlone = CLVM::ReadVolumeInfoFromDump(Name, alone, nullptr);
    Demand(error.IsErrorSet() || !errorAlone.IsErrorSet(), "volumes of a sound dump are read without its disks too");
    Demand(alone.size() == volumes.size(), "the volumes of a dump are the same without its disks");
    if (error.IsErrorSet())
        return;
    CheckDisks(disks);
    MapDisks(disks);
    for (size_t index = 0; index < std::min(volumes.size(), MostVolumes); ++index)
        MapVolume(volumes[index], disks);
}

void PutDump(CMemoryFiles& files, const uint8_t* data, size_t size, uint64_t holeBytes) {
    const size_t front = size - std::min(size, SignatureBytes);
    files.Put(Name, data, front, holeBytes);
    CZuFile file;
    DemandSuccess(file.Open(Name, OpenForWriting | OpenAsBinary, 384), "a file in memory opens");
    DemandSuccess(file.Seek(0, 2, nullptr), "a file has an end");
    unsigned int put = 0;
    if (size != front)
        DemandSuccess(file.Write(data + front, static_cast<unsigned int>(size - front), &put), "memory takes bytes");
    DemandSuccess(file.Close(), "a file closes");
}

// Numbers are text, which an ordinary mutation takes for letters.
class CNumberMutator {
public:
    CNumberMutator(uint8_t* data, size_t size, unsigned seed) : m_Data(data), m_Size(size), m_Random(seed) {}

    bool Run() {
        for (size_t at = 0; at < m_Size;) {
            const size_t end = EndOfDigits(at);
            if (end - at >= 8)
                m_Numbers.push_back({at, end - at >= 16 ? 16U : 8U});
            at = std::max(end, at + 1);
        }
        if (m_Numbers.empty() || Below(4) == 0)
            return false;
        for (size_t turn = Below(3) + 1; turn > 0; --turn)
            Change(m_Numbers[Below(m_Numbers.size())]);
        return true;
    }

private:
    struct Number_t {
        size_t at;
        size_t digits;
    };

    size_t Below(size_t end) { return m_Random() % end; }

    size_t EndOfDigits(size_t at) const {
        while (at < m_Size && std::strchr("0123456789abcdef", m_Data[at]) != nullptr && m_Data[at] != 0)
            ++at;
        return at;
    }

    uint64_t Another() {
        const uint64_t power = uint64_t{1} << Below(64);
        switch (Below(6)) {
        case 0: return 0;
        case 1: return ~uint64_t{0};
        case 2: return power - 1;
        case 3: return power + Below(3);
        default: return Below(40);
        }
    }

    void Change(const Number_t& number) {
        uint64_t value = Another();
        for (size_t index = number.digits; index-- > 0; value >>= 4U)
            m_Data[number.at + index] = static_cast<uint8_t>("0123456789abcdef"[value & 15U]);
    }

    uint8_t* m_Data;
    size_t m_Size;
    std::minstd_rand m_Random;
    std::vector<Number_t> m_Numbers;
};

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize, unsigned int seed) {
    return CNumberMutator(data, size, seed).Run() ? size : LLVMFuzzerMutate(data, size, maxSize);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CMemoryFiles files;
    for (const uint64_t holeBytes : {uint64_t{0}, HoleBytes}) {
        PutDump(files, data, size, holeBytes);
        ReadDump(size + holeBytes);
    }
    Demand(files.OpenCount() == 0, "every file is closed in the end");
    return 0;
}
