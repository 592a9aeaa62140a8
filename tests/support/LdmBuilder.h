#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/ImageFile.h"

// The database of a Windows dynamic disk, put together by its own offsets. Whole disks with it, and with
// the content of volumes, come from LdmGroupBuilder.h.

// A disk keeps a GUID's sixteen bytes as its text has them, or with the first three numbers least
// significant byte first, as the machine's record does.
enum class LdmGuidOrder_t { OfText, OfNumbers };
std::string LdmGuidBytes(const std::string& text, LdmGuidOrder_t order);

// The fields behind a record's head: a length byte in front of each. A number takes as many bytes as it
// needs, at least one, or `width`.
std::string LdmNumber(uint64_t value, size_t width = 0);
std::string LdmText(const std::string& text);

constexpr uint8_t LdmComponentType = 0x32;
constexpr uint8_t LdmPartitionType = 0x33;
constexpr uint8_t LdmDisk3Type = 0x34;
constexpr uint8_t LdmGroup3Type = 0x35;
constexpr uint8_t LdmDisk4Type = 0x44;
constexpr uint8_t LdmGroup4Type = 0x45;
constexpr uint8_t LdmVolumeType = 0x51;

// What records tell. `guid` is a text without braces.
struct LdmGroupRecord_t {
    uint64_t id = 1;
    std::string name = "Group-Dg0";
    std::string guid = "60000000-0000-4000-8000-0000000000ff";
    int revision = 3;
    LdmGuidOrder_t order = LdmGuidOrder_t::OfText;  // of revision 4
};
struct LdmDiskRecord_t {
    uint64_t id = 2;
    std::string name = "Disk1";
    std::string guid = "d0000000-0000-4000-8000-000000000000";
    std::string alternateName;  // of revision 3
    int revision = 3;
    LdmGuidOrder_t order = LdmGuidOrder_t::OfText;  // of revision 4
};
struct LdmVolumeRecord_t {
    uint64_t id = 3;
    std::string name = "Volume1";
    std::string type = "gen";
    std::string state = "ACTIVE";
    uint64_t childCount = 1;
    uint64_t sectors = 100;
    uint8_t partitionType = 7;
    std::string guid = "e0000000-0000-4000-8000-000000000000";
    std::string second;  // a text behind the type that tells nothing
};
struct LdmComponentRecord_t {
    uint64_t id = 4;
    std::string name = "Volume1-01";
    std::string state = "ACTIVE";
    uint8_t layout = 2;  // 1 stripes, 2 one behind the other, 3 RAID-5
    uint64_t childCount = 1;
    uint64_t parentId = 3;
    std::optional<uint64_t> stripeSectors = std::nullopt;
};
struct LdmPartitionRecord_t {
    uint64_t id = 5;
    std::string name = "Disk1-01";
    uint64_t start = 0;
    uint64_t volumeStart = 0;
    uint64_t sectors = 100;
    uint64_t parentId = 4;
    uint64_t diskId = 2;
    std::optional<uint64_t> column = std::nullopt;
};

// One record: its type, flags, and its bytes from offset 24 on.
struct LdmRecord_t {
    uint8_t type;
    uint8_t flags;
    std::string fields;
};
LdmRecord_t LdmRecordOf(const LdmGroupRecord_t& group);
LdmRecord_t LdmRecordOf(const LdmDiskRecord_t& disk);
LdmRecord_t LdmRecordOf(const LdmVolumeRecord_t& volume);
LdmRecord_t LdmRecordOf(const LdmComponentRecord_t& component);
LdmRecord_t LdmRecordOf(const LdmPartitionRecord_t& partition);

