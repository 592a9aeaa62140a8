#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "agent/NtfsVolume.h"
#include "agent/VolumeSet.h"
#include "tests/agent/AgentAssertions.h"
#include "tests/agent/WholeDisks.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/NtfsVolumeBuilder.h"
#include "tests/support/TempDir.h"

// Files of NTFS volumes that tests build, as the agent sees them.

constexpr uint32_t NtfsFolderBit = 0x10000000;  // of the attributes in a folder's name
constexpr uint32_t NtfsPlainFile = 0x20;

// An entry of a directory, for a record that is used for the first time.
inline CNtfsIndexEntryBuilder NtfsEntryOf(uint64_t frn, const std::u16string& name, uint32_t attributes = NtfsPlainFile,
                                          uint8_t kind = 3, uint16_t reuseCount = 1) {
    NtfsFileNameFields_t fields;
    fields.name = name;
    fields.kind = kind;
    fields.attributes = attributes;
    return CNtfsIndexEntryBuilder::Named(NtfsReference(frn, reuseCount), NtfsFileNameValue(fields));
}

inline CNtfsIndexEntryBuilder NtfsFolderEntryOf(uint64_t frn, const std::u16string& name) {
    return NtfsEntryOf(frn, name, NtfsFolderBit);
}

// The last entry of a node, which leads to what sorts behind all others.
inline CNtfsIndexEntryBuilder NtfsLastEntryTo(uint64_t vcn) {
    return CNtfsIndexEntryBuilder::Last().SubNode(vcn);
}

inline CNtfsAttributeBuilder NtfsDataOf(const std::string& bytes) {
    return CNtfsAttributeBuilder::Resident(NtfsDataType, bytes);
}

inline CNtfsFileRecordBuilder NtfsFileOf(const std::string& bytes) {
    return CNtfsFileRecordBuilder().Add(NtfsDataOf(bytes));
}

inline CNtfsFileRecordBuilder NtfsFolderOf(const CNtfsIndexRootBuilder& index) {
    return CNtfsFileRecordBuilder().Directory().Add(
        CNtfsAttributeBuilder::Resident(NtfsIndexRootType, index.Bytes()).Name(u"$I30"));
}

inline CNtfsFileRecordBuilder NtfsFolderOf(const std::vector<CNtfsIndexEntryBuilder>& entries) {
    CNtfsIndexRootBuilder index;
    for (const CNtfsIndexEntryBuilder& entry : entries)
        index.Add(entry);
    return NtfsFolderOf(index);
}

// The value of a reparse point without data.
inline std::string NtfsReparseValue(uint32_t tag) {
    std::string value(8, '\0');
    for (size_t byte = 0; byte < 4; ++byte)
        value[byte] = static_cast<char>(tag >> 8 * byte & 0xFFU);
    return value;
}

inline CNtfsAttributeBuilder NtfsReparsePointOf(uint32_t tag) {
    return CNtfsAttributeBuilder::Resident(NtfsReparsePointType, NtfsReparseValue(tag));
}

// A disk with a volume on it, open.
class CNtfsFilesTest : public testing::Test {
protected:
    using Texts_t = std::vector<std::string>;

    // The volumes of a disk that is nothing but the volume.
    void OpenSet(const CNtfsVolumeBuilder& volume) {
        m_Set = std::make_unique<CVolumeSet>();
        const std::string name = "disk" + std::to_string(m_DiskCount++);
        ASSERT_OK(m_Set->Open({volume.VolumeImage().WriteTo(m_Dir, name)}, RawUnlessKnown()));
        ASSERT_NE(nullptr, m_Set->Find("Volume1"));
    }

    void Open(const CNtfsVolumeBuilder& volume) {
        ASSERT_NO_FATAL_FAILURE(OpenSet(volume));
        m_Ntfs = std::make_unique<CNtfsVolume>();
        ASSERT_OK(m_Ntfs->Open(*m_Set, *m_Set->Find("Volume1")));
    }

    uint64_t Find(const std::string& path) {
        uint64_t frn = 777;
        EXPECT_OK(m_Ntfs->Find(path, frn)) << path;
        return frn;
    }

    CZuError TryFind(const std::string& path) {
        uint64_t frn = 777;
        const CZuError error = m_Ntfs->Find(path, frn);
        EXPECT_EQ(error.IsErrorSet(), frn == 777) << path;
        return error;
    }

    NtfsFileInfo_t Describe(uint64_t frn) {
        NtfsFileInfo_t info;
        EXPECT_OK(m_Ntfs->Describe(frn, info)) << frn;
        return info;
    }

    std::string Stream(uint64_t frn, const std::string& name = "") {
        std::string bytes;
        EXPECT_OK(TryStream(frn, name, bytes)) << frn << " " << name;
        return bytes;
    }

    CZuError TryStream(uint64_t frn, const std::string& name, std::string& bytes) {
        return m_Ntfs->ReadStream(frn, name, [&](const char* piece, uint32_t size) {
            bytes.append(piece, size);
            return true;
        });
    }

    // No byte is given.
    CZuError StreamError(uint64_t frn, const std::string& name = "") {
        std::string bytes;
        const CZuError error = TryStream(frn, name, bytes);
        EXPECT_EQ("", bytes);
        return error;
    }

    CZuError TryBackupStream(uint64_t frn, std::string& bytes) {
        return m_Ntfs->ReadBackupStream(frn, [&](const char* piece, uint32_t size) {
            bytes.append(piece, size);
            return true;
        });
    }

    std::string BackupStream(uint64_t frn) {
        std::string bytes;
        EXPECT_OK(TryBackupStream(frn, bytes)) << frn;
        return bytes;
    }

    std::string Security(uint64_t frn) {
        std::string descriptor = "?";
        EXPECT_OK(m_Ntfs->ReadSecurity(frn, descriptor)) << frn;
        return descriptor;
    }

    // Paths, each with its problem behind it, if it has one.
    Texts_t List(uint64_t directory, NtfsListing_t& listing) {
        Texts_t paths;
        EXPECT_OK(m_Ntfs->List(directory, listing, [&](const NtfsEntry_t& entry) {
            paths.push_back(entry.path + (entry.file.problem.empty() ? "" : " (" + entry.file.problem + ")"));
            return true;
        }));
        return paths;
    }

    Texts_t List(uint64_t directory = NtfsRootNumber) {
        NtfsListing_t listing;
        Texts_t paths = List(directory, listing);
        EXPECT_EQ(Texts_t{}, listing.problems);
        return paths;
    }

    Texts_t ListAll(uint64_t directory = NtfsRootNumber) {
        NtfsListing_t listing;
        listing.isRecursive = true;
        Texts_t paths = List(directory, listing);
        EXPECT_EQ(Texts_t{}, listing.problems);
        return paths;
    }

    CTempDir m_Dir;
    std::unique_ptr<CVolumeSet> m_Set;
    std::unique_ptr<CNtfsVolume> m_Ntfs;
    int m_DiskCount = 0;
};
