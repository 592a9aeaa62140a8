#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// The records of NTFS, their attributes and their indexes, put together by their own offsets. Each is sound without a
// word, and each of its fields can be told another value. Damage (PutAt and the like) comes last, whatever the order of
// the calls.

// `clusters` from cluster `lcn` of the volume on, or a hole.
struct NtfsRun_t {
    std::optional<uint64_t> lcn;
    uint64_t clusters;
};
constexpr std::nullopt_t NtfsHole = std::nullopt;

// One run as it lies in a list, its two numbers in as many bytes as are told. `offset` counts from the run before.
std::string NtfsRunBytes(size_t lengthWidth, uint64_t length, size_t offsetWidth, int64_t offset);

// A whole list, each number in as few bytes as it needs, and its end.
std::string NtfsRunList(const std::vector<NtfsRun_t>& runs);

// A reference to a record, with the count of its uses in the upper 16 bits.
constexpr uint64_t NtfsReference(uint64_t recordNumber, uint16_t reuseCount = 1) {
    return recordNumber | static_cast<uint64_t>(reuseCount) << 48U;
}

// Types of attributes.
constexpr uint32_t NtfsStandardInformationType = 0x10;
constexpr uint32_t NtfsAttributeListType = 0x20;
constexpr uint32_t NtfsFileNameType = 0x30;
constexpr uint32_t NtfsObjectIdType = 0x40;
constexpr uint32_t NtfsSecurityDescriptorType = 0x50;
constexpr uint32_t NtfsDataType = 0x80;
constexpr uint32_t NtfsIndexRootType = 0x90;
constexpr uint32_t NtfsIndexAllocationType = 0xA0;
constexpr uint32_t NtfsBitmapType = 0xB0;
constexpr uint32_t NtfsReparsePointType = 0xC0;
constexpr uint32_t NtfsEaInformationType = 0xD0;
constexpr uint32_t NtfsEaType = 0xE0;
constexpr uint32_t NtfsPropertySetType = 0xF0;
constexpr uint32_t NtfsEndType = 0xFFFFFFFF;

// One attribute of a file record.
class CNtfsAttributeBuilder {
public:
    static CNtfsAttributeBuilder Resident(uint32_t type, std::string value);
    // A segment of the attribute that holds `dataBytes` bytes in `runs`.
    static CNtfsAttributeBuilder NonResident(uint32_t type, const std::vector<NtfsRun_t>& runs, uint64_t dataBytes);

    CNtfsAttributeBuilder& Name(const std::u16string& name);
    CNtfsAttributeBuilder& Flags(uint16_t flags);        // 0x0001 compressed, 0x4000 encrypted, 0x8000 sparse
    CNtfsAttributeBuilder& Instance(uint16_t instance);  // instead of its place in the record
    uint32_t Type() const { return m_Type; }

    // Of the non-resident form.
    CNtfsAttributeBuilder& LowestVcn(uint64_t vcn);         // 0; the highest one follows from it and the runs
    CNtfsAttributeBuilder& HighestVcn(uint64_t vcn);        // instead
    CNtfsAttributeBuilder& CompressionUnit(uint16_t unit);  // a power of two of clusters; the form is longer with it
    CNtfsAttributeBuilder& ClusterBytes(uint32_t bytes);    // 4096; the allocated size follows from it and the runs
    CNtfsAttributeBuilder& AllocatedBytes(uint64_t bytes);  // instead
    CNtfsAttributeBuilder& InitializedBytes(uint64_t bytes);
    CNtfsAttributeBuilder& RunList(const std::string& bytes);  // instead of that of the runs, its end included

    // Other values than those that the content has.
    CNtfsAttributeBuilder& Length(uint32_t bytes);
    CNtfsAttributeBuilder& NameLength(uint8_t characters);
    CNtfsAttributeBuilder& NameOffset(uint16_t offset);
    CNtfsAttributeBuilder& ValueLength(uint32_t bytes);
    CNtfsAttributeBuilder& ValueOffset(uint16_t offset);
    CNtfsAttributeBuilder& RunListOffset(uint16_t offset);
    CNtfsAttributeBuilder& PutAt(size_t offset, const std::string& bytes);

    // `place` is the instance where none was told.
    std::string Bytes(uint16_t place = 0) const;

private:
    std::string ResidentBytes() const;
    std::string NonResidentBytes() const;
    void PutName(std::string& bytes) const;

