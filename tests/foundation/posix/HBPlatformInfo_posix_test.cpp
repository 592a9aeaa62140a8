#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <string>

#include "foundation/HBPlatformInfo.h"
#include "tests/support/TempDir.h"
#include "tests/support/posix/ChildProcess.h"
#include "tests/support/posix/ScopedEnvironment.h"

namespace {

constexpr const char* InEnvironment = "DISKSTREAM_VirtualServer_LinuxMetadataSupport";
constexpr const char* Section = "VirtualServer";
constexpr const char* Key = "LinuxMetadataSupport";
constexpr unsigned long Untouched = 4711;

// What `getNumber` gives, `Untouched` where the key doesn't exist.
unsigned long Number(const char* section = Section, const char* key = Key) {
    unsigned long value = Untouched;
    const int found = HBPlatformInfo::getNumber(section, key, &value);
    EXPECT_EQ(found != 0, value != Untouched) << "non-zero exactly when the value was set";
    return value;
}

std::string String(const char* section, const char* key) {
    std::string value = "untouched";
    const int found = HBPlatformInfo::getString(section, key, &value);
    EXPECT_EQ(found != 0, value != "untouched");
    return value;
}

// Nothing set in the environment, and a settings file of our own.
class HBPlatformInfoOnPosix : public testing::Test {
protected:
    void WriteSettings(const std::string& text) const { m_Dir.Write("settings", text); }

    const CTempDir m_Dir;

private:
    const CScopedEnvironment m_NoNumber{InEnvironment};
    const CScopedEnvironment m_NoDirectory{"DISKSTREAM_Base_dORBISTEMPDIR"};
    const CScopedEnvironment m_Config{"DISKSTREAM_CONFIG", m_Dir.File("settings")};
};

}  // namespace

TEST_F(HBPlatformInfoOnPosix, NothingIsSetWithoutAFile) {
    EXPECT_EQ(Number(), Untouched);
    EXPECT_EQ(String("VirtualServer", "LinuxMetadataSupport"), "untouched");
}

TEST_F(HBPlatformInfoOnPosix, ANumberComesFromTheEnvironmentOrTheFile) {
    const struct {
        const char* text;
        unsigned long number;
    } rows[] = {
        {"1", 1},
        {"0", 0},
        {"1048576", 1048576},
        {"0x100000", 0x100000},
        {"0X1f", 0x1F},
        {"010", 10},
        {"4294967295", 4294967295UL},
        {"", Untouched},
        {"-1", Untouched},
        {"+5", Untouched},
        {"0x-1", Untouched},
        {"one", Untouched},
        {"1x", Untouched},
        {"1 2", Untouched},
        {"0x", Untouched},
        {"0xg", Untouched},
        {"1.5", Untouched},
        {"99999999999999999999999", Untouched},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        WriteSettings(std::string("[VirtualServer]\nLinuxMetadataSupport = ") + row.text + "\n");
        EXPECT_EQ(Number(), row.number) << "from the file";
        WriteSettings("");
        const CScopedEnvironment set(InEnvironment, row.text);
        EXPECT_EQ(Number(), row.number) << "from the environment";
    }
}

TEST_F(HBPlatformInfoOnPosix, BlanksInTheEnvironmentMakeATextThatIsNoNumber) {
    for (const char* text : {" 5", "5 ", " -1", "\t-1"}) {
        const CScopedEnvironment set(InEnvironment, text);
        EXPECT_EQ(Number(), Untouched) << "[" << text << "]";
    }
}

TEST_F(HBPlatformInfoOnPosix, TheEnvironmentGoesBeforeTheFile) {
    WriteSettings("[VirtualServer]\nLinuxMetadataSupport = 1\n[Base]\ndORBISTEMPDIR = /from/file\n");
    EXPECT_EQ(Number(), 1U);
    EXPECT_EQ(String("Base", "dORBISTEMPDIR"), "/from/file");
    const CScopedEnvironment number(InEnvironment, "2");
    const CScopedEnvironment directory("DISKSTREAM_Base_dORBISTEMPDIR", "/from/environment");
    EXPECT_EQ(Number(), 2U);
    EXPECT_EQ(String("Base", "dORBISTEMPDIR"), "/from/environment");
}

TEST_F(HBPlatformInfoOnPosix, SectionsAndKeysAreTakenWithTheirOwnLetters) {
    WriteSettings("[VirtualServer]\nLinuxMetadataSupport = 1\n");
    EXPECT_EQ(Number("virtualserver", Key), Untouched);
    EXPECT_EQ(Number(Section, "linuxmetadatasupport"), Untouched);
    EXPECT_EQ(Number("Base", Key), Untouched);
    const CScopedEnvironment upper("DISKSTREAM_VIRTUALSERVER_LINUXMETADATASUPPORT", "5");
    EXPECT_EQ(Number(), 1U);
}

