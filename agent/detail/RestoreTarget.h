#pragma once

#include <memory>
#include <string>
#include <vector>

#include "agent/BackupSetReader.h"
#include "agent/Restore.h"
#include "agent/detail/StagedFile.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"

// Where the blocks of a set go.
class IRestoreTarget {
public:
    IRestoreTarget() = default;
    IRestoreTarget(const IRestoreTarget&) = delete;
    IRestoreTarget& operator=(const IRestoreTarget&) = delete;
    virtual ~IRestoreTarget() = default;

    // Finds out whether the disk can be restored here, and chooses the files. Touches none.
    virtual CZuError Prepare(CBackupSetReader& set, const SetDisk_t& disk, const std::string& target,
                             const RestoreOptions_t& options) = 0;

    // Streams come in their order, and each one's blocks between its begin and its end.
    virtual CZuError BeginStream(CBackupSetReader& set, const SetStream_t& stream) = 0;
    virtual CZuError WriteBlock(const SetBlock_t& block, CAutoMemory<char>& plain) = 0;
    virtual CZuError EndStream() = 0;

    // True as soon as what was at the target before may be lost.
    virtual bool IsHalfWritten() const { return false; }

    // Gives all files their names, and tells them and what else there is to know.
    virtual CZuError Commit(RestoreResult_t& result) = 0;
};

std::unique_ptr<IRestoreTarget> MakeSameKindTarget();
std::unique_ptr<IRestoreTarget> MakeRawTarget();

// Begins `file`, which gets one of the set's files. The set itself is never what it replaces.
CZuError BeginRestored(CStagedFile& file, const CBackupSetReader& set, const std::string& path, bool replacing);

// `target` itself, or `name` in it where it is a directory.
std::string TargetFile(const std::string& target, const std::string& name);
