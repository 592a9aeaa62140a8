#include "agent/BackupSetReader.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "agent/ErrorText.h"
#include "agent/detail/SetBases.h"
#include "agent/detail/SetBlockFinder.h"
#include "agent/detail/SetBlockWalk.h"
#include "agent/detail/SetDatabase.h"
#include "agent/detail/SetDigest.h"
#include "agent/detail/SetEntryReader.h"
#include "agent/detail/SetPartReader.h"
#include "agent/detail/SetRows.h"
#include "agent/detail/SetSchema.h"
#include "foundation/ZuFile.h"
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

// A walk over what one set has, and its next block that wasn't given yet.
struct CBackupSetReader::Side_t {
    bool isAtEnd = false;
    std::optional<SetBlock_t> next;
};

struct CBackupSetReader::Impl_t {
    CSetDatabase database;
    SetLists_t lists;
    CSetPartReader parts{database};
    CSetBlockFinder finder{database, lists, parts};
    CSetRuns inheritedRuns{database, lists, parts, InheritedPartPrefix};
    CSetEntryReader entries{database};
    std::unique_ptr<CBackupSetReader> base;  // once it is open
    CSetBlockWalk walk{database};
    SetStream_t stream;  // the one being walked
    Side_t own;
    Side_t inherited;
    CZuError failure;  // a walk that failed doesn't go on
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

CZuError CBackupSetReader::OpenBases(const std::vector<std::string>& places) {
    std::vector<BlockDigest_t> above;
    return OpenBasesBelow(places, above);
}

// Each set is one more level of reading, and one more open file.
CZuError CBackupSetReader::OpenBasesBelow(const std::vector<std::string>& places, std::vector<BlockDigest_t>& above) {
    constexpr size_t mostSets = 1000;
    if (std::find(above.begin(), above.end(), Identity()) != above.end())
        return Damaged("it builds on itself");
    above.push_back(Identity());
    if (above.size() > mostSets)
        return Refusal(m_Path + ": more than 1000 sets build on it; make a whole one of some with `consolidate`");
    if (!Info().base.has_value())
        return CZuError();
    std::unique_ptr<CBackupSetReader> base;
    ZU_RETURN_IF_ERROR(FindSetBase(*this, places, base));
    for (const SetStream_t& stream : Streams()) {
        const auto same = std::find_if(base->Streams().begin(), base->Streams().end(), [&](const SetStream_t& each) {
            return each.id == stream.id && each.blockSectors == stream.blockSectors &&
                   each.diskSectors == stream.diskSectors;
        });
        if (same == base->Streams().end())
            return Damaged("its base " + base->Path() + " has no such stream as " + stream.fileName);
    }
    ZU_RETURN_IF_ERROR(base->OpenBasesBelow(places, above));
    m_Impl->base = std::move(base);
    return CZuError();
}

const CBackupSetReader* CBackupSetReader::Base() const {
    return m_Impl->base.get();
}

const BlockDigest_t& CBackupSetReader::Identity() const {
    return m_Impl->lists.digest;
}

uint64_t CBackupSetReader::StoredBytesOf(const SetStream_t& stream) const {
    return stream.storedBytes + (m_Impl->base != nullptr ? m_Impl->base->StoredBytesOf(BaseStreamOf(stream)) : 0);
}

CZuError CBackupSetReader::RefuseWithoutBase() const {
    return m_Impl->base != nullptr ? CZuError() : Refusal(m_Path + ": the set on which it builds isn't open");
}

void CBackupSetReader::Hold() {
    if (m_Impl->holds++ == 0)
        Dropped(m_Impl->database.Execute("BEGIN"));  // the reads tell of what stands in their way
    if (m_Impl->base != nullptr)
        m_Impl->base->Hold();
}

void CBackupSetReader::LetGo() {
    if (m_Impl->holds != 0 && --m_Impl->holds == 0)
        Dropped(m_Impl->database.Execute("COMMIT"));  // nothing was written
    if (m_Impl->base != nullptr)
        m_Impl->base->LetGo();
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
    ZU_RETURN_IF_ERROR(m_Impl->finder.Read(stream, number, bytes, isThere));
    if (isThere || !Info().base.has_value())
        return CZuError();
    bool isInherited = false;
    ZU_RETURN_IF_ERROR(m_Impl->inheritedRuns.Has(stream, number, isInherited));
    if (!isInherited)
        return CZuError();
    ZU_RETURN_IF_ERROR(RefuseWithoutBase());
    return m_Impl->base->ReadBlock(BaseStreamOf(stream), number, bytes, isThere);
}

CZuError CBackupSetReader::HasBlock(const SetStream_t& stream, uint64_t number, bool& isThere) {
    ZU_RETURN_IF_ERROR(m_Impl->finder.Has(stream, number, isThere));
    return isThere || !Info().base.has_value() ? CZuError() : m_Impl->inheritedRuns.Has(stream, number, isThere);
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

CZuError CBackupSetReader::ForEachEntryOf(const SetVolume_t& volume, const std::function<bool(SetEntry_t&)>& take) {
    return m_Impl->entries.ForEachOf(volume, take);
}

CZuError CBackupSetReader::ProveEntries(const SetVolume_t& volume) {
    return m_Impl->entries.ForEachOf(volume, [](SetEntry_t& /*entry*/) { return true; });
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
    m_Impl->failure.Reset();
    m_Impl->own = Side_t();
    m_Impl->inherited = Side_t();
    m_Impl->inherited.isAtEnd = !m_Impl->lists.info.base.has_value();
    ZU_RETURN_IF_ERROR(m_Impl->walk.Begin(stream));
    if (m_Impl->inherited.isAtEnd)
        return CZuError();
    ZU_RETURN_IF_ERROR(RefuseWithoutBase());
    return m_Impl->base->BeginBlocks(BaseStreamOf(stream));
}

CZuError CBackupSetReader::NextBlock(std::optional<SetBlock_t>& block) {
    block.reset();
    if (!m_Impl->failure.IsErrorSet())
        m_Impl->failure = StepToBlock(block);
    return m_Impl->failure;
}

// The one of the lower number of what the set itself and its base have next. Only the side that was given goes on, so
// that the other one's bytes stay.
CZuError CBackupSetReader::StepToBlock(std::optional<SetBlock_t>& block) {
    Side_t& own = m_Impl->own;
    Side_t& inherited = m_Impl->inherited;
    if (!own.isAtEnd && !own.next.has_value()) {
        ZU_RETURN_IF_ERROR(m_Impl->walk.Next(own.next));
        own.isAtEnd = !own.next.has_value();
    }
    if (!inherited.isAtEnd && !inherited.next.has_value())
        ZU_RETURN_IF_ERROR(StepToInherited(inherited));
    if (own.next.has_value() && inherited.next.has_value() && own.next->number == inherited.next->number)
        return Damaged(
            CZuString::Format("block {1} of {2} is in it and in its base", own.next->number, m_Impl->stream.fileName)
                .c_str());
    const bool isOwn =
        own.next.has_value() && (!inherited.next.has_value() || own.next->number < inherited.next->number);
    std::swap(block, isOwn ? own.next : inherited.next);
    return CZuError();
}

// Passes over the base's blocks that the set has anew, or that are free since then. Its walk is taken to its end, which
// proves that none was lost.
CZuError CBackupSetReader::StepToInherited(Side_t& side) {
    for (;;) {
        ZU_RETURN_IF_ERROR(m_Impl->base->NextBlock(side.next));
        side.isAtEnd = !side.next.has_value();
        if (side.isAtEnd)
            return CZuError();
        bool isListed = false;
        ZU_RETURN_IF_ERROR(m_Impl->inheritedRuns.Has(m_Impl->stream, side.next->number, isListed));
        side.next->isInherited = true;
        if (isListed)
            return CZuError();
    }
}

const SetStream_t& CBackupSetReader::BaseStreamOf(const SetStream_t& stream) const {
    const std::vector<SetStream_t>& streams = m_Impl->base->Streams();
    return *std::find_if(streams.begin(), streams.end(), [&](const SetStream_t& each) { return each.id == stream.id; });
}
