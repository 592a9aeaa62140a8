#include "tests/support/NtfsRecordBuilder.h"

#include <stdexcept>

#include "tests/support/Bytes.h"

namespace {

constexpr size_t ResidentHead = 24;
constexpr size_t NonResidentHead = 64;
constexpr size_t CompressedSizeBytes = 8;
constexpr size_t FileRecordArray = 48;
constexpr size_t IndexHeader = 24;
constexpr size_t IndexRecordArray = 40;

using Damage_t = std::vector<std::pair<size_t, std::string>>;

size_t RoundedUpToEight(size_t bytes) {
    return (bytes + 7) / 8 * 8;
}

std::string PaddedToEight(std::string bytes) {
    bytes.resize(RoundedUpToEight(bytes.size()), '\0');
    return bytes;
}

std::string NameBytes(const std::u16string& name) {
    std::string bytes;
    for (const char16_t character : name)
        bytes += LittleEndianBytes(character, 2);
    return bytes;
}

void PutAll(std::string& bytes, const Damage_t& damage) {
    for (const auto& [offset, piece] : damage)
        PutBytes(bytes, offset, piece);
}

// The number is never negative, so a byte is needed for the sign once the top bit is used.
size_t WidthOfLength(uint64_t length) {
    size_t width = 1;
    while (width < 8 && length >> (8 * width - 1) != 0)
        ++width;
    return width;
}

size_t WidthOfOffset(int64_t offset) {
    size_t width = 1;
    while (width < 8 && (offset < -(int64_t{1} << (8 * width - 1)) || offset >= int64_t{1} << (8 * width - 1)))
        ++width;
    return width;
}

// Entries of the array of the sectors' ends, the check value included.
uint16_t SequenceEntries(uint32_t recordBytes, uint32_t sectorBytes) {
    return static_cast<uint16_t>(1 + recordBytes / sectorBytes);
}

void RefuseMoreThan(uint32_t recordBytes, const std::string& record) {
    if (record.size() > recordBytes)
        throw std::length_error("what the record is told to hold doesn't fit");
}

// Puts the sectors' ends into the array at `arrayOffset`.
std::string WithArray(std::string record, size_t arrayOffset, uint16_t checkValue, uint32_t sectorBytes) {
    const size_t sectors = record.size() / sectorBytes;
    PutLe16(record, arrayOffset, checkValue);
    for (size_t sector = 0; sector < sectors; ++sector)
        PutBytes(record, arrayOffset + 2 * (sector + 1), record.substr((sector + 1) * sectorBytes - 2, 2));
    return record;
}

// Puts the check value at the end of each sector.
std::string OnDisk(std::string record, uint16_t checkValue, uint32_t sectorBytes) {
    for (size_t end = sectorBytes; end <= record.size(); end += sectorBytes)
        PutLe16(record, end - 2, checkValue);
    return record;
}

void BreakSectorEnds(std::string& record, const std::vector<size_t>& sectors, uint16_t checkValue,
                     uint32_t sectorBytes) {
    for (const size_t sector : sectors)
        PutLe16(record, (sector + 1) * sectorBytes - 2, static_cast<uint16_t>(checkValue + 1));
}

// An index header and the entries behind it, the first at `firstEntry` from the header on.
std::string IndexBytes(size_t firstEntry, const std::string& entries, size_t allocatedBytes, bool hasSubNodes) {
    std::string bytes;
    PutLe32(bytes, 0, static_cast<uint32_t>(firstEntry));
    PutLe32(bytes, 4, static_cast<uint32_t>(firstEntry + entries.size()));
    PutLe32(bytes, 8, static_cast<uint32_t>(allocatedBytes));
    PutLe32(bytes, 12, hasSubNodes ? 1 : 0);
    PutBytes(bytes, firstEntry, entries);
    return bytes;
}

bool HasSubNode(const std::string& lastEntry) {
    return !lastEntry.empty() && (LittleEndianAt(lastEntry, 12, 2) & 1U) != 0;
}

}  // namespace

std::string NtfsRunBytes(size_t lengthWidth, uint64_t length, size_t offsetWidth, int64_t offset) {
    const auto head = static_cast<char>(lengthWidth | offsetWidth << 4U);
    return head + LittleEndianBytes(length, lengthWidth) +
           LittleEndianBytes(static_cast<uint64_t>(offset), offsetWidth);
}

