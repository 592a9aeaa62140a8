#include <cstring>
#include <filesystem>
#include <optional>
#include <set>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "agent/ErrorText.h"
#include "agent/detail/EarlySync.h"
#include "agent/detail/OutOfMemory.h"
#include "agent/detail/RestoreTarget.h"
#include "agent/detail/SmallFileWrite.h"
#include "agent/detail/SparseRecord.h"
#include "agent/detail/VhdRecord.h"
#include "agent/detail/VmdkDescriptor.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

// The files that the image had, made anew by the core from their records and blocks.
class CSameKindTarget final : public IRestoreTarget {
public:
    CZuError Prepare(CBackupSetReader& set, const SetDisk_t& disk, const std::string& target,
                     const RestoreOptions_t& options) override {
        m_Disk = disk;
        ZU_RETURN_IF_ERROR(RefuseWhatTheCoreCant(set));
        ZU_RETURN_IF_ERROR(ChooseDirectory(set, target));
        for (const SetStream_t& stream : set.StreamsOf(m_Disk.id))
            ZU_RETURN_IF_ERROR(StageFile(set, stream.fileName, options, m_ExtentFiles));
        for (const SetFile_t& file : set.FilesOf(m_Disk.id))
            ZU_RETURN_IF_ERROR(StageFile(set, file.name, options, m_SmallFiles));
        m_SmallFileContents.assign(set.FilesOf(m_Disk.id).begin(), set.FilesOf(m_Disk.id).end());
        m_SetPath = set.Path();
        return CZuError();
    }

    CZuError BeginStream(CBackupSetReader& set, const SetStream_t& stream) override {
        m_Stream = stream;
        m_Core.emplace(m_Disk.product);
        ZU_RETURN_IF_ERROR(set.ReadRecord(stream, m_Record));
        m_Vhd.reset();
        if (IsDynamicVhd(stream.diskType)) {
            ZU_RETURN_IF_ERROR(ErrorAt(set.Path(), m_Vhd.emplace().Open(m_Record)));
            if (m_Vhd->IsFixed())
                return set.Damaged("the record of " + stream.fileName + " is that of a fixed disk");
        }
        const CStagedFile& file = m_ExtentFiles[m_StreamIndex];
        ZU_RETURN_IF_ERROR(ErrorAt(file.Target(), m_Core->Create(file.TemporaryName().c_str(), stream.diskType,
                                                                 m_Record, stream.blockSectors, m_Context)));
        ZU_RETURN_IF_ERROR(ErrorAt(file.Target(), m_EarlySync.Begin(file.TemporaryName())));
        if (m_Context.blockSectors != stream.blockSectors)
            return set.Damaged("the block size of " + stream.fileName + " isn't that of its record");
        return CZuError();
    }

    CZuError WriteBlock(const SetBlock_t& block, CAutoMemory<char>& plain) override {
        if (m_Vhd.has_value() && block.sectors != m_Stream.blockSectors)
            return HasNoPlace(block);
        if (m_Vhd.has_value() && block.number >= m_Vhd->FirstBlockLeftOut())
            return ErrorAt(m_ExtentFiles[m_StreamIndex].Target(), PutBackLeftOut(block, plain));
        // A grain goes as a whole; what is behind the disk's end is cut off with the file's size.
        if (IsSparseVmdk(m_Stream.diskType) && block.sectors < m_Stream.blockSectors)
            ZU_RETURN_IF_ERROR(FillUp(plain));
        const CZuError error = m_Core->WriteBlock(plain, block.number, m_Context);
        if (error.GetErrorType() == ErrorType::Condition)
            return HasNoPlace(block);
        m_EarlySync.Count(plain.GetSize());
        return ErrorAt(m_ExtentFiles[m_StreamIndex].Target(), error);
    }

    // The core's close can't tell of a write that failed late; the sync in `Commit` does.
    CZuError EndStream() override {
        CStagedFile& file = m_ExtentFiles[m_StreamIndex++];
        CloseCore();
        m_EarlySync.End();
        ZU_RETURN_IF_ERROR(ErrorAt(file.Target(), m_LeftOutFile.Close()));
        return ErrorAt(file.Target(), file.SetSize(m_Stream.fileBytes));
    }

    // Extents first: a descriptor never stands there without what it names.
    CZuError Commit(RestoreResult_t& result) override {
        for (size_t index = 0; index < m_SmallFiles.size(); ++index)
            ZU_RETURN_IF_ERROR(ErrorAt(m_SmallFiles[index].Target(), WriteSmallFile(m_SmallFiles[index].TemporaryName(),
                                                                                    m_SmallFileContents[index].bytes)));
        for (std::vector<CStagedFile>* group : {&m_ExtentFiles, &m_SmallFiles}) {
            for (CStagedFile& file : *group)
                ZU_RETURN_IF_ERROR(file.Sync());
        }
        for (std::vector<CStagedFile>* group : {&m_ExtentFiles, &m_SmallFiles}) {
            for (CStagedFile& file : *group) {
                ZU_RETURN_IF_ERROR(file.Commit());
                result.files.push_back(file.Target());
            }
        }
        return CZuError();
    }

private:
    CZuError RefuseWhatTheCoreCant(CBackupSetReader& set) const {
        for (const SetStream_t& stream : set.StreamsOf(m_Disk.id)) {
            if (IsSparseVmdk(stream.diskType))
                ZU_RETURN_IF_ERROR(RefuseSparse(set, stream));
            if (IsDynamicVhd(stream.diskType))
                ZU_RETURN_IF_ERROR(RefuseVhd(set, stream));
        }
        return CZuError();
    }

