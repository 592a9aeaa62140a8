#include "VirtualServer/VMInfo/detail/LDMVblkText.h"

#include <cstring>

#include "VirtualServer/VMInfo/PartitionTables.h"
#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/detail/LDMFormat.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr uint8_t HasStripeSize = 0x10;
constexpr uint8_t HasColumnIndex = 0x08;

CZuError TakeGuidText(CVblkFields& fields, GUID& guid) {
    char text[256] = {};
    ZU_RETURN_IF_ERROR(fields.GetLDMVarStr(text, sizeof(text) - 1));
    return ParseGuidText(text, &guid) != 0 ? CZuError() : Refusal("Failed to parse disk guid in LDM parser");
}

CZuError TakeRawGuid(CVblkFields& fields, GUID& guid) {
    return fields.TakeBytes(&guid, sizeof(guid));
}

CZuError TakeBig64(CVblkFields& fields, uint64_t& number) {
    Be64_t onDisk;
    ZU_RETURN_IF_ERROR(fields.TakeBytes(&onDisk, sizeof(onDisk)));
    number = onDisk;
    return CZuError();
}

CZuError TakeComponent(CVblkFields& fields, uint8_t flags, CLDM_VBLK::Component_t& component) {
    ZU_RETURN_IF_ERROR(fields.GetLDMVarStr(component.State, sizeof(component.State)));
    ZU_RETURN_IF_ERROR(fields.TakeBytes(&component.Layout, sizeof(component.Layout)));
    ZU_RETURN_IF_ERROR(fields.Skip(4));
    ZU_RETURN_IF_ERROR(fields.GetLDMVarNum(component.ChildCount));
    ZU_RETURN_IF_ERROR(fields.Skip(16));
    ZU_RETURN_IF_ERROR(fields.GetLDMVarNum(component.ParentId));
    ZU_RETURN_IF_ERROR(fields.Skip(1));
    return (flags & HasStripeSize) != 0 ? fields.GetLDMVarNum(component.StripeSize) : CZuError();
}

CZuError TakePartition(CVblkFields& fields, uint8_t flags, CLDM_VBLK::Partition_t& partition) {
    ZU_RETURN_IF_ERROR(fields.Skip(12));
    ZU_RETURN_IF_ERROR(TakeBig64(fields, partition.Start));
    ZU_RETURN_IF_ERROR(TakeBig64(fields, partition.VolumeOffset));
    ZU_RETURN_IF_ERROR(fields.GetLDMVarNum(partition.Size));
    ZU_RETURN_IF_ERROR(fields.GetLDMVarNum(partition.ParentId));
    ZU_RETURN_IF_ERROR(fields.GetLDMVarNum(partition.DiskId));
    return (flags & HasColumnIndex) != 0 ? fields.GetLDMVarNum(partition.ColumnIndex) : CZuError();
}

CZuError TakeVolume(CVblkFields& fields, CLDM_VBLK::Volume_t& volume) {
    char dropped[255];
    ZU_RETURN_IF_ERROR(fields.GetLDMVarStr(volume.VolumeType, sizeof(volume.VolumeType)));
    ZU_RETURN_IF_ERROR(fields.GetLDMVarStr(dropped, sizeof(dropped)));
    ZU_RETURN_IF_ERROR(fields.TakeBytes(volume.State, sizeof(volume.State)));
    ZU_RETURN_IF_ERROR(fields.Skip(5));
    ZU_RETURN_IF_ERROR(fields.GetLDMVarNum(volume.ChildCount));
    ZU_RETURN_IF_ERROR(fields.Skip(16));
    ZU_RETURN_IF_ERROR(fields.GetLDMVarNum(volume.Size));
    ZU_RETURN_IF_ERROR(fields.Skip(4));
    ZU_RETURN_IF_ERROR(fields.TakeBytes(&volume.PartitionType, sizeof(volume.PartitionType)));
    return TakeRawGuid(fields, volume.VolumeGUID);
}

CZuError TakeTypeFields(CVblkFields& fields, CLDM_VBLK& record) {
    switch (record.Type) {
    case LdmRecord_Component: return TakeComponent(fields, record.Flags, record.Component);
    case LdmRecord_Partition: return TakePartition(fields, record.Flags, record.Partition);
    case LdmRecord_Disk3:
        ZU_RETURN_IF_ERROR(TakeGuidText(fields, record.Disk.GUID));
        return fields.GetLDMVarStr(record.Disk.AlternateName, sizeof(record.Disk.AlternateName));
    case LdmRecord_DiskGroup3: return TakeGuidText(fields, record.DiskGroup.GUID);
    case LdmRecord_Disk4: return TakeRawGuid(fields, record.Disk.GUID);
    case LdmRecord_DiskGroup4: return TakeRawGuid(fields, record.DiskGroup.GUID);
    case LdmRecord_Volume: return TakeVolume(fields, record.Volume);
    default: return Refusal(CZuString::Format("Unknown VBLK type {1}", static_cast<int>(record.Type)));
    }
}

}  // namespace

CZuError CVblkFields::GetLDMVarStr(char* text, uint32_t most) {
    std::memset(text, 0, most);
    uint32_t length = 0;
    ZU_RETURN_IF_ERROR(TakeLength(length));
    if (length > most)
        return Refusal(CZuString::Format("Variable string length {1} is greater than exptected {2}", length, most));
    ZU_RETURN_IF_ERROR(TakeBytes(text, length));
    return CZuError();
}

CZuError CVblkFields::GetLDMVarNum(uint64_t& number) {
    constexpr uint32_t most = 8;
    uint8_t bytes[most] = {};
    uint32_t length = 0;
    ZU_RETURN_IF_ERROR(TakeLength(length));
    if (length > most)
        return Refusal(CZuString::Format("Variable string length {1} is greater than exptected max of 8", length));
    ZU_RETURN_IF_ERROR(TakeBytes(bytes, length));
    number = 0;
    for (uint32_t index = 0; index < length; ++index)
        number = (number << 8U) | bytes[index];
    return CZuError();
}

CZuError CVblkFields::TakeBytes(void* bytes, uint32_t size) {
    if (!m_Record.CopyOut(m_At, bytes, size))
        return RunOut(size);
    m_At += size;
    return CZuError();
}

CZuError CVblkFields::Skip(uint32_t size) {
    if (!m_Record.Holds(m_At, size))
        return RunOut(size);
    m_At += size;
    return CZuError();
}

CZuError CVblkFields::TakeLength(uint32_t& length) {
    U8_t onDisk{};
    ZU_RETURN_IF_ERROR(TakeBytes(&onDisk, sizeof(onDisk)));
    length = onDisk;
    return CZuError();
}

CZuError CVblkFields::RunOut(uint64_t size) const {
    return Refusal(CZuString::Format("Variable string length {1} is greater than exptected {2}",
                                     static_cast<unsigned long long>(size),
                                     static_cast<unsigned long long>(m_Record.From(m_At).Size())));
}

CZuError ParseVblkRecord(CByteView bytes, CLDM_VBLK& record) {
    record = CLDM_VBLK();
    LdmVblkHead_t head{};
    if (!bytes.Get(0, head))
        return Refusal("LDM partition VBLK signature is missing. VMDB is corrupted");
    record.Flags = head.flags;
    record.Type = head.type;
    CVblkFields fields(bytes);
    ZU_RETURN_IF_ERROR(fields.GetLDMVarNum(record.ObjectId));
    ZU_RETURN_IF_ERROR(fields.GetLDMVarStr(record.Name, sizeof(record.Name)));
    ZU_RETURN_IF_ERROR(TakeTypeFields(fields, record));
    return CZuError();
}
