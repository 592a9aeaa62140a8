#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/ImageFile.h"
#include "tests/support/LdmBuilder.h"

// Groups of Windows dynamic disks.

// A run of sectors of a disk of the group, counted from the start of its data.
struct LdmPiece_t {
    size_t disk;
    uint64_t start;
    uint64_t sectors;
    uint64_t volumeStart = 0;
    std::optional<uint64_t> column = std::nullopt;
};

// One half of a mirror, or all of any other volume.
struct LdmPlex_t {
    std::vector<LdmPiece_t> pieces;
    std::optional<uint64_t> stripeSectors = std::nullopt;
    uint8_t layout = 2;
    std::string state = "ACTIVE";
};

struct LdmVolume_t {
    std::vector<LdmPlex_t> plexes;
    std::string type = "gen";
    std::string state = "ACTIVE";
    uint8_t partitionType = 7;
    uint64_t sectors = 0;   // what its users see
    std::string content{};  // its first bytes, zeros behind them; empty for sectors of which no two are the same
};

// Volumes of the usual kinds. Pieces of a span lie one behind the other, those of stripes are the columns
// in their order, all of the same whole number of stripes.
LdmVolume_t LdmSpanned(std::vector<LdmPiece_t> pieces);
LdmVolume_t LdmSimple(const LdmPiece_t& piece);
LdmVolume_t LdmStriped(uint64_t stripeSectors, std::vector<LdmPiece_t> pieces);
LdmVolume_t LdmRaid5(uint64_t stripeSectors, std::vector<LdmPiece_t> pieces);
LdmVolume_t LdmMirrored(const std::vector<LdmPiece_t>& halves);

// A group of disks, each with the same records, and with the content of the volumes on them: parity of a
// RAID-5 volume and both halves of a mirror included. What no volume has is a hole.
//
//     const CLdmGroupBuilder group = CLdmGroupBuilder(2).Volume(LdmSpanned({{0, 0, 100}, {1, 50, 200}}));
//     group.Image(1).WriteTo(dir, "disk1");
//
// To break one disk: `group.Image(1, group.Database(1).PutInVmdb(16, BigEndianBytes(2, 2)))`.
class CLdmGroupBuilder {
public:
    explicit CLdmGroupBuilder(size_t disks) : m_Disks(disks) {}

    CLdmGroupBuilder& Volume(const LdmVolume_t& volume);
    CLdmGroupBuilder& DiskSectors(uint64_t sectors);  // of every disk: 4096, so that 1985 are for volumes
    CLdmGroupBuilder& Revision(int revision, LdmGuidOrder_t order = LdmGuidOrder_t::OfText);  // of disks and group: 3
    CLdmGroupBuilder& OnGpt();                                // disks with a GPT, so that 1756 sectors are for volumes
    CLdmGroupBuilder& Fragments(uint8_t type, size_t least);  // of all records of that type
    CLdmGroupBuilder& Serial(uint8_t serial);                 // tells the GUIDs of one group from those of another

    CLdmDatabaseBuilder Database(size_t disk) const;
    CImageFile Image(size_t disk) const { return Image(disk, Database(disk)); }
    CImageFile Image(size_t disk, const CLdmDatabaseBuilder& database) const;

    std::string DiskGuid(size_t disk) const;
    std::string VolumeGuid(size_t volume) const;
    std::string VolumeBytes(size_t volume) const;
    uint64_t DataStart() const { return m_IsGpt ? 2292 : 63; }

private:
    void AddRecords(CLdmDatabaseBuilder& database) const;
    void AddVolume(CLdmDatabaseBuilder& database, size_t volume, uint64_t& nextId) const;
    void AddPlex(CLdmDatabaseBuilder& database, const LdmPlex_t& plex, const std::string& name, uint64_t volumeId,
                 uint64_t& nextId) const;
    size_t FragmentsOf(uint8_t type) const;
    void PutPlex(CImageFile& image, size_t disk, const LdmPlex_t& plex, const std::string& content) const;
    std::string Guid(char kind, size_t number) const;

    size_t m_Disks;
    uint64_t m_Sectors = 4096;
    int m_Revision = 3;
    LdmGuidOrder_t m_Order = LdmGuidOrder_t::OfText;
    bool m_IsGpt = false;
    uint8_t m_Serial = 0;
    std::vector<std::pair<uint8_t, size_t>> m_Fragments;
    std::vector<LdmVolume_t> m_Volumes;
};
