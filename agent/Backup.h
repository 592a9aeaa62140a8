#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/BlockCodec.h"
#include "agent/DiskImage.h"
#include "agent/Progress.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

struct BackupOptions_t {
    ImageOptions_t image;
    bool flatten = false;  // the disk as it reads through its chain, instead of the image alone
    bool catalog = false;  // what lists and restores files of NTFS volumes without the disks is collected as well
    bool force = false;    // a set that stands at the target is replaced
    std::string base;      // the set that has what didn't change since `image.changedSince`
    int compressionLevel = DefaultCompression;
    ProgressCallback_t progress;
};

struct BackedUpDisk_t {
    std::string image;
    DiskType_t diskType = NoDiskType;
    uint64_t diskBytes = 0;  // the disk's size
};

struct BackupResult_t {
    std::vector<BackedUpDisk_t> disks;  // in the order in which they were given
    uint64_t diskBytes = 0;             // of all disks
    uint64_t blockCount = 0;            // that the images hold
    uint64_t zeroBlocks = 0;            // of these
    uint64_t unchangedBlocks = 0;       // that the base has, and which aren't counted otherwise
    uint64_t readBytes = 0;
    uint64_t storedBytes = 0;  // that the blocks take in the set
    uint64_t setBytes = 0;     // the set's file
    uint64_t catalogVolumes = 0;
    uint64_t catalogFiles = 0;
    std::vector<std::string> catalogProblems;  // what isn't in the catalogue, and why
    std::vector<std::string> warnings;
};

// Backs the disk images `images` up into the new backup set `set`. Every sector of each disk is in
// the set, or an error says what is in the way and nothing is left behind.
//
// Of one disk that a server exports, what changed since a bitmap began is enough, where a set holds the
// disk as it was then: the new set builds on it, and knows it by its identity.
[[nodiscard]] DISKSTREAM_EXPORT CZuError BackUpDisks(const std::vector<std::string>& images, const std::string& set,
                                                     const BackupOptions_t& options, BackupResult_t& result);

// The same for one disk.
[[nodiscard]] DISKSTREAM_EXPORT CZuError BackUpDisk(const std::string& image, const std::string& set,
                                                    const BackupOptions_t& options, BackupResult_t& result);
