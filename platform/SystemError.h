#pragma once

#include <cstdint>
#include <string>

#include "platform/Export.h"

// The system's own words for one of its error numbers, as in "No such file or directory".
DISKSTREAM_EXPORT std::string SystemErrorText(uint32_t number);
