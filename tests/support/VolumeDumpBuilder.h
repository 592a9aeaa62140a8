#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "tests/support/SparseDumpText.h"
#include "tests/support/TempDir.h"

// Volume dumps of both versions, put together by their own offsets, and what a reader made of one as text.

constexpr char NoDumpGuid[] = "{00000000-0000-0000-0000-000000000000}";

struct DumpedComponent_t {
    uint32_t hardDisk = 0;  // ffffffff for none
    uint64_t diskLbaStart = 0;
    uint64_t diskLbaEnd = 0;
    uint64_t volLbaStart = 0;
    uint64_t volLbaEnd = 0;
    uint32_t column = 0;
    std::string diskGuid = NoDumpGuid;
};

struct DumpedSegment_t {
    std::vector<DumpedComponent_t> components;
    uint64_t stripeSize = 0;
    uint64_t lbaStart = 0;
    uint64_t lbaEnd = 0;
};

// Of version 1.0 only the first segment goes into the file, and of it only its stripe size and its components.
struct DumpedVolume_t {
    std::string name;
    std::vector<DumpedSegment_t> segments;
    std::string guid = NoDumpGuid;
    char isRaid5 = '0';
    std::string systemId = "07";
    char allDiskFound = '1';
};

// A run of `sectors` sectors of disk `hardDisk` that begins at sector `volumeLba` of its volume.
DumpedComponent_t DumpedPiece(uint32_t hardDisk, uint64_t diskLba, uint64_t volumeLba, uint64_t sectors);

// The extents of one link of a disk's chain.
using DumpedLink_t = std::vector<SparseDumpText_t>;

// A flat extent in blocks of `blockSectors`.
SparseDumpText_t DumpedFlatExtent(const std::string& name, uint64_t startLba, uint64_t endLba, uint64_t blockSectors);

// A sparse extent whose bitmaps, and the numbers that tell of them, follow from `grains`: a character for each grain,
// '1' for one that is there. A bucket without any has no bitmap.
SparseDumpText_t DumpedSparseExtent(const std::string& name, uint64_t startLba, uint64_t endLba, uint64_t grainSectors,
                                    uint64_t grainsPerBucket, const std::string& grains);

// A dump. Without a word it has no volumes and no disks. Damage (PutAt, CutTo) comes last, whatever the order of the
// calls.
class CVolumeDumpBuilder {
public:
    enum class Version_t { Old, Current };  // 1.0 and 1.1

    explicit CVolumeDumpBuilder(Version_t version = Version_t::Current) : m_Version(version) {}

    CVolumeDumpBuilder& Volume(const DumpedVolume_t& volume);
    CVolumeDumpBuilder& Disk(const std::vector<DumpedLink_t>& links);

    // Other values than those that the content has.
    CVolumeDumpBuilder& Header(const std::string& signature);
    CVolumeDumpBuilder& Footer(const std::string& signature);
    CVolumeDumpBuilder& VolumeCount(const std::string& text);
    CVolumeDumpBuilder& DiskCount(const std::string& text);
    CVolumeDumpBuilder& PutAt(size_t offset, const std::string& bytes);
    CVolumeDumpBuilder& CutTo(size_t sizeBytes);

    std::string Bytes() const;
    std::string WriteTo(const CTempDir& dir, const std::string& name = "dump") const {
        return dir.Write(name, Bytes());
    }

    // Where the number of disks stands, in a file without damage.
    size_t DisksOffset() const { return VolumesPart().size(); }

private:
    std::string VolumesPart() const;
    std::string VolumeBytes(const DumpedVolume_t& volume) const;
    std::string DisksPart() const;

    Version_t m_Version;
    std::vector<DumpedVolume_t> m_Volumes;
    std::vector<std::vector<DumpedLink_t>> m_Disks;
    std::optional<std::string> m_Header;
    std::optional<std::string> m_Footer;
    std::optional<std::string> m_VolumeCount;
    std::optional<std::string> m_DiskCount;
    std::vector<std::pair<size_t, std::string>> m_Damage;
    std::optional<size_t> m_CutTo;
};

// All that these hold, a line for each record, so that two of them can be compared and a difference is told.
std::string TextOf(const std::vector<LVM_Volume_t>& volumes);
std::string TextOf(const SparseInfo_t& sparseInfo);

// The same of what a builder was told.
std::string TextOf(const DumpedLink_t& link);
