#include "agent/detail/DynamicVolumes.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "agent/ErrorText.h"
#include "agent/VolumeMap.h"
#include "agent/detail/VolumeLayout.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

// What a component's layout byte says.
constexpr uint8_t StripedLayout = 1;
constexpr uint8_t JoinedLayout = 2;
constexpr uint8_t Raid5Layout = 3;

// A text that fills its room has no terminator.
template <size_t Size> std::string TextOf(const char (&text)[Size]) {
    return {text, std::find(text, text + Size, '\0')};
}

std::string TextOf(const GUID& guid) {
    return FormatGuidText(guid).c_str();
}

template <size_t Size> bool IsActive(const char (&state)[Size]) {
    return TextOf(state).rfind("ACTIVE", 0) == 0;
}

// A disk whose own records tell of another group was moved there, and what its former group's records say
// of it holds no longer. One without records may be of any group.
bool MayBeOfGroup(const DynamicDisk_t& dynamic, const std::string& groupGuid) {
    return !dynamic.isWhole || dynamic.db.Group.Type == LdmRecord_None ||
           TextOf(GuidOfGroup(dynamic.db.Group)) == groupGuid;
}

// A record's number that is too large for a column is no column's.
int32_t ColumnIndexOf(uint64_t number) {
    return number <= uint64_t{INT32_MAX} ? static_cast<int32_t>(number) : -1;
}

// Where the disks of a group are: by the GUIDs of their private headers.
class CDiskPlaces {
public:
    struct Place_t {
        uint32_t diskIndex = NoHardDisk;
        uint64_t dataStartLba = 0;
    };

    void Add(const DynamicDisk_t& dynamic, uint32_t diskIndex) {
        const LDM_privhead_t& head = dynamic.db.PrivateHead;
        if (dynamic.hasHead)
            m_Places.emplace(TextOf(head.DiskGUID), Place_t{diskIndex, head.LogicalDiskStart});
        m_Commits[diskIndex] = dynamic.isWhole ? dynamic.commit : UnknownCommit;
    }

    // A record of revision 4 holds bytes of which some writers had another order.
    Place_t Find(const CLDM_VBLK& disk) const {
        for (const GUID& guid : {GuidOfDisk(disk), disk.Disk.GUID}) {
            const auto found = m_Places.find(TextOf(guid));
            if (found != m_Places.end())
                return found->second;
        }
        return {};
    }

    // Which change of the group's database the disk of a piece holds, and so how far its bytes went along.
    // One that can't be told counts as the newest, and so does a disk that isn't there.
    uint64_t CommitOf(const LVM_Component_t& piece) const {
        const auto found = m_Commits.find(piece.HardDiskIndex);
        return found != m_Commits.end() ? found->second : UnknownCommit;
    }

private:
    static constexpr uint64_t UnknownCommit = ~uint64_t{0};

    std::map<std::string, Place_t> m_Places;
    std::map<uint32_t, uint64_t> m_Commits;  // by the disk's index
};

class CDynamicVolume {
public:
    CDynamicVolume(const CLDM_VBLK& record, const CDiskPlaces& places, VolumeInfo_t& info)
        : m_Record(record), m_Places(places), m_Info(info) {}

    void Describe() {
        m_Info.manager = VolumeManager_t::DynamicDisks;
        m_Info.isActive = IsActive(m_Record.Volume.State);
        m_Info.label = TextOf(m_Record.Name);
        m_Info.guid = TextOf(GuidInTextOrder(m_Record.Volume.VolumeGUID));
        m_Info.layout.SystemID = m_Record.Volume.PartitionType;
        AddCopies();
        m_Info.typeName = TypeName();
        if (!m_Info.isActive)
            m_Info.problem = "its state is \"" + TextOf(m_Record.Volume.State) + "\", so its bytes can't be told";
    }

private:
    bool IsRaid5() const { return TextOf(m_Record.Volume.VolumeType) == "raid5"; }

