#include "agent/ImageInfo.h"

#include "agent/ErrorText.h"
#include "agent/ExtentStream.h"
#include "agent/detail/SparseRecord.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

CZuError DescribeExtent(const DiskExtent_t& extent, ExtentInfo_t& info) {
    info.extent = extent;
    CExtentStream stream;
    ZU_RETURN_IF_ERROR(stream.Open(extent));
    if (stream.IsFlat())
        return CZuError();
    const CAutoMemory<char> bytes = stream.TakeRecord();
    CSparseRecord record;
    ZU_RETURN_IF_ERROR(ErrorAt(extent.path, record.Open(bytes)));
    info.sparse = SparseInfoSummary_t{record.GrainSectors(), record.CountGrains(),
                                      !record.IsCowd() && !record.HasEmptyDirectoryEntries()};
    return CZuError();
}

CZuError Describe(const std::string& name, const ImageOptions_t& options, ImageInfo_t& info) {
    CDiskImage image;
    ZU_RETURN_IF_ERROR(image.Open(name, options));
    info.diskType = image.DiskType();
    info.diskSectors = image.TotalSectors();
    info.hasParent = image.HasParent();
    info.parentName = image.ParentName();
    for (const DiskExtent_t& extent : image.Extents())
        ZU_RETURN_IF_ERROR(DescribeExtent(extent, info.extents.emplace_back()));
    for (const SmallFile_t& file : image.SmallFiles())
        info.files.push_back(file.name);
    return CZuError();
}

}  // namespace

CZuError DescribeImage(const std::string& image, const ImageOptions_t& options, ImageInfo_t& info) {
    return WithinMemory("Out of memory", [&] {
        info = ImageInfo_t();
        return Describe(image, options, info);
    });
}
