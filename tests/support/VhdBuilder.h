#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/ImageFile.h"
#include "tests/support/TempDir.h"

// Builds VHD files, fixed, dynamic and differencing. Sound by default, with right checksums: a
// dynamic file is footer copy, header, table, locators, blocks in the order in which they were
// added, footer. What isn't put is a hole that costs nothing. Damage comes last.
class CVhdBuilder {
public:
    static CVhdBuilder Fixed(uint64_t sectors) { return CVhdBuilder(2, sectors); }
    static CVhdBuilder Dynamic(uint64_t sectors) { return CVhdBuilder(3, sectors); }
    static CVhdBuilder Differencing(uint64_t sectors) { return CVhdBuilder(4, sectors); }

    // A fixed disk: bytes from a sector of the disk on.
    CVhdBuilder& Data(uint64_t sector, std::string bytes);

    // A disk with a table. Blocks are of 8 sectors unless told otherwise.
    CVhdBuilder& BlockSize(uint32_t bytes);
    CVhdBuilder& Entries(uint32_t count);          // instead of as many as the disk has blocks
    CVhdBuilder& BitmapSectors(uint64_t sectors);  // instead of as many as hold a bit per sector

    // Block `index`, filled or with its own bytes, which are filled up with zeros. All its bits are set.
    CVhdBuilder& Block(uint64_t index, char fill);
    CVhdBuilder& Block(uint64_t index, std::string bytes);
    CVhdBuilder& Bitmap(uint64_t index, std::string bytes);  // of a block that was added
    CVhdBuilder& Locator(size_t slot, const std::string& code, std::string data);

    // Other bytes in both footers, or in the header; the checksums fit them.
    CVhdBuilder& Footer(size_t offset, std::string bytes);
    CVhdBuilder& Header(size_t offset, std::string bytes);
    CVhdBuilder& CurrentSize(uint64_t bytes) { return Footer(48, BigEndianBytes(bytes, 8)); }

    // Damage: bytes of the finished file, its size.
    CVhdBuilder& PutAt(uint64_t offset, std::string bytes);
    CVhdBuilder& PutEntry(uint64_t index, uint32_t sector);
    CVhdBuilder& PutEndFooter(size_t offset, const std::string& bytes) {
        return PutAt(FooterPosition() + offset, bytes);
    }
    CVhdBuilder& CutTo(uint64_t sizeBytes);  // also grows, by a hole

    std::string Bytes() const { return Image().Bytes(); }
    std::string WriteTo(const CTempDir& dir, const std::string& name = "disk.vhd") const {
        return Image().WriteTo(dir, name);
    }

    // What the finished file holds, without the damage.
    std::string FooterBytes() const;
    std::string HeaderBytes() const;
    std::string TableBytes() const;
    std::string LocatorBytes() const;              // of all locators, one behind the other
    std::string BlockBytes(uint64_t index) const;  // its bitmap in front
    std::string BlockBitmap(uint64_t index) const;
    uint64_t SectorsPerBlock() const { return m_BlockSize / 512; }
    uint64_t BitmapSectors() const;
    uint64_t BlockSectors() const { return BitmapSectors() + SectorsPerBlock(); }

    // Where it lies.
    uint64_t TableOffset() const { return 512 + 1024; }
    uint64_t LocatorOffset(size_t slot) const;
    uint64_t BlockSector(uint64_t index) const;  // of the file
    uint64_t FooterPosition() const;

    // The record that a backup keeps of the undamaged file, put together from the parts above.
    std::string Record() const;

private:
    struct Block_t {
        uint64_t index;
        std::string bytes;
        char fill;
        std::optional<std::string> bitmap;
    };
    struct Locator_t {
        std::string code;
        std::string data;
    };
    using Pieces_t = std::vector<std::pair<uint64_t, std::string>>;

    CVhdBuilder(uint32_t footerType, uint64_t sectors) : m_Type(footerType), m_Sectors(sectors), m_Locators(8) {}

    bool IsFixed() const { return m_Type == 2; }
    uint32_t EntryCount() const;
    uint64_t FirstBlockSector() const;
    const Block_t& BlockAt(uint64_t index) const;
    CImageFile Image() const;
    void PutTables(CImageFile& image) const;
    void PutBlocks(CImageFile& image) const;

    uint32_t m_Type;
    uint64_t m_Sectors;
    uint32_t m_BlockSize = 4096;
    std::optional<uint32_t> m_Entries;
    std::optional<uint64_t> m_BitmapSectors;
    Pieces_t m_Data;
    std::vector<Block_t> m_Blocks;
    std::vector<Locator_t> m_Locators;
    Pieces_t m_FooterChanges;
    Pieces_t m_HeaderChanges;
    Pieces_t m_Damage;
    std::optional<uint64_t> m_CutTo;
};
