// The input is a sparse extent file, alone and with a hole behind it: the second lets an input of a
// few hundred bytes reach whole tables. Whatever opens is read, dumped, recorded and rebuilt, and
// all of these have to tell the same story.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "VirtualServer/VMInfo/VmdkSparseExtentReader.h"
#include "fuzz/support/Demand.h"
#include "fuzz/support/MemoryFiles.h"

namespace {

constexpr char SourceName[] = "source.vmdk";
constexpr char CopyName[] = "copy.vmdk";
constexpr char DumpName[] = "dump";
constexpr uint32_t SectorBytes = 512;
constexpr uint64_t HoleBytes = 32 * 1024;
// What one input may cost: the tables of a few kilobytes name more grains than a run has time for.
constexpr uint64_t MostGrains = 576;  // a table of the hosted form and a part of the next
constexpr uint64_t MostGrainSectors = 2048;
constexpr uint64_t MostReadSectors = 8192;
constexpr uint64_t MostStreamedGrains = 16384;

uint64_t GrainsToTry(const CVmdkSparseExtentReader& reader) {
    const uint64_t grainSectors = reader.GetBlockSize();
    if (grainSectors > MostGrainSectors)
        return 0;
    return std::min(MostGrains, MostReadSectors / std::max<uint64_t>(grainSectors, 1));
}

// Of a buffer for the grains to try: a header may promise grains that no memory holds.
size_t GrainBytes(const CVmdkSparseExtentReader& reader) {
    return GrainsToTry(reader) != 0 ? static_cast<size_t>(reader.GetBlockSize() * SectorBytes) : 0;
}

void ReadEdgeSectors(CVmdkSparseExtentReader& reader, uint64_t start) {
    const uint64_t end = start + reader.GetTotalSectors();
    char sector[SectorBytes];
    for (const uint64_t edge : {start, end, uint64_t{0}, ~uint64_t{0}, uint64_t{1} << 32U}) {
        for (const uint64_t number : {edge - 1, edge, edge + 1})
            EitherWay(reader.ReadExtentSector(number, sector, SectorBytes));
    }
    Demand(reader.ReadExtentSector(start, sector, SectorBytes + 1).IsErrorSet(), "no read is larger than a sector");
}

// A grain and the sector that begins it come from the same place, unless the sector lies outside.
void CompareWithSector(CVmdkSparseExtentReader& reader, uint64_t sector, const CZuError& grainError,
                       const char* grain) {
    char bytes[SectorBytes];
    const CZuError error = reader.ReadExtentSector(sector, bytes, SectorBytes);
    if (reader.IsErrorEOF(error) != 0)
        return;
    Demand(reader.IsErrorSectorNotFound(error) == reader.IsErrorSectorNotFound(grainError),
           "a sector is missing when its grain is");
    if (!grainError.IsErrorSet()) {
        DemandSuccess(error, "the first sector of a readable grain is readable");
        Demand(std::memcmp(bytes, grain, SectorBytes) == 0, "a grain begins with its first sector");
    }
}

// Grains that are held, one character each: '0' for a hole.
std::string ReadGrains(CVmdkSparseExtentReader& reader, uint64_t start) {
    std::string held;
    std::vector<char> grain(std::max<size_t>(GrainBytes(reader), 1));
    for (uint64_t index = 0; index < GrainsToTry(reader); ++index) {
        const CZuError error = reader.ReadGrain(index, grain.data());
        if (reader.IsErrorEOF(error) != 0)
            break;
        held += reader.IsErrorSectorNotFound(error) != 0 ? '0' : '1';
        if (reader.GetBlockSize() != 0)
            CompareWithSector(reader, start + index * reader.GetBlockSize(), error, grain.data());
    }
    return held;
}

uint64_t HexField(const std::string& dump, size_t offset) {
    return std::stoull(dump.substr(offset, 16).c_str(), nullptr, 16);
}

bool BitAt(const std::string& dump, uint64_t bitmapOffset, uint64_t index) {
    const char byte = dump.at(static_cast<size_t>(bitmapOffset + index / 8));
    return ((static_cast<unsigned char>(byte) << (index % 8)) & 0x80U) != 0;
}

// The dump's bitmaps name the grains that reads find, and nothing stands behind the last of them.
void CompareWithDump(const std::string& dump, const std::string& held) {
    constexpr size_t recordBytes = 1153;
    Demand(dump.size() >= recordBytes, "a dump begins with its record");
    const uint64_t grainsPerBucket = HexField(dump, 1101);
    const uint64_t bucketCount = HexField(dump, 1118);
    const uint64_t bucketBytes = HexField(dump, 1144);
    uint64_t bucketAt = recordBytes + HexField(dump, 1135);
    for (uint64_t bucket = 0; bucket < bucketCount; ++bucket) {
        const bool isThere = BitAt(dump, recordBytes, bucket);
        for (uint64_t index = 0; index < grainsPerBucket; ++index) {
            const uint64_t grain = bucket * grainsPerBucket + index;
            if (grain >= held.size())
                break;
            const bool isHeld = isThere && BitAt(dump, bucketAt, index);
            Demand(isHeld == (held[static_cast<size_t>(grain)] == '1'), "the dump names the grains that reads find");
        }
        bucketAt += isThere ? bucketBytes : 0;
    }
    Demand(bucketAt == dump.size(), "a dump holds a bitmap for each table that is there");
}

std::string Dump(CVmdkSparseExtentReader& reader, const CMemoryFiles& files) {
    CZuFile out;
    DemandSuccess(out.Open(DumpName, OpenForWriting | OpenCreating | OpenTruncating | OpenAsBinary, 384),
                  "a file in memory opens");
    DemandSuccess(reader.DumpSparseInfo(out, SourceName), "an open extent can be dumped");
    std::string dump(static_cast<size_t>(files.Find(DumpName)->Size()), '\0');
    files.Find(DumpName)->ReadAt(0, dump.data(), dump.size());
    return dump;
}

// The fields of a record that tell whether it can be replayed, taken by their own offsets.
class CRecordView {
public:
    explicit CRecordView(const CAutoMemory<char>& record) : m_Bytes(record.GetPtr(), record.GetSize()) {}

