#include "agent/detail/VhdFacts.h"

#include <algorithm>
#include <cstring>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "agent/ErrorText.h"
#include "agent/detail/Utf16Text.h"
#include "agent/detail/VmdkExtentCheck.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr uint32_t LargestNameBytes = 64U << 10U;

// The one's complement of the sum of all bytes but the checksum's own.
template <typename Record> bool HasRightChecksum(const Record& record, uint32_t checksum) {
    uint8_t bytes[sizeof(record)];
    std::memcpy(bytes, &record, sizeof(record));
    uint32_t sum = 0;
    for (const uint8_t byte : bytes)
        sum += byte;
    for (unsigned shift = 0; shift < 32; shift += 8)
        sum -= (checksum >> shift) & 0xFFU;
    return ~sum == checksum;
}

// Identifiers are compared and shown as the file's bytes are, most significant first.
std::string IdentifierText(const uint8_t (&bytes)[16]) {
    GUID guid{};
    guid.Data1 = static_cast<uint32_t>(bytes[0]) << 24U | static_cast<uint32_t>(bytes[1]) << 16U |
                 static_cast<uint32_t>(bytes[2]) << 8U | bytes[3];
    guid.Data2 = static_cast<uint16_t>(bytes[4] << 8U | bytes[5]);
    guid.Data3 = static_cast<uint16_t>(bytes[6] << 8U | bytes[7]);
    std::copy(bytes + 8, bytes + 16, guid.Data4);
    return FormatGuidText(guid).c_str();
}

CZuError ReadFooter(CZuFile& file, VhdFacts_t& facts) {
    ZU_RETURN_IF_ERROR(file.Size(facts.fileBytes));
    if (facts.fileBytes < sizeof(VhdFileFooter_t))
        return Refusal("is too short for a VHD");
    VhdFileFooter_t footer;
    ZU_RETURN_IF_ERROR(ReadFileAt(file, facts.fileBytes - sizeof(footer), 0, &footer, sizeof(footer), nullptr));
    if (std::memcmp(footer.cookie, VhdFooterCookie, sizeof(footer.cookie)) != 0)
        return Refusal("is a VHD without a footer at its end: it was cut short, or is being written");
    if (!HasRightChecksum(footer, footer.checksum))
        facts.warnings.emplace_back("the checksum of its footer is wrong");
    ConvertFooterFromNetToHost(footer, facts.footer);
    return CZuError();
}

CZuError CheckFooter(VhdFacts_t& facts) {
    if (facts.footer.fileFormatVersion != VhdFormatVersion)
        return Refusal(CZuString::Format("is a VHD of format version {1}, and only 1.0 can be read",
                                         facts.footer.fileFormatVersion));
    facts.diskType = DiskTypeOfVhd(facts.footer.diskType);
    if (facts.diskType == NoDiskType)
        return Refusal(CZuString::Format("is a VHD of type {1}, which nobody knows", facts.footer.diskType));
    if (facts.footer.currentSize % SectorSize != 0 || facts.footer.currentSize > uint64_t{INT64_MAX})
        return Refusal(CZuString::Format("is a VHD whose disk is said to have {1} bytes, which no disk has",
                                         facts.footer.currentSize));
    facts.diskSectors = facts.footer.currentSize / SectorSize;
    facts.uniqueId = IdentifierText(facts.footer.uniqueId);
    if (facts.diskType == DiskType_VhdFixed && facts.footer.currentSize > facts.fileBytes - sizeof(VhdFileFooter_t))
        return Refusal(CZuString::Format("holds {1} bytes where the disk needs {2}: it is cut short, or is a raw disk "
                                         "that ends with an old VHD's footer (--type raw)",
                                         facts.fileBytes - sizeof(VhdFileFooter_t), facts.footer.currentSize));
    return CZuError();
}

CZuError ReadHeader(CZuFile& file, VhdFacts_t& facts) {
    VhdFileDynamicHeader_t header;
    ZU_RETURN_IF_ERROR(ReadFileAt(file, facts.footer.dataOffset, 0, &header, sizeof(header), nullptr));
    if (std::memcmp(header.cookie, VhdDynamicHeaderCookie, sizeof(header.cookie)) != 0)
        return Refusal("is a VHD whose header isn't where its footer says");
    if (!HasRightChecksum(header, header.checksum))
        facts.warnings.emplace_back("the checksum of its header is wrong");
    ConvertDynHdrFromNetToHost(header, facts.header);
    return CZuError();
}

