#include "agent/detail/SetBlockWalk.h"

#include "agent/detail/SetDigest.h"
#include "agent/detail/SetRows.h"
#include "agent/detail/SetSchema.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

CZuError CSetBlockWalk::Begin(const SetStream_t& stream) {
    m_Stream = stream;
    m_IsAtEnd = false;
    m_BlockCount = 0;
    m_StoredBytes = 0;
    m_Digest = std::make_unique<CRunningDigest>();
    ZU_RETURN_IF_ERROR(m_Rows.Prepare(m_Database, "SELECT id, sectors, digest, encoding, data FROM block "
                                                  "WHERE id >= ? AND id < ? ORDER BY id"));
    m_Rows.Bind(1, FirstIdOf(stream.id));
    m_Rows.Bind(2, FirstIdOf(stream.id + 1));
    return CZuError();
}

CZuError CSetBlockWalk::Next(std::optional<SetBlock_t>& block) {
    block.reset();
    if (m_IsAtEnd)
        return CZuError();
    bool hasRow = false;
    ZU_RETURN_IF_ERROR(m_Rows.Step(hasRow));
    if (!hasRow)
        return End();
    SetBlock_t next;
    next.number = static_cast<uint64_t>(m_Rows.Number(0)) % BlockNumberEnd;
    const int64_t sectors = m_Rows.Number(1);
    if (sectors <= 0 || sectors > m_Stream.blockSectors || !ReadEncoded(m_Rows, 2, next.encoded))
        return m_Database.Damaged(CZuString::Format("block {1} of {2}", next.number, m_Stream.fileName).c_str());
    next.sectors = static_cast<uint32_t>(sectors);
    ZU_RETURN_IF_ERROR(Check(next));
    AddToDigest(*m_Digest, next);
    ++m_BlockCount;
    m_StoredBytes += next.encoded.sizeBytes;
    block = next;
    return CZuError();
}

// Where a block lies is computed from its number all over, so it is proved here.
CZuError CSetBlockWalk::Check(const SetBlock_t& block) const {
    uint64_t firstSector = 0;
    uint64_t firstByte = 0;
    if (!CheckedMul(block.number, m_Stream.blockSectors, firstSector) || !SectorsToBytes(firstSector, firstByte) ||
        firstByte > uint64_t{INT64_MAX})
        return m_Database.Damaged(
            CZuString::Format("block {1} of {2} lies nowhere", block.number, m_Stream.fileName).c_str());
    return CZuError();
}

CZuError CSetBlockWalk::End() {
    m_IsAtEnd = true;
    if (m_BlockCount != m_Stream.blockCount || m_StoredBytes != m_Stream.storedBytes ||
        m_Digest->Result() != m_Stream.digest)
        return m_Database.Damaged("blocks of " + m_Stream.fileName + " are lost or changed");
    return CZuError();
}
