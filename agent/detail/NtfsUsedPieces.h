#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "foundation/ZuError.h"
#include "foundation/ZuFile.h"
#include "platform/NtfsVolumeControl.h"

// Which pieces of an NTFS volume, all of one size, hold something: clusters in use, and what belongs to the volume
// behind its last whole cluster, the copy of its boot sector among it.
//
// Open, tell the size, find the pieces, go through them. Errors say what is wrong with the volume; its name goes in
// front of them.
class CNtfsUsedPieces {
public:
    // Reads the boot sector alone. A volume that isn't whole in its file or device is refused.
    CZuError Open(const std::string& path);

    // Of 512 bytes: those of the volume, and of its boot sector's copy behind it where that is there.
    uint64_t DiskSectors() const { return m_DiskBytes / BytesOfSector; }
    uint32_t ClusterBytes() const { return m_ClusterBytes; }
    uint64_t ClusterCount() const { return m_Clusters; }

    // Reads the whole bitmap.
    CZuError FindPieces(uint32_t pieceBytes);

    uint64_t UsedClusters() const { return m_UsedClusters; }
    uint64_t HeldPieces() const { return m_HeldPieces; }
    uint64_t PieceCount() const { return m_PieceCount; }

    // The first piece from `piece` on that holds something; the number of all pieces where there is none.
    uint64_t NextPiece(uint64_t piece) const;

private:
    static constexpr uint64_t BytesOfSector = 512;

    CZuError Measure(const NTFS_VOLUME_DATA_BUFFER& data);
    CZuError ReadBitmapAt(uint64_t firstLcn, std::vector<char>& reply, uint32_t& bitmapBytes);
    void TakeBitmap(uint64_t firstLcn, const char* bitmap, uint32_t bitmapBytes);
    void HoldClusters(uint64_t firstLcn, uint64_t endLcn);
    void HoldBytes(uint64_t first, uint64_t end);
    CZuError Explained(int systemError);

    CZuFile m_File;
    std::shared_ptr<INtfsVolumeControl> m_Control;
    uint64_t m_DiskBytes = 0;
    uint32_t m_ClusterBytes = 0;
    uint64_t m_Clusters = 0;
    uint32_t m_PieceBytes = 0;
    uint64_t m_PieceCount = 0;
    uint64_t m_HeldPieces = 0;
    uint64_t m_UsedClusters = 0;
    std::vector<char> m_Held;  // a bit for each piece, the high bit of each byte first
};
