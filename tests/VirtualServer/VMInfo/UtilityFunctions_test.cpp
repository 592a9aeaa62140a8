#include "VirtualServer/VMInfo/UtilityFunctions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/TempDir.h"

namespace {

constexpr uint32_t Limit = 0x100000;
constexpr int ForBoth = 0x8082;
const GUID ZeroGuid{};
const GUID SomeGuid{0x01234567, 0x89AB, 0xCDEF, {0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10}};

class PositionalTransfer : public testing::Test {
protected:
    CZuFile Opened(const std::string& bytes) const {
        CZuFile file;
        EXPECT_OK(file.Open(m_Dir.Write("file", bytes).c_str(), ForBoth, 0));
        return file;
    }

    const CTempDir m_Dir;
};

int64_t Position(CZuFile& file) {
    int64_t position = -1;
    EXPECT_OK(file.Seek(0, 1, &position));
    return position;
}

bool Shows(const CZuError& error, const char* piece) {
    return std::strstr(error.ConvertToString(), piece) != nullptr;
}

// What `ParseGuidText` makes of a text that lies in memory of exactly its own length.
int Parse(const std::string& text, GUID& guid) {
    const std::vector<char> exact(text.c_str(), text.c_str() + text.size() + 1);
    return ParseGuidText(exact.data(), &guid);
}

}  // namespace

TEST_F(PositionalTransfer, ReadFileAtReadsWhatItIsAskedFor) {
    CZuFile file = Opened("0123456789");
    const struct {
        const char* name;
        uint64_t offset;
        int whence;
        unsigned int size;
        const char* bytes;
    } rows[] = {
        {"from the start", 0, 0, 10, "0123456789"},
        {"in the middle", 3, 0, 4, "3456"},
        {"the last byte", 9, 0, 1, "9"},
        {"from the end", static_cast<uint64_t>(-4), 2, 3, "678"},
        {"from the position", 1, 1, 1, "5"},
        {"back from the position", static_cast<uint64_t>(-2), 1, 2, "23"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_OK(file.Seek(4, 0, nullptr));
        char bytes[16] = {};
        unsigned int got = 99;
        EXPECT_OK(ReadFileAt(file, row.offset, row.whence, bytes, row.size, &got));
        EXPECT_EQ(got, row.size);
        EXPECT_EQ(std::string(bytes, sizeof(bytes)), row.bytes + std::string(sizeof(bytes) - row.size, '\0'));
    }
}

TEST_F(PositionalTransfer, TheCountMayBeLeftOut) {
    CZuFile file = Opened("0123456789");
    char bytes[4] = {};
    EXPECT_OK(ReadFileAt(file, 2, 0, bytes, 4, nullptr));
    EXPECT_EQ(std::string(bytes, 4), "2345");
    EXPECT_OK(WriteFileAt(file, 8, 0, "abcd", 4, nullptr));
    EXPECT_EQ(m_Dir.Read("file"), "01234567abcd");
    EXPECT_FAILURE(ReadFileAt(file, 99, 0, bytes, 4, nullptr));
}

TEST_F(PositionalTransfer, NothingToMoveOnlySeeks) {
    CZuFile file = Opened("0123456789");
    CFaultyFiles counted;
    unsigned int count = 99;
    EXPECT_OK(ReadFileAt(file, 7, 0, nullptr, 0, &count));
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(Position(file), 7);
    count = 99;
    EXPECT_OK(WriteFileAt(file, 5000, 0, nullptr, 0, &count));
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(Position(file), 5000);
    EXPECT_EQ(counted.Calls(FaultOp::Read) + counted.Calls(FaultOp::Write), 0U);
    EXPECT_EQ(m_Dir.Read("file").size(), 10U);
}

TEST_F(PositionalTransfer, ReadsGoInChunksOfTheLimit) {
    const std::string bytes = PatternedBytes(3 * Limit + 5);
    const struct {
        unsigned int size;
        std::vector<uint32_t> reads;
    } rows[] = {
        {1, {1}},
        {Limit - 1, {Limit - 1}},
        {Limit, {Limit}},
        {Limit + 1, {Limit, 1}},
        {3 * Limit, {Limit, Limit, Limit}},
        {3 * Limit + 5, {Limit, Limit, Limit, 5}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.size);
        CZuFile file = Opened(bytes);
        const CFaultyFiles counted;
        std::string target(row.size, '\0');
        unsigned int got = 0;
        EXPECT_OK(ReadFileAt(file, 0, 0, target.data(), row.size, &got));
        EXPECT_EQ(got, row.size) << "the total";
        EXPECT_EQ(counted.Sizes(FaultOp::Read), row.reads);
        EXPECT_EQ(counted.Calls(FaultOp::Seek), 1U);
        EXPECT_TRUE(bytes.compare(0, row.size, target) == 0);
    }
}

TEST_F(PositionalTransfer, WritesGoInChunksOfTheLimitAndCountTheLastOne) {
    const std::string bytes = PatternedBytes(3 * Limit + 5);
    const struct {
        unsigned int size;
        std::vector<uint32_t> writes;
        unsigned int put;
    } rows[] = {
        {1, {1}, 1},
        {Limit, {Limit}, Limit},
        {Limit + 1, {Limit, 1}, 1},
        {3 * Limit, {Limit, Limit, Limit}, Limit},
        {3 * Limit + 5, {Limit, Limit, Limit, 5}, 5},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.size);
        CZuFile file = Opened("");
        const CFaultyFiles counted;
        unsigned int put = 0;
        EXPECT_OK(WriteFileAt(file, 0, 0, bytes.data(), row.size, &put));
        EXPECT_EQ(put, row.put) << "of the last write, not the total";
        EXPECT_EQ(counted.Sizes(FaultOp::Write), row.writes);
        EXPECT_EQ(counted.Calls(FaultOp::Seek), 1U);
        EXPECT_TRUE(m_Dir.Read("file") == bytes.substr(0, row.size));
    }
}

