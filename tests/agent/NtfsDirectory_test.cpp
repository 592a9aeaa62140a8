#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "agent/detail/NtfsIndex.h"
#include "tests/agent/NtfsFiles.h"
#include "tests/support/Bytes.h"

// Directories: their indexes, and what is listed of them.

namespace {

using Attribute = CNtfsAttributeBuilder;
using Block = CNtfsIndexRecordBuilder;
using FileRecord = CNtfsFileRecordBuilder;
using Root = CNtfsIndexRootBuilder;
using Volume = CNtfsVolumeBuilder;

constexpr uint64_t FolderFrn = 30;
constexpr uint64_t FirstFileFrn = 40;
constexpr uint64_t Lcn = 64;
constexpr uint64_t ClusterBytes = 4096;

Attribute AllocationIn(const std::vector<NtfsRun_t>& runs, uint64_t bytes) {
    return Attribute::NonResident(NtfsIndexAllocationType, runs, bytes).Name(u"$I30");
}

FileRecord LargeFolder(const Root& root, const Attribute& allocation) {
    return NtfsFolderOf(root).Add(allocation);
}

CNtfsIndexEntryBuilder File(uint64_t number, const std::u16string& name) {
    return NtfsEntryOf(FirstFileFrn + number, name);
}

class NtfsDirectory : public CNtfsFilesTest {
protected:
    // The folder's names, each with a mark where the folder says that it isn't a file's only one.
    Texts_t Walk(const Volume& volume, Texts_t* problems = nullptr) {
        OpenSet(volume);
        CNtfsMappedVolume mapped;
        EXPECT_OK(mapped.Open(*m_Set, *m_Set->Find("Volume1")));
        CAutoMemory<char> record;
        EXPECT_OK(mapped.ReadRecord(FolderFrn, record));
        CNtfsDirectory directory(mapped, "folder");
        Texts_t names;
        EXPECT_OK(directory.Walk(record, [&](NtfsIndexName_t&& name) {
            names.emplace_back(name.name.begin(), name.name.end());
            return true;
        }));
        if (problems != nullptr)
            *problems = directory.Problems();
        else
            EXPECT_EQ(Texts_t{}, directory.Problems());
        return names;
    }

    CZuError TryWalk(const FileRecord& folder) {
        OpenSet(Volume().Record(FolderFrn, folder));
        CNtfsMappedVolume mapped;
        EXPECT_OK(mapped.Open(*m_Set, *m_Set->Find("Volume1")));
        CAutoMemory<char> record;
        EXPECT_OK(mapped.ReadRecord(FolderFrn, record));
        return CNtfsDirectory(mapped, "folder").Walk(record, [](NtfsIndexName_t&&) { return true; });
    }
};

// --- The walk through an index.

// "b" stands in the root between two blocks. The first has a block below "a2", the allocation four blocks.
struct Tree_t {
    Root root = Root().Add(File(3, u"b").SubNode(0)).LastEntry(NtfsLastEntryTo(2));
    Block blocks[4] = {Block().Vcn(0).Add(File(0, u"a0")).Add(File(2, u"a2").SubNode(3)), Block().Vcn(1),
                       Block().Vcn(2).Add(File(4, u"c")).Add(File(5, u"d")), Block().Vcn(3).Add(File(1, u"a1"))};

    // All blocks lie one behind the other.
    Volume Build() const { return Build(AllocationIn({{Lcn, 4}}, 4 * ClusterBytes), {Lcn, Lcn + 1, Lcn + 2, Lcn + 3}); }

