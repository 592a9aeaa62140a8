#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/VmdkSparseBuilder.h"
#include "tests/support/posix/ChildProcess.h"

// What a backup and its way back take from the machine, whatever the size of the disk: the tables
// that the format demands and at most 32 MiB beside them.

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool IsSanitized = true;
#elif defined(__has_feature)
constexpr bool IsSanitized = __has_feature(address_sanitizer);
#else
constexpr bool IsSanitized = false;
#endif

// A field of this process's status, such as VmHWM, the most that was ever resident. Kernels count in kB.
uint64_t ResidentBytes(const std::string& field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(field + ":", 0) == 0)
            return std::stoull(line.substr(field.size() + 1)) << 10U;
    }
    return 0;
}

class AgentMemory : public testing::Test {
protected:
    // In a child with a memory of its own, backs `disk` up, proves it and restores it as raw.
    void ExpectToTakeAtMost(uint64_t mostBytes, const std::string& disk, const std::string& set,
                            const std::string& raw) const {
        const uint64_t before = ResidentBytes("VmRSS");
        ASSERT_OK(BackUp(disk, set));
        EXPECT_LE(ResidentBytes("VmHWM") - before, mostBytes) << "backup";
        std::vector<std::string> differences;
        ASSERT_OK(VerifyAgainst(set, disk, differences));
        EXPECT_LE(ResidentBytes("VmHWM") - before, mostBytes) << "verify";
        ASSERT_OK(RestoreRaw(set, raw));
        EXPECT_LE(ResidentBytes("VmHWM") - before, mostBytes) << "restore as raw";
        ASSERT_OK(Restore(set, raw + ".vmdk"));
        EXPECT_LE(ResidentBytes("VmHWM") - before, mostBytes) << "restore";
        RecordProperty("peakKiB", std::to_string((ResidentBytes("VmHWM") - before) >> 10U));
        std::printf("took %llu KiB\n", static_cast<unsigned long long>((ResidentBytes("VmHWM") - before) >> 10U));
    }

    void RunInChild(const std::string& disk) const {
        const CTempDir dir;
        const ChildOutcome_t child =
            RunThisTestInChild({{"TEST_DISK", disk}, {"TEST_SET", dir.File("set")}, {"TEST_RAW", dir.File("raw")}});
        EXPECT_TRUE(child.passed) << child.output << child.errorOutput;
    }

    void MeasureInChild(uint64_t mostBytes) const {
        ExpectToTakeAtMost(mostBytes, std::getenv("TEST_DISK"), std::getenv("TEST_SET"), std::getenv("TEST_RAW"));
    }
};

constexpr uint64_t MostBeside = uint64_t{32} << 20U;

TEST_F(AgentMemory, OfALargeSparseDiskIsItsTablesAndLittleMore) {
    if (IsSanitized)
        GTEST_SKIP() << "a sanitizer's own memory would be counted";
    constexpr uint64_t sectors = uint64_t{64} << 21U;
    constexpr uint64_t tableBytes = 2 * (sectors / 128) * 4;
    if (InChildProcess())
        return MeasureInChild(tableBytes + MostBeside);
    const CTempDir dir;
    RunInChild(CVmdkSparseBuilder()
                   .Capacity(sectors)
                   .GrainSize(128)
                   .Grain(5, 'x')
                   .Grain(500000, PatternedBytes(65536))
                   .Grain(1048575, 'y')
                   .WriteTo(dir));
}

TEST_F(AgentMemory, OfALargeFlatDiskIsLittle) {
    if (IsSanitized)
        GTEST_SKIP() << "a sanitizer's own memory would be counted";
    if (InChildProcess())
        return MeasureInChild(MostBeside);
    const CTempDir dir;
    constexpr uint64_t sizeBytes = uint64_t{1} << 30U;
    dir.Write("disk-flat.vmdk", PatternedBytes(64 << 20));
    std::filesystem::resize_file(dir.File("disk-flat.vmdk"), sizeBytes);
    RunInChild(CVmdkDescriptorBuilder()
                   .CreateType("monolithicFlat")
                   .Extent(sizeBytes / 512, "FLAT", "disk-flat.vmdk")
                   .WriteTo(dir));
}

}  // namespace
