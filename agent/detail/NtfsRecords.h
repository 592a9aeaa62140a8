#pragma once

#include <cstdint>
#include <string>

#include "agent/INtfsFiles.h"
#include "agent/detail/ClusterSource.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"

class CNtfsStream;

// The file records of an NTFS volume and what they lead to, on its disks or in a backup set.
class INtfsRecords : public IClusterSource {
public:
    // Of the volume, for errors.
    virtual const std::string& Name() const = 0;

    // Makes `record` the base record of the file, with the attributes of its other records behind its own.
    virtual CZuError ReadRecord(uint64_t frn, CAutoMemory<char>& record) = 0;

    // Opens an attribute of that record, `record`. Errors say `where` they are.
    virtual CZuError OpenStream(uint64_t frn, CAutoMemory<char>& record, uint32_t type, const std::u16string& name,
                                const std::string& where, CNtfsStream& stream) = 0;

    // The descriptor that the volume keeps once for many files, in its canonical form; empty where it has none for this
    // one. `SecurityProblem` tells why there may be none at all.
    virtual CZuError ReadSharedDescriptor(uint64_t frn, CAutoMemory<char>& record, CAutoMemory<char>& descriptor) = 0;
    virtual const std::string& SecurityProblem() const = 0;
};

// The operations of `INtfsFiles` on one file, over its records.
CZuError DescribeNtfsFile(INtfsRecords& volume, uint64_t frn, NtfsFileInfo_t& info);
CZuError ReadNtfsStream(INtfsRecords& volume, uint64_t frn, const std::string& name, const TakeBytes_t& take);
CZuError ReadNtfsBackupStream(INtfsRecords& volume, uint64_t frn, const TakeBytes_t& take);
CZuError ReadNtfsSecurity(INtfsRecords& volume, uint64_t frn, std::string& descriptor);
