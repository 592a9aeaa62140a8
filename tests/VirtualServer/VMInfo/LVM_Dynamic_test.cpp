#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/HardDisks.h"
#include "tests/support/LdmGroupBuilder.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"

// What `CLVM` finds on dynamic disks, and that it reads.

namespace {

std::string Run(uint64_t first, uint64_t last) {
    return std::to_string(first) + "-" + std::to_string(last);
}

// A piece as a text: its disk, its sectors there, its sectors of the volume, its column.
std::string TextOf(const LVM_Component_t& component) {
    const std::string disk = component.HardDiskIndex == 0xFFFFFFFF ? "?" : std::to_string(component.HardDiskIndex);
    return disk + " at " + Run(component.DiskLBAStart, component.DiskLBAEnd) + " as " +
           Run(component.VolLBAStart, component.VolLBAEnd) + " column " + std::to_string(component.ColumnIndex);
}

class LvmDynamic : public testing::Test {
protected:
    // The disks of the group with these numbers, in this order.
    std::vector<LVM_HardDisk_t> Disks(const CLdmGroupBuilder& group, const std::vector<size_t>& numbers) {
        std::vector<LVM_HardDisk_t> disks;
        for (const size_t number : numbers)
            disks.push_back(Disk(group.Image(number)));
        return disks;
    }

    LVM_HardDisk_t Disk(const CImageFile& image) {
        return FlatHardDisk(m_Dir, image, "disk" + std::to_string(m_DiskCount++));
    }

    LVM_Volume_t OnlyVolume(std::vector<LVM_HardDisk_t> disks) {
        EXPECT_OK(m_Lvm.InitializeFromDisk(disks));
        EXPECT_EQ(1U, m_Lvm.GetVolumes().size());
        return m_Lvm.GetVolumes().empty() ? LVM_Volume_t() : m_Lvm.GetVolumes().front();
    }

    static std::vector<std::string> PiecesOf(const LVM_Volume_t& volume) {
        std::vector<std::string> texts;
        for (const LVM_Segment_t& segment : volume.Segments) {
            for (const LVM_Component_t& component : segment.Components)
                texts.push_back(TextOf(component));
        }
        return texts;
    }

    std::string Read(const LVM_Volume_t& volume, uint64_t sector, uint64_t sectors) {
        std::string bytes(sectors * 512, '?');
        EXPECT_OK(
            m_Lvm.ReadVolumeData(volume, sector * 512, bytes.data(), static_cast<uint32_t>(bytes.size()), nullptr))
            << sectors << " at " << sector;
        return bytes;
    }

    CTempDir m_Dir;
    int m_DiskCount = 0;
    CLVM m_Lvm;
};

using Texts_t = std::vector<std::string>;

TEST_F(LvmDynamic, ASimpleVolumeIsOnePieceOfItsDisk) {
    const CLdmGroupBuilder group = CLdmGroupBuilder(1).Volume(LdmSimple({0, 20, 100}));
    const LVM_Volume_t volume = OnlyVolume(Disks(group, {0}));
    EXPECT_EQ((Texts_t{"0 at 83-182 as 0-99 column 0"}), PiecesOf(volume));
    EXPECT_STREQ("Volume1", volume.VolName);
    EXPECT_EQ(7, volume.SystemID);
    EXPECT_EQ(0, volume.IsRaid5);
    EXPECT_EQ(1, volume.AllDiskFound);
    ASSERT_EQ(1U, volume.Segments.size());
    EXPECT_EQ(0U, volume.Segments[0].StripeSize);
    EXPECT_EQ(0U, volume.Segments[0].LBAStart);
    EXPECT_EQ(99U, volume.Segments[0].LBAEnd);
    EXPECT_SAME_BYTES(group.VolumeBytes(0), Read(volume, 0, 100));
}

}  // namespace
