#include "agent/detail/Lvm2Volumes.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

#include "VirtualServer/VMInfo/PartitionTables.h"
#include "agent/ErrorText.h"
#include "agent/VolumeMap.h"
#include "agent/detail/Lvm2PhysicalVolume.h"
#include "agent/detail/VolumeLayout.h"
#include "foundation/detail/CheckedMath.h"

namespace {

constexpr uint64_t MostTextBytes = uint64_t{256} << 20U;  // of all groups

std::string WithoutDashes(std::string id) {
    id.erase(std::remove(id.begin(), id.end(), '-'), id.end());
    return id;
}

// A number of extents, in sectors. False where it doesn't fit.
[[nodiscard]] bool SectorsOfExtents(uint64_t extents, uint64_t extentSectors, uint64_t& sectors) {
    return CheckedMul(extents, extentSectors, sectors);
}

// Reads one logical volume of a group. What can't be read rightly gets a problem, and no layout.
class CLogicalVolume {
public:
    CLogicalVolume(const Lvm2Block_t& block, uint64_t extentSectors, const Lvm2PhysicalVolumes_t& physical,
                   VolumeInfo_t& info)
        : m_Block(block), m_ExtentSectors(extentSectors), m_Physical(physical), m_Info(info) {}

    void Describe() {
        m_Info.manager = VolumeManager_t::Lvm2;
        m_Info.label = m_Block.name;
        m_Info.guid = m_Block.Text("id");
        m_Info.isInternal = !m_Block.Has("status", "VISIBLE");
        m_Info.layout.SystemID = PartitionType_LinuxLvm;
        m_Info.problem = AddSegments();
        if (m_Info.problem.empty()) {
            m_Info.problem = ProblemOf(m_Info);
            return;
        }
        m_Info.layout.Segments.clear();
    }

private:
    static bool IsSegment(const Lvm2Block_t& block) { return block.name.rfind("segment", 0) == 0; }

    std::string AddSegments() {
        std::vector<const Lvm2Block_t*> segments;
        for (const Lvm2Block_t& block : m_Block.blocks) {
            if (IsSegment(block))
                segments.push_back(&block);
        }
        if (m_ExtentSectors == 0)
            return "its group doesn't tell the size of its extents";
        if (!CountSectors(segments))
            return "its segments don't tell where they begin and end";
        std::string problem = FindTypes(segments);
        for (const Lvm2Block_t* const segment : segments) {
            if (!problem.empty())
                return problem;
            problem = AddSegment(*segment);
        }
        if (problem.empty() && m_Info.layout.Segments.empty())
            return "it has no segments";
        return problem;
    }

    // The size that its metadata tells, of a volume that can't be read too.
    bool CountSectors(const std::vector<const Lvm2Block_t*>& segments) {
        uint64_t extents = 0;
        for (const Lvm2Block_t* const segment : segments) {
            uint64_t count = 0;
            if (!segment->Number("extent_count", count) || !CheckedAdd(extents, count, extents))
                return false;
        }
        uint64_t bytes = 0;
        uint64_t sectors = 0;
        if (!SectorsOfExtents(extents, m_ExtentSectors, sectors) || !SectorsToBytes(sectors, bytes))
            return false;
        m_Info.sectors = sectors;
        return true;
    }

    // Segments of other types than "striped" keep their bytes in ways of their own.
    std::string FindTypes(const std::vector<const Lvm2Block_t*>& segments) {
        m_Info.typeName = "linear";
        for (const Lvm2Block_t* const segment : segments) {
            const std::string type = segment->Text("type");
            if (type != "striped") {
                m_Info.typeName = type;
                return "its segments are of type \"" + type + "\", which can't be read";
            }
            if (segment->Text("stripe_count") != "1")
                m_Info.typeName = "striped";
        }
        return {};
    }

    std::string AddSegment(const Lvm2Block_t& segment) {
        uint64_t startExtent = 0;
        uint64_t extents = 0;
        uint64_t stripes = 0;
        uint64_t startSector = 0;
        const std::vector<std::string>* const places = segment.Values("stripes");
        if (!segment.Number("start_extent", startExtent) || !segment.Number("extent_count", extents) ||
            !segment.Number("stripe_count", stripes) || places == nullptr || stripes == 0 ||
            stripes != places->size() / 2 || places->size() % 2 != 0 || extents % stripes != 0)
            return segment.name + " is not sound";
        if (!SectorsOfExtents(startExtent, m_ExtentSectors, startSector) || startSector != VolumeSectors(m_Info.layout))
            return segment.name + " doesn't begin where the one in front of it ends";
        std::vector<LVM_Component_t> pieces;
        for (size_t column = 0; column < stripes; ++column) {
            LVM_Component_t& piece = pieces.emplace_back();
            piece.ColumnIndex = static_cast<int32_t>(column);
            piece.VolLBAStart = startSector;
            std::string problem = Place((*places)[2 * column], (*places)[2 * column + 1], extents / stripes, piece);
            if (!problem.empty())
                return problem;
        }
        if (stripes == 1)
            return LayOutJoined(std::move(pieces), m_Info.layout);
        uint64_t stripeSectors = 0;
        if (!segment.Number("stripe_size", stripeSectors))
            return segment.name + " doesn't tell the size of its stripes";
        return LayOutColumns(std::move(pieces), stripeSectors, m_Info.layout);
    }

