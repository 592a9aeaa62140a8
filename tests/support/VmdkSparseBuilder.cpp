#include "tests/support/VmdkSparseBuilder.h"

#include <algorithm>
#include <utility>

#include "tests/support/Bytes.h"
#include "tests/support/MetadataRecordText.h"

namespace {

constexpr uint64_t SectorBytes = 512;
constexpr uint64_t EntriesPerTable = 512;
constexpr uint64_t TableSectorCount = 4;

uint64_t SectorsFor(uint64_t bytes) {
    return (bytes + SectorBytes - 1) / SectorBytes;
}

bool Concerns(TableCopy_t change, TableCopy_t copy) {
    return change == TableCopy_t::Both || change == copy;
}

size_t CopyIndex(TableCopy_t copy) {
    return copy == TableCopy_t::Redundant ? 0 : 1;
}

}  // namespace

CVmdkSparseBuilder& CVmdkSparseBuilder::Capacity(uint64_t sectors) {
    m_Capacity = sectors;
    return *this;
}

CVmdkSparseBuilder& CVmdkSparseBuilder::GrainSize(uint64_t sectors) {
    m_GrainSize = sectors;
    return *this;
}

CVmdkSparseBuilder& CVmdkSparseBuilder::Flags(uint32_t flags) {
    m_Flags = flags;
    return *this;
}

CVmdkSparseBuilder& CVmdkSparseBuilder::RedundantIsActive() {
    m_Flags |= 2;
    return *this;
}

CVmdkSparseBuilder& CVmdkSparseBuilder::Unclean() {
    m_Unclean = 1;
    return *this;
}

CVmdkSparseBuilder& CVmdkSparseBuilder::Descriptor(std::string text) {
    m_Descriptor = std::move(text);
    return *this;
}

CVmdkSparseBuilder& CVmdkSparseBuilder::Grain(uint64_t index, char fill, TableCopy_t copy) {
    m_Grains.push_back({index, "", fill, copy});
    return *this;
}

CVmdkSparseBuilder& CVmdkSparseBuilder::Grain(uint64_t index, std::string bytes, TableCopy_t copy) {
    m_Grains.push_back({index, std::move(bytes), '\0', copy});
    return *this;
}

CVmdkSparseBuilder& CVmdkSparseBuilder::NoTable(uint64_t directoryIndex, TableCopy_t copy) {
    for (const TableCopy_t each : {TableCopy_t::Redundant, TableCopy_t::Primary}) {
        if (Concerns(copy, each))
            m_NoTable[CopyIndex(each)].insert(directoryIndex);
    }
    return *this;
}

CVmdkSparseBuilder& CVmdkSparseBuilder::OneTableForAll() {
    m_OneTableForAll = true;
    return *this;
}

CVmdkSparseBuilder& CVmdkSparseBuilder::TablesInReverse() {
    m_TablesInReverse = true;
    return *this;
}

CVmdkSparseBuilder& CVmdkSparseBuilder::GapBetweenTables(uint64_t sectors) {
    m_GapSectors = sectors;
    return *this;
}

CVmdkSparseBuilder& CVmdkSparseBuilder::Put8(uint64_t offset, uint8_t value) {
    return PutAt(offset, LittleEndianBytes(value, 1));
}

CVmdkSparseBuilder& CVmdkSparseBuilder::Put32(uint64_t offset, uint32_t value) {
    return PutAt(offset, LittleEndianBytes(value, 4));
}

CVmdkSparseBuilder& CVmdkSparseBuilder::Put64(uint64_t offset, uint64_t value) {
    return PutAt(offset, LittleEndianBytes(value, 8));
}

CVmdkSparseBuilder& CVmdkSparseBuilder::PutAt(uint64_t offset, std::string bytes) {
    m_Damage.emplace_back(offset, std::move(bytes));
    return *this;
}

CVmdkSparseBuilder& CVmdkSparseBuilder::CutTo(uint64_t sizeBytes) {
    m_CutTo = sizeBytes;
    return *this;
}

uint64_t CVmdkSparseBuilder::DirectoryEntries() const {
    const uint64_t sectorsPerTable = m_GrainSize * EntriesPerTable;
    return (m_Capacity + sectorsPerTable - 1) / sectorsPerTable;
}

std::string CVmdkSparseBuilder::HeaderBytes() const {
    std::string header(SectorBytes, '\0');
    PutBytes(header, 0, "KDMV");
    PutLe32(header, 4, 1);
    PutLe32(header, 8, m_Flags);
    PutLe64(header, 12, m_Capacity);
    PutLe64(header, 20, m_GrainSize);
    PutLe64(header, 28, m_Descriptor.empty() ? 0 : 1);
    PutLe64(header, 36, DescriptorSectors());
    PutLe32(header, 44, EntriesPerTable);
    PutLe64(header, 48, DirectorySector(TableCopy_t::Redundant));
    PutLe64(header, 56, DirectorySector(TableCopy_t::Primary));
    PutLe64(header, 64, FirstGrainSector());
    PutLe8(header, 72, m_Unclean);
    PutBytes(header, 73, "\n \r\n");
    return header;
}

std::string CVmdkSparseBuilder::DescriptorBytes() const {
    std::string bytes = m_Descriptor;
    bytes.resize(DescriptorSectors() * SectorBytes, '\0');
    return bytes;
}

