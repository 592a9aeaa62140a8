#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"

#include <algorithm>

#include "foundation/LgDebug.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr Condition_t EndOfDisk{ErrorType::LayerCondition, 5001, 1, "Read out of range"};
constexpr Condition_t NoSpace{ErrorType::LayerCondition, 5001, 4, "Write out of space"};
constexpr Condition_t ReadOnly{ErrorType::LayerCondition, 5001, 5, "Write to read only disk"};

constexpr ProductType_t NoProduct = ProductType_t{0};
constexpr char NoFileIsOpen[] = "No file is open. Make sure Open succeeded";
constexpr char AlreadyOpen[] = "Already have an open file. Close it first";

enum class Reader_t {
    None,
    SparseExtent,
    FlatExtent,
    Managed,
    VhdFixed,
    VhdDynamic,
    PhysicalDisk,
    NtfsVolume,
    XenImage
};

// Which reader serves which kind of disk. A reader that lands adds its rows.
struct ServedDisk_t {
    ProductType_t product;
    DiskType_t type;
    Reader_t reader;
};

constexpr ServedDisk_t ServedDisks[] = {
    {VirtualProdType_VMware, DiskType_MonolithicSparse, Reader_t::SparseExtent},
    {VirtualProdType_VMware, DiskType_VmfsSparse, Reader_t::SparseExtent},
    {VirtualProdType_VMware, DiskType_TwoGbMaxExtentSparse, Reader_t::SparseExtent},
    {VirtualProdType_VMware, DiskType_MonolithicFlat, Reader_t::FlatExtent},
    {VirtualProdType_VMware, DiskType_TwoGbMaxExtentFlat, Reader_t::FlatExtent},
    {VirtualProdType_VMware, DiskType_VMInfoDisk, Reader_t::Managed},
    {VirtualProdType_HyperV, DiskType_VhdFixed, Reader_t::VhdFixed},
    {VirtualProdType_HyperV, DiskType_VhdDynamic, Reader_t::VhdDynamic},
    {VirtualProdType_HyperV, DiskType_VhdDifferencing, Reader_t::VhdDynamic},
    {VirtualProdType_Physical, DiskType_PhysicalDisk, Reader_t::PhysicalDisk},
    {VirtualProdType_Physical, DiskType_PhysicalDisk2, Reader_t::PhysicalDisk},
    {VirtualProdType_Physical, DiskType_NTFSVolume, Reader_t::NtfsVolume},
    {VirtualProdType_Physical, DiskType_XenVDI, Reader_t::XenImage},
};

constexpr uint64_t DefaultVhdBlockSectors = 0x10000;
constexpr uint64_t XenStreamBlockSectors = 512;

Reader_t ReaderOf(DiskType_t type) {
    for (const ServedDisk_t& row : ServedDisks) {
        if (row.type == type)
            return row.reader;
    }
    return Reader_t::None;
}

bool IsServed(ProductType_t product, DiskType_t type) {
    return std::any_of(std::begin(ServedDisks), std::end(ServedDisks),
                       [&](const ServedDisk_t& row) { return row.product == product && row.type == type; });
}

bool IsKnown(ProductType_t product) {
    return product == VirtualProdType_VMware || product == VirtualProdType_HyperV ||
           product == VirtualProdType_Physical;
}

bool IsPhysicalKind(DiskType_t type) {
    return type == DiskType_PhysicalDisk || type == DiskType_PhysicalDisk2 || type == DiskType_NTFSVolume ||
           type == DiskType_XenVDI;
}

CZuError UnknownProduct(ProductType_t product) {
    return Refusal(CZuString::Format("Unknown product type {1}", static_cast<int>(product)));
}

CZuError NotSupported(DiskType_t type) {
    return Refusal(CZuString::Format("Disk type not supported {1}", static_cast<int>(type)));
}

void LogClosing(const char* reader, const CZuError& error) {
    if (error.IsErrorSet())
        LgDebug().Error("CArchiveVirtualDiskFile::Close", "%s: %s", reader, error.ConvertToString());
}

}  // namespace

CArchiveVirtualDiskFile::CArchiveVirtualDiskFile(ProductType_t product) : m_ProductType(product) {}

