#include "agent/detail/CatalogClusters.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "agent/detail/CatalogDump.h"
#include "agent/detail/CatalogFacts.h"
#include "tests/agent/AgentRuns.h"
#include "tests/agent/CatalogFiles.h"
#include "tests/agent/ManagedVolumes.h"
#include "tests/support/LdmGroupBuilder.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/VhdBuilder.h"
#include "tests/support/VmdkSparseBuilder.h"

// The bytes of a volume out of a set, by the dump and by the layout.

namespace {

constexpr uint64_t FirstSector = 100;
constexpr uint64_t DiskSectors = 8192;

// A disk of holes with an NTFS volume from `FirstSector` on.
std::string DiskBytes() {
    const std::string volume = CNtfsVolumeBuilder()
                                   .Record(40, NtfsNamedFile(u"file").Add(NtfsDataOf("contents")))
                                   .Cluster(100, PatternedBytes(40000))
                                   .VolumeImage()
                                   .Bytes();
    std::string bytes(DiskSectors * 512, '\0');
    const std::string record =
        CBootRecordBuilder().Slot(0, 7, FirstSector, static_cast<uint32_t>(volume.size() / 512)).Bytes();
    PutBytes(bytes, 0, record);
    PutBytes(bytes, FirstSector * 512, volume);
    return bytes;
}

// Blocks of nothing but zeros are left out.
template <typename Put_t> void PutBlocks(const std::string& disk, uint64_t blockBytes, const Put_t& put) {
    for (uint64_t at = 0; at < disk.size(); at += blockBytes) {
        const std::string block = disk.substr(at, blockBytes);
        if (block.find_first_not_of('\0') != std::string::npos)
            put(at / blockBytes, block);
    }
}

class CatalogClusters : public testing::Test {
protected:
    void Open(const std::string& image, std::optional<DiskType_t> type = std::nullopt) {
        BackupOptions_t options;
        options.image.type = type;
        options.catalog = true;
        options.force = true;
        BackupResult_t result;
        ASSERT_OK(BackUpDisk(image, m_Dir.File("set"), options, result));
        EXPECT_EQ(std::vector<std::string>{}, result.catalogProblems);
        ASSERT_OK(m_Set.Open(m_Dir.File("set")));
        ASSERT_EQ(1U, m_Set.Volumes().size());
        m_Volume = m_Set.Volumes()[0];
        ASSERT_OK(ReadCatalogFacts(m_Volume.facts, 1, m_Facts));
    }

    // The volume in pieces, when its facts are told in this way.
    void ExpectHolds(const std::string& content, const CatalogFacts_t& facts, const std::string& name = "Volume1") {
        SetVolume_t volume = m_Volume;
        volume.name = name;
        volume.facts = CatalogFactsText(facts);
        CCatalogClusters clusters(m_Set);
        ASSERT_OK(clusters.Open(volume));
        std::mt19937_64 random(content.size());
        std::string whole(content.size(), '?');
        ASSERT_OK(clusters.Read(0, whole.data(), static_cast<uint32_t>(whole.size())));
        EXPECT_SAME_BYTES(content, whole);
        for (int turn = 0; turn < 50; ++turn) {
            const uint64_t offset = random() % content.size();
            std::string bytes(1 + random() % std::min<uint64_t>(content.size() - offset, 30000), '?');
            ASSERT_OK(clusters.Read(offset, bytes.data(), static_cast<uint32_t>(bytes.size())));
            EXPECT_SAME_BYTES(content.substr(offset, bytes.size()), bytes) << bytes.size() << " at " << offset;
        }
        char byte = 0;
        EXPECT_FAILS_SAYING(clusters.Read(content.size(), &byte, 1), name, "has no byte");
    }

    // The same bytes by the dump, by a layout, and by the layout where the dump tells nothing of the volume. A layout
    // that leads elsewhere proves that the dump is asked.
    void ExpectSameBothWays() {
        ASSERT_TRUE(m_Facts.isInDump);
        const std::string content = DiskBytes().substr(FirstSector * 512, m_Facts.volume.sectors * 512);
        ExpectHolds(content, m_Facts);
        CatalogFacts_t alone = m_Facts;
        alone.isInDump = false;
        ExpectHolds(content, alone);
        ExpectHolds(content, m_Facts, "of another name");
        CatalogFacts_t astray = m_Facts;
        astray.volume.layout.Segments[0].Components[0].HardDiskIndex = NoHardDisk;
        SetVolume_t volume = m_Volume;
        volume.facts = CatalogFactsText(astray);
        CCatalogClusters clusters(m_Set);
        ASSERT_OK(clusters.Open(volume));
        std::string bytes(4096, '?');
        EXPECT_OK(clusters.Read(FileByte, bytes.data(), static_cast<uint32_t>(bytes.size())));
        EXPECT_SAME_BYTES(content.substr(FileByte, bytes.size()), bytes);
    }

