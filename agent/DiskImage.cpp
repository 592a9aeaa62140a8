#include "agent/DiskImage.h"

#include <algorithm>
#include <filesystem>
#include <set>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/VHDFormat.h"
#include "VirtualServer/VMInfo/VmdkSparseFormat.h"
#include "VirtualServer/VMInfo/detail/VmdkDescriptorText.h"
#include "agent/ErrorText.h"
#include "agent/WholeDisk.h"
#include "agent/detail/NtfsUsedPieces.h"
#include "agent/detail/VhdFacts.h"
#include "agent/detail/VmdkDescriptor.h"
#include "agent/detail/VmdkExtentCheck.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "hypervisor/NbdVMInfo.h"
#include "platform/DeviceClaim.h"
#include "platform/DriveName.h"
#include "platform/DriveSize.h"

namespace {

enum class Content_t { SparseExtent, Descriptor, Vhd, Unknown };

struct Beginning_t {
    std::string bytes;  // the file's first sector, or all of a shorter file
    std::string end;    // the file's last sector
    uint64_t fileBytes = 0;
};

CZuError ReadBeginning(const std::string& path, Beginning_t& beginning) {
    CZuFile file;
    ZU_RETURN_IF_ERROR(file.Open(path.c_str(), OpenAsBinary | OpenNotInherited, 0));
    ZU_RETURN_IF_ERROR(file.Size(beginning.fileBytes));
    const auto pieceBytes = static_cast<unsigned int>(std::min<uint64_t>(beginning.fileBytes, SectorSize));
    beginning.bytes.resize(pieceBytes);
    beginning.end.resize(pieceBytes);
    ZU_RETURN_IF_ERROR(ReadFileAt(file, 0, 0, beginning.bytes.data(), pieceBytes, nullptr));
    ZU_RETURN_IF_ERROR(
        ReadFileAt(file, beginning.fileBytes - pieceBytes, 0, beginning.end.data(), pieceBytes, nullptr));
    return CZuError();
}

std::string NameOf(const std::string& path) {
    return std::filesystem::path(WithoutDrivePrefix(path)).filename().string();
}

bool BeginsWith(const std::string& text, const char* beginning) {
    return text.rfind(beginning, 0) == 0;
}

// Some writers leave the descriptor's first comment out.
bool LooksLikeDescriptor(const std::string& text) {
    return BeginsWith(text, DescriptorBeginning) || text.find("\ncreateType=") != std::string::npos;
}

Content_t ContentOf(const Beginning_t& beginning) {
    if (BeginsWith(beginning.bytes, "KDMV") || BeginsWith(beginning.bytes, "COWD"))
        return Content_t::SparseExtent;
    if (LooksLikeDescriptor(beginning.bytes))
        return Content_t::Descriptor;
    if (BeginsWith(beginning.bytes, VhdFooterCookie) || BeginsWith(beginning.end, VhdFooterCookie))
        return Content_t::Vhd;
    return Content_t::Unknown;
}

// A server gives its exports any name, a path as well; files are to be called after it.
std::string FileNameOfExport(const std::string& uri) {
    std::string name = std::filesystem::path(NbdExportName(uri)).filename().string();
    for (char& character : name) {
        if (character == '\\' || static_cast<unsigned char>(character) < ' ')
            character = '_';
    }
    return name.empty() || name == "." || name == ".." ? "disk" : name;
}

CZuError NotSupported(const std::string& path, DiskType_t type) {
    return ErrorAt(path, Refusal(CZuString::Format("Disk type not supported {1} ({2})", static_cast<int>(type),
                                                   DiskTypeName(type))));
}

CZuError FileBytes(const std::string& path, uint64_t& sizeBytes) {
    CZuFile file;
    ZU_RETURN_IF_ERROR(ErrorAt(path, file.Open(path.c_str(), OpenAsBinary | OpenNotInherited, 0)));
    ZU_RETURN_IF_ERROR(ErrorAt(path, file.Size(sizeBytes)));
    return CZuError();
}

CZuError ReadDescriptorText(const std::string& path, std::string& text) {
    CZuFile file;
    uint64_t sizeBytes = 0;
    ZU_RETURN_IF_ERROR(file.Open(path.c_str(), OpenAsText | OpenNotInherited, 0));
    ZU_RETURN_IF_ERROR(file.Size(sizeBytes));
    if (sizeBytes > LargestDescriptorBytes)
        return Refusal(CZuString::Format("Vmdk description file seems to be larger than 20KB. Size {1}", sizeBytes));
    text.resize(static_cast<size_t>(sizeBytes));
    return ReadFileAt(file, 0, 0, text.data(), static_cast<unsigned int>(sizeBytes), nullptr);
}

bool IsFlat(VwExtentType type) {
    return type == VwExtentTypeFlat || type == VwExtentTypeVmfs;
}

bool IsSparse(VwExtentType type) {
    return type == VwExtentTypeSparse || type == VwExtentTypeVmfsSparse;
}

// Which reader of the core serves a line of a disk of type `created`. An ESX disk ("vmfs") has
// plain bytes in its extents, as a flat disk has, and no reader under its own number.
DiskType_t StreamTypeOf(DiskType_t created, VwExtentType line) {
    if (IsFlat(line))
        return created == DiskType_TwoGbMaxExtentFlat ? created : DiskType_MonolithicFlat;
    if (line == VwExtentTypeVmfsSparse)
        return DiskType_VmfsSparse;
    return IsSparseVmdk(created) ? created : DiskType_MonolithicSparse;
}

bool IsServedThroughDescriptor(DiskType_t created) {
    return created >= DiskType_MonolithicSparse && created <= DiskType_TwoGbMaxExtentFlat;
}

// What a flat extent holds is its bytes; what a sparse one holds, its header tells.
CZuError MeasureExtent(DiskExtent_t& extent, bool isFlat) {
    ZU_RETURN_IF_ERROR(FileBytes(extent.path, extent.fileBytes));
    if (isFlat) {
        extent.totalSectors = extent.fileBytes / SectorSize;
        return CZuError();
    }
    SparseExtentFacts_t facts;
    ZU_RETURN_IF_ERROR(CheckSparseExtent(extent.path, facts));
    extent.totalSectors = facts.capacitySectors;
    return CZuError();
}

}  // namespace

