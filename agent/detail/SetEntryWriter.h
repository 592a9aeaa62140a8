#pragma once

#include <vector>

#include "agent/BackupSet.h"
#include "agent/detail/SetDatabase.h"
#include "agent/detail/SetDigest.h"

// Writes volumes and their entries.
class CSetEntryWriter {
public:
    CZuError Prepare(CSetDatabase& database);
    CZuError Begin(const SetVolume_t& volume);
    CZuError Add(const SetEntry_t& entry);

    // Writes the rows of the volumes, and gives them by id.
    CZuError End(std::vector<SetVolume_t>& volumes);

private:
    void EndVolume();

    CSetDatabase* m_Database = nullptr;
    CSetStatement m_Add;
    std::vector<SetVolume_t> m_Volumes;
    CDigestSum m_Sum;  // of the one begun last
};
