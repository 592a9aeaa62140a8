#include <algorithm>
#include <cstring>
#include <unordered_map>
#include <unordered_set>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "VirtualServer/VMInfo/NtfsBootSector.h"
#include "VirtualServer/VMInfo/PartitionTables.h"
#include "VirtualServer/VMInfo/detail/OpenHardDisk.h"
#include "VirtualServer/VMInfo/detail/TableReader.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

// The partition tables of `CHardDiskReader`.

namespace {

constexpr Condition_t NoBootRecord{ErrorType::LayerCondition, 6001, 1, "MBR signature does not match"};
constexpr uint64_t UnknownLba = ~uint64_t{0};

// Tables of other sizes come from disks that were made to fill the memory.
constexpr size_t MostPartitions = TableCeilingBytes / sizeof(Partition_Entry_t);

CZuError Append(std::vector<Partition_Entry_t>& partitions, const Partition_Entry_t& entry) {
    if (partitions.size() >= MostPartitions)
        return Refusal(OutOfMemory);
    partitions.push_back(entry);
    return CZuError();
}

CZuError ReadBootRecord(CHardDiskReader& disk, uint64_t lba, BootRecord_t& record) {
    record = BootRecord_t{};
    ZU_RETURN_IF_ERROR(disk.ReadHardDiskData(FileOffsetOfSector(lba), &record, sizeof(record)));
    return record.signature == BootRecordSignature ? CZuError() : NoBootRecord.Error();
}

CZuError ReadsAsNtfs(CHardDiskReader& disk, uint64_t lba, bool& isNtfs) {
    NtfsBootSector_t sector{};
    ZU_RETURN_IF_ERROR(disk.ReadHardDiskData(FileOffsetOfSector(lba), &sector, sizeof(sector)));
    isNtfs = IsNtfs(sector);
    return CZuError();
}

// Callers rely on the 32-bit sum: the end of a primary entry wraps, that of a logical one doesn't.
Partition_Entry_t PrimaryEntry(const BootRecordSlot_t& slot) {
    Partition_Entry_t entry;
    entry.Type = slot.type;
    entry.StartLBA = slot.firstLba;
    entry.EndLBA = static_cast<uint32_t>(slot.firstLba + slot.sectorCount - 1);
    return entry;
}

// Callers rely on logical partitions of other types having no bounds.
Partition_Entry_t LogicalEntry(const BootRecordSlot_t& slot, uint64_t recordLBA) {
    Partition_Entry_t entry;
    entry.Type = slot.type;
    entry.StartLBA = UnknownLba;
    entry.EndLBA = UnknownLba;
    if (slot.type == PartitionType_NTFS || slot.type == PartitionType_Linux || slot.type == PartitionType_LinuxLvm) {
        entry.StartLBA = slot.firstLba + recordLBA;
        entry.EndLBA = entry.StartLBA + slot.sectorCount - 1;
    }
    return entry;
}

// The records of one extended partition, each of which may lead to four more. The walk keeps its
// frames on the heap, so a chain of any length that ends is followed to its end. A record that is
// its own ancestor would never end but for want of memory, which is what its callers are told. A
// record that is reached again gives what it gave before without being walked: a few records could
// otherwise lead to it more often than anybody can wait.
class CExtendedWalk {
public:
    CExtendedWalk(CHardDiskReader& disk, std::vector<Partition_Entry_t>& partitions, uint64_t extendedBaseLBA)
        : m_Disk(disk), m_Partitions(partitions), m_BaseLBA(extendedBaseLBA) {}

    CZuError Run(uint64_t firstRecordLBA) {
        ZU_RETURN_IF_ERROR(Enter(firstRecordLBA));
        while (!m_Frames.empty()) {
            Frame_t& frame = m_Frames.back();
            if (frame.nextSlot == BootRecordSlotCount) {
                Leave();
                continue;
            }
            const BootRecordSlot_t slot = frame.slots[frame.nextSlot++];
            ZU_RETURN_IF_ERROR(Take(slot, frame.recordLBA));
        }
        return CZuError();
    }

private:
    struct Frame_t {
        uint64_t recordLBA;
        size_t partitionsBefore;
        size_t nextSlot;
        BootRecordSlot_t slots[BootRecordSlotCount];
    };

    // What a record and all that it leads to gave: a stretch of the partitions.
    struct Given_t {
        size_t first;
        size_t end;
    };

    CZuError Enter(uint64_t recordLBA) {
        BootRecord_t record{};
        ZU_RETURN_IF_ERROR(ReadBootRecord(m_Disk, recordLBA, record));
        Frame_t frame{recordLBA, m_Partitions.size(), 0, {}};
        std::copy(std::begin(record.slots), std::end(record.slots), std::begin(frame.slots));
        m_Ancestors.insert(recordLBA);
        m_Frames.push_back(frame);
        return CZuError();
    }

