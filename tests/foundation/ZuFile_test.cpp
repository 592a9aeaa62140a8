#include "foundation/ZuFile.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <string>

#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/TempDir.h"

namespace {

constexpr int ForReading = 0x8080;
constexpr int ForBoth = 0x8082;
constexpr int OwnerReadsAndWrites = 384;

class ZuFile : public testing::Test {
protected:
    // Opens a file of these bytes for reading and writing.
    CZuFile Opened(const std::string& bytes) const {
        CZuFile file;
        EXPECT_OK(file.Open(m_Dir.Write("file", bytes).c_str(), ForBoth, 0));
        return file;
    }

    const CTempDir m_Dir;
};

std::string ReadText(CZuFile& file, unsigned int size) {
    std::string text(size, '\0');
    unsigned int got = 0;
    EXPECT_OK(file.Read(text.data(), size, &got));
    return text.substr(0, got);
}

void WriteText(CZuFile& file, const std::string& text) {
    unsigned int put = 0;
    EXPECT_OK(file.Write(text.data(), static_cast<unsigned int>(text.size()), &put));
    EXPECT_EQ(put, text.size());
}

int64_t Position(CZuFile& file) {
    int64_t position = -1;
    EXPECT_OK(file.Seek(0, 1, &position));
    return position;
}

// A failure worded for people whose text says that the file has ended.
void ExpectEndOfFile(const CZuError& error) {
    EXPECT_EQ(error.GetErrorType(), 4U) << error.ConvertToString();
    EXPECT_EQ(error.GetModuleId(), 1U);
    EXPECT_EQ(error.GetErrorCode(), 0U);
    ASSERT_NE(error.GetErrorText(), nullptr);
    EXPECT_NE(std::string(error.GetErrorText()).find("end of file"), std::string::npos) << error.GetErrorText();
}

}  // namespace

TEST_F(ZuFile, IsNotValidAtFirst) {
    const CZuFile file;
    EXPECT_FALSE(file.IsValid());
    EXPECT_EQ(file.GetFD(), -1);
    EXPECT_STREQ(file.GetName(), "");
}

TEST_F(ZuFile, EveryOperationOfAClosedFileFailsWithTheSystemsError) {
    CZuFile file;
    char byte = 'x';
    unsigned int count = 9;
    int64_t position = 9;
    uint64_t size = 9;
    EXPECT_SYSTEM_ERROR(file.Read(&byte, 1, &count), EBADF);
    EXPECT_EQ(count, 0U);
    EXPECT_SYSTEM_ERROR(file.Write(&byte, 1, &count), EBADF);
    EXPECT_EQ(count, 0U);
    EXPECT_SYSTEM_ERROR(file.Seek(0, 0, &position), EBADF);
    EXPECT_EQ(position, 9);
    EXPECT_SYSTEM_ERROR(file.Size(size), EBADF);
    EXPECT_SYSTEM_ERROR(file.Truncate(0), EBADF);
    EXPECT_SYSTEM_ERROR(file.Sync(), EBADF);
    EXPECT_OK(file.Close());
}

TEST_F(ZuFile, AnOpenFileKnowsItsName) {
    const std::string path = m_Dir.Write("file", "abc");
    CZuFile file;
    EXPECT_OK(file.Open(path.c_str(), ForReading, 0));
    EXPECT_TRUE(file.IsValid());
    EXPECT_GE(file.GetFD(), 0);
    EXPECT_EQ(file.GetName(), path);
}

TEST_F(ZuFile, AFileThatIsNotThereIsTheSystemsError) {
    CZuFile file;
    EXPECT_SYSTEM_ERROR(file.Open(m_Dir.File("none").c_str(), ForReading, 0), ENOENT);
    EXPECT_FALSE(file.IsValid());
    EXPECT_SYSTEM_ERROR(file.Open(m_Dir.File("none").c_str(), ForBoth, 0), ENOENT);
    EXPECT_SYSTEM_ERROR(file.Open(nullptr, ForReading, 0), EINVAL);
    EXPECT_SYSTEM_ERROR(file.Open("", ForReading, 0), ENOENT);
    EXPECT_TRUE(m_Dir.Entries().empty());
}

