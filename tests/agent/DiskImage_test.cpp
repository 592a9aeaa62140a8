#include "agent/DiskImage.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/support/CowdBuilder.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"
#include "tests/support/VhdBuilder.h"
#include "tests/support/VmdkSparseBuilder.h"

namespace {

class DiskImage : public testing::Test {
protected:
    CZuError Open(const std::string& path) { return m_Image.Open(path, m_Options); }

    std::string Descriptor(const std::string& createType, const std::string& extentType, uint64_t sectors,
                           const std::string& name) const {
        return CVmdkDescriptorBuilder().CreateType(createType).Extent(sectors, extentType, name).WriteTo(m_Dir);
    }

    CTempDir m_Dir;
    ImageOptions_t m_Options;
    CDiskImage m_Image;
};

TEST_F(DiskImage, EveryServedCreateTypeOpensWithItsExtents) {
    const struct {
        const char* createType;
        const char* extentType;
        DiskType_t diskType;
        DiskType_t streamType;
        std::function<std::string()> write;
        uint64_t sectors;
    } rows[] = {
        {"monolithicSparse", "SPARSE", DiskType_MonolithicSparse, DiskType_MonolithicSparse,
         [&] { return CVmdkSparseBuilder().WriteTo(m_Dir, "x"); }, 256},
        {"twoGbMaxExtentSparse", "SPARSE", DiskType_TwoGbMaxExtentSparse, DiskType_TwoGbMaxExtentSparse,
         [&] { return CVmdkSparseBuilder().WriteTo(m_Dir, "x"); }, 256},
        {"vmfsSparse", "VMFSSPARSE", DiskType_VmfsSparse, DiskType_VmfsSparse,
         [&] { return CCowdBuilder().WriteTo(m_Dir, "x"); }, 64},
        {"monolithicFlat", "FLAT", DiskType_MonolithicFlat, DiskType_MonolithicFlat,
         [&] { return m_Dir.Write("x", std::string(5120, 'x')); }, 10},
        {"twoGbMaxExtentFlat", "FLAT", DiskType_TwoGbMaxExtentFlat, DiskType_TwoGbMaxExtentFlat,
         [&] { return m_Dir.Write("x", std::string(5120, 'x')); }, 10},
        {"vmfs", "VMFS", DiskType_Vmfs, DiskType_MonolithicFlat,
         [&] { return m_Dir.Write("x", std::string(5120, 'x')); }, 10},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.createType);
        row.write();
        ASSERT_OK(Open(Descriptor(row.createType, row.extentType, row.sectors, "x")));
        EXPECT_EQ(row.diskType, m_Image.DiskType());
        EXPECT_STREQ(row.createType, DiskTypeName(m_Image.DiskType()));
        EXPECT_EQ(row.sectors, m_Image.TotalSectors());
        ASSERT_EQ(1U, m_Image.Extents().size());
        EXPECT_EQ(row.streamType, m_Image.Extents()[0].diskType);
        EXPECT_EQ("x", m_Image.Extents()[0].name);
        EXPECT_EQ(m_Dir.File("x"), m_Image.Extents()[0].path);
        EXPECT_EQ(std::filesystem::file_size(m_Dir.File("x")), m_Image.Extents()[0].fileBytes);
        ASSERT_EQ(1U, m_Image.SmallFiles().size());
        EXPECT_EQ("disk.vmdk", m_Image.SmallFiles()[0].name);
        EXPECT_EQ(m_Dir.Read("disk.vmdk"), m_Image.SmallFiles()[0].bytes);
    }
}

