#include "tests/support/LdmGroupBuilder.h"

#include <algorithm>
#include <cstdio>

#include "tests/support/HardDisks.h"
#include "tests/support/PartitionTableBuilder.h"

namespace {

constexpr uint64_t SectorBytes = 512;
constexpr uint64_t VolumeNumbers = 1'000'000;  // what a volume's number counts in the content of its sectors
constexpr uint64_t GptMetadataStart = 34;
constexpr uint64_t DatabaseSectors = 2048;
constexpr uint64_t GptPrivateHead = GptMetadataStart + 1856;

// The pieces in the order of their columns.
std::vector<LdmPiece_t> Columns(const LdmPlex_t& plex) {
    std::vector<LdmPiece_t> pieces = plex.pieces;
    std::sort(pieces.begin(), pieces.end(), [](const LdmPiece_t& left, const LdmPiece_t& right) {
        return left.column.value_or(0) < right.column.value_or(0);
    });
    return pieces;
}

LdmVolume_t InColumns(uint64_t stripeSectors, std::vector<LdmPiece_t> pieces, uint8_t layout) {
    LdmVolume_t volume;
    for (size_t column = 0; column < pieces.size(); ++column) {
        pieces[column].column = column;
        volume.sectors += pieces[column].sectors;
    }
    LdmPlex_t plex;
    plex.pieces = std::move(pieces);
    plex.stripeSectors = stripeSectors;
    plex.layout = layout;
    volume.plexes = {plex};
    return volume;
}

std::string XorOf(const std::vector<std::string>& stripes) {
    std::string result(stripes.front().size(), '\0');
    for (const std::string& stripe : stripes) {
        for (size_t at = 0; at < result.size(); ++at)
            result[at] = static_cast<char>(result[at] ^ stripe[at]);
    }
    return result;
}

// What each column of the plex holds: rows of stripes, one per column.
std::vector<std::string> StripedColumns(const LdmPlex_t& plex, const std::string& content) {
    const size_t stripeBytes = static_cast<size_t>(*plex.stripeSectors * SectorBytes);
    std::vector<std::string> columns(plex.pieces.size());
    for (size_t at = 0, next = 0; at < content.size(); at += stripeBytes, next = (next + 1) % columns.size())
        columns[next] += content.substr(at, stripeBytes);
    return columns;
}

// In row 0 the parity lies on the last column, in each row further one column more to the left; the data
// begins on the column to its right and goes round.
std::vector<std::string> Raid5Columns(const LdmPlex_t& plex, const std::string& content) {
    const size_t stripeBytes = static_cast<size_t>(*plex.stripeSectors * SectorBytes);
    const size_t count = plex.pieces.size();
    std::vector<std::string> columns(count);
    size_t parity = count - 1;
    for (size_t at = 0; at < content.size(); parity = (parity + count - 1) % count) {
        std::vector<std::string> row;
        for (size_t step = 1; step < count; ++step, at += stripeBytes) {
            row.push_back(content.substr(at, stripeBytes));
            columns[(parity + step) % count] += row.back();
        }
        columns[parity] += XorOf(row);
    }
    return columns;
}

}  // namespace

LdmVolume_t LdmSpanned(std::vector<LdmPiece_t> pieces) {
    LdmVolume_t volume;
    for (LdmPiece_t& piece : pieces) {
        piece.volumeStart = volume.sectors;
        volume.sectors += piece.sectors;
    }
    LdmPlex_t plex;
    plex.pieces = std::move(pieces);
    volume.plexes = {plex};
    return volume;
}

LdmVolume_t LdmSimple(const LdmPiece_t& piece) {
    return LdmSpanned({piece});
}

LdmVolume_t LdmStriped(uint64_t stripeSectors, std::vector<LdmPiece_t> pieces) {
    return InColumns(stripeSectors, std::move(pieces), 1);
}

LdmVolume_t LdmRaid5(uint64_t stripeSectors, std::vector<LdmPiece_t> pieces) {
    const size_t columns = pieces.size();
    LdmVolume_t volume = InColumns(stripeSectors, std::move(pieces), 3);
    volume.type = "raid5";
    volume.sectors = volume.sectors / columns * (columns - 1);
    return volume;
}

