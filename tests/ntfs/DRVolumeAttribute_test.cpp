#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/NtfsTestVolume.h"
#include "tests/support/SameBytes.h"

// How `CDRVolume` reads the clusters of an attribute: runs, holes, compressed units.

namespace {

using Attribute = CNtfsAttributeBuilder;
using FileRecord = CNtfsFileRecordBuilder;
using Volume = CNtfsVolumeBuilder;

constexpr uint64_t FileFrn = 40;
constexpr uint32_t ClusterBytes = 4096;
constexpr uint64_t MostOfVolume = 0x100000;

std::string ClusterOf(char fill) {
    return std::string(ClusterBytes, fill);
}

std::string Zeros(size_t bytes) {
    return std::string(bytes, '\0');
}

class DRVolumeAttribute : public CNtfsVolumeTest {
protected:
    // Opens a volume with the attribute in a file of its own, and takes it up.
    void Take(const Attribute& attribute, Volume volume = Volume()) {
        ASSERT_EQ(NtfsOk, Open(volume.Record(FileFrn, FileRecord().Add(attribute))));
        ASSERT_EQ(NtfsOk, OpenFile(FileFrn, m_File));
        m_Attribute = CDRFileRecord::FindFirstAttr(m_File.record.GetPtr(), attribute.Type());
        ASSERT_NE(nullptr, m_Attribute);
        m_Extents.Free();
        char* const runs = CDRFileRecord::GetDataRunFromAttr(m_Attribute);
        if (runs != nullptr) {
            ASSERT_EQ(NtfsOk, CDRFileRecord::ConvertDataRunToExtent(runs, &m_Extents, 0));
        }
        GoTo(0, 0);
        m_Ntfs.ForgetReads();
    }

    void GoTo(uint64_t vcn, uint32_t offset) {
        m_Vcn = vcn;
        m_Offset = offset;
    }

    Outcome_t Read(uint32_t size) {
        std::string buffer(size, '?');
        uint32_t read = 77;
        auto* const extents = reinterpret_cast<DATARUN_EXTENTS*>(m_Extents.GetPtr());
        const int result = m_Ntfs.ReadAttribute(m_Attribute, extents, &m_Vcn, &m_Offset, buffer.data(), size, &read);
        return Taken(result, buffer, read);
    }

    void ExpectRead(int result, const std::string& bytes, uint32_t size) {
        const Outcome_t outcome = Read(size);
        EXPECT_EQ(result, outcome.result);
        EXPECT_SAME_BYTES(bytes, outcome.bytes);
    }

    void ExpectPosition(uint64_t vcn, uint32_t offset) const {
        EXPECT_EQ(vcn, m_Vcn);
        EXPECT_EQ(offset, m_Offset);
    }

    // All of the attribute, from where it stands on, in reads of that size.
    std::string ReadInPieces(uint32_t size) {
        std::string bytes;
        Outcome_t outcome{NtfsOk, ""};
        while (outcome.result == NtfsOk && bytes.size() <= MostOfVolume) {
            outcome = Read(size);
            bytes += outcome.bytes;
        }
        EXPECT_EQ(NtfsEndOfRun, outcome.result);
        return bytes;
    }

