#pragma once

#include "platform/Export.h"

// The version of the libraries and the command, as in "0.1.0".
DISKSTREAM_EXPORT const char* DiskstreamVersion();