LdmVolume_t LdmMirrored(const std::vector<LdmPiece_t>& halves) {
    LdmVolume_t volume;
    for (const LdmPiece_t& half : halves) {
        const LdmVolume_t simple = LdmSimple(half);
        volume.sectors = simple.sectors;
        volume.plexes.push_back(simple.plexes.front());
    }
    return volume;
}

CLdmGroupBuilder& CLdmGroupBuilder::Volume(const LdmVolume_t& volume) {
    m_Volumes.push_back(volume);
    return *this;
}

CLdmGroupBuilder& CLdmGroupBuilder::DiskSectors(uint64_t sectors) {
    m_Sectors = sectors;
    return *this;
}

CLdmGroupBuilder& CLdmGroupBuilder::Revision(int revision, LdmGuidOrder_t order) {
    m_Revision = revision;
    m_Order = order;
    return *this;
}

CLdmGroupBuilder& CLdmGroupBuilder::OnGpt() {
    m_IsGpt = true;
    return *this;
}

CLdmGroupBuilder& CLdmGroupBuilder::Fragments(uint8_t type, size_t least) {
    m_Fragments.emplace_back(type, least);
    return *this;
}

CLdmGroupBuilder& CLdmGroupBuilder::Serial(uint8_t serial) {
    m_Serial = serial;
    return *this;
}

std::string CLdmGroupBuilder::Guid(char kind, size_t number) const {
    char text[40];
    std::snprintf(text, sizeof(text), "%c01c2d3e-4f50-4a6b-8c7d-0000%02x%06x", kind, m_Serial,
                  static_cast<unsigned int>(number));
    return text;
}

std::string CLdmGroupBuilder::DiskGuid(size_t disk) const {
    return Guid('d', disk);
}

std::string CLdmGroupBuilder::VolumeGuid(size_t volume) const {
    return Guid('e', volume);
}

std::string CLdmGroupBuilder::VolumeBytes(size_t volume) const {
    const LdmVolume_t& plan = m_Volumes.at(volume);
    if (plan.content.empty())
        return NumberedSectors((100 * uint64_t{m_Serial} + volume + 1) * VolumeNumbers, plan.sectors);
    std::string bytes = plan.content;
    bytes.resize(plan.sectors * SectorBytes, '\0');
    return bytes;
}

size_t CLdmGroupBuilder::FragmentsOf(uint8_t type) const {
    const auto found =
        std::find_if(m_Fragments.begin(), m_Fragments.end(), [type](const auto& each) { return each.first == type; });
    return found != m_Fragments.end() ? found->second : 1;
}

CLdmDatabaseBuilder CLdmGroupBuilder::Database(size_t disk) const {
    CLdmDatabaseBuilder database;
    database.DiskGuid(DiskGuid(disk));
    if (m_IsGpt)
        database.Version(2, 12).Config(GptMetadataStart).LogicalDisk(DataStart(), m_Sectors - DataStart() - 48);
    else
        database.Config(m_Sectors - DatabaseSectors)
            .LogicalDisk(DataStart(), m_Sectors - DatabaseSectors - DataStart());
    AddRecords(database);
    return database;
}

void CLdmGroupBuilder::AddRecords(CLdmDatabaseBuilder& database) const {
    LdmGroupRecord_t group;
    group.guid = Guid('6', 0);
    group.revision = m_Revision;
    group.order = m_Order;
    database.Add(group, FragmentsOf(m_Revision == 4 ? LdmGroup4Type : LdmGroup3Type));
    for (size_t number = 0; number < m_Disks; ++number) {
        LdmDiskRecord_t record;
        record.id = 2 + number;
        record.name = "Disk" + std::to_string(number + 1);
        record.guid = DiskGuid(number);
        record.revision = m_Revision;
        record.order = m_Order;
        database.Add(record, FragmentsOf(m_Revision == 4 ? LdmDisk4Type : LdmDisk3Type));
    }
    uint64_t nextId = 2 + m_Disks;
    for (size_t volume = 0; volume < m_Volumes.size(); ++volume)
        AddVolume(database, volume, nextId);
}

