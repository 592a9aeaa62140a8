#include "agent/detail/FileSystems.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/agent/WholeDisks.h"
#include "tests/support/Bytes.h"

namespace {

class FileSystems : public testing::Test {
protected:
    // The name of what begins at sector `first` of a disk of these bytes.
    std::string NameOf(const std::string& bytes, uint64_t first = 0, uint64_t sectors = ~uint64_t{0} >> 1U) const {
        CWholeDisk disk;
        std::string whole = bytes;
        whole.resize((whole.size() + 511) / 512 * 512, '\0');
        EXPECT_OK(disk.Open(m_Dir.Write("disk", whole), RawUnlessKnown()));
        std::string name = "untouched";
        RecognizeFileSystem(disk, first, sectors, name);
        return name;
    }

    CTempDir m_Dir;
};

constexpr size_t VolumeBytes = 70000;

struct Mark_t {
    const char* name;
    size_t offset;
    std::string bytes;
};

// As the makers of each describe it.
const Mark_t Marks[] = {
    {"ntfs", 3, "NTFS    "},
    {"exfat", 3, "EXFAT   "},
    {"refs", 3, std::string("ReFS\0\0\0\0", 8)},
    {"bitlocker", 3, "-FVE-FS-"},
    {"fat32", 0x52, "FAT32   "},
    {"fat16", 0x36, "FAT16   "},
    {"fat12", 0x36, "FAT12   "},
    {"xfs", 0, "XFSB"},
    {"luks", 0, "LUKS\xBA\xBE"},
    {"squashfs", 0, "hsqs"},
    {"lvm2", 512, "LABELONE"},
    {"ext2", 1024 + 56, "\x53\xEF"},
    {"hfsplus", 1024, std::string("H+\0\4", 4)},
    {"hfsplus", 1024, std::string("HX\0\5", 4)},
    {"swap", 4096 - 10, "SWAPSPACE2"},
    {"iso9660", 32768 + 1, "CD001"},
    {"btrfs", 65536 + 64, "_BHRfS_M"},
    {"md", 4096, "\xFC\x4E\x2B\xA9"},
};

TEST_F(FileSystems, AreKnownByTheirMarks) {
    for (const Mark_t& mark : Marks) {
        SCOPED_TRACE(mark.name);
        std::string bytes(VolumeBytes, '\0');
        PutBytes(bytes, mark.offset, mark.bytes);
        EXPECT_EQ(mark.name, NameOf(bytes));
        EXPECT_EQ(mark.name, NameOf(std::string(5 * 512, 'x') + bytes, 5));
        EXPECT_EQ("", NameOf(std::string(1, '\0') + bytes)) << "one byte behind its place";
        bytes[mark.offset] = static_cast<char>(bytes[mark.offset] ^ 1);
        EXPECT_EQ("", NameOf(bytes)) << "one bit off";
    }
}

TEST_F(FileSystems, MarksBehindTheEndDoNotCount) {
    for (const Mark_t& mark : Marks) {
        SCOPED_TRACE(mark.name);
        std::string bytes(VolumeBytes, '\0');
        PutBytes(bytes, mark.offset, mark.bytes);
        const uint64_t lastSector = (mark.offset + mark.bytes.size() - 1) / 512;
        EXPECT_EQ("", NameOf(bytes, 0, lastSector)) << "the partition ends before it";
        if (lastSector != 0) {
            EXPECT_EQ("", NameOf(bytes.substr(0, lastSector * 512))) << "the disk ends before it";
        }
    }
}

// Which of the three an ext file system is, its features tell.
TEST_F(FileSystems, ExtFileSystemsAreToldByTheirFeatures) {
    const struct {
        const char* name;
        uint32_t compatible;
        uint32_t incompatible;
        uint32_t readOnly;
    } rows[] = {
        {"ext2", 0x38, 0x2, 0x1},     {"ext3", 0x3C, 0x6, 0x3},  {"ext3", 0x4, 0, 0},
        {"ext4", 0x3C, 0x2C2, 0x46B}, {"ext4", 0x38, 0x40, 0x1}, {"ext4", 0x3C, 0x6, 0x400U},
    };
    for (const auto& row : rows) {
        std::string bytes(8192, '\0');
        PutLe16(bytes, 1024 + 56, 0xEF53);
        PutLe32(bytes, 1024 + 92, row.compatible);
        PutLe32(bytes, 1024 + 96, row.incompatible);
        PutLe32(bytes, 1024 + 100, row.readOnly);
        EXPECT_EQ(row.name, NameOf(bytes)) << row.compatible << " " << row.incompatible << " " << row.readOnly;
    }
}

TEST_F(FileSystems, NothingIsKnownOutsideTheDisk) {
    std::string bytes(1024, '\0');
    PutBytes(bytes, 3, "NTFS    ");
    EXPECT_EQ("", NameOf(bytes, 2));
    EXPECT_EQ("", NameOf(bytes, ~uint64_t{0}));
    EXPECT_EQ("ntfs", NameOf(bytes, 0, 1));
}

TEST(VolumeBootSector, IsOneThatBeginsAFileSystem) {
    for (const Mark_t& mark : Marks) {
        SCOPED_TRACE(mark.name);
        char sector[512] = {};
        if (mark.offset >= sizeof(sector))
            continue;
        EXPECT_FALSE(IsVolumeBootSector(sector));
        std::memcpy(sector + mark.offset, mark.bytes.data(), mark.bytes.size());
        EXPECT_TRUE(IsVolumeBootSector(sector));
    }
}

}  // namespace