// What each set of flags in use does with a file of "old" and with a name that isn't there.
TEST_F(ZuFile, TheOpenFlagsDoWhatTheySay) {
    const struct {
        int flags;
        bool creates;
        bool reads;
        bool writes;
        const char* oldBytes;  // what an existing file holds right after
    } rows[] = {
        {0x8080, false, true, false, "old"}, {0x8090, false, true, false, "old"}, {0x8082, false, true, true, "old"},
        {0x8182, true, true, true, "old"},   {0x8381, true, false, true, ""},     {0x8382, true, true, true, ""},
        {0x4080, false, true, false, "old"}, {0x0102, true, true, true, "old"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.flags);
        CZuFile missing;
        const CZuError error = missing.Open(m_Dir.File("new-" + std::to_string(row.flags)).c_str(), row.flags, 384);
        EXPECT_EQ(error.IsErrorSet(), !row.creates) << error.ConvertToString();

        const std::string path = m_Dir.Write("old", "old");
        CZuFile file;
        ASSERT_OK(file.Open(path.c_str(), row.flags, OwnerReadsAndWrites));
        EXPECT_EQ(m_Dir.Read("old"), row.oldBytes);
        EXPECT_EQ(Position(file), 0);
        const CZuError written = file.Write("n", 1, nullptr);
        EXPECT_EQ(written.IsErrorSet(), !row.writes) << written.ConvertToString();
        EXPECT_OK(file.Seek(0, 0, nullptr));
        char byte = 0;
        unsigned int got = 0;
        const bool holdsBytes = row.writes || *row.oldBytes != '\0';
        const CZuError read = file.Read(&byte, 1, &got);
        EXPECT_EQ(read.IsErrorSet(), !row.reads || !holdsBytes) << read.ConvertToString();
    }
}

TEST_F(ZuFile, ATextFileGivesItsBytesAsTheyStand) {
    const std::string bytes("a\r\nb\n\x1a\0c", 8);
    const std::string path = m_Dir.Write("text", bytes);
    for (const int flags : {0x4080, 0x8080, 0x0080}) {
        SCOPED_TRACE(flags);
        CZuFile file;
        ASSERT_OK(file.Open(path.c_str(), flags, 0));
        EXPECT_EQ(ReadText(file, 100), bytes);
    }
}

TEST_F(ZuFile, WhatIsWrittenComesBackAsItStands) {
    const std::string bytes("a\r\nb\n\x1a\0c", 8);
    for (const int flags : {0x8382, 0x0302, 0x4302}) {
        SCOPED_TRACE(flags);
        CZuFile file;
        ASSERT_OK(file.Open(m_Dir.File("written").c_str(), flags, OwnerReadsAndWrites));
        WriteText(file, bytes);
        EXPECT_OK(file.Close());
        EXPECT_EQ(m_Dir.Read("written"), bytes);
    }
}

TEST_F(ZuFile, OpeningLetsGoOfWhatWasOpen) {
    CZuFile file = Opened("first");
    CFaultyFiles counted;
    EXPECT_OK(file.Open(m_Dir.Write("second", "second").c_str(), ForReading, 0));
    EXPECT_EQ(counted.Calls(FaultOp::Close), 1U);
    EXPECT_EQ(ReadText(file, 10), "second");
}

TEST_F(ZuFile, AnOpenThatFailsLeavesTheObjectClosed) {
    CZuFile file = Opened("first");
    EXPECT_SYSTEM_ERROR(file.Open(m_Dir.File("none").c_str(), ForReading, 0), ENOENT);
    EXPECT_FALSE(file.IsValid());
    file = Opened("first");
    EXPECT_SYSTEM_ERROR(file.Open(nullptr, ForReading, 0), EINVAL);
    EXPECT_FALSE(file.IsValid());
}

TEST_F(ZuFile, AClosedFileCanBeOpenedAgain) {
    CZuFile file = Opened("abc");
    EXPECT_OK(file.Close());
    EXPECT_FALSE(file.IsValid());
    EXPECT_EQ(file.GetFD(), -1);
    EXPECT_OK(file.Close());
    EXPECT_OK(file.Open(m_Dir.File("file").c_str(), ForReading, 0));
    EXPECT_EQ(ReadText(file, 3), "abc");
}

TEST_F(ZuFile, CopiesShareTheFileAndItsPosition) {
    CZuFile file = Opened("abcdef");
    CZuFile copy(file);
    CZuFile assigned;
    assigned = copy;
    EXPECT_EQ(ReadText(file, 2), "ab");
    EXPECT_EQ(ReadText(copy, 2), "cd");
    EXPECT_EQ(ReadText(assigned, 2), "ef");
    EXPECT_EQ(copy.GetFD(), file.GetFD());
    EXPECT_STREQ(copy.GetName(), file.GetName());
}

TEST_F(ZuFile, ClosingOneCopyClosesItForAll) {
    CZuFile file = Opened("abcdef");
    CZuFile copy(file);
    CFaultyFiles counted;
    EXPECT_OK(copy.Close());
    EXPECT_FALSE(file.IsValid());
    EXPECT_FALSE(copy.IsValid());
    char byte = 0;
    EXPECT_SYSTEM_ERROR(file.Read(&byte, 1, nullptr), EBADF);
    EXPECT_OK(file.Close());
    EXPECT_EQ(counted.Calls(FaultOp::Close), 1U) << "the descriptor may be another file's by now";
}

