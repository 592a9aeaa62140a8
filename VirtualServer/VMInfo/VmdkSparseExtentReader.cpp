#include "VirtualServer/VMInfo/VmdkSparseExtentReader.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/detail/MetadataRecord.h"
#include "VirtualServer/VMInfo/detail/SparseDumpRecord.h"
#include "VirtualServer/VMInfo/detail/VmdkGrainTables.h"
#include "VirtualServer/VMInfo/detail/VmdkSparseExtentTexts.h"
#include "foundation/LgDebug.h"
#include "foundation/detail/Bitmap.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "foundation/detail/ScopeGuard.h"

namespace {

constexpr Condition_t EndOfExtent = VmdkSparseEndOfExtent;
constexpr Condition_t SectorNotFound = VmdkSparseSectorNotFound;

bool IsSound(const VmdkSparseHeader_t& header) {
    return header.version == 1 && header.singleEndLineChar == 0x0A && header.nonEndLineChar == 0x20 &&
           header.doubleEndLineChar1 == 0x0D && header.doubleEndLineChar2 == 0x0A;
}

bool IsSound(const CowdHeader_t& header) {
    constexpr uint32_t demandedFlags = 3;
    return header.version == 1 && header.flags == demandedFlags;
}

// The first entry from `first` on that isn't 0, or `count`.
uint64_t FirstSetEntry(const GrainTableRef_t& table, uint64_t first, uint64_t count) {
    const Le32_t* const entries = table.entries.get();
    return static_cast<uint64_t>(
        std::find_if(entries + first, entries + count, [](uint32_t entry) { return entry != 0; }) - entries);
}

// A bitmap of `count` bits, the high bit of each byte first; `isSet(index)` tells each of the first `known`, and the
// others are clear.
template <typename IsSet>
CZuError WriteBitmap(CZuFile& out, uint64_t count, uint64_t known, CAutoMemory<char>& bitmap, IsSet isSet) {
    const auto sizeBytes = static_cast<uint32_t>(DivideRoundingUp(count, 8));
    if (sizeBytes == 0)
        return CZuError();
    if (bitmap.Alloc(sizeBytes) == nullptr)
        return Refusal(OutOfMemory);
    std::fill_n(bitmap.GetPtr(), sizeBytes, '\0');
    for (uint64_t index = 0; index < std::min(count, known); ++index) {
        if (isSet(index))
            SetBit(bitmap.GetPtr(), index);
    }
    ZU_RETURN_IF_ERROR(WriteWhole(out, bitmap.GetPtr(), sizeBytes));
    return CZuError();
}

// Appends to a record whose size was worked out before.
class CRecordWriter {
public:
    explicit CRecordWriter(char* at) : m_At(at) {}

    void Append(const void* bytes, uint64_t size) {
        if (size != 0)
            std::memcpy(m_At, bytes, static_cast<size_t>(size));
        m_At += size;
    }
    void Append(const CAutoMemory<Le32_t>& directory) {
        Append(directory.GetPtr(), uint64_t{directory.GetSize()} * sizeof(Le32_t));
    }
    void AppendPresent(const std::vector<GrainTableRef_t>& tables, uint64_t tableBytes) {
        for (const GrainTableRef_t& table : tables) {
            if (table.sector != 0)
                Append(table.entries.get(), tableBytes);
        }
    }
    void FillWithZeros(const char* end) { std::memset(m_At, 0, static_cast<size_t>(end - m_At)); }

private:
    char* m_At;
};

}  // namespace

CZuError CVmdkSparseExtentReader::OpenExtent(const char* name, uint64_t startSector, VwExtentType type) {
    ZU_RETURN_IF_ERROR(RefuseUnlessFree(name, type));
    ForgetTables();
    ZU_RETURN_IF_ERROR(m_File.Open(name, OpenAsBinary | OpenNotInherited, 0));
    ScopeGuard closeUnlessKept([this] { Dropped(m_File.Close()); });  // the first error is the one to report
    ZU_RETURN_IF_ERROR(WithinMemory(OutOfMemory, [&] { return ReadHeaderAndTables(startSector); }));
    closeUnlessKept.Dismiss();
    return CZuError();
}

