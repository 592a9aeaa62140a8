#pragma once

#include <string>

#include "VirtualServer/VMInfo/DiskTypes.h"
#include "foundation/ZuError.h"

// What the headers of a sparse extent file tell, and whether the core would read it rightly.
struct SparseExtentFacts_t {
    uint64_t capacitySectors = 0;
    bool isCowd = false;
    std::string descriptor;  // the embedded one; empty for none
};

// Refuses, by name, what the core would read wrongly without noticing: compressed grains, flags
// that nobody knows, grains too large to hold in memory.
CZuError CheckSparseExtent(const std::string& path, SparseExtentFacts_t& facts);

constexpr uint64_t LargestGrainSectors = 65536;  // 32 MiB; what is written in practice has 64 KiB
