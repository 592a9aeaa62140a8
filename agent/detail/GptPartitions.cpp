#include <algorithm>
#include <cstring>
#include <vector>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "agent/detail/Crc32.h"
#include "agent/detail/PartitionReaders.h"
#include "agent/detail/PartitionTypeNames.h"
#include "agent/detail/Pieces.h"
#include "agent/detail/Utf16Text.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr uint64_t MostEntries = uint64_t{1} << 20U;  // thousands of times what tools write

bool IsSound(const char (&sector)[SectorSize], GptHeader_t& header) {
    std::memcpy(&header, sector, sizeof(header));
    const uint32_t headerBytes = header.headerBytes;
    if (std::memcmp(header.signature, GptSignature, sizeof(header.signature)) != 0 ||
        headerBytes < sizeof(GptHeader_t) || headerBytes > SectorSize || header.entryBytes < sizeof(GptEntry_t))
        return false;
    char copy[SectorSize];
    std::memcpy(copy, sector, sizeof(copy));
    std::memset(copy + offsetof(GptHeader_t, headerCrc), 0, sizeof(header.headerCrc));
    CCrc32 crc;
    crc.Add(copy, headerBytes);
    return ~crc.State() == header.headerCrc;
}

bool ReadHeader(CWholeDisk& disk, uint64_t lba, GptHeader_t& header) {
    char sector[SectorSize];
    return lba < disk.TotalSectors() && !disk.Read(lba << SectorShift, sector, sizeof(sector)).IsErrorSet() &&
           IsSound(sector, header) && header.ownLba == lba;
}

// The header in sector 1, or its copy in the last sector where the first is damaged.
CZuError FindHeader(CWholeDisk& disk, GptHeader_t& header, PartitionTable_t& table) {
    if (ReadHeader(disk, 1, header))
        return CZuError();
    if (!ReadHeader(disk, disk.TotalSectors() - 1, header))
        return Refusal(disk.Path() + ": has a GPT of which both headers, in sector 1 and in the last one, are damaged "
                                     "or missing");
    table.warnings.push_back(disk.Path() + ": the GPT's header in sector 1 is damaged; its copy in the last sector is "
                                           "used");
    return CZuError();
}

class CEntryReader {
public:
    CEntryReader(CWholeDisk& disk, const GptHeader_t& header, PartitionTable_t& table)
        : m_Disk(disk), m_Header(header), m_Table(table) {}

    CZuError Run() {
        const uint64_t entryBytes = m_Header.entryBytes;
        const uint64_t count = m_Header.entryCount;
        uint64_t start = 0;
        uint64_t end = 0;
        if (count > MostEntries || !SectorsToBytes(m_Header.entriesLba, start) ||
            !CheckedAdd(start, count * entryBytes, end) || end > m_Disk.TotalSectors() << SectorShift)
            return Refusal(CZuString::Format("{1}: its GPT claims {2} entries of {3} bytes at sector {4}, which no "
                                             "disk has room for",
                                             m_Disk.Path(), count, entryBytes, uint64_t{m_Header.entriesLba}));
        const uint64_t perPiece = std::max<uint64_t>(PieceBytes / entryBytes, 1);
        for (uint64_t first = 0; first < count; first += perPiece)
            ZU_RETURN_IF_ERROR(TakePiece(first, std::min(count - first, perPiece), start + first * entryBytes));
        if (~m_Crc.State() != m_Header.entriesCrc)
            m_Table.warnings.push_back(m_Disk.Path() + ": the checksum of the GPT's entries is wrong");
        return CZuError();
    }

private:
    // One that begins at 0 and ends at the last of all sectors has one more than fit.
    static uint64_t SectorsOf(const GptEntry_t& entry) {
        uint64_t sectors = 0;
        return CheckedAdd(entry.lastLba - entry.firstLba, uint64_t{1}, sectors) ? sectors : ~uint64_t{0};
    }

    CZuError TakePiece(uint64_t first, uint64_t count, uint64_t offset) {
        const uint64_t entryBytes = m_Header.entryBytes;
        uint32_t sizeBytes = 0;
        if (!NarrowTo32(count * entryBytes, sizeBytes))
            return Refusal(m_Disk.Path() + ": the entries of its GPT are too large");
        m_Piece.resize(sizeBytes);
        ZU_RETURN_IF_ERROR(m_Disk.Read(offset, m_Piece.data(), sizeBytes));
        m_Crc.Add(m_Piece.data(), m_Piece.size());
        for (uint64_t index = 0; index < count; ++index) {
            GptEntry_t entry{};
            std::memcpy(&entry, m_Piece.data() + index * entryBytes, sizeof(entry));
            ZU_RETURN_IF_ERROR(Take(entry, static_cast<uint32_t>(first + index + 1)));
        }
        return CZuError();
    }

    CZuError Take(const GptEntry_t& entry, uint32_t number) {
        const GUID type = entry.type;
        if (type == GUID{})
            return CZuError();
        PartitionInfo_t info;
        info.number = number;
        const std::string name(reinterpret_cast<const char*>(entry.name), sizeof(entry.name));
        info.name = Utf8FromUtf16(name, ByteOrder_t::LittleEndian);
        info.typeGuid = FormatGuidText(type).c_str();
        info.typeName = GptTypeName(type);
        info.guid = FormatGuidText(entry.partition).c_str();
        info.startSector = entry.firstLba;
        if (entry.lastLba < entry.firstLba)
            m_Table.warnings.push_back(
                CZuString::Format("{1}: partition {2} ends in front of its start", m_Disk.Path(), number).c_str());
        else
            info.sectors = SectorsOf(entry);
        return AddPartition(m_Disk, info, m_Table);
    }

    CWholeDisk& m_Disk;
    const GptHeader_t& m_Header;
    PartitionTable_t& m_Table;
    std::vector<char> m_Piece;
    CCrc32 m_Crc;
};

}  // namespace

CZuError ReadGptPartitions(CWholeDisk& disk, PartitionTable_t& table) {
    table.scheme = PartitionScheme_t::Gpt;
    GptHeader_t header{};
    ZU_RETURN_IF_ERROR(FindHeader(disk, header, table));
    table.diskGuid = FormatGuidText(header.diskGuid).c_str();
    return CEntryReader(disk, header, table).Run();
}
