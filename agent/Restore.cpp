#include "agent/Restore.h"

#include "agent/BackupSetReader.h"
#include "agent/ErrorText.h"
#include "agent/detail/ChooseDisk.h"
#include "agent/detail/OutOfMemory.h"
#include "agent/detail/RestoreTarget.h"
#include "agent/detail/SetBlocks.h"
#include "foundation/detail/ErrorHandling.h"
#include "hypervisor/NbdVMInfo.h"

namespace {

// One restore on its way.
class CRestoreRun {
public:
    CRestoreRun(const RestoreOptions_t& options, RestoreResult_t& result) : m_Options(options), m_Result(result) {}

    CZuError Run(const std::string& setName, const std::string& target) {
        ZU_RETURN_IF_ERROR(m_Set.Open(setName));
        ZU_RETURN_IF_ERROR(m_Set.OpenBases(m_Options.bases));
        ZU_RETURN_IF_ERROR(ChooseDisk(m_Set, m_Options.disk, m_Disk));
        const bool isRaw =
            m_Options.asRaw || m_Disk.product == VirtualProdType_Physical || m_Disk.diskType == DiskType_VMInfoDisk;
        if (!isRaw && IsNbdUri(target))
            return Refusal(target + ": an export gets the plain bytes of a disk; add --as raw");
        m_Target = isRaw ? MakeRawTarget() : MakeSameKindTarget();
        ZU_RETURN_IF_ERROR(m_Target->Prepare(m_Set, m_Disk, target, m_Options));
        WarnOfParent();
        const CZuError error = WriteAll();
        if (!error.IsErrorSet() || !m_Target->IsHalfWritten())
            return error;
        return Refusal(DescribeError(error) + "; " + target +
                       " has a part of the disk only, and no more what was there before");
    }

private:
    CZuError WriteAll() {
        for (const SetStream_t& stream : m_Set.StreamsOf(m_Disk.id)) {
            m_Result.diskBytes += stream.diskSectors << SectorShift;
            m_Progress.totalBytes += m_Set.StoredBytesOf(stream);
        }
        for (const SetStream_t& stream : m_Set.StreamsOf(m_Disk.id))
            ZU_RETURN_IF_ERROR(RestoreStream(stream));
        return m_Target->Commit(m_Result);
    }

    void WarnOfParent() {
        if (m_Options.asRaw && m_Disk.hasParent)
            m_Result.warnings.push_back(m_Set.Path() +
                                        " holds one link of a chain: sectors that only its older links hold are holes "
                                        "in the raw image");
    }

    CZuError RestoreStream(const SetStream_t& stream) {
        ZU_RETURN_IF_ERROR(m_Target->BeginStream(m_Set, stream));
        ZU_RETURN_IF_ERROR(ForEachBlock(m_Set, stream, [&](BatchBlock_t& block) { return WriteBlock(block); }));
        return m_Target->EndStream();
    }

    // What is never written is zeros at the target.
    CZuError WriteBlock(BatchBlock_t& block) {
        if (block.block.encoded.encoding != BlockEncoding_t::Zeros) {
            ZU_RETURN_IF_ERROR(m_Target->WriteBlock(block.block, block.plain));
            m_Result.writtenBytes += uint64_t{block.block.sectors} << SectorShift;
        }
        ++m_Result.blockCount;
        m_Progress.doneBytes += block.block.encoded.sizeBytes;
        if (m_Options.progress && !m_Options.progress(m_Progress))
            return Refusal(m_Target->IsHalfWritten() ? "The restore was cancelled"
                                                     : "The restore was cancelled; nothing was left at the target");
        return CZuError();
    }

    const RestoreOptions_t& m_Options;
    RestoreResult_t& m_Result;
    CBackupSetReader m_Set;
    SetDisk_t m_Disk;
    std::unique_ptr<IRestoreTarget> m_Target;
    Progress_t m_Progress;
};

}  // namespace

CZuError RestoreDisk(const std::string& set, const std::string& target, const RestoreOptions_t& options,
                     RestoreResult_t& result) {
    return WithinMemory(OutOfMemory, [&] {
        result = RestoreResult_t();
        return CRestoreRun(options, result).Run(set, target);
    });
}
