#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/BackupSet.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

// Reads one backup set, which may be damaged or made to do harm. Opening proves that the file is a
// set of a version that this program reads, that its tables are those of a set, and that the
// digest over its lists is right; each block's own digest is proved where it is decoded. Every
// error names the set.
class DISKSTREAM_EXPORT CBackupSetReader {
public:
    CBackupSetReader();
    CBackupSetReader(const CBackupSetReader&) = delete;
    CBackupSetReader& operator=(const CBackupSetReader&) = delete;
    ~CBackupSetReader();

    CZuError Open(const std::string& path);

    const std::string& Path() const { return m_Path; }
    const SetInfo_t& Info() const { return m_Info; }
    const std::vector<SetStream_t>& Streams() const { return m_Streams; }  // in the order of the disk
    const std::vector<SetFile_t>& Files() const { return m_Files; }        // by name

    // Makes `record` the metadata record of `stream`, proved.
    CZuError ReadRecord(const SetStream_t& stream, CAutoMemory<char>& record);

    // Walks the blocks of `stream` in the order of their numbers. A block's bytes live until the
    // next call. Behind the last one `block` is empty, at each call, and the stream's digest has been proved:
    // blocks that were lost or changed places are found out there. A failure ends the walk and is
    // given again.
    CZuError BeginBlocks(const SetStream_t& stream);
    CZuError NextBlock(std::optional<SetBlock_t>& block);

    // The failure of a set whose bytes aren't what they were.
    CZuError Damaged(const std::string& what) const;

private:
    struct Impl_t;

    CZuError CheckFormat();
    CZuError CheckTables();
    CZuError ReadInfo();
    CZuError ReadStreams();
    CZuError ReadFiles();
    CZuError CheckStream(const SetStream_t& stream) const;
    CZuError StepToBlock(std::optional<SetBlock_t>& block);
    CZuError CheckBlock(const SetBlock_t& block) const;
    CZuError EndBlocks();

    std::string m_Path;
    SetInfo_t m_Info;
    BlockDigest_t m_Digest{};
    std::vector<SetStream_t> m_Streams;
    std::vector<SetFile_t> m_Files;
    std::unique_ptr<Impl_t> m_Impl;
};
