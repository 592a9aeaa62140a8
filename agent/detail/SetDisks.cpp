#include "agent/detail/SetDisks.h"

#include <algorithm>
#include <cstring>

#include "agent/ErrorText.h"
#include "agent/detail/VhdRecord.h"
#include "foundation/detail/Bitmap.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

CSetDisks::CSetDisks(CBackupSetReader& set) : m_Set(set), m_Cache(set) {
    for (const SetDisk_t& disk : set.Disks()) {
        Disk_t& added = m_Disks.emplace_back();
        added.name = disk.imageName;
        uint64_t firstSector = 0;
        for (const SetStream_t& stream : set.StreamsOf(disk.id)) {
            Extent_t& extent = added.extents.emplace_back();
            extent.stream = &stream;
            extent.firstByte = FileOffsetOfSector(firstSector);
            extent.bytes = FileOffsetOfSector(stream.diskSectors);
            if (!CheckedAdd(firstSector, stream.diskSectors, firstSector))
                break;  // behind this no disk has bytes
        }
    }
}

CZuError CSetDisks::ReadDisk(uint32_t diskIndex, uint64_t offset, char* buffer, uint32_t length) {
    Disk_t& disk = m_Disks[diskIndex];
    for (uint32_t done = 0; done < length;) {
        const uint64_t at = offset + done;
        const auto extent = std::find_if(disk.extents.begin(), disk.extents.end(), [&](const Extent_t& each) {
            return each.firstByte <= at && at - each.firstByte < each.bytes;
        });
        if (extent == disk.extents.end())
            return Refusal(CZuString::Format("{1}: {2} has no byte {3}", m_Set.Path(), disk.name, at));
        const uint64_t inExtent = at - extent->firstByte;
        const auto piece = static_cast<uint32_t>(std::min<uint64_t>(extent->bytes - inExtent, length - done));
        uint32_t got = 0;
        ZU_RETURN_IF_ERROR(ReadExtent(*extent, inExtent, buffer + done, piece, got));
        done += got;
    }
    return CZuError();
}

// `done` is at least 1.
CZuError CSetDisks::ReadExtent(Extent_t& extent, uint64_t offset, char* buffer, uint32_t length, uint32_t& done) {
    return IsDynamicVhd(extent.stream->diskType) ? ReadVhd(extent, offset, buffer, length, done)
                                                 : ReadPlain(extent, offset, buffer, length, done);
}

CZuError CSetDisks::ReadPlain(const Extent_t& extent, uint64_t offset, char* buffer, uint32_t length, uint32_t& done) {
    const uint64_t blockBytes = FileOffsetOfSector(extent.stream->blockSectors);
    const uint64_t inBlock = offset % blockBytes;
    done = static_cast<uint32_t>(std::min<uint64_t>(blockBytes - inBlock, length));
    return ReadBlock(*extent.stream, offset / blockBytes, inBlock, buffer, done);
}

CZuError CSetDisks::ReadBlock(const SetStream_t& stream, uint64_t number, uint64_t inBlock, char* buffer,
                              uint32_t length) {
    const CAutoMemory<char>* block = nullptr;
    ZU_RETURN_IF_ERROR(m_Cache.Get(stream, number, block));
    if (block == nullptr)
        std::memset(buffer, 0, length);
    else if (!CByteView(block->GetPtr(), block->GetSize()).CopyOut(inBlock, buffer, length))
        return Lost(stream, number);
    return CZuError();
}

// A sector whose bit in the block's bitmap is clear is zeros.
CZuError CSetDisks::ReadVhd(Extent_t& extent, uint64_t offset, char* buffer, uint32_t length, uint32_t& done) {
    ZU_RETURN_IF_ERROR(FindShape(extent));
    const uint64_t dataBytes = uint64_t{extent.shape->dataSectors} << SectorShift;
    const uint64_t bitmapBytes = uint64_t{extent.shape->bitmapSectors} << SectorShift;
    const uint64_t number = offset / dataBytes;
    const uint64_t inData = offset % dataBytes;
    const CAutoMemory<char>* block = nullptr;
    ZU_RETURN_IF_ERROR(m_Cache.Get(*extent.stream, number, block));
    done = static_cast<uint32_t>(std::min<uint64_t>(dataBytes - inData, length));
    if (block == nullptr) {
        std::memset(buffer, 0, done);
        return CZuError();
    }
    if (block->GetSize() != bitmapBytes + dataBytes)
        return Lost(*extent.stream, number);
    const CByteView bitmap(block->GetPtr(), bitmapBytes);
    const uint64_t sector = inData >> SectorShift;
    const uint64_t equal = CountEqualBits(bitmap, sector, extent.shape->dataSectors - sector);
    done = static_cast<uint32_t>(std::min<uint64_t>((equal << SectorShift) - inData % SectorSize, done));
    if (HasBit(bitmap, sector))
        std::memcpy(buffer, block->GetPtr() + bitmapBytes + inData, done);
    else
        std::memset(buffer, 0, done);
    return CZuError();
}

CZuError CSetDisks::FindShape(Extent_t& extent) {
    if (extent.shape.has_value())
        return CZuError();
    CAutoMemory<char> bytes;
    CVhdRecord record;
    ZU_RETURN_IF_ERROR(m_Set.ReadRecord(*extent.stream, bytes));
    ZU_RETURN_IF_ERROR(ErrorAt(m_Set.Path(), record.Open(bytes)));
    const VhdBlockShape_t shape = record.Shape();
    if (record.IsFixed() || shape.dataSectors == 0 ||
        uint64_t{shape.bitmapSectors} + shape.dataSectors != extent.stream->blockSectors)
        return m_Set.Damaged("the block size of " + extent.stream->fileName + " isn't that of its record");
    extent.shape = shape;
    return CZuError();
}

CZuError CSetDisks::Lost(const SetStream_t& stream, uint64_t number) const {
    return m_Set.Damaged(CZuString::Format("block {1} of {2} isn't whole", number, stream.fileName).c_str());
}
