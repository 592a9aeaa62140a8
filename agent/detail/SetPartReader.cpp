#include "agent/detail/SetPartReader.h"

#include <algorithm>
#include <cstring>

#include "agent/detail/SetRows.h"
#include "agent/detail/SetSchema.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr size_t MostPiecesKept = 8;

uint64_t PieceCount(const SetPart_t& part) {
    return DivideRoundingUp(part.bytes, PartPieceBytes);
}

// The piece `number` lies in the part.
uint32_t PieceSize(const SetPart_t& part, uint64_t number) {
    return static_cast<uint32_t>(std::min<uint64_t>(part.bytes - number * PartPieceBytes, PartPieceBytes));
}

}  // namespace

CZuError CSetPartReader::Read(const SetPart_t& part, uint64_t offset, char* buffer, uint32_t size) {
    if (size > part.bytes || offset > part.bytes - size)
        return Refusal(CZuString::Format("{1}: its part {2} has {3} bytes, and none at {4}", m_Database.ShownName(),
                                         part.name, part.bytes, offset));
    while (size != 0) {
        const CAutoMemory<char>* piece = nullptr;
        ZU_RETURN_IF_ERROR(ReadPiece(part, offset / PartPieceBytes, piece));
        const auto skipped = static_cast<uint32_t>(offset % PartPieceBytes);
        const uint32_t count = std::min(size, piece->GetSize() - skipped);
        std::memcpy(buffer, piece->GetPtr() + skipped, count);
        buffer += count;
        offset += count;
        size -= count;
    }
    return CZuError();
}

CZuError CSetPartReader::ReadPiece(const SetPart_t& part, uint64_t number, const CAutoMemory<char>*& bytes) {
    const int64_t id = FirstIdOf(part.id) + static_cast<int64_t>(number);
    const auto kept =
        std::find_if(m_Pieces.begin(), m_Pieces.end(), [&](const Piece_t& piece) { return piece.id == id; });
    if (kept != m_Pieces.end()) {
        m_Pieces.splice(m_Pieces.begin(), m_Pieces, kept);
        bytes = &kept->bytes;
        return CZuError();
    }
    const std::vector<BlockDigest_t>* digests = nullptr;
    ZU_RETURN_IF_ERROR(FindDigests(part, digests));
    if (m_Pieces.size() < MostPiecesKept)
        m_Pieces.emplace_front();
    else
        m_Pieces.splice(m_Pieces.begin(), m_Pieces, std::prev(m_Pieces.end()));
    Piece_t& piece = m_Pieces.front();
    piece.id = -1;  // of none, should it fail
    ZU_RETURN_IF_ERROR(Decode(part, number, (*digests)[static_cast<size_t>(number)], piece.bytes));
    piece.id = id;
    bytes = &piece.bytes;
    return CZuError();
}

CZuError CSetPartReader::Prove(const SetPart_t& part) {
    std::vector<BlockDigest_t> digests;
    ZU_RETURN_IF_ERROR(ReadDigests(part, digests));
    CAutoMemory<char> bytes;
    for (uint64_t number = 0; number < digests.size(); ++number)
        ZU_RETURN_IF_ERROR(Decode(part, number, digests[static_cast<size_t>(number)], bytes));
    return CZuError();
}

CZuError CSetPartReader::FindDigests(const SetPart_t& part, const std::vector<BlockDigest_t>*& digests) {
    const auto known = m_Digests.find(part.id);
    if (known != m_Digests.end()) {
        digests = &known->second;
        return CZuError();
    }
    std::vector<BlockDigest_t> found;
    ZU_RETURN_IF_ERROR(ReadDigests(part, found));
    digests = &(m_Digests[part.id] = std::move(found));
    return CZuError();
}

// The list grows with the rows that are there, not with what the part promises.
CZuError CSetPartReader::ReadDigests(const SetPart_t& part, std::vector<BlockDigest_t>& digests) {
    CSetStatement rows;
    ZU_RETURN_IF_ERROR(
        rows.Prepare(m_Database, "SELECT id, size, digest FROM piece WHERE id >= ? AND id < ? ORDER BY id"));
    rows.Bind(1, FirstIdOf(part.id));
    rows.Bind(2, FirstIdOf(part.id + 1));
    CRunningDigest digest;
    for (;;) {
        bool hasRow = false;
        ZU_RETURN_IF_ERROR(rows.Step(hasRow));
        if (!hasRow)
            break;
        const uint64_t number = digests.size();
        BlockDigest_t& piece = digests.emplace_back();
        uint64_t size = 0;
        if (number >= PieceCount(part) || rows.Number(0) != FirstIdOf(part.id) + static_cast<int64_t>(number) ||
            !ReadUpTo(rows, 1, PartPieceBytes, size) || size != PieceSize(part, number) || !ReadDigest(rows, 2, piece))
            return Damaged(part);
        digest.Add(piece.data(), piece.size());
    }
    return digests.size() == PieceCount(part) && digest.Result() == part.digest ? CZuError() : Damaged(part);
}

CZuError CSetPartReader::Decode(const SetPart_t& part, uint64_t number, const BlockDigest_t& digest,
                                CAutoMemory<char>& bytes) {
    if (!m_SelectPiece.IsPrepared())
        ZU_RETURN_IF_ERROR(m_SelectPiece.Prepare(m_Database, "SELECT digest, encoding, data FROM piece WHERE id = ?"));
    const CSetStatementUse use(m_SelectPiece);
    m_SelectPiece.Bind(1, FirstIdOf(part.id) + static_cast<int64_t>(number));
    bool hasRow = false;
    ZU_RETURN_IF_ERROR(m_SelectPiece.Step(hasRow));
    EncodedBlock_t encoded;
    if (!hasRow || !ReadEncoded(m_SelectPiece, 0, encoded) || encoded.digest != digest ||
        !m_Decoder.Decode(encoded, PieceSize(part, number), bytes))
        return Damaged(part);
    return CZuError();
}

CZuError CSetPartReader::Damaged(const SetPart_t& part) const {
    return m_Database.Damaged("its part " + part.name + " isn't what was written");
}
