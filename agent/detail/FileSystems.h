#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "agent/WholeDisk.h"
#include "foundation/ZuError.h"

// The name of the one file system whose files the agent reads itself.
constexpr char NtfsFileSystem[] = "ntfs";

// Makes `name` the name of the file system or volume manager whose marks stand at the start of
// `sectors` sectors from `startSector` on; empty for none that is known. Sectors that can't be read
// have no marks.
void RecognizeFileSystem(CWholeDisk& disk, uint64_t startSector, uint64_t sectors, std::string& name);

// The same for what a reader gives, of `sectors` sectors. It reads `size` bytes from the start on; false
// for what can't be read.
using ReadStart_t = std::function<bool(void* buffer, uint32_t size)>;
std::string RecognizeFileSystem(uint64_t sectors, const ReadStart_t& read);

// True for a first sector that begins a file system and no partition table: an NTFS, FAT or exFAT
// volume on the whole disk has the signature of a boot record too.
bool IsVolumeBootSector(const char (&sector)[512]);
