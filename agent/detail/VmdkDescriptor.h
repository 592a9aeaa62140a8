#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/VmdkFileReader.h"
#include "agent/DiskImage.h"
#include "foundation/ZuError.h"

// What a descriptor tells of its place in a chain.
struct VmdkIdentity_t {
    std::string own;                      // `CID`
    std::optional<ImageParent_t> parent;  // `parentCID` and `parentFileNameHint`
};

// A descriptor as the agent understands it: what the core's parser makes of the lines that it
// knows, and what the others tell.
struct VmdkDescriptor_t {
    VmdkDescriptorFile_t file;  // the extents' names are those of the lines, without a directory
    VmdkIdentity_t identity;
};

constexpr char DescriptorBeginning[] = "# Disk DescriptorFile";

// Gives the core's parser `text` without the lines that it takes for extents. `name` stands in
// errors.
CZuError ParseVmdkDescriptor(const std::string& name, const std::string& text, VmdkDescriptor_t& descriptor);

// The identity alone, from a text whose other lines don't matter.
void ReadVmdkIdentity(const std::string& text, VmdkIdentity_t& identity);

// The text of a descriptor that the core's parser takes: `extents` one behind the other, under names
// of the caller's own.
struct CoreExtentLine_t {
    uint64_t sectors = 0;
    bool isSparse = false;
    std::string name;
};
std::string CoreDescriptorText(const std::vector<CoreExtentLine_t>& extents);

// Makes `path` where the file `name` of an image in `directory` lies. A name that would leave the
// directory (an absolute one, one with "..", a drive or a device in it) is refused unless
// `allowOutside`.
CZuError ResolveExtentName(const std::string& directory, const std::string& name, bool allowOutside, std::string& path);
