#include "tests/support/VhdBuilder.h"

#include <algorithm>
#include <stdexcept>

#include "tests/support/MetadataRecordText.h"

namespace {

constexpr uint64_t SectorBytes = 512;

uint64_t SectorsFor(uint64_t bytes) {
    return (bytes + SectorBytes - 1) / SectorBytes;
}

// The one's complement of the sum of all bytes, of which those of the checksum itself count as 0.
void PutChecksum(std::string& structure, size_t offset) {
    PutBe32(structure, offset, 0);
    uint32_t sum = 0;
    for (const char byte : structure)
        sum += static_cast<unsigned char>(byte);
    PutBe32(structure, offset, ~sum);
}

}  // namespace

CVhdBuilder& CVhdBuilder::Data(uint64_t sector, std::string bytes) {
    m_Data.emplace_back(sector, std::move(bytes));
    return *this;
}

CVhdBuilder& CVhdBuilder::BlockSize(uint32_t bytes) {
    m_BlockSize = bytes;
    return *this;
}

CVhdBuilder& CVhdBuilder::Entries(uint32_t count) {
    m_Entries = count;
    return *this;
}

CVhdBuilder& CVhdBuilder::BitmapSectors(uint64_t sectors) {
    m_BitmapSectors = sectors;
    return *this;
}

CVhdBuilder& CVhdBuilder::Block(uint64_t index, char fill) {
    m_Blocks.push_back({index, "", fill, std::nullopt});
    return *this;
}

CVhdBuilder& CVhdBuilder::Block(uint64_t index, std::string bytes) {
    m_Blocks.push_back({index, std::move(bytes), '\0', std::nullopt});
    return *this;
}

CVhdBuilder& CVhdBuilder::Bitmap(uint64_t index, std::string bytes) {
    for (Block_t& block : m_Blocks) {
        if (block.index == index)
            block.bitmap = bytes;
    }
    return *this;
}

CVhdBuilder& CVhdBuilder::Locator(size_t slot, const std::string& code, std::string data) {
    m_Locators.at(slot) = {code, std::move(data)};
    return *this;
}

CVhdBuilder& CVhdBuilder::Footer(size_t offset, std::string bytes) {
    m_FooterChanges.emplace_back(offset, std::move(bytes));
    return *this;
}

CVhdBuilder& CVhdBuilder::Header(size_t offset, std::string bytes) {
    m_HeaderChanges.emplace_back(offset, std::move(bytes));
    return *this;
}

CVhdBuilder& CVhdBuilder::PutAt(uint64_t offset, std::string bytes) {
    m_Damage.emplace_back(offset, std::move(bytes));
    return *this;
}

CVhdBuilder& CVhdBuilder::PutEntry(uint64_t index, uint32_t sector) {
    return PutAt(TableOffset() + 4 * index, BigEndianBytes(sector, 4));
}

CVhdBuilder& CVhdBuilder::CutTo(uint64_t sizeBytes) {
    m_CutTo = sizeBytes;
    return *this;
}

std::string CVhdBuilder::FooterBytes() const {
    std::string footer(SectorBytes, '\0');
    PutBytes(footer, 0, "conectix");
    PutBe32(footer, 8, 2);
    PutBe32(footer, 12, 0x00010000);
    PutBe64(footer, 16, IsFixed() ? ~uint64_t{0} : SectorBytes);
    PutBe32(footer, 24, 0x2D3A4B5C);
    PutBytes(footer, 28, "tstb");
    PutBe32(footer, 32, 0x00010002);
    PutBytes(footer, 36, "Wi2k");
    PutBe64(footer, 40, m_Sectors * SectorBytes);
    PutBe64(footer, 48, m_Sectors * SectorBytes);
    PutBe16(footer, 56, 0x0102);
    PutBytes(footer, 58, "\x04\x11");
    PutBe32(footer, 60, m_Type);
    PutBytes(footer, 68, PatternedBytes(16, 68));
    for (const auto& [offset, bytes] : m_FooterChanges)
        PutBytes(footer, static_cast<size_t>(offset), bytes);
    PutChecksum(footer, 64);
    return footer;
}

std::string CVhdBuilder::HeaderBytes() const {
    std::string header(2 * SectorBytes, '\0');
    PutBytes(header, 0, "cxsparse");
    PutBe64(header, 8, ~uint64_t{0});
    PutBe64(header, 16, TableOffset());
    PutBe32(header, 24, 0x00010000);
    PutBe32(header, 28, EntryCount());
    PutBe32(header, 32, m_BlockSize);
    for (size_t slot = 0; slot < m_Locators.size(); ++slot) {
        const Locator_t& locator = m_Locators[slot];
        if (locator.data.empty())
            continue;
        const size_t at = 576 + 24 * slot;
        PutBytes(header, at, locator.code);
        PutBe32(header, at + 4, static_cast<uint32_t>(SectorsFor(locator.data.size()) * SectorBytes));
        PutBe32(header, at + 8, static_cast<uint32_t>(locator.data.size()));
        PutBe64(header, at + 16, LocatorOffset(slot));
    }
    for (const auto& [offset, bytes] : m_HeaderChanges)
        PutBytes(header, static_cast<size_t>(offset), bytes);
    PutChecksum(header, 36);
    return header;
}

