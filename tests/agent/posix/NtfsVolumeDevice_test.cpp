#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/DeviceClaim.h"
#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/NtfsBitmapVolume.h"
#include "tests/support/SameBytes.h"
#include "tests/support/posix/LoopDevice.h"

// NTFS volumes on block devices.

namespace {

class NtfsVolumeDevice : public testing::Test {
protected:
    std::string Set() const { return m_Dir.File("set"); }

    CZuError BackUpVolume(const std::string& device) {
        BackupOptions_t options;
        options.image.type = DiskType_NTFSVolume;
        options.force = true;
        return BackUpDisk(device, Set(), options, m_Result);
    }

    static CNtfsBitmapVolume Volume() {
        CNtfsBitmapVolume volume(4096);
        volume.Data(3000, PatternedBytes(5000));
        return volume;
    }

    CTempDir m_Dir;
    BackupResult_t m_Result;
};

TEST_F(NtfsVolumeDevice, GoesToALargerDeviceAndComesBackZeroedWhereItIsFree) {
    const CNtfsBitmapVolume volume = Volume();
    const CLoopDevice source(volume.WriteTo(m_Dir));
    SKIP_WITHOUT_LOOP(source);
    ASSERT_OK(BackUpVolume(source.Path()));
    EXPECT_TRUE(m_Result.warnings.empty());
    const std::string before = PatternedBytes(volume.VolumeBytes() + 7 * 512, 99);
    const CLoopDevice target(m_Dir.Write("target", before));
    SKIP_WITHOUT_LOOP(target);
    EXPECT_FAILS_SAYING(Restore(Set(), target.Path()), target.Path(), "--force");
    ASSERT_OK(Restore(Set(), target.Path(), true));
    ASSERT_TRUE(target.Flush());
    const std::string held = m_Dir.Read("target");
    EXPECT_SAME_BYTES(m_Dir.Read("volume"), held.substr(0, volume.VolumeBytes()));
    EXPECT_SAME_BYTES(before.substr(volume.VolumeBytes()), held.substr(volume.VolumeBytes()));
    std::vector<std::string> differences;
    ASSERT_OK(VerifyAgainst(Set(), target.Path(), differences));
    EXPECT_EQ(std::vector<std::string>{}, differences);
}

TEST_F(NtfsVolumeDevice, ATargetASectorSmallerIsRefusedUntouched) {
    const CNtfsBitmapVolume volume = Volume();
    ASSERT_OK(BackUpVolume(volume.WriteTo(m_Dir)));
    const std::string before = PatternedBytes(volume.VolumeBytes() - 512, 99);
    const CLoopDevice target(m_Dir.Write("target", before));
    SKIP_WITHOUT_LOOP(target);
    EXPECT_FAILS_SAYING(Restore(Set(), target.Path(), true), target.Path(), std::to_string(volume.VolumeBytes()));
    ASSERT_TRUE(target.Flush());
    EXPECT_SAME_BYTES(before, m_Dir.Read("target"));
}

TEST_F(NtfsVolumeDevice, WhatIsInUseIsWarnedOfAsASourceAndRefusedAsATarget) {
    const CLoopDevice device(Volume().WriteTo(m_Dir));
    SKIP_WITHOUT_LOOP(device);
    CDeviceClaim claim;
    ASSERT_EQ(0, claim.Take(device.Path()));
    ASSERT_OK(BackUpVolume(device.Path()));
    ASSERT_EQ(1U, m_Result.warnings.size());
    EXPECT_EQ(device.Path() + ": is mounted or in use; what is changed while it is read may be there in part",
              m_Result.warnings[0]);
    EXPECT_FAILS_SAYING(Restore(Set(), device.Path(), true), device.Path(), "busy");
}

}  // namespace
