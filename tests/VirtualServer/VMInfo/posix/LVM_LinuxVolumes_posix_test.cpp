#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "tests/support/Bytes.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/LinuxDisks.h"
#include "tests/support/posix/ScopedEnvironment.h"

// What discovery makes of physical volumes where it looks for them, and the temporary file. The setting comes
// from the environment.

namespace {

using Texts_t = std::vector<std::string>;

constexpr char LinuxSupport[] = "DISKSTREAM_VirtualServer_LinuxMetadataSupport";
constexpr char TextDirectory[] = "DISKSTREAM_Base_dORBISTEMPDIR";

CLvm2TextBuilder Group(const std::string& name = "vg", uint64_t id = 1) {
    return CLvm2TextBuilder(name)
        .ExtentSectors(16)
        .PhysicalVolume("pv0", Lvm2Id(id), 100)
        .LogicalVolume("root", {{0, 6, {{"pv0", 1}}}});
}

CLvm2Builder PhysicalVolume(const std::string& group = "vg", uint64_t id = 1) {
    return CLvm2Builder(Lvm2Id(id)).Text(Group(group, id));
}

class LvmLinuxVolumes : public testing::Test {
protected:
    CZuError Discover(const std::vector<CImageFile>& images) {
        std::vector<LVM_HardDisk_t> disks;
        for (const CImageFile& image : images)
            disks.push_back(FlatHardDisk(m_Dir, image, "disk" + std::to_string(disks.size())));
        return m_Lvm.InitializeFromDisk(disks);
    }

    Texts_t VolumesOf(const std::vector<CImageFile>& images) {
        EXPECT_OK(Discover(images));
        return TextsOf(m_Lvm.GetVolumes());
    }

    std::string TextPath() const { return m_Texts.File("LinuxLVM2.txt"); }

