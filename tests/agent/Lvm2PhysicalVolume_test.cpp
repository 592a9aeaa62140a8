#include "agent/detail/Lvm2PhysicalVolume.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/agent/WholeDisks.h"
#include "tests/support/Bytes.h"
#include "tests/support/Lvm2Builder.h"

namespace {

using Texts_t = std::vector<std::string>;

constexpr uint64_t SliceSectors = 512;
constexpr uint64_t AreaOffset = 4096;
constexpr uint64_t AreaBytes = 28672;

Lvm2Area_t SmallArea(uint64_t offset = AreaOffset, uint64_t size = AreaBytes) {
    Lvm2Area_t area;
    area.offset = offset;
    area.size = size;
    return area;
}

// One of 256 KiB with one area.
CLvm2Builder Small() {
    return CLvm2Builder().Sectors(SliceSectors).Text("vg {\n}\n");
}
CLvm2Builder WithArea(const Lvm2Area_t& area) {
    return Small().MetadataArea(area);
}

class Lvm2PhysicalVolume : public testing::Test {
protected:
    // What the slice is, of a disk with nothing else on it. False for no physical volume.
    bool ReadAt(uint64_t startSector, const CLvm2Builder& builder, uint64_t sectors = SliceSectors) {
        CImageFile image;
        image.Resize((startSector + SliceSectors) * 512);
        builder.PutTo(image, startSector);
        return ReadImage(image, startSector, sectors);
    }

    bool ReadImage(const CImageFile& image, uint64_t startSector, uint64_t sectors) {
        CWholeDisk disk;
        EXPECT_OK(disk.Open(image.WriteTo(m_Dir, "disk"), RawUnlessKnown()));
        m_Volume = Lvm2PhysicalVolume_t();
        return ReadLvm2PhysicalVolume(disk, "here", startSector, sectors, m_Volume);
    }