CZuError CDiskImage::Open(const std::string& path, const ImageOptions_t& options) {
    *this = CDiskImage();
    m_Path = path;
    if (IsNbdUri(path))
        return OpenExport(options);
    Beginning_t beginning;
    ZU_RETURN_IF_ERROR(ErrorAt(path, ReadBeginning(path, beginning)));
    if (options.type == DiskType_NTFSVolume)
        return OpenNtfsVolume();
    if (options.type == DiskType_PhysicalDisk || IsBlockDevice(path) || IsDriveName(path))
        return OpenRaw();
    switch (ContentOf(beginning)) {
    case Content_t::SparseExtent: return OpenSparseFile(options.type.value_or(NoDiskType));
    case Content_t::Descriptor: return OpenDescriptor(options);
    case Content_t::Vhd: return OpenVhd(options.type.value_or(NoDiskType));
    case Content_t::Unknown: break;
    }
    if (options.type.has_value())
        return OpenFlatFile(*options.type);
    if (options.rawUnlessKnown)
        return OpenRaw();
    return Refusal(path + ": is no disk image of a known kind; if it holds the plain bytes of a disk, say --type raw");
}

CZuError CDiskImage::OpenFlattened(const std::string& path, const ImageOptions_t& options) {
    if (options.type == DiskType_NTFSVolume)  // it builds on nothing, and what is free in it stays out
        return Open(path, options);
    const auto disk = std::make_shared<CWholeDisk>();
    ZU_RETURN_IF_ERROR(disk->Open(path, options));
    *this = CDiskImage();
    m_Path = path;
    m_DiskType = DiskType_PhysicalDisk;
    DiskExtent_t extent;
    extent.path = path;
    extent.name = NameOf(path);
    extent.product = VirtualProdType_Physical;
    extent.diskType = m_DiskType;
    extent.diskSectors = disk->TotalSectors();
    extent.totalSectors = disk->TotalSectors();
    extent.fileBytes = disk->TotalSectors() << SectorShift;
    extent.chain = disk;
    for (const CDiskImage& link : disk->Links())
        m_Warnings.insert(m_Warnings.end(), link.Warnings().begin(), link.Warnings().end());
    return AddExtent(std::move(extent));
}

ProductType_t CDiskImage::Product() const {
    return ProductOf(m_DiskType);
}

std::string CDiskImage::ParentName() const {
    return m_Parent.has_value() && !m_Parent->names.empty() ? m_Parent->names.front() : std::string();
}

uint64_t CDiskImage::TotalSectors() const {
    uint64_t total = 0;
    for (const DiskExtent_t& extent : m_Extents)
        total += extent.diskSectors;
    return total;
}

