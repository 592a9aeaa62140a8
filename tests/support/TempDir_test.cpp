#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>

TEST(TempDir, GoesAwayWithAllThatLiesInIt) {
    std::string path;
    {
        const CTempDir dir;
        path = dir.Path();
        dir.Write("file", "bytes");
        std::filesystem::create_directory(dir.File("folder"));
        dir.Write("folder/inside", "bytes");
        EXPECT_TRUE(std::filesystem::exists(path));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(TempDir, KeepsBytesAsTheyStandAndListsItsEntriesSorted) {
    const CTempDir dir;
    const std::string bytes("a\r\n\0\x1a\xff", 6);
    dir.Write("second", bytes);
    EXPECT_EQ(dir.Write("first", "x"), dir.File("first"));
    EXPECT_EQ(dir.Read("second"), bytes);
    EXPECT_EQ(dir.Entries(), (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(std::filesystem::file_size(dir.WriteHole("hole", 1 << 20)), 1U << 20);
}

TEST(TempDir, TwoAreNeverTheSame) {
    const CTempDir one;
    const CTempDir other;
    EXPECT_NE(one.Path(), other.Path());
}