std::string CVhdBuilder::TableBytes() const {
    std::string table(size_t{4} * EntryCount(), '\xFF');
    for (const Block_t& block : m_Blocks)
        PutBe32(table, static_cast<size_t>(4 * block.index), static_cast<uint32_t>(BlockSector(block.index)));
    return table;
}

std::string CVhdBuilder::LocatorBytes() const {
    std::string bytes;
    for (const Locator_t& locator : m_Locators)
        bytes += locator.data;
    return bytes;
}

std::string CVhdBuilder::BlockBitmap(uint64_t index) const {
    std::string bits(static_cast<size_t>(SectorsPerBlock() / 8), '\xFF');
    if (SectorsPerBlock() % 8 != 0)
        bits += static_cast<char>(0xFF00U >> (SectorsPerBlock() % 8));
    std::string bitmap = BlockAt(index).bitmap.value_or(bits);
    bitmap.resize(static_cast<size_t>(BitmapSectors() * SectorBytes), '\0');
    return bitmap;
}

std::string CVhdBuilder::BlockBytes(uint64_t index) const {
    const Block_t& block = BlockAt(index);
    std::string data = block.bytes;
    data.resize(static_cast<size_t>(SectorsPerBlock() * SectorBytes), block.fill);
    return BlockBitmap(index) + data;
}

uint64_t CVhdBuilder::BitmapSectors() const {
    return m_BitmapSectors.value_or(std::max<uint64_t>(SectorsFor((SectorsPerBlock() + 7) / 8), 1));
}

uint64_t CVhdBuilder::LocatorOffset(size_t slot) const {
    uint64_t sector = SectorsFor(TableOffset() + uint64_t{4} * EntryCount());
    for (size_t before = 0; before < slot; ++before)
        sector += SectorsFor(m_Locators.at(before).data.size());
    return sector * SectorBytes;
}

uint64_t CVhdBuilder::BlockSector(uint64_t index) const {
    const auto position = static_cast<uint64_t>(&BlockAt(index) - m_Blocks.data());
    return FirstBlockSector() + position * BlockSectors();
}

uint64_t CVhdBuilder::FooterPosition() const {
    return (IsFixed() ? m_Sectors : FirstBlockSector() + m_Blocks.size() * BlockSectors()) * SectorBytes;
}

std::string CVhdBuilder::Record() const {
    const std::string ending = HexDigits(FooterPosition(), 16) + FooterBytes();
    const uint64_t sectors = [&] {
        uint64_t bytes = 0;
        for (const char byte : FooterBytes().substr(48, 8))
            bytes = bytes << 8U | static_cast<unsigned char>(byte);
        return bytes / SectorBytes;
    }();
    if (IsFixed())
        return MetadataRecordText("VDMSFT10", sectors, ending);
    return MetadataRecordText("VDMSSP10", sectors,
                              FooterBytes() + HeaderBytes() + LocatorBytes() + TableBytes() + ending);
}

uint32_t CVhdBuilder::EntryCount() const {
    const uint64_t blockSectors = std::max<uint64_t>(SectorsPerBlock(), 1);
    return m_Entries.value_or(static_cast<uint32_t>((m_Sectors + blockSectors - 1) / blockSectors));
}

uint64_t CVhdBuilder::FirstBlockSector() const {
    return LocatorOffset(m_Locators.size()) / SectorBytes;
}

const CVhdBuilder::Block_t& CVhdBuilder::BlockAt(uint64_t index) const {
    for (const Block_t& block : m_Blocks) {
        if (block.index == index)
            return block;
    }
    throw std::out_of_range("the file has no such block");
}

CImageFile CVhdBuilder::Image() const {
    CImageFile image;
    for (const auto& [sector, bytes] : m_Data)
        image.Put(sector * SectorBytes, bytes);
    if (!IsFixed()) {
        PutTables(image);
        PutBlocks(image);
    }
    image.Put(FooterPosition(), FooterBytes());
    for (const auto& [offset, bytes] : m_Damage)
        image.Put(offset, bytes);
    if (m_CutTo)
        image.Resize(*m_CutTo);
    return image;
}

void CVhdBuilder::PutTables(CImageFile& image) const {
    image.Put(0, FooterBytes());
    image.Put(SectorBytes, HeaderBytes());
    image.Put(TableOffset(), TableBytes());
    for (size_t slot = 0; slot < m_Locators.size(); ++slot)
        image.Put(LocatorOffset(slot), m_Locators[slot].data);
}

void CVhdBuilder::PutBlocks(CImageFile& image) const {
    for (const Block_t& block : m_Blocks)
        image.Put(BlockSector(block.index) * SectorBytes, BlockBytes(block.index));
}