std::string NtfsRunList(const std::vector<NtfsRun_t>& runs) {
    std::string list;
    uint64_t previousLcn = 0;
    for (const NtfsRun_t& run : runs) {
        if (!run.lcn.has_value()) {
            list += NtfsRunBytes(WidthOfLength(run.clusters), run.clusters, 0, 0);
            continue;
        }
        const auto offset = static_cast<int64_t>(*run.lcn - previousLcn);
        list += NtfsRunBytes(WidthOfLength(run.clusters), run.clusters, WidthOfOffset(offset), offset);
        previousLcn = *run.lcn;
    }
    return list + '\0';
}

CNtfsAttributeBuilder CNtfsAttributeBuilder::Resident(uint32_t type, std::string value) {
    CNtfsAttributeBuilder attribute;
    attribute.m_Type = type;
    attribute.m_Content = std::move(value);
    return attribute;
}

CNtfsAttributeBuilder CNtfsAttributeBuilder::NonResident(uint32_t type, const std::vector<NtfsRun_t>& runs,
                                                         uint64_t dataBytes) {
    CNtfsAttributeBuilder attribute;
    attribute.m_Type = type;
    attribute.m_IsNonResident = true;
    attribute.m_Content = NtfsRunList(runs);
    for (const NtfsRun_t& run : runs) {
        attribute.m_Clusters += run.clusters;
        attribute.m_AllocatedClusters += run.lcn.has_value() ? run.clusters : 0;
    }
    attribute.m_DataBytes = dataBytes;
    return attribute;
}

CNtfsAttributeBuilder& CNtfsAttributeBuilder::Name(const std::u16string& name) {
    m_Name = name;
    return *this;
}

CNtfsAttributeBuilder& CNtfsAttributeBuilder::Flags(uint16_t flags) {
    m_Flags = flags;
    return *this;
}

CNtfsAttributeBuilder& CNtfsAttributeBuilder::Instance(uint16_t instance) {
    m_Instance = instance;
    return *this;
}

CNtfsAttributeBuilder& CNtfsAttributeBuilder::LowestVcn(uint64_t vcn) {
    m_LowestVcn = vcn;
    return *this;
}

CNtfsAttributeBuilder& CNtfsAttributeBuilder::HighestVcn(uint64_t vcn) {
    m_HighestVcn = vcn;
    return *this;
}

CNtfsAttributeBuilder& CNtfsAttributeBuilder::CompressionUnit(uint16_t unit) {
    m_CompressionUnit = unit;
    return *this;
}

CNtfsAttributeBuilder& CNtfsAttributeBuilder::ClusterBytes(uint32_t bytes) {
    m_ClusterBytes = bytes;
    return *this;
}

CNtfsAttributeBuilder& CNtfsAttributeBuilder::AllocatedBytes(uint64_t bytes) {
    m_AllocatedBytes = bytes;
    return *this;
}

CNtfsAttributeBuilder& CNtfsAttributeBuilder::InitializedBytes(uint64_t bytes) {
    m_InitializedBytes = bytes;
    return *this;
}

CNtfsAttributeBuilder& CNtfsAttributeBuilder::RunList(const std::string& bytes) {
    m_Content = bytes;
    return *this;
}

CNtfsAttributeBuilder& CNtfsAttributeBuilder::Length(uint32_t bytes) {
    return PutAt(4, LittleEndianBytes(bytes, 4));
}

CNtfsAttributeBuilder& CNtfsAttributeBuilder::NameLength(uint8_t characters) {
    return PutAt(9, LittleEndianBytes(characters, 1));
}

CNtfsAttributeBuilder& CNtfsAttributeBuilder::NameOffset(uint16_t offset) {
    return PutAt(10, LittleEndianBytes(offset, 2));
}

CNtfsAttributeBuilder& CNtfsAttributeBuilder::ValueLength(uint32_t bytes) {
    return PutAt(16, LittleEndianBytes(bytes, 4));
}

CNtfsAttributeBuilder& CNtfsAttributeBuilder::ValueOffset(uint16_t offset) {
    return PutAt(20, LittleEndianBytes(offset, 2));
}

CNtfsAttributeBuilder& CNtfsAttributeBuilder::RunListOffset(uint16_t offset) {
    return PutAt(32, LittleEndianBytes(offset, 2));
}

CNtfsAttributeBuilder& CNtfsAttributeBuilder::PutAt(size_t offset, const std::string& bytes) {
    m_Damage.emplace_back(offset, bytes);
    return *this;
}

