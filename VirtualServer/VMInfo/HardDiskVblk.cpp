#include <algorithm>
#include <cstring>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/detail/LDMFormat.h"
#include "VirtualServer/VMInfo/detail/LDMVblkSlots.h"
#include "VirtualServer/VMInfo/detail/LDMVblkText.h"
#include "VirtualServer/VMInfo/detail/LDMVblkTree.h"
#include "VirtualServer/VMInfo/detail/TableReader.h"
#include "foundation/LgDebug.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

// The records of a dynamic disk's database, from the disk to the tree that they make.

namespace {

constexpr uint32_t MostFragments = 4;

// Puts the fragments of the records together. Callers rely on the group being told by the slot's own
// number, which no other slot has: a record of two fragments or more is never found whole.
CZuError AssembleRecords(const std::vector<VblkSlot_t>& slots, std::vector<CByteView>& records) {
    for (const VblkSlot_t& slot : slots) {
        if (slot.head.fragment != 0)
            continue;
        const uint32_t count = slot.head.fragmentCount;
        if (count > MostFragments)
            return Refusal(CZuString::Format("Number of VBLK records seems to be incorrect {1}", count));
        if (count > 1)
            return Refusal(CZuString::Format("LDM partition VBLK Group Number {1} and record number {2} Not found",
                                             static_cast<uint32_t>(slot.head.sequence), 1));
        records.push_back(slot.bytes);
    }
    return CZuError();
}

}  // namespace

CZuError CHardDiskReader::ParseLDMVBLK(uint64_t firstLBA, const LDM_vmdb_t& vmdb, CLDM_VBLK& group) {
    CAutoMemory<char> area;
    std::vector<VblkSlot_t> slots;
    std::vector<CByteView> assembled;
    ZU_RETURN_IF_ERROR(ReadVblkArea(firstLBA, vmdb, area));
    ZU_RETURN_IF_ERROR(WalkVblkSlots(CByteView(area.GetPtr(), area.GetSize()), vmdb, slots));
    ZU_RETURN_IF_ERROR(AssembleRecords(slots, assembled));
    group = CLDM_VBLK();
    if (assembled.empty()) {
        LgDebug().Debug("CHardDiskReader::ParseLDMVBLK", "No VBLKs found. Database seems to be empty");
        return CZuError();
    }
    ZU_RETURN_IF_ERROR(BuildVblkTree(assembled, group));
    return CZuError();
}

// Reads the area in as few reads as memory that follows the disk's bytes allows: one for a usual one.
CZuError CHardDiskReader::ReadVblkArea(uint64_t firstLBA, const LDM_vmdb_t& vmdb, CAutoMemory<char>& area) {
    constexpr uint32_t pieceBytes = 1U << 20U;
    const uint32_t sizeBytes = vmdb.LastVBLKSeq * vmdb.VBLKSize;  // the 32-bit product that passed the size test
    uint64_t start = 0;
    if (!SectorsToBytes(firstLBA, start) || !CheckedAdd(start, vmdb.VBLKFirstOffset, start))
        start = ~uint64_t{0};  // the read there fails
    if (sizeBytes > TableCeilingBytes)
        return Refusal(OutOfMemory);
    uint32_t room = 0;
    for (uint32_t done = 0; done < sizeBytes;) {
        const uint32_t piece = std::min(sizeBytes - done, pieceBytes);
        if (done + piece > room) {
            room = std::min(std::max(done + piece, 2 * room), sizeBytes);  // doubling keeps the copying linear
            if (area.ReAlloc(room) == nullptr)
                return Refusal(OutOfMemory);
        }
        ZU_RETURN_IF_ERROR(ReadHardDiskData(start + done, area.GetPtr() + done, piece));
        done += piece;
    }
    return CZuError();
}

// For callers that hold a slot of the usual size, or as many as its head says that the record takes.
CZuError CHardDiskReader::ParseVBLKStructure(CLDM_VBLK& out, char* record) {
    constexpr uint32_t usualBytes = 128;
    constexpr uint32_t headBytes = 16;
    LdmVblkHead_t head{};
    std::memcpy(&head, record, sizeof(head));
    const uint32_t fragments = std::clamp<uint32_t>(head.fragmentCount, 1, MostFragments);
    return ParseVblkRecord(CByteView(record, (usualBytes - headBytes) * fragments + headBytes), out);
}
