#pragma once

#include <cstdint>
#include <string>

#include "agent/ReadRange.h"
#include "agent/detail/NtfsRecords.h"
#include "agent/detail/NtfsStream.h"
#include "foundation/AutoMemory.h"
#include "foundation/ZuError.h"
#include "ntfs/detail/BackupStreamFormat.h"

// The file's own descriptor, or the one that the volume keeps for its security id; empty for none.
CZuError ReadNtfsSecurity(INtfsRecords& volume, uint64_t frn, CAutoMemory<char>& record, std::string& descriptor);

// Writes a file's backup stream, in the order and form of the core's, with every stream whole: segments joined,
// compressed data decoded. A descriptor that the volume doesn't have is left out.
class CNtfsBackupStream {
public:
    CNtfsBackupStream(INtfsRecords& volume, const TakeBytes_t& take) : m_Volume(volume), m_Take(take) {}

    CZuError Write(uint64_t frn);

private:
    CZuError WriteSecurity();
    CZuError WriteAttribute(const NtfsAttribute_t& attribute);
    CZuError WriteObjectId(CNtfsStream& stream);
    CZuError WriteBytes(CNtfsStream& stream, uint64_t offset, uint64_t bytes);
    CZuError WriteStretches(CNtfsStream& stream);
    CZuError WriteSparseBlock(CNtfsStream& stream, uint64_t offset, uint64_t bytes);
    void PutHead(uint32_t id, uint32_t flags, uint64_t bytes, const std::u16string& name);
    void Put(const void* bytes, size_t size);
    CZuError ReadVolumeObjectId(std::string& id);

    INtfsRecords& m_Volume;
    const TakeBytes_t& m_Take;
    uint64_t m_Frn = 0;
    std::string m_Where;
    CAutoMemory<char> m_Record;
    CAutoMemory<char> m_Buffer;
    bool m_IsEnded = false;  // by who takes the bytes
};