std::string CNtfsAttributeBuilder::Bytes(uint16_t place) const {
    std::string bytes = PaddedToEight(m_IsNonResident ? NonResidentBytes() : ResidentBytes());
    PutLe32(bytes, 0, m_Type);
    PutLe32(bytes, 4, static_cast<uint32_t>(bytes.size()));
    PutLe8(bytes, 8, m_IsNonResident ? 1 : 0);
    PutLe16(bytes, 12, m_Flags);
    PutLe16(bytes, 14, m_Instance.value_or(place));
    PutAll(bytes, m_Damage);
    return bytes;
}

std::string CNtfsAttributeBuilder::ResidentBytes() const {
    std::string bytes(ResidentHead, '\0');
    PutName(bytes);
    const size_t valueOffset = RoundedUpToEight(bytes.size());
    PutLe32(bytes, 16, static_cast<uint32_t>(m_Content.size()));
    PutLe16(bytes, 20, static_cast<uint16_t>(valueOffset));
    PutBytes(bytes, valueOffset, m_Content);
    return bytes;
}

std::string CNtfsAttributeBuilder::NonResidentBytes() const {
    const bool hasCompressedSize = m_CompressionUnit != 0;
    std::string bytes(NonResidentHead + (hasCompressedSize ? CompressedSizeBytes : 0), '\0');
    PutName(bytes);
    const size_t runListOffset = RoundedUpToEight(bytes.size());
    PutLe64(bytes, 16, m_LowestVcn);
    PutLe64(bytes, 24, m_HighestVcn.value_or(m_LowestVcn + m_Clusters - 1));
    PutLe16(bytes, 32, static_cast<uint16_t>(runListOffset));
    PutLe16(bytes, 34, m_CompressionUnit);
    PutLe64(bytes, 40, m_AllocatedBytes.value_or(m_Clusters * m_ClusterBytes));
    PutLe64(bytes, 48, m_DataBytes);
    PutLe64(bytes, 56, m_InitializedBytes.value_or(m_DataBytes));
    if (hasCompressedSize)
        PutLe64(bytes, 64, m_AllocatedClusters * m_ClusterBytes);
    PutBytes(bytes, runListOffset, m_Content);
    return bytes;
}

void CNtfsAttributeBuilder::PutName(std::string& bytes) const {
    PutLe8(bytes, 9, static_cast<uint8_t>(m_Name.size()));
    PutLe16(bytes, 10, static_cast<uint16_t>(m_Name.empty() ? 0 : bytes.size()));
    bytes += NameBytes(m_Name);
}

std::string NtfsStandardInformationValue(const NtfsStandardInformationFields_t& fields) {
    std::string value(fields.isShort ? 48 : 72, '\0');
    PutLe64(value, 0, fields.creation);
    PutLe64(value, 8, fields.modification);
    PutLe64(value, 16, fields.recordChange);
    PutLe64(value, 24, fields.access);
    PutLe32(value, 32, fields.attributes);
    if (!fields.isShort)
        PutLe32(value, 52, fields.securityId);
    return value;
}

std::string NtfsFileNameValue(const NtfsFileNameFields_t& fields) {
    std::string value;
    PutLe64(value, 0, fields.parent);
    for (size_t offset = 8; offset < 40; offset += 8)
        PutLe64(value, offset, fields.time);
    PutLe64(value, 40, fields.allocatedBytes);
    PutLe64(value, 48, fields.dataBytes);
    PutLe32(value, 56, fields.attributes);
    PutLe32(value, 60, 0);
    PutLe8(value, 64, static_cast<uint8_t>(fields.name.size()));
    PutLe8(value, 65, fields.kind);
    return value + NameBytes(fields.name);
}

std::string NtfsListEntry(const NtfsListEntryFields_t& fields) {
    constexpr size_t NameStart = 26;
    std::string entry;
    PutLe32(entry, 0, fields.type);
    PutLe8(entry, 6, static_cast<uint8_t>(fields.name.size()));
    PutLe8(entry, 7, NameStart);
    PutLe64(entry, 8, fields.lowestVcn);
    PutLe64(entry, 16, fields.reference);
    PutLe16(entry, 24, fields.instance);
    entry = PaddedToEight(entry + NameBytes(fields.name));
    PutLe16(entry, 4, fields.length.value_or(static_cast<uint16_t>(entry.size())));
    return entry;
}

CNtfsFileRecordBuilder& CNtfsFileRecordBuilder::Add(const CNtfsAttributeBuilder& attribute) {
    m_Attributes.push_back(attribute);
    return *this;
}

