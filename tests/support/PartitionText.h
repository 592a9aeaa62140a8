#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "tests/support/MetadataRecordText.h"

// Partitions as texts, so that a whole table is compared at once and a failure shows it:
// "07 63-162", with "?" for a bound of all ones, and the GUID behind where there is one.

inline std::string TextOf(const Partition_Entry_t& entry) {
    const auto bound = [](uint64_t lba) { return lba == ~uint64_t{0} ? std::string("?") : std::to_string(lba); };
    std::string text = HexDigits(entry.Type, 2) + " " + bound(entry.StartLBA) + "-" + bound(entry.EndLBA);
    if (!(entry.GUID == GUID{}))
        text += " " + std::string(FormatGuidText(entry.GUID).c_str());
    return text;
}

inline std::vector<std::string> TextsOf(const std::vector<Partition_Entry_t>& entries) {
    std::vector<std::string> texts;
    for (const Partition_Entry_t& entry : entries)
        texts.push_back(TextOf(entry));
    return texts;
}