CZuError CVmdkSparseExtentReader::CloseExtent() {
    const CZuError closing = m_File.Close();
    if (closing.IsErrorSet())
        LgDebug().Error("CVmdkSparseExtentReader::CloseExtent", "%s", closing.ConvertToString());
    ForgetTables();
    m_StartSector = 0;
    m_EndSector = 0;
    m_IsCOWD = 0;
    std::fill(std::begin(m_SparseHeader), std::end(m_SparseHeader), '\0');
    return CZuError();
}

CZuError CVmdkSparseExtentReader::ReadExtentSector(uint64_t sector, char* data, uint32_t size) {
    if (sector < m_StartSector || sector > m_EndSector)
        return EndOfExtent.Error();
    if (!m_File.IsValid())
        return Refusal(VmdkSparseNoOpenFile);
    if (data == nullptr)
        return Refusal(VmdkSparseNoData);
    if (size > m_SectorSize)
        return Refusal("Cannot read more than sector size");
    SectorRun_t run;
    ZU_RETURN_IF_ERROR(FindRun(sector, 1, run));
    if (!run.IsHeld())
        return SectorNotFound.Error();
    ZU_RETURN_IF_ERROR(ReadFileAt(m_File, run.fileOffset, 0, data, size, nullptr));
    return CZuError();
}

CZuError CVmdkSparseExtentReader::FindRun(uint64_t sector, uint64_t mostSectors, SectorRun_t& run) {
    if (sector < m_StartSector || sector > m_EndSector || m_GrainSize == 0)
        return EndOfExtent.Error();
    if (!m_File.IsValid())
        return Refusal(VmdkSparseNoOpenFile);
    const uint64_t relative = sector - m_StartSector;
    const uint64_t grain = relative / m_GrainSize;
    const uint64_t inGrain = relative % m_GrainSize;
    if (grain >= GrainBound())
        return EndOfExtent.Error();
    // The 1 is added last: an extent of no sectors at sector 0 ends at all ones.
    const uint64_t most = std::min(std::max<uint64_t>(mostSectors, 1) - 1, m_EndSector - sector) + 1;
    const uint64_t grains = CountEqualGrains(grain, std::min(most / m_GrainSize, GrainBound()) + 2);
    const uint32_t grainSector = GrainSectorOrHole(grain);
    uint64_t grainsSectors = 0;
    run.sectors = CheckedMul(grains, m_GrainSize, grainsSectors) ? std::min(most, grainsSectors - inGrain) : most;
    run.file = grainSector != 0 ? &m_File : nullptr;
    run.fileOffset = FileOffsetOfSector(grainSector + inGrain);
    return CZuError();
}

CZuError CVmdkSparseExtentReader::ReadGrain(uint64_t index, char* data) {
    if (!m_File.IsValid())
        return Refusal(VmdkSparseNoOpenFile);
    if (data == nullptr)
        return Refusal(VmdkSparseNoData);
    uint32_t sector = 0;
    if (CZuError error = FindGrain(index, sector); error.IsErrorSet())
        return error;  // no place is added: streams skip millions of holes, and the stack would cost an allocation each
    uint32_t grainBytes = 0;
    if (!NarrowTo32(FileOffsetOfSector(m_GrainSize), grainBytes))
        return Refusal(OutOfMemory);
    ZU_RETURN_IF_ERROR(ReadFileAt(m_File, FileOffsetOfSector(sector), 0, data, grainBytes, nullptr));
    return CZuError();
}

CZuError CVmdkSparseExtentReader::GetMetadataInfo(CAutoMemory<char>& metadata) {
    if (!m_File.IsValid())
        return Refusal(VmdkSparseNoOpenFile);
    metadata.Alloc(0);
    uint32_t sizeBytes = 0;
    if (!ComputeMetadataSize(sizeBytes) || metadata.Alloc(sizeBytes) == nullptr)
        return Refusal("Out Of memory");

    WriteMetadataHead(metadata, SignatureVmdkSparse, GetTotalSectors());
    const uint64_t tableBytes = m_NumGTEsPerGT * sizeof(Le32_t);
    CRecordWriter writer(metadata.GetPtr() + MetadataHeadBytes);
    writer.Append(m_SparseHeader, HeaderBytes());
    writer.Append(m_Descriptor.GetPtr(), m_Descriptor.GetSize());
    writer.Append(m_RedundantGD);
    writer.Append(m_GD);
    writer.AppendPresent(m_RedundantGTs, tableBytes);
    writer.AppendPresent(m_GTs, tableBytes);
    writer.FillWithZeros(metadata.GetPtr() + sizeBytes);
    return CZuError();
}

