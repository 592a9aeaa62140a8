#pragma once

#include <algorithm>
#include <cstdint>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "foundation/AutoMemory.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "foundation/detail/ScopeGuard.h"

constexpr char OutOfMemory[] = "Out of memory";

// The most memory that the tables of one object may take: 4 bytes for each grain of 64 KiB, twice,
// covers a disk of nearly 8 TiB. Only a file of holes under a lying header asks for more.
constexpr uint64_t TableCeilingBytes = uint64_t{1} << 30U;

// Loads the tables of one object from its file. Tables are read in pieces, and the memory grows as
// the bytes arrive: a header that promises more than the file holds costs nothing and ends with
// the read's own error.
class CTableReader {
public:
    explicit CTableReader(CZuFile& file) : m_File(file) {}

    // Counts `bytes` that the object takes against the ceiling.
    CZuError Charge(uint64_t bytes) {
        if (bytes > TableCeilingBytes - m_TakenBytes)
            return Refusal(OutOfMemory);
        m_TakenBytes += bytes;
        return CZuError();
    }

    // Reads `count` elements at byte `offset` of the file into `table`.
    template <typename Element> CZuError Read(uint64_t offset, uint64_t count, CAutoMemory<Element>& table) {
        constexpr uint64_t pieceCount = PieceBytes / sizeof(Element);
        table.Free();
        ScopeGuard forgetUnlessWhole([&table] { table.Free(); });
        for (uint64_t done = 0; done < count;) {
            const uint64_t piece = std::min(count - done, pieceCount);
            ZU_RETURN_IF_ERROR(Charge(piece * sizeof(Element)));
            if (!Grow(table, done + piece, count))
                return Refusal(OutOfMemory);
            uint64_t at = 0;
            if (!CheckedAdd(offset, done * sizeof(Element), at))
                at = ~uint64_t{0};  // the seek there fails
            ZU_RETURN_IF_ERROR(ReadFileAt(m_File, at, 0, table.GetPtr() + done,
                                          static_cast<unsigned int>(piece * sizeof(Element)), nullptr));
            done += piece;
        }
        table.ReAlloc(static_cast<uint32_t>(count));  // the room that growing left over
        forgetUnlessWhole.Dismiss();
        return CZuError();
    }

private:
    static constexpr uint64_t PieceBytes = uint64_t{1} << 20U;

    // Doubling keeps the copying linear. The ceiling keeps all counts far below 32 bits.
    template <typename Element> static bool Grow(CAutoMemory<Element>& table, uint64_t needed, uint64_t most) {
        if (needed <= table.GetSize())
            return true;
        const uint64_t roomy = std::min(std::max<uint64_t>(needed, 2 * uint64_t{table.GetSize()}), most);
        return table.ReAlloc(static_cast<uint32_t>(roomy)) != nullptr;
    }

    CZuFile& m_File;
    uint64_t m_TakenBytes = 0;
};
