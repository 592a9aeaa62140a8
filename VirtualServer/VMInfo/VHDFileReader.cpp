#include "VirtualServer/VMInfo/VHDFileReader.h"

#include <algorithm>
#include <cstring>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/detail/TableReader.h"
#include "VirtualServer/VMInfo/detail/VHDTexts.h"
#include "foundation/detail/Bitmap.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "foundation/detail/ScopeGuard.h"

namespace {

constexpr int FromTheFilesEnd = 2;
constexpr Condition_t SectorOutOfFixedDisk{ErrorType::LayerCondition, 4001, 1, "Sector Out of Range"};

CByteView ViewOfRead(const CAutoMemory<char>& bitmap) {
    return {bitmap.GetPtr(), bitmap.GetSize()};
}

}  // namespace

CZuError CVHDFileReader::OpenDisk(const char* name, DiskType_t type) {
    if (name == nullptr)
        return Refusal(VhdNoDiskName);
    uint32_t wantedType = 0;
    ZU_RETURN_IF_ERROR(FooterTypeOf(type, wantedType));
    Dropped(CloseDisk());  // what was open gives way, whatever the system says to that
    ZU_RETURN_IF_ERROR(m_File.Open(name, OpenAsBinary | OpenNotInherited, 0));
    ScopeGuard closeUnlessKept([this] { Dropped(CloseDisk()); });  // the first error is the one to report
    ZU_RETURN_IF_ERROR(ReadFooter(name, wantedType));
    if (type != DiskType_VhdFixed)
        ZU_RETURN_IF_ERROR(WithinMemory(OutOfMemory, [&] { return OpenDynamicDisk(); }));
    m_DiskKind = type == DiskType_VhdFixed ? KindFixed : KindDynamic;
    SetShapeAndSize();
    closeUnlessKept.Dismiss();
    return CZuError();
}

CZuError CVHDFileReader::CloseDisk() {
    m_DiskKind = KindClosed;
    m_Footer = VHD_FOOTER_t{};
    m_SectorSize = SectorSize;
    m_LastSector = 0;
    m_DynamicHeader = VHD_DYNAMIC_HEADER_t{};
    m_BAT.Free();
    m_SectorBitmaps.clear();
    m_TakenBytes = 0;
    m_BitmapSectors = 0;
    m_SectorsPerBlock = 0;
    return m_File.Close();
}

CZuError CVHDFileReader::ReadSector(uint64_t sector, char* data, uint32_t size) {
    if (size > m_SectorSize)
        return Refusal("Cannot read more than sector size");
    SectorRun_t run;
    ZU_RETURN_IF_ERROR(FindRun(sector, 1, run));
    if (!run.IsHeld())
        return VhdSectorNotFound.Error();
    ZU_RETURN_IF_ERROR(ReadRun(run, data, size));
    return CZuError();
}

CZuError CVHDFileReader::FindRun(uint64_t sector, uint64_t mostSectors, SectorRun_t& run) {
    if (!m_File.IsValid())
        return Refusal(VhdNoOpenDisk);
    if (HasNoSectors() || sector > m_LastSector)
        return SectorOutOfFixedDisk.Error();
    const uint64_t most = std::min(std::max<uint64_t>(mostSectors, 1), m_LastSector - sector + 1);
    switch (m_DiskKind) {
    case KindFixed: return FindFixedRun(sector, most, run);
    case KindDynamic: return WithinMemory(OutOfMemory, [&] { return FindDynamicRun(sector, most, run); });
    default: return Refusal(CZuString::Format("Object is in invalid state. Disk type is invalid {1}", m_DiskKind));
    }
}

CZuError CVHDFileReader::ReadRun(const SectorRun_t& run, char* data, uint32_t size) {
    ZU_RETURN_IF_ERROR(ReadFileAt(*run.file, run.fileOffset, 0, data, size, nullptr));
    return CZuError();
}

