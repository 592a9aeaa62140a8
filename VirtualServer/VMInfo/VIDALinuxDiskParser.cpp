#include "VirtualServer/VMInfo/VIDALinuxDiskParser.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/detail/LVM2Format.h"
#include "VirtualServer/VMInfo/detail/LoggedExceptions.h"
#include "foundation/LgDebug.h"
#include "foundation/detail/ByteView.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "platform/FileSystem.h"

// Finds physical volumes and copies their text out. What the text tells is read in
// VIDALinuxDiskText.cpp.

namespace {

constexpr char Log[] = "VIDALinuxDiskParser";
constexpr uint32_t PieceBytes = 8192;
constexpr uint32_t LabelSectors = 4;
constexpr uint32_t MostLocations = 5;
constexpr uint64_t LargestTextFile = uint64_t{256} << 20U;

using Exception_t = VIDALinuxDiskParserException;

unsigned long long Big(uint64_t number) {
    return number;
}

bool IsZero(const Lvm2Location_t& location) {
    return location.offset == 0 && location.size == 0;
}

// The locations of a label's sector, one behind the other: the data areas up to a pair of zeros, then
// the metadata areas up to another. None is behind the sector's end.
class CLocations {
public:
    explicit CLocations(CByteView label) : m_Label(label) {}

    bool Next(Lvm2Location_t& location) {
        if (!m_Label.Get(m_At, location))
            return false;
        m_At += sizeof(location);
        return !IsZero(location);
    }

private:
    CByteView m_Label;
    uint64_t m_At = offsetof(Lvm2Label_t, locations);
};

// The temporary file is ours alone: whatever stands under its name goes, and no link is followed.
CZuError CreateTextFile(const char* path, CZuFile& file) {
    constexpr int ownerReadsAndWrites = 384;
    RemoveFile(path);  // what can't be removed makes the next step fail
    return file.Open(path, OpenAsBinary | OpenNotInherited | OpenCreating | OpenTruncating | OpenForBoth | OpenOnlyNew,
                     ownerReadsAndWrites);
}

}  // namespace

VIDALinuxDiskParserException::VIDALinuxDiskParserException(uint32_t category, const std::string& message)
    : m_Category(category), m_Message(message.substr(0, 4095)) {}

const char* VIDALinuxDiskParserException::GetErrorMsg() {
    static constexpr const char* words[] = {"SYSTEM", "LVM2", "APPLICATION"};
    m_Text = std::string(m_Category <= Application ? words[m_Category] : "UNKNOWN") + "\t" + m_Message + "  \n ";
    return m_Text.c_str();
}

VIDALinuxDiskParser::VIDALinuxDiskParser(CLVM* lvm) : m_Lvm(lvm) {}

bool VIDALinuxDiskParser::GenerateVolListFromPartitions(const std::vector<LVM_Component_t>& components,
                                                        std::vector<LVM_Volume_t>& volumes, const char* path) {
    try {
        unsigned counter = 0;
        for (const LVM_Component_t& component : components)
            AddSlice(component, path, counter, volumes);
        UpdateLogicalVolInfo(volumes);
        return true;
    } catch (Exception_t& exception) {
        LgDebug().Error(Log, "%s", exception.GetErrorMsg());
    } catch (const std::exception&) {
        LgDebug().Error(Log, "UnHandled exception");
    }
    return false;
}

void VIDALinuxDiskParser::AddSlice(const LVM_Component_t& component, const char* path, unsigned& counter,
                                   std::vector<LVM_Volume_t>& volumes) {
    std::string pvId;
    if (IsDiskSliceLVM2PhysicalVolume(component, pvId, path)) {
        LinuxLVM2MetaDataParser(path);
        UpdatePVInfo(pvId, component);
        return;
    }
    LVM_Volume_t volume;
    std::snprintf(volume.VolName, sizeof(volume.VolName), "%s-%u", "Volume", counter++);
    volume.AllDiskFound = 1;
    LVM_Segment_t segment;
    segment.LBAEnd = component.VolLBAEnd;
    segment.Components.push_back(component);
    volume.Segments.push_back(std::move(segment));
    volumes.push_back(std::move(volume));
}