    static CZuError RefuseSparse(CBackupSetReader& set, const SetStream_t& stream) {
        CAutoMemory<char> bytes;
        CSparseRecord record;
        ZU_RETURN_IF_ERROR(set.ReadRecord(stream, bytes));
        ZU_RETURN_IF_ERROR(ErrorAt(set.Path(), record.Open(bytes)));
        if (record.IsCowd())
            return Refusal(set.Path() + ": " + stream.fileName +
                           " is a COWD extent, which can't be made again; restore it with --as raw");
        if (record.HasEmptyDirectoryEntries())
            return Refusal(set.Path() + ": " + stream.fileName +
                           " has a grain directory with empty entries, which can't be made again; restore it with "
                           "--as raw");
        return CZuError();
    }

    static CZuError RefuseVhd(CBackupSetReader& set, const SetStream_t& stream) {
        CAutoMemory<char> bytes;
        CVhdRecord record;
        ZU_RETURN_IF_ERROR(set.ReadRecord(stream, bytes));
        ZU_RETURN_IF_ERROR(ErrorAt(set.Path(), record.Open(bytes)));
        if (!record.CanBeMadeAgain())
            return Refusal(set.Path() + ": " + stream.fileName +
                           " is a VHD whose footer and the footer's copy at its start tell of different disks, so that "
                           "it can't be made again; restore it with --as raw");
        return CZuError();
    }

    CZuError ChooseDirectory(CBackupSetReader& set, const std::string& target) {
        std::string directChild;  // the name comes from the set, so it is proved before it is used
        ZU_RETURN_IF_ERROR(ErrorAt(set.Path(), ResolveExtentName(".", m_Disk.imageName, false, directChild)));
        m_MainFile = TargetFile(target, m_Disk.imageName);
        m_Directory = std::filesystem::path(m_MainFile).parent_path().string();
        if (m_Directory.empty())
            m_Directory = ".";
        return CZuError();
    }

    CZuError StageFile(CBackupSetReader& set, const std::string& name, const RestoreOptions_t& options,
                       std::vector<CStagedFile>& group) {
        std::string path = m_MainFile;
        if (name != m_Disk.imageName)
            ZU_RETURN_IF_ERROR(ErrorAt(set.Path(), ResolveExtentName(m_Directory, name, options.allowOutside, path)));
        if (!m_Paths.insert(std::filesystem::path(path).lexically_normal().string()).second)
            return Refusal(set.Path() + ": two of its files would become " + path +
                           "; give a target that has another name");
        group.emplace_back();
        return BeginRestored(group.back(), set, path, options.force);
    }

    void CloseCore() {
        if (m_Core.has_value())
            Dropped(m_Core->Close());  // it never fails
        m_Core.reset();
    }

    CZuError HasNoPlace(const SetBlock_t& block) const {
        return Refusal(CZuString::Format("{1}: the set is damaged: block {2} has no place in {3}", m_SetPath,
                                         block.number, m_Stream.fileName));
    }

    // The core's stream left these blocks out, and its writing does the same. They come last, so they
    // are put where the table has them when the core is done with the file.
    CZuError PutBackLeftOut(const SetBlock_t& block, const CAutoMemory<char>& plain) {
        const uint32_t sector = m_Vhd->BlockSector(block.number);
        if (sector == VhdBlockNotAllocated)
            return HasNoPlace(block);
        CloseCore();
        if (!m_LeftOutFile.IsValid())
            ZU_RETURN_IF_ERROR(m_LeftOutFile.Open(m_ExtentFiles[m_StreamIndex].TemporaryName().c_str(),
                                                  OpenAsBinary | OpenNotInherited | OpenForBoth, 0));
        return WriteFileAt(m_LeftOutFile, FileOffsetOfSector(sector), 0, plain.GetPtr(), plain.GetSize(), nullptr);
    }

    CZuError FillUp(CAutoMemory<char>& plain) const {
        const uint32_t got = plain.GetSize();
        const uint32_t whole = m_Stream.blockSectors << SectorShift;
        if (plain.ReAlloc(whole) == nullptr)
            return Refusal(OutOfMemory);
        std::memset(plain.GetPtr() + got, 0, whole - got);
        return CZuError();
    }

    std::string m_SetPath;
    SetDisk_t m_Disk;
    std::string m_MainFile;
    std::string m_Directory;
    std::set<std::string> m_Paths;
    std::vector<CStagedFile> m_ExtentFiles;
    std::vector<CStagedFile> m_SmallFiles;
    std::vector<SetFile_t> m_SmallFileContents;
    size_t m_StreamIndex = 0;
    SetStream_t m_Stream;
    CAutoMemory<char> m_Record;
    std::optional<CVhdRecord> m_Vhd;  // a look into the record of a dynamic VHD
    std::optional<CArchiveVirtualDiskFile> m_Core;
    CZuFile m_LeftOutFile;
    CEarlySync m_EarlySync;  // of the file that the core makes
    Context_t m_Context{};
};

}  // namespace

std::unique_ptr<IRestoreTarget> MakeSameKindTarget() {
    return std::make_unique<CSameKindTarget>();
}
