#include <algorithm>

#include "agent/detail/RawOutput.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "hypervisor/NbdVMInfo.h"

namespace {

class CNbdOutput final : public IRawOutput {
public:
    CZuError Prepare(const CBackupSetReader& /*set*/, const std::string& target, uint64_t diskBytes,
                     const RestoreOptions_t& options) override {
        m_Target = target;
        m_DiskBytes = diskBytes;
        if (!options.force)
            return Refusal(target +
                           ": is an export, and what it holds would be lost; if that is what you want, say --force");
        NbdOptions_t nbdOptions;
        nbdOptions.patience =
            options.patience.value_or(std::chrono::duration_cast<std::chrono::seconds>(nbdOptions.patience));
        m_Server = std::make_unique<CNbdVMInfo>(nbdOptions);
        return Outcome(m_Server->CreateVmdkFile("", "", target, m_Handle, diskBytes));
    }

    CZuError Begin() override {
        m_HasBegun = true;
        return CZuError();
    }

    bool HasBegun() const override { return m_HasBegun; }
    bool HasOverwritten() const override { return m_HasWritten; }

    CZuError Write(uint64_t offset, const char* bytes, uint32_t size) override {
        ZU_RETURN_IF_ERROR(FinishUpTo(offset));
        m_HasWritten = true;
        ZU_RETURN_IF_ERROR(
            Outcome(m_Server->QueueWriteCurrVmdkFile(m_Handle, offset >> SectorShift, size >> SectorShift, bytes)));
        m_DoneBytes = std::max(m_DoneBytes, offset + size);
        return CZuError();
    }

    CZuError FinishUpTo(uint64_t offset) override {
        if (m_DoneBytes >= offset)
            return CZuError();
        m_HasWritten = true;
        ZU_RETURN_IF_ERROR(Outcome(
            m_Server->ZeroCurrVmdkFile(m_Handle, m_DoneBytes >> SectorShift, (offset - m_DoneBytes) >> SectorShift)));
        m_DoneBytes = offset;
        return CZuError();
    }

    CZuError Commit(RestoreResult_t& result) override {
        ZU_RETURN_IF_ERROR(FinishUpTo(m_DiskBytes));
        ZU_RETURN_IF_ERROR(Outcome(m_Server->FlushCurrVmdkFile(m_Handle)));
        result.files.push_back(m_Target);
        if (m_Server->WasConnectionLost(m_Handle))
            result.warnings.push_back(m_Target +
                                      ": the connection was lost and made again; if the server failed, it may "
                                      "have lost some of what it had taken: restore once more to be sure");
        return CZuError();
    }

private:
    CZuError Outcome(int done) const {
        return done != 0 ? CZuError() : Refusal(m_Target + ": " + m_Server->LastErrorText());
    }

    std::string m_Target;
    uint64_t m_DiskBytes = 0;
    uint64_t m_DoneBytes = 0;  // all in front of it is as it has to be
    bool m_HasBegun = false;
    bool m_HasWritten = false;
    std::unique_ptr<CNbdVMInfo> m_Server;
    VmdkFileHandle_t m_Handle;
};

}  // namespace

std::unique_ptr<IRawOutput> MakeNbdOutput() {
    return std::make_unique<CNbdOutput>();
}