    CTempDir m_Dir;
    CTempDir m_Texts;
    const CScopedEnvironment m_Support{LinuxSupport, "1"};
    const CScopedEnvironment m_Directory{TextDirectory, m_Texts.Path()};
    CLVM m_Lvm;
};

TEST_F(LvmLinuxVolumes, AWholeDiskIsAPhysicalVolume) {
    EXPECT_EQ(Texts_t{"vg-root type 142 [0-96 by 0 0:2064-2160 as 0-96]"}, VolumesOf({PhysicalVolume().Image()}));
    EXPECT_EQ(1, m_Lvm.GetVolumes().at(0).AllDiskFound);
}

TEST_F(LvmLinuxVolumes, AWholeDiskThatIsNoneIsAVolumeOfNothing) {
    EXPECT_EQ(Texts_t{"Volume1 type 0 [0-0 by 0 0:0-0 as 0-0]"}, VolumesOf({CLvm2Builder().LabelSector(9).Image()}));
}

TEST_F(LvmLinuxVolumes, ADiskWithAnMbrIsNoPhysicalVolume) {
    CImageFile image = PhysicalVolume().Image();
    image.Put(0, CBootRecordBuilder().Bytes());
    EXPECT_EQ(Texts_t{}, VolumesOf({image}));
}

// Every partition but NTFS is looked at, whatever its type. Those that are no physical volumes are volumes too.
TEST_F(LvmLinuxVolumes, PartitionsOfAnMbrAreLookedAt) {
    CImageFile image = CPartitionTableBuilder()
                           .Sectors(500000)
                           .Slot(0, 7, 63, 100)
                           .Slot(1, 0x0C, 200, 50)
                           .Slot(2, LinuxLvmType, 4096, 133120)
                           .Extended(3, 5, 200000, {{0, 0x83, 2048, 133120}, {200000, 7, 1, 40}})
                           .Image();
    PhysicalVolume().PutTo(image, 4096);
    PhysicalVolume("other", 2).PutTo(image, 202048);
    PhysicalVolume("hidden", 3).PutTo(image, 63);
    EXPECT_EQ(
        (Texts_t{"Volume1 type 7 [0-100 by 0 0:63-162 as 0-99]", "Volume2 type 7 [0-40 by 0 0:400001-400040 as 0-39]",
                 "Volume3 type 0 [0-49 by 0 0:200-249 as 0-49]",
                 "other-root type 142 [0-96 by 0 0:204112-204208 as 0-96]",
                 "vg-root type 142 [0-96 by 0 0:6160-6256 as 0-96]"}),
        VolumesOf({image}));
}

TEST_F(LvmLinuxVolumes, PartitionsOfAGptAreLookedAt) {
    const CGptBuilder gpt = CGptBuilder()
                                .Entry(0, BasicDataGuid, 2048, 4095)
                                .Entry(1, BasicDataGuid, 4096, 137215)
                                .Entry(2, BasicDataGuid, 137216, 137315);
    CImageFile image = CPartitionTableBuilder().Sectors(200000).Gpt(gpt).Ntfs(2048).Image();
    PhysicalVolume().PutTo(image, 4096);
    EXPECT_EQ((Texts_t{"Volume1 type 7 [0-2048 by 0 0:2048-4095 as 0-2047]",
                       "Volume2 type 0 [0-99 by 0 0:137216-137315 as 0-99]",
                       "vg-root type 142 [0-96 by 0 0:6160-6256 as 0-96]"}),
              VolumesOf({image}));
}

CLvm2TextBuilder GroupOfTwo() {
    return CLvm2TextBuilder("vg")
        .ExtentSectors(16)
        .PhysicalVolume("pv0", Lvm2Id(1), 100)
        .PhysicalVolume("pv1", Lvm2Id(2), 100)
        .LogicalVolume("both", {{0, 4, {{"pv0", 0}}}, {4, 4, {{"pv1", 2}}}})
        .LogicalVolume("first", {{0, 2, {{"pv0", 4}}}});
}

TEST_F(LvmLinuxVolumes, AGroupLiesOnSeveralDisks) {
    const CImageFile whole = CLvm2Builder(Lvm2Id(1)).Text(GroupOfTwo()).Image();
    CImageFile partition = LinuxDisk(CLvm2Builder(Lvm2Id(2)).Text(GroupOfTwo()).PutAt(2080 * 512, "here"));
    EXPECT_EQ((Texts_t{"vg-both type 142 [0-64 by 0 0:2048-2112 as 0-64] [64-128 by 0 1:2144-2208 as 64-128]",
                       "vg-first type 142 [0-32 by 0 0:2112-2144 as 0-32]"}),
              VolumesOf({whole, partition}));
    EXPECT_EQ((Texts_t{"vg-both type 142 [0-64 by 0 1:2048-2112 as 0-64] [64-128 by 0 0:2144-2208 as 64-128]",
                       "vg-first type 142 [0-32 by 0 1:2112-2144 as 0-32]"}),
              VolumesOf({partition, whole}));
    for (const LVM_Volume_t& volume : m_Lvm.GetVolumes())
        EXPECT_EQ(1, volume.AllDiskFound);
}

TEST_F(LvmLinuxVolumes, AVolumeOnAnAbsentDiskIsMarked) {
    EXPECT_EQ((Texts_t{"vg-both type 142 [0-64 by 0 0:2048-2112 as 0-64] [64-128 by 0 none:2080-2144 as 64-128]",
                       "vg-first type 142 [0-32 by 0 0:2112-2144 as 0-32]"}),
              VolumesOf({CLvm2Builder(Lvm2Id(1)).Text(GroupOfTwo()).Image()}));
    EXPECT_EQ(0, m_Lvm.GetVolumes().at(0).AllDiskFound);
    EXPECT_EQ(1, m_Lvm.GetVolumes().at(1).AllDiskFound);
    char byte = 0;
    EXPECT_REFUSED(m_Lvm.ReadVolumeData(m_Lvm.GetVolumes()[0], 0, &byte, 1, nullptr),
                   "Not all disks where found for this volume.");
}

TEST_F(LvmLinuxVolumes, ALogicalVolumesBytesAreThoseOfItsExtents) {
    const std::string bytes = PatternedBytes(96 * 512);
    VolumesOf({LinuxDisk(PhysicalVolume().PutAt(2064 * 512, bytes))});
    std::string read(bytes.size(), '?');
    ASSERT_OK(m_Lvm.ReadVolumeData(m_Lvm.GetVolumes().at(0), 0, read.data(), 96 * 512, nullptr));
    EXPECT_EQ(bytes, read);
}

TEST_F(LvmLinuxVolumes, ANameTakesNoNumber) {
    CImageFile image = CPartitionTableBuilder()
                           .Sectors(300000)
                           .Slot(0, 7, 63, 10)
                           .Slot(1, LinuxLvmType, 2048, 133120)
                           .Slot(2, 7, 200000, 10)
                           .Image();
    PhysicalVolume().PutTo(image, 2048);
    Texts_t names;
    EXPECT_OK(Discover({image}));
    for (const LVM_Volume_t& volume : m_Lvm.GetVolumes())
        names.emplace_back(volume.VolName);
    EXPECT_EQ((Texts_t{"Volume1", "Volume2", "vg-root"}), names);
}

TEST_F(LvmLinuxVolumes, AFailureOfTheParserEndsDiscovery) {
    const CLvm2Builder broken = PhysicalVolume().PutAt(4096 + 4, "x");
    EXPECT_REFUSED(Discover({CPartitionTableBuilder().Slot(0, 7, 63, 10).Image(), broken.Image()}),
                   "Linux Disk Parser Failed.");
    EXPECT_EQ(Texts_t{" type 7 [0-10 by 0 0:63-72 as 0-9]"}, TextsOf(m_Lvm.GetVolumes()))
        << "what was found stays, without a name";
    EXPECT_REFUSED(Discover({CLvm2Builder().Image()}), "Linux Disk Parser Failed.") << "it is of no group";
    EXPECT_REFUSED(Discover({CPartitionTableBuilder().Slot(0, LinuxLvmType, 2046, 2).Image()}),
                   "Linux Disk Parser Failed.")
        << "too near to the disk's end for a look at its label";
}

TEST_F(LvmLinuxVolumes, EachDiscoveryStartsAfresh) {
    const Texts_t expected = {"vg-root type 142 [0-96 by 0 0:2064-2160 as 0-96]"};
    EXPECT_EQ(expected, VolumesOf({PhysicalVolume().Image()}));
    EXPECT_EQ(expected, VolumesOf({PhysicalVolume().Image()}));
    m_Lvm.Reset();
    EXPECT_EQ(Texts_t{}, VolumesOf({}));
}

TEST_F(LvmLinuxVolumes, WithoutTheSettingThereAreNone) {
    const CScopedEnvironment off(LinuxSupport);
    CLVM lvm;
    std::vector<LVM_HardDisk_t> disks = {FlatHardDisk(m_Dir, LinuxDisk(PhysicalVolume()), "partition")};
    EXPECT_OK(lvm.InitializeFromDisk(disks));
    EXPECT_TRUE(lvm.GetVolumes().empty());
    disks = {FlatHardDisk(m_Dir, PhysicalVolume().Image(), "whole")};
    EXPECT_CONDITION_TEXT(lvm.InitializeFromDisk(disks), 7, 6001, 1, "MBR signature does not match");
    EXPECT_EQ(Texts_t{}, m_Texts.Entries()) << "no text was written";
}

unsigned int ModeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(0, lstat(path.c_str(), &status)) << path;
    return status.st_mode;
}

