#include "agent/BackupSetReader.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>

#include "agent/ErrorText.h"
#include "agent/detail/SetDatabase.h"
#include "agent/detail/SetDigest.h"
#include "agent/detail/SetSchema.h"
#include "agent/detail/VmdkExtentCheck.h"
#include "foundation/ZuFile.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr size_t MostFiles = 64;
constexpr size_t LargestFileBytes = 1U << 20U;  // a descriptor has 20 KiB at most

// SQLite would make an empty database of a file that isn't there, and call text "not a database". A
// set has the rollback form alone, a 1 behind the page size, twice; of the other form SQLite would
// make files beside it for nothing but reading.
CZuError RefuseUnlessDatabase(const std::string& path) {
    static constexpr char beginning[] = "SQLite format 3";
    constexpr size_t writeForm = 18;
    constexpr size_t readForm = 19;
    CZuFile file;
    ZU_RETURN_IF_ERROR(ErrorAt(path, file.Open(path.c_str(), OpenAsBinary | OpenNotInherited, 0)));
    char bytes[readForm + 1] = {};
    unsigned int got = 0;
    Dropped(file.Read(bytes, sizeof(bytes), &got));  // a file too short to read is no set either
    if (got != sizeof(bytes) || std::memcmp(bytes, beginning, sizeof(beginning)) != 0 || bytes[writeForm] != 1 ||
        bytes[readForm] != 1)
        return Refusal(path + ": is no backup set");
    return CZuError();
}

bool ReadDigest(CSetStatement& row, int column, BlockDigest_t& digest) {
    uint32_t size = 0;
    const char* const bytes = row.Bytes(column, size);
    if (bytes == nullptr || size != digest.size())
        return false;
    std::memcpy(digest.data(), bytes, digest.size());
    return true;
}

// Columns from `firstColumn`: digest, encoding, data.
bool ReadEncoded(CSetStatement& row, int firstColumn, EncodedBlock_t& encoded) {
    if (!ReadDigest(row, firstColumn, encoded.digest))
        return false;
    const int64_t encoding = row.Number(firstColumn + 1);
    encoded.encoding = static_cast<BlockEncoding_t>(encoding);
    encoded.data = row.Bytes(firstColumn + 2, encoded.sizeBytes);
    return encoding >= static_cast<int>(BlockEncoding_t::Zeros) && encoding <= static_cast<int>(BlockEncoding_t::Zstd);
}

// Puts the pieces of a record together. The memory grows with the pieces that are there, not with
// what the set promises.
class CRecordAssembler {
public:
    CRecordAssembler(CAutoMemory<char>& record, uint64_t wholeBytes) : m_Record(record), m_WholeBytes(wholeBytes) {
        m_Record.Free();
    }

    // Columns from 0: size, digest, encoding, data.
    bool Append(CSetStatement& row) {
        const int64_t size = row.Number(0);
        EncodedBlock_t encoded;
        if (size <= 0 || size > RecordPieceBytes || !ReadEncoded(row, 1, encoded) ||
            !m_Decoder.Decode(encoded, static_cast<uint32_t>(size), m_Piece))
            return false;
        const uint32_t done = m_Record.GetSize();
        if (done + static_cast<uint64_t>(size) > m_WholeBytes)
            return false;
        MakeRoom(done + static_cast<uint64_t>(size));
        m_Record.Alloc(done + static_cast<uint32_t>(size));
        std::memcpy(m_Record.GetPtr() + done, m_Piece.GetPtr(), static_cast<size_t>(size));
        return true;
    }

private:
    void MakeRoom(uint64_t neededBytes) {
        if (neededBytes <= m_RoomBytes)
            return;
        m_RoomBytes = std::min(std::max(neededBytes, 2 * m_RoomBytes), m_WholeBytes);
        if (m_Record.ReAlloc(static_cast<uint32_t>(m_RoomBytes)) == nullptr)
            throw std::bad_alloc();
    }

    CAutoMemory<char>& m_Record;
    const uint64_t m_WholeBytes;
    uint64_t m_RoomBytes = 0;
    CBlockDecoder m_Decoder;
    CAutoMemory<char> m_Piece;
};

}  // namespace

struct CBackupSetReader::Impl_t {
    CSetDatabase database;
    CSetStatement blocks;
    SetStream_t stream;   // the one being walked
    bool isAtEnd = true;  // a finished query would begin anew,
    CZuError failure;     // and one that failed as well
    uint64_t blockCount = 0;
    uint64_t storedBytes = 0;
    std::unique_ptr<CRunningDigest> digest;
};

CBackupSetReader::CBackupSetReader() : m_Impl(std::make_unique<Impl_t>()) {}
CBackupSetReader::~CBackupSetReader() = default;