void CArchiveVirtualDiskFile::SetVMInfo(IVMInfo* info, const char* first, const char* second) {
    m_ManagedDisk.SetVMInfo(info, first, second);
    m_XenImage.SetVMInfo(info, first, second);
}

void CArchiveVirtualDiskFile::SetDataStore(const char* name) {
    m_XenImage.SetDataStore(name);
}

void CArchiveVirtualDiskFile::SetChangeId(const char* changeId) {
    m_ManagedDisk.SetChangeId(changeId);
}

void CArchiveVirtualDiskFile::SetExtentSize(uint64_t sectors) {
    m_ManagedDisk.SetBlockSize(static_cast<uint32_t>(sectors));
    m_XenImage.SetBlockSize(static_cast<uint32_t>(sectors));
}

CZuError CArchiveVirtualDiskFile::Open(const char* name, DiskType_t type) {
    if (m_DiskType != NoDiskType)
        return Refusal(AlreadyOpen);
    if (!IsKnown(m_ProductType))
        return UnknownProduct(m_ProductType);
    if (!IsServed(m_ProductType, type))
        return NotSupported(type);
    ZU_RETURN_IF_ERROR(OpenReader(name, type));
    m_DiskType = type;
    return CZuError();
}

CZuError CArchiveVirtualDiskFile::Create(const char* name, DiskType_t type, CAutoMemory<char>& metadata,
                                         unsigned int blockSectors, Context_t& context) {
    if (m_DiskType != NoDiskType)
        return Refusal(AlreadyOpen);
    context = {NoBlockYet, 0};
    ZU_RETURN_IF_ERROR(CreateTarget(name, type, metadata, blockSectors, context));
    m_DiskType = type;
    return CZuError();
}

// Callers rely on the device of a Xen image staying open: it closes when the object goes.
CZuError CArchiveVirtualDiskFile::Close() {
    LogClosing("flat extent", m_FlatExtent.CloseExtent());
    LogClosing("sparse extent", m_SparseExtent.CloseExtent());
    LogClosing("disk behind a hypervisor", m_ManagedDisk.CloseDisk());
    LogClosing("physical disk", m_PhysicalDisk.CloseDisk());
    LogClosing("VHD file", m_VhdFile.CloseDisk());
    LogClosing("NTFS volume", m_NtfsVolume.CloseVolume());
    m_DiskType = NoDiskType;
    m_ProductType = NoProduct;
    return CZuError();
}

CZuError CArchiveVirtualDiskFile::GetFirstBlock(CAutoMemory<char>& metadata, unsigned int blockSectors,
                                                Context_t& context) {
    metadata.Alloc(0);
    if (m_DiskType == NoDiskType)
        return Refusal(NoFileIsOpen);
    context = {NoBlockYet, blockSectors};
    switch (ReaderOf(m_DiskType)) {
    case Reader_t::SparseExtent:
        context.blockSectors = m_SparseExtent.GetBlockSize();
        ZU_RETURN_IF_ERROR(m_SparseExtent.GetMetadataInfo(metadata));
        break;
    case Reader_t::FlatExtent: ZU_RETURN_IF_ERROR(m_FlatExtent.GetMetadataInfo(metadata)); break;
    case Reader_t::Managed:
        context.blockSectors = m_ManagedDisk.GetBlockSize();
        ZU_RETURN_IF_ERROR(m_ManagedDisk.GetMetadataInfo(metadata));
        break;
    case Reader_t::VhdDynamic: context.blockSectors = m_VhdFile.GetBlockSize(); [[fallthrough]];
    case Reader_t::VhdFixed:
        if (context.blockSectors == 0)
            context.blockSectors = DefaultVhdBlockSectors;
        ZU_RETURN_IF_ERROR(m_VhdFile.GetMetadataInfo(metadata));
        break;
    case Reader_t::NtfsVolume:
        context.blockSectors = m_NtfsVolume.GetBlockSize();
        ZU_RETURN_IF_ERROR(m_NtfsVolume.GetMetadataInfo(metadata));
        break;
    case Reader_t::XenImage:
        context.blockSectors = XenStreamBlockSectors;
        ZU_RETURN_IF_ERROR(m_XenImage.GetMetadataInfo(metadata));
        break;
    case Reader_t::PhysicalDisk:
    case Reader_t::None: break;
    }
    return CZuError();
}