CZuError CVHDFileReader::ReadBlock(uint64_t index, char* data, uint32_t blockSectors, unsigned int& gotSectors) {
    gotSectors = 0;
    if (!m_File.IsValid())
        return Refusal(VhdNoOpenDisk);
    ZU_RETURN_IF_ERROR(RefuseOtherBlockSize(blockSectors));
    uint64_t firstSector = 0;
    if (m_LastSector == 0 || HasNoSectors() || !CheckedMul(index, blockSectors, firstSector) ||
        firstSector > m_LastSector)
        return VhdEndOfDisk.Error();
    if (m_DiskKind == KindFixed)
        return ReadFixedBlock(index, data, blockSectors, gotSectors);
    uint32_t blockSector = 0;
    if (CZuError error = FindBlock(index, blockSector); error.IsErrorSet())
        return error;  // no place is added: streams skip many holes, and the stack would cost an allocation each
    uint32_t sizeBytes = 0;
    if (!NarrowTo32(uint64_t{blockSectors} << SectorShift, sizeBytes))
        return Refusal(OutOfMemory);
    ZU_RETURN_IF_ERROR(ReadFileAt(m_File, FileOffsetOfSector(blockSector), 0, data, sizeBytes, nullptr));
    gotSectors = blockSectors;
    return CZuError();
}

uint64_t CVHDFileReader::NextHeldBlock(uint64_t index) const {
    if (GetBlockSize() == 0)
        return index;
    const uint64_t endOfDisk = m_LastSector / GetBlockSize() + 1;
    return std::max(index, std::min(NextTableEntry(index), endOfDisk));
}

int CVHDFileReader::IsErrorEOF(const CZuError& error) const {
    return VhdEndOfDisk.Holds(error) ? 1 : 0;
}

int CVHDFileReader::IsErrorSectorNotFound(const CZuError& error) const {
    return VhdSectorNotFound.Holds(error) ? 1 : 0;
}

CZuError CVHDFileReader::ReadFooter(const char* name, uint32_t wantedType) {
    VhdFileFooter_t footer;
    ZU_RETURN_IF_ERROR(ReadFileAt(m_File, static_cast<uint64_t>(-int64_t{sizeof(footer)}), FromTheFilesEnd, &footer,
                                  sizeof(footer), nullptr));
    ConvertFooterFromNetToHost(footer, m_Footer);
    if (std::memcmp(m_Footer.cookie, VhdFooterCookie, sizeof(m_Footer.cookie)) != 0)
        return Refusal("Disk footer information is corrupted. Unknown Cookie");
    if (m_Footer.fileFormatVersion != VhdFormatVersion)
        return Refusal(CZuString::Format("Unknown format version {1}", m_Footer.fileFormatVersion));
    return RefuseOtherType(name, wantedType);
}

CZuError CVHDFileReader::OpenDynamicDisk() {
    VhdFileDynamicHeader_t header;
    ZU_RETURN_IF_ERROR(ReadFileAt(m_File, m_Footer.dataOffset, 0, &header, sizeof(header), nullptr));
    ConvertDynHdrFromNetToHost(header, m_DynamicHeader);
    if (std::memcmp(m_DynamicHeader.cookie, VhdDynamicHeaderCookie, sizeof(m_DynamicHeader.cookie)) != 0)
        return Refusal("Dynamic header information is corrupted. Unknown Cookie");
    if (m_DynamicHeader.headerVersion != m_Footer.fileFormatVersion)
        return Refusal(CZuString::Format("Unknown format version {1}", m_DynamicHeader.headerVersion));
    CTableReader tables(m_File);
    ZU_RETURN_IF_ERROR(tables.Read(m_DynamicHeader.tableOffset, m_DynamicHeader.maxTableEntries, m_BAT));
    m_TakenBytes = uint64_t{m_BAT.GetSize()} * sizeof(Be32_t);
    return CZuError();
}

CZuError CVHDFileReader::RefuseOtherType(const char* name, uint32_t wantedType) const {
    if (m_Footer.diskType == wantedType)
        return CZuError();
    return Refusal(CZuString::Format("Disk Type does not match for {1} Disk Type {2} != Input {3}", name,
                                     m_Footer.diskType, wantedType));
}

CZuError CVHDFileReader::RefuseOtherBlockSize(uint32_t blockSectors) const {
    if (m_DiskKind != KindDynamic || blockSectors == GetBlockSize())
        return CZuError();
    return Refusal(CZuString::Format("Dynamic disk block size {1}(sectors) does not match the input size {2}(sectors)",
                                     blockSectors, GetBlockSize()));
}

