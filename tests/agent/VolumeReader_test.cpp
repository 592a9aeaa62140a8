#include "agent/detail/VolumeReader.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "foundation/detail/ErrorHandling.h"
#include "tests/agent/AgentAssertions.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"

namespace {

// Disks in memory, of which some can't be read.
class CTestDisks final : public IDiskBytes {
public:
    explicit CTestDisks(size_t count) {
        for (size_t disk = 0; disk < count; ++disk)
            m_Disks.push_back(PatternedBytes(size_t{64} * 512, disk + 1));
    }

    uint32_t DiskCount() const override { return static_cast<uint32_t>(m_Disks.size()); }

    CZuError ReadDisk(uint32_t diskIndex, uint64_t offset, char* buffer, uint32_t length) override {
        if (m_Broken.count(diskIndex) != 0)
            return Refusal("disk " + std::to_string(diskIndex) + " is broken");
        if (offset > m_Disks[diskIndex].size() || length > m_Disks[diskIndex].size() - offset)
            return Refusal("disk " + std::to_string(diskIndex) + " ends");
        m_Disks[diskIndex].copy(buffer, length, offset);
        return CZuError();
    }

    void Break(uint32_t disk) { m_Broken.insert(disk); }
    void Mend() { m_Broken.clear(); }
    std::string& Bytes(size_t disk) { return m_Disks[disk]; }
    std::string Sectors(size_t disk, uint64_t first, uint64_t count) const {
        return m_Disks[disk].substr(first * 512, count * 512);
    }

private:
    std::vector<std::string> m_Disks;
    std::set<uint32_t> m_Broken;
};

struct Place_t {
    uint32_t disk;
    uint64_t start;
    uint64_t sectors;
};

// One segment; of several components in stripes where `stripe` isn't 0, else one behind the other.
LVM_Volume_t LayoutOf(const std::vector<Place_t>& places, uint64_t stripe = 0, bool isRaid5 = false) {
    LVM_Segment_t segment;
    segment.StripeSize = stripe;
    uint64_t sectors = 0;
    for (const Place_t& place : places) {
        LVM_Component_t component;
        component.HardDiskIndex = place.disk;
        component.DiskLBAStart = place.start;
        component.DiskLBAEnd = place.start + place.sectors - 1;
        component.VolLBAStart = stripe != 0 ? 0 : sectors;
        component.VolLBAEnd = component.VolLBAStart + place.sectors - 1;
        component.ColumnIndex = static_cast<int32_t>(segment.Components.size());
        segment.Components.push_back(component);
        sectors += place.sectors;
    }
    segment.LBAEnd = sectors - 1;
    LVM_Volume_t layout;
    layout.AllDiskFound = 1;
    layout.IsRaid5 = isRaid5 ? 1 : 0;
    layout.Segments.push_back(segment);
    return layout;
}

VolumeInfo_t VolumeOf(const LVM_Volume_t& layout) {
    VolumeInfo_t volume;
    volume.name = "the volume";
    volume.layout = layout;
    return volume;
}

std::string ReadAll(CTestDisks& disks, const VolumeInfo_t& volume, uint64_t sectors) {
    std::string bytes(sectors * 512, '?');
    EXPECT_OK(CVolumeReader(disks).Read(volume, 0, bytes.data(), static_cast<uint32_t>(bytes.size())));
    return bytes;
}

CZuError TryRead(CTestDisks& disks, const VolumeInfo_t& volume, uint64_t offset = 0, uint32_t length = 512) {
    std::string bytes(length, '?');
    return CVolumeReader(disks).Read(volume, offset, bytes.data(), length);
}

TEST(VolumeReader, GoesOnWithTheNextComponentAndTheNextStripe) {
    CTestDisks disks(2);
    EXPECT_SAME_BYTES(disks.Sectors(1, 7, 5) + disks.Sectors(0, 3, 4),
                      ReadAll(disks, VolumeOf(LayoutOf({{1, 7, 5}, {0, 3, 4}})), 9));
    EXPECT_SAME_BYTES(disks.Sectors(0, 3, 2) + disks.Sectors(1, 7, 2) + disks.Sectors(0, 5, 2) + disks.Sectors(1, 9, 2),
                      ReadAll(disks, VolumeOf(LayoutOf({{0, 3, 4}, {1, 7, 4}}, 2)), 8));
}

TEST(VolumeReader, ReadsBehindNoVolumeAndFromNoneWithAProblem) {
    CTestDisks disks(1);
    VolumeInfo_t volume = VolumeOf(LayoutOf({{0, 3, 4}}));
    EXPECT_OK(TryRead(disks, volume, 2047, 1));
    EXPECT_OK(TryRead(disks, volume, 4096, 0));
    EXPECT_FAILS_SAYING(TryRead(disks, volume, 2048, 1), "the volume", "has no byte 2048");
    EXPECT_FAILS_SAYING(TryRead(disks, volume, 2047, 2), "the volume", "has no byte 2048");
    volume.problem = "is of a kind that nobody knows";
    EXPECT_FAILS_SAYING(TryRead(disks, volume), "the volume: is of a kind that nobody knows");
}

TEST(VolumeReader, TakesWhatADiskDoesNotGiveFromTheMirror) {
    CTestDisks disks(3);
    VolumeInfo_t volume = VolumeOf(LayoutOf({{0, 3, 4}, {1, 3, 4}}));
    volume.mirrors = {LayoutOf({{NoHardDisk, 0, 8}}), LayoutOf({{2, 10, 8}})};
    EXPECT_SAME_BYTES(disks.Sectors(0, 3, 4) + disks.Sectors(1, 3, 4), ReadAll(disks, volume, 8));
    disks.Break(1);
    EXPECT_SAME_BYTES(disks.Sectors(0, 3, 4) + disks.Sectors(2, 14, 4), ReadAll(disks, volume, 8));
    disks.Break(2);
    EXPECT_FAILS_SAYING(TryRead(disks, volume, 2048), "disk 1 is broken");
    EXPECT_OK(TryRead(disks, volume));
}

TEST(VolumeReader, NamesAVolumeWhoseDiskIsNotThere) {
    CTestDisks disks(1);
    EXPECT_FAILS_SAYING(TryRead(disks, VolumeOf(LayoutOf({{NoHardDisk, 3, 4}}))), "the volume: one of its disks");
    EXPECT_FAILS_SAYING(TryRead(disks, VolumeOf(LayoutOf({{1, 3, 4}}))), "the volume: one of its disks");
}

// Three columns of which each row has one of parity, so that any two give the third.
class Raid5OfTestDisks : public testing::Test {
protected:
    static constexpr uint64_t Stripe = 2;

