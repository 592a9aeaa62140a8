#include <gtest/gtest.h>
#include <zstd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "agent/detail/SetSchema.h"
#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/agent/SetSurgery.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"
#include "tests/support/VmdkSparseBuilder.h"

// Sets made by somebody who knows the format and signs what he writes. They may hold any bytes, but
// they write nowhere else, take no more than they should and end.

namespace {

using Names_t = std::vector<std::string>;

class HostileSet : public testing::Test {
protected:
    HostileSet() {
        const std::string disk = WriteFlatDisk(m_Disks, {DiskContent(300), DiskContent(7, 2)});
        EXPECT_OK(BackUp(disk, m_Dir.File("set")));
        m_Set.ReadFrom(m_Dir.File("set"));
        std::filesystem::create_directory(m_Dir.File("targets"));
    }

    // The set as it is now, on disk.
    std::string Written() const {
        m_Set.WriteTo(m_Dir.File("set"));
        return m_Dir.File("set");
    }

    // A directory two levels below the test's own, so that `..` would lead to where it is seen.
    std::string Target() const {
        std::filesystem::remove_all(m_Dir.File("targets"));
        std::filesystem::create_directories(m_Dir.File("targets/inner"));
        return m_Dir.File("targets/inner");
    }

    size_t FilesAtTargets() const {
        size_t count = 0;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(m_Dir.File("targets")))
            count += entry.is_directory() ? 0 : 1;
        return count;
    }

    // Neither form is restored, and nothing is anywhere.
    void ExpectNothingRestored() const {
        const std::string set = Written();
        EXPECT_FAILS_SAYING(Restore(set, Target()), set);
        EXPECT_EQ(0U, FilesAtTargets());
        EXPECT_FAILS_SAYING(RestoreRaw(set, Target()), set);
        EXPECT_EQ(0U, FilesAtTargets());
    }

    // It is restored or refused; an error leaves nothing.
    void ExpectRestoredOrNothing() const {
        const std::string set = Written();
        for (const bool asRaw : {false, true}) {
            const std::string target = Target();
            const CZuError error = asRaw ? RestoreRaw(set, target) : Restore(set, target);
            if (error.IsErrorSet()) {
                EXPECT_EQ(0U, FilesAtTargets()) << DescribeError(error);
            }
        }
    }

    CTempDir m_Disks;
    CTempDir m_Dir;
    LooseSet_t m_Set;
};

TEST_F(HostileSet, AnUnchangedOneComesBack) {
    const std::string target = Target();
    ASSERT_OK(Restore(Written(), target));
    for (const std::string& name : m_Disks.Entries())
        EXPECT_SAME_BYTES(m_Disks.Read(name), ReadFileBytes(target + "/" + name));
}

constexpr const char* NamesThatLeave[] = {"../evil",  "..",       "sub/../../evil",     "/tmp/diskstream-evil",
                                          "..\\evil", "C:\\evil", "\\\\host\\share\\x", "sub\\..\\..\\evil"};

TEST_F(HostileSet, StreamNamesThatLeaveTheTargetAreRefused) {
    for (const char* name : NamesThatLeave) {
        SCOPED_TRACE(name);
        m_Set.streams[1].stream.fileName = name;
        const std::string set = Written();
        EXPECT_FAILS_SAYING(Restore(set, Target()), set, name, "--allow-outside");
        EXPECT_EQ(0U, FilesAtTargets());
    }
}

TEST_F(HostileSet, FileNamesThatLeaveTheTargetAreRefused) {
    for (const char* name : NamesThatLeave) {
        SCOPED_TRACE(name);
        m_Set.files[0].name = name;
        const std::string set = Written();
        EXPECT_FAILS_SAYING(Restore(set, Target()), set, name, "--allow-outside");
        EXPECT_EQ(0U, FilesAtTargets());
    }
}

TEST_F(HostileSet, ImageNamesThatLeaveTheTargetAreRefused) {
    for (const char* name : NamesThatLeave) {
        SCOPED_TRACE(name);
        m_Set.disks[0].imageName = name;
        ExpectNothingRestored();
    }
    for (const char* name : {"", ".", "sub/", "/"}) {
        SCOPED_TRACE(name);
        m_Set.disks[0].imageName = name;
        ExpectNothingRestored();
    }
}