CZuError CArchiveVirtualDiskFile::GetNextBlock(CAutoMemory<char>& block, uint64_t& blockNumber, Context_t& context) {
    block.Alloc(0);
    blockNumber = context.blockNumber;
    if (m_DiskType == NoDiskType)
        return Refusal(NoFileIsOpen);
    ZU_RETURN_IF_ERROR(AllocateBlock(block, "Out of memory (GetNextBlock)", context));
    ++context.blockNumber;  // from no block yet, which is all ones, to block 0
    CZuError error = ReadForward(block, context);
    blockNumber = context.blockNumber;
    return error;
}

CZuError CArchiveVirtualDiskFile::ReadBlock(CAutoMemory<char>& block, uint64_t blockNumber, Context_t& context) {
    block.Alloc(0);
    context.blockNumber = blockNumber;
    if (m_DiskType == NoDiskType)
        return Refusal(NoFileIsOpen);
    ZU_RETURN_IF_ERROR(AllocateBlock(block, "Out of memory (ReadBlock)", context));
    return ReadForward(block, context);
}

CZuError CArchiveVirtualDiskFile::WriteBlock(CAutoMemory<char>& data, uint64_t blockNumber, Context_t& context) {
    if (m_DiskType == NoDiskType)
        return Refusal(NoFileIsOpen);
    const auto blockSectors = static_cast<unsigned int>(context.blockSectors);
    switch (ReaderOf(m_DiskType)) {
    case Reader_t::SparseExtent: ZU_RETURN_IF_ERROR(m_SparseExtent.WriteGrain(blockNumber, data)); break;
    case Reader_t::FlatExtent: ZU_RETURN_IF_ERROR(m_FlatExtent.WriteGrain(blockNumber, blockSectors, data)); break;
    case Reader_t::Managed: ZU_RETURN_IF_ERROR(WriteManagedBlock(data, blockNumber, blockSectors)); break;
    case Reader_t::VhdFixed:
    case Reader_t::VhdDynamic: ZU_RETURN_IF_ERROR(m_VhdFile.WriteBlock(blockNumber, blockSectors, data)); break;
    case Reader_t::PhysicalDisk: ZU_RETURN_IF_ERROR(m_PhysicalDisk.WriteBlock(blockNumber, blockSectors, data)); break;
    case Reader_t::NtfsVolume: ZU_RETURN_IF_ERROR(m_NtfsVolume.WriteBlock(blockNumber, data)); break;
    case Reader_t::XenImage: ZU_RETURN_IF_ERROR(m_XenImage.WriteBlock(blockNumber, blockSectors, data)); break;
    case Reader_t::None: break;
    }
    return CZuError();
}

// Callers rely on the size of a Xen image staying that of its record: what is set here goes to the reader of drives,
// which has nothing open then.
CZuError CArchiveVirtualDiskFile::SetDiskSize(uint64_t size) {
    if (m_DiskType == NoDiskType)
        return Refusal(NoFileIsOpen);
    const Reader_t reader = ReaderOf(m_DiskType);
    const bool hasSize = reader == Reader_t::PhysicalDisk || reader == Reader_t::XenImage;
    return hasSize ? m_PhysicalDisk.SetDiskSize(size) : CZuError();
}

CZuError CArchiveVirtualDiskFile::ParseDiskMetaData(DiskType_t type, CAutoMemory<char>& metadata,
                                                    DiskGeometry_t& geometry, DiskProvisioningType_t& provisioning,
                                                    std::string& adapterType, std::string& uuid,
                                                    std::string& virtualHWVersion) {
    if (type == NoDiskType)
        return Refusal("unknown disk type");
    if (type != DiskType_VMInfoDisk)
        return CZuError();
    return m_ManagedDisk.ParseDiskMetaData(metadata, geometry, provisioning, adapterType, uuid, virtualHWVersion);
}

CZuError CArchiveVirtualDiskFile::ParseVmdkDescriptorFile(const char* name, VmdkDescriptorFile_t& out,
                                                          DiskType_t type) {
    CVmdkFileReader reader;
    return reader.ParseVmdkDescriptorFile(name, out, type);
}

void CArchiveVirtualDiskFile::GetFileName(std::string& name) {
    name.clear();
    if (m_DiskType == DiskType_VMInfoDisk)
        m_ManagedDisk.GetFileName(name);
}

