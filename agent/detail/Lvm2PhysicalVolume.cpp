#include "agent/detail/Lvm2PhysicalVolume.h"

#include <algorithm>
#include <cstring>

#include "VirtualServer/VMInfo/detail/LVM2Format.h"
#include "agent/ErrorText.h"
#include "agent/detail/Crc32.h"
#include "foundation/detail/ByteView.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr uint32_t CrcStart = 0xF597A6CF;
constexpr uint64_t LabelSectors = 4;
constexpr size_t MostAreas = 5;
constexpr uint64_t AreaHeaderBytes = 512;
constexpr uint64_t LargestText = uint64_t{128} << 20U;  // a hundred times any real one
constexpr uint32_t IgnoredLocation = 1;
constexpr char LabelType[] = "LVM2 001";
constexpr char AreaMagic[] = " LVM2 x[5A%r0N*>";

uint32_t CrcOf(const char* bytes, size_t size) {
    CCrc32 crc(CrcStart);
    crc.Add(bytes, size);
    return crc.State();
}

bool IsZero(const Lvm2Location_t& location) {
    return location.offset == 0 && location.size == 0;
}

// Reads below the start of one slice of a disk, and no byte outside of it.
class CSlice {
public:
    CSlice(CWholeDisk& disk, uint64_t startSector, uint64_t sectors)
        : m_Disk(disk), m_Start(FileOffsetOfSector(startSector)), m_Bytes(FileOffsetOfSector(sectors)) {}

    bool Read(uint64_t offset, char* buffer, uint64_t size) {
        uint64_t place = 0;
        return offset <= m_Bytes && size <= m_Bytes - offset && CheckedAdd(m_Start, offset, place) &&
               !m_Disk.Read(place, buffer, static_cast<uint32_t>(size)).IsErrorSet();
    }

    // Memory follows the bytes that are there.
    bool Append(uint64_t offset, uint64_t size, std::string& text) {
        constexpr uint64_t pieceBytes = uint64_t{1} << 20U;
        for (uint64_t done = 0; done < size;) {
            const uint64_t piece = std::min(size - done, pieceBytes);
            const size_t before = text.size();
            text.resize(before + static_cast<size_t>(piece));
            if (!Read(offset + done, text.data() + before, piece))
                return false;
            done += piece;
        }
        return true;
    }

private:
    CWholeDisk& m_Disk;
    uint64_t m_Start;
    uint64_t m_Bytes;
};

bool IsLabel(const char (&sector)[SectorSize], uint64_t index) {
    Lvm2Label_t label{};
    std::memcpy(&label, sector, sizeof(label));
    constexpr size_t crcFrom = offsetof(Lvm2Label_t, offset);
    return std::memcmp(label.signature, "LABELONE", sizeof(label.signature)) == 0 && label.sector == index &&
           std::memcmp(label.type, LabelType, sizeof(label.type)) == 0 &&
           CrcOf(sector + crcFrom, sizeof(sector) - crcFrom) == label.crc;
}

bool FindLabel(CSlice& slice, char (&sector)[SectorSize]) {
    for (uint64_t index = 0; index < LabelSectors; ++index) {
        if (!slice.Read(index << SectorShift, sector, sizeof(sector)))
            return false;
        if (IsLabel(sector, index))
            return true;
    }
    return false;
}

// One list of locations of the label's sector, up to its pair of zeros.
std::vector<Lvm2Location_t> TakeLocations(CByteView sector, uint64_t& at) {
    std::vector<Lvm2Location_t> locations;
    Lvm2Location_t location{};
    while (sector.Get(at, location)) {
        at += sizeof(location);
        if (IsZero(location))
            break;
        locations.push_back(location);
    }
    return locations;
}

// Reads the text that an area's first location tells. The area behind its header is a ring: a text goes
// on at the ring's start. An area without a text, or one that is to be ignored, gives none.
CZuError ReadAreaText(CSlice& slice, const Lvm2Location_t& area, std::string& text) {
    char header[AreaHeaderBytes];
    Lvm2AreaHeader_t fields{};
    Lvm2RawLocation_t location{};
    if (!slice.Read(area.offset, header, sizeof(header)))
        return Refusal("it can't be read");
    std::memcpy(&fields, header, sizeof(fields));
    std::memcpy(&location, header + sizeof(fields), sizeof(location));
    if (std::memcmp(header + offsetof(Lvm2AreaHeader_t, magic), AreaMagic, sizeof(AreaMagic) - 1) != 0 ||
        CrcOf(header + sizeof(fields.crc), sizeof(header) - sizeof(fields.crc)) != fields.crc)
        return Refusal("its header is damaged");
    if (location.offset == 0 || (location.flags & IgnoredLocation) != 0)
        return CZuError();
    const uint64_t areaBytes = fields.areaSize;
    if (location.offset >= areaBytes || location.size > areaBytes - AreaHeaderBytes || location.size > LargestText)
        return Refusal("its text lies outside of it");
    const uint64_t untilEnd = std::min<uint64_t>(location.size, areaBytes - location.offset);
    if (!slice.Append(area.offset + location.offset, untilEnd, text) ||
        !slice.Append(area.offset + AreaHeaderBytes, location.size - untilEnd, text))
        return Refusal("its text can't be read");
    if (CrcOf(text.data(), text.size()) != location.crc)
        return Refusal("the checksum of its text is wrong");
    return CZuError();
}

}  // namespace

bool ReadLvm2PhysicalVolume(CWholeDisk& disk, const std::string& place, uint64_t startSector, uint64_t sectors,
                            Lvm2PhysicalVolume_t& volume) {
    CSlice slice(disk, startSector, sectors);
    char sector[SectorSize];
    if (!FindLabel(slice, sector))
        return false;
    Lvm2Label_t label{};
    std::memcpy(&label, sector, sizeof(label));
    volume.id.assign(label.pvId, sizeof(label.pvId));
    const CByteView view(sector, sizeof(sector));
    uint64_t at = offsetof(Lvm2Label_t, locations);
    TakeLocations(view, at);  // the data areas, which the text tells better
    std::vector<Lvm2Location_t> areas = TakeLocations(view, at);
    if (areas.size() > MostAreas)
        areas.resize(MostAreas);
    for (const Lvm2Location_t& area : areas) {
        std::string text;
        const CZuError error = ReadAreaText(slice, area, text);
        if (error.IsErrorSet())
            volume.warnings.push_back(place + ": the LVM2 metadata area at byte " + std::to_string(area.offset) +
                                      " isn't used: " + DescribeError(error));
        else if (!text.empty())
            volume.texts.push_back(std::move(text));
    }
    return true;
}

std::string DashedLvm2Id(const std::string& id) {
    constexpr size_t groups[] = {6, 4, 4, 4, 4, 4, 6};
    std::string dashed;
    size_t at = 0;
    for (const size_t size : groups) {
        dashed += (dashed.empty() ? "" : "-") + id.substr(std::min(at, id.size()), size);
        at += size;
    }
    return dashed;
}
