#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/PartitionTable.h"
#include "agent/WholeDisk.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/TempDir.h"

// Whole disks as the commands that look into disks open them, and their tables as texts.

inline ImageOptions_t RawUnlessKnown() {
    ImageOptions_t options;
    options.rawUnlessKnown = true;
    return options;
}

// The bytes that a read gives. A read that fails fails the test.
inline std::string ReadWhole(CWholeDisk& disk, uint64_t offset, uint32_t length) {
    std::string bytes(length, '?');
    EXPECT_OK(disk.Read(offset, bytes.data(), length)) << length << " bytes at " << offset;
    return bytes;
}

// "5 83 131+129 logical": number, type and place, and what else is to say.
inline std::string TextOf(const PartitionInfo_t& partition) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text = std::to_string(partition.number) + " ";
    if (partition.typeGuid.empty())
        text += {digits[partition.typeId >> 4U], digits[partition.typeId & 15U]};
    else
        text += partition.typeName;
    text += " " + std::to_string(partition.startSector) + "+" + std::to_string(partition.sectors);
    if (partition.isBootable)
        text += " boot";
    if (partition.isExtended)
        text += " extended";
    if (partition.isLogical)
        text += " logical";
    return text;
}

inline std::vector<std::string> TextsOf(const PartitionTable_t& table) {
    std::vector<std::string> texts;
    for (const PartitionInfo_t& partition : table.partitions)
        texts.push_back(TextOf(partition));
    return texts;
}