CZuError CVmdkSparseExtentReader::DumpSparseInfo(CZuFile& out, const char* name) {
    if (!m_File.IsValid())
        return Refusal(VmdkSparseNoOpenFile);
    SparseDumpFields_t fields;
    fields.startLba = m_StartSector;
    fields.endLba = m_EndSector;
    fields.blockSectors = GetBlockSize();
    fields.grainSectors = GetBlockSize();
    fields.grainsPerBucket = m_NumGTEsPerGT;
    fields.bucketCount = m_NumGDEntries;
    fields.topBitmapBytes = static_cast<uint32_t>(DivideRoundingUp(m_NumGDEntries, 8));
    fields.bucketBytes = static_cast<uint32_t>(DivideRoundingUp(m_NumGTEsPerGT, 8));
    ZU_RETURN_IF_ERROR(WriteSparseDumpRecord(out, name, fields));
    ZU_RETURN_IF_ERROR(WriteBitmaps(out));
    return CZuError();
}

int CVmdkSparseExtentReader::IsErrorEOF(const CZuError& error) const {
    return EndOfExtent.Holds(error) ? 1 : 0;
}

int CVmdkSparseExtentReader::IsErrorSectorNotFound(const CZuError& error) const {
    return SectorNotFound.Holds(error) ? 1 : 0;
}

CZuError CVmdkSparseExtentReader::RefuseUnlessFree(const char* name, VwExtentType type) const {
    if (name == nullptr)
        return Refusal("Invalid Parameter");
    if (m_File.IsValid())
        return Refusal("Object already have an open file.");
    if (type != VwExtentTypeSparse && type != VwExtentTypeVmfsSparse)
        return Refusal("Not a supported extent file type");
    return CZuError();
}

// A failed open or create leaves what it had loaded, which the next one must not find.
void CVmdkSparseExtentReader::ForgetTables() {
    m_Descriptor.Free();
    m_RedundantGD.Free();
    m_GD.Free();
    m_RedundantGTs.clear();
    m_GTs.clear();
    m_RedundantIsActive = false;
    m_GrainSize = 0;
    m_SectorsPerGT = 0;
    m_NumGDEntries = 0;
    m_NumGTEsPerGT = 0;
}

CZuError CVmdkSparseExtentReader::ReadHeaderAndTables(uint64_t startSector) {
    Le32_t magic{};
    ZU_RETURN_IF_ERROR(ReadFileAt(m_File, 0, 0, &magic, sizeof(magic), nullptr));
    if (magic != VmdkSparseMagic && magic != CowdMagic)
        return Refusal("File signature does not match with standard sparse extent signatures VMDK or COWD");
    m_StartSector = startSector;
    m_SectorSize = SectorSize;
    m_IsCOWD = magic == CowdMagic ? 1 : 0;
    ZU_RETURN_IF_ERROR(m_IsCOWD != 0 ? OpenCOWD() : OpenVMDK());
    return CZuError();
}

CZuError CVmdkSparseExtentReader::OpenVMDK() {
    VmdkSparseHeader_t header{};
    ZU_RETURN_IF_ERROR(ReadFileAt(m_File, 0, 0, m_SparseHeader, sizeof(header), nullptr));
    std::memcpy(&header, m_SparseHeader, sizeof(header));
    if (!IsSound(header))
        return Refusal(VmdkHeaderIsCorrupted);
    if (header.uncleanShutdown == 1)
        return Refusal("VMDK file has unclean flag set. Cannot continue further");
    ZU_RETURN_IF_ERROR(ReadVMDKSparseTableInfo());
    m_EndSector = m_StartSector + header.capacity - 1;
    m_RedundantIsActive = (header.flags & VmdkSparseRedundantIsActive) != 0;
    return CZuError();
}