TEST_F(HostileSet, NamesThatMeetAreRefused) {
    for (const char* name : {"disk.vmdk", "./disk.vmdk", "disk-f001.vmdk", "./disk-f001.vmdk"}) {
        SCOPED_TRACE(name);
        m_Set.streams[1].stream.fileName = name;
        const std::string set = Written();
        EXPECT_FAILS_SAYING(Restore(set, Target()), set, "two of its files");
        EXPECT_EQ(0U, FilesAtTargets());
    }
}

TEST_F(HostileSet, StrangeNamesStayInTheTarget) {
    const std::string names[] = {
        std::string("a\0b", 3), "new\nline", "\x1B[31m", "-rf", std::string(300, 'n'), "a/b/c", "~", "$HOME", "con"};
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        m_Set.streams[1].stream.fileName = name;
        ExpectRestoredOrNothing();
        EXPECT_EQ((Names_t{"set", "targets"}), m_Dir.Entries());
    }
}

TEST_F(HostileSet, NumbersBeyondReasonAreRefusedOrDoNoHarm) {
    using Change_t = std::function<void(LooseSet_t&)>;
    const auto stream = [](std::function<void(SetStream_t&)> change) {
        return Change_t([change](LooseSet_t& set) { change(set.streams[0].stream); });
    };
    const struct {
        const char* name;
        Change_t change;
    } rows[] = {
        {"no product", [](LooseSet_t& set) { set.disks[0].product = ProductType_t(0); }},
        {"another product", [](LooseSet_t& set) { set.disks[0].product = VirtualProdType_HyperV; }},
        {"physical product", [](LooseSet_t& set) { set.disks[0].product = VirtualProdType_Physical; }},
        {"product of nobody", [](LooseSet_t& set) { set.disks[0].product = ProductType_t(-1); }},
        {"disk type of nobody", stream([](SetStream_t& row) { row.diskType = DiskType_t(999); })},
        {"negative disk type", stream([](SetStream_t& row) { row.diskType = DiskType_t(-1); })},
        {"a sparse type", stream([](SetStream_t& row) { row.diskType = DiskType_MonolithicSparse; })},
        {"a physical type", stream([](SetStream_t& row) { row.diskType = DiskType_PhysicalDisk; })},
        {"blocks of one sector", stream([](SetStream_t& row) { row.blockSectors = 1; })},
        {"the largest blocks", stream([](SetStream_t& row) { row.blockSectors = 65536; })},
        {"a smaller disk", stream([](SetStream_t& row) { row.diskSectors = 1; })},
        {"an empty disk", stream([](SetStream_t& row) { row.diskSectors = 0; })},
        {"a smaller file", stream([](SetStream_t& row) { row.fileBytes = 1; })},
        {"an empty file", stream([](SetStream_t& row) { row.fileBytes = 0; })},
        {"no streams", [](LooseSet_t& set) { set.streams.clear(); }},
        {"no files", [](LooseSet_t& set) { set.files.clear(); }},
        {"no record", [](LooseSet_t& set) { set.streams[0].record.clear(); }},
        {"half a record", [](LooseSet_t& set) { set.streams[0].record.resize(20); }},
        {"a record of noise", [](LooseSet_t& set) { set.streams[0].record = PatternedBytes(5000); }},
        {"a record of zeros", [](LooseSet_t& set) { set.streams[0].record.assign(5000, '\0'); }},
        {"the record of a sparse extent",
         [](LooseSet_t& set) { set.streams[0].record = CVmdkSparseBuilder().Record(); }},
        {"no blocks", [](LooseSet_t& set) { set.streams[0].blocks.clear(); }},
        {"a longer last block", [](LooseSet_t& set) { set.streams[1].blocks[0].block.number = 1; }},
    };
    const LooseSet_t sound = m_Set;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        m_Set = sound;
        row.change(m_Set);
        ExpectRestoredOrNothing();
        EXPECT_EQ((Names_t{"set", "targets"}), m_Dir.Entries());
    }
}

