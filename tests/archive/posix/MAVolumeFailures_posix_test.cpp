#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "tests/support/Bytes.h"
#include "tests/support/ImageFile.h"
#include "tests/support/MetadataTestVolume.h"
#include "tests/support/posix/MemoryMeter.h"
#include "tests/support/posix/SwappedFiles.h"

// What `CMAVolume` tells of a machine that fails, and what hostile collections may take of it.

namespace {

using Attribute = CNtfsAttributeBuilder;
using FileRecord = CNtfsFileRecordBuilder;
using Files = CMetadataFilesBuilder;

constexpr size_t Mebibyte = 1U << 20U;
constexpr uint64_t FileFrn = 5;

FileRecord FileOfDescriptor(uint32_t securityId) {
    NtfsStandardInformationFields_t fields;
    fields.securityId = securityId;
    return FileRecord()
        .Add(Attribute::Resident(NtfsStandardInformationType, NtfsStandardInformationValue(fields)))
        .Add(Attribute::Resident(NtfsDataType, "x").Instance(1));
}

class MAVolumeFailuresOnPosix : public CMetadataVolumeTest {
protected:
    void ExpectFailure(File_t& file, int result, const char* text) {
        EXPECT_EQ(result, ReadResident(file).result);
        EXPECT_STREQ(text, m_Volume.GetLastErrorStr());
        EXPECT_EQ(20U + 1, ReadResident(file).bytes.size()) << "the data follows";
    }
};

TEST_F(MAVolumeFailuresOnPosix, AnMftThatCannotBeReadIsTheSystemsError) {
    ASSERT_EQ(NtfsOk, Open(Files().Record(FileFrn, FileRecord())));
    ASSERT_EQ(1, SwapOpenFileForFolder(m_Dir.File("mft")));
    File_t file;
    EXPECT_META_FAILURE(EISDIR, "Failed to read MFT file", OpenFile(FileFrn, file));
}

TEST_F(MAVolumeFailuresOnPosix, AnMftWithoutPositionsIsTheSystemsError) {
    ASSERT_EQ(NtfsOk, Open(Files().Record(FileFrn, FileRecord())));
    ASSERT_EQ(1, SwapOpenFileForPipe(m_Dir.File("mft")));
    File_t file;
    EXPECT_META_FAILURE(ESPIPE, "Failed to read MFT record", OpenFile(FileFrn, file));
}

TEST_F(MAVolumeFailuresOnPosix, ASecurityFileThatCannotBeReadIsTheSystemsErrorAndTheRestFollows) {
    const std::string large(100'000, 'd');
    const std::string header = "Failed to read the security header, error " + std::to_string(EISDIR);
    const std::string position = "Failed to set the file pointer, error " + std::to_string(ESPIPE);
    ASSERT_EQ(NtfsOk, Open(Files().Record(FileFrn, FileOfDescriptor(7)).Descriptor(6, large).Descriptor(7, "found")));
    File_t file;
    ASSERT_EQ(NtfsOk, OpenFile(FileFrn, file));
    ASSERT_EQ(1, SwapOpenFileForFolder(m_Dir.File("security")));
    ExpectFailure(file, EISDIR, header.c_str());

    ASSERT_EQ(NtfsOk, Open(Files().Record(FileFrn, FileOfDescriptor(7)).Descriptor(6, large).Descriptor(7, "found")));
    ASSERT_EQ(NtfsOk, OpenFile(FileFrn, file));
    ASSERT_EQ(1, SwapOpenFileForPipe(m_Dir.File("security")));
    ExpectFailure(file, ESPIPE, position.c_str());
}

// A folder opens as a file does, and can't be read.
TEST_F(MAVolumeFailuresOnPosix, AFolderInTheFilesPlaceIsRefused) {
    Files().Record(FileFrn, FileRecord()).WriteTo(m_Dir);
    const std::string folder = m_Dir.Path();
    const std::string paths[] = {m_Dir.File("information"), m_Dir.File("mft"), m_Dir.File("associate"),
                                 m_Dir.File("security")};
    for (const size_t changed : {0U, 2U, 3U}) {
        const char* names[4] = {paths[0].c_str(), paths[1].c_str(), paths[2].c_str(), paths[3].c_str()};
        names[changed] = folder.c_str();
        EXPECT_META_FAILURE(NtfsInvalidMftRecord, "Meta data file is corrupt",
                            m_Volume.OpenVolume(names[0], names[1], names[2], names[3]));
    }
    EXPECT_META_FAILURE(NtfsInvalidMftRecord, "Meta data file is corrupt", m_Volume.OpenDirFile(folder.c_str()));
}

// A pipe tells of its bytes, but of no positions.
TEST_F(MAVolumeFailuresOnPosix, AVolumeInformationWithoutPositionsIsTheSystemsError) {
    const Files files;
    files.WriteTo(m_Dir);
    ASSERT_EQ(0, unlink(m_Dir.File("information").c_str()));
    ASSERT_EQ(0, mkfifo(m_Dir.File("information").c_str(), 0600));
    const int both = open(m_Dir.File("information").c_str(), O_RDWR | O_CLOEXEC);
    const std::string bytes = files.InformationBytes();
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(both, bytes.data(), bytes.size()));
    EXPECT_META_FAILURE(ESPIPE, "Meta data file is corrupt", Open());
    close(both);
}

TEST_F(MAVolumeFailuresOnPosix, ACollectionThatPromisesMoreThanItHoldsTakesNothing) {
    ASSERT_EQ(NtfsOk, Open(Files().Record(FileFrn, FileOfDescriptor(300)).Descriptor(300, "descriptor", 0x3FFFFFFF)));
    File_t file;
    ASSERT_EQ(NtfsOk, OpenFile(FileFrn, file));
    char buffer[100];
    uint32_t read = 0;
    const CMemoryMeter meter;
    EXPECT_EQ(EIO, m_Volume.BackupReadRA(&file.record, buffer, sizeof(buffer), &read, &file.context));
    EXPECT_LE(meter.PeakBytes(), 4 * Mebibyte);
}

TEST_F(MAVolumeFailuresOnPosix, ARecordOfMoreThanTheMostIsOutOfMemory) {
    for (const uint32_t bytes : {0x40000001U, 0xFFFFFFFFU}) {
        ASSERT_EQ(NtfsOk, Open(Files().RecordBytes(bytes)));
        File_t file;
        EXPECT_META_FAILURE(NtfsOutOfMemory, "Out Of Memory", OpenFile(0, file));
    }
}

// A record of no bytes is none, and one of few bytes has no attribute.
TEST_F(MAVolumeFailuresOnPosix, ARecordTooSmallForItsHeadIsNone) {
    const std::string record = FileRecord().Bytes();
    for (const uint32_t bytes : {0U, 1U, 3U, 4U, 41U, 42U, 63U}) {
        SCOPED_TRACE(bytes);
        const Files files = Files().RecordBytes(bytes);
        files.WriteTo(m_Dir);
        m_Dir.Write("mft", record.substr(0, 64) + std::string(64, '\0'));
        ASSERT_EQ(NtfsOk, Open());
        File_t file;
        EXPECT_NE(NtfsOk, OpenFile(0, file));
        EXPECT_STRNE("", m_Volume.GetLastErrorStr());
    }
}

TEST_F(MAVolumeFailuresOnPosix, AVolumeInformationLargerThanTheMostIsOutOfMemory) {
    Files().WriteTo(m_Dir);
    CImageFile large;
    large.Put(0, Files().InformationBytes());
    large.Resize((uint64_t{1} << 30U) + 129);
    large.WriteTo(m_Dir, "information");
    const CMemoryMeter meter;
    EXPECT_META_FAILURE(NtfsOutOfMemory, "Meta data file is corrupt", Open());
    EXPECT_LE(meter.PeakBytes(), Mebibyte);
}

// Room is made ahead: each line copied what came before it would take hours for a large volume.
TEST_F(MAVolumeFailuresOnPosix, ManyLinesOfTheAssociateFileTakeFewAllocations) {
    std::string lines;
    for (int index = 0; index < 20'000; ++index)
        lines += std::to_string(index) + " 6\n";
    Files().AssociateText(lines).WriteTo(m_Dir);
    const CMemoryMeter meter;
    EXPECT_META_OK(Open());
    EXPECT_GE(100U, meter.Allocations());
    EXPECT_LE(meter.PeakBytes(), 2 * Mebibyte);
}

// Each line names a record once more; memory grows with it, up to a bound.
TEST_F(MAVolumeFailuresOnPosix, ARecordThatManyLinesNameIsMergedForEach) {
    Files files = Files().Record(FileFrn, FileRecord()).Record(6, FileOfDescriptor(1));
    std::string lines;
    for (int index = 0; index < 2000; ++index)
        lines += "5 6\n";
    ASSERT_EQ(NtfsOk, Open(files.AssociateText(lines)));
    File_t file;
    {
        const CMemoryMeter meter;
        EXPECT_META_OK(OpenFile(FileFrn, file));
        EXPECT_GE(100U, meter.Allocations());
    }
    EXPECT_EQ(2001U * 1024, file.record.GetSize());
    int data = 0;
    for (ATTR_RECORD_HEADER_t* each = CDRFileRecord::FindFirstAttr(file.record.GetPtr(), NtfsDataType); each != nullptr;
         each = CDRFileRecord::FindNextAttr(NtfsDataType, each))
        ++data;
    EXPECT_EQ(2000, data);
}

TEST_F(MAVolumeFailuresOnPosix, AMachineWithoutMemoryIsAFailureLikeOthers) {
    FileRecord record = FileOfDescriptor(300);
    record.Add(Attribute::NonResident(NtfsDataType, {{1, 1}}, 10).Instance(2));
    record.Add(Attribute::NonResident(NtfsDataType, {{1, 1}}, 0).LowestVcn(1).Instance(3));
    ASSERT_EQ(NtfsOk, Open(Files().Record(FileFrn, record).Descriptor(300, "descriptor")));
    File_t file;
    ASSERT_EQ(NtfsOk, OpenFile(FileFrn, file));
    char buffer[100];
    uint32_t read = 0;
    CAutoMemory<char> name;
    CAutoMemory<char> extents;
    uint64_t sizes[2] = {};
    uint32_t type = 0;
    uint16_t unit = 0;
    File_t other;
    CMemoryMeter meter;
    meter.RefuseAbove(0);
    EXPECT_EQ(NtfsOutOfMemory, m_Volume.OpenFile(FileFrn, &other.record, 1, &other.context));
    EXPECT_STREQ("Out Of Memory", m_Volume.GetLastErrorStr());
    EXPECT_EQ(NtfsOutOfMemory, m_Volume.BackupReadRA(&file.record, buffer, 100, &read, &file.context));
    EXPECT_STREQ("Out Of Memory", m_Volume.GetLastErrorStr());
    EXPECT_EQ(NtfsOutOfMemory,
              m_Volume.BackupReadNRA(&file.record, &name, &sizes[0], &sizes[1], &type, &unit, &extents, &file.context));
    EXPECT_STREQ("Out Of Memory", m_Volume.GetLastErrorStr());
}

}  // namespace