CNtfsFileRecordBuilder& CNtfsFileRecordBuilder::RecordNumber(uint32_t number) {
    m_Number = number;
    return *this;
}

CNtfsFileRecordBuilder& CNtfsFileRecordBuilder::RecordBytes(uint32_t bytes) {
    m_RecordBytes = bytes;
    return *this;
}

CNtfsFileRecordBuilder& CNtfsFileRecordBuilder::SectorBytes(uint32_t bytes) {
    m_SectorBytes = bytes;
    return *this;
}

CNtfsFileRecordBuilder& CNtfsFileRecordBuilder::Directory() {
    return Flags(3);
}

CNtfsFileRecordBuilder& CNtfsFileRecordBuilder::Flags(uint16_t flags) {
    m_Flags = flags;
    return *this;
}

CNtfsFileRecordBuilder& CNtfsFileRecordBuilder::ReuseCount(uint16_t count) {
    m_ReuseCount = count;
    return *this;
}

CNtfsFileRecordBuilder& CNtfsFileRecordBuilder::LinkCount(uint16_t count) {
    m_LinkCount = count;
    return *this;
}

CNtfsFileRecordBuilder& CNtfsFileRecordBuilder::BaseReference(uint64_t reference) {
    m_BaseReference = reference;
    return *this;
}

CNtfsFileRecordBuilder& CNtfsFileRecordBuilder::Signature(const std::string& characters) {
    m_Signature = characters;
    return *this;
}

CNtfsFileRecordBuilder& CNtfsFileRecordBuilder::CheckValue(uint16_t value) {
    m_CheckValue = value;
    return *this;
}

CNtfsFileRecordBuilder& CNtfsFileRecordBuilder::SequenceOffset(uint16_t offset) {
    return PutAt(4, LittleEndianBytes(offset, 2));
}

CNtfsFileRecordBuilder& CNtfsFileRecordBuilder::SequenceCount(uint16_t count) {
    return PutAt(6, LittleEndianBytes(count, 2));
}

CNtfsFileRecordBuilder& CNtfsFileRecordBuilder::FirstAttribute(uint16_t offset) {
    return PutAt(20, LittleEndianBytes(offset, 2));
}

CNtfsFileRecordBuilder& CNtfsFileRecordBuilder::EndMarker(const std::string& bytes) {
    m_EndMarker = bytes;
    return *this;
}

CNtfsFileRecordBuilder& CNtfsFileRecordBuilder::PutAt(size_t offset, const std::string& bytes) {
    m_Damage.emplace_back(offset, bytes);
    return *this;
}

CNtfsFileRecordBuilder& CNtfsFileRecordBuilder::PutOnDiskAt(size_t offset, const std::string& bytes) {
    m_DamageOnDisk.emplace_back(offset, bytes);
    return *this;
}

CNtfsFileRecordBuilder& CNtfsFileRecordBuilder::BreakSectorEnd(size_t sector) {
    m_BrokenSectors.push_back(sector);
    return *this;
}

std::string CNtfsFileRecordBuilder::Bytes() const {
    std::string record = OnDisk(MendedBytes(), m_CheckValue, m_SectorBytes);
    BreakSectorEnds(record, m_BrokenSectors, m_CheckValue, m_SectorBytes);
    PutAll(record, m_DamageOnDisk);
    return record;
}

std::string CNtfsFileRecordBuilder::MendedBytes() const {
    std::string record;
    PutBytes(record, 0, m_Signature);
    PutLe16(record, 4, FileRecordArray);
    PutLe16(record, 6, SequenceEntries(m_RecordBytes, m_SectorBytes));
    PutLe16(record, 16, m_ReuseCount);
    PutLe16(record, 18, m_LinkCount);
    PutLe16(record, 20, static_cast<uint16_t>(AttributesStart()));
    PutLe16(record, 22, m_Flags);
    PutLe32(record, 28, m_RecordBytes);
    PutLe64(record, 32, m_BaseReference);
    PutLe16(record, 40, static_cast<uint16_t>(m_Attributes.size()));
    PutLe32(record, 44, m_Number);
    record.resize(AttributesStart(), '\0');
    for (size_t index = 0; index < m_Attributes.size(); ++index)
        record += m_Attributes[index].Bytes(static_cast<uint16_t>(index));
    record += m_EndMarker;
    PutLe32(record, 24, static_cast<uint32_t>(RoundedUpToEight(record.size())));
    RefuseMoreThan(m_RecordBytes, record);
    record.resize(m_RecordBytes, '\0');
    PutAll(record, m_Damage);
    return WithArray(record, FileRecordArray, m_CheckValue, m_SectorBytes);
}

