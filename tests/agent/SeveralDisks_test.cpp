#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/agent/SetSurgery.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"
#include "tests/support/VhdBuilder.h"
#include "tests/support/VmdkSparseBuilder.h"

// Several disks in one set.

namespace {

using Names_t = std::vector<std::string>;

class SeveralDisks : public testing::Test {
protected:
    // A flat disk of two extents, a dynamic VHD, and a flat disk whose files are named as those of the first.
    SeveralDisks() {
        m_Images = {
            WriteFlatDisk(m_First, {DiskContent(600), DiskContent(129, 2)}),
            CVhdBuilder::Dynamic(64).Block(1, 'b').Block(7, PatternedBytes(4096, 3)).WriteTo(m_Second),
            WriteFlatDisk(m_Third, {DiskContent(300, 4), DiskContent(40, 5)}),
        };
    }

    CZuError BackUpAll(const std::vector<std::string>& images, const BackupOptions_t& options = BackupOptions_t()) {
        return BackUpDisks(images, Set(), options, m_Result);
    }

    std::string Set() const { return m_Sets.File("set"); }
    const CTempDir& DirOf(size_t disk) const { return disk == 0 ? m_First : disk == 1 ? m_Second : m_Third; }

    CZuError RestoreOne(uint64_t number, const std::string& target, bool asRaw = false) const {
        RestoreOptions_t options;
        options.disk = number;
        options.asRaw = asRaw;
        RestoreResult_t result;
        return RestoreDisk(Set(), target, options, result);
    }

    CZuError VerifyOne(uint64_t number, const std::string& image, Names_t& differences) const {
        VerifyOptions_t options;
        options.against = image;
        options.disk = number;
        VerifyResult_t result;
        CZuError error = VerifySet(Set(), options, result);
        differences = result.differences;
        return error;
    }

    // The disk of that number, from 1, has the files that its directory has.
    void ExpectComesBack(uint64_t number) const {
        const CTempDir& dir = DirOf(static_cast<size_t>(number) - 1);
        const CTempDir target;
        ASSERT_OK(RestoreOne(number, target.Path()));
        ASSERT_EQ(dir.Entries(), target.Entries());
        for (const std::string& name : dir.Entries())
            EXPECT_SAME_BYTES(dir.Read(name), target.Read(name)) << name;
    }

