#pragma once

#include <cstdint>
#include <string>

#include "VirtualServer/VMInfo/LDMDatabase.h"
#include "agent/WholeDisk.h"
#include "foundation/ZuError.h"

// What a dynamic disk tells of itself and of its disk group.
struct DynamicDisk_t {
    LDM_DB_t db;
    bool hasHead = false;  // the disk's own facts are there
    uint64_t commit = 0;   // which change of the database it holds
    bool isWhole = false;  // the records are there, and sound
};

// Reads the database, whose records may lie in fragments, from the private header at `privateHeadLba`,
// or from one of its copies where that is damaged. Where it fails behind the header, `dynamic` has the
// disk's own facts all the same.
[[nodiscard]] CZuError ReadDynamicDisk(CWholeDisk& disk, uint64_t privateHeadLba, DynamicDisk_t& dynamic);

// The GUID of a record that keeps it as bytes in the order of its text, as those of revision 4 and
// volumes do.
GUID GuidInTextOrder(const GUID& bytes);

// A disk's or disk group's, whatever its record's revision.
GUID GuidOfDisk(const CLDM_VBLK& record);
GUID GuidOfGroup(const CLDM_VBLK& record);
