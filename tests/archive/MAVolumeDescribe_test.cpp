#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/MetadataTestVolume.h"
#include "tests/support/SameBytes.h"

// What `CMAVolume` tells of the attributes whose bytes lie outside of the metadata.

namespace {

using Attribute = CNtfsAttributeBuilder;
using FileRecord = CNtfsFileRecordBuilder;
using Files = CMetadataFilesBuilder;

constexpr uint64_t FileFrn = 5;
constexpr uint64_t AllOnes = ~uint64_t{0};

Attribute DataIn(const std::vector<NtfsRun_t>& runs, uint64_t bytes) {
    return Attribute::NonResident(NtfsDataType, runs, bytes);
}

std::string Characters(const std::u16string& text) {
    std::string bytes;
    for (const char16_t character : text)
        bytes += LittleEndianBytes(character, 2);
    return bytes;
}

// The block that describes these runs, of which the first one begins at `vcn`.
std::string Extents(const std::vector<NtfsRun_t>& runs, uint64_t vcn = 0) {
    std::string bytes = LittleEndianBytes(runs.size(), 8);
    for (const NtfsRun_t& run : runs) {
        vcn += run.clusters;
        bytes += LittleEndianBytes(vcn, 8) + LittleEndianBytes(run.clusters, 8);
        bytes += LittleEndianBytes(run.lcn.value_or(AllOnes), 8);
        bytes += LittleEndianBytes(run.lcn ? *run.lcn + run.clusters - 1 : AllOnes, 8);
    }
    return bytes;
}

class MAVolumeDescribe : public CMetadataVolumeTest {
protected:
    void OpenOnly(const std::vector<Attribute>& attributes) {
        FileRecord record;
        for (const Attribute& attribute : attributes)
            record.Add(attribute);
        ASSERT_EQ(NtfsOk, Open(Files().Record(FileFrn, record)));
        ASSERT_EQ(NtfsOk, OpenFile(FileFrn, m_File));
    }

    Description_t Next() {
        m_Volume.SetLastErrorStr("before");
        return ReadDescription(m_File);
    }

    void ExpectNext(uint32_t type, const std::u16string& name, uint64_t size, const std::string& extents) {
        const Description_t told = Next();
        EXPECT_EQ(NtfsOk, told.result);
        EXPECT_STREQ("", m_Volume.GetLastErrorStr());
        EXPECT_EQ(type, told.type);
        EXPECT_SAME_BYTES(Characters(name), told.name);
        EXPECT_EQ(size, told.size);
        EXPECT_EQ(size, told.sizeOnDisk);
        EXPECT_EQ(0, told.compressionUnit);
        EXPECT_SAME_BYTES(extents, told.extents);
    }

    void ExpectEnd() {
        const Description_t told = Next();
        EXPECT_EQ(NtfsEndOfRun, told.result);
        EXPECT_STREQ("", m_Volume.GetLastErrorStr());
        EXPECT_EQ("", told.name);
        EXPECT_EQ("", told.extents);
        EXPECT_EQ(0U, told.size);
        EXPECT_EQ(0U, told.sizeOnDisk);
        EXPECT_EQ(0U, told.type);
        EXPECT_EQ(0, told.compressionUnit);
    }

