#include "agent/detail/EarlySync.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "tests/agent/AgentRuns.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"

namespace {

// The machine's files, which keep where they were asked to hurry.
class CHurriedFiles : public CFaultyFiles {
public:
    void BeginSync(int /*fd*/, int64_t offset) override { offsets.push_back(offset); }

    std::vector<int64_t> offsets;
};

using Offsets_t = std::vector<int64_t>;

constexpr int64_t Stretch = 16 << 20;

TEST(EarlySync, AStretchAtATimeGoesToTheMedium) {
    const CTempDir dir;
    const std::string name = dir.Write("file", "bytes");
    CHurriedFiles files;
    CEarlySync sync;
    ASSERT_OK(sync.Begin(name));
    sync.Count(Stretch - 1);
    EXPECT_EQ(Offsets_t{}, files.offsets);
    sync.Count(1);
    EXPECT_EQ(Offsets_t{0}, files.offsets);
    sync.Count(5 * Stretch);
    sync.Count(Stretch / 2);
    sync.Count(Stretch / 2);
    EXPECT_EQ((Offsets_t{0, Stretch, 6 * Stretch}), files.offsets);
    ASSERT_OK(sync.Begin(name));
    sync.Count(Stretch);
    EXPECT_EQ((Offsets_t{0, Stretch, 6 * Stretch, 0}), files.offsets) << "from the start again";
    sync.End();
    EXPECT_EQ(files.Calls(FaultOp::Open), files.Calls(FaultOp::Close));
}

TEST(EarlySync, WithoutAFileNothingIsHurried) {
    const CTempDir dir;
    CHurriedFiles files;
    CEarlySync sync;
    sync.Count(2 * Stretch);
    EXPECT_SYSTEM_ERROR(sync.Begin(dir.File("missing")), ENOENT);
    sync.Count(2 * Stretch);
    sync.End();
    EXPECT_EQ(Offsets_t{}, files.offsets);
}

TEST(EarlySync, BackupsAndRestoresUseIt) {
    const CTempDir dir;
    const CTempDir disks;
    const std::string image = WriteFlatDisk(disks, {PatternedBytes(40 << 20)});
    const auto hurries = [&](const auto& work) {
        CHurriedFiles files;
        EXPECT_OK(work());
        return files.offsets.size();
    };
    EXPECT_EQ(2U, hurries([&] { return BackUp(image, dir.File("set")); }));
    EXPECT_EQ(2U, hurries([&] { return Restore(dir.File("set"), dir.Path()); }));
    EXPECT_EQ(2U, hurries([&] { return RestoreRaw(dir.File("set"), dir.File("raw")); }));
    EXPECT_SAME_BYTES(PatternedBytes(40 << 20), dir.Read("raw"));
}

}  // namespace
