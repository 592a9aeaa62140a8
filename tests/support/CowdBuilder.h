#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/ImageFile.h"
#include "tests/support/TempDir.h"

// An older copy-on-write extent file ("COWD"). Without a word it is a sound file of 64 sectors in
// grains of 1 with one empty table. The parts lie in this order:
//
//     header of 2048 bytes | directory | tables of 4096 entries | grains
//
// All offsets are the builder's own. Damage (Put8 and its like, CutTo) comes last, whatever the
// order of the calls.
class CCowdBuilder {
public:
    CCowdBuilder& Capacity(uint32_t sectors);
    CCowdBuilder& GrainSize(uint32_t sectors);
    CCowdBuilder& Unclean() { return Put32(1648, 1); }

    // Grains lie in the file in the order of these calls, bytes filled up with zeros.
    CCowdBuilder& Grain(uint64_t index, char fill);
    CCowdBuilder& Grain(uint64_t index, std::string bytes);

    // A directory entry without a table is 0, and its table takes no room.
    CCowdBuilder& NoTable(uint64_t directoryIndex);

    // Puts the directory here and the tables and grains behind it, in sectors of the file.
    CCowdBuilder& DirectoryAt(uint32_t sector);

    // Damage: bytes of the finished file, its size.
    CCowdBuilder& Put8(uint64_t offset, uint8_t value);
    CCowdBuilder& Put32(uint64_t offset, uint32_t value);
    CCowdBuilder& PutAt(uint64_t offset, std::string bytes);
    CCowdBuilder& CutTo(uint64_t sizeBytes);  // also grows, by a hole

    CCowdBuilder& Version(uint32_t version) { return Put32(4, version); }
    CCowdBuilder& Flags(uint32_t flags) { return Put32(8, flags); }

    std::string Bytes() const { return Image().Bytes(); }
    std::string WriteTo(const CTempDir& dir, const std::string& name = "cowd.vmdk") const {
        return Image().WriteTo(dir, name);
    }

    // What the finished file holds, without the damage.
    uint32_t DirectoryEntries() const;
    std::string HeaderBytes() const;
    std::string DirectoryBytes() const;
    std::vector<std::string> Tables() const;     // by directory entry, an empty text for no table
    std::vector<uint64_t> TableSectors() const;  // by directory entry, 0 for no table
    uint32_t DirectorySector() const { return m_DirectorySector; }
    uint64_t GrainSector(uint64_t index) const;  // 0 for a hole

    // The record that a backup keeps of the undamaged extent, put together from the parts above.
    std::string Record() const;

private:
    struct Grain_t {
        uint64_t index;
        std::string bytes;
        char fill;
    };

    CImageFile Image() const;
    uint64_t FirstGrainSector() const;

    uint32_t m_Capacity = 64;
    uint32_t m_GrainSize = 1;
    uint32_t m_DirectorySector = 4;
    std::vector<Grain_t> m_Grains;
    std::set<uint64_t> m_NoTable;
    std::vector<std::pair<uint64_t, std::string>> m_Damage;
    std::optional<uint64_t> m_CutTo;
};
