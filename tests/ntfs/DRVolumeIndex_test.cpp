#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/NtfsTestVolume.h"
#include "tests/support/SameBytes.h"

// How `CDRVolume` finds files by their names.

namespace {

using Attribute = CNtfsAttributeBuilder;
using FileRecord = CNtfsFileRecordBuilder;
using IndexBlock = CNtfsIndexRecordBuilder;
using IndexEntry = CNtfsIndexEntryBuilder;
using IndexRoot = CNtfsIndexRootBuilder;
using Volume = CNtfsVolumeBuilder;

constexpr uint64_t DirectoryFrn = 40;
constexpr uint64_t Lcn = 64;
constexpr uint32_t ClusterBytes = 4096;
constexpr uint64_t NoFrn = ~uint64_t{0};
constexpr uint32_t Writable = 0x20;

Attribute RootOf(const IndexRoot& root) {
    return Attribute::Resident(NtfsIndexRootType, root.Bytes()).Name(u"$I30");
}

Attribute AllocationOf(const std::vector<NtfsRun_t>& runs, uint64_t bytes) {
    return Attribute::NonResident(NtfsIndexAllocationType, runs, bytes).Name(u"$I30");
}

FileRecord DirectoryOf(const IndexRoot& root) {
    return FileRecord().Directory().Add(RootOf(root));
}

Attribute NameOf(const std::u16string& name, uint8_t kind) {
    NtfsFileNameFields_t fields;
    fields.name = name;
    fields.kind = kind;
    return Attribute::Resident(NtfsFileNameType, NtfsFileNameValue(fields));
}

// The root has the directory, whose record the test makes.
Volume WithDirectory(const FileRecord& directory) {
    return Volume().RootEntry(NtfsDirectoryEntry(DirectoryFrn, u"dir")).Record(DirectoryFrn, directory);
}

class DRVolumeIndex : public CNtfsVolumeTest {
protected:
    int Crack(std::wstring path) {
        m_Frn = 77;
        return m_Ntfs.CrackFileName(path.data(), &m_Frn);
    }

    void ExpectFound(uint64_t frn, const std::wstring& path) {
        EXPECT_EQ(NtfsOk, Crack(path));
        EXPECT_EQ(frn, m_Frn);
    }

    void ExpectFailure(int result, const std::wstring& path) {
        EXPECT_EQ(result, Crack(path));
        EXPECT_EQ(NoFrn, m_Frn);
    }

    // Searches a node that begins with its index header; gives the FRN, or all ones with the result.
    int Search(std::string node, std::wstring name) { return Search(node, name.data(), name.size()); }

    int Search(std::string& node, wchar_t* name, size_t length) {
        INDEX_ENTRY_I30* entry = nullptr;
        const int result = m_Ntfs.SearchIndexBlock_I30(node.data(), name, static_cast<uint32_t>(length), &entry);
        m_Frn = result == NtfsIndexFound ? entry->Reference & 0xFFFFFFFFFFFFU : NoFrn;
        return result;
    }

