#include "tests/support/MetadataFilesBuilder.h"

#include "tests/support/Bytes.h"

namespace {

constexpr size_t VolumeDataOffset = 16;
constexpr size_t ObjectIdOffset = 112;
constexpr size_t ExtentsOffset = 128;

std::string Hex(uint64_t number) {
    std::string digits;
    for (; number != 0 || digits.empty(); number /= 16)
        digits.insert(digits.begin(), "0123456789abcdef"[number % 16]);
    return digits;
}

}  // namespace

std::string MetadataFileSignature() {
    return std::string("ObIMGDC\0"
                       "1.0\0",
                       12);
}

std::string MetadataDirectoryBytes(const std::vector<MetadataDirRecord_t>& records) {
    std::string bytes = MetadataFileSignature();
    for (const MetadataDirRecord_t& record : records) {
        bytes += record.kind + Hex(record.a) + " " + Hex(record.b) + " " + Hex(record.c) + " " + Hex(record.d) + " ";
        bytes += Hex(record.nameBytes.value_or(static_cast<uint32_t>(record.name.size()))) + "|" + record.name;
    }
    return bytes;
}

CMetadataFilesBuilder& CMetadataFilesBuilder::Record(uint64_t frn, const std::string& bytes) {
    m_Records[frn] = bytes;
    return *this;
}

CMetadataFilesBuilder& CMetadataFilesBuilder::Record(uint64_t frn, const CNtfsFileRecordBuilder& record) {
    return Record(frn, record.Bytes());
}

CMetadataFilesBuilder& CMetadataFilesBuilder::Associate(uint64_t baseFrn, uint64_t frn) {
    return AssociateText(Hex(baseFrn) + " " + Hex(frn) + "\n");
}

CMetadataFilesBuilder& CMetadataFilesBuilder::AssociateText(const std::string& text) {
    m_Associates += text;
    return *this;
}

CMetadataFilesBuilder& CMetadataFilesBuilder::Descriptor(uint32_t id, const std::string& bytes,
                                                         std::optional<uint32_t> length) {
    m_Descriptors +=
        LittleEndianBytes(id, 4) + LittleEndianBytes(length.value_or(static_cast<uint32_t>(bytes.size())), 4) + bytes;
    return *this;
}

CMetadataFilesBuilder& CMetadataFilesBuilder::ObjectId(const std::string& bytes) {
    m_ObjectId = bytes;
    return *this;
}

CMetadataFilesBuilder& CMetadataFilesBuilder::RecordBytes(uint32_t bytes) {
    m_RecordBytes = bytes;
    return *this;
}

CMetadataFilesBuilder& CMetadataFilesBuilder::SectorBytes(uint32_t bytes) {
    m_SectorBytes = bytes;
    return *this;
}

CMetadataFilesBuilder& CMetadataFilesBuilder::Extents(const std::string& bytes) {
    m_Extents = bytes;
    return *this;
}

std::string CMetadataFilesBuilder::InformationBytes() const {
    std::string bytes = MetadataFileSignature();
    PutLe32(bytes, 12, 0x12345678);
    PutLe32(bytes, VolumeDataOffset + 40, m_SectorBytes);
    PutLe32(bytes, VolumeDataOffset + 44, 4096);
    PutLe32(bytes, VolumeDataOffset + 48, m_RecordBytes);
    PutLe32(bytes, VolumeDataOffset + 52, 1);
    PutBytes(bytes, ObjectIdOffset, m_ObjectId);
    bytes.resize(ExtentsOffset, '\0');
    return bytes + m_Extents;
}

std::string CMetadataFilesBuilder::MftBytes() const {
    std::string bytes;
    for (const auto& [frn, record] : m_Records)
        PutBytes(bytes, frn * m_RecordBytes, record);
    return bytes;
}

void CMetadataFilesBuilder::WriteTo(const CTempDir& dir) const {
    dir.Write("information", InformationBytes());
    dir.Write("mft", MftBytes());
    dir.Write("associate", AssociateBytes());
    dir.Write("security", SecurityBytes());
}
