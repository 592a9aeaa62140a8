#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "agent/BackupSet.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

// Writes one backup set. It grows under a temporary name beside its place and gets its own name in
// `Commit`, whole and on the medium; until then, whatever happens, nothing stands or changes there.
//
//   Create; for each stream: BeginStream, AddBlock for each of its blocks, EndStream;
//   AddFile for each file; Commit
class DISKSTREAM_EXPORT CBackupSetWriter {
public:
    CBackupSetWriter();
    CBackupSetWriter(const CBackupSetWriter&) = delete;
    CBackupSetWriter& operator=(const CBackupSetWriter&) = delete;
    ~CBackupSetWriter();

    // Fails when `path` exists, unless `replacing`.
    CZuError Create(const std::string& path, bool replacing);

    // Begins the stream of `stream.id` with its metadata record, which is kept in pieces encoded
    // at `compressionLevel`.
    CZuError BeginStream(const SetStream_t& stream, const CAutoMemory<char>& record, int compressionLevel);

    // Blocks come in the order of their numbers.
    CZuError AddBlock(const SetBlock_t& block);

    CZuError EndStream();
    CZuError AddFile(const SetFile_t& file);
    CZuError Commit(const SetInfo_t& info);

    // Of the finished set.
    uint64_t SizeBytes() const;

private:
    struct Impl_t;
    std::unique_ptr<Impl_t> m_Impl;
};
