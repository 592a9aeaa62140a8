#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/InvalidDescriptor.h"
#include "tests/support/Bytes.h"
#include "tests/support/NtfsTestVolume.h"
#include "tests/support/SameBytes.h"

// How `CDRVolume` finds security descriptors by their ids.

namespace {

using Attribute = CNtfsAttributeBuilder;
using FileRecord = CNtfsFileRecordBuilder;
using IndexBlock = CNtfsIndexRecordBuilder;
using IndexEntry = CNtfsIndexEntryBuilder;
using IndexRoot = CNtfsIndexRootBuilder;
using Volume = CNtfsVolumeBuilder;

constexpr uint32_t ClusterBytes = 4096;
constexpr uint64_t StreamLcn = Volume::SecurityStreamByte / ClusterBytes;
constexpr uint64_t Lcn = 64;

Attribute SiiRoot(const IndexRoot& root) {
    return Attribute::Resident(NtfsIndexRootType, IndexRoot(root).AttributeType(0).Collation(0x10).Bytes())
        .Name(u"$SII");
}

Attribute SiiAllocation(const std::vector<NtfsRun_t>& runs, uint64_t bytes) {
    return Attribute::NonResident(NtfsIndexAllocationType, runs, bytes).Name(u"$SII");
}

Attribute SdsStream(const std::vector<NtfsRun_t>& runs, uint64_t bytes) {
    return Attribute::NonResident(NtfsDataType, runs, bytes).Name(u"$SDS");
}

FileRecord SecureWith(const std::vector<Attribute>& attributes) {
    FileRecord record;
    for (const Attribute& attribute : attributes)
        record.Add(attribute);
    return record;
}

class DRVolumeSecurity : public CNtfsVolumeTest {
protected:
    struct Found_t {
        int result;
        std::string descriptor;
    };

    Found_t Lookup(uint32_t id) {
        CAutoMemory<char> descriptor = BufferOf("old");
        const int result = m_Ntfs.GetSecurityInformation(id, &descriptor);
        return {result, BytesOf(descriptor)};
    }

    void ExpectFound(const std::string& letters, uint32_t id) {
        const Found_t found = Lookup(id);
        EXPECT_EQ(NtfsOk, found.result) << id;
        EXPECT_SAME_BYTES(CanonicalDescriptorBytes(letters), found.descriptor);
    }

    void ExpectFailure(int result, uint32_t id) {
        const Found_t found = Lookup(id);
        EXPECT_EQ(result, found.result) << id;
        EXPECT_EQ("", found.descriptor);
    }

    // What the dump writes, with its result.
    Found_t Dump() {
        const std::string path = m_Dir.File("dump");
        FILE* const file = std::fopen(path.c_str(), "wb");
        EXPECT_NE(nullptr, file);
        const int result = m_Ntfs.DumpSecuirtyInformation(file);
        EXPECT_EQ(0, std::fclose(file));
        return {result, ReadFileBytes(path)};
    }

