#include "tests/support/VolumeDumpBuilder.h"

#include <sstream>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"

namespace {

constexpr size_t SignatureBytes = 10;
constexpr size_t VolumeRecordBytes = 153;
constexpr size_t OldVolumeRecordBytes = 170;
constexpr size_t SegmentRecordBytes = 60;
constexpr size_t ComponentRecordBytes = 125;

std::string ComponentBytes(const DumpedComponent_t& component) {
    std::string bytes(ComponentRecordBytes, '\0');
    PutBytes(bytes, 0, component.diskGuid);
    PutBytes(bytes, 39, HexDigits(component.diskLbaStart, 16));
    PutBytes(bytes, 56, HexDigits(component.diskLbaEnd, 16));
    PutBytes(bytes, 73, HexDigits(component.volLbaStart, 16));
    PutBytes(bytes, 90, HexDigits(component.volLbaEnd, 16));
    PutBytes(bytes, 107, HexDigits(component.column, 8));
    PutBytes(bytes, 116, HexDigits(component.hardDisk, 8));
    return bytes;
}

std::string ComponentsBytes(const DumpedSegment_t& segment) {
    std::string bytes;
    for (const DumpedComponent_t& component : segment.components)
        bytes += ComponentBytes(component);
    return bytes;
}

std::string SegmentBytes(const DumpedSegment_t& segment) {
    std::string bytes(SegmentRecordBytes, '\0');
    PutBytes(bytes, 0, HexDigits(segment.stripeSize, 16));
    PutBytes(bytes, 17, HexDigits(segment.lbaStart, 16));
    PutBytes(bytes, 34, HexDigits(segment.lbaEnd, 16));
    PutBytes(bytes, 51, HexDigits(segment.components.size(), 8));
    return bytes + ComponentsBytes(segment);
}

std::string CountText(size_t count) {
    return HexDigits(count, 8);
}

std::string LinkBytes(const DumpedLink_t& link) {
    std::string bytes = CountText(link.size());
    for (const SparseDumpText_t& extent : link)
        bytes += extent.Bytes();
    return bytes;
}

std::string HexOf(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes)
        text += HexDigits(static_cast<unsigned char>(byte), 2);
    return text;
}

}  // namespace

DumpedComponent_t DumpedPiece(uint32_t hardDisk, uint64_t diskLba, uint64_t volumeLba, uint64_t sectors) {
    DumpedComponent_t component;
    component.hardDisk = hardDisk;
    component.diskLbaStart = diskLba;
    component.diskLbaEnd = diskLba + sectors - 1;
    component.volLbaStart = volumeLba;
    component.volLbaEnd = volumeLba + sectors - 1;
    return component;
}

SparseDumpText_t DumpedFlatExtent(const std::string& name, uint64_t startLba, uint64_t endLba, uint64_t blockSectors) {
    SparseDumpText_t extent;
    extent.name = name;
    extent.startLba = startLba;
    extent.endLba = endLba;
    extent.blockSize = blockSectors;
    extent.grainSize = blockSectors;
    return extent;
}

SparseDumpText_t DumpedSparseExtent(const std::string& name, uint64_t startLba, uint64_t endLba, uint64_t grainSectors,
                                    uint64_t grainsPerBucket, const std::string& grains) {
    SparseDumpText_t extent = DumpedFlatExtent(name, startLba, endLba, grainSectors);
    extent.grainsPerBucket = grainsPerBucket;
    extent.bucketCount = (grains.size() + grainsPerBucket - 1) / grainsPerBucket;
    extent.topBitmapBytes = (extent.bucketCount + 7) / 8;
    extent.bucketBytes = (grainsPerBucket + 7) / 8;
    extent.topBitmap.resize(extent.topBitmapBytes, '\0');
    extent.buckets.resize(extent.bucketCount);
    const auto setBit = [](std::string& bitmap, size_t index) {
        bitmap[index / 8] = static_cast<char>(bitmap[index / 8] | (0x80 >> (index % 8)));
    };
    for (size_t grain = 0; grain < grains.size(); ++grain) {
        if (grains[grain] != '1')
            continue;
        const size_t bucket = grain / grainsPerBucket;
        extent.buckets[bucket].resize(extent.bucketBytes, '\0');
        setBit(extent.topBitmap, bucket);
        setBit(extent.buckets[bucket], grain % grainsPerBucket);
    }
    return extent;
}

CVolumeDumpBuilder& CVolumeDumpBuilder::Volume(const DumpedVolume_t& volume) {
    m_Volumes.push_back(volume);
    return *this;
}

CVolumeDumpBuilder& CVolumeDumpBuilder::Disk(const std::vector<DumpedLink_t>& links) {
    m_Disks.push_back(links);
    return *this;
}

CVolumeDumpBuilder& CVolumeDumpBuilder::Header(const std::string& signature) {
    m_Header = signature;
    return *this;
}

CVolumeDumpBuilder& CVolumeDumpBuilder::Footer(const std::string& signature) {
    m_Footer = signature;
    return *this;
}

CVolumeDumpBuilder& CVolumeDumpBuilder::VolumeCount(const std::string& text) {
    m_VolumeCount = text;
    return *this;
}

CVolumeDumpBuilder& CVolumeDumpBuilder::DiskCount(const std::string& text) {
    m_DiskCount = text;
    return *this;
}

CVolumeDumpBuilder& CVolumeDumpBuilder::PutAt(size_t offset, const std::string& bytes) {
    m_Damage.emplace_back(offset, bytes);
    return *this;
}

