#pragma once

#include <cstdint>

#include "ntfs/DRVolume.h"

// Where the next byte of an attribute is read: of a resident one `offset` is the place in its value.
struct CDRVolume::Position_t {
    uint64_t vcn = 0;
    uint32_t offset = 0;
};
