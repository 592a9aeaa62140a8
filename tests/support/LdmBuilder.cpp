#include "tests/support/LdmBuilder.h"

#include <algorithm>
#include <iterator>

#include "tests/support/Bytes.h"
#include "tests/support/PartitionTableBuilder.h"

namespace {

constexpr uint64_t SectorBytes = 512;
constexpr uint64_t PrivateHeadCopies[] = {1856, 2047};
constexpr uint64_t TocBlocks[] = {1, 2, 2045, 2046};

std::string Zeros(size_t count) {
    std::string bytes(count, '\0');
    return bytes;
}

std::string Padded(std::string text, size_t size) {
    text.resize(size, '\0');
    return text;
}

std::string Head(uint64_t id, const std::string& name) {
    return LdmNumber(id) + LdmText(name);
}

}  // namespace

std::string LdmGuidBytes(const std::string& text, LdmGuidOrder_t order) {
    if (order == LdmGuidOrder_t::OfNumbers)
        return GuidBytesOnDisk(text);
    std::string digits = text;
    digits.erase(std::remove(digits.begin(), digits.end(), '-'), digits.end());
    std::string bytes;
    for (size_t at = 0; at < digits.size(); at += 2)
        bytes += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
    return bytes;
}

std::string LdmNumber(uint64_t value, size_t width) {
    size_t needed = 1;
    while (needed < 8 && (value >> (8 * needed)) != 0)
        ++needed;
    const size_t bytes = width != 0 ? width : needed;
    return LittleEndianBytes(bytes, 1) + BigEndianBytes(value, bytes);
}

std::string LdmText(const std::string& text) {
    return LittleEndianBytes(text.size(), 1) + text;
}

LdmRecord_t LdmRecordOf(const LdmGroupRecord_t& group) {
    if (group.revision == 4)
        return {LdmGroup4Type, 0, Head(group.id, group.name) + LdmGuidBytes(group.guid, group.order) + Zeros(8)};
    return {LdmGroup3Type, 0, Head(group.id, group.name) + LdmText(group.guid) + Zeros(8)};
}

LdmRecord_t LdmRecordOf(const LdmDiskRecord_t& disk) {
    if (disk.revision == 4)
        return {LdmDisk4Type, 0, Head(disk.id, disk.name) + LdmGuidBytes(disk.guid, disk.order) + Zeros(8)};
    return {LdmDisk3Type, 0, Head(disk.id, disk.name) + LdmText(disk.guid) + LdmText(disk.alternateName) + Zeros(8)};
}

LdmRecord_t LdmRecordOf(const LdmVolumeRecord_t& volume) {
    std::string fields = Head(volume.id, volume.name) + LdmText(volume.type) + LdmText(volume.second);
    fields += Padded(volume.state, 16) + "\xA1\xA2\xA3\xA4\xA5";
    fields += LdmNumber(volume.childCount) + PatternedBytes(16, 5);
    fields += LdmNumber(volume.sectors) + "\xB1\xB2\xB3\xB4";
    fields += LittleEndianBytes(volume.partitionType, 1) + LdmGuidBytes(volume.guid, LdmGuidOrder_t::OfText);
    return {LdmVolumeType, 0, fields};
}

LdmRecord_t LdmRecordOf(const LdmComponentRecord_t& component) {
    std::string fields = Head(component.id, component.name) + LdmText(component.state);
    fields += LittleEndianBytes(component.layout, 1) + "\xC1\xC2\xC3\xC4";
    fields += LdmNumber(component.childCount) + PatternedBytes(16, 6);
    fields += LdmNumber(component.parentId) + "\xD1";
    if (!component.stripeSectors)
        return {LdmComponentType, 0, fields};
    return {LdmComponentType, 0x10, fields + LdmNumber(*component.stripeSectors) + LdmNumber(component.childCount)};
}

LdmRecord_t LdmRecordOf(const LdmPartitionRecord_t& partition) {
    std::string fields = Head(partition.id, partition.name) + PatternedBytes(12, 7);
    fields += BigEndianBytes(partition.start, 8) + BigEndianBytes(partition.volumeStart, 8);
    fields += LdmNumber(partition.sectors) + LdmNumber(partition.parentId) + LdmNumber(partition.diskId);
    if (!partition.column)
        return {LdmPartitionType, 0, fields};
    return {LdmPartitionType, 0x08, fields + LdmNumber(*partition.column)};
}

CLdmDatabaseBuilder& CLdmDatabaseBuilder::DiskGuid(const std::string& text) {
    m_DiskGuid = text;
    return *this;
}

