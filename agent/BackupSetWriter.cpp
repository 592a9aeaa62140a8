#include "agent/BackupSetWriter.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <tuple>
#include <vector>

#include "agent/ErrorText.h"
#include "agent/detail/BlockRuns.h"
#include "agent/detail/EarlySync.h"
#include "agent/detail/SetDatabase.h"
#include "agent/detail/SetDigest.h"
#include "agent/detail/SetEntryWriter.h"
#include "agent/detail/SetPartWriter.h"
#include "agent/detail/SetRows.h"
#include "agent/detail/SetSchema.h"
#include "agent/detail/StagedFile.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

// The set becomes whole by its rename alone, so the database needs neither a journal nor syncs of
// its own. Its pages fit blocks of 64 KiB with little waste; the cache is all it keeps in memory.
constexpr const char* Setup[] = {
    "PRAGMA page_size = 16384",  "PRAGMA journal_mode = OFF",       "PRAGMA synchronous = OFF",
    "PRAGMA cache_size = -4096", "PRAGMA locking_mode = EXCLUSIVE",
};

}  // namespace

struct CBackupSetWriter::Impl_t {
    // A list of a stream's blocks on its way into the set.
    struct Runs_t {
        std::optional<PartBegun_t> part;
        std::unique_ptr<CBlockRuns> runs;
    };

    CZuError CreateTables();
    CZuError SetVersion();
    CZuError PrepareStatements();
    CZuError AddRecordPiece(int64_t piece, const char* bytes, uint32_t size);
    CZuError BeginRuns(const std::string& part, Runs_t& runs);
    CZuError EndRuns(Runs_t& runs);
    CZuError WriteDisks();
    CZuError WriteInfo();

    CStagedFile staged;
    CEarlySync earlySync;   // its end would give the database's locks away
    CSetDatabase database;  // closed before those go
    CSetStatement addBlock;
    CSetStatement addRecordPiece;
    CSetStatement addStream;
    CSetStatement addFile;
    CAutoMemory<char> packed;
    SetStream_t stream;  // the one being written
    std::unique_ptr<CRunningDigest> streamDigest;
    std::unique_ptr<CBlockEncoder> encoder;
    Runs_t ownBlocks;
    Runs_t inheritedBlocks;
    CSetPartWriter parts;
    CSetEntryWriter entries;
    SetLists_t lists;
    uint64_t sizeBytes = 0;
};

CBackupSetWriter::CBackupSetWriter() : m_Impl(std::make_unique<Impl_t>()) {}
CBackupSetWriter::~CBackupSetWriter() = default;

CZuError CBackupSetWriter::Create(const std::string& path, bool replacing) {
    ZU_RETURN_IF_ERROR(m_Impl->staged.Begin(path, replacing));
    ZU_RETURN_IF_ERROR(m_Impl->database.Create(m_Impl->staged.TemporaryName(), path));
    ZU_RETURN_IF_ERROR(ErrorAt(path, m_Impl->earlySync.Begin(m_Impl->staged.TemporaryName())));
    for (const char* sql : Setup)
        ZU_RETURN_IF_ERROR(m_Impl->database.Execute(sql));
    ZU_RETURN_IF_ERROR(m_Impl->CreateTables());
    ZU_RETURN_IF_ERROR(m_Impl->PrepareStatements());
    ZU_RETURN_IF_ERROR(m_Impl->database.Execute("BEGIN"));
    return CZuError();
}

CZuError CBackupSetWriter::BeginStream(const SetStream_t& stream, const CAutoMemory<char>& record,
                                       int compressionLevel) {
    if (record.GetSize() > LargestRecordBytes)
        return Refusal(CZuString::Format("{1}: its tables take {2} bytes, more than a set can keep", stream.fileName,
                                         record.GetSize()));
    m_Impl->stream = stream;
    m_Impl->stream.recordBytes = record.GetSize();
    m_Impl->stream.recordDigest = DigestOf(record.GetPtr(), record.GetSize());
    m_Impl->stream.blockCount = 0;
    m_Impl->stream.storedBytes = 0;
    m_Impl->streamDigest = std::make_unique<CRunningDigest>();
    m_Impl->encoder = std::make_unique<CBlockEncoder>(compressionLevel);
    ZU_RETURN_IF_ERROR(m_Impl->BeginRuns(BlocksPartName(stream.id), m_Impl->ownBlocks));
    if (m_Impl->lists.info.base.has_value())
        ZU_RETURN_IF_ERROR(m_Impl->BeginRuns(InheritedPartName(stream.id), m_Impl->inheritedBlocks));
    int64_t piece = 0;
    for (uint64_t done = 0; done < record.GetSize(); done += RecordPieceBytes, ++piece) {
        const auto size = static_cast<uint32_t>(std::min<uint64_t>(record.GetSize() - done, RecordPieceBytes));
        ZU_RETURN_IF_ERROR(m_Impl->AddRecordPiece(piece, record.GetPtr() + done, size));
    }
    return CZuError();
}

