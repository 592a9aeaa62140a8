#pragma once

#include <string>

#include "agent/INtfsFiles.h"
#include "foundation/AutoMemory.h"
#include "ntfs/detail/NtfsFormat.h"

// The head of a record that the core has found sound.
NtfsFileRecord_t NtfsHeadOf(const CAutoMemory<char>& record);

// What the merged record of a file tells of it.
void DescribeNtfsRecord(CAutoMemory<char>& record, NtfsFileInfo_t& info);
