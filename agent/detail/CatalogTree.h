#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "foundation/ZuError.h"

// A name of the directory tree that the tree library made (docs/treestore.md).
struct TreeName_t {
    uint64_t parent = 0;
    uint64_t frn = 0;
    std::string name;
};

// Gives all names of the tree, those of one directory together.
CZuError ReadTree(const std::string& path, const std::function<CZuError(const TreeName_t&)>& take);
