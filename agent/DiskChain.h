#pragma once

#include <string>
#include <vector>

#include "agent/DiskImage.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

// Opens the image `path`, the newest link of a chain, and the older ones on which it builds, and
// puts them into `links`, base first. A disk that builds on no other is a chain of one.
//
// Parents are looked for where the image says that they are, seen from its own directory, and then
// under the same file name beside it; options may name them instead. Each has to be the one that its
// child was made from, by its identity and its size. Errors say which link is missing or changed.
[[nodiscard]] DISKSTREAM_EXPORT CZuError OpenDiskChain(const std::string& path, const ImageOptions_t& options,
                                                       std::vector<CDiskImage>& links);
