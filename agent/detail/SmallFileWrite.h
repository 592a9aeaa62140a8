#pragma once

#include <string>

#include "foundation/ZuError.h"

// Writes a file that is small enough to be in memory, readable for its owner alone.
CZuError WriteSmallFile(const std::string& name, const std::string& bytes);
