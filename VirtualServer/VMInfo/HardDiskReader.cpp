#include "VirtualServer/VMInfo/HardDiskReader.h"

#include <algorithm>

#include "VirtualServer/VMInfo/PhysicalDiskReader.h"
#include "VirtualServer/VMInfo/VHDFileReader.h"
#include "VirtualServer/VMInfo/VmdkFileReader.h"
#include "VirtualServer/VMInfo/XenVDIDiskReader.h"
#include "VirtualServer/VMInfo/detail/HardDiskChain.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "platform/DriveName.h"

namespace {

constexpr char NoOpenDisk[] = "Object is in invalid state. Make sure OpenHardDisk succeeded";
constexpr char BeyondVolume[] = "Reading beyond volume boundaries";

// A physical disk: its reader answers by byte, and nothing is cached.
class CPhysicalHardDisk final : public IOpenHardDisk {
public:
    explicit CPhysicalHardDisk(std::unique_ptr<CPhysicalDiskReader> reader) : m_Reader(std::move(reader)) {}

    CPhysicalDiskReader& Reader() { return *m_Reader; }

    CZuError Read(uint64_t offset, char* buffer, uint32_t length) override {
        ZU_RETURN_IF_ERROR(m_Reader->ReadData(offset, buffer, length));
        return CZuError();
    }

    uint64_t CountHoleSectors(uint64_t /*sector*/, uint64_t /*mostSectors*/) override { return 0; }

    // One link with one extent.
    CZuError DumpSparseInfo(CZuFile& out, const std::vector<HardDiskDumpInfo_t>& infos) override {
        ZU_RETURN_IF_ERROR(WriteSparseDumpCount(out, 1));
        ZU_RETURN_IF_ERROR(WriteSparseDumpCount(out, 1));
        ZU_RETURN_IF_ERROR(m_Reader->DumpSparseInfo(out, infos.front().DumpName, infos.front().BlockSize));
        return CZuError();
    }

    bool IsSingleVolume() const override { return !IsDriveName(m_Reader->getDiskFileName()); }

private:
    std::unique_ptr<CPhysicalDiskReader> m_Reader;
};

// Null for a type that isn't a physical disk's.
std::unique_ptr<CPhysicalDiskReader> NewPhysicalReader(DiskType_t type) {
    switch (type) {
    case DiskType_PhysicalDisk:
    case DiskType_PhysicalDisk2:
    case DiskType_NTFSVolume: return std::make_unique<CPhysicalDiskReader>();
    case DiskType_XenVDI: return std::make_unique<CXenVDIDiskReader>();
    default: return nullptr;
    }
}

CZuError UnknownDiskProduct(ProductType_t product) {
    return Refusal(CZuString::Format("Unknown product type {1}", static_cast<int>(product)));
}

// Where byte `offset` of the partition lies on the disk. The sector just behind the read's end has
// to belong to the partition too.
bool PlaceInPartition(const Partition_Entry_t& partition, uint64_t offset, uint32_t length, uint64_t& place) {
    uint64_t end = 0;
    uint64_t last = 0;
    return CheckedAdd(offset, length, end) && CheckedAdd(end >> SectorShift, partition.StartLBA, last) &&
           last <= partition.EndLBA && SectorsToBytes(partition.StartLBA, place) && CheckedAdd(place, offset, place);
}

}  // namespace

CHardDiskReader::CHardDiskReader(ProductType_t product) : m_ProductType(product) {}

void CHardDiskReader::SetVMInfo(IVMInfo* info, const char* first, const char* second) {
    m_pVMInfo = info;
    m_VMInfoName1 = first != nullptr ? first : "";
    m_VMInfoName2 = second != nullptr ? second : "";
}

CZuError CHardDiskReader::OpenHardDisk(std::vector<Disk_t>& disks) {
    if (disks.empty())
        return Refusal("Disk vector is empty");
    if (m_pDisk != nullptr)
        return Refusal("This object already has some open disk.");
    return WithinMemory(OutOfMemory, [&] {
        switch (m_ProductType) {
        case VirtualProdType_VMware: return OpenVmdkHardDisk(disks);
        case VirtualProdType_HyperV: return OpenVhdHardDisk(disks);
        case VirtualProdType_Physical: return OpenPhysicalHardDisk(disks.front());
        }
        return UnknownDiskProduct(m_ProductType);
    });
}

