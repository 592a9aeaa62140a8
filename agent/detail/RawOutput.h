#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "agent/BackupSetReader.h"
#include "agent/Restore.h"
#include "agent/detail/EarlySync.h"
#include "agent/detail/StagedFile.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "foundation/ZuFile.h"
#include "platform/DeviceClaim.h"

// Where the plain bytes of a disk go.
class IRawOutput {
public:
    IRawOutput() = default;
    IRawOutput(const IRawOutput&) = delete;
    IRawOutput& operator=(const IRawOutput&) = delete;
    virtual ~IRawOutput() = default;

    // Finds out whether the disk can go to `target`. Touches nothing.
    virtual CZuError Prepare(const CBackupSetReader& set, const std::string& target, uint64_t diskBytes,
                             const RestoreOptions_t& options) = 0;

    virtual CZuError Begin() = 0;
    virtual bool HasBegun() const = 0;

    // True as soon as what was at the target may be lost: something new takes its place in the end alone.
    virtual bool HasOverwritten() const = 0;

    // Writes at byte `offset` of the disk, in whole sectors. Offsets don't go back.
    virtual CZuError Write(uint64_t offset, const char* bytes, uint32_t size) = 0;

    // Nothing more comes in front of byte `offset`.
    virtual CZuError FinishUpTo(uint64_t offset) = 0;

    virtual CZuError Commit(RestoreResult_t& result) = 0;
};

std::unique_ptr<IRawOutput> MakeNbdOutput();  // an export, which holds what was on it before, as a device does

// A new file with holes, or a block device. A device holds what was on it before, so what is not written is zeroed, and
// it can't be taken back.
class CRawOutput final : public IRawOutput {
public:
    CZuError Prepare(const CBackupSetReader& set, const std::string& target, uint64_t diskBytes,
                     const RestoreOptions_t& options) override;
    CZuError Begin() override;
    bool HasBegun() const override { return m_File.IsValid(); }
    bool HasOverwritten() const override { return m_IsDevice && m_HasWritten; }
    CZuError Write(uint64_t offset, const char* bytes, uint32_t size) override;
    CZuError FinishUpTo(uint64_t offset) override;
    CZuError Commit(RestoreResult_t& result) override;

private:
    CZuError PrepareDevice(const std::string& target, const RestoreOptions_t& options);

    bool m_IsDevice = false;
    bool m_HasWritten = false;
    std::string m_Target;
    uint64_t m_DiskBytes = 0;
    uint64_t m_DoneBytes = 0;  // of a device: all in front of it is as it has to be
    CDeviceClaim m_Claim;
    CStagedFile m_Staged;
    CZuFile m_File;
    CEarlySync m_EarlySync;
    CAutoMemory<char> m_Zeros;
};
