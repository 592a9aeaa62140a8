#pragma once

#include "VirtualServer/VMInfo/VmdkFileReader.h"
#include "foundation/ZuError.h"

// Reads the text descriptor of a VMDK disk. docs/formats/vmdk-descriptor.md describes it.
CZuError ReadVmdkDescriptor(const char* name, VmdkDescriptorFile_t& out);