CZuError CVmdkSparseExtentReader::OpenCOWD() {
    CowdHeader_t header{};
    ZU_RETURN_IF_ERROR(ReadFileAt(m_File, 0, 0, m_SparseHeader, sizeof(header), nullptr));
    std::memcpy(&header, m_SparseHeader, sizeof(header));
    if (!IsSound(header))
        return Refusal("COWD file header is corrupted. Cannot continue further");
    if (header.uncleanShutdown == 1)
        return Refusal("COWD file has unclean flag set. Cannot continue further");
    ZU_RETURN_IF_ERROR(ReadCOWDSparseTableInfo());
    m_EndSector = m_StartSector + header.numSectors - 1;
    m_RedundantIsActive = false;
    return CZuError();
}

CZuError CVmdkSparseExtentReader::ReadVMDKSparseTableInfo() {
    VmdkSparseHeader_t header{};
    std::memcpy(&header, m_SparseHeader, sizeof(header));
    CTableReader tables(m_File);
    if (header.descriptorOffset != 0)
        ZU_RETURN_IF_ERROR(tables.Read(FileOffsetOfSector(header.descriptorOffset),
                                       FileOffsetOfSector(header.descriptorSize), m_Descriptor));
    ZU_RETURN_IF_ERROR(SetVMDKGeometry(header));
    // Files without a redundant directory are refused in what follows: their offset of 0 makes the
    // header's own bytes the directory. Callers rely on that.
    ZU_RETURN_IF_ERROR(tables.Read(FileOffsetOfSector(header.rgdOffset), m_NumGDEntries, m_RedundantGD));
    ZU_RETURN_IF_ERROR(tables.Read(FileOffsetOfSector(header.gdOffset), m_NumGDEntries, m_GD));
    CGrainTableLoader loader(m_File, tables, VmdkEntriesPerTable);
    ZU_RETURN_IF_ERROR(loader.Load(m_RedundantGD, m_RedundantGTs));
    ZU_RETURN_IF_ERROR(loader.Load(m_GD, m_GTs));
    return CZuError();
}

CZuError CVmdkSparseExtentReader::ReadCOWDSparseTableInfo() {
    CowdHeader_t header{};
    std::memcpy(&header, m_SparseHeader, sizeof(header));
    SetCOWDGeometry(header);
    CTableReader tables(m_File);
    // Callers rely on the 32-bit product: the directory's place wraps at 4 GiB, the tables' don't.
    const uint32_t directoryOffset = header.gdOffset * SectorSize;
    ZU_RETURN_IF_ERROR(tables.Read(directoryOffset, m_NumGDEntries, m_GD));
    ZU_RETURN_IF_ERROR(CGrainTableLoader(m_File, tables, CowdEntriesPerTable).Load(m_GD, m_GTs));
    return CZuError();
}

CZuError CVmdkSparseExtentReader::SetVMDKGeometry(const VmdkSparseHeader_t& header) {
    if (header.numGTEsPerGT != VmdkEntriesPerTable)
        return Refusal(CZuString::Format(
            "m_NumGTEsPerGT!=512. Number of entries per grain table ({1}) does not match documentation",
            static_cast<uint32_t>(header.numGTEsPerGT)));
    uint64_t sectorsPerTable = 0;
    if (header.grainSize == 0 || !CheckedMul(header.grainSize, VmdkEntriesPerTable, sectorsPerTable))
        return Refusal(VmdkHeaderIsCorrupted);
    m_GrainSize = header.grainSize;
    m_SectorsPerGT = sectorsPerTable;
    m_NumGDEntries = DivideRoundingUp(header.capacity, sectorsPerTable);
    m_NumGTEsPerGT = VmdkEntriesPerTable;
    return CZuError();
}

