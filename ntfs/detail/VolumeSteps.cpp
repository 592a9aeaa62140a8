#include "ntfs/detail/VolumeSteps.h"

#include <algorithm>

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

bool GrowBuffer(CAutoMemory<char>& buffer, uint64_t bytes) {
    if (bytes > NtfsCeilingBytes)
        return false;
    const uint64_t roomy = std::min(NtfsCeilingBytes, buffer.GetSize() + uint64_t{buffer.GetSize()} / 2);
    if (bytes > buffer.GetSize() && roomy > bytes && buffer.ReAlloc(static_cast<uint32_t>(roomy)) == nullptr)
        return false;
    return bytes == 0 || buffer.ReAlloc(static_cast<uint32_t>(bytes)) != nullptr;
}
