#pragma once

#include "platform/Export.h"
#include "platform/GuidRecord.h"

// Makes `guid` a new identifier, unlike any other. Answers 0 or the system's error number.
DISKSTREAM_EXPORT int MakeGuid(GUID& guid);