CZuError CBackupSetReader::Open(const std::string& path) {
    m_Path = path;
    m_Streams.clear();
    m_Files.clear();
    m_Impl = std::make_unique<Impl_t>();
    ZU_RETURN_IF_ERROR(RefuseUnlessDatabase(path));
    ZU_RETURN_IF_ERROR(m_Impl->database.OpenForReading(path));
    ZU_RETURN_IF_ERROR(CheckFormat());
    ZU_RETURN_IF_ERROR(CheckTables());
    ZU_RETURN_IF_ERROR(ReadInfo());
    ZU_RETURN_IF_ERROR(ReadStreams());
    ZU_RETURN_IF_ERROR(ReadFiles());
    if (DigestOfSet(m_Info, m_Streams, m_Files) != m_Digest)
        return Damaged("the digest over its lists is wrong");
    return CZuError();
}

CZuError CBackupSetReader::Damaged(const std::string& what) const {
    return Refusal(m_Path + ": the set is damaged: " + what);
}

CZuError CBackupSetReader::CheckFormat() {
    int64_t application = 0;
    int64_t version = 0;
    ZU_RETURN_IF_ERROR(m_Impl->database.QueryNumber("PRAGMA application_id", application));
    ZU_RETURN_IF_ERROR(m_Impl->database.QueryNumber("PRAGMA user_version", version));
    if (application != SetApplicationId)
        return Refusal(m_Path + ": is a database, but no backup set");
    if (version > BackupSetVersion)
        return Refusal(CZuString::Format("{1}: is a set of format version {2}; this program reads versions up to {3}, "
                                         "so use a newer one",
                                         m_Path, version, BackupSetVersion));
    return version < 1 ? Damaged(CZuString::Format("it has the format version {1}", version).c_str()) : CZuError();
}

// A view or trigger, or a table of another shape, could have us read or run anything.
CZuError CBackupSetReader::CheckTables() {
    CSetStatement rows;
    ZU_RETURN_IF_ERROR(rows.Prepare(m_Impl->database, "SELECT type, name, sql FROM sqlite_schema"));
    size_t found = 0;
    for (;;) {
        bool hasRow = false;
        ZU_RETURN_IF_ERROR(rows.Step(hasRow));
        if (!hasRow)
            break;
        const std::string name = rows.Text(1);
        const std::string sql = rows.Text(2);
        const bool isOurs = rows.Text(0) == "table" &&
                            std::any_of(std::begin(SetTables), std::end(SetTables), [&](const SetTable_t& table) {
                                return name == table.name && sql == table.sql;
                            });
        if (!isOurs)
            return Damaged("its table " + name + " isn't one of a backup set");
        ++found;
    }
    return found == std::size(SetTables) ? CZuError() : Damaged("tables are missing");
}

CZuError CBackupSetReader::ReadInfo() {
    CSetStatement row;
    ZU_RETURN_IF_ERROR(row.Prepare(m_Impl->database, "SELECT * FROM backup_set"));
    bool hasRow = false;
    ZU_RETURN_IF_ERROR(row.Step(hasRow));
    if (!hasRow)
        return Damaged("its own row is missing");
    m_Info.imageName = row.Text(0);
    m_Info.product = static_cast<ProductType_t>(row.Number(1));
    m_Info.diskType = static_cast<DiskType_t>(row.Number(2));
    m_Info.diskSectors = static_cast<uint64_t>(row.Number(3));
    m_Info.hasParent = row.Number(4) != 0;
    m_Info.parentName = row.Text(5);
    m_Info.createdUtc = row.Text(6);
    m_Info.writer = row.Text(7);
    return ReadDigest(row, 8, m_Digest) ? CZuError() : Damaged("its digest is missing");
}

CZuError CBackupSetReader::ReadStreams() {
    CSetStatement rows;
    ZU_RETURN_IF_ERROR(rows.Prepare(m_Impl->database, "SELECT * FROM stream ORDER BY id"));
    for (;;) {
        bool hasRow = false;
        ZU_RETURN_IF_ERROR(rows.Step(hasRow));
        if (!hasRow)
            return CZuError();
        SetStream_t stream;
        stream.id = rows.Number(0);
        stream.fileName = rows.Text(1);
        stream.diskType = static_cast<DiskType_t>(rows.Number(2));
        stream.blockSectors = static_cast<uint32_t>(rows.Number(3));
        stream.diskSectors = static_cast<uint64_t>(rows.Number(4));
        stream.fileBytes = static_cast<uint64_t>(rows.Number(5));
        stream.recordBytes = static_cast<uint64_t>(rows.Number(6));
        stream.blockCount = static_cast<uint64_t>(rows.Number(8));
        stream.storedBytes = static_cast<uint64_t>(rows.Number(9));
        if (!ReadDigest(rows, 7, stream.recordDigest) || !ReadDigest(rows, 10, stream.digest))
            return Damaged("a digest of " + stream.fileName + " is missing");
        ZU_RETURN_IF_ERROR(CheckStream(stream));
        m_Streams.push_back(stream);
    }
}

