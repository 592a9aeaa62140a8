#include "agent/detail/SetLists.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <tuple>

#include "agent/detail/SetDigest.h"
#include "agent/detail/SetRows.h"
#include "agent/detail/SetSchema.h"
#include "agent/detail/VmdkExtentCheck.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr size_t MostFilesOfADisk = 64;
constexpr size_t LargestFileBytes = 1U << 20U;  // a descriptor has 20 KiB at most
constexpr uint64_t LargestNumber = INT64_MAX;

class CListReader {
public:
    CListReader(CSetDatabase& database, SetLists_t& lists) : m_Database(database), m_Lists(lists) {}

    CZuError Run() {
        ZU_RETURN_IF_ERROR(CheckFormat());
        ZU_RETURN_IF_ERROR(CheckTables());
        ZU_RETURN_IF_ERROR(ReadInfo());
        ZU_RETURN_IF_ERROR(ReadDisks());
        ZU_RETURN_IF_ERROR(ReadStreams());
        ZU_RETURN_IF_ERROR(ReadFiles());
        if (!IsVersion1()) {
            ZU_RETURN_IF_ERROR(ReadVolumes());
            ZU_RETURN_IF_ERROR(ReadParts());
        }
        if (m_Lists.version == BackupSetVersion)
            ZU_RETURN_IF_ERROR(ReadBase());
        if (DigestOfSet(m_Lists) != m_Lists.digest)
            return m_Database.Damaged("the digest over its lists is wrong");
        return CZuError();
    }

private:
    bool IsVersion1() const { return m_Lists.version == 1; }

    CZuError CheckFormat() {
        int64_t application = 0;
        int64_t& version = m_Lists.version;
        ZU_RETURN_IF_ERROR(m_Database.QueryNumber("PRAGMA application_id", application));
        ZU_RETURN_IF_ERROR(m_Database.QueryNumber("PRAGMA user_version", version));
        if (application != SetApplicationId)
            return Refusal(m_Database.ShownName() + ": is a database, but no backup set");
        if (version > BackupSetVersion)
            return Refusal(CZuString::Format("{1}: is a set of format version {2}; this program reads versions up to "
                                             "{3}, so use a newer one",
                                             m_Database.ShownName(), version, BackupSetVersion));
        if (version < 1)
            return m_Database.Damaged(CZuString::Format("it has the format version {1}", version).c_str());
        return CZuError();
    }

    // A view or trigger, or a table of another shape, could have us read or run anything.
    CZuError CheckTables() {
        const std::vector<SetTable_t> tables = TablesOfVersion(m_Lists.version);
        size_t found = 0;
        ZU_RETURN_IF_ERROR(ForEachRow("SELECT type, name, sql FROM sqlite_schema", [&](CSetStatement& row) {
            const std::string name = row.Text(1);
            const std::string sql = row.Text(2);
            const bool isOurs =
                row.Text(0) == "table" && std::any_of(tables.begin(), tables.end(), [&](const SetTable_t& table) {
                    return name == table.name && sql == table.sql;
                });
            ++found;
            return isOurs ? CZuError() : m_Database.Damaged("its table " + name + " isn't one of a backup set");
        }));
        return found == tables.size() ? CZuError() : m_Database.Damaged("tables are missing");
    }

    CZuError ReadInfo() {
        bool isThere = false;
        ZU_RETURN_IF_ERROR(ForEachRow("SELECT created_utc, writer, digest FROM backup_set", [&](CSetStatement& row) {
            if (isThere)
                return m_Database.Damaged("it has more than one row of its own");
            isThere = true;
            m_Lists.info.createdUtc = row.Text(0);
            m_Lists.info.writer = row.Text(1);
            return ReadDigest(row, 2, m_Lists.digest) ? CZuError() : m_Database.Damaged("its digest is missing");
        }));
        return isThere ? CZuError() : m_Database.Damaged("its own row is missing");
    }