    File_t m_File;
    ATTR_RECORD_HEADER_t* m_Attribute = nullptr;
    CAutoMemory<char> m_Extents;
    uint64_t m_Vcn = 0;
    uint32_t m_Offset = 0;
};

Attribute Data(const std::vector<NtfsRun_t>& runs, uint64_t bytes) {
    return Attribute::NonResident(NtfsDataType, runs, bytes);
}

// In units of 16 clusters.
Attribute Compressed(const std::vector<NtfsRun_t>& runs, uint64_t bytes) {
    return Data(runs, bytes).CompressionUnit(4).Flags(1);
}

TEST_F(DRVolumeAttribute, NoAttributeIsAtItsEnd) {
    ASSERT_EQ(NtfsOk, Open(Volume()));
    ExpectRead(NtfsEndOfRun, "", 10);
}

TEST_F(DRVolumeAttribute, AResidentValueIsReadByItsOffsetAlone) {
    Take(Attribute::Resident(NtfsEaType, "0123456789"));
    GoTo(99, 3);
    ExpectRead(NtfsOk, "345", 3);
    ExpectPosition(99, 6);
    ExpectRead(NtfsOk, "6789", 100);
    ExpectPosition(99, 10);
    ExpectRead(NtfsEndOfRun, "", 100);
    GoTo(0, ~0U);
    ExpectRead(NtfsEndOfRun, "", 100);
    EXPECT_TRUE(m_Ntfs.Reads().empty());
}

TEST_F(DRVolumeAttribute, ClustersWithoutTheirRunsAreAtTheirEnd) {
    Take(Data({{64, 1}}, 100));
    m_Extents.Free();
    ExpectRead(NtfsEndOfRun, "", 10);
}

TEST_F(DRVolumeAttribute, AVcnBehindTheLastIsTheEnd) {
    Take(Data({{64, 4}}, 3 * ClusterBytes).HighestVcn(2));
    GoTo(3, 0);
    ExpectRead(NtfsEndOfRun, "", 10);
    GoTo(~uint64_t{0}, 0);
    ExpectRead(NtfsEndOfRun, "", 10);
    ExpectPosition(~uint64_t{0}, 0);
}

TEST_F(DRVolumeAttribute, NoRunsAreTheEnd) {
    Take(Data({{64, 1}}, 100).RunList(std::string(8, '\0')));
    ExpectRead(NtfsEndOfRun, "", 10);
}

TEST_F(DRVolumeAttribute, NoBytesAreReadAtOnce) {
    Take(Data({{64, 1}}, 100));
    ExpectRead(NtfsOk, "", 0);
    EXPECT_TRUE(m_Ntfs.Reads().empty());
}

// Callers rely on the whole cluster being left as an offset: they test for it.
TEST_F(DRVolumeAttribute, ABufferThatEndsWithAClusterLeavesTheOffsetAtItsEnd) {
    Take(Data({{64, 2}}, 2 * ClusterBytes), Volume().Cluster(64, ClusterOf('A') + ClusterOf('B')));
    ExpectRead(NtfsOk, ClusterOf('A'), ClusterBytes);
    ExpectPosition(0, ClusterBytes);
    ExpectRead(NtfsOk, "BBB", 3);
    ExpectPosition(1, 3);
}

TEST_F(DRVolumeAttribute, AnOffsetOfAWholeClusterIsTheNextOne) {
    const Volume volume = Volume().Cluster(64, ClusterOf('A') + ClusterOf('B') + ClusterOf('C'));
    Take(Data({{64, 3}}, 3 * ClusterBytes), volume);
    GoTo(0, 2 * ClusterBytes + 5);
    ExpectRead(NtfsOk, "CC", 2);
    GoTo(2, ClusterBytes);
    ExpectRead(NtfsEndOfRun, "", 2);
}

TEST_F(DRVolumeAttribute, TheLastClusterGivesWhatTheDataSizeLeavesOfIt) {
    const struct {
        const char* name;
        uint64_t dataBytes;
        size_t delivered;
    } rows[] = {
        {"part of it", ClusterBytes + 100, ClusterBytes + 100},
        {"all of it", 2 * ClusterBytes, 2 * ClusterBytes},
        {"never more than it", 5 * ClusterBytes, 2 * ClusterBytes},
        {"nothing of it", ClusterBytes, ClusterBytes},
        {"a difference that wraps", ClusterBytes - 1, 2 * ClusterBytes},
        {"no size", 0, 2 * ClusterBytes},
        {"the largest size", ~uint64_t{0}, 2 * ClusterBytes},
    };
    const std::string bytes = PatternedBytes(size_t{2} * ClusterBytes);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Take(Data({{64, 2}}, row.dataBytes), Volume().Cluster(64, bytes));
        ExpectRead(NtfsEndOfRun, bytes.substr(0, row.delivered), 3 * ClusterBytes);
        GoTo(0, 0);
        EXPECT_SAME_BYTES(bytes.substr(0, row.delivered), ReadInPieces(1000));
    }
}

TEST_F(DRVolumeAttribute, ADataSizeOf0InOneClusterGivesNothing) {
    Take(Data({{64, 1}}, 0), Volume().Cluster(64, ClusterOf('A')));
    ExpectRead(NtfsEndOfRun, "", 10);
}

