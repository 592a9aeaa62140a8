#pragma once

#include "agent/BackupSet.h"
#include "agent/BlockCodec.h"

// What the digests of a set run over, for its writer and its readers alike.

inline void AddToDigest(CRunningDigest& digest, const SetBlock_t& block) {
    digest.AddNumber(block.number);
    digest.AddNumber(block.sectors);
    digest.Add(block.encoded.digest.data(), block.encoded.digest.size());
}

inline void AddToDigest(CRunningDigest& digest, const SetStream_t& stream) {
    digest.AddNumber(static_cast<uint64_t>(stream.id));
    digest.AddText(stream.fileName);
    digest.AddNumber(static_cast<uint64_t>(stream.diskType));
    digest.AddNumber(stream.blockSectors);
    digest.AddNumber(stream.diskSectors);
    digest.AddNumber(stream.fileBytes);
    digest.AddNumber(stream.recordBytes);
    digest.Add(stream.recordDigest.data(), stream.recordDigest.size());
    digest.AddNumber(stream.blockCount);
    digest.AddNumber(stream.storedBytes);
    digest.Add(stream.digest.data(), stream.digest.size());
}

inline void AddToDigest(CRunningDigest& digest, const SetFile_t& file) {
    digest.AddText(file.name);
    digest.AddText(file.bytes);
}

inline void AddToDigest(CRunningDigest& digest, const SetInfo_t& info) {
    digest.AddText(info.imageName);
    digest.AddNumber(static_cast<uint64_t>(info.product));
    digest.AddNumber(static_cast<uint64_t>(info.diskType));
    digest.AddNumber(info.diskSectors);
    digest.AddNumber(info.hasParent ? 1 : 0);
    digest.AddText(info.parentName);
    digest.AddText(info.createdUtc);
    digest.AddText(info.writer);
}

// Over the set's own row, its streams by id and its files by name.
template <typename Streams, typename Files>
BlockDigest_t DigestOfSet(const SetInfo_t& info, const Streams& streams, const Files& files) {
    CRunningDigest digest;
    AddToDigest(digest, info);
    for (const SetStream_t& stream : streams)
        AddToDigest(digest, stream);
    for (const SetFile_t& file : files)
        AddToDigest(digest, file);
    return digest.Result();
}