    CZuError ReadDisks() {
        const char* const version1 = "SELECT 0, image_name, product, disk_type, disk_sectors, has_parent, parent_name "
                                     "FROM backup_set";
        const char* const version2 = "SELECT id, image_name, product, disk_type, disk_sectors, has_parent, parent_name "
                                     "FROM disk ORDER BY id";
        ZU_RETURN_IF_ERROR(ForEachRow(IsVersion1() ? version1 : version2, [&](CSetStatement& row) {
            SetDisk_t& disk = m_Lists.disks.emplace_back();
            disk.id = row.Number(0);
            disk.imageName = row.Text(1);
            disk.product = static_cast<ProductType_t>(row.Number(2));
            disk.diskType = static_cast<DiskType_t>(row.Number(3));
            disk.diskSectors = static_cast<uint64_t>(row.Number(4));
            disk.hasParent = row.Number(5) != 0;
            disk.parentName = row.Text(6);
            const bool isNext = disk.id == static_cast<int64_t>(m_Lists.disks.size()) - 1;
            return isNext ? CZuError() : m_Database.Damaged("the number of " + disk.imageName + " is out of range");
        }));
        return m_Lists.disks.empty() ? m_Database.Damaged("it holds no disk") : CZuError();
    }

    CZuError ReadStreams() {
        const char* const version1 = "SELECT id, file_name, disk_type, block_sectors, disk_sectors, file_bytes, "
                                     "record_bytes, record_digest, block_count, stored_bytes, digest, 0 "
                                     "FROM stream ORDER BY id";
        const char* const version2 = "SELECT id, file_name, disk_type, block_sectors, disk_sectors, file_bytes, "
                                     "record_bytes, record_digest, block_count, stored_bytes, digest, disk "
                                     "FROM stream ORDER BY id";
        return ForEachRow(IsVersion1() ? version1 : version2, [&](CSetStatement& row) {
            SetStream_t stream;
            stream.id = row.Number(0);
            stream.fileName = row.Text(1);
            stream.diskType = static_cast<DiskType_t>(row.Number(2));
            stream.blockSectors = static_cast<uint32_t>(row.Number(3));
            stream.diskSectors = static_cast<uint64_t>(row.Number(4));
            stream.fileBytes = static_cast<uint64_t>(row.Number(5));
            stream.recordBytes = static_cast<uint64_t>(row.Number(6));
            stream.blockCount = static_cast<uint64_t>(row.Number(8));
            stream.storedBytes = static_cast<uint64_t>(row.Number(9));
            stream.disk = row.Number(11);
            if (!ReadDigest(row, 7, stream.recordDigest) || !ReadDigest(row, 10, stream.digest))
                return m_Database.Damaged("a digest of " + stream.fileName + " is missing");
            ZU_RETURN_IF_ERROR(CheckStream(stream));
            m_Lists.streams.push_back(stream);
            return CZuError();
        });
    }

    CZuError CheckStream(const SetStream_t& stream) const {
        constexpr uint64_t mostSectors = LargestNumber >> SectorShift;
        if (stream.id < 0 || stream.id >= StreamEnd)
            return m_Database.Damaged("the number of " + stream.fileName + " is out of range");
        const int64_t disksSoFar = m_Lists.streams.empty() ? 0 : m_Lists.streams.back().disk;
        if (!IsDisk(stream.disk) || stream.disk < disksSoFar)
            return m_Database.Damaged("the disk of " + stream.fileName + " is out of range");
        if (stream.blockSectors == 0 || stream.blockSectors > LargestGrainSectors)
            return m_Database.Damaged("the block size of " + stream.fileName + " is out of range");
        if (stream.diskSectors > mostSectors || stream.fileBytes > LargestNumber ||
            stream.recordBytes > LargestRecordBytes)
            return m_Database.Damaged("a size of " + stream.fileName + " is out of range");
        return CZuError();
    }

    bool IsDisk(int64_t id) const { return id >= 0 && id < static_cast<int64_t>(m_Lists.disks.size()); }

    CZuError ReadFiles() {
        const char* const version1 = "SELECT name, bytes, 0 FROM file ORDER BY name";
        const char* const version2 = "SELECT name, bytes, disk FROM file ORDER BY disk, name";
        size_t filesOfDisk = 0;
        return ForEachRow(IsVersion1() ? version1 : version2, [&](CSetStatement& row) {
            SetFile_t file{row.Text(0), row.Text(1), row.Number(2)};
            const bool isSameDisk = !m_Lists.files.empty() && m_Lists.files.back().disk == file.disk;
            filesOfDisk = isSameDisk ? filesOfDisk + 1 : 1;
            if (!IsDisk(file.disk) || filesOfDisk > MostFilesOfADisk || file.bytes.size() > LargestFileBytes)
                return m_Database.Damaged("it holds files that no disk has");
            m_Lists.files.push_back(std::move(file));
            return CZuError();
        });
    }

