#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>

#include "agent/BackupSetReader.h"
#include "agent/BackupSetWriter.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/TempDir.h"

// Sets that hold next to nothing of a disk, for tests of what they hold beside it.

class CatalogOfASet : public testing::Test {
protected:
    using Fill_t = std::function<void(CBackupSetWriter&)>;

    // A set of one raw disk without blocks, and of what `fill` puts beside it.
    std::string WriteSet(const Fill_t& fill) const {
        CBackupSetWriter writer;
        EXPECT_OK(writer.Create(m_Dir.File("set"), true));
        SetDisk_t disk;
        disk.imageName = "disk.raw";
        disk.product = VirtualProdType_Physical;
        disk.diskType = DiskType_PhysicalDisk;
        EXPECT_OK(writer.AddDisk(disk));
        fill(writer);
        EXPECT_OK(writer.Commit({"2026-01-31T12:00:00Z", "a test"}));
        return m_Dir.File("set");
    }

    // The set that `fill` made, opened.
    void Open(const Fill_t& fill) { ASSERT_OK(m_Set.Open(WriteSet(fill))); }

    static CZuError AddPart(CBackupSetWriter& writer, const std::string& name, const std::string& bytes,
                            uint32_t mostAtOnce = ~0U, int level = DefaultCompression) {
        size_t at = 0;
        return writer.AddPart(name, level, [&, mostAtOnce](char* buffer, uint32_t room, uint32_t& got) {
            got = static_cast<uint32_t>(std::min<size_t>({bytes.size() - at, room, mostAtOnce}));
            std::copy_n(bytes.data() + at, got, buffer);
            at += got;
            return CZuError();
        });
    }

    // A stream without blocks, of the id 0.
    static SetStream_t EmptyStream() {
        SetStream_t stream;
        stream.fileName = "disk.raw";
        stream.diskType = DiskType_PhysicalDisk;
        stream.blockSectors = 8;
        return stream;
    }

    std::string ReadPart(const std::string& name, uint64_t offset, uint32_t size) {
        const SetPart_t* const part = m_Set.FindPart(name);
        EXPECT_NE(nullptr, part) << name;
        std::string bytes(size, '?');
        if (part == nullptr)
            return bytes;
        EXPECT_OK(m_Set.ReadPart(*part, offset, bytes.data(), size));
        return bytes;
    }

    CTempDir m_Dir;
    CBackupSetReader m_Set;
};
