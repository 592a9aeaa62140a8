#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "archive/MAVolume.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/MetadataFilesBuilder.h"
#include "tests/support/TempDir.h"

// The reader with its protected steps open.
class CTestMetadataVolume : public CMAVolume {
public:
    using CMAVolume::ReadMFTRecord;
    using CMAVolume::SetLastErrorStr;
    using CMAVolume::VolumeData;
};

// It fails with this result and leaves this text.
#define EXPECT_META_FAILURE(result, text, expression)         \
    do {                                                      \
        EXPECT_EQ(result, expression);                        \
        EXPECT_STREQ(text, this->m_Volume.GetLastErrorStr()); \
    } while (false)

// It succeeds and leaves no text.
#define EXPECT_META_OK(expression) EXPECT_META_FAILURE(NtfsOk, "", expression)

// A collection that a test builds, and opens.
class CMetadataVolumeTest : public testing::Test {
protected:
    int Open() {
        return m_Volume.OpenVolume(m_Dir.File("information").c_str(), m_Dir.File("mft").c_str(),
                                   m_Dir.File("associate").c_str(), m_Dir.File("security").c_str());
    }

    int Open(const CMetadataFilesBuilder& files) {
        files.WriteTo(m_Dir);
        return Open();
    }

    // A file that is open, with the buffer and the position that belong to it.
    struct File_t {
        CAutoMemory<char> record;
        MA_BACKUPREAD_CONTEXT context;
    };

    int OpenFile(uint64_t frn, File_t& file, int withSecurity = 1) {
        return m_Volume.OpenFile(frn, &file.record, withSecurity, &file.context);
    }

    struct Outcome_t {
        int result;
        std::string bytes;
    };

    // Bytes behind those that the reader says it gave have to be as they were.
    Outcome_t ReadResident(File_t& file, uint32_t size = 100'000) {
        std::string buffer(size, '?');
        uint32_t read = 77;
        const int result = m_Volume.BackupReadRA(&file.record, buffer.data(), size, &read, &file.context);
        EXPECT_LE(read, size);
        EXPECT_EQ(std::string::npos, buffer.find_first_not_of('?', read));
        return {result, buffer.substr(0, read)};
    }

    // What one call tells of an attribute that isn't resident.
    struct Description_t {
        int result = 77;
        std::string name;
        uint64_t size = 77;
        uint64_t sizeOnDisk = 77;
        uint32_t type = 77;
        uint16_t compressionUnit = 77;
        std::string extents;
    };

    Description_t ReadDescription(File_t& file) {
        Description_t told;
        CAutoMemory<char> name = BufferOf("before");
        CAutoMemory<char> extents = BufferOf("before");
        told.result = m_Volume.BackupReadNRA(&file.record, &name, &told.size, &told.sizeOnDisk, &told.type,
                                             &told.compressionUnit, &extents, &file.context);
        told.name = BytesOf(name);
        told.extents = BytesOf(extents);
        return told;
    }

    CTempDir m_Dir;
    CTestMetadataVolume m_Volume;
};
