// The input is a disk file of any kind, as the agent meets it: what it is, where its parts lie, its
// partition tables and volumes. What is accepted has to read as far as it says that it goes.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "agent/ExtentStream.h"
#include "agent/VolumeMap.h"
#include "agent/VolumeSet.h"
#include "fuzz/support/Demand.h"
#include "fuzz/support/MemoryFiles.h"

namespace {

constexpr char DiskName[] = "disk";
constexpr char DriveName[] = "\\\\?\\PhysicalDrivedisk";  // by which the core opens a raw one
constexpr uint64_t HoleBytes = 64 * 1024;
constexpr uint64_t MostBlocks = 32;
constexpr size_t MostVolumes = 16;

// Descriptors make the agent write to a directory of the machine, and have a target of their own.
bool LooksLikeDescriptor(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), std::min<size_t>(size, 512));
    return text.rfind("# Disk Descriptor", 0) == 0 || text.find("createType=") != std::string::npos;
}

void CheckStream(const DiskExtent_t& extent) {
    CExtentStream stream;
    if (stream.Open(extent).IsErrorSet())
        return;
    CAutoMemory<char> bytes;
    uint64_t next = 0;
    for (uint64_t count = 0; count < MostBlocks; ++count) {
        std::optional<BlockPlace_t> place;
        if (stream.Next(bytes, place).IsErrorSet() || !place.has_value())
            return;
        Demand(place->number >= next, "blocks come in the order of their numbers");
        Demand(place->sectors != 0 && place->sectors <= stream.BlockSectors(), "a block has the stream's size at most");
        Demand(bytes.GetSize() >= uint64_t{place->sectors} * 512, "a block's bytes are there");
        next = place->number + 1;
    }
}

void CheckVolume(CVolumeSet& set, const VolumeInfo_t& volume) {
    const uint64_t sizeBytes = VolumeSectors(volume.layout) * 512;
    Demand(VolumeSectors(volume.layout) == volume.sectors, "a plain volume's layout has its size");
    char buffer[700];
    for (const uint64_t offset : {uint64_t{0}, uint64_t{300}, sizeBytes - std::min<uint64_t>(sizeBytes, 700)}) {
        VolumePiece_t piece;
        if (!FindVolumePiece(volume.layout, offset, sizeof(buffer), piece))
            continue;
        Demand(piece.bytes != 0 && piece.bytes <= sizeof(buffer), "a piece is no longer than asked for");
        const CZuError error = set.Read(volume, offset, buffer, sizeof(buffer));
        Demand(error.IsErrorSet() || offset + sizeof(buffer) <= sizeBytes, "no read goes on behind the volume");
    }
}

void TryDisk() {
    ImageOptions_t options;
    options.rawUnlessKnown = true;
    CDiskImage image;
    if (!image.Open(DiskName, options).IsErrorSet()) {
        for (const DiskExtent_t& extent : image.Extents())
            CheckStream(extent);
    }
    CVolumeSet set;
    if (set.Open({DiskName}, options).IsErrorSet())
        return;
    for (size_t index = 0; index < std::min(set.Volumes().size(), MostVolumes); ++index)
        CheckVolume(set, set.Volumes()[index]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (LooksLikeDescriptor(data, size))
        return 0;
    CMemoryFiles files;
    for (const uint64_t holeBytes : {uint64_t{0}, HoleBytes}) {
        files.Put(DiskName, data, size, holeBytes);
        files.Put(DriveName, data, size, holeBytes);
        TryDisk();
    }
    Demand(files.OpenCount() == 0, "every file is closed in the end");
    return 0;
}