CZuError CBackupSetReader::CheckStream(const SetStream_t& stream) const {
    constexpr uint64_t mostSectors = uint64_t{INT64_MAX} >> SectorShift;
    if (stream.id < 0 || stream.id >= StreamEnd)
        return Damaged("the number of " + stream.fileName + " is out of range");
    if (stream.blockSectors == 0 || stream.blockSectors > LargestGrainSectors)
        return Damaged("the block size of " + stream.fileName + " is out of range");
    if (stream.diskSectors > mostSectors || stream.fileBytes > uint64_t{INT64_MAX} ||
        stream.recordBytes > LargestRecordBytes)
        return Damaged("a size of " + stream.fileName + " is out of range");
    return CZuError();
}

CZuError CBackupSetReader::ReadFiles() {
    CSetStatement rows;
    ZU_RETURN_IF_ERROR(rows.Prepare(m_Impl->database, "SELECT name, bytes FROM file ORDER BY name"));
    for (;;) {
        bool hasRow = false;
        ZU_RETURN_IF_ERROR(rows.Step(hasRow));
        if (!hasRow)
            return CZuError();
        m_Files.push_back({rows.Text(0), rows.Text(1)});
        if (m_Files.size() > MostFiles || m_Files.back().bytes.size() > LargestFileBytes)
            return Damaged("it holds files that no disk has");
    }
}

CZuError CBackupSetReader::ReadRecord(const SetStream_t& stream, CAutoMemory<char>& record) {
    CSetStatement rows;
    ZU_RETURN_IF_ERROR(rows.Prepare(m_Impl->database,
                                    "SELECT size, digest, encoding, data FROM record WHERE stream = ? ORDER BY piece"));
    rows.Bind(1, stream.id);
    CRecordAssembler assembler(record, stream.recordBytes);
    for (;;) {
        bool hasRow = false;
        ZU_RETURN_IF_ERROR(rows.Step(hasRow));
        if (!hasRow)
            break;
        if (!assembler.Append(rows))
            return Damaged("the metadata record of " + stream.fileName);
    }
    if (record.GetSize() != stream.recordBytes || DigestOf(record.GetPtr(), record.GetSize()) != stream.recordDigest)
        return Damaged("the metadata record of " + stream.fileName);
    return CZuError();
}

CZuError CBackupSetReader::BeginBlocks(const SetStream_t& stream) {
    m_Impl->stream = stream;
    m_Impl->isAtEnd = false;
    m_Impl->failure.Reset();
    m_Impl->blockCount = 0;
    m_Impl->storedBytes = 0;
    m_Impl->digest = std::make_unique<CRunningDigest>();
    ZU_RETURN_IF_ERROR(m_Impl->blocks.Prepare(m_Impl->database, "SELECT id, sectors, digest, encoding, data FROM block "
                                                                "WHERE id >= ? AND id < ? ORDER BY id"));
    m_Impl->blocks.Bind(1, stream.id << BlockNumberBits);
    m_Impl->blocks.Bind(2, (stream.id + 1) << BlockNumberBits);
    return CZuError();
}

CZuError CBackupSetReader::NextBlock(std::optional<SetBlock_t>& block) {
    block.reset();
    if (!m_Impl->isAtEnd && !m_Impl->failure.IsErrorSet())
        m_Impl->failure = StepToBlock(block);
    return m_Impl->failure;
}

CZuError CBackupSetReader::StepToBlock(std::optional<SetBlock_t>& block) {
    bool hasRow = false;
    ZU_RETURN_IF_ERROR(m_Impl->blocks.Step(hasRow));
    if (!hasRow)
        return EndBlocks();
    SetBlock_t next;
    next.number = static_cast<uint64_t>(m_Impl->blocks.Number(0)) % BlockNumberEnd;
    const int64_t sectors = m_Impl->blocks.Number(1);
    if (sectors <= 0 || sectors > m_Impl->stream.blockSectors || !ReadEncoded(m_Impl->blocks, 2, next.encoded))
        return Damaged(CZuString::Format("block {1} of {2}", next.number, m_Impl->stream.fileName).c_str());
    next.sectors = static_cast<uint32_t>(sectors);
    ZU_RETURN_IF_ERROR(CheckBlock(next));
    AddToDigest(*m_Impl->digest, next);
    ++m_Impl->blockCount;
    m_Impl->storedBytes += next.encoded.sizeBytes;
    block = next;
    return CZuError();
}

// Where a block lies is computed from its number all over, so it is proved here.
CZuError CBackupSetReader::CheckBlock(const SetBlock_t& block) const {
    uint64_t firstSector = 0;
    uint64_t firstByte = 0;
    if (!CheckedMul(block.number, m_Impl->stream.blockSectors, firstSector) ||
        !SectorsToBytes(firstSector, firstByte) || firstByte > uint64_t{INT64_MAX})
        return Damaged(
            CZuString::Format("block {1} of {2} lies nowhere", block.number, m_Impl->stream.fileName).c_str());
    return CZuError();
}

CZuError CBackupSetReader::EndBlocks() {
    const SetStream_t& stream = m_Impl->stream;
    m_Impl->isAtEnd = true;
    if (m_Impl->blockCount != stream.blockCount || m_Impl->storedBytes != stream.storedBytes ||
        m_Impl->digest->Result() != stream.digest)
        return Damaged("blocks of " + stream.fileName + " are lost or changed");
    return CZuError();
}
