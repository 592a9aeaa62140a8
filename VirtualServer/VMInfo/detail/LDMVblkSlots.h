#pragma once

#include <vector>

#include "VirtualServer/VMInfo/LDMDatabase.h"
#include "VirtualServer/VMInfo/detail/LDMFormat.h"
#include "foundation/ZuError.h"
#include "foundation/detail/ByteView.h"
#include "platform/Export.h"

// One slot that is in use, of an area that the caller keeps.
struct VblkSlot_t {
    CByteView bytes;
    LdmVblkHead_t head{};
};

// Makes `slots` the slots of `area` that are in use, in their order. Each slot has to have its signature
// and its number, the unused ones too.
DISKSTREAM_EXPORT CZuError WalkVblkSlots(CByteView area, const LDM_vmdb_t& vmdb, std::vector<VblkSlot_t>& slots);