    static constexpr uint64_t FileByte = 100 * 4096 + 512;
    CTempDir m_Dir;
    CBackupSetReader m_Set;
    SetVolume_t m_Volume;
    CatalogFacts_t m_Facts;
};

TEST_F(CatalogClusters, AreTheSameByDumpAndByLayoutOnARawDisk) {
    Open(m_Dir.Write("disk", DiskBytes()), DiskType_PhysicalDisk);
    ExpectSameBothWays();
}

TEST_F(CatalogClusters, AreTheSameByDumpAndByLayoutOnASparseDisk) {
    CVmdkSparseBuilder builder;
    builder.Capacity(DiskSectors);
    PutBlocks(DiskBytes(), 4096, [&](uint64_t grain, const std::string& bytes) { builder.Grain(grain, bytes); });
    Open(builder.WriteTo(m_Dir, "disk.vmdk"));
    ExpectSameBothWays();
}

TEST_F(CatalogClusters, AreTheSameByDumpAndByLayoutOnADynamicVhd) {
    CVhdBuilder builder = CVhdBuilder::Dynamic(DiskSectors);
    builder.BlockSize(65536);
    PutBlocks(DiskBytes(), 65536, [&](uint64_t block, const std::string& bytes) { builder.Block(block, bytes); });
    Open(builder.WriteTo(m_Dir));
    ExpectSameBothWays();
}

TEST_F(CatalogClusters, AreTheSameByDumpAndByLayoutOnADiskOfExtents) {
    CVmdkDescriptorBuilder descriptor;
    const std::string bytes = DiskBytes();
    for (const auto& [first, count] : {std::pair<uint64_t, uint64_t>{0, 901}, {901, 100}, {1001, DiskSectors - 1001}}) {
        const std::string name = "extent" + std::to_string(first);
        m_Dir.Write(name, bytes.substr(first * 512, count * 512));
        descriptor.Extent(count, "FLAT", name);
    }
    Open(descriptor.WriteTo(m_Dir));
    ExpectSameBothWays();
}

TEST_F(CatalogClusters, OfFactsThatCannotBeAreRefused) {
    Open(m_Dir.Write("disk", DiskBytes()), DiskType_PhysicalDisk);
    SetVolume_t volume = m_Volume;
    volume.facts = "{";
    CCatalogClusters clusters(m_Set);
    EXPECT_FAILS_SAYING(clusters.Open(volume), m_Dir.File("set") + ": Volume1", "its facts can't be read");
}

class CatalogDump : public CManagedVolumesTest {
protected:
    // Whether the dump leads to the same bytes, by volume.
    std::vector<bool> Covered() {
        CCatalogDump dump;
        EXPECT_TRUE(dump.Write(*m_Set, std::vector<uint32_t>(m_Set->Disks().size(), 128), m_Dir.File("dump")));
        std::vector<bool> covered;
        for (const VolumeInfo_t& volume : m_Set->Volumes())
            covered.push_back(dump.Covers(*m_Set, volume));
        return covered;
    }
};

TEST_F(CatalogDump, LeadsToVolumesOfOneCopyAndOneSegment) {
    const CLdmGroupBuilder group = CLdmGroupBuilder(3)
                                       .Volume(LdmSimple({0, 0, 100}))
                                       .Volume(LdmSpanned({{1, 500, 100}, {0, 200, 51}}))
                                       .Volume(LdmStriped(8, {{2, 0, 64}, {0, 300, 64}, {1, 700, 64}}))
                                       .Volume(LdmRaid5(8, {{0, 1000, 80}, {1, 1000, 80}, {2, 1000, 80}}))
                                       .Volume(LdmMirrored({{0, 1500, 90}, {2, 1500, 90}}));
    for (size_t disk = 0; disk < 3; ++disk)
        AddDisk(group.Image(disk));
    Open();
    EXPECT_LT(1U, Volume("Volume2").layout.Segments.size());
    EXPECT_EQ((std::vector<bool>{true, false, true, true, false}), Covered());
}

TEST_F(CatalogDump, DoesNotLeadToAVolumeOfAnotherLayout) {
    const CLdmGroupBuilder group =
        CLdmGroupBuilder(2).Volume(LdmStriped(8, {{0, 300, 64}, {1, 700, 64}})).Volume(LdmSimple({0, 0, 100}));
    AddDisk(group.Image(0));
    AddDisk(group.Image(1));
    Open();
    CCatalogDump dump;
    ASSERT_TRUE(dump.Write(*m_Set, {128, 128}, m_Dir.File("dump")));
    const VolumeInfo_t sound = Volume("Volume1");
    ASSERT_TRUE(dump.Covers(*m_Set, sound));
    const struct {
        const char* name;
        std::function<void(VolumeInfo_t&)> change;
    } rows[] = {
        {"name", [](VolumeInfo_t& volume) { volume.name = "Volume2"; }},
        {"no such name", [](VolumeInfo_t& volume) { volume.name = "Volume9"; }},
        {"mirror", [](VolumeInfo_t& volume) { volume.mirrors.push_back(volume.layout); }},
        {"stripe", [](VolumeInfo_t& volume) { volume.layout.Segments[0].StripeSize = 16; }},
        {"parity", [](VolumeInfo_t& volume) { volume.layout.IsRaid5 = 1; }},
        {"start", [](VolumeInfo_t& volume) { volume.layout.Segments[0].LBAStart = 1; }},
        {"segments", [](VolumeInfo_t& volume) { volume.layout.Segments.push_back(volume.layout.Segments[0]); }},
        {"fewer disks", [](VolumeInfo_t& volume) { volume.layout.Segments[0].Components.pop_back(); }},
        {"disk", [](VolumeInfo_t& volume) { volume.layout.Segments[0].Components[1].HardDiskIndex = 0; }},
        {"place", [](VolumeInfo_t& volume) { ++volume.layout.Segments[0].Components[1].DiskLBAStart; }},
        {"first", [](VolumeInfo_t& volume) { ++volume.layout.Segments[0].Components[1].VolLBAStart; }},
        {"last", [](VolumeInfo_t& volume) { ++volume.layout.Segments[0].Components[0].VolLBAEnd; }},
    };
    for (const auto& row : rows) {
        VolumeInfo_t volume = sound;
        row.change(volume);
        EXPECT_FALSE(dump.Covers(*m_Set, volume)) << row.name;
    }
}

}  // namespace
