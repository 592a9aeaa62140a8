#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "agent/INtfsFiles.h"
#include "agent/VolumeSet.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

class CNtfsMappedVolume;

// The files of an NTFS volume on its disks, in whatever layout, read without a file system's driver.
class DISKSTREAM_EXPORT CNtfsVolume final : public INtfsFiles {
public:
    CNtfsVolume();
    ~CNtfsVolume() override;

    // `set` and `volume`, one of its volumes, stay the caller's and outlive this.
    CZuError Open(CVolumeSet& set, const VolumeInfo_t& volume);

    std::vector<std::string> Warnings() const override;
    CZuError Find(const std::string& path, uint64_t& frn) override;
    CZuError FindFile(const std::string& path, NtfsFileInfo_t& info) override;
    CZuError Describe(uint64_t frn, NtfsFileInfo_t& info) override;
    CZuError List(uint64_t directory, NtfsListing_t& listing, const TakeNtfsEntry_t& take) override;
    CZuError ReadStream(uint64_t frn, const std::string& name, const TakeBytes_t& take) override;
    CZuError ReadBackupStream(uint64_t frn, const TakeBytes_t& take) override;
    CZuError ReadSecurity(uint64_t frn, std::string& descriptor) override;

private:
    CZuError FindInDirectory(uint64_t directory, const std::string& where, const std::u16string& name, uint64_t& frn);

    std::unique_ptr<CNtfsMappedVolume> m_Volume;
    const VolumeInfo_t* m_Info = nullptr;
};
