#include "agent/DiskChain.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/agent/SetSurgery.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"
#include "tests/support/VhdBuilder.h"
#include "tests/support/VmdkSparseBuilder.h"

namespace {

using Names_t = std::vector<std::string>;

// What a VMDK tells of itself and of its parent.
struct VmdkLink_t {
    std::string name;
    std::string cid;
    std::string parentCid = "ffffffff";
    std::string hint{};  // empty for none
    uint64_t sectors = 256;
};

std::string DescriptorOf(const VmdkLink_t& link, const std::string& extentType = "SPARSE",
                         const std::string& extent = "") {
    CVmdkDescriptorBuilder builder;
    builder.CreateType(extentType == "SPARSE" ? "monolithicSparse" : "monolithicFlat")
        .Cid(link.cid)
        .ParentCid(link.parentCid);
    if (!link.hint.empty())
        builder.Line("parentFileNameHint=\"" + link.hint + "\"");
    return builder.Extent(link.sectors, extentType, extent.empty() ? link.name : extent).Text();
}

std::string Utf16(const std::string& ascii, bool isBigEndian) {
    std::string bytes;
    for (const char character : ascii)
        bytes += isBigEndian ? std::string{'\0', character} : std::string{character, '\0'};
    return bytes;
}

std::string Identifier(char letter) {
    return std::string(16, letter);
}

CVhdBuilder VhdChild(char own, char parent, uint64_t sectors = 100) {
    CVhdBuilder builder = CVhdBuilder::Differencing(sectors);
    return builder.Footer(68, Identifier(own)).Header(40, Identifier(parent));
}

CVhdBuilder VhdBase(char own, uint64_t sectors = 100) {
    CVhdBuilder builder = CVhdBuilder::Dynamic(sectors);
    return builder.Footer(68, Identifier(own));
}

class DiskChain : public testing::Test {
protected:
    // A sparse link with one grain of eight sectors for each pair.
    std::string WriteVmdk(const VmdkLink_t& link, const std::map<uint64_t, char>& grains = {}) const {
        CVmdkSparseBuilder builder;
        builder.Capacity(link.sectors).Descriptor(DescriptorOf(link));
        for (const auto& [index, fill] : grains)
            builder.Grain(index, fill);
        return builder.WriteTo(m_Dir, link.name);
    }

    // A base and a child, by hint.
    std::string WriteVmdkPair(const std::string& hint, const std::string& baseCid = "1111aaaa") const {
        WriteVmdk({"base.vmdk", baseCid}, {{0, 'b'}, {1, 'b'}});
        return WriteVmdk({"child.vmdk", "2222bbbb", "1111aaaa", hint}, {{1, 'c'}});
    }

    CZuError Open(const std::string& path) {
        m_Links.clear();
        return OpenDiskChain(path, m_Options, m_Links);
    }

    Names_t LinkNames() const {
        Names_t names;
        for (const CDiskImage& link : m_Links)
            names.push_back(std::filesystem::relative(link.Path(), m_Dir.Path()).string());
        return names;
    }

    CZuError BackUpFlattened(const std::string& image, BackupResult_t* result = nullptr) const {
        BackupOptions_t options;
        options.flatten = true;
        options.force = true;
        options.image = m_Options;
        BackupResult_t unused;
        return BackUpDisk(image, m_Sets.File("set"), options, result != nullptr ? *result : unused);
    }

    // The flattened set comes back as a raw disk of this content, and says so of the image.
    void ExpectFlattened(const std::string& image, const std::string& content) const {
        ASSERT_OK(BackUpFlattened(image));
        ASSERT_OK(Verify(m_Sets.File("set")));
        std::vector<std::string> differences;
        ASSERT_OK(VerifyAgainst(m_Sets.File("set"), image, differences, m_Options));
        EXPECT_EQ(Names_t{}, differences);
        for (const bool asRaw : {false, true}) {
            ASSERT_OK(asRaw ? RestoreRaw(m_Sets.File("set"), m_Sets.File("raw"), true)
                            : Restore(m_Sets.File("set"), m_Sets.File("raw"), true));
            EXPECT_SAME_BYTES(content, m_Sets.Read("raw"));
        }
    }

