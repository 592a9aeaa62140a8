#pragma once

#include <cstdint>
#include <optional>

#include "agent/BackupSetReader.h"

// Finds the disk of a set that people call by `number`, from 1. Without a number, it is the only one
// that the set has.
CZuError ChooseDisk(const CBackupSetReader& set, const std::optional<uint64_t>& number, SetDisk_t& disk);
