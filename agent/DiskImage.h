#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/DiskTypes.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

class CNbdVMInfo;
class CWholeDisk;

// One file of a disk image whose bytes are sectors of the disk: it makes one stream.
struct DiskExtent_t {
    std::string path;  // to open it
    std::string name;  // as the image's descriptor has it, or the file's own name
    ProductType_t product = VirtualProdType_VMware;
    DiskType_t diskType = NoDiskType;
    uint64_t diskSectors = 0;   // sectors of the disk that lie in it, from its first on
    uint64_t totalSectors = 0;  // sectors that it has; the disk may leave its last ones unused
    uint64_t fileBytes = 0;
    std::shared_ptr<CWholeDisk> chain;   // not null: the disk as it reads through its chain
    std::shared_ptr<CNbdVMInfo> server;  // not null: the path is the URI of what it exports
    std::string changedSince;            // of such a disk: the bitmap of what changed; empty for all that is allocated
};

// A file of a disk image that is kept as it is.
struct SmallFile_t {
    std::string name;
    std::string bytes;
};

struct ImageOptions_t {
    std::optional<DiskType_t> type;    // found from the file unless given
    bool allowOutside = false;         // a file may name others that don't lie beside it or below
    bool rawUnlessKnown = false;       // a file of no known kind is a raw disk
    std::vector<std::string> parents;  // the older links of the image's chain, base first; found unless given
    std::string changedSince;          // of a disk that a server exports: see `DiskExtent_t`
    std::optional<std::chrono::seconds> patience;  // of such a disk: how long a server may take, and a lost connection
};

// What an image tells of the older link on which it builds.
struct ImageParent_t {
    std::vector<std::string> names;  // as the image has them, best first; none where it tells none
    std::string identity;            // what the older link has for its own
};

// A disk image on files, or a disk that a server exports: what kind it is, which files belong to it, and in which order
// the disk runs through them. Opening looks at headers and descriptors alone.
//
// What the readers of the core would take for something else is refused here, by name: compressed
// extents, flags that nobody knows, files shorter than what their disk needs. Descriptors may have
// lines that the core's parser doesn't know, as most have; they are kept out of its sight.
class DISKSTREAM_EXPORT CDiskImage {
public:
    // Errors say which file and what was found in it.
    CZuError Open(const std::string& path, const ImageOptions_t& options);

    // Opens the disk that the image `path` and the older links of its chain make together, as one
    // raw disk.
    CZuError OpenFlattened(const std::string& path, const ImageOptions_t& options);

    const std::string& Path() const { return m_Path; }
    ProductType_t Product() const;
    DiskType_t DiskType() const { return m_DiskType; }
    uint64_t TotalSectors() const;

    // In the order of the disk.
    const std::vector<DiskExtent_t>& Extents() const { return m_Extents; }
    const std::vector<SmallFile_t>& SmallFiles() const { return m_SmallFiles; }

    // Present when the image is one link of a chain: what its older links hold isn't in it.
    const std::optional<ImageParent_t>& Parent() const { return m_Parent; }
    bool HasParent() const { return m_Parent.has_value(); }
    std::string ParentName() const;  // empty where the image tells none

    // What a newer link has for its parent's identity; empty for a kind that makes no chains.
    const std::string& Identity() const { return m_Identity; }

    const std::vector<std::string>& Warnings() const { return m_Warnings; }

private:
    CZuError OpenSparseFile(DiskType_t type);
    CZuError OpenFlatFile(DiskType_t type);
    CZuError OpenDescriptor(const ImageOptions_t& options);
    CZuError OpenVhd(DiskType_t type);
    CZuError OpenRaw();
    CZuError OpenNtfsVolume();
    CZuError OpenExport(const ImageOptions_t& options);
    CZuError AddExtent(DiskExtent_t extent);

    std::string m_Path;
    DiskType_t m_DiskType = NoDiskType;
    std::vector<DiskExtent_t> m_Extents;
    std::vector<SmallFile_t> m_SmallFiles;
    std::optional<ImageParent_t> m_Parent;
    std::string m_Identity;
    std::vector<std::string> m_Warnings;
};

// The name of a disk type for people and for `--type`: the `createType` word where it has one.
DISKSTREAM_EXPORT const char* DiskTypeName(DiskType_t type);
DISKSTREAM_EXPORT std::optional<DiskType_t> DiskTypeFromName(const std::string& name);

// The names of the disk types that an image can be told to be.
DISKSTREAM_EXPORT std::vector<std::string> SelectableDiskTypeNames();

// Kinds of disk types.
inline bool IsSparseVmdk(DiskType_t type) {
    return type == DiskType_MonolithicSparse || type == DiskType_VmfsSparse || type == DiskType_TwoGbMaxExtentSparse;
}
inline bool IsDynamicVhd(DiskType_t type) {
    return type == DiskType_VhdDynamic || type == DiskType_VhdDifferencing;
}
inline bool IsVhd(DiskType_t type) {
    return type == DiskType_VhdFixed || IsDynamicVhd(type);
}
inline ProductType_t ProductOf(DiskType_t type) {
    if (IsVhd(type))
        return VirtualProdType_HyperV;
    return type >= DiskType_PhysicalDisk && type <= DiskType_NTFSVolume ? VirtualProdType_Physical
                                                                        : VirtualProdType_VMware;
}
