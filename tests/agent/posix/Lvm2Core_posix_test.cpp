#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "tests/agent/ManagedVolumes.h"
#include "tests/support/Lvm2Disks.h"
#include "tests/support/posix/ScopedEnvironment.h"

// Logical volumes of one segment, which the core reads rightly inside of one stripe: both have the same names
// and bytes for them. The core looks for them where its settings say so, and these come from the environment.

namespace {

class Lvm2Core : public CManagedVolumesTest {
protected:
    // The same names and bytes, sector by sector. Of each volume the core tells one sector too many.
    void ExpectAgreesWithCore(const Texts_t& names) {
        CLVM core;
        ASSERT_OK(core.InitializeFromDisk(m_CoreDisks));
        ASSERT_EQ(names.size(), core.GetVolumes().size());
        EXPECT_EQ(names, Names());
        for (const LVM_Volume_t& volume : core.GetVolumes()) {
            SCOPED_TRACE(volume.VolName);
            const VolumeInfo_t& ours = Volume(volume.VolName);
            EXPECT_STREQ(volume.VolName, ours.layout.VolName);
            EXPECT_EQ(volume.SystemID, ours.layout.SystemID);
            ASSERT_EQ(volume.Segments.back().LBAEnd, ours.sectors);
            for (uint64_t sector = 0; sector < ours.sectors; ++sector)
                EXPECT_SAME_BYTES(CoreSector(core, volume, sector), Read(ours, sector * 512, 512)) << sector;
        }
    }

    CTempDir m_Texts;
    const CScopedEnvironment m_Support{"DISKSTREAM_VirtualServer_LinuxMetadataSupport", "1"};
    const CScopedEnvironment m_Directory{"DISKSTREAM_Base_dORBISTEMPDIR", m_Texts.Path()};
};

std::string OneSegmentEach() {
    return GroupOf(3)
        .LogicalVolume("root", {{0, 5, {{"pv1", 7}}}})
        .LogicalVolume("data", {{0, 6, {{"pv1", 20}, {"pv2", 30}, {"pv0", 40}}, 4}})
        .LogicalVolume("logs", {{0, 4, {{"pv2", 1}, {"pv0", 2}}, 16}})
        .Text();
}

TEST_F(Lvm2Core, AgreesOnWholeDisks) {
    for (size_t index = 0; index < 3; ++index)
        AddDisk(WholePv(index, OneSegmentEach()));
    Open();
    ExpectAgreesWithCore({"vg-data", "vg-logs", "vg-root"});
}

TEST_F(Lvm2Core, AgreesOnPartitions) {
    AddDisk(PvInMbr(0, OneSegmentEach()));
    AddDisk(PvInMbr(2, OneSegmentEach()));
    AddDisk(PvInMbr(1, OneSegmentEach()));
    Open();
    ExpectAgreesWithCore({"vg-data", "vg-logs", "vg-root"});
}

TEST_F(Lvm2Core, AgreesOnWhichVolumesHaveAllTheirDisks) {
    for (size_t index = 0; index < 3; ++index)
        AddDisk(WholePv(index, OneSegmentEach()));
    m_CoreDisks.erase(m_CoreDisks.begin());
    OpenOnly({1, 2});
    CLVM core;
    ASSERT_OK(core.InitializeFromDisk(m_CoreDisks));
    ASSERT_EQ(3U, core.GetVolumes().size());
    for (const LVM_Volume_t& volume : core.GetVolumes())
        EXPECT_EQ(volume.AllDiskFound, Volume(volume.VolName).layout.AllDiskFound) << volume.VolName;
    ExpectHolds("vg-root", ExtentsOf(1, 7, 5));
    ExpectRefused("vg-data", {"missing"});
}

}  // namespace
