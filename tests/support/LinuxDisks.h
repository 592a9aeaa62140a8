#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "VirtualServer/VMInfo/VIDALinuxDiskParser.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/HardDisks.h"
#include "tests/support/Lvm2Builder.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/TempDir.h"

// Disks with physical volumes, for the parser alone and for discovery.

constexpr uint8_t LinuxLvmType = 0x8E;
constexpr uint32_t SliceLba = 64;  // where each disk's partition begins

inline CImageFile LinuxDisk(const CLvm2Builder& physicalVolume, uint32_t sectors = 133120) {
    CImageFile image =
        CPartitionTableBuilder().Sectors(uint64_t{SliceLba} + sectors).Slot(0, LinuxLvmType, SliceLba, sectors).Image();
    physicalVolume.PutTo(image, SliceLba);
    return image;
}

// A disk, its first sector there, one behind its last one and the sectors of the logical volume.
inline std::string TextOf(const LVM_Component_t& component) {
    const std::string disk =
        component.HardDiskIndex == 0xFFFFFFFF ? std::string("none") : std::to_string(component.HardDiskIndex);
    return disk + ":" + std::to_string(component.DiskLBAStart) + "-" + std::to_string(component.DiskLBAEnd) + " as " +
           std::to_string(component.VolLBAStart) + "-" + std::to_string(component.VolLBAEnd);
}

// Name, type, and for each segment its sectors, its stripe size and its components.
inline std::string TextOf(const LVM_Volume_t& volume) {
    std::string text = std::string(volume.VolName) + " type " + std::to_string(volume.SystemID);
    for (const LVM_Segment_t& segment : volume.Segments) {
        text += " [" + std::to_string(segment.LBAStart) + "-" + std::to_string(segment.LBAEnd);
        text += " by " + std::to_string(segment.StripeSize);
        for (const LVM_Component_t& component : segment.Components)
            text += " " + TextOf(component);
        text += "]";
    }
    return text;
}

inline std::vector<std::string> TextsOf(const std::vector<LVM_Volume_t>& volumes) {
    std::vector<std::string> texts;
    for (const LVM_Volume_t& volume : volumes)
        texts.push_back(TextOf(volume));
    return texts;
}

// Opens disks of one partition each, and has what a parser needs of them.
class CLinuxParserTest : public testing::Test {
protected:
    // The partition of a disk with `image`, whose index is the number of those before it.
    void OpenDisks(const std::vector<CImageFile>& images) {
        std::vector<LVM_HardDisk_t> disks;
        for (const CImageFile& image : images)
            disks.push_back(FlatHardDisk(m_Dir, image, "disk" + std::to_string(disks.size())));
        ASSERT_OK(m_Lvm.InitializeFromDisk(disks));
    }

    LVM_Component_t Open(const CLvm2Builder& physicalVolume, uint32_t sectors = 133120) {
        OpenDisks({LinuxDisk(physicalVolume, sectors)});
        return SliceOf(0, sectors);
    }

    static LVM_Component_t SliceOf(uint32_t disk, uint32_t sectors = 133120) {
        LVM_Component_t slice;
        slice.DiskLBAStart = SliceLba;
        slice.DiskLBAEnd = uint64_t{SliceLba} + sectors - 1;
        slice.VolLBAEnd = sectors - 1;
        slice.HardDiskIndex = disk;
        return slice;
    }

    std::string TextPath() const { return m_Dir.File("text"); }

    CTempDir m_Dir;
    CLVM m_Lvm;
    VIDALinuxDiskParser m_Parser{&m_Lvm};
    std::string m_PvId;
};

// The statement throws the parser's exception, and this is its line.
#define EXPECT_PARSER_THROWS(statement, text)            \
    try {                                                \
        statement;                                       \
        ADD_FAILURE() << "nothing thrown";               \
    } catch (VIDALinuxDiskParserException & exception) { \
        EXPECT_STREQ(text, exception.GetErrorMsg());     \
    }
