#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "agent/BackupSetReader.h"
#include "agent/detail/CatalogFacts.h"
#include "agent/detail/SetDisks.h"
#include "agent/detail/VolumeReader.h"
#include "foundation/ZuError.h"

// The bytes of a volume out of the blocks of a backup set. Where the volume dump in the set leads to the same bytes as
// the layout that is kept beside it, the dump tells which blocks they are in; the layout tells it for every volume, for
// missing disks, and for bytes that no image held, which are zeros.
class CCatalogClusters {
public:
    // `set` stays the caller's and outlives this.
    explicit CCatalogClusters(CBackupSetReader& set) : m_Set(set), m_Disks(set), m_Reader(m_Disks) {}

    CZuError Open(const SetVolume_t& volume);

    CZuError Read(uint64_t offset, char* buffer, uint32_t length);

private:
    void OpenDump(const SetVolume_t& volume);
    void NameStreams();
    bool ReadByDump(uint64_t offset, char* buffer, uint32_t length, CZuError& error);

    CBackupSetReader& m_Set;
    CSetDisks m_Disks;
    CVolumeReader m_Reader;
    CatalogFacts_t m_Facts;
    std::unique_ptr<LVM_Volume_t> m_DumpedVolume;  // null where the dump isn't used
    SparseInfo_t m_SparseInfo;
    std::map<std::string, const SetStream_t*> m_Streams;  // by the names of the dump
    std::vector<LVM_Disk_Offset_Len_t> m_Runs;            // kept for its room
};