int CArchiveVirtualDiskFile::IsErrorEOF(const CZuError& error) const {
    return EndOfDisk.Holds(error) ? 1 : 0;
}

int CArchiveVirtualDiskFile::IsErrorNoSpace(const CZuError& error) const {
    return NoSpace.Holds(error) ? 1 : 0;
}

int CArchiveVirtualDiskFile::IsErrorReadOnly(const CZuError& error) const {
    return ReadOnly.Holds(error) ? 1 : 0;
}

CZuError CArchiveVirtualDiskFile::OpenReader(const char* name, DiskType_t type) {
    switch (ReaderOf(type)) {
    case Reader_t::SparseExtent: ZU_RETURN_IF_ERROR(m_SparseExtent.OpenExtent(name, 0, VwExtentTypeSparse)); break;
    case Reader_t::FlatExtent: ZU_RETURN_IF_ERROR(m_FlatExtent.OpenExtent(name, 0, VwExtentTypeFlat)); break;
    case Reader_t::Managed: ZU_RETURN_IF_ERROR(m_ManagedDisk.OpenDisk(name, 0, VwExtentTypeSparse)); break;
    case Reader_t::VhdFixed:
    case Reader_t::VhdDynamic: ZU_RETURN_IF_ERROR(m_VhdFile.OpenDisk(name, type)); break;
    case Reader_t::PhysicalDisk: ZU_RETURN_IF_ERROR(m_PhysicalDisk.OpenDisk(name)); break;
    case Reader_t::NtfsVolume: ZU_RETURN_IF_ERROR(m_NtfsVolume.OpenVolume(name)); break;
    case Reader_t::XenImage: ZU_RETURN_IF_ERROR(m_XenImage.OpenDisk(name)); break;
    case Reader_t::None: return NotSupported(type);
    }
    return CZuError();
}

CZuError CArchiveVirtualDiskFile::CreateTarget(const char* name, DiskType_t type, CAutoMemory<char>& metadata,
                                               unsigned int blockSectors, Context_t& context) {
    switch (m_ProductType) {
    case VirtualProdType_VMware: return CreateVmdkFile(name, type, metadata, blockSectors, context);
    case VirtualProdType_HyperV: return CreateVhdFile(name, type, metadata, blockSectors, context);
    case VirtualProdType_Physical: return CreatePhysicalDisk(name, type, metadata, blockSectors, context);
    }
    return UnknownProduct(m_ProductType);
}

CZuError CArchiveVirtualDiskFile::CreateVhdFile(const char* name, DiskType_t type, CAutoMemory<char>& metadata,
                                                unsigned int blockSectors, Context_t& context) {
    ZU_RETURN_IF_ERROR(m_VhdFile.CreateDisk(name, type, metadata));
    context.blockSectors = m_VhdFile.GetBlockSize() != 0 ? m_VhdFile.GetBlockSize() : blockSectors;
    return CZuError();
}

CZuError CArchiveVirtualDiskFile::CreatePhysicalDisk(const char* name, DiskType_t type, CAutoMemory<char>& metadata,
                                                     unsigned int blockSectors, Context_t& context) {
    if (!IsPhysicalKind(type))
        return Refusal(CZuString::Format("Unknown disk type {1} for product type VirtualProdType_Physical",
                                         static_cast<int>(type)));
    if (ReaderOf(type) == Reader_t::NtfsVolume) {
        ZU_RETURN_IF_ERROR(m_NtfsVolume.CreateVolume(name, metadata));
        context.blockSectors = m_NtfsVolume.GetBlockSize();
        return CZuError();
    }
    if (ReaderOf(type) == Reader_t::XenImage)
        return CreateXenVDI(name, metadata, context);
    ZU_RETURN_IF_ERROR(m_PhysicalDisk.CreateDisk(name));
    context.blockSectors = blockSectors;
    return CZuError();
}

// Callers know the failure by this text; what was wrong goes to the log.
CZuError CArchiveVirtualDiskFile::CreateXenVDI(const char* name, CAutoMemory<char>& metadata, Context_t& context) {
    xen_vdi_record record;
    std::string device;
    const CZuError error = m_XenImage.CreateDisk(name, record, true, device, metadata);
    if (error.IsErrorSet()) {
        LgDebug().Error("CArchiveVirtualDiskFile::CreateXenVDI", "%s", error.ConvertToString());
        return Refusal("CreateXenVDI() Failed");
    }
    context.blockSectors = m_XenImage.GetBlockSize();
    return CZuError();
}

