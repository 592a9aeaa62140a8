#include "agent/detail/DynamicDatabase.h"

#include <cstring>
#include <deque>
#include <map>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/detail/LDMFormat.h"
#include "VirtualServer/VMInfo/detail/LDMVblkSlots.h"
#include "VirtualServer/VMInfo/detail/LDMVblkTree.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr uint64_t FragmentHeadBytes = 16;

// Whole records, those of one slot where they lie and those of several put together. Each fragment is
// used once, so the records take no more memory than their slots.
class CRecordAssembly {
public:
    CZuError Add(const std::vector<VblkSlot_t>& slots) {
        for (const VblkSlot_t& slot : slots)
            ZU_RETURN_IF_ERROR(AddFragment(slot));
        for (const VblkSlot_t& slot : slots) {
            if (slot.head.fragment == 0)
                ZU_RETURN_IF_ERROR(AddRecord(slot));
        }
        return CZuError();
    }

    const std::vector<CByteView>& Records() const { return m_Records; }

private:
    CZuError AddFragment(const VblkSlot_t& slot) {
        if (slot.head.fragmentCount == 1)
            return CZuError();
        const auto [place, isNew] = m_Fragments.emplace(KeyOf(slot, slot.head.fragment), slot.bytes);
        return isNew ? CZuError()
                     : Refusal(CZuString::Format("two slots hold fragment {1} of record {2} of its database",
                                                 static_cast<uint32_t>(slot.head.fragment),
                                                 static_cast<uint32_t>(slot.head.group)));
    }

    CZuError AddRecord(const VblkSlot_t& slot) {
        if (slot.head.fragmentCount == 1) {
            m_Records.push_back(slot.bytes);
            return CZuError();
        }
        std::vector<char>& whole = m_Assembled.emplace_back();
        whole.assign(slot.bytes.Data(), slot.bytes.Data() + slot.bytes.Size());
        for (uint16_t fragment = 1; fragment < slot.head.fragmentCount; ++fragment) {
            const auto found = m_Fragments.find(KeyOf(slot, fragment));
            if (found == m_Fragments.end())
                return Refusal(CZuString::Format("fragment {1} of record {2} of its database is missing",
                                                 static_cast<uint32_t>(fragment),
                                                 static_cast<uint32_t>(slot.head.group)));
            const CByteView rest = found->second.From(FragmentHeadBytes);
            whole.insert(whole.end(), rest.Data(), rest.Data() + rest.Size());
        }
        m_Records.emplace_back(whole.data(), whole.size());
        return CZuError();
    }

    using Key_t = std::pair<uint32_t, uint16_t>;  // group and fragment
    static Key_t KeyOf(const VblkSlot_t& slot, uint16_t fragment) { return {slot.head.group, fragment}; }

    std::map<Key_t, CByteView> m_Fragments;
    std::deque<std::vector<char>> m_Assembled;  // keeps its elements where they are
    std::vector<CByteView> m_Records;           // in the order of their first slots
};

// A disk has three copies of the header: on an MBR disk in sector 6, and in the database at the disk's
// end; on a GPT disk in the partition of the database alone.
CZuError FindPrivateHead(CWholeDisk& disk, uint64_t privateHeadLba, LDM_DB_t& db) {
    constexpr uint64_t betweenCopies = 191;  // sectors, of the two in the database
    const uint64_t endLba = disk.TotalSectors();
    CZuError error = disk.Reader().ReadPrivateHead(db, privateHeadLba);
    for (const uint64_t lba : {privateHeadLba + betweenCopies, endLba - 1 - betweenCopies, endLba - 1}) {
        if (!error.IsErrorSet())
            return error;
        if (lba < endLba && !disk.Reader().ReadPrivateHead(db, lba).IsErrorSet())
            return CZuError();
    }
    return error;
}

CZuError ReadCommit(CWholeDisk& disk, uint64_t lba, uint64_t& commit) {
    LdmVmdb_t head{};
    ZU_RETURN_IF_ERROR(disk.Reader().ReadHardDiskData(FileOffsetOfSector(lba), &head, sizeof(head)));
    commit = head.commit;
    return CZuError();
}

CZuError ReadRecords(CWholeDisk& disk, DynamicDisk_t& dynamic) {
    LDM_DB_t& db = dynamic.db;
    ZU_RETURN_IF_ERROR(disk.Reader().FindTocBlock(db));
    ZU_RETURN_IF_ERROR(disk.Reader().ReadVmdb(db));
    const uint64_t lba = db.PrivateHead.ConfigStart + db.TocBlock.Bitmap1Start;
    ZU_RETURN_IF_ERROR(ReadCommit(disk, lba, dynamic.commit));
    CAutoMemory<char> area;
    std::vector<VblkSlot_t> slots;
    CRecordAssembly assembly;
    ZU_RETURN_IF_ERROR(disk.Reader().ReadVblkArea(lba, db.Vmdb, area));
    ZU_RETURN_IF_ERROR(WalkVblkSlots(CByteView(area.GetPtr(), area.GetSize()), db.Vmdb, slots));
    ZU_RETURN_IF_ERROR(assembly.Add(slots));
    ZU_RETURN_IF_ERROR(BuildVblkTree(assembly.Records(), db.Group));
    return CZuError();
}

}  // namespace

CZuError ReadDynamicDisk(CWholeDisk& disk, uint64_t privateHeadLba, DynamicDisk_t& dynamic) {
    ZU_RETURN_IF_ERROR(FindPrivateHead(disk, privateHeadLba, dynamic.db));
    dynamic.hasHead = true;
    ZU_RETURN_IF_ERROR(ReadRecords(disk, dynamic));
    dynamic.isWhole = true;
    return CZuError();
}

GUID GuidInTextOrder(const GUID& bytes) {
    struct OnDisk_t {
        Be32_t data1;
        Be16_t data2;
        Be16_t data3;
    };
    OnDisk_t onDisk{};
    std::memcpy(&onDisk, &bytes, sizeof(onDisk));
    GUID guid = bytes;
    guid.Data1 = onDisk.data1;
    guid.Data2 = onDisk.data2;
    guid.Data3 = onDisk.data3;
    return guid;
}

GUID GuidOfDisk(const CLDM_VBLK& record) {
    return record.Type == LdmRecord_Disk4 ? GuidInTextOrder(record.Disk.GUID) : record.Disk.GUID;
}

GUID GuidOfGroup(const CLDM_VBLK& record) {
    return record.Type == LdmRecord_DiskGroup4 ? GuidInTextOrder(record.DiskGroup.GUID) : record.DiskGroup.GUID;
}
