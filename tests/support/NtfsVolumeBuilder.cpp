#include "tests/support/NtfsVolumeBuilder.h"

#include <algorithm>
#include <stdexcept>

#include "tests/support/Bytes.h"

namespace {

constexpr uint64_t VolumeSectors = 4096;
constexpr uint64_t MftByte = 0x4000;
constexpr uint64_t MftBytes = uint64_t{64} * CNtfsVolumeBuilder::RecordBytes;
constexpr size_t ChunkOutput = 4096;

// Two SIDs and two ACLs, of 16, 12, 28 and 36 bytes.
std::string SidBytes(const std::vector<uint32_t>& subAuthorities) {
    std::string sid;
    PutLe8(sid, 0, 1);
    PutLe8(sid, 1, static_cast<uint8_t>(subAuthorities.size()));
    PutBe32(sid, 4, 5);
    for (const uint32_t number : subAuthorities)
        sid += LittleEndianBytes(number, 4);
    return sid;
}

std::string AclBytes(uint16_t size, char fill) {
    std::string acl(size, fill);
    PutLe16(acl, 0, 2);
    PutLe16(acl, 2, size);
    PutLe16(acl, 4, 1);
    PutLe16(acl, 6, 0);
    return acl;
}

struct Part_t {
    char letter;
    size_t offsetField;
    uint16_t control;
    std::string bytes;
};

const std::vector<Part_t>& Parts() {
    static const std::vector<Part_t> parts = {
        {'O', 4, 0, SidBytes({32, 544})},
        {'G', 8, 0, SidBytes({18})},
        {'S', 12, 0x10, AclBytes(28, 's')},
        {'D', 16, 0x04, AclBytes(36, 'd')},
    };
    return parts;
}

std::string DescriptorOf(const std::string& order, uint32_t control) {
    std::string descriptor(20, '\0');
    PutLe8(descriptor, 0, 1);
    for (const char letter : order) {
        const auto part = std::find_if(Parts().begin(), Parts().end(),
                                       [letter](const Part_t& candidate) { return candidate.letter == letter; });
        PutLe32(descriptor, part->offsetField, static_cast<uint32_t>(descriptor.size()));
        descriptor += part->bytes;
        control |= part->control;
    }
    PutLe16(descriptor, 2, static_cast<uint16_t>(control));
    return descriptor;
}

}  // namespace

CNtfsIndexEntryBuilder NtfsDirectoryEntry(uint64_t frn, const std::u16string& name, uint8_t kind, uint32_t attributes) {
    NtfsFileNameFields_t fields;
    fields.name = name;
    fields.kind = kind;
    fields.attributes = attributes;
    return CNtfsIndexEntryBuilder::Named(NtfsReference(frn, 7), NtfsFileNameValue(fields));
}

std::string NtfsSecurityRecord(uint32_t id, const std::string& descriptor) {
    std::string head(20, '\0');
    PutLe32(head, 0, 0x48415348);
    PutLe32(head, 4, id);
    PutLe32(head, 16, static_cast<uint32_t>(20 + descriptor.size()));
    return head + descriptor;
}

std::string SecurityDescriptorBytes(const std::string& order) {
    return DescriptorOf(order, 0x0400);
}

std::string CanonicalDescriptorBytes(const std::string& letters) {
    std::string order;
    for (const Part_t& part : Parts()) {
        if (letters.find(part.letter) != std::string::npos)
            order += part.letter;
    }
    return DescriptorOf(order, 0x8400);
}

// A literal, one token that copies it as often as needed, then literals alone. The token's length has 12 bits, because
// the output is still short.
std::string CompressedChunk(char fill, const std::string& tail) {
    std::string chunk(2, '\0');
    chunk += '\x02';
    chunk += fill;
    chunk += LittleEndianBytes(ChunkOutput - 1 - tail.size() - 3, 2);
    const size_t inFirstGroup = std::min<size_t>(6, tail.size());
    chunk += tail.substr(0, inFirstGroup);
    for (size_t at = inFirstGroup; at < tail.size(); at += 8)
        chunk += '\0' + tail.substr(at, 8);
    PutLe16(chunk, 0, static_cast<uint16_t>(0xB000U | (chunk.size() - 3)));
    return chunk;
}