TEST_F(PositionalTransfer, ShortTransfersAreContinuedWhereTheyEnded) {
    const std::string bytes = PatternedBytes(1000);
    CZuFile file = Opened(bytes);
    CFaultyFiles faulty;
    faulty.LimitTransfers(FaultOp::Read, 300);
    faulty.LimitTransfers(FaultOp::Write, 300);
    std::string target(1000, '\0');
    unsigned int count = 0;
    EXPECT_OK(ReadFileAt(file, 0, 0, target.data(), 1000, &count));
    EXPECT_EQ(target, bytes);
    EXPECT_EQ(count, 1000U);
    EXPECT_EQ(faulty.Sizes(FaultOp::Read), (std::vector<uint32_t>{1000, 700, 400, 100}));

    const std::string other = PatternedBytes(1000, 2);
    EXPECT_OK(WriteFileAt(file, 0, 0, other.data(), 1000, &count));
    EXPECT_EQ(m_Dir.Read("file"), other);
    EXPECT_EQ(count, 100U);
    EXPECT_EQ(faulty.Sizes(FaultOp::Write), (std::vector<uint32_t>{1000, 700, 400, 100}));
}

TEST_F(PositionalTransfer, AFileThatEndsTooSoonIsAFailureAndCountsNothing) {
    CZuFile file = Opened("0123456789");
    const struct {
        uint64_t offset;
        unsigned int size;
    } rows[] = {{0, 11}, {9, 2}, {10, 1}, {5000, 1}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.offset);
        char bytes[16] = {};
        unsigned int got = 99;
        const CZuError error = ReadFileAt(file, row.offset, 0, bytes, row.size, &got);
        EXPECT_EQ(error.GetErrorType(), 4U) << error.ConvertToString();
        EXPECT_EQ(error.GetModuleId(), 1U);
        EXPECT_EQ(error.GetErrorCode(), 0U);
        EXPECT_TRUE(Shows(error, "ReadFileAt")) << error.ConvertToString();
        EXPECT_EQ(got, 0U);
    }
}

TEST_F(PositionalTransfer, EveryFailureOfAReadReachesTheCaller) {
    CZuFile file = Opened(PatternedBytes(2 * Limit + 1));
    std::string target(2 * Limit + 1, '\0');
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Read}) {
        unsigned int failAt = 0;
        for (;; ++failAt) {
            const CFaultyFiles faulty(Fault_t{op, failAt, EIO});
            unsigned int got = 99;
            const CZuError error = ReadFileAt(file, 0, 0, target.data(), 2 * Limit + 1, &got);
            if (!faulty.Fired())
                break;
            EXPECT_SYSTEM_ERROR(error, EIO);
            EXPECT_TRUE(Shows(error, "ReadFileAt")) << error.ConvertToString();
            EXPECT_EQ(got, 0U) << "call " << failAt;
        }
        EXPECT_EQ(failAt, op == FaultOp::Seek ? 1U : 3U);
    }
}

