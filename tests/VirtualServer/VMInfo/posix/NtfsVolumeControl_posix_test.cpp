#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>

#include "VirtualServer/VMInfo/detail/NtfsVolumeControlOf.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/NtfsBitmapVolume.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"

namespace {

// A volume's own bytes answer as the control of another system does.
class NtfsControlOnDisk : public testing::Test {
protected:
    void Open(const CNtfsBitmapVolume& volume) {
        m_Path = volume.WriteTo(m_Dir);
        ASSERT_OK(m_File.Open(m_Path.c_str(), OpenAsBinary, 0));
        m_Control = NtfsVolumeControlOf(m_File);
        NTFS_VOLUME_DATA_BUFFER data{};
        uint32_t got = 0;
        ASSERT_EQ(0, m_Control->ReadVolumeData(data, got));
        ASSERT_EQ(96U, got);
    }

    int Ask(uint64_t lcn, uint32_t replyBytes) {
        m_Reply.assign(4096, '?');
        const int outcome = m_Control->ReadBitmap(lcn, m_Reply.data(), replyBytes, m_Got);
        m_Reply.resize(m_Got);
        return outcome;
    }

    CTempDir m_Dir;
    CZuFile m_File;
    std::string m_Path;
    std::shared_ptr<INtfsVolumeControl> m_Control;
    std::string m_Reply;
    uint32_t m_Got = 0;
};

TEST_F(NtfsControlOnDisk, AnswersAsASystemDoes) {
    CNtfsBitmapVolume volume(1003);
    volume.Use(1002);
    Open(volume);
    const std::string bits = volume.Bitmap().substr(0, 125) + '\x04';
    const struct {
        uint64_t lcn;
        uint32_t replyBytes;
        int outcome;
        uint64_t firstLcn;
        size_t bytes;
    } rows[] = {
        {0, 4096, 0, 0, 126},   {0, 142, 0, 0, 126},      {0, 141, 234, 0, 125},
        {0, 17, 234, 0, 1},     {7, 4096, 0, 0, 126},     {8, 4096, 0, 8, 125},
        {801, 20, 234, 800, 4}, {1002, 4096, 0, 1000, 1}, {1000, 17, 0, 1000, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.lcn);
        EXPECT_EQ(row.outcome, Ask(row.lcn, row.replyBytes));
        EXPECT_SAME_BYTES(LittleEndianBytes(row.firstLcn, 8) + LittleEndianBytes(1003 - row.firstLcn, 8) +
                              bits.substr(row.firstLcn / 8, row.bytes),
                          m_Reply);
    }
    for (const uint64_t lcn : {uint64_t{1003}, uint64_t{1008}, ~uint64_t{0}})
        EXPECT_EQ(87, Ask(lcn, 4096)) << lcn;
    EXPECT_EQ(BadVolumeReplyError(), Ask(0, 16));
    EXPECT_EQ(0U, m_Got);
    EXPECT_EQ(0, m_Control->AllowExtendedAccess());
}

TEST_F(NtfsControlOnDisk, TellsTheNumberOfAFailure) {
    Open(CNtfsBitmapVolume(1000).Record(6, CNtfsFileRecordBuilder()));
    EXPECT_EQ(BadVolumeReplyError(), Ask(0, 4096));
    const CFaultyFiles faulty(Fault_t{FaultOp::Read, 1, EIO});
    EXPECT_EQ(EIO, Ask(0, 4096));
    EXPECT_EQ(0U, m_Got);
}

}  // namespace
