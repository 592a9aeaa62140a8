#pragma once

#include <string>

#include "platform/Export.h"

// Makes a new directory with a name of its own below the system's place for temporary files, open
// to this user alone, and returns its path; empty on failure. The caller removes it.
DISKSTREAM_EXPORT std::string MakePrivateDirectory();
