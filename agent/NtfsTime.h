#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Export.h"

// A time of NTFS, in units of 100 ns since the start of 1601, as "2026-01-31T12:00:00.1234567Z". Empty for 0, which is
// no time, and for one behind the year 9999.
DISKSTREAM_EXPORT std::string NtfsTimeText(uint64_t time);

// The time of a text "2026-01-31" or "2026-01-31T12:00:00", with or without a Z behind it, which is UTC in any case.
DISKSTREAM_EXPORT std::optional<uint64_t> NtfsTimeFromText(const std::string& text);
