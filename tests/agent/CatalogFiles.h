#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "agent/Backup.h"
#include "agent/BackupSetReader.h"
#include "agent/CatalogVolume.h"
#include "tests/agent/NtfsFiles.h"
#include "tests/support/SameBytes.h"

// Volumes that tests build, and the same ones out of a set with a catalogue.

inline CNtfsAttributeBuilder NtfsNameOf(const std::u16string& name, uint64_t parent = NtfsReference(5),
                                        uint8_t kind = 1) {
    NtfsFileNameFields_t fields;
    fields.parent = parent;
    fields.name = name;
    fields.kind = kind;
    return CNtfsAttributeBuilder::Resident(NtfsFileNameType, NtfsFileNameValue(fields));
}

inline CNtfsAttributeBuilder NtfsInformationOf(const NtfsStandardInformationFields_t& fields = {}) {
    return CNtfsAttributeBuilder::Resident(NtfsStandardInformationType, NtfsStandardInformationValue(fields));
}

// A file of that name in the root directory.
inline CNtfsFileRecordBuilder NtfsNamedFile(const std::u16string& name) {
    return CNtfsFileRecordBuilder().Add(NtfsInformationOf()).Add(NtfsNameOf(name));
}

class CCatalogFilesTest : public CNtfsFilesTest {
protected:
    // Opens the volume on its disk and out of a set. A catalogue that lacks something has the problems, in this order.
    void BackUp(const CNtfsVolumeBuilder& volume, const Texts_t& problems = {}) {
        ASSERT_NO_FATAL_FAILURE(Open(volume));
        CloseCatalog();
        m_SetPath = m_Dir.File("set");
        BackupOptions_t options;
        options.image.type = DiskType_PhysicalDisk;
        options.catalog = true;
        options.force = true;
        m_Result = BackupResult_t();
        const std::string disk = m_Dir.File("disk" + std::to_string(m_DiskCount - 1));
        ASSERT_OK(BackUpDisk(disk, m_SetPath, options, m_Result));
        EXPECT_EQ(problems, m_Result.catalogProblems);
        OpenCatalog();
    }

    void CloseCatalog() {
        m_Catalog.reset();
        m_Reader.reset();
    }

    void OpenCatalog() {
        CloseCatalog();
        m_Catalog = std::make_unique<CCatalogVolume>();
        m_Reader = std::make_unique<CBackupSetReader>();
        ASSERT_OK(m_Reader->Open(m_SetPath));
        ASSERT_EQ(1U, m_Reader->Volumes().size());
        ASSERT_OK(m_Catalog->Open(*m_Reader, m_Reader->Volumes()[0]));
    }

    std::string CatalogStream(uint64_t frn, const std::string& name = "") {
        std::string bytes;
        EXPECT_OK(TryCatalogStream(frn, name, bytes)) << frn << " " << name;
        return bytes;
    }

    CZuError TryCatalogStream(uint64_t frn, const std::string& name, std::string& bytes) {
        return m_Catalog->ReadStream(frn, name, [&](const char* piece, uint32_t size) {
            bytes.append(piece, size);
            return true;
        });
    }

    // Streams, backup stream and descriptor of the file are those that its disk gives.
    void ExpectSameFile(uint64_t frn) {
        NtfsFileInfo_t file;
        ASSERT_OK(m_Catalog->Describe(frn, file));
        const NtfsFileInfo_t expected = Describe(frn);
        ASSERT_EQ(expected.streams.size(), file.streams.size());
        for (size_t index = 0; index < file.streams.size(); ++index) {
            const NtfsStreamInfo_t& stream = expected.streams[index];
            EXPECT_EQ(stream.name, file.streams[index].name);
            EXPECT_EQ(stream.bytes, file.streams[index].bytes);
            EXPECT_SAME_BYTES(Stream(frn, stream.name), CatalogStream(frn, stream.name)) << stream.name;
        }
        std::string backup;
        EXPECT_OK(m_Catalog->ReadBackupStream(frn, [&](const char* piece, uint32_t size) {
            backup.append(piece, size);
            return true;
        }));
        EXPECT_SAME_BYTES(BackupStream(frn), backup);
        std::string descriptor = "?";
        EXPECT_OK(m_Catalog->ReadSecurity(frn, descriptor));
        EXPECT_SAME_BYTES(Security(frn), descriptor);
    }

    // "path FRN", a slash behind directories.
    Texts_t ListCatalog(uint64_t directory = NtfsRootNumber, bool withStreams = false) {
        Texts_t paths;
        NtfsListing_t listing;
        listing.isRecursive = true;
        listing.withStreams = withStreams;
        EXPECT_OK(m_Catalog->List(directory, listing, [&](const NtfsEntry_t& entry) {
            paths.push_back(entry.path + (entry.file.isDirectory ? "/ " : " ") + std::to_string(entry.file.frn) +
                            (entry.file.problem.empty() ? "" : " (" + entry.file.problem + ")"));
            return true;
        }));
        EXPECT_EQ(Texts_t{}, listing.problems);
        return paths;
    }

    std::string m_SetPath;
    BackupResult_t m_Result;
    std::unique_ptr<CBackupSetReader> m_Reader;
    std::unique_ptr<CCatalogVolume> m_Catalog;
};