    // Copies whose disks are there come in front of those that lack some, and newer ones in front of those
    // whose disks missed changes. One sound copy is enough.
    void AddCopies() {
        m_Info.problem = "none of its components is active";
        for (const CLDM_VBLK& component : m_Record.Children) {
            if (!IsActive(component.Component.State))
                continue;
            LVM_Volume_t layout = m_Info.layout;
            m_Info.problem = LayOut(component, layout);
            if (m_Info.problem.empty())
                m_Copies.push_back(std::move(layout));
        }
        if (m_Copies.empty())
            return;
        std::stable_sort(m_Copies.begin(), m_Copies.end(), [this](const LVM_Volume_t& left, const LVM_Volume_t& right) {
            return std::pair(IsReadable(left), OldestCommit(left)) > std::pair(IsReadable(right), OldestCommit(right));
        });
        if (IsRaid5())
            DoWithoutOldColumn(m_Copies.front().Segments.front());
        m_Info.layout = m_Copies.front();
        m_Info.mirrors.assign(m_Copies.begin() + 1, m_Copies.end());
        m_Info.sectors = VolumeSectors(m_Info.layout);
        for (const LVM_Volume_t& mirror : m_Info.mirrors)
            m_Info.sectors = std::min(m_Info.sectors, VolumeSectors(mirror));
        m_Info.problem = ProblemOf(m_Info);
    }

    uint64_t OldestCommit(const LVM_Volume_t& layout) const {
        uint64_t oldest = ~uint64_t{0};
        for (const LVM_Segment_t& segment : layout.Segments) {
            for (const LVM_Component_t& piece : segment.Components)
                oldest = std::min(oldest, m_Places.CommitOf(piece));
        }
        return oldest;
    }

    // The one disk that missed changes of its group has old bytes: parity gives the new ones.
    void DoWithoutOldColumn(LVM_Segment_t& segment) const {
        LVM_Component_t* oldest = &segment.Components.front();
        size_t newer = 0;
        for (LVM_Component_t& piece : segment.Components) {
            if (piece.HardDiskIndex == NoHardDisk)
                return;
            if (m_Places.CommitOf(piece) < m_Places.CommitOf(*oldest))
                oldest = &piece;
        }
        for (const LVM_Component_t& piece : segment.Components)
            newer += m_Places.CommitOf(piece) > m_Places.CommitOf(*oldest) ? 1 : 0;
        if (newer == segment.Components.size() - 1)
            oldest->HardDiskIndex = NoHardDisk;
    }

    // Says what is unsound about the component; nothing for a sound one.
    std::string LayOut(const CLDM_VBLK& component, LVM_Volume_t& layout) {
        std::vector<LVM_Component_t> pieces;
        for (const CLDM_VBLK& partition : component.Children)
            pieces.push_back(PieceOf(partition));
        const uint64_t stripeSectors = component.Component.StripeSize;
        layout.IsRaid5 = IsRaid5() ? 1 : 0;
        const bool isJoined = !IsRaid5() && stripeSectors == 0;
        if (component.Component.Layout != (IsRaid5() ? Raid5Layout : isJoined ? JoinedLayout : StripedLayout))
            return "its component has layout " + std::to_string(component.Component.Layout) +
                   ", which doesn't go with its other records";
        return isJoined ? LayOutJoined(std::move(pieces), layout)
                        : LayOutColumns(std::move(pieces), stripeSectors, layout);
    }

    LVM_Component_t PieceOf(const CLDM_VBLK& partition) {
        const CLDM_VBLK& disk = partition.Children.front();
        const CDiskPlaces::Place_t place = m_Places.Find(disk);
        LVM_Component_t piece;
        piece.DiskGUID = GuidOfDisk(disk);
        piece.HardDiskIndex = place.diskIndex;
        if (!CheckedAdd(partition.Partition.Start, place.dataStartLba, piece.DiskLBAStart))
            piece.DiskLBAStart = ~uint64_t{0};  // no disk has such a sector
        piece.DiskLBAEnd = piece.DiskLBAStart + partition.Partition.Size - 1;
        piece.VolLBAStart = partition.Partition.VolumeOffset;
        piece.VolLBAEnd = partition.Partition.VolumeOffset + partition.Partition.Size - 1;
        piece.ColumnIndex = ColumnIndexOf(partition.Partition.ColumnIndex);
        if (place.diskIndex == NoHardDisk)
            AddMissing(m_Info, {TextOf(piece.DiskGUID), TextOf(disk.Name)});
        return piece;
    }

