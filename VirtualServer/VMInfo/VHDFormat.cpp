#include "VirtualServer/VMInfo/VHDFormat.h"

#include <algorithm>
#include <cstring>

#include "foundation/detail/CheckedMath.h"

namespace {

template <size_t Size, typename Element> void CopyBytes(const Element (&from)[Size], Element (&to)[Size]) {
    std::memcpy(to, from, sizeof(from));
}

template <typename From, typename To> void ConvertLocator(const From& file, To& host) {
    host.platformCode = file.platformCode;
    host.platformDataSpace = file.platformDataSpace;
    host.platformDataLength = file.platformDataLength;
    CopyBytes(file.reserved, host.reserved);
    host.platformDataOffset = file.platformDataOffset;
}

}  // namespace

void ConvertFooterFromNetToHost(const VhdFileFooter_t& file, VHD_FOOTER_t& host) {
    CopyBytes(file.cookie, host.cookie);
    host.features = file.features;
    host.fileFormatVersion = file.fileFormatVersion;
    host.dataOffset = file.dataOffset;
    host.timeStamp = file.timeStamp;
    CopyBytes(file.creatorApplication, host.creatorApplication);
    host.creatorVersion = file.creatorVersion;
    host.creatorHostOS = file.creatorHostOS;
    host.originalSize = file.originalSize;
    host.currentSize = file.currentSize;
    host.cylinders = file.cylinders;
    host.heads = file.heads;
    host.sectorsPerTrack = file.sectorsPerTrack;
    host.diskType = file.diskType;
    host.checksum = file.checksum;
    CopyBytes(file.uniqueId, host.uniqueId);
    host.savedState = file.savedState;
    CopyBytes(file.reserved, host.reserved);
}

void ConvertDynHdrFromNetToHost(const VhdFileDynamicHeader_t& file, VHD_DYNAMIC_HEADER_t& host) {
    CopyBytes(file.cookie, host.cookie);
    host.dataOffset = file.dataOffset;
    host.tableOffset = file.tableOffset;
    host.headerVersion = file.headerVersion;
    host.maxTableEntries = file.maxTableEntries;
    host.blockSize = file.blockSize;
    host.checksum = file.checksum;
    CopyBytes(file.parentUniqueId, host.parentUniqueId);
    host.parentTimeStamp = file.parentTimeStamp;
    CopyBytes(file.reserved, host.reserved);
    CopyBytes(file.parentUnicodeName, host.parentUnicodeName);
    for (size_t index = 0; index < VhdParentLocatorCount; ++index)
        ConvertLocator(file.parentLocators[index], host.parentLocators[index]);
    CopyBytes(file.reserved2, host.reserved2);
}

VhdBlockShape_t ShapeOfVhdBlock(uint32_t blockBytes) {
    VhdBlockShape_t shape;
    shape.dataSectors = blockBytes / SectorSize;
    shape.bitmapSectors = std::max<uint32_t>(shape.dataSectors / 8 / SectorSize, 1);
    return shape;
}
