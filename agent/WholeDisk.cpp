#include "agent/WholeDisk.h"

#include <algorithm>
#include <filesystem>

#include "agent/DiskChain.h"
#include "agent/ErrorText.h"
#include "agent/detail/BlockSource.h"
#include "agent/detail/PrivateDirectoryGuard.h"
#include "agent/detail/SmallFileWrite.h"
#include "agent/detail/VmdkDescriptor.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "hypervisor/NbdVMInfo.h"

namespace {

// The core takes the whole of each file for the disk's, so a longer one would cover its neighbour.
CZuError CheckExtents(const CDiskImage& image) {
    const std::vector<DiskExtent_t>& extents = image.Extents();
    const bool isSparse = IsSparseVmdk(extents.front().diskType);
    for (size_t index = 0; index < extents.size(); ++index) {
        const DiskExtent_t& extent = extents[index];
        if (IsSparseVmdk(extent.diskType) != isSparse)
            return Refusal(image.Path() + ": has flat and sparse extents at once, which can't be read as one disk");
        if (extent.totalSectors != extent.diskSectors && index + 1 < extents.size())
            return Refusal(CZuString::Format("{1}: has {2} sectors where the disk takes {3} of them, which can't be "
                                             "read as one disk",
                                             extent.path, extent.totalSectors, extent.diskSectors));
    }
    return CZuError();
}

bool IsFileOfItsOwn(const CDiskImage& image) {
    return image.SmallFiles().empty() && image.Extents().size() == 1 &&
           (IsSparseVmdk(image.DiskType()) || image.DiskType() == DiskType_VMInfoDisk);
}

CZuError LinkTo(const std::string& path, const std::string& link) {
    std::error_code error;
    std::filesystem::create_symlink(std::filesystem::absolute(path), link, error);
    return error ? ErrorAt(path, SystemFailure(error.value())) : CZuError();
}

}  // namespace

CWholeDisk::CWholeDisk() = default;
CWholeDisk::~CWholeDisk() = default;

CZuError CWholeDisk::Open(const std::string& path, const ImageOptions_t& options) {
    ZU_RETURN_IF_ERROR(OpenDiskChain(path, options, m_Links));
    for (const CDiskImage& image : m_Links)
        ZU_RETURN_IF_ERROR(AddCoreLink(image));
    m_Reader = std::make_unique<CWholeDiskReader>(m_Links.back().Product());
    m_Reader->SetVMInfo(m_Links.back().Extents().front().server.get(), "", "");
    return ErrorAt(path, m_Reader->OpenHardDisk(m_CoreDisks));
}

CZuError CWholeDisk::Read(uint64_t offset, void* buffer, uint32_t length) {
    CZuError error = m_Reader->ReadHardDiskData(offset, buffer, length);
    if (!error.IsErrorSet())
        return error;
    const uint64_t endBytes = FileOffsetOfSector(TotalSectors());
    if (offset > endBytes || length > endBytes - offset)
        return Refusal(CZuString::Format("{1}: ends at byte {2}, in front of what is to be read", Path(), endBytes));
    return ErrorAt(Path(), error);
}

CZuError CWholeDisk::AddCoreLink(const CDiskImage& image) {
    Disk_t& disk = m_CoreDisks.emplace_back();
    disk.Type = image.DiskType();
    disk.FileName = CoreNameOf(image.Extents().front());
    const bool isVmdk = image.Product() == VirtualProdType_VMware;
    return isVmdk && !IsFileOfItsOwn(image) ? PrepareDescriptor(image, disk) : CZuError();
}

// Most descriptors have lines that the core's parser refuses, so it gets one of its own kind, with
// links to the extents.
CZuError CWholeDisk::PrepareDescriptor(const CDiskImage& image, Disk_t& disk) {
    ZU_RETURN_IF_ERROR(CheckExtents(image));
    if (m_Directory == nullptr)
        m_Directory = std::make_unique<CPrivateDirectory>();
    if (!m_Directory->IsMade())
        return Refusal(image.Path() + ": no temporary directory can be made for its descriptor; set TMPDIR to one that "
                                      "can be written to");
    const bool isSparse = IsSparseVmdk(image.Extents().front().diskType);
    const std::string prefix = std::to_string(&image - m_Links.data()) + "-";
    std::vector<CoreExtentLine_t> lines;
    for (const DiskExtent_t& extent : image.Extents()) {
        const std::string name = prefix + std::to_string(lines.size());
        ZU_RETURN_IF_ERROR(LinkTo(extent.path, m_Directory->File(name)));
        lines.push_back({extent.diskSectors, isSparse, name});
    }
    const std::string file = m_Directory->File(prefix + "descriptor");
    ZU_RETURN_IF_ERROR(ErrorAt(image.Path(), WriteSmallFile(file, CoreDescriptorText(lines))));
    disk.FileName = file;
    disk.Type = isSparse ? DiskType_TwoGbMaxExtentSparse : DiskType_TwoGbMaxExtentFlat;
    return CZuError();
}
