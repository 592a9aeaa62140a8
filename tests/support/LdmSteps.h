#pragma once

#include <string>
#include <vector>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "tests/support/HardDisks.h"
#include "tests/support/LdmBuilder.h"

// A disk's reader whose steps through a dynamic disk's database can be called one by one.
class CLdmSteps : public CHardDiskReader {
public:
    CLdmSteps() : CHardDiskReader(VirtualProdType_VMware) {}

    using CHardDiskReader::ParseLDMPrivateHead;
    using CHardDiskReader::ParseLDMTOCBlock;
    using CHardDiskReader::ParseLDMVBLK;
    using CHardDiskReader::ParseLDMVMDB;
    using CHardDiskReader::ParseVBLKStructure;

    // Opens a disk of 4096 sectors, or `sectors`, with nothing on it but the database.
    void OpenWith(const CTempDir& dir, const CLdmDatabaseBuilder& database, uint64_t sectors = 4096) {
        CImageFile image;
        database.PutTo(image);
        image.Resize(sectors * 512);
        std::vector<Disk_t> disks = {FlatLink(dir, image)};
        ASSERT_OK(CloseHardDisk());
        ASSERT_OK(OpenHardDisk(disks));
    }
};
