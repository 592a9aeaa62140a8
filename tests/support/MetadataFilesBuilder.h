#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/NtfsRecordBuilder.h"
#include "tests/support/TempDir.h"

// The files of a metadata collection, put together by their own offsets: volume information, a copy of the MFT,
// associates, security and directory structure.

// What each of them but the copy of the MFT begins with.
std::string MetadataFileSignature();

// A record of the directory structure file. Instead of the name's own length another one may be told.
struct MetadataDirRecord_t {
    char kind = 'f';
    uint64_t a = 5;
    uint64_t b = 0;
    uint64_t c = 0;
    uint32_t d = 0;
    std::string name;
    std::optional<uint32_t> nameBytes = std::nullopt;
};
std::string MetadataDirectoryBytes(const std::vector<MetadataDirRecord_t>& records);

// Without a word the collection is that of a volume with sectors of 512 bytes and records of 1024, whose MFT has no
// records, and whose other files are as small as they can be.
class CMetadataFilesBuilder {
public:
    // Records that nobody puts in front of the last one are zeros.
    CMetadataFilesBuilder& Record(uint64_t frn, const std::string& bytes);
    CMetadataFilesBuilder& Record(uint64_t frn, const CNtfsFileRecordBuilder& record);
    CMetadataFilesBuilder& Associate(uint64_t baseFrn, uint64_t frn);
    CMetadataFilesBuilder& AssociateText(const std::string& text);
    // Instead of the descriptor's own length another one may be told.
    CMetadataFilesBuilder& Descriptor(uint32_t id, const std::string& bytes,
                                      std::optional<uint32_t> length = std::nullopt);
    CMetadataFilesBuilder& ObjectId(const std::string& bytes);
    CMetadataFilesBuilder& RecordBytes(uint32_t bytes);
    CMetadataFilesBuilder& SectorBytes(uint32_t bytes);
    CMetadataFilesBuilder& Extents(const std::string& bytes);  // of the MFT, instead of none

    std::string InformationBytes() const;
    std::string MftBytes() const;
    std::string AssociateBytes() const { return MetadataFileSignature() + m_Associates; }
    std::string SecurityBytes() const { return MetadataFileSignature() + m_Descriptors; }

    // The files "information", "mft", "associate" and "security".
    void WriteTo(const CTempDir& dir) const;

private:
    std::map<uint64_t, std::string> m_Records;
    std::string m_Associates;
    std::string m_Descriptors;
    std::string m_ObjectId;
    std::string m_Extents = std::string(8, '\0');
    uint32_t m_RecordBytes = 1024;
    uint32_t m_SectorBytes = 512;
};
