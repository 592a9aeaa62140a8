#include <cctype>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/VmdkVcb4ExtentReader.h"
#include "VirtualServer/VMInfo/detail/MetadataRecord.h"
#include "VirtualServer/VMInfo/detail/SparseDumpRecord.h"
#include "VirtualServer/VMInfo/detail/TableReader.h"
#include "foundation/ZuString.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "foundation/detail/ScopeGuard.h"

namespace {

constexpr int NewFileFlags = OpenAsBinary | OpenNotInherited | OpenCreating | OpenTruncating | OpenForWriting;
constexpr int OwnerReadsAndWritesImage = 384;
constexpr char NoQuote = '\0';

CZuString BodyText(const CAutoMemory<char>& metadata) {
    const CByteView body = MetadataBody(metadata);
    CZuString text;
    text.AssignBuffer(body.Data(), body.Size());
    return text;
}

std::vector<CZuString> PiecesOf(const CZuString& body) {
    std::vector<CZuString> pieces;
    body.Tokenize(pieces, NoQuote, NoQuote, NoQuote, ';', false);
    return pieces;
}

bool SameIgnoringCase(const char* left, const char* right) {
    for (; *left != '\0' && *right != '\0'; ++left, ++right) {
        if (std::tolower(static_cast<unsigned char>(*left)) != std::tolower(static_cast<unsigned char>(*right)))
            return false;
    }
    return *left == *right;
}

// A slash behind the last backslash would lead into a folder that isn't there.
std::string LocalDescriptorName(std::string name) {
    const size_t backslash = name.rfind('\\');
    if (backslash == std::string::npos)
        return name;
    for (size_t at = backslash + 1; at < name.size(); ++at) {
        if (name[at] == '/')
            name[at] = '_';
    }
    return name;
}

std::string FlatFileName(const std::string& descriptorName) {
    const size_t separator = descriptorName.find_last_of("\\/");
    const size_t stop = descriptorName.rfind('.');
    const bool hasStop = stop != std::string::npos && (separator == std::string::npos || stop > separator);
    return (hasStop ? descriptorName.substr(0, stop) : descriptorName) + "-flat.vmdk";
}

CZuString DescriptorText(const std::string& flatName, uint64_t sectors, const CZuString& body) {
    CZuString text = "# Disk DescriptorFile\nversion=3\nencoding=\"UTF-8\"\nCID=ffffffff\nparentCID=ffffffff\n"
                     "createType=\"vmfs\"\n\n";
    text +=
        CZuString::Format("#Extent description\nRW {1} VMFS \"{2}\"\n\n", sectors, SplitFileName(flatName, nullptr));
    text += "# The Disk Data Base\n#DDB\n\n";
    for (const CZuString& piece : PiecesOf(body))
        text += "ddb." + piece + '\n';
    return text;
}

CZuError CreateVMDKDescriptorFile(const std::string& name, const std::string& flatName, uint64_t sectors,
                                  const CZuString& body) {
    CZuFile file;
    ZU_RETURN_IF_ERROR(file.Open(name.c_str(), NewFileFlags, OwnerReadsAndWritesImage));
    const CZuString text = DescriptorText(flatName, sectors, body);
    ZU_RETURN_IF_ERROR(WriteWhole(file, text.c_str(), static_cast<uint32_t>(text.Length())));
    ZU_RETURN_IF_ERROR(file.Close());
    return CZuError();
}

// What the settings of a disk go to.
struct DiskSettings_t {
    std::string thinProvisioned;
    DiskGeometry_t& geometry;
    std::string& adapterType;
    std::string& uuid;
    std::string& virtualHWVersion;
};

void TakeSetting(DiskSettings_t& settings, const char* key, const char* value) {
    const struct {
        const char* key;
        std::string& text;
    } texts[] = {{"thinProvisioned", settings.thinProvisioned},
                 {"adapterType", settings.adapterType},
                 {"uuid", settings.uuid},
                 {"virtualHWVersion", settings.virtualHWVersion}};
    const struct {
        const char* key;
        uint32_t& number;
    } numbers[] = {{"geometry.sectors", settings.geometry.sectors},
                   {"geometry.heads", settings.geometry.heads},
                   {"geometry.cylinders", settings.geometry.cylinders}};
    for (const auto& row : texts) {
        if (SameIgnoringCase(key, row.key))
            row.text = value;
    }
    for (const auto& row : numbers) {
        if (SameIgnoringCase(key, row.key))
            row.number = static_cast<uint32_t>(std::strtol(value, nullptr, 10));
    }
}

void TakePiece(DiskSettings_t& settings, const CZuString& piece) {
    std::vector<CZuString> tokens;
    piece.Tokenize(tokens, '"', '"', '\\', '=', false);
    if (tokens.size() != 2)
        return;
    for (CZuString& token : tokens) {
        token.LTrimAll();
        token.RTrimAll();
    }
    TakeSetting(settings, tokens[0], tokens[1]);
}

}  // namespace

