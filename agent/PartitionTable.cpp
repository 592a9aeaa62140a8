#include "agent/PartitionTable.h"

#include <algorithm>
#include <cstring>

#include "VirtualServer/VMInfo/PartitionTables.h"
#include "agent/detail/FileSystems.h"
#include "agent/detail/OutOfMemory.h"
#include "agent/detail/PartitionReaders.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr uint64_t LongestTable = uint64_t{1} << 20U;

bool ProtectsGpt(const BootRecord_t& record) {
    return std::any_of(std::begin(record.slots), std::end(record.slots),
                       [](const BootRecordSlot_t& slot) { return slot.type == PartitionType_ProtectsGpt; });
}

// A boot sector of a volume may end like a boot record; a boot record may hold old marks of a
// volume. The slots decide: those of a volume's program are hardly ever sound.
bool HasSoundSlots(const BootRecord_t& record, uint64_t diskSectors) {
    bool hasOne = false;
    for (const BootRecordSlot_t& slot : record.slots) {
        if (slot.type == PartitionType_Empty)
            continue;
        hasOne = true;
        if ((slot.status != 0 && slot.status != 0x80) || slot.firstLba == 0 || slot.firstLba >= diskSectors)
            return false;
    }
    return hasOne;
}

CZuError ReadTables(CWholeDisk& disk, PartitionTable_t& table) {
    char sector[SectorSize];
    ZU_RETURN_IF_ERROR(disk.Read(0, sector, sizeof(sector)));
    BootRecord_t record{};
    std::memcpy(&record, sector, sizeof(record));
    const bool isBootRecord = record.signature == BootRecordSignature &&
                              (!IsVolumeBootSector(sector) || HasSoundSlots(record, disk.TotalSectors()));
    if (!isBootRecord) {
        RecognizeFileSystem(disk, 0, disk.TotalSectors(), table.fileSystem);
        return CZuError();
    }
    return ProtectsGpt(record) ? ReadGptPartitions(disk, table) : ReadMbrPartitions(disk, record, table);
}

void RecognizeFileSystems(CWholeDisk& disk, PartitionTable_t& table) {
    for (PartitionInfo_t& partition : table.partitions) {
        if (!partition.isExtended && partition.sectors != 0)
            RecognizeFileSystem(disk, partition.startSector, partition.sectors, partition.fileSystem);
    }
}

}  // namespace

const char* SchemeName(PartitionScheme_t scheme) {
    switch (scheme) {
    case PartitionScheme_t::Mbr: return "mbr";
    case PartitionScheme_t::Gpt: return "gpt";
    case PartitionScheme_t::None: break;
    }
    return "none";
}

CZuError AddPartition(const CWholeDisk& disk, const PartitionInfo_t& partition, PartitionTable_t& table) {
    if (table.partitions.size() >= LongestTable)
        return Refusal(disk.Path() + ": has more than a million partitions; its tables were made to do harm");
    uint64_t end = 0;
    if (!CheckedAdd(partition.startSector, partition.sectors, end) || end > disk.TotalSectors())
        table.warnings.push_back(
            CZuString::Format("{1}: partition {2} reaches behind the disk's end", disk.Path(), partition.number)
                .c_str());
    table.partitions.push_back(partition);
    return CZuError();
}

CZuError ReadPartitionTable(CWholeDisk& disk, PartitionTable_t& table) {
    table = PartitionTable_t();
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        ZU_RETURN_IF_ERROR(ReadTables(disk, table));
        RecognizeFileSystems(disk, table);
        return CZuError();
    });
}
