#pragma once

#include <cstdint>
#include <string>

// The names of a catalogue's parts in a backup set. docs/backup-set.md describes them.

constexpr char CatalogDumpPart[] = "volumes.dump";

// Of one volume.
struct CatalogParts_t {
    explicit CatalogParts_t(int64_t volume) : prefix("volume-" + std::to_string(volume) + "/") {}

    std::string Information() const { return prefix + "information"; }
    std::string Associates() const { return prefix + "associates"; }
    std::string Security() const { return prefix + "security"; }
    std::string Mft() const { return prefix + "mft"; }
    std::string Directories() const { return prefix + "directories"; }

    std::string prefix;
};

// The name by which the volume dump knows a disk of the set.
inline std::string CatalogDumpName(int64_t disk) {
    return "disk-" + std::to_string(disk);
}
