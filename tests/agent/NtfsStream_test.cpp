#include "agent/detail/NtfsStream.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "agent/detail/NtfsMappedVolume.h"
#include "tests/agent/NtfsFiles.h"
#include "tests/support/Bytes.h"
#include "tests/support/SameBytes.h"

namespace {

using Attribute = CNtfsAttributeBuilder;
using FileRecord = CNtfsFileRecordBuilder;
using Volume = CNtfsVolumeBuilder;

constexpr uint64_t FileFrn = 40;
constexpr uint64_t Lcn = 64;
constexpr uint64_t ClusterBytes = 4096;
constexpr uint16_t CompressedFlag = 1;
constexpr uint16_t SparseFlag = 0x8000;
constexpr uint16_t UnitOf16 = 4;
constexpr uint64_t UnitClusters = 16;
constexpr uint64_t UnitBytes = UnitClusters * ClusterBytes;

Attribute DataIn(const std::vector<NtfsRun_t>& runs, uint64_t bytes) {
    return Attribute::NonResident(NtfsDataType, runs, bytes);
}

Attribute CompressedIn(const std::vector<NtfsRun_t>& runs, uint64_t bytes) {
    return DataIn(runs, bytes).Flags(CompressedFlag).CompressionUnit(UnitOf16);
}

// A chunk that holds its 4096 bytes as they are.
std::string StoredChunk(const std::string& bytes) {
    return LittleEndianBytes(0x3FFF, 2) + bytes;
}

// Compressed data and what it gives.
struct Packed_t {
    std::string stored;
    std::string bytes;

    Packed_t& Compressed(char fill, uint64_t seed) {
        const std::string tail = PatternedBytes(300, seed);
        stored += CompressedChunk(fill, tail);
        bytes += UncompressedChunk(fill, tail);
        return *this;
    }

    Packed_t& Stored(uint64_t seed) {
        stored += StoredChunk(PatternedBytes(4096, seed));
        bytes += PatternedBytes(4096, seed);
        return *this;
    }
};

class NtfsStream : public CNtfsFilesTest {
protected:
    // Opens the unnamed data of the file, and is the error of that.
    CZuError OpenData(const Volume& volume, const std::u16string& name = u"") {
        OpenSet(volume);
        EXPECT_OK(m_Mapped.Open(*m_Set, *m_Set->Find("Volume1")));
        CAutoMemory<char> record;
        EXPECT_OK(m_Mapped.ReadRecord(FileFrn, record));
        return m_Stream.Open(m_Mapped, record, NtfsDataType, name, "the file");
    }

    CZuError OpenData(const Attribute& attribute) {
        return OpenData(Volume().Record(FileFrn, FileRecord().Add(attribute)));
    }

    std::string Read(uint64_t offset, uint64_t size) {
        std::string bytes(size, '?');
        EXPECT_OK(m_Stream.Read(offset, bytes.data(), static_cast<uint32_t>(size))) << size << " at " << offset;
        return bytes;
    }

    CZuError TryRead(uint64_t offset, uint64_t size) {
        std::string bytes(size, '?');
        return m_Stream.Read(offset, bytes.data(), static_cast<uint32_t>(size));
    }

    std::string ReadInPieces(uint64_t pieceBytes) {
        std::string bytes;
        while (bytes.size() < m_Stream.Bytes())
            bytes += Read(bytes.size(), std::min(pieceBytes, m_Stream.Bytes() - bytes.size()));
        return bytes;
    }

    // At once, in pieces, from the end to the start, and not behind the end.
    void ExpectHolds(const std::string& expected) {
        ASSERT_EQ(expected.size(), m_Stream.Bytes());
        EXPECT_SAME_BYTES(expected, Read(0, expected.size()));
        for (const uint64_t pieceBytes : {997, 4096, 65537})
            EXPECT_SAME_BYTES(expected, ReadInPieces(pieceBytes)) << "pieces of " << pieceBytes;
        for (uint64_t end = expected.size(); end > 0; end -= std::min<uint64_t>(end, 5000)) {
            const uint64_t start = end - std::min<uint64_t>(end, 5000);
            EXPECT_SAME_BYTES(expected.substr(start, end - start), Read(start, end - start)) << "from " << start;
        }
        EXPECT_FAILS_SAYING(TryRead(expected.size(), 1), "the file", "behind its end");
        EXPECT_OK(TryRead(expected.size(), 0));
    }