TEST_F(HostileSet, SizesThatNoFileCanHaveAreRefused) {
    const LooseSet_t sound = m_Set;
    for (const uint64_t sectors : {uint64_t{1} << 54U, uint64_t{1} << 62U, ~uint64_t{0}}) {
        SCOPED_TRACE(sectors);
        m_Set = sound;
        m_Set.streams[0].stream.diskSectors = sectors;
        m_Set.streams[1].stream.diskSectors = sectors;
        ExpectRestoredOrNothing();
        EXPECT_FAILS_SAYING(RestoreRaw(Written(), Target()), m_Dir.Path());
    }
    m_Set = sound;
    m_Set.streams[0].stream.fileBytes = uint64_t{1} << 63U;
    EXPECT_FAILS_SAYING(Restore(Written(), Target()), m_Dir.File("set"), "out of range");
    for (const uint32_t blockSectors : {0U, 65537U, 0x80000000U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(blockSectors);
        m_Set = sound;
        m_Set.streams[0].stream.blockSectors = blockSectors;
        EXPECT_FAILS_SAYING(Restore(Written(), Target()), m_Dir.File("set"), "block size", "out of range");
    }
}

TEST_F(HostileSet, BlocksThatLieNowhereAreRefused) {
    m_Set.streams[0].stream.blockSectors = 65536;
    for (const uint64_t number : {uint64_t{1} << 38U, uint64_t{1} << 39U, (uint64_t{1} << 40U) - 1}) {
        SCOPED_TRACE(number);
        m_Set.streams[0].blocks.back().block.number = number;
        EXPECT_FAILS_SAYING(Verify(Written()), m_Dir.File("set"), "lies nowhere");
        ExpectNothingRestored();
    }
}

TEST_F(HostileSet, StreamsOfNumbersThatNoSetHasAreRefused) {
    const struct {
        int64_t before;
        int64_t after;
    } rows[] = {{0, -1}, {0, INT64_MIN}, {1, int64_t{1} << 23}, {1, INT64_MAX}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.after);
        const std::string set = Written();
        AlterAndSign(
            set, "UPDATE stream SET id = " + std::to_string(row.after) + " WHERE id = " + std::to_string(row.before),
            [&](SetLists_t& lists) { lists.streams[size_t(row.before)].id = row.after; });
        EXPECT_FAILS_SAYING(Verify(set), set, "out of range");
    }
}

TEST_F(HostileSet, BlocksBehindTheDiskStayOutOfTheRawImage) {
    m_Set.streams[0].blocks.back().block.number = uint64_t{1} << 30U;
    const std::string target = Target();
    ASSERT_OK(RestoreRaw(Written(), target));
    EXPECT_EQ(307U * 512U, std::filesystem::file_size(target + "/disk.raw"));
    std::string content = DiskContent(300);
    content.replace(256 * 512, 44 * 512, 44 * 512, '\0');
    EXPECT_SAME_BYTES(content + DiskContent(7, 2), ReadFileBytes(target + "/disk.raw"));
}

// Blocks that reach over the end of their stream must not run into the next one.
TEST_F(HostileSet, ABlockThatIsTooLongStaysInItsStream) {
    LooseSet_t::Block_t& block = m_Set.streams[0].blocks.back();
    const std::string bytes(65536, 'E');
    block.block.sectors = 128;
    block.block.encoded.encoding = BlockEncoding_t::Plain;
    block.block.encoded.digest = DigestOf(bytes.data(), bytes.size());
    block.bytes = bytes;
    const std::string target = Target();
    ASSERT_OK(RestoreRaw(Written(), target));
    std::string content = DiskContent(300);
    content.replace(256 * 512, 44 * 512, 44 * 512, 'E');
    EXPECT_SAME_BYTES(content + DiskContent(7, 2), ReadFileBytes(target + "/disk.raw"));
    ExpectRestoredOrNothing();
}