    bool IsCowd() const { return m_Bytes.compare(32, 4, "COWD") == 0; }

    // Of the tables, held or not.
    uint64_t GrainCount() const { return IsCowd() ? HeaderNumber(24, 4) * 4096 : EntryCount() * 512; }

    // A directory entry of 0 takes a table that the record doesn't hold. A piece without bytes is
    // written all the same, and fails where its place isn't one.
    bool CanBeReplayed() const {
        const uint64_t entries = EntryCount();
        if (entries == 0 || (Header64(28) != 0 && Header64(36) == 0))
            return false;
        const size_t directories = static_cast<size_t>(32 + 512 + (Header64(28) != 0 ? Header64(36) * 512 : 0));
        for (uint64_t entry = 0; entry < 2 * entries; ++entry) {
            if (m_Bytes.compare(directories + static_cast<size_t>(4 * entry), 4, std::string(4, '\0')) == 0)
                return false;
        }
        return true;
    }

private:
    uint64_t HeaderNumber(size_t offset, size_t bytes) const {
        uint64_t value = 0;
        for (size_t byte = bytes; byte-- > 0;)
            value = value << 8U | static_cast<unsigned char>(m_Bytes.at(32 + offset + byte));
        return value;
    }
    uint64_t Header64(size_t offset) const { return HeaderNumber(offset, 8); }

    uint64_t EntryCount() const {
        const uint64_t sectorsPerTable = Header64(20) * 512;
        return Header64(12) / sectorsPerTable + (Header64(12) % sectorsPerTable != 0 ? 1 : 0);
    }

