#include "VirtualServer/VMInfo/detail/LDMVblkSlots.h"

#include <cstring>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr uint32_t SmallestVblk = 24;  // the head and what stands in front of the fields
constexpr char MissingSignature[] = "LDM partition VBLK signature is missing. VMDB is corrupted";

}  // namespace

CZuError WalkVblkSlots(CByteView area, const LDM_vmdb_t& vmdb, std::vector<VblkSlot_t>& slots) {
    if (vmdb.VBLKSize < SmallestVblk)
        return Refusal(MissingSignature);
    uint64_t at = 0;
    for (uint32_t sequence = vmdb.VBLKFirstOffset / vmdb.VBLKSize; sequence < vmdb.LastVBLKSeq; ++sequence) {
        VblkSlot_t slot{};
        if (!area.Holds(at, vmdb.VBLKSize) || !area.Get(at, slot.head) ||
            std::memcmp(slot.head.signature, "VBLK", sizeof(slot.head.signature)) != 0)
            return Refusal(MissingSignature);
        if (slot.head.sequence != sequence)
            return Refusal(CZuString::Format("VBLK sequence number does not match. Expecting {1} got {2}", sequence,
                                             static_cast<uint32_t>(slot.head.sequence)));
        slot.bytes = CByteView(area.Data() + at, vmdb.VBLKSize);
        if (slot.head.fragmentCount != 0)
            slots.push_back(slot);
        at += vmdb.VBLKSize;
    }
    return CZuError();
}