size_t CNtfsFileRecordBuilder::AttributeOffset(size_t index) const {
    size_t offset = AttributesStart();
    for (size_t before = 0; before < index; ++before)
        offset += m_Attributes[before].Bytes().size();
    return offset;
}

size_t CNtfsFileRecordBuilder::AttributesStart() const {
    return RoundedUpToEight(FileRecordArray + size_t{2} * SequenceEntries(m_RecordBytes, m_SectorBytes));
}

CNtfsIndexEntryBuilder CNtfsIndexEntryBuilder::Named(uint64_t reference, const std::string& key) {
    std::string bytes(16, '\0');
    PutLe64(bytes, 0, reference);
    PutLe16(bytes, 10, static_cast<uint16_t>(key.size()));
    bytes = PaddedToEight(bytes + key);
    PutLe16(bytes, 8, static_cast<uint16_t>(bytes.size()));
    return CNtfsIndexEntryBuilder(bytes);
}

CNtfsIndexEntryBuilder CNtfsIndexEntryBuilder::SecurityId(uint32_t id, uint64_t offset, uint32_t length,
                                                          uint32_t hash) {
    std::string bytes(40, '\0');
    PutLe16(bytes, 0, 20);  // where the data begin, and how many they are
    PutLe16(bytes, 2, 20);
    PutLe16(bytes, 8, 40);
    PutLe16(bytes, 10, 4);
    PutLe32(bytes, 16, id);
    PutLe32(bytes, 20, hash);
    PutLe32(bytes, 24, id);
    PutLe64(bytes, 28, offset);
    PutLe32(bytes, 36, length);
    return CNtfsIndexEntryBuilder(bytes);
}

CNtfsIndexEntryBuilder CNtfsIndexEntryBuilder::Last() {
    std::string bytes(16, '\0');
    PutLe16(bytes, 8, 16);
    PutLe16(bytes, 12, 2);
    return CNtfsIndexEntryBuilder(bytes);
}

CNtfsIndexEntryBuilder& CNtfsIndexEntryBuilder::SubNode(uint64_t vcn) {
    PutLe16(m_Bytes, 12, static_cast<uint16_t>(LittleEndianAt(m_Bytes, 12, 2) | 1U));
    m_Bytes += LittleEndianBytes(vcn, 8);
    return Length(static_cast<uint16_t>(m_Bytes.size()));
}

CNtfsIndexEntryBuilder& CNtfsIndexEntryBuilder::Flags(uint16_t flags) {
    return PutAt(12, LittleEndianBytes(flags, 2));
}

CNtfsIndexEntryBuilder& CNtfsIndexEntryBuilder::Length(uint16_t length) {
    return PutAt(8, LittleEndianBytes(length, 2));
}

CNtfsIndexEntryBuilder& CNtfsIndexEntryBuilder::PutAt(size_t offset, const std::string& bytes) {
    PutBytes(m_Bytes, offset, bytes);
    return *this;
}

CNtfsIndexRootBuilder& CNtfsIndexRootBuilder::Add(const CNtfsIndexEntryBuilder& entry) {
    m_Entries += entry.Bytes();
    return *this;
}

CNtfsIndexRootBuilder& CNtfsIndexRootBuilder::AttributeType(uint32_t type) {
    m_AttributeType = type;
    return *this;
}

CNtfsIndexRootBuilder& CNtfsIndexRootBuilder::Collation(uint32_t collation) {
    m_Collation = collation;
    return *this;
}

CNtfsIndexRootBuilder& CNtfsIndexRootBuilder::BlockBytes(uint32_t bytes) {
    m_BlockBytes = bytes;
    return *this;
}

CNtfsIndexRootBuilder& CNtfsIndexRootBuilder::LastEntry(const CNtfsIndexEntryBuilder& entry) {
    m_LastEntry = entry.Bytes();
    return *this;
}

CNtfsIndexRootBuilder& CNtfsIndexRootBuilder::WithoutLastEntry() {
    m_LastEntry.clear();
    return *this;
}

CNtfsIndexRootBuilder& CNtfsIndexRootBuilder::PutAt(size_t offset, const std::string& bytes) {
    m_Damage.emplace_back(offset, bytes);
    return *this;
}