TEST_F(PositionalTransfer, EveryFailureOfAWriteReachesTheCaller) {
    CZuFile file = Opened("");
    const std::string bytes(2 * Limit + 1, 'x');
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Write}) {
        unsigned int failAt = 0;
        for (;; ++failAt) {
            const CFaultyFiles faulty(Fault_t{op, failAt, ENOSPC});
            unsigned int put = 99;
            const CZuError error = WriteFileAt(file, 0, 0, bytes.data(), 2 * Limit + 1, &put);
            if (!faulty.Fired())
                break;
            EXPECT_SYSTEM_ERROR(error, ENOSPC);
            EXPECT_TRUE(Shows(error, "WriteFileAt")) << error.ConvertToString();
            EXPECT_EQ(put, 0U) << "call " << failAt;
        }
        EXPECT_EQ(failAt, op == FaultOp::Seek ? 1U : 3U);
    }
}

TEST_F(PositionalTransfer, AFailedSeekMovesNothing) {
    CZuFile file = Opened("0123456789");
    const CFaultyFiles faulty(Fault_t{FaultOp::Seek, 0, EIO});
    char bytes[4] = {'a', 'b', 'c', 'd'};
    EXPECT_SYSTEM_ERROR(ReadFileAt(file, 0, 0, bytes, 4, nullptr), EIO);
    EXPECT_EQ(std::string(bytes, 4), "abcd");
    EXPECT_EQ(faulty.Calls(FaultOp::Read), 0U);
}

TEST_F(PositionalTransfer, ATransferOfNothingEndsTheLoop) {
    CZuFile file = Opened("0123456789");
    CFaultyFiles faulty;
    faulty.ShortenTransfer(FaultOp::Read, 1, 0);
    faulty.ShortenTransfer(FaultOp::Read, 0, 3);
    faulty.ShortenTransfer(FaultOp::Write, 0, 0);
    char bytes[10] = {};
    unsigned int count = 99;
    EXPECT_EQ(ReadFileAt(file, 0, 0, bytes, 10, &count).GetErrorType(), 4U);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(faulty.Calls(FaultOp::Read), 2U);
    EXPECT_EQ(WriteFileAt(file, 0, 0, bytes, 10, &count).GetErrorType(), 4U);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(faulty.Calls(FaultOp::Write), 1U);
}

TEST_F(PositionalTransfer, OffsetsFrom2To63OnFailInTheSeek) {
    CZuFile file = Opened("0123456789");
    char bytes[4] = {};
    for (const uint64_t offset : {uint64_t{1} << 63U, (uint64_t{1} << 63U) + 512, ~uint64_t{0}, ~uint64_t{0} - 511}) {
        SCOPED_TRACE(offset);
        const CFaultyFiles counted;
        unsigned int count = 99;
        EXPECT_SYSTEM_ERROR(ReadFileAt(file, offset, 0, bytes, 4, &count), EINVAL);
        EXPECT_EQ(count, 0U);
        EXPECT_SYSTEM_ERROR(WriteFileAt(file, offset, 0, bytes, 4, nullptr), EINVAL);
        EXPECT_EQ(counted.Calls(FaultOp::Read) + counted.Calls(FaultOp::Write), 0U);
    }
    EXPECT_EQ(m_Dir.Read("file"), "0123456789");
}

TEST_F(PositionalTransfer, AClosedFileIsTheSystemsError) {
    CZuFile closed;
    char byte = 0;
    EXPECT_SYSTEM_ERROR(ReadFileAt(closed, 0, 0, &byte, 1, nullptr), EBADF);
    EXPECT_SYSTEM_ERROR(ReadFileAt(closed, 0, 0, &byte, 0, nullptr), EBADF);
    EXPECT_SYSTEM_ERROR(WriteFileAt(closed, 0, 0, &byte, 1, nullptr), EBADF);
}

TEST_F(PositionalTransfer, WritingBehindTheEndLeavesZerosBetween) {
    CZuFile file = Opened("ab");
    unsigned int put = 0;
    EXPECT_OK(WriteFileAt(file, 4, 0, "cd", 2, &put));
    EXPECT_EQ(put, 2U);
    EXPECT_EQ(m_Dir.Read("file"), std::string("ab\0\0cd", 6));
}

