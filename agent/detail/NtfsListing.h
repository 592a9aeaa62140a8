#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "agent/INtfsFiles.h"
#include "agent/detail/NtfsIndex.h"
#include "agent/detail/NtfsMappedVolume.h"

// Lists a directory, or the whole tree below it. Names come from the indexes, in their order, and everything else from
// the file records. The records of many names are read in the order in which the volume has them, so that the core
// reads a stretch of them at once; then the names are given.
class CNtfsListing {
public:
    CNtfsListing(CNtfsMappedVolume& volume, NtfsListing_t& listing, const TakeNtfsEntry_t& take)
        : m_Volume(volume), m_Listing(listing), m_Take(take) {}

    CZuError Run(uint64_t directory);

private:
    // A directory whose names are being given.
    struct Folder_t {
        size_t pathBytes = 0;  // of the path in work, its slash included
        std::vector<NtfsIndexName_t> names;
        size_t next = 0;
    };

    struct Waiting_t {
        std::string path;
        std::string name;
        uint64_t frn;
        uint16_t reuseCount;
        bool isDescribed;
        NtfsFileInfo_t file;
    };

    CZuError Enter(uint64_t frn, uint16_t reuseCount, const std::string& path);
    void TakeNext();
    bool IsHidden(const NtfsIndexName_t& name) const;
    bool GiveBatch();
    void DescribeBatch();
    void DescribeFile(Waiting_t& entry);

    CNtfsMappedVolume& m_Volume;
    NtfsListing_t& m_Listing;
    const TakeNtfsEntry_t& m_Take;
    std::vector<Folder_t> m_Folders;  // from the one asked for to the one in work
    std::string m_Path;               // of that one, with a slash behind it, unless it is the one asked for
    uint64_t m_HeldNames = 0;         // in all of them
    std::unordered_set<uint64_t> m_Entered;
    std::vector<Waiting_t> m_Batch;
    size_t m_BatchBytes = 0;    // of its paths
    size_t m_BatchStreams = 0;  // of the files that are described
    CAutoMemory<char> m_Record;
};
