#pragma once

#include <cstddef>
#include <cstdint>

#include "VirtualServer/VMInfo/DiskMetaData.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "foundation/detail/ByteView.h"

// The head of every metadata record, written and checked here alone.

constexpr uint32_t MetadataHeadBytes = sizeof(VirtualDisk_MetaData_Stream_t);
constexpr char MetadataIsCorrupted[] = "Metadata header is corrupted";

// Writes `value` as `width` lower-case hexadecimal characters, without a terminator.
void PutHexText(char* target, size_t width, uint64_t value);

// Writes the head over the first 32 bytes of `record`, whose size is the record's size.
void WriteMetadataHead(CAutoMemory<char>& record, const char* signature, uint64_t totalSectors);

// Fails with the text above unless `record` begins with a whole head of that signature which
// states the record's own size. Sizes are compared as text: upper-case digits don't match.
CZuError CheckMetadataHead(const CAutoMemory<char>& record, const char* signature);

// The total sectors of a record whose head was checked.
uint64_t MetadataTotalSectors(const CAutoMemory<char>& record);

// What follows the head of a checked record.
CByteView MetadataBody(const CAutoMemory<char>& record);