    CZuError Take(const BootRecordSlot_t& slot, uint64_t recordLBA) {
        if (slot.type == PartitionType_Empty)
            return CZuError();
        if (!IsExtendedPartition(slot.type))
            return Append(m_Partitions, LogicalEntry(slot, recordLBA));
        const uint64_t next = slot.firstLba + m_BaseLBA;
        if (const auto known = m_Given.find(next); known != m_Given.end())
            return GiveAgain(known->second);
        if (m_Ancestors.count(next) != 0)
            return Refusal(OutOfMemory);
        return Enter(next);
    }

    void Leave() {
        const Frame_t& frame = m_Frames.back();
        m_Given[frame.recordLBA] = Given_t{frame.partitionsBefore, m_Partitions.size()};
        m_Ancestors.erase(frame.recordLBA);
        m_Frames.pop_back();
    }

    CZuError GiveAgain(const Given_t& given) {
        for (size_t index = given.first; index < given.end; ++index) {
            const Partition_Entry_t entry = m_Partitions[index];  // appending moves them
            ZU_RETURN_IF_ERROR(Append(m_Partitions, entry));
        }
        return CZuError();
    }

    CHardDiskReader& m_Disk;
    std::vector<Partition_Entry_t>& m_Partitions;
    const uint64_t m_BaseLBA;
    std::vector<Frame_t> m_Frames;
    std::unordered_set<uint64_t> m_Ancestors;
    std::unordered_map<uint64_t, Given_t> m_Given;  // by record
};

// The entries of a GPT. They are read in pieces, and one by one where a piece can't be read: what
// lies in front of a bad place still counts.
class CGptWalk {
public:
    CGptWalk(CHardDiskReader& disk, std::vector<Partition_Entry_t>& partitions)
        : m_Disk(disk), m_Partitions(partitions) {}

    CZuError Run(uint32_t entryCount) {
        const uint32_t pieceEntries = std::min<uint32_t>(entryCount, PieceBytes / sizeof(GptEntry_t));
        m_Piece.resize(pieceEntries);
        for (uint64_t first = 0; first < entryCount;) {
            if (const uint64_t unheld = CountUnheldEntries(first, entryCount - first); unheld != 0) {
                first += unheld;
                continue;
            }
            const uint64_t count = std::min<uint64_t>(entryCount - first, pieceEntries);
            ZU_RETURN_IF_ERROR(TakePiece(first, count));
            first += count;
        }
        return CZuError();
    }

private:
    static constexpr uint32_t PieceBytes = 1U << 20U;
    static constexpr uint64_t EntriesOffset = uint64_t{2} * SectorSize;

    // Entries that no link of the disk's chain holds are zeros, and so in no use: a header may promise
    // half a terabyte of them.
    uint64_t CountUnheldEntries(uint64_t first, uint64_t most) {
        const uint64_t start = EntriesOffset + first * sizeof(GptEntry_t);
        const uint64_t mostBytes = most * sizeof(GptEntry_t);
        uint64_t bytes = 0;
        while (bytes < mostBytes) {
            const uint64_t step = m_Disk.CountHoleBytes(start + bytes, mostBytes - bytes);
            if (step == 0)
                break;
            bytes += step;
        }
        return bytes / sizeof(GptEntry_t);
    }

    CZuError TakePiece(uint64_t first, uint64_t count) {
        if (Read(first, count).IsErrorSet())
            return TakeSingly(first, count);
        for (uint64_t index = 0; index < count; ++index)
            ZU_RETURN_IF_ERROR(Take(m_Piece[static_cast<size_t>(index)]));
        return CZuError();
    }

    CZuError TakeSingly(uint64_t first, uint64_t count) {
        for (uint64_t index = first; index < first + count; ++index) {
            ZU_RETURN_IF_ERROR(Read(index, 1));
            ZU_RETURN_IF_ERROR(Take(m_Piece.front()));
        }
        return CZuError();
    }

    CZuError Read(uint64_t first, uint64_t count) {
        return m_Disk.ReadHardDiskData(EntriesOffset + first * sizeof(GptEntry_t), m_Piece.data(),
                                       static_cast<uint32_t>(count * sizeof(GptEntry_t)));
    }

    CZuError Take(const GptEntry_t& onDisk) {
        Partition_Entry_t entry;
        entry.GUID = onDisk.type;
        if (entry.GUID == GUID{})
            return CZuError();
        entry.StartLBA = onDisk.firstLba;
        entry.EndLBA = onDisk.lastLba;
        if (entry.GUID == GptTypeBasicData) {
            bool isNtfs = false;
            ZU_RETURN_IF_ERROR(ReadsAsNtfs(m_Disk, entry.StartLBA, isNtfs));
            entry.Type = isNtfs ? PartitionType_NTFS : PartitionType_Empty;
        }
        return Append(m_Partitions, entry);
    }

