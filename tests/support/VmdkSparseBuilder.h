#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/ImageFile.h"
#include "tests/support/TempDir.h"

// Which of the two copies of the tables a change goes to.
enum class TableCopy_t { Both, Redundant, Primary };

// A hosted sparse extent file ("KDMV"). Without a word it is a sound file of 256 sectors in grains
// of 8 with one empty table in each copy. The parts lie in this order:
//
//     header | descriptor | redundant directory | its tables | directory | its tables | grains
//
// All offsets are the builder's own. Damage (Put8 and its like, CutTo) comes last, whatever the
// order of the calls.
class CVmdkSparseBuilder {
public:
    // What the disk is.
    CVmdkSparseBuilder& Capacity(uint64_t sectors);
    CVmdkSparseBuilder& GrainSize(uint64_t sectors);
    CVmdkSparseBuilder& Flags(uint32_t flags);  // 1 by default
    CVmdkSparseBuilder& RedundantIsActive();    // sets flag 2
    CVmdkSparseBuilder& Unclean();
    CVmdkSparseBuilder& Descriptor(std::string text);  // filled up with zeros to whole sectors

    // What the grains hold: a grain of one character, or these bytes and zeros behind them. Grains
    // lie in the file in the order of these calls. A grain that only one copy has is a hole to the
    // other.
    CVmdkSparseBuilder& Grain(uint64_t index, char fill, TableCopy_t copy = TableCopy_t::Both);
    CVmdkSparseBuilder& Grain(uint64_t index, std::string bytes, TableCopy_t copy = TableCopy_t::Both);

    // Where the tables are. A directory entry without a table is 0, and its table takes no room.
    CVmdkSparseBuilder& NoTable(uint64_t directoryIndex, TableCopy_t copy = TableCopy_t::Both);
    CVmdkSparseBuilder& OneTableForAll();   // all entries of a directory name its first table
    CVmdkSparseBuilder& TablesInReverse();  // the last directory entry's table lies first
    CVmdkSparseBuilder& GapBetweenTables(uint64_t sectors);

    // Damage: bytes of the finished file, its size.
    CVmdkSparseBuilder& Put8(uint64_t offset, uint8_t value);
    CVmdkSparseBuilder& Put32(uint64_t offset, uint32_t value);
    CVmdkSparseBuilder& Put64(uint64_t offset, uint64_t value);
    CVmdkSparseBuilder& PutAt(uint64_t offset, std::string bytes);
    CVmdkSparseBuilder& CutTo(uint64_t sizeBytes);  // also grows, by a hole

    CVmdkSparseBuilder& Version(uint32_t version) { return Put32(4, version); }

    std::string Bytes() const { return Image().Bytes(); }
    std::string WriteTo(const CTempDir& dir, const std::string& name = "sparse.vmdk") const {
        return Image().WriteTo(dir, name);
    }

    // What the finished file holds, without the damage.
    uint64_t GrainBytes() const { return m_GrainSize * 512; }
    uint64_t DirectoryEntries() const;
    std::string HeaderBytes() const;
    std::string DescriptorBytes() const;
    std::string DirectoryBytes(TableCopy_t copy) const;

    // The tables that a directory names, in its order; an empty text for an entry of 0.
    std::vector<std::string> Tables(TableCopy_t copy) const;

    // Where it lies, in sectors of the file.
    uint64_t DirectorySector(TableCopy_t copy) const;
    std::vector<uint64_t> TableSectors(TableCopy_t copy) const;  // by directory entry, 0 for no table
    uint64_t GrainSector(uint64_t index) const;                  // 0 for a hole

    // The record that a backup keeps of the undamaged extent, put together from the parts above.
    std::string Record() const;

private:
    struct Grain_t {
        uint64_t index;
        std::string bytes;
        char fill;
        TableCopy_t copy;
    };

    // One copy of the tables, in sectors of the file.
    struct CopyLayout_t {
        uint64_t directory;
        std::vector<uint64_t> tables;
        uint64_t end;
    };

    CImageFile Image() const;
    void PutTables(CImageFile& image, TableCopy_t copy) const;
    void PutGrains(CImageFile& image) const;
    bool HasTable(uint64_t directoryIndex, TableCopy_t copy) const;
    CopyLayout_t Layout(TableCopy_t copy) const;
    uint64_t DescriptorSectors() const;
    uint64_t FirstGrainSector() const;

    uint64_t m_Capacity = 256;
    uint64_t m_GrainSize = 8;
    uint32_t m_Flags = 1;
    uint8_t m_Unclean = 0;
    std::string m_Descriptor;
    std::vector<Grain_t> m_Grains;
    std::set<uint64_t> m_NoTable[2];
    bool m_OneTableForAll = false;
    bool m_TablesInReverse = false;
    uint64_t m_GapSectors = 0;
    std::vector<std::pair<uint64_t, std::string>> m_Damage;
    std::optional<uint64_t> m_CutTo;
};