void CVmdkSparseExtentReader::SetCOWDGeometry(const CowdHeader_t& header) {
    m_GrainSize = header.grainSize;
    m_NumGTEsPerGT = CowdEntriesPerTable;
    m_SectorsPerGT = uint64_t{CowdEntriesPerTable} * header.grainSize;
    m_NumGDEntries = header.numGDEntries;
}

uint64_t CVmdkSparseExtentReader::NextHeldGrain(uint64_t index) const {
    const Tables_t& tables = ActiveGTs();
    while (index < GrainBound()) {
        const GrainTableRef_t& table = tables[static_cast<size_t>(index / m_NumGTEsPerGT)];
        const uint64_t first = index % m_NumGTEsPerGT;
        const uint64_t held = table.sector != 0 ? FirstSetEntry(table, first, m_NumGTEsPerGT) : m_NumGTEsPerGT;
        index += held - first;
        if (held != m_NumGTEsPerGT)
            return index;
    }
    return index;
}

// The tables bound it and not the capacity. A failed create leaves fewer tables than its directory
// promises.
uint64_t CVmdkSparseExtentReader::GrainBound() const {
    return m_NumGTEsPerGT * ActiveGTs().size();
}

// The file sector at which grain `index` lies.
CZuError CVmdkSparseExtentReader::FindGrain(uint64_t index, uint32_t& sector) const {
    if (index >= GrainBound())
        return EndOfExtent.Error();
    sector = GrainSectorOrHole(index);
    return sector != 0 ? CZuError() : SectorNotFound.Error();
}

// The file sector at which grain `index`, which is below the bound, lies; 0 for a hole.
uint32_t CVmdkSparseExtentReader::GrainSectorOrHole(uint64_t index) const {
    const GrainTableRef_t& table = ActiveGTs()[static_cast<size_t>(index / m_NumGTEsPerGT)];
    return table.sector != 0 ? table.entries[static_cast<size_t>(index % m_NumGTEsPerGT)] : Le32_t{};
}

// The grains from `index` on that follow one another in the file, or that are all holes.
uint64_t CVmdkSparseExtentReader::CountEqualGrains(uint64_t index, uint64_t mostGrains) const {
    const uint64_t most = std::min(mostGrains, GrainBound() - index);
    const uint64_t first = GrainSectorOrHole(index);
    if (first == 0)
        return std::min(NextHeldGrain(index) - index, most);
    uint64_t count = 1;
    while (count < most && GrainSectorOrHole(index + count) == first + count * m_GrainSize)
        ++count;
    return count;
}

// The size counts absent tables too; callers rely on the zeros that they leave at the end.
bool CVmdkSparseExtentReader::ComputeMetadataSize(uint32_t& sizeBytes) const {
    const uint64_t directories = uint64_t{m_RedundantGD.GetSize()} + m_GD.GetSize();
    const uint64_t tables = (m_RedundantGTs.size() + m_GTs.size()) * m_NumGTEsPerGT;
    return NarrowTo32(MetadataHeadBytes + HeaderBytes() + uint64_t{m_Descriptor.GetSize()} +
                          (directories + tables) * sizeof(Le32_t),
                      sizeBytes);
}

uint32_t CVmdkSparseExtentReader::HeaderBytes() const {
    return m_IsCOWD != 0 ? sizeof(CowdHeader_t) : sizeof(VmdkSparseHeader_t);
}

// An absent table has no bitmap behind the top bitmap: what reads the dump back expects one only
// where the top bitmap has its bit.
CZuError CVmdkSparseExtentReader::WriteBitmaps(CZuFile& out) const {
    CAutoMemory<char> bitmap;
    const Tables_t& tables = ActiveGTs();
    ZU_RETURN_IF_ERROR(WriteBitmap(out, m_NumGDEntries, tables.size(), bitmap,
                                   [&](uint64_t index) { return tables[static_cast<size_t>(index)].sector != 0; }));
    for (const GrainTableRef_t& table : tables) {
        if (table.sector != 0)
            ZU_RETURN_IF_ERROR(WriteBitmap(out, m_NumGTEsPerGT, m_NumGTEsPerGT, bitmap, [&](uint64_t index) {
                return table.entries[static_cast<size_t>(index)] != 0;
            }));
    }
    return CZuError();
}
