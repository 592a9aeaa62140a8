#include "tests/support/PartitionTableBuilder.h"

#include <algorithm>

#include "tests/support/Bytes.h"

namespace {

constexpr uint64_t SectorBytes = 512;
constexpr size_t FirstSlotOffset = 446;
constexpr size_t SlotBytes = 16;
constexpr uint64_t GptEntryBytes = 128;
constexpr uint8_t LinkType = 5;

uint32_t Crc32(const std::string& bytes) {
    uint32_t crc = 0xFFFFFFFF;
    for (const char byte : bytes) {
        crc ^= static_cast<uint8_t>(byte);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1U) ^ ((crc & 1U) != 0 ? 0xEDB88320U : 0U);
    }
    return ~crc;
}

uint64_t SectorsFor(uint64_t bytes) {
    return (bytes + SectorBytes - 1) / SectorBytes;
}

}  // namespace

std::string GuidBytesOnDisk(const std::string& text) {
    std::string digits = text;
    digits.erase(std::remove(digits.begin(), digits.end(), '-'), digits.end());
    std::string bytes;
    for (const size_t pair : {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15})
        bytes += static_cast<char>(std::stoi(digits.substr(2 * pair, 2), nullptr, 16));
    return bytes;
}

CBootRecordBuilder& CBootRecordBuilder::Slot(size_t index, uint8_t type, uint32_t firstLba, uint32_t sectors) {
    const size_t offset = FirstSlotOffset + index * SlotBytes;
    PutLe8(m_Bytes, offset + 4, type);
    PutLe32(m_Bytes, offset + 8, firstLba);
    PutLe32(m_Bytes, offset + 12, sectors);
    return *this;
}

CBootRecordBuilder& CBootRecordBuilder::Signature(uint16_t value) {
    PutLe16(m_Bytes, 510, value);
    return *this;
}

// A boot program and a disk signature are there, so that nobody takes them for slots.
std::string CBootRecordBuilder::EmptyRecord() {
    std::string bytes = PatternedBytes(FirstSlotOffset, 0xB007);
    bytes.resize(SectorBytes, '\0');
    PutLe16(bytes, 510, 0xAA55);
    return bytes;
}

CNtfsBootBuilder& CNtfsBootBuilder::OemName(const std::string& name) {
    PutBytes(m_Bytes, 3, name);
    return *this;
}

CNtfsBootBuilder& CNtfsBootBuilder::BytesPerSector(uint16_t bytes) {
    PutLe16(m_Bytes, 11, bytes);
    return *this;
}

CNtfsBootBuilder& CNtfsBootBuilder::SectorsPerCluster(uint8_t sectors) {
    PutLe8(m_Bytes, 13, sectors);
    return *this;
}

CNtfsBootBuilder& CNtfsBootBuilder::ReservedSectors(uint16_t sectors) {
    PutLe16(m_Bytes, 14, sectors);
    return *this;
}

CNtfsBootBuilder& CNtfsBootBuilder::TotalSectors(uint64_t sectors) {
    PutLe64(m_Bytes, 40, sectors);
    return *this;
}

CNtfsBootBuilder& CNtfsBootBuilder::MftCluster(uint64_t cluster) {
    PutLe64(m_Bytes, 48, cluster);
    return *this;
}

CNtfsBootBuilder& CNtfsBootBuilder::MirrorMftCluster(uint64_t cluster) {
    PutLe64(m_Bytes, 56, cluster);
    return *this;
}

CNtfsBootBuilder& CNtfsBootBuilder::ClustersPerRecord(uint32_t value) {
    PutLe32(m_Bytes, 64, value);
    return *this;
}

CNtfsBootBuilder& CNtfsBootBuilder::SerialNumber(uint64_t number) {
    PutLe64(m_Bytes, 72, number);
    return *this;
}

std::string CNtfsBootBuilder::SoundSector() {
    std::string sector(SectorBytes, '\0');
    PutBytes(sector, 0, "\xEB\x52\x90NTFS    ");
    PutLe16(sector, 11, 512);
    PutLe8(sector, 13, 8);
    PutLe8(sector, 21, 0xF8);
    PutLe16(sector, 24, 63);
    PutLe16(sector, 26, 255);
    PutLe32(sector, 36, 0x00800080);
    PutLe64(sector, 40, 204799);
    PutLe64(sector, 48, 8533);
    PutLe64(sector, 56, 2);
    PutLe32(sector, 64, 0xF6);
    PutLe32(sector, 68, 1);
    PutLe64(sector, 72, 0x1122334455667788);
    PutLe16(sector, 510, 0xAA55);
    return sector;
}

CGptBuilder& CGptBuilder::Entry(uint32_t index, const std::string& typeGuid, uint64_t firstLba, uint64_t lastLba,
                                const std::string& name) {
    std::string bytes = GuidBytesOnDisk(typeGuid) + PatternedBytes(16, index + 1);
    bytes.resize(GptEntryBytes, '\0');
    PutLe64(bytes, 32, firstLba);
    PutLe64(bytes, 40, lastLba);
    for (size_t at = 0; at < name.size(); ++at)
        PutLe16(bytes, 56 + 2 * at, static_cast<uint8_t>(name[at]));
    m_Entries.push_back({index, bytes});
    return *this;
}

