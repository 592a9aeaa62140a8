#include "agent/NtfsVolume.h"

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/agent/ManagedVolumes.h"
#include "tests/agent/NtfsFiles.h"
#include "tests/support/Bytes.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/LdmGroupBuilder.h"
#include "tests/support/SameBytes.h"

namespace {

using Attribute = CNtfsAttributeBuilder;
using FileRecord = CNtfsFileRecordBuilder;
using Root = CNtfsIndexRootBuilder;
using Volume = CNtfsVolumeBuilder;

constexpr uint64_t FileFrn = 40;
constexpr uint64_t FolderFrn = 30;
constexpr uint64_t Lcn = 64;
constexpr uint64_t ClusterBytes = 4096;

Attribute Information(uint32_t securityId) {
    NtfsStandardInformationFields_t fields;
    fields.creation = 1;
    fields.modification = 2;
    fields.recordChange = 3;
    fields.access = 4;
    fields.attributes = 0x21;
    fields.securityId = securityId;
    return Attribute::Resident(NtfsStandardInformationType, NtfsStandardInformationValue(fields));
}

Attribute NameOf(const std::u16string& name, uint8_t kind) {
    NtfsFileNameFields_t fields;
    fields.name = name;
    fields.kind = kind;
    return Attribute::Resident(NtfsFileNameType, NtfsFileNameValue(fields));
}

// A volume whose root holds one file, or one folder with that file in it.
Volume WithFile(const FileRecord& file, const std::u16string& name = u"file") {
    return Volume().Root(Root().Add(NtfsEntryOf(FileFrn, name))).Record(FileFrn, file);
}

// "Folder", and in it "Letter.txt".
Volume WithFolder() {
    return Volume()
        .Root(Root().Add(NtfsFolderEntryOf(FolderFrn, u"Folder")))
        .Record(FolderFrn, NtfsFolderOf({NtfsEntryOf(FileFrn, u"LETTER~1.TXT", NtfsPlainFile, 2),
                                         NtfsEntryOf(FileFrn, u"Letter.txt", NtfsPlainFile, 1)}))
        .Record(FileFrn, NtfsFileOf("Dear reader"));
}

class NtfsVolume : public CNtfsFilesTest {};

// --- Paths.

TEST_F(NtfsVolume, PathsHaveSlashesOfBothKinds) {
    Open(WithFolder());
    for (const char* const path :
         {"/Folder/Letter.txt", "Folder/Letter.txt", "\\Folder\\Letter.txt", "Folder\\Letter.txt",
          "//Folder//Letter.txt/", "/./Folder/./Letter.txt", "Folder/LETTER~1.TXT"})
        EXPECT_EQ(FileFrn, Find(path)) << path;
    for (const char* const path : {"", "/", "\\", ".", "./", "//"})
        EXPECT_EQ(NtfsRootNumber, Find(path)) << path;
    EXPECT_EQ(FolderFrn, Find("/Folder/"));
}

TEST_F(NtfsVolume, TheCaseOfAPathDoesNotMatter) {
    Open(WithFile(NtfsFileOf("x"), u"\u00C4rger \u0416.Txt"));
    EXPECT_EQ(FileFrn, Find("/\u00E4RGER \u0436.tXT"));
    EXPECT_FAILS_SAYING(TryFind("/Arger \u0416.Txt"), "Volume1: there is no /Arger \u0416.Txt");
}

TEST_F(NtfsVolume, ANameThatIsTheSameToTheLetterGoesFirst) {
    Open(Volume()
             .Root(Root().Add(NtfsEntryOf(40, u"NAME")).Add(NtfsEntryOf(41, u"Name")).Add(NtfsEntryOf(42, u"name")))
             .Record(40, NtfsFileOf("0"))
             .Record(41, NtfsFileOf("1"))
             .Record(42, NtfsFileOf("2")));
    EXPECT_EQ(40U, Find("NAME"));
    EXPECT_EQ(41U, Find("Name"));
    EXPECT_EQ(42U, Find("name"));
    EXPECT_EQ(40U, Find("nAME")) << "the first one";
}

TEST_F(NtfsVolume, NamesMayHaveCharactersOfTwoUnitsAndHalvesOfThem) {
    const std::u16string half(1, static_cast<char16_t>(0xD83D));
    Open(Volume()
             .Root(Root().Add(NtfsEntryOf(40, u"\U0001F600")).Add(NtfsEntryOf(41, half)))
             .Record(40, NtfsFileOf("0"))
             .Record(41, NtfsFileOf("1")));
    EXPECT_EQ((Texts_t{"\U0001F600", "\xED\xA0\xBD"}), List());
    EXPECT_EQ(40U, Find("\U0001F600"));
    EXPECT_EQ(41U, Find("\xED\xA0\xBD"));
    EXPECT_FAILS_SAYING(TryFind("\xED\xB8\x80"), "there is no");
}

TEST_F(NtfsVolume, ThePartOfAPathThatIsNotThereIsNamed) {
    Open(WithFolder());
    const struct {
        const char* path;
        const char* words;
    } rows[] = {
        {"/gone", "Volume1: there is no /gone"},
        {"/gone/Letter.txt", "Volume1: there is no /gone;"},
        {"/folder/gone/deeper", "Volume1: there is no /folder/gone;"},
        {"/Folder/..", "Volume1: there is no /Folder/.."},
        {"/Folder/Letter.txt/more", "Volume1: /Folder/Letter.txt is no directory"},
    };
    for (const auto& row : rows)
        EXPECT_FAILS_SAYING(TryFind(row.path), row.words);
}

TEST_F(NtfsVolume, ANameThatADamagedFolderMayHoldIsNotSaidToBeAbsent) {
    Open(Volume().Root(Root().Add(NtfsEntryOf(40, u"b").SubNode(0))).Record(40, NtfsFileOf("0")));
    EXPECT_EQ(40U, Find("b"));
    EXPECT_FAILS_SAYING(TryFind("a"), "Volume1: /: block 0 of its index is damaged", "a isn't in the rest of it");
}

TEST_F(NtfsVolume, ANameWhoseRecordAnotherFileHasByNowIsNotFound) {
    Open(Volume()
             .Root(Root().Add(NtfsEntryOf(40, u"old", NtfsPlainFile, 3, 7)))
             .Record(40, NtfsFileOf("0").ReuseCount(8)));
    EXPECT_FAILS_SAYING(TryFind("old"), "Volume1: /old: its file record belongs to another file by now");
}

// --- Files.

TEST_F(NtfsVolume, AFileIsDescribed) {
    Open(WithFile(FileRecord()
                      .ReuseCount(9)
                      .Add(Information(300))
                      .Add(NameOf(u"LONGNA~1", 2))
                      .Add(NameOf(u"long name", 1))
                      .Add(NameOf(u"another", 0))
                      .Add(Attribute::NonResident(NtfsDataType, {{Lcn, 2}, {NtfsHole, 14}}, 50'000)
                               .Flags(0x8001)
                               .CompressionUnit(4))
                      .Add(NtfsDataOf("1234").Name(u"named"))));
    const NtfsFileInfo_t info = Describe(FileFrn);
    EXPECT_EQ(FileFrn, info.frn);
    EXPECT_EQ(9U, info.reuseCount);
    EXPECT_FALSE(info.isDirectory);
    EXPECT_EQ(50'000U, info.bytes);
    EXPECT_EQ(1U, info.creation);
    EXPECT_EQ(2U, info.modification);
    EXPECT_EQ(3U, info.recordChange);
    EXPECT_EQ(4U, info.access);
    EXPECT_EQ(0x21U, info.attributes);
    EXPECT_EQ(2U, info.links);
    EXPECT_EQ(300U, info.securityId);
    EXPECT_EQ(0U, info.reparseTag);
    EXPECT_EQ("", info.problem);
    ASSERT_EQ(2U, info.streams.size());
    EXPECT_EQ("", info.streams[0].name);
    EXPECT_EQ(50'000U, info.streams[0].bytes);
    EXPECT_EQ(2 * ClusterBytes, info.streams[0].storedBytes);
    EXPECT_TRUE(info.streams[0].isCompressed && info.streams[0].isSparse);
    EXPECT_FALSE(info.streams[0].isResident || info.streams[0].isEncrypted);
    EXPECT_EQ("named", info.streams[1].name);
    EXPECT_EQ(4U, info.streams[1].bytes);
    EXPECT_EQ(0U, info.streams[1].storedBytes);
    EXPECT_TRUE(info.streams[1].isResident);
}

// Their values end in front of the ids.
TEST_F(NtfsVolume, AFileOfAnOldVolumeHasNoSecurityId) {
    NtfsStandardInformationFields_t fields;
    fields.access = 4;
    fields.attributes = 0x20;
    fields.isShort = true;
    Open(WithFile(
        FileRecord().Add(Attribute::Resident(NtfsStandardInformationType, NtfsStandardInformationValue(fields)))));
    EXPECT_EQ(4U, Describe(FileFrn).access);
    EXPECT_EQ(0x20U, Describe(FileFrn).attributes);
    EXPECT_EQ(0U, Describe(FileFrn).securityId);
}

TEST_F(NtfsVolume, ADirectoryIsDescribed) {
    Open(WithFolder());
    const NtfsFileInfo_t info = Describe(FolderFrn);
    EXPECT_TRUE(info.isDirectory);
    EXPECT_EQ(0U, info.bytes);
    EXPECT_TRUE(info.streams.empty());
}

TEST_F(NtfsVolume, ARecordThatCannotBeReadIsNotDescribed) {
    Open(WithFile(NtfsFileOf("x").BreakSectorEnd(0)));
    NtfsFileInfo_t info;
    EXPECT_FAILS_SAYING(m_Ntfs->Describe(FileFrn, info), "Volume1: file record 40: File Record is Corrupted");
    EXPECT_FAILS_SAYING(m_Ntfs->Describe(41, info), "Volume1: file record 41: File Not in Use");
    EXPECT_FAILS_SAYING(m_Ntfs->Describe(64, info), "Volume1: file record 64: Value Out Of Range");
}

// --- Streams.

TEST_F(NtfsVolume, StreamsAreReadByTheirNames) {
    const std::string large = PatternedBytes(3 * ClusterBytes - 100);
    Volume volume = WithFile(FileRecord()
                                 .Add(Attribute::NonResident(NtfsDataType, {{Lcn, 3}}, large.size()))
                                 .Add(NtfsDataOf("named").Name(u"n\u00E4me"))
                                 .Add(NtfsDataOf("").Name(u"empty")));
    Open(volume.Cluster(Lcn, large));
    EXPECT_SAME_BYTES(large, Stream(FileFrn));
    EXPECT_EQ("named", Stream(FileFrn, "n\u00E4me"));
    EXPECT_EQ("", Stream(FileFrn, "empty"));
    EXPECT_FAILS_SAYING(StreamError(FileFrn, "gone"), "Volume1: file record 40", "no such stream");
    EXPECT_FAILS_SAYING(StreamError(NtfsRootNumber), "Volume1: file record 5", "no such stream");
}

TEST_F(NtfsVolume, AStreamOfSeveralPiecesMayEndInEachOfThem) {
    Open(WithFile(FileRecord().Add(Attribute::NonResident(NtfsDataType, {{Lcn, 400}, {NtfsHole, 200}}, 600 * 4096))));
    for (const int most : {1, 2}) {
        int pieces = 0;
        EXPECT_OK(m_Ntfs->ReadStream(FileFrn, "", [&](const char*, uint32_t) { return ++pieces < most; }));
        EXPECT_EQ(most, pieces);
    }
    EXPECT_EQ(600U * 4096, Stream(FileFrn).size());
}

TEST_F(NtfsVolume, EncryptedStreamsAreRefused) {
    Open(WithFile(FileRecord()
                      .Add(Attribute::NonResident(NtfsDataType, {{Lcn, 1}}, 4096).Flags(0x4000))
                      .Add(NtfsDataOf("open").Name(u"open"))));
    EXPECT_FAILS_SAYING(StreamError(FileFrn), "Volume1: file record 40", "is encrypted");
    EXPECT_EQ("open", Stream(FileFrn, "open"));
    std::string bytes;
    EXPECT_FAILS_SAYING(TryBackupStream(FileFrn, bytes), "Volume1: file record 40", "is encrypted");
    EXPECT_EQ("", bytes);
}

TEST_F(NtfsVolume, ContentsThatAreKeptElsewhereAreRefused) {
    const struct {
        const char* name;
        uint32_t tag;
        bool isElsewhere;
        bool isLink;
    } rows[] = {
        {"a symbolic link", 0xA000000C, false, true},          {"a mount point", 0xA0000003, false, true},
        {"a compressed system file", 0x80000017, true, false}, {"a deduplicated file", 0x80000013, true, false},
        {"a file in a cloud", 0x9000101A, true, false},        {"a socket", 0x80000023, false, false},
        {"a tag of another maker", 0x00000042, false, false},  {"a link of another maker", 0x20000042, false, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.isElsewhere, IsKeptElsewhere(row.tag));
        EXPECT_EQ(row.isLink, IsNtfsLink(row.tag));
        Open(WithFile(NtfsFileOf("what is here").Add(NtfsDataOf("named").Name(u"n")).Add(NtfsReparsePointOf(row.tag))));
        EXPECT_EQ(row.tag, Describe(FileFrn).reparseTag);
        EXPECT_EQ("named", Stream(FileFrn, "n"));
        if (row.isElsewhere)
            EXPECT_FAILS_SAYING(StreamError(FileFrn), "Volume1: file record 40", "kept elsewhere", "reparse point 0x");
        else
            EXPECT_EQ("what is here", Stream(FileFrn));
    }
}

TEST_F(NtfsVolume, AFailureOfTheDiskIsToldWithTheFile) {
    Open(WithFile(FileRecord().Add(Attribute::NonResident(NtfsDataType, {{Lcn, 1}}, 4096))));
    CFaultyFiles faulty(Fault_t{FaultOp::Read, 0, EIO});
    EXPECT_FAILS_SAYING(StreamError(FileFrn), "Volume1: file record 40");
    EXPECT_TRUE(faulty.Fired());
}

// --- Volumes.

TEST_F(NtfsVolume, ClustersMayHave512Bytes) {
    Volume volume;
    volume.SectorsPerCluster(1);
    const uint64_t lcn = volume.FreeLcn();
    const std::string bytes = PatternedBytes(3 * 512 - 10);
    volume.Root(Root().Add(NtfsEntryOf(FileFrn, u"file")))
        .Record(FileFrn, FileRecord()
                             .Add(Information(300))
                             .Add(Attribute::NonResident(NtfsDataType, {{lcn + 5, 1}, {lcn, 2}}, bytes.size())))
        .Descriptor(300, SecurityDescriptorBytes("OG"))
        .Cluster(lcn + 5, bytes.substr(0, 512))
        .Cluster(lcn, bytes.substr(512));
    Open(volume);
    EXPECT_EQ(Texts_t{"file"}, List());
    EXPECT_SAME_BYTES(bytes, Stream(Find("/file")));
}

TEST_F(NtfsVolume, DescriptorsComeFromTheFileOrFromTheVolume) {
    const std::string own = CanonicalDescriptorBytes("OD");
    Open(Volume()
             .Descriptor(300, SecurityDescriptorBytes("GO"))
             .Record(40, FileRecord().Add(Information(300)))
             .Record(41, FileRecord().Add(Information(300)).Add(Attribute::Resident(NtfsSecurityDescriptorType, own)))
             .Record(42, FileRecord().Add(Information(301)))
             .Record(43, NtfsFileOf("x")));
    EXPECT_SAME_BYTES(CanonicalDescriptorBytes("GO"), Security(40));
    EXPECT_SAME_BYTES(own, Security(41));
    EXPECT_EQ("", Security(42));
    EXPECT_EQ("", Security(43));
    EXPECT_EQ(Texts_t{}, m_Ntfs->Warnings());
}

TEST_F(NtfsVolume, WithoutSecurityOrAVolumeRecordFilesAreRead) {
    const struct {
        const char* name;
        Volume volume;
    } rows[] = {
        {"no $Secure in the root", WithFile(NtfsFileOf("x"))},
        {"no record of $Volume", WithFile(NtfsFileOf("x")).Record(NtfsVolumeNumber, "")},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Open(row.volume);
        EXPECT_EQ(Texts_t{}, m_Ntfs->Warnings());
        EXPECT_EQ("x", Stream(Find("file")));
        EXPECT_EQ("", Security(FileFrn));
    }
}

TEST_F(NtfsVolume, WithDamagedSecurityFilesAreReadAndTheDamageIsToldOf) {
    const auto base = [] {
        return Volume()
            .Descriptor(300, SecurityDescriptorBytes("O"))
            .RootEntry(NtfsEntryOf(FileFrn, u"file", 1))
            .Record(FileFrn, NtfsFileOf("x").Add(Information(300)));
    };
    const struct {
        const char* name;
        Volume volume;
    } rows[] = {
        {"a broken record", base().Record(NtfsSecureNumber, FileRecord().BreakSectorEnd(1))},
        {"a record that isn't used", base().Record(NtfsSecureNumber, "")},
        {"no index", base().Record(NtfsSecureNumber, FileRecord())},
        {"a broken $Volume", base().Record(NtfsVolumeNumber, FileRecord().BreakSectorEnd(1))},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Open(row.volume);
        ASSERT_EQ(1U, m_Ntfs->Warnings().size());
        EXPECT_NE(std::string::npos, m_Ntfs->Warnings()[0].find("security descriptors can't be read"));
        EXPECT_EQ((Texts_t{"file"}), List());
        EXPECT_EQ("x", Stream(Find("file")));
        std::string descriptor;
        EXPECT_FAILS_SAYING(m_Ntfs->ReadSecurity(FileFrn, descriptor), "Volume1: security");
        EXPECT_EQ("", descriptor);
        std::string bytes;
        EXPECT_FAILS_SAYING(TryBackupStream(FileFrn, bytes), "Volume1: security");
        EXPECT_EQ("", bytes);
    }
}

TEST_F(NtfsVolume, WhatIsNoSoundVolumeIsNotOpened) {
    const struct {
        const char* name;
        Volume volume;
        const char* words;
    } rows[] = {
        {"a broken MFT", Volume().Record(0, FileRecord().BreakSectorEnd(0)), "File Record is Corrupted"},
        {"no MFT", Volume().Record(0, ""), "File Not in Use"},
        {"an MFT without data", Volume().Record(0, FileRecord()), "Invalid MFT Record"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        OpenSet(row.volume);
        CNtfsVolume volume;
        EXPECT_FAILS_SAYING(volume.Open(*m_Set, *m_Set->Find("Volume1")), "Volume1: ", row.words);
    }
    m_Set = std::make_unique<CVolumeSet>();
    const std::string other =
        CPartitionTableBuilder().Sectors(100).Slot(0, 0x83, 10, 20).Image().WriteTo(m_Dir, "other");
    ASSERT_OK(m_Set->Open({other}, RawUnlessKnown()));
    CNtfsVolume volume;
    EXPECT_FAILS_SAYING(volume.Open(*m_Set, *m_Set->Find("Disk1Partition1")), "Disk1Partition1", "is no NTFS volume");
}

// --- Volumes of several disks.

constexpr uint64_t VolumeSectors = 4096;

// Records, a folder and a file whose clusters lie over many stripes.
Volume Scattered(const std::string& bytes) {
    return Volume()
        .Root(Root().Add(NtfsFolderEntryOf(FolderFrn, u"folder")))
        .Record(FolderFrn, NtfsFolderOf({NtfsEntryOf(FileFrn, u"file")}))
        .Record(FileFrn,
                FileRecord().Add(Attribute::NonResident(NtfsDataType, {{Lcn + 3, 20}, {Lcn + 40, 12}}, bytes.size())))
        .Cluster(Lcn + 3, bytes.substr(0, 20 * ClusterBytes))
        .Cluster(Lcn + 40, bytes.substr(20 * ClusterBytes));
}

class NtfsOnManagedVolumes : public CManagedVolumesTest {
protected:
    // `layout` without its content, on disks with room for it.
    void AddDisks(LdmVolume_t layout, size_t disks) {
        layout.content = Scattered(m_Bytes).VolumeImage().Bytes();
        layout.sectors = VolumeSectors;
        const CLdmGroupBuilder group = CLdmGroupBuilder(disks).DiskSectors(8192).Volume(layout);
        for (size_t disk = 0; disk < disks; ++disk)
            AddDisk(group.Image(disk));
    }

    void ExpectFile() {
        CNtfsVolume ntfs;
        ASSERT_OK(ntfs.Open(*m_Set, Volume("Volume1")));
        uint64_t frn = 0;
        ASSERT_OK(ntfs.Find("/folder/file", frn));
        std::string bytes;
        ASSERT_OK(ntfs.ReadStream(frn, "", [&](const char* piece, uint32_t size) {
            bytes.append(piece, size);
            return true;
        }));
        EXPECT_SAME_BYTES(m_Bytes, bytes);
    }

    const std::string m_Bytes = PatternedBytes(32 * ClusterBytes - 1000);
};

TEST_F(NtfsOnManagedVolumes, FilesOfAStripedVolumeAreRead) {
    AddDisks(LdmStriped(8, {{0, 0, 2048}, {1, 100, 2048}}), 2);
    Open();
    ExpectFile();
    OpenOnly({1, 0});
    ExpectFile();
    OpenOnly({0});
    CNtfsVolume ntfs;
    EXPECT_FAILS_SAYING(ntfs.Open(*m_Set, Volume("Volume1")), "Volume1", "missing");
}

TEST_F(NtfsOnManagedVolumes, FilesOfAStripedVolumeWithStripesSmallerThanARecordAreRead) {
    AddDisks(LdmStriped(1, {{0, 0, 2048}, {1, 100, 2048}}), 2);
    Open();
    ExpectFile();
}

TEST_F(NtfsOnManagedVolumes, FilesOfASpannedVolumeAreRead) {
    AddDisks(LdmSpanned({{0, 0, 555}, {1, 100, VolumeSectors - 555}}), 2);
    Open();
    ExpectFile();
}

TEST_F(NtfsOnManagedVolumes, OfARaid5VolumeAnyDiskMayBeMissing) {
    AddDisks(LdmRaid5(8, {{0, 0, 2048}, {1, 100, 2048}, {2, 200, 2048}}), 3);
    Open();
    ExpectFile();
    for (const std::vector<size_t>& disks : {std::vector<size_t>{0, 1}, {1, 2}, {2, 0}}) {
        SCOPED_TRACE(disks[0]);
        OpenOnly(disks);
        ExpectFile();
    }
}

TEST_F(NtfsOnManagedVolumes, OfAMirrorOneDiskIsEnough) {
    AddDisks(LdmMirrored({{0, 0, VolumeSectors}, {1, 7, VolumeSectors}}), 2);
    for (const size_t disk : {0, 1}) {
        OpenOnly({disk});
        ExpectFile();
    }
}

}  // namespace
