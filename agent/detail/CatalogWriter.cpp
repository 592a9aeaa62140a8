#include "agent/detail/CatalogWriter.h"

#include <algorithm>
#include <filesystem>

#include "agent/ErrorText.h"
#include "agent/detail/CatalogDump.h"
#include "agent/detail/CatalogFacts.h"
#include "agent/detail/CatalogParts.h"
#include "agent/detail/CatalogScan.h"
#include "agent/detail/CatalogTree.h"
#include "agent/detail/FileSystems.h"
#include "agent/detail/NtfsMappedVolume.h"
#include "agent/detail/NtfsStream.h"
#include "agent/detail/OutOfMemory.h"
#include "agent/detail/PartFile.h"
#include "agent/detail/PrivateDirectoryGuard.h"
#include "foundation/detail/ByteView.h"
#include "foundation/detail/ErrorHandling.h"
#include "ntfs/detail/NtfsFormat.h"

namespace {

constexpr char NoCatalog[] = ": its files aren't in the catalogue: ";

// The records of the MFT as they lie on the disk, and how often each of them was used.
class CMftCopy {
public:
    CZuError Open(CNtfsMappedVolume& volume) {
        const std::string where = volume.Name() + ": the MFT";
        m_RecordBytes = volume.RecordBytes();
        CAutoMemory<char> record;
        ZU_RETURN_IF_ERROR(volume.ReadRecord(MftFrn, record));
        return m_Stream.Open(volume, record, AttrData, u"", where);
    }

    CZuError Read(char* buffer, uint32_t room, uint32_t& got) {
        const uint32_t wholeRecords = room >= m_RecordBytes ? room - room % m_RecordBytes : room;
        got = static_cast<uint32_t>(std::min<uint64_t>(m_Stream.Bytes() - m_At, wholeRecords));
        if (got == 0)
            return CZuError();
        ZU_RETURN_IF_ERROR(m_Stream.Read(m_At, buffer, got));
        const CByteView records(buffer, got);
        NtfsFileRecord_t head{};
        for (uint64_t at = 0; at < got; at += m_RecordBytes)
            m_ReuseCounts.push_back(records.Get(at, head) ? uint16_t{head.reuseCount} : uint16_t{0});
        m_At += got;
        return CZuError();
    }

    const std::vector<uint16_t>& ReuseCounts() const { return m_ReuseCounts; }

private:
    CNtfsStream m_Stream;
    uint32_t m_RecordBytes = 0;
    uint64_t m_At = 0;
    std::vector<uint16_t> m_ReuseCounts;
};

class CCatalogWriter {
public:
    CCatalogWriter(CVolumeSet& disks, CBackupSetWriter& set, const CatalogOptions_t& options, CatalogResult_t& result)
        : m_Disks(disks), m_Set(set), m_Options(options), m_Result(result) {}

    CZuError Run() {
        if (!m_Directory.IsMade())
            return Refusal(
                "No temporary directory can be made for the catalogue; set TMPDIR to one that can be written to");
        ZU_RETURN_IF_ERROR(AddDump());
        for (const VolumeInfo_t& volume : m_Disks.Volumes()) {
            if (volume.fileSystem == NtfsFileSystem)
                ZU_RETURN_IF_ERROR(AddVolume(volume));
            else if (!volume.problem.empty() && !volume.isInternal)
                m_Result.warnings.push_back(volume.name + ": " + volume.problem +
                                            "; should it be an NTFS volume, its files aren't in the catalogue");
        }
        if (m_NextVolume == 0 && m_Result.problems.empty())
            m_Result.warnings.emplace_back("The disks have no NTFS volume: the catalogue holds no files");
        return CZuError();
    }

private:
    CZuError AddDump() {
        const std::string file = m_Directory.File("dump");
        m_HasDump = m_Dump.Write(m_Disks, m_Options.blockSectors, file);
        return m_HasDump ? AddFile(CatalogDumpPart, file) : CZuError();
    }

    // What stands in the way of a volume doesn't end the backup; what stands in the way of the set does.
    CZuError AddVolume(const VolumeInfo_t& volume) {
        CNtfsMappedVolume ntfs;
        CMftCopy mft;
        CZuError error = volume.problem.empty() ? ntfs.Open(m_Disks, volume) : Refusal(volume.problem);
        if (!error.IsErrorSet())
            error = mft.Open(ntfs);
        if (error.IsErrorSet()) {
            m_Result.problems.push_back(volume.name + NoCatalog + DescribeError(error));
            return CZuError();
        }
        if (!ntfs.SecurityProblem().empty())
            m_Result.problems.push_back(
                volume.name + ": its security descriptors aren't in the catalogue: " + ntfs.SecurityProblem());
        const CatalogParts_t parts(m_NextVolume);
        CZuError reading;
        ZU_RETURN_IF_ERROR(AddPart(parts.Mft(), reading, [&](char* buffer, uint32_t room, uint32_t& got) {
            return mft.Read(buffer, room, got);
        }));
        if (reading.IsErrorSet()) {
            m_Result.problems.push_back(volume.name + NoCatalog + DescribeError(reading));
            return CZuError();
        }
        CCatalogScan scan(ntfs, mft.ReuseCounts());
        ZU_RETURN_IF_ERROR(CollectMetadata(ntfs, scan, parts));
        CatalogFacts_t facts;
        facts.volume = volume;
        facts.isInDump = m_HasDump && !m_Options.isFlattened && m_Dump.Covers(m_Disks, volume);
        SetVolume_t added;
        added.id = m_NextVolume++;
        added.name = volume.name;
        added.facts = CatalogFactsText(facts);
        ZU_RETURN_IF_ERROR(m_Set.AddVolume(added));
        ZU_RETURN_IF_ERROR(AddEntries(scan));
        for (const std::string& problem : scan.Problems())
            m_Result.problems.push_back(problem);
        const uint64_t lost = scan.CountLostNames();
        if (lost != 0)
            m_Result.problems.push_back(volume.name + ": " + std::to_string(lost) + (lost == 1 ? " name" : " names") +
                                        " can't be listed, nor what lies below: the directories aren't there");
        ++m_Result.volumes;
        m_Result.files += scan.Files().size();
        return CZuError();
    }