    std::string TypeName() const {
        const LVM_Volume_t& layout = m_Info.layout;
        if (m_Record.Children.size() > 1)
            return "mirrored";
        if (layout.IsRaid5 != 0 || IsRaid5())
            return "RAID-5";
        if (!layout.Segments.empty() && layout.Segments.front().StripeSize != 0)
            return "striped";
        return layout.Segments.size() > 1 ? "spanned" : "simple";
    }

    const CLDM_VBLK& m_Record;
    const CDiskPlaces& m_Places;
    VolumeInfo_t& m_Info;
    std::vector<LVM_Volume_t> m_Copies;
};

}  // namespace

bool CDynamicGroups::AddDisk(CWholeDisk& disk, uint32_t diskIndex) {
    int isDynamic = 0;
    int64_t privateHeadLba = 0;
    int64_t dataStartLba = 0;
    if (disk.Reader().CheckForDynamicDisk(isDynamic, privateHeadLba, dataStartLba).IsErrorSet() || isDynamic == 0)
        return false;
    Member_t member;
    member.path = disk.Path();
    const CZuError error = ReadDynamicDisk(disk, static_cast<uint64_t>(privateHeadLba), member.dynamic);
    if (error.IsErrorSet())
        m_Warnings.push_back(disk.Path() + ": is a dynamic disk whose database can't be read: " + DescribeError(error));
    if (member.dynamic.hasHead)
        WarnOfTwin(member);
    m_Disks.emplace(diskIndex, std::move(member));
    return true;
}

void CDynamicGroups::WarnOfTwin(const Member_t& member) {
    for (const auto& [index, each] : m_Disks) {
        if (each.dynamic.hasHead && each.dynamic.db.PrivateHead.DiskGUID == member.dynamic.db.PrivateHead.DiskGUID) {
            m_Warnings.push_back(member.path + ": is the same dynamic disk as " + each.path +
                                 ", which is read instead");
            return;
        }
    }
}

void CDynamicGroups::TakeVolumes(uint32_t diskIndex, std::vector<VolumeInfo_t>& volumes) {
    const auto found = m_Disks.find(diskIndex);
    if (found == m_Disks.end() || !found->second.dynamic.isWhole)
        return;
    const std::string guid = TextOf(GuidOfGroup(found->second.dynamic.db.Group));
    if (std::find(m_GroupsTaken.begin(), m_GroupsTaken.end(), guid) != m_GroupsTaken.end())
        return;
    m_GroupsTaken.push_back(guid);
    CDiskPlaces places;
    for (const auto& [index, member] : m_Disks) {
        if (MayBeOfGroup(member.dynamic, guid))
            places.Add(member.dynamic, index);
    }
    const LDM_DB_t& db = m_Disks[NewestOf(found->second)].dynamic.db;
    for (const CLDM_VBLK& record : db.Group.Children) {
        VolumeInfo_t& info = volumes.emplace_back();
        info.group = TextOf(db.Group.Name);
        CDynamicVolume(record, places, info).Describe();
    }
}

uint32_t CDynamicGroups::NewestOf(const Member_t& member) {
    const GUID guid = GuidOfGroup(member.dynamic.db.Group);
    std::vector<uint32_t> group;
    for (const auto& [index, each] : m_Disks) {
        if (each.dynamic.isWhole && GuidOfGroup(each.dynamic.db.Group) == guid)
            group.push_back(index);
    }
    const uint32_t newest = *std::max_element(group.begin(), group.end(), [&](uint32_t left, uint32_t right) {
        return m_Disks[left].dynamic.commit < m_Disks[right].dynamic.commit;
    });
    for (const uint32_t index : group) {
        if (m_Disks[index].dynamic.commit != m_Disks[newest].dynamic.commit)
            m_Warnings.push_back(m_Disks[index].path + ": its database of the disk group is older than that of " +
                                 m_Disks[newest].path + ", which is used");
    }
    return newest;
}