TEST(ByteSwap, ReversesTheBytes) {
    EXPECT_EQ(ByteSwap16(0x0102), 0x0201);
    EXPECT_EQ(ByteSwap16(0x00FF), 0xFF00);
    EXPECT_EQ(ByteSwap32(0x01020304), 0x04030201U);
    EXPECT_EQ(ByteSwap32(0xF0000000), 0xF0U);
    EXPECT_EQ(ByteSwap64(0x0102030405060708), 0x0807060504030201U);
    EXPECT_EQ(ByteSwap64(0x00000000000000FF), 0xFF00000000000000U);
    EXPECT_EQ(ByteSwap64(0xFF000000), 0x000000FF00000000U);
    EXPECT_EQ(ByteSwap64(ByteSwap64(0x8182838485868788)), 0x8182838485868788U);
}

TEST(HexPairToByte, IsTheValueOfEveryPairOfDigitsAndMinusOneForAllElse) {
    const std::string digits = "0123456789abcdef";
    const std::string upper = "0123456789ABCDEF";
    const auto value = [&](unsigned int character) {
        const char text = static_cast<char>(character);
        const size_t found = text != '\0' ? std::min(digits.find(text), upper.find(text)) : std::string::npos;
        return found != std::string::npos ? static_cast<int>(found) : -1;
    };
    for (unsigned int high = 0; high < 256; ++high) {
        for (unsigned int low = 0; low < 256; ++low) {
            const char pair[] = {static_cast<char>(high), static_cast<char>(low)};
            const bool isPair = value(high) >= 0 && value(low) >= 0;
            ASSERT_EQ(HexPairToByte(pair), isPair ? value(high) * 16 + value(low) : -1) << high << " " << low;
        }
    }
}

TEST(HexPairToByte, LooksAtNothingBehindTheTextsEnd) {
    const std::vector<char> empty{'\0'};
    EXPECT_EQ(HexPairToByte(empty.data()), -1);
    const std::vector<char> one{'a', '\0'};
    EXPECT_EQ(HexPairToByte(one.data()), -1);
}

TEST(GuidText, IsReadWithAndWithoutBracesInEitherCase) {
    for (const char* const text :
         {"01234567-89AB-CDEF-FEDC-BA9876543210", "{01234567-89AB-CDEF-FEDC-BA9876543210}",
          "01234567-89ab-cdef-fedc-ba9876543210", "{01234567-89ab-cdef-fedc-ba9876543210}",
          "01234567-89aB-CdEf-fEDc-bA9876543210", "01234567-89AB-CDEF-FEDC-BA9876543210 and what follows",
          "01234567-89AB-CDEF-FEDC-BA9876543210}", "{01234567-89AB-CDEF-FEDC-BA9876543210} and what follows"}) {
        GUID guid = ZeroGuid;
        EXPECT_EQ(Parse(text, guid), 1) << text;
        EXPECT_TRUE(guid == SomeGuid) << text;
    }
}

TEST(GuidText, EveryBadFormGivesZeroAndAZeroGuid) {
    const std::string good = "01234567-89AB-CDEF-FEDC-BA9876543210";
    std::vector<std::string> bad = {
        "",
        "{",
        "}",
        "{}",
        "-",
        "{" + good,
        "{" + good + ")",
        "{" + good + " }",
        "{{" + good + "}}",
        " " + good,
        "(" + good + ")",
        good.substr(0, 35),
        "{" + good.substr(0, 35) + "}",
        "{" + good.substr(0, 35),
    };
    for (size_t length = 0; length < good.size(); ++length)
        bad.push_back(good.substr(0, length));
    for (const std::string& text : bad) {
        GUID guid = SomeGuid;
        EXPECT_EQ(Parse(text, guid), 0) << text;
        EXPECT_TRUE(guid == ZeroGuid) << text;
    }
}

