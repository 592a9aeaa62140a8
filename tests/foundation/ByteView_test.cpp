#include "foundation/detail/ByteView.h"

#include <gtest/gtest.h>

#include <string>

namespace {
constexpr char Bytes[] = "0123456789";
const CByteView View(Bytes, 10);
constexpr uint64_t Most = ~uint64_t{0};
}  // namespace

TEST(ByteView, HoldsWhatLiesWhollyInside) {
    const struct {
        uint64_t offset;
        uint64_t size;
        bool holds;
    } rows[] = {
        {0, 0, true},     {0, 10, true},    {0, 11, false},      {9, 1, true},         {9, 2, false},
        {10, 0, true},    {10, 1, false},   {11, 0, false},      {Most, 0, false},     {Most, 1, false},
        {1, Most, false}, {0, Most, false}, {Most, Most, false}, {5, Most - 4, false},
    };
    for (const auto& row : rows)
        EXPECT_EQ(View.Holds(row.offset, row.size), row.holds) << row.offset << " " << row.size;
}

TEST(ByteView, GetCopiesARecordOrLeavesItAlone) {
    struct Record_t {
        char bytes[4];
    };
    Record_t record{{'a', 'b', 'c', 'd'}};
    EXPECT_FALSE(View.Get(7, record));
    EXPECT_FALSE(View.Get(Most - 2, record));
    EXPECT_EQ(std::string(record.bytes, 4), "abcd");
    EXPECT_TRUE(View.Get(6, record));
    EXPECT_EQ(std::string(record.bytes, 4), "6789");
}

TEST(ByteView, CopyOutOfNothingTouchesNothing) {
    EXPECT_TRUE(View.CopyOut(10, nullptr, 0));
    EXPECT_TRUE(CByteView().CopyOut(0, nullptr, 0));
    EXPECT_FALSE(CByteView().CopyOut(0, nullptr, 1));
}

TEST(ByteView, FromIsTheRestAndNothingBehindTheEnd) {
    EXPECT_EQ(View.From(0).Size(), 10U);
    EXPECT_EQ(View.From(4).Size(), 6U);
    EXPECT_EQ(View.From(4).Data(), Bytes + 4);
    EXPECT_EQ(View.From(10).Size(), 0U);
    EXPECT_EQ(View.From(11).Size(), 0U);
    EXPECT_EQ(View.From(Most).Size(), 0U);
}

TEST(ByteView, NullHasNoBytesWhateverItsSizeSays) {
    EXPECT_EQ(CByteView(nullptr, 5).Size(), 0U);
    EXPECT_FALSE(CByteView(nullptr, 5).Holds(0, 1));
}

TEST(ByteReader, TakesPiecesOneBehindTheOther) {
    CByteReader reader(View);
    char piece[16] = {};
    EXPECT_TRUE(reader.Take(piece, 3));
    EXPECT_EQ(std::string(piece, 3), "012");
    EXPECT_TRUE(reader.Take(piece, 0));
    EXPECT_FALSE(reader.Take(piece, 8)) << "one more than is left";
    EXPECT_FALSE(reader.Take(piece, Most));
    EXPECT_EQ(reader.Rest().Size(), 7U) << "a failure takes nothing";
    EXPECT_TRUE(reader.Take(piece, 7));
    EXPECT_EQ(std::string(piece, 7), "3456789");
    EXPECT_EQ(reader.Rest().Size(), 0U);
    EXPECT_FALSE(reader.Take(piece, 1));
    EXPECT_TRUE(reader.Take(piece, 0));
}

TEST(ByteReader, PassesOverPieces) {
    CByteReader reader(View);
    char piece[4] = {};
    EXPECT_TRUE(reader.Skip(3));
    EXPECT_TRUE(reader.Take(piece, 2));
    EXPECT_EQ(std::string(piece, 2), "34");
    EXPECT_TRUE(reader.Skip(0));
    EXPECT_FALSE(reader.Skip(6)) << "one more than is left";
    EXPECT_FALSE(reader.Skip(Most));
    EXPECT_EQ(reader.Rest().Size(), 5U) << "a failure passes nothing";
    EXPECT_EQ(reader.Rest().Data(), Bytes + 5);
    EXPECT_TRUE(reader.Skip(5));
    EXPECT_EQ(reader.Rest().Size(), 0U);
    EXPECT_FALSE(reader.Skip(1));
    EXPECT_TRUE(reader.Skip(0));
}

TEST(ByteReader, HasNothingToPassInAnEmptyView) {
    CByteReader reader{CByteView()};
    EXPECT_TRUE(reader.Skip(0));
    EXPECT_FALSE(reader.Skip(1));
}