CZuError CDiskImage::OpenSparseFile(DiskType_t type) {
    SparseExtentFacts_t facts;
    ZU_RETURN_IF_ERROR(CheckSparseExtent(m_Path, facts));
    m_DiskType = type != NoDiskType ? type : (facts.isCowd ? DiskType_VmfsSparse : DiskType_MonolithicSparse);
    if (!IsSparseVmdk(m_DiskType) || facts.isCowd != (m_DiskType == DiskType_VmfsSparse))
        return Refusal(m_Path + ": is a " + (facts.isCowd ? "COWD" : "sparse") + " extent, not " +
                       DiskTypeName(m_DiskType));

    VmdkIdentity_t identity;
    ReadVmdkIdentity(facts.descriptor, identity);
    m_Identity = identity.own;
    m_Parent = identity.parent;
    DiskExtent_t extent;
    extent.path = m_Path;
    extent.name = NameOf(m_Path);
    extent.diskType = m_DiskType;
    extent.diskSectors = facts.capacitySectors;
    extent.totalSectors = facts.capacitySectors;
    ZU_RETURN_IF_ERROR(FileBytes(m_Path, extent.fileBytes));
    return AddExtent(extent);
}

CZuError CDiskImage::OpenFlatFile(DiskType_t type) {
    if (type != DiskType_MonolithicFlat && type != DiskType_TwoGbMaxExtentFlat && type != DiskType_Vmfs)
        return Refusal(m_Path + ": is neither a sparse extent nor a descriptor, so it can't be " + DiskTypeName(type));
    m_DiskType = type;
    DiskExtent_t extent;
    extent.path = m_Path;
    extent.name = NameOf(m_Path);
    extent.diskType = StreamTypeOf(type, VwExtentTypeFlat);
    ZU_RETURN_IF_ERROR(MeasureExtent(extent, true));
    extent.diskSectors = extent.totalSectors;
    return AddExtent(extent);
}

CZuError CDiskImage::OpenDescriptor(const ImageOptions_t& options) {
    SmallFile_t file{NameOf(m_Path), {}};
    ZU_RETURN_IF_ERROR(ErrorAt(m_Path, ReadDescriptorText(m_Path, file.bytes)));
    VmdkDescriptor_t descriptor;
    ZU_RETURN_IF_ERROR(ParseVmdkDescriptor(m_Path, file.bytes, descriptor));
    m_SmallFiles.push_back(file);
    m_Identity = descriptor.identity.own;
    m_Parent = descriptor.identity.parent;
    m_DiskType = options.type.value_or(descriptor.file.createType);
    if (!IsServedThroughDescriptor(m_DiskType))
        return NotSupported(m_Path, m_DiskType);

    const std::string directory = std::filesystem::path(m_Path).parent_path().string();
    for (const VmdkExtentDescriptor_t& line : descriptor.file.extents) {
        if (!IsFlat(line.type) && !IsSparse(line.type))
            return Refusal(m_Path + ": the extent " + line.fileName.c_str() + " is neither flat nor sparse");
        if (options.type.has_value() && IsSparse(line.type) != IsSparseVmdk(m_DiskType))
            return Refusal(m_Path + ": the extent " + line.fileName.c_str() + " is " +
                           (IsSparse(line.type) ? "sparse" : "flat") + ", which doesn't go with the type " +
                           DiskTypeName(m_DiskType));
        DiskExtent_t extent;
        extent.name = line.fileName.c_str();
        extent.diskType = StreamTypeOf(m_DiskType, line.type);
        extent.diskSectors = line.size;
        ZU_RETURN_IF_ERROR(ErrorAt(m_Path, ResolveExtentName(directory.empty() ? "." : directory, extent.name,
                                                             options.allowOutside, extent.path)));
        ZU_RETURN_IF_ERROR(MeasureExtent(extent, IsFlat(line.type)));
        ZU_RETURN_IF_ERROR(AddExtent(extent));
    }
    if (m_Extents.empty())
        return Refusal(m_Path + ": its descriptor names no extents");
    return CZuError();
}

CZuError CDiskImage::OpenVhd(DiskType_t type) {
    VhdFacts_t facts;
    ZU_RETURN_IF_ERROR(ReadVhdFacts(m_Path, facts));
    m_DiskType = facts.diskType;
    if (type != NoDiskType && type != m_DiskType)
        return Refusal(m_Path + ": is a VHD of the kind " + DiskTypeName(m_DiskType) + ", not " + DiskTypeName(type));
    for (const std::string& warning : facts.warnings)
        m_Warnings.push_back(m_Path + ": " + warning);
    m_Identity = facts.uniqueId;
    if (m_DiskType == DiskType_VhdDifferencing)
        m_Parent = ImageParent_t{facts.parentNames, facts.parentUniqueId};
    DiskExtent_t extent;
    extent.path = m_Path;
    extent.name = NameOf(m_Path);
    extent.product = VirtualProdType_HyperV;
    extent.diskType = m_DiskType;
    extent.diskSectors = facts.diskSectors;
    extent.totalSectors = facts.diskSectors;
    extent.fileBytes = facts.fileBytes;
    return AddExtent(extent);
}

