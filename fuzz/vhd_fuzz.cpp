// The input is a VHD file. It is tried as each type, alone and with a hole before its last sector,
// where the footer lies: the hole lets an input of a few hundred bytes reach whole tables and
// blocks. Whatever opens is read by sector, run and block, dumped, recorded and rebuilt, and all of
// these have to tell the same story. The input is also taken for a record, from which a disk is made.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "VirtualServer/VMInfo/VHDFileReader.h"
#include "fuzz/support/Demand.h"
#include "fuzz/support/MemoryFiles.h"

namespace {

constexpr char SourceName[] = "source.vhd";
constexpr char CopyName[] = "copy.vhd";
constexpr char DumpName[] = "dump";
constexpr uint32_t SectorBytes = 512;
constexpr size_t HoleBytes = 32 * 1024;
// What one input may cost: a few kilobytes name more blocks than a run has time for.
constexpr uint64_t MostBlocks = 64;
constexpr uint64_t MostBlockSectors = 128;
constexpr uint64_t MostSectors = 512;
constexpr uint64_t MostStreamedBlocks = 1024;
constexpr uint32_t FixedBlockSectors = 8;
constexpr DiskType_t Types[] = {DiskType_VhdFixed, DiskType_VhdDynamic, DiskType_VhdDifferencing};

bool SameKindOfError(const CZuError& left, const CZuError& right) {
    return left.GetErrorType() == right.GetErrorType() && left.GetModuleId() == right.GetModuleId() &&
           left.GetErrorCode() == right.GetErrorCode();
}

// The disk's form as the header gives it, worked out here anew.
class CShape {
public:
    CShape(const CVHDFileReader& reader, DiskType_t type) : m_IsFixed(type == DiskType_VhdFixed) {
        VHD_DYNAMIC_HEADER_t header;
        reader.GetDynamicHeaderInformation(header);
        m_DataSectors = header.blockSize / SectorBytes;
        m_BitmapSectors = m_DataSectors / 4096 != 0 ? m_DataSectors / 4096 : 1;
        m_Entries = header.maxTableEntries;
    }