    // The sectors of one stripe's extents. They have to lie inside their physical volume.
    std::string Place(const std::string& name, const std::string& firstExtent, uint64_t extents,
                      LVM_Component_t& piece) {
        const auto found = m_Physical.find(name);
        if (found == m_Physical.end())
            return "a stripe of it lies on " + name + ", which is no physical volume";
        const Lvm2Place_t& physical = found->second;
        uint64_t first = 0;
        uint64_t start = 0;
        uint64_t sectors = 0;
        uint64_t end = 0;
        if (!ParseLvm2Number(firstExtent, first) || !SectorsOfExtents(first, m_ExtentSectors, start) ||
            !SectorsOfExtents(extents, m_ExtentSectors, sectors) || sectors == 0 ||
            !CheckedAdd(start, physical.firstExtentSector, start) || !CheckedAdd(start, sectors, end))
            return "a stripe of it has no sound place on " + name;
        const bool isMissing = physical.diskIndex == NoHardDisk;
        if (!isMissing && end > physical.sectors)
            return "a stripe of it reaches behind the end of " + name;
        if (isMissing)
            AddMissing(m_Info, {physical.id, physical.device});
        piece.HardDiskIndex = physical.diskIndex;
        piece.DiskLBAStart = physical.startSector + start;
        piece.DiskLBAEnd = piece.DiskLBAStart + sectors - 1;
        piece.VolLBAEnd = piece.VolLBAStart + sectors - 1;
        return {};
    }

    const Lvm2Block_t& m_Block;
    uint64_t m_ExtentSectors;
    const Lvm2PhysicalVolumes_t& m_Physical;
    VolumeInfo_t& m_Info;
};

// Why volumes can't be read whose own bytes are not those that their users see, by name: the store of an
// old-fashioned snapshot, and the volume into which one is being merged.
std::map<std::string, std::string> SnapshotProblems(const Lvm2Block_t& logicalVolumes) {
    std::map<std::string, std::string> problems;
    for (const Lvm2Block_t& volume : logicalVolumes.blocks) {
        for (const Lvm2Block_t& segment : volume.blocks) {
            for (const char* const item : {"cow_store", "merging_store"}) {
                if (!segment.Text(item).empty())
                    problems.emplace(segment.Text(item), "it is a snapshot, which can't be read");
            }
            if (!segment.Text("merging_store").empty())
                problems.emplace(segment.Text("origin"), "a snapshot is being merged into it, so it can't be read");
        }
    }
    return problems;
}

}  // namespace

bool CLvm2Groups::AddSlice(CWholeDisk& disk, uint32_t diskIndex, const std::string& place, uint64_t startSector,
                           uint64_t sectors) {
    Lvm2PhysicalVolume_t volume;
    if (!ReadLvm2PhysicalVolume(disk, place, startSector, sectors, volume))
        return false;
    m_Warnings.insert(m_Warnings.end(), volume.warnings.begin(), volume.warnings.end());
    const auto [known, isNew] = m_Slices.emplace(volume.id, Slice_t{diskIndex, startSector, sectors, place});
    if (!isNew)
        m_Warnings.push_back(place + ": is the same LVM2 physical volume as " + known->second.place +
                             ", which is read instead");
    for (std::string& text : volume.texts)
        AddText(place, std::move(text));
    return true;
}

void CLvm2Groups::AddText(const std::string& place, std::string text) {
    Lvm2Block_t root;
    const CZuError error = ParseLvm2Text(text, root);
    const bool isTooMuch = text.size() > MostTextBytes - m_TextBytes;
    const auto group = std::find_if(root.blocks.begin(), root.blocks.end(),
                                    [](const Lvm2Block_t& each) { return each.Block("physical_volumes") != nullptr; });
    if (error.IsErrorSet() || isTooMuch || group == root.blocks.end()) {
        const std::string why = error.IsErrorSet() ? DescribeError(error)
                                : isTooMuch        ? std::string("there is more of it than of any real groups")
                                                   : std::string("it tells of no volume group");
        m_Warnings.push_back(place + ": its LVM2 metadata can't be used: " + why);
        return;
    }
    AddGroup(place, std::move(text), std::move(*group));
}

