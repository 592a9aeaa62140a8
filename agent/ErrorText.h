#pragma once

#include <string>

#include "foundation/ZuError.h"
#include "platform/Export.h"

// What went wrong, in words for people, without the numbers and places that logs want.
DISKSTREAM_EXPORT std::string DescribeError(const CZuError& error);

// The error as one for people that says where it happened, as in "disk.vmdk: No such file or
// directory". Success stays success.
DISKSTREAM_EXPORT CZuError ErrorAt(const std::string& where, const CZuError& error);
