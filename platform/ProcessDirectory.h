#pragma once

#include <string>

#include "platform/Export.h"

// A directory for temporary files that belongs to this process alone: nobody else may look into it
// (mode 0700 on POSIX), and it goes away with all that it holds when the process ends normally.
// Made at the first call. Empty when it can't be made.
DISKSTREAM_EXPORT std::string ProcessDirectory();
