#include "tests/support/CowdBuilder.h"

#include <algorithm>

#include "tests/support/Bytes.h"
#include "tests/support/MetadataRecordText.h"

namespace {

constexpr uint64_t SectorBytes = 512;
constexpr uint64_t HeaderSize = 2048;
constexpr uint64_t EntriesPerTable = 4096;
constexpr uint64_t TableSectorCount = 32;

}  // namespace

CCowdBuilder& CCowdBuilder::Capacity(uint32_t sectors) {
    m_Capacity = sectors;
    return *this;
}

CCowdBuilder& CCowdBuilder::GrainSize(uint32_t sectors) {
    m_GrainSize = sectors;
    return *this;
}

CCowdBuilder& CCowdBuilder::Grain(uint64_t index, char fill) {
    m_Grains.push_back({index, "", fill});
    return *this;
}

CCowdBuilder& CCowdBuilder::Grain(uint64_t index, std::string bytes) {
    m_Grains.push_back({index, std::move(bytes), '\0'});
    return *this;
}

CCowdBuilder& CCowdBuilder::NoTable(uint64_t directoryIndex) {
    m_NoTable.insert(directoryIndex);
    return *this;
}

CCowdBuilder& CCowdBuilder::DirectoryAt(uint32_t sector) {
    m_DirectorySector = sector;
    return *this;
}

CCowdBuilder& CCowdBuilder::Put8(uint64_t offset, uint8_t value) {
    return PutAt(offset, LittleEndianBytes(value, 1));
}

CCowdBuilder& CCowdBuilder::Put32(uint64_t offset, uint32_t value) {
    return PutAt(offset, LittleEndianBytes(value, 4));
}

CCowdBuilder& CCowdBuilder::PutAt(uint64_t offset, std::string bytes) {
    m_Damage.emplace_back(offset, std::move(bytes));
    return *this;
}

CCowdBuilder& CCowdBuilder::CutTo(uint64_t sizeBytes) {
    m_CutTo = sizeBytes;
    return *this;
}

uint32_t CCowdBuilder::DirectoryEntries() const {
    const uint64_t sectorsPerTable = EntriesPerTable * m_GrainSize;
    return static_cast<uint32_t>((m_Capacity + sectorsPerTable - 1) / sectorsPerTable);
}

std::string CCowdBuilder::HeaderBytes() const {
    std::string header(HeaderSize, '\0');
    PutBytes(header, 0, "COWD");
    PutLe32(header, 4, 1);
    PutLe32(header, 8, 3);
    PutLe32(header, 12, m_Capacity);
    PutLe32(header, 16, m_GrainSize);
    PutLe32(header, 20, m_DirectorySector);
    PutLe32(header, 24, DirectoryEntries());
    PutBytes(header, 28, PatternedBytes(1620, 28));  // parents and names, which nobody looks at
    PutLe32(header, 1648, 0);
    PutBytes(header, 1652, PatternedBytes(396, 1652));
    return header;
}

std::string CCowdBuilder::DirectoryBytes() const {
    std::string directory;
    for (const uint64_t sector : TableSectors())
        directory += LittleEndianBytes(sector, 4);
    return directory;
}

std::vector<std::string> CCowdBuilder::Tables() const {
    std::vector<std::string> tables(DirectoryEntries());
    for (size_t index = 0; index < tables.size(); ++index)
        tables[index].resize(m_NoTable.count(index) == 0 ? EntriesPerTable * 4 : 0, '\0');

    uint64_t sector = FirstGrainSector();
    for (const Grain_t& grain : m_Grains) {
        std::string& table = tables.at(grain.index / EntriesPerTable);
        if (!table.empty())
            PutLe32(table, grain.index % EntriesPerTable * 4, static_cast<uint32_t>(sector));
        sector += m_GrainSize;
    }
    return tables;
}

std::vector<uint64_t> CCowdBuilder::TableSectors() const {
    std::vector<uint64_t> sectors(DirectoryEntries(), 0);
    uint64_t next = m_DirectorySector + (DirectoryEntries() * 4 + SectorBytes - 1) / SectorBytes;
    for (size_t index = 0; index < sectors.size(); ++index) {
        if (m_NoTable.count(index) != 0)
            continue;
        sectors[index] = next;
        next += TableSectorCount;
    }
    return sectors;
}

uint64_t CCowdBuilder::GrainSector(uint64_t index) const {
    const auto found =
        std::find_if(m_Grains.begin(), m_Grains.end(), [index](const Grain_t& grain) { return grain.index == index; });
    const auto position = static_cast<uint64_t>(found - m_Grains.begin());
    return found != m_Grains.end() ? FirstGrainSector() + position * m_GrainSize : 0;
}

std::string CCowdBuilder::Record() const {
    std::string body = HeaderBytes() + DirectoryBytes();
    // Absent tables count too: what they would take is zeros at the end.
    const uint64_t bodyBytes = body.size() + DirectoryEntries() * EntriesPerTable * 4;
    for (const std::string& table : Tables())
        body += table;
    body.resize(bodyBytes, '\0');
    return MetadataRecordText("VDVWSP10", m_Capacity, body);
}

CImageFile CCowdBuilder::Image() const {
    CImageFile image;
    image.Put(0, HeaderBytes());
    image.Put(m_DirectorySector * SectorBytes, DirectoryBytes());
    const std::vector<std::string> tables = Tables();
    const std::vector<uint64_t> sectors = TableSectors();
    for (size_t index = 0; index < tables.size(); ++index)
        image.Put(sectors[index] * SectorBytes, tables[index]);
    uint64_t sector = FirstGrainSector();
    for (const Grain_t& grain : m_Grains) {
        std::string bytes = grain.bytes;
        bytes.resize(m_GrainSize * SectorBytes, grain.fill);
        image.Put(sector * SectorBytes, std::move(bytes));
        sector += m_GrainSize;
    }
    for (const auto& [offset, bytes] : m_Damage)
        image.Put(offset, bytes);
    if (m_CutTo)
        image.Resize(*m_CutTo);
    return image;
}

uint64_t CCowdBuilder::FirstGrainSector() const {
    uint64_t end = m_DirectorySector + (DirectoryEntries() * 4 + SectorBytes - 1) / SectorBytes;
    for (const uint64_t sector : TableSectors())
        end = sector != 0 ? sector + TableSectorCount : end;
    return end;
}
