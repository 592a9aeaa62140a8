#include "agent/detail/VolumeLayout.h"

#include <algorithm>

#include "agent/VolumeMap.h"
#include "foundation/detail/CheckedMath.h"

namespace {

constexpr char Unsound[] = "its records hold places that no disk can have";

uint64_t SectorsOf(const LVM_Component_t& piece) {
    return piece.DiskLBAEnd - piece.DiskLBAStart + 1;
}

// The sum of places and sizes has to be countable in bytes, so that nothing behind this wraps.
bool HasSoundPlaces(const LVM_Component_t& piece) {
    uint64_t bytes = 0;
    return piece.DiskLBAStart <= piece.DiskLBAEnd && piece.VolLBAStart <= piece.VolLBAEnd &&
           SectorsToBytes(piece.DiskLBAEnd, bytes) && SectorsToBytes(piece.VolLBAEnd, bytes);
}

bool HaveSoundPlaces(const std::vector<LVM_Component_t>& pieces) {
    return std::all_of(pieces.begin(), pieces.end(), HasSoundPlaces);
}

size_t CountMissing(const LVM_Segment_t& segment) {
    return static_cast<size_t>(
        std::count_if(segment.Components.begin(), segment.Components.end(),
                      [](const LVM_Component_t& each) { return each.HardDiskIndex == NoHardDisk; }));
}

}  // namespace

std::string LayOutJoined(std::vector<LVM_Component_t> pieces, LVM_Volume_t& layout) {
    if (pieces.empty())
        return "it has no pieces";
    if (!HaveSoundPlaces(pieces))
        return Unsound;
    std::stable_sort(pieces.begin(), pieces.end(), [](const LVM_Component_t& left, const LVM_Component_t& right) {
        return left.VolLBAStart < right.VolLBAStart;
    });
    for (const LVM_Component_t& piece : pieces) {
        const uint64_t start = VolumeSectors(layout);
        if (piece.VolLBAStart != start)
            return "its pieces don't follow each other: one begins at sector " + std::to_string(piece.VolLBAStart) +
                   " where sector " + std::to_string(start) + " is next";
        LVM_Segment_t& segment = layout.Segments.emplace_back();
        segment.LBAStart = start;
        segment.LBAEnd = piece.VolLBAEnd;
        segment.Components.push_back(piece);
    }
    return {};
}

std::string LayOutColumns(std::vector<LVM_Component_t> pieces, uint64_t stripeSectors, LVM_Volume_t& layout) {
    if (pieces.size() < (layout.IsRaid5 != 0 ? 3 : 1))
        return "it has too few columns";
    if (!HaveSoundPlaces(pieces))
        return Unsound;
    std::stable_sort(pieces.begin(), pieces.end(), [](const LVM_Component_t& left, const LVM_Component_t& right) {
        return left.ColumnIndex < right.ColumnIndex;
    });
    const uint64_t columnSectors = SectorsOf(pieces.front());
    uint64_t allSectors = 0;
    uint64_t bytes = 0;
    if (!CheckedMul(columnSectors, pieces.size(), allSectors) ||
        !CheckedAdd(allSectors, VolumeSectors(layout), bytes) || !SectorsToBytes(bytes, bytes))
        return Unsound;
    if (stripeSectors == 0 || columnSectors % stripeSectors != 0)
        return "its columns of " + std::to_string(columnSectors) + " sectors aren't whole stripes of " +
               std::to_string(stripeSectors);
    for (size_t column = 0; column < pieces.size(); ++column) {
        if (static_cast<size_t>(pieces[column].ColumnIndex) != column || SectorsOf(pieces[column]) != columnSectors)
            return "its columns aren't one piece of the same size each";
    }
    LVM_Segment_t segment;
    segment.StripeSize = stripeSectors;
    segment.LBAStart = VolumeSectors(layout);
    segment.LBAEnd = segment.LBAStart + allSectors - (layout.IsRaid5 != 0 ? columnSectors : 0) - 1;
    segment.Components = std::move(pieces);
    layout.Segments.push_back(std::move(segment));
    return {};
}

void AddMissing(VolumeInfo_t& volume, const MissingDisk_t& disk) {
    const bool isKnown = std::any_of(volume.missing.begin(), volume.missing.end(),
                                     [&](const MissingDisk_t& each) { return each.id == disk.id; });
    if (!isKnown)
        volume.missing.push_back(disk);
}

bool IsReadable(const LVM_Volume_t& layout) {
    const size_t spare = layout.IsRaid5 != 0 ? 1 : 0;
    return std::all_of(layout.Segments.begin(), layout.Segments.end(),
                       [&](const LVM_Segment_t& segment) { return CountMissing(segment) <= spare; });
}

std::string ProblemOf(const VolumeInfo_t& volume) {
    if (IsReadable(volume.layout))
        return {};
    std::string text;
    for (const MissingDisk_t& disk : volume.missing)
        text += (text.empty() ? "" : ", ") + disk.id + (disk.name.empty() ? "" : " (" + disk.name + ")");
    return (volume.missing.size() == 1 ? "a disk of it is missing: " : "disks of it are missing: ") + text;
}