TEST_F(ZuFile, TheLastCopyClosesTheFile) {
    CFaultyFiles counted;
    {
        CZuFile last;
        {
            const CZuFile file = Opened("abcdef");
            last = file;
        }
        EXPECT_EQ(counted.Calls(FaultOp::Close), 0U);
        EXPECT_EQ(ReadText(last, 3), "abc");
    }
    EXPECT_EQ(counted.Calls(FaultOp::Close), 1U);
}

TEST_F(ZuFile, OpeningACopyAnewLeavesTheOthersTheirFile) {
    CZuFile file = Opened("abcdef");
    CZuFile copy(file);
    EXPECT_OK(copy.Open(m_Dir.Write("second", "second").c_str(), ForReading, 0));
    EXPECT_EQ(ReadText(file, 3), "abc");
    EXPECT_EQ(ReadText(copy, 3), "sec");
}

TEST_F(ZuFile, ReadGivesWhatIsThereAndThenFailsAtTheEnd) {
    CZuFile file = Opened("abcdef");
    char bytes[16] = {};
    unsigned int got = 0;
    EXPECT_OK(file.Read(bytes, 4, &got));
    EXPECT_EQ(got, 4U);
    EXPECT_OK(file.Read(bytes, sizeof(bytes), &got));
    EXPECT_EQ(got, 2U);
    EXPECT_EQ(std::string(bytes, 2), "ef");
    ExpectEndOfFile(file.Read(bytes, 1, &got));
    EXPECT_EQ(got, 0U);
    EXPECT_OK(file.Seek(1000, 0, nullptr));
    ExpectEndOfFile(file.Read(bytes, 1, &got));
}

TEST_F(ZuFile, ReadingAnEmptyFileIsItsEnd) {
    CZuFile file = Opened("");
    char byte = 0;
    ExpectEndOfFile(file.Read(&byte, 1, nullptr));
}

TEST_F(ZuFile, MovingNoBytesIsNoFailure) {
    CZuFile file = Opened("");
    unsigned int count = 9;
    EXPECT_OK(file.Read(nullptr, 0, &count));
    EXPECT_EQ(count, 0U);
    count = 9;
    EXPECT_OK(file.Write(nullptr, 0, &count));
    EXPECT_EQ(count, 0U);
}

TEST_F(ZuFile, CountsMayBeLeftOut) {
    CZuFile file = Opened("abcdef");
    char bytes[3] = {};
    EXPECT_OK(file.Write("xyz", 3, nullptr));
    EXPECT_OK(file.Read(bytes, 3, nullptr));
    EXPECT_EQ(std::string(bytes, 3), "def");
}

TEST_F(ZuFile, WriteThatTheSystemDoesNotTakeIsAFailure) {
    CZuFile file = Opened("");
    CFaultyFiles faulty;
    faulty.ShortenTransfer(FaultOp::Write, 0, 0);
    faulty.ShortenTransfer(FaultOp::Write, 1, 2);
    unsigned int put = 9;
    const CZuError error = file.Write("abc", 3, &put);
    EXPECT_EQ(error.GetErrorType(), 4U) << error.ConvertToString();
    EXPECT_EQ(put, 0U);
    EXPECT_OK(file.Write("abc", 3, &put));
    EXPECT_EQ(put, 2U) << "fewer bytes are the caller's affair";
    EXPECT_EQ(m_Dir.Read("file"), "ab");
}

TEST_F(ZuFile, SeekCountsFromTheStartThePositionAndTheEnd) {
    CZuFile file = Opened("abcdef");
    const struct {
        int64_t offset;
        int whence;
        int64_t position;
    } rows[] = {{4, 0, 4}, {-3, 1, 1}, {2, 1, 3}, {-2, 2, 4}, {0, 2, 6}, {10, 2, 16}, {0, 1, 16}, {0, 0, 0}};
    for (const auto& row : rows) {
        int64_t position = -1;
        EXPECT_OK(file.Seek(row.offset, row.whence, &position));
        EXPECT_EQ(position, row.position) << row.offset << " from " << row.whence;
    }
    EXPECT_OK(file.Seek(5, 0, nullptr));
    EXPECT_EQ(ReadText(file, 9), "f");
}

