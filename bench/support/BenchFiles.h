#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The disks that the benchmarks read. They are written once, to the directory that
// DISKSTREAM_BENCH_DIR names or else /tmp/diskstream-bench, and stay there for the next run.
// Each function ends the program with a message when the machine refuses it the file.

// A stretch of a file, in bytes.
struct FileRange_t {
    uint64_t offset;
    uint64_t size;
};

struct BenchFile_t {
    std::string path;
    std::vector<FileRange_t> data;    // in the order of the disk
    std::vector<FileRange_t> tables;  // of a sparse disk: directories and grain tables
};

constexpr uint64_t BenchGrainBytes = 64 * 1024;

// A sparse VMDK of 4 GiB: every second of its grains is held, on average, filled with pseudo-random
// bytes, and they lie in the file in another order than on the disk, as after a long life.
const BenchFile_t& HalfFullSparseDisk();

// A sparse VMDK of 2 TiB without a grain: with all of its tables, or with none.
const BenchFile_t& EmptySparseDisk(bool hasTables);

// A flat extent of 1 GiB of pseudo-random bytes, in pieces of 1 MiB.
const BenchFile_t& FlatDisk();

// Disks of 1 GiB whose content begins like the flat one's, each with an MBR and one NTFS partition
// from sector 2048 to the end.
constexpr uint64_t WholeDiskBytes = uint64_t{1} << 30U;

// A sparse VMDK with all grains, in the order of the disk.
const BenchFile_t& FullSparseDisk();

// Sparse VMDKs that hold every eighth grain, each others: newer links of a chain. `link` is 0 or 1.
const BenchFile_t& SparseLink(uint64_t link);

// A dynamic VHD with all of its blocks of 2 MiB, in the order of the disk.
const BenchFile_t& DynamicVhdDisk();

// A name for a file that a benchmark writes.
std::string BenchTarget(const char* name);
