// Writes three dynamic disks, disk1 to disk3, into a directory: a striped volume over the first two and a
// RAID-5 volume over all three, each of so many MiB, with stripes of 64 KiB. They are full of noise, the
// parity too.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "tests/support/LdmGroupBuilder.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/TempDir.h"

namespace {

constexpr uint64_t StripeSectors = 128;
constexpr uint64_t DatabaseSectors = 2048;
constexpr size_t Disks = 3;

CLdmGroupBuilder GroupOf(uint64_t columnSectors, uint64_t diskSectors) {
    CLdmGroupBuilder group(Disks);
    group.DiskSectors(diskSectors);
    group.Volume(LdmStriped(StripeSectors, {{0, columnSectors, columnSectors}, {1, columnSectors, columnSectors}}));
    group.Volume(LdmRaid5(StripeSectors, {{0, 0, columnSectors}, {1, 0, columnSectors}, {2, 0, columnSectors}}));
    return group;
}

bool WriteDisk(const CLdmGroupBuilder& group, size_t disk, uint64_t diskSectors, const std::string& target) {
    const CTempDir dir;
    CImageFile image;
    const auto dataSectors = static_cast<uint32_t>(diskSectors - DatabaseSectors - group.DataStart());
    image.Put(0, CBootRecordBuilder().Slot(0, 0x42, static_cast<uint32_t>(group.DataStart()), dataSectors).Bytes());
    group.Database(disk).PutTo(image);
    image.Resize(diskSectors * 512);
    std::filesystem::rename(image.WriteTo(dir, "disk"), target);

    std::fstream file(target, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(group.DataStart() * 512));
    std::mt19937_64 random(disk);
    std::vector<uint64_t> noise(StripeSectors * 512 / sizeof(uint64_t));
    for (uint64_t sector = 0; sector + StripeSectors <= dataSectors; sector += StripeSectors) {
        for (uint64_t& word : noise)
            word = random();
        file.write(reinterpret_cast<const char*>(noise.data()), static_cast<std::streamsize>(StripeSectors * 512));
    }
    return file.flush().good();
}

}  // namespace

int main(int count, char** arguments) {
    const uint64_t mib = count == 3 ? std::strtoull(arguments[2], nullptr, 10) : 0;
    if (mib == 0) {
        std::fputs("usage: make_dynamic_disks DIRECTORY MIB, with TMPDIR on the same file system\n", stderr);
        return 2;
    }
    const uint64_t columnSectors = mib * 2048 / 2;
    const uint64_t diskSectors = 2 * columnSectors + DatabaseSectors + StripeSectors;
    const CLdmGroupBuilder group = GroupOf(columnSectors, diskSectors);
    for (size_t disk = 0; disk < Disks; ++disk) {
        if (!WriteDisk(group, disk, diskSectors, std::string(arguments[1]) + "/disk" + std::to_string(disk + 1)))
            return 1;
    }
    return 0;
}