std::string UncompressedChunk(char fill, const std::string& tail) {
    return std::string(ChunkOutput - tail.size(), fill) + tail;
}

CNtfsVolumeBuilder& CNtfsVolumeBuilder::SectorsPerCluster(uint8_t sectors) {
    m_SectorsPerCluster = sectors;
    return *this;
}

CNtfsVolumeBuilder& CNtfsVolumeBuilder::Boot(const CNtfsBootBuilder& boot) {
    m_Boot = boot;
    return *this;
}

CNtfsBootBuilder CNtfsVolumeBuilder::SoundBoot() const {
    CNtfsBootBuilder boot;
    boot.SectorsPerCluster(static_cast<uint8_t>(m_SectorsPerCluster)).TotalSectors(VolumeSectors - 1);
    boot.MftCluster(MftLcn()).MirrorMftCluster(MftLcn());
    return boot;
}

CNtfsVolumeBuilder& CNtfsVolumeBuilder::MftRuns(const std::vector<NtfsRun_t>& runs) {
    m_MftRuns = runs;
    return *this;
}

CNtfsVolumeBuilder& CNtfsVolumeBuilder::Record(uint64_t frn, const std::string& bytes) {
    m_Records[frn] = bytes.empty() ? std::string(RecordBytes, '\0') : bytes;
    return *this;
}

CNtfsVolumeBuilder& CNtfsVolumeBuilder::Record(uint64_t frn, const CNtfsFileRecordBuilder& record) {
    return Record(frn, record.Bytes());
}

CNtfsVolumeBuilder& CNtfsVolumeBuilder::Root(const CNtfsIndexRootBuilder& root) {
    m_Root = root;
    return *this;
}

CNtfsVolumeBuilder& CNtfsVolumeBuilder::RootEntry(const CNtfsIndexEntryBuilder& entry) {
    m_Root.Add(entry);
    return *this;
}

CNtfsVolumeBuilder& CNtfsVolumeBuilder::VolumeObjectId(const std::string& bytes) {
    m_ObjectId = bytes;
    return *this;
}

CNtfsVolumeBuilder& CNtfsVolumeBuilder::Descriptor(uint32_t id, const std::string& descriptor) {
    uint64_t offset = 0;
    if (!m_Descriptors.empty())
        offset = (m_Descriptors.back().offset + m_Descriptors.back().record.size() + 15) / 16 * 16;
    m_Descriptors.push_back({id, offset, NtfsSecurityRecord(id, descriptor)});
    return *this;
}

CNtfsVolumeBuilder& CNtfsVolumeBuilder::Cluster(uint64_t lcn, const std::string& bytes) {
    m_Clusters.emplace_back(lcn, bytes);
    return *this;
}

uint64_t CNtfsVolumeBuilder::MftLcn() const {
    if (!m_MftRuns.empty() && m_MftRuns.front().lcn.has_value())
        return *m_MftRuns.front().lcn;
    return std::max<uint64_t>(1, MftByte / ClusterBytes());
}

std::vector<NtfsRun_t> CNtfsVolumeBuilder::RunsOfMft() const {
    return m_MftRuns.empty() ? std::vector<NtfsRun_t>{{MftLcn(), std::max<uint64_t>(1, MftBytes / ClusterBytes())}}
                             : m_MftRuns;
}

uint64_t CNtfsVolumeBuilder::ByteOfRecord(uint64_t frn) const {
    uint64_t offset = frn * RecordBytes;
    for (const NtfsRun_t& run : RunsOfMft()) {
        const uint64_t bytes = run.clusters * ClusterBytes();
        if (offset < bytes)
            return run.lcn.value() * ClusterBytes() + offset;
        offset -= bytes;
    }
    throw std::out_of_range("a record behind the MFT's end");
}