void CLvm2Groups::AddGroup(const std::string& place, std::string text, Lvm2Block_t block) {
    uint64_t sequence = 0;
    if (!block.Number("seqno", sequence)) {
        m_Warnings.push_back(place + ": its LVM2 metadata has no sequence number, and isn't used");
        return;
    }
    const auto [found, isNew] = m_Groups.try_emplace(block.Text("id"));
    Group_t& group = found->second;
    if (!isNew && sequence == group.sequence) {
        if (text != group.text)
            group.problem = "two copies of its group's metadata, on " + group.place + " and on " + place +
                            ", differ though both have sequence number " + std::to_string(sequence);
        return;
    }
    if (!isNew)
        WarnOfOlder(block.name, sequence < group.sequence ? place : group.place,
                    sequence < group.sequence ? group.place : place);
    if (!isNew && sequence < group.sequence)
        return;
    m_TextBytes += text.size() - group.text.size();
    group = {place, std::move(text), sequence, std::move(block), std::string()};
}

void CLvm2Groups::WarnOfOlder(const std::string& name, const std::string& older, const std::string& newer) {
    m_Warnings.push_back(older + ": its metadata of volume group " + name + " is older than that on " + newer +
                         ", which is used");
}

void CLvm2Groups::TakeVolumes(std::vector<VolumeInfo_t>& volumes) {
    std::vector<VolumeInfo_t> taken;
    for (const auto& [id, group] : m_Groups)
        TakeGroup(group, taken);
    std::stable_sort(taken.begin(), taken.end(),
                     [](const VolumeInfo_t& left, const VolumeInfo_t& right) { return left.name < right.name; });
    std::move(taken.begin(), taken.end(), std::back_inserter(volumes));
    WarnOfLoneSlices();
}

// A physical volume that no metadata names belongs to no group, or to one whose metadata is lost.
void CLvm2Groups::WarnOfLoneSlices() {
    std::set<std::string> named;
    for (const auto& [id, group] : m_Groups) {
        for (const Lvm2Block_t& block : group.block.Block("physical_volumes")->blocks)
            named.insert(WithoutDashes(block.Text("id")));
    }
    for (const auto& [id, slice] : m_Slices) {
        if (named.count(id) == 0)
            m_Warnings.push_back(slice.place + ": is LVM2 physical volume " + DashedLvm2Id(id) +
                                 ", which belongs to no volume group that the disks tell of");
    }
}

void CLvm2Groups::TakeGroup(const Group_t& group, std::vector<VolumeInfo_t>& volumes) const {
    const Lvm2Block_t* const logical = group.block.Block("logical_volumes");
    if (logical == nullptr)
        return;  // a group without volumes
    uint64_t extentSectors = 0;
    if (!group.block.Number("extent_size", extentSectors))
        extentSectors = 0;  // as each of its volumes then says
    const Lvm2PhysicalVolumes_t physical = PhysicalVolumesOf(group);
    const std::map<std::string, std::string> snapshotProblems = SnapshotProblems(*logical);
    for (const Lvm2Block_t& block : logical->blocks) {
        VolumeInfo_t& info = volumes.emplace_back();
        info.group = group.block.name;
        info.name = group.block.name + "-" + block.name;
        CLogicalVolume(block, extentSectors, physical, info).Describe();
        if (!group.problem.empty())
            info.problem = group.problem;
        else if (snapshotProblems.count(block.name) != 0)
            info.problem = snapshotProblems.at(block.name);
    }
}

Lvm2PhysicalVolumes_t CLvm2Groups::PhysicalVolumesOf(const Group_t& group) const {
    Lvm2PhysicalVolumes_t volumes;
    for (const Lvm2Block_t& block : group.block.Block("physical_volumes")->blocks) {
        Lvm2Place_t volume;
        volume.id = block.Text("id");
        volume.device = block.Text("device");
        if (!block.Number("pe_start", volume.firstExtentSector))
            continue;  // what lies on it says that it isn't sound
        const auto slice = m_Slices.find(WithoutDashes(volume.id));
        if (slice != m_Slices.end()) {
            volume.diskIndex = slice->second.diskIndex;
            volume.startSector = slice->second.startSector;
            volume.sectors = slice->second.sectors;
        }
        volumes.emplace(block.name, std::move(volume));
    }
    return volumes;
}
