#include "agent/Consolidate.h"

#include <algorithm>

#include "agent/BackupSetReader.h"
#include "agent/BackupSetWriter.h"
#include "agent/Version.h"
#include "agent/detail/OutOfMemory.h"
#include "agent/detail/SetBlocks.h"
#include "agent/detail/StagedFile.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

// One set on its way to be whole.
class CConsolidation {
public:
    CConsolidation(const ConsolidateOptions_t& options, ConsolidateResult_t& result)
        : m_Options(options), m_Result(result) {}

    CZuError Run(const std::string& setName, const std::string& target) {
        ZU_RETURN_IF_ERROR(m_Set.Open(setName));
        ZU_RETURN_IF_ERROR(m_Set.OpenBases(m_Options.bases));
        ZU_RETURN_IF_ERROR(LookAtSources(target));
        ZU_RETURN_IF_ERROR(m_Writer.Create(target, m_Options.force));
        for (const SetDisk_t& disk : m_Set.Disks())
            ZU_RETURN_IF_ERROR(m_Writer.AddDisk(disk));
        for (const SetStream_t& stream : m_Set.Streams())
            ZU_RETURN_IF_ERROR(CopyStream(stream));
        for (const SetFile_t& file : m_Set.Files())
            ZU_RETURN_IF_ERROR(m_Writer.AddFile(file));
        for (const SetPart_t& part : m_Set.Parts())
            ZU_RETURN_IF_ERROR(CopyPart(part));
        for (const SetVolume_t& volume : m_Set.Volumes())
            ZU_RETURN_IF_ERROR(CopyVolume(volume));
        SetInfo_t info;
        info.createdUtc = m_Set.Info().createdUtc;
        info.writer = std::string("diskstream ") + DiskstreamVersion();
        ZU_RETURN_IF_ERROR(m_Writer.Commit(info));
        m_Result.setBytes = m_Writer.SizeBytes();
        return CZuError();
    }

private:
    // What the new set is made from is never what it replaces.
    CZuError LookAtSources(const std::string& target) {
        for (const CBackupSetReader* set = &m_Set; set != nullptr; set = set->Base()) {
            if (IsSameFile(set->Path(), target))
                return Refusal(target +
                               ": is one of the sets that are put together; give another name for the new one");
            ++m_Result.setCount;
        }
        for (const SetStream_t& stream : m_Set.Streams())
            m_Progress.totalBytes += m_Set.StoredBytesOf(stream);
        return CZuError();
    }

    CZuError CopyStream(const SetStream_t& stream) {
        CAutoMemory<char> record;
        ZU_RETURN_IF_ERROR(m_Set.ReadRecord(stream, record));
        ZU_RETURN_IF_ERROR(m_Writer.BeginStream(stream, record, DefaultCompression));
        record.Free();
        ZU_RETURN_IF_ERROR(ForEachBlock(m_Set, stream, [&](BatchBlock_t& block) { return CopyBlock(block.block); }));
        return m_Writer.EndStream();
    }

    CZuError CopyBlock(SetBlock_t block) {
        block.isInherited = false;
        ZU_RETURN_IF_ERROR(m_Writer.AddBlock(block));
        ++m_Result.blockCount;
        m_Result.storedBytes += block.encoded.sizeBytes;
        m_Progress.doneBytes += block.encoded.sizeBytes;
        return TellProgress();
    }

    // The lists of blocks are made anew.
    CZuError CopyPart(const SetPart_t& part) {
        if (IsListOfBlocks(part))
            return CZuError();
        uint64_t done = 0;
        const auto read = [&](char* buffer, uint32_t room, uint32_t& got) {
            got = static_cast<uint32_t>(std::min<uint64_t>(room, part.bytes - done));
            const uint64_t offset = done;
            done += got;
            return m_Set.ReadPart(part, offset, buffer, got);
        };
        ZU_RETURN_IF_ERROR(m_Writer.AddPart(part.name, DefaultCompression, read));
        return TellProgress();
    }

    CZuError CopyVolume(const SetVolume_t& volume) {
        CZuError adding;
        ZU_RETURN_IF_ERROR(m_Writer.AddVolume(volume));
        ZU_RETURN_IF_ERROR(m_Set.ForEachEntryOf(volume, [&](SetEntry_t& entry) {
            adding = m_Writer.AddEntry(entry);
            return !adding.IsErrorSet();
        }));
        ZU_RETURN_IF_ERROR(adding);
        return CZuError();
    }

    CZuError TellProgress() const {
        const bool goesOn = !m_Options.progress || m_Options.progress(m_Progress);
        return goesOn ? CZuError() : Refusal("The consolidation was cancelled; nothing was written");
    }

    const ConsolidateOptions_t& m_Options;
    ConsolidateResult_t& m_Result;
    CBackupSetReader m_Set;
    CBackupSetWriter m_Writer;
    Progress_t m_Progress;
};

}  // namespace

CZuError ConsolidateSet(const std::string& set, const std::string& target, const ConsolidateOptions_t& options,
                        ConsolidateResult_t& result) {
    return WithinMemory(OutOfMemory, [&] {
        result = ConsolidateResult_t();
        return CConsolidation(options, result).Run(set, target);
    });
}