uint32_t VIDALinuxDiskParser::ReadFromDiskSlice(const LVM_Component_t& component, void* buffer, uint32_t size,
                                                uint64_t offset) {
    uint64_t place = 0;
    CZuError error = Refusal("the place is behind every disk");
    if (SectorsToBytes(component.DiskLBAStart, place) && CheckedAdd(place, offset, place))
        error = m_Lvm->ReadHardDisk(component.HardDiskIndex, place, buffer, size);
    if (!error.IsErrorSet())
        return size;
    LgDebug().Error(Log, "Read from HardDisk:%u failed . Offset :%llu , Size:%u", component.HardDiskIndex, Big(offset),
                    size);
    return 0;
}

bool VIDALinuxDiskParser::IsDiskSliceLVM2PhysicalVolume(const LVM_Component_t& component, std::string& pvId,
                                                        const char* path) {
    return Logged([&] { return ReadPhysicalVolume(component, pvId, path); });
}

bool VIDALinuxDiskParser::ReadPhysicalVolume(const LVM_Component_t& component, std::string& pvId, const char* path) {
    char sector[SectorSize];
    if (!FindLabel(component, sector)) {
        LgDebug().Debug(Log, " Could not find an LVM label on this device");
        return false;
    }
    Lvm2Label_t label{};
    std::memcpy(&label, sector, sizeof(label));
    pvId.assign(label.pvId, sizeof(label.pvId));
    LgDebug().Debug(Log, "PvID : %s", pvId.c_str());
    LgDebug().Debug(Log, "PhysicalVolume DeviceSize : %llu", Big(label.deviceSize));

    CLocations locations(CByteView(sector, sizeof(sector)));
    Lvm2Location_t location{};
    for (uint32_t index = 0; index < MostLocations && locations.Next(location); ++index) {
        if (index == MostLocations)
            throw Exception_t(Exception_t::Lvm2, "Looks like Corrupt Meta Data : Too many data blocks within a PV");
        LgDebug().Debug(Log, "DiskLocn %d -- Offset : %llu \t Size : %llu", static_cast<int>(index),
                        Big(location.offset), Big(location.size));
    }
    CZuFile file;
    if (const CZuError error = CreateTextFile(path, file); error.IsErrorSet()) {
        LgDebug().Error(Log, "Open failed on %s . CZuError : %s", path, error.ConvertToString());
        throw Exception_t(Exception_t::System, "Temp file open failed");
    }
    for (uint32_t index = 0; index < MostLocations && locations.Next(location); ++index) {
        LgDebug().Debug(Log, "MetaData Offset : %llu \t Size : %llu", Big(location.offset), Big(location.size));
        CopyMetadataArea(component, location.offset, file);
    }
    Dropped(file.Close());  // the text is read back at once
    LgDebug().Debug(Log, "Read of MetaData File Successfull");
    return true;
}

// Looks at the first sectors of the slice. A label that names another sector than its own ends the
// search, in spite of the words.
bool VIDALinuxDiskParser::FindLabel(const LVM_Component_t& component, char (&sector)[512]) {
    for (uint32_t index = 0; index < LabelSectors; ++index) {
        const uint64_t offset = uint64_t{index} * SectorSize;
        if (ReadFromDiskSlice(component, sector, SectorSize, offset) != SectorSize) {
            LgDebug().Error(Log, "ReadFromDiskSlice failed . DiskSliceIndex : %u , Size : 512 , Offset : %u",
                            component.HardDiskIndex, static_cast<unsigned>(offset));
            throw Exception_t(Exception_t::Application, "Read of LVM label sector failed");
        }
        Lvm2Label_t label{};
        std::memcpy(&label, sector, sizeof(label));
        if (std::memcmp(label.signature, "LABELONE", sizeof(label.signature)) != 0)
            continue;
        LgDebug().Debug(Log, "Label seems to be on sector %u", index);
        LgDebug().Debug(Log, "Sector : %llu\n", Big(label.sector));
        const bool isOwn = label.sector == index;
        if (!isOwn)
            LgDebug().Debug(Log, "Label Sector did not match , Continue looking for the label");
        LgDebug().Debug(Log, "crc: %u", static_cast<unsigned>(label.crc));
        LgDebug().Debug(Log, "offset: %u", static_cast<unsigned>(label.offset));
        LgDebug().Debug(Log, "LabelType : %s", std::string(label.type, sizeof(label.type)).c_str());
        return isOwn;
    }
    return false;
}

