#include "tests/support/FaultyFiles.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "tests/support/TempDir.h"

namespace {

constexpr int OwnerReadsAndWrites = 384;

// Asks for one of everything, in this order, of whatever stands in front.
std::string ErrorsOfOneOfEach(const std::string& path) {
    IFiles& files = Files();
    int fd = -1;
    const int opened = files.Open(path.c_str(), OpenForBoth | OpenAsBinary, OwnerReadsAndWrites, fd);
    if (opened != 0)
        return "open " + std::to_string(opened);
    char bytes[4] = {};
    uint32_t count = 0;
    int64_t position = 0;
    uint64_t sizeBytes = 0;
    std::string errors;
    const auto note = [&errors](const char* name, int error) {
        errors += error != 0 ? name + std::to_string(error) : std::string();
    };
    note("read ", files.Read(fd, bytes, sizeof(bytes), count));
    note("seek ", files.Seek(fd, 0, 0, position));
    note("write ", files.Write(fd, bytes, sizeof(bytes), count));
    note("size ", files.Size(fd, sizeBytes));
    note("truncate ", files.Truncate(fd, 4));
    note("sync ", files.Sync(fd));
    note("close ", files.Close(fd));
    return errors;
}

}  // namespace

TEST(FaultyFiles, EachOperationFailsWhenItsFaultIsHit) {
    const CTempDir dir;
    const std::string path = dir.Write("file", "abcd");
    const struct {
        FaultOp op;
        const char* errors;
    } rows[] = {
        {FaultOp::Open, "open 5"}, {FaultOp::Read, "read 5"},   {FaultOp::Write, "write 5"},
        {FaultOp::Seek, "seek 5"}, {FaultOp::Size, "size 5"},   {FaultOp::Truncate, "truncate 5"},
        {FaultOp::Sync, "sync 5"}, {FaultOp::Close, "close 5"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.errors);
        CFaultyFiles faulty(Fault_t{row.op, 0, 5});
        EXPECT_FALSE(faulty.Fired());
        EXPECT_EQ(ErrorsOfOneOfEach(path), row.errors);
        EXPECT_TRUE(faulty.Fired());
        EXPECT_EQ(faulty.Calls(row.op), 1U);
        EXPECT_EQ(ErrorsOfOneOfEach(path), "") << "one call alone fails";
    }
}

TEST(FaultyFiles, TheFaultHitsTheNthCallAlone) {
    const CTempDir dir;
    const std::string path = dir.Write("file", "abcd");
    CFaultyFiles faulty(Fault_t{FaultOp::Read, 2, 5});
    EXPECT_EQ(ErrorsOfOneOfEach(path), "");
    EXPECT_EQ(ErrorsOfOneOfEach(path), "");
    EXPECT_FALSE(faulty.Fired());
    EXPECT_EQ(ErrorsOfOneOfEach(path), "read 5");
    EXPECT_EQ(ErrorsOfOneOfEach(path), "");
    EXPECT_EQ(faulty.Calls(FaultOp::Read), 4U);
    EXPECT_EQ(faulty.Calls(FaultOp::Open), 4U);
}

TEST(FaultyFiles, TransfersFallShortOnceOrAlways) {
    const CTempDir dir;
    const std::string path = dir.Write("file", "abcdefgh");
    CFaultyFiles faulty;
    faulty.LimitTransfers(FaultOp::Read, 3);
    faulty.ShortenTransfer(FaultOp::Read, 1, 0);
    int fd = -1;
    ASSERT_EQ(Files().Open(path.c_str(), OpenAsBinary, 0, fd), 0);
    char bytes[8] = {};
    uint32_t got = 99;
    EXPECT_EQ(Files().Read(fd, bytes, 8, got), 0);
    EXPECT_EQ(got, 3U);
    EXPECT_EQ(Files().Read(fd, bytes, 8, got), 0);
    EXPECT_EQ(got, 0U);
    EXPECT_EQ(Files().Read(fd, bytes, 2, got), 0);
    EXPECT_EQ(std::string(bytes, 2), "de");
    EXPECT_EQ(faulty.Sizes(FaultOp::Read), (std::vector<uint32_t>{8, 8, 2}));
    EXPECT_EQ(Files().Close(fd), 0);
    EXPECT_FALSE(faulty.Fired());
}

TEST(FaultyFiles, OneStandsInFrontOfTheOtherAndGoesAwayAtItsEnd) {
    const CTempDir dir;
    const std::string path = dir.Write("file", "abcd");
    {
        CFaultyFiles outer;
        {
            CFaultyFiles inner(Fault_t{FaultOp::Sync, 0, ENOSPC});
            EXPECT_EQ(ErrorsOfOneOfEach(path), "sync " + std::to_string(ENOSPC));
            EXPECT_EQ(outer.Calls(FaultOp::Write), 1U);
            EXPECT_EQ(outer.Calls(FaultOp::Sync), 0U);
        }
        EXPECT_EQ(ErrorsOfOneOfEach(path), "");
        EXPECT_EQ(outer.Calls(FaultOp::Sync), 1U);
    }
    EXPECT_EQ(PutFilesInFront(nullptr), nullptr);
}
