#pragma once

#include <cstdint>

#include "VirtualServer/VMInfo/VHDFormat.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "foundation/detail/ByteView.h"

// A look into the metadata record of a VHD file: where its blocks lie, and which of them the core's
// stream leaves out. The record stays the caller's.
class CVhdRecord {
public:
    // Fails on a record whose parts don't lie inside it.
    CZuError Open(const CAutoMemory<char>& record);

    bool IsFixed() const { return m_IsFixed; }

    // The footer at the file's end, by which the core reads.
    const VHD_FOOTER_t& Footer() const { return m_Footer; }
    uint64_t DiskSectors() const;

    // The core makes a dynamic disk again by the footer's copy at the file's start. False where that
    // copy would make another disk.
    bool CanBeMadeAgain() const { return m_CanBeMadeAgain; }

    // Of a dynamic disk.
    const VhdBlockShape_t& Shape() const { return m_Shape; }
    uint64_t TableEntries() const { return m_Table.Size() / sizeof(Be32_t); }
    uint64_t CountBlocks() const;

    // The file sector at which block `index` begins; `VhdBlockNotAllocated` where there is none.
    uint32_t BlockSector(uint64_t index) const;

    // The first block that the core's rules leave out, because its number times its size with the
    // bitmap lies behind the disk's last sector.
    uint64_t FirstBlockLeftOut() const;

private:
    bool OpenDynamic(CByteReader& body);

    bool m_IsFixed = false;
    bool m_CanBeMadeAgain = true;
    VHD_FOOTER_t m_Footer{};
    VhdBlockShape_t m_Shape;
    CByteView m_Table;
};
