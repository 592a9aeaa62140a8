#include "platform/Files.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "tests/support/FaultyFiles.h"
#include "tests/support/TempDir.h"

TEST(Files, AreTheMachinesOwnUnlessAnotherStandsInFront) {
    IFiles* const machine = &Files();
    {
        CFaultyFiles front;
        EXPECT_EQ(&Files(), &front);
        EXPECT_EQ(PutFilesInFront(nullptr), &front);
        EXPECT_EQ(&Files(), machine);
        EXPECT_EQ(PutFilesInFront(&front), nullptr);
        EXPECT_EQ(&Files(), &front);
    }
    EXPECT_EQ(&Files(), machine);
}

TEST(Files, TheOpenFlagsHaveTheirFixedValues) {
    EXPECT_EQ(OpenAsBinary | OpenNotInherited, 0x8080);
    EXPECT_EQ(OpenAsBinary | OpenNotInherited | OpenRandomAccess, 0x8090);
    EXPECT_EQ(OpenAsBinary | OpenNotInherited | OpenForBoth, 0x8082);
    EXPECT_EQ(OpenAsBinary | OpenNotInherited | OpenForBoth | OpenCreating, 0x8182);
    EXPECT_EQ(OpenAsBinary | OpenNotInherited | OpenForWriting | OpenCreating | OpenTruncating, 0x8381);
    EXPECT_EQ(OpenAsBinary | OpenNotInherited | OpenForBoth | OpenCreating | OpenTruncating, 0x8382);
    EXPECT_EQ(OpenAsText | OpenNotInherited, 0x4080);
    EXPECT_EQ(OpenForBoth | OpenCreating, 0x0102);
}

TEST(Files, AReadGivesNothingAtTheEndAlone) {
    const CTempDir dir;
    int fd = -1;
    ASSERT_EQ(Files().Open(dir.Write("file", "abc").c_str(), OpenAsBinary, 0, fd), 0);
    char bytes[8] = {};
    uint32_t got = 9;
    EXPECT_EQ(Files().Read(fd, bytes, sizeof(bytes), got), 0);
    EXPECT_EQ(got, 3U);
    EXPECT_EQ(Files().Read(fd, bytes, sizeof(bytes), got), 0);
    EXPECT_EQ(got, 0U);
    EXPECT_EQ(Files().Close(fd), 0);
}

TEST(Files, AFailedOpenLeavesTheDescriptorAlone) {
    const CTempDir dir;
    int fd = -77;
    EXPECT_NE(Files().Open(dir.File("none").c_str(), OpenAsBinary, 0, fd), 0);
    EXPECT_EQ(fd, -77);
}

TEST(Files, TruncateCutsAndGrowsAndLeavesThePositionAlone) {
    const CTempDir dir;
    int fd = -1;
    ASSERT_EQ(Files().Open(dir.Write("file", "abcdef").c_str(), OpenAsBinary | OpenForBoth, 0, fd), 0);
    int64_t position = 0;
    EXPECT_EQ(Files().Seek(fd, 2, SEEK_SET, position), 0);
    for (const uint64_t sizeBytes : {uint64_t{3}, uint64_t{9}, uint64_t{3} << 40U, uint64_t{5}}) {
        EXPECT_EQ(Files().Truncate(fd, static_cast<int64_t>(sizeBytes)), 0) << sizeBytes;
        uint64_t now = 0;
        EXPECT_EQ(Files().Size(fd, now), 0);
        EXPECT_EQ(now, sizeBytes);
    }
    char byte = 0;
    uint32_t got = 0;
    EXPECT_EQ(Files().Read(fd, &byte, 1, got), 0);
    EXPECT_EQ(byte, 'c') << "from where it stood";
    EXPECT_EQ(Files().Close(fd), 0);
    EXPECT_EQ(dir.Read("file"), std::string("abc\0\0", 5));
}

TEST(Files, WhatIsOpenForReadingIsNotTruncated) {
    const CTempDir dir;
    int fd = -1;
    ASSERT_EQ(Files().Open(dir.Write("file", "abc").c_str(), OpenAsBinary, 0, fd), 0);
    EXPECT_NE(Files().Truncate(fd, 1), 0);
    EXPECT_NE(Files().Truncate(fd, -1), 0);
    EXPECT_EQ(Files().Close(fd), 0);
    EXPECT_EQ(dir.Read("file"), "abc");
}