TEST_F(ZuFile, SeekBeforeTheStartFailsAndLeavesThePosition) {
    CZuFile file = Opened("abcdef");
    EXPECT_OK(file.Seek(3, 0, nullptr));
    int64_t position = 99;
    EXPECT_SYSTEM_ERROR(file.Seek(-1, 0, &position), EINVAL);
    EXPECT_SYSTEM_ERROR(file.Seek(-4, 1, &position), EINVAL);
    EXPECT_SYSTEM_ERROR(file.Seek(-7, 2, &position), EINVAL);
    EXPECT_SYSTEM_ERROR(file.Seek(std::numeric_limits<int64_t>::min(), 0, &position), EINVAL);
    EXPECT_EQ(position, 99);
    EXPECT_EQ(Position(file), 3);
}

TEST_F(ZuFile, PositionsReachBeyond4GiB) {
    CZuFile file = Opened("");
    constexpr int64_t far = (int64_t{5} << 30U) + 1;
    ASSERT_OK(file.Truncate(far + 3));
    int64_t position = 0;
    EXPECT_OK(file.Seek(far, 0, &position));
    EXPECT_EQ(position, far);
    WriteText(file, "abc");
    uint64_t size = 0;
    EXPECT_OK(file.Size(size));
    EXPECT_EQ(size, static_cast<uint64_t>(far) + 3);
    EXPECT_OK(file.Seek(-3, 2, nullptr));
    EXPECT_EQ(ReadText(file, 3), "abc");
}

TEST_F(ZuFile, SizeIsInBytesAndLeavesThePosition) {
    CZuFile file = Opened("abcdef");
    EXPECT_OK(file.Seek(2, 0, nullptr));
    uint64_t size = 0;
    EXPECT_OK(file.Size(size));
    EXPECT_EQ(size, 6U);
    EXPECT_EQ(Position(file), 2);
}

TEST_F(ZuFile, TruncateSetsTheLengthBothWays) {
    CZuFile file = Opened("abcdef");
    EXPECT_OK(file.Seek(5, 0, nullptr));
    EXPECT_OK(file.Truncate(3));
    EXPECT_EQ(m_Dir.Read("file"), "abc");
    EXPECT_OK(file.Truncate(5));
    EXPECT_EQ(m_Dir.Read("file"), std::string("abc\0\0", 5));
    EXPECT_OK(file.Truncate(0));
    EXPECT_EQ(m_Dir.Read("file"), "");
    EXPECT_EQ(Position(file), 5);
}

TEST_F(ZuFile, EveryFailureOfTheMachineIsTypeOneWithItsNumber) {
    const struct {
        const char* name;
        FaultOp op;
        CZuError (*act)(CZuFile& file);
    } rows[] = {
        {"read", FaultOp::Read,
         [](CZuFile& file) {
             char byte = 0;
             return file.Read(&byte, 1, nullptr);
         }},
        {"write", FaultOp::Write, [](CZuFile& file) { return file.Write("x", 1, nullptr); }},
        {"seek", FaultOp::Seek, [](CZuFile& file) { return file.Seek(0, 0, nullptr); }},
        {"size", FaultOp::Size,
         [](CZuFile& file) {
             uint64_t size = 0;
             return file.Size(size);
         }},
        {"truncate", FaultOp::Truncate, [](CZuFile& file) { return file.Truncate(1); }},
        {"sync", FaultOp::Sync, [](CZuFile& file) { return file.Sync(); }},
        {"close", FaultOp::Close, [](CZuFile& file) { return file.Close(); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        CZuFile file = Opened("abc");
        const CFaultyFiles faulty(Fault_t{row.op, 0, ENOSPC});
        EXPECT_SYSTEM_ERROR(row.act(file), ENOSPC);
        EXPECT_TRUE(faulty.Fired());
    }
}

TEST_F(ZuFile, ACloseThatFailsLetsGoOfTheFileAllTheSame) {
    CZuFile file = Opened("abc");
    CFaultyFiles faulty(Fault_t{FaultOp::Close, 0, EIO});
    EXPECT_SYSTEM_ERROR(file.Close(), EIO);
    EXPECT_FALSE(file.IsValid());
    EXPECT_OK(file.Close());
    EXPECT_EQ(faulty.Calls(FaultOp::Close), 1U);
}

TEST_F(ZuFile, AnOpenThatTheMachineRefusesIsTypeOneWithItsNumber) {
    const std::string path = m_Dir.Write("file", "abc");
    const CFaultyFiles faulty(Fault_t{FaultOp::Open, 0, EMFILE});
    CZuFile file;
    EXPECT_SYSTEM_ERROR(file.Open(path.c_str(), ForReading, 0), EMFILE);
    EXPECT_FALSE(file.IsValid());
}

TEST_F(ZuFile, WhatWasWrittenCanBeSynced) {
    CZuFile file = Opened("");
    WriteText(file, "abc");
    const CFaultyFiles counted;
    EXPECT_OK(file.Sync());
    EXPECT_EQ(counted.Calls(FaultOp::Sync), 1U);
}
