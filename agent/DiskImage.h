#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/DiskTypes.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

// One file of a disk image whose bytes are sectors of the disk: it makes one stream.
struct DiskExtent_t {
    std::string path;  // to open it
    std::string name;  // as the image's descriptor has it, or the file's own name
    ProductType_t product = VirtualProdType_VMware;
    DiskType_t diskType = NoDiskType;
    uint64_t diskSectors = 0;   // sectors of the disk that lie in it, from its first on
    uint64_t totalSectors = 0;  // sectors that it has; the disk may leave its last ones unused
    uint64_t fileBytes = 0;
};

// A file of a disk image that is kept as it is.
struct SmallFile_t {
    std::string name;
    std::string bytes;
};

struct ImageOptions_t {
    std::optional<DiskType_t> type;  // found from the file unless given
    bool allowOutside = false;       // a descriptor may name files that don't lie beside it or below
};

// A disk image on files: what kind it is, which files belong to it, and in which order the disk
// runs through them. Opening looks at headers and descriptors alone.
//
// What the readers of the core would take for something else is refused here, by name: compressed
// extents, flags that nobody knows, files shorter than what their disk needs. Descriptors may have
// lines that the core's parser doesn't know, as most have; they are kept out of its sight.
class DISKSTREAM_EXPORT CDiskImage {
public:
    // Errors say which file and what was found in it.
    CZuError Open(const std::string& path, const ImageOptions_t& options);

    const std::string& Path() const { return m_Path; }
    ProductType_t Product() const { return VirtualProdType_VMware; }
    DiskType_t DiskType() const { return m_DiskType; }
    uint64_t TotalSectors() const;

    // In the order of the disk.
    const std::vector<DiskExtent_t>& Extents() const { return m_Extents; }
    const std::vector<SmallFile_t>& SmallFiles() const { return m_SmallFiles; }

    // True when the image is one link of a chain: what its older links hold isn't in it.
    bool HasParent() const { return m_HasParent; }
    const std::string& ParentName() const { return m_ParentName; }

private:
    CZuError OpenSparseFile(DiskType_t type);
    CZuError OpenFlatFile(DiskType_t type);
    CZuError OpenDescriptor(const ImageOptions_t& options);
    CZuError AddExtent(DiskExtent_t extent);

    std::string m_Path;
    DiskType_t m_DiskType = NoDiskType;
    std::vector<DiskExtent_t> m_Extents;
    std::vector<SmallFile_t> m_SmallFiles;
    bool m_HasParent = false;
    std::string m_ParentName;
};

// The name of a disk type for people and for `--type`: the `createType` word where it has one.
DISKSTREAM_EXPORT const char* DiskTypeName(DiskType_t type);
DISKSTREAM_EXPORT std::optional<DiskType_t> DiskTypeFromName(const std::string& name);

// The names of the disk types that an image can be told to be.
DISKSTREAM_EXPORT std::vector<std::string> SelectableDiskTypeNames();