void CVHDFileReader::SetShapeAndSize() {
    m_LastSector = m_Footer.currentSize / m_SectorSize - 1;
    if (m_DiskKind != KindDynamic)
        return;
    const VhdBlockShape_t shape = ShapeOfVhdBlock(m_DynamicHeader.blockSize);
    m_BitmapSectors = shape.bitmapSectors;
    m_SectorsPerBlock = shape.dataSectors;
}

CZuError CVHDFileReader::FindFixedRun(uint64_t sector, uint64_t mostSectors, SectorRun_t& run) {
    run.sectors = mostSectors;
    run.file = &m_File;
    run.fileOffset = FileOffsetOfSector(sector);
    return CZuError();
}

// A run ends with its block at the latest, since the next block's bitmap lies between.
CZuError CVHDFileReader::FindDynamicRun(uint64_t sector, uint64_t mostSectors, SectorRun_t& run) {
    if (m_SectorsPerBlock == 0)
        return Refusal(VhdNoOpenDisk);
    const uint64_t inBlock = sector % m_SectorsPerBlock;
    const uint64_t most = std::min(mostSectors, m_SectorsPerBlock - inBlock);
    uint32_t blockSector = 0;
    CZuError error = FindBlock(sector / m_SectorsPerBlock, blockSector);
    if (IsErrorSectorNotFound(error) != 0) {
        run = SectorRun_t{most, nullptr, 0};
        return CZuError();
    }
    ZU_RETURN_IF_ERROR(error);
    const CAutoMemory<char>* bitmap = nullptr;
    ZU_RETURN_IF_ERROR(LoadBitmap(blockSector, bitmap));
    run.sectors = CountEqualBits(ViewOfRead(*bitmap), inBlock, most);
    run.file = HasBit(ViewOfRead(*bitmap), inBlock) ? &m_File : nullptr;
    run.fileOffset = FileOffsetOfSector(uint64_t{blockSector} + m_BitmapSectors + inBlock);
    return CZuError();
}

// The first entry from `index` on that names a block, or one behind the last.
uint64_t CVHDFileReader::NextTableEntry(uint64_t index) const {
    const Be32_t* const entries = m_BAT.GetPtr();
    while (index < m_BAT.GetSize() && entries[index] == VhdBlockNotAllocated)
        ++index;
    return index;
}

// The file sector at which block `index` begins. A table that is too short for the disk ends it.
CZuError CVHDFileReader::FindBlock(uint64_t index, uint32_t& sector) const {
    if (index >= m_BAT.GetSize())
        return VhdEndOfDisk.Error();
    sector = m_BAT.GetPtr()[index];
    return sector != VhdBlockNotAllocated ? CZuError() : VhdSectorNotFound.Error();
}

// A bitmap that can't be read isn't kept, so that the next read tries again.
CZuError CVHDFileReader::LoadBitmap(uint32_t blockSector, const CAutoMemory<char>*& bitmap) {
    if (const auto kept = m_SectorBitmaps.find(blockSector); kept != m_SectorBitmaps.end()) {
        bitmap = &kept->second;
        return CZuError();
    }
    const uint64_t sizeBytes = uint64_t{m_BitmapSectors} * m_SectorSize;
    CTableReader tables(m_File);
    ZU_RETURN_IF_ERROR(tables.Charge(m_TakenBytes));
    CAutoMemory<char> loaded;
    ZU_RETURN_IF_ERROR(tables.Read(FileOffsetOfSector(blockSector), sizeBytes, loaded));
    m_TakenBytes += sizeBytes;
    bitmap = &m_SectorBitmaps.emplace(blockSector, std::move(loaded)).first->second;
    return CZuError();
}

CZuError CVHDFileReader::ReadFixedBlock(uint64_t index, char* data, uint32_t blockSectors, unsigned int& gotSectors) {
    const uint64_t firstSector = index * blockSectors;
    uint64_t count = blockSectors;
    if (count > m_LastSector - firstSector)
        count = m_LastSector - firstSector;
    uint32_t sizeBytes = 0;
    if (!NarrowTo32(count << SectorShift, sizeBytes))
        return Refusal(OutOfMemory);
    unsigned int gotBytes = 0;
    ZU_RETURN_IF_ERROR(ReadFileAt(m_File, FileOffsetOfSector(firstSector), 0, data, sizeBytes, &gotBytes));
    gotSectors = gotBytes >> SectorShift;
    return CZuError();
}
