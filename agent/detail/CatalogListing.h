#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <unordered_set>
#include <vector>

#include "agent/BackupSetReader.h"
#include "agent/INtfsFiles.h"
#include "agent/detail/CatalogRecords.h"
#include "foundation/ZuError.h"

// What the tree tells of a file.
void DescribeCatalogEntry(const SetEntry_t& entry, NtfsFileInfo_t& info);

// Lists a directory of a catalogue, or the whole tree below it, in the order in which NTFS has names. Everything comes
// from the tree, unless the streams are asked for, which the file records tell.
class CCatalogListing {
public:
    // `records` are null where no streams are asked for.
    CCatalogListing(CBackupSetReader& set, const SetVolume_t& volume, CCatalogRecords* records, NtfsListing_t& listing,
                    const TakeNtfsEntry_t& take)
        : m_Set(set), m_Volume(volume), m_Records(records), m_Listing(listing), m_Take(take) {}

    CZuError Run(uint64_t directory);

private:
    struct Name_t {
        std::u16string folded;  // in upper case, by which names are in order
        size_t entry = 0;       // the place among the folder's entries
    };

    // A directory whose names are being given.
    struct Folder_t {
        size_t pathBytes = 0;  // of the path in work, its slash included
        std::deque<SetEntry_t> entries;
        std::vector<Name_t> names;
        size_t next = 0;
    };

    CZuError Enter(uint64_t frn, size_t pathBytes);
    CZuError GiveNext(bool& isWanted);
    void Describe(const SetEntry_t& entry, NtfsFileInfo_t& info);

    CBackupSetReader& m_Set;
    const SetVolume_t& m_Volume;
    CCatalogRecords* m_Records;
    NtfsListing_t& m_Listing;
    const TakeNtfsEntry_t& m_Take;
    std::vector<Folder_t> m_Folders;
    std::string m_Path;
    std::unordered_set<uint64_t> m_Entered;
};