    Volume Build(const Attribute& allocation, const std::vector<uint64_t>& places) const {
        Volume volume;
        for (size_t index = 0; index < 4; ++index)
            volume.Cluster(places[index], blocks[index].Bytes());
        return volume.Record(FolderFrn, LargeFolder(root, allocation));
    }
};

const std::vector<std::string> TreeNames{"a0", "a1", "a2", "b", "c", "d"};

TEST_F(NtfsDirectory, NamesOfAllLevelsComeInTheirOrder) {
    EXPECT_EQ(TreeNames, Walk(Tree_t().Build()));
}

TEST_F(NtfsDirectory, BlocksMayLieInSeveralPieces) {
    EXPECT_EQ(TreeNames, Walk(Tree_t().Build(AllocationIn({{Lcn + 9, 1}, {Lcn, 2}, {Lcn + 5, 1}}, 4 * ClusterBytes),
                                             {Lcn + 9, Lcn, Lcn + 1, Lcn + 5})));
}

TEST_F(NtfsDirectory, BlocksMayLieInSegmentsOfSeveralRecords) {
    const Tree_t tree;
    Volume volume = tree.Build();
    std::string list;
    for (const uint64_t vcn : {uint64_t{0}, uint64_t{3}}) {
        NtfsListEntryFields_t entry;
        entry.type = NtfsIndexAllocationType;
        entry.name = u"$I30";
        entry.lowestVcn = vcn;
        entry.reference = NtfsReference(vcn == 0 ? 32 : 31);
        list += NtfsListEntry(entry);
    }
    const auto extension = [](const Attribute& attribute) {
        return FileRecord().BaseReference(NtfsReference(FolderFrn)).Add(attribute);
    };
    volume.Record(31, extension(AllocationIn({{Lcn + 3, 1}}, 0).LowestVcn(3)));
    volume.Record(32, extension(AllocationIn({{Lcn, 3}}, 4 * ClusterBytes)));
    volume.Record(FolderFrn, NtfsFolderOf(tree.root).Add(Attribute::Resident(NtfsAttributeListType, list)));
    EXPECT_EQ(TreeNames, Walk(volume));
}

// Their numbers count sectors of 512 bytes then.
TEST_F(NtfsDirectory, ClustersMayBeLargerThanBlocks) {
    const auto block = [](uint64_t vcn) { return Block().RecordBytes(1024).Vcn(vcn); };
    const Root root = Root().BlockBytes(1024).Add(File(2, u"b").SubNode(2)).LastEntry(NtfsLastEntryTo(10));
    Volume volume;
    volume.Record(FolderFrn, LargeFolder(root, AllocationIn({{Lcn, 1}, {Lcn + 2, 1}}, 2 * ClusterBytes)));
    volume.Cluster(Lcn, std::string(1024, '\0') + block(2).Add(File(1, u"a")).Bytes());
    volume.Cluster(Lcn + 2, std::string(1024, '\0') + block(10).Add(File(3, u"c")).Bytes());
    EXPECT_EQ((Texts_t{"a", "b", "c"}), Walk(volume));
}

TEST_F(NtfsDirectory, ClustersMayBeSmallerThanBlocks) {
    Volume volume;
    volume.SectorsPerCluster(2);
    const uint64_t lcn = volume.FreeLcn();
    volume.Record(FolderFrn,
                  LargeFolder(Root().Add(File(2, u"b").SubNode(4)),
                              Attribute(AllocationIn({{lcn, 6}, {lcn + 10, 2}}, 8 * 1024)).ClusterBytes(1024)));
    const std::string block = Block().Vcn(4).Add(File(1, u"a")).Bytes();
    volume.Cluster(lcn + 4, block.substr(0, 2048)).Cluster(lcn + 10, block.substr(2048));
    EXPECT_EQ((Texts_t{"a", "b"}), Walk(volume));
}

// Far more levels than any sound index has.
TEST_F(NtfsDirectory, ALongPathOfBlocksIsFollowedAndComeBackFrom) {
    constexpr uint64_t levels = 40;
    Volume volume;
    const auto name = [](uint64_t level) { return u"n" + std::u16string(1, static_cast<char16_t>(u'A' + level)); };
    for (uint64_t level = 0; level < levels; ++level) {
        Block block;
        block.Vcn(level);
        if (level + 1 < levels)
            block.Add(File(0, name(level)).SubNode(level + 1)).Add(File(0, u"z" + name(level)));
        volume.Cluster(Lcn + level, block.Bytes());
    }
    // On the way back each block gives its two names, the deepest first.
    Texts_t expected;
    for (uint64_t level = levels - 1; level-- > 0;) {
        expected.push_back(std::string("n") + static_cast<char>('A' + level));
        expected.push_back(std::string("zn") + static_cast<char>('A' + level));
    }
    volume.Record(FolderFrn, LargeFolder(Root().LastEntry(NtfsLastEntryTo(0)),
                                         AllocationIn({{Lcn, levels}}, levels * ClusterBytes)));
    EXPECT_EQ(expected, Walk(volume));
}

TEST_F(NtfsDirectory, TheWalkEndsWhenItIsToldTo) {
    OpenSet(Tree_t().Build());
    CNtfsMappedVolume mapped;
    ASSERT_OK(mapped.Open(*m_Set, *m_Set->Find("Volume1")));
    CAutoMemory<char> record;
    ASSERT_OK(mapped.ReadRecord(FolderFrn, record));
    int names = 0;
    CNtfsDirectory directory(mapped, "folder");
    ASSERT_OK(directory.Walk(record, [&](NtfsIndexName_t&&) { return ++names < 3; }));
    EXPECT_EQ(3, names);
}

TEST_F(NtfsDirectory, ADamagedBlockIsToldOfAndTheRestIsListed) {
    const struct {
        const char* name;
        Block block;
    } rows[] = {
        {"no signature", Block().Signature("BAAD").Add(File(4, u"c"))},
        {"a broken sector", Block().Add(File(4, u"c")).BreakSectorEnd(5)},
        {"entries outside", Block().Add(File(4, u"c")).FirstEntry(8000)},
        {"an entry that stands still", Block().Add(File(4, u"c").Length(0))},
        {"an entry shorter than its head", Block().Add(File(4, u"c").Length(15))},
        {"an entry that leaves the block", Block().Add(File(4, u"c").Length(5000))},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Tree_t tree;
        tree.blocks[2] = row.block;
        Texts_t problems;
        EXPECT_EQ((Texts_t{"a0", "a1", "a2", "b"}), Walk(tree.Build(), &problems));
        ASSERT_EQ(1U, problems.size());
        EXPECT_EQ(0U, problems[0].find("folder: ")) << problems[0];
    }
}

TEST_F(NtfsDirectory, WhatADamagedBlockHoldsInFrontOfItsDamageIsListed) {
    Tree_t tree;
    tree.blocks[2] = Block().Add(File(4, u"c")).Add(File(5, u"d").Length(9)).Add(File(6, u"e"));
    Texts_t problems;
    EXPECT_EQ((Texts_t{"a0", "a1", "a2", "b", "c"}), Walk(tree.Build(), &problems));
    EXPECT_EQ((Texts_t{"folder: an entry of its index is damaged"}), problems);
}

TEST_F(NtfsDirectory, ANameThatLeavesItsNodeIsLeftOut) {
    Tree_t tree;
    tree.blocks[2] = Block().Add(File(4, u"c")).WithoutLastEntry().Add(File(5, u"d").PutAt(80, "\xFF"));
    tree.blocks[2].PutAt(24 + 4, LittleEndianBytes(4072, 4));
    Texts_t problems;
    const Texts_t names = Walk(tree.Build(), &problems);
    EXPECT_NE(names.end(), std::find(names.begin(), names.end(), "c"));
    EXPECT_FALSE(problems.empty());
}

TEST_F(NtfsDirectory, ABlockIsEnteredOnce) {
    Tree_t tree;
    tree.blocks[3] = Block().Vcn(3).Add(File(1, u"a1").SubNode(0)).LastEntry(NtfsLastEntryTo(3));
    Texts_t problems;
    EXPECT_EQ(TreeNames, Walk(tree.Build(), &problems));
    EXPECT_EQ((Texts_t{"folder: block 0 of its index is damaged", "folder: block 3 of its index is damaged"}),
              problems);
}

TEST_F(NtfsDirectory, ABlockThatIsNotThereIsToldOf) {
    const struct {
        const char* name;
        uint64_t vcn;
    } rows[] = {{"behind the allocation", 4}, {"far behind it", uint64_t{1} << 62U}, {"the largest", ~uint64_t{0}}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Tree_t tree;
        tree.root.LastEntry(NtfsLastEntryTo(row.vcn));
        Texts_t problems;
        EXPECT_EQ((Texts_t{"a0", "a1", "a2", "b"}), Walk(tree.Build(), &problems));
        EXPECT_EQ((Texts_t{"folder: block " + std::to_string(row.vcn) + " of its index is damaged"}), problems);
    }
    Texts_t problems;
    EXPECT_EQ(Texts_t{"b"},
              Walk(Volume().Record(FolderFrn, NtfsFolderOf(Root().Add(File(3, u"b").SubNode(0)))), &problems));
    EXPECT_EQ(Texts_t{"folder: block 0 of its index is damaged"}, problems);
}

TEST_F(NtfsDirectory, BlocksOfImpossibleSizesAreToldOf) {
    for (const uint32_t bytes : {0U, 24U, 0x80000000U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(bytes);
        Tree_t tree;
        tree.root.BlockBytes(bytes);
        Texts_t problems;
        EXPECT_EQ(Texts_t{"b"}, Walk(tree.Build(), &problems));
        EXPECT_EQ(2U, problems.size());
    }
}

TEST_F(NtfsDirectory, ARecordWithoutASoundIndexIsRefused) {
    EXPECT_FAILS_SAYING(TryWalk(FileRecord().Directory()), "folder");
    const auto rootOf = [](const std::string& value) {
        return FileRecord().Directory().Add(Attribute::Resident(NtfsIndexRootType, value).Name(u"$I30"));
    };
    EXPECT_FAILS_SAYING(TryWalk(rootOf("short")), "folder", "index is damaged");
    EXPECT_FAILS_SAYING(TryWalk(rootOf(Root().Bytes().substr(0, 31))), "folder", "index is damaged");
    EXPECT_FAILS_SAYING(
        TryWalk(FileRecord().Directory().Add(Attribute::Resident(NtfsIndexRootType, Root().Bytes()).Name(u"$O"))),
        "folder");
}

// --- What is listed.

using NtfsListing = NtfsDirectory;

TEST_F(NtfsListing, ShortNamesAreLeftOut) {
    Open(Volume()
             .Root(Root()
                       .Add(NtfsEntryOf(40, u"LONGNA~1", NtfsPlainFile, 2))
                       .Add(NtfsEntryOf(40, u"long name", NtfsPlainFile, 1))
                       .Add(NtfsEntryOf(41, u"posix", NtfsPlainFile, 0)))
             .Record(40, NtfsFileOf("1"))
             .Record(41, NtfsFileOf("2")));
    EXPECT_EQ((Texts_t{"long name", "posix"}), List());
}

TEST_F(NtfsListing, TheVolumesOwnFilesAreShownWhenAskedFor) {
    Open(Volume()
             .Root(Root().Add(NtfsEntryOf(3, u"$Volume")).Add(NtfsFolderEntryOf(5, u".")).Add(NtfsEntryOf(16, u"file")))
             .Record(16, NtfsFileOf("1")));
    EXPECT_EQ(Texts_t{"file"}, List());
    NtfsListing_t listing;
    listing.withMetadata = true;
    listing.isRecursive = true;
    EXPECT_EQ((Texts_t{"$Volume", "file"}), List(NtfsRootNumber, listing));
    EXPECT_EQ(Texts_t{}, listing.problems);
}

TEST_F(NtfsListing, WhatAFolderHoldsComesRightBehindIt) {
    Open(Volume()
             .Root(Root().Add(NtfsFolderEntryOf(30, u"a")).Add(File(0, u"b")))
             .Record(30, NtfsFolderOf({NtfsFolderEntryOf(31, u"deep"), File(1, u"file")}))
             .Record(31, NtfsFolderOf({File(2, u"deeper")}))
             .Record(40, NtfsFileOf("0"))
             .Record(41, NtfsFileOf("1"))
             .Record(42, NtfsFileOf("2")));
    EXPECT_EQ((Texts_t{"a", "a/deep", "a/deep/deeper", "a/file", "b"}), ListAll());
    EXPECT_EQ((Texts_t{"a", "b"}), List());
    EXPECT_EQ((Texts_t{"deep", "deep/deeper", "file"}), ListAll(30));
    EXPECT_EQ((Texts_t{"deep", "file"}), List(30));
}

TEST_F(NtfsListing, FilesAreDescribedInWhateverOrderTheirRecordsLie) {
    Open(Volume()
             .Root(Root().Add(File(2, u"a")).Add(File(0, u"b")).Add(File(2, u"c")).Add(File(1, u"d")))
             .Record(40, NtfsFileOf("1"))
             .Record(41, NtfsFileOf("22"))
             .Record(42, NtfsFileOf("333")));
    Texts_t texts;
    NtfsListing_t listing;
    ASSERT_OK(m_Ntfs->List(NtfsRootNumber, listing, [&](const NtfsEntry_t& entry) {
        texts.push_back(entry.name + " " + std::to_string(entry.file.frn) + " " + std::to_string(entry.file.bytes));
        return true;
    }));
    EXPECT_EQ((Texts_t{"a 42 3", "b 40 1", "c 42 3", "d 41 2"}), texts);
}

TEST_F(NtfsListing, TheListingEndsWhenItIsToldTo) {
    Open(Volume().Root(Root().Add(File(0, u"a")).Add(File(0, u"b")).Add(File(0, u"c"))).Record(40, NtfsFileOf("1")));
    int entries = 0;
    NtfsListing_t listing;
    ASSERT_OK(m_Ntfs->List(NtfsRootNumber, listing, [&](const NtfsEntry_t&) { return ++entries < 2; }));
    EXPECT_EQ(2, entries);
}

TEST_F(NtfsListing, AFileThatCannotBeReadIsGivenWithItsProblem) {
    Open(Volume()
             .Root(Root().Add(File(0, u"a")).Add(File(1, u"b")).Add(File(2, u"c")).Add(NtfsEntryOf(9999, u"d")))
             .Record(40, NtfsFileOf("1"))
             .Record(41, NtfsFileOf("1").BreakSectorEnd(1))
             .Record(42, ""));
    EXPECT_EQ(
        (Texts_t{"a", "b (Volume1: file record 41: File Record is Corrupted)",
                 "c (Volume1: file record 42: File Not in Use)", "d (Volume1: file record 9999: Value Out Of Range)"}),
        List());
}

TEST_F(NtfsListing, EntriesOfRecordsThatOtherFilesHaveByNowAreMarked) {
    Open(Volume()
             .Root(Root()
                       .Add(NtfsEntryOf(40, u"new", NtfsPlainFile, 3, 8))
                       .Add(NtfsEntryOf(40, u"old", NtfsPlainFile, 3, 7))
                       .Add(NtfsEntryOf(40, u"unknown", NtfsPlainFile, 3, 0)))
             .Record(40, NtfsFileOf("1").ReuseCount(8)));
    EXPECT_EQ((Texts_t{"new", "old (Volume1: file record 40 belongs to another file by now)", "unknown"}), List());
}

TEST_F(NtfsListing, AnotherFoldersFilesAreNotListedBelowAnOldName) {
    Open(Volume()
             .Root(Root()
                       .Add(NtfsEntryOf(30, u"a name of old", NtfsFolderBit, 3, 7))
                       .Add(NtfsEntryOf(30, u"new", NtfsFolderBit, 3, 8))
                       .Add(NtfsEntryOf(30, u"old", NtfsFolderBit, 3, 7)))
             .Record(30, NtfsFolderOf({File(0, u"file")}).ReuseCount(8))
             .Record(40, NtfsFileOf("1")));
    EXPECT_EQ((Texts_t{"a name of old (Volume1: file record 30 belongs to another file by now)", "new", "new/file",
                       "old (Volume1: file record 30 belongs to another file by now)"}),
              ListAll());
}

TEST_F(NtfsListing, FoldersInACircleAreEnteredOnce) {
    Open(Volume()
             .Root(Root().Add(NtfsFolderEntryOf(30, u"a")))
             .Record(30, NtfsFolderOf({NtfsFolderEntryOf(31, u"b")}))
             .Record(31, NtfsFolderOf({NtfsFolderEntryOf(30, u"a again"), NtfsFolderEntryOf(5, u"root"),
                                       NtfsFolderEntryOf(31, u"b again")})));
    EXPECT_EQ((Texts_t{"a", "a/b", "a/b/a again", "a/b/b again"}), ListAll());
}

TEST_F(NtfsListing, ManyNamesOfAFileWithManyStreamsAreAllDescribed) {
    constexpr uint64_t blocks = 200;
    constexpr uint64_t namesOfBlock = 40;
    constexpr size_t streams = 18;
    Volume volume;
    for (uint64_t number = 0; number < blocks; ++number) {
        Block block;
        block.Vcn(number);
        for (uint64_t name = 0; name < namesOfBlock; ++name)
            block.Add(File(0, u"x"));
        if (number + 1 < blocks)
            block.LastEntry(NtfsLastEntryTo(number + 1));
        volume.Cluster(Lcn + number, block.Bytes());
    }
    FileRecord file = NtfsFileOf("1");
    for (size_t stream = 1; stream < streams; ++stream)
        file.Add(NtfsDataOf("2").Name(std::u16string(1, static_cast<char16_t>(u'a' + stream))));
    Open(volume.Record(FirstFileFrn, file)
             .Record(FolderFrn, LargeFolder(Root().LastEntry(NtfsLastEntryTo(0)),
                                            AllocationIn({{Lcn, blocks}}, blocks * ClusterBytes))));
    NtfsListing_t listing;
    size_t described = 0;
    ASSERT_OK(m_Ntfs->List(FolderFrn, listing, [&](const NtfsEntry_t& entry) {
        described += entry.file.streams.size() == streams ? 1 : 0;
        return true;
    }));
    EXPECT_EQ(blocks * namesOfBlock, described);
    EXPECT_EQ(Texts_t{}, listing.problems);
}

// A folder below another holds its names together with those of all above it, and the same few blocks may stand for
// the names of each.
TEST_F(NtfsListing, FoldersThatHoldMoreNamesThanTheVolumeHasRoomForAreNotEntered) {
    constexpr uint64_t blocks = 100;
    constexpr uint64_t namesOfBlock = 40;
    constexpr uint64_t folders = 10;
    constexpr uint64_t firstFolder = 20;
    Volume volume;
    for (uint64_t number = 0; number < blocks; ++number) {
        Block block;
        block.Vcn(number);
        for (uint64_t name = 0; name < namesOfBlock; ++name)
            block.Add(File(0, u"x"));
        if (number + 1 < blocks)
            block.LastEntry(NtfsLastEntryTo(number + 1));
        volume.Cluster(Lcn + number, block.Bytes());
    }
    for (uint64_t folder = firstFolder; folder < firstFolder + folders; ++folder)
        volume.Record(folder, LargeFolder(Root().Add(NtfsFolderEntryOf(folder + 1, u"f")).LastEntry(NtfsLastEntryTo(0)),
                                          AllocationIn({{Lcn, blocks}}, blocks * ClusterBytes)));
    volume.Root(Root().Add(NtfsFolderEntryOf(firstFolder, u"f"))).Record(FirstFileFrn, NtfsFileOf("1"));
    Open(volume);
    NtfsListing_t listing;
    listing.isRecursive = true;
    const Texts_t names = List(NtfsRootNumber, listing);
    // 2 MiB have room for five folders, and each of them names the next.
    EXPECT_EQ(1 + 5 * (1 + blocks * namesOfBlock), names.size());
    EXPECT_EQ(Texts_t{"Volume1: /f/f/f/f/f/f/: holds more names than the volume has room for"}, listing.problems);
}

TEST_F(NtfsListing, AFolderThatCannotBeReadIsToldOf) {
    Open(Volume()
             .Root(Root()
                       .Add(NtfsFolderEntryOf(30, u"gone"))
                       .Add(NtfsFolderEntryOf(40, u"no folder"))
                       .Add(NtfsFolderEntryOf(32, u"no index"))
                       .Add(File(1, u"z")))
             .Record(30, "")
             .Record(32, FileRecord().Directory())
             .Record(40, NtfsFileOf("1"))
             .Record(41, NtfsFileOf("1")));
    NtfsListing_t listing;
    listing.isRecursive = true;
    EXPECT_EQ((Texts_t{"gone (Volume1: file record 30: File Not in Use)", "no folder", "no index", "z"}),
              List(NtfsRootNumber, listing));
    ASSERT_EQ(3U, listing.problems.size());
    EXPECT_EQ("Volume1: file record 30: File Not in Use", listing.problems[0]);
    EXPECT_EQ("Volume1: file record 40 is no directory", listing.problems[1]);
    EXPECT_NE(std::string::npos, listing.problems[2].find("Volume1: /no index/")) << listing.problems[2];
}

TEST_F(NtfsListing, DamageOfAFoldersIndexIsToldOfWithItsPath) {
    Tree_t tree;
    tree.blocks[2] = Block().Signature("BAAD");
    Volume volume = tree.Build();
    volume.Root(Root().Add(NtfsFolderEntryOf(FolderFrn, u"folder")));
    for (uint64_t number = 0; number < 6; ++number)
        volume.Record(FirstFileFrn + number, NtfsFileOf("x"));
    Open(volume);
    NtfsListing_t listing;
    listing.isRecursive = true;
    EXPECT_EQ((Texts_t{"folder", "folder/a0", "folder/a1", "folder/a2", "folder/b"}), List(NtfsRootNumber, listing));
    EXPECT_EQ(Texts_t{"Volume1: /folder/: block 2 of its index is damaged"}, listing.problems);
}

TEST_F(NtfsListing, AFileIsNoFolderToList) {
    Open(Volume().Record(40, NtfsFileOf("1")));
    NtfsListing_t listing;
    EXPECT_FAILS_SAYING(m_Ntfs->List(40, listing, [](const NtfsEntry_t&) { return true; }), "Volume1",
                        "file record 40 is no directory");
}

}  // namespace