    CNtfsMappedVolume m_Mapped;
    CNtfsStream m_Stream;
};

// --- Segments.

// A file whose data lie in three records, each with a segment of two clusters.
struct Segments_t {
    uint64_t frns[3];
    std::string bytes = PatternedBytes(6 * ClusterBytes - 100);

    Attribute Segment(uint64_t index) const {
        return DataIn({{Lcn + 10 * index, 2}}, bytes.size()).LowestVcn(2 * index);
    }

    // The attribute list names the records in the order in which `listed` has the segments.
    Volume Build(const std::vector<uint64_t>& listed) const {
        Volume volume;
        std::string list;
        for (const uint64_t index : listed) {
            NtfsListEntryFields_t entry;
            entry.reference = NtfsReference(frns[index]);
            entry.lowestVcn = 2 * index;
            list += NtfsListEntry(entry);
        }
        FileRecord base;
        base.Add(Attribute::Resident(NtfsAttributeListType, list));
        for (uint64_t index = 0; index < 3; ++index) {
            volume.Cluster(Lcn + 10 * index, bytes.substr(2 * index * ClusterBytes, 2 * ClusterBytes));
            if (frns[index] == FileFrn)
                base.Add(Segment(index));
            else
                volume.Record(frns[index], FileRecord().BaseReference(NtfsReference(FileFrn)).Add(Segment(index)));
        }
        return volume.Record(FileFrn, base);
    }
};

TEST_F(NtfsStream, SegmentsAreJoinedWhateverTheOrderOfTheirRecords) {
    const struct {
        const char* name;
        Segments_t file;
        std::vector<uint64_t> listed;
    } rows[] = {
        {"the first in the base record", {{FileFrn, 41, 42}}, {0, 1, 2}},
        {"listed backwards", {{FileFrn, 41, 42}}, {2, 1, 0}},
        {"records backwards", {{43, 42, 41}}, {0, 1, 2}},
        {"all backwards", {{43, 42, 41}}, {2, 1, 0}},
        {"the last in the base record", {{42, 41, FileFrn}}, {1, 2, 0}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_OK(OpenData(row.file.Build(row.listed)));
        ExpectHolds(row.file.bytes);
    }
}

TEST_F(NtfsStream, AGapBetweenSegmentsIsRefused) {
    const Segments_t file{{FileFrn, 41, 42}};
    EXPECT_FAILS_SAYING(OpenData(file.Build({0, 2})), "the file", "cluster 2 of it");
    EXPECT_FAILS_SAYING(OpenData(file.Build({0}).Record(FileFrn, FileRecord().Add(file.Segment(1)))), "the file",
                        "cluster 0 of it");
}

TEST_F(NtfsStream, SegmentsOverEachOtherAreRefused) {
    EXPECT_FAILS_SAYING(
        OpenData(Volume().Record(
            FileFrn,
            FileRecord().Add(DataIn({{Lcn, 4}}, 6 * ClusterBytes)).Add(DataIn({{Lcn + 9, 4}}, 0).LowestVcn(2)))),
        "the file", "cluster 4 of it");
}

TEST_F(NtfsStream, AResidentSegmentBehindOneInClustersIsRefused) {
    EXPECT_FAILS_SAYING(
        OpenData(Volume().Record(FileFrn, FileRecord().Add(DataIn({{Lcn, 1}}, 4096)).Add(NtfsDataOf("more")))),
        "the file", "cluster 1 of it");
}

TEST_F(NtfsStream, SegmentsThatEndBeforeTheDataAreRefusedWhereTheyEnd) {
    ASSERT_OK(OpenData(DataIn({{Lcn, 2}}, 3 * ClusterBytes)));
    EXPECT_OK(TryRead(0, 2 * ClusterBytes));
    EXPECT_FAILS_SAYING(TryRead(2 * ClusterBytes - 1, 2), "the file", "byte 8192 of it");
    ASSERT_OK(OpenData(CompressedIn({{Lcn, 16}}, 3 * UnitBytes)));
    EXPECT_OK(TryRead(0, UnitBytes));
    EXPECT_FAILS_SAYING(TryRead(UnitBytes, 1), "the file", "byte 65536 of it");
}

TEST_F(NtfsStream, ARunListThatLeavesItsRecordIsRefused) {
    EXPECT_FAILS_SAYING(OpenData(DataIn({{Lcn, 2}}, 8192).RunList("\x11\x02\x40\x11\x02\x40\x11\x02")), "the file",
                        "list of clusters is damaged");
    EXPECT_FAILS_SAYING(OpenData(DataIn({{Lcn, 2}}, 8192).RunList(std::string("\x19\x02\0\0\0\0\0\0\0\0\x40\0", 12))),
                        "the file", "list of clusters is damaged");
}

TEST_F(NtfsStream, ARunBehindTheVolumeIsRefusedWhereItIsRead) {
    ASSERT_OK(OpenData(DataIn({{Lcn, 1}, {100'000, 1}}, 2 * ClusterBytes)));
    EXPECT_OK(TryRead(0, ClusterBytes));
    EXPECT_FAILS_SAYING(TryRead(0, ClusterBytes + 1), "the file");
    ASSERT_OK(OpenData(DataIn({{uint64_t{1} << 60U, 1}}, ClusterBytes)));
    EXPECT_FAILS_SAYING(TryRead(0, 1), "the file", "no cluster 1152921504606846976");
}

TEST_F(NtfsStream, AStreamThatIsNotThereIsRefused) {
    EXPECT_FAILS_SAYING(OpenData(Volume().Record(FileFrn, NtfsFileOf("x")), u"other"), "the file", "no such stream");
    EXPECT_FAILS_SAYING(OpenData(Volume().Record(FileFrn, FileRecord())), "the file", "no such stream");
}

TEST_F(NtfsStream, NamesOfStreamsAreTheSameToTheLetter) {
    const Volume volume = Volume().Record(
        FileFrn,
        FileRecord().Add(NtfsDataOf("contents")).Add(NtfsDataOf("a").Name(u"a")).Add(NtfsDataOf("A").Name(u"A")));
    ASSERT_OK(OpenData(volume));
    ExpectHolds("contents");
    ASSERT_OK(OpenData(volume, u"A"));
    ExpectHolds("A");
    ASSERT_OK(OpenData(volume, u"a"));
    ExpectHolds("a");
}

// --- Holes and sizes.

TEST_F(NtfsStream, AHoleIsZeros) {
    const std::string first = PatternedBytes(ClusterBytes, 1);
    const std::string last = PatternedBytes(ClusterBytes, 2);
    const Attribute data = DataIn({{Lcn, 1}, {NtfsHole, 3}, {Lcn + 7, 1}, {NtfsHole, 2}}, 7 * ClusterBytes - 5);
    ASSERT_OK(OpenData(Volume()
                           .Record(FileFrn, FileRecord().Add(Attribute(data).Flags(SparseFlag)))
                           .Cluster(Lcn, first)
                           .Cluster(Lcn + 7, last)));
    ExpectHolds(first + std::string(3 * ClusterBytes, '\0') + last + std::string(2 * ClusterBytes - 5, '\0'));
}

// A hole within a unit marks compressed data only where the data is compressed.
TEST_F(NtfsStream, ASparseStreamWithACompressionUnitIsPlain) {
    const std::string bytes = PatternedBytes(3 * ClusterBytes);
    ASSERT_OK(OpenData(
        Volume()
            .Record(FileFrn,
                    FileRecord().Add(
                        DataIn({{Lcn, 3}, {NtfsHole, 13}}, UnitBytes).Flags(SparseFlag).CompressionUnit(UnitOf16)))
            .Cluster(Lcn, bytes)));
    ExpectHolds(bytes + std::string(13 * ClusterBytes, '\0'));
}

TEST_F(NtfsStream, BytesBehindTheInitialisedSizeAreZeros) {
    const std::string bytes = PatternedBytes(4 * ClusterBytes);
    for (const uint64_t initialized : {uint64_t{0}, uint64_t{1}, ClusterBytes, 2 * ClusterBytes + 77}) {
        SCOPED_TRACE(initialized);
        ASSERT_OK(OpenData(
            Volume()
                .Record(FileFrn, FileRecord().Add(DataIn({{Lcn, 4}}, bytes.size()).InitializedBytes(initialized)))
                .Cluster(Lcn, bytes)));
        ExpectHolds(bytes.substr(0, initialized) + std::string(bytes.size() - initialized, '\0'));
    }
}

TEST_F(NtfsStream, AnInitialisedSizeBehindTheDataIsThatOfTheData) {
    const std::string bytes = PatternedBytes(5000);
    ASSERT_OK(OpenData(Volume()
                           .Record(FileFrn, FileRecord().Add(DataIn({{Lcn, 2}}, 5000).InitializedBytes(1U << 30U)))
                           .Cluster(Lcn, bytes)));
    ExpectHolds(bytes);
}

TEST_F(NtfsStream, ARunAtTheVolumesStartIsNoHole) {
    Volume volume;
    const std::string boot = volume.VolumeImage().Bytes().substr(0, 2 * ClusterBytes);
    ASSERT_NE(std::string::npos, boot.find("NTFS"));
    ASSERT_OK(OpenData(volume.Record(FileFrn, FileRecord().Add(DataIn({{0, 2}}, boot.size())))));
    ExpectHolds(boot);
    ASSERT_OK(OpenData(volume.Record(FileFrn, FileRecord().Add(DataIn({{0, 1}}, ClusterBytes)))));
    ExpectHolds(boot.substr(0, ClusterBytes));
}

TEST_F(NtfsStream, AnAttributeOfNoBytesIsEmpty) {
    ASSERT_OK(OpenData(NtfsDataOf("")));
    ExpectHolds("");
    ASSERT_OK(OpenData(DataIn({{Lcn, 1}}, 0)));
    ExpectHolds("");
}

// --- Compression.

// Four units: a compressed one with stored chunks in it, one without compression, a hole, and one that the data's end
// cuts short.
struct CompressedFile_t {
    Packed_t first;
    std::string second = PatternedBytes(UnitBytes, 99);
    Packed_t last;
    uint64_t tailBytes = 5000;

    CompressedFile_t() {
        for (uint64_t chunk = 0; chunk < UnitClusters; ++chunk) {
            if (chunk % 5 == 2)
                first.Stored(chunk);
            else
                first.Compressed(static_cast<char>('a' + chunk), chunk);
        }
        last.Compressed('x', 50).Compressed('y', 51);
    }

    std::string Bytes() const {
        return first.bytes + second + std::string(UnitBytes, '\0') + last.bytes.substr(0, tailBytes);
    }

    Volume Build() const {
        const std::vector<NtfsRun_t> runs = {{Lcn, 3},       {Lcn + 20, 4}, {NtfsHole, 9}, {Lcn + 40, 16},
                                             {NtfsHole, 16}, {Lcn + 60, 1}, {NtfsHole, 15}};
        return Volume()
            .Record(FileFrn, FileRecord().Add(CompressedIn(runs, Bytes().size())))
            .Cluster(Lcn, first.stored.substr(0, 3 * ClusterBytes))
            .Cluster(Lcn + 20, first.stored.substr(3 * ClusterBytes))
            .Cluster(Lcn + 40, second)
            .Cluster(Lcn + 60, last.stored);
    }
};

TEST_F(NtfsStream, CompressedUnitsAreDecodedWhereverAReadResumes) {
    const CompressedFile_t file;
    ASSERT_GT(file.first.stored.size(), 3 * ClusterBytes);
    ASSERT_LE(file.first.stored.size(), 7 * ClusterBytes);
    ASSERT_OK(OpenData(file.Build()));
    const std::string expected = file.Bytes();
    ExpectHolds(expected);
    EXPECT_SAME_BYTES(expected, ReadInPieces(7));
    std::string bytes;
    for (uint64_t at = 3 * UnitBytes - 3; at < expected.size(); ++at)
        bytes += Read(at, 1);
    EXPECT_SAME_BYTES(expected.substr(3 * UnitBytes - 3), bytes);
}

TEST_F(NtfsStream, BytesBehindTheInitialisedSizeOfACompressedStreamAreZeros) {
    const CompressedFile_t file;
    const uint64_t initialized = UnitBytes / 2 + 11;
    ASSERT_OK(OpenData(file.Build().Record(
        FileFrn, FileRecord().Add(CompressedIn({{Lcn, 3}, {Lcn + 20, 4}, {NtfsHole, 9}, {NtfsHole, 16}}, 2 * UnitBytes)
                                      .InitializedBytes(initialized)))));
    ExpectHolds(file.first.bytes.substr(0, initialized) + std::string(2 * UnitBytes - initialized, '\0'));
}

TEST_F(NtfsStream, WhatAUnitsChunksDoNotGiveIsZeros) {
    Packed_t chunks;
    chunks.Compressed('q', 1);
    const std::string shortChunk = std::string("\x03\xB0\0abc", 6);
    ASSERT_OK(OpenData(Volume()
                           .Record(FileFrn, FileRecord().Add(CompressedIn({{Lcn, 1}, {NtfsHole, 15}}, UnitBytes)))
                           .Cluster(Lcn, chunks.stored + shortChunk + chunks.stored)));
    const std::string expected = chunks.bytes + "abc" + std::string(4093, '\0') + chunks.bytes;
    ExpectHolds(expected + std::string(UnitBytes - expected.size(), '\0'));
}

TEST_F(NtfsStream, ADamagedChunkIsRefusedAndTheUnitsAroundItAreRead) {
    Packed_t sound;
    sound.Compressed('s', 1);
    const struct {
        const char* name;
        std::string chunks;
    } rows[] = {
        {"a reference in front of the output", std::string("\x03\xB0\x01\x00\x10\x00", 6)},
        {"a chunk that leaves the clusters", CompressedChunk('d').replace(0, 2, "\xFF\xBF") + std::string(2000, 'x')},
        {"a stored chunk that leaves the clusters", sound.stored + StoredChunk(PatternedBytes(4096))},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::vector<NtfsRun_t> runs = {{Lcn, 1},       {NtfsHole, 15}, {Lcn + 1, 1},
                                             {NtfsHole, 15}, {Lcn, 1},       {NtfsHole, 15}};
        ASSERT_OK(OpenData(Volume()
                               .Record(FileFrn, FileRecord().Add(CompressedIn(runs, 3 * UnitBytes)))
                               .Cluster(Lcn, sound.stored)
                               .Cluster(Lcn + 1, row.chunks)));
        EXPECT_FAILS_SAYING(TryRead(UnitBytes, UnitBytes), "the file", "compressed data is damaged");
        EXPECT_FAILS_SAYING(TryRead(UnitBytes, 10), "the file", "compressed data is damaged");
        EXPECT_SAME_BYTES(sound.bytes, Read(0, 4096));
        EXPECT_SAME_BYTES(sound.bytes, Read(2 * UnitBytes, 4096));
    }
}

TEST_F(NtfsStream, UnknownCompressionIsRefused) {
    const std::vector<NtfsRun_t> runs = {{Lcn, 1}, {NtfsHole, 15}};
    const struct {
        const char* name;
        Attribute attribute;
    } rows[] = {
        {"another method", DataIn(runs, 4096).Flags(2).CompressionUnit(UnitOf16)},
        {"no unit", DataIn(runs, 4096).Flags(CompressedFlag)},
        {"a unit of 2 MiB", DataIn(runs, 4096).Flags(CompressedFlag).CompressionUnit(9)},
        {"a unit of 2^43 bytes", DataIn(runs, 4096).Flags(CompressedFlag).CompressionUnit(31)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_FAILS_SAYING(OpenData(row.attribute), "the file", "compressed in a way that isn't known");
    }
}

// --- What a record tells of its attributes.

TEST_F(NtfsStream, OfEachAttributeTheFirstSegmentIsListed) {
    OpenSet(Volume().Record(FileFrn, FileRecord()
                                         .Add(NtfsDataOf("12345"))
                                         .Add(DataIn({{Lcn, 2}}, 5000).Name(u"s").Flags(0x4000 | SparseFlag))
                                         .Add(DataIn({{Lcn + 9, 2}}, 7).Name(u"s").LowestVcn(2))
                                         .Add(CompressedIn({{Lcn, 16}}, 6).Name(u"c"))));
    ASSERT_OK(m_Mapped.Open(*m_Set, *m_Set->Find("Volume1")));
    CAutoMemory<char> record;
    ASSERT_OK(m_Mapped.ReadRecord(FileFrn, record));
    const std::vector<NtfsAttribute_t> attributes = ListNtfsAttributes(record);
    ASSERT_EQ(3U, attributes.size());
    EXPECT_TRUE(attributes[0].isResident);
    EXPECT_EQ(5U, attributes[0].bytes);
    EXPECT_EQ(u"s", attributes[1].name);
    EXPECT_EQ(5000U, attributes[1].bytes);
    EXPECT_TRUE(attributes[1].isEncrypted && attributes[1].isSparse && !attributes[1].isCompressed);
    EXPECT_TRUE(attributes[2].isCompressed && !attributes[2].isResident && !attributes[2].isEncrypted);
}

}  // namespace