TEST(GuidText, EveryOneOfItsCharactersIsTested) {
    const std::string good = "01234567-89AB-CDEF-FEDC-BA9876543210";
    for (size_t at = 0; at < good.size(); ++at) {
        for (const char wrong : {'g', '/', ':', '@', 'G', '`', ' ', '+', '.', '\x80', '\0'}) {
            std::string text = good;
            text[at] = wrong;
            GUID guid = SomeGuid;
            EXPECT_EQ(Parse(text, guid), 0) << text;
            EXPECT_TRUE(guid == ZeroGuid) << text;
            EXPECT_EQ(Parse("{" + text + "}", guid), 0) << text;
        }
        std::string text = good;
        text[at] = good[at] == '-' ? '0' : '-';
        GUID guid = SomeGuid;
        EXPECT_EQ(Parse(text, guid), 0) << text;
    }
}

TEST(GuidText, NullIsNoGuid) {
    GUID guid = SomeGuid;
    EXPECT_EQ(ParseGuidText(nullptr, &guid), 0);
    EXPECT_TRUE(guid == ZeroGuid);
}

TEST(GuidText, IsWrittenInBracesAndUpperCase) {
    EXPECT_STREQ(FormatGuidText(SomeGuid).c_str(), "{01234567-89AB-CDEF-FEDC-BA9876543210}");
    EXPECT_STREQ(FormatGuidText(ZeroGuid).c_str(), "{00000000-0000-0000-0000-000000000000}");
    EXPECT_STREQ(FormatGuidText(GUID{0xA, 0xB, 0xC, {1, 2, 3, 4, 5, 6, 7, 0xFF}}).c_str(),
                 "{0000000A-000B-000C-0102-0304050607FF}");
}

TEST(GuidText, WhatIsReadIsWrittenBackInUpperCaseWithBraces) {
    GUID guid{};
    EXPECT_EQ(ParseGuidText("fedcba98-7654-3210-0123-456789abcdef", &guid), 1);
    EXPECT_EQ(guid.Data1, 0xFEDCBA98U);
    EXPECT_EQ(guid.Data2, 0x7654U);
    EXPECT_EQ(guid.Data3, 0x3210U);
    EXPECT_EQ(std::memcmp(guid.Data4, "\x01\x23\x45\x67\x89\xab\xcd\xef", 8), 0);
    EXPECT_STREQ(FormatGuidText(guid).c_str(), "{FEDCBA98-7654-3210-0123-456789ABCDEF}");
}

TEST(ComputeCHS, CountsABegunCylinder) {
    const struct {
        uint64_t totalSectors;
        unsigned int cylinders;
    } rows[] = {
        {0, 0},     {1, 1},     {16064, 1}, {16065, 1},
        {16066, 2}, {32130, 2}, {32131, 3}, {uint64_t{16065} * 0xFFFFFFFF, 0xFFFFFFFF},
    };
    for (const auto& row : rows) {
        unsigned int cylinders = 1;
        unsigned int heads = 0;
        unsigned int sectors = 0;
        ComputeCHS(row.totalSectors, &cylinders, &heads, &sectors);
        EXPECT_EQ(cylinders, row.cylinders) << row.totalSectors;
        EXPECT_EQ(heads, 255U);
        EXPECT_EQ(sectors, 63U);
    }
}

TEST(SplitFileName, ThePathItselfMayTakeTheDirectory) {
    std::string path = "folder\\file.txt";
    EXPECT_EQ(SplitFileName(path, &path), "file.txt");
    EXPECT_EQ(path, "folder");
}

TEST(SplitFileName, CutsAtTheLastBackslash) {
    const struct {
        const char* path;
        const char* name;
        const char* directory;
    } rows[] = {
        {"one\\two\\disk.vmdk", "disk.vmdk", "one\\two"},
        {"C:\\disk.vmdk", "disk.vmdk", "C:"},
        {"\\disk.vmdk", "disk.vmdk", ""},
        {"folder\\", "", "folder"},
        {"\\", "", ""},
        {"/one\\two/disk.vmdk", "two/disk.vmdk", "/one"},
        {"one\\\\disk.vmdk", "disk.vmdk", "one\\"},
        {"disk.vmdk", "disk.vmdk", "untouched"},
        {"one/disk.vmdk", "one/disk.vmdk", "untouched"},
        {"", "", "untouched"},
    };
    for (const auto& row : rows) {
        std::string directory = "untouched";
        EXPECT_EQ(SplitFileName(row.path, &directory), row.name) << row.path;
        EXPECT_EQ(directory, row.directory) << row.path;
        EXPECT_EQ(SplitFileName(row.path, nullptr), row.name) << row.path;
    }
}
