#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "VirtualServer/VMInfo/LVM.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/ImageFile.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkDescriptorBuilder.h"

// Disks for a `CHardDiskReader` and a `CLVM`, which take them as lists of links.

inline Disk_t LinkOf(const std::string& path, DiskType_t type, const std::string& dumpName = "link",
                     uint64_t blockSectors = 128) {
    Disk_t link;
    link.FileName = path.c_str();
    link.Type = type;
    link.DumpName = dumpName.c_str();
    link.BlockSize = blockSectors;
    return link;
}

// The image as a flat disk: its bytes, and the descriptor that names them.
inline Disk_t FlatLink(const CTempDir& dir, const CImageFile& image, const std::string& name = "disk") {
    image.WriteTo(dir, name + "-flat");
    return LinkOf(CVmdkDescriptorBuilder()
                      .CreateType("monolithicFlat")
                      .Extent(image.Size() / 512, "FLAT", name + "-flat")
                      .WriteTo(dir, name + ".vmdk"),
                  DiskType_MonolithicFlat);
}

inline LVM_HardDisk_t FlatHardDisk(const CTempDir& dir, const CImageFile& image, const std::string& name = "disk") {
    LVM_HardDisk_t disk;
    disk.ProductType = VirtualProdType_VMware;
    disk.Disks = {FlatLink(dir, image, name)};
    return disk;
}

// A sector that tells its own number, 64 times over: reads from a wrong place show where they were.
inline std::string NumberedSectors(uint64_t first, uint64_t count) {
    std::string bytes;
    for (uint64_t sector = first; sector < first + count; ++sector) {
        for (int turn = 0; turn < 64; ++turn)
            bytes += LittleEndianBytes(sector, 8);
    }
    return bytes;
}

// The bytes that a read gives. A read that fails fails the test.
inline std::string ReadDisk(CHardDiskReader& disk, uint64_t offset, uint32_t length) {
    std::string bytes(length, '?');
    EXPECT_OK(disk.ReadHardDiskData(offset, bytes.data(), length)) << length << " bytes at " << offset;
    return bytes;
}