std::string CNtfsIndexRootBuilder::Bytes() const {
    constexpr size_t FirstEntry = 16;
    const std::string entries = m_Entries + m_LastEntry;
    std::string value;
    PutLe32(value, 0, m_AttributeType);
    PutLe32(value, 4, m_Collation);
    PutLe32(value, 8, m_BlockBytes);
    PutLe32(value, 12, 1);
    value += IndexBytes(FirstEntry, entries, FirstEntry + entries.size(), HasSubNode(m_LastEntry));
    PutAll(value, m_Damage);
    return value;
}

CNtfsIndexRecordBuilder& CNtfsIndexRecordBuilder::Add(const CNtfsIndexEntryBuilder& entry) {
    m_Entries += entry.Bytes();
    return *this;
}

CNtfsIndexRecordBuilder& CNtfsIndexRecordBuilder::Vcn(uint64_t vcn) {
    m_Vcn = vcn;
    return *this;
}

CNtfsIndexRecordBuilder& CNtfsIndexRecordBuilder::RecordBytes(uint32_t bytes) {
    m_RecordBytes = bytes;
    return *this;
}

CNtfsIndexRecordBuilder& CNtfsIndexRecordBuilder::SectorBytes(uint32_t bytes) {
    m_SectorBytes = bytes;
    return *this;
}

CNtfsIndexRecordBuilder& CNtfsIndexRecordBuilder::Signature(const std::string& characters) {
    m_Signature = characters;
    return *this;
}

CNtfsIndexRecordBuilder& CNtfsIndexRecordBuilder::CheckValue(uint16_t value) {
    m_CheckValue = value;
    return *this;
}

CNtfsIndexRecordBuilder& CNtfsIndexRecordBuilder::LastEntry(const CNtfsIndexEntryBuilder& entry) {
    m_LastEntry = entry.Bytes();
    return *this;
}

CNtfsIndexRecordBuilder& CNtfsIndexRecordBuilder::WithoutLastEntry() {
    m_LastEntry.clear();
    return *this;
}

CNtfsIndexRecordBuilder& CNtfsIndexRecordBuilder::SequenceOffset(uint16_t offset) {
    return PutAt(4, LittleEndianBytes(offset, 2));
}

CNtfsIndexRecordBuilder& CNtfsIndexRecordBuilder::SequenceCount(uint16_t count) {
    return PutAt(6, LittleEndianBytes(count, 2));
}

CNtfsIndexRecordBuilder& CNtfsIndexRecordBuilder::FirstEntry(uint32_t offset) {
    return PutAt(IndexHeader, LittleEndianBytes(offset, 4));
}

CNtfsIndexRecordBuilder& CNtfsIndexRecordBuilder::PutAt(size_t offset, const std::string& bytes) {
    m_Damage.emplace_back(offset, bytes);
    return *this;
}

CNtfsIndexRecordBuilder& CNtfsIndexRecordBuilder::PutOnDiskAt(size_t offset, const std::string& bytes) {
    m_DamageOnDisk.emplace_back(offset, bytes);
    return *this;
}

CNtfsIndexRecordBuilder& CNtfsIndexRecordBuilder::BreakSectorEnd(size_t sector) {
    m_BrokenSectors.push_back(sector);
    return *this;
}

std::string CNtfsIndexRecordBuilder::Bytes() const {
    std::string record = OnDisk(MendedBytes(), m_CheckValue, m_SectorBytes);
    BreakSectorEnds(record, m_BrokenSectors, m_CheckValue, m_SectorBytes);
    PutAll(record, m_DamageOnDisk);
    return record;
}

std::string CNtfsIndexRecordBuilder::MendedBytes() const {
    const uint16_t arrayEntries = SequenceEntries(m_RecordBytes, m_SectorBytes);
    const size_t firstEntry = RoundedUpToEight(IndexRecordArray + size_t{2} * arrayEntries) - IndexHeader;
    std::string record;
    PutBytes(record, 0, m_Signature);
    PutLe16(record, 4, IndexRecordArray);
    PutLe16(record, 6, arrayEntries);
    PutLe64(record, 16, m_Vcn);
    PutBytes(record, IndexHeader,
             IndexBytes(firstEntry, m_Entries + m_LastEntry, m_RecordBytes - IndexHeader, HasSubNode(m_LastEntry)));
    RefuseMoreThan(m_RecordBytes, record);
    record.resize(m_RecordBytes, '\0');
    PutAll(record, m_Damage);
    return WithArray(record, IndexRecordArray, m_CheckValue, m_SectorBytes);
}
