#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/ImageFile.h"
#include "tests/support/TempDir.h"
#include "tests/support/VolumeDumpBuilder.h"
#include "tests/support/posix/ChildProcess.h"
#include "tests/support/posix/MemoryMeter.h"

// How volume dumps are opened, what the log tells of them, and what reading one may take of memory.

namespace {

constexpr size_t Mebibyte = 1U << 20U;

// Notes how files are opened.
class CNotedOpens : public CFaultyFiles {
public:
    struct Open_t {
        int flags;
        int mode;
    };

    int Open(const char* name, int flags, int mode, int& fd) override {
        m_Opens.push_back({flags, mode});
        return CFaultyFiles::Open(name, flags, mode, fd);
    }
    const std::vector<Open_t>& Opens() const { return m_Opens; }

private:
    std::vector<Open_t> m_Opens;
};

CZuError Read(const std::string& path, SparseInfo_t* sparse = nullptr) {
    std::vector<LVM_Volume_t> volumes;
    return CLVM::ReadVolumeInfoFromDump(path.c_str(), volumes, sparse);
}

DumpedVolume_t VolumeOf(const std::vector<DumpedComponent_t>& components) {
    DumpedVolume_t volume;
    volume.segments = {DumpedSegment_t{components}};
    return volume;
}

TEST(LvmDumpOnPosix, IsForItsOwnerAlone) {
    const CTempDir dir;
    ASSERT_OK(CLVM().DumpVolumeInfoToFile(dir.File("dump").c_str()));
    EXPECT_EQ(std::filesystem::perms::owner_read | std::filesystem::perms::owner_write,
              std::filesystem::status(dir.File("dump")).permissions());
}

TEST(LvmDumpOnPosix, IsOpenedWithTheseFlags) {
    const CTempDir dir;
    const CNotedOpens files;
    ASSERT_OK(CLVM().DumpVolumeInfoToFile(dir.File("dump").c_str()));
    ASSERT_EQ(1U, files.Opens().size());
    EXPECT_EQ(33666, files.Opens()[0].flags);
    EXPECT_EQ(384, files.Opens()[0].mode);
    ASSERT_OK(Read(dir.File("dump")));
    ASSERT_EQ(3U, files.Opens().size());
    EXPECT_EQ(32912, files.Opens()[1].flags);
    EXPECT_EQ(32912, files.Opens()[2].flags);
}

// The lines of the log without their times and levels.
std::string LinesOf(const ChildOutcome_t& child) {
    std::string lines;
    for (size_t at = 0; at < child.errorOutput.size();) {
        const size_t end = child.errorOutput.find('\n', at);
        const std::string line = child.errorOutput.substr(at, end - at);
        const size_t text = line.find(" debug ");
        if (text != std::string::npos && line.find("max read size") == std::string::npos)
            lines += line.substr(text + 7) + "\n";
        at = end == std::string::npos ? child.errorOutput.size() : end + 1;
    }
    return lines;
}

// A path that is longer than most lines.
std::string LongPathIn(const CTempDir& dir) {
    const std::string step = "/" + std::string(200, 'p');
    std::filesystem::create_directories(dir.Path() + step + step + step);
    return dir.Path() + step + step + step + "/dump";
}

void ReadAnOlderDump() {
    const CTempDir dir;
    const std::string path = LongPathIn(dir);
    DumpedVolume_t first = VolumeOf({DumpedPiece(0, 1, 2, 3), DumpedPiece(1, 2, 3, 4)});
    first.systemId = "8E";
    first.allDiskFound = '0';
    CVolumeDumpBuilder dump(CVolumeDumpBuilder::Version_t::Old);
    dump.Volume(first).Volume(VolumeOf({}));
    dump.Disk({{DumpedFlatExtent("a", 0, 9, 8), DumpedSparseExtent("b", 10, 19, 8, 8, "1")},
               {DumpedFlatExtent("c", 0, 9, 8)}});
    dump.Disk({});
    WriteFileBytes(path, dump.Bytes());
    SparseInfo_t sparse;
    EXPECT_OK(Read(path, &sparse));
}

TEST(LvmDumpLog, TellsEveryStepOfAnOlderDump) {
    if (InChildProcess()) {
        ReadAnOlderDump();
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    std::string expected =
        "CLVM::ReadVolumeInfoFromDump() Found signature LVMDUMP1.0, entering ReadVolumeInfoFromDump10()\n";
    for (const std::string line : {
             "Entered CLVM::ReadVolumeInfoFromDump10()",
             "Opening file",
             "Number of volumes expected: 2",
             "VolIdx: 0\\x09GUID read.",
             "VolIdx: 0\\x09SystemID: 142",
             "VolIdx: 0\\x09AllDiskFound: 0",
             "VolIdx: 0\\x09Num_Components: 2",
             "VolIdx: 0\\x09CompIdx: 0\\x09GUID scanned",
             "VolIdx: 0\\x09CompIdx: 0\\x09Read of component complete.",
             "VolIdx: 0\\x09CompIdx: 1\\x09GUID scanned",
             "VolIdx: 0\\x09CompIdx: 1\\x09Read of component complete.",
             "VolIdx: 1\\x09GUID read.",
             "VolIdx: 1\\x09SystemID: 7",
             "VolIdx: 1\\x09AllDiskFound: 1",
             "VolIdx: 1\\x09Num_Components: 0",
             "Finished reading VolDump info. more to go int his function though.",
             "pSparseInfo is not NULL.",
             "Harddisk count: 2",
             "HarddiskIdx: 0\\x09ParentChildCnt: 2",
             "HarddiskIdx: 0\\x09ParentChildIdx: 0\\x09ExtentCnt: 2",
             "HarddiskIdx: 0\\x09ParentChildIdx: 0\\x09ExtentIdx: 0\\x09Read extent dump",
             "HarddiskIdx: 0\\x09ParentChildIdx: 0\\x09ExtentIdx: 0\\x09Interpreted extent dump",
             "HarddiskIdx: 0\\x09ParentChildIdx: 0\\x09ExtentIdx: 1\\x09Read extent dump",
             "HarddiskIdx: 0\\x09ParentChildIdx: 0\\x09ExtentIdx: 1\\x09Interpreted extent dump",
             "HarddiskIdx: 0\\x09ParentChildIdx: 0\\x09ExtentIdx: 1\\x09BktBitmap initialized",
             "HarddiskIdx: 0\\x09ParentChildIdx: 1\\x09ExtentCnt: 1",
             "HarddiskIdx: 0\\x09ParentChildIdx: 1\\x09ExtentIdx: 0\\x09Read extent dump",
             "HarddiskIdx: 0\\x09ParentChildIdx: 1\\x09ExtentIdx: 0\\x09Interpreted extent dump",
             "HarddiskIdx: 1\\x09ParentChildCnt: 0",
             "Exiting CLVM::ReadVolumeInfoFromDump10()",
         })
        expected += "CLVM::ReadVolumeInfoFromDump10() " + line + "\n";
    std::string lines = LinesOf(child);
    // The child has a directory of its own.
    const size_t path = lines.find(" /", lines.find("Opening file"));
    const size_t pathEnd = lines.find('\n', path);
    ASSERT_NE(std::string::npos, pathEnd) << lines;
    const std::string ending = "/" + std::string(200, 'p') + "/dump";
    EXPECT_LT(3U * 200, pathEnd - path);
    EXPECT_EQ(ending, lines.substr(pathEnd - ending.size(), ending.size()));
    lines.erase(path, pathEnd - path);
    EXPECT_EQ(expected, lines);
}

TEST(LvmDumpLog, TellsOfAnOlderDumpThatFailsTooThatItsReadingIsOver) {
    if (InChildProcess()) {
        const CTempDir dir;
        SparseInfo_t sparse;
        EXPECT_FAILURE(
            Read(CVolumeDumpBuilder(CVolumeDumpBuilder::Version_t::Old).VolumeCount("00000001").WriteTo(dir), &sparse));
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    EXPECT_NE(std::string::npos, child.errorOutput.find("Exiting CLVM::ReadVolumeInfoFromDump10()\n"));
    EXPECT_EQ(std::string::npos, child.errorOutput.find("Finished reading"));
}

TEST(LvmDumpLog, IsSilentAboutADumpOfToday) {
    if (InChildProcess()) {
        const CTempDir dir;
        SparseInfo_t sparse;
        EXPECT_OK(Read(CVolumeDumpBuilder()
                           .Volume(VolumeOf({DumpedPiece(0, 1, 2, 3)}))
                           .Disk({{DumpedFlatExtent("a", 0, 9, 8)}})
                           .WriteTo(dir),
                       &sparse));
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    EXPECT_EQ(std::string::npos, child.errorOutput.find("Dump")) << child.errorOutput;
}

TEST(LvmDumpMemory, NumbersThatPromiseMoreThanTheFileHoldsTakeNothing) {
    SparseDumpText_t huge = DumpedFlatExtent("huge", 0, 99, 8);
    huge.grainsPerBucket = 8;
    huge.bucketCount = 8;
    huge.topBitmapBytes = 1;
    huge.bucketBytes = 0x3FFFFFFF;
    huge.topBitmap = "\xFF";
    SparseDumpText_t top = huge;
    top.topBitmapBytes = 0x3FFFFFFF;
    const CTempDir dir;
    for (const CVolumeDumpBuilder& dump :
         {CVolumeDumpBuilder().VolumeCount("ffffffff"), CVolumeDumpBuilder().DiskCount("ffffffff"),
          CVolumeDumpBuilder().Disk({{huge}}), CVolumeDumpBuilder().Disk({{top}})}) {
        const std::string path = dump.WriteTo(dir);
        SparseInfo_t sparse;
        const CMemoryMeter meter;
        EXPECT_FAILURE(Read(path, &sparse));
        EXPECT_LE(meter.PeakBytes(), 4 * Mebibyte);
    }
}

// A hole costs its maker nothing: what it makes of memory counts for all extents of a dump together.
TEST(LvmDumpMemory, BucketsThatHoldNothingAreBoundedForTheWholeDump) {
    constexpr uint64_t topBytes = 2 * Mebibyte;
    constexpr uint64_t recordBytes = 1153;
    SparseDumpText_t extent = DumpedFlatExtent("holes", 0, 99, 8);
    extent.grainsPerBucket = 8;
    extent.bucketCount = topBytes * 8;
    extent.topBitmapBytes = topBytes;
    extent.bucketBytes = 1;
    const CTempDir dir;
    CImageFile file;
    file.Put(0, "LVMDUMP1.1000000000000000100000001ffffffff");
    uint64_t end = 42;
    for (int index = 0; index < 8; ++index, end += recordBytes + topBytes)
        file.Put(end, extent.Bytes());
    file.Put(end, "LVMDUMP1.1");
    const std::string path = file.WriteTo(dir, "dump");
    SparseInfo_t sparse;
    const CMemoryMeter meter;
    EXPECT_REFUSED(Read(path, &sparse), "Out of memory");
    EXPECT_LE(meter.PeakBytes(), 1100 * Mebibyte);
    EXPECT_LE(2U, sparse[0][0].size()) << "more than one fits";
}

TEST(LvmDumpMemory, AMachineWithoutMemoryIsAFailureLikeOthers) {
    const CTempDir dir;
    const std::string path = CVolumeDumpBuilder()
                                 .Disk({{DumpedSparseExtent("sparse", 0, 99, 8, 80'000, std::string(80'000, '1'))}})
                                 .WriteTo(dir);
    SparseInfo_t sparse;
    ASSERT_OK(Read(path, &sparse));
    for (const size_t limit : {200U, 4000U, 9999U}) {
        CMemoryMeter meter;
        meter.RefuseAbove(limit);
        EXPECT_REFUSED(Read(path, &sparse), "Out of memory") << limit;
    }
}

}  // namespace
