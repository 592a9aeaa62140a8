#include "VirtualServer/VMInfo/ExtentTable.h"

#include <algorithm>

void CExtentTable::Clear() {
    m_Entries.clear();
    m_Position = 0;
}

// The entries passed over begin at or before `sector` and end before it. So where the walk ends at an entry behind it,
// that one's first sector is the next that the table can hold.
uint64_t CExtentTable::FindSector(uint64_t sector) {
    if (m_Entries.empty())
        return NoSector;
    if (sector < m_Entries[m_Position].firstSector)
        m_Position = 0;
    for (uint32_t index = m_Position; index < GetCount(); ++index) {
        const ExtentTableEntry_t& entry = m_Entries[index];
        if (sector < entry.firstSector)
            return entry.firstSector;
        m_Position = index;
        if (sector <= entry.endSector)
            return sector;
    }
    return NoSector;
}

uint64_t CExtentTable::CountAlike(uint64_t sector, uint64_t mostSectors, bool& isInside) {
    const uint64_t found = FindSector(sector);
    isInside = found == sector;
    const uint64_t sectors =
        isInside ? m_Entries[m_Position].endSector - sector + 1 : found - sector;  // to the end for `NoSector`
    return std::clamp<uint64_t>(sectors, 1, std::max<uint64_t>(mostSectors, 1));
}
