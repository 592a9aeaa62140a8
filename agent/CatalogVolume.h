#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "agent/BackupSetReader.h"
#include "agent/INtfsFiles.h"
#include "foundation/ZuError.h"
#include "platform/Export.h"

class CCatalogRecords;

// True for a file that is a backup set, whatever its version.
DISKSTREAM_EXPORT bool IsBackupSet(const std::string& path);

// The files of a volume out of a backup set with a catalogue, without the disks. Names come from the directory tree in
// the set; what their records tell, and their bytes, is read when it is asked for. The files that make the volume
// itself aren't in the tree.
class DISKSTREAM_EXPORT CCatalogVolume final : public INtfsFiles {
public:
    CCatalogVolume();
    ~CCatalogVolume() override;

    // `set` stays the caller's and outlives this, and so does `volume`, one of its volumes.
    CZuError Open(CBackupSetReader& set, const SetVolume_t& volume);

    std::vector<std::string> Warnings() const override { return {}; }
    CZuError Find(const std::string& path, uint64_t& frn) override;
    CZuError FindFile(const std::string& path, NtfsFileInfo_t& info) override;
    CZuError Describe(uint64_t frn, NtfsFileInfo_t& info) override;
    CZuError List(uint64_t directory, NtfsListing_t& listing, const TakeNtfsEntry_t& take) override;
    CZuError ReadStream(uint64_t frn, const std::string& name, const TakeBytes_t& take) override;
    CZuError ReadBackupStream(uint64_t frn, const TakeBytes_t& take) override;
    CZuError ReadSecurity(uint64_t frn, std::string& descriptor) override;

private:
    CZuError FindEntry(const std::string& path, SetEntry_t& found);
    CZuError FindInDirectory(uint64_t directory, const std::string& where, const std::string& name, SetEntry_t& found);
    CZuError OpenRecords(CCatalogRecords*& records);

    CBackupSetReader* m_Set = nullptr;
    const SetVolume_t* m_Info = nullptr;
    std::unique_ptr<CCatalogRecords> m_Records;  // null until something of them is asked for
};
