#pragma once

#include <string>
#include <vector>

#include "agent/BackupSet.h"
#include "agent/detail/SetDatabase.h"

// All of a set but its blocks, records, pieces and entries.
struct SetLists_t {
    int64_t version = WholeSetVersion;
    BlockDigest_t digest{};  // over all of the following
    SetInfo_t info;
    std::vector<SetDisk_t> disks;      // by id
    std::vector<SetStream_t> streams;  // by id, which is by disk, too
    std::vector<SetFile_t> files;      // by disk and name
    std::vector<SetVolume_t> volumes;  // by id
    std::vector<SetPart_t> parts;      // by name
};

// Proves that the database is a set of a version that this program reads, that its tables are those
// of that version, and that its lists are what was written.
CZuError ReadSetLists(CSetDatabase& database, SetLists_t& lists);

// The names of the parts that have the numbers of the blocks of the stream `stream`, and of those that the base has.
std::string BlocksPartName(int64_t stream);
std::string InheritedPartName(int64_t stream);

// Null where there is no such part.
const SetPart_t* FindPartIn(const std::vector<SetPart_t>& parts, const std::string& name);
