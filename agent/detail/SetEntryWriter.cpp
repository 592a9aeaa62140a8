#include "agent/detail/SetEntryWriter.h"

#include <algorithm>
#include <iterator>

#include "agent/detail/SetSchema.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

bool HasNumbersOfSet(const SetEntry_t& entry) {
    const uint64_t numbers[] = {entry.parent,   entry.frn,     entry.bytes,        entry.modified,
                                entry.accessed, entry.created, entry.recordChanged};
    return std::all_of(std::begin(numbers), std::end(numbers),
                       [](uint64_t number) { return number <= uint64_t{INT64_MAX}; });
}

}  // namespace

CZuError CSetEntryWriter::Prepare(CSetDatabase& database) {
    m_Database = &database;
    return m_Add.Prepare(database, "INSERT OR IGNORE INTO entry VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
}

CZuError CSetEntryWriter::Begin(const SetVolume_t& volume) {
    const bool isThere =
        std::any_of(m_Volumes.begin(), m_Volumes.end(), [&](const SetVolume_t& each) { return each.id == volume.id; });
    if (volume.id < 0 || isThere || volume.facts.size() > LargestFactsBytes)
        return Refusal(m_Database->ShownName() + ": the volume " + volume.name + " has no place in the set");
    EndVolume();
    m_Volumes.push_back(volume);
    m_Volumes.back().entryCount = 0;
    m_Sum = CDigestSum();
    return CZuError();
}

CZuError CSetEntryWriter::Add(const SetEntry_t& entry) {
    if (m_Volumes.empty() || entry.name.empty() || entry.name.size() > LargestEntryNameBytes || !HasNumbersOfSet(entry))
        return Refusal(CZuString::Format("{1}: the entry {2} of the directory {3} has no place in the set",
                                         m_Database->ShownName(), entry.frn, entry.parent));
    m_Add.Bind(1, m_Volumes.back().id);
    m_Add.Bind(2, static_cast<int64_t>(entry.parent));
    m_Add.BindBytes(3, entry.name.data(), entry.name.size());
    m_Add.Bind(4, static_cast<int64_t>(entry.frn));
    m_Add.Bind(5, static_cast<int64_t>(entry.bytes));
    m_Add.Bind(6, static_cast<int64_t>(entry.modified));
    m_Add.Bind(7, static_cast<int64_t>(entry.accessed));
    m_Add.Bind(8, static_cast<int64_t>(entry.created));
    m_Add.Bind(9, static_cast<int64_t>(entry.recordChanged));
    m_Add.Bind(10, entry.attributes);
    m_Add.Bind(11, entry.reparseTag);
    m_Add.Bind(12, entry.links);
    m_Add.Bind(13, EntryKindOf(entry));
    ZU_RETURN_IF_ERROR(m_Add.Run());
    if (m_Database->Changes() == 0)
        return CZuError();
    ++m_Volumes.back().entryCount;
    m_Sum.Add(DigestOfEntry(entry));
    return CZuError();
}

CZuError CSetEntryWriter::End(std::vector<SetVolume_t>& volumes) {
    m_Add.Finish();
    EndVolume();
    std::sort(m_Volumes.begin(), m_Volumes.end(),
              [](const SetVolume_t& left, const SetVolume_t& right) { return left.id < right.id; });
    CSetStatement add;
    ZU_RETURN_IF_ERROR(add.Prepare(*m_Database, "INSERT INTO volume VALUES (?, ?, ?, ?, ?)"));
    for (const SetVolume_t& volume : m_Volumes) {
        add.Bind(1, volume.id);
        add.Bind(2, volume.name);
        add.Bind(3, volume.facts);
        add.Bind(4, static_cast<int64_t>(volume.entryCount));
        add.BindBytes(5, volume.entriesDigest.data(), volume.entriesDigest.size());
        ZU_RETURN_IF_ERROR(add.Run());
    }
    volumes = std::move(m_Volumes);
    return CZuError();
}

void CSetEntryWriter::EndVolume() {
    if (!m_Volumes.empty())
        m_Volumes.back().entriesDigest = m_Sum.Result();
}