    // The core's collection and the directory structure file. A record that the core stops at costs the tree, whose
    // names the scan has then, and not the volume.
    CZuError CollectMetadata(CNtfsMappedVolume& ntfs, CCatalogScan& scan, const CatalogParts_t& parts) {
        std::string rootName;
        std::string information = NewFile("information");
        std::string tree = NewFile("tree");
        std::string associates = NewFile("associates");
        std::string security = NewFile("security");
        const int result = ntfs.DumpMetadataInformation(rootName.data(), information.data(), tree.data(),
                                                        associates.data(), security.data(), 0);
        m_HasTree = result == NtfsOk;
        if (!m_HasTree)
            scan.KeepAllNames();
        if (result == NtfsTreeOpenFailed)
            m_Result.warnings.push_back(
                ntfs.Name() + ": the directory tree library can't be used, so that the names in the catalogue "
                              "come from the file records alone");
        CZuError reading;
        ZU_RETURN_IF_ERROR(AddPart(parts.Directories(), reading, [&](char* buffer, uint32_t room, uint32_t& got) {
            return scan.Read(buffer, room, got);
        }));
        if (!m_HasTree)
            ZU_RETURN_IF_ERROR(MakeUpFor(ntfs, scan, associates, security));
        ZU_RETURN_IF_ERROR(AddFile(parts.Information(), information));
        ZU_RETURN_IF_ERROR(AddFile(parts.Associates(), associates));
        return AddFile(parts.Security(), security);
    }

    CZuError MakeUpFor(CNtfsMappedVolume& ntfs, const CCatalogScan& scan, const std::string& associates,
                       const std::string& security) {
        ZU_RETURN_IF_ERROR(scan.WriteAssociates(associates));
        CZuError error = ntfs.WriteSecurityFile(security);
        if (!error.IsErrorSet())
            return CZuError();
        m_Result.problems.push_back(ntfs.Name() +
                                    ": not all security descriptors can be read: " + DescribeError(error));
        return CZuError();
    }

    CZuError AddEntries(const CCatalogScan& scan) {
        if (m_HasTree) {
            ZU_RETURN_IF_ERROR(ReadTree(m_Directory.File("tree"), [&](const TreeName_t& name) {
                const CatalogFile_t* const file = scan.Find(name.frn);
                const bool isTaken = file != nullptr && file->isAsInTree && !name.name.empty();
                return isTaken ? m_Set.AddEntry(file->EntryWith(name.parent, name.name, false)) : CZuError();
            }));
        }
        for (const SetEntry_t& name : scan.Names())
            ZU_RETURN_IF_ERROR(m_Set.AddEntry(name));
        return CZuError();
    }

    // Keeps the failure of what gives the bytes apart from that of the set.
    CZuError AddPart(const std::string& name, CZuError& reading, const ReadPart_t& read) {
        CZuError error = m_Set.AddPart(name, m_Options.compressionLevel,
                                       [&](char* buffer, uint32_t room, uint32_t& got) -> CZuError {
                                           reading = read(buffer, room, got);
                                           return reading;
                                       });
        return reading.IsErrorSet() ? CZuError() : error;
    }

    CZuError AddFile(const std::string& name, const std::string& path) {
        return AddFileAsPart(m_Set, name, m_Options.compressionLevel, path);
    }

    // Each volume's files stand in the place of the last one's.
    std::string NewFile(const std::string& name) const {
        std::string path = m_Directory.File(name);
        std::error_code ignored;  // what can't be removed can't be written either
        std::filesystem::remove(path, ignored);
        return path;
    }

    CVolumeSet& m_Disks;
    CBackupSetWriter& m_Set;
    const CatalogOptions_t& m_Options;
    CatalogResult_t& m_Result;
    const CPrivateDirectory m_Directory;
    CCatalogDump m_Dump;
    bool m_HasDump = false;
    bool m_HasTree = false;
    int64_t m_NextVolume = 0;
};

}  // namespace

CZuError CollectCatalog(CVolumeSet& disks, CBackupSetWriter& set, const CatalogOptions_t& options,
                        CatalogResult_t& result) {
    return WithinMemory(OutOfMemory, [&] { return CCatalogWriter(disks, set, options, result).Run(); });
}