    uint64_t m_Frn = 0;
};

std::string NodeOf(const IndexRoot& root) {
    return root.Bytes().substr(16);
}

TEST_F(DRVolumeIndex, APathOfSeparatorsIsTheRoot) {
    ASSERT_EQ(NtfsOk, Open(Volume()));
    for (const wchar_t* const path : {L"\\", L"\\\\", L"\\\\\\\\", L"", L"x"})
        ExpectFound(NtfsRootNumber, path);
}

TEST_F(DRVolumeIndex, TheFirstCharacterIsTakenForASeparator) {
    ASSERT_EQ(NtfsOk, Open(Volume()));
    ExpectFound(NtfsSecureNumber, L"\\$Secure");
    ExpectFound(NtfsSecureNumber, L"x$Secure");
    ExpectFailure(NtfsIndexNotFound, L"$Secure");
}

TEST_F(DRVolumeIndex, NothingIsRefusedAsAPath) {
    ASSERT_EQ(NtfsOk, Open(Volume()));
    uint64_t frn = 0;
    EXPECT_EQ(NtfsInvalidParameter, m_Ntfs.CrackFileName(nullptr, &frn));
    wchar_t path[] = L"\\";
    EXPECT_EQ(NtfsInvalidParameter, m_Ntfs.CrackFileName(path, nullptr));
}

TEST_F(DRVolumeIndex, APathIsFollowedThroughDirectories) {
    Volume volume = WithDirectory(DirectoryOf(IndexRoot().Add(NtfsDirectoryEntry(41, u"sub dir"))));
    volume.Record(41, DirectoryOf(IndexRoot().Add(NtfsDirectoryEntry(0xABCDEF012345, u"file"))));
    ASSERT_EQ(NtfsOk, Open(volume));
    ExpectFound(DirectoryFrn, L"\\dir");
    ExpectFound(41, L"\\dir\\sub dir");
    ExpectFound(0xABCDEF012345, L"\\dir\\sub dir\\file");
    ExpectFound(0xABCDEF012345, L"\\\\dir\\\\\\sub dir\\file\\");
    ExpectFailure(NtfsIndexNotFound, L"\\dir\\file");
    ExpectFailure(NtfsIndexNotFound, L"\\file\\dir");
    ExpectFailure(NtfsIndexNotFound, L"\\dir/sub dir");
}

TEST_F(DRVolumeIndex, LettersOfBothCasesAreTheSame) {
    Volume volume;
    volume.RootEntry(NtfsDirectoryEntry(41, u"Readme.TXT"));
    volume.RootEntry(NtfsDirectoryEntry(42, u"Gr\u00F6\u00DFe \u03B1\u0416"));
    volume.RootEntry(NtfsDirectoryEntry(43, u"\U0001F600"));
    ASSERT_EQ(NtfsOk, Open(volume));
    for (const wchar_t* const path : {L"\\readme.txt", L"\\README.TXT", L"\\Readme.TXT", L"\\rEADME.txt"})
        ExpectFound(41, path);
    ExpectFound(42, L"\\gR\u00D6\u00DFE \u0391\u0436");
    ExpectFound(43, L"\\\U0001F600");
    ExpectFailure(NtfsIndexNotFound, L"\\readme_txt");
}

TEST_F(DRVolumeIndex, ANameIsFoundByItsWholeLengthOnly) {
    Volume volume;
    volume.RootEntry(NtfsDirectoryEntry(41, u"name"));
    volume.RootEntry(NtfsDirectoryEntry(42, std::u16string(255, u'n')));
    ASSERT_EQ(NtfsOk, Open(volume));
    ExpectFailure(NtfsIndexNotFound, L"\\nam");
    ExpectFailure(NtfsIndexNotFound, L"\\name2");
    ExpectFound(42, L"\\" + std::wstring(255, L'N'));
    ExpectFailure(NtfsIndexNotFound, L"\\" + std::wstring(254, L'N'));
    ExpectFailure(NtfsIndexNotFound, L"\\" + std::wstring(256, L'N'));
    ExpectFailure(NtfsIndexNotFound, L"\\" + std::wstring(511, L'N'));
}

TEST_F(DRVolumeIndex, APathThroughAFileIsNotFound) {
    const struct {
        const char* name;
        FileRecord record;
    } rows[] = {
        {"a file", FileRecord().Add(Attribute::Resident(NtfsDataType, "data"))},
        {"a file with an index", FileRecord().Add(RootOf(IndexRoot().Add(NtfsDirectoryEntry(41, u"x"))))},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(NtfsOk, Open(WithDirectory(row.record)));
        ExpectFailure(NtfsIndexNotFound, L"\\dir\\x");
        ExpectFound(DirectoryFrn, L"\\dir\\");
    }
}

TEST_F(DRVolumeIndex, ADirectoryThatCannotBeUsedIsRefused) {
    const struct {
        const char* name;
        FileRecord record;
        int result;
    } rows[] = {
        {"not in use", FileRecord().Flags(2), NtfsNotInUse},
        {"an extension record", FileRecord().Directory().BaseReference(7), NtfsNotBaseRecord},
        {"torn", FileRecord().Directory().BreakSectorEnd(0), NtfsRecordCorrupted},
        {"no index", FileRecord().Directory(), NtfsNotAnIndex},
        {"the order of numbers", DirectoryOf(IndexRoot().Collation(0x10)), NtfsWrongCollation},
        {"no order", DirectoryOf(IndexRoot().Collation(0)), NtfsWrongCollation},
        {"a block above all memory", DirectoryOf(IndexRoot().BlockBytes(0xFFFFFFFF)), NtfsOutOfMemory},
        {"runs of nine bytes",
         FileRecord().Directory().Add(
             Attribute::NonResident(NtfsIndexRootType, {{Lcn, 1}}, ClusterBytes).RunList("\x19\x01")),
         NtfsRunTooWide},
        {"a cluster that the volume hasn't",
         FileRecord().Directory().Add(Attribute::NonResident(NtfsIndexRootType, {{5000, 1}}, ClusterBytes)),
         NtfsSeeLog},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(NtfsOk, Open(WithDirectory(row.record)));
        ExpectFailure(row.result, L"\\dir\\x");
    }
}

TEST_F(DRVolumeIndex, ARootInClustersIsRead) {
    const std::string root = IndexRoot().Add(NtfsDirectoryEntry(41, u"x")).Bytes();
    Volume volume =
        WithDirectory(FileRecord().Directory().Add(Attribute::NonResident(NtfsIndexRootType, {{Lcn, 1}}, root.size())));
    ASSERT_EQ(NtfsOk, Open(volume.Cluster(Lcn, root)));
    ExpectFound(41, L"\\dir\\x");
    ExpectFailure(NtfsIndexNotFound, L"\\dir\\y");
}

// --- Blocks behind the root.

TEST_F(DRVolumeIndex, ANameIsLookedForInAllBlocks) {
    for (const uint32_t blockBytes : {1024U, 4096U, 8192U}) {
        SCOPED_TRACE(blockBytes);
        std::string blocks;
        for (uint64_t number = 0; number < 6; ++number)
            blocks += IndexBlock()
                          .RecordBytes(blockBytes)
                          .Vcn(number)
                          .Add(NtfsDirectoryEntry(50 + number, {u'f', static_cast<char16_t>(u'0' + number)}))
                          .Bytes();
        const uint64_t clusters = (blocks.size() + ClusterBytes - 1) / ClusterBytes;
        Volume volume =
            WithDirectory(FileRecord()
                              .Directory()
                              .Add(RootOf(IndexRoot().BlockBytes(blockBytes).Add(NtfsDirectoryEntry(49, u"root"))))
                              .Add(AllocationOf({{Lcn, 1}, {Lcn + 20, clusters - 1}}, blocks.size())));
        volume.Cluster(Lcn, blocks.substr(0, ClusterBytes)).Cluster(Lcn + 20, blocks.substr(ClusterBytes));
        ASSERT_EQ(NtfsOk, Open(volume));
        ExpectFound(49, L"\\dir\\root");
        for (wchar_t number = 0; number < 6; ++number)
            ExpectFound(50 + static_cast<uint64_t>(number), std::wstring(L"\\dir\\f") + wchar_t(L'0' + number));
        ExpectFailure(NtfsIndexNotFound, L"\\dir\\f6");
    }
}

FileRecord TwoBlocks() {
    return FileRecord().Directory().Add(RootOf(IndexRoot())).Add(AllocationOf({{Lcn, 2}}, 2 * ClusterBytes));
}

TEST_F(DRVolumeIndex, ABlockWithoutItsSignatureIsPassedOver) {
    const std::string second = IndexBlock().Add(NtfsDirectoryEntry(41, u"x")).Bytes();
    for (const std::string& first : {std::string(ClusterBytes, '\0'), PatternedBytes(ClusterBytes),
                                     IndexBlock().Signature("BAAD").Add(NtfsDirectoryEntry(42, u"x")).Bytes()}) {
        ASSERT_EQ(NtfsOk, Open(WithDirectory(TwoBlocks()).Cluster(Lcn, first).Cluster(Lcn + 1, second)));
        ExpectFound(41, L"\\dir\\x");
    }
}

TEST_F(DRVolumeIndex, ATornBlockIsRefused) {
    for (const size_t sector : {0U, 5U, 7U}) {
        const std::string torn = IndexBlock().BreakSectorEnd(sector).Bytes();
        const std::string second = IndexBlock().Add(NtfsDirectoryEntry(41, u"x")).Bytes();
        ASSERT_EQ(NtfsOk, Open(WithDirectory(TwoBlocks()).Cluster(Lcn, torn).Cluster(Lcn + 1, second)));
        ExpectFailure(NtfsIndexCorrupted, L"\\dir\\x");
    }
    const std::string outside = IndexBlock().SequenceOffset(4095).Bytes();
    ASSERT_EQ(NtfsOk, Open(WithDirectory(TwoBlocks()).Cluster(Lcn, outside)));
    ExpectFailure(NtfsIndexCorrupted, L"\\dir\\x");
}

TEST_F(DRVolumeIndex, AFailedReadOfABlockReachesTheCaller) {
    const std::string block = IndexBlock().Add(NtfsDirectoryEntry(41, u"x")).Bytes();
    ASSERT_EQ(NtfsOk, Open(WithDirectory(TwoBlocks()).Cluster(Lcn, block).Cluster(Lcn + 1, block)));
    m_Ntfs.FailAt((Lcn + 1) * ClusterBytes + 7);
    ExpectFound(41, L"\\dir\\x");
    ExpectFailure(NtfsSeeLog, L"\\dir\\y");
    m_Ntfs.FailAt(Lcn * ClusterBytes + 7);
    ExpectFailure(NtfsSeeLog, L"\\dir\\x");
}

// Callers rely on the first segment alone being read.
TEST_F(DRVolumeIndex, ALaterSegmentIsNotRead) {
    const std::string block = IndexBlock().Add(NtfsDirectoryEntry(41, u"x")).Bytes();
    const FileRecord directory = FileRecord()
                                     .Directory()
                                     .Add(RootOf(IndexRoot()))
                                     .Add(AllocationOf({{Lcn, 1}}, 2 * ClusterBytes))
                                     .Add(AllocationOf({{Lcn + 1, 1}}, 0).LowestVcn(1));
    ASSERT_EQ(NtfsOk, Open(WithDirectory(directory).Cluster(Lcn, IndexBlock().Bytes()).Cluster(Lcn + 1, block)));
    ExpectFailure(NtfsIndexNotFound, L"\\dir\\x");
}

TEST_F(DRVolumeIndex, PartOfABlockIsNoBlock) {
    const std::string block = IndexBlock().Add(NtfsDirectoryEntry(41, u"x")).Bytes();
    const FileRecord directory =
        FileRecord().Directory().Add(RootOf(IndexRoot())).Add(AllocationOf({{Lcn, 1}}, ClusterBytes - 1));
    ASSERT_EQ(NtfsOk, Open(WithDirectory(directory).Cluster(Lcn, block)));
    ExpectFailure(NtfsIndexNotFound, L"\\dir\\x");
}

TEST_F(DRVolumeIndex, AnAllocationOfHolesEnds) {
    const FileRecord directory = FileRecord()
                                     .Directory()
                                     .Add(RootOf(IndexRoot()))
                                     .Add(AllocationOf({{NtfsHole, 1000}}, uint64_t{1000} * ClusterBytes));
    ASSERT_EQ(NtfsOk, Open(WithDirectory(directory)));
    ExpectFailure(NtfsIndexNotFound, L"\\dir\\x");
}

// A volume may say that a hole has any size, and to read its blocks one by one would take for ever.
TEST_F(DRVolumeIndex, ABlockBehindAHoleIsFoundHoweverLongTheHoleIs) {
    constexpr uint64_t huge = uint64_t{1} << 50U;
    const struct {
        const char* name;
        std::vector<NtfsRun_t> runs;
        uint32_t blockBytes;
        uint16_t compressionUnit;
    } rows[] = {
        {"in front", {{NtfsHole, huge}, {Lcn, 4}}, 4096, 0},
        {"in the middle", {{Lcn + 8, 1}, {NtfsHole, huge}, {Lcn, 4}}, 4096, 0},
        {"two of them", {{NtfsHole, huge}, {NtfsHole, huge}, {Lcn, 4}}, 4096, 0},
        {"with small blocks", {{Lcn + 8, 1}, {NtfsHole, huge}, {Lcn, 4}}, 1024, 0},
        {"with large blocks", {{Lcn + 8, 1}, {NtfsHole, huge - 1}, {Lcn, 4}}, 8192, 0},
        {"that ends in a block", {{Lcn + 8, 1}, {NtfsHole, huge}, {Lcn + 9, 1}, {Lcn, 4}}, 8192, 0},
        {"of whole compression units", {{Lcn + 16, 4}, {NtfsHole, huge}, {Lcn, 4}}, 4096, 2},
        {"that begins in a compression unit", {{Lcn + 16, 2}, {NtfsHole, huge - 2}, {Lcn, 4}}, 4096, 2},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string block = IndexBlock().RecordBytes(row.blockBytes).Add(NtfsDirectoryEntry(41, u"x")).Bytes();
        uint64_t clusters = 0;
        for (const NtfsRun_t& run : row.runs)
            clusters += run.clusters;
        Attribute allocation = AllocationOf(row.runs, clusters * ClusterBytes);
        if (row.compressionUnit != 0)
            allocation.CompressionUnit(row.compressionUnit);
        const FileRecord directory =
            FileRecord().Directory().Add(RootOf(IndexRoot().BlockBytes(row.blockBytes))).Add(allocation);
        ASSERT_EQ(NtfsOk, Open(WithDirectory(directory).Cluster(Lcn, block)));
        ExpectFound(41, L"\\dir\\x");
        ExpectFailure(NtfsIndexNotFound, L"\\dir\\y");
    }
}

TEST_F(DRVolumeIndex, AnAllocationEndsInAHoleWithItsLastCluster) {
    constexpr uint64_t huge = uint64_t{1} << 50U;
    const std::string block = IndexBlock().Add(NtfsDirectoryEntry(41, u"x")).Bytes();
    Attribute allocation = AllocationOf({{NtfsHole, huge}, {Lcn, 1}}, (huge + 1) * ClusterBytes);
    for (const uint64_t lastVcn : {huge, huge - 1, huge / 2}) {
        const FileRecord directory =
            FileRecord().Directory().Add(RootOf(IndexRoot())).Add(allocation.HighestVcn(lastVcn));
        ASSERT_EQ(NtfsOk, Open(WithDirectory(directory).Cluster(Lcn, block)));
        if (lastVcn == huge)
            ExpectFound(41, L"\\dir\\x");
        else
            ExpectFailure(NtfsIndexNotFound, L"\\dir\\x");
    }
}

// Callers rely on every result but a hit leading to the next block: what is broken hides no other file.
TEST_F(DRVolumeIndex, ABrokenBlockLeadsToTheNext) {
    const std::string good = IndexBlock().Add(NtfsDirectoryEntry(41, u"x")).Bytes();
    const IndexEntry entry = NtfsDirectoryEntry(42, u"other");
    const struct {
        const char* name;
        IndexRoot root;
        IndexBlock block;
    } rows[] = {
        {"an entry of length 0", IndexRoot().Add(IndexEntry(entry).Length(0)),
         IndexBlock().Add(IndexEntry(entry).Length(0))},
        {"an entry shorter than its head", IndexRoot().Add(IndexEntry(entry).Length(15)),
         IndexBlock().Add(IndexEntry(entry).Length(15))},
        {"an entry that leaves the block", IndexRoot().Add(IndexEntry(entry).Length(0xFFF8)),
         IndexBlock().Add(IndexEntry(entry).Length(0xFFF8))},
        {"an entry without a name", IndexRoot().Add(IndexEntry(entry).Length(16)),
         IndexBlock().Add(IndexEntry(entry).Length(16))},
        {"a name that leaves the block", IndexRoot().WithoutLastEntry().Add(IndexEntry(entry).PutAt(80, "\xFF")),
         IndexBlock().WithoutLastEntry().Add(IndexEntry(entry).PutAt(80, "\xFF"))},
        {"no last entry", IndexRoot().WithoutLastEntry(), IndexBlock().WithoutLastEntry()},
        {"entries behind the block", IndexRoot().PutAt(16, LittleEndianBytes(4096, 4)), IndexBlock().FirstEntry(4096)},
        {"entries far behind it", IndexRoot().PutAt(16, LittleEndianBytes(0xFFFFFFF0, 4)),
         IndexBlock().FirstEntry(0xFFFFFFF0)},
        {"a file that can't be opened", IndexRoot().Add(NtfsDirectoryEntry(60, u"other", 3, Writable)),
         IndexBlock().Add(NtfsDirectoryEntry(60, u"other", 3, Writable))},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const FileRecord directory =
            FileRecord().Directory().Add(RootOf(row.root)).Add(AllocationOf({{Lcn, 2}}, 2 * ClusterBytes));
        ASSERT_EQ(NtfsOk, Open(WithDirectory(directory).Cluster(Lcn, row.block.Bytes()).Cluster(Lcn + 1, good)));
        ExpectFound(41, L"\\dir\\x");
        ExpectFailure(NtfsIndexNotFound, L"\\dir\\y");
    }
}

// --- One node.

TEST_F(DRVolumeIndex, ANodeIsSearchedFromItsFirstEntryToItsLast) {
    ASSERT_EQ(NtfsOk, Open(Volume()));
    const IndexRoot root = IndexRoot()
                               .Add(NtfsDirectoryEntry(41, u"zebra"))
                               .Add(NtfsDirectoryEntry(42, u"apple").SubNode(5))
                               .Add(NtfsDirectoryEntry(43, u"apple"));
    EXPECT_EQ(NtfsIndexFound, Search(NodeOf(root), L"APPLE"));
    EXPECT_EQ(42U, m_Frn) << "whatever the order";
    EXPECT_EQ(NtfsIndexNotFound, Search(NodeOf(root), L"melon"));
    EXPECT_EQ(NtfsIndexNotFound, Search(NodeOf(IndexRoot()), L"apple"));
    const IndexEntry last = NtfsDirectoryEntry(41, u"apple").Flags(2);
    EXPECT_EQ(NtfsIndexNotFound, Search(NodeOf(IndexRoot().LastEntry(last)), L"apple")) << "the last one has no name";
}

TEST_F(DRVolumeIndex, AnEntryThatDoesNotMoveForwardIsCorrupt) {
    ASSERT_EQ(NtfsOk, Open(Volume()));
    for (const uint16_t length : std::vector<uint16_t>{0, 1, 15})
        EXPECT_EQ(NtfsIndexCorrupted,
                  Search(NodeOf(IndexRoot().Add(NtfsDirectoryEntry(41, u"a").Length(length))), L"b"))
            << length;
}

class DRVolumeLongName : public DRVolumeIndex {
protected:
    static constexpr uint64_t FileFrn = 45;