CZuError CHardDiskReader::CloseHardDisk() {
    m_pDisk.reset();
    m_DiskDumpInfo.clear();
    return CZuError();
}

CZuError CHardDiskReader::ReadHardDiskData(uint64_t offset, void* buffer, uint32_t length) {
    if (m_pDisk == nullptr)
        return Refusal(NoOpenDisk);
    ZU_RETURN_IF_ERROR(m_pDisk->Read(offset, static_cast<char*>(buffer), length));
    return CZuError();
}

uint64_t CHardDiskReader::CountHoleBytes(uint64_t offset, uint64_t mostBytes) {
    if (m_pDisk == nullptr || mostBytes == 0)
        return 0;
    const uint64_t inSector = offset % SectorSize;
    const uint64_t sectors =
        m_pDisk->CountHoleSectors(offset >> SectorShift, DivideRoundingUp(mostBytes, SectorSize) + 1);
    return sectors != 0 ? std::min(mostBytes, (sectors << SectorShift) - inSector) : 0;
}

CZuError CHardDiskReader::ReadVolumeData(Partition_Entry_t partition, uint64_t offset, void* buffer, uint32_t length) {
    uint64_t place = 0;
    if (!PlaceInPartition(partition, offset, length, place))
        return Refusal(BeyondVolume);
    ZU_RETURN_IF_ERROR(ReadHardDiskData(place, buffer, length));
    return CZuError();
}

CZuError CHardDiskReader::DumpSparseInfo(CZuFile& out) {
    if (m_pDisk == nullptr)
        return Refusal(NoOpenDisk);
    ZU_RETURN_IF_ERROR(m_pDisk->DumpSparseInfo(out, m_DiskDumpInfo));
    return CZuError();
}

CZuError CHardDiskReader::OpenVmdkHardDisk(const std::vector<Disk_t>& disks) {
    return OpenChain<CVmdkFileReader>(disks, [this](CVmdkFileReader& reader, const Disk_t& disk) {
        reader.SetVMInfo(m_pVMInfo, m_VMInfoName1.c_str(), m_VMInfoName2.c_str());
        reader.SetBlockSize(static_cast<uint32_t>(disk.BlockSize));
    });
}

CZuError CHardDiskReader::OpenVhdHardDisk(const std::vector<Disk_t>& disks) {
    return OpenChain<CVHDFileReader>(disks, [](CVHDFileReader& /*reader*/, const Disk_t& /*disk*/) {});
}

template <typename Reader, typename Prepare>
CZuError CHardDiskReader::OpenChain(const std::vector<Disk_t>& disks, Prepare prepare) {
    const auto chain = std::make_shared<CHardDiskChain<Reader>>();
    m_pDisk = chain;
    for (const Disk_t& disk : disks) {
        m_DiskDumpInfo.push_back({disk.DumpName, disk.BlockSize});
        Reader& reader = chain->AddLink();
        prepare(reader, disk);
        CZuError error = reader.OpenDisk(disk.FileName, disk.Type);
        if (error.IsErrorSet())
            Dropped(CloseHardDisk());  // the open's error is the one to report
        ZU_RETURN_IF_ERROR(error);
    }
    return chain->MakeCache() ? CZuError() : Refusal(OutOfMemory);
}

// A disk that doesn't open counts as open all the same: callers close it.
CZuError CHardDiskReader::OpenPhysicalHardDisk(const Disk_t& disk) {
    std::unique_ptr<CPhysicalDiskReader> reader = NewPhysicalReader(disk.Type);
    if (reader == nullptr)
        return Refusal(CZuString::Format("Disk type {1} is not supported for product {2}", static_cast<int>(disk.Type),
                                         static_cast<int>(m_ProductType)));
    const auto opened = std::make_shared<CPhysicalHardDisk>(std::move(reader));
    m_pDisk = opened;
    m_DiskDumpInfo.push_back({disk.DumpName, disk.BlockSize});
    ZU_RETURN_IF_ERROR(opened->Reader().OpenDisk(disk.FileName));
    return CZuError();
}