    bool IsFixed() const { return m_IsFixed; }
    uint64_t Entries() const { return m_IsFixed ? 0 : m_Entries; }
    uint64_t DataSectors() const { return m_DataSectors; }
    uint64_t BitmapSectors() const { return m_BitmapSectors; }
    uint32_t BlockSectors() const {
        return m_IsFixed ? FixedBlockSectors : static_cast<uint32_t>(m_BitmapSectors + m_DataSectors);
    }
    uint64_t BlocksToTry() const { return BlockSectors() <= MostBlockSectors ? MostBlocks : 0; }
    // Of a buffer for the blocks to try: a header may promise blocks that no memory holds.
    uint32_t BlockBytes() const { return BlocksToTry() != 0 ? BlockSectors() * SectorBytes : 0; }

private:
    bool m_IsFixed;
    uint64_t m_DataSectors = 0;
    uint64_t m_BitmapSectors = 0;
    uint64_t m_Entries = 0;
};

void ReadEdgeSectors(CVHDFileReader& reader) {
    const uint64_t total = reader.GetTotalSectors();
    char sector[SectorBytes];
    for (const uint64_t edge : {total, total / 2, uint64_t{1} << 32U, uint64_t{1} << 55U}) {
        for (const uint64_t number : {edge - 1, edge, edge + 1}) {
            const CZuError error = reader.ReadSector(number, sector, SectorBytes);
            Demand(number < total || error.IsErrorSet(), "no sector lies behind the last one");
            Demand(number < total || reader.IsErrorEOF(error) == 0, "a sector out of range isn't the end");
        }
    }
    Demand(reader.ReadSector(0, sector, SectorBytes + 1).IsErrorSet(), "no read is larger than a sector");
}

// A run's answer is that of each of its sectors.
void CompareRun(CVHDFileReader& reader, uint64_t first, const SectorRun_t& run) {
    for (uint64_t at = 0; at < std::min<uint64_t>(run.sectors, 64); ++at) {
        char expected[SectorBytes];
        char found[SectorBytes];
        const CZuError error = reader.ReadSector(first + at, expected, SectorBytes);
        Demand((reader.IsErrorSectorNotFound(error) != 0) != run.IsHeld(), "a run is held when its sectors are");
        if (!run.IsHeld())
            continue;
        const SectorRun_t rest{run.sectors - at, run.file, run.fileOffset + at * SectorBytes};
        const CZuError runError = reader.ReadRun(rest, found, SectorBytes);
        Demand(error.IsErrorSet() == runError.IsErrorSet(), "a sector is readable where its run is");
        if (!error.IsErrorSet())
            Demand(std::memcmp(expected, found, SectorBytes) == 0, "a run has its sectors' bytes");
    }
}

void WalkRuns(CVHDFileReader& reader) {
    const uint64_t end = std::min(reader.GetTotalSectors(), MostSectors);
    for (uint64_t sector = 0; sector < end;) {
        SectorRun_t run;
        const CZuError error = reader.FindRun(sector, MostSectors, run);
        if (error.IsErrorSet()) {
            char bytes[SectorBytes];
            Demand(SameKindOfError(error, reader.ReadSector(sector, bytes, SectorBytes)),
                   "a run fails as its sector does");
            return;
        }
        Demand(run.sectors >= 1 && run.sectors <= MostSectors && run.sectors <= reader.GetTotalSectors() - sector,
               "a run moves on and stays inside");
        CompareRun(reader, sector, run);
        sector += run.sectors;
    }
}

bool HasBit(const char* bitmap, uint64_t sizeBytes, uint64_t index) {
    return index / 8 < sizeBytes && ((static_cast<unsigned char>(bitmap[index / 8]) << (index % 8)) & 0x80U) != 0;
}

// A block of a dynamic disk is its bitmap and its sectors.
void CompareBlockWithSectors(CVHDFileReader& reader, const CShape& shape, uint64_t index, const char* block) {
    for (uint64_t at = 0; at < shape.DataSectors(); ++at) {
        const uint64_t sector = index * shape.DataSectors() + at;
        if (sector >= reader.GetTotalSectors())
            return;
        char bytes[SectorBytes];
        const CZuError error = reader.ReadSector(sector, bytes, SectorBytes);
        const bool isSet = HasBit(block, shape.BitmapSectors() * SectorBytes, at);
        Demand(isSet == (reader.IsErrorSectorNotFound(error) == 0), "a sector is there when its bit is");
        if (!isSet)
            continue;
        DemandSuccess(error, "a sector of a readable block is readable");
        Demand(std::memcmp(bytes, block + (shape.BitmapSectors() + at) * SectorBytes, SectorBytes) == 0,
               "a block has its sectors' bytes");
    }
}

void ReadBlocks(CVHDFileReader& reader, const CShape& shape) {
    std::vector<char> block(shape.BlockBytes());
    for (uint64_t index = 0; index < shape.BlocksToTry(); ++index) {
        unsigned int got = 77;
        const CZuError error = reader.ReadBlock(index, block.data(), shape.BlockSectors(), got);
        Demand(got <= shape.BlockSectors() && (!error.IsErrorSet() || got == 0), "what came is counted");
        Demand(reader.IsErrorEOF(error) == 0 || index >= shape.Entries() || reader.GetTotalSectors() <= 1 ||
                   index * shape.BlockSectors() >= reader.GetTotalSectors(),
               "a disk ends with its sectors or its table");
        if (reader.IsErrorEOF(error) != 0)
            return;
        if (!error.IsErrorSet() && !shape.IsFixed())
            CompareBlockWithSectors(reader, shape, index, block.data());
        const uint64_t next = reader.NextHeldBlock(index);
        Demand(next >= index && (next == index) == (reader.IsErrorSectorNotFound(error) == 0),
               "holes are stepped over, and nothing else");
    }
}

uint64_t HexField(const std::string& dump, size_t offset, size_t digits) {
    return std::stoull(dump.substr(offset, digits), nullptr, 16);
}

// The dump's bitmaps name the sectors that reads find, and nothing stands behind the last of them.
void CompareWithDump(CVHDFileReader& reader, const CShape& shape, const std::string& dump) {
    constexpr size_t recordAt = 8;
    constexpr size_t topAt = recordAt + 1153;
    Demand(dump.size() >= topAt && HexField(dump, 0, 8) == 1, "a dump begins with one record");
    Demand(HexField(dump, recordAt + 1118, 16) == shape.Entries(), "a dump has a bit for each entry");
    const uint64_t bucketBytes = HexField(dump, recordAt + 1144, 8);
    uint64_t bucketAt = topAt + HexField(dump, recordAt + 1135, 8);
    for (uint64_t block = 0; block < shape.Entries(); ++block) {
        const bool isThere = HasBit(dump.data() + topAt, dump.size() - topAt, block);
        for (uint64_t at = 0; block < MostBlocks && at < std::min<uint64_t>(shape.DataSectors(), 64); ++at) {
            const uint64_t sector = block * shape.DataSectors() + at;
            if (sector >= reader.GetTotalSectors())
                break;
            char bytes[SectorBytes];
            const bool isHeld = isThere && HasBit(dump.data() + bucketAt, bucketBytes, at);
            const CZuError error = reader.ReadSector(sector, bytes, SectorBytes);
            Demand(isHeld == (reader.IsErrorSectorNotFound(error) == 0), "the dump names the sectors that reads find");
        }
        bucketAt += isThere ? bucketBytes : 0;
    }
    Demand(bucketAt == dump.size(), "a dump holds a bitmap for each block that is there");
}

void Dump(CVHDFileReader& reader, const CShape& shape, const CMemoryFiles& files) {
    CZuFile out;
    DemandSuccess(out.Open(DumpName, OpenForWriting | OpenCreating | OpenTruncating | OpenAsBinary, 384),
                  "a file in memory opens");
    if (reader.DumpSparseInfo(out, SourceName, FixedBlockSectors).IsErrorSet())
        return;  // a bitmap lies outside the file
    std::string dump(static_cast<size_t>(files.Find(DumpName)->Size()), '\0');
    files.Find(DumpName)->ReadAt(0, dump.data(), dump.size());
    CompareWithDump(reader, shape, dump);
}

// A record begins with the copy of the footer and ends with the footer. Where they differ, the disk
// is made as the copy says and opened as the footer says.
bool CopyOfFooterIsEqual(const CAutoMemory<char>& record) {
    return std::memcmp(record.GetPtr() + 32, record.GetPtr() + record.GetSize() - SectorBytes, SectorBytes) == 0;
}

void CopyBlocks(CVHDFileReader& source, const CShape& shape, CVHDFileReader& target) {
    CAutoMemory<char> block;
    for (uint64_t index = 0; index < shape.BlocksToTry(); ++index) {
        unsigned int got = 0;
        if (block.Alloc(shape.BlockBytes()) == nullptr)
            return;
        if (source.ReadBlock(index, block.GetPtr(), shape.BlockSectors(), got).IsErrorSet())
            continue;
        block.Alloc(got * SectorBytes);
        DemandSuccess(target.WriteBlock(index, shape.BlockSectors(), block), "what was read can be written");
    }
}

void CompareBlocks(CVHDFileReader& source, const CShape& shape, CVHDFileReader& copy) {
    std::vector<char> expected(shape.BlockBytes());
    std::vector<char> found(expected.size());
    for (uint64_t index = 0; index < shape.BlocksToTry(); ++index) {
        unsigned int got = 0;
        if (source.ReadBlock(index, expected.data(), shape.BlockSectors(), got).IsErrorSet())
            continue;
        unsigned int gotOfCopy = 0;
        DemandSuccess(copy.ReadBlock(index, found.data(), shape.BlockSectors(), gotOfCopy),
                      "what was written can be read");
        Demand(got == gotOfCopy && std::equal(expected.begin(), expected.begin() + got * SectorBytes, found.begin()),
               "a rebuilt block has its bytes");
    }
}

void CompareRecords(const CAutoMemory<char>& expected, CVHDFileReader& copy) {
    CAutoMemory<char> found;
    DemandSuccess(copy.GetMetadataInfo(found), "a rebuilt disk has a record");
    Demand(found.GetSize() == expected.GetSize() &&
               std::memcmp(found.GetPtr(), expected.GetPtr(), expected.GetSize()) == 0,
           "a rebuilt disk has the record that it was built from");
}

// Every piece goes back to where it was read, so that pieces that overlap agree in the copy too.
void Rebuild(CVHDFileReader& source, const CShape& shape, DiskType_t type) {
    CAutoMemory<char> record;
    if (source.GetMetadataInfo(record).IsErrorSet()) {
        Demand(record.GetSize() == 0, "a failed record is empty");
        return;
    }
    CVHDFileReader copy;
    const CZuError creating = copy.CreateDisk(CopyName, type, record);
    if (!shape.IsFixed() && !CopyOfFooterIsEqual(record))
        return;
    DemandSuccess(creating, "a whole record can be replayed");
    Demand(copy.GetTotalSectors() == source.GetTotalSectors() && copy.GetBlockSize() == source.GetBlockSize(),
           "a rebuilt disk has its form at once");
    CopyBlocks(source, shape, copy);
    DemandSuccess(copy.CloseDisk(), "a disk closes");
    DemandSuccess(copy.OpenDisk(CopyName, type), "a rebuilt disk opens");
    CompareRecords(record, copy);
    CompareBlocks(source, shape, copy);
}

// A disk that many small blocks make up is read for its own sake, others only in part.
void StreamAll(CArchiveVirtualDiskFile& disk, Context_t& context) {
    CAutoMemory<char> block;
    uint64_t number = 0;
    uint64_t next = 0;
    while (next < MostStreamedBlocks && !disk.GetNextBlock(block, number, context).IsErrorSet()) {
        Demand(number >= next, "the numbers of a stream rise");
        Demand(block.GetSize() <= context.blockSectors * SectorBytes, "a block isn't larger than it is");
        next = number + 1;
    }
}

void TryStream(DiskType_t type) {
    CArchiveVirtualDiskFile disk(VirtualProdType_HyperV);
    CAutoMemory<char> record;
    Context_t context{};
    if (disk.Open(SourceName, type).IsErrorSet() || disk.GetFirstBlock(record, FixedBlockSectors, context).IsErrorSet())
        return;
    if (context.blockSectors <= MostBlockSectors)
        StreamAll(disk, context);
}

void TryType(const CMemoryFiles& files, DiskType_t type) {
    CVHDFileReader reader;
    if (reader.OpenDisk(SourceName, type).IsErrorSet()) {
        Demand(files.OpenCount() == 0, "a failed open leaves no file open");
        return;
    }
    const CShape shape(reader, type);
    ReadEdgeSectors(reader);
    WalkRuns(reader);
    ReadBlocks(reader, shape);
    Dump(reader, shape, files);
    Rebuild(reader, shape, type);
    DemandSuccess(reader.CloseDisk(), "a disk closes");
    TryStream(type);
}

void TryFile(const std::string& bytes) {
    CMemoryFiles files;
    files.Put(SourceName, bytes.data(), bytes.size());
    for (const DiskType_t type : Types)
        TryType(files, type);
    Demand(files.OpenCount() == 0, "every file is closed in the end");
}

// The head's own size is put right, which no mutation would.
CAutoMemory<char> Record(const std::string& body, bool isFixed) {
    char head[33];
    std::snprintf(head, sizeof(head), "%s%08zx%016x", isFixed ? "VDMSFT10" : "VDMSSP10", 32 + body.size(), 0U);
    const std::string bytes = head + body;
    CAutoMemory<char> record;
    if (record.Alloc(static_cast<uint32_t>(bytes.size())) != nullptr)
        std::copy(bytes.begin(), bytes.end(), record.GetPtr());
    return record;
}

// What was made may hold anything: writing to it and reading it have to stay sound.
void TryRecord(const std::string& body, DiskType_t type) {
    CMemoryFiles files;
    CAutoMemory<char> record = Record(body, type == DiskType_VhdFixed);
    CVHDFileReader reader;
    if (reader.CreateDisk(CopyName, type, record).IsErrorSet()) {
        Demand(files.OpenCount() == 0 && files.Find(CopyName) != nullptr, "a refused record leaves a closed file");
        return;
    }
    const CShape shape(reader, type);
    CAutoMemory<char> block;
    for (const uint64_t index : {uint64_t{0}, uint64_t{1}, uint64_t{7}, uint64_t{1} << 32U, ~uint64_t{0}}) {
        if (shape.BlocksToTry() != 0 && block.Alloc(shape.BlockBytes()) != nullptr) {
            std::fill_n(block.GetPtr(), block.GetSize(), 'B');
            EitherWay(reader.WriteBlock(index, shape.BlockSectors(), block));
        }
    }
    DemandSuccess(reader.CloseDisk(), "a disk closes");
    EitherWay(reader.OpenDisk(CopyName, type));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(data, data + size);
    const size_t footerAt = size - std::min<size_t>(size, SectorBytes);
    TryFile(bytes);
    TryFile(bytes.substr(0, footerAt) + std::string(HoleBytes, '\0') + bytes.substr(footerAt));
    for (const DiskType_t type : Types)
        TryRecord(bytes, type);
    return 0;
}
