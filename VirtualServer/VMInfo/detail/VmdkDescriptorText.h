#pragma once

#include <cstdint>

#include "VirtualServer/VMInfo/VmdkFileReader.h"
#include "foundation/ZuError.h"

constexpr uint64_t LargestDescriptorBytes = 0x5000;  // of a file

// Reads the text descriptor of a VMDK disk. docs/formats/vmdk-descriptor.md describes it.
CZuError ReadVmdkDescriptor(const char* name, VmdkDescriptorFile_t& out);
