#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SectorWalk.h"

// The mapping takes steps as long as the answer is the same. On many small layouts of all kinds, sound and not, it has
// to come to what a walk from sector to sector comes to.

namespace {

class CRandomLayout {
public:
    explicit CRandomLayout(uint64_t seed) : m_Random(seed), m_IsWild(seed % 3 == 0) {}

    LVM_Volume_t Volume() {
        LVM_Volume_t volume;
        volume.IsRaid5 = OneIn(3) ? 1 : 0;
        volume.AllDiskFound = OneIn(2) ? 1 : 0;
        const bool isStriped = volume.IsRaid5 != 0 || OneIn(2);
        uint64_t start = 0;
        for (uint64_t segments = OneIn(3) ? Below(4) : 1; segments > 0; --segments) {
            volume.Segments.push_back(isStriped ? Striped(volume.IsRaid5 != 0, start) : Spanned(start));
            start = volume.Segments.back().LBAEnd + 1 + (OneIn(4) ? Below(5) : 0);
        }
        return volume;
    }

    SparseInfo_t Disks() {
        SparseInfo_t disks(OneIn(20) ? Below(3) : 4);
        for (auto& links : disks) {
            links.resize(OneIn(30) ? 0 : 1 + Below(3));
            for (auto& link : links)
                FillLink(link);
            if (!links.empty() && OneIn(2))
                links.front() = {Flat(0, ~uint64_t{0})};  // no holes
        }
        return disks;
    }

    uint64_t Offset() { return m_IsWild && OneIn(10) ? WildNumber() : Below(90 * 512); }
    uint64_t Length() { return OneIn(2) ? Below(1500) : Below(40 * 512); }

private:
    uint64_t Below(uint64_t end) { return m_Random() % end; }
    bool OneIn(uint64_t turns) { return Below(turns) == 0; }

    uint64_t WildNumber() {
        const uint64_t power = uint64_t{1} << Below(64);
        switch (Below(5)) {
        case 0: return ~uint64_t{0} - Below(3);
        case 1: return power - Below(3);
        case 2: return power + Below(100);
        case 3: return 0;
        default: return Below(64);
        }
    }
    // Mostly the number itself.
    uint64_t Wild(uint64_t number) { return m_IsWild && OneIn(12) ? WildNumber() : number; }

    LVM_Component_t Component(uint64_t volumeLba, uint64_t sectors) {
        LVM_Component_t component;
        component.HardDiskIndex = static_cast<uint32_t>(Wild(Below(4)));
        component.DiskLBAStart = Wild(Below(70));
        component.DiskLBAEnd = component.DiskLBAStart + sectors - 1;
        component.VolLBAStart = Wild(volumeLba);
        component.VolLBAEnd = Wild(volumeLba + sectors - 1);
        return component;
    }

    LVM_Segment_t Striped(bool isRaid5, uint64_t start) {
        LVM_Segment_t segment;
        const uint64_t columns = Wild(isRaid5 ? 3 : 2) % 6;
        const uint64_t sectors = 8 * (1 + Below(6));
        for (uint64_t column = 0; column < columns; ++column)
            segment.Components.push_back(Component(0, sectors));
        segment.StripeSize = Wild(1 + Below(10));
        segment.LBAStart = Wild(start);
        segment.LBAEnd = Wild(start + columns * sectors);
        return segment;
    }

    LVM_Segment_t Spanned(uint64_t start) {
        LVM_Segment_t segment;
        segment.LBAStart = Wild(start);
        for (uint64_t components = 1 + Below(3); components > 0; --components) {
            const uint64_t sectors = 1 + Below(40);
            segment.Components.push_back(Component(start, sectors));
            start += sectors + (OneIn(6) ? Below(3) : 0);
        }
        segment.LBAEnd = Wild(start - 1);
        return segment;
    }

