#include "VirtualServer/VMInfo/VmdkFileReader.h"

#include <cstdio>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/detail/SparseDumpRecord.h"
#include "VirtualServer/VMInfo/detail/TableReader.h"
#include "VirtualServer/VMInfo/detail/VmdkDescriptorText.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "foundation/detail/ScopeGuard.h"

namespace {

constexpr Condition_t SectorOutOfRange{ErrorType::LayerCondition, 3001, 1, "Sector Out of Range"};
constexpr Condition_t VmdkSectorNotFound{ErrorType::LayerCondition, 3001, 2, "Sector Not Found"};

CZuString IndexedName(const char* name, size_t index) {
    char text[17];
    std::snprintf(text, sizeof(text), "%08x", static_cast<unsigned int>(index));
    return CZuString::Format("{1}_{2}", name, text);
}

// Asks the extents in their order until one has the sector that `ask` is about.
template <typename Extent, typename Ask> CZuError AskExtents(std::vector<Extent>& extents, Ask ask) {
    for (Extent& extent : extents) {
        CZuError error = ask(extent);
        if (extent.IsErrorEOF(error) != 0)
            continue;  // it lies in another extent
        ZU_RETURN_IF_ERROR(error);
        return CZuError();
    }
    return SectorOutOfRange.Error();
}

}  // namespace

CZuError CVmdkFileReader::OpenDisk(const char* name, DiskType_t type) {
    if (name == nullptr)
        return Refusal("File name is null");
    m_DiskType = type;
    switch (type) {
    case DiskType_MonolithicSparse:
    case DiskType_VmfsSparse:
    case DiskType_TwoGbMaxExtentSparse: return WithinMemory(OutOfMemory, [&] { return OpenSparseDisk(name); });
    case DiskType_MonolithicFlat:
    case DiskType_TwoGbMaxExtentFlat: return WithinMemory(OutOfMemory, [&] { return OpenFlatDisk(name); });
    case DiskType_VMInfoDisk: return WithinMemory(OutOfMemory, [&] { return OpenVcb4Disk(name); });
    default: m_DiskType = NoDiskType; return Refusal("Not a supported disk type");
    }
}

CZuError CVmdkFileReader::CloseDisk() {
    m_DiskType = NoDiskType;
    m_FlatExtents.clear();
    m_SparseExtents.clear();
    m_ManagedDisk = CVmdkVcb4ExtentReader();
    m_OpenKind = OpenKind_t::None;
    return CZuError();
}

CZuError CVmdkFileReader::ReadSector(uint64_t sector, char* buffer, unsigned long size) {
    ZU_RETURN_IF_ERROR(RefuseUnlessOpen());
    if (m_OpenKind == OpenKind_t::Flat)
        return AskExtents(m_FlatExtents, [&](auto& extent) { return extent.ReadExtentSector(sector, buffer, size); });
    if (m_OpenKind == OpenKind_t::Managed)
        return ReadManagedSector(sector, buffer, size);
    return AskExtents(m_SparseExtents, [&](auto& extent) {
        CZuError error = extent.ReadExtentSector(sector, buffer, static_cast<uint32_t>(size));
        return extent.IsErrorSectorNotFound(error) != 0 ? VmdkSectorNotFound.Error() : error;
    });
}

CZuError CVmdkFileReader::FindRun(uint64_t sector, uint64_t mostSectors, SectorRun_t& run) {
    ZU_RETURN_IF_ERROR(RefuseUnlessOpen());
    if (m_OpenKind == OpenKind_t::Managed) {
        CZuError error = m_ManagedDisk.FindRun(sector, mostSectors, run);
        return m_ManagedDisk.IsErrorEOF(error) != 0 ? SectorOutOfRange.Error() : error;
    }
    const auto findRun = [&](auto& extent) { return extent.FindRun(sector, mostSectors, run); };
    return m_OpenKind == OpenKind_t::Flat ? AskExtents(m_FlatExtents, findRun) : AskExtents(m_SparseExtents, findRun);
}

CZuError CVmdkFileReader::ReadRun(const SectorRun_t& run, char* buffer, uint32_t size) {
    if (run.server != nullptr)
        return run.server->ReadSectors(run.fileOffset >> SectorShift, buffer, size);
    ZU_RETURN_IF_ERROR(ReadFileAt(*run.file, run.fileOffset, 0, buffer, size, nullptr));
    return CZuError();
}

CZuError CVmdkFileReader::ParseVmdkDescriptorFile(const char* name, VmdkDescriptorFile_t& out, DiskType_t /*type*/) {
    return WithinMemory(OutOfMemory, [&] { return ReadVmdkDescriptor(name, out); });
}