    CTempDir m_Dir;
    CTempDir m_Sets;
    ImageOptions_t m_Options;
    std::vector<CDiskImage> m_Links;
};

std::string Filled(const std::vector<std::pair<uint64_t, char>>& grains, uint64_t sectors = 256) {
    std::string content(sectors * 512, '\0');
    for (const auto& [index, fill] : grains)
        PutBytes(content, index * 4096, std::string(4096, fill));
    content.resize(sectors * 512);
    return content;
}

TEST_F(DiskChain, AnImageThatBuildsOnNoOtherIsAChainOfOne) {
    const std::string images[] = {WriteVmdk({"one.vmdk", "1"}), VhdBase('a').WriteTo(m_Dir, "one.vhd"),
                                  CVhdBuilder::Fixed(10).WriteTo(m_Dir, "fixed.vhd"),
                                  WriteFlatDisk(m_Dir, {DiskContent(10)}, "flat")};
    for (const std::string& image : images) {
        SCOPED_TRACE(image);
        ASSERT_OK(Open(image));
        ASSERT_EQ(1U, m_Links.size());
        EXPECT_EQ(image, m_Links[0].Path());
    }
}

TEST_F(DiskChain, TheParentOfAVmdkIsFoundByItsHint) {
    std::filesystem::create_directory(m_Dir.File("sub"));
    for (const char* hint : {"base.vmdk", "./base.vmdk", "/gone/elsewhere/base.vmdk", "C:\\gone\\base.vmdk",
                             "..\\base.vmdk", "sub/base.vmdk"}) {
        SCOPED_TRACE(hint);
        ASSERT_OK(Open(WriteVmdkPair(hint)));
        ASSERT_EQ(2U, m_Links.size());
        EXPECT_EQ("base.vmdk", std::filesystem::path(m_Links[0].Path()).filename());
        EXPECT_EQ(m_Dir.File("child.vmdk"), m_Links[1].Path());
    }
}

TEST_F(DiskChain, TheParentOfAVmdkMayLieBelow) {
    std::filesystem::create_directory(m_Dir.File("sub"));
    const std::string child = WriteVmdkPair("sub/base.vmdk");
    std::filesystem::rename(m_Dir.File("base.vmdk"), m_Dir.File("sub/base.vmdk"));
    ASSERT_OK(Open(child));
    EXPECT_EQ((Names_t{"sub/base.vmdk", "child.vmdk"}), LinkNames());
}

TEST_F(DiskChain, ADescriptorInAFileOfItsOwnIsALinkToo) {
    const std::string content = DiskContent(256);
    m_Dir.Write("base-flat.vmdk", content);
    m_Dir.Write("base.vmdk", DescriptorOf({"base.vmdk", "1111aaaa"}, "FLAT", "base-flat.vmdk"));
    const std::string child = WriteVmdk({"child.vmdk", "2", "1111AAAA", "base.vmdk"}, {{1, 'c'}, {31, 'd'}});
    ASSERT_OK(Open(child));
    EXPECT_EQ((Names_t{"base.vmdk", "child.vmdk"}), LinkNames());
    std::string expected = content;
    expected.replace(4096, 4096, 4096, 'c');
    expected.replace(31 * 4096, 4096, 4096, 'd');
    ExpectFlattened(child, expected);
}

TEST_F(DiskChain, TheParentOfAVhdIsFoundByEachOfItsNames) {
    std::filesystem::create_directory(m_Dir.File("sub"));
    VhdBase('p').WriteTo(m_Dir, "base.vhd");
    VhdBase('p').WriteTo(m_Dir, "sub/below.vhd");
    const auto locator = [](const char* code, const std::string& name) {
        CVhdBuilder builder = VhdChild('c', 'p');
        return builder.Locator(0, code, Utf16(name, false));
    };
    const auto named = [](CVhdBuilder builder, const std::string& name) {
        return builder.Header(64, Utf16(name, true));
    };
    const struct {
        const char* name;
        CVhdBuilder child;
        const char* parent;
    } rows[] = {
        {"relative", locator("W2ru", ".\\base.vhd"), "base.vhd"},
        {"relative and bare", locator("W2ru", "base.vhd"), "base.vhd"},
        {"relative with a NUL behind", locator("W2ru", std::string("base.vhd\0", 9)), "base.vhd"},
        {"relative, below", locator("W2ru", ".\\sub\\below.vhd"), "sub/below.vhd"},
        {"absolute of another machine", locator("W2ku", "C:\\Users\\somebody\\base.vhd"), "base.vhd"},
        {"the name alone", named(VhdChild('c', 'p'), "base.vhd"), "base.vhd"},
        {"the name with a path", named(VhdChild('c', 'p'), "D:\\disks\\base.vhd"), "base.vhd"},
        {"relative first", named(locator("W2ru", ".\\sub\\below.vhd"), "base.vhd"), "sub/below.vhd"},
        {"a locator that leads nowhere", named(locator("W2ru", ".\\gone.vhd"), "base.vhd"), "base.vhd"},
        {"a locator of another system", named(locator("MacX", "file:///gone.vhd"), "base.vhd"), "base.vhd"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_OK(Open(row.child.WriteTo(m_Dir, "child.vhd")));
        ASSERT_EQ(2U, m_Links.size());
        EXPECT_TRUE(std::filesystem::equivalent(m_Dir.File(row.parent), m_Links[0].Path())) << m_Links[0].Path();
        EXPECT_EQ(m_Dir.File("child.vhd"), m_Links[1].Path());
    }
}

TEST_F(DiskChain, ParentsWithNamesOfOtherAlphabetsAreFound) {
    VhdBase('p').WriteTo(m_Dir, "Träger диск.vhd");
    const std::string name("T\0r\0\xE4\0g\0e\0r\0 \0\x34\x04\x38\x04\x41\x04\x3A\x04.\0v\0h\0d\0", 30);
    CVhdBuilder child = VhdChild('c', 'p');
    ASSERT_OK(Open(child.Locator(3, "W2ru", name).WriteTo(m_Dir, "child.vhd")));
    EXPECT_EQ((Names_t{"Träger диск.vhd", "child.vhd"}), LinkNames());
}

TEST_F(DiskChain, ALinkThatIsMissingIsNamed) {
    const std::string child = WriteVmdkPair("base.vmdk");
    std::filesystem::remove(m_Dir.File("base.vmdk"));
    EXPECT_FAILS_SAYING(Open(child), child, "base.vmdk", "1111aaaa", "isn't there", "--chain");
    EXPECT_FAILS_SAYING(Open(WriteVmdkPair("")), child, "1111aaaa", "--chain");
    std::filesystem::create_directory(m_Dir.File("gone.vmdk"));
    EXPECT_FAILS_SAYING(Open(WriteVmdkPair("gone.vmdk")), child, "gone.vmdk", "isn't there");

    CVhdBuilder vhd = VhdChild('c', 'p');
    const std::string path = vhd.Header(64, Utf16("base.vhd", true)).WriteTo(m_Dir, "child.vhd");
    EXPECT_FAILS_SAYING(Open(path), path, "base.vhd", "isn't there", "--chain");
    const std::string nameless = VhdChild('c', 'p').WriteTo(m_Dir, "nameless.vhd");
    EXPECT_FAILS_SAYING(Open(nameless), nameless, "70707070-7070-7070-7070-707070707070", "--chain");
}

TEST_F(DiskChain, AMissingLinkInTheMiddleIsNamedWithItsChild) {
    WriteVmdk({"middle.vmdk", "2", "1", "base.vmdk"});
    EXPECT_FAILS_SAYING(Open(WriteVmdk({"top.vmdk", "3", "2", "middle.vmdk"})), m_Dir.File("middle.vmdk"), "base.vmdk",
                        "isn't there");
}

TEST_F(DiskChain, ALinkThatHasChangedIsNamed) {
    EXPECT_FAILS_SAYING(Open(WriteVmdkPair("base.vmdk", "1111aaab")), m_Dir.File("base.vmdk"), "changed", "1111aaab",
                        "1111aaaa");
    VhdBase('q').WriteTo(m_Dir, "base.vhd");
    CVhdBuilder child = VhdChild('c', 'p');
    EXPECT_FAILS_SAYING(Open(child.Header(64, Utf16("base.vhd", true)).WriteTo(m_Dir, "child.vhd")),
                        m_Dir.File("base.vhd"), "changed", "71717171", "70707070");
}

TEST_F(DiskChain, AChainThatNeverEndsIsRefused) {
    EXPECT_FAILS_SAYING(Open(WriteVmdk({"self.vmdk", "1", "1", "self.vmdk"})), m_Dir.File("self.vmdk"),
                        "link of its own chain");
    WriteVmdk({"a.vmdk", "1", "2", "b.vmdk"});
    WriteVmdk({"b.vmdk", "2", "1", "a.vmdk"});
    EXPECT_FAILS_SAYING(Open(m_Dir.File("a.vmdk")), m_Dir.File("a.vmdk"), "link of its own chain");
    std::filesystem::create_symlink("a.vmdk", m_Dir.File("c.vmdk"));
    EXPECT_FAILS_SAYING(Open(WriteVmdk({"a.vmdk", "1", "1", "c.vmdk"})), "link of its own chain");
    CVhdBuilder vhd = VhdChild('p', 'p');
    EXPECT_FAILS_SAYING(Open(vhd.Header(64, Utf16("self.vhd", true)).WriteTo(m_Dir, "self.vhd")),
                        m_Dir.File("self.vhd"), "link of its own chain");
}

TEST_F(DiskChain, AParentOfAnotherKindIsRefused) {
    VhdBase('p').WriteTo(m_Dir, "base.vhd");
    EXPECT_FAILS_SAYING(Open(WriteVmdk({"child.vmdk", "2", "1", "base.vhd", 100})), m_Dir.File("base.vhd"),
                        "another kind", m_Dir.File("child.vmdk"));
    m_Dir.Write("base.vmdk", "no disk at all");
    EXPECT_FAILS_SAYING(Open(WriteVmdk({"child.vmdk", "2", "1", "base.vmdk"})), m_Dir.File("base.vmdk"),
                        "no disk image");
}

TEST_F(DiskChain, AParentOfAnotherSizeIsRefused) {
    WriteVmdk({"base.vmdk", "1", "ffffffff", "", 264});
    EXPECT_FAILS_SAYING(Open(WriteVmdk({"child.vmdk", "2", "1", "base.vmdk"})), m_Dir.File("base.vmdk"), "264", "256",
                        m_Dir.File("child.vmdk"));
    VhdBase('p', 99).WriteTo(m_Dir, "base.vhd");
    CVhdBuilder child = VhdChild('c', 'p');
    EXPECT_FAILS_SAYING(Open(child.Header(64, Utf16("base.vhd", true)).WriteTo(m_Dir, "child.vhd")),
                        m_Dir.File("base.vhd"), "99", "100");
}

TEST_F(DiskChain, TheChainGivenByHandIsUsedInsteadOfTheNames) {
    const std::string child = WriteVmdkPair("gone.vmdk");
    m_Options.parents = {m_Dir.File("base.vmdk")};
    ASSERT_OK(Open(child));
    EXPECT_EQ((Names_t{"base.vmdk", "child.vmdk"}), LinkNames());

    const CTempDir elsewhere;
    std::filesystem::rename(m_Dir.File("base.vmdk"), elsewhere.File("renamed"));
    m_Options.parents = {elsewhere.File("renamed")};
    ASSERT_OK(Open(child));
    EXPECT_EQ(elsewhere.File("renamed"), m_Links[0].Path());
}

TEST_F(DiskChain, AChainOfThreeIsGivenBaseFirst) {
    const std::string base = WriteVmdk({"base", "1"});
    const std::string middle = WriteVmdk({"middle", "2", "1"});
    const std::string top = WriteVmdk({"top", "3", "2"});
    m_Options.parents = {base, middle};
    ASSERT_OK(Open(top));
    EXPECT_EQ((Names_t{"base", "middle", "top"}), LinkNames());
    m_Options.parents = {middle, base};
    EXPECT_FAILS_SAYING(Open(top), base, "changed");
    m_Options.parents = {middle};
    EXPECT_FAILS_SAYING(Open(top), middle, "isn't among", "--chain");
    m_Options.parents = {base};
    EXPECT_FAILS_SAYING(Open(top), base, "changed");
    m_Options.parents = {top, base, middle};
    EXPECT_FAILS_SAYING(Open(top), base, "builds on no other", top);
    m_Options.parents = {m_Dir.File("gone"), middle};
    EXPECT_FAILS_SAYING(Open(top), m_Dir.File("gone"), "No such file");
    m_Options.parents = {middle};
    EXPECT_FAILS_SAYING(Open(base), base, "builds on no other", middle);
}

TEST_F(DiskChain, AHintThatLeadsOutOfTheDirectoryIsFollowedOnlyIfAllowed) {
    const CTempDir outside;
    const std::string child = WriteVmdkPair(outside.File("base.vmdk"));
    std::filesystem::rename(m_Dir.File("base.vmdk"), outside.File("base.vmdk"));
    const std::string relative = "../" + std::filesystem::path(outside.Path()).filename().string() + "/base.vmdk";
    for (const std::string& hint : {outside.File("base.vmdk"), relative}) {
        SCOPED_TRACE(hint);
        WriteVmdk({"child.vmdk", "2222bbbb", "1111aaaa", hint});
        m_Options.allowOutside = false;
        EXPECT_FAILS_SAYING(Open(child), child, hint, "isn't there", "--allow-outside");
        m_Options.allowOutside = true;
        ASSERT_OK(Open(child));
        EXPECT_TRUE(std::filesystem::equivalent(outside.File("base.vmdk"), m_Links[0].Path()));
    }
}

TEST_F(DiskChain, ASymbolicLinkOutOfTheDirectoryIsFollowedOnlyIfAllowed) {
    const CTempDir outside;
    for (const char* hint : {"base.vmdk", "/gone/base.vmdk"}) {
        SCOPED_TRACE(hint);
        std::filesystem::remove(m_Dir.File("base.vmdk"));
        const std::string child = WriteVmdkPair(hint);
        std::filesystem::rename(m_Dir.File("base.vmdk"), outside.File("base.vmdk"));
        std::filesystem::create_symlink(outside.File("base.vmdk"), m_Dir.File("base.vmdk"));
        m_Options.allowOutside = false;
        EXPECT_FAILS_SAYING(Open(child), child, "--allow-outside");
        m_Options.allowOutside = true;
        ASSERT_OK(Open(child));
    }
}

TEST_F(DiskChain, WhatIsSaidOfTheTypeHoldsForTheNewestLinkAlone) {
    m_Dir.Write("base-flat.vmdk", DiskContent(256));
    m_Dir.Write("base.vmdk", DescriptorOf({"base.vmdk", "1"}, "FLAT", "base-flat.vmdk"));
    m_Options.type = DiskType_MonolithicSparse;
    ASSERT_OK(Open(WriteVmdk({"child.vmdk", "2", "1", "base.vmdk"})));
    EXPECT_EQ(DiskType_MonolithicFlat, m_Links[0].DiskType());
}

TEST_F(DiskChain, FlattenedLinksCoverTheOlderOnes) {
    WriteVmdk({"base.vmdk", "1"}, {{0, 'a'}, {1, 'a'}, {2, 'a'}, {31, 'a'}});
    WriteVmdk({"middle.vmdk", "2", "1", "base.vmdk"}, {{1, 'b'}, {2, 'b'}, {8, 'b'}});
    const std::string top = WriteVmdk({"top.vmdk", "3", "2", "middle.vmdk"}, {{2, 'c'}, {20, 'c'}});
    ExpectFlattened(top, Filled({{0, 'a'}, {1, 'b'}, {2, 'c'}, {8, 'b'}, {20, 'c'}, {31, 'a'}}));
}

// A grain of zeros in a newer link hides what the older one holds.
TEST_F(DiskChain, ZerosOfANewerLinkHideTheOlderOnes) {
    WriteVmdk({"base.vmdk", "1"}, {{0, 'a'}, {1, 'a'}});
    ExpectFlattened(WriteVmdk({"top.vmdk", "2", "1", "base.vmdk"}, {{1, '\0'}}), Filled({{0, 'a'}}));
}

TEST_F(DiskChain, FlattenedVhdsAreMixedSectorBySector) {
    CVhdBuilder base = VhdBase('p');
    base.Block(0, 'a').Block(1, 'a').Block(12, 'a').WriteTo(m_Dir, "base.vhd");
    CVhdBuilder middle = VhdChild('m', 'p');
    middle.Header(64, Utf16("base.vhd", true)).Block(1, 'm').Bitmap(1, "\x81").Block(12, 'm').Bitmap(12, "\x10");
    middle.WriteTo(m_Dir, "middle.vhd");
    CVhdBuilder top = VhdChild('t', 'm');
    top.Header(64, Utf16("middle.vhd", true)).Block(1, 't').Bitmap(1, "\x40").Block(7, 't');
    std::string content(51200, '\0');
    const auto put = [&](uint64_t sector, size_t count, char fill) {
        PutBytes(content, sector * 512, std::string(count * 512, fill));
    };
    put(0, 16, 'a');
    put(8, 1, 'm');
    put(9, 1, 't');
    put(15, 1, 'm');
    put(56, 8, 't');
    put(96, 4, 'a');
    put(99, 1, 'm');
    ExpectFlattened(top.WriteTo(m_Dir, "top.vhd"), content);
}

TEST_F(DiskChain, AFixedVhdCanBeTheBase) {
    const std::string content = DiskContent(129);
    CVhdBuilder::Fixed(129).Footer(68, Identifier('p')).Data(0, content).WriteTo(m_Dir, "base.vhd");
    CVhdBuilder child = VhdChild('c', 'p', 129);
    child.Header(64, Utf16("base.vhd", true)).Block(0, 'c');
    std::string expected = content;
    expected.replace(0, 4096, 4096, 'c');
    ExpectFlattened(child.WriteTo(m_Dir, "child.vhd"), expected);
}

TEST_F(DiskChain, EverySectorOfASingleImageIsInItsFlattenedSet) {
    for (const uint64_t sectors : {1U, 2U, 100U, 129U}) {
        SCOPED_TRACE(sectors);
        const std::string content = DiskContent(sectors);
        ExpectFlattened(CVhdBuilder::Fixed(sectors).Data(0, content).WriteTo(m_Dir, "fixed.vhd"), content);
        CVhdBuilder dynamic = CVhdBuilder::Dynamic(sectors);
        for (uint64_t index = 0; index * 4096 < content.size(); ++index)
            dynamic.Block(index, content.substr(index * 4096, 4096));
        ExpectFlattened(dynamic.WriteTo(m_Dir, "dynamic.vhd"), content);
        ExpectFlattened(WriteFlatDisk(m_Dir, {content}, "flat"), content);
    }
}

// The blocks at the end are those that the stream of the link alone leaves out.
TEST_F(DiskChain, HolesOfALargeChainStayOutOfTheSet) {
    constexpr uint64_t sectors = uint64_t{20} << 21U;
    constexpr uint32_t blockBytes = 2U << 20U;
    CVhdBuilder base = VhdBase('p', sectors);
    base.BlockSize(blockBytes).Block(10239, PatternedBytes(blockBytes, 1)).WriteTo(m_Dir, "base.vhd");
    CVhdBuilder child = VhdChild('c', 'p', sectors);
    child.BlockSize(blockBytes).Header(64, Utf16("base.vhd", true)).Block(5000, 'c').Block(10239, 'x');
    child.Bitmap(5000, std::string(1, '\x80')).Bitmap(10239, std::string(1, '\x80'));
    BackupResult_t result;
    ASSERT_OK(BackUpFlattened(child.WriteTo(m_Dir, "child.vhd"), &result));
    EXPECT_EQ(sectors * 512, result.diskBytes);
    EXPECT_EQ(1U + 32U, result.blockCount);
    EXPECT_EQ(Names_t{}, result.warnings);

    ASSERT_OK(RestoreRaw(m_Sets.File("set"), m_Sets.File("raw")));
    EXPECT_EQ(sectors * 512, std::filesystem::file_size(m_Sets.File("raw")));
    std::ifstream raw(m_Sets.File("raw"), std::ios::binary);
    const auto at = [&](uint64_t offset, size_t size) {
        std::string bytes(size, '?');
        raw.seekg(static_cast<std::streamoff>(offset));
        raw.read(bytes.data(), static_cast<std::streamsize>(size));
        return bytes;
    };
    EXPECT_SAME_BYTES(std::string(512, 'c') + std::string(512, '\0'), at(uint64_t{5000} * blockBytes, 1024));
    EXPECT_SAME_BYTES(std::string(512, 'x') + PatternedBytes(blockBytes, 1).substr(512),
                      at(uint64_t{10239} * blockBytes, blockBytes));
}

TEST_F(DiskChain, AFlattenedSetIsToldFromAChainThatChanged) {
    const std::string child = WriteVmdkPair("base.vmdk");
    ASSERT_OK(BackUpFlattened(child));
    std::vector<std::string> differences;
    WriteVmdk({"base.vmdk", "1111aaaa"}, {{0, 'X'}, {1, 'b'}});
    ASSERT_OK(VerifyAgainst(m_Sets.File("set"), child, differences));
    EXPECT_EQ(1U, differences.size());
    // What a newer link covers isn't seen.
    WriteVmdk({"base.vmdk", "1111aaaa"}, {{0, 'b'}, {1, 'X'}});
    ASSERT_OK(VerifyAgainst(m_Sets.File("set"), child, differences));
    EXPECT_EQ(Names_t{}, differences);
    std::filesystem::remove(m_Dir.File("base.vmdk"));
    EXPECT_FAILS_SAYING(VerifyAgainst(m_Sets.File("set"), child, differences), "base.vmdk");
}

TEST_F(DiskChain, AChainThatCannotBeOpenedLeavesNoSet) {
    const std::string child = WriteVmdkPair("base.vmdk", "12345678");
    EXPECT_FAILS_SAYING(BackUpFlattened(child), m_Dir.File("base.vmdk"), "changed");
    EXPECT_EQ(Names_t{}, m_Sets.Entries());
}

TEST_F(DiskChain, TheSetNeverReplacesALinkOfTheChain) {
    const std::string child = WriteVmdkPair("base.vmdk");
    const std::string before = m_Dir.Read("base.vmdk");
    BackupOptions_t options;
    options.flatten = true;
    options.force = true;
    BackupResult_t result;
    EXPECT_FAILS_SAYING(BackUpDisk(child, m_Dir.File("base.vmdk"), options, result), m_Dir.File("base.vmdk"),
                        "file of the image");
    EXPECT_SAME_BYTES(before, m_Dir.Read("base.vmdk"));
}

TEST_F(DiskChain, AFlattenedSetIsRestoredUnderTheNameOfARawDisk) {
    const std::string child = WriteVmdkPair("base.vmdk");
    ASSERT_OK(BackUpFlattened(child));
    const CTempDir target;
    ASSERT_OK(Restore(m_Sets.File("set"), target.Path()));
    EXPECT_EQ(Names_t{"child.raw"}, target.Entries());
}

}  // namespace