// The published layout rounds the bitmap up to whole sectors. The core rounds down, which is the
// same for every block size that is written in practice.
CZuError CheckShape(VhdFacts_t& facts) {
    const uint32_t blockBytes = facts.header.blockSize;
    facts.shape = ShapeOfVhdBlock(blockBytes);
    const uint64_t published = DivideRoundingUp(DivideRoundingUp(facts.shape.dataSectors, 8), SectorSize);
    if (blockBytes == 0 || blockBytes % SectorSize != 0 || published != facts.shape.bitmapSectors ||
        uint64_t{facts.shape.bitmapSectors} + facts.shape.dataSectors > LargestGrainSectors)
        return Refusal(CZuString::Format("is a VHD with blocks of {1} bytes, which can't be read; convert it first, "
                                         "with: qemu-img convert -O vpc IN OUT",
                                         blockBytes));
    const uint64_t needed = DivideRoundingUp(facts.diskSectors, facts.shape.dataSectors);
    if (facts.header.maxTableEntries < needed)
        return Refusal(CZuString::Format("is a VHD whose table has {1} entries where its disk needs {2}",
                                         facts.header.maxTableEntries, needed));
    return CZuError();
}

// A name that can't be read is one less to look for.
void AddLocatorNames(CZuFile& file, uint32_t platform, VhdFacts_t& facts) {
    for (const VhdParentLocator_t& locator : facts.header.parentLocators) {
        if (locator.platformCode != platform || locator.platformDataLength == 0 ||
            locator.platformDataLength > LargestNameBytes)
            continue;
        std::string bytes(locator.platformDataLength, '\0');
        const CZuError error = ReadFileAt(file, locator.platformDataOffset, 0, bytes.data(),
                                          static_cast<unsigned int>(bytes.size()), nullptr);
        if (!error.IsErrorSet())
            facts.parentNames.push_back(Utf8FromUtf16(bytes, ByteOrder_t::LittleEndian));
    }
}

void ReadParent(CZuFile& file, VhdFacts_t& facts) {
    facts.parentUniqueId = IdentifierText(facts.header.parentUniqueId);
    AddLocatorNames(file, VhdPlatformRelativePath, facts);
    AddLocatorNames(file, VhdPlatformAbsolutePath, facts);
    const std::string name(facts.header.parentUnicodeName, sizeof(facts.header.parentUnicodeName));
    facts.parentNames.push_back(Utf8FromUtf16(name, ByteOrder_t::BigEndian));
    const auto isEmpty = [](const std::string& each) { return each.empty(); };
    facts.parentNames.erase(std::remove_if(facts.parentNames.begin(), facts.parentNames.end(), isEmpty),
                            facts.parentNames.end());
}

CZuError ReadFacts(const std::string& path, VhdFacts_t& facts) {
    CZuFile file;
    ZU_RETURN_IF_ERROR(file.Open(path.c_str(), OpenAsBinary | OpenNotInherited, 0));
    ZU_RETURN_IF_ERROR(ReadFooter(file, facts));
    ZU_RETURN_IF_ERROR(CheckFooter(facts));
    if (facts.diskType == DiskType_VhdFixed)
        return CZuError();
    ZU_RETURN_IF_ERROR(ReadHeader(file, facts));
    ZU_RETURN_IF_ERROR(CheckShape(facts));
    if (facts.diskType == DiskType_VhdDifferencing)
        ReadParent(file, facts);
    return CZuError();
}

}  // namespace

CZuError ReadVhdFacts(const std::string& path, VhdFacts_t& facts) {
    facts = VhdFacts_t();
    return ErrorAt(path, ReadFacts(path, facts));
}

DiskType_t DiskTypeOfVhd(uint32_t footerType) {
    switch (footerType) {
    case VhdDiskTypeFixed: return DiskType_VhdFixed;
    case VhdDiskTypeDynamic: return DiskType_VhdDynamic;
    case VhdDiskTypeDifferencing: return DiskType_VhdDifferencing;
    default: return NoDiskType;
    }
}