TEST_F(HostileSet, BombsAreRefused) {
    std::string bomb(1 << 20, '\0');
    {
        const std::string plain(64 << 20, 'x');
        bomb.resize(ZSTD_compress(bomb.data(), bomb.size(), plain.data(), plain.size(), 19));
    }
    LooseSet_t::Block_t& block = m_Set.streams[0].blocks[1];
    block.block.encoded.encoding = BlockEncoding_t::Zstd;
    block.bytes = bomb;
    EXPECT_FAILS_SAYING(Verify(Written()), m_Dir.File("set"), "block 1");
    ExpectNothingRestored();
}

TEST_F(HostileSet, MoreOrLargerFilesThanADiskHasAreRefused) {
    m_Set.files[0].bytes.assign((1 << 20) + 1, 'x');
    EXPECT_FAILS_SAYING(Verify(Written()), m_Dir.File("set"), "files that no disk has");
    m_Set.files.clear();
    for (int number = 0; number < 65; ++number)
        m_Set.files.push_back({"file" + std::to_string(number), "x"});
    EXPECT_FAILS_SAYING(Verify(Written()), m_Dir.File("set"), "files that no disk has");
}

TEST_F(HostileSet, ARecordThatPromisesMoreThanItHasIsRefused) {
    for (const uint64_t promised : {uint64_t{1000000}, LargestRecordBytes}) {
        SCOPED_TRACE(promised);
        const std::string set = Written();
        AlterAndSign(set, "UPDATE stream SET record_bytes = " + std::to_string(promised) + " WHERE id = 0",
                     [&](SetLists_t& lists) { lists.streams[0].recordBytes = promised; });
        EXPECT_FAILS_SAYING(Verify(set), set, "metadata record of disk-f001.vmdk");
    }
}

TEST_F(HostileSet, ARecordThatPromisesMoreThanAnyDiskHasIsRefusedAtOnce) {
    for (const uint64_t promised : {LargestRecordBytes + 1, uint64_t{4294967295}}) {
        SCOPED_TRACE(promised);
        const std::string set = Written();
        AlterAndSign(set, "UPDATE stream SET record_bytes = " + std::to_string(promised) + " WHERE id = 0",
                     [&](SetLists_t& lists) { lists.streams[0].recordBytes = promised; });
        EXPECT_FAILS_SAYING(Verify(set), set, "a size of disk-f001.vmdk is out of range");
    }
}

TEST_F(HostileSet, ARecordThatHasMoreThanItPromisesIsRefused) {
    const std::string set = Written();
    AlterAndSign(set, "UPDATE stream SET record_bytes = 1 WHERE id = 0",
                 [](SetLists_t& lists) { lists.streams[0].recordBytes = 1; });
    EXPECT_FAILS_SAYING(Verify(set), set, "metadata record of disk-f001.vmdk");
}

// Grains and tables of a sparse record that point anywhere.
TEST_F(HostileSet, RecordsOfSparseExtentsMayHoldAnything) {
    const CTempDir disks;
    const std::string disk =
        CVmdkSparseBuilder().Descriptor("# Disk DescriptorFile\n").Grain(3, 'x').Grain(31, 'y').WriteTo(disks);
    ASSERT_OK(BackUp(disk, m_Dir.File("set"), true));
    LooseSet_t sound;
    sound.ReadFrom(m_Dir.File("set"));
    ASSERT_GT(sound.streams[0].record.size(), 4096U);
    for (size_t at = 0; at < sound.streams[0].record.size(); at += at < 700 ? 9 : 211) {
        for (const uint64_t value : {uint64_t{0}, ~uint64_t{0}, uint64_t{0x80}}) {
            SCOPED_TRACE(testing::Message() << "byte " << at << " on " << value);
            m_Set = sound;
            std::string& record = m_Set.streams[0].record;
            PutBytes(record, at, LittleEndianBytes(value, std::min<size_t>(8, record.size() - at)));
            ExpectRestoredOrNothing();
        }
    }
    for (size_t size = 0; size < sound.streams[0].record.size(); size += 301) {
        SCOPED_TRACE(testing::Message() << "cut to " << size);
        m_Set = sound;
        m_Set.streams[0].record.resize(size);
        ExpectRestoredOrNothing();
    }
}

}  // namespace