TEST_F(LvmLinuxVolumes, TheTextIsTheOwnersAlone) {
    const mode_t before = umask(0);
    EXPECT_EQ(1U, VolumesOf({PhysicalVolume().Image()}).size());
    umask(before);
    EXPECT_EQ(Texts_t{"LinuxLVM2.txt"}, m_Texts.Entries());
    EXPECT_EQ(unsigned{S_IFREG} | 0600U, ModeOf(TextPath()));
    EXPECT_EQ(Group().Text() + std::string(1, '\0'), m_Texts.Read("LinuxLVM2.txt"));
}

TEST_F(LvmLinuxVolumes, TheFileThatStandsInItsPlaceGoes) {
    m_Texts.Write("LinuxLVM2.txt", std::string(100000, 'x'));
    std::filesystem::permissions(TextPath(), std::filesystem::perms::all);
    std::filesystem::create_hard_link(TextPath(), m_Texts.File("other name"));
    EXPECT_EQ(1U, VolumesOf({PhysicalVolume().Image()}).size());
    EXPECT_EQ(unsigned{S_IFREG} | 0600U, ModeOf(TextPath()));
    EXPECT_EQ(100000U, m_Texts.Read("other name").size()) << "the file itself isn't written to";
}

TEST_F(LvmLinuxVolumes, ALinkInItsPlaceIsNotFollowed) {
    m_Texts.Write("target", "untouched");
    for (const char* const target : {"target", "none"}) {
        std::filesystem::remove(TextPath());
        std::filesystem::create_symlink(m_Texts.File(target), TextPath());
        EXPECT_EQ(1U, VolumesOf({PhysicalVolume().Image()}).size());
        EXPECT_EQ(unsigned{S_IFREG} | 0600U, ModeOf(TextPath()));
    }
    EXPECT_EQ("untouched", m_Texts.Read("target"));
    EXPECT_EQ((Texts_t{"LinuxLVM2.txt", "target"}), m_Texts.Entries());
}

