#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "ntfs/DRFileRecord.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/NtfsRecordBuilder.h"

namespace {

constexpr uint64_t AllOnes = ~uint64_t{0};
constexpr size_t HeadBytes = 8;
constexpr size_t EntryBytes = 32;

struct Extent_t {
    uint64_t nextVcn;
    uint64_t length;
    uint64_t firstLcn;
    uint64_t lastLcn;

    bool operator==(const Extent_t&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Extent_t& extent) {
    return stream << "{up to " << extent.nextVcn << ", " << extent.length << " at " << extent.firstLcn << ".."
                  << extent.lastLcn << "}";
}

struct Decoded_t {
    int result;
    std::vector<Extent_t> extents;
};

// The entries of the block, read by their offsets; the block has to be as long as its count says.
std::vector<Extent_t> ExtentsOf(const std::string& block) {
    std::vector<Extent_t> extents;
    if (block.size() < HeadBytes)
        return extents;
    const uint64_t count = LittleEndianAt(block, 0, 4);
    EXPECT_EQ(block.size(), HeadBytes + EntryBytes * count);
    for (uint64_t index = 0; index < count; ++index) {
        const size_t at = HeadBytes + EntryBytes * index;
        extents.push_back({LittleEndianAt(block, at, 8), LittleEndianAt(block, at + 8, 8),
                           LittleEndianAt(block, at + 16, 8), LittleEndianAt(block, at + 24, 8)});
    }
    return extents;
}

// Decodes from a buffer of exactly the list's size, in both ways; they have to agree.
Decoded_t Decode(const std::string& list, uint64_t startVcn = 0) {
    CAutoMemory<char> runList = BufferOf(list);
    CAutoMemory<char> unbounded;
    CAutoMemory<char> bounded;
    const int result = CDRFileRecord::ConvertDataRunToExtent(runList.GetPtr(), &unbounded, startVcn);
    EXPECT_EQ(CDRFileRecord::ConvertDataRunToExtent(runList.GetPtr(), runList.GetSize(), &bounded, startVcn), result);
    EXPECT_EQ(BytesOf(bounded), BytesOf(unbounded));
    return {result, ExtentsOf(BytesOf(unbounded))};
}

// Only with its size: a list without an end.
Decoded_t DecodeBounded(const std::string& list, uint64_t startVcn = 0) {
    CAutoMemory<char> runList = BufferOf(list);
    CAutoMemory<char> extents;
    const int result = CDRFileRecord::ConvertDataRunToExtent(runList.GetPtr(), runList.GetSize(), &extents, startVcn);
    return {result, ExtentsOf(BytesOf(extents))};
}

std::string Ended(const std::string& runs) {
    return runs + '\0';
}

}  // namespace

TEST(DRFileRecordRuns, AnEmptyListHasNoRuns) {
    CAutoMemory<char> extents = BufferOf("what was there before");
    char list[] = {0};
    EXPECT_EQ(CDRFileRecord::ConvertDataRunToExtent(list, &extents, 7), NtfsOk);
    EXPECT_EQ(BytesOf(extents), std::string(8, '\0'));
}

TEST(DRFileRecordRuns, DecodesARunByteByByte) {
    const Decoded_t decoded = Decode(std::string("\x21\x18\x34\x56\0", 5));
    EXPECT_EQ(decoded.result, NtfsOk);
    EXPECT_EQ(decoded.extents, (std::vector<Extent_t>{{0x18, 0x18, 0x5634, 0x564B}}));
}

TEST(DRFileRecordRuns, LaysTheBlockOutForFiles) {
    CAutoMemory<char> extents;
    std::string list = NtfsRunList({{0x123456789A, 3}, {NtfsHole, 2}});
    ASSERT_EQ(CDRFileRecord::ConvertDataRunToExtent(list.data(), &extents, 0), NtfsOk);
    const std::string expected("\x02\0\0\0\0\0\0\0"
                               "\x03\0\0\0\0\0\0\0\x03\0\0\0\0\0\0\0"
                               "\x9A\x78\x56\x34\x12\0\0\0\x9C\x78\x56\x34\x12\0\0\0"
                               "\x05\0\0\0\0\0\0\0\x02\0\0\0\0\0\0\0"
                               "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF",
                               72);
    EXPECT_EQ(BytesOf(extents), expected);
}

TEST(DRFileRecordRuns, CountsOffsetsFromTheLastRunThatIsNoHole) {
    const Decoded_t decoded = Decode(NtfsRunList({{1000, 10}, {NtfsHole, 5}, {NtfsHole, 6}, {900, 1}, {1000, 2}}));
    EXPECT_EQ(decoded.result, NtfsOk);
    EXPECT_EQ(decoded.extents, (std::vector<Extent_t>{{10, 10, 1000, 1009},
                                                      {15, 5, AllOnes, AllOnes},
                                                      {21, 6, AllOnes, AllOnes},
                                                      {22, 1, 900, 900},
                                                      {24, 2, 1000, 1001}}));
}

TEST(DRFileRecordRuns, ExtendsTheSignOfAnOffsetOfEachWidth) {
    for (size_t width = 1; width <= 8; ++width) {
        SCOPED_TRACE(width);
        const Decoded_t decoded = Decode(Ended(NtfsRunBytes(1, 1, 8, 1000) + NtfsRunBytes(1, 1, width, -100)));
        ASSERT_EQ(decoded.result, NtfsOk);
        EXPECT_EQ(decoded.extents[1], (Extent_t{2, 1, 900, 900}));
    }
}

TEST(DRFileRecordRuns, TakesTheTopBitOfAnOffsetForItsSignInEachWidth) {
    for (size_t width = 1; width <= 8; ++width) {
        SCOPED_TRACE(width);
        const uint64_t top = uint64_t{1} << (8 * width - 1);
        const std::string high = '\x01' + LittleEndianBytes(top - 1, width);
        const std::string low = '\x01' + LittleEndianBytes(top, width);
        const auto head = static_cast<char>(width << 4U | 1U);
        const Decoded_t decoded = Decode(Ended(head + high + head + low));
        ASSERT_EQ(decoded.result, NtfsOk);
        EXPECT_EQ(decoded.extents[0].firstLcn, top - 1);
        EXPECT_EQ(decoded.extents[1].firstLcn, AllOnes);  // top - 1 - top
    }
}

TEST(DRFileRecordRuns, NeverExtendsTheSignOfALength) {
    for (size_t width = 1; width <= 8; ++width) {
        SCOPED_TRACE(width);
        const uint64_t length = AllOnes >> (64 - 8 * width);
        const Decoded_t decoded = Decode(Ended(NtfsRunBytes(width, length, 1, 5)));
        ASSERT_EQ(decoded.result, NtfsOk);
        EXPECT_EQ(decoded.extents[0], (Extent_t{length, length, 5, 5 + length - 1}));
    }
}

TEST(DRFileRecordRuns, StartsAtTheVcnGivenAndAtLcnZero) {
    const Decoded_t decoded = Decode(NtfsRunList({{50, 4}, {NtfsHole, 3}}), 1000);
    EXPECT_EQ(decoded.result, NtfsOk);
    EXPECT_EQ(decoded.extents, (std::vector<Extent_t>{{1004, 4, 50, 53}, {1007, 3, AllOnes, AllOnes}}));
}

TEST(DRFileRecordRuns, KeepsARunWithoutALength) {
    // It holds no cluster, but moves the place from which the next offset counts.
    const Decoded_t decoded =
        Decode(Ended(NtfsRunBytes(0, 0, 1, 40) + NtfsRunBytes(1, 0, 0, 0) + NtfsRunBytes(1, 3, 1, 2)));
    EXPECT_EQ(decoded.result, NtfsOk);
    EXPECT_EQ(decoded.extents, (std::vector<Extent_t>{{0, 0, 40, 39}, {0, 0, AllOnes, AllOnes}, {3, 3, 42, 44}}));
}

TEST(DRFileRecordRuns, RefusesNumbersOfMoreThanEightBytes) {
    const struct {
        const char* name;
        std::string list;
    } rows[] = {
        {"a length of nine bytes", "\x09"},
        {"a length of fifteen bytes", "\x1F"},
        {"an offset of nine bytes", "\x91"},
        {"an offset of nine bytes without a length", "\x90"},
        {"both", "\xFF"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(Decode(row.list + std::string(24, '\x01')).result, NtfsRunTooWide);
        EXPECT_TRUE(Decode(row.list).extents.empty());
        const Decoded_t behind = Decode(NtfsRunBytes(1, 4, 1, 9) + row.list);
        EXPECT_EQ(behind.result, NtfsRunTooWide);
        EXPECT_EQ(behind.extents, (std::vector<Extent_t>{{4, 4, 9, 12}}));
    }
}

TEST(DRFileRecordRuns, TakesNumbersOfEightBytes) {
    const Decoded_t decoded = Decode(Ended(NtfsRunBytes(8, 3, 8, -1)));
    EXPECT_EQ(decoded.result, NtfsOk);
    EXPECT_EQ(decoded.extents, (std::vector<Extent_t>{{3, 3, AllOnes, 1}}));
}

TEST(DRFileRecordRuns, RefusesAVcnThatWraps) {
    const std::string lists[] = {
        NtfsRunBytes(1, 6, 1, 1),
        NtfsRunBytes(8, AllOnes, 0, 0),
    };
    for (const std::string& list : lists) {
        const Decoded_t decoded = Decode(Ended(NtfsRunBytes(1, 5, 1, 9) + list), AllOnes - 10);
        EXPECT_EQ(decoded.result, NtfsRecordCorrupted);
        EXPECT_EQ(decoded.extents, (std::vector<Extent_t>{{AllOnes - 5, 5, 9, 13}}));
    }
    EXPECT_EQ(Decode(Ended(NtfsRunBytes(1, 5, 1, 1)), AllOnes - 5).result, NtfsOk);
}

TEST(DRFileRecordRuns, RefusesAListThatLeavesItsBuffer) {
    const std::string whole = NtfsRunBytes(1, 4, 1, 9) + NtfsRunBytes(2, 300, 3, 70000);
    for (size_t size = 0; size <= whole.size(); ++size) {
        SCOPED_TRACE(size);
        const Decoded_t decoded = DecodeBounded(whole.substr(0, size));
        EXPECT_EQ(decoded.result, NtfsRecordCorrupted);
        EXPECT_EQ(decoded.extents.size(), size < 3 ? 0U : size < whole.size() ? 1U : 2U);
    }
    EXPECT_EQ(DecodeBounded(Ended(whole)).result, NtfsOk);
}

TEST(DRFileRecordRuns, ReadsNothingBehindTheEnd) {
    const Decoded_t decoded = DecodeBounded(NtfsRunList({{9, 4}}) + "\x91\x91");
    EXPECT_EQ(decoded.result, NtfsOk);
    EXPECT_EQ(decoded.extents.size(), 1U);
}

TEST(DRFileRecordRuns, DecodesThousandsOfRuns) {
    std::vector<NtfsRun_t> runs;
    for (uint64_t index = 0; index < 20000; ++index)
        runs.push_back({1000000 + index * 7 % 5000, 1});
    const Decoded_t decoded = Decode(NtfsRunList(runs));
    ASSERT_EQ(decoded.result, NtfsOk);
    ASSERT_EQ(decoded.extents.size(), runs.size());
    for (size_t index = 0; index < runs.size(); ++index)
        ASSERT_EQ(decoded.extents[index], (Extent_t{index + 1, 1, *runs[index].lcn, *runs[index].lcn})) << index;
}

TEST(DRFileRecordRuns, SegmentsAreJoinedByCopyingTheirEntries) {
    const std::vector<Extent_t> first = Decode(NtfsRunList({{10, 2}, {20, 3}})).extents;
    const std::vector<Extent_t> second = Decode(NtfsRunList({{30, 4}}), 5).extents;
    EXPECT_EQ(first.back().nextVcn, 5U);
    EXPECT_EQ(second.front(), (Extent_t{9, 4, 30, 33}));
}
