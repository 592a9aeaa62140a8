#pragma once

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

// A number that no other living process has.
DISKSTREAM_EXPORT unsigned long ProcessNumber();