    void OpenWith(const FileRecord& file) { ASSERT_EQ(NtfsOk, Open(Volume().Record(FileFrn, file))); }

    // Searches for the `length` characters of `name` in a node with the file's short name.
    int SearchShort(std::wstring name, uint32_t attributes = Writable) {
        std::string node = NodeOf(IndexRoot().Add(NtfsDirectoryEntry(FileFrn, u"SHORT~1", 2, attributes)));
        return Search(node, name.data(), name.size());
    }
};

// Callers rely on the long name's bytes being counted against the characters that are looked for.
TEST_F(DRVolumeLongName, ALongNameIsComparedByItsBytes) {
    OpenWith(FileRecord().Add(NameOf(u"SHORT~1", 2)).Add(NameOf(u"Long", 1)));
    EXPECT_EQ(NtfsIndexFound, SearchShort(L"short~1"));
    EXPECT_EQ(NtfsIndexNotFound, SearchShort(L"Long")) << "eight bytes aren't four characters";
    EXPECT_EQ(NtfsIndexNotFound, SearchShort(L"LongLong")) << "zeros follow the name";
    EXPECT_EQ(NtfsIndexFound, SearchShort(std::wstring(L"LONG\0\0\0\0", 8)));
    EXPECT_EQ(FileFrn, m_Frn);
    EXPECT_EQ(NtfsIndexFound, SearchShort(std::wstring(L"long\0abc", 8))) << "both end there";
}

TEST_F(DRVolumeLongName, OnlyALongNameIsLookedAt) {
    const std::wstring name(L"ab\0\0", 4);
    const struct {
        uint8_t kind;
        int result;
    } rows[] = {{0, NtfsIndexNotFound}, {1, NtfsIndexFound}, {2, NtfsIndexNotFound}, {3, NtfsIndexFound}};
    for (const auto& row : rows) {
        OpenWith(FileRecord().Add(NameOf(u"ab", row.kind)));
        EXPECT_EQ(row.result, SearchShort(name)) << static_cast<unsigned>(row.kind);
    }
    OpenWith(FileRecord());
    EXPECT_EQ(NtfsIndexNotFound, SearchShort(name));
}

TEST_F(DRVolumeLongName, AReadOnlyFileIsNotOpened) {
    OpenWith(FileRecord().Add(NameOf(u"ab", 1)));
    EXPECT_EQ(NtfsIndexNotFound, SearchShort(std::wstring(L"ab\0\0", 4), 1));
    EXPECT_EQ(NtfsIndexNotFound, SearchShort(std::wstring(L"ab\0\0", 4), 0xFFFFFFFF));
    EXPECT_EQ(NtfsIndexFound, SearchShort(std::wstring(L"ab\0\0", 4), 0xFFFFFFFE));
    OpenWith(FileRecord().Flags(0));
    EXPECT_EQ(NtfsIndexNotFound, SearchShort(L"other", 1));
}

TEST_F(DRVolumeLongName, AFileThatCannotBeOpenedIsACorruptIndex) {
    for (const FileRecord& record :
         {FileRecord().Flags(0), FileRecord().BaseReference(5), FileRecord().BreakSectorEnd(0)}) {
        OpenWith(record);
        EXPECT_EQ(NtfsIndexCorrupted, SearchShort(L"other"));
        EXPECT_EQ(NtfsIndexFound, SearchShort(L"SHORT~1")) << "its own name comes first";
    }
}

// --- The names in a record.

class DRVolumeNames : public DRVolumeIndex {
protected:
    void OpenWith(const FileRecord& record) {
        ASSERT_EQ(NtfsOk, Open(Volume().Record(45, record)));
        ASSERT_EQ(NtfsOk, OpenFile(45, m_File));
    }

