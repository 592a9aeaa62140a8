#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "agent/BackupSet.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

// Reads one backup set, which may be damaged or made to do harm. Opening proves that the file is a
// set of a version that this program reads, that its tables are those of a set, and that the
// digest over its lists is right; it reads no blocks, parts and entries. Each block's own digest is
// proved where it is decoded. Every error names the set. A set of version 1 is one of one disk,
// without volumes and parts.
//
// A set may build on another one, and so on: with its bases open, it gives the blocks that they have as its own.
class DISKSTREAM_EXPORT CBackupSetReader {
public:
    CBackupSetReader();
    CBackupSetReader(const CBackupSetReader&) = delete;
    CBackupSetReader& operator=(const CBackupSetReader&) = delete;
    ~CBackupSetReader();

    CZuError Open(const std::string& path);

    // Opens the sets on which this one builds, all the way down, without which no block can be read. Each is known by
    // its identity, and looked for among `places`, which are sets, or directories with sets under their own names, and
    // then beside the set that builds on it. Errors say which one is missing. A set that builds on none has nothing to
    // open.
    CZuError OpenBases(const std::vector<std::string>& places = {});

    // The base, once it is open; null without one.
    const CBackupSetReader* Base() const;

    // By which a set that builds on this one knows it: the digest over its lists.
    const BlockDigest_t& Identity() const;

    // Between these, which may lie within each other, nobody can write to the set, and many small reads are quicker: a
    // read of its own locks the file and looks for a journal.
    void Hold();
    void LetGo();

    const std::string& Path() const { return m_Path; }
    const SetInfo_t& Info() const;
    const std::vector<SetDisk_t>& Disks() const;                 // one at least; a disk's id is its place
    const std::vector<SetStream_t>& Streams() const;             // of all disks
    std::span<const SetStream_t> StreamsOf(int64_t disk) const;  // in the order of the disk
    const std::vector<SetFile_t>& Files() const;                 // of all disks
    std::span<const SetFile_t> FilesOf(int64_t disk) const;      // by name
    const std::vector<SetVolume_t>& Volumes() const;             // by id
    const std::vector<SetPart_t>& Parts() const;                 // by name
    const SetPart_t* FindPart(const std::string& name) const;    // null where there is none

    // Makes `record` the metadata record of `stream`, proved.
    CZuError ReadRecord(const SetStream_t& stream, CAutoMemory<char>& record);

    // The bytes that the blocks of `stream` take in this set and its bases together.
    uint64_t StoredBytesOf(const SetStream_t& stream) const;

    // Walks the blocks of `stream` in the order of their numbers, those of its base included. A block's bytes live
    // until the next call. Behind the last one `block` is empty, at each call, and the stream's digest has been proved:
    // blocks that were lost or changed places are found out there. A failure ends the walk and is given again.
    CZuError BeginBlocks(const SetStream_t& stream);
    CZuError NextBlock(std::optional<SetBlock_t>& block);

    // Makes `bytes` the block `number` of `stream`, proved. `isThere` is false where the stream has no
    // such block; one that it had and that is lost is a failure.
    CZuError ReadBlock(const SetStream_t& stream, uint64_t number, CAutoMemory<char>& bytes, bool& isThere);

    // Tells whether the set has the block, or names it as one of its base, which needn't be open.
    CZuError HasBlock(const SetStream_t& stream, uint64_t number, bool& isThere);

    // Reads `size` bytes at `offset` of a part, proved. A few pieces of 1 MiB are kept, so that
    // neighbours are cheap.
    CZuError ReadPart(const SetPart_t& part, uint64_t offset, char* buffer, uint32_t size);

    // Takes the entries of a directory by name, byte by byte, and number, until `take` is false. It may
    // use the reader, too.
    CZuError ForEachEntry(int64_t volume, uint64_t parent, const std::function<bool(SetEntry_t&)>& take);

    // Takes all entries of the volume, by directory, name and number, until `take` is false, and proves at the end that
    // they are those that were written.
    CZuError ForEachEntryOf(const SetVolume_t& volume, const std::function<bool(SetEntry_t&)>& take);

    // The first entry of that name, by number, or none.
    CZuError FindEntry(int64_t volume, uint64_t parent, const std::string& name, std::optional<SetEntry_t>& entry);

    // Prove that nothing of them is lost or changed.
    CZuError ProveEntries(const SetVolume_t& volume);
    CZuError ProvePart(const SetPart_t& part);

    // The failure of a set whose bytes aren't what they were.
    CZuError Damaged(const std::string& what) const;

private:
    struct Impl_t;
    struct Side_t;

    CZuError OpenBasesBelow(const std::vector<std::string>& places, std::vector<BlockDigest_t>& above);
    CZuError RefuseWithoutBase() const;
    const SetStream_t& BaseStreamOf(const SetStream_t& stream) const;
    CZuError StepToBlock(std::optional<SetBlock_t>& block);
    CZuError StepToInherited(Side_t& side);

    std::string m_Path;
    std::unique_ptr<Impl_t> m_Impl;
};

// An identity as people see it: 32 hexadecimal digits.
DISKSTREAM_EXPORT std::string IdentityText(const BlockDigest_t& identity);

// Holds a set as long as it lives.
class CSetHold {
public:
    explicit CSetHold(CBackupSetReader& set) : m_Set(set) { m_Set.Hold(); }
    CSetHold(const CSetHold&) = delete;
    CSetHold& operator=(const CSetHold&) = delete;
    ~CSetHold() { m_Set.LetGo(); }

private:
    CBackupSetReader& m_Set;
};
