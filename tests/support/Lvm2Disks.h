#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/HardDisks.h"
#include "tests/support/Lvm2Builder.h"
#include "tests/support/PartitionTableBuilder.h"

// Small physical volumes whose extents hold numbered sectors, and what logical volumes on them hold.

constexpr uint64_t ExtentSectors = 16;
constexpr uint64_t ExtentCount = 64;  // of each physical volume
constexpr uint64_t FirstExtentSector = 64;
constexpr uint64_t PvSectors = FirstExtentSector + ExtentCount * ExtentSectors;
constexpr uint32_t PvPartitionLba = 77;

inline std::string PvName(size_t index) {
    return "pv" + std::to_string(index);
}
inline std::string PvId(size_t index) {
    return Lvm2Id(index + 1);
}

// A group of so many physical volumes, pv0 and so on.
inline CLvm2TextBuilder GroupOf(size_t physicalVolumes, const std::string& name = "vg") {
    CLvm2TextBuilder group(name);
    group.ExtentSectors(ExtentSectors);
    for (size_t index = 0; index < physicalVolumes; ++index)
        group.PhysicalVolume(PvName(index), PvId(index), ExtentCount, FirstExtentSector);
    return group;
}

// The text with another piece, which has to be in it.
inline std::string Replaced(std::string text, const std::string& piece, const std::string& other) {
    const size_t at = text.find(piece);
    EXPECT_NE(std::string::npos, at) << piece;
    return at != std::string::npos ? text.replace(at, piece.size(), other) : text;
}

// With a metadata area in front of its extents.
inline CLvm2Builder PhysicalVolume(size_t index, const std::string& text) {
    Lvm2Area_t area;
    area.size = FirstExtentSector * 512 - area.offset;
    return CLvm2Builder(PvId(index)).Sectors(PvSectors).Text(text).MetadataArea(area);
}

// The sectors of the extents of a physical volume: no two volumes have the same.
inline std::string ExtentsOf(size_t index, uint64_t firstExtent, uint64_t extents) {
    return NumberedSectors((index + 1) * 1000000 + firstExtent * ExtentSectors, extents * ExtentSectors);
}

inline CImageFile WithExtents(CImageFile image, size_t index, uint64_t startLba) {
    image.Put((startLba + FirstExtentSector) * 512, ExtentsOf(index, 0, ExtentCount));
    return image;
}

inline CImageFile WholePv(size_t index, const CLvm2Builder& builder) {
    return WithExtents(builder.Image(), index, 0);
}
inline CImageFile WholePv(size_t index, const std::string& text) {
    return WholePv(index, PhysicalVolume(index, text));
}

inline CImageFile PvInMbr(size_t index, const std::string& text) {
    CImageFile image = CPartitionTableBuilder()
                           .Sectors(PvPartitionLba + PvSectors)
                           .Slot(1, 0x8E, PvPartitionLba, static_cast<uint32_t>(PvSectors))
                           .Image();
    PhysicalVolume(index, text).PutTo(image, PvPartitionLba);
    return WithExtents(image, index, PvPartitionLba);
}

inline CImageFile PvInGpt(size_t index, const std::string& text) {
    const CGptBuilder gpt =
        CGptBuilder().Entry(0, "E6D6D379-F507-44C2-A23C-238F2A3DF928", PvPartitionLba, PvPartitionLba + PvSectors - 1);
    CImageFile image = CPartitionTableBuilder().Sectors(PvPartitionLba + PvSectors + 100).Gpt(gpt).Image();
    PhysicalVolume(index, text).PutTo(image, PvPartitionLba);
    return WithExtents(image, index, PvPartitionLba);
}

// What stripes on these physical volumes and first extents hold, put together sector by sector.
inline std::string StripedContent(const std::vector<std::pair<size_t, uint64_t>>& columns, uint64_t stripeSectors,
                                  uint64_t extentsEach) {
    std::string content;
    for (uint64_t row = 0; row < extentsEach * ExtentSectors / stripeSectors; ++row) {
        for (const auto& [index, firstExtent] : columns) {
            const std::string column = ExtentsOf(index, firstExtent, extentsEach);
            content += column.substr(row * stripeSectors * 512, stripeSectors * 512);
        }
    }
    return content;
}
