#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "agent/ReadRange.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

// The files of an NTFS volume, wherever they are read from: the volume's disks, or a backup set.

// A stream of a file: its contents, or one of those that have a name.
struct NtfsStreamInfo_t {
    std::string name;  // empty for the file's contents
    uint64_t bytes = 0;
    uint64_t storedBytes = 0;  // that it takes on disk
    bool isResident = false;   // stored in the file's record
    bool isEncrypted = false;
    bool isCompressed = false;
    bool isSparse = false;
};

// Times are in units of 100 ns since the start of 1601, UTC; 0 for one that isn't known.
struct NtfsFileInfo_t {
    uint64_t frn = 0;  // the number of its file record
    uint16_t reuseCount = 0;
    bool isDirectory = false;
    uint64_t bytes = 0;  // of its contents; of a directory 0
    uint64_t creation = 0;
    uint64_t modification = 0;
    uint64_t recordChange = 0;
    uint64_t access = 0;
    uint32_t attributes = 0;  // of Windows: 1 read-only, 2 hidden, 4 system and so on
    uint32_t links = 0;       // names that aren't short ones
    uint32_t securityId = 0;
    uint32_t reparseTag = 0;  // 0 for none
    std::vector<NtfsStreamInfo_t> streams;
    std::string problem;  // why the record can't be read; empty where it can
};

// True for the tags of reparse points that lead to another name: symbolic links, mount points.
DISKSTREAM_EXPORT bool IsNtfsLink(uint32_t reparseTag);

// True for the tags of those that say where a file's contents are, which aren't in the file then.
DISKSTREAM_EXPORT bool IsKeptElsewhere(uint32_t reparseTag);

// A name in a directory and the file behind it.
struct NtfsEntry_t {
    std::string path;  // from the directory that was asked for, with slashes
    std::string name;  // the last part of it; a disk may hold one that no file of this system can have
    NtfsFileInfo_t file;
};

// False ends the listing.
using TakeNtfsEntry_t = std::function<bool(const NtfsEntry_t& entry)>;

struct NtfsListing_t {
    bool isRecursive = false;
    bool withMetadata = false;            // the files that make the volume itself too, $MFT and the like
    bool withStreams = false;             // each file's streams, which a catalogue doesn't have at hand
    std::vector<std::string> problems{};  // filled: what of the directories can't be read
};

// Paths go from the volume's root, with slashes or backslashes. Their case doesn't matter, unless two names differ in
// nothing else. Text is UTF-8. One thread at a time.
class DISKSTREAM_EXPORT INtfsFiles {
public:
    INtfsFiles() = default;
    INtfsFiles(const INtfsFiles&) = delete;
    INtfsFiles& operator=(const INtfsFiles&) = delete;
    virtual ~INtfsFiles() = default;

    virtual std::vector<std::string> Warnings() const = 0;

    // The record of the file of that path. The error says which part of the path isn't there.
    virtual CZuError Find(const std::string& path, uint64_t& frn) = 0;

    // The same with what a listing tells of the file, which is quick to have.
    virtual CZuError FindFile(const std::string& path, NtfsFileInfo_t& info) = 0;

    virtual CZuError Describe(uint64_t frn, NtfsFileInfo_t& info) = 0;

    // Gives the files of a directory in the order of its names, those of a folder right behind it. A file that can't be
    // read is given with its problem.
    virtual CZuError List(uint64_t directory, NtfsListing_t& listing, const TakeNtfsEntry_t& take) = 0;

    // Gives a stream's bytes in their order; the empty name is the file's contents. An encrypted stream, and one whose
    // bytes can't all be told, is refused before its first byte, or where the damage begins.
    virtual CZuError ReadStream(uint64_t frn, const std::string& name, const TakeBytes_t& take) = 0;

    // Gives the file's backup stream: descriptor, contents, named streams, object id, reparse point, extended
    // attributes. An encrypted file is refused.
    virtual CZuError ReadBackupStream(uint64_t frn, const TakeBytes_t& take) = 0;

    // The file's security descriptor in its self-relative form; empty where it has none.
    virtual CZuError ReadSecurity(uint64_t frn, std::string& descriptor) = 0;
};