    Raid5OfTestDisks() : m_Disks(3), m_Volume(VolumeOf(LayoutOf({{0, 5, 12}, {1, 6, 12}, {2, 7, 12}}, Stripe, true))) {
        for (size_t byte = 0; byte < size_t{12} * 512; ++byte)
            m_Disks.Bytes(2)[7 * 512 + byte] =
                static_cast<char>(m_Disks.Bytes(0)[5 * 512 + byte] ^ m_Disks.Bytes(1)[6 * 512 + byte]);
    }

    CTestDisks m_Disks;
    VolumeInfo_t m_Volume;
};

TEST_F(Raid5OfTestDisks, IsTheSameWithoutAnyOneOfThem) {
    const std::string whole = ReadAll(m_Disks, m_Volume, 24);
    // The parity of the first row is in the last column, that of the second one in front of it.
    EXPECT_SAME_BYTES(m_Disks.Sectors(0, 5, 2) + m_Disks.Sectors(1, 6, 2), whole.substr(0, 4 * 512));
    for (uint32_t disk = 0; disk < 3; ++disk) {
        m_Disks.Break(disk);
        EXPECT_SAME_BYTES(whole, ReadAll(m_Disks, m_Volume, 24)) << "without disk " << disk;
        m_Disks.Mend();
        VolumeInfo_t volume = m_Volume;
        volume.layout.Segments[0].Components[disk].HardDiskIndex = NoHardDisk;
        EXPECT_SAME_BYTES(whole, ReadAll(m_Disks, volume, 24)) << "whose disk " << disk << " is missing";
    }
    for (const uint32_t length : {1U, 7U, 8U, 9U, 1023U}) {
        m_Disks.Break(0);
        std::string bytes(length, '?');
        EXPECT_OK(CVolumeReader(m_Disks).Read(m_Volume, 3, bytes.data(), length));
        EXPECT_SAME_BYTES(whole.substr(3, length), bytes) << length;
    }
}

TEST_F(Raid5OfTestDisks, IsNotReadWithoutTwoOfThem) {
    m_Disks.Break(0);
    m_Disks.Break(1);
    EXPECT_FAILS_SAYING(TryRead(m_Disks, m_Volume), "disk 0 is broken");
}

TEST(VolumeReader, RebuildsNoStripesWithoutParity) {
    CTestDisks disks(2);
    disks.Break(1);
    EXPECT_FAILS_SAYING(TryRead(disks, VolumeOf(LayoutOf({{0, 3, 4}, {1, 7, 4}}, 2)), 1024), "disk 1 is broken");
}

}  // namespace
