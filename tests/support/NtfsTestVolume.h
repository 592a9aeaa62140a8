#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "ntfs/DRVolume.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/HardDisks.h"
#include "tests/support/NtfsVolumeBuilder.h"
#include "tests/support/TempDir.h"

// The reader with its protected steps open, and with its reads of the volume told.
class CTestVolume : public CDRVolume {
public:
    using CDRVolume::CrackFileName;
    using CDRVolume::DumpSecuirtyInformation;
    using CDRVolume::GetFileName;
    using CDRVolume::GetFileNameAttribute;
    using CDRVolume::GetMFTExtent;
    using CDRVolume::GetSecurityInformation;
    using CDRVolume::ReadAttribute;
    using CDRVolume::ReadMFTRecord;
    using CDRVolume::ReadSecurityData;
    using CDRVolume::SearchIndexBlock_I30;
    using CDRVolume::SearchIndexBlock_SII;
    using CDRVolume::UnCompress;

    struct Read_t {
        uint64_t offset;
        uint32_t size;
    };

    const std::vector<Read_t>& Reads() const { return m_Reads; }
    void ForgetReads() { m_Reads.clear(); }

    // Every read that holds the volume's byte `offset` fails, until none does.
    void FailAt(uint64_t offset) { m_BadByte = offset; }
    void FailNowhere() { m_BadByte.reset(); }

    // Refuses clusters below this size instead of those that are refused without a word.
    void AllowClustersOf(uint32_t bytes) { m_SmallestCluster = bytes; }

    int ReadDisk(uint64_t offset, char* buffer, uint32_t size) override {
        m_Reads.push_back({offset, size});
        if (m_BadByte && *m_BadByte >= offset && *m_BadByte - offset < size)
            return NtfsSeeLog;
        return CDRVolume::ReadDisk(offset, buffer, size);
    }

protected:
    uint32_t SmallestCluster() const override { return m_SmallestCluster.value_or(CDRVolume::SmallestCluster()); }

private:
    std::vector<Read_t> m_Reads;
    std::optional<uint64_t> m_BadByte;
    std::optional<uint32_t> m_SmallestCluster;
};

// A volume that a test builds, and opens.
class CNtfsVolumeTest : public testing::Test {
protected:
    // Puts the image behind a `CLVM` of its own, as its only volume.
    void Attach(const CImageFile& image) {
        m_Ntfs.CloseVolume();
        m_Lvm = std::make_unique<CLVM>();
        std::vector<LVM_HardDisk_t> disks = {FlatHardDisk(m_Dir, image, "disk" + std::to_string(m_DiskCount++))};
        ASSERT_OK(m_Lvm->InitializeFromDisk(disks));
        ASSERT_EQ(1U, m_Lvm->GetVolumes().size());
        m_Volume = m_Lvm->GetVolumes()[0];
    }

    int Open(const CNtfsVolumeBuilder& volume) {
        Attach(volume.Image());
        m_Ntfs.ForgetReads();
        return m_Ntfs.OpenVolume(m_Lvm.get(), m_Volume);
    }

    // A file that is open, with the buffer and the position that belong to it.
    struct File_t {
        CAutoMemory<char> record;
        READFILECONTEXT context;
    };

    int OpenFile(uint64_t frn, File_t& file, int withSecurity = 1) {
        return m_Ntfs.OpenFile(frn, &file.record, withSecurity, &file.context);
    }

    struct Outcome_t {
        int result;
        std::string bytes;
    };

    // Bytes behind those that the reader says it gave have to be as they were.
    Outcome_t ReadFile(File_t& file, uint32_t size) {
        std::string buffer(size, '?');
        uint32_t read = 77;
        const int result = m_Ntfs.ReadFile(&file.record, buffer.data(), size, &read, &file.context);
        return Taken(result, buffer, read);
    }

    Outcome_t BackupRead(File_t& file, uint32_t size) {
        std::string buffer(size, '?');
        uint32_t read = 77;
        const int result = m_Ntfs.BackupRead(&file.record, buffer.data(), size, &read, &file.context);
        return Taken(result, buffer, read);
    }

    static Outcome_t Taken(int result, const std::string& buffer, uint32_t read) {
        EXPECT_LE(read, buffer.size());
        return {result, buffer.substr(0, read)};
    }

    CTempDir m_Dir;
    std::unique_ptr<CLVM> m_Lvm;
    LVM_Volume_t m_Volume;
    CTestVolume m_Ntfs;
    int m_DiskCount = 0;
};
