#include <algorithm>
#include <cstring>
#include <ctime>
#include <iterator>
#include <string>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "VirtualServer/VMInfo/PartitionTables.h"
#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/VHDFormat.h"
#include "VirtualServer/VMInfo/detail/TableReader.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "platform/NewGuid.h"

// A new, empty disk around one volume.

namespace {

constexpr uint32_t SectorsBeforeVolume = 63;
constexpr int OwnerReadsAndWrites = 384;
constexpr int FromTheEnd = 2;

struct Geometry_t {
    unsigned int cylinders;
    unsigned int heads;
    unsigned int sectorsPerTrack;
};

Geometry_t GeometryOf(uint64_t sectors) {
    Geometry_t geometry{};
    ComputeCHS(sectors, &geometry.cylinders, &geometry.heads, &geometry.sectorsPerTrack);
    return geometry;
}

// Prints the text behind it through the BIOS and stops: the disk isn't there to boot from.
constexpr uint8_t BootProgram[] = {
    0x31, 0xC0,        // xor ax, ax
    0x8E, 0xD8,        // mov ds, ax
    0xFC,              // cld
    0xBE, 0x19, 0x7C,  // mov si, text
    0xAC,              // next: lodsb
    0x08, 0xC0,        // or al, al
    0x74, 0x09,        // jz stop
    0xB4, 0x0E,        // mov ah, 0x0E
    0xBB, 0x07, 0x00,  // mov bx, 7
    0xCD, 0x10,        // int 0x10
    0xEB, 0xF2,        // jmp next
    0xF4,              // stop: hlt
    0xEB, 0xFD,        // jmp stop
};
static_assert(sizeof(BootProgram) == 0x19, "the text lies right behind the program, at 0x7C00 and its size");
constexpr char BootText[] = "This disk holds data and no system to boot.\r\n";

// Callers rely on the cylinder being one field of ten bits above the six of the sector.
void PutLastCHS(const Geometry_t& geometry, BootRecordSlot_t& slot) {
    const auto word = static_cast<uint16_t>((geometry.sectorsPerTrack & 0x3FU) | (geometry.cylinders & 0x3FFU) << 6U);
    slot.lastCHS[0] = static_cast<uint8_t>(geometry.heads);
    slot.lastCHS[1] = static_cast<uint8_t>(word);
    slot.lastCHS[2] = static_cast<uint8_t>(word >> 8U);
}

BootRecord_t MakeBootRecord(uint64_t volumeSectors) {
    BootRecord_t record{};
    std::memcpy(record.bootProgram, BootProgram, sizeof(BootProgram));
    std::memcpy(record.bootProgram + sizeof(BootProgram), BootText, sizeof(BootText));
    record.diskSignature = 0x41AB2316;
    BootRecordSlot_t& slot = record.slots[0];
    slot.firstCHS[0] = 1;
    slot.firstCHS[1] = 1;
    slot.type = PartitionType_NTFS;
    PutLastCHS(GeometryOf(volumeSectors), slot);
    slot.firstLba = SectorsBeforeVolume;
    slot.sectorCount = static_cast<uint32_t>(volumeSectors);
    record.signature = BootRecordSignature;
    return record;
}

uint32_t ChecksumOf(const VhdFileFooter_t& footer) {
    uint8_t bytes[sizeof(footer)];
    std::memcpy(bytes, &footer, sizeof(footer));
    uint32_t sum = 0;
    for (const uint8_t byte : bytes)
        sum += byte;
    return ~sum;
}

CZuError MakeFooter(uint64_t diskSectors, VhdFileFooter_t& footer) {
    footer = VhdFileFooter_t{};
    std::memcpy(footer.cookie, VhdFooterCookie, sizeof(footer.cookie));
    footer.features = 2;
    footer.fileFormatVersion = VhdFormatVersion;
    footer.dataOffset = ~uint64_t{0};
    footer.timeStamp = static_cast<uint32_t>(std::time(nullptr));  // callers rely on seconds since 1970
    std::memcpy(footer.creatorApplication, "vs  ", sizeof(footer.creatorApplication));
    footer.creatorVersion = 0x00010000;
    footer.creatorHostOS = 0x5769326B;  // "Wi2k"
    footer.originalSize = diskSectors << SectorShift;
    footer.currentSize = diskSectors << SectorShift;
    const Geometry_t geometry = GeometryOf(diskSectors);
    footer.cylinders = static_cast<uint16_t>(geometry.cylinders);
    footer.heads = static_cast<uint8_t>(geometry.heads);
    footer.sectorsPerTrack = static_cast<uint8_t>(geometry.sectorsPerTrack);
    footer.diskType = VhdDiskTypeFixed;
    GUID uniqueId{};
    ZU_RETURN_IF_ERROR(SystemFailure(MakeGuid(uniqueId)));
    std::memcpy(footer.uniqueId, &uniqueId, sizeof(footer.uniqueId));
    footer.checksum = ChecksumOf(footer);
    return CZuError();
}

std::string DescriptorText(uint64_t diskSectors, const char* diskFile) {
    const Geometry_t geometry = GeometryOf(diskSectors);
    return CZuString::Format("# Disk DescriptorFile\n"
                             "version=1\n"
                             "CID=0\n"
                             "parentCID=ffffffff\n"
                             "createType=\"monolithicFlat\"\n"
                             "\n"
                             "# Extent description\n"
                             "RW {1} FLAT \"{2}\" 0\n"
                             "\n"
                             "# The Disk Data Base\n"
                             "#DDB\n"
                             "\n"
                             "ddb.adapterType = \"buslogic\"\n"
                             "ddb.geometry.sectors = \"{3}\"\n"
                             "ddb.geometry.heads = \"{4}\"\n"
                             "ddb.geometry.cylinders = \"{5}\"\n"
                             "ddb.geometry.biosSectors = \"{3}\"\n"
                             "ddb.geometry.biosHeads = \"{4}\"\n"
                             "ddb.geometry.biosCylinders = \"{5}\"\n",
                             diskSectors, SplitFileName(diskFile, nullptr), geometry.sectorsPerTrack, geometry.heads,
                             geometry.cylinders)
        .c_str();
}

CZuError WriteFooter(CZuFile& file, uint64_t diskSectors) {
    VhdFileFooter_t footer;
    ZU_RETURN_IF_ERROR(MakeFooter(diskSectors, footer));
    ZU_RETURN_IF_ERROR(WriteFileAt(file, 0, FromTheEnd, &footer, sizeof(footer), nullptr));
    return CZuError();
}

CZuError WriteDescriptor(const char* name, uint64_t diskSectors, const char* diskFile) {
    const std::string text = DescriptorText(diskSectors, diskFile);
    CZuFile file;
    ZU_RETURN_IF_ERROR(file.Open(name, OpenAsBinary | OpenNotInherited | OpenCreating | OpenTruncating | OpenForBoth,
                                 OwnerReadsAndWrites));
    ZU_RETURN_IF_ERROR(WriteFileAt(file, 0, 0, text.data(), static_cast<unsigned int>(text.size()), nullptr));
    ZU_RETURN_IF_ERROR(file.Close());
    return CZuError();
}

CZuError WriteDisk(uint64_t volumeSectors, const char* diskFile, const char* descriptorFile, ProductType_t product) {
    CZuFile file;
    ZU_RETURN_IF_ERROR(
        file.Open(diskFile, OpenAsBinary | OpenNotInherited | OpenCreating | OpenForBoth, OwnerReadsAndWrites));
    const BootRecord_t record = MakeBootRecord(volumeSectors);
    ZU_RETURN_IF_ERROR(WriteFileAt(file, 0, 0, &record, sizeof(record), nullptr));
    uint64_t diskSectors = 0;
    if (!CheckedAdd(volumeSectors, SectorsBeforeVolume, diskSectors))
        diskSectors = ~uint64_t{0};  // the system words what is too large
    ZU_RETURN_IF_ERROR(file.Truncate(static_cast<int64_t>(FileOffsetOfSector(diskSectors))));
    if (product == VirtualProdType_HyperV)
        ZU_RETURN_IF_ERROR(WriteFooter(file, diskSectors));
    ZU_RETURN_IF_ERROR(file.Close());
    if (product == VirtualProdType_VMware)
        ZU_RETURN_IF_ERROR(WriteDescriptor(descriptorFile, diskSectors, diskFile));
    return CZuError();
}

}  // namespace

CZuError CHardDiskReader::CreateVirtualDisk(uint64_t sectors, const char* diskFile, const char* descriptorFile,
                                            ProductType_t product) {
    if (diskFile == nullptr || descriptorFile == nullptr)
        return Refusal("Invalid input parameters");
    if (product != VirtualProdType_VMware && product != VirtualProdType_HyperV)
        return Refusal(
            CZuString::Format("Not a support product type for this operation {1}", static_cast<int>(product)));
    return WithinMemory(OutOfMemory, [&] { return WriteDisk(sectors, diskFile, descriptorFile, product); });
}
