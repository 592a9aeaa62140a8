#include "platform/Files.h"

#include <gtest/gtest.h>

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
