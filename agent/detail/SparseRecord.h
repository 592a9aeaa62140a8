#pragma once

#include <cstdint>
#include <string>

#include "VirtualServer/VMInfo/VmdkSparseFormat.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "foundation/detail/ByteView.h"

// A look into the metadata record of a sparse extent, to tell what the core would make of it. The
// record stays the caller's.
class CSparseRecord {
public:
    // Fails on a record whose parts don't lie inside it.
    CZuError Open(const CAutoMemory<char>& record);

    bool IsCowd() const { return m_IsCowd; }
    uint64_t CapacitySectors() const { return m_CapacitySectors; }
    uint64_t GrainSectors() const { return m_GrainSectors; }

    // The core recreates an extent only where every directory entry names a table.
    bool HasEmptyDirectoryEntries() const;

    // Grains that the active tables have.
    uint64_t CountGrains() const;

private:
    CZuError OpenHosted(CByteView body);
    CZuError OpenCowd(CByteView body);

    bool m_IsCowd = false;
    bool m_RedundantIsActive = false;
    uint64_t m_CapacitySectors = 0;
    uint64_t m_GrainSectors = 0;
    CByteView m_RedundantDirectory;
    CByteView m_Directory;
    CByteView m_RedundantTables;
    CByteView m_Tables;
};
