#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/MetadataTestVolume.h"
#include "tests/support/SameBytes.h"

// How `CMAVolume` opens what a collection left, and takes records from it.

namespace {

using Files = CMetadataFilesBuilder;
using FileRecord = CNtfsFileRecordBuilder;

constexpr char CorruptMetadata[] = "Meta data file is corrupt";

class MAVolumeOpen : public CMetadataVolumeTest {
protected:
    static Files Sound() { return Files().Record(1, FileRecord().RecordNumber(1)); }

    int OpenWith(const std::string& name, const std::string& bytes) {
        Sound().WriteTo(m_Dir);
        m_Dir.Write(name, bytes);
        return Open();
    }

    // A closed volume gives no record.
    bool IsOpen() {
        std::string record(1024, '?');
        return m_Volume.ReadMFTRecord(0, record.data()) == NtfsOk;
    }
};

TEST_F(MAVolumeOpen, ASoundCollectionOpensAndClosesAndOpensAgain) {
    EXPECT_FALSE(IsOpen());
    EXPECT_META_OK(Open(Sound()));
    EXPECT_TRUE(IsOpen());
    EXPECT_META_OK(Open());
    EXPECT_TRUE(IsOpen());
    EXPECT_META_OK(m_Volume.CloseVolume());
    EXPECT_FALSE(IsOpen());
    EXPECT_META_OK(m_Volume.CloseVolume());
    EXPECT_META_OK(Open());
    EXPECT_TRUE(IsOpen());
}

TEST_F(MAVolumeOpen, APathThatIsMissingIsRefusedAndLeavesTheVolumeAsItIs) {
    ASSERT_EQ(NtfsOk, Open(Sound()));
    const std::string paths[] = {m_Dir.File("information"), m_Dir.File("mft"), m_Dir.File("associate"),
                                 m_Dir.File("security")};
    for (size_t missing = 0; missing < 4; ++missing) {
        const char* names[4] = {paths[0].c_str(), paths[1].c_str(), paths[2].c_str(), paths[3].c_str()};
        names[missing] = nullptr;
        EXPECT_META_FAILURE(NtfsInvalidParameter, "Invalid Parameter",
                            m_Volume.OpenVolume(names[0], names[1], names[2], names[3]));
        EXPECT_TRUE(IsOpen());
    }
}

TEST_F(MAVolumeOpen, AFileThatIsNotThereIsTheSystemsErrorAndLeavesTheVolumeClosed) {
    const std::pair<const char*, const char*> rows[] = {{"mft", "Failed to open MFT File"},
                                                        {"security", "Failed to open security File"},
                                                        {"information", CorruptMetadata},
                                                        {"associate", CorruptMetadata}};
    Sound().WriteTo(m_Dir);
    for (const auto& [missing, text] : rows) {
        SCOPED_TRACE(missing);
        ASSERT_EQ(NtfsOk, Open());
        std::string paths[4];
        const char* const names[] = {"information", "mft", "associate", "security"};
        for (size_t index = 0; index < 4; ++index)
            paths[index] = m_Dir.File(names[index] == std::string(missing) ? "nowhere" : names[index]);
        EXPECT_META_FAILURE(
            ENOENT, text, m_Volume.OpenVolume(paths[0].c_str(), paths[1].c_str(), paths[2].c_str(), paths[3].c_str()));
        EXPECT_FALSE(IsOpen());
    }
}

// The copy of the MFT is raw: whatever it begins with, it opens.
TEST_F(MAVolumeOpen, TheCopyOfTheMftHasNoSignature) {
    EXPECT_META_OK(OpenWith("mft", ""));
    EXPECT_META_OK(OpenWith("mft", "x"));
    EXPECT_META_OK(OpenWith("mft", MetadataFileSignature()));
}

TEST_F(MAVolumeOpen, EverySignatureIsHeldAgainstAllItsTwelveBytes) {
    const std::string sound = MetadataFileSignature();
    for (const char* const name : {"security", "information", "associate"}) {
        SCOPED_TRACE(name);
        Sound().WriteTo(m_Dir);
        const std::string whole = m_Dir.Read(name);
        for (size_t at = 0; at < sound.size(); ++at) {
            std::string bytes = whole;
            bytes[at] ^= 1;
            EXPECT_META_FAILURE(NtfsInvalidMftRecord, CorruptMetadata, OpenWith(name, bytes));
            EXPECT_FALSE(IsOpen());
            EXPECT_META_FAILURE(NtfsInvalidMftRecord, CorruptMetadata, OpenWith(name, whole.substr(0, at)));
        }
        EXPECT_META_OK(OpenWith(name, whole));
    }
}

TEST_F(MAVolumeOpen, AnotherVersionIsRefused) {
    std::string security = Sound().SecurityBytes();
    security.replace(8, 3, "1.1");
    EXPECT_META_FAILURE(NtfsInvalidMftRecord, CorruptMetadata, OpenWith("security", security));
}

TEST_F(MAVolumeOpen, TheVolumeInformationIsTakenAsItStands) {
    std::string bytes = Sound().InformationBytes();
    for (size_t at = 16; at < 128; ++at)
        bytes[at] = static_cast<char>(at);
    ASSERT_EQ(NtfsOk, OpenWith("information", bytes));
    EXPECT_SAME_BYTES(bytes.substr(16, 96), std::string(reinterpret_cast<const char*>(&m_Volume.VolumeData()),
                                                        sizeof(m_Volume.VolumeData())));
}

TEST_F(MAVolumeOpen, AVolumeInformationCutShortIsRefused) {
    const std::string whole = Sound().InformationBytes();
    for (const size_t size : {12U, 15U, 16U, 111U, 112U, 127U}) {
        SCOPED_TRACE(size);
        EXPECT_META_FAILURE(EIO, CorruptMetadata, OpenWith("information", whole.substr(0, size)));
    }
    // Nothing is there for the extents, which takes no memory, and that counts as none.
    EXPECT_META_FAILURE(NtfsOutOfMemory, CorruptMetadata, OpenWith("information", whole.substr(0, 128)));
    EXPECT_META_OK(OpenWith("information", whole.substr(0, 129)));
}

TEST_F(MAVolumeOpen, TheExtentsOfTheMftAreReadAndPassedOver) {
    EXPECT_META_OK(Open(Sound().Extents(std::string(100'000, '\xFF'))));
    EXPECT_TRUE(IsOpen());
}

// What the associate file tells shows in the files that open: a base record and what is merged to it.
class MAVolumeAssociates : public MAVolumeOpen {
protected:
    // Records 100 and so on hold one byte each, their number. Returns the bytes of the file of record 5.
    std::string Merged(const Files& files) {
        Files all = files;
        all.Record(5, FileRecord());
        for (uint32_t frn = 100; frn < 160; ++frn)
            all.Record(frn, FileRecord().RecordNumber(frn).Add(
                                CNtfsAttributeBuilder::Resident(NtfsDataType, std::string(1, static_cast<char>(frn)))));
        EXPECT_META_OK(Open(all));
        File_t file;
        EXPECT_META_OK(OpenFile(5, file));
        std::string bytes;
        for (ATTR_RECORD_HEADER_t* each = CDRFileRecord::FindFirstAttr(file.record.GetPtr(), NtfsDataType);
             each != nullptr; each = CDRFileRecord::FindNextAttr(NtfsDataType, each))
            bytes += reinterpret_cast<const char*>(each)[24];
        std::sort(bytes.begin(), bytes.end());
        return bytes;
    }
};

TEST_F(MAVolumeAssociates, ASignatureAloneTellsOfNone) {
    EXPECT_EQ("", Merged(Files()));
}

TEST_F(MAVolumeAssociates, TwentyFiveLinesAreAllTaken) {
    Files files;
    std::string expected;
    for (uint32_t frn = 100; frn < 125; ++frn) {
        files.Associate(5, frn).Associate(frn, 150).Associate(4, 151);
        expected += static_cast<char>(frn);
    }
    EXPECT_EQ(expected, Merged(files));
}

TEST_F(MAVolumeAssociates, TheOrderOfTheLinesDoesNotMatter) {
    EXPECT_EQ("dghi", Merged(Files()
                                 .Associate(5, 104)
                                 .Associate(0xFFFFFFFFFFFF, 120)
                                 .Associate(5, 103)
                                 .Associate(2, 121)
                                 .Associate(5, 105)
                                 .Associate(6, 122)
                                 .Associate(5, 100)));
}

TEST_F(MAVolumeAssociates, NumbersAreHexadecimalAndBlanksPartThem) {
    EXPECT_EQ("degh", Merged(Files().AssociateText("5 64\n\n   5\t65\r\n0x5 0X67  0000000000000005 68")));
}

TEST_F(MAVolumeAssociates, ALineThatTheFileEndsInTellsNothing) {
    EXPECT_EQ("d", Merged(Files().AssociateText("5 64\n5")));
    EXPECT_EQ("d", Merged(Files().AssociateText("5 64\n5 ")));
}

TEST_F(MAVolumeAssociates, ALineThatIsNoneIsRefused) {
    for (const char* const text :
         {"x", "5 64\nbase 65\n", "5 64\n5 record\n5 66\n", "5,64\n", "\xFF\xFF 5\n", "- 5\n"}) {
        SCOPED_TRACE(text);
        EXPECT_META_FAILURE(EIO, CorruptMetadata, Open(Sound().AssociateText(text)));
        EXPECT_FALSE(IsOpen());
    }
}

TEST_F(MAVolumeAssociates, AnOpenThatFailsForgetsThem) {
    EXPECT_EQ("d", Merged(Files().Associate(5, 100)));
    m_Dir.Write("associate", "");
    EXPECT_NE(NtfsOk, Open());
    EXPECT_EQ("", Merged(Files()));
}

class MAVolumeRecords : public MAVolumeOpen {
protected:
    // Bytes behind the record have to be as they were.
    Outcome_t ReadRecord(uint64_t frn, size_t recordBytes = 1024) {
        std::string buffer(recordBytes + 10, '?');
        const int result = m_Volume.ReadMFTRecord(frn, buffer.data());
        EXPECT_EQ(std::string(10, '?'), buffer.substr(recordBytes));
        return {result, buffer.substr(0, recordBytes)};
    }
};

TEST_F(MAVolumeRecords, ARecordComesAsItLiesInTheCopy) {
    const std::string bytes = PatternedBytes(5 * 1024);
    ASSERT_EQ(NtfsOk, OpenWith("mft", bytes));
    for (const uint64_t frn : {4, 0, 2, 2, 3}) {
        const Outcome_t record = ReadRecord(frn);
        EXPECT_EQ(NtfsOk, record.result);
        EXPECT_SAME_BYTES(bytes.substr(frn * 1024, 1024), record.bytes);
    }
}

TEST_F(MAVolumeRecords, RecordsAreAsLargeAsTheVolumeInformationTells) {
    Sound().RecordBytes(3000).WriteTo(m_Dir);
    m_Dir.Write("mft", PatternedBytes(9000));
    ASSERT_EQ(NtfsOk, Open());
    EXPECT_SAME_BYTES(PatternedBytes(9000).substr(6000), ReadRecord(2, 3000).bytes);
    EXPECT_EQ(NtfsOutOfRange, ReadRecord(3, 3000).result);
}

TEST_F(MAVolumeRecords, TheRecordThatEndsTheCopyIsWhole) {
    ASSERT_EQ(NtfsOk, OpenWith("mft", PatternedBytes(2 * 1024)));
    EXPECT_EQ(NtfsOk, ReadRecord(1).result);
    ASSERT_EQ(NtfsOk, OpenWith("mft", PatternedBytes(2 * 1024 - 1)));
    EXPECT_META_FAILURE(NtfsOutOfRange, "FRN out of range", ReadRecord(1).result);
}

TEST_F(MAVolumeRecords, ARecordBehindTheCopyIsOutOfRange) {
    ASSERT_EQ(NtfsOk, OpenWith("mft", PatternedBytes(2 * 1024)));
    for (const uint64_t frn : {uint64_t{2}, uint64_t{3}, uint64_t{1} << 30U}) {
        SCOPED_TRACE(frn);
        EXPECT_META_FAILURE(NtfsOutOfRange, "FRN out of range", ReadRecord(frn).result);
        EXPECT_EQ(NtfsOk, ReadRecord(1).result) << "what follows is read all the same";
    }
}

TEST_F(MAVolumeRecords, ARecordThatNoFileCanHaveIsAFailureOfTheSystem) {
    ASSERT_EQ(NtfsOk, Open(Sound()));
    for (const uint64_t frn : {uint64_t{1} << 53U, uint64_t{1} << 54U, (uint64_t{1} << 54U) + 1, ~uint64_t{0}}) {
        SCOPED_TRACE(frn);
        EXPECT_META_FAILURE(EINVAL, "Failed to read MFT record", ReadRecord(frn).result);
    }
}

TEST_F(MAVolumeRecords, ReadingNeedsAnOpenVolumeAndABuffer) {
    std::string record(1024, '?');
    EXPECT_META_FAILURE(NtfsInvalidParameter, "Invalid Parameter", m_Volume.ReadMFTRecord(0, record.data()));
    ASSERT_EQ(NtfsOk, Open(Sound()));
    EXPECT_META_FAILURE(NtfsInvalidParameter, "Invalid Parameter", m_Volume.ReadMFTRecord(0, nullptr));
}

class MAVolumeDirectory : public MAVolumeOpen {
protected:
    int OpenDirectory(const std::string& bytes) {
        return m_Volume.OpenDirFile(m_Dir.Write("directory", bytes).c_str());
    }
    int OpenDirectory(const std::vector<MetadataDirRecord_t>& records) {
        return OpenDirectory(MetadataDirectoryBytes(records));
    }

    // The next record as text, with its name in brackets. Bytes behind the name have to be as they were.
    std::string Next(int expectedResult = NtfsOk) {
        unsigned char kind = '?';
        uint64_t numbers[3] = {};
        unsigned int d = 0;
        std::string name(2000, '?');
        const int result = m_Volume.ReadDirFileRecord(&kind, &numbers[0], &numbers[1], &numbers[2], &d, name.data());
        EXPECT_EQ(expectedResult, result);
        std::string text(1, static_cast<char>(kind));
        for (const uint64_t number : {numbers[0], numbers[1], numbers[2], uint64_t{d}})
            text += " " + std::to_string(number);
        return text + " [" + name.substr(0, name.find_last_not_of('?') + 1) + "]";
    }
};

TEST_F(MAVolumeDirectory, RecordsComeOneByOneAsTheyStand) {
    ASSERT_EQ(NtfsOk, OpenDirectory({{'d', 0, 5, 0, 0x5F5E1000, "C:"},
                                     {'f', 5, 40, 0xFFFFFFFFFFFFFFFF, 0xFFFFFFFF, "a b|c\n\xC3\xA4"},
                                     {'D', 1, 2, 3, 4, ""},
                                     {'\xFF', 0xABCDEF0123456789, 6, 7, 8, "12 34 56 78 9|x"}}));
    EXPECT_EQ("d 0 5 0 1600000000 [C:]", Next());
    EXPECT_STREQ("", m_Volume.GetLastErrorStr());
    EXPECT_EQ("f 5 40 18446744073709551615 4294967295 [a b|c\n\xC3\xA4]", Next());
    EXPECT_EQ("D 1 2 3 4 []", Next());
    EXPECT_EQ("\xFF 12379813738877118345 6 7 8 [12 34 56 78 9|x]", Next());
}

TEST_F(MAVolumeDirectory, TheEndHasAResultAndNoText) {
    ASSERT_EQ(NtfsOk, OpenDirectory({{'f', 1, 2, 3, 4, "name"}}));
    Next();
    for (int turn = 0; turn < 2; ++turn) {
        Next(NtfsEndOfRun);
        EXPECT_STREQ("", m_Volume.GetLastErrorStr());
    }
    ASSERT_EQ(NtfsOk, OpenDirectory(std::vector<MetadataDirRecord_t>()));
    Next(NtfsEndOfRun);
}

TEST_F(MAVolumeDirectory, ARecordThatIsNoneCountsAsTheEnd) {
    for (const char* const text : {"f", "f5 6", "f5 6 7 8 ", "fname 6 7 8 4|", "f5 6 7 8 x|"}) {
        ASSERT_EQ(NtfsOk, OpenDirectory(MetadataFileSignature() + text));
        m_Volume.SetLastErrorStr("before");
        Next(NtfsEndOfRun);
        EXPECT_STREQ("", m_Volume.GetLastErrorStr()) << text;
    }
}

// A file that ends in a name shows it at the next record.
TEST_F(MAVolumeDirectory, ANameCutShortComesAsFarAsItIsThere) {
    ASSERT_EQ(NtfsOk, OpenDirectory({{'f', 1, 2, 3, 4, "name", 10}}));
    EXPECT_EQ("f 1 2 3 4 [name]", Next());
    Next(NtfsEndOfRun);
}

TEST_F(MAVolumeDirectory, ANameMayHave1046BytesAndNoMore) {
    const std::string longest(1046, 'n');
    ASSERT_EQ(NtfsOk, OpenDirectory({{'f', 1, 2, 3, 4, longest}, {'f', 1, 2, 3, 4, longest + "n"}}));
    EXPECT_EQ("f 1 2 3 4 [" + longest + "]", Next());
    Next(NtfsInvalidMftRecord);
    EXPECT_STREQ(CorruptMetadata, m_Volume.GetLastErrorStr());
    ASSERT_EQ(NtfsOk, OpenDirectory({{'f', 1, 2, 3, 4, "", 0xFFFFFFFF}}));
    Next(NtfsInvalidMftRecord);
}

TEST_F(MAVolumeDirectory, TheFileOpensWithoutAVolumeAndStaysOpenBesideIt) {
    EXPECT_META_OK(OpenDirectory({{'f', 1, 2, 3, 4, "first"}, {'f', 1, 2, 3, 4, "second"}}));
    Next();
    ASSERT_EQ(NtfsOk, Open(Sound()));
    ASSERT_EQ(NtfsOk, m_Volume.CloseVolume());
    EXPECT_EQ("f 1 2 3 4 [second]", Next());
}

TEST_F(MAVolumeDirectory, OpeningAgainBeginsAtTheFirstRecord) {
    ASSERT_EQ(NtfsOk, OpenDirectory({{'f', 1, 2, 3, 4, "first"}}));
    Next();
    EXPECT_META_OK(OpenDirectory({{'f', 1, 2, 3, 4, "another"}}));
    EXPECT_EQ("f 1 2 3 4 [another]", Next());
    EXPECT_META_OK(m_Volume.CloseDirFile());
    Next(NtfsInvalidParameter);
    EXPECT_META_OK(m_Volume.CloseDirFile());
}

TEST_F(MAVolumeDirectory, WhatCannotBeOpenedIsToldAndLeavesTheFileClosed) {
    EXPECT_META_FAILURE(NtfsInvalidParameter, "Invalid Parameter", m_Volume.OpenDirFile(nullptr));
    EXPECT_META_FAILURE(ENOENT, "Failed to open directory structure File",
                        m_Volume.OpenDirFile(m_Dir.File("nowhere").c_str()));
    for (const std::string& bytes : {std::string(), MetadataFileSignature().substr(0, 11), std::string(20, '\0')}) {
        EXPECT_META_FAILURE(NtfsInvalidMftRecord, CorruptMetadata, OpenDirectory(bytes));
        Next(NtfsInvalidParameter);
        EXPECT_STREQ("Invalid Parameter", m_Volume.GetLastErrorStr());
    }
}

TEST_F(MAVolumeDirectory, ReadingNeedsAPlaceForEachField) {
    ASSERT_EQ(NtfsOk, OpenDirectory({{'f', 1, 2, 3, 4, "name"}}));
    unsigned char kind = 0;
    uint64_t numbers[3] = {};
    unsigned int d = 0;
    char name[2000];
    for (int missing = 0; missing < 6; ++missing) {
        EXPECT_META_FAILURE(
            NtfsInvalidParameter, "Invalid Parameter",
            m_Volume.ReadDirFileRecord(missing == 0 ? nullptr : &kind, missing == 1 ? nullptr : &numbers[0],
                                       missing == 2 ? nullptr : &numbers[1], missing == 3 ? nullptr : &numbers[2],
                                       missing == 4 ? nullptr : &d, missing == 5 ? nullptr : name));
    }
    EXPECT_EQ("f 1 2 3 4 [name]", Next()) << "nothing was taken";
}

TEST_F(MAVolumeOpen, ATextIsCutTo1022Characters) {
    for (const size_t length : {1021U, 1022U, 1023U, 1024U, 2000U}) {
        m_Volume.SetLastErrorStr("%s", std::string(length, 't').c_str());
        EXPECT_EQ(std::string(std::min<size_t>(length, 1022), 't'), m_Volume.GetLastErrorStr());
    }
    m_Volume.SetLastErrorStr("%d and %s", 5, "more");
    EXPECT_STREQ("5 and more", m_Volume.GetLastErrorStr());
    m_Volume.SetLastErrorStr(nullptr);
    EXPECT_STREQ("", m_Volume.GetLastErrorStr());
}

}  // namespace