    // The name of that kind, or "-".
    std::string Name(uint32_t kind) {
        CAutoMemory<char> name = BufferOf("old");
        const int result = m_Ntfs.GetFileName(&m_File.record, &name, kind);
        EXPECT_TRUE(result == NtfsOk || result == NtfsIndexNotFound) << result;
        EXPECT_EQ(result == NtfsOk, m_Ntfs.GetFileNameAttribute(&m_File.record, kind) != nullptr);
        return result == NtfsOk ? BytesOf(name) : "-";
    }

    File_t m_File;
};

TEST_F(DRVolumeNames, AKindFindsNamesThatShareABitWithIt) {
    const struct {
        uint8_t has;
        bool found[4];  // by the kind that is asked for
    } rows[] = {
        {0, {true, false, false, false}},
        {1, {false, true, false, true}},
        {2, {false, false, true, true}},
        {3, {false, true, true, true}},
    };
    for (const auto& row : rows) {
        OpenWith(FileRecord().Add(NameOf(u"ab", row.has)));
        for (uint32_t kind = 0; kind < 4; ++kind)
            EXPECT_EQ(row.found[kind] ? std::string("a\0b\0", 4) : "-", Name(kind))
                << static_cast<unsigned>(row.has) << " asked by " << kind;
    }
}

TEST_F(DRVolumeNames, TheFirstNameOfTheKindIsTaken) {
    OpenWith(FileRecord()
                 .Add(NameOf(u"p", 0))
                 .Add(NameOf(u"s", 2))
                 .Add(NameOf(u"b", 3))
                 .Add(NameOf(u"l", 1))
                 .Add(NameOf(u"q", 0)));
    EXPECT_EQ(std::string("p\0", 2), Name(0));
    EXPECT_EQ(std::string("b\0", 2), Name(1));
    EXPECT_EQ(std::string("s\0", 2), Name(2));
}

TEST_F(DRVolumeNames, ARecordWithoutNamesHasNone) {
    OpenWith(FileRecord());
    for (uint32_t kind = 0; kind < 4; ++kind)
        EXPECT_EQ("-", Name(kind));
    EXPECT_EQ(nullptr, m_Ntfs.GetFileNameAttribute(nullptr, 1));
}

TEST_F(DRVolumeNames, ANameOfNoCharactersIsEmpty) {
    OpenWith(FileRecord().Add(NameOf(u"", 1)));
    EXPECT_EQ("", Name(1));
}

TEST_F(DRVolumeNames, ANameOf255CharactersIsWhole) {
    OpenWith(FileRecord().Add(NameOf(std::u16string(255, u'x'), 1)));
    EXPECT_EQ(510U, Name(1).size());
}

TEST_F(DRVolumeNames, ANameThatLeavesItsValueIsCorrupt) {
    OpenWith(FileRecord()
                 .Add(NameOf(u"abc", 1).ValueLength(66 + 4))
                 .Add(Attribute::Resident(NtfsDataType, std::string(100, 'x'))));
    CAutoMemory<char> name;
    EXPECT_EQ(NtfsRecordCorrupted, m_Ntfs.GetFileName(&m_File.record, &name, 1));
}

TEST_F(DRVolumeNames, AValueTooShortForANameIsNone) {
    OpenWith(FileRecord()
                 .Add(Attribute::Resident(NtfsFileNameType, std::string(65, '\x01')))
                 .Add(Attribute::NonResident(NtfsFileNameType, {{64, 1}}, 100))
                 .Add(NameOf(u"x", 1)));
    EXPECT_EQ(std::string("x\0", 2), Name(1));
}

}  // namespace
