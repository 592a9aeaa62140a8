#pragma once

#include <cstdint>
#include <string>

#include "platform/Export.h"

// What it takes to put a finished file in its place. Each answers 0 or the system's error number.

// Gives `from` the name `to`, in one step that is seen whole or not at all. When it isn't
// `replacing`, an existing `to` stays and is the error.
DISKSTREAM_EXPORT int RenameFile(const std::string& from, const std::string& to, bool replacing);

// Takes the file's name away. A backslash separates folders on every system.
DISKSTREAM_EXPORT int RemoveFile(const std::string& name);

// Returns when the names in `directory` are on the medium.
DISKSTREAM_EXPORT int SyncDirectory(const std::string& directory);

// Returns when all that was written to the file system that holds `directory` is on the medium, where the system has a
// way to ask for that.
DISKSTREAM_EXPORT int SyncFileSystem(const std::string& directory);

// Gives a file or directory its times, in units of 100 ns since the start of 1601; 0 leaves one as it is. The time of
// creation is set where the system lets it be. The name is the system's own: a backslash in it is what the system takes
// it for.
DISKSTREAM_EXPORT int SetFileTimes(const std::string& name, uint64_t creation, uint64_t access, uint64_t modification);

// A number that no other living process has.
DISKSTREAM_EXPORT unsigned long ProcessNumber();
