#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/ZuError.h"

// The text form of LVM2's metadata: items of values, in blocks in braces. docs/formats/lvm2.md has an
// example.

struct Lvm2Item_t {
    std::string name;
    std::vector<std::string> values;  // texts and numbers as they stand, without quotes
};

struct Lvm2Block_t {
    std::string name;
    std::vector<Lvm2Item_t> items;
    std::vector<Lvm2Block_t> blocks;

    // Null for one that isn't there.
    const Lvm2Block_t* Block(const std::string& wanted) const;
    const std::vector<std::string>* Values(const std::string& wanted) const;

    // Empty for an item that isn't there.
    std::string Text(const std::string& wanted) const;

    // False where there is no such item, or it is no number that fits.
    [[nodiscard]] bool Number(const std::string& wanted, uint64_t& number) const;

    bool Has(const std::string& wanted, const std::string& value) const;
};

[[nodiscard]] bool ParseLvm2Number(const std::string& text, uint64_t& number);

// Reads the whole text into `root`, a block without a name. Errors tell the line.
[[nodiscard]] CZuError ParseLvm2Text(const std::string& text, Lvm2Block_t& root);