    void FillLink(std::vector<ExtentSparseInfo_t>& link) {
        uint64_t start = OneIn(8) ? Below(6) : 0;
        for (uint64_t extents = 1 + Below(4); extents > 0; --extents) {
            const uint64_t sectors = 1 + Below(80);
            const bool isLast = extents == 1;
            link.push_back(Extent(start, isLast && OneIn(2) ? ~uint64_t{0} : start + sectors - 1));
            start += OneIn(5) ? Below(sectors) : sectors;  // some overlap
        }
        if (OneIn(6))
            std::swap(link.front(), link.back());
    }

    ExtentSparseInfo_t Flat(uint64_t start, uint64_t end) {
        ExtentSparseInfo_t extent;
        extent.ExtentName = "extent" + std::to_string(Below(6));
        extent.ExtentStartLBA = Wild(start);
        extent.ExtentEndLBA = Wild(end);
        extent.BlockSize = Wild(1 + Below(20));
        extent.GrainSize = Wild(OneIn(3) ? extent.BlockSize : 1 + Below(6));
        extent.ExtentFileOffset = OneIn(3) ? 512 : 0;
        return extent;
    }

    ExtentSparseInfo_t Extent(uint64_t start, uint64_t end) {
        ExtentSparseInfo_t extent = Flat(start, end);
        if (OneIn(3))
            return extent;
        extent.GrainsPerBucket = Wild(1 + Below(20));
        FillBitmaps(extent);
        return extent;
    }

    void FillBitmaps(ExtentSparseInfo_t& extent) {
        const uint64_t buckets = Below(12);
        extent.BucketCount = m_IsWild && OneIn(6) ? WildNumber() : buckets;
        extent.TopBitmap = BufferOf(Bitmap((buckets + 7) / 8 + (OneIn(6) ? 1 : 0)));
        for (uint64_t bucket = 0; bucket < buckets; ++bucket) {
            const bool isSound = extent.GrainsPerBucket < 100 && !OneIn(10);
            extent.Buckets.push_back(BufferOf(Bitmap(isSound ? (extent.GrainsPerBucket + 7) / 8 : Below(3))));
        }
        if (m_IsWild && OneIn(8))
            extent.Buckets.resize(Below(buckets + 1));
    }

    // Few holes, few grains, or both alike.
    std::string Bitmap(uint64_t bytes) {
        std::string bitmap;
        const uint64_t kind = Below(4);
        for (uint64_t index = 0; index < bytes; ++index) {
            const char random = static_cast<char>(m_Random());
            const char dense = kind == 0 ? '\xFF' : '\0';
            bitmap += kind >= 2 || OneIn(4) ? random : dense;
        }
        return bitmap;
    }

    std::mt19937_64 m_Random;
    const bool m_IsWild;
};

std::string TextOrNone(const CZuError& error) {
    const char* const text = error.GetErrorText();
    return text != nullptr ? text : "";
}

TEST(LvmMappingRandom, AnyLayoutIsMappedAsAWalkFromSectorToSectorMapsIt) {
    uint64_t successes = 0;
    uint64_t found = 0;
    for (uint64_t seed = 1; seed <= 3000; ++seed) {
        CRandomLayout layout(seed);
        const LVM_Volume_t volume = layout.Volume();
        const SparseInfo_t disks = layout.Disks();
        std::vector<LVM_Disk_Offset_Len_t> walked;
        std::vector<LVM_Disk_Offset_Len_t> runs;
        for (int request = 0; request < 4; ++request) {
            const uint64_t offset = layout.Offset();
            const uint64_t length = layout.Length();
            const std::string expected = WalkSectors(offset, length, volume, disks, walked);
            const CZuError error = CLVM::ConvertVolumeOffsetToDiskExtents(offset, length, volume, disks, runs);
            ASSERT_EQ(expected, TextOrNone(error)) << "seed " << seed << ": " << length << " bytes at " << offset;
            ASSERT_EQ(expected.empty(), !error.IsErrorSet());
            ASSERT_EQ(TextOf(walked), TextOf(runs)) << "seed " << seed << ": " << length << " bytes at " << offset;
            successes += expected.empty() && length != 0 ? 1 : 0;
        }
        found += runs.size();
    }
    // The layouts are worth their walk: many requests succeed, and runs are found.
    EXPECT_LT(2500U, successes);
    EXPECT_LT(12'000U, found);
}

}  // namespace
