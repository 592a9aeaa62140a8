#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "tests/interop/NtfsComparison.h"
#include "tests/interop/NtfsMount.h"

// What volumes are filled with through another driver, and what its mount shows of them.

constexpr char FillOptions[] = "compression,streams_interface=windows";
constexpr char ReadOptions[] = "ro,streams_interface=windows";

// In UTF-8.
std::string Character(uint32_t code);

std::string Repeated(const std::string& text, size_t times);

// Bytes that compress in part: stretches of text between stretches that don't, neither as long as a chunk.
std::string MixedBytes(size_t size);

// Folders of their own: "plain", "sparse", "compressed", "links", "streams" and "names".
void AddPlainFiles(const CNtfsMount& mount, size_t clusterBytes);
void AddSparseFiles(const CNtfsMount& mount);
void AddCompressedFiles(const CNtfsMount& mount);
void AddLinksAndStreams(const CNtfsMount& mount);
void AddNames(const CNtfsMount& mount);

// All of these as far as volumes with such clusters have them.
void AddFilesOfAllKinds(const CNtfsMount& mount, uint32_t clusterBytes);

// Makes files until none fits, and takes every second of the large ones away again: the table of file records grows
// into the gaps, and so do files.
void FillWithGaps(const CNtfsMount& mount);

Names_t NamesOfMount(const CNtfsMount& mount);

// What `cp -r` gives of the volume is what the mount of `image` shows: names, bytes and times of change.
void ExpectCopyIsWhatIsMounted(const VolumeAt_t& at, const std::string& image);