TEST_F(DRVolumeAttribute, ALaterSegmentIsReadFromItsOwnStartAndWhole) {
    Take(Data({{64, 2}}, 0).LowestVcn(1000), Volume().Cluster(64, ClusterOf('A') + ClusterOf('B')));
    ExpectRead(NtfsEndOfRun, ClusterOf('A') + ClusterOf('B'), 3 * ClusterBytes);
}

// Callers rely on the runs being what ends a read that began in front of the last VCN.
TEST_F(DRVolumeAttribute, RunsBehindTheLastVcnAreReadOn) {
    Take(Data({{64, 4}}, ClusterBytes + 10).HighestVcn(1),
         Volume().Cluster(64, ClusterOf('A') + ClusterOf('B') + ClusterOf('C') + ClusterOf('D')));
    ExpectRead(NtfsEndOfRun, ClusterOf('A') + std::string(10, 'B') + ClusterOf('C') + ClusterOf('D'), 5 * ClusterBytes);
}

TEST_F(DRVolumeAttribute, AHoleIsZerosAndNoDiskIsTouched) {
    Take(Data({{NtfsHole, 3}}, 3 * ClusterBytes - 10).Flags(0x8000));
    EXPECT_SAME_BYTES(Zeros(3 * ClusterBytes - 10), ReadInPieces(5000));
    EXPECT_TRUE(m_Ntfs.Reads().empty());
}

TEST_F(DRVolumeAttribute, RunsAndHolesFollowEachOther) {
    Take(Data({{70, 1}, {NtfsHole, 2}, {66, 1}, {NtfsHole, 1}}, 5 * ClusterBytes),
         Volume().Cluster(70, ClusterOf('A')).Cluster(66, ClusterOf('B')));
    const std::string expected = ClusterOf('A') + Zeros(2 * ClusterBytes) + ClusterOf('B') + Zeros(ClusterBytes);
    for (const uint32_t size : {777U, 4096U, 6000U, 30000U}) {
        GoTo(0, 0);
        EXPECT_SAME_BYTES(expected, ReadInPieces(size)) << size;
    }
}

TEST_F(DRVolumeAttribute, RunsOfNoClustersArePassedOver) {
    const std::string runs = NtfsRunBytes(1, 0, 1, 100) + NtfsRunBytes(1, 1, 1, -36) + NtfsRunBytes(1, 0, 0, 0) +
                             NtfsRunBytes(1, 0, 1, 5) + NtfsRunBytes(1, 1, 1, 1) + NtfsRunBytes(1, 0, 1, 5) + '\0';
    Take(Data({{64, 2}}, 2 * ClusterBytes).RunList(runs),
         Volume().Cluster(64, ClusterOf('A')).Cluster(70, ClusterOf('B')));
    EXPECT_SAME_BYTES(ClusterOf('A') + ClusterOf('B'), ReadInPieces(3000));
    GoTo(1, 10);
    ExpectRead(NtfsOk, "BBB", 3);
}

TEST_F(DRVolumeAttribute, AReadNeverGoesBehindTheCallersBuffer) {
    Take(Data({{64, 8}}, 8 * ClusterBytes), Volume().Cluster(64, PatternedBytes(size_t{8} * ClusterBytes)));
    for (const uint32_t size : {1U, 4095U, 4096U, 4097U, 12288U}) {
        for (const uint32_t offset : {0U, 1U, 4095U}) {
            std::string buffer(size + 64, '?');
            uint64_t vcn = 1;
            uint32_t at = offset;
            uint32_t read = 0;
            EXPECT_EQ(NtfsOk, m_Ntfs.ReadAttribute(m_Attribute, reinterpret_cast<DATARUN_EXTENTS*>(m_Extents.GetPtr()),
                                                   &vcn, &at, buffer.data(), size, &read));
            EXPECT_EQ(size, read);
            EXPECT_SAME_BYTES(PatternedBytes(size_t{8} * ClusterBytes).substr(ClusterBytes + offset, size) +
                                  std::string(64, '?'),
                              buffer);
        }
    }
}

