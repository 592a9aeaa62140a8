#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "VirtualServer/VMInfo/SectorRun.h"
#include "VirtualServer/VMInfo/detail/OpenHardDisk.h"
#include "VirtualServer/VMInfo/detail/SparseDumpRecord.h"
#include "VirtualServer/VMInfo/detail/TableReader.h"
#include "foundation/AutoMemory.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

// A disk that is a chain of files of one format, base first. What one link's answer covers is read
// at once: a grain, a block, a hole.
template <typename Reader> class CHardDiskChain final : public IOpenHardDisk {
public:
    Reader& AddLink() { return m_Links.emplace_back(); }

    [[nodiscard]] bool MakeCache() { return m_SectorCache.Alloc(SectorSize) != nullptr; }

    // The first sector of the request ends up in the cache, for the many small reads of tables; all
    // others go straight to the caller. A request that takes the whole of its first sector needs no
    // read of its own for it.
    CZuError Read(uint64_t offset, char* buffer, uint32_t length) override {
        const uint64_t sector = offset >> SectorShift;
        const auto inSector = static_cast<uint32_t>(offset % SectorSize);
        if (m_SectorCache.GetSize() != SectorSize)
            return Refusal(OutOfMemory);  // the open said so already
        if (sector != m_CachedLBA && inSector == 0 && length >= SectorSize) {
            ZU_RETURN_IF_ERROR(ReadSectors(sector, buffer, length));
            std::memcpy(m_SectorCache.GetPtr(), buffer, SectorSize);
            m_CachedLBA = sector;
            return CZuError();
        }
        ZU_RETURN_IF_ERROR(FillCache(sector));
        const uint32_t cached = std::min(length, SectorSize - inSector);
        if (cached != 0)
            std::memcpy(buffer, m_SectorCache.GetPtr() + inSector, cached);
        ZU_RETURN_IF_ERROR(ReadSectors(sector + 1, buffer + cached, length - cached));
        return CZuError();
    }

    uint64_t CountHoleSectors(uint64_t sector, uint64_t mostSectors) override {
        uint64_t sectors = mostSectors;
        for (size_t index = m_Links.size(); index-- > 0;) {
            SectorRun_t run;
            if (m_Links[index].FindRun(sector, sectors, run).IsErrorSet() || run.IsHeld())
                return 0;
            sectors = run.sectors;
        }
        return sectors;
    }

    CZuError DumpSparseInfo(CZuFile& out, const std::vector<HardDiskDumpInfo_t>& infos) override {
        ZU_RETURN_IF_ERROR(WriteSparseDumpCount(out, static_cast<uint32_t>(m_Links.size())));
        for (size_t index = 0; index < m_Links.size(); ++index)
            ZU_RETURN_IF_ERROR(m_Links[index].DumpSparseInfo(out, infos[index].DumpName, infos[index].BlockSize));
        return CZuError();
    }

    bool IsSingleVolume() const override { return false; }

private:
    static constexpr uint64_t NothingCached = ~uint64_t{0};

    CZuError FillCache(uint64_t sector) {
        if (sector == m_CachedLBA)
            return CZuError();
        ZU_RETURN_IF_ERROR(ReadSectors(sector, m_SectorCache.GetPtr(), SectorSize));
        m_CachedLBA = sector;
        return CZuError();
    }

    // A failure leaves nothing in the cache.
    CZuError ReadSectors(uint64_t sector, char* buffer, uint32_t sizeBytes) {
        for (uint32_t done = 0; done < sizeBytes;) {
            uint32_t step = 0;
            CZuError error = ReadAhead(sector + (done >> SectorShift), buffer + done, sizeBytes - done, step);
            if (error.IsErrorSet())
                m_CachedLBA = NothingCached;
            ZU_RETURN_IF_ERROR(error);
            done += step;
        }
        return CZuError();
    }

    // Reads from `sector` on, as far as the answer of the newest link that holds it goes, and those
    // of the links above it. What no link holds is zeros.
    CZuError ReadAhead(uint64_t sector, char* buffer, uint32_t sizeBytes, uint32_t& doneBytes) {
        uint64_t sectors = DivideRoundingUp(sizeBytes, SectorSize);
        for (size_t index = m_Links.size(); index-- > 0;) {
            SectorRun_t run;
            ZU_RETURN_IF_ERROR(m_Links[index].FindRun(sector, sectors, run));
            sectors = run.sectors;
            if (!run.IsHeld())
                continue;
            doneBytes = BytesOf(sectors, sizeBytes);
            ZU_RETURN_IF_ERROR(m_Links[index].ReadRun(run, buffer, doneBytes));
            return CZuError();
        }
        doneBytes = BytesOf(sectors, sizeBytes);
        std::memset(buffer, 0, doneBytes);
        return CZuError();
    }

    static uint32_t BytesOf(uint64_t sectors, uint32_t mostBytes) {
        return static_cast<uint32_t>(std::min<uint64_t>(sectors << SectorShift, mostBytes));
    }

    std::vector<Reader> m_Links;
    CAutoMemory<char> m_SectorCache;
    uint64_t m_CachedLBA = NothingCached;
};