CZuError CBackupSetWriter::AddBlock(const SetBlock_t& block) {
    if (block.number >= BlockNumberEnd)
        return Refusal(
            CZuString::Format("{1}: block {2} is beyond what a set can number", m_Impl->staged.Target(), block.number));
    Impl_t::Runs_t& inherited = m_Impl->inheritedBlocks;
    if (!m_Impl->ownBlocks.runs->IsBehind(block.number) ||
        (inherited.runs != nullptr && !inherited.runs->IsBehind(block.number)))
        return Refusal(CZuString::Format("{1}: block {2} comes behind one of a higher number", m_Impl->staged.Target(),
                                         block.number));
    if (block.isInherited)
        return inherited.runs != nullptr ? inherited.runs->Add(block.number)
                                         : Refusal(m_Impl->staged.Target() + ": has no base to have blocks in");
    m_Impl->addBlock.Bind(1, FirstIdOf(m_Impl->stream.id) + static_cast<int64_t>(block.number));
    m_Impl->addBlock.Bind(2, block.sectors);
    BindEncoded(m_Impl->addBlock, 3, block.encoded);
    ZU_RETURN_IF_ERROR(m_Impl->addBlock.Run());
    ZU_RETURN_IF_ERROR(m_Impl->ownBlocks.runs->Add(block.number));
    AddToDigest(*m_Impl->streamDigest, block);
    ++m_Impl->stream.blockCount;
    m_Impl->stream.storedBytes += block.encoded.sizeBytes;
    m_Impl->earlySync.Count(block.encoded.sizeBytes);
    return CZuError();
}

CZuError CBackupSetWriter::EndStream() {
    SetStream_t& stream = m_Impl->stream;
    stream.digest = m_Impl->streamDigest->Result();
    for (Impl_t::Runs_t* const runs : {&m_Impl->ownBlocks, &m_Impl->inheritedBlocks})
        ZU_RETURN_IF_ERROR(m_Impl->EndRuns(*runs));
    CSetStatement& add = m_Impl->addStream;
    add.Bind(1, stream.id);
    add.Bind(2, stream.disk);
    add.Bind(3, stream.fileName);
    add.Bind(4, static_cast<int64_t>(stream.diskType));
    add.Bind(5, stream.blockSectors);
    add.Bind(6, static_cast<int64_t>(stream.diskSectors));
    add.Bind(7, static_cast<int64_t>(stream.fileBytes));
    add.Bind(8, static_cast<int64_t>(stream.recordBytes));
    add.BindBytes(9, stream.recordDigest.data(), stream.recordDigest.size());
    add.Bind(10, static_cast<int64_t>(stream.blockCount));
    add.Bind(11, static_cast<int64_t>(stream.storedBytes));
    add.BindBytes(12, stream.digest.data(), stream.digest.size());
    ZU_RETURN_IF_ERROR(add.Run());
    m_Impl->lists.streams.push_back(stream);
    return CZuError();
}

CZuError CBackupSetWriter::AddFile(const SetFile_t& file) {
    m_Impl->addFile.Bind(1, file.disk);
    m_Impl->addFile.Bind(2, file.name);
    m_Impl->addFile.BindBytes(3, file.bytes.data(), file.bytes.size());
    ZU_RETURN_IF_ERROR(m_Impl->addFile.Run());
    m_Impl->lists.files.push_back(file);
    return CZuError();
}

CZuError CBackupSetWriter::AddDisk(const SetDisk_t& disk) {
    m_Impl->lists.disks.push_back(disk);
    return CZuError();
}

CZuError CBackupSetWriter::AddPart(const std::string& name, int compressionLevel, const ReadPart_t& read) {
    return m_Impl->parts.Add(name, compressionLevel, read);
}

CZuError CBackupSetWriter::AddVolume(const SetVolume_t& volume) {
    return m_Impl->entries.Begin(volume);
}

CZuError CBackupSetWriter::AddEntry(const SetEntry_t& entry) {
    return m_Impl->entries.Add(entry);
}

CZuError CBackupSetWriter::BuildOn(const SetBase_t& base) {
    m_Impl->lists.info.base = base;
    m_Impl->lists.version = BackupSetVersion;
    ZU_RETURN_IF_ERROR(m_Impl->SetVersion());
    ZU_RETURN_IF_ERROR(m_Impl->database.Execute(BaseTable.sql));
    CSetStatement add;
    ZU_RETURN_IF_ERROR(add.Prepare(m_Impl->database, "INSERT INTO base VALUES (?, ?, ?)"));
    add.Bind(1, base.name);
    add.BindBytes(2, base.identity.data(), base.identity.size());
    add.Bind(3, base.changedSince);
    return add.Run();
}

