#include "VirtualServer/VMInfo/detail/VmdkGrainTables.h"

#include "VirtualServer/VMInfo/detail/MetadataRecord.h"
#include "foundation/AlignedMemory.h"

namespace {

constexpr uint64_t RunBytes = uint64_t{1} << 20U;

using TableRun_t = std::shared_ptr<Le32_t[]>;

// Null when out of memory.
TableRun_t NewRun(uint64_t entryCount) {
    void* const block = AllocateAligned(static_cast<size_t>(entryCount) * sizeof(Le32_t));
    return block != nullptr ? TableRun_t(static_cast<Le32_t*>(block), FreeAligned) : nullptr;
}

// One table of a run. It keeps the whole run in memory.
std::shared_ptr<const Le32_t[]> TableOfRun(const TableRun_t& run, uint64_t index, uint32_t entriesPerTable) {
    return {run, run.get() + index * entriesPerTable};
}

uint64_t MostTablesInRun(uint32_t entriesPerTable) {
    return RunBytes / (uint64_t{entriesPerTable} * sizeof(Le32_t));
}

// True when the table of the second entry lies right behind that of the first.
bool LieTogether(uint32_t firstSector, uint32_t secondSector, uint32_t entriesPerTable) {
    return uint64_t{secondSector} == uint64_t{firstSector} + entriesPerTable * sizeof(Le32_t) / SectorSize;
}

}  // namespace

CZuError CGrainTableLoader::Load(const CAutoMemory<Le32_t>& directory, std::vector<GrainTableRef_t>& tables) {
    const uint64_t count = directory.GetSize();
    ZU_RETURN_IF_ERROR(m_Budget.Charge(count * sizeof(GrainTableRef_t)));
    tables.reserve(tables.size() + static_cast<size_t>(count));
    const Le32_t* const entries = directory.GetPtr();
    for (uint64_t index = 0; index < count; ++index) {
        const uint32_t sector = entries[index];
        if (sector != 0 && m_Loaded.count(sector) == 0)
            ZU_RETURN_IF_ERROR(LoadRun(directory, index, CountRun(directory, index)));
        tables.push_back({sector, sector != 0 ? m_Loaded.at(sector) : nullptr});
    }
    return CZuError();
}

uint64_t CGrainTableLoader::CountRun(const CAutoMemory<Le32_t>& directory, uint64_t first) const {
    const Le32_t* const entries = directory.GetPtr();
    const uint64_t most = MostTablesInRun(m_EntriesPerTable);
    uint64_t count = 1;
    while (count < most && first + count < directory.GetSize()) {
        const uint32_t next = entries[first + count];
        if (!LieTogether(entries[first + count - 1], next, m_EntriesPerTable) || m_Loaded.count(next) != 0)
            break;
        ++count;
    }
    return count;
}

CZuError CGrainTableLoader::LoadRun(const CAutoMemory<Le32_t>& directory, uint64_t first, uint64_t count) {
    const uint64_t entryCount = count * m_EntriesPerTable;
    const uint64_t sizeBytes = entryCount * sizeof(Le32_t);
    ZU_RETURN_IF_ERROR(m_Budget.Charge(sizeBytes));
    const TableRun_t run = NewRun(entryCount);
    if (run == nullptr)
        return Refusal(OutOfMemory);

    const Le32_t* const entries = directory.GetPtr() + first;
    ZU_RETURN_IF_ERROR(ReadFileAt(m_File, FileOffsetOfSector(entries[0]), 0, run.get(),
                                  static_cast<unsigned int>(sizeBytes), nullptr));
    for (uint64_t index = 0; index < count; ++index)
        m_Loaded.emplace(entries[index], TableOfRun(run, index, m_EntriesPerTable));
    return CZuError();
}

CZuError CGrainTableReplay::WriteForEveryEntry(const CAutoMemory<Le32_t>& directory,
                                               std::vector<GrainTableRef_t>& tables) {
    const Le32_t* const entries = directory.GetPtr();
    const uint64_t most = MostTablesInRun(m_EntriesPerTable);
    for (uint64_t index = 0; index < directory.GetSize();) {
        uint64_t count = 1;
        while (count < most && index + count < directory.GetSize() &&
               LieTogether(entries[index + count - 1], entries[index + count], m_EntriesPerTable))
            ++count;
        ZU_RETURN_IF_ERROR(WriteRun(entries + index, count, tables));
        index += count;
    }
    return CZuError();
}

CZuError CGrainTableReplay::WriteForPresentEntries(const CAutoMemory<Le32_t>& directory,
                                                   std::vector<GrainTableRef_t>& tables) {
    const Le32_t* const entries = directory.GetPtr();
    for (uint64_t index = 0; index < directory.GetSize(); ++index) {
        if (entries[index] == 0)
            tables.push_back({});
        else
            ZU_RETURN_IF_ERROR(WriteRun(entries + index, 1, tables));
    }
    return CZuError();
}

// Writes `count` tables that lie one behind the other.
CZuError CGrainTableReplay::WriteRun(const Le32_t* entries, uint64_t count, std::vector<GrainTableRef_t>& tables) {
    const uint64_t sizeBytes = count * m_EntriesPerTable * sizeof(Le32_t);
    if (!m_Record.Rest().Holds(0, sizeBytes))
        return Refusal(MetadataIsCorrupted);
    const TableRun_t run = NewRun(count * m_EntriesPerTable);
    if (run == nullptr)
        return Refusal(OutOfMemory);
    if (!m_Record.Take(run.get(), sizeBytes))
        return Refusal(MetadataIsCorrupted);

    ZU_RETURN_IF_ERROR(WriteFileAt(m_File, FileOffsetOfSector(entries[0]), 0, run.get(),
                                   static_cast<unsigned int>(sizeBytes), nullptr));
    for (uint64_t index = 0; index < count; ++index)
        tables.push_back({entries[index], TableOfRun(run, index, m_EntriesPerTable)});
    return CZuError();
}
