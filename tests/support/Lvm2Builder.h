#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/ImageFile.h"

// LVM2 physical volumes and the texts of their groups, put together by their own offsets.

// 32 characters that may be the id of something, the same for the same seed, and the form with dashes in which
// texts have it.
std::string Lvm2Id(uint64_t seed);
std::string WithLvm2Dashes(const std::string& id);

// The checksum of everything in LVM2.
uint32_t Lvm2Crc(const std::string& bytes);

// A stretch of a logical volume. One stripe makes it linear.
struct Lvm2Segment_t {
    uint64_t startExtent = 0;
    uint64_t extentCount = 0;
    std::vector<std::pair<std::string, uint64_t>> stripes{};  // a physical volume's name and its extent there
    uint64_t stripeSectors = 0;
    std::string type = "striped";
    std::vector<std::string> lines{};  // of other kinds of segments, in front of the stripes
};

// The text of a group, tabs, comments and all, as its own tools write it. Without a word it is "vg0" with extents
// of 8192 sectors and has neither physical nor logical volumes.
class CLvm2TextBuilder {
public:
    explicit CLvm2TextBuilder(std::string name = "vg0") : m_Name(std::move(name)) {}

    CLvm2TextBuilder& ExtentSectors(uint64_t sectors);
    CLvm2TextBuilder& SequenceNumber(uint64_t number);

    // `id` without dashes.
    CLvm2TextBuilder& PhysicalVolume(const std::string& name, const std::string& id, uint64_t extents,
                                     uint64_t firstSector = 2048, const std::string& status = "[\"ALLOCATABLE\"]");
    CLvm2TextBuilder& LogicalVolume(const std::string& name, const std::vector<Lvm2Segment_t>& segments,
                                    const std::string& status = "[\"READ\", \"WRITE\", \"VISIBLE\"]");

    // Lines of the group itself, in front of its blocks, and of the physical or logical volume that was added last.
    CLvm2TextBuilder& GroupLine(const std::string& line);
    CLvm2TextBuilder& PhysicalVolumeLine(const std::string& line);
    CLvm2TextBuilder& LogicalVolumeLine(const std::string& line);

    std::string Text() const;  // without the NUL that ends it on a disk

private:
    struct Block_t {
        std::string name;
        std::vector<std::string> lines;
        std::string segments;
    };

    std::string m_Name;
    uint64_t m_ExtentSectors = 8192;
    uint64_t m_SequenceNumber = 2;
    std::vector<std::string> m_Lines;
    std::vector<Block_t> m_PhysicalVolumes;
    std::vector<Block_t> m_LogicalVolumes;
};

// A metadata area. What isn't set is sound.
struct Lvm2Area_t {
    uint64_t offset = 4096;                  // bytes of the slice
    uint64_t size = 1044480;                 // bytes
    std::optional<std::string> text;         // its own instead of the physical volume's
    uint64_t textOffset = 512;               // bytes of the area. What goes over its end begins anew at 512
    std::string magic = " LVM2 x[5A%r0N*>";  // 16 characters
    uint32_t flags = 0;                      // of the text's location: 1 says that nobody is to read it
    uint32_t wrongHeaderCrc = 0;             // turns bits of the right one over
    uint32_t wrongTextCrc = 0;               // the same
};

// A physical volume: a whole disk, or a partition of one. Without a word it has 64 MiB behind its first MiB, its
// label in sector 1, the place of its extents at sector 2048, one metadata area, and belongs to no group.
class CLvm2Builder {
public:
    explicit CLvm2Builder(std::string id = Lvm2Id(1)) : m_Id(std::move(id)) {}

    CLvm2Builder& Sectors(uint64_t sectors);
    CLvm2Builder& Text(const std::string& text);  // of the areas that have none of their own
    CLvm2Builder& Text(const CLvm2TextBuilder& text) { return Text(text.Text()); }
    CLvm2Builder& LabelSector(uint64_t sector);             // where the label lies
    CLvm2Builder& StoredLabelSector(uint64_t sector);       // where it says that it lies
    CLvm2Builder& LabelSignature(const std::string& text);  // eight characters
    CLvm2Builder& LabelType(const std::string& text);       // eight characters
    CLvm2Builder& WrongLabelCrc(uint32_t bits);             // turns bits of the right one over

    // Offset and size in bytes, of the slice. The first call of each takes the place of the sound one.
    CLvm2Builder& DataArea(uint64_t offset, uint64_t size);
    CLvm2Builder& MetadataArea(const Lvm2Area_t& area);
    CLvm2Builder& NoMetadataArea();

    // A location of the label that leads nowhere: none is written there.
    CLvm2Builder& MetadataLocation(uint64_t offset, uint64_t size);

    // Damage, which comes last: bytes at a byte offset of the slice.
    CLvm2Builder& PutAt(uint64_t offset, std::string bytes);

    // As a partition that begins at `firstLba` of a disk whose size is known already, and as a whole disk.
    void PutTo(CImageFile& image, uint64_t firstLba) const;
    CImageFile Image() const;

private:
    std::string LabelBytes() const;
    std::vector<Lvm2Area_t> Areas() const;
    std::string TextOf(const Lvm2Area_t& area) const;
    std::string AreaHeaderBytes(const Lvm2Area_t& area) const;
    void PutText(CImageFile& image, uint64_t areaOffset, const Lvm2Area_t& area) const;

    using Location_t = std::pair<uint64_t, uint64_t>;

    std::string m_Id;
    uint64_t m_Sectors = 133120;
    std::string m_Text;
    uint64_t m_LabelSector = 1;
    std::optional<uint64_t> m_StoredLabelSector;
    std::string m_LabelSignature = "LABELONE";
    std::string m_LabelType = "LVM2 001";
    uint32_t m_WrongLabelCrc = 0;
    std::vector<Location_t> m_DataAreas;
    std::optional<std::vector<Lvm2Area_t>> m_Areas;
    std::vector<Location_t> m_Locations;
    std::vector<std::pair<uint64_t, std::string>> m_Damage;
};