CZuError CArchiveVirtualDiskFile::CreateVmdkFile(const char* name, DiskType_t type, CAutoMemory<char>& metadata,
                                                 unsigned int blockSectors, Context_t& context) {
    switch (ReaderOf(type)) {
    case Reader_t::SparseExtent:
        ZU_RETURN_IF_ERROR(m_SparseExtent.CreateExtent(name, VwExtentTypeSparse, metadata));
        context.blockSectors = m_SparseExtent.GetBlockSize();
        return CZuError();
    case Reader_t::FlatExtent:
        ZU_RETURN_IF_ERROR(m_FlatExtent.CreateExtent(name, VwExtentTypeFlat, metadata));
        context.blockSectors = blockSectors;
        return CZuError();
    case Reader_t::Managed:
        ZU_RETURN_IF_ERROR(m_ManagedDisk.CreateDisk(name, VwExtentTypeFlat, metadata));
        context.blockSectors = m_ManagedDisk.GetBlockSize();
        return CZuError();
    default: return NotSupported(type);
    }
}

CZuError CArchiveVirtualDiskFile::AllocateBlock(CAutoMemory<char>& block, const char* outOfMemory,
                                                const Context_t& context) const {
    uint64_t sizeBytes = 0;
    uint32_t bufferBytes = 0;
    if (!SectorsToBytes(context.blockSectors, sizeBytes) || !NarrowTo32(sizeBytes, bufferBytes) ||
        block.Alloc(bufferBytes) == nullptr)
        return Refusal(outOfMemory);
    return CZuError();
}

// Reads the context's block, or the next one that the disk file holds.
CZuError CArchiveVirtualDiskFile::ReadForward(CAutoMemory<char>& block, Context_t& context) {
    CZuError error = ReadCurrentBlock(block, context);
    while (IsHole(error)) {
        context.blockNumber = NextHeldBlock(context.blockNumber + 1);
        error = ReadCurrentBlock(block, context);
    }
    if (IsEndOfReader(error))
        return EndOfDisk.Error();
    ZU_RETURN_IF_ERROR(error);
    return CZuError();
}

CZuError CArchiveVirtualDiskFile::ReadCurrentBlock(CAutoMemory<char>& block, const Context_t& context) {
    switch (ReaderOf(m_DiskType)) {
    case Reader_t::SparseExtent: return ReadSparseGrain(block, context);
    case Reader_t::FlatExtent: return ReadFlatGrain(block, context);
    case Reader_t::Managed: return ReadManagedBlock(block, context);
    case Reader_t::VhdFixed:
    case Reader_t::VhdDynamic: return ReadVhdBlock(block, context);
    case Reader_t::PhysicalDisk: return ReadPhysicalBlock(block, context);
    case Reader_t::NtfsVolume: return ReadNtfsBlock(block, context);
    case Reader_t::XenImage: return ReadXenBlock(block, context);
    case Reader_t::None: break;
    }
    return CZuError();
}

CZuError CArchiveVirtualDiskFile::ReadSparseGrain(CAutoMemory<char>& block, const Context_t& context) {
    if (context.blockSectors < m_SparseExtent.GetBlockSize())
        return Refusal(CZuString::Format("Block size {1} is less than grain size {2}", context.blockSectors,
                                         m_SparseExtent.GetBlockSize()));
    return m_SparseExtent.ReadGrain(context.blockNumber, block.GetPtr());
}

CZuError CArchiveVirtualDiskFile::ReadFlatGrain(CAutoMemory<char>& block, const Context_t& context) {
    unsigned int gotSectors = 0;
    ZU_RETURN_IF_ERROR(
        m_FlatExtent.ReadGrain(context.blockNumber, block.GetPtr(), block.GetSize() >> SectorShift, gotSectors));
    block.Alloc(gotSectors << SectorShift);
    return CZuError();
}