void VIDALinuxDiskParser::CopyMetadataArea(const LVM_Component_t& component, uint64_t areaOffset, CZuFile& file) {
    char bytes[PieceBytes];
    if (ReadFromDiskSlice(component, bytes, sizeof(bytes), areaOffset) != sizeof(bytes)) {
        LgDebug().Error(Log, "ReadFromDiskSlice failed . DiskSliceIndex : %u , Size : %u , Offset : %llu",
                        component.HardDiskIndex, PieceBytes, Big(areaOffset));
        throw Exception_t(Exception_t::Application, "Read of LVM MetaDataHeader failed");
    }
    Lvm2AreaHeader_t header{};
    std::memcpy(&header, bytes, sizeof(header));
    const char* const magic = header.magic;
    if (std::memcmp(magic, " LVM2", sizeof(header.magic)) != 0) {
        LgDebug().Error(Log, "magic value in MdaHedaer is not what we expect . Offset: %llu", Big(areaOffset));
        LgDebug().Error(Log, "Magic Value: %c%c%c%c%c", magic[0], magic[1], magic[2], magic[3], magic[4]);
        throw Exception_t(Exception_t::Lvm2, "UnExpected Magic Value in Metadata Header");
    }
    LgDebug().Debug(Log, "Size of this MDA is %llu", Big(header.areaSize));
    const CByteView area(bytes, sizeof(bytes));
    uint64_t total = 0;
    Lvm2RawLocation_t location{};
    for (uint64_t at = sizeof(header); total <= header.areaSize && area.Get(at, location); at += sizeof(location)) {
        LgDebug().Debug(Log, "RawLocnOffset : %llu\tRawLocnSize : %llu", Big(location.offset), Big(location.size));
        if (location.offset == 0 && location.size == 0)
            return;
        if (!CheckedAdd(total, location.size, total))
            total = ~uint64_t{0};
        CopyText(component, areaOffset + location.offset, location.size, file);
    }
}

// The file grows with the bytes that are there, and to no more than any real text.
void VIDALinuxDiskParser::CopyText(const LVM_Component_t& component, uint64_t offset, uint64_t size, CZuFile& file) {
    char piece[PieceBytes];
    for (uint64_t done = 0; done < size;) {
        const auto count = static_cast<uint32_t>(std::min<uint64_t>(size - done, sizeof(piece)));
        uint64_t fileBytes = 0;
        const bool isTooLong = file.Size(fileBytes).IsErrorSet() || fileBytes + count > LargestTextFile;
        if (isTooLong || ReadFromDiskSlice(component, piece, count, offset + done) != count) {
            LgDebug().Error(Log, "ReadFromDiskSlice failed . DiskSliceIndex : %u , Size : %llu , Offset : %llu",
                            component.HardDiskIndex, Big(count), Big(offset + done));
            throw Exception_t(Exception_t::Application, "Read of LVM MetaData failed");
        }
        if (const CZuError error = WriteFileAt(file, 0, 2, piece, count, nullptr); error.IsErrorSet()) {
            LgDebug().Error(Log, "Meta Data Write to the Tmp File Failed . CZuError : %s", error.ConvertToString());
            throw Exception_t(Exception_t::Application, "Meta Data Write to the Tmp File Failed");
        }
        done += count;
    }
}
