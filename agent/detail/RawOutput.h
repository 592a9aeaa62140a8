#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/BackupSetReader.h"
#include "agent/Restore.h"
#include "agent/detail/StagedFile.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "foundation/ZuFile.h"
#include "platform/DeviceClaim.h"

// Where the plain bytes of a disk go: a new file with holes, or a block device. A device holds what
// was on it before, so what is not written is zeroed, and it can't be taken back.
class CRawOutput {
public:
    // Finds out whether the disk can go to `target`. Touches nothing.
    CZuError Prepare(const CBackupSetReader& set, const std::string& target, uint64_t diskBytes,
                     const RestoreOptions_t& options);

    CZuError Begin();
    bool HasBegun() const { return m_File.IsValid(); }

    // Writes at byte `offset` of the disk. Offsets don't go back.
    CZuError Write(uint64_t offset, const char* bytes, uint32_t size);

    // Nothing more comes in front of byte `offset`.
    CZuError FinishUpTo(uint64_t offset);

    CZuError Commit(std::vector<std::string>& files);

private:
    CZuError PrepareDevice(const std::string& target, const RestoreOptions_t& options);

    bool m_IsDevice = false;
    std::string m_Target;
    uint64_t m_DiskBytes = 0;
    uint64_t m_DoneBytes = 0;  // of a device: all in front of it is as it has to be
    CDeviceClaim m_Claim;
    CStagedFile m_Staged;
    CZuFile m_File;
    CAutoMemory<char> m_Zeros;
};