// A fixed disk says how much came; a block of a dynamic one comes whole.
CZuError CArchiveVirtualDiskFile::ReadVhdBlock(CAutoMemory<char>& block, const Context_t& context) {
    unsigned int gotSectors = 0;
    CZuError error =
        m_VhdFile.ReadBlock(context.blockNumber, block.GetPtr(), block.GetSize() >> SectorShift, gotSectors);
    if (error.IsErrorSet())
        return error;
    if (ReaderOf(m_DiskType) == Reader_t::VhdFixed)
        block.Alloc(gotSectors << SectorShift);
    return CZuError();
}

CZuError CArchiveVirtualDiskFile::ReadPhysicalBlock(CAutoMemory<char>& block, const Context_t& context) {
    return m_PhysicalDisk.ReadBlock(context.blockNumber, block.GetPtr(), block.GetSize() >> SectorShift);
}

CZuError CArchiveVirtualDiskFile::ReadXenBlock(CAutoMemory<char>& block, const Context_t& context) {
    return m_XenImage.ReadBlock(context.blockNumber, block.GetPtr(), block.GetSize() >> SectorShift);
}

CZuError CArchiveVirtualDiskFile::ReadNtfsBlock(CAutoMemory<char>& block, const Context_t& context) {
    if (context.blockSectors < m_NtfsVolume.GetBlockSize())
        return Refusal(CZuString::Format("Block size {1} is less than the volume's block size {2}",
                                         context.blockSectors, m_NtfsVolume.GetBlockSize()));
    uint32_t gotSectors = 0;
    CZuError error = m_NtfsVolume.ReadBlock(context.blockNumber, block.GetPtr(), &gotSectors);
    if (!error.IsErrorSet())
        block.Alloc(gotSectors << SectorShift);
    return error;
}

CZuError CArchiveVirtualDiskFile::ReadManagedBlock(CAutoMemory<char>& block, const Context_t& context) {
    if (context.blockSectors < m_ManagedDisk.GetBlockSize())
        return Refusal(CZuString::Format("Block size {1} is less than the disk's block size {2}", context.blockSectors,
                                         m_ManagedDisk.GetBlockSize()));
    CZuError error = m_ManagedDisk.ReadBlock(context.blockNumber, block.GetPtr());
    if (m_ManagedDisk.IsErrorSectorNotChanged(error) == 0)
        return error;
    block.Alloc(0);
    return CZuError();
}

// The conditions that callers tell apart by what they do next.
CZuError CArchiveVirtualDiskFile::WriteManagedBlock(CAutoMemory<char>& data, uint64_t blockNumber,
                                                    unsigned int blockSectors) {
    CZuError error = m_ManagedDisk.WriteBlock(blockNumber, blockSectors, data);
    if (m_ManagedDisk.IsErrorNoSpace(error) != 0)
        return NoSpace.Error();
    return m_ManagedDisk.IsErrorReadOnly(error) != 0 ? ReadOnly.Error() : error;
}

bool CArchiveVirtualDiskFile::IsHole(const CZuError& error) const {
    return m_SparseExtent.IsErrorSectorNotFound(error) != 0 || m_ManagedDisk.IsErrorSectorNotFound(error) != 0 ||
           m_VhdFile.IsErrorSectorNotFound(error) != 0 || m_NtfsVolume.IsErrorSectorNotFound(error) != 0;
}

// Empty disks have millions of holes, which the tables pass over faster than reads would.
uint64_t CArchiveVirtualDiskFile::NextHeldBlock(uint64_t number) {
    switch (ReaderOf(m_DiskType)) {
    case Reader_t::SparseExtent: return m_SparseExtent.NextHeldGrain(number);
    case Reader_t::Managed: return m_ManagedDisk.NextHeldBlock(number);
    case Reader_t::VhdDynamic: return m_VhdFile.NextHeldBlock(number);
    default: return number;
    }
}

bool CArchiveVirtualDiskFile::IsEndOfReader(const CZuError& error) const {
    return m_SparseExtent.IsErrorEOF(error) != 0 || m_ManagedDisk.IsErrorEOF(error) != 0 ||
           m_FlatExtent.IsErrorEOF(error) != 0 || m_VhdFile.IsErrorEOF(error) != 0 ||
           m_PhysicalDisk.IsErrorEOF(error) != 0 || m_NtfsVolume.IsErrorEOF(error) != 0 ||
           m_XenImage.IsErrorEOF(error) != 0;
}
