#include <algorithm>
#include <cstring>

#include "VirtualServer/VMInfo/LVM.h"
#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/detail/SparseDumpRecord.h"
#include "VirtualServer/VMInfo/detail/VolumeDumpFormat.h"
#include "foundation/detail/ErrorHandling.h"
#include "platform/Files.h"

// Writing of volume dumps.

namespace {

constexpr int NewDumpFlags = OpenForBoth | OpenNotInherited | OpenCreating | OpenTruncating | OpenAsBinary;
constexpr int OwnerReadsAndWritesDump = 0600;

char Mark(int32_t isSet) {
    return isSet != 0 ? '1' : '0';
}

void PutGuid(char (&field)[DumpGuidBytes], const GUID& guid) {
    const CZuString text = FormatGuidText(guid);
    std::memcpy(field, text.c_str(), std::min(text.Length(), sizeof(field) - 1));
}

void PutSystemId(char (&field)[3], uint8_t id) {
    constexpr char digits[] = "0123456789ABCDEF";
    field[0] = digits[id >> 4U];
    field[1] = digits[id & 0xFU];
}

template <typename Record> CZuError WriteRecord(CZuFile& out, const Record& record) {
    return WriteWhole(out, &record, sizeof(record));
}

CZuError WriteComponent(CZuFile& out, const LVM_Component_t& component) {
    DumpComponentRecord_t record{};
    PutGuid(record.diskGuid, component.DiskGUID);
    PutDumpNumber(record.diskLbaStart, component.DiskLBAStart);
    PutDumpNumber(record.diskLbaEnd, component.DiskLBAEnd);
    PutDumpNumber(record.volLbaStart, component.VolLBAStart);
    PutDumpNumber(record.volLbaEnd, component.VolLBAEnd);
    PutDumpNumber(record.columnIndex, static_cast<uint32_t>(component.ColumnIndex));
    PutDumpNumber(record.hardDiskIndex, component.HardDiskIndex);
    return WriteRecord(out, record);
}

CZuError WriteSegment(CZuFile& out, const LVM_Segment_t& segment) {
    DumpSegmentRecord_t record{};
    PutDumpNumber(record.stripeSize, segment.StripeSize);
    PutDumpNumber(record.lbaStart, segment.LBAStart);
    PutDumpNumber(record.lbaEnd, segment.LBAEnd);
    PutDumpNumber(record.componentCount, segment.Components.size());
    ZU_RETURN_IF_ERROR(WriteRecord(out, record));
    for (const LVM_Component_t& component : segment.Components)
        ZU_RETURN_IF_ERROR(WriteComponent(out, component));
    return CZuError();
}

CZuError WriteVolume(CZuFile& out, const LVM_Volume_t& volume) {
    DumpVolumeRecord_t record{};
    PutGuid(record.head.guid, volume.VolGUID);
    std::memcpy(record.head.name, volume.VolName, sizeof(record.head.name));
    record.head.isRaid5 = Mark(volume.IsRaid5);
    PutSystemId(record.head.systemId, volume.SystemID);
    record.head.allDiskFound = Mark(volume.AllDiskFound);
    PutDumpNumber(record.segmentCount, volume.Segments.size());
    ZU_RETURN_IF_ERROR(WriteRecord(out, record));
    for (const LVM_Segment_t& segment : volume.Segments)
        ZU_RETURN_IF_ERROR(WriteSegment(out, segment));
    return CZuError();
}

}  // namespace

CZuError CLVM::DumpVolumeInfoToFile(const char* path) const {
    if (path == nullptr)
        return Refusal("Invalid parameter");
    CZuFile out;
    ZU_RETURN_IF_ERROR(out.Open(path, NewDumpFlags, OwnerReadsAndWritesDump));
    ZU_RETURN_IF_ERROR(WriteWhole(out, DumpSignature11, DumpSignatureBytes));
    ZU_RETURN_IF_ERROR(WriteSparseDumpCount(out, static_cast<uint32_t>(m_Volumes.size())));
    for (const LVM_Volume_t& volume : m_Volumes)
        ZU_RETURN_IF_ERROR(WriteVolume(out, volume));
    ZU_RETURN_IF_ERROR(WriteSparseDumpCount(out, static_cast<uint32_t>(m_HardDisks.size())));
    for (const std::unique_ptr<CHardDiskReader>& disk : m_HardDisks)
        ZU_RETURN_IF_ERROR(disk->DumpSparseInfo(out));
    ZU_RETURN_IF_ERROR(WriteWhole(out, DumpSignature11, DumpSignatureBytes));
    ZU_RETURN_IF_ERROR(out.Close());
    return CZuError();
}
