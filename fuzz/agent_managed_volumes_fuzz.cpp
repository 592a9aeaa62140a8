// The input is pieces of up to three disks: the number of the disk, a sector, a length and bytes, again and again.
// Between them the disks are holes. Checksums of physical volumes are made right, so that what is behind them is
// met too. Whatever volume is found has to read as far as it says that it goes, and no further.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "agent/VolumeMap.h"
#include "agent/VolumeSet.h"
#include "foundation/detail/CheckedMath.h"
#include "fuzz/support/Demand.h"
#include "fuzz/support/MemoryFiles.h"
#include "platform/DriveName.h"

namespace {

constexpr uint64_t SectorBytes = 512;
constexpr uint64_t DiskBytes = 512 * SectorBytes;
constexpr size_t MostDisks = 3;
constexpr size_t MostVolumes = 16;
constexpr uint64_t SliceStarts[] = {0, 64 * SectorBytes};  // of the disk and of its partition
constexpr size_t HeadBytes = 5;
constexpr uint64_t LargestMendedText = 16384;

uint64_t NumberAt(const std::string& bytes, uint64_t at, size_t width) {
    uint64_t value = 0;
    for (size_t index = width; index-- > 0;)
        value = (value << 8U) | static_cast<unsigned char>(bytes[static_cast<size_t>(at) + index]);
    return value;
}

void PutNumber(std::string& bytes, uint64_t at, uint64_t value, size_t width) {
    for (size_t index = 0; index < width; ++index)
        bytes[static_cast<size_t>(at) + index] = static_cast<char>(value >> (8 * index));
}

uint32_t CrcOf(const std::string& bytes, uint64_t at, uint64_t size) {
    uint32_t crc = 0xF597A6CF;
    for (uint64_t index = at; index < at + size; ++index) {
        crc ^= static_cast<unsigned char>(bytes[static_cast<size_t>(index)]);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1U) ^ ((crc & 1U) != 0 ? 0xEDB88320U : 0U);
    }
    return crc;
}

// Texts that go round their ring keep their checksum.
void MendArea(std::string& disk, uint64_t area) {
    if (area > disk.size() - SectorBytes)
        return;
    const uint64_t offset = NumberAt(disk, area + 40, 8);
    const uint64_t size = NumberAt(disk, area + 48, 8);
    if (size <= LargestMendedText && offset <= disk.size() - area && size <= disk.size() - area - offset)
        PutNumber(disk, area + 56, CrcOf(disk, area + offset, size), 4);
    PutNumber(disk, area, CrcOf(disk, area + 4, SectorBytes - 4), 4);
}

// The metadata areas are those behind the first pair of zeros.
void MendLabel(std::string& disk, uint64_t slice, uint64_t label) {
    uint64_t lists = 0;
    for (uint64_t at = label + 72; at + 16 <= label + SectorBytes && lists < 2; at += 16) {
        const uint64_t offset = NumberAt(disk, at, 8);
        if (offset == 0 && NumberAt(disk, at + 8, 8) == 0)
            ++lists;
        else if (lists == 1 && offset < DiskBytes)
            MendArea(disk, slice + offset);
    }
    PutNumber(disk, label + 16, CrcOf(disk, label + 20, SectorBytes - 20), 4);
}

void MendChecksums(std::string& disk) {
    for (const uint64_t slice : SliceStarts) {
        for (uint64_t label = slice; label < slice + 4 * SectorBytes; label += SectorBytes) {
            if (disk.compare(static_cast<size_t>(label), 8, "LABELONE") == 0)
                MendLabel(disk, slice, label);
        }
    }
}