    CZuError ReadVolumes() {
        const char* const sql = "SELECT id, name, facts, entry_count, entries_digest FROM volume ORDER BY id";
        return ForEachRow(sql, [&](CSetStatement& row) {
            SetVolume_t& volume = m_Lists.volumes.emplace_back();
            volume.id = row.Number(0);
            volume.name = row.Text(1);
            volume.facts = row.Text(2);
            if (volume.id < 0 || !row.IsText(1) || !row.IsText(2) || volume.facts.size() > LargestFactsBytes ||
                !ReadUpTo(row, 3, LargestNumber, volume.entryCount) || !ReadDigest(row, 4, volume.entriesDigest))
                return m_Database.Damaged("its row of the volume " + volume.name);
            return CZuError();
        });
    }

    CZuError ReadParts() {
        constexpr uint64_t largestPart = BlockNumberEnd * PartPieceBytes;
        std::vector<SetPart_t>& parts = m_Lists.parts;
        ZU_RETURN_IF_ERROR(ForEachRow("SELECT id, name, bytes, digest FROM part", [&](CSetStatement& row) {
            SetPart_t& part = parts.emplace_back();
            part.id = row.Number(0);
            part.name = row.Text(1);
            if (part.id < 0 || part.id >= StreamEnd || !row.IsText(1) || !ReadUpTo(row, 2, largestPart, part.bytes) ||
                !ReadDigest(row, 3, part.digest))
                return m_Database.Damaged("its row of the part " + part.name);
            return CZuError();
        }));
        std::sort(parts.begin(), parts.end(), [](const SetPart_t& left, const SetPart_t& right) {
            return std::tie(left.name, left.id) < std::tie(right.name, right.id);
        });
        const auto twice =
            std::adjacent_find(parts.begin(), parts.end(),
                               [](const SetPart_t& left, const SetPart_t& right) { return left.name == right.name; });
        if (twice != parts.end())
            return m_Database.Damaged("it has two parts named " + twice->name);
        for (const SetStream_t& stream : m_Lists.streams) {
            if (FindPartIn(parts, BlocksPartName(stream.id)) == nullptr)
                return m_Database.Damaged("the list of the blocks of " + stream.fileName + " is missing");
        }
        return CZuError();
    }

    CZuError ReadBase() {
        std::optional<SetBase_t>& base = m_Lists.info.base;
        ZU_RETURN_IF_ERROR(ForEachRow("SELECT name, identity, changed_since FROM base", [&](CSetStatement& row) {
            if (base.has_value() || !row.IsText(0) || !row.IsText(2) || !ReadDigest(row, 1, base.emplace().identity))
                return m_Database.Damaged("its row of the base");
            base->name = row.Text(0);
            base->changedSince = row.Text(2);
            return CZuError();
        }));
        if (!base.has_value())
            return m_Database.Damaged("its row of the base is missing");
        for (const SetStream_t& stream : m_Lists.streams) {
            if (FindPartIn(m_Lists.parts, InheritedPartName(stream.id)) == nullptr)
                return m_Database.Damaged("the list of the blocks of " + stream.fileName +
                                          " that its base has is missing");
        }
        return CZuError();
    }

    using TakeRow_t = std::function<CZuError(CSetStatement&)>;

    CZuError ForEachRow(const char* sql, const TakeRow_t& take) {
        CSetStatement rows;
        ZU_RETURN_IF_ERROR(rows.Prepare(m_Database, sql));
        for (;;) {
            bool hasRow = false;
            ZU_RETURN_IF_ERROR(rows.Step(hasRow));
            if (!hasRow)
                return CZuError();
            ZU_RETURN_IF_ERROR(take(rows));
        }
    }

    CSetDatabase& m_Database;
    SetLists_t& m_Lists;
};

}  // namespace

CZuError ReadSetLists(CSetDatabase& database, SetLists_t& lists) {
    return CListReader(database, lists).Run();
}

std::string BlocksPartName(int64_t stream) {
    return BlocksPartPrefix + std::to_string(stream);
}

std::string InheritedPartName(int64_t stream) {
    return InheritedPartPrefix + std::to_string(stream);
}

const SetPart_t* FindPartIn(const std::vector<SetPart_t>& parts, const std::string& name) {
    const auto found =
        std::lower_bound(parts.begin(), parts.end(), name,
                         [](const SetPart_t& part, const std::string& wanted) { return part.name < wanted; });
    return found != parts.end() && found->name == name ? &*found : nullptr;
}