std::string CVmdkSparseBuilder::DirectoryBytes(TableCopy_t copy) const {
    std::string directory;
    for (const uint64_t sector : TableSectors(copy))
        directory += LittleEndianBytes(sector, 4);
    return directory;
}

std::vector<std::string> CVmdkSparseBuilder::Tables(TableCopy_t copy) const {
    std::vector<std::string> tables(DirectoryEntries());
    for (size_t index = 0; index < tables.size(); ++index)
        tables[index].resize(HasTable(index, copy) ? EntriesPerTable * 4 : 0, '\0');

    uint64_t sector = FirstGrainSector();
    for (const Grain_t& grain : m_Grains) {
        std::string& table = tables.at(grain.index / EntriesPerTable);
        if (Concerns(grain.copy, copy) && !table.empty())
            PutLe32(table, grain.index % EntriesPerTable * 4, static_cast<uint32_t>(sector));
        sector += m_GrainSize;
    }
    if (m_OneTableForAll)
        std::fill(tables.begin(), tables.end(), std::string(tables.front()));
    return tables;
}

uint64_t CVmdkSparseBuilder::DirectorySector(TableCopy_t copy) const {
    return Layout(copy).directory;
}

std::vector<uint64_t> CVmdkSparseBuilder::TableSectors(TableCopy_t copy) const {
    return Layout(copy).tables;
}

uint64_t CVmdkSparseBuilder::GrainSector(uint64_t index) const {
    const auto found =
        std::find_if(m_Grains.begin(), m_Grains.end(), [index](const Grain_t& grain) { return grain.index == index; });
    const auto position = static_cast<uint64_t>(found - m_Grains.begin());
    return found != m_Grains.end() ? FirstGrainSector() + position * m_GrainSize : 0;
}

std::string CVmdkSparseBuilder::Record() const {
    const uint64_t tablesOfBothCopies = 2 * DirectoryEntries() * EntriesPerTable * 4;
    std::string body = HeaderBytes() + DescriptorBytes() + DirectoryBytes(TableCopy_t::Redundant) +
                       DirectoryBytes(TableCopy_t::Primary);
    // Absent tables count too: what they would take is zeros at the end.
    const uint64_t bodyBytes = body.size() + tablesOfBothCopies;
    for (const TableCopy_t copy : {TableCopy_t::Redundant, TableCopy_t::Primary}) {
        for (const std::string& table : Tables(copy))
            body += table;
    }
    body.resize(bodyBytes, '\0');
    return MetadataRecordText("VDVWSP10", m_Capacity, body);
}

CImageFile CVmdkSparseBuilder::Image() const {
    CImageFile image;
    image.Put(0, HeaderBytes());
    image.Put(SectorBytes, DescriptorBytes());
    PutTables(image, TableCopy_t::Redundant);
    PutTables(image, TableCopy_t::Primary);
    image.Put(FirstGrainSector() * SectorBytes - 1, std::string(1, '\0'));
    PutGrains(image);
    for (const auto& [offset, bytes] : m_Damage)
        image.Put(offset, bytes);
    if (m_CutTo)
        image.Resize(*m_CutTo);
    return image;
}

void CVmdkSparseBuilder::PutTables(CImageFile& image, TableCopy_t copy) const {
    const CopyLayout_t layout = Layout(copy);
    const std::vector<std::string> tables = Tables(copy);
    image.Put(layout.directory * SectorBytes, DirectoryBytes(copy));
    for (size_t index = 0; index < tables.size(); ++index)
        image.Put(layout.tables[index] * SectorBytes, tables[index]);
}

void CVmdkSparseBuilder::PutGrains(CImageFile& image) const {
    uint64_t sector = FirstGrainSector();
    for (const Grain_t& grain : m_Grains) {
        std::string bytes = grain.bytes;
        bytes.resize(GrainBytes(), grain.fill);
        image.Put(sector * SectorBytes, std::move(bytes));
        sector += m_GrainSize;
    }
}

bool CVmdkSparseBuilder::HasTable(uint64_t directoryIndex, TableCopy_t copy) const {
    return m_NoTable[CopyIndex(copy)].count(directoryIndex) == 0;
}

CVmdkSparseBuilder::CopyLayout_t CVmdkSparseBuilder::Layout(TableCopy_t copy) const {
    CopyLayout_t layout;
    layout.directory = copy == TableCopy_t::Redundant ? 1 + DescriptorSectors() : Layout(TableCopy_t::Redundant).end;
    layout.tables.resize(DirectoryEntries(), 0);
    layout.end = layout.directory + SectorsFor(DirectoryEntries() * 4);
    for (size_t turn = 0; turn < layout.tables.size(); ++turn) {
        const size_t index = m_TablesInReverse ? layout.tables.size() - 1 - turn : turn;
        const bool isShared = m_OneTableForAll && turn != 0;
        if (!HasTable(index, copy))
            continue;
        layout.tables[index] = isShared ? layout.tables.front() : layout.end;
        layout.end += isShared ? 0 : TableSectorCount + m_GapSectors;
    }
    return layout;
}

uint64_t CVmdkSparseBuilder::DescriptorSectors() const {
    return SectorsFor(m_Descriptor.size());
}

// Grains begin at a whole grain, as most programs place them.
uint64_t CVmdkSparseBuilder::FirstGrainSector() const {
    return (Layout(TableCopy_t::Primary).end + m_GrainSize - 1) / m_GrainSize * m_GrainSize;
}