CZuError CBackupSetWriter::Commit(const SetInfo_t& info) {
    m_Impl->lists.info.createdUtc = info.createdUtc;
    m_Impl->lists.info.writer = info.writer;
    ZU_RETURN_IF_ERROR(m_Impl->WriteDisks());
    ZU_RETURN_IF_ERROR(m_Impl->entries.End(m_Impl->lists.volumes));
    ZU_RETURN_IF_ERROR(m_Impl->WriteInfo());
    ZU_RETURN_IF_ERROR(m_Impl->database.Execute("COMMIT"));
    for (CSetStatement* statement : {&m_Impl->addBlock, &m_Impl->addRecordPiece, &m_Impl->addStream, &m_Impl->addFile})
        statement->Finish();
    m_Impl->parts.Finish();
    ZU_RETURN_IF_ERROR(m_Impl->database.Close());
    m_Impl->earlySync.End();
    std::error_code ignored;  // the size is for the summary alone
    m_Impl->sizeBytes = std::filesystem::file_size(m_Impl->staged.TemporaryName(), ignored);
    ZU_RETURN_IF_ERROR(m_Impl->staged.Commit());
    return CZuError();
}

uint64_t CBackupSetWriter::SizeBytes() const {
    return m_Impl->sizeBytes;
}

CZuError CBackupSetWriter::Impl_t::CreateTables() {
    ZU_RETURN_IF_ERROR(database.Execute(("PRAGMA application_id = " + std::to_string(SetApplicationId)).c_str()));
    ZU_RETURN_IF_ERROR(SetVersion());
    for (const SetTable_t& table : SetTables2)
        ZU_RETURN_IF_ERROR(database.Execute(table.sql));
    return CZuError();
}

CZuError CBackupSetWriter::Impl_t::SetVersion() {
    return database.Execute(("PRAGMA user_version = " + std::to_string(lists.version)).c_str());
}

CZuError CBackupSetWriter::Impl_t::PrepareStatements() {
    ZU_RETURN_IF_ERROR(addBlock.Prepare(database, "INSERT INTO block VALUES (?, ?, ?, ?, ?)"));
    ZU_RETURN_IF_ERROR(addRecordPiece.Prepare(database, "INSERT INTO record VALUES (?, ?, ?, ?, ?, ?)"));
    ZU_RETURN_IF_ERROR(addStream.Prepare(database, "INSERT INTO stream VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"));
    ZU_RETURN_IF_ERROR(addFile.Prepare(database, "INSERT INTO file VALUES (?, ?, ?)"));
    ZU_RETURN_IF_ERROR(parts.Prepare(database));
    ZU_RETURN_IF_ERROR(entries.Prepare(database));
    return CZuError();
}

CZuError CBackupSetWriter::Impl_t::AddRecordPiece(int64_t piece, const char* bytes, uint32_t size) {
    EncodedBlock_t encoded;
    encoder->Encode(bytes, size, packed, encoded);
    addRecordPiece.Bind(1, stream.id);
    addRecordPiece.Bind(2, piece);
    addRecordPiece.Bind(3, size);
    BindEncoded(addRecordPiece, 4, encoded);
    return addRecordPiece.Run();
}

CZuError CBackupSetWriter::Impl_t::BeginRuns(const std::string& part, Runs_t& begun) {
    begun.runs = std::make_unique<CBlockRuns>([this, &begun](const std::string& piece) {
        EncodedBlock_t encoded;
        const auto size = static_cast<uint32_t>(piece.size());
        encoder->Encode(piece.data(), size, packed, encoded);
        return parts.AddPiece(*begun.part, size, encoded);
    });
    return parts.Begin(part, begun.part.emplace());
}

CZuError CBackupSetWriter::Impl_t::EndRuns(Runs_t& begun) {
    if (begun.runs == nullptr)
        return CZuError();
    ZU_RETURN_IF_ERROR(begun.runs->Finish());
    begun.runs.reset();
    return parts.End(*begun.part);
}

CZuError CBackupSetWriter::Impl_t::WriteDisks() {
    CSetStatement add;
    ZU_RETURN_IF_ERROR(add.Prepare(database, "INSERT INTO disk VALUES (?, ?, ?, ?, ?, ?, ?)"));
    for (const SetDisk_t& disk : lists.disks) {
        add.Bind(1, disk.id);
        add.Bind(2, disk.imageName);
        add.Bind(3, static_cast<int64_t>(disk.product));
        add.Bind(4, static_cast<int64_t>(disk.diskType));
        add.Bind(5, static_cast<int64_t>(disk.diskSectors));
        add.Bind(6, disk.hasParent ? 1 : 0);
        add.Bind(7, disk.parentName);
        ZU_RETURN_IF_ERROR(add.Run());
    }
    return CZuError();
}

// The lists enter the digest in the order in which a reader gets them.
CZuError CBackupSetWriter::Impl_t::WriteInfo() {
    std::sort(lists.files.begin(), lists.files.end(), [](const SetFile_t& left, const SetFile_t& right) {
        return std::tie(left.disk, left.name) < std::tie(right.disk, right.name);
    });
    lists.parts = parts.Parts();
    std::sort(lists.parts.begin(), lists.parts.end(),
              [](const SetPart_t& left, const SetPart_t& right) { return left.name < right.name; });
    const BlockDigest_t digest = DigestOfSet(lists);
    CSetStatement add;
    ZU_RETURN_IF_ERROR(add.Prepare(database, "INSERT INTO backup_set VALUES (?, ?, ?)"));
    add.Bind(1, lists.info.createdUtc);
    add.Bind(2, lists.info.writer);
    add.BindBytes(3, digest.data(), digest.size());
    return add.Run();
}
