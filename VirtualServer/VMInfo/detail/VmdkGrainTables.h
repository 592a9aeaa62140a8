#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "VirtualServer/VMInfo/VmdkSparseExtentReader.h"
#include "VirtualServer/VMInfo/detail/TableReader.h"
#include "foundation/detail/ByteView.h"

// Grain tables mostly lie one behind the other, so they are moved in runs of up to 1 MiB: one
// system call and one allocation for hundreds of tables.

// Loads the tables that directories name. A table that several entries name is loaded once, so
// that memory follows the bytes of the file and not the number of entries.
class CGrainTableLoader {
public:
    CGrainTableLoader(CZuFile& file, CTableReader& budget, uint32_t entriesPerTable)
        : m_File(file), m_Budget(budget), m_EntriesPerTable(entriesPerTable) {}

    // Makes `tables` hold one element for each entry of `directory`.
    CZuError Load(const CAutoMemory<Le32_t>& directory, std::vector<GrainTableRef_t>& tables);

private:
    uint64_t CountRun(const CAutoMemory<Le32_t>& directory, uint64_t first) const;
    CZuError LoadRun(const CAutoMemory<Le32_t>& directory, uint64_t first, uint64_t count);

    CZuFile& m_File;
    CTableReader& m_Budget;
    const uint32_t m_EntriesPerTable;
    std::unordered_map<uint32_t, std::shared_ptr<const Le32_t[]>> m_Loaded;
};

// Takes tables off a record and writes them where the directory's entries say.
class CGrainTableReplay {
public:
    CGrainTableReplay(CZuFile& file, CByteReader& record, uint32_t entriesPerTable)
        : m_File(file), m_Record(record), m_EntriesPerTable(entriesPerTable) {}

    // A table for every entry of `directory`, entries of 0 included.
    CZuError WriteForEveryEntry(const CAutoMemory<Le32_t>& directory, std::vector<GrainTableRef_t>& tables);

    // A table for each entry that isn't 0.
    CZuError WriteForPresentEntries(const CAutoMemory<Le32_t>& directory, std::vector<GrainTableRef_t>& tables);

private:
    CZuError WriteRun(const Le32_t* entries, uint64_t count, std::vector<GrainTableRef_t>& tables);

    CZuFile& m_File;
    CByteReader& m_Record;
    const uint32_t m_EntriesPerTable;
};
