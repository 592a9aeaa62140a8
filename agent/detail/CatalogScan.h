#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "agent/BackupSet.h"
#include "agent/detail/NtfsMappedVolume.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"

// What the records of a file tell of it, for each of its names. Times are in units of 100 ns since 1601.
struct CatalogFile_t {
    uint64_t frn = 0;
    uint64_t bytes = 0;
    uint64_t modified = 0;
    uint64_t accessed = 0;
    uint64_t created = 0;
    uint64_t recordChanged = 0;
    uint32_t attributes = 0;
    uint32_t reparseTag = 0;
    uint32_t links = 0;
    bool isDirectory = false;
    bool isAsInTree = false;  // the directory tree has its first name as it is

    SetEntry_t EntryWith(uint64_t parent, std::string name, bool isFurtherName) const;
};

// One pass over the file records of a volume, in their order, for what a catalogue has beyond the core's collection:
// every name of each file, as it is to the letter, and what the records tell of the files.
class CCatalogScan {
public:
    // `reuseCounts` has, for each record of the MFT, how often it was used: a name that leads to a directory of another
    // count is none of that directory's. Both stay the caller's and outlive this.
    CCatalogScan(CNtfsMappedVolume& volume, const std::vector<uint16_t>& reuseCounts)
        : m_Volume(volume), m_ReuseCounts(reuseCounts) {}

    // Keeps first names too, for a volume whose tree couldn't be made.
    void KeepAllNames() { m_KeepsAllNames = true; }

    // Gives the next bytes of the directory structure file, `got` of at most `room`; 0 behind its end.
    CZuError Read(char* buffer, uint32_t room, uint32_t& got);

    // By FRN.
    const std::vector<CatalogFile_t>& Files() const { return m_Files; }

    // Names that a directory tree of one name for each file hasn't, or hasn't as they are.
    const std::vector<SetEntry_t>& Names() const { return m_Names; }

    // Null for a record that isn't the base record of a file.
    const CatalogFile_t* Find(uint64_t frn) const;

    // When all has been read: the names in directories that aren't there, which no listing comes to.
    uint64_t CountLostNames() const;

    // Writes the associate file of a metadata collection, when all has been read.
    CZuError WriteAssociates(const std::string& path) const;

    // What can't be read.
    const std::vector<std::string>& Problems() const { return m_Problems; }

private:
    void TakeRecord(uint64_t frn);
    void TakeFile(uint64_t frn);
    void TakeExtension(uint64_t frn);
    void TakeName(CatalogFile_t& file, const ATTR_RECORD_HEADER_t* attribute, bool isFirst);
    void PutRecord(const CatalogFile_t& file, uint64_t parent, const std::string& name, bool isFurther);
    bool IsOfItsDirectory(uint64_t parentReference) const;

    CNtfsMappedVolume& m_Volume;
    const std::vector<uint16_t>& m_ReuseCounts;
    bool m_KeepsAllNames = false;
    uint64_t m_Frn = 0;     // the next one
    std::string m_Pending;  // made and not yet given
    size_t m_PendingAt = 0;
    CAutoMemory<char> m_Record;
    std::vector<CatalogFile_t> m_Files;
    std::vector<SetEntry_t> m_Names;
    std::unordered_map<uint64_t, uint64_t> m_NamesBelow;  // how many, by the directory
    uint64_t m_StrayNames = 0;                            // of directories whose records others use by now
    std::vector<std::string> m_Problems;
    std::string m_Associates;  // the file, where all names are kept
};
