#pragma once

#include <list>
#include <map>
#include <vector>

#include "agent/BackupSet.h"
#include "agent/detail/SetDatabase.h"
#include "foundation/AutoMemory.h"

// Reads the parts of a set at random. The digests of a part's pieces are proved and kept when it is
// first used, so that each piece is proved to be the one that was written, and a few pieces are kept
// decoded.
class CSetPartReader {
public:
    explicit CSetPartReader(CSetDatabase& database) : m_Database(database) {}

    CZuError Read(const SetPart_t& part, uint64_t offset, char* buffer, uint32_t size);

    // Makes `bytes` the piece `number`, which lies in the part. They live until the next piece is
    // wanted.
    CZuError ReadPiece(const SetPart_t& part, uint64_t number, const CAutoMemory<char>*& bytes);

    // Proves all pieces, and keeps none.
    CZuError Prove(const SetPart_t& part);

private:
    struct Piece_t {
        int64_t id = 0;
        CAutoMemory<char> bytes;
    };

    CZuError FindDigests(const SetPart_t& part, const std::vector<BlockDigest_t>*& digests);
    CZuError ReadDigests(const SetPart_t& part, std::vector<BlockDigest_t>& digests);
    CZuError Decode(const SetPart_t& part, uint64_t number, const BlockDigest_t& digest, CAutoMemory<char>& bytes);
    CZuError Damaged(const SetPart_t& part) const;

    CSetDatabase& m_Database;
    CSetStatement m_SelectPiece;
    CBlockDecoder m_Decoder;
    std::map<int64_t, std::vector<BlockDigest_t>> m_Digests;  // by part
    std::list<Piece_t> m_Pieces;                              // the one used last in front
};