    static std::string Dumped(uint32_t id, const std::string& letters) {
        const std::string descriptor = CanonicalDescriptorBytes(letters);
        return LittleEndianBytes(id, 4) + LittleEndianBytes(descriptor.size(), 4) + descriptor;
    }
};

TEST_F(DRVolumeSecurity, ADescriptorsPartsComeInOneOrder) {
    for (const char* const parts : {"OGSD", "OGD", "O", "G", "S", "D", "GD", "OS", ""}) {
        std::string order = parts;
        std::sort(order.begin(), order.end());
        Volume volume;
        uint32_t id = 256;
        std::vector<std::string> orders;
        do {
            orders.push_back(order);
            if (orders.size() <= 8)
                volume.Descriptor(id++, SecurityDescriptorBytes(order));
        } while (std::next_permutation(order.begin(), order.end()));
        ASSERT_EQ(NtfsOk, Open(volume));
        for (uint32_t found = 256; found < id; ++found)
            ExpectFound(parts, found);
    }
}

TEST_F(DRVolumeSecurity, EveryOrderOfFourPartsIsUnderstood) {
    std::string order = "DGOS";
    do {
        SCOPED_TRACE(order);
        ASSERT_EQ(NtfsOk, Open(Volume().Descriptor(300, SecurityDescriptorBytes(order))));
        ExpectFound("OGSD", 300);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(DRVolumeSecurity, TheRebuiltDescriptorIsThisByteForByte) {
    ASSERT_EQ(NtfsOk, Open(Volume().Descriptor(300, SecurityDescriptorBytes("DO"))));
    std::string expected;
    PutLe8(expected, 0, 1);        // revision
    PutLe16(expected, 2, 0x8404);  // self-relative, with a DACL
    PutLe32(expected, 4, 20);
    PutLe32(expected, 16, 36);
    PutBytes(expected, 20, std::string("\x01\x02\0\0\0\0\0\x05\x20\0\0\0\x20\x02\0\0", 16));
    PutBytes(expected, 36, std::string("\x02\0\x24\0\x01\0\0\0", 8) + std::string(28, 'd'));
    EXPECT_SAME_BYTES(expected, Lookup(300).descriptor);
}

TEST_F(DRVolumeSecurity, AnIdInNoEntryIsNotFound) {
    ASSERT_EQ(NtfsOk, Open(Volume().Descriptor(300, SecurityDescriptorBytes("O"))));
    ExpectFailure(NtfsIndexNotFound, 299);
    ExpectFailure(NtfsIndexNotFound, 0);
    ExpectFailure(NtfsIndexNotFound, 0xFFFFFFFF);
}

TEST_F(DRVolumeSecurity, TheKeyOfAnEntryIsWhatIsLookedFor) {
    Volume volume;
    volume.Descriptor(300, SecurityDescriptorBytes("O"));
    const uint32_t length = 20 + static_cast<uint32_t>(SecurityDescriptorBytes("O").size());
    const IndexEntry entry = IndexEntry::SecurityId(777, 0, length).PutAt(16, LittleEndianBytes(300, 4));
    volume.Record(9, SecureWith({volume.SecurityStream(), SiiRoot(IndexRoot().Add(entry))}));
    ASSERT_EQ(NtfsOk, Open(volume));
    ExpectFound("O", 300);
    ExpectFailure(NtfsIndexNotFound, 777);
    EXPECT_SAME_BYTES(Dumped(777, "O"), Dump().descriptor);
}

// --- Blocks behind the root.

// Descriptors 256, 257 and so on, one of each kind in turn, each found through an entry of the test's choice.
class DRVolumeSecurityBlocks : public DRVolumeSecurity {
protected:
    static std::string LettersOf(uint32_t id) {
        const char* const kinds[] = {"OGSD", "OG", "OGD", "D"};
        return kinds[id % 4];
    }

    static uint64_t OffsetOf(uint32_t id) { return (id - 256) * uint64_t{256}; }

    static IndexEntry EntryOf(uint32_t id) {
        const size_t bytes = 20 + SecurityDescriptorBytes(LettersOf(id)).size();
        return IndexEntry::SecurityId(id, OffsetOf(id), static_cast<uint32_t>(bytes));
    }

    static std::string StreamOf(uint32_t count) {
        std::string stream;
        for (uint32_t id = 256; id < 256 + count; ++id)
            PutBytes(stream, OffsetOf(id), NtfsSecurityRecord(id, SecurityDescriptorBytes(LettersOf(id))));
        return stream;
    }

    static std::string BlockOf(const std::vector<uint32_t>& ids) {
        IndexBlock block;
        for (const uint32_t id : ids)
            block.Add(EntryOf(id));
        return block.Bytes();
    }

    // 256 in the root, 257 and 258 in the first block, 259 in the second.
    static Volume TwoBlocks() {
        Volume volume;
        volume.Cluster(StreamLcn, StreamOf(4)).Cluster(Lcn, BlockOf({257, 258}) + BlockOf({259}));
        volume.Record(9, SecureWith({volume.SecurityStream(), SiiRoot(IndexRoot().Add(EntryOf(256))),
                                     SiiAllocation({{Lcn, 2}}, 2 * ClusterBytes)}));
        return volume;
    }
};

TEST_F(DRVolumeSecurityBlocks, AnIdIsLookedForInAllBlocks) {
    ASSERT_EQ(NtfsOk, Open(TwoBlocks()));
    for (uint32_t id = 256; id < 260; ++id)
        ExpectFound(LettersOf(id), id);
    ExpectFailure(NtfsIndexNotFound, 260);
}

TEST_F(DRVolumeSecurityBlocks, ABlockWithoutItsSignatureIsPassedOver) {
    ASSERT_EQ(NtfsOk, Open(TwoBlocks().Cluster(Lcn, std::string(ClusterBytes, 'x'))));
    ExpectFound(LettersOf(259), 259);
    ExpectFailure(NtfsIndexNotFound, 257);
    EXPECT_SAME_BYTES(Dumped(256, "OGSD") + Dumped(259, "D"), Dump().descriptor);
}

TEST_F(DRVolumeSecurityBlocks, AHoleIsPassedOverHoweverLongItIs) {
    constexpr uint64_t huge = uint64_t{1} << 50U;
    Volume volume = TwoBlocks();
    volume.Record(9,
                  SecureWith({volume.SecurityStream(), SiiRoot(IndexRoot().Add(EntryOf(256))),
                              SiiAllocation({{Lcn, 1}, {NtfsHole, huge}, {Lcn + 1, 1}}, (huge + 2) * ClusterBytes)}));
    ASSERT_EQ(NtfsOk, Open(volume));
    ExpectFound(LettersOf(259), 259);
    ExpectFailure(NtfsIndexNotFound, 260);
    const Found_t dump = Dump();
    EXPECT_EQ(NtfsOk, dump.result);
    EXPECT_SAME_BYTES(Dumped(256, "OGSD") + Dumped(257, "OG") + Dumped(258, "OGD") + Dumped(259, "D"), dump.descriptor);
}

TEST_F(DRVolumeSecurityBlocks, ATornBlockIsRefused) {
    ASSERT_EQ(NtfsOk, Open(TwoBlocks().Cluster(Lcn, IndexBlock().Add(EntryOf(257)).BreakSectorEnd(2).Bytes())));
    ExpectFailure(NtfsIndexCorrupted, 259);
    ExpectFound(LettersOf(256), 256);
    const Found_t dump = Dump();
    EXPECT_EQ(NtfsIndexCorrupted, dump.result);
    EXPECT_SAME_BYTES(Dumped(256, "OGSD"), dump.descriptor);
}

TEST_F(DRVolumeSecurityBlocks, AFailedReadReachesTheCaller) {
    ASSERT_EQ(NtfsOk, Open(TwoBlocks()));
    m_Ntfs.FailAt((Lcn + 1) * ClusterBytes);
    ExpectFound(LettersOf(257), 257);
    ExpectFailure(NtfsSeeLog, 259);
    EXPECT_EQ(NtfsSeeLog, Dump().result);
    m_Ntfs.FailAt(StreamLcn * ClusterBytes + OffsetOf(257) + 20);
    ExpectFailure(NtfsSeeLog, 257);
}

TEST_F(DRVolumeSecurityBlocks, ABrokenNodeEndsTheSearch) {
    const struct {
        const char* name;
        IndexBlock block;
        int result;
    } rows[] = {
        {"an entry of length 0", IndexBlock().Add(EntryOf(300).Length(0)), NtfsIndexCorrupted},
        {"an entry shorter than its head", IndexBlock().Add(EntryOf(300).Length(15)), NtfsIndexCorrupted},
        {"an entry that leaves the block", IndexBlock().Add(EntryOf(300).Length(0xFFF8)), NtfsIndexCorrupted},
        {"entries behind the block", IndexBlock().FirstEntry(0xFFFFFFF0), NtfsOk},
        {"no last entry", IndexBlock().WithoutLastEntry().FirstEntry(4096 - 24), NtfsOk},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(NtfsOk, Open(TwoBlocks().Cluster(Lcn, row.block.Bytes())));
        EXPECT_EQ(row.result, Lookup(259).result);
    }
    const Volume corruptRoot =
        TwoBlocks().Record(9, SecureWith({Volume().SecurityStream(), SiiRoot(IndexRoot().Add(EntryOf(300).Length(8))),
                                          SiiAllocation({{Lcn, 2}}, 2 * ClusterBytes)}));
    ASSERT_EQ(NtfsOk, Open(corruptRoot));
    ExpectFailure(NtfsIndexCorrupted, 259);
    EXPECT_EQ(NtfsIndexCorrupted, Dump().result);
}

TEST_F(DRVolumeSecurityBlocks, AnotherIndexesBlocksAreNotLookedAt) {
    Volume volume = TwoBlocks();
    volume.Record(9, SecureWith({volume.SecurityStream(), SiiRoot(IndexRoot()),
                                 SiiAllocation({{Lcn + 1, 1}}, ClusterBytes).Name(u"$SDH"),
                                 SiiAllocation({{Lcn, 1}}, ClusterBytes)}));
    ASSERT_EQ(NtfsOk, Open(volume));
    ExpectFound(LettersOf(257), 257);
    ExpectFailure(NtfsIndexNotFound, 259);
}

// --- Segments of the index, which extension records hold in any order.

class DRVolumeSecuritySegments : public DRVolumeSecurityBlocks {
protected:
    // Three segments of one, two and one blocks; the n-th record of the list holds the segment order[n].
    static Volume Segmented(const std::vector<Attribute>& segments, const std::vector<size_t>& order) {
        Volume volume;
        std::string list;
        for (size_t place = 0; place < order.size(); ++place) {
            NtfsListEntryFields_t entry;
            entry.reference = NtfsReference(41 + place);
            list += NtfsListEntry(entry);
            volume.Record(41 + place, FileRecord().BaseReference(NtfsReference(9)).Add(segments[order[place]]));
        }
        volume.Record(9, SecureWith({Attribute::Resident(NtfsAttributeListType, list), volume.SecurityStream(),
                                     SiiRoot(IndexRoot().Add(EntryOf(256)))}));
        volume.Cluster(StreamLcn, StreamOf(5));
        volume.Cluster(Lcn, BlockOf({257})).Cluster(Lcn + 10, BlockOf({258})).Cluster(Lcn + 7, BlockOf({259}));
        volume.Cluster(Lcn + 3, BlockOf({260}));
        return volume;
    }

    static std::vector<Attribute> SoundSegments() {
        return {SiiAllocation({{Lcn, 1}}, 4 * ClusterBytes),
                SiiAllocation({{Lcn + 10, 1}, {Lcn + 7, 1}}, 0).LowestVcn(1),
                SiiAllocation({{Lcn + 3, 1}}, 0).LowestVcn(3)};
    }
};

TEST_F(DRVolumeSecuritySegments, AreJoinedInAnyOrder) {
    std::vector<size_t> order = {0, 1, 2};
    do {
        ASSERT_EQ(NtfsOk, Open(Segmented(SoundSegments(), order)));
        for (uint32_t id = 256; id < 261; ++id)
            ExpectFound(LettersOf(id), id);
        EXPECT_SAME_BYTES(Dumped(256, "OGSD") + Dumped(257, "OG") + Dumped(258, "OGD") + Dumped(259, "D") +
                              Dumped(260, "OGSD"),
                          Dump().descriptor);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(DRVolumeSecuritySegments, EndAtAGap) {
    std::vector<Attribute> segments = SoundSegments();
    segments[2].LowestVcn(4);
    ASSERT_EQ(NtfsOk, Open(Segmented(segments, {0, 1, 2})));
    ExpectFound(LettersOf(259), 259);
    ExpectFailure(NtfsIndexNotFound, 260);
}

TEST_F(DRVolumeSecuritySegments, WithoutTheFirstOneAreNotLookedAt) {
    ASSERT_EQ(NtfsOk, Open(Segmented(SoundSegments(), {1, 2})));
    ExpectFound(LettersOf(256), 256);
    ExpectFailure(NtfsIndexNotFound, 258);
    EXPECT_SAME_BYTES(Dumped(256, "OGSD"), Dump().descriptor);
}

TEST_F(DRVolumeSecuritySegments, AreUsedOnceEach) {
    for (const uint64_t highest : {uint64_t{0}, ~uint64_t{0}, ~uint64_t{0} - 1}) {
        std::vector<Attribute> segments = SoundSegments();
        segments[1].HighestVcn(highest);
        ASSERT_EQ(NtfsOk, Open(Segmented(segments, {0, 1, 2}))) << highest;
        ExpectFound(LettersOf(257), 257);
        segments = SoundSegments();
        segments[0].HighestVcn(~uint64_t{0});
        ASSERT_EQ(NtfsOk, Open(Segmented(segments, {0, 1, 2}))) << highest;
        ExpectFound(LettersOf(257), 257);
        ExpectFailure(NtfsIndexNotFound, 260);
    }
}

// --- The stream of descriptors.

TEST_F(DRVolumeSecurityBlocks, TheStreamsSegmentThatHoldsAPlaceIsRead) {
    Volume volume;
    const std::string descriptor = SecurityDescriptorBytes("SODG");
    const uint32_t length = 20 + static_cast<uint32_t>(descriptor.size());
    const uint64_t offsets[] = {0, 5000, 3 * ClusterBytes, 4 * ClusterBytes - 20, 5 * ClusterBytes - 60};
    IndexRoot root;
    std::string stream;
    for (uint32_t index = 0; index < 5; ++index) {
        PutBytes(stream, offsets[index], NtfsSecurityRecord(500 + index, descriptor));
        root.Add(IndexEntry::SecurityId(500 + index, offsets[index], length));
    }
    stream.resize(size_t{6} * ClusterBytes, '\0');
    volume.Record(9, SecureWith({SdsStream({{Lcn, 1}, {Lcn + 9, 2}}, 6 * ClusterBytes),
                                 SdsStream({{Lcn + 20, 3}}, 0).LowestVcn(3), SiiRoot(root)}));
    volume.Cluster(Lcn, stream.substr(0, ClusterBytes))
        .Cluster(Lcn + 9, stream.substr(ClusterBytes, 2 * ClusterBytes))
        .Cluster(Lcn + 20, stream.substr(3 * ClusterBytes));
    ASSERT_EQ(NtfsOk, Open(volume));
    for (uint32_t index = 0; index < 5; ++index)
        ExpectFound("OGSD", 500 + index);
}

TEST_F(DRVolumeSecurityBlocks, APlaceInNoSegmentOfTheStreamIsRefused) {
    const uint32_t length = 100;
    const IndexRoot root = IndexRoot()
                               .Add(IndexEntry::SecurityId(500, 2 * ClusterBytes, length))
                               .Add(IndexEntry::SecurityId(501, 2 * ClusterBytes - 20, length))
                               .Add(IndexEntry::SecurityId(502, uint64_t{1} << 63U, length))
                               .Add(IndexEntry::SecurityId(503, ~uint64_t{0} - 30, length));
    const struct {
        const char* name;
        Attribute stream;
    } rows[] = {
        {"behind it", SdsStream({{Lcn, 2}}, 2 * ClusterBytes)},
        {"of another name", SdsStream({{Lcn, 8}}, 8 * ClusterBytes).Name(u"$SDT")},
        {"without a name", SdsStream({{Lcn, 8}}, 8 * ClusterBytes).Name(u"")},
        {"from a later VCN on", SdsStream({{Lcn, 8}}, 8 * ClusterBytes).LowestVcn(3)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(NtfsOk, Open(Volume().Record(9, SecureWith({row.stream, SiiRoot(root)}))));
        for (uint32_t id = 500; id < 504; ++id)
            ExpectFailure(NtfsInvalidMftRecord, id);
        EXPECT_EQ(NtfsInvalidMftRecord, Dump().result);
    }
}

TEST_F(DRVolumeSecurityBlocks, ADescriptorBehindTheStreamsEndIsTheEndOfItsData) {
    const IndexRoot root = IndexRoot().Add(IndexEntry::SecurityId(500, ClusterBytes - 64, 200)).Add(EntryOf(256));
    Volume volume;
    volume.Record(9, SecureWith({SdsStream({{Lcn, 1}}, ClusterBytes), SiiRoot(root)}));
    ASSERT_EQ(NtfsOk, Open(volume.Cluster(Lcn, StreamOf(1))));
    ExpectFailure(NtfsEndOfRun, 500);
    const Found_t dump = Dump();
    EXPECT_EQ(NtfsOk, dump.result) << "such an entry is left out";
    EXPECT_SAME_BYTES(Dumped(256, "OGSD"), dump.descriptor);
}

TEST_F(DRVolumeSecurityBlocks, ARecordShorterThanItsHeadIsRefused) {
    for (const uint32_t length : {0U, 1U, 19U}) {
        ASSERT_EQ(NtfsOk, Open(TwoBlocks().Record(
                              9, SecureWith({Volume().SecurityStream(),
                                             SiiRoot(IndexRoot().Add(IndexEntry::SecurityId(500, 0, length)))}))));
        ExpectFailure(NtfsInvalidMftRecord, 500);
    }
}

TEST_F(DRVolumeSecurityBlocks, ALengthAboveAllMemoryIsOutOfMemory) {
    const IndexRoot root = IndexRoot().Add(IndexEntry::SecurityId(500, 0, 0xFFFFFFFF));
    ASSERT_EQ(NtfsOk, Open(Volume().Record(9, SecureWith({Volume().SecurityStream(), SiiRoot(root)}))));
    ExpectFailure(NtfsOutOfMemory, 500);
}

TEST_F(DRVolumeSecurityBlocks, ALengthThatLiesTakesNoMoreThanTheStreamHas) {
    const IndexRoot root = IndexRoot().Add(IndexEntry::SecurityId(500, 0, 1U << 30U));
    ASSERT_EQ(NtfsOk, Open(Volume().Record(9, SecureWith({Volume().SecurityStream(), SiiRoot(root)}))));
    ExpectFailure(NtfsEndOfRun, 500);
}

TEST_F(DRVolumeSecurity, ADescriptorThatIsNotValidGivesTheSystemsNumber) {
    const std::string sound = SecurityDescriptorBytes("OGSD");
    const auto with = [&sound](size_t offset, const std::string& bytes) {
        std::string broken = sound;
        PutBytes(broken, offset, bytes);
        return broken;
    };
    const struct {
        const char* name;
        std::string descriptor;
    } rows[] = {
        {"nothing", ""},
        {"no head", sound.substr(0, 19)},
        {"an owner behind it", with(4, LittleEndianBytes(sound.size(), 4))},
        {"a group far behind it", with(8, LittleEndianBytes(0xFFFFFFF0, 4))},
        {"a DACL behind it", with(16, LittleEndianBytes(sound.size() - 4, 4))},
        {"cut short", sound.substr(0, sound.size() - 1)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(NtfsOk, Open(Volume().Descriptor(300, row.descriptor)));
        ExpectFailure(InvalidDescriptorError(), 300);
        EXPECT_EQ(InvalidDescriptorError(), Dump().result);
    }
}

// --- The dump of all descriptors.

TEST_F(DRVolumeSecurityBlocks, AllDescriptorsAreDumpedInTheOrderOfTheIndex) {
    ASSERT_EQ(NtfsOk, Open(TwoBlocks()));
    const Found_t dump = Dump();
    EXPECT_EQ(NtfsOk, dump.result);
    EXPECT_SAME_BYTES(Dumped(256, "OGSD") + Dumped(257, "OG") + Dumped(258, "OGD") + Dumped(259, "D"), dump.descriptor);
}

TEST_F(DRVolumeSecurity, AVolumeWithoutSecureDumpsNothing) {
    ASSERT_EQ(NtfsOk, Open(Volume().Root(IndexRoot())));
    const Found_t dump = Dump();
    EXPECT_EQ(NtfsOk, dump.result);
    EXPECT_EQ("", dump.descriptor);
}

TEST_F(DRVolumeSecurity, AFailedWriteOfTheDumpGivesTheSystemsNumber) {
    ASSERT_EQ(NtfsOk, Open(Volume().Descriptor(300, SecurityDescriptorBytes("O"))));
    FILE* const file = std::fopen(m_Dir.Write("dump", "").c_str(), "rb");
    ASSERT_NE(nullptr, file);
    EXPECT_GT(m_Ntfs.DumpSecuirtyInformation(file), 0);
    std::fclose(file);
}

// --- One node.

TEST_F(DRVolumeSecurity, ANodeIsSearchedFromItsFirstEntryToItsLast) {
    std::string node = IndexRoot()
                           .Add(IndexEntry::SecurityId(400, 1, 30))
                           .Add(IndexEntry::SecurityId(300, 2, 30))
                           .Add(IndexEntry::SecurityId(300, 3, 30))
                           .Bytes()
                           .substr(16);
    INDEX_ENTRY_SII* entry = nullptr;
    EXPECT_EQ(NtfsIndexFound, m_Ntfs.SearchIndexBlock_SII(node.data(), 300, &entry));
    EXPECT_EQ(2U, entry->Offset);
    EXPECT_EQ(NtfsIndexNotFound, m_Ntfs.SearchIndexBlock_SII(node.data(), 301, &entry));

    std::string last = IndexRoot().LastEntry(IndexEntry::SecurityId(300, 1, 30).Flags(2)).Bytes().substr(16);
    EXPECT_EQ(NtfsIndexNotFound, m_Ntfs.SearchIndexBlock_SII(last.data(), 300, &entry)) << "it holds no key";
    for (const uint16_t length : std::vector<uint16_t>{0, 15}) {
        std::string broken = IndexRoot().Add(IndexEntry::SecurityId(1, 1, 30).Length(length)).Bytes().substr(16);
        EXPECT_EQ(NtfsIndexCorrupted, m_Ntfs.SearchIndexBlock_SII(broken.data(), 300, &entry));
    }
}

TEST_F(DRVolumeSecurity, AnEntryIsReadWithoutTheIndex) {
    ASSERT_EQ(NtfsOk, Open(Volume().Descriptor(300, SecurityDescriptorBytes("DG"))));
    std::string bytes = IndexEntry::SecurityId(1, 0, 20 + 20 + 36 + 12).Bytes();
    CAutoMemory<char> descriptor;
    EXPECT_EQ(NtfsOk, m_Ntfs.ReadSecurityData(reinterpret_cast<INDEX_ENTRY_SII*>(bytes.data()), &descriptor));
    EXPECT_SAME_BYTES(CanonicalDescriptorBytes("GD"), BytesOf(descriptor));
}

}  // namespace