TEST_F(DRVolumeAttribute, AFailedReadKeepsWhatWasDeliveredBefore) {
    Take(Data({{64, 2}, {80, 2}}, 4 * ClusterBytes),
         Volume().Cluster(64, ClusterOf('A') + ClusterOf('B')).Cluster(80, ClusterOf('C') + ClusterOf('D')));
    m_Ntfs.FailAt(81 * ClusterBytes);
    ExpectRead(NtfsSeeLog, ClusterOf('A') + ClusterOf('B') + ClusterOf('C'), 4 * ClusterBytes);
    ExpectPosition(3, 0);
    m_Ntfs.FailNowhere();
    ExpectRead(NtfsOk, ClusterOf('D'), ClusterBytes);
}

TEST_F(DRVolumeAttribute, ClustersOfAnySizeAreReadRight) {
    const std::string bytes = PatternedBytes(200'000);
    for (const uint8_t sectors : std::vector<uint8_t>{2, 4, 16, 128}) {
        const uint32_t cluster = 512U * sectors;
        Volume volume;
        volume.SectorsPerCluster(sectors).Cluster(volume.FreeLcn(), bytes);
        Take(Data({{volume.FreeLcn(), (200'000 + cluster - 1) / cluster}}, 200'000), volume);
        EXPECT_SAME_BYTES(bytes, ReadInPieces(33'333)) << cluster;
    }
}

// --- Compression units.

TEST_F(DRVolumeAttribute, AUnitOfHolesIsZeros) {
    Take(Compressed({{NtfsHole, 32}}, 32 * ClusterBytes));
    EXPECT_SAME_BYTES(Zeros(32 * ClusterBytes), ReadInPieces(10'000));
    EXPECT_TRUE(m_Ntfs.Reads().empty());
}

TEST_F(DRVolumeAttribute, AUnitWithoutHolesIsTakenAsItLies) {
    std::string bytes = CompressedChunk('x');
    bytes += PatternedBytes(size_t{16} * ClusterBytes - bytes.size());
    Take(Compressed({{100, 7}, {90, 9}}, 16 * ClusterBytes),
         Volume().Cluster(100, bytes.substr(0, 7 * ClusterBytes)).Cluster(90, bytes.substr(7 * ClusterBytes)));
    for (const uint32_t size : {1000U, 4096U, 100'000U}) {
        GoTo(0, 0);
        EXPECT_SAME_BYTES(bytes, ReadInPieces(size)) << size;
    }
}

// Five clusters of chunks and eleven holes.
struct PackedUnit_t {
    std::string plain;
    std::string packed;
};

PackedUnit_t UnitOf16Chunks(uint64_t seed) {
    PackedUnit_t unit;
    for (uint64_t chunk = 0; chunk < 16; ++chunk) {
        const std::string tail = PatternedBytes(1100, seed + chunk);
        const char fill = static_cast<char>('a' + chunk);
        unit.plain += UncompressedChunk(fill, tail);
        unit.packed += CompressedChunk(fill, tail);
    }
    unit.packed.resize(5 * ClusterBytes, '\0');
    return unit;
}

TEST_F(DRVolumeAttribute, AUnitWithHolesBehindItsClustersIsDecompressed) {
    const PackedUnit_t unit = UnitOf16Chunks(1);
    ASSERT_GT(unit.packed.find_last_not_of('\0'), 4 * ClusterBytes) << "all five clusters are needed";
    Take(Compressed({{100, 2}, {90, 3}, {NtfsHole, 11}}, 16 * ClusterBytes),
         Volume()
             .Cluster(100, unit.packed.substr(0, 2 * ClusterBytes))
             .Cluster(90, unit.packed.substr(2 * ClusterBytes)));
    EXPECT_SAME_BYTES(unit.plain, ReadInPieces(16 * ClusterBytes));
    GoTo(0, 0);
    EXPECT_SAME_BYTES(unit.plain, ReadInPieces(ClusterBytes)) << "resumed between chunks";
    GoTo(7, 0);
    ExpectRead(NtfsOk, unit.plain.substr(7 * ClusterBytes, 3 * ClusterBytes), 3 * ClusterBytes);
}

TEST_F(DRVolumeAttribute, UnitsOfAllKindsFollowEachOther) {
    const PackedUnit_t first = UnitOf16Chunks(1);
    const PackedUnit_t second = UnitOf16Chunks(50);
    const std::string plain = PatternedBytes(size_t{16} * ClusterBytes, 9);
    Take(Compressed({{100, 5}, {NtfsHole, 11}, {120, 16}, {NtfsHole, 16}, {140, 5}, {NtfsHole, 11}},
                    uint64_t{64} * ClusterBytes),
         Volume().Cluster(100, first.packed).Cluster(120, plain).Cluster(140, second.packed));
    const std::string expected = first.plain + plain + Zeros(16 * ClusterBytes) + second.plain;
    EXPECT_SAME_BYTES(expected, ReadInPieces(64 * ClusterBytes));
    GoTo(0, 0);
    EXPECT_SAME_BYTES(expected, ReadInPieces(2 * ClusterBytes));
}

// Callers rely on the two looks at a unit: what stands behind a hole in front isn't looked at.
TEST_F(DRVolumeAttribute, AUnitWithAHoleInFrontIsEmpty) {
    Take(Compressed({{NtfsHole, 1}, {100, 15}}, 16 * ClusterBytes), Volume().Cluster(100, ClusterOf('A')));
    EXPECT_SAME_BYTES(Zeros(16 * ClusterBytes), ReadInPieces(9000));
    EXPECT_TRUE(m_Ntfs.Reads().empty());
}

TEST_F(DRVolumeAttribute, ClustersBehindAHoleOfACompressedUnitAreNotRead) {
    const PackedUnit_t unit = UnitOf16Chunks(3);
    Take(Compressed({{100, 5}, {NtfsHole, 1}, {5000, 10}}, 16 * ClusterBytes), Volume().Cluster(100, unit.packed));
    EXPECT_SAME_BYTES(unit.plain, ReadInPieces(16 * ClusterBytes));
}

// Callers rely on the length that isn't made shorter by what was delivered of the chunk: zeros follow the chunk, and
// never what an earlier chunk or file left.
TEST_F(DRVolumeAttribute, AChunkResumedInItsMiddleGivesItsWholeLength) {
    const PackedUnit_t unit = UnitOf16Chunks(4);
    const PackedUnit_t other = UnitOf16Chunks(90);
    Take(Compressed({{100, 5}, {NtfsHole, 11}, {110, 5}, {NtfsHole, 11}}, 32 * ClusterBytes),
         Volume().Cluster(100, unit.packed).Cluster(110, other.packed));
    GoTo(16, 0);
    Read(16 * ClusterBytes);
    GoTo(0, 0);
    ExpectRead(NtfsOk, unit.plain.substr(0, 1000), 1000);
    ExpectPosition(0, 1000);
    ExpectRead(NtfsOk,
               unit.plain.substr(1000, 3096) + Zeros(1000) + unit.plain.substr(ClusterBytes, ClusterBytes) +
                   unit.plain.substr(2 * ClusterBytes, 10),
               2 * ClusterBytes + 10);
    ExpectPosition(2, 10);
    GoTo(0, 4000);
    ExpectRead(NtfsOk, unit.plain.substr(4000, 96) + Zeros(4000), ClusterBytes);
    ExpectPosition(0, 8096);
}

// Callers rely on one chunk for each cluster, whatever the cluster's size.
TEST_F(DRVolumeAttribute, AChunkCountsForACluster) {
    Volume volume;
    volume.SectorsPerCluster(16);
    const uint64_t lcn = volume.FreeLcn();
    volume.Cluster(lcn, CompressedChunk('a', "one") + CompressedChunk('b', "two") + std::string(8, '\0'));
    Take(Compressed({{lcn, 1}, {NtfsHole, 15}}, uint64_t{16} * 8192).ClusterBytes(8192), volume);
    ExpectRead(NtfsEndOfRun, UncompressedChunk('a', "one") + UncompressedChunk('b', "two"), 16 * 8192);
    GoTo(1, 0);
    ExpectRead(NtfsEndOfRun, UncompressedChunk('b', "two"), 16 * 8192);
}

// Callers rely on stored chunks giving nothing: they are told apart elsewhere.
TEST_F(DRVolumeAttribute, AStoredChunkGivesNothingAndIsNotPassed) {
    std::string stored = LittleEndianBytes(0x3FFF, 2) + PatternedBytes(4096);
    stored += CompressedChunk('b');
    Take(Compressed({{100, 2}, {NtfsHole, 14}}, 16 * ClusterBytes), Volume().Cluster(100, stored));
    ExpectRead(NtfsEndOfRun, "", 16 * ClusterBytes);
    ExpectPosition(16, 0);

    const std::string behind = CompressedChunk('a') + stored;
    Take(Compressed({{100, 2}, {NtfsHole, 14}}, 16 * ClusterBytes), Volume().Cluster(100, behind.substr(0, 8192)));
    ExpectRead(NtfsEndOfRun, UncompressedChunk('a'), 16 * ClusterBytes);
}

TEST_F(DRVolumeAttribute, AChunkThatCannotBeDecodedIsRefused) {
    const auto chunk = [](const std::string& body) {
        return LittleEndianBytes(0xB000U | (body.size() + 2 - 3), 2) + body;
    };
    std::string tooMuch = std::string("\x02x", 2) + LittleEndianBytes(0x0FFF, 2);
    const struct {
        const char* name;
        std::string bytes;
    } rows[] = {
        {"a copy from in front of the output", chunk(std::string("\x02x", 2) + LittleEndianBytes(0x1000, 2))},
        {"a copy before any output", chunk(std::string("\x01", 1) + LittleEndianBytes(0, 2))},
        {"more than 4096 bytes", chunk(tooMuch)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Take(Compressed({{100, 1}, {NtfsHole, 15}}, 16 * ClusterBytes), Volume().Cluster(100, row.bytes));
        EXPECT_EQ(NtfsBadCompression, Read(16 * ClusterBytes).result);
    }
}

TEST_F(DRVolumeAttribute, AChunkThatLeavesTheClustersReadIsRefused) {
    // The first chunk is short, the second's length leads out of the cluster.
    const std::string first = CompressedChunk('a', PatternedBytes(3500));
    const std::string second = CompressedChunk('b', PatternedBytes(3500));
    ASSERT_GT(first.size() + second.size(), size_t{ClusterBytes});
    Take(Compressed({{100, 1}, {NtfsHole, 15}}, 16 * ClusterBytes),
         Volume().Cluster(100, (first + second).substr(0, ClusterBytes)).Cluster(101, PatternedBytes(ClusterBytes)));
    ExpectRead(NtfsBadCompression, UncompressedChunk('a', PatternedBytes(3500)), 16 * ClusterBytes);
}

TEST_F(DRVolumeAttribute, RunsThatEndInsideACompressedUnitAreRefused) {
    const PackedUnit_t unit = UnitOf16Chunks(5);
    Take(Compressed({{100, 5}, {NtfsHole, 10}}, 16 * ClusterBytes), Volume().Cluster(100, unit.packed));
    ExpectRead(NtfsBadCompression, "", 16 * ClusterBytes);
    Take(Compressed({{NtfsHole, 15}}, 16 * ClusterBytes));
    ExpectRead(NtfsBadCompression, "", 16 * ClusterBytes);
}

TEST_F(DRVolumeAttribute, RunsThatEndInsideAPlainUnitGiveWhatIsThere) {
    const std::string bytes = PatternedBytes(size_t{3} * ClusterBytes);
    Take(Compressed({{100, 2}, {90, 1}}, 3 * ClusterBytes - 5),
         Volume().Cluster(100, bytes.substr(0, 2 * ClusterBytes)).Cluster(90, bytes.substr(2 * ClusterBytes)));
    ExpectRead(NtfsEndOfRun, bytes.substr(0, 3 * ClusterBytes - 5), 16 * ClusterBytes);
}

TEST_F(DRVolumeAttribute, TheUnitsFieldCountsModulo32) {
    const PackedUnit_t unit = UnitOf16Chunks(6);
    for (const uint16_t field : std::vector<uint16_t>{4, 36, 0x8004}) {
        Take(Compressed({{100, 5}, {NtfsHole, 11}}, 16 * ClusterBytes).CompressionUnit(field),
             Volume().Cluster(100, unit.packed));
        EXPECT_SAME_BYTES(unit.plain, ReadInPieces(16 * ClusterBytes)) << field;
    }
    Take(Compressed({{100, 1}, {NtfsHole, 1}}, 2 * ClusterBytes).CompressionUnit(32),
         Volume().Cluster(100, ClusterOf('A')));
    EXPECT_SAME_BYTES(ClusterOf('A') + Zeros(ClusterBytes), ReadInPieces(ClusterBytes)) << "units of one cluster";
}

TEST_F(DRVolumeAttribute, AHugeUnitTakesNoMoreMemoryThanItsRuns) {
    const std::string bytes = PatternedBytes(size_t{2} * ClusterBytes);
    Take(Compressed({{100, 2}}, 2 * ClusterBytes).CompressionUnit(28), Volume().Cluster(100, bytes));
    EXPECT_SAME_BYTES(bytes, ReadInPieces(5000));
    Take(Compressed({{100, 2}, {NtfsHole, 5}}, 2 * ClusterBytes).CompressionUnit(28), Volume().Cluster(100, bytes));
    EXPECT_EQ(NtfsBadCompression, Read(5000).result);
    Take(Compressed({{100, 2}, {NtfsHole, (uint64_t{1} << 28U) - 2}}, 2 * ClusterBytes).CompressionUnit(28),
         Volume().Cluster(100, bytes));
    EXPECT_EQ(NtfsOutOfMemory, Read(5000).result);
}

TEST_F(DRVolumeAttribute, AUnitWhoseRunsNameTheSameClustersAgainAndAgainIsOutOfMemory) {
    std::vector<NtfsRun_t> runs(12, {100, 400});
    runs.push_back({NtfsHole, 8192 - 12 * 400});
    Take(Compressed(runs, 8192 * ClusterBytes).CompressionUnit(13));
    EXPECT_EQ(NtfsOutOfMemory, Read(5000).result);
}

// --- One chunk.

TEST_F(DRVolumeAttribute, UnCompressDecodesOneChunk) {
    for (const size_t tail : {0U, 1U, 6U, 7U, 14U, 1000U, 3600U}) {
        std::string source = CompressedChunk('a', PatternedBytes(tail));
        std::string target(4096 + 16, '?');
        uint32_t size = 77;
        ASSERT_EQ(NtfsOk, m_Ntfs.UnCompress(source.data(), target.data(), &size));
        EXPECT_EQ(4096U, size);
        EXPECT_SAME_BYTES(UncompressedChunk('a', PatternedBytes(tail)) + std::string(16, '?'), target);
    }
}

TEST_F(DRVolumeAttribute, UnCompressGivesNothingForAStoredChunkOrTheEnd) {
    for (const uint32_t header : {0x0000U, 0x3FFFU, 0x7FFFU}) {
        std::string source = LittleEndianBytes(header, 2) + PatternedBytes(4096);
        std::string target(4096, '?');
        uint32_t size = 77;
        EXPECT_EQ(NtfsOk, m_Ntfs.UnCompress(source.data(), target.data(), &size));
        EXPECT_EQ(0U, size);
        EXPECT_SAME_BYTES(std::string(4096, '?'), target);
    }
}

// --- Whatever the runs are.

TEST_F(DRVolumeAttribute, ReadsOfArbitraryAttributesEnd) {
    std::mt19937_64 random(5);
    for (int turn = 0; turn < 150; ++turn) {
        std::vector<NtfsRun_t> runs(1 + random() % 5);
        for (NtfsRun_t& run : runs) {
            run.clusters = random() % 8 == 0 ? random() >> (random() % 60) : random() % 20;
            if (random() % 3 != 0)
                run.lcn = random() % 8 == 0 ? random() >> (1 + random() % 60) : 64 + random() % 400;
        }
        Attribute attribute = Data(runs, random() >> (random() % 64));
        attribute.CompressionUnit(static_cast<uint16_t>(random() % 3 == 0 ? random() : random() % 6));
        attribute.LowestVcn(random() % 2 == 0 ? 0 : random() >> (random() % 64));
        attribute.HighestVcn(random() % 2 == 0 ? random() % 40 : random() >> (random() % 64));
        File_t file;
        if (Open(Volume().Cluster(64, PatternedBytes(65536)).Record(FileFrn, FileRecord().Add(attribute))) != NtfsOk ||
            OpenFile(FileFrn, file) != NtfsOk)
            continue;
        for (int call = 0; call < 5; ++call)
            ReadFile(file, static_cast<uint32_t>(1 + random() % 20'000));
    }
}

}  // namespace