// Somebody who puts a link to a file in place just before a file is made.
class CLinkingFiles : public CFaultyFiles {
public:
    CLinkingFiles(std::string target, std::string link) : m_Target(std::move(target)), m_Link(std::move(link)) {}

    int Open(const char* name, int flags, int mode, int& fd) override {
        if ((flags & OpenCreating) != 0)
            std::filesystem::create_symlink(m_Target, m_Link);
        return CFaultyFiles::Open(name, flags, mode, fd);
    }

private:
    const std::string m_Target;
    const std::string m_Link;
};

TEST_F(LvmLinuxVolumes, ALinkThatComesMeanwhileIsNotFollowedEither) {
    m_Texts.Write("target", "untouched");
    std::vector<LVM_HardDisk_t> disks = {FlatHardDisk(m_Dir, PhysicalVolume().Image())};
    const CLinkingFiles linking(m_Texts.File("target"), TextPath());
    EXPECT_REFUSED(m_Lvm.InitializeFromDisk(disks), "Linux Disk Parser Failed.");
    EXPECT_EQ("untouched", m_Texts.Read("target"));
}

TEST_F(LvmLinuxVolumes, AFifoInItsPlaceDoesNotHoldDiscoveryUp) {
    ASSERT_EQ(0, mkfifo(TextPath().c_str(), 0600));
    EXPECT_EQ(1U, VolumesOf({PhysicalVolume().Image()}).size());
    EXPECT_EQ(unsigned{S_IFREG} | 0600U, ModeOf(TextPath()));
}

TEST_F(LvmLinuxVolumes, WithoutARoomForTheTextDiscoveryFails) {
    std::filesystem::create_directory(TextPath());
    EXPECT_REFUSED(Discover({PhysicalVolume().Image()}), "Linux Disk Parser Failed.");
    EXPECT_EQ(Texts_t{"LinuxLVM2.txt"}, m_Texts.Entries());
    const CScopedEnvironment nowhere(TextDirectory, m_Texts.File("none"));
    EXPECT_REFUSED(Discover({PhysicalVolume().Image()}), "Linux Disk Parser Failed.");
}

// It is of this process alone and goes with it.
TEST_F(LvmLinuxVolumes, WithoutASettingTheTextLiesInADirectoryOfTheProcess) {
    const CScopedEnvironment unset(TextDirectory);
    EXPECT_EQ(1U, VolumesOf({PhysicalVolume().Image()}).size());
    EXPECT_EQ(Texts_t{}, m_Texts.Entries());
}

}  // namespace
