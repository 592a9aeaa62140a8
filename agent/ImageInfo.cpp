#include "agent/ImageInfo.h"

#include "agent/ErrorText.h"
#include "agent/ExtentStream.h"
#include "agent/detail/NtfsUsedPieces.h"
#include "agent/detail/OutOfMemory.h"
#include "agent/detail/SparseRecord.h"
#include "agent/detail/VhdFacts.h"
#include "agent/detail/VhdRecord.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

CZuError DescribeSparse(const DiskExtent_t& extent, ExtentInfo_t& info) {
    CExtentStream stream;
    ZU_RETURN_IF_ERROR(stream.Open(extent));
    const CAutoMemory<char> bytes = stream.TakeRecord();
    CSparseRecord record;
    ZU_RETURN_IF_ERROR(ErrorAt(extent.path, record.Open(bytes)));
    info.sparse = SparseInfoSummary_t{record.GrainSectors(), record.CountGrains(),
                                      !record.IsCowd() && !record.HasEmptyDirectoryEntries()};
    return CZuError();
}

CZuError DescribeVhd(const DiskExtent_t& extent, ExtentInfo_t& info) {
    VhdFacts_t facts;
    ZU_RETURN_IF_ERROR(ReadVhdFacts(extent.path, facts));
    VhdInfoSummary_t& vhd = info.vhd.emplace();
    vhd.uniqueId = facts.uniqueId;
    vhd.creator.assign(facts.footer.creatorApplication, sizeof(facts.footer.creatorApplication));
    if (!IsDynamicVhd(extent.diskType))
        return CZuError();
    CExtentStream stream;
    ZU_RETURN_IF_ERROR(stream.Open(extent));
    const CAutoMemory<char> bytes = stream.TakeRecord();
    CVhdRecord record;
    ZU_RETURN_IF_ERROR(ErrorAt(extent.path, record.Open(bytes)));
    vhd.blockBytes = uint64_t{record.Shape().dataSectors} << SectorShift;
    vhd.blockCount = record.CountBlocks();
    vhd.tableEntries = record.TableEntries();
    return CZuError();
}

CZuError DescribeNtfsVolume(const DiskExtent_t& extent, ExtentInfo_t& info) {
    CNtfsUsedPieces volume;
    ZU_RETURN_IF_ERROR(ErrorAt(extent.path, volume.Open(extent.path)));
    ZU_RETURN_IF_ERROR(ErrorAt(extent.path, volume.FindPieces(FlatBlockSectors << SectorShift)));
    info.ntfs = NtfsInfoSummary_t{volume.ClusterBytes(), volume.ClusterCount(), volume.UsedClusters()};
    return CZuError();
}

CZuError DescribeExtent(const DiskExtent_t& extent, ExtentInfo_t& info) {
    info.extent = extent;
    if (IsSparseVmdk(extent.diskType))
        return DescribeSparse(extent, info);
    if (extent.diskType == DiskType_NTFSVolume)
        return DescribeNtfsVolume(extent, info);
    return IsVhd(extent.diskType) ? DescribeVhd(extent, info) : CZuError();
}

CZuError Describe(const std::string& name, const ImageOptions_t& options, ImageInfo_t& info) {
    CDiskImage image;
    ZU_RETURN_IF_ERROR(image.Open(name, options));
    info.diskType = image.DiskType();
    info.diskSectors = image.TotalSectors();
    info.hasParent = image.HasParent();
    info.parent = image.Parent().value_or(ImageParent_t());
    info.warnings = image.Warnings();
    for (const DiskExtent_t& extent : image.Extents())
        ZU_RETURN_IF_ERROR(DescribeExtent(extent, info.extents.emplace_back()));
    for (const SmallFile_t& file : image.SmallFiles())
        info.files.push_back(file.name);
    return CZuError();
}

}  // namespace

CZuError DescribeImage(const std::string& image, const ImageOptions_t& options, ImageInfo_t& info) {
    return WithinMemory(OutOfMemory, [&] {
        info = ImageInfo_t();
        return Describe(image, options, info);
    });
}
