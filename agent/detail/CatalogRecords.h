#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "agent/BackupSetReader.h"
#include "agent/detail/CatalogClusters.h"
#include "agent/detail/NtfsRecords.h"
#include "agent/detail/PrivateDirectoryGuard.h"
#include "archive/MAVolume.h"

// The core's reader of a metadata collection over the parts of a backup set. Its small files are put into a directory
// of this process; of the copy of the MFT, which may be large, only the pieces that are asked for are read.
class CCatalogCollection final : public CMAVolume {
public:
    CZuError Open(CBackupSetReader& set, int64_t volume);

    uint32_t ClusterBytes() const { return VolumeData().BytesPerCluster; }

    // Of the last failure, which may be one of the set's.
    CZuError ErrorOf(const std::string& where, int result);

protected:
    int ReadMFTRecord(uint64_t frn, char* buffer) override;

private:
    CZuError CopyPart(const std::string& name, const std::string& fileName);

    CBackupSetReader* m_Set = nullptr;
    const SetPart_t* m_Mft = nullptr;
    std::unique_ptr<CPrivateDirectory> m_Directory;
    CZuError m_SetError;
};

// The file records of a volume in a backup set. Resident streams come out of the collection's backup stream, the others
// by its descriptions; where these stop short (an attribute of instance 0, a stream whose instance another one has as
// well, several segments of a named stream) the file's own records tell.
class CCatalogRecords final : public INtfsRecords {
public:
    CZuError Open(CBackupSetReader& set, const SetVolume_t& volume);

    uint32_t ClusterBytes() const override { return m_Collection.ClusterBytes(); }
    CZuError ReadClusters(uint64_t lcn, uint64_t skip, char* buffer, uint32_t size) override;

    const std::string& Name() const override { return m_Name; }
    CZuError ReadRecord(uint64_t frn, CAutoMemory<char>& record) override;
    CZuError OpenStream(uint64_t frn, CAutoMemory<char>& record, uint32_t type, const std::u16string& name,
                        const std::string& where, CNtfsStream& stream) override;
    CZuError ReadSharedDescriptor(uint64_t frn, CAutoMemory<char>& record, CAutoMemory<char>& descriptor) override;
    const std::string& SecurityProblem() const override { return m_NoProblem; }

private:
    bool FindResident(CAutoMemory<char>& record, const std::u16string& name, std::string& value);
    bool FindExtents(CAutoMemory<char>& record, uint32_t type, const std::u16string& name, CAutoMemory<char>& extents);

    CCatalogCollection m_Collection;
    std::unique_ptr<CCatalogClusters> m_Clusters;
    std::string m_Name;
    std::string m_NoProblem;
    CAutoMemory<char> m_Streams;  // of `BackupReadRA`
};
