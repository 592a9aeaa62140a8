#include "agent/detail/VolumeReader.h"

#include <cstring>

#include "agent/VolumeMap.h"
#include "agent/detail/OutOfMemory.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

// Both hold `bytes` bytes.
void XorInto(char* target, const char* other, uint32_t bytes) {
    constexpr uint32_t wordBytes = sizeof(uint64_t);
    uint32_t at = 0;
    for (; at + wordBytes <= bytes; at += wordBytes) {
        uint64_t left = 0;
        uint64_t right = 0;
        std::memcpy(&left, target + at, wordBytes);
        std::memcpy(&right, other + at, wordBytes);
        left ^= right;
        std::memcpy(target + at, &left, wordBytes);
    }
    for (; at < bytes; ++at)
        target[at] = static_cast<char>(target[at] ^ other[at]);
}

}  // namespace

CZuError CVolumeReader::Read(const VolumeInfo_t& volume, uint64_t offset, char* buffer, uint32_t length) {
    if (!volume.problem.empty())
        return Refusal(volume.name + ": " + volume.problem);
    for (uint32_t done = 0; done < length;) {
        uint32_t bytes = 0;
        ZU_RETURN_IF_ERROR(ReadPiece(volume, offset + done, buffer + done, length - done, bytes));
        done += bytes;
    }
    return CZuError();
}

// From the first copy that has the bytes. Where none has, the first one's error is the one to report.
CZuError CVolumeReader::ReadPiece(const VolumeInfo_t& volume, uint64_t offset, char* target, uint32_t mostBytes,
                                  uint32_t& bytes) {
    CZuError error = ReadCopy(volume.name, volume.layout, offset, target, mostBytes, bytes);
    for (size_t index = 0; error.IsErrorSet() && index < volume.mirrors.size(); ++index) {
        if (!ReadCopy(volume.name, volume.mirrors[index], offset, target, mostBytes, bytes).IsErrorSet())
            return CZuError();
    }
    return error;
}

CZuError CVolumeReader::ReadCopy(const std::string& name, const LVM_Volume_t& layout, uint64_t offset, char* target,
                                 uint32_t mostBytes, uint32_t& bytes) {
    VolumePiece_t piece;
    if (!FindVolumePiece(layout, offset, mostBytes, piece))
        return Refusal(CZuString::Format("{1}: has no byte {2}", name, offset));
    bytes = static_cast<uint32_t>(piece.bytes);
    CZuError error = ReadComponent(name, piece.segment->Components[piece.column], piece.inComponent, target, bytes);
    if (!error.IsErrorSet() || layout.IsRaid5 == 0 || RebuildPiece(name, piece, target).IsErrorSet())
        return error;
    return CZuError();
}

CZuError CVolumeReader::ReadComponent(const std::string& name, const LVM_Component_t& component, uint64_t inComponent,
                                      char* target, uint32_t bytes) {
    if (component.HardDiskIndex >= m_Disks.DiskCount())
        return Refusal(name + ": one of its disks isn't there");
    ZU_RETURN_IF_ERROR(m_Disks.ReadDisk(component.HardDiskIndex, DiskOffsetOf(component, inComponent), target, bytes));
    return CZuError();
}

// The bytes of one column of a RAID-5 volume are those of all others, parity included, exclusive-ored.
CZuError CVolumeReader::RebuildPiece(const std::string& name, const VolumePiece_t& piece, char* target) {
    const auto bytes = static_cast<uint32_t>(piece.bytes);
    if (m_Scratch.Alloc(bytes) == nullptr)
        return Refusal(OutOfMemory);
    std::memset(target, 0, bytes);
    for (size_t column = 0; column < piece.segment->Components.size(); ++column) {
        if (column == piece.column)
            continue;
        ZU_RETURN_IF_ERROR(
            ReadComponent(name, piece.segment->Components[column], piece.inComponent, m_Scratch.GetPtr(), bytes));
        XorInto(target, m_Scratch.GetPtr(), bytes);
    }
    return CZuError();
}