    CTempDir m_Dir;
    Lvm2PhysicalVolume_t m_Volume;
};

TEST_F(Lvm2PhysicalVolume, HasItsLabelInOneOfTheFirstFourSectors) {
    for (const uint64_t sector : {0U, 1U, 2U, 3U}) {
        EXPECT_TRUE(ReadAt(0, WithArea(SmallArea()).LabelSector(sector))) << sector;
        EXPECT_EQ(Lvm2Id(1), m_Volume.id);
        EXPECT_EQ(Texts_t{std::string("vg {\n}\n") + '\0'}, m_Volume.texts);
        EXPECT_EQ(Texts_t{}, m_Volume.warnings);
    }
    EXPECT_FALSE(ReadAt(0, WithArea(SmallArea()).LabelSector(4)));
}

TEST_F(Lvm2PhysicalVolume, BeginsWhereItsSliceDoes) {
    EXPECT_TRUE(ReadAt(77, WithArea(SmallArea())));
    EXPECT_EQ(1U, m_Volume.texts.size());
    EXPECT_FALSE(ReadAt(77, WithArea(SmallArea()).LabelSector(3), 3));
}

TEST_F(Lvm2PhysicalVolume, IsNoneWithoutASoundLabel) {
    const struct {
        const char* name;
        CLvm2Builder builder;
    } rows[] = {
        {"another signature", Small().LabelSignature("LABELTWO")},
        {"another type", Small().LabelType("LVM1 001")},
        {"another type's version", Small().LabelType("LVM2 002")},
        {"a wrong checksum", Small().WrongLabelCrc(1)},
        {"a byte changed behind the checksum", Small().PutAt(512 + 500, "x")},
        {"another sector's number", Small().StoredLabelSector(2)},
        {"a sector's number of 64 bits", Small().StoredLabelSector((uint64_t{1} << 32U) + 1)},
    };
    for (const auto& row : rows)
        EXPECT_FALSE(ReadAt(0, row.builder)) << row.name;
    EXPECT_FALSE(ReadImage(Small().Image(), SliceSectors, SliceSectors)) << "behind the disk";
    EXPECT_FALSE(ReadImage(Small().Image(), ~uint64_t{0} - 2, 10)) << "a start that wraps";
}

TEST_F(Lvm2PhysicalVolume, ADamagedLabelInFrontOfTheSoundOneIsPassedOver) {
    CImageFile image = WithArea(SmallArea()).LabelSector(3).Image();
    CLvm2Builder(Lvm2Id(2)).NoMetadataArea().LabelSector(0).StoredLabelSector(9).PutTo(image, 0);
    CLvm2Builder(Lvm2Id(3)).NoMetadataArea().LabelSector(1).WrongLabelCrc(5).PutTo(image, 0);
    ASSERT_TRUE(ReadImage(image, 0, SliceSectors));
    EXPECT_EQ(Lvm2Id(1), m_Volume.id);
    EXPECT_EQ(1U, m_Volume.texts.size());
}

TEST_F(Lvm2PhysicalVolume, ATextGoesOnAtTheStartOfItsRing) {
    const std::string text = CLvm2TextBuilder().PhysicalVolume("pv0", Lvm2Id(1), 10).Text();
    const uint64_t size = text.size() + 1;
    for (const uint64_t textOffset : {uint64_t{512}, uint64_t{513}, AreaBytes - size, AreaBytes - size + 1,
                                      AreaBytes - size / 2, AreaBytes - 512, AreaBytes - 1}) {
        SCOPED_TRACE(textOffset);
        Lvm2Area_t area = SmallArea();
        area.textOffset = textOffset;
        ASSERT_TRUE(ReadAt(9, WithArea(area).Text(text)));
        EXPECT_EQ(Texts_t{}, m_Volume.warnings);
        EXPECT_EQ(Texts_t{text + '\0'}, m_Volume.texts);
    }
}

TEST_F(Lvm2PhysicalVolume, ATextMayFillItsRing) {
    Lvm2Area_t area = SmallArea(AreaOffset, 4096);
    area.textOffset = 2000;
    const std::string text(4096 - 512 - 1, 'x');
    ASSERT_TRUE(ReadAt(0, WithArea(area).Text(text)));
    EXPECT_EQ(Texts_t{text + '\0'}, m_Volume.texts);
}

TEST_F(Lvm2PhysicalVolume, AnAreaThatIsDamagedIsNotUsed) {
    const auto with = [](const auto& change) {
        Lvm2Area_t area = SmallArea();
        change(area);
        return WithArea(area);
    };
    const struct {
        const char* name;
        CLvm2Builder builder;
        const char* text;
    } rows[] = {
        {"the header's checksum", with([](Lvm2Area_t& area) { area.wrongHeaderCrc = 1; }), "its header is damaged"},
        {"a byte of the header", WithArea(SmallArea()).PutAt(AreaOffset + 511, "x"), "its header is damaged"},
        {"the magic", with([](Lvm2Area_t& area) { area.magic = " LVM2 x[5A%r0N*?"; }), "its header is damaged"},
        {"the text's checksum", with([](Lvm2Area_t& area) { area.wrongTextCrc = 1; }),
         "the checksum of its text is wrong"},
        {"a byte of the text", WithArea(SmallArea()).PutAt(AreaOffset + 512 + 3, "x"),
         "the checksum of its text is wrong"},
        {"a text behind the area", with([](Lvm2Area_t& area) { area.textOffset = AreaBytes; }),
         "its text lies outside of it"},
        {"a text larger than its ring", WithArea(SmallArea(AreaOffset, 1024)).Text(std::string(512, 'x')),
         "its text lies outside of it"},
        {"an area that leaves the slice",
         with([](Lvm2Area_t& area) { area.size = 1U << 20U, area.textOffset = 600000; }), "its text can't be read"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_TRUE(ReadAt(5, row.builder));
        EXPECT_EQ(Texts_t{}, m_Volume.texts);
        EXPECT_EQ(Texts_t{"here: the LVM2 metadata area at byte 4096 isn't used: " + std::string(row.text)},
                  m_Volume.warnings);
    }
}

TEST_F(Lvm2PhysicalVolume, ALocationThatLeadsOutOfTheSliceIsNotFollowed) {
    for (const uint64_t offset : {SliceSectors * 512, SliceSectors * 512 - 511, ~uint64_t{0}, ~uint64_t{0} - 511}) {
        ASSERT_TRUE(ReadAt(5, Small().NoMetadataArea().MetadataLocation(offset, 1024)));
        EXPECT_EQ(
            Texts_t{"here: the LVM2 metadata area at byte " + std::to_string(offset) + " isn't used: it can't be read"},
            m_Volume.warnings);
    }
}

TEST_F(Lvm2PhysicalVolume, AnAreaWithoutATextOrToBeIgnoredGivesNone) {
    Lvm2Area_t ignored = SmallArea();
    ignored.flags = 1;
    for (const CLvm2Builder& builder :
         {WithArea(SmallArea()).Text(std::string()), WithArea(ignored), Small().NoMetadataArea()}) {
        ASSERT_TRUE(ReadAt(0, builder));
        EXPECT_EQ(Texts_t{}, m_Volume.texts);
        EXPECT_EQ(Texts_t{}, m_Volume.warnings);
    }
}

TEST_F(Lvm2PhysicalVolume, OfSeveralAreasAllSoundOnesCount) {
    Lvm2Area_t damaged = SmallArea();
    damaged.wrongTextCrc = 1;
    Lvm2Area_t other = SmallArea(100000, 8192);
    other.text = "other { }";
    ASSERT_TRUE(ReadAt(0, WithArea(damaged).MetadataArea(other).MetadataArea(SmallArea(50000, 9000))));
    EXPECT_EQ((Texts_t{std::string("other { }") + '\0', std::string("vg {\n}\n") + '\0'}), m_Volume.texts);
    EXPECT_EQ(1U, m_Volume.warnings.size());
}

TEST_F(Lvm2PhysicalVolume, NoMoreAreasAreReadThanAnyHas) {
    CLvm2Builder builder = Small();
    for (uint64_t area = 1; area <= 6; ++area)
        builder.MetadataArea(SmallArea(area * 8192, 4096));
    ASSERT_TRUE(ReadAt(0, builder));
    EXPECT_EQ(5U, m_Volume.texts.size());
}

// A label's sector that is full of locations, with a pair of zeros behind the first of them or without any.
TEST_F(Lvm2PhysicalVolume, LocationsEndWithTheirSector) {
    for (const bool hasAreas : {false, true}) {
        CImageFile image = Small().NoMetadataArea().Image();
        std::string label = image.Bytes().substr(512, 512);
        for (size_t at = hasAreas ? 104 : 72; at + 16 <= label.size(); at += 16)
            PutBytes(label, at, LittleEndianBytes(1024, 8) + LittleEndianBytes(1024, 8));
        PutLe32(label, 16, Lvm2Crc(label.substr(20)));
        image.Put(512, label);
        ASSERT_TRUE(ReadImage(image, 0, SliceSectors));
        EXPECT_EQ(Texts_t{}, m_Volume.texts);
        EXPECT_EQ(hasAreas ? 5U : 0U, m_Volume.warnings.size());
    }
}

TEST_F(Lvm2PhysicalVolume, IdsArePrintedInGroups) {
    EXPECT_EQ(WithLvm2Dashes(Lvm2Id(7)), DashedLvm2Id(Lvm2Id(7)));
    EXPECT_EQ("abcdef-ghij-kl----", DashedLvm2Id("abcdefghijkl"));
}

}  // namespace
