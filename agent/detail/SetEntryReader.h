#pragma once

#include <functional>
#include <list>
#include <optional>
#include <string>

#include "agent/BackupSet.h"
#include "agent/detail/SetDatabase.h"

// Reads the entries of volumes.
class CSetEntryReader {
public:
    explicit CSetEntryReader(CSetDatabase& database) : m_Database(database) {}

    // Those of one directory, by name and number, until `take` wants no more. Inside `take`, other
    // walks may begin.
    CZuError ForEach(int64_t volume, uint64_t parent, const std::function<bool(SetEntry_t&)>& take);

    CZuError Find(int64_t volume, uint64_t parent, const std::string& name, std::optional<SetEntry_t>& entry);

    // All of a volume, by directory, name and number, until `take` wants no more. At their end it is proved that they
    // are those that the volume was written with.
    CZuError ForEachOf(const SetVolume_t& volume, const std::function<bool(SetEntry_t&)>& take);

private:
    CZuError ReadRow(CSetStatement& row, int64_t volume, SetEntry_t& entry);

    CSetDatabase& m_Database;
    std::list<CSetStatement> m_IdleWalks;
    CSetStatement m_SelectEntry;
};
