#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/DiskTypes.h"
#include "agent/BlockCodec.h"

// What a backup set holds, as its writer takes it and its reader gives it. docs/backup-set.md
// describes the file.

// The highest version of the format that this program reads, which sets have that build on another one, and the version
// that it writes for all others.
constexpr int BackupSetVersion = 3;
constexpr int WholeSetVersion = 2;

// The set on which another one builds: blocks that haven't changed since then are in that one alone.
struct SetBase_t {
    std::string name;          // of its file, when this set was made
    BlockDigest_t identity{};  // what the reader calls its identity
    std::string changedSince;  // the change id from which the changed blocks were told
};

// The set as a whole.
struct SetInfo_t {
    std::string createdUtc;  // "2026-01-31T12:00:00Z"
    std::string writer;      // the program and its version
    std::optional<SetBase_t> base = std::nullopt;
};

// One disk.
struct SetDisk_t {
    int64_t id = 0;         // from 0, in the order in which the disks were given
    std::string imageName;  // the file name of the image
    ProductType_t product = VirtualProdType_VMware;
    DiskType_t diskType = NoDiskType;
    uint64_t diskSectors = 0;
    std::string parentName;  // of an image that is one link of a chain, where it tells it
    bool hasParent = false;
};

// One stream of blocks: an extent of the disk.
struct SetStream_t {
    int64_t id = 0;        // from 0, through all disks, in the order of each
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
    int64_t disk = 0;          // the id of the disk of which it is an extent
};

// A file that is kept as it was.
struct SetFile_t {
    std::string name;
    std::string bytes;
    int64_t disk = 0;  // the id of the disk to which it belongs
};

// One block. What `encoded` points to belongs to who filled it in.
struct SetBlock_t {
    uint64_t number = 0;
    uint32_t sectors = 0;
    EncodedBlock_t encoded;
    bool isInherited = false;  // the base has it: a writer takes its number alone
};

// A volume whose directory tree is in the set.
struct SetVolume_t {
    int64_t id = 0;
    std::string name;
    std::string facts;              // JSON text of the catalogue's
    uint64_t entryCount = 0;        // this and the next are the writer's
    BlockDigest_t entriesDigest{};  // the sum modulo 2^128 of the digests of its entries
};

// A long file of the catalogue's, kept in pieces that can be read at random.
struct SetPart_t {
    std::string name;
    uint64_t bytes = 0;
    BlockDigest_t digest{};  // over the digests of its pieces
    int64_t id = 0;          // the writer's
};

// The numbers of a stream's blocks are a part, too, and those of the blocks that it has in the base: their names are
// these and the stream's id.
constexpr char BlocksPartPrefix[] = "blocks-";
constexpr char InheritedPartPrefix[] = "inherited-";
inline bool IsListOfBlocks(const SetPart_t& part) {
    return part.name.rfind(BlocksPartPrefix, 0) == 0 || part.name.rfind(InheritedPartPrefix, 0) == 0;
}

// A name in a directory of a volume. Numbers of 64 bits are below 2^63; times are in units of 100 ns since the start of
// 1601, 0 for one that isn't known.
struct SetEntry_t {
    uint64_t parent = 0;  // the directory's number
    uint64_t frn = 0;     // the entry's own
    uint64_t bytes = 0;
    uint64_t modified = 0;
    uint64_t accessed = 0;
    uint64_t created = 0;
    uint64_t recordChanged = 0;
    uint32_t attributes = 0;
    uint32_t reparseTag = 0;  // 0 for none
    uint32_t links = 0;       // names that aren't short ones
    bool isDirectory = false;
    bool isFurtherName = false;  // of a file that has another name, too
    std::string name;            // UTF-8, or the bytes of half surrogates
};
