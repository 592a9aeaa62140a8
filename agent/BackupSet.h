#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/DiskTypes.h"
#include "agent/BlockCodec.h"

// What a backup set holds, as its writer takes it and its reader gives it. docs/backup-set.md
// describes the file.

// The version of the format that this program writes, and the highest that it reads.
constexpr int BackupSetVersion = 1;

// The set as a whole.
struct SetInfo_t {
    std::string imageName;  // the file name of the image
    ProductType_t product = VirtualProdType_VMware;
    DiskType_t diskType = NoDiskType;
    uint64_t diskSectors = 0;
    std::string parentName;  // of an image that is one link of a chain, where it tells it
    bool hasParent = false;
    std::string createdUtc;  // "2026-01-31T12:00:00Z"
    std::string writer;      // the program and its version
};

// One stream of blocks: an extent of the disk.
struct SetStream_t {
    int64_t id = 0;        // from 0, in the order of the disk
    std::string fileName;  // as the image's descriptor has it, or the file's own name
    DiskType_t diskType = NoDiskType;
    uint32_t blockSectors = 0;
    uint64_t diskSectors = 0;  // sectors of the disk that lie in it
    uint64_t fileBytes = 0;    // size of the extent's file
    uint64_t recordBytes = 0;  // size of its metadata record
    BlockDigest_t recordDigest{};
    uint64_t blockCount = 0;
    uint64_t storedBytes = 0;  // that its blocks take in the set
    BlockDigest_t digest{};    // over its blocks' numbers, sizes and digests, in their order
};

// A file that is kept as it was.
struct SetFile_t {
    std::string name;
    std::string bytes;
};

// One block. What `encoded` points to belongs to who filled it in.
struct SetBlock_t {
    uint64_t number = 0;
    uint32_t sectors = 0;
    EncodedBlock_t encoded;
};
