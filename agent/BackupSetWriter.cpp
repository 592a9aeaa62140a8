#include "agent/BackupSetWriter.h"

#include <algorithm>
#include <filesystem>
#include <vector>

#include "agent/detail/SetDatabase.h"
#include "agent/detail/SetDigest.h"
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

void BindEncoded(CSetStatement& statement, int firstIndex, const EncodedBlock_t& encoded) {
    statement.BindBytes(firstIndex, encoded.digest.data(), encoded.digest.size());
    statement.Bind(firstIndex + 1, static_cast<int64_t>(encoded.encoding));
    if (encoded.encoding == BlockEncoding_t::Zeros)
        statement.BindNull(firstIndex + 2);
    else
        statement.BindBytes(firstIndex + 2, encoded.data, encoded.sizeBytes);
}

}  // namespace

struct CBackupSetWriter::Impl_t {
    CZuError CreateTables();
    CZuError PrepareStatements();
    CZuError AddRecordPiece(int64_t piece, const char* bytes, uint32_t size, CBlockEncoder& encoder);
    CZuError WriteInfo(const SetInfo_t& info);

    CStagedFile staged;
    CSetDatabase database;  // closed before the staged file goes
    CSetStatement addBlock;
    CSetStatement addRecordPiece;
    CSetStatement addStream;
    CSetStatement addFile;
    CAutoMemory<char> packed;
    SetStream_t stream;  // the one being written
    std::unique_ptr<CRunningDigest> streamDigest;
    std::vector<SetStream_t> streams;
    std::vector<SetFile_t> files;
    uint64_t sizeBytes = 0;
};

CBackupSetWriter::CBackupSetWriter() : m_Impl(std::make_unique<Impl_t>()) {}
CBackupSetWriter::~CBackupSetWriter() = default;

CZuError CBackupSetWriter::Create(const std::string& path, bool replacing) {
    ZU_RETURN_IF_ERROR(m_Impl->staged.Begin(path, replacing));
    ZU_RETURN_IF_ERROR(m_Impl->database.Create(m_Impl->staged.TemporaryName(), path));
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
    CBlockEncoder encoder(compressionLevel);
    int64_t piece = 0;
    for (uint64_t done = 0; done < record.GetSize(); done += RecordPieceBytes, ++piece) {
        const auto size = static_cast<uint32_t>(std::min<uint64_t>(record.GetSize() - done, RecordPieceBytes));
        ZU_RETURN_IF_ERROR(m_Impl->AddRecordPiece(piece, record.GetPtr() + done, size, encoder));
    }
    return CZuError();
}

CZuError CBackupSetWriter::AddBlock(const SetBlock_t& block) {
    if (block.number >= BlockNumberEnd)
        return Refusal(
            CZuString::Format("{1}: block {2} is beyond what a set can number", m_Impl->staged.Target(), block.number));
    m_Impl->addBlock.Bind(1, (m_Impl->stream.id << BlockNumberBits) | static_cast<int64_t>(block.number));
    m_Impl->addBlock.Bind(2, block.sectors);
    BindEncoded(m_Impl->addBlock, 3, block.encoded);
    ZU_RETURN_IF_ERROR(m_Impl->addBlock.Run());
    AddToDigest(*m_Impl->streamDigest, block);
    ++m_Impl->stream.blockCount;
    m_Impl->stream.storedBytes += block.encoded.sizeBytes;
    return CZuError();
}