void CLdmGroupBuilder::AddVolume(CLdmDatabaseBuilder& database, size_t volume, uint64_t& nextId) const {
    const LdmVolume_t& plan = m_Volumes[volume];
    LdmVolumeRecord_t record;
    record.id = nextId++;
    record.name = "Volume" + std::to_string(volume + 1);
    record.type = plan.type;
    record.state = plan.state;
    record.childCount = plan.plexes.size();
    record.sectors = plan.sectors;
    record.partitionType = plan.partitionType;
    record.guid = VolumeGuid(volume);
    database.Add(record, FragmentsOf(LdmVolumeType));
    for (size_t plex = 0; plex < plan.plexes.size(); ++plex)
        AddPlex(database, plan.plexes[plex], record.name + "-0" + std::to_string(plex + 1), record.id, nextId);
}

void CLdmGroupBuilder::AddPlex(CLdmDatabaseBuilder& database, const LdmPlex_t& plex, const std::string& name,
                               uint64_t volumeId, uint64_t& nextId) const {
    LdmComponentRecord_t record;
    record.id = nextId++;
    record.name = name;
    record.state = plex.state;
    record.layout = plex.layout;
    record.childCount = plex.pieces.size();
    record.parentId = volumeId;
    record.stripeSectors = plex.stripeSectors;
    database.Add(record, FragmentsOf(LdmComponentType));
    for (const LdmPiece_t& piece : plex.pieces) {
        LdmPartitionRecord_t partition;
        partition.id = nextId++;
        partition.name = "Disk" + std::to_string(piece.disk + 1) + "-" + std::to_string(partition.id);
        partition.start = piece.start;
        partition.volumeStart = piece.volumeStart;
        partition.sectors = piece.sectors;
        partition.parentId = record.id;
        partition.diskId = 2 + piece.disk;
        partition.column = piece.column;
        database.Add(partition, FragmentsOf(LdmPartitionType));
    }
}

CImageFile CLdmGroupBuilder::Image(size_t disk, const CLdmDatabaseBuilder& database) const {
    const uint64_t last = m_Sectors - 49;
    CImageFile image;
    if (m_IsGpt)
        image = CPartitionTableBuilder()
                    .Sectors(m_Sectors)
                    .Gpt(CGptBuilder()
                             .Entry(0, LdmMetadataGuid, GptMetadataStart, GptMetadataStart + DatabaseSectors - 1)
                             .Entry(1, LdmDataGuid, DataStart(), last))
                    .Image();
    else
        image = CPartitionTableBuilder()
                    .Sectors(m_Sectors)
                    .Slot(0, 0x42, 63, static_cast<uint32_t>(m_Sectors - DatabaseSectors - 63))
                    .Image();
    for (size_t volume = 0; volume < m_Volumes.size(); ++volume) {
        for (const LdmPlex_t& plex : m_Volumes[volume].plexes)
            PutPlex(image, disk, plex, VolumeBytes(volume));
    }
    database.PutTo(image, m_IsGpt ? GptPrivateHead : 6);
    return image;
}

void CLdmGroupBuilder::PutPlex(CImageFile& image, size_t disk, const LdmPlex_t& plex,
                               const std::string& content) const {
    const auto put = [&](const LdmPiece_t& piece, const std::string& bytes) {
        if (piece.disk == disk)
            image.Put((DataStart() + piece.start) * SectorBytes, bytes);
    };
    if (!plex.stripeSectors) {
        for (const LdmPiece_t& piece : plex.pieces)
            put(piece, content.substr(piece.volumeStart * SectorBytes, piece.sectors * SectorBytes));
        return;
    }
    const std::vector<LdmPiece_t> pieces = Columns(plex);
    const std::vector<std::string> columns =
        plex.layout == 3 ? Raid5Columns(plex, content) : StripedColumns(plex, content);
    for (size_t column = 0; column < pieces.size(); ++column)
        put(pieces[column], columns[column]);
}
