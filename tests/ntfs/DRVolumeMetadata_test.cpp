#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/NtfsTestVolume.h"
#include "tests/support/RecordingTreeStore.h"
#include "tests/support/SameBytes.h"

// What `CDRVolume` collects of a volume. The directory tree goes to the tests' own library, which keeps lines of text.

namespace {

using Attribute = CNtfsAttributeBuilder;
using FileRecord = CNtfsFileRecordBuilder;
using IndexRoot = CNtfsIndexRootBuilder;
using Volume = CNtfsVolumeBuilder;

constexpr uint64_t Start1970 = 0x19DB1DED53E8000;
constexpr uint64_t Second = 10'000'000;
const std::string Signature("ObIMGDC\0"
                            "1.0\0",
                            12);

constexpr uint8_t Posix = 0;
constexpr uint8_t Long = 1;
constexpr uint8_t Short = 2;

// Written, accessed and made 100, 200 and 300 seconds after the start of 1970.
Attribute Times(uint32_t attributes = 0x20) {
    NtfsStandardInformationFields_t fields;
    fields.modification = Start1970 + 100 * Second;
    fields.recordChange = Start1970 + 150 * Second;
    fields.access = Start1970 + 200 * Second;
    fields.creation = Start1970 + 300 * Second;
    fields.attributes = attributes;
    return Attribute::Resident(NtfsStandardInformationType, NtfsStandardInformationValue(fields));
}

Attribute Name(const std::u16string& name, uint8_t kind, uint64_t parent = 5) {
    NtfsFileNameFields_t fields;
    fields.name = name;
    fields.kind = kind;
    fields.parent = NtfsReference(parent, 7);
    return Attribute::Resident(NtfsFileNameType, NtfsFileNameValue(fields));
}

FileRecord FileNamed(const std::u16string& name, uint8_t kind = Long) {
    return FileRecord().Add(Times()).Add(Name(name, kind));
}

FileRecord RootDirectory(bool withSecure = true) {
    IndexRoot index;
    if (withSecure)
        index.Add(NtfsDirectoryEntry(NtfsSecureNumber, u"$Secure"));
    return FileRecord()
        .Directory()
        .Add(Times(6))
        .Add(Name(u".", 3))
        .Add(Attribute::Resident(NtfsIndexRootType, index.Bytes()).Name(u"$I30"));
}

std::string TreeFile(uint64_t frn, const std::string& name, uint64_t bytes = 0, uint64_t parent = 5) {
    return std::to_string(parent) + " " + std::to_string(frn) + " " + std::to_string(bytes) + " 100 32 200 300 0 " +
           name + "\n";
}

// A directory's time of writing is that of its record's change.
constexpr char RootLine[] = "0 5 0 150 6 200 300 1 C:\n";

int g_CallsLeft = 0;

// Asks for the stop at the call of that number.
int AskForStop(int /*first*/, void* /*second*/, void* flag) {
    if (--g_CallsLeft == 0)
        *static_cast<char*>(flag) = 1;
    return 0;
}

class DRVolumeMetadata : public CNtfsVolumeTest {
protected:
    void TearDown() override { CDRVolume::SetQuitFlagCallback(nullptr, 0, nullptr); }

    static Volume WithRoot() { return Volume().Record(NtfsRootNumber, RootDirectory()); }

    int Dump(const std::string& tree = "tree") {
        char root[] = "C:";
        std::string information = m_Dir.File("information");
        std::string table = m_Dir.File(tree);
        std::string associate = m_Dir.File("associate");
        std::string security = m_Dir.File("security");
        return m_Ntfs.DumpMetadataInformation(root, information.data(), table.data(), associate.data(), security.data(),
                                              0x12345678);
    }

    void ExpectTree(const std::string& files) { EXPECT_EQ(RootLine + files + TreeEndLine, m_Dir.Read("tree")); }