    uint32_t m_Type = 0;
    bool m_IsNonResident = false;
    std::u16string m_Name;
    uint16_t m_Flags = 0;
    std::optional<uint16_t> m_Instance;
    std::string m_Content;  // the value, or the run list
    uint64_t m_Clusters = 0;
    uint64_t m_AllocatedClusters = 0;
    uint64_t m_DataBytes = 0;
    uint64_t m_LowestVcn = 0;
    std::optional<uint64_t> m_HighestVcn;
    uint16_t m_CompressionUnit = 0;
    uint32_t m_ClusterBytes = 4096;
    std::optional<uint64_t> m_AllocatedBytes;
    std::optional<uint64_t> m_InitializedBytes;
    std::vector<std::pair<size_t, std::string>> m_Damage;
};

// The fields of the values that most files have. Times count 100 ns since 1601.
struct NtfsStandardInformationFields_t {
    uint64_t creation = 0;
    uint64_t modification = 0;
    uint64_t recordChange = 0;
    uint64_t access = 0;
    uint32_t attributes = 0;
    uint32_t securityId = 0;
    bool isShort = false;  // the 48 bytes of old volumes, which end before the owner and the security id
};
std::string NtfsStandardInformationValue(const NtfsStandardInformationFields_t& fields);

struct NtfsFileNameFields_t {
    uint64_t parent = NtfsReference(5, 5);
    std::u16string name;
    uint8_t kind = 3;  // 0 POSIX, 1 long, 2 short, 3 both
    uint32_t attributes = 0x20;
    uint64_t time = 0;  // all four of them
    uint64_t allocatedBytes = 0;
    uint64_t dataBytes = 0;
};
std::string NtfsFileNameValue(const NtfsFileNameFields_t& fields);

// One entry of an attribute list: where a segment of an attribute lies.
struct NtfsListEntryFields_t {
    uint32_t type = NtfsDataType;
    uint64_t reference = 0;
    uint64_t lowestVcn = 0;
    std::u16string name = {};
    uint16_t instance = 0;
    std::optional<uint16_t> length = std::nullopt;  // instead of the entry's own
};
std::string NtfsListEntry(const NtfsListEntryFields_t& fields);

// A file record. Without a word it is a base record of 1 KiB in use, in sectors of 512 bytes, without an attribute.
class CNtfsFileRecordBuilder {
public:
    CNtfsFileRecordBuilder& Add(const CNtfsAttributeBuilder& attribute);
    CNtfsFileRecordBuilder& RecordNumber(uint32_t number);
    CNtfsFileRecordBuilder& RecordBytes(uint32_t bytes);
    CNtfsFileRecordBuilder& SectorBytes(uint32_t bytes);
    CNtfsFileRecordBuilder& Directory();
    CNtfsFileRecordBuilder& Flags(uint16_t flags);  // 1 in use, 2 directory
    CNtfsFileRecordBuilder& ReuseCount(uint16_t count);
    CNtfsFileRecordBuilder& LinkCount(uint16_t count);
    CNtfsFileRecordBuilder& BaseReference(uint64_t reference);
    CNtfsFileRecordBuilder& Signature(const std::string& characters);
    CNtfsFileRecordBuilder& CheckValue(uint16_t value);  // what stands at the end of each sector on the disk

    // Other values than those that the content has.
    CNtfsFileRecordBuilder& SequenceOffset(uint16_t offset);
    CNtfsFileRecordBuilder& SequenceCount(uint16_t count);
    CNtfsFileRecordBuilder& FirstAttribute(uint16_t offset);
    CNtfsFileRecordBuilder& EndMarker(const std::string& bytes);                   // instead of 0xFFFFFFFF
    CNtfsFileRecordBuilder& PutAt(size_t offset, const std::string& bytes);        // before the sectors' ends are taken
    CNtfsFileRecordBuilder& PutOnDiskAt(size_t offset, const std::string& bytes);  // behind that
    CNtfsFileRecordBuilder& BreakSectorEnd(size_t sector);

    std::string Bytes() const;        // as it lies on the disk
    std::string MendedBytes() const;  // as it is when the sectors' ends are back, the array still there

    // Of the finished record; `index` counts attributes.
    size_t AttributeOffset(size_t index) const;
    size_t EndMarkerOffset() const { return AttributeOffset(m_Attributes.size()); }

private:
    size_t AttributesStart() const;

    uint32_t m_Number = 0;
    uint32_t m_RecordBytes = 1024;
    uint32_t m_SectorBytes = 512;
    uint16_t m_Flags = 1;
    uint16_t m_ReuseCount = 1;
    uint16_t m_LinkCount = 1;
    uint64_t m_BaseReference = 0;
    std::string m_Signature = "FILE";
    uint16_t m_CheckValue = 0x0007;
    std::vector<CNtfsAttributeBuilder> m_Attributes;
    std::string m_EndMarker = "\xFF\xFF\xFF\xFF";
    std::vector<std::pair<size_t, std::string>> m_Damage;
    std::vector<std::pair<size_t, std::string>> m_DamageOnDisk;
    std::vector<size_t> m_BrokenSectors;
};