CVolumeDumpBuilder& CVolumeDumpBuilder::CutTo(size_t sizeBytes) {
    m_CutTo = sizeBytes;
    return *this;
}

std::string CVolumeDumpBuilder::Bytes() const {
    const std::string signature = m_Version == Version_t::Old ? "LVMDUMP1.0" : "LVMDUMP1.1";
    std::string bytes = VolumesPart() + DisksPart() + m_Footer.value_or(signature);
    for (const auto& [offset, damage] : m_Damage)
        PutBytes(bytes, offset, damage);
    bytes.resize(m_CutTo.value_or(bytes.size()), '\0');
    return bytes;
}

std::string CVolumeDumpBuilder::VolumesPart() const {
    std::string bytes = m_Header.value_or(m_Version == Version_t::Old ? "LVMDUMP1.0" : "LVMDUMP1.1");
    bytes.resize(SignatureBytes, '\0');
    bytes += m_VolumeCount.value_or(CountText(m_Volumes.size()));
    for (const DumpedVolume_t& volume : m_Volumes)
        bytes += VolumeBytes(volume);
    return bytes;
}

std::string CVolumeDumpBuilder::VolumeBytes(const DumpedVolume_t& volume) const {
    std::string bytes(m_Version == Version_t::Old ? OldVolumeRecordBytes : VolumeRecordBytes, '\0');
    PutBytes(bytes, 0, volume.guid);
    PutBytes(bytes, 39, volume.name);
    bytes[139] = volume.isRaid5;
    PutBytes(bytes, 140, volume.systemId);
    bytes[143] = volume.allDiskFound;
    if (m_Version == Version_t::Old) {
        PutBytes(bytes, 144, HexDigits(volume.segments.at(0).stripeSize, 16));
        PutBytes(bytes, 161, std::to_string(volume.segments.at(0).components.size()));
        return bytes + ComponentsBytes(volume.segments.at(0));
    }
    PutBytes(bytes, 144, HexDigits(volume.segments.size(), 8));
    for (const DumpedSegment_t& segment : volume.segments)
        bytes += SegmentBytes(segment);
    return bytes;
}

std::string CVolumeDumpBuilder::DisksPart() const {
    std::string bytes = m_DiskCount.value_or(CountText(m_Disks.size()));
    for (const std::vector<DumpedLink_t>& links : m_Disks) {
        bytes += CountText(links.size());
        for (const DumpedLink_t& link : links)
            bytes += LinkBytes(link);
    }
    return bytes;
}

std::string TextOf(const std::vector<LVM_Volume_t>& volumes) {
    std::ostringstream text;
    text << std::hex;
    for (const LVM_Volume_t& volume : volumes) {
        text << "volume " << FormatGuidText(volume.VolGUID).c_str() << " [" << volume.VolName << "] RAID-5 "
             << volume.IsRaid5 << " type " << int{volume.SystemID} << " found " << volume.AllDiskFound << "\n";
        for (const LVM_Segment_t& segment : volume.Segments) {
            text << " segment " << segment.LBAStart << "-" << segment.LBAEnd << " stripe " << segment.StripeSize
                 << "\n";
            for (const LVM_Component_t& component : segment.Components)
                text << "  component " << FormatGuidText(component.DiskGUID).c_str() << " disk "
                     << component.HardDiskIndex << " " << component.DiskLBAStart << "-" << component.DiskLBAEnd
                     << " at " << component.VolLBAStart << "-" << component.VolLBAEnd << " column "
                     << component.ColumnIndex << "\n";
        }
    }
    return text.str();
}

std::string TextOf(const DumpedLink_t& link) {
    std::ostringstream text;
    text << std::hex << " link\n";
    for (const SparseDumpText_t& extent : link) {
        text << "  extent [" << extent.name << "] " << extent.startLba << "-" << extent.endLba << " block "
             << extent.blockSize << " grain " << extent.grainSize << " offset " << extent.fileOffset << " buckets "
             << extent.bucketCount << " of " << extent.grainsPerBucket << " bytes " << extent.topBitmapBytes << ", "
             << extent.bucketBytes << " top " << HexOf(extent.topBitmap) << "\n";
        for (size_t index = 0; index < extent.buckets.size(); ++index)
            text << "   bucket " << index << " " << HexOf(extent.buckets[index]) << "\n";
    }
    return text.str();
}

std::string TextOf(const SparseInfo_t& sparseInfo) {
    std::string text;
    for (const auto& links : sparseInfo) {
        text += "disk\n";
        for (const auto& link : links) {
            DumpedLink_t same;
            for (const ExtentSparseInfo_t& extent : link) {
                SparseDumpText_t& one = same.emplace_back();
                one.name = extent.ExtentName.c_str();
                one.startLba = extent.ExtentStartLBA;
                one.endLba = extent.ExtentEndLBA;
                one.blockSize = extent.BlockSize;
                one.grainSize = extent.GrainSize;
                one.fileOffset = extent.ExtentFileOffset;
                one.grainsPerBucket = extent.GrainsPerBucket;
                one.bucketCount = extent.BucketCount;
                one.topBitmapBytes = extent.TopBitmapBytes;
                one.bucketBytes = extent.BucketBytes;
                one.topBitmap = BytesOf(extent.TopBitmap);
                for (const CAutoMemory<char>& bucket : extent.Buckets)
                    one.buckets.push_back(BytesOf(bucket));
            }
            text += TextOf(same);
        }
    }
    return text;
}
