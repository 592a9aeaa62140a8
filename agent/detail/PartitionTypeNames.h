#pragma once

#include <cstdint>
#include <string>

#include "foundation/Guid.h"

// What a partition's type is called, for people; the number itself where nobody knows it.
std::string MbrTypeName(uint8_t typeId);
std::string GptTypeName(const GUID& type);