TEST_F(HBPlatformInfoOnPosix, TheFileIsReadInItsManyForms) {
    const struct {
        const char* name;
        const char* text;
        unsigned long number;
    } rows[] = {
        {"plain", "[VirtualServer]\nLinuxMetadataSupport=1", 1},
        {"blanks", "  [VirtualServer]  \n\t LinuxMetadataSupport \t=  1 \n", 1},
        {"lines from elsewhere", "[VirtualServer]\r\nLinuxMetadataSupport = 1\r\n", 1},
        {"comments",
         "# c\n; c\n[VirtualServer]\n#LinuxMetadataSupport = 2\n;LinuxMetadataSupport = 3\nLinuxMetadataSupport = 1\n",
         1},
        {"other keys before", "[VirtualServer]\nLinux = 2\nLinuxMetadataSupportX = 3\nLinuxMetadataSupport = 1\n", 1},
        {"another section before", "[Base]\nLinuxMetadataSupport = 2\n[VirtualServer]\nLinuxMetadataSupport = 1\n", 1},
        {"another section behind", "[VirtualServer]\nLinuxMetadataSupport = 1\n[Base]\nLinuxMetadataSupport = 2\n", 1},
        {"the section in two parts", "[VirtualServer]\na = 1\n[Base]\n[VirtualServer]\nLinuxMetadataSupport = 1\n", 1},
        {"the first of two", "[VirtualServer]\nLinuxMetadataSupport = 1\nLinuxMetadataSupport = 2\n", 1},
        {"no section", "LinuxMetadataSupport = 1\n", Untouched},
        {"another section", "[Base]\nLinuxMetadataSupport = 1\n", Untouched},
        {"a section that begins alike", "[VirtualServer2]\nLinuxMetadataSupport = 1\n", Untouched},
        {"no equals sign", "[VirtualServer]\nLinuxMetadataSupport 1\n", Untouched},
        {"no value", "[VirtualServer]\nLinuxMetadataSupport =\n", Untouched},
        {"nothing", "", Untouched},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        WriteSettings(row.text);
        EXPECT_EQ(Number(), row.number);
    }
}

TEST_F(HBPlatformInfoOnPosix, AStringIsTakenWholeWithItsEqualsSigns) {
    WriteSettings("[Base]\ndORBISTEMPDIR = /a folder/with = in it  \n");
    EXPECT_EQ(String("Base", "dORBISTEMPDIR"), "/a folder/with = in it");
}

TEST_F(HBPlatformInfoOnPosix, AnythingAtAllMayStandInTheFile) {
    WriteSettings(std::string("\0\xff[\n=\n[]\n = \n[VirtualServer\n", 28) + std::string(100000, 'x'));
    EXPECT_EQ(Number(), Untouched);
}

TEST_F(HBPlatformInfoOnPosix, ADirectoryInTheFilesPlaceSetsNothing) {
    const CScopedEnvironment config("DISKSTREAM_CONFIG", m_Dir.Path());
    EXPECT_EQ(Number(), Untouched);
}

TEST_F(HBPlatformInfoOnPosix, OtherKeysHaveNoDefault) {
    EXPECT_EQ(String("Base", "other"), "untouched");
    EXPECT_EQ(String("VirtualServer", "dORBISTEMPDIR"), "untouched");
}

TEST(HBPlatformInfoDefaultDirectory, BelongsToTheProcessAloneAndGoesAwayWithIt) {
    if (InChildProcess()) {
        const std::string path = String("Base", "dORBISTEMPDIR");
        struct stat status {};
        ASSERT_EQ(stat(path.c_str(), &status), 0) << path;
        EXPECT_TRUE(S_ISDIR(status.st_mode));
        EXPECT_EQ(status.st_mode & 07777U, 0700U);
        EXPECT_EQ(status.st_uid, geteuid());
        EXPECT_EQ(String("Base", "dORBISTEMPDIR"), path) << "one for the process";
        std::filesystem::create_directory(path + "/folder");
        WriteFileBytes(path + "/folder/file", "abc");
        std::cout << "<" << path << ">" << std::endl;
        return;
    }
    const CTempDir dir;
    const ChildOutcome_t child = RunThisTestInChild({{"TMPDIR", dir.Path()}, {"DISKSTREAM_CONFIG", dir.File("none")}});
    EXPECT_TRUE(child.passed) << child.output;
    EXPECT_NE(child.output.find("<" + dir.Path() + "/"), std::string::npos) << child.output;
    EXPECT_TRUE(dir.Entries().empty()) << dir.Entries()[0];
}

TEST(HBPlatformInfoDefaultDirectory, IsNotMadeUntilItIsAskedFor) {
    if (InChildProcess()) {
        unsigned long number = 0;
        EXPECT_EQ(HBPlatformInfo::getNumber("VirtualServer", "LinuxMetadataSupport", &number), 0);
        EXPECT_EQ(String("Base", "dORBISTEMPDIR"), "/set/already");
        return;
    }
    const CTempDir dir;
    const ChildOutcome_t child = RunThisTestInChild({{"TMPDIR", dir.Path()},
                                                     {"DISKSTREAM_CONFIG", dir.File("none")},
                                                     {"DISKSTREAM_Base_dORBISTEMPDIR", "/set/already"}});
    EXPECT_TRUE(child.passed) << child.output;
    EXPECT_TRUE(dir.Entries().empty());
}

TEST(HBPlatformInfoDefaultDirectory, IsAbsentWhereItCannotBeMade) {
    if (InChildProcess()) {
        EXPECT_EQ(String("Base", "dORBISTEMPDIR"), "untouched");
        return;
    }
    const CTempDir dir;
    const ChildOutcome_t child =
        RunThisTestInChild({{"TMPDIR", dir.File("none")}, {"DISKSTREAM_CONFIG", dir.File("none")}});
    EXPECT_TRUE(child.passed) << child.output;
}
