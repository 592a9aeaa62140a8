#pragma once

#include <string>

#include "VirtualServer/VMInfo/VmdkFileReader.h"
#include "foundation/ZuError.h"

// A descriptor as the agent understands it: what the core's parser makes of the lines that it
// knows, and what the others tell.
struct VmdkDescriptor_t {
    VmdkDescriptorFile_t file;  // the extents' names are those of the lines, without a directory
    std::string parentHint;     // `parentFileNameHint`, empty for none
    bool hasParent = false;     // a `parentCID` names another link of a chain
};

constexpr char DescriptorBeginning[] = "# Disk DescriptorFile";

// Gives the core's parser `text` without the lines that it takes for extents. `name` stands in
// errors.
CZuError ParseVmdkDescriptor(const std::string& name, const std::string& text, VmdkDescriptor_t& descriptor);

// The parent alone, from a text whose other lines don't matter.
void ReadVmdkParent(const std::string& text, VmdkDescriptor_t& descriptor);

// Makes `path` where the file `name` of an image in `directory` lies. A name that would leave the
// directory (an absolute one, one with "..", a drive or a device in it) is refused unless
// `allowOutside`.
CZuError ResolveExtentName(const std::string& directory, const std::string& name, bool allowOutside, std::string& path);
