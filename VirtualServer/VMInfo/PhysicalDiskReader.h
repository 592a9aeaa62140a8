#pragma once

#include <cstdint>
#include <string>

#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "foundation/ZuFile.h"
#include "platform/Export.h"

// A raw disk, a device or a plain file, as source and target of blocks. Open or create, read or
// write in any order, close. Not for use by two threads at once. Readers of other raw disks answer
// the same operations; the order of these is part of the contract.
class DISKSTREAM_EXPORT CPhysicalDiskReader {
public:
    CPhysicalDiskReader() = default;
    CPhysicalDiskReader(const CPhysicalDiskReader&) = default;
    CPhysicalDiskReader& operator=(const CPhysicalDiskReader&) = default;

    // Opens `name` for reading. The size of a drive (see `platform/DriveName.h`) and of a block
    // device is found out; a plain file's counts as unknown, so that reads go on to its own end.
    virtual CZuError OpenDisk(const char* name);

    // Returns what the system says to the closing of the file. What isn't open closes well.
    virtual CZuError CloseDisk();

    // Reads `size` bytes at byte `offset`. `IsErrorEOF` holds when the disk's size is known and the
    // read would leave it.
    virtual CZuError ReadData(uint64_t offset, char* buffer, unsigned long size);

    // Reads block `number` of `sectors` sectors through `ReadData`.
    virtual CZuError ReadBlock(uint64_t number, char* buffer, unsigned int sectors);

    // Opens the target `name`, which exists, for reading and writing. Its size stays as it was set.
    virtual CZuError CreateDisk(const char* name);

    // Writes `data`, at most `sectors` sectors, where block `number` of that size begins.
    virtual CZuError WriteBlock(uint64_t number, unsigned int sectors, CAutoMemory<char>& data);

    // Writes one record of the sparse dump, in which `offset` stands for the block size.
    virtual CZuError DumpSparseInfo(CZuFile& out, const char* name, uint64_t offset);

    // Sets the size in bytes, also with nothing open; 0 stands for unknown.
    virtual CZuError SetDiskSize(uint64_t size);

    virtual int IsErrorEOF(const CZuError& error) const;

    virtual ~CPhysicalDiskReader() = default;

    // The name as it was given; empty before the first open.
    const char* getDiskFileName() const { return m_FileName.c_str(); }

    // Bytes; 0 for unknown.
    uint64_t GetDiskSize() const { return m_DiskSize; }

private:
    CZuError RefuseUnlessFree(const char* name) const;
    CZuError FindSize(const char* name);

    uint64_t m_BlockSize = 0;  // sectors
    CZuFile m_File;
    uint64_t m_DiskSize = 0;  // bytes, 0 for unknown
    std::string m_FileName;
};