TEST_F(DiskImage, OtherCreateTypesAreNotSupportedAndSaidByNumberAndName) {
    const struct {
        const char* createType;
        const char* text;
    } rows[] = {
        {"fullDevice", "Disk type not supported 7 (fullDevice)"},
        {"vmfsRaw", "Disk type not supported 8 (vmfsRaw)"},
        {"partitionedDevice", "Disk type not supported 9 (partitionedDevice)"},
        {"vmfsRawDeviceMap", "Disk type not supported 10 (vmfsRawDeviceMap)"},
        {"vmfsPassthroughRawDeviceMap", "Disk type not supported 11 (vmfsPassthroughRawDeviceMap)"},
    };
    m_Dir.Write("x", std::string(5120, 'x'));
    for (const auto& row : rows) {
        SCOPED_TRACE(row.createType);
        EXPECT_FAILS_SAYING(Open(Descriptor(row.createType, "FLAT", 10, "x")), m_Dir.File("disk.vmdk") + ": ");
        EXPECT_TRUE(FailsSaying(Open(m_Dir.File("disk.vmdk")), {"Disk type not supported", row.createType}));
    }
    EXPECT_FAILS_SAYING(Open(Descriptor("streamOptimized", "SPARSE", 10, "x")), m_Dir.File("disk.vmdk") + ": ");
}

TEST_F(DiskImage, EveryKindOfVhdOpensAsWhatItsFooterTells) {
    const struct {
        CVhdBuilder file;
        DiskType_t type;
    } rows[] = {{CVhdBuilder::Fixed(10), DiskType_VhdFixed},
                {CVhdBuilder::Dynamic(10), DiskType_VhdDynamic},
                {CVhdBuilder::Differencing(10), DiskType_VhdDifferencing}};
    for (const auto& row : rows) {
        SCOPED_TRACE(DiskTypeName(row.type));
        m_Options.type.reset();
        ASSERT_OK(Open(row.file.WriteTo(m_Dir)));
        EXPECT_EQ(row.type, m_Image.DiskType());
        EXPECT_EQ(VirtualProdType_HyperV, m_Image.Product());
        EXPECT_EQ(10U, m_Image.TotalSectors());
        ASSERT_EQ(1U, m_Image.Extents().size());
        EXPECT_EQ("disk.vhd", m_Image.Extents()[0].name);
        EXPECT_EQ(std::filesystem::file_size(m_Dir.File("disk.vhd")), m_Image.Extents()[0].fileBytes);
        EXPECT_EQ(0U, m_Image.SmallFiles().size());
        EXPECT_EQ(row.type == DiskType_VhdDifferencing, m_Image.HasParent());
        for (const auto& told : rows) {
            m_Options.type = told.type;
            if (told.type == row.type) {
                EXPECT_OK(Open(m_Dir.File("disk.vhd")));
            } else {
                EXPECT_FAILS_SAYING(Open(m_Dir.File("disk.vhd")), m_Dir.File("disk.vhd"), DiskTypeName(row.type),
                                    DiskTypeName(told.type));
            }
        }
    }
}

TEST_F(DiskImage, AnyFileIsARawDiskToThoseWhoSaySo) {
    m_Options.type = DiskType_PhysicalDisk;
    for (const std::string& bytes : {std::string(5120, 'x'), CVhdBuilder::Dynamic(10).Bytes(),
                                     CVmdkSparseBuilder().Bytes(), "conectix" + std::string(504, '\0')}) {
        SCOPED_TRACE(bytes.substr(0, 8));
        ASSERT_OK(Open(m_Dir.Write("file", bytes)));
        EXPECT_EQ(DiskType_PhysicalDisk, m_Image.DiskType());
        EXPECT_EQ(VirtualProdType_Physical, m_Image.Product());
        EXPECT_EQ(bytes.size() / 512, m_Image.TotalSectors());
    }
}

TEST_F(DiskImage, FilesOfNoKindAreRefused) {
    for (const std::string& bytes : {std::string(), std::string("x"), std::string("KDM"), std::string(512, 'x'),
                                     std::string(100000, '\0'), std::string("# Disk")}) {
        SCOPED_TRACE(bytes.size());
        EXPECT_FAILS_SAYING(Open(m_Dir.Write("file", bytes)), m_Dir.File("file"), "no disk image of a known kind");
    }
}

TEST_F(DiskImage, WhatIsNoFileIsRefused) {
    EXPECT_FAILS_SAYING(Open(m_Dir.File("missing")), m_Dir.File("missing"), "No such file");
    EXPECT_FAILS_SAYING(Open(m_Dir.Path()), m_Dir.Path());
    EXPECT_FAILS_SAYING(Open(""), "");
}

