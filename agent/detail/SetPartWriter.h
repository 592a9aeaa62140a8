#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "agent/BackupSetWriter.h"
#include "agent/detail/SetDatabase.h"

// A part on its way into a set.
struct PartBegun_t {
    SetPart_t part;
    int64_t pieceCount = 0;
    CRunningDigest digest;
};

// Writes the parts of a set. Several can be on their way at once.
class CSetPartWriter {
public:
    CZuError Prepare(CSetDatabase& database);

    // Fails when there is a part of that name.
    CZuError Begin(const std::string& name, PartBegun_t& begun);

    // Each piece but the last one is a whole one.
    CZuError AddPiece(PartBegun_t& begun, uint32_t size, const EncodedBlock_t& encoded);
    CZuError End(PartBegun_t& begun);

    // A whole part, from what `read` gives. A part that can't be read isn't there afterwards.
    CZuError Add(const std::string& name, int compressionLevel, const ReadPart_t& read);

    const std::vector<SetPart_t>& Parts() const { return m_Parts; }
    void Finish();

private:
    CZuError MovePieces(PartBegun_t& begun, int compressionLevel, const ReadPart_t& read, CZuError& reading);
    CZuError TakeBack(const PartBegun_t& begun);

    CSetDatabase* m_Database = nullptr;
    CSetStatement m_AddPiece;
    CSetStatement m_AddPart;
    CSetStatement m_TakeBack;
    std::set<std::string> m_Names;
    int64_t m_NextId = 0;
    std::vector<SetPart_t> m_Parts;
};