    CHardDiskReader& m_Disk;
    std::vector<Partition_Entry_t>& m_Partitions;
    std::vector<GptEntry_t> m_Piece;
};

// Where the private header of a dynamic disk lies behind the start of its metadata partition.
constexpr int64_t PrivateHeadInMetadata = 1856;
constexpr int64_t PrivateHeadOnMbrDisk = 6;

// The places of a dynamic disk, from the partitions of its GPT.
class CDynamicPlaces {
public:
    // True when the second of the two places has just been found.
    bool Take(const Partition_Entry_t& entry) {
        if (entry.GUID == GptTypeLdmMetadata) {
            isDynamic = 1;
            privateHeadLBA = static_cast<int64_t>(entry.StartLBA + PrivateHeadInMetadata);
            return dataStartLBA != 0;
        }
        if (entry.GUID == GptTypeLdmData) {
            dataStartLBA = static_cast<int64_t>(entry.StartLBA);
            return privateHeadLBA != 0;
        }
        return false;
    }

    int isDynamic = 0;
    int64_t privateHeadLBA = 0;
    int64_t dataStartLBA = 0;
};

CDynamicPlaces FindOnGpt(const std::vector<Partition_Entry_t>& partitions) {
    CDynamicPlaces places;
    for (const Partition_Entry_t& entry : partitions) {
        if (places.Take(entry))
            break;
    }
    return places;
}

CDynamicPlaces FindOnMbr(const std::vector<Partition_Entry_t>& partitions) {
    CDynamicPlaces places;
    const auto found = std::find_if(partitions.begin(), partitions.end(), [](const Partition_Entry_t& entry) {
        return entry.Type == PartitionType_DynamicDisk;
    });
    if (found == partitions.end())
        return places;
    places.isDynamic = 1;
    places.privateHeadLBA = PrivateHeadOnMbrDisk;
    places.dataStartLBA = static_cast<int64_t>(found->StartLBA);
    return places;
}

}  // namespace

CZuError CHardDiskReader::GetDOSPartitions(std::vector<Partition_Entry_t>& partitions, int& isGPT) {
    isGPT = 0;
    return WithinMemory(OutOfMemory, [&] {
        const bool isSingleVolume = m_pDisk != nullptr && m_pDisk->IsSingleVolume();
        return isSingleVolume ? GetSingleVolume(partitions) : GetPrimaryPartitions(partitions, isGPT);
    });
}

CZuError CHardDiskReader::GetSingleVolume(std::vector<Partition_Entry_t>& partitions) {
    NtfsBootSector_t sector{};
    ZU_RETURN_IF_ERROR(ReadHardDiskData(0, &sector, sizeof(sector)));
    Partition_Entry_t entry;
    entry.Type = IsNtfs(sector) ? PartitionType_NTFS : PartitionType_Empty;
    entry.EndLBA = IsNtfs(sector) ? uint64_t{sector.totalSectors} : UnknownLba;
    return Append(partitions, entry);
}

CZuError CHardDiskReader::GetPrimaryPartitions(std::vector<Partition_Entry_t>& partitions, int& isGPT) {
    BootRecord_t record{};
    ZU_RETURN_IF_ERROR(ReadBootRecord(*this, 0, record));
    for (const BootRecordSlot_t& slot : record.slots) {
        if (slot.type == PartitionType_Empty)
            continue;
        if (slot.type == PartitionType_ProtectsGpt) {
            partitions.clear();
            isGPT = 1;
            return GetGPTPartitions(partitions);
        }
        ZU_RETURN_IF_ERROR(IsExtendedPartition(slot.type)
                               ? GetDOSExtendedPartitions(partitions, slot.firstLba, slot.firstLba)
                               : Append(partitions, PrimaryEntry(slot)));
    }
    return CZuError();
}

CZuError CHardDiskReader::GetDOSExtendedPartitions(std::vector<Partition_Entry_t>& partitions, uint64_t recordLBA,
                                                   uint64_t extendedBaseLBA) {
    ZU_RETURN_IF_ERROR(CExtendedWalk(*this, partitions, extendedBaseLBA).Run(recordLBA));
    return CZuError();
}

CZuError CHardDiskReader::GetGPTPartitions(std::vector<Partition_Entry_t>& partitions) {
    char sector[SectorSize];
    ZU_RETURN_IF_ERROR(ReadHardDiskData(SectorSize, sector, sizeof(sector)));
    GptHeader_t header{};
    std::memcpy(&header, sector, sizeof(header));
    if (std::memcmp(header.signature, GptSignature, sizeof(header.signature)) != 0)
        return Refusal("GPT Partition header signature didn't match.");
    ZU_RETURN_IF_ERROR(CGptWalk(*this, partitions).Run(header.entryCount));
    return CZuError();
}

CZuError CHardDiskReader::CheckForDynamicDisk(int& isDynamic, int64_t& privateHeadLBA, int64_t& dataStartLBA) {
    isDynamic = 0;
    privateHeadLBA = 0;
    dataStartLBA = 0;
    std::vector<Partition_Entry_t> partitions;
    int isGPT = 0;
    ZU_RETURN_IF_ERROR(GetDOSPartitions(partitions, isGPT));
    const CDynamicPlaces places = isGPT != 0 ? FindOnGpt(partitions) : FindOnMbr(partitions);
    isDynamic = places.isDynamic;
    privateHeadLBA = places.privateHeadLBA;
    dataStartLBA = places.dataStartLBA;
    return CZuError();
}
