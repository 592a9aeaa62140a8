#include "agent/ExtentStream.h"

#include "agent/ErrorText.h"
#include "agent/detail/BlockSource.h"
#include "platform/DriveName.h"

CExtentStream::CExtentStream() = default;
CExtentStream::~CExtentStream() = default;

CZuError CExtentStream::Open(const DiskExtent_t& extent) {
    m_Path = extent.path;
    m_Source = MakeBlockSource(extent);
    return ErrorAt(m_Path, m_Source->Open(extent));
}

uint32_t CExtentStream::BlockSectors() const {
    return m_Source->BlockSectors();
}

CAutoMemory<char> CExtentStream::TakeRecord() {
    return m_Source->TakeRecord();
}

uint64_t CExtentStream::ExpectedBytes() const {
    return m_Source->ExpectedBytes();
}

CZuError CExtentStream::Next(CAutoMemory<char>& bytes, std::optional<BlockPlace_t>& place) {
    place.reset();
    return ErrorAt(m_Path, m_Source->Next(bytes, place));
}

CZuError CExtentStream::ReadUnchanged(uint64_t number, CAutoMemory<char>& bytes) {
    return ErrorAt(m_Path, m_Source->ReadUnchanged(number, bytes));
}

std::unique_ptr<IBlockSource> MakeBlockSource(const DiskExtent_t& extent) {
    if (extent.chain != nullptr)
        return MakeChainSource();
    switch (extent.diskType) {
    case DiskType_VMInfoDisk: return MakeManagedSource();
    case DiskType_VhdFixed: return MakeFixedVhdSource();
    case DiskType_VhdDynamic:
    case DiskType_VhdDifferencing: return MakeDynamicVhdSource();
    case DiskType_NTFSVolume: return MakeNtfsVolumeSource();
    default: return IsSparseVmdk(extent.diskType) ? MakeSparseSource() : MakeFlatSource();
    }
}

std::string CoreNameOf(const DiskExtent_t& extent) {
    const bool isRaw = extent.product == VirtualProdType_Physical;
    return isRaw && !IsDriveName(extent.path) ? DriveNamePrefix + extent.path : extent.path;
}
