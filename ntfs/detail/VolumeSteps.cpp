#include "ntfs/detail/VolumeSteps.h"

#include <algorithm>
#include <bit>

#include "foundation/detail/CheckedMath.h"
#include "ntfs/detail/WithinMemory.h"

int AppendRuns(ATTR_RECORD_HEADER_t* attribute, CAutoMemory<char>& extents, uint64_t startVcn) {
    CAutoMemory<char> added;
    NTFS_RETURN_IF_FAILED(DecodeRuns(attribute, added, startVcn));
    if (added.GetSize() == 0)
        return NtfsOk;
    if (extents.GetSize() == 0) {
        extents = std::move(added);
        return NtfsOk;
    }
    const uint32_t oldSize = extents.GetSize();
    const uint32_t addedBytes = added.GetSize() - uint32_t{sizeof(DATARUN_EXTENTS)};
    if (!GrowBuffer(extents, uint64_t{oldSize} + addedBytes))
        return NtfsOutOfMemory;
    std::memcpy(extents.GetPtr() + oldSize, ExtentsOf(added)->Runs(), addedBytes);
    ExtentsOf(extents)->Count = ExtentsOf(extents)->Count + ExtentsOf(added)->Count;
    return NtfsOk;
}

bool HasName(const ATTR_RECORD_HEADER_t* attribute, const char16_t* text) {
    if (attribute->NameLength == 0)
        return false;
    const char* const name = reinterpret_cast<const char*>(attribute) + attribute->NameOffset;
    for (unsigned index = 0; index < attribute->NameLength; ++index) {
        Le16_t character{};
        std::memcpy(&character, name + size_t{index} * sizeof(character), sizeof(character));
        if (character != text[index])
            return false;
        if (character == 0)
            break;
    }
    return true;
}

ATTR_RECORD_HEADER_t* FindFileName(char* record, uint32_t kind) {
    ATTR_RECORD_HEADER_t* attribute = CDRFileRecord::FindFirstAttr(record, AttrFileName);
    for (; attribute != nullptr; attribute = CDRFileRecord::FindNextAttr(AttrFileName, attribute)) {
        NtfsFileName_t fields{};
        if (ResidentValueOf(attribute).Get(0, fields) && (fields.nameKind == kind || (fields.nameKind & kind) != 0))
            return attribute;
    }
    return nullptr;
}

int CopyFileName(const ATTR_RECORD_HEADER_t* attribute, CAutoMemory<char>& name) {
    NtfsFileName_t fields{};
    if (attribute == nullptr || !ResidentValueOf(attribute).Get(0, fields))
        return NtfsIndexNotFound;
    const CByteView value = ResidentValueOf(attribute);
    const uint32_t bytes = uint32_t{fields.nameLength} * 2;
    if (!value.Holds(sizeof(fields), bytes))
        return NtfsRecordCorrupted;
    name.Alloc(0);
    if (bytes != 0 && name.Alloc(bytes) == nullptr)
        return NtfsOutOfMemory;
    return value.CopyOut(sizeof(fields), name.GetPtr(), bytes) ? NtfsOk : NtfsRecordCorrupted;
}

bool GrowBuffer(CAutoMemory<char>& buffer, uint64_t bytes) {
    if (bytes > NtfsCeilingBytes)
        return false;
    if (bytes > buffer.GetSize() && buffer.GetSize() != 0) {
        // The same room for all sizes of a step, so that within it nothing is copied.
        const uint64_t step = std::max<uint64_t>(std::bit_floor(bytes) / 2, 1);
        const uint64_t roomy = std::min(NtfsCeilingBytes, DivideRoundingUp(bytes, step) * step);
        if (buffer.ReAlloc(static_cast<uint32_t>(roomy)) == nullptr)
            return false;
    }
    return bytes == 0 || buffer.ReAlloc(static_cast<uint32_t>(bytes)) != nullptr;
}