CZuError CVmdkFileReader::DumpSparseInfo(CZuFile& out, const char* name, uint64_t blockSectors) {
    ZU_RETURN_IF_ERROR(RefuseUnlessOpen());
    if (m_OpenKind == OpenKind_t::Managed)
        return m_ManagedDisk.DumpSparseInfo(out, name);
    ZU_RETURN_IF_ERROR(WriteSparseDumpCount(out, static_cast<uint32_t>(m_FlatExtents.size() + m_SparseExtents.size())));
    for (size_t index = 0; index < m_FlatExtents.size(); ++index)
        ZU_RETURN_IF_ERROR(m_FlatExtents[index].DumpSparseInfo(out, IndexedName(name, index), blockSectors));
    for (size_t index = 0; index < m_SparseExtents.size(); ++index)
        ZU_RETURN_IF_ERROR(m_SparseExtents[index].DumpSparseInfo(out, IndexedName(name, index)));
    return CZuError();
}

void CVmdkFileReader::SetVMInfo(IVMInfo* info, const char* first, const char* second) {
    m_VMInfo = info;
    m_VMInfoTexts[0] = first != nullptr ? first : "";
    m_VMInfoTexts[1] = second != nullptr ? second : "";
}

void CVmdkFileReader::SetBlockSize(uint64_t sectors) {
    m_BlockSize = sectors;
}

int CVmdkFileReader::IsErrorEOF(const CZuError& error) const {
    return SectorOutOfRange.Holds(error) ? 1 : 0;
}

int CVmdkFileReader::IsErrorSectorNotFound(const CZuError& error) const {
    return VmdkSectorNotFound.Holds(error) ? 1 : 0;
}

CZuError CVmdkFileReader::OpenSparseDisk(const char* name) {
    ScopeGuard closeUnlessKept([this] { Dropped(CloseDisk()); });  // the first error is the one to report
    m_FlatExtents.clear();
    m_SparseExtents.clear();
    m_OpenKind = OpenKind_t::Sparse;
    if (m_DiskType == DiskType_TwoGbMaxExtentSparse) {
        VmdkDescriptorFile_t descriptor;
        ZU_RETURN_IF_ERROR(ParseVmdkDescriptorFile(name, descriptor, m_DiskType));
        ZU_RETURN_IF_ERROR(OpenExtents(descriptor, VwExtentTypeSparse, m_SparseExtents));
    } else {
        m_SparseExtents.emplace_back();
        ZU_RETURN_IF_ERROR(m_SparseExtents.back().OpenExtent(name, 0, VwExtentTypeSparse));
    }
    closeUnlessKept.Dismiss();
    return CZuError();
}

CZuError CVmdkFileReader::OpenFlatDisk(const char* name) {
    ScopeGuard closeUnlessKept([this] { Dropped(CloseDisk()); });  // the first error is the one to report
    m_FlatExtents.clear();
    m_SparseExtents.clear();
    m_OpenKind = OpenKind_t::Flat;
    VmdkDescriptorFile_t descriptor;
    ZU_RETURN_IF_ERROR(ParseVmdkDescriptorFile(name, descriptor, m_DiskType));
    ZU_RETURN_IF_ERROR(OpenExtents(descriptor, VwExtentTypeFlat, m_FlatExtents));
    closeUnlessKept.Dismiss();
    return CZuError();
}

CZuError CVmdkFileReader::OpenVcb4Disk(const char* name) {
    m_ManagedDisk.SetVMInfo(m_VMInfo, m_VMInfoTexts[0].c_str(), m_VMInfoTexts[1].c_str());
    m_ManagedDisk.SetBlockSize(static_cast<uint32_t>(m_BlockSize));
    ScopeGuard closeUnlessKept([this] { Dropped(CloseDisk()); });  // the first error is the one to report
    ZU_RETURN_IF_ERROR(m_ManagedDisk.OpenDisk(name, 0, VwExtentTypeSparse));
    m_OpenKind = OpenKind_t::Managed;
    closeUnlessKept.Dismiss();
    return CZuError();
}

CZuError CVmdkFileReader::ReadManagedSector(uint64_t sector, char* buffer, unsigned long size) {
    CZuError error = m_ManagedDisk.ReadSector(sector, buffer, size);
    if (m_ManagedDisk.IsErrorSectorNotFound(error) != 0)
        return VmdkSectorNotFound.Error();
    return m_ManagedDisk.IsErrorEOF(error) != 0 ? SectorOutOfRange.Error() : error;
}

// Opens all extents, one behind the other on the disk.
template <typename Extent>
CZuError CVmdkFileReader::OpenExtents(const VmdkDescriptorFile_t& descriptor, VwExtentType type,
                                      std::vector<Extent>& extents) {
    uint64_t firstSector = 0;
    extents.reserve(descriptor.extents.size());
    for (const VmdkExtentDescriptor_t& line : descriptor.extents) {
        extents.emplace_back();
        ZU_RETURN_IF_ERROR(extents.back().OpenExtent(line.fileName, firstSector, type));
        firstSector += line.size;
    }
    return CZuError();
}

CZuError CVmdkFileReader::RefuseUnlessOpen() const {
    switch (m_OpenKind) {
    case OpenKind_t::None: return Refusal("Object is in invalid state. Make sure OpenDisk succeeded");
    case OpenKind_t::Flat:
    case OpenKind_t::Sparse:
    case OpenKind_t::Managed: return CZuError();
    }
    return Refusal("Object is in invalid state. Note sure what is the file type");
}
