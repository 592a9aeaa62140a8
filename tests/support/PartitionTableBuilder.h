#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/ImageFile.h"

// Partition tables and what lies behind them, put together by their own offsets.

// The GUIDs of a GPT that matter here.
constexpr char BasicDataGuid[] = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7";
constexpr char LdmMetadataGuid[] = "5808C8AA-7E8F-42E0-85D2-E1E90434CFB3";
constexpr char LdmDataGuid[] = "AF9B60A0-1431-4F62-BC68-3311714A69AD";
constexpr char EfiSystemGuid[] = "C12A7328-F81F-11D2-BA4B-00A0C93EC93B";

// The sixteen bytes in which a disk keeps a GUID: the first three numbers least significant byte first.
std::string GuidBytesOnDisk(const std::string& text);

// One sector with four slots: a master boot record, or a link of an extended partition. Without a
// word all slots are empty and the signature is there.
class CBootRecordBuilder {
public:
    CBootRecordBuilder& Slot(size_t index, uint8_t type, uint32_t firstLba, uint32_t sectors);
    CBootRecordBuilder& Signature(uint16_t value);

    std::string Bytes() const { return m_Bytes; }

private:
    std::string m_Bytes = EmptyRecord();

    static std::string EmptyRecord();
};

// The first sector of an NTFS volume. Without a word one of 100 MiB in clusters of 4 KiB.
class CNtfsBootBuilder {
public:
    CNtfsBootBuilder& OemName(const std::string& name);  // eight characters
    CNtfsBootBuilder& BytesPerSector(uint16_t bytes);
    CNtfsBootBuilder& SectorsPerCluster(uint8_t sectors);
    CNtfsBootBuilder& ReservedSectors(uint16_t sectors);
    CNtfsBootBuilder& TotalSectors(uint64_t sectors);
    CNtfsBootBuilder& MftCluster(uint64_t cluster);
    CNtfsBootBuilder& MirrorMftCluster(uint64_t cluster);
    CNtfsBootBuilder& ClustersPerRecord(uint32_t value);
    CNtfsBootBuilder& SerialNumber(uint64_t number);

    std::string Bytes() const { return m_Bytes; }

private:
    std::string m_Bytes = SoundSector();

    static std::string SoundSector();
};

// A GUID partition table with both its copies. Without a word it has 128 empty entries.
class CGptBuilder {
public:
    CGptBuilder& Entry(uint32_t index, const std::string& typeGuid, uint64_t firstLba, uint64_t lastLba,
                       const std::string& name = "");
    CGptBuilder& EntryCount(uint32_t count);

    // Puts the protective MBR, the header, the entries and the copies of both at the disk's end.
    void PutTo(CImageFile& image, uint64_t diskSectors) const;

private:
    struct Copy_t {
        uint64_t headerLba;
        uint64_t otherLba;
        uint64_t entriesLba;
    };

    std::string EntryBytes() const;
    std::string HeaderBytes(const Copy_t& copy, uint64_t diskSectors) const;

    struct Entry_t {
        uint32_t index;
        std::string bytes;
    };

    uint32_t m_Count = 128;
    std::vector<Entry_t> m_Entries;
};

// One logical partition and the record that holds it.
struct LogicalPartition_t {
    uint32_t recordInExtended;  // sectors behind the start of the extended partition; the first is 0
    uint8_t type;
    uint32_t firstInRecord;  // sectors behind the record
    uint32_t sectors;
};

// A whole disk. Without a word it has 1 MiB and an empty master boot record. Sectors that nobody puts
// are holes. Damage (PutAt, CutTo) comes last, whatever the order of the calls.
class CPartitionTableBuilder {
public:
    CPartitionTableBuilder& Sectors(uint64_t sectors);
    CPartitionTableBuilder& Slot(size_t index, uint8_t type, uint32_t firstLba, uint32_t sectors);

    // An extended partition whose records are linked in the order of `chain`.
    CPartitionTableBuilder& Extended(size_t slot, uint8_t type, uint32_t firstLba,
                                     const std::vector<LogicalPartition_t>& chain);
    CPartitionTableBuilder& Record(uint64_t lba, const CBootRecordBuilder& record);
    CPartitionTableBuilder& Gpt(const CGptBuilder& gpt);  // instead of the MBR
    CPartitionTableBuilder& Ntfs(uint64_t lba, const CNtfsBootBuilder& boot = CNtfsBootBuilder());

    // Damage: bytes of the finished disk, its size.
    CPartitionTableBuilder& PutAt(uint64_t offset, std::string bytes);
    CPartitionTableBuilder& CutTo(uint64_t sizeBytes);

    CImageFile Image() const;

private:
    uint64_t m_Sectors = 2048;
    CBootRecordBuilder m_Mbr;
    std::optional<CGptBuilder> m_Gpt;
    std::vector<std::pair<uint64_t, std::string>> m_Pieces;
    std::vector<std::pair<uint64_t, std::string>> m_Damage;
    std::optional<uint64_t> m_CutTo;
};
