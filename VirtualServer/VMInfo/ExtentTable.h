#pragma once

#include <cstdint>
#include <vector>

#include "VirtualServer/VMInfo/DiskTypes.h"
#include "platform/Export.h"

// The stretches of a disk that a hypervisor told of, with a search that remembers where it was: a caller that reads on
// finds each sector in a step or two.
class DISKSTREAM_EXPORT CExtentTable {
public:
    void Clear();
    void Append(const ExtentTableEntry_t& entry) { m_Entries.push_back(entry); }
    uint32_t GetCount() const { return static_cast<uint32_t>(m_Entries.size()); }

    // The sector from `sector` on, itself included, that is the first in the table; `NoSector` for none.
    uint64_t FindSector(uint64_t sector);

    // How many sectors from `sector` on, at least 1 and at most `mostSectors`, are in the table, or out of it, as it
    // is.
    uint64_t CountAlike(uint64_t sector, uint64_t mostSectors, bool& isInside);

    static constexpr uint64_t NoSector = ~uint64_t{0};

private:
    std::vector<ExtentTableEntry_t> m_Entries;
    uint32_t m_Position = 0;
};
