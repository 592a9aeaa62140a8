#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/WholeDisk.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

enum class PartitionScheme_t { None, Mbr, Gpt };

// "none", "mbr" or "gpt".
DISKSTREAM_EXPORT const char* SchemeName(PartitionScheme_t scheme);

// One partition, numbered as operating systems do: slots of an MBR 1 to 4, logical ones from 5 on, a
// GPT's entries by their place.
struct PartitionInfo_t {
    uint32_t number = 0;
    std::string name;      // a GPT's; empty where there is none
    uint8_t typeId = 0;    // an MBR's
    std::string typeGuid;  // a GPT's
    std::string typeName;  // for people
    std::string guid;      // the partition's own, of a GPT
    uint64_t startSector = 0;
    uint64_t sectors = 0;
    bool isBootable = false;
    bool isExtended = false;  // it holds the logical ones
    bool isLogical = false;
    std::string fileSystem;  // what its first sectors look like; empty for nothing known
};

struct PartitionTable_t {
    PartitionScheme_t scheme = PartitionScheme_t::None;
    std::string diskGuid;                     // a GPT's
    uint32_t diskSignature = 0;               // an MBR's
    std::string fileSystem;                   // of a disk without a table: one on the whole disk
    std::vector<PartitionInfo_t> partitions;  // in the order of the tables; logical ones where their slot is
    std::vector<std::string> warnings;
};

// Reads the tables of `disk`. Errors name the disk and the sector. A disk without a table is no
// failure: its scheme is none.
[[nodiscard]] DISKSTREAM_EXPORT CZuError ReadPartitionTable(CWholeDisk& disk, PartitionTable_t& table);
