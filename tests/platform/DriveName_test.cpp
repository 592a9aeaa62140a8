#include "platform/DriveName.h"

#include <gtest/gtest.h>

TEST(DriveName, BeginsWithItsPrefixLetterByLetter) {
    const struct {
        const char* name;
        bool isDrive;
        const char* rest;
    } rows[] = {
        {R"(\\?\PhysicalDrive0)", true, "0"},
        {R"(\\?\PhysicalDrive17)", true, "17"},
        {R"(\\?\PhysicalDrive)", true, ""},
        {R"(\\?\PhysicalDrive/dev/sdb)", true, "/dev/sdb"},
        {R"(\\?\PhysicalDrive\\?\PhysicalDrive1)", true, R"(\\?\PhysicalDrive1)"},
        {R"(\\?\PhysicalDriv)", false, R"(\\?\PhysicalDriv)"},
        {R"(\\?\physicaldrive0)", false, R"(\\?\physicaldrive0)"},
        {R"(\\.\PhysicalDrive0)", false, R"(\\.\PhysicalDrive0)"},
        {R"( \\?\PhysicalDrive0)", false, R"( \\?\PhysicalDrive0)"},
        {R"(/dev/sdb\\?\PhysicalDrive)", false, R"(/dev/sdb\\?\PhysicalDrive)"},
        {"/dev/sdb", false, "/dev/sdb"},
        {"", false, ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(IsDriveName(row.name), row.isDrive) << row.name;
        EXPECT_EQ(WithoutDrivePrefix(row.name), row.rest) << row.name;
    }
}