// One entry of an index.
class CNtfsIndexEntryBuilder {
public:
    // `key` is what the index sorts by; of a directory the value of `NtfsFileNameValue`.
    static CNtfsIndexEntryBuilder Named(uint64_t reference, const std::string& key);
    // The entry of a descriptor that lies at `offset` of $SDS, in `length` bytes with its head of 20.
    static CNtfsIndexEntryBuilder SecurityId(uint32_t id, uint64_t offset, uint32_t length, uint32_t hash = 0);
    static CNtfsIndexEntryBuilder Last();

    CNtfsIndexEntryBuilder& SubNode(uint64_t vcn);
    CNtfsIndexEntryBuilder& Flags(uint16_t flags);    // 1 has a sub-node, 2 last
    CNtfsIndexEntryBuilder& Length(uint16_t length);  // instead of the entry's own
    CNtfsIndexEntryBuilder& PutAt(size_t offset, const std::string& bytes);

    std::string Bytes() const { return m_Bytes; }

private:
    explicit CNtfsIndexEntryBuilder(std::string bytes) : m_Bytes(std::move(bytes)) {}

    std::string m_Bytes;
};

// The value of an index root. Without a word it is that of an empty directory with blocks of 4 KiB.
class CNtfsIndexRootBuilder {
public:
    CNtfsIndexRootBuilder& Add(const CNtfsIndexEntryBuilder& entry);
    CNtfsIndexRootBuilder& AttributeType(uint32_t type);   // 0x30; 0 in $SII
    CNtfsIndexRootBuilder& Collation(uint32_t collation);  // 1 file name; 0x10 number, in $SII
    CNtfsIndexRootBuilder& BlockBytes(uint32_t bytes);
    CNtfsIndexRootBuilder& LastEntry(const CNtfsIndexEntryBuilder& entry);  // one with a sub-node
    CNtfsIndexRootBuilder& WithoutLastEntry();
    CNtfsIndexRootBuilder& PutAt(size_t offset, const std::string& bytes);

    std::string Bytes() const;

private:
    uint32_t m_AttributeType = 0x30;
    uint32_t m_Collation = 1;
    uint32_t m_BlockBytes = 4096;
    std::string m_Entries;
    std::string m_LastEntry = CNtfsIndexEntryBuilder::Last().Bytes();
    std::vector<std::pair<size_t, std::string>> m_Damage;
};

// A block of an index's allocation. Without a word it has 4 KiB, in sectors of 512 bytes, and no entry but the last.
class CNtfsIndexRecordBuilder {
public:
    CNtfsIndexRecordBuilder& Add(const CNtfsIndexEntryBuilder& entry);
    CNtfsIndexRecordBuilder& Vcn(uint64_t vcn);  // of the block itself
    CNtfsIndexRecordBuilder& RecordBytes(uint32_t bytes);
    CNtfsIndexRecordBuilder& SectorBytes(uint32_t bytes);
    CNtfsIndexRecordBuilder& Signature(const std::string& characters);
    CNtfsIndexRecordBuilder& CheckValue(uint16_t value);
    CNtfsIndexRecordBuilder& LastEntry(const CNtfsIndexEntryBuilder& entry);
    CNtfsIndexRecordBuilder& WithoutLastEntry();

    // Other values than those that the content has.
    CNtfsIndexRecordBuilder& SequenceOffset(uint16_t offset);
    CNtfsIndexRecordBuilder& SequenceCount(uint16_t count);
    CNtfsIndexRecordBuilder& FirstEntry(uint32_t offset);                     // from the index header, at 24
    CNtfsIndexRecordBuilder& PutAt(size_t offset, const std::string& bytes);  // before the sectors' ends are taken
    CNtfsIndexRecordBuilder& PutOnDiskAt(size_t offset, const std::string& bytes);  // behind that
    CNtfsIndexRecordBuilder& BreakSectorEnd(size_t sector);

    std::string Bytes() const;
    std::string MendedBytes() const;

private:
    uint64_t m_Vcn = 0;
    uint32_t m_RecordBytes = 4096;
    uint32_t m_SectorBytes = 512;
    std::string m_Signature = "INDX";
    uint16_t m_CheckValue = 0x0009;
    std::string m_Entries;
    std::string m_LastEntry = CNtfsIndexEntryBuilder::Last().Bytes();
    std::vector<std::pair<size_t, std::string>> m_Damage;
    std::vector<std::pair<size_t, std::string>> m_DamageOnDisk;
    std::vector<size_t> m_BrokenSectors;
};