    File_t m_File;
};

TEST_F(MAVolumeDescribe, ABigFileIsOneAttributeAndTheEnd) {
    const std::vector<NtfsRun_t> runs = {{1000, 5}, {NtfsHole, 3}, {20, 1}};
    OpenOnly({Attribute::Resident(NtfsStandardInformationType, std::string(72, 'i')), DataIn(runs, 36'000)});
    ExpectNext(NtfsDataType, u"", 36'000, Extents(runs));
    ExpectEnd();
    ExpectEnd();
}

TEST_F(MAVolumeDescribe, AFileWhoseBytesAreInItsRecordIsOverAtOnce) {
    OpenOnly({Attribute::Resident(NtfsDataType, "contents")});
    ExpectEnd();
}

TEST_F(MAVolumeDescribe, AttributesOfEveryTypeComeByTheirInstances) {
    OpenOnly({Attribute::NonResident(NtfsIndexAllocationType, {{9, 1}}, 4096).Name(u"$I30").Instance(7),
              DataIn({{5, 1}}, 4000).Instance(65535), Attribute::NonResident(NtfsBitmapType, {{6, 1}}, 8).Instance(0),
              Attribute::NonResident(NtfsEaType, {{7, 1}}, 100).Instance(3),
              Attribute::NonResident(NtfsSecurityDescriptorType, {{8, 1}}, 200).Instance(4)});
    ExpectNext(NtfsBitmapType, u"", 8, Extents({{6, 1}}));
    ExpectNext(NtfsEaType, u"", 100, Extents({{7, 1}}));
    ExpectNext(NtfsSecurityDescriptorType, u"", 200, Extents({{8, 1}}));
    ExpectNext(NtfsIndexAllocationType, u"$I30", 4096, Extents({{9, 1}}));
    ExpectNext(NtfsDataType, u"", 4000, Extents({{5, 1}}));
    ExpectEnd();
}

TEST_F(MAVolumeDescribe, OfTwoOfOneInstanceTheLastComesAlone) {
    OpenOnly({DataIn({{5, 1}}, 1000).Instance(2).Name(u"first"), DataIn({{6, 1}}, 2000).Instance(2).Name(u"last")});
    ExpectNext(NtfsDataType, u"last", 2000, Extents({{6, 1}}));
    ExpectEnd();
}

// The other half of the file leaves its last instance in the position that both use.
TEST_F(MAVolumeDescribe, BehindTheResidentStreamsLowerInstancesAreMissed) {
    OpenOnly({DataIn({{5, 1}}, 1000).Instance(2).Name(u"a"), Attribute::Resident(NtfsDataType, "here").Instance(4),
              DataIn({{6, 1}}, 2000).Instance(4).Name(u"b"), DataIn({{7, 1}}, 3000).Instance(6).Name(u"c")});
    m_File.context.tableIndex = 1;
    EXPECT_EQ(24U, ReadResident(m_File).bytes.size());
    ExpectNext(NtfsDataType, u"b", 2000, Extents({{6, 1}}));
    ExpectNext(NtfsDataType, u"c", 3000, Extents({{7, 1}}));
    ExpectEnd();
    ASSERT_EQ(NtfsOk, OpenFile(FileFrn, m_File));
    ExpectNext(NtfsDataType, u"a", 1000, Extents({{5, 1}}));
}

TEST_F(MAVolumeDescribe, OfACompressedAttributeTheSizeOnDiskIsTold) {
    // The field behind the form counts what isn't left out.
    OpenOnly(
        {DataIn({{5, 4}, {NtfsHole, 12}}, 60'000).CompressionUnit(4).Flags(1).PutAt(64, LittleEndianBytes(16'384, 8))});
    const Description_t told = Next();
    EXPECT_EQ(NtfsOk, told.result);
    EXPECT_EQ(60'000U, told.size);
    EXPECT_EQ(16'384U, told.sizeOnDisk);
    EXPECT_EQ(4, told.compressionUnit);
    EXPECT_SAME_BYTES(Extents({{5, 4}, {NtfsHole, 12}}), told.extents);
}

// What has no room on the disk ends the walk for its caller, who may go on all the same.
TEST_F(MAVolumeDescribe, AnAttributeWithoutContentLooksLikeTheEnd) {
    OpenOnly({DataIn({}, 0).Instance(1).Name(u"none"), DataIn({{5, 1}}, 10).Instance(2)});
    const Description_t told = Next();
    EXPECT_EQ(NtfsEndOfRun, told.result);
    EXPECT_STREQ("", m_Volume.GetLastErrorStr());
    EXPECT_EQ(uint32_t{NtfsDataType}, told.type);
    EXPECT_SAME_BYTES(Characters(u"none"), told.name);
    ExpectNext(NtfsDataType, u"", 10, Extents({{5, 1}}));
    ExpectEnd();
}

TEST_F(MAVolumeDescribe, SegmentsOfAnUnnamedAttributeAreJoined) {
    OpenOnly({DataIn({{300, 3}}, 0).LowestVcn(7).Instance(1), DataIn({{100, 2}, {NtfsHole, 1}}, 40'000).Instance(5),
              DataIn({{200, 4}}, 0).LowestVcn(3).Instance(0), DataIn({{900, 1}}, 0).LowestVcn(11).Instance(2),
              Attribute::NonResident(NtfsBitmapType, {{800, 1}}, 0).LowestVcn(10)});
    ExpectNext(NtfsDataType, u"", 40'000, Extents({{100, 2}, {NtfsHole, 1}, {200, 4}, {300, 3}}));
    ExpectEnd();
}

TEST_F(MAVolumeDescribe, SegmentsOfExtensionRecordsAreJoinedToo) {
    Files files = Files().Record(FileFrn, FileRecord().Add(DataIn({{100, 2}}, 9000)));
    files.Record(8, FileRecord().BaseReference(5).Add(DataIn({{200, 1}}, 0).LowestVcn(2))).Associate(FileFrn, 8);
    ASSERT_EQ(NtfsOk, Open(files));
    ASSERT_EQ(NtfsOk, OpenFile(FileFrn, m_File));
    ExpectNext(NtfsDataType, u"", 9000, Extents({{100, 2}, {200, 1}}));
    ExpectEnd();
}

// Callers rely on it: characters are held against bytes.
TEST_F(MAVolumeDescribe, SegmentsOfANamedAttributeStayApart) {
    OpenOnly({DataIn({{100, 2}}, 9000).Name(u"name"), DataIn({{200, 1}}, 0).LowestVcn(2).Name(u"name"),
              DataIn({{300, 1}}, 0).LowestVcn(2)});
    ExpectNext(NtfsDataType, u"name", 9000, Extents({{100, 2}}));
    ExpectEnd();
}

TEST_F(MAVolumeDescribe, ASegmentOfTwiceAsManyCharactersThatBeginsWithTheNameIsJoined) {
    OpenOnly({DataIn({{100, 2}}, 9000).Name(u"ab"), DataIn({{200, 1}}, 0).LowestVcn(2).Name(u"abcd"),
              DataIn({{300, 1}}, 0).LowestVcn(3).Name(u"acbd")});
    ExpectNext(NtfsDataType, u"ab", 9000, Extents({{100, 2}, {200, 1}}));
    ExpectEnd();
}

TEST_F(MAVolumeDescribe, OfTwoSegmentsForOnePlaceTheFirstIsJoined) {
    OpenOnly({DataIn({{100, 2}}, 9000), DataIn({{200, 1}}, 0).LowestVcn(2), DataIn({{300, 1}}, 0).LowestVcn(2),
              DataIn({{400, 1}}, 0).LowestVcn(3)});
    ExpectNext(NtfsDataType, u"", 9000, Extents({{100, 2}, {200, 1}, {400, 1}}));
}

// Else it would be found for ever.
TEST_F(MAVolumeDescribe, ASegmentIsJoinedOnce) {
    OpenOnly({DataIn({{100, 2}}, 9000), DataIn({{200, 1}}, 0).LowestVcn(2).HighestVcn(1)});
    ExpectNext(NtfsDataType, u"", 9000, Extents({{100, 2}, {200, 1}}));
    OpenOnly({DataIn({{100, 2}}, 9000), DataIn({{200, 1}}, 0).LowestVcn(2).HighestVcn(6),
              DataIn({{300, 1}}, 0).LowestVcn(7).HighestVcn(1)});
    std::string expected = Extents({{100, 2}, {200, 1}, {300, 1}});
    PutLe64(expected, 8 + 2 * 32, 8);
    ExpectNext(NtfsDataType, u"", 9000, expected);
    OpenOnly({DataIn({{100, 2}}, 9000).HighestVcn(AllOnes)});
    ExpectNext(NtfsDataType, u"", 9000, Extents({{100, 2}}));
}

TEST_F(MAVolumeDescribe, RunsThatCannotBeDecodedAreToldAndTheNextAttributeFollows) {
    const struct {
        const char* name;
        std::string runs;
        int result;
        const char* text;
    } rows[] = {
        {"a number of nine bytes", std::string("\x19") + std::string(20, '\0'), NtfsRunTooWide,
         "Run Offset More than 8 Bytes"},
        {"no end within the attribute", NtfsRunBytes(3, 4, 4, 9), NtfsRecordCorrupted, "File Record is Corrupted"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        OpenOnly({DataIn({{5, 1}}, 10).Instance(1).RunList(row.runs), DataIn({{6, 1}}, 20).Instance(2).Name(u"next")});
        const Description_t told = Next();
        EXPECT_EQ(row.result, told.result);
        EXPECT_STREQ(row.text, m_Volume.GetLastErrorStr());
        ExpectNext(NtfsDataType, u"next", 20, Extents({{6, 1}}));
        OpenOnly({DataIn({{5, 2}}, 10).Instance(1), DataIn({{6, 1}}, 0).LowestVcn(2).Instance(2).RunList(row.runs)});
        EXPECT_EQ(row.result, Next().result) << "in a later segment";
        EXPECT_STREQ(row.text, m_Volume.GetLastErrorStr());
        ExpectEnd();
    }
}

TEST_F(MAVolumeDescribe, EachArgumentHasToBeThere) {
    OpenOnly({DataIn({{5, 1}}, 10)});
    CAutoMemory<char> name;
    CAutoMemory<char> extents;
    CAutoMemory<char> none;
    uint64_t sizes[2] = {};
    uint32_t type = 0;
    uint16_t unit = 0;
    for (int missing = 0; missing < 9; ++missing) {
        CAutoMemory<char>* const record = missing == 0 ? nullptr : missing == 8 ? &none : &m_File.record;
        EXPECT_META_FAILURE(NtfsInvalidParameter, "Invalid Parameter",
                            m_Volume.BackupReadNRA(record, missing == 1 ? nullptr : &name,
                                                   missing == 2 ? nullptr : &sizes[0],
                                                   missing == 3 ? nullptr : &sizes[1], missing == 4 ? nullptr : &type,
                                                   missing == 5 ? nullptr : &unit, missing == 6 ? nullptr : &extents,
                                                   missing == 7 ? nullptr : &m_File.context));
    }
    ExpectNext(NtfsDataType, u"", 10, Extents({{5, 1}}));
}

}  // namespace
