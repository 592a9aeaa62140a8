#include <string>
#include <vector>

#include "tests/agent/ManagedVolumes.h"
#include "tests/support/Lvm2Disks.h"

// The metadata of volume groups as it may be met: several copies that differ, and texts that tell of no
// sound volume.

namespace {

// A group of two physical volumes whose one volume begins at that extent of the first.
std::string TextAt(uint64_t extent, uint64_t sequenceNumber) {
    return GroupOf(2).SequenceNumber(sequenceNumber).LogicalVolume("root", {{0, 2, {{"pv0", extent}}}}).Text();
}

class Lvm2Metadata : public CManagedVolumesTest {
protected:
    void OpenTexts(const std::string& first, const std::string& second) {
        m_Paths.clear();
        AddDisk(WholePv(0, first));
        AddDisk(WholePv(1, second));
        Open();
    }

    void OpenText(const std::string& text) {
        m_Paths.clear();
        AddDisk(WholePv(0, text));
        Open();
    }
};

TEST_F(Lvm2Metadata, OfTheHighestSequenceNumberIsUsed) {
    OpenTexts(TextAt(5, 9), TextAt(7, 10));
    EXPECT_EQ(Texts_t{"vg-root"}, Names());
    ExpectHolds("vg-root", ExtentsOf(0, 7, 2));
    ExpectOneWarning({m_Paths[0] + ": its metadata of volume group vg is older than that on " + m_Paths[1]});
    OpenTexts(TextAt(5, 10), TextAt(7, 9));
    ExpectHolds("vg-root", ExtentsOf(0, 5, 2));
    ExpectOneWarning({m_Paths[1] + ": its metadata of volume group vg is older than that on " + m_Paths[0]});
}

TEST_F(Lvm2Metadata, OfTwoAreasOfOneDiskTheNewerIsUsed) {
    Lvm2Area_t older;
    older.size = 12288;
    older.text = TextAt(5, 3);
    Lvm2Area_t newer;
    newer.offset = 16384;
    newer.size = 16384;
    newer.text = TextAt(7, 4);
    AddDisk(WholePv(0, CLvm2Builder(PvId(0)).Sectors(PvSectors).MetadataArea(older).MetadataArea(newer)));
    Open();
    ExpectHolds("vg-root", ExtentsOf(0, 7, 2));
    EXPECT_EQ(1U, m_Set->Warnings().size());
}

TEST_F(Lvm2Metadata, ThatDiffersUnderOneSequenceNumberIsNotTrusted) {
    OpenTexts(TextAt(5, 9), TextAt(7, 9));
    EXPECT_EQ(Texts_t{"vg-root"}, Names());
    ExpectRefused("vg-root", {"two copies of its group's metadata, on " + m_Paths[0] + " and on " + m_Paths[1],
                              "differ though both have sequence number 9"});
}

TEST_F(Lvm2Metadata, ThatDiffersIsOutdoneByNewerOne) {
    AddDisk(WholePv(0, TextAt(5, 9)));
    AddDisk(WholePv(1, TextAt(7, 9)));
    AddDisk(WholePv(2, TextAt(11, 10)));
    Open();
    ExpectHolds("vg-root", ExtentsOf(0, 11, 2));
    OpenOnly({2, 0, 1});
    ExpectHolds("vg-root", ExtentsOf(0, 11, 2));
}

TEST_F(Lvm2Metadata, OfADiskWithoutAnyComesFromAnother) {
    AddDisk(WholePv(0, CLvm2Builder(PvId(0)).Sectors(PvSectors).NoMetadataArea()));
    AddDisk(WholePv(1, TextAt(5, 1)));
    Open();
    EXPECT_EQ(Texts_t{}, m_Set->Warnings());
    ExpectHolds("vg-root", ExtentsOf(0, 5, 2));
    OpenOnly({0});
    EXPECT_EQ(Texts_t{}, Names());
    ExpectOneWarning(
        {m_Paths[0] + ": is LVM2 physical volume " + WithLvm2Dashes(PvId(0)), "belongs to no volume group"});
}

TEST_F(Lvm2Metadata, ThatIsDamagedComesFromAnotherDisk) {
    Lvm2Area_t damaged;
    damaged.size = 28672;
    damaged.wrongTextCrc = 1;
    AddDisk(WholePv(0, CLvm2Builder(PvId(0)).Sectors(PvSectors).Text(TextAt(5, 1)).MetadataArea(damaged)));
    AddDisk(WholePv(1, TextAt(5, 1)));
    Open();
    ExpectOneWarning({m_Paths[0], "byte 4096", "checksum of its text"});
    ExpectHolds("vg-root", ExtentsOf(0, 5, 2));
}

TEST_F(Lvm2Metadata, APhysicalVolumeGivenAgainIsReadOnce) {
    AddDisk(PvInMbr(0, TextAt(5, 1)));
    AddDisk(WholePv(0, TextAt(5, 1)));
    Open();
    ExpectOneWarning(
        {m_Paths[1] + ": is the same LVM2 physical volume as " + m_Paths[0] + ": partition 2, which is read instead"});
    EXPECT_EQ(Texts_t{"vg-root"}, Names());
    ExpectHolds("vg-root", ExtentsOf(0, 5, 2));
}

TEST_F(Lvm2Metadata, OfAGroupWithoutVolumesGivesNone) {
    OpenText(GroupOf(1).Text());
    EXPECT_EQ(Texts_t{}, Names());
    EXPECT_EQ(Texts_t{}, m_Set->Warnings());
}

TEST_F(Lvm2Metadata, ThatCannotBeUsedIsAWarning) {
    const std::string sound = TextAt(5, 1);
    const struct {
        const char* name;
        std::string text;
        const char* words;
    } rows[] = {
        {"cut in its middle", sound.substr(0, sound.find("logical_volumes")), "a block doesn't end"},
        {"a torn line", Replaced(sound, "max_lv = 0", "max_lv = "), "line 9 of its text"},
        {"no group", "contents = \"Text Format Volume Group\"\n", "it tells of no volume group"},
        {"a group without physical volumes", "vg {\nseqno = 1\n}\n", "it tells of no volume group"},
        {"no sequence number", Replaced(sound, "seqno = 1\n", ""), "no sequence number"},
        {"a sequence number that is none", Replaced(sound, "seqno = 1\n", "seqno = one\n"), "no sequence number"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        OpenText(row.text);
        EXPECT_EQ(Texts_t{}, Names());
        const Texts_t warnings = m_Set->Warnings();
        ASSERT_EQ(2U, warnings.size());
        EXPECT_EQ(0U, warnings[0].find(m_Paths[0])) << warnings[0];
        EXPECT_NE(std::string::npos, warnings[0].find(row.words)) << warnings[0];
        EXPECT_NE(std::string::npos, warnings[1].find("belongs to no volume group")) << warnings[1];
    }
}

// A volume of three extents, the second segment in stripes, and what the text of it may say wrongly.
TEST_F(Lvm2Metadata, ThatTellsOfNoSoundVolumeIsNamed) {
    const std::string sound =
        GroupOf(2).LogicalVolume("root", {{0, 1, {{"pv0", 5}}}, {1, 2, {{"pv0", 6}, {"pv1", 7}}, 4}}).Text();
    OpenTexts(sound, sound);
    ExpectHolds("vg-root", ExtentsOf(0, 5, 1) + StripedContent({{0, 6}, {1, 7}}, 4, 1));
    const struct {
        const char* piece;
        const char* other;
        const char* words;
    } rows[] = {
        {"start_extent = 0", "start_extent = 1", "segment1 doesn't begin where the one in front of it ends"},
        {"start_extent = 1", "start_extent = 2", "segment2 doesn't begin where the one in front of it ends"},
        {"start_extent = 1", "start_extent = 0", "segment2 doesn't begin where the one in front of it ends"},
        {"start_extent = 1", "start_extent = 2305843009213693953", "segment2 doesn't begin"},
        {"start_extent = 1", "", "segment2 is not sound"},
        {"start_extent = 1", "start_extent = -1", "segment2 is not sound"},
        {"extent_count = 2", "extent_count = 3", "segment2 is not sound"},
        {"extent_count = 2", "extent_count = 0", "has no sound place on pv0"},
        {"extent_count = 2", "", "don't tell where they begin and end"},
        {"extent_count = 2", "extent_count = 18446744073709551615", "don't tell where they begin and end"},
        {"extent_count = 2", "extent_count = 1152921504606846976", "don't tell where they begin and end"},
        {"extent_count = 2", "extent_count = 18446744073709551616", "don't tell where they begin and end"},
        {"stripe_count = 2", "stripe_count = 1", "segment2 is not sound"},
        {"stripe_count = 2", "stripe_count = 3", "segment2 is not sound"},
        {"stripe_count = 2", "stripe_count = 0", "segment2 is not sound"},
        {"stripe_count = 2", "", "segment2 is not sound"},
        {"stripe_size = 4", "", "segment2 doesn't tell the size of its stripes"},
        {"stripe_size = 4", "stripe_size = 0", "aren't whole stripes of 0"},
        {"stripe_size = 4", "stripe_size = 5", "aren't whole stripes of 5"},
        {"stripe_size = 4", "stripe_size = 32", "aren't whole stripes of 32"},
        {"\"pv1\", 7", "\"pv2\", 7", "a stripe of it lies on pv2, which is no physical volume"},
        {"\"pv1\", 7", "\"pv1\", seven", "a stripe of it has no sound place on pv1"},
        {"\"pv1\", 7", "\"pv1\"", "segment2 is not sound"},
        {"\"pv1\", 7", "\"pv1\", 1152921504606846976", "a stripe of it has no sound place on pv1"},
        {"\"pv1\", 7", "\"pv1\", 64", "a stripe of it reaches behind the end of pv1"},
        {"\"pv1\", 7", "\"pv1\", 1152921504606846975", "a stripe of it"},
        {"\"pv0\", 5", "\"pv0\", 64", "a stripe of it reaches behind the end of pv0"},
        {"stripes = [", "stripe = [", "segment1 is not sound"},
        {"extent_size = 16", "", "doesn't tell the size of its extents"},
        {"extent_size = 16", "extent_size = 0", "doesn't tell the size of its extents"},
        {"extent_size = 16", "extent_size = 36028797018963968", "don't tell where they begin and end"},
        {"pe_start = 64", "", "lies on pv0, which is no physical volume"},
        {"pe_start = 64", "pe_start = 18446744073709551615", "a stripe of it has no sound place on pv0"},
        {"pe_start = 64", "pe_start = 977", "a stripe of it reaches behind the end of pv0"},
        {"segment1 {", "piece1 {", "segment2 doesn't begin where the one in front of it ends"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.piece << " as " << row.other);
        const std::string text = Replaced(sound, row.piece, row.other);
        OpenTexts(text, text);
        ExpectRefused("vg-root", {row.words});
        EXPECT_EQ(Texts_t{}, m_Set->Warnings());
    }
}

TEST_F(Lvm2Metadata, OfAVolumeWithoutSegmentsSaysSo) {
    OpenText(GroupOf(1).LogicalVolume("root", {}).Text());
    ExpectRefused("vg-root", {"it has no segments"});
}

TEST_F(Lvm2Metadata, MayPutTheLastExtentAtThePhysicalVolumesEnd) {
    OpenText(GroupOf(1).LogicalVolume("root", {{0, 1, {{"pv0", 63}}}}).Text());
    ExpectHolds("vg-root", ExtentsOf(0, 63, 1));
}

}  // namespace
