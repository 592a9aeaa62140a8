#include "agent/detail/VhdFacts.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/agent/AgentAssertions.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/VhdBuilder.h"

namespace {

CVhdBuilder Fixed() {
    return CVhdBuilder::Fixed(100);
}
CVhdBuilder Dynamic() {
    return CVhdBuilder::Dynamic(100);
}
CVhdBuilder Differencing() {
    return CVhdBuilder::Differencing(100);
}

std::string Utf16(const std::string& ascii, bool isBigEndian) {
    std::string bytes;
    for (const char character : ascii)
        bytes += isBigEndian ? std::string{'\0', character} : std::string{character, '\0'};
    return bytes;
}

class VhdFacts : public testing::Test {
protected:
    CZuError Read(const CVhdBuilder& builder) {
        m_Path = builder.WriteTo(m_Dir);
        return ReadVhdFacts(m_Path, m_Facts);
    }

    CTempDir m_Dir;
    std::string m_Path;
    VhdFacts_t m_Facts;
};

TEST_F(VhdFacts, OfASoundFileAreThoseOfItsFooterAndHeader) {
    ASSERT_OK(
        Read(Fixed().Footer(68, std::string("\x01\x23\x45\x67\x89\xAB\xCD\xEF\xFE\xDC\xBA\x98\x76\x54\x32\x10"))));
    EXPECT_EQ(DiskType_VhdFixed, m_Facts.diskType);
    EXPECT_EQ(100U, m_Facts.diskSectors);
    EXPECT_EQ(101U * 512, m_Facts.fileBytes);
    EXPECT_EQ("{01234567-89AB-CDEF-FEDC-BA9876543210}", m_Facts.uniqueId);
    EXPECT_EQ(std::vector<std::string>{}, m_Facts.warnings);

    ASSERT_OK(Read(Dynamic().BlockSize(2U << 20U)));
    EXPECT_EQ(DiskType_VhdDynamic, m_Facts.diskType);
    EXPECT_EQ(100U, m_Facts.diskSectors);
    EXPECT_EQ(4096U, m_Facts.shape.dataSectors);
    EXPECT_EQ(1U, m_Facts.shape.bitmapSectors);
    EXPECT_EQ(std::vector<std::string>{}, m_Facts.warnings);
    EXPECT_EQ(std::vector<std::string>{}, m_Facts.parentNames);
}

TEST_F(VhdFacts, NamesOfTheParentComeBestFirst) {
    CVhdBuilder builder = Differencing();
    builder.Header(40, std::string(16, 'p')).Header(64, Utf16("name.vhd", true));
    builder.Locator(0, "W2ku", Utf16("C:\\absolute.vhd", false)).Locator(4, "W2ru", Utf16(".\\relative.vhd", false));
    builder.Locator(7, "Mac ", "alias").Locator(2, "W2ru", Utf16("second.vhd", false));
    ASSERT_OK(Read(builder));
    EXPECT_EQ((std::vector<std::string>{"second.vhd", ".\\relative.vhd", "C:\\absolute.vhd", "name.vhd"}),
              m_Facts.parentNames);
    EXPECT_EQ("{70707070-7070-7070-7070-707070707070}", m_Facts.parentUniqueId);
}

TEST_F(VhdFacts, LocatorsThatLieNowhereAreLeftOut) {
    const struct {
        const char* name;
        size_t field;
        std::string bytes;
    } rows[] = {{"its data behind the file", 16, BigEndianBytes(1U << 30U, 8)},
                {"its data at the last of all bytes", 16, std::string(8, '\xFF')},
                {"longer than the file", 8, BigEndianBytes(60000, 4)},
                {"longer than any name", 8, BigEndianBytes(65537, 4)},
                {"as long as can be", 8, std::string(4, '\xFF')},
                {"no length", 8, std::string(4, '\0')}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        CVhdBuilder builder = Differencing();
        builder.Header(64, Utf16("name.vhd", true)).Locator(0, "W2ru", Utf16("relative.vhd", false));
        ASSERT_OK(Read(builder.Header(576 + row.field, row.bytes)));
        EXPECT_EQ(std::vector<std::string>{"name.vhd"}, m_Facts.parentNames);
    }
}

TEST_F(VhdFacts, AParentWithoutANameHasNone) {
    ASSERT_OK(Read(Differencing()));
    EXPECT_EQ(std::vector<std::string>{}, m_Facts.parentNames);
}

TEST_F(VhdFacts, AWrongChecksumIsAWarning) {
    const std::string wrong(4, '\x5A');
    const struct {
        const char* name;
        CVhdBuilder file;
        const char* words;
    } rows[] = {
        {"of a fixed disk's footer", Fixed().PutEndFooter(64, wrong), "footer"},
        {"of a dynamic disk's footer", Dynamic().PutEndFooter(64, wrong), "footer"},
        {"of the header", Dynamic().PutAt(512 + 36, wrong), "header"},
        {"of another byte of the header", Dynamic().PutAt(512 + 1000, "x"), "header"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_OK(Read(row.file));
        ASSERT_EQ(1U, m_Facts.warnings.size());
        EXPECT_NE(std::string::npos, m_Facts.warnings[0].find(std::string("checksum of its ") + row.words));
    }
}

TEST_F(VhdFacts, WhatWouldBeReadWronglyIsRefusedByName) {
    const struct {
        const char* name;
        CVhdBuilder file;
        const char* text;
    } rows[] = {
        {"an empty file", Fixed().CutTo(0), "too short for a VHD"},
        {"no whole footer", Fixed().CutTo(511), "too short for a VHD"},
        {"a footer alone at the start", Dynamic().CutTo(1024), "without a footer at its end"},
        {"no footer at the end", Dynamic().PutEndFooter(0, "x"), "without a footer at its end"},
        {"format version 2", Fixed().Footer(12, std::string("\0\2\0\0", 4)), "format version 131072"},
        {"type 0", Fixed().Footer(60, BigEndianBytes(0, 4)), "type 0"},
        {"type 5", Fixed().Footer(60, BigEndianBytes(5, 4)), "type 5"},
        {"type of all ones", Fixed().Footer(60, BigEndianBytes(0xFFFFFFFF, 4)), "type 4294967295"},
        {"part of a sector", Fixed().CurrentSize(51201), "51201 bytes"},
        {"more bytes than any disk", Dynamic().CurrentSize(~uint64_t{511}), "18446744073709551104 bytes"},
        {"a fixed disk cut short", Fixed().CurrentSize(101 * 512), "holds 51200 bytes where the disk needs 51712"},
        {"a footer alone", CVhdBuilder::Fixed(0).CurrentSize(512), "holds 0 bytes where the disk needs 512"},
        {"a header elsewhere", Dynamic().PutEndFooter(16, BigEndianBytes(1024, 8)), "header isn't where"},
        {"no header", Dynamic().PutAt(512, "x"), "header isn't where"},
        {"blocks of 0", Dynamic().BlockSize(0).Entries(100), "blocks of 0 bytes"},
        {"blocks of 511", Dynamic().BlockSize(511).Entries(200), "blocks of 511 bytes"},
        {"blocks of 4097", Dynamic().BlockSize(4097), "blocks of 4097 bytes"},
        {"blocks of 2^31", Dynamic().BlockSize(1U << 31U), "blocks of 2147483648 bytes"},
        {"blocks whose bitmap is rounded up", Dynamic().BlockSize(3U << 20U), "blocks of 3145728 bytes"},
        {"a table too short", Dynamic().Entries(12), "12 entries where its disk needs 13"},
        {"a table of nothing", Dynamic().Entries(0), "0 entries"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_FAILS_SAYING(Read(row.file), m_Path + ": ", row.text);
    }
}

TEST_F(VhdFacts, AHeaderOutsideTheFileIsAFailureThatNamesTheFile) {
    for (const uint64_t offset : {uint64_t{1} << 40U, ~uint64_t{0}, ~uint64_t{1023}, uint64_t{1} << 63U}) {
        SCOPED_TRACE(offset);
        EXPECT_FAILS_SAYING(Read(Dynamic().Footer(16, BigEndianBytes(offset, 8))), m_Path + ": ");
    }
}

TEST_F(VhdFacts, WhatIsNoFileIsAFailure) {
    EXPECT_FAILS_SAYING(ReadVhdFacts(m_Dir.File("gone"), m_Facts), m_Dir.File("gone"), "No such file");
}

TEST_F(VhdFacts, TheLargestTableThatTheDiskCanHaveCostsNothing) {
    ASSERT_OK(Read(Dynamic().Header(28, BigEndianBytes(0xFFFFFFFF, 4))));
    EXPECT_EQ(0xFFFFFFFFU, m_Facts.header.maxTableEntries);
}

TEST(VhdType, IsThatOfTheFooter) {
    EXPECT_EQ(DiskType_VhdFixed, DiskTypeOfVhd(2));
    EXPECT_EQ(DiskType_VhdDynamic, DiskTypeOfVhd(3));
    EXPECT_EQ(DiskType_VhdDifferencing, DiskTypeOfVhd(4));
    for (const uint32_t type : {0U, 1U, 5U, 6U, 0xFFFFFFFFU})
        EXPECT_EQ(NoDiskType, DiskTypeOfVhd(type)) << type;
}

}  // namespace
