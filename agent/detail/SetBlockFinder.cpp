#include "agent/detail/SetBlockFinder.h"

#include <algorithm>
#include <cstring>

#include "agent/DiskImage.h"
#include "agent/detail/BlockRuns.h"
#include "agent/detail/SetRows.h"
#include "agent/detail/SetSchema.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

BlockRun_t RunAt(const CAutoMemory<char>& piece, size_t index) {
    BlockRun_t run{};
    std::memcpy(&run, piece.GetPtr() + index * sizeof(run), sizeof(run));
    return run;
}

size_t RunCount(const CAutoMemory<char>& piece) {
    return piece.GetSize() / sizeof(BlockRun_t);
}

// Runs of one piece are in order.
bool HasBlock(const CAutoMemory<char>& piece, uint64_t number) {
    size_t first = 0;
    size_t end = RunCount(piece);
    while (first < end) {  // each round halves what is between them
        const size_t middle = first + (end - first) / 2;
        const BlockRun_t run = RunAt(piece, middle);
        if (number < run.first)
            end = middle;
        else if (number - run.first < run.count)
            return true;
        else
            first = middle + 1;
    }
    return false;
}

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
    ZU_RETURN_IF_ERROR(IsListed(stream, number, isListed));
    if (!isListed)
        return CZuError();
    ZU_RETURN_IF_ERROR(ReadRow(stream, number, bytes, isThere));
    if (!isThere)
        return m_Database.Damaged(CZuString::Format("block {1} of {2} is lost", number, stream.fileName).c_str());
    return CZuError();
}

CZuError CSetBlockFinder::IsListed(const SetStream_t& stream, uint64_t number, bool& isListed) {
    const Runs_t* runs = nullptr;
    ZU_RETURN_IF_ERROR(FindRuns(stream, runs));
    const auto behind = std::upper_bound(runs->firstOfPiece.begin(), runs->firstOfPiece.end(), number);
    if (behind == runs->firstOfPiece.begin())
        return CZuError();
    const CAutoMemory<char>* piece = nullptr;
    ZU_RETURN_IF_ERROR(
        m_Parts.ReadPiece(runs->part, static_cast<uint64_t>(behind - runs->firstOfPiece.begin()) - 1, piece));
    isListed = HasBlock(*piece, number);
    return CZuError();
}

CZuError CSetBlockFinder::FindRuns(const SetStream_t& stream, const Runs_t*& runs) {
    const auto known = m_Runs.find(stream.id);
    if (known != m_Runs.end()) {
        runs = &known->second;
        return CZuError();
    }
    Runs_t found;
    ZU_RETURN_IF_ERROR(ReadRuns(stream, found));
    runs = &(m_Runs[stream.id] = std::move(found));
    return CZuError();
}

CZuError CSetBlockFinder::ReadRuns(const SetStream_t& stream, Runs_t& runs) {
    const SetPart_t* const part = FindPartIn(m_Lists.parts, BlocksPartName(stream.id));
    if (part == nullptr || part->bytes % sizeof(BlockRun_t) != 0)
        return m_Database.Damaged("the list of the blocks of " + stream.fileName);
    runs.part = *part;
    uint64_t end = 0;
    for (uint64_t number = 0; number * PartPieceBytes < part->bytes; ++number) {
        const CAutoMemory<char>* piece = nullptr;
        ZU_RETURN_IF_ERROR(m_Parts.ReadPiece(*part, number, piece));
        runs.firstOfPiece.push_back(RunAt(*piece, 0).first);
        for (size_t index = 0; index < RunCount(*piece); ++index) {
            const BlockRun_t run = RunAt(*piece, index);
            if (run.first < end || run.first >= BlockNumberEnd || run.count == 0 ||
                run.count > BlockNumberEnd - run.first)
                return m_Database.Damaged("the list of the blocks of " + stream.fileName);
            end = run.first + run.count;
        }
    }
    return CZuError();
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