CLdmDatabaseBuilder& CLdmDatabaseBuilder::Version(uint16_t major, uint16_t minor) {
    m_VersionMajor = major;
    m_VersionMinor = minor;
    return *this;
}

CLdmDatabaseBuilder& CLdmDatabaseBuilder::LogicalDisk(uint64_t firstLba, uint64_t sectors) {
    m_LogicalStart = firstLba;
    m_LogicalSectors = sectors;
    return *this;
}

CLdmDatabaseBuilder& CLdmDatabaseBuilder::Config(uint64_t firstLba, uint64_t sectors) {
    m_ConfigStart = firstLba;
    m_ConfigSectors = sectors;
    return *this;
}

CLdmDatabaseBuilder& CLdmDatabaseBuilder::Bitmap1(uint64_t first, uint64_t sectors) {
    m_Bitmap1Start = first;
    m_Bitmap1Sectors = sectors;
    return *this;
}

CLdmDatabaseBuilder& CLdmDatabaseBuilder::Bitmap2(uint64_t first, uint64_t sectors) {
    m_Bitmap2Start = first;
    m_Bitmap2Sectors = sectors;
    return *this;
}

CLdmDatabaseBuilder& CLdmDatabaseBuilder::VblkSize(uint32_t bytes) {
    m_VblkSize = bytes;
    return *this;
}

CLdmDatabaseBuilder& CLdmDatabaseBuilder::FirstVblk(uint32_t offset) {
    m_FirstVblk = offset;
    return *this;
}

CLdmDatabaseBuilder& CLdmDatabaseBuilder::LastSequence(uint32_t value) {
    m_LastSequence = value;
    return *this;
}

CLdmDatabaseBuilder& CLdmDatabaseBuilder::Add(const LdmRecord_t& record, size_t leastFragments) {
    m_Entries.push_back({record, leastFragments});
    return *this;
}

CLdmDatabaseBuilder& CLdmDatabaseBuilder::AddUnused(size_t slots) {
    m_Entries.insert(m_Entries.end(), slots, {std::nullopt, 0});
    return *this;
}

CLdmDatabaseBuilder& CLdmDatabaseBuilder::UnusedBehind(size_t slots) {
    m_UnusedBehind = slots;
    return *this;
}

CLdmDatabaseBuilder& CLdmDatabaseBuilder::PutInPrivateHead(size_t offset, const std::string& bytes) {
    m_PrivateHeadDamage.emplace_back(offset, bytes);
    return *this;
}

CLdmDatabaseBuilder& CLdmDatabaseBuilder::PutInTocBlock(size_t copy, size_t offset, const std::string& bytes) {
    m_TocBlockDamage[copy].emplace_back(offset, bytes);
    return *this;
}

CLdmDatabaseBuilder& CLdmDatabaseBuilder::PutInTocBlocks(size_t offset, const std::string& bytes) {
    for (Damage_t& damage : m_TocBlockDamage)
        damage.emplace_back(offset, bytes);
    return *this;
}

CLdmDatabaseBuilder& CLdmDatabaseBuilder::PutInVmdb(size_t offset, const std::string& bytes) {
    m_VmdbDamage.emplace_back(offset, bytes);
    return *this;
}

CLdmDatabaseBuilder& CLdmDatabaseBuilder::PutInSlot(size_t slot, size_t offset, const std::string& bytes) {
    m_SlotDamage.push_back({slot, {offset, bytes}});
    return *this;
}

std::string CLdmDatabaseBuilder::Damaged(std::string bytes, const Damage_t& damage) {
    for (const auto& [offset, other] : damage)
        PutBytes(bytes, offset, other);
    return bytes;
}

std::string CLdmDatabaseBuilder::PrivateHeadBytes() const {
    std::string sector = Zeros(SectorBytes);
    PutBytes(sector, 0, "PRIVHEAD");
    PutBe16(sector, 12, m_VersionMajor);
    PutBe16(sector, 14, m_VersionMinor);
    PutBytes(sector, 48, m_DiskGuid);
    PutBytes(sector, 112, "1b77da20-c717-11d0-a5be-00a0c91db73c");
    PutBytes(sector, 176, "60000000-0000-4000-8000-0000000000ff");
    PutBytes(sector, 240, "Group-Dg0");
    PutBe64(sector, 283, m_LogicalStart);
    PutBe64(sector, 291, m_LogicalSectors);
    PutBe64(sector, 299, m_ConfigStart);
    PutBe64(sector, 307, m_ConfigSectors);
    PutBe64(sector, 315, 4);  // how many tables of contents there are, and how long they and logs are
    PutBe64(sector, 323, 2047);
    PutBe32(sector, 331, 1);
    return Damaged(sector, m_PrivateHeadDamage);
}