TEST_F(DiskImage, HeadersThatWouldBeMisreadAreRefusedByName) {
    const struct {
        const char* name;
        CVmdkSparseBuilder file;
        const char* text;
    } rows[] = {
        {"compressed flag", CVmdkSparseBuilder().Flags(0x10001), "compressed"},
        {"compressed flag and markers", CVmdkSparseBuilder().Flags(0x30001), "compressed"},
        {"algorithm without flag", CVmdkSparseBuilder().PutAt(77, std::string("\1\0", 2)), "compressed"},
        {"version 2", CVmdkSparseBuilder().Version(2), "version 2"},
        {"version 3", CVmdkSparseBuilder().Version(3), "version 3"},
        {"version 0", CVmdkSparseBuilder().Version(0), "version 0"},
        {"version all ones", CVmdkSparseBuilder().Version(0xFFFFFFFF), "version 4294967295"},
        {"grains of zeros", CVmdkSparseBuilder().Flags(5), "0x4"},
        {"markers alone", CVmdkSparseBuilder().Flags(0x20001), "0x20000"},
        {"an unknown flag", CVmdkSparseBuilder().Flags(0x41), "0x40"},
        {"the highest flag", CVmdkSparseBuilder().Flags(0x80000001), "0x80000000"},
        {"grains beyond reason", CVmdkSparseBuilder().Put64(20, uint64_t{1} << 40U), "1099511627776"},
        {"grains just too large", CVmdkSparseBuilder().Put64(20, 131072), "131072"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_FAILS_SAYING(Open(row.file.WriteTo(m_Dir)), m_Dir.File("sparse.vmdk") + ": ", row.text);
        EXPECT_FAILS_SAYING(Open(Descriptor("twoGbMaxExtentSparse", "SPARSE", 256, "sparse.vmdk")),
                            m_Dir.File("sparse.vmdk") + ": ", row.text);
    }
    EXPECT_FAILS_SAYING(Open(CCowdBuilder().Put32(16, 65537).WriteTo(m_Dir)), m_Dir.File("cowd.vmdk"), "65537");
}

// What the header check lets through, the reader of the extent judges. What both take has to come back right.
TEST_F(DiskImage, HeaderFieldsAtTheirLimitsAreRefusedOrDoNotMatter) {
    const struct {
        const char* name;
        uint64_t offset;
        size_t width;
    } fields[] = {{"magic", 0, 4},          {"capacity", 12, 8},        {"grain size", 20, 8},
                  {"descriptor at", 28, 8}, {"descriptor size", 36, 8}, {"entries", 44, 4},
                  {"redundant at", 48, 8},  {"directory at", 56, 8},    {"overhead", 64, 8},
                  {"unclean flag", 72, 1},  {"line end", 73, 4}};
    const CVmdkSparseBuilder sound = CVmdkSparseBuilder().Descriptor("# Disk DescriptorFile\n").Grain(1, 'x');
    std::string content(256 * 512, '\0');
    content.replace(4096, 4096, 4096, 'x');
    for (const auto& field : fields) {
        for (const uint64_t value : {uint64_t{0}, ~uint64_t{0}, uint64_t{1} << 63U, uint64_t{1} << 40U}) {
            SCOPED_TRACE(testing::Message() << field.name << " " << value);
            const CTempDir sets;
            const std::string path = CVmdkSparseBuilder(sound)
                                         .PutAt(field.offset, LittleEndianBytes(value, field.width))
                                         .WriteTo(m_Dir, "damaged.vmdk");
            const CZuError error = BackUp(path, sets.File("set"));
            if (error.IsErrorSet()) {
                EXPECT_FAILS_SAYING(error, path + ": ");
                EXPECT_EQ(std::vector<std::string>{}, sets.Entries());
                continue;
            }
            const bool isEmpty = field.offset == 12 && value == 0;
            ASSERT_OK(RestoreRaw(sets.File("set"), sets.File("raw")));
            EXPECT_SAME_BYTES(isEmpty ? "" : content, sets.Read("raw"));
        }
    }
}

TEST_F(DiskImage, TheTypeOfASparseFileIsFoundOrTold) {
    const std::string sparse = CVmdkSparseBuilder().WriteTo(m_Dir);
    const std::string cowd = CCowdBuilder().WriteTo(m_Dir);
    ASSERT_OK(Open(sparse));
    EXPECT_EQ(DiskType_MonolithicSparse, m_Image.DiskType());
    ASSERT_OK(Open(cowd));
    EXPECT_EQ(DiskType_VmfsSparse, m_Image.DiskType());
    m_Options.type = DiskType_TwoGbMaxExtentSparse;
    ASSERT_OK(Open(sparse));
    EXPECT_EQ(DiskType_TwoGbMaxExtentSparse, m_Image.DiskType());
    for (const DiskType_t type : {DiskType_MonolithicFlat, DiskType_Vmfs, DiskType_TwoGbMaxExtentFlat}) {
        m_Options.type = type;
        EXPECT_FAILS_SAYING(Open(sparse), sparse, "is a sparse extent, not", DiskTypeName(type));
    }
}

TEST_F(DiskImage, AToldTypeMustGoWithWhatTheFilesAre) {
    const std::string sparse = CVmdkSparseBuilder().WriteTo(m_Dir);
    const std::string cowd = CCowdBuilder().WriteTo(m_Dir);
    m_Options.type = DiskType_VmfsSparse;
    EXPECT_FAILS_SAYING(Open(sparse), sparse, "is a sparse extent, not vmfsSparse");
    m_Options.type = DiskType_MonolithicSparse;
    EXPECT_FAILS_SAYING(Open(cowd), cowd, "is a COWD extent, not monolithicSparse");

    CVmdkSparseBuilder().WriteTo(m_Dir, "x");
    m_Options.type = DiskType_TwoGbMaxExtentFlat;
    EXPECT_FAILS_SAYING(Open(Descriptor("twoGbMaxExtentSparse", "SPARSE", 256, "x")),
                        "the extent x is sparse, which doesn't go with the type twoGbMaxExtentFlat");
    m_Options.type = DiskType_TwoGbMaxExtentSparse;
    EXPECT_FAILS_SAYING(Open(Descriptor("monolithicFlat", "FLAT", 1, "x")),
                        "the extent x is flat, which doesn't go with the type twoGbMaxExtentSparse");
}

TEST_F(DiskImage, ADescriptorMayHaveSparseAndFlatExtentsBoth) {
    CVmdkSparseBuilder().WriteTo(m_Dir, "a");
    m_Dir.Write("b", std::string(5120, 'x'));
    for (const char* createType : {"monolithicFlat", "twoGbMaxExtentSparse"}) {
        SCOPED_TRACE(createType);
        ASSERT_OK(Open(CVmdkDescriptorBuilder()
                           .CreateType(createType)
                           .Extent(256, "SPARSE", "a")
                           .Extent(10, "FLAT", "b")
                           .WriteTo(m_Dir)));
        ASSERT_EQ(2U, m_Image.Extents().size());
        EXPECT_TRUE(m_Image.Extents()[0].diskType == DiskType_MonolithicSparse ||
                    m_Image.Extents()[0].diskType == DiskType_TwoGbMaxExtentSparse);
        EXPECT_EQ(DiskType_MonolithicFlat, m_Image.Extents()[1].diskType);
        EXPECT_EQ(266U, m_Image.TotalSectors());
    }
}

TEST_F(DiskImage, AFlatFileNeedsToBeToldItsType) {
    const std::string flat = m_Dir.Write("disk-flat.vmdk", std::string(5120, 'x'));
    EXPECT_FAILS_SAYING(Open(flat), "no disk image of a known kind", "--type raw");
    for (const DiskType_t type : {DiskType_MonolithicFlat, DiskType_Vmfs, DiskType_TwoGbMaxExtentFlat}) {
        m_Options.type = type;
        ASSERT_OK(Open(flat));
        EXPECT_EQ(type, m_Image.DiskType());
        EXPECT_EQ(10U, m_Image.TotalSectors());
    }
    for (const DiskType_t type : {DiskType_MonolithicSparse, DiskType_VmfsSparse, DiskType_TwoGbMaxExtentSparse}) {
        m_Options.type = type;
        EXPECT_FAILS_SAYING(Open(flat), flat, DiskTypeName(type));
    }
}

TEST_F(DiskImage, NamesOfTypesGoBothWays) {
    const std::vector<std::string> names = SelectableDiskTypeNames();
    EXPECT_EQ(11U, names.size());
    for (const std::string& name : names) {
        ASSERT_TRUE(DiskTypeFromName(name).has_value()) << name;
        EXPECT_EQ(name, DiskTypeName(*DiskTypeFromName(name)));
    }
    for (const char* name : {"", "MonolithicFlat", "VhdFixed", "Raw", "fullDevice", "streamOptimized"})
        EXPECT_FALSE(DiskTypeFromName(name).has_value()) << name;
    EXPECT_STREQ("unknown", DiskTypeName(DiskType_t(0)));
    EXPECT_STREQ("unknown", DiskTypeName(DiskType_t(1000)));
}

TEST_F(DiskImage, AnExtentMustHoldWhatItsDiskNeeds) {
    m_Dir.Write("x", std::string(5120, 'x'));
    ASSERT_OK(Open(Descriptor("monolithicFlat", "FLAT", 10, "x")));
    ASSERT_OK(Open(Descriptor("monolithicFlat", "FLAT", 9, "x")));
    EXPECT_EQ(9U, m_Image.TotalSectors());
    EXPECT_EQ(10U, m_Image.Extents()[0].totalSectors);
    EXPECT_FAILS_SAYING(Open(Descriptor("monolithicFlat", "FLAT", 11, "x")), m_Dir.File("x"), "10", "11", "cut short");
    CVmdkSparseBuilder().WriteTo(m_Dir, "x");
    EXPECT_FAILS_SAYING(Open(Descriptor("twoGbMaxExtentSparse", "SPARSE", 257, "x")), m_Dir.File("x"), "256", "257");
}

TEST_F(DiskImage, ACutFlatFileIsRefused) {
    const std::string disk = WriteFlatDisk(m_Dir, {DiskContent(300)});
    for (const uint64_t size : {0U, 1U, 511U, 512U, 299U * 512U, 300U * 512U - 1U}) {
        SCOPED_TRACE(size);
        m_Dir.Write("disk-flat.vmdk", DiskContent(300).substr(0, size));
        EXPECT_FAILS_SAYING(BackUp(disk, m_Dir.File("set")), m_Dir.File("disk-flat.vmdk"), "cut short");
        EXPECT_FALSE(std::filesystem::exists(m_Dir.File("set")));
    }
}

TEST_F(DiskImage, AFlatFileWithPartOfASectorIsRefused) {
    const std::string disk = WriteFlatDisk(m_Dir, {DiskContent(300)});
    m_Dir.Write("disk-flat.vmdk", DiskContent(300) + "x");
    EXPECT_FAILS_SAYING(BackUp(disk, m_Dir.File("set")), m_Dir.File("disk-flat.vmdk"), "multiple of sector size");
    EXPECT_FALSE(std::filesystem::exists(m_Dir.File("set")));
}

TEST_F(DiskImage, ADescriptorIsOfTwentyKiBAtMost) {
    m_Dir.Write("x", std::string(5120, 'x'));
    const std::string text = CVmdkDescriptorBuilder().CreateType("monolithicFlat").Extent(10, "FLAT", "x").Text();
    std::string filled = text + std::string(20479 - text.size(), ' ') + "\n";
    ASSERT_OK(Open(m_Dir.Write("disk.vmdk", filled)));
    EXPECT_FAILS_SAYING(Open(m_Dir.Write("disk.vmdk", filled + "\n")), m_Dir.File("disk.vmdk"), "larger than 20KB",
                        "20481");
    m_Dir.WriteHole("hole", uint64_t{1} << 40U);
    std::filesystem::remove(m_Dir.File("disk.vmdk"));
    m_Dir.Write("disk.vmdk", text);
    std::filesystem::resize_file(m_Dir.File("disk.vmdk"), uint64_t{1} << 40U);
    EXPECT_FAILS_SAYING(Open(m_Dir.File("disk.vmdk")), "larger than 20KB");
}

TEST_F(DiskImage, ADescriptorWithoutItsFirstCommentIsOne) {
    m_Dir.Write("x", std::string(5120, 'x'));
    const std::string text = "version=1\nCID=fffffffe\nparentCID=ffffffff\ncreateType=\"monolithicFlat\"\n";
    const CZuError error = Open(m_Dir.Write("disk.vmdk", text + "RW 10 FLAT \"x\" 0\n"));
    ASSERT_OK(error);
    EXPECT_EQ(10U, m_Image.TotalSectors());
}

TEST_F(DiskImage, ADescriptorMustNameExtentsThatAreThere) {
    EXPECT_FAILS_SAYING(Open(CVmdkDescriptorBuilder().CreateType("monolithicFlat").WriteTo(m_Dir)),
                        m_Dir.File("disk.vmdk"), "names no extents");
    EXPECT_FAILS_SAYING(Open(Descriptor("monolithicFlat", "FLAT", 10, "gone")), m_Dir.File("gone"), "No such file");
    std::filesystem::create_directory(m_Dir.File("sub"));
    EXPECT_FAILS_SAYING(Open(Descriptor("monolithicFlat", "FLAT", 10, "sub")), m_Dir.File("sub"));
}

TEST_F(DiskImage, AnExtentNamedTwiceIsRefused) {
    m_Dir.Write("x", std::string(5120, 'x'));
    const std::string path = CVmdkDescriptorBuilder().Extent(5, "FLAT", "x").Extent(5, "FLAT", "x").WriteTo(m_Dir);
    EXPECT_FAILS_SAYING(Open(path), path, "x", "twice");
}

TEST_F(DiskImage, OtherKindsOfExtentsAreRefusedByName) {
    m_Dir.Write("x", std::string(5120, 'x'));
    for (const char* type : {"ZERO", "VMFSRDM", "VMFSRAW"}) {
        SCOPED_TRACE(type);
        EXPECT_FAILS_SAYING(Open(Descriptor("monolithicFlat", type, 10, "x")), m_Dir.File("disk.vmdk"));
    }
}

TEST_F(DiskImage, ExtentsOutsideTheDirectoryAreOpenedOnlyIfAllowed) {
    const CTempDir outside;
    outside.Write("x", std::string(5120, 'x'));
    const std::string relative = "../" + std::filesystem::path(outside.Path()).filename().string() + "/x";
    for (const std::string& name : {outside.File("x"), relative}) {
        SCOPED_TRACE(name);
        m_Options.allowOutside = false;
        EXPECT_FAILS_SAYING(Open(Descriptor("monolithicFlat", "FLAT", 10, name)), m_Dir.File("disk.vmdk"), name,
                            "--allow-outside");
        m_Options.allowOutside = true;
        ASSERT_OK(Open(m_Dir.File("disk.vmdk")));
        EXPECT_EQ(10U, m_Image.TotalSectors());
    }
}

TEST_F(DiskImage, ALinkOutOfTheDirectoryIsFollowedOnlyIfAllowed) {
    const CTempDir outside;
    std::filesystem::create_symlink(outside.Write("x", std::string(5120, 'x')), m_Dir.File("x"));
    const std::string disk = Descriptor("monolithicFlat", "FLAT", 10, "x");
    EXPECT_FAILS_SAYING(Open(disk), disk, "leads out of the directory", "--allow-outside");
    m_Options.allowOutside = true;
    ASSERT_OK(Open(disk));
}

TEST_F(DiskImage, ALinkInsideTheDirectoryIsFollowed) {
    m_Dir.Write("y", std::string(5120, 'x'));
    std::filesystem::create_symlink("y", m_Dir.File("x"));
    ASSERT_OK(Open(Descriptor("monolithicFlat", "FLAT", 10, "x")));
}

TEST_F(DiskImage, ExtentsBelowTheDirectoryAreFoundWithEitherSeparator) {
    std::filesystem::create_directory(m_Dir.File("sub"));
    m_Dir.Write("sub/x", std::string(5120, 'x'));
    const struct {
        const char* written;
        const char* name;
    } rows[] = {{"sub/x", "sub/x"}, {"sub\\\\x", "sub\\x"}, {"./sub/x", "./sub/x"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.written);
        ASSERT_OK(Open(Descriptor("monolithicFlat", "FLAT", 10, row.written)));
        EXPECT_EQ(row.name, m_Image.Extents()[0].name);
    }
}

TEST_F(DiskImage, SumsThatNoDiskCanHaveAreRefused) {
    m_Dir.Write("x", std::string(5120, 'x'));
    for (const char* sectors : {"18446744073709551615", "9223372036854775808", "36028797018963968"}) {
        SCOPED_TRACE(sectors);
        const std::string path = CVmdkDescriptorBuilder()
                                     .CreateType("monolithicFlat")
                                     .Line(std::string("RW ") + sectors + " FLAT \"x\" 0")
                                     .WriteTo(m_Dir);
        EXPECT_FAILS_SAYING(Open(path), m_Dir.Path());
    }
    EXPECT_FAILS_SAYING(Open(CVmdkSparseBuilder().Put64(12, uint64_t{1} << 63U).WriteTo(m_Dir)),
                        m_Dir.File("sparse.vmdk"), "9223372036854775808");
}

TEST_F(DiskImage, TellsItsParentFromEitherPlaceOfTheDescriptor) {
    const std::string text = CVmdkDescriptorBuilder()
                                 .ParentCid("0172e8a4")
                                 .CreateType("monolithicSparse")
                                 .Line("parentFileNameHint=\"base.vmdk\"")
                                 .Extent(256, "SPARSE", "sparse.vmdk")
                                 .Text();
    ASSERT_OK(Open(CVmdkSparseBuilder().Descriptor(text).WriteTo(m_Dir)));
    EXPECT_TRUE(m_Image.HasParent());
    EXPECT_EQ("base.vmdk", m_Image.ParentName());
    ASSERT_OK(Open(m_Dir.Write("disk.vmdk", text)));
    EXPECT_TRUE(m_Image.HasParent());
    EXPECT_EQ("base.vmdk", m_Image.ParentName());
    ASSERT_OK(Open(CVmdkSparseBuilder().WriteTo(m_Dir)));
    EXPECT_FALSE(m_Image.HasParent());
}

// A line's word and what the file begins with may contradict each other. Either the disk is read
// as what it is, or it is refused; its bytes are never taken for others.
TEST_F(DiskImage, NeverReadsAnExtentAsAnotherKind) {
    CVmdkSparseBuilder().Grain(1, 'x').WriteTo(m_Dir, "hosted");
    CCowdBuilder().Grain(1, 'y').WriteTo(m_Dir, "cowd");
    m_Dir.Write("flat", DiskContent(256));
    std::string hosted(256 * 512, '\0');
    hosted.replace(4096, 4096, 4096, 'x');
    std::string cowd(64 * 512, '\0');
    cowd.replace(512, 512, 512, 'y');
    const struct {
        const char* file;
        uint64_t sectors;
        std::string content;
    } files[] = {{"hosted", 256, hosted}, {"cowd", 64, cowd}, {"flat", 256, DiskContent(256)}};
    for (const char* createType : {"monolithicSparse", "vmfsSparse", "monolithicFlat", "vmfs", "twoGbMaxExtentSparse",
                                   "twoGbMaxExtentFlat", "custom"}) {
        for (const char* line : {"FLAT", "VMFS", "SPARSE", "VMFSSPARSE"}) {
            for (const auto& file : files) {
                SCOPED_TRACE(testing::Message() << createType << " " << line << " " << file.file);
                const bool isFlatLine = std::string(line) == "FLAT" || std::string(line) == "VMFS";
                const std::string disk = Descriptor(createType, line, file.sectors, file.file);
                if (BackUp(disk, m_Dir.File("set"), true).IsErrorSet())
                    continue;
                ASSERT_OK(RestoreRaw(m_Dir.File("set"), m_Dir.File("raw"), true));
                // A flat line says that the file's bytes are the disk's, whatever they begin with.
                const std::string expected =
                    isFlatLine ? m_Dir.Read(file.file).substr(0, file.sectors * 512) : file.content;
                EXPECT_SAME_BYTES(expected, m_Dir.Read("raw"));
            }
        }
    }
}

}  // namespace