CZuError CDiskImage::OpenRaw() {
    m_DiskType = DiskType_PhysicalDisk;
    DiskExtent_t extent;
    extent.path = m_Path;
    extent.name = NameOf(m_Path);
    extent.product = VirtualProdType_Physical;
    extent.diskType = m_DiskType;
    ZU_RETURN_IF_ERROR(FileBytes(m_Path, extent.fileBytes));
    if (extent.fileBytes % SectorSize != 0)
        return Refusal(CZuString::Format("{1}: has {2} bytes, and a disk is made of whole sectors of 512", m_Path,
                                         extent.fileBytes));
    if (extent.fileBytes == 0)
        return Refusal(m_Path + ": is empty");
    extent.diskSectors = extent.fileBytes / SectorSize;
    extent.totalSectors = extent.diskSectors;
    return AddExtent(extent);
}

CZuError CDiskImage::OpenNtfsVolume() {
    m_DiskType = DiskType_NTFSVolume;
    CNtfsUsedPieces volume;
    ZU_RETURN_IF_ERROR(ErrorAt(m_Path, volume.Open(m_Path)));
    if (IsDeviceClaimed(m_Path))
        m_Warnings.push_back(m_Path + ": is mounted or in use; what is changed while it is read may be there in part");
    DiskExtent_t extent;
    extent.path = m_Path;
    extent.name = NameOf(m_Path);
    extent.product = VirtualProdType_Physical;
    extent.diskType = m_DiskType;
    extent.diskSectors = volume.DiskSectors();
    extent.totalSectors = volume.DiskSectors();
    ZU_RETURN_IF_ERROR(FileBytes(m_Path, extent.fileBytes));
    return AddExtent(extent);
}

CZuError CDiskImage::OpenExport(const ImageOptions_t& options) {
    if (options.type.has_value())
        return Refusal(m_Path + ": is a disk that a server exports, and no image that could be of another type");
    NbdOptions_t nbdOptions;
    nbdOptions.patience =
        options.patience.value_or(std::chrono::duration_cast<std::chrono::seconds>(nbdOptions.patience));
    const auto server = std::make_shared<CNbdVMInfo>(nbdOptions);
    VmdkFileHandle_t handle;
    VmdkFileInfo_t info;
    if (server->SetCurrVmdkFile("", "", m_Path, handle) == 0 || server->GetCurrVmdkFileInfo(handle, info) == 0)
        return Refusal(m_Path + ": " + server->LastErrorText());
    if (info.sectors == 0)
        return Refusal(m_Path + ": is empty");
    m_DiskType = DiskType_VMInfoDisk;
    DiskExtent_t extent;
    extent.path = m_Path;
    extent.name = FileNameOfExport(m_Path);
    extent.diskType = m_DiskType;
    extent.diskSectors = info.sectors;
    extent.totalSectors = info.sectors;
    extent.fileBytes = uint64_t{info.sectors} << SectorShift;
    extent.server = server;
    extent.changedSince = options.changedSince;
    return AddExtent(std::move(extent));
}

CZuError CDiskImage::AddExtent(DiskExtent_t extent) {
    if (extent.totalSectors < extent.diskSectors)
        return Refusal(CZuString::Format("{1}: holds {2} sectors where the disk needs {3}; it is cut short",
                                         extent.path, extent.totalSectors, extent.diskSectors));
    uint64_t total = 0;
    uint64_t totalBytes = 0;
    if (!CheckedAdd(TotalSectors(), extent.diskSectors, total) || !SectorsToBytes(total, totalBytes) ||
        totalBytes > uint64_t{INT64_MAX})
        return Refusal(
            CZuString::Format("{1}: claims {2} sectors, more than a disk can have", extent.path, extent.diskSectors));
    const bool isKnown = std::any_of(m_Extents.begin(), m_Extents.end(),
                                     [&](const DiskExtent_t& each) { return each.name == extent.name; });
    if (isKnown)
        return Refusal(m_Path + ": names the extent " + extent.name + " twice");
    m_Extents.push_back(std::move(extent));
    return CZuError();
}
