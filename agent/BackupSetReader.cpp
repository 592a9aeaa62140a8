#include "agent/BackupSetReader.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "agent/ErrorText.h"
#include "agent/detail/SetBlockFinder.h"
#include "agent/detail/SetDatabase.h"
#include "agent/detail/SetDigest.h"
#include "agent/detail/SetEntryReader.h"
#include "agent/detail/SetPartReader.h"
#include "agent/detail/SetRows.h"
#include "agent/detail/SetSchema.h"
#include "foundation/ZuFile.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

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

// Rows of one disk follow one another.
template <typename Row> std::span<const Row> OfDisk(const std::vector<Row>& rows, int64_t disk) {
    const auto isOfOlder = [](const Row& row, int64_t wanted) { return row.disk < wanted; };
    const auto first = std::lower_bound(rows.begin(), rows.end(), disk, isOfOlder);
    const auto end = std::lower_bound(first, rows.end(), disk + 1, isOfOlder);
    return {first, end};
}

}  // namespace

struct CBackupSetReader::Impl_t {
    CSetDatabase database;
    SetLists_t lists;
    CSetPartReader parts{database};
    CSetBlockFinder finder{database, lists, parts};
    CSetEntryReader entries{database};
    CSetStatement blocks;
    SetStream_t stream;   // the one being walked
    bool isAtEnd = true;  // a finished query would begin anew,
    CZuError failure;     // and one that failed as well
    uint64_t blockCount = 0;
    uint64_t storedBytes = 0;
    std::unique_ptr<CRunningDigest> digest;
    unsigned holds = 0;
};

CBackupSetReader::CBackupSetReader() : m_Impl(std::make_unique<Impl_t>()) {}
CBackupSetReader::~CBackupSetReader() = default;

CZuError CBackupSetReader::Open(const std::string& path) {
    m_Path = path;
    m_Impl = std::make_unique<Impl_t>();
    ZU_RETURN_IF_ERROR(RefuseUnlessDatabase(path));
    ZU_RETURN_IF_ERROR(m_Impl->database.OpenForReading(path));
    return ReadSetLists(m_Impl->database, m_Impl->lists);
}

void CBackupSetReader::Hold() {
    if (m_Impl->holds++ == 0)
        Dropped(m_Impl->database.Execute("BEGIN"));  // the reads tell of what stands in their way
}

void CBackupSetReader::LetGo() {
    if (m_Impl->holds != 0 && --m_Impl->holds == 0)
        Dropped(m_Impl->database.Execute("COMMIT"));  // nothing was written
}

const SetInfo_t& CBackupSetReader::Info() const {
    return m_Impl->lists.info;
}

const std::vector<SetDisk_t>& CBackupSetReader::Disks() const {
    return m_Impl->lists.disks;
}

const std::vector<SetStream_t>& CBackupSetReader::Streams() const {
    return m_Impl->lists.streams;
}

std::span<const SetStream_t> CBackupSetReader::StreamsOf(int64_t disk) const {
    return OfDisk(m_Impl->lists.streams, disk);
}

const std::vector<SetFile_t>& CBackupSetReader::Files() const {
    return m_Impl->lists.files;
}

std::span<const SetFile_t> CBackupSetReader::FilesOf(int64_t disk) const {
    return OfDisk(m_Impl->lists.files, disk);
}

const std::vector<SetVolume_t>& CBackupSetReader::Volumes() const {
    return m_Impl->lists.volumes;
}

const std::vector<SetPart_t>& CBackupSetReader::Parts() const {
    return m_Impl->lists.parts;
}

const SetPart_t* CBackupSetReader::FindPart(const std::string& name) const {
    return FindPartIn(m_Impl->lists.parts, name);
}

CZuError CBackupSetReader::ReadBlock(const SetStream_t& stream, uint64_t number, CAutoMemory<char>& bytes,
                                     bool& isThere) {
    return m_Impl->finder.Read(stream, number, bytes, isThere);
}

CZuError CBackupSetReader::ReadPart(const SetPart_t& part, uint64_t offset, char* buffer, uint32_t size) {
    return m_Impl->parts.Read(part, offset, buffer, size);
}

CZuError CBackupSetReader::ForEachEntry(int64_t volume, uint64_t parent, const std::function<bool(SetEntry_t&)>& take) {
    return m_Impl->entries.ForEach(volume, parent, take);
}

CZuError CBackupSetReader::FindEntry(int64_t volume, uint64_t parent, const std::string& name,
                                     std::optional<SetEntry_t>& entry) {
    return m_Impl->entries.Find(volume, parent, name, entry);
}

CZuError CBackupSetReader::ProveEntries(const SetVolume_t& volume) {
    return m_Impl->entries.Prove(volume);
}

CZuError CBackupSetReader::ProvePart(const SetPart_t& part) {
    return m_Impl->parts.Prove(part);
}

CZuError CBackupSetReader::Damaged(const std::string& what) const {
    return m_Impl->database.Damaged(what);
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
    m_Impl->blocks.Bind(1, FirstIdOf(stream.id));
    m_Impl->blocks.Bind(2, FirstIdOf(stream.id + 1));
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
