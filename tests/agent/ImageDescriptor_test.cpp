#include "agent/detail/VmdkDescriptor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/agent/AgentAssertions.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/VmdkDescriptorBuilder.h"

namespace {

CVmdkDescriptorBuilder OneExtent() {
    return CVmdkDescriptorBuilder().CreateType("monolithicFlat").Extent(100, "FLAT", "disk-flat.vmdk");
}

// Lines that writers put into descriptors and that a simple parser takes for extents.
TEST(ImageDescriptor, LinesBesideTheKnownOnesDoNotMatter) {
    const char* const lines[] = {
        "encoding=\"windows-1252\"",
        "encoding = \"UTF-8\"",
        "isNativeSnapshot=\"no\"",
        "parentFileNameHint=\"parent.vmdk\"",
        "changeTrackPath=\"disk-ctk.vmdk\"",
        "digest=\"0123\"",
        "some.key.of.tomorrow=\"a b c\"",
        "\tindented = 1",
        "empty=",
    };
    for (const char* line : lines) {
        SCOPED_TRACE(line);
        VmdkDescriptor_t descriptor;
        ASSERT_OK(ParseVmdkDescriptor("disk.vmdk", OneExtent().Line(line).Text(), descriptor));
        ASSERT_EQ(1U, descriptor.file.extents.size());
        EXPECT_STREQ("disk-flat.vmdk", descriptor.file.extents[0].fileName.c_str());
        EXPECT_EQ(100U, descriptor.file.extents[0].size);
        EXPECT_EQ(DiskType_MonolithicFlat, descriptor.file.createType);
    }
}

TEST(ImageDescriptor, ExtentNamesComeAsTheyStandInTheirLines) {
    // In quotes a backslash stands for the character behind it.
    const struct {
        const char* written;
        const char* name;
    } rows[] = {
        {"a.vmdk", "a.vmdk"},         {"with blank.vmdk", "with blank.vmdk"}, {"equals=sign.vmdk", "equals=sign.vmdk"},
        {"sub/a.vmdk", "sub/a.vmdk"}, {"sub\\\\a.vmdk", "sub\\a.vmdk"},       {"../up.vmdk", "../up.vmdk"},
        {"/root.vmdk", "/root.vmdk"}, {"C:\\\\drive.vmdk", "C:\\drive.vmdk"}, {"back\\slash", "backslash"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.written);
        VmdkDescriptor_t descriptor;
        const std::string text =
            CVmdkDescriptorBuilder().CreateType("monolithicFlat").Extent(7, "FLAT", row.written).Text();
        ASSERT_OK(ParseVmdkDescriptor("disk.vmdk", text, descriptor));
        ASSERT_EQ(1U, descriptor.file.extents.size());
        EXPECT_STREQ(row.name, descriptor.file.extents[0].fileName.c_str());
    }
}

TEST(ImageDescriptor, LineEndsOfOtherSystemsAreTheSame) {
    VmdkDescriptor_t descriptor;
    const std::string text =
        OneExtent().LineEnd("\r\n").Line("parentFileNameHint=\"p.vmdk\"").ParentCid("0172e8a4").Text();
    ASSERT_OK(ParseVmdkDescriptor("disk.vmdk", text, descriptor));
    EXPECT_EQ(1U, descriptor.file.extents.size());
    ASSERT_TRUE(descriptor.identity.parent.has_value());
    EXPECT_EQ(std::vector<std::string>{"p.vmdk"}, descriptor.identity.parent->names);
    EXPECT_EQ("CID 0172e8a4", descriptor.identity.parent->identity);
}

TEST(ImageDescriptor, TellsWhetherTheDiskIsALinkOfAChain) {
    const struct {
        const char* parentCid;
        bool hasParent;
    } rows[] = {{"ffffffff", false}, {"FFFFFFFF", false}, {"0172e8a4", true}, {"fffffffe", true}, {"0", true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.parentCid);
        VmdkDescriptor_t descriptor;
        ASSERT_OK(ParseVmdkDescriptor("disk.vmdk", OneExtent().ParentCid(row.parentCid).Text(), descriptor));
        ASSERT_EQ(row.hasParent, descriptor.identity.parent.has_value());
        if (row.hasParent) {
            EXPECT_EQ(std::vector<std::string>{}, descriptor.identity.parent->names);
        }
    }
}

TEST(ImageDescriptor, NothingBehindItsFirstNulCounts) {
    VmdkDescriptor_t descriptor;
    std::string text = OneExtent().Text();
    text += '\0';
    text += "RW 5 FLAT \"behind.vmdk\" 0\nparentCID=12345678\n";
    ASSERT_OK(ParseVmdkDescriptor("disk.vmdk", text, descriptor));
    EXPECT_EQ(1U, descriptor.file.extents.size());
    EXPECT_FALSE(descriptor.identity.parent.has_value());
}

TEST(ImageDescriptor, FailuresNameTheDescriptor) {
    const struct {
        const char* name;
        std::string text;
    } rows[] = {
        {"an unknown kind of extent", OneExtent().Extent(1, "ROUND", "x").Text()},
        {"a size that is no number", OneExtent().Line("RW many FLAT \"x\" 0").Text()},
        {"an extent without a name", OneExtent().Line("RW 5 FLAT").Text()},
        {"an offset into the file", OneExtent().Line("RW 5 FLAT \"x\" 16").Text()},
        {"words of nobody", OneExtent().Line("what is this").Text()},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        VmdkDescriptor_t descriptor;
        EXPECT_FAILS_SAYING(ParseVmdkDescriptor("some/disk.vmdk", row.text, descriptor), "some/disk.vmdk: ");
    }
}

TEST(ImageDescriptor, ExtentsLieBesideTheDescriptorOrBelow) {
    const struct {
        const char* name;
        const char* path;
    } rows[] = {
        {"a.vmdk", "/images/a.vmdk"},     {"sub/a.vmdk", "/images/sub/a.vmdk"}, {"sub\\a.vmdk", "/images/sub/a.vmdk"},
        {"./a.vmdk", "/images/./a.vmdk"}, {"..a.vmdk", "/images/..a.vmdk"},     {"a..vmdk", "/images/a..vmdk"},
        {"...", "/images/..."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::string path;
        ASSERT_OK(ResolveExtentName("/images", row.name, false, path));
        EXPECT_EQ(row.path, path);
    }
}

TEST(ImageDescriptor, NamesThatLeaveTheDirectoryAreRefusedUnlessAllowed) {
    const char* const names[] = {
        "../a.vmdk",
        "..\\a.vmdk",
        "sub/../../a.vmdk",
        "sub\\..\\..\\a.vmdk",
        "sub/../a.vmdk",
        "/etc/passwd",
        "\\etc\\passwd",
        "//server/a",
        "\\\\server\\share\\a",
        "C:\\a.vmdk",
        "C:a.vmdk",
        "z:/a.vmdk",
        "\\\\.\\PhysicalDrive0",
        "\\\\?\\C:\\a",
        "/dev/sda",
    };
    for (const char* name : names) {
        SCOPED_TRACE(name);
        std::string path = "untouched";
        EXPECT_FAILS_SAYING(ResolveExtentName("/images", name, false, path), name, "leads out of the directory /images",
                            "--allow-outside");
        EXPECT_EQ("untouched", path);
        EXPECT_OK(ResolveExtentName("/images", name, true, path));
    }
}

TEST(ImageDescriptor, NamesThatNameNoFileAreRefusedInAnyCase) {
    for (const char* name : {"", ".", "sub/", "sub\\", "/"}) {
        for (const bool allowOutside : {false, true}) {
            SCOPED_TRACE(testing::Message() << "\"" << name << "\" " << allowOutside);
            std::string path;
            EXPECT_FAILS_SAYING(ResolveExtentName("/images", name, allowOutside, path), "no name for a file");
        }
    }
}

TEST(ImageDescriptor, ANameThatIsTheDirectoryAboveIsRefused) {
    for (const char* name : {"..", "sub/.."}) {
        SCOPED_TRACE(name);
        std::string path;
        EXPECT_FAILS_SAYING(ResolveExtentName("/images", name, false, path), "leads out");
    }
}

}  // namespace