    const std::string m_Bytes;
};

void CopyGrains(CVmdkSparseExtentReader& source, CVmdkSparseExtentReader& target) {
    CAutoMemory<char> grain;
    for (uint64_t index = 0; index < GrainsToTry(source); ++index) {
        if (grain.Alloc(static_cast<uint32_t>(GrainBytes(source))) == nullptr)
            return;
        if (!source.ReadGrain(index, grain.GetPtr()).IsErrorSet())
            DemandSuccess(target.WriteGrain(index, grain), "what was read can be written");
    }
}

void CompareGrains(CVmdkSparseExtentReader& source, CVmdkSparseExtentReader& copy) {
    std::vector<char> expected(GrainBytes(source));
    std::vector<char> found(GrainBytes(source));
    for (uint64_t index = 0; index < GrainsToTry(source); ++index) {
        if (source.ReadGrain(index, expected.data()).IsErrorSet())
            continue;
        DemandSuccess(copy.ReadGrain(index, found.data()), "what was written can be read");
        Demand(expected == found, "a rebuilt grain has its bytes");
    }
}

void CompareRecords(const CAutoMemory<char>& expected, CVmdkSparseExtentReader& copy) {
    CAutoMemory<char> found;
    DemandSuccess(copy.GetMetadataInfo(found), "a rebuilt extent has a record");
    Demand(found.GetSize() == expected.GetSize() &&
               std::memcmp(found.GetPtr(), expected.GetPtr(), expected.GetSize()) == 0,
           "a rebuilt extent has the record that it was built from");
}

// Every piece goes back to where it was read, so that pieces that overlap agree in the copy too.
void Rebuild(CVmdkSparseExtentReader& source) {
    CAutoMemory<char> record;
    DemandSuccess(source.GetMetadataInfo(record), "an open extent of a small file has a record");
    const CRecordView view(record);
    CVmdkSparseExtentReader copy;
    const CZuError creating = copy.CreateExtent(CopyName, VwExtentTypeSparse, record);
    Demand(!view.IsCowd() || creating.IsErrorSet(), "the record of a COWD extent is refused");
    if (view.IsCowd() || !view.CanBeReplayed())
        return;
    DemandSuccess(creating, "a whole record can be replayed");
    CopyGrains(source, copy);
    DemandSuccess(copy.CloseExtent(), "an extent closes");
    DemandSuccess(copy.OpenExtent(CopyName, 0, VwExtentTypeSparse), "a rebuilt extent opens");
    CompareRecords(record, copy);
    CompareGrains(source, copy);
}

void TryReader(const CMemoryFiles& files, uint64_t start) {
    CVmdkSparseExtentReader reader;
    if (reader.OpenExtent(SourceName, start, VwExtentTypeSparse).IsErrorSet()) {
        Demand(files.OpenCount() == 0, "a failed open leaves no file open");
        return;
    }
    ReadEdgeSectors(reader, start);
    const std::string held = ReadGrains(reader, start);
    CompareWithDump(Dump(reader, files), held);
    Rebuild(reader);
    DemandSuccess(reader.CloseExtent(), "an extent closes");
}

// A stream's buffer has the size that the header gives a grain: its caller decides whether to pay.
void StreamAll(CArchiveVirtualDiskFile& disk, Context_t& context) {
    CAutoMemory<char> block;
    uint64_t number = 0;
    uint64_t next = 0;
    while (next < MostReadSectors && !disk.GetNextBlock(block, number, context).IsErrorSet()) {
        Demand(number >= next, "the numbers of a stream rise");
        next = number + 1;
    }
}

void TryStream() {
    CArchiveVirtualDiskFile disk(VirtualProdType_VMware);
    CAutoMemory<char> record;
    Context_t context{};
    if (disk.Open(SourceName, DiskType_MonolithicSparse).IsErrorSet())
        return;
    DemandSuccess(disk.GetFirstBlock(record, 128, context), "an open disk has a record");
    if (CRecordView(record).GrainCount() <= MostStreamedGrains && context.blockSectors <= MostGrainSectors)
        StreamAll(disk, context);
}

void TryFile(const uint8_t* data, size_t size, uint64_t holeBytes, uint64_t start) {
    CMemoryFiles files;
    files.Put(SourceName, data, size, holeBytes);
    TryReader(files, start);
    TryStream();
    Demand(files.OpenCount() == 0, "every file is closed in the end");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    TryFile(data, size, 0, 0);
    TryFile(data, size, HoleBytes, 2048);
    return 0;
}
