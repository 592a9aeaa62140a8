#include "agent/detail/SetPartWriter.h"

#include "agent/detail/BlockBatch.h"
#include "agent/detail/SetRows.h"
#include "agent/detail/SetSchema.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

struct PartPiece_t {
    CAutoMemory<char> plain;
    CAutoMemory<char> packed;
    EncodedBlock_t encoded;
};

// Fills a piece up, which a single read needn't do. False at the end of the part.
bool ReadPiece(const ReadPart_t& read, PartPiece_t& piece, CZuError& error) {
    if (piece.plain.Alloc(PartPieceBytes) == nullptr)
        throw std::bad_alloc();
    uint32_t done = 0;
    while (done < PartPieceBytes) {
        uint32_t got = 0;
        error = read(piece.plain.GetPtr() + done, PartPieceBytes - done, got);
        if (error.IsErrorSet())
            return false;
        if (got == 0)
            break;
        done += got;
    }
    piece.plain.Alloc(done);
    return done != 0;
}

}  // namespace

CZuError CSetPartWriter::Prepare(CSetDatabase& database) {
    m_Database = &database;
    ZU_RETURN_IF_ERROR(m_AddPiece.Prepare(database, "INSERT INTO piece VALUES (?, ?, ?, ?, ?)"));
    ZU_RETURN_IF_ERROR(m_AddPart.Prepare(database, "INSERT INTO part VALUES (?, ?, ?, ?)"));
    ZU_RETURN_IF_ERROR(m_TakeBack.Prepare(database, "DELETE FROM piece WHERE id >= ? AND id < ?"));
    return CZuError();
}

CZuError CSetPartWriter::Begin(const std::string& name, PartBegun_t& begun) {
    if (m_NextId >= StreamEnd || !m_Names.insert(name).second)
        return Refusal(m_Database->ShownName() + ": the part " + name + " has no place in the set");
    begun.part.name = name;
    begun.part.id = m_NextId++;
    return CZuError();
}

CZuError CSetPartWriter::AddPiece(PartBegun_t& begun, uint32_t size, const EncodedBlock_t& encoded) {
    m_AddPiece.Bind(1, FirstIdOf(begun.part.id) + begun.pieceCount);
    m_AddPiece.Bind(2, size);
    BindEncoded(m_AddPiece, 3, encoded);
    ZU_RETURN_IF_ERROR(m_AddPiece.Run());
    ++begun.pieceCount;
    begun.part.bytes += size;
    begun.digest.Add(encoded.digest.data(), encoded.digest.size());
    return CZuError();
}

CZuError CSetPartWriter::End(PartBegun_t& begun) {
    SetPart_t& part = begun.part;
    part.digest = begun.digest.Result();
    m_AddPart.Bind(1, part.id);
    m_AddPart.Bind(2, part.name);
    m_AddPart.Bind(3, static_cast<int64_t>(part.bytes));
    m_AddPart.BindBytes(4, part.digest.data(), part.digest.size());
    ZU_RETURN_IF_ERROR(m_AddPart.Run());
    m_Parts.push_back(part);
    return CZuError();
}

CZuError CSetPartWriter::Add(const std::string& name, int compressionLevel, const ReadPart_t& read) {
    PartBegun_t begun;
    ZU_RETURN_IF_ERROR(Begin(name, begun));
    CZuError reading;
    ZU_RETURN_IF_ERROR(MovePieces(begun, compressionLevel, read, reading));
    if (!reading.IsErrorSet())
        return End(begun);
    ZU_RETURN_IF_ERROR(TakeBack(begun));
    return reading;
}

void CSetPartWriter::Finish() {
    m_AddPiece.Finish();
    m_AddPart.Finish();
    m_TakeBack.Finish();
}

CZuError CSetPartWriter::MovePieces(PartBegun_t& begun, int compressionLevel, const ReadPart_t& read,
                                    CZuError& reading) {
    const PipelineShape_t shape(PartPieceBytes >> SectorShift);
    std::vector<std::unique_ptr<CBlockEncoder>> encoders;
    for (size_t worker = 0; worker < shape.workers; ++worker)
        encoders.push_back(std::make_unique<CBlockEncoder>(compressionLevel));

    CZuError writing;
    COrderedPipeline<PartPiece_t>(shape.batches, shape.workers)
        .Run([&](PartPiece_t& piece) { return ReadPiece(read, piece, reading); },
             [&](PartPiece_t& piece, size_t worker) {
                 encoders[worker]->Encode(piece.plain.GetPtr(), piece.plain.GetSize(), piece.packed, piece.encoded);
             },
             [&](PartPiece_t& piece) {
                 writing = AddPiece(begun, piece.plain.GetSize(), piece.encoded);
                 return !writing.IsErrorSet();
             });
    return writing;
}

CZuError CSetPartWriter::TakeBack(const PartBegun_t& begun) {
    m_Names.erase(begun.part.name);
    m_TakeBack.Bind(1, FirstIdOf(begun.part.id));
    m_TakeBack.Bind(2, FirstIdOf(begun.part.id + 1));
    return m_TakeBack.Run();
}