std::string CLdmDatabaseBuilder::TocBlockBytes(size_t copy) const {
    std::string sector = Zeros(SectorBytes);
    PutBytes(sector, 0, "TOCBLOCK");
    PutBytes(sector, 36, "config");
    PutBe64(sector, 46, m_Bitmap1Start);
    PutBe64(sector, 54, m_Bitmap1Sectors);
    PutBe64(sector, 62, 0x0006000100000000);
    PutBytes(sector, 70, "log");
    PutBe64(sector, 80, m_Bitmap2Start);
    PutBe64(sector, 88, m_Bitmap2Sectors);
    PutBe64(sector, 96, 0x0006000100000000);
    return Damaged(sector, m_TocBlockDamage[copy]);
}

std::string CLdmDatabaseBuilder::VmdbBytes() const {
    const uint32_t slots = static_cast<uint32_t>(Slots().size());
    std::string sector = Zeros(SectorBytes);
    PutBytes(sector, 0, "VMDB");
    PutBe32(sector, 4, m_LastSequence.value_or((m_VblkSize != 0 ? m_FirstVblk / m_VblkSize : 0) + slots));
    PutBe32(sector, 8, m_VblkSize);
    PutBe32(sector, 12, m_FirstVblk);
    PutBe16(sector, 16, 1);
    PutBe16(sector, 18, 4);
    PutBe16(sector, 20, 10);
    PutBytes(sector, 22, "Group-Dg0");
    PutBytes(sector, 53, "60000000-0000-4000-8000-0000000000ff");
    return Damaged(sector, m_VmdbDamage);
}

// The head of 16 bytes is that of each fragment; all the rest is cut.
void CLdmDatabaseBuilder::AddSlots(std::vector<std::string>& slots, const LdmRecord_t& record, size_t leastFragments,
                                   uint32_t group) const {
    constexpr size_t headBytes = 16;
    std::string rest = Zeros(2) + LittleEndianBytes(record.flags, 1) + LittleEndianBytes(record.type, 1) +
                       BigEndianBytes(record.fields.size(), 4) + record.fields;
    const size_t room = m_VblkSize - headBytes;
    const size_t count = std::max((rest.size() + room - 1) / room, leastFragments);
    rest.resize(room * count, '\0');
    for (size_t fragment = 0; fragment < count; ++fragment) {
        std::string slot = "VBLK" + BigEndianBytes(m_FirstVblk / m_VblkSize + slots.size(), 4);
        slot += BigEndianBytes(group, 4) + BigEndianBytes(fragment, 2) + BigEndianBytes(count, 2);
        slots.push_back(slot + rest.substr(fragment * room, room));
    }
}

std::vector<std::string> CLdmDatabaseBuilder::Slots() const {
    std::vector<std::string> slots;
    if (m_VblkSize < 24)
        return slots;
    const auto addUnused = [&] {
        slots.push_back(Padded("VBLK" + BigEndianBytes(m_FirstVblk / m_VblkSize + slots.size(), 4), m_VblkSize));
    };
    uint32_t group = 0x70;
    for (const Entry_t& entry : m_Entries) {
        if (entry.record)
            AddSlots(slots, *entry.record, entry.leastFragments, group++);
        else
            addUnused();
    }
    for (size_t behind = 0; behind < m_UnusedBehind; ++behind)
        addUnused();
    for (const auto& [slot, damage] : m_SlotDamage)
        PutBytes(slots.at(slot), damage.first, damage.second);
    return slots;
}

uint64_t CLdmDatabaseBuilder::SlotOffset(size_t slot) const {
    return (m_ConfigStart + m_Bitmap1Start) * SectorBytes + m_FirstVblk + slot * m_VblkSize;
}

void CLdmDatabaseBuilder::PutTo(CImageFile& image, uint64_t privateHeadLba) const {
    const auto place = [&](uint64_t sector) { return (m_ConfigStart + sector) * SectorBytes; };
    image.Put(privateHeadLba * SectorBytes, PrivateHeadBytes());
    for (const uint64_t sector : PrivateHeadCopies)
        image.Put(place(sector), PrivateHeadBytes());
    image.Put(place(m_Bitmap1Start), VmdbBytes());
    const std::vector<std::string> slots = Slots();
    for (size_t slot = 0; slot < slots.size(); ++slot)
        image.Put(SlotOffset(slot), slots[slot]);
    for (size_t copy = 0; copy < std::size(TocBlocks); ++copy)
        image.Put(place(TocBlocks[copy]), TocBlockBytes(copy));
}