    bool Exists(const std::string& name) {
        for (const std::string& each : m_Dir.Entries())
            if (each == name)
                return true;
        return false;
    }
};

TEST_F(DRVolumeMetadata, TheVolumeInformationIsThisByteForByte) {
    ASSERT_EQ(NtfsOk, Open(WithRoot().VolumeObjectId("0123456789ABCDEF")));
    ASSERT_EQ(NtfsOk, Dump());
    NTFS_VOLUME_DATA_BUFFER facts{};
    ASSERT_FALSE(m_Lvm->GetNTFSVolInfo(m_Volume, &facts).IsErrorSet());
    std::string expected = Signature + LittleEndianBytes(0x12345678, 4);
    expected.append(reinterpret_cast<const char*>(&facts), sizeof(facts));
    expected += "0123456789ABCDEF";
    const uint64_t lcn = Volume().MftLcn();
    expected += LittleEndianBytes(1, 8);  // one run of 64 records
    for (const uint64_t number : {uint64_t{16}, uint64_t{16}, lcn, lcn + 15})
        expected += LittleEndianBytes(number, 8);
    EXPECT_SAME_BYTES(expected, m_Dir.Read("information"));
}

TEST_F(DRVolumeMetadata, FilesGoIntoTheTreeInTheOrderOfTheirRecords) {
    ASSERT_EQ(NtfsOk, Open(WithRoot()
                               .Record(41, FileNamed(u"second"))
                               .Record(40, FileNamed(u"n\u00E4me"))
                               .Record(42, FileRecord().Directory().Add(Times(0x10)).Add(Name(u"folder", Long, 40)))));
    ASSERT_EQ(NtfsOk, Dump());
    ExpectTree(TreeFile(40, "n\u00E4me") + TreeFile(41, "second") + "40 42 0 150 16 200 300 1 folder\n");
}

TEST_F(DRVolumeMetadata, TheRecordsBehindTheRootMakeTheVolumeItselfAndAreLeftOut) {
    Volume volume = WithRoot().Record(16, FileNamed(u"first"));
    for (const uint64_t frn : {6, 8, 15})
        volume.Record(frn, FileNamed(u"system"));
    volume.Record(7, FileRecord().BaseReference(NtfsReference(40)));
    ASSERT_EQ(NtfsOk, Open(volume));
    ASSERT_EQ(NtfsOk, Dump());
    ExpectTree(TreeFile(16, "first"));
    EXPECT_SAME_BYTES(Signature, m_Dir.Read("associate"));
}

TEST_F(DRVolumeMetadata, AnExtensionRecordIsALineAndNoFile) {
    ASSERT_EQ(NtfsOk, Open(WithRoot()
                               .Record(43, FileRecord().BaseReference(NtfsReference(40, 9)))
                               .Record(60, FileRecord().BaseReference(NtfsReference(0xABCDEF)))));
    ASSERT_EQ(NtfsOk, Dump());
    ExpectTree("");
    EXPECT_SAME_BYTES(Signature + "28 2b\nabcdef 3c\n", m_Dir.ReadText("associate"));
}

TEST_F(DRVolumeMetadata, AFreeRecordIsNothing) {
    ASSERT_EQ(NtfsOk, Open(WithRoot()
                               .Record(40, FileNamed(u"deleted").Flags(0))
                               .Record(41, FileRecord().Flags(0).BaseReference(NtfsReference(40)))));
    ASSERT_EQ(NtfsOk, Dump());
    ExpectTree("");
    EXPECT_SAME_BYTES(Signature, m_Dir.Read("associate"));
}

TEST_F(DRVolumeMetadata, TheLongNameGoesBeforeTheShortAndThePosixOne) {
    const struct {
        const char* what;
        FileRecord file;
        const char* name;
    } rows[] = {
        {"all three",
         FileRecord().Add(Times()).Add(Name(u"posix", Posix)).Add(Name(u"short", Short)).Add(Name(u"long", Long)),
         "long"},
        {"a short one behind a POSIX one",
         FileRecord().Add(Times()).Add(Name(u"posix", Posix)).Add(Name(u"short", Short)), "short"},
        {"one of both kinds", FileRecord().Add(Times()).Add(Name(u"both", 3)), "both"},
        {"two long ones", FileRecord().Add(Times()).Add(Name(u"a", Long)).Add(Name(u"b", Long)), "a"},
        {"two POSIX ones", FileRecord().Add(Times()).Add(Name(u"a", Posix)).Add(Name(u"b", Posix)), "a"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_EQ(NtfsOk, Open(WithRoot().Record(40, row.file)));
        ASSERT_EQ(NtfsOk, Dump());
        ExpectTree(TreeFile(40, row.name));
    }
}

TEST_F(DRVolumeMetadata, AFileWithoutANameIsPassedOver) {
    ASSERT_EQ(NtfsOk, Open(WithRoot().Record(40, FileRecord().Add(Times())).Record(41, FileNamed(u"next"))));
    ASSERT_EQ(NtfsOk, Dump());
    ExpectTree(TreeFile(41, "next"));
}

TEST_F(DRVolumeMetadata, HalfAPairOfSurrogatesBecomesTheCharacterForNone) {
    const std::u16string name = {u'a', 0xD83D, 0xDE00, u'b', 0xD83D, u'c'};
    ASSERT_EQ(NtfsOk, Open(WithRoot().Record(40, FileNamed(name))));
    ASSERT_EQ(NtfsOk, Dump());
    ExpectTree(TreeFile(40, "a\U0001F600b\uFFFDc"));
}

TEST_F(DRVolumeMetadata, TheSizeIsThatOfAllUnnamedData) {
    FileRecord file = FileNamed(u"file");
    file.Add(Attribute::Resident(NtfsDataType, std::string(10, 'x')))
        .Add(Attribute::Resident(NtfsDataType, std::string(100, 'x')).Name(u"stream"))
        .Add(Attribute::NonResident(NtfsDataType, {{90, 1}}, 4000));
    ASSERT_EQ(NtfsOk, Open(WithRoot().Record(40, file)));
    ASSERT_EQ(NtfsOk, Dump());
    ExpectTree(TreeFile(40, "file", 4010));
}

TEST_F(DRVolumeMetadata, DescriptorsFollowTheSignature) {
    ASSERT_EQ(NtfsOk, Open(WithRoot().Descriptor(300, SecurityDescriptorBytes("DO"))));
    ASSERT_EQ(NtfsOk, Dump());
    const std::string descriptor = CanonicalDescriptorBytes("DO");
    EXPECT_SAME_BYTES(Signature + LittleEndianBytes(300, 4) + LittleEndianBytes(descriptor.size(), 4) + descriptor,
                      m_Dir.Read("security"));
}

TEST_F(DRVolumeMetadata, WithoutSecureThereIsTheSignatureAlone) {
    ASSERT_EQ(NtfsOk, Open(Volume().Record(NtfsRootNumber, RootDirectory(false))));
    ASSERT_EQ(NtfsOk, Dump());
    EXPECT_SAME_BYTES(Signature, m_Dir.Read("security"));
}

TEST_F(DRVolumeMetadata, AStopAtTheFirstFileLeavesNoSecurityFile) {
    ASSERT_EQ(NtfsOk, Open(WithRoot().Record(40, FileNamed(u"never"))));
    g_CallsLeft = 1;
    CDRVolume::SetQuitFlagCallback(AskForStop, 0, nullptr);
    EXPECT_EQ(NtfsQuit, Dump());
    ExpectTree("");
    EXPECT_FALSE(Exists("security"));
}

TEST_F(DRVolumeMetadata, TheStopIsAskedForAtEachFileThatHasAName) {
    ASSERT_EQ(NtfsOk, Open(WithRoot()
                               .Record(40, FileRecord().Add(Times()))
                               .Record(41, FileNamed(u"second"))
                               .Record(42, FileNamed(u"third"))));
    g_CallsLeft = 2;
    CDRVolume::SetQuitFlagCallback(AskForStop, 0, nullptr);
    EXPECT_EQ(NtfsQuit, Dump());
    ExpectTree(TreeFile(41, "second"));
}

TEST_F(DRVolumeMetadata, FailuresOfTheTreeHaveResultsOfTheirOwn) {
    ASSERT_EQ(NtfsOk, Open(WithRoot()));
    EXPECT_EQ(NtfsTreeOpenFailed, Dump("refused"));
    EXPECT_EQ(NtfsTreeCloseFailed, Dump("unclosed"));
    g_CallsLeft = 1;
    CDRVolume::SetQuitFlagCallback(AskForStop, 0, nullptr);
    EXPECT_EQ(NtfsTreeCloseFailed, Dump("unclosed"));
    ASSERT_EQ(NtfsOk, Open(WithRoot().Record(40, FileNamed(u"refused"))));
    EXPECT_EQ(NtfsTreeInsertFailed, Dump());
}

TEST_F(DRVolumeMetadata, AFileWithoutTimesAndADamagedRecordEndIt) {
    ASSERT_EQ(NtfsOk, Open(WithRoot().Record(40, FileRecord().Add(Name(u"timeless", Long)))));
    EXPECT_EQ(NtfsInvalidMftRecord, Dump());
    ASSERT_EQ(NtfsOk, Open(WithRoot().Record(40, FileNamed(u"torn").BreakSectorEnd(0))));
    EXPECT_EQ(NtfsRecordCorrupted, Dump());
    EXPECT_FALSE(Exists("security"));
}

TEST_F(DRVolumeMetadata, APathThatIsMissingIsRefusedAndOneThatLeadsNowhereIsTheSystemsError) {
    ASSERT_EQ(NtfsOk, Open(WithRoot()));
    const std::string good[] = {m_Dir.File("information"), m_Dir.File("tree"), m_Dir.File("associate"),
                                m_Dir.File("security")};
    for (size_t missing = 0; missing < 4; ++missing) {
        std::string paths[4] = {good[0], good[1], good[2], good[3]};
        char* names[4] = {paths[0].data(), paths[1].data(), paths[2].data(), paths[3].data()};
        names[missing] = nullptr;
        EXPECT_EQ(NtfsInvalidParameter,
                  m_Ntfs.DumpMetadataInformation(nullptr, names[0], names[1], names[2], names[3], 0));
        if (missing == 1)
            continue;  // the tree's library words that one
        std::string nowhere = m_Dir.File("nowhere/file");
        names[missing] = nowhere.data();
        EXPECT_EQ(ENOENT, m_Ntfs.DumpMetadataInformation(nullptr, names[0], names[1], names[2], names[3], 0));
    }
}

TEST_F(DRVolumeMetadata, WithoutANameForTheRootItKeepsItsOwn) {
    ASSERT_EQ(NtfsOk, Open(WithRoot()));
    std::string paths[] = {m_Dir.File("information"), m_Dir.File("tree"), m_Dir.File("associate"),
                           m_Dir.File("security")};
    ASSERT_EQ(NtfsOk, m_Ntfs.DumpMetadataInformation(nullptr, paths[0].data(), paths[1].data(), paths[2].data(),
                                                     paths[3].data(), 0));
    EXPECT_EQ(std::string("0 5 0 150 6 200 300 1 .\n") + TreeEndLine, m_Dir.Read("tree"));
}

}  // namespace
