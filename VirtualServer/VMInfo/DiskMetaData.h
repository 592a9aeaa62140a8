#pragma once

// The metadata record that stands in front of each stream of blocks: a head in text, so that it
// needs no byte order, and a body of raw file bytes. docs/formats/metadata-record.md describes it.
struct VirtualDisk_MetaData_Stream_t {
    char signature[8];      //  0  no terminator
    char recordSize[8];     //  8  bytes, this head included, as "%08x" without a terminator
    char totalSectors[16];  // 16  of the disk, as sixteen hexadecimal characters without a terminator
};
static_assert(sizeof(VirtualDisk_MetaData_Stream_t) == 32);

constexpr char SignatureVmdkFlat[] = "VDVWFT10";
constexpr char SignatureVmdkSparse[] = "VDVWSP10";
constexpr char SignatureVMInfoDisk[] = "VDVWVD10";
constexpr char SignatureVhdFixed[] = "VDMSFT10";
constexpr char SignatureVhdDynamic[] = "VDMSSP10";
constexpr char SignatureNtfsVolume[] = "VDNTFS10";