CGptBuilder& CGptBuilder::EntryCount(uint32_t count) {
    m_Count = count;
    return *this;
}

void CGptBuilder::PutTo(CImageFile& image, uint64_t diskSectors) const {
    const auto protectedSectors = static_cast<uint32_t>(std::min<uint64_t>(diskSectors - 1, 0xFFFFFFFF));
    image.Put(0, CBootRecordBuilder().Slot(0, 0xEE, 1, protectedSectors).Bytes());
    const std::string entries = EntryBytes();
    const uint64_t last = diskSectors - 1;
    const Copy_t copies[] = {{1, last, 2}, {last, 1, last - SectorsFor(entries.size())}};
    for (const Copy_t& copy : copies) {
        image.Put(copy.entriesLba * SectorBytes, entries);
        image.Put(copy.headerLba * SectorBytes, HeaderBytes(copy, diskSectors));
    }
}

std::string CGptBuilder::EntryBytes() const {
    std::string bytes(m_Count * GptEntryBytes, '\0');
    for (const Entry_t& entry : m_Entries)
        PutBytes(bytes, entry.index * GptEntryBytes, entry.bytes);
    return bytes;
}

std::string CGptBuilder::HeaderBytes(const Copy_t& copy, uint64_t diskSectors) const {
    const std::string entries = EntryBytes();
    std::string header(92, '\0');
    PutBytes(header, 0, "EFI PART");
    PutLe32(header, 8, 0x00010000);
    PutLe32(header, 12, 92);
    PutLe64(header, 24, copy.headerLba);
    PutLe64(header, 32, copy.otherLba);
    PutLe64(header, 40, 2 + SectorsFor(entries.size()));
    PutLe64(header, 48, diskSectors - 2 - SectorsFor(entries.size()));
    PutBytes(header, 56, PatternedBytes(16, 0x6017));
    PutLe64(header, 72, copy.entriesLba);
    PutLe32(header, 80, m_Count);
    PutLe32(header, 84, GptEntryBytes);
    PutLe32(header, 88, Crc32(entries));
    PutLe32(header, 16, Crc32(header));
    header.resize(SectorBytes, '\0');
    return header;
}

CPartitionTableBuilder& CPartitionTableBuilder::Sectors(uint64_t sectors) {
    m_Sectors = sectors;
    return *this;
}

CPartitionTableBuilder& CPartitionTableBuilder::Slot(size_t index, uint8_t type, uint32_t firstLba, uint32_t sectors) {
    m_Mbr.Slot(index, type, firstLba, sectors);
    return *this;
}

CPartitionTableBuilder& CPartitionTableBuilder::Extended(size_t slot, uint8_t type, uint32_t firstLba,
                                                         const std::vector<LogicalPartition_t>& chain) {
    uint32_t sectors = 1;
    for (size_t index = 0; index < chain.size(); ++index) {
        const LogicalPartition_t& logical = chain[index];
        sectors = std::max(sectors, logical.recordInExtended + logical.firstInRecord + logical.sectors);
        CBootRecordBuilder record;
        record.Slot(0, logical.type, logical.firstInRecord, logical.sectors);
        if (index + 1 < chain.size())
            record.Slot(1, LinkType, chain[index + 1].recordInExtended, chain[index + 1].sectors);
        Record(uint64_t{firstLba} + logical.recordInExtended, record);
    }
    return Slot(slot, type, firstLba, sectors);
}

CPartitionTableBuilder& CPartitionTableBuilder::Record(uint64_t lba, const CBootRecordBuilder& record) {
    m_Pieces.emplace_back(lba * SectorBytes, record.Bytes());
    return *this;
}

CPartitionTableBuilder& CPartitionTableBuilder::Gpt(const CGptBuilder& gpt) {
    m_Gpt = gpt;
    return *this;
}

CPartitionTableBuilder& CPartitionTableBuilder::Ntfs(uint64_t lba, const CNtfsBootBuilder& boot) {
    m_Pieces.emplace_back(lba * SectorBytes, boot.Bytes());
    return *this;
}

CPartitionTableBuilder& CPartitionTableBuilder::PutAt(uint64_t offset, std::string bytes) {
    m_Damage.emplace_back(offset, std::move(bytes));
    return *this;
}

CPartitionTableBuilder& CPartitionTableBuilder::CutTo(uint64_t sizeBytes) {
    m_CutTo = sizeBytes;
    return *this;
}

CImageFile CPartitionTableBuilder::Image() const {
    CImageFile image;
    if (m_Gpt)
        m_Gpt->PutTo(image, m_Sectors);
    else
        image.Put(0, m_Mbr.Bytes());
    for (const auto& [offset, bytes] : m_Pieces)
        image.Put(offset, bytes);
    for (const auto& [offset, bytes] : m_Damage)
        image.Put(offset, bytes);
    image.Resize(m_CutTo.value_or(m_Sectors * SectorBytes));
    return image;
}