// The database of one disk: private header, four copies of the table of contents, the records' head and
// the slots of the records in the order in which they were added, with a few unused ones behind. Without
// a word it is sound and has no records. Damage (Put...) comes last, whatever the order of the calls.
class CLdmDatabaseBuilder {
public:
    CLdmDatabaseBuilder& DiskGuid(const std::string& text);
    CLdmDatabaseBuilder& Version(uint16_t major, uint16_t minor);             // of the private header: 2.11
    CLdmDatabaseBuilder& LogicalDisk(uint64_t firstLba, uint64_t sectors);    // for the volumes
    CLdmDatabaseBuilder& Config(uint64_t firstLba, uint64_t sectors = 2048);  // where the database lies: 2048
    CLdmDatabaseBuilder& Bitmap1(uint64_t first, uint64_t sectors);           // in the database: 17, 1481
    CLdmDatabaseBuilder& Bitmap2(uint64_t first, uint64_t sectors);           // 1498, 224
    CLdmDatabaseBuilder& VblkSize(uint32_t bytes);                            // of a slot: 128
    CLdmDatabaseBuilder& FirstVblk(uint32_t offset);                          // from the records' head: 512
    CLdmDatabaseBuilder& LastSequence(uint32_t value);  // instead of the one behind the last slot's

    // A record that is too long for its slot, or that is told so, is cut into fragments, of one slot each.
    CLdmDatabaseBuilder& Add(const LdmRecord_t& record, size_t leastFragments = 1);
    template <typename Record> CLdmDatabaseBuilder& Add(const Record& record, size_t leastFragments = 1) {
        return Add(LdmRecordOf(record), leastFragments);
    }
    CLdmDatabaseBuilder& AddUnused(size_t slots = 1);
    CLdmDatabaseBuilder& UnusedBehind(size_t slots);  // instead of 4

    // Other bytes, in all copies of the private header, one or all of the table of contents, or a slot.
    CLdmDatabaseBuilder& PutInPrivateHead(size_t offset, const std::string& bytes);
    CLdmDatabaseBuilder& PutInTocBlock(size_t copy, size_t offset, const std::string& bytes);
    CLdmDatabaseBuilder& PutInTocBlocks(size_t offset, const std::string& bytes);
    CLdmDatabaseBuilder& PutInVmdb(size_t offset, const std::string& bytes);
    CLdmDatabaseBuilder& PutInSlot(size_t slot, size_t offset, const std::string& bytes);

    // Puts the private header at its sector, with its two copies in the database, and all the rest.
    void PutTo(CImageFile& image, uint64_t privateHeadLba = 6) const;

    // The finished sectors and slots, damage included.
    std::string PrivateHeadBytes() const;
    std::string TocBlockBytes(size_t copy = 0) const;
    std::string VmdbBytes() const;
    std::vector<std::string> Slots() const;

    uint64_t ConfigStart() const { return m_ConfigStart; }
    uint64_t SlotOffset(size_t slot) const;  // bytes of the disk

private:
    using Damage_t = std::vector<std::pair<size_t, std::string>>;

    void AddSlots(std::vector<std::string>& slots, const LdmRecord_t& record, size_t leastFragments,
                  uint32_t group) const;
    static std::string Damaged(std::string bytes, const Damage_t& damage);

    struct Entry_t {
        std::optional<LdmRecord_t> record;  // none for an unused slot
        size_t leastFragments;
    };

    std::string m_DiskGuid = "d0000000-0000-4000-8000-000000000000";
    uint16_t m_VersionMajor = 2;
    uint16_t m_VersionMinor = 11;
    uint64_t m_LogicalStart = 63;
    uint64_t m_LogicalSectors = 1985;
    uint64_t m_ConfigStart = 2048;
    uint64_t m_ConfigSectors = 2048;
    uint64_t m_Bitmap1Start = 17;
    uint64_t m_Bitmap1Sectors = 1481;
    uint64_t m_Bitmap2Start = 1498;
    uint64_t m_Bitmap2Sectors = 224;
    uint32_t m_VblkSize = 128;
    uint32_t m_FirstVblk = 512;
    std::optional<uint32_t> m_LastSequence;
    std::vector<Entry_t> m_Entries;
    size_t m_UnusedBehind = 4;
    Damage_t m_PrivateHeadDamage;
    Damage_t m_TocBlockDamage[4];
    Damage_t m_VmdbDamage;
    std::vector<std::pair<size_t, std::pair<size_t, std::string>>> m_SlotDamage;
};
