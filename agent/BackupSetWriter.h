#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "agent/BackupSet.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

// Gives the next bytes of a part, at most `room`; none at its end. Called by a thread of its own.
using ReadPart_t = std::function<CZuError(char* buffer, uint32_t room, uint32_t& got)>;

// Writes one backup set. It grows under a temporary name beside its place and gets its own name in
// `Commit`, whole and on the medium; until then, whatever happens, nothing stands or changes there.
//
//   Create; BuildOn for a set with a base; AddDisk for each disk;
//   for each stream: BeginStream, AddBlock for each of its blocks, EndStream;
//   AddFile for each file; AddPart for each part;
//   for each volume: AddVolume, AddEntry for each of its entries; Commit
class DISKSTREAM_EXPORT CBackupSetWriter {
public:
    CBackupSetWriter();
    CBackupSetWriter(const CBackupSetWriter&) = delete;
    CBackupSetWriter& operator=(const CBackupSetWriter&) = delete;
    ~CBackupSetWriter();

    // Fails when `path` exists, unless `replacing`.
    CZuError Create(const std::string& path, bool replacing);

    // Makes the set one that builds on `base`, which has the same streams. Called right behind `Create`.
    CZuError BuildOn(const SetBase_t& base);

    // Disks have the ids 0, 1, 2 and so on.
    CZuError AddDisk(const SetDisk_t& disk);

    // Begins the stream of `stream.id` with its metadata record, which is kept in pieces encoded
    // at `compressionLevel`.
    CZuError BeginStream(const SetStream_t& stream, const CAutoMemory<char>& record, int compressionLevel);

    // Blocks come in the order of their numbers, which the set keeps as a part, too. Of one that the base has only the
    // number is kept.
    CZuError AddBlock(const SetBlock_t& block);

    CZuError EndStream();
    CZuError AddFile(const SetFile_t& file);

    // Keeps what `read` gives as the part `name`, encoded by several threads. When `read` fails, its
    // error is given, and the set is as it was.
    CZuError AddPart(const std::string& name, int compressionLevel, const ReadPart_t& read);

    // Begins a volume. What it has of entries is counted here.
    CZuError AddVolume(const SetVolume_t& volume);

    // Adds an entry of the volume begun last. Quick when entries come nearly in the order of parent
    // and name. One that is there already, by parent, name and number, is passed over.
    CZuError AddEntry(const SetEntry_t& entry);
    CZuError Commit(const SetInfo_t& info);

    // Of the finished set.
    uint64_t SizeBytes() const;

private:
    struct Impl_t;
    std::unique_ptr<Impl_t> m_Impl;
};
