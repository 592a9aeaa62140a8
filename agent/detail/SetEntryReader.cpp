#include "agent/detail/SetEntryReader.h"

#include "agent/detail/SetDigest.h"
#include "agent/detail/SetRows.h"
#include "agent/detail/SetSchema.h"
#include "foundation/detail/ErrorHandling.h"
#include "foundation/detail/ScopeGuard.h"

namespace {

constexpr char SelectColumns[] = "SELECT parent, frn, bytes, modified, accessed, created, record_changed, attributes, "
                                 "reparse_tag, links, kind, name FROM entry WHERE volume = ?";

std::string SelectRows(const char* condition) {
    return std::string(SelectColumns) + condition;
}

constexpr uint64_t LargestEntryNumber = INT64_MAX;
constexpr uint64_t LargestNumber32 = UINT32_MAX;

bool ReadName(CSetStatement& row, int column, std::string& name) {
    uint32_t size = 0;
    const char* const bytes = row.Bytes(column, size);
    if (!row.IsBytes(column) || bytes == nullptr || size == 0 || size > LargestEntryNameBytes)
        return false;
    name.assign(bytes, size);
    return true;
}

bool Read32(CSetStatement& row, int column, uint32_t& number) {
    uint64_t read = 0;
    if (!ReadUpTo(row, column, LargestNumber32, read))
        return false;
    number = static_cast<uint32_t>(read);
    return true;
}

bool ReadKind(CSetStatement& row, int column, SetEntry_t& entry) {
    uint64_t kind = 0;
    if (!ReadUpTo(row, column, EntryIsDirectory + EntryIsFurtherName, kind))
        return false;
    entry.isDirectory = (kind & EntryIsDirectory) != 0;
    entry.isFurtherName = (kind & EntryIsFurtherName) != 0;
    return true;
}

}  // namespace

CZuError CSetEntryReader::ForEach(int64_t volume, uint64_t parent, const std::function<bool(SetEntry_t&)>& take) {
    std::list<CSetStatement> own;
    if (m_IdleWalks.empty())
        ZU_RETURN_IF_ERROR(
            own.emplace_back().Prepare(m_Database, SelectRows(" AND parent = ? ORDER BY name, frn").c_str()));
    else
        own.splice(own.begin(), m_IdleWalks, m_IdleWalks.begin());
    CSetStatement& walk = own.front();
    const auto keep = ScopeGuard([&] {
        walk.Reset();
        m_IdleWalks.splice(m_IdleWalks.begin(), own);
    });
    walk.Bind(1, volume);
    walk.Bind(2, static_cast<int64_t>(parent));
    for (;;) {
        bool hasRow = false;
        ZU_RETURN_IF_ERROR(walk.Step(hasRow));
        if (!hasRow)
            return CZuError();
        SetEntry_t entry;
        ZU_RETURN_IF_ERROR(ReadRow(walk, volume, entry));
        if (!take(entry))
            return CZuError();
    }
}

CZuError CSetEntryReader::Find(int64_t volume, uint64_t parent, const std::string& name,
                               std::optional<SetEntry_t>& entry) {
    entry.reset();
    if (!m_SelectEntry.IsPrepared())
        ZU_RETURN_IF_ERROR(
            m_SelectEntry.Prepare(m_Database, SelectRows(" AND parent = ? AND name = ? ORDER BY frn LIMIT 1").c_str()));
    const CSetStatementUse use(m_SelectEntry);
    m_SelectEntry.Bind(1, volume);
    m_SelectEntry.Bind(2, static_cast<int64_t>(parent));
    m_SelectEntry.BindBytes(3, name.data(), name.size());
    bool hasRow = false;
    ZU_RETURN_IF_ERROR(m_SelectEntry.Step(hasRow));
    return hasRow ? ReadRow(m_SelectEntry, volume, entry.emplace()) : CZuError();
}

CZuError CSetEntryReader::ForEachOf(const SetVolume_t& volume, const std::function<bool(SetEntry_t&)>& take) {
    CSetStatement rows;
    ZU_RETURN_IF_ERROR(rows.Prepare(m_Database, SelectRows(" ORDER BY parent, name, frn").c_str()));
    rows.Bind(1, volume.id);
    uint64_t count = 0;
    CDigestSum sum;
    for (;;) {
        bool hasRow = false;
        ZU_RETURN_IF_ERROR(rows.Step(hasRow));
        if (!hasRow)
            break;
        SetEntry_t entry;
        ZU_RETURN_IF_ERROR(ReadRow(rows, volume.id, entry));
        ++count;
        sum.Add(DigestOfEntry(entry));
        if (!take(entry))
            return CZuError();
    }
    const bool isSound = count == volume.entryCount && sum.Result() == volume.entriesDigest;
    return isSound ? CZuError() : m_Database.Damaged("entries of the volume " + volume.name + " are lost or changed");
}

CZuError CSetEntryReader::ReadRow(CSetStatement& row, int64_t volume, SetEntry_t& entry) {
    uint64_t* const numbers[] = {&entry.parent,   &entry.frn,     &entry.bytes,        &entry.modified,
                                 &entry.accessed, &entry.created, &entry.recordChanged};
    uint32_t* const numbers32[] = {&entry.attributes, &entry.reparseTag, &entry.links};
    int column = 0;
    bool isSound = true;
    for (uint64_t* const number : numbers)
        isSound = ReadUpTo(row, column++, LargestEntryNumber, *number) && isSound;
    for (uint32_t* const number : numbers32)
        isSound = Read32(row, column++, *number) && isSound;
    if (!isSound || !ReadKind(row, column, entry) || !ReadName(row, column + 1, entry.name))
        return m_Database.Damaged(
            CZuString::Format("an entry of the directory {1} of its volume {2}", row.Number(0), volume).c_str());
    return CZuError();
}
