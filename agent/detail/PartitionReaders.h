#pragma once

#include "VirtualServer/VMInfo/PartitionTables.h"
#include "agent/PartitionTable.h"

// The readers of the two kinds of table, which fill in all but the file systems.
CZuError ReadMbrPartitions(CWholeDisk& disk, const BootRecord_t& record, PartitionTable_t& table);
CZuError ReadGptPartitions(CWholeDisk& disk, PartitionTable_t& table);

// Adds one partition to the table, with a warning where it leaves the disk.
CZuError AddPartition(const CWholeDisk& disk, const PartitionInfo_t& partition, PartitionTable_t& table);
