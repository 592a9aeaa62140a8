#pragma once

#include <string>

#include "platform/Export.h"

// Puts the value of the environment variable `name` into `value`; false, and `value` untouched,
// when there is none.
DISKSTREAM_EXPORT bool EnvironmentVariable(const char* name, std::string& value);

// Where this system keeps the settings file when nobody names another.
DISKSTREAM_EXPORT std::string UsualSettingsFile();