CZuError CVmdkVcb4ExtentReader::CreateDisk(const char* name, VwExtentType /*type*/, CAutoMemory<char>& metadata) {
    if (name == nullptr)
        return Refusal("Invalid Parameter");
    if (m_LocalFile.IsValid())
        return Refusal("Object already have an open file.");
    ZU_RETURN_IF_ERROR(CheckMetadataHead(metadata, SignatureVMInfoDisk));
    const uint64_t totalSectors = MetadataTotalSectors(metadata);
    uint64_t sizeBytes = 0;
    if (totalSectors == 0 || !SectorsToBytes(totalSectors, sizeBytes))
        return Refusal(MetadataIsCorrupted);  // the record of every disk has one sector more than the disk
    m_SectorSize = SectorSize;
    m_FirstSector = 0;
    m_LastSector = totalSectors - 1;
    AdjustBlockSize();
    return WithinMemory(
        OutOfMemory, [&] { return m_VMInfo == nullptr ? CreateLocalDisk(name, metadata) : CreateManagedDisk(name); });
}

CZuError CVmdkVcb4ExtentReader::ParseDiskMetaData(CAutoMemory<char>& metadata, DiskGeometry_t& geometry,
                                                  DiskProvisioningType_t& provisioning, std::string& adapterType,
                                                  std::string& uuid, std::string& virtualHWVersion) {
    ZU_RETURN_IF_ERROR(CheckMetadataHead(metadata, SignatureVMInfoDisk));
    return WithinMemory(OutOfMemory, [&] {
        DiskSettings_t settings{{}, geometry, adapterType, uuid, virtualHWVersion};
        for (const CZuString& piece : PiecesOf(BodyText(metadata)))
            TakePiece(settings, piece);
        provisioning = settings.thinProvisioned == "1" ? DiskProvisioning_Thin : DiskProvisioning_Thick;
        return CZuError();
    });
}

CZuError CVmdkVcb4ExtentReader::CreateManagedDisk(const std::string& name) {
    const std::string baseName = SplitFileName(name, nullptr);
    if (m_VMInfo->CreateVmdkFile(m_VMInfoTexts[0].c_str(), m_VMInfoTexts[1].c_str(), baseName, m_Handle,
                                 m_LastSector << SectorShift) == 0)
        return Refusal("Create VMDK Failed");
    return CZuError();
}

CZuError CVmdkVcb4ExtentReader::CreateLocalDisk(const std::string& name, const CAutoMemory<char>& metadata) {
    const std::string descriptorName = LocalDescriptorName(name);
    const std::string flatName = FlatFileName(descriptorName);
    ZU_RETURN_IF_ERROR(CreateVMDKDescriptorFile(descriptorName, flatName, m_LastSector, BodyText(metadata)));
    ScopeGuard closeUnlessKept([this] {
        Dropped(m_LocalFile.Close());  // the first error is the one to report
        Dropped(CloseDisk());
    });
    ZU_RETURN_IF_ERROR(m_LocalFile.Open(flatName.c_str(), NewFileFlags, OwnerReadsAndWritesImage));
    ZU_RETURN_IF_ERROR(m_LocalFile.Truncate(static_cast<int64_t>(FileOffsetOfSector(m_LastSector))));
    closeUnlessKept.Dismiss();
    return CZuError();
}
