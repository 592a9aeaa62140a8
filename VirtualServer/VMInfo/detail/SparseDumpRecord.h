#pragma once

#include <cstddef>
#include <cstdint>

#include "VirtualServer/VMInfo/detail/MetadataRecord.h"
#include "foundation/ZuError.h"
#include "foundation/ZuFile.h"

// The record that each reader's `DumpSparseInfo` writes for an extent, and what may follow it.
// Every number stands in it as hexadecimal text with its terminator, zeros too.
struct SparseDumpFields_t {
    uint64_t startLba = 0;
    uint64_t endLba = 0;  // inside the extent; all ones for an open end
    uint64_t blockSectors = 0;
    uint64_t grainSectors = 0;  // the block size again where nothing is sparse
    uint32_t fileOffset = 0;
    uint64_t grainsPerBucket = 0;  // 0: everything in the extent is allocated
    uint64_t bucketCount = 0;
    uint32_t topBitmapBytes = 0;
    uint32_t bucketBytes = 0;
};

// Fills a field of a dump: hexadecimal text in all but its last byte, the terminator.
template <size_t FieldBytes> void PutDumpNumber(char (&field)[FieldBytes], uint64_t value) {
    PutHexText(field, FieldBytes - 1, value);
}

// Writes the record of 1153 bytes with `name`, cut to 1023 bytes, in one write.
CZuError WriteSparseDumpRecord(CZuFile& out, const char* name, const SparseDumpFields_t& fields);

// Writes `count` as eight hexadecimal characters, as it stands in front of records.
CZuError WriteSparseDumpCount(CZuFile& out, uint32_t count);

// Writes all of `bytes` at the file's position; taking fewer is a failure.
CZuError WriteWhole(CZuFile& out, const void* bytes, uint32_t size);
