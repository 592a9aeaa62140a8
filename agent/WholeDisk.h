#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "agent/DiskImage.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

class CPrivateDirectory;

// The core's reader, with the steps by which it reads the database of a dynamic disk.
class CWholeDiskReader : public CHardDiskReader {
public:
    using CHardDiskReader::CHardDiskReader;
    using CHardDiskReader::FindTocBlock;
    using CHardDiskReader::ReadPrivateHead;
    using CHardDiskReader::ReadVblkArea;
    using CHardDiskReader::ReadVmdb;
};

// A whole disk as a flat run of sectors, whatever it is kept in: an image with the older links of
// its chain, a device, a raw file. One thread at a time.
class DISKSTREAM_EXPORT CWholeDisk {
public:
    CWholeDisk();
    CWholeDisk(const CWholeDisk&) = delete;
    CWholeDisk& operator=(const CWholeDisk&) = delete;
    ~CWholeDisk();

    // Errors say which file and what is the matter with it.
    CZuError Open(const std::string& path, const ImageOptions_t& options);

    const std::string& Path() const { return m_Links.back().Path(); }
    uint64_t TotalSectors() const { return m_Links.back().TotalSectors(); }

    // Base first.
    const std::vector<CDiskImage>& Links() const { return m_Links; }

    // The links as the core opens them, base first. They are there as long as this is.
    const std::vector<Disk_t>& CoreDisks() const { return m_CoreDisks; }

    // The core's reader. Its errors don't name the disk.
    CWholeDiskReader& Reader() { return *m_Reader; }

    // Reads `length` bytes at byte `offset`; errors name the disk.
    CZuError Read(uint64_t offset, void* buffer, uint32_t length);

private:
    CZuError AddCoreLink(const CDiskImage& image);
    CZuError PrepareDescriptor(const CDiskImage& image, Disk_t& disk);

    std::vector<CDiskImage> m_Links;
    std::unique_ptr<CPrivateDirectory> m_Directory;  // of the descriptors that the core is given
    std::vector<Disk_t> m_CoreDisks;
    std::unique_ptr<CWholeDiskReader> m_Reader;
};
