#include "agent/CreateDisk.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/agent/AgentAssertions.h"
#include "tests/agent/WholeDisks.h"

namespace {

using Names_t = std::vector<std::string>;

class CreateDisk : public testing::Test {
protected:
    CZuError Create(const std::string& name, uint64_t sectors, ProductType_t product, bool replacing = false) {
        return CreateEmptyDisk(m_Dir.File(name), sectors, product, replacing, m_Files);
    }

    CTempDir m_Dir;
    Names_t m_Files{"what was there"};
};

TEST_F(CreateDisk, HoldsOnePartitionOfThatSize) {
    const struct {
        const char* name;
        ProductType_t product;
        Names_t files;
    } rows[] = {{"new.vhd", VirtualProdType_HyperV, {"new.vhd"}},
                {"new.vmdk", VirtualProdType_VMware, {"new-flat.vmdk", "new.vmdk"}},
                {"no suffix", VirtualProdType_VMware, {"no suffix-flat.vmdk", "no suffix"}}};
    for (const auto& row : rows) {
        for (const uint64_t sectors : {uint64_t{1}, uint64_t{2048}, uint64_t{20} << 21U}) {
            SCOPED_TRACE(testing::Message() << row.name << " of " << sectors);
            ASSERT_OK(Create(row.name, sectors, row.product, true));
            Names_t expected;
            for (const std::string& file : row.files)
                expected.push_back(m_Dir.File(file));
            EXPECT_EQ(expected, m_Files);
            CWholeDisk disk;
            ASSERT_OK(disk.Open(m_Dir.File(row.name), ImageOptions_t()));
            EXPECT_LE(63 + sectors, disk.TotalSectors());
            PartitionTable_t table;
            ASSERT_OK(ReadPartitionTable(disk, table));
            ASSERT_EQ(1U, table.partitions.size());
            EXPECT_EQ("1 07 63+" + std::to_string(sectors),
                      TextOf(table.partitions[0]).substr(0, 8 + std::to_string(sectors).size()));
            EXPECT_EQ(Names_t{}, table.warnings);
        }
    }
    EXPECT_EQ((Names_t{"new-flat.vmdk", "new.vhd", "new.vmdk", "no suffix", "no suffix-flat.vmdk"}), m_Dir.Entries());
}

TEST_F(CreateDisk, ReplacesNothingUnlessTold) {
    m_Dir.Write("a.vhd", "kept");
    EXPECT_FAILS_SAYING(Create("a.vhd", 100, VirtualProdType_HyperV), m_Dir.File("a.vhd"), "exists already");
    EXPECT_EQ("kept", m_Dir.Read("a.vhd"));
    m_Dir.Write("b-flat.vmdk", "kept");
    EXPECT_FAILS_SAYING(Create("b.vmdk", 100, VirtualProdType_VMware), m_Dir.File("b-flat.vmdk"), "exists already");
    EXPECT_EQ("kept", m_Dir.Read("b-flat.vmdk"));
    EXPECT_EQ((Names_t{"a.vhd", "b-flat.vmdk"}), m_Dir.Entries());
    EXPECT_EQ(Names_t{}, m_Files);
    ASSERT_OK(Create("a.vhd", 100, VirtualProdType_HyperV, true));
    EXPECT_LT(100U * 512, std::filesystem::file_size(m_Dir.File("a.vhd")));
}

TEST_F(CreateDisk, LeavesNothingAfterAFailure) {
    EXPECT_FAILS_SAYING(Create("gone/a.vhd", 100, VirtualProdType_HyperV), m_Dir.File("gone/a.vhd"));
    // An MBR has no room for such a partition.
    for (const uint64_t sectors : {uint64_t{1} << 32U, uint64_t{1} << 55U, ~uint64_t{0}}) {
        SCOPED_TRACE(sectors);
        for (const ProductType_t product : {VirtualProdType_HyperV, VirtualProdType_VMware}) {
            EXPECT_TRUE(Create("big", sectors, product).IsErrorSet());
            EXPECT_EQ(Names_t{}, m_Dir.Entries());
        }
    }
}

}  // namespace
