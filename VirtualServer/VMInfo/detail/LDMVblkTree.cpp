#include "VirtualServer/VMInfo/detail/LDMVblkTree.h"

#include <unordered_map>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/detail/LDMFormat.h"
#include "VirtualServer/VMInfo/detail/LDMVblkText.h"
#include "VirtualServer/VMInfo/detail/TableReader.h"
#include "foundation/LgDebug.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

CZuString NumberText(uint64_t number) {
    return CZuString(static_cast<unsigned long long>(number));
}

// Builds the tree, parents before children. An id that several records have is that of the first. A
// record takes more memory than its slot, and a disk's is hung on each of its partitions, so the
// tree has a ceiling that only a hostile database meets.
class CVblkTree {
public:
    explicit CVblkTree(CLDM_VBLK& group) : m_Group(group) {}

    CZuError Add(const std::vector<CByteView>& records) {
        ZU_RETURN_IF_ERROR(ForEach(records, LdmRecord_DiskGroup3, LdmRecord_DiskGroup4, &CVblkTree::AddGroup));
        ZU_RETURN_IF_ERROR(ForEach(records, LdmRecord_Volume, LdmRecord_Volume, &CVblkTree::AddVolume));
        IndexVolumes();
        ZU_RETURN_IF_ERROR(ForEach(records, LdmRecord_Component, LdmRecord_Component, &CVblkTree::AddComponent));
        IndexComponents();
        ZU_RETURN_IF_ERROR(ForEach(records, LdmRecord_Partition, LdmRecord_Partition, &CVblkTree::AddPartition));
        IndexPartitions();
        ZU_RETURN_IF_ERROR(ForEach(records, LdmRecord_Disk3, LdmRecord_Disk4, &CVblkTree::AddDisk));
        return CZuError();
    }

    CZuError Verify() const {
        for (const CLDM_VBLK& volume : m_Group.Children)
            ZU_RETURN_IF_ERROR(VerifyVolume(volume));
        return CZuError();
    }

private:
    using Step_t = CZuError (CVblkTree::*)(const CLDM_VBLK&);

    // A record is read in the pass of its type, so that of two failures the one of the earlier pass is
    // told. Records of unknown types are passed over.
    CZuError ForEach(const std::vector<CByteView>& records, uint8_t one, uint8_t other, Step_t step) {
        for (const CByteView& bytes : records) {
            LdmVblkHead_t head{};
            if (!bytes.Get(0, head) || (head.type != one && head.type != other))
                continue;
            CLDM_VBLK record;
            ZU_RETURN_IF_ERROR(ParseVblkRecord(bytes, record));
            ZU_RETURN_IF_ERROR((this->*step)(record));
        }
        return CZuError();
    }

    CZuError AddGroup(const CLDM_VBLK& record) {
        if (m_Group.Type != LdmRecord_None)
            return Refusal("More than one disk group found");
        m_Group = record;
        return CZuError();
    }

    CZuError AddVolume(const CLDM_VBLK& record) { return Hang(record, m_Group); }

    CZuError Hang(const CLDM_VBLK& record, CLDM_VBLK& parent) {
        if (++m_Records > TableCeilingBytes / sizeof(CLDM_VBLK))
            return Refusal(OutOfMemory);
        parent.Children.push_back(record);
        return CZuError();
    }

    CZuError AddComponent(const CLDM_VBLK& record) {
        const auto volume = m_Volumes.find(record.Component.ParentId);
        if (volume == m_Volumes.end())
            return NoParent("Component", record.Component.ParentId);
        return Hang(record, *volume->second);
    }

    CZuError AddPartition(const CLDM_VBLK& record) {
        const auto component = m_Components.find(record.Partition.ParentId);
        if (component == m_Components.end())
            return NoParent("Partition", record.Partition.ParentId);
        return Hang(record, *component->second);
    }

    CZuError AddDisk(const CLDM_VBLK& record) {
        const auto partitions = m_PartitionsOfDisk.find(record.ObjectId);
        if (partitions == m_PartitionsOfDisk.end()) {
            LgDebug().Debug("CHardDiskReader::ParseLDMVBLK",
                            "Disk object id %llu does not have any partition. Continuing...",
                            static_cast<unsigned long long>(record.ObjectId));
            return CZuError();
        }
        for (CLDM_VBLK* const partition : partitions->second)
            ZU_RETURN_IF_ERROR(Hang(record, *partition));
        return CZuError();
    }

    static CZuError NoParent(const char* kind, uint64_t parentId) {
        return Refusal(
            CZuString::Format(CZuString(kind) + " VBLK with parent_id {1} does not match with any of volume VBLKs",
                              NumberText(parentId)));
    }

    // Each level is whole, and so stays where it is, before the next is hung on it.
    void IndexVolumes() {
        for (CLDM_VBLK& volume : m_Group.Children)
            m_Volumes.emplace(volume.ObjectId, &volume);
    }

    void IndexComponents() {
        for (CLDM_VBLK& volume : m_Group.Children) {
            for (CLDM_VBLK& component : volume.Children)
                m_Components.emplace(component.ObjectId, &component);
        }
    }

    void IndexPartitions() {
        for (CLDM_VBLK& volume : m_Group.Children) {
            for (CLDM_VBLK& component : volume.Children) {
                for (CLDM_VBLK& partition : component.Children)
                    m_PartitionsOfDisk[partition.Partition.DiskId].push_back(&partition);
            }
        }
    }

    static CZuError VerifyVolume(const CLDM_VBLK& volume) {
        const CZuString guid = FormatGuidText(volume.Volume.VolumeGUID);
        if (volume.Children.size() != volume.Volume.ChildCount)
            return Refusal(CZuString::Format("Volume children count {1} does not match the number of components found "
                                             "{2} for volume GUID {3}",
                                             NumberText(volume.Volume.ChildCount), NumberText(volume.Children.size()),
                                             guid));
        for (const CLDM_VBLK& component : volume.Children) {
            if (component.Children.size() != component.Component.ChildCount)
                return Refusal(CZuString::Format("Component children count {1} does not match the number of partitions "
                                                 "found {2} for volume GUID {3}",
                                                 NumberText(component.Component.ChildCount),
                                                 NumberText(component.Children.size()), guid));
            for (const CLDM_VBLK& partition : component.Children) {
                if (partition.Children.empty())
                    return Refusal(CZuString::Format("Disk with id {1} not found for parition id {2}",
                                                     NumberText(partition.Partition.DiskId),
                                                     NumberText(partition.ObjectId)));
            }
        }
        return CZuError();
    }

    CLDM_VBLK& m_Group;
    std::unordered_map<uint64_t, CLDM_VBLK*> m_Volumes;
    std::unordered_map<uint64_t, CLDM_VBLK*> m_Components;
    std::unordered_map<uint64_t, std::vector<CLDM_VBLK*>> m_PartitionsOfDisk;
    uint64_t m_Records = 0;
};

}  // namespace

CZuError BuildVblkTree(const std::vector<CByteView>& records, CLDM_VBLK& group) {
    CVblkTree tree(group);
    ZU_RETURN_IF_ERROR(tree.Add(records));
    ZU_RETURN_IF_ERROR(tree.Verify());
    return CZuError();
}