CZuError CBackupSetWriter::EndStream() {
    SetStream_t& stream = m_Impl->stream;
    stream.digest = m_Impl->streamDigest->Result();
    CSetStatement& add = m_Impl->addStream;
    add.Bind(1, stream.id);
    add.Bind(2, stream.fileName);
    add.Bind(3, static_cast<int64_t>(stream.diskType));
    add.Bind(4, stream.blockSectors);
    add.Bind(5, static_cast<int64_t>(stream.diskSectors));
    add.Bind(6, static_cast<int64_t>(stream.fileBytes));
    add.Bind(7, static_cast<int64_t>(stream.recordBytes));
    add.BindBytes(8, stream.recordDigest.data(), stream.recordDigest.size());
    add.Bind(9, static_cast<int64_t>(stream.blockCount));
    add.Bind(10, static_cast<int64_t>(stream.storedBytes));
    add.BindBytes(11, stream.digest.data(), stream.digest.size());
    ZU_RETURN_IF_ERROR(add.Run());
    m_Impl->streams.push_back(stream);
    return CZuError();
}

CZuError CBackupSetWriter::AddFile(const SetFile_t& file) {
    m_Impl->addFile.Bind(1, file.name);
    m_Impl->addFile.BindBytes(2, file.bytes.data(), file.bytes.size());
    ZU_RETURN_IF_ERROR(m_Impl->addFile.Run());
    m_Impl->files.push_back(file);
    return CZuError();
}

CZuError CBackupSetWriter::Commit(const SetInfo_t& info) {
    std::sort(m_Impl->files.begin(), m_Impl->files.end(),
              [](const SetFile_t& left, const SetFile_t& right) { return left.name < right.name; });
    ZU_RETURN_IF_ERROR(m_Impl->WriteInfo(info));
    ZU_RETURN_IF_ERROR(m_Impl->database.Execute("COMMIT"));
    for (CSetStatement* statement : {&m_Impl->addBlock, &m_Impl->addRecordPiece, &m_Impl->addStream, &m_Impl->addFile})
        statement->Finish();
    ZU_RETURN_IF_ERROR(m_Impl->database.Close());
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
    ZU_RETURN_IF_ERROR(database.Execute(("PRAGMA user_version = " + std::to_string(BackupSetVersion)).c_str()));
    for (const SetTable_t& table : SetTables)
        ZU_RETURN_IF_ERROR(database.Execute(table.sql));
    return CZuError();
}

CZuError CBackupSetWriter::Impl_t::PrepareStatements() {
    ZU_RETURN_IF_ERROR(addBlock.Prepare(database, "INSERT INTO block VALUES (?, ?, ?, ?, ?)"));
    ZU_RETURN_IF_ERROR(addRecordPiece.Prepare(database, "INSERT INTO record VALUES (?, ?, ?, ?, ?, ?)"));
    ZU_RETURN_IF_ERROR(addStream.Prepare(database, "INSERT INTO stream VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"));
    ZU_RETURN_IF_ERROR(addFile.Prepare(database, "INSERT INTO file VALUES (?, ?)"));
    return CZuError();
}

CZuError CBackupSetWriter::Impl_t::AddRecordPiece(int64_t piece, const char* bytes, uint32_t size,
                                                  CBlockEncoder& encoder) {
    EncodedBlock_t encoded;
    encoder.Encode(bytes, size, packed, encoded);
    addRecordPiece.Bind(1, stream.id);
    addRecordPiece.Bind(2, piece);
    addRecordPiece.Bind(3, size);
    BindEncoded(addRecordPiece, 4, encoded);
    return addRecordPiece.Run();
}

CZuError CBackupSetWriter::Impl_t::WriteInfo(const SetInfo_t& info) {
    const BlockDigest_t digest = DigestOfSet(info, streams, files);
    CSetStatement add;
    ZU_RETURN_IF_ERROR(add.Prepare(database, "INSERT INTO backup_set VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)"));
    add.Bind(1, info.imageName);
    add.Bind(2, static_cast<int64_t>(info.product));
    add.Bind(3, static_cast<int64_t>(info.diskType));
    add.Bind(4, static_cast<int64_t>(info.diskSectors));
    add.Bind(5, info.hasParent ? 1 : 0);
    add.Bind(6, info.parentName);
    add.Bind(7, info.createdUtc);
    add.Bind(8, info.writer);
    add.BindBytes(9, digest.data(), digest.size());
    return add.Run();
}