std::vector<std::string> DisksFrom(const uint8_t* data, size_t size) {
    std::vector<std::string> disks(1, std::string(DiskBytes, '\0'));
    const std::string input(reinterpret_cast<const char*>(data), size);
    for (size_t at = 0; at + HeadBytes <= size;) {
        const size_t disk = data[at] % MostDisks;
        const uint64_t offset = (NumberAt(input, at + 1, 2) * SectorBytes) % DiskBytes;
        const uint64_t length =
            std::min<uint64_t>({NumberAt(input, at + 3, 2), size - at - HeadBytes, DiskBytes - offset});
        disks.resize(std::max(disks.size(), disk + 1), std::string(DiskBytes, '\0'));
        disks[disk].replace(static_cast<size_t>(offset), static_cast<size_t>(length), input, at + HeadBytes,
                            static_cast<size_t>(length));
        at += HeadBytes + static_cast<size_t>(length);
    }
    return disks;
}

void CheckLayout(const CVolumeSet& set, const LVM_Volume_t& layout) {
    uint64_t next = 0;
    for (const LVM_Segment_t& segment : layout.Segments) {
        Demand(segment.LBAStart == next, "segments follow each other");
        for (const LVM_Component_t& component : segment.Components)
            Demand(component.HardDiskIndex < set.Disks().size() || component.HardDiskIndex == NoHardDisk,
                   "a component lies on one of the disks, or on none");
        LVM_Volume_t alone = layout;
        alone.Segments = {segment};
        next = VolumeSectors(alone);
    }
}

// One read gives the same bytes as two.
void CheckRead(CVolumeSet& set, const VolumeInfo_t& volume, uint64_t offset, uint64_t sizeBytes) {
    char whole[700];
    char parts[700];
    constexpr uint32_t first = 300;
    const bool isRead = !set.Read(volume, offset, whole, sizeof(whole)).IsErrorSet();
    Demand(!isRead || offset + sizeof(whole) <= sizeBytes, "no read goes on behind the volume");
    const bool isReadInParts = !set.Read(volume, offset, parts, first).IsErrorSet() &&
                               !set.Read(volume, offset + first, parts + first, sizeof(parts) - first).IsErrorSet();
    Demand(isRead == isReadInParts, "what can be read at once can be read in parts");
    Demand(!isRead || std::memcmp(whole, parts, sizeof(whole)) == 0, "and gives the same bytes");
}

void CheckVolume(CVolumeSet& set, const VolumeInfo_t& volume) {
    char byte = 0;
    if (!volume.problem.empty()) {
        Demand(set.Read(volume, 0, &byte, 1).IsErrorSet(), "a volume with a problem isn't read");
        return;
    }
    uint64_t sizeBytes = 0;
    if (!SectorsToBytes(volume.sectors, sizeBytes))
        return;
    Demand(VolumeSectors(volume.layout) == volume.sectors, "the layout has the volume's size");
    CheckLayout(set, volume.layout);
    VolumePiece_t piece;
    Demand(sizeBytes == 0 || FindVolumePiece(volume.layout, sizeBytes - 1, 1, piece), "the last byte has a place");
    Demand(!FindVolumePiece(volume.layout, sizeBytes, 1, piece), "the byte behind it has none");
    for (const uint64_t offset :
         {uint64_t{0}, uint64_t{300}, sizeBytes / 2, sizeBytes - std::min<uint64_t>(sizeBytes, 700)})
        CheckRead(set, volume, offset, sizeBytes);
}

void CheckSet(CVolumeSet& set) {
    std::set<std::string> names;
    for (const VolumeInfo_t& volume : set.Volumes())
        Demand(names.insert(volume.name).second, "no two volumes have the same name");
    for (size_t index = 0; index < std::min(set.Volumes().size(), MostVolumes); ++index)
        CheckVolume(set, set.Volumes()[index]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CMemoryFiles files;
    std::vector<std::string> paths;
    for (std::string& disk : DisksFrom(data, size)) {
        MendChecksums(disk);
        paths.push_back(std::string(DriveNamePrefix) + std::to_string(paths.size()));
        files.Put(paths.back(), disk.data(), disk.size());
    }
    {
        ImageOptions_t options;
        options.rawUnlessKnown = true;
        CVolumeSet set;
        if (!set.Open(paths, options).IsErrorSet())
            CheckSet(set);
    }
    Demand(files.OpenCount() == 0, "every file is closed in the end");
    return 0;
}
