#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <string>

#include "VirtualServer/VMInfo/VmdkVcb4ExtentReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/FakeVMInfo.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/MetadataRecordText.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"

namespace {

constexpr uint64_t Sector = 512;
constexpr char Corrupted[] = "Metadata header is corrupted";

// The record of a disk of `sectors` sectors has one more.
std::string RecordOf(uint64_t sectors, const std::string& body = "") {
    return MetadataRecordText("VDVWVD10", sectors + 1, body);
}

class VmdkVcb4Create : public testing::Test {
protected:
    CZuError Create(const std::string& name, const std::string& record) {
        CAutoMemory<char> metadata = BufferOf(record);
        return m_Reader.CreateDisk(name.c_str(), VwExtentTypeFlat, metadata);
    }
    CZuError Write(uint64_t number, unsigned int sectors, const std::string& bytes) {
        CAutoMemory<char> data = BufferOf(bytes);
        return m_Reader.WriteBlock(number, sectors, data);
    }

    bool Has(const std::string& name) const { return std::filesystem::exists(m_Dir.File(name)); }

    CTempDir m_Dir;
    CFakeVMInfo m_Server;
    CVmdkVcb4ExtentReader m_Reader;
};

TEST_F(VmdkVcb4Create, ARecordThatIsNoneIsRefusedAndMakesNothing) {
    const std::string sound = RecordOf(100, "uuid = \"1\"");
    std::string upperCase = MetadataRecordText("VDVWVD10", 101, std::string(0xA - 2 + 0x80, 'x'));
    upperCase.replace(8, 8, "000000AA");
    const std::string rows[] = {
        "",
        sound.substr(0, 31),
        "VDVWFT10" + sound.substr(8),
        sound + "x",
        sound.substr(0, sound.size() - 1),
        upperCase,
        MetadataRecordText("VDVWVD10", 0, ""),
        MetadataRecordText("VDVWVD10", ~uint64_t{0}, ""),
    };
    for (const std::string& record : rows) {
        SCOPED_TRACE(record.substr(0, 32));
        EXPECT_REFUSED(Create(m_Dir.File("disk.vmdk"), record), Corrupted);
        m_Reader.SetVMInfo(&m_Server, "a", "b");
        EXPECT_REFUSED(Create("disk", record), Corrupted);
        m_Reader.SetVMInfo(nullptr, "", "");
    }
    EXPECT_TRUE(m_Server.calls.empty());
    EXPECT_FALSE(Has("disk.vmdk"));
}

TEST_F(VmdkVcb4Create, ANullNameIsRefusedFirst) {
    CAutoMemory<char> metadata;
    EXPECT_REFUSED(m_Reader.CreateDisk(nullptr, VwExtentTypeFlat, metadata), "Invalid Parameter");
}

TEST_F(VmdkVcb4Create, TheServerGetsTheBaseNameAndTheSizeInBytes) {
    m_Reader.SetVMInfo(&m_Server, "first", "second");
    ASSERT_OK(Create("[store] folder\\sub/disk.vmdk", RecordOf(100)));
    EXPECT_EQ("CreateVmdkFile(first|second|sub/disk.vmdk)", m_Server.calls.at(0));
    EXPECT_EQ(100 * Sector, m_Server.createdBytes);
    EXPECT_EQ(512U, m_Reader.GetBlockSize());
    EXPECT_EQ(101U, m_Reader.GetTotalSectors()) << "as the record has it";
}

TEST_F(VmdkVcb4Create, AServerThatDoesNotMakeTheDiskHasItsText) {
    m_Reader.SetVMInfo(&m_Server, "", "");
    m_Server.failing = "CreateVmdkFile";
    EXPECT_REFUSED(Create("disk", RecordOf(100)), "Create VMDK Failed");
}

TEST_F(VmdkVcb4Create, ADiskOfTheServerIsWrittenToItsLastSector) {
    m_Reader.SetVMInfo(&m_Server, "", "");
    m_Reader.SetBlockSize(8);
    ASSERT_OK(Create("disk", RecordOf(12)));
    ASSERT_OK(Write(0, 8, PatternedBytes(8 * Sector, 1)));
    ASSERT_OK(Write(1, 8, PatternedBytes(8 * Sector, 2)));
    EXPECT_CONDITION(Write(2, 8, "x"), 3, 3001, 1);
    EXPECT_SAME_BYTES(PatternedBytes(8 * Sector, 1) + PatternedBytes(8 * Sector, 2).substr(0, 4 * Sector),
                      m_Server.bytes);
}

TEST_F(VmdkVcb4Create, ABackupAndARestoreAgreeOnTheSize) {
    CFakeVMInfo source(PatternedBytes(100 * Sector));
    CVmdkVcb4ExtentReader reader;
    reader.SetVMInfo(&source, "", "");
    ASSERT_OK(reader.OpenDisk("disk", 0, VwExtentTypeSparse));
    CAutoMemory<char> metadata;
    ASSERT_OK(reader.GetMetadataInfo(metadata));
    m_Reader.SetVMInfo(&m_Server, "", "");
    ASSERT_OK(m_Reader.CreateDisk("disk", VwExtentTypeFlat, metadata));
    EXPECT_EQ(100 * Sector, m_Server.createdBytes);
}

TEST_F(VmdkVcb4Create, WithoutAServerADescriptorAndAFlatFileAreMade) {
    const std::string body = "adapterType = \"lsilogic\";geometry.heads = \"16\"";
    ASSERT_OK(Create(m_Dir.Path() + "\\disk.vmdk", RecordOf(100, body)));
    EXPECT_EQ("# Disk DescriptorFile\n"
              "version=3\n"
              "encoding=\"UTF-8\"\n"
              "CID=ffffffff\n"
              "parentCID=ffffffff\n"
              "createType=\"vmfs\"\n"
              "\n"
              "#Extent description\n"
              "RW 100 VMFS \"disk-flat.vmdk\"\n"
              "\n"
              "# The Disk Data Base\n"
              "#DDB\n"
              "\n"
              "ddb.adapterType = \"lsilogic\"\n"
              "ddb.geometry.heads = \"16\"\n",
              m_Dir.Read("disk.vmdk"));
    EXPECT_EQ(std::string(100 * Sector, '\0'), m_Dir.Read("disk-flat.vmdk"));
}

TEST_F(VmdkVcb4Create, FilesThatStandThereAreReplaced) {
    m_Dir.Write("disk.vmdk", std::string(5000, 'x'));
    m_Dir.Write("disk-flat.vmdk", std::string(5000, 'x'));
    ASSERT_OK(Create(m_Dir.Path() + "\\disk.vmdk", RecordOf(2)));
    EXPECT_EQ(std::string::npos, m_Dir.Read("disk.vmdk").find('x' + std::string("x")));
    EXPECT_EQ(std::string(2 * Sector, '\0'), m_Dir.Read("disk-flat.vmdk"));
}

TEST_F(VmdkVcb4Create, TheLocalNamesFollowFromTheNameGiven) {
    const struct {
        const char* given;
        const char* descriptor;
        const char* flat;
    } rows[] = {
        {"\\a.vmdk", "a.vmdk", "a-flat.vmdk"},
        {"\\b.c.vmdk", "b.c.vmdk", "b.c-flat.vmdk"},
        {"\\plain", "plain", "plain-flat.vmdk"},
        {"\\ds/vm/e.vmdk", "ds_vm_e.vmdk", "ds_vm_e-flat.vmdk"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.given);
        m_Reader = CVmdkVcb4ExtentReader();
        ASSERT_OK(Create(m_Dir.Path() + row.given, RecordOf(1)));
        EXPECT_TRUE(Has(row.descriptor));
        EXPECT_TRUE(Has(row.flat));
    }
}

TEST_F(VmdkVcb4Create, AFullStopInAFoldersNameIsNotTheNames) {
    std::filesystem::create_directory(m_Dir.File("v1.5"));
    ASSERT_OK(Create(m_Dir.Path() + "\\v1.5\\disk", RecordOf(1)));
    EXPECT_TRUE(Has("v1.5/disk"));
    EXPECT_TRUE(Has("v1.5/disk-flat.vmdk"));
}

TEST_F(VmdkVcb4Create, TheLocalFileHasTheNameAndIsWrittenToTheDisksEnd) {
    m_Reader.SetBlockSize(8);
    const std::string name = m_Dir.Path() + "\\disk.vmdk";
    ASSERT_OK(Create(name, RecordOf(12)));
    std::string fileName;
    m_Reader.GetFileName(fileName);
    EXPECT_EQ(m_Dir.Path() + "\\disk-flat.vmdk", fileName);
    ASSERT_OK(Write(0, 8, PatternedBytes(700, 1)));
    ASSERT_OK(Write(1, 8, PatternedBytes(8 * Sector, 2)));
    EXPECT_CONDITION(Write(2, 8, "x"), 3, 3001, 1);
    EXPECT_SAME_BYTES(PatternedBytes(700, 1) + std::string(8 * Sector - 700, '\0') +
                          PatternedBytes(8 * Sector, 2).substr(0, 4 * Sector),
                      m_Dir.Read("disk-flat.vmdk"));
}

TEST_F(VmdkVcb4Create, ASecondLocalDiskIsRefused) {
    ASSERT_OK(Create(m_Dir.Path() + "\\disk.vmdk", RecordOf(1)));
    EXPECT_REFUSED(Create(m_Dir.Path() + "\\other.vmdk", RecordOf(1)), "Object already have an open file.");
}

TEST_F(VmdkVcb4Create, AFullFileSystemIsAConditionOfItsOwn) {
    ASSERT_OK(Create(m_Dir.Path() + "\\disk.vmdk", RecordOf(100)));
    {
        const CFaultyFiles faulty(Fault_t{FaultOp::Write, 0, 28});
        EXPECT_CONDITION(Write(0, 8, "x"), 3, 3001, 4);
    }
    const CFaultyFiles faulty(Fault_t{FaultOp::Write, 0, EIO});
    EXPECT_SYSTEM_ERROR(Write(0, 8, "x"), EIO);
}

TEST_F(VmdkVcb4Create, EveryFailureWhileTheLocalDiskIsMadeReachesTheCallerAndClosesTheDisk) {
    for (const FaultOp op : {FaultOp::Open, FaultOp::Write, FaultOp::Truncate}) {
        WalkFailures(op, [&] {
            m_Reader = CVmdkVcb4ExtentReader();
            CZuError error = Create(m_Dir.Path() + "\\disk.vmdk", RecordOf(100, "a = \"b\""));
            if (error.IsErrorSet() && op != FaultOp::Write) {
                EXPECT_FAILURE(Write(0, 8, "x"));
            }
            return error;
        });
    }
}

TEST_F(VmdkVcb4Create, ADiskThatCouldNotBeMadeCanBeTriedAgain) {
    {
        const CFaultyFiles faulty(Fault_t{FaultOp::Truncate, 0, EIO});
        EXPECT_SYSTEM_ERROR(Create(m_Dir.Path() + "\\disk.vmdk", RecordOf(100)), EIO);
    }
    EXPECT_OK(Create(m_Dir.Path() + "\\disk.vmdk", RecordOf(100)));
}

TEST_F(VmdkVcb4Create, TheSettingsOfARecordComeBack) {
    DiskGeometry_t geometry{};
    DiskProvisioningType_t provisioning = DiskProvisioning_Unknown;
    std::string adapterType;
    std::string uuid;
    std::string version;
    CAutoMemory<char> metadata = BufferOf(RecordOf(
        100,
        "thinProvisioned = \"1\";ADAPTERTYPE = \"lsi=logic\"; geometry.Cylinders = \"1044\" ;geometry.heads = \"255\";"
        "geometry.sectors = \"63\";uuid = \"60 00 \\\"C2\";virtualHWVersion=8;geometry.heads2 = "
        "\"9\";lonely;uuid=b=c"));
    ASSERT_OK(m_Reader.ParseDiskMetaData(metadata, geometry, provisioning, adapterType, uuid, version));
    EXPECT_EQ(1044U, geometry.cylinders);
    EXPECT_EQ(255U, geometry.heads);
    EXPECT_EQ(63U, geometry.sectors);
    EXPECT_EQ(DiskProvisioning_Thin, provisioning);
    EXPECT_EQ("lsi=logic", adapterType);
    EXPECT_EQ("60 00 \"C2", uuid);
    EXPECT_EQ("8", version);
}

TEST_F(VmdkVcb4Create, WithoutItsKeyADiskIsThickAndTheRestStays) {
    for (const std::string body : {"", "thinProvisioned = \"0\"", "thinProvisioned = \"11\"", "thin = \"1\""}) {
        DiskGeometry_t geometry{1, 2, 3};
        DiskProvisioningType_t provisioning = DiskProvisioning_Unknown;
        std::string texts[3] = {"kept", "kept", "kept"};
        CAutoMemory<char> metadata = BufferOf(RecordOf(100, body));
        ASSERT_OK(m_Reader.ParseDiskMetaData(metadata, geometry, provisioning, texts[0], texts[1], texts[2]));
        EXPECT_EQ(DiskProvisioning_Thick, provisioning);
        EXPECT_EQ(2U, geometry.heads);
        EXPECT_EQ("kept", texts[0] == texts[1] && texts[1] == texts[2] ? texts[0] : "changed");
    }
}

TEST_F(VmdkVcb4Create, SettingsOfARecordThatIsNoneAreRefused) {
    DiskGeometry_t geometry{};
    DiskProvisioningType_t provisioning = DiskProvisioning_Unknown;
    std::string text;
    CAutoMemory<char> metadata = BufferOf(RecordOf(100) + "x");
    EXPECT_REFUSED(m_Reader.ParseDiskMetaData(metadata, geometry, provisioning, text, text, text), Corrupted);
}

}  // namespace
