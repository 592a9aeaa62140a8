#include "foundation/ZuPath.h"

#include <gtest/gtest.h>

TEST(ZuPath, TheParentIsWhatStandsBeforeTheLastSeparator) {
    const struct {
        const char* path;
        const char* parent;
    } rows[] = {
        {"folder/disk.vmdk", "folder"},
        {"folder\\disk.vmdk", "folder"},
        {"/folder/disk.vmdk", "/folder"},
        {"/one/two/three", "/one/two"},
        {"one/two\\three", "one/two"},
        {"one\\two/three", "one\\two"},
        {"C:\\folder\\disk.vmdk", "C:\\folder"},
        {"../disk.vmdk", ".."},
        {"./disk.vmdk", "."},
        {"folder//disk.vmdk", "folder"},
        {"folder/\\/disk.vmdk", "folder"},
        {"/disk.vmdk", "/"},
        {"//disk.vmdk", "/"},
        {"\\disk.vmdk", "\\"},
        {"one/two/", "one"},
        {"/", "/"},
    };
    for (const auto& row : rows)
        EXPECT_STREQ(CZuPath::GetParent(row.path).c_str(), row.parent) << row.path;
}

TEST(ZuPath, TheParentOfABareNameIsHere) {
    for (const char* const path : {"disk.vmdk", "disk", "..", "folder/", ""})
        EXPECT_STREQ(CZuPath::GetParent(path).c_str(), ".") << path;
    EXPECT_STREQ(CZuPath::GetParent(nullptr).c_str(), ".");
}
