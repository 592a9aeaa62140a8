#include <unordered_set>

#include "agent/detail/PartitionReaders.h"
#include "agent/detail/PartitionTypeNames.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr uint32_t FirstLogicalNumber = 5;
constexpr uint8_t Bootable = 0x80;

PartitionInfo_t InfoOf(const BootRecordSlot_t& slot, uint64_t baseLba, uint32_t number) {
    PartitionInfo_t info;
    info.number = number;
    info.typeId = slot.type;
    info.typeName = MbrTypeName(slot.type);
    info.startSector = baseLba + slot.firstLba;
    info.sectors = slot.sectorCount;
    info.isBootable = slot.status == Bootable;
    info.isExtended = IsExtendedPartition(slot.type);
    return info;
}

// The logical partitions of one extended one: each record tells one, and where the next record is.
class CLogicalWalk {
public:
    CLogicalWalk(CWholeDisk& disk, PartitionTable_t& table, uint32_t& nextNumber)
        : m_Disk(disk), m_Table(table), m_NextNumber(nextNumber) {}

    // Each record is read once: one that comes again could only go round for ever.
    CZuError Run(uint64_t extendedLba) {
        uint64_t lba = extendedLba;
        for (uint64_t from = 0;; from = m_RecordLba) {
            if (!m_Seen.insert(lba).second)
                return Refusal(CZuString::Format("{1}: the extended partition's record in sector {2} leads back to the "
                                                 "one in sector {3}, so that its partitions would never end",
                                                 m_Disk.Path(), from, lba));
            ZU_RETURN_IF_ERROR(ReadRecord(lba, from));
            if (m_Record.signature != BootRecordSignature)
                return WarnOfMissingRecord();
            ZU_RETURN_IF_ERROR(AddLogicals());
            if (!FindNext(extendedLba, lba))
                return CZuError();
        }
    }

private:
    CZuError ReadRecord(uint64_t lba, uint64_t from) {
        if (lba >= m_Disk.TotalSectors())
            return Refusal(CZuString::Format("{1}: the partition record in sector {2} leads to sector {3}, behind the "
                                             "disk's end",
                                             m_Disk.Path(), from, lba));
        m_RecordLba = lba;
        return m_Disk.Read(lba << SectorShift, &m_Record, sizeof(m_Record));
    }

    CZuError WarnOfMissingRecord() {
        m_Table.warnings.push_back(
            CZuString::Format("{1}: sector {2} should hold a partition record, and doesn't", m_Disk.Path(), m_RecordLba)
                .c_str());
        return CZuError();
    }

    CZuError AddLogicals() {
        for (const BootRecordSlot_t& slot : m_Record.slots) {
            if (slot.type == PartitionType_Empty || IsExtendedPartition(slot.type) || slot.sectorCount == 0)
                continue;
            PartitionInfo_t info = InfoOf(slot, m_RecordLba, m_NextNumber++);
            info.isLogical = true;
            ZU_RETURN_IF_ERROR(AddPartition(m_Disk, info, m_Table));
        }
        return CZuError();
    }

    bool FindNext(uint64_t extendedLba, uint64_t& lba) const {
        for (const BootRecordSlot_t& slot : m_Record.slots) {
            if (!IsExtendedPartition(slot.type) || slot.sectorCount == 0)
                continue;
            lba = extendedLba + slot.firstLba;
            return true;
        }
        return false;
    }

    CWholeDisk& m_Disk;
    PartitionTable_t& m_Table;
    uint32_t& m_NextNumber;
    uint64_t m_RecordLba = 0;
    BootRecord_t m_Record{};
    std::unordered_set<uint64_t> m_Seen;
};

}  // namespace

CZuError ReadMbrPartitions(CWholeDisk& disk, const BootRecord_t& record, PartitionTable_t& table) {
    table.scheme = PartitionScheme_t::Mbr;
    table.diskSignature = record.diskSignature;
    uint32_t number = 0;
    uint32_t nextLogical = FirstLogicalNumber;
    for (const BootRecordSlot_t& slot : record.slots) {
        ++number;
        if (slot.type == PartitionType_Empty)
            continue;
        const PartitionInfo_t info = InfoOf(slot, 0, number);
        ZU_RETURN_IF_ERROR(AddPartition(disk, info, table));
        if (info.isExtended)
            ZU_RETURN_IF_ERROR(CLogicalWalk(disk, table, nextLogical).Run(info.startSector));
    }
    return CZuError();
}