    CTempDir m_First;
    CTempDir m_Second;
    CTempDir m_Third;
    CTempDir m_Sets;
    std::vector<std::string> m_Images;
    BackupResult_t m_Result;
};

TEST_F(SeveralDisks, EachComesBack) {
    ASSERT_OK(BackUpAll(m_Images));
    EXPECT_EQ(Names_t{"set"}, m_Sets.Entries());
    EXPECT_OK(Verify(Set()));
    for (const uint64_t number : {1U, 2U, 3U}) {
        SCOPED_TRACE(number);
        ExpectComesBack(number);
        Names_t differences;
        EXPECT_OK(VerifyOne(number, m_Images[number - 1], differences));
        EXPECT_EQ(Names_t{}, differences);
    }
}

TEST_F(SeveralDisks, EachComesBackAsRaw) {
    ASSERT_OK(BackUpAll(m_Images));
    const CTempDir target;
    ASSERT_OK(RestoreOne(3, target.File("third"), true));
    EXPECT_SAME_BYTES(DiskContent(300, 4) + DiskContent(40, 5), target.Read("third"));
    ASSERT_OK(RestoreOne(2, target.Path(), true));
    std::string vhd(64 * 512, '\0');
    PutBytes(vhd, 4096, std::string(4096, 'b'));
    PutBytes(vhd, 7 * 4096, PatternedBytes(4096, 3));
    EXPECT_SAME_BYTES(vhd, target.Read("disk.raw"));
}

TEST_F(SeveralDisks, TheSetTellsWhatIsWhose) {
    ASSERT_OK(BackUpAll(m_Images));
    CBackupSetReader set;
    ASSERT_OK(set.Open(Set()));
    ASSERT_EQ(3U, set.Disks().size());
    EXPECT_EQ("disk.vmdk", set.Disks()[0].imageName);
    EXPECT_EQ("disk.vhd", set.Disks()[1].imageName);
    EXPECT_EQ(DiskType_VhdDynamic, set.Disks()[1].diskType);
    EXPECT_EQ(64U, set.Disks()[1].diskSectors);
    ASSERT_EQ(5U, set.Streams().size());
    for (size_t index = 0; index < 5; ++index)
        EXPECT_EQ(int64_t(index), set.Streams()[index].id);
    EXPECT_EQ(2U, set.StreamsOf(0).size());
    ASSERT_EQ(1U, set.StreamsOf(1).size());
    EXPECT_EQ("disk.vhd", set.StreamsOf(1)[0].fileName);
    ASSERT_EQ(2U, set.StreamsOf(2).size());
    EXPECT_EQ(300U, set.StreamsOf(2)[0].diskSectors);
    for (const int64_t none : {int64_t{-1}, int64_t{3}})
        EXPECT_EQ(0U, set.StreamsOf(none).size() + set.FilesOf(none).size());
    ASSERT_EQ(1U, set.FilesOf(2).size());
    EXPECT_SAME_BYTES(m_Third.Read("disk.vmdk"), set.FilesOf(2)[0].bytes);
    EXPECT_EQ(5U, set.Parts().size());

    CAutoMemory<char> bytes;
    bool isThere = false;
    ASSERT_OK(set.ReadBlock(set.StreamsOf(2)[1], 0, bytes, isThere));
    EXPECT_SAME_BYTES(DiskContent(40, 5), BytesOf(bytes));
}

TEST_F(SeveralDisks, TheResultTellsOfAll) {
    ASSERT_OK(BackUpAll(m_Images));
    ASSERT_EQ(3U, m_Result.disks.size());
    EXPECT_EQ(m_Images[1], m_Result.disks[1].image);
    EXPECT_EQ(DiskType_VhdDynamic, m_Result.disks[1].diskType);
    EXPECT_EQ(64U * 512, m_Result.disks[1].diskBytes);
    EXPECT_EQ((729U + 64U + 340U) * 512, m_Result.diskBytes);
    EXPECT_EQ(5U + 2U + 2U + 3U + 1U, m_Result.blockCount);
    EXPECT_EQ(m_Sets.Read("set").size(), m_Result.setBytes);
}

TEST_F(SeveralDisks, WarningsOfEachAreTold) {
    const CTempDir links;
    std::vector<std::string> images;
    for (const std::string name : {"one.vmdk", "two.vmdk"})
        images.push_back(CVmdkSparseBuilder()
                             .Descriptor(CVmdkDescriptorBuilder()
                                             .CreateType("monolithicSparse")
                                             .ParentCid("12345678")
                                             .Line("parentFileNameHint=\"base of " + name + "\"")
                                             .Text())
                             .Grain(1, 'A')
                             .WriteTo(links, name));
    ASSERT_OK(BackUpAll(images));
    ASSERT_EQ(2U, m_Result.warnings.size());
    EXPECT_NE(std::string::npos, m_Result.warnings[0].find("base of one.vmdk"));
    EXPECT_NE(std::string::npos, m_Result.warnings[1].find("base of two.vmdk"));
    CBackupSetReader set;
    ASSERT_OK(set.Open(Set()));
    EXPECT_EQ("base of two.vmdk", set.Disks()[1].parentName);
}

TEST_F(SeveralDisks, ProgressGrowsToItsTotal) {
    BackupOptions_t options;
    Progress_t last;
    options.progress = [&](const Progress_t& progress) {
        EXPECT_GE(progress.doneBytes, last.doneBytes);
        EXPECT_LE(progress.doneBytes, progress.totalBytes);
        last = progress;
        return true;
    };
    ASSERT_OK(BackUpAll(m_Images, options));
    EXPECT_GT(last.doneBytes, 0U);
    EXPECT_EQ(last.totalBytes, last.doneBytes);
}

TEST_F(SeveralDisks, WhatCannotBeBackedUpTogetherLeavesNothing) {
    const std::string image = m_Images[0];
    const std::string none = m_First.File("none.vmdk");
    BackupOptions_t withChain;
    withChain.image.parents = {m_Images[1]};
    const struct {
        const char* name;
        std::vector<std::string> images;
        BackupOptions_t options;
        std::string words;
    } rows[] = {
        {"none at all", {}, {}, "no disk"},
        {"the same twice", {image, image}, {}, image + ": is the same disk as " + image},
        {"the same last", {image, m_Images[1], m_First.File("./disk.vmdk")}, {}, "is the same disk as " + image},
        {"one that isn't there", {image, none}, {}, none + ": No such file"},
        {"two that aren't there", {none, none}, {}, none},
        {"a chain for several", {image, m_Images[1]}, withChain, "chain"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_FAILS_SAYING(BackUpAll(row.images, row.options), row.words);
        EXPECT_EQ(Names_t{}, m_Sets.Entries());
    }
}

TEST_F(SeveralDisks, TheSetReplacesNoFileOfAnyOfThem) {
    BackupOptions_t options;
    options.force = true;
    for (const std::string& target : {m_Images[2], m_Third.File("disk-f002.vmdk"), m_Images[0]}) {
        SCOPED_TRACE(target);
        const std::string before = ReadFileBytes(target);
        EXPECT_FAILS_SAYING(BackUpDisks(m_Images, target, options, m_Result), target, "is a file of the image");
        EXPECT_SAME_BYTES(before, ReadFileBytes(target));
    }
}

TEST_F(SeveralDisks, CancellingAtAnyMomentLeavesNothing) {
    bool isThrough = false;
    for (int cancelAt = 0; !isThrough; ++cancelAt) {
        SCOPED_TRACE(cancelAt);
        BackupOptions_t options;
        int step = 0;
        options.progress = [&](const Progress_t&) { return step++ != cancelAt; };
        const CZuError error = BackUpAll(m_Images, options);
        isThrough = step <= cancelAt;
        EXPECT_EQ(isThrough, !error.IsErrorSet());
        EXPECT_EQ(isThrough ? Names_t{"set"} : Names_t{}, m_Sets.Entries());
    }
}

TEST_F(SeveralDisks, OneIsChosenByItsNumber) {
    ASSERT_OK(BackUpAll(m_Images));
    const CTempDir target;
    const std::string choice = "1 (disk.vmdk), 2 (disk.vhd), 3 (disk.vmdk)";
    EXPECT_FAILS_SAYING(Restore(Set(), target.Path()), Set(), "holds several disks", choice);
    EXPECT_FAILS_SAYING(RestoreRaw(Set(), target.Path()), choice);
    Names_t differences;
    EXPECT_FAILS_SAYING(VerifyAgainst(Set(), m_Images[0], differences), choice);
    for (const uint64_t number : {uint64_t{0}, uint64_t{4}, ~uint64_t{0}}) {
        EXPECT_FAILS_SAYING(RestoreOne(number, target.Path()), Set(), "has no disk " + std::to_string(number), choice);
        EXPECT_FAILS_SAYING(VerifyOne(number, m_Images[0], differences), "has no disk", choice);
    }
    EXPECT_EQ(Names_t{}, target.Entries());

    const CTempDir sets;
    ASSERT_OK(BackUp(m_Images[0], sets.File("of one")));
    RestoreOptions_t options;
    RestoreResult_t result;
    options.disk = 1;
    EXPECT_OK(RestoreDisk(sets.File("of one"), target.Path(), options, result));
    options.disk = 2;
    EXPECT_FAILS_SAYING(RestoreDisk(sets.File("of one"), target.Path(), options, result), "has no disk 2");
}

TEST_F(SeveralDisks, DifferencesAreThoseOfTheChosenOne) {
    ASSERT_OK(BackUpAll(m_Images));
    std::string extent = m_Third.Read("disk-f001.vmdk");
    extent[130 * 512] = static_cast<char>(extent[130 * 512] ^ 1);
    m_Third.Write("disk-f001.vmdk", extent);
    Names_t differences;
    EXPECT_OK(VerifyOne(3, m_Images[2], differences));
    EXPECT_EQ(Names_t{"block 1 of disk-f001.vmdk, at sector 128"}, differences);
    EXPECT_OK(VerifyOne(1, m_Images[0], differences));
    EXPECT_EQ(Names_t{}, differences);
    EXPECT_OK(VerifyOne(1, m_Images[2], differences));
    EXPECT_FALSE(differences.empty());
    EXPECT_FAILS_SAYING(VerifyOne(2, m_Images[0], differences), "2 extents", "1 streams");
}

TEST_F(SeveralDisks, DamageOfOneLeavesTheOthersWhole) {
    ASSERT_OK(BackUpAll(m_Images));
    AlterSet(Set(), "UPDATE block SET digest = zeroblob(16) WHERE stream = 2");
    EXPECT_FAILS_SAYING(Verify(Set()), "of disk.vhd isn't what was backed up");
    const CTempDir target;
    EXPECT_FAILS_SAYING(RestoreOne(2, target.Path()), "of disk.vhd isn't what was backed up");
    EXPECT_EQ(Names_t{}, target.Entries());
    ExpectComesBack(1);
    ExpectComesBack(3);
}

TEST_F(SeveralDisks, StreamsAndFilesOfNoDiskAreRefused) {
    ASSERT_OK(BackUpAll(m_Images));
    const std::string sound = m_Sets.Read("set");
    const struct {
        const char* sql;
        std::function<void(SetLists_t&)> change;
        const char* words;
    } rows[] = {
        {"UPDATE stream SET disk = -1 WHERE id = 0", [](SetLists_t& lists) { lists.streams[0].disk = -1; },
         "the disk of disk-f001.vmdk is out of range"},
        {"UPDATE stream SET disk = 3 WHERE id = 4", [](SetLists_t& lists) { lists.streams[4].disk = 3; },
         "the disk of disk-f002.vmdk is out of range"},
        {"UPDATE stream SET disk = 2 WHERE id = 0", [](SetLists_t& lists) { lists.streams[0].disk = 2; },
         "the disk of disk-f002.vmdk is out of range"},
        {"UPDATE file SET disk = 3 WHERE disk = 2", [](SetLists_t& lists) { lists.files[1].disk = 3; },
         "files that no disk has"},
        {"UPDATE file SET disk = -1 WHERE disk = 0", [](SetLists_t& lists) { lists.files[0].disk = -1; },
         "files that no disk has"},
        {"UPDATE disk SET id = 3 WHERE id = 2", [](SetLists_t& lists) { lists.disks[2].id = 3; },
         "the number of disk.vmdk is out of range"},
        {"UPDATE disk SET id = -1 WHERE id = 0", [](SetLists_t& lists) { lists.disks[0].id = -1; },
         "the number of disk.vmdk is out of range"},
        {"DELETE FROM disk", [](SetLists_t& lists) { lists.disks.clear(); }, "it holds no disk"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.sql);
        m_Sets.Write("set", sound);
        AlterAndSign(Set(), row.sql, row.change);
        EXPECT_FAILS_SAYING(Verify(Set()), Set(), row.words);
    }
}

// Its own place in the set is all that a disk's stream has; with another's it isn't what was written.
TEST_F(SeveralDisks, StreamsThatChangeDisksAreNoticed) {
    ASSERT_OK(BackUpAll(m_Images));
    AlterSet(Set(), "UPDATE stream SET disk = 0 WHERE id = 2");
    EXPECT_FAILS_SAYING(Verify(Set()), "the digest over its lists is wrong");
}

}  // namespace
