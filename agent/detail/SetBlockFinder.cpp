#include "agent/detail/SetBlockFinder.h"

#include "agent/DiskImage.h"
#include "agent/detail/SetRows.h"
#include "agent/detail/SetSchema.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

// A block is shorter than the others only where its stream ends. Those of a dynamic VHD have their
// bitmaps in front and are always whole.
bool IsPossible(const SetStream_t& stream, uint64_t number, uint64_t sectors) {
    if (sectors == stream.blockSectors)
        return true;
    uint64_t firstSector = 0;
    if (IsDynamicVhd(stream.diskType) || sectors == 0 || !CheckedMul(number, stream.blockSectors, firstSector))
        return false;
    return firstSector >= stream.diskSectors || sectors >= stream.diskSectors - firstSector;
}

}  // namespace

CZuError CSetBlockFinder::Read(const SetStream_t& stream, uint64_t number, CAutoMemory<char>& bytes, bool& isThere) {
    isThere = false;
    if (number >= BlockNumberEnd)
        return CZuError();
    if (m_Lists.version == 1)
        return ReadRow(stream, number, bytes, isThere);
    bool isListed = false;
    ZU_RETURN_IF_ERROR(m_Runs.Has(stream, number, isListed));
    if (!isListed)
        return CZuError();
    ZU_RETURN_IF_ERROR(ReadRow(stream, number, bytes, isThere));
    if (!isThere)
        return m_Database.Damaged(CZuString::Format("block {1} of {2} is lost", number, stream.fileName).c_str());
    return CZuError();
}

CZuError CSetBlockFinder::Has(const SetStream_t& stream, uint64_t number, bool& isThere) {
    isThere = false;
    if (number >= BlockNumberEnd)
        return CZuError();
    if (m_Lists.version != 1)
        return m_Runs.Has(stream, number, isThere);
    CAutoMemory<char> bytes;
    return ReadRow(stream, number, bytes, isThere);
}

CZuError CSetBlockFinder::ReadRow(const SetStream_t& stream, uint64_t number, CAutoMemory<char>& bytes, bool& isThere) {
    if (!m_SelectBlock.IsPrepared())
        ZU_RETURN_IF_ERROR(
            m_SelectBlock.Prepare(m_Database, "SELECT sectors, digest, encoding, data FROM block WHERE id = ?"));
    const CSetStatementUse use(m_SelectBlock);
    m_SelectBlock.Bind(1, FirstIdOf(stream.id) + static_cast<int64_t>(number));
    ZU_RETURN_IF_ERROR(m_SelectBlock.Step(isThere));
    if (!isThere)
        return CZuError();
    uint64_t sectors = 0;
    EncodedBlock_t encoded;
    if (!ReadUpTo(m_SelectBlock, 0, stream.blockSectors, sectors) || !IsPossible(stream, number, sectors) ||
        !ReadEncoded(m_SelectBlock, 1, encoded))
        return m_Database.Damaged(CZuString::Format("block {1} of {2} is lost", number, stream.fileName).c_str());
    if (!m_Decoder.Decode(encoded, static_cast<uint32_t>(sectors << SectorShift), bytes))
        return m_Database.Damaged(
            CZuString::Format("block {1} of {2} isn't what was backed up", number, stream.fileName).c_str());
    return CZuError();
}