CNtfsAttributeBuilder CNtfsVolumeBuilder::SecurityIndexRoot() const {
    CNtfsIndexRootBuilder root;
    root.AttributeType(0).Collation(0x10);
    for (const Descriptor_t& descriptor : m_Descriptors)
        root.Add(CNtfsIndexEntryBuilder::SecurityId(descriptor.id, descriptor.offset,
                                                    static_cast<uint32_t>(descriptor.record.size())));
    return CNtfsAttributeBuilder::Resident(NtfsIndexRootType, root.Bytes()).Name(u"$SII");
}

CNtfsAttributeBuilder CNtfsVolumeBuilder::SecurityStream() const {
    return CNtfsAttributeBuilder::NonResident(
               NtfsDataType, {{SecurityStreamByte / ClusterBytes(), SecurityStreamBytes / ClusterBytes()}},
               SecurityStreamBytes)
        .Name(u"$SDS");
}

std::string CNtfsVolumeBuilder::MftRecord() const {
    uint64_t bytes = 0;
    for (const NtfsRun_t& run : RunsOfMft())
        bytes += run.clusters * ClusterBytes();
    return CNtfsFileRecordBuilder().Add(CNtfsAttributeBuilder::NonResident(NtfsDataType, RunsOfMft(), bytes)).Bytes();
}

std::string CNtfsVolumeBuilder::VolumeRecord() const {
    CNtfsFileRecordBuilder record;
    record.RecordNumber(NtfsVolumeNumber);
    if (m_ObjectId)
        record.Add(CNtfsAttributeBuilder::Resident(NtfsObjectIdType, *m_ObjectId));
    return record.Bytes();
}

std::string CNtfsVolumeBuilder::RootRecord() const {
    return CNtfsFileRecordBuilder()
        .Directory()
        .RecordNumber(NtfsRootNumber)
        .Add(CNtfsAttributeBuilder::Resident(NtfsIndexRootType, m_Root.Bytes()).Name(u"$I30"))
        .Bytes();
}

std::string CNtfsVolumeBuilder::SecureRecord() const {
    return CNtfsFileRecordBuilder()
        .RecordNumber(NtfsSecureNumber)
        .Add(SecurityStream())
        .Add(SecurityIndexRoot())
        .Bytes();
}

std::map<uint64_t, std::string> CNtfsVolumeBuilder::Records() const {
    std::map<uint64_t, std::string> records = m_Records;
    records.emplace(0, MftRecord());
    records.emplace(NtfsVolumeNumber, VolumeRecord());
    records.emplace(NtfsRootNumber, RootRecord());
    records.emplace(NtfsSecureNumber, SecureRecord());
    return records;
}

void CNtfsVolumeBuilder::PutTo(CImageFile& image, uint64_t offset) const {
    image.Put(offset, (m_Boot ? *m_Boot : SoundBoot()).Bytes());
    for (const auto& [frn, bytes] : Records())
        image.Put(offset + ByteOfRecord(frn), bytes);
    for (const Descriptor_t& descriptor : m_Descriptors)
        image.Put(offset + SecurityStreamByte + descriptor.offset, descriptor.record);
    for (const auto& [lcn, bytes] : m_Clusters)
        image.Put(offset + lcn * ClusterBytes(), bytes);
}

CImageFile CNtfsVolumeBuilder::VolumeImage() const {
    CImageFile image;
    PutTo(image, 0);
    image.Resize(VolumeSectors * 512);
    return image;
}

CImageFile CNtfsVolumeBuilder::Image() const {
    CImageFile disk = CPartitionTableBuilder()
                          .Sectors(PartitionLba + VolumeSectors)
                          .Slot(0, 7, PartitionLba, static_cast<uint32_t>(VolumeSectors))
                          .Image();
    PutTo(disk, PartitionLba * 512);
    return disk;
}
