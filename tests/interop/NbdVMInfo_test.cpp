#include "hypervisor/NbdVMInfo.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "tests/interop/NbdServers.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/SameBytes.h"

// The readers' questions, answered by servers of other makers.

namespace {

constexpr uint64_t Sector = 512;

NbdOptions_t Impatient(int milliseconds) {
    NbdOptions_t options;
    options.patience = std::chrono::milliseconds(milliseconds);
    return options;
}

class NbdVMInfo : public testing::Test {
protected:
    void SetUp() override { SKIP_WITHOUT_PROGRAM("qemu-nbd"); }

    // A raw file that qemu-nbd exports; `switches` are its further ones.
    std::string ServeRaw(const std::string& bytes, const std::vector<std::string>& switches = {}) {
        m_File = m_Dir.Write("disk.raw", bytes);
        std::vector<std::string> words{"qemu-nbd", "-t", "-k", "SOCKET", "-f", "raw"};
        words.insert(words.end(), switches.begin(), switches.end());
        words.push_back(m_File);
        m_Server.emplace(words);
        EXPECT_TRUE(m_Server->Start());
        return m_Server->Uri();
    }

    // The same by nbdkit with these filters and their settings.
    std::string ServeWithNbdkit(const std::string& bytes, const std::vector<std::string>& filters,
                                const std::vector<std::string>& settings = {}) {
        m_File = m_Dir.Write("disk.raw", bytes);
        std::vector<std::string> words{"nbdkit", "-f", "-U", "SOCKET"};
        for (const std::string& filter : filters)
            words.push_back("--filter=" + filter);
        words.insert(words.end(), {"file", m_File});
        words.insert(words.end(), settings.begin(), settings.end());
        m_Server.emplace(words);
        EXPECT_TRUE(m_Server->Start());
        return m_Server->Uri();
    }

    void Open(const std::string& uri) {
        ASSERT_EQ(1, m_Info.SetCurrVmdkFile("", "", uri, m_Handle)) << m_Info.LastErrorText();
    }

    std::string Read(uint64_t firstSector, uint32_t sectors) {
        std::string bytes(sectors * Sector, '?');
        EXPECT_EQ(1, m_Info.ReadCurrVmdkFile(m_Handle, firstSector, sectors, bytes.data())) << m_Info.LastErrorText();
        return bytes;
    }

    // The stretches for a change id, as "start+length" each, and how much of the disk they were asked for.
    std::string Stretches(const char* changeId, uint64_t sizeBytes) {
        std::string text;
        for (uint64_t position = 0; position < sizeBytes;) {
            VmdkFileExtents_t extents;
            if (m_Info.GetCurrVmdkFileExtents(m_Handle, changeId, position, extents) == 0)
                return m_Info.LastErrorText();
            EXPECT_EQ(position, extents.position);
            if (extents.length == 0)
                return "nothing";
            for (const VmdkFileStretch_t& stretch : extents.stretches)
                text += std::to_string(stretch.start) + "+" + std::to_string(stretch.length) + " ";
            position += extents.length;
        }
        return text;
    }

    CTempDir m_Dir;
    std::string m_File;
    std::optional<CNbdServer> m_Server;
    CNbdVMInfo m_Info{Impatient(5000)};
    VmdkFileHandle_t m_Handle;
};

TEST_F(NbdVMInfo, TellsWhatAnExportIs) {
    const std::string uri = ServeRaw(PatternedBytes(3 * MiB));
    Open(uri);
    VmdkFileInfo_t info;
    ASSERT_EQ(1, m_Info.GetCurrVmdkFileInfo(m_Handle, info));
    EXPECT_EQ(6144U, info.sectors);
    std::string name;
    ASSERT_EQ(1, m_Info.GetCurrVmdkFileName(m_Handle, name));
    EXPECT_EQ(uri, name);
    std::vector<std::pair<std::string, std::string>> pairs;
    ASSERT_EQ(1, m_Info.GetCurrVmdkFileMetaData(m_Handle, pairs));
    const std::vector<std::pair<std::string, std::string>> expected{
        {"thinProvisioned", "1"}, {"geometry.cylinders", "1"}, {"geometry.heads", "255"}, {"geometry.sectors", "63"}};
    EXPECT_EQ(expected, pairs);
}

TEST_F(NbdVMInfo, ReadsForwardBackwardAndAcrossPieces) {
    const std::string bytes = PatternedBytes(9 * MiB);
    Open(ServeRaw(bytes));
    for (uint64_t sector = 0; sector < bytes.size() / Sector; sector += 384)
        EXPECT_SAME_BYTES(bytes.substr(sector * Sector, 384 * Sector), Read(sector, 384)) << sector;
    for (const uint64_t sector : {17000U, 3U, 9000U, 9001U, 12000U, 12005U, 1U, 5000U, 18431U})
        EXPECT_SAME_BYTES(bytes.substr(sector * Sector, Sector), Read(sector, 1)) << sector;
    EXPECT_SAME_BYTES(bytes, Read(0, 18432)) << "in one call";
}

TEST_F(NbdVMInfo, AnExportThatEndsInASectorIsFilledUpWithZeros) {
    const std::string bytes = PatternedBytes(1000);
    Open(ServeWithNbdkit(bytes, {}));
    VmdkFileInfo_t info;
    ASSERT_EQ(1, m_Info.GetCurrVmdkFileInfo(m_Handle, info));
    EXPECT_EQ(2U, info.sectors);
    EXPECT_SAME_BYTES(bytes + std::string(24, '\0'), Read(0, 2));
    EXPECT_SAME_BYTES(bytes.substr(512) + std::string(24, '\0'), Read(1, 1));
    EXPECT_EQ("0+999 ", Stretches("", 1024));
    std::string sector(Sector, 'w');
    ASSERT_EQ(1, m_Info.WriteCurrVmdkFile(m_Handle, 1, 1, sector.data())) << m_Info.LastErrorText();
    ASSERT_EQ(1, m_Info.FlushCurrVmdkFile(m_Handle));
    EXPECT_SAME_BYTES(bytes.substr(0, 512) + std::string(488, 'w'), m_Dir.Read("disk.raw"));
}

TEST_F(NbdVMInfo, ReadsPastTheEndFail) {
    Open(ServeRaw(PatternedBytes(MiB)));
    std::string sector(2 * Sector, '?');
    EXPECT_EQ(0, m_Info.ReadCurrVmdkFile(m_Handle, 2047, 2, sector.data()));
    EXPECT_EQ(0, m_Info.ReadCurrVmdkFile(m_Handle, ~uint64_t{0}, 2, sector.data()));
    EXPECT_EQ(EINVAL, m_Info.GetLastErrorCode());
    EXPECT_EQ(0, m_Info.WriteCurrVmdkFile(m_Handle, 2047, 2, sector.data()));
    EXPECT_EQ(0, m_Info.ZeroCurrVmdkFile(m_Handle, 1, ~uint64_t{0}));
}

TEST_F(NbdVMInfo, OneConnectionDoesForADiskThatIsOpenedTwice) {
    const std::string uri = ServeRaw(PatternedBytes(MiB));
    Open(uri);
    VmdkFileHandle_t second;
    ASSERT_EQ(1, m_Info.SetCurrVmdkFile("", "", uri, second)) << m_Info.LastErrorText();
    std::string sector(Sector, '?');
    ASSERT_EQ(1, m_Info.ReadCurrVmdkFile(second, 7, 1, sector.data())) << m_Info.LastErrorText();
    EXPECT_SAME_BYTES(PatternedBytes(MiB).substr(7 * Sector, Sector), sector);
    EXPECT_SAME_BYTES(sector, Read(7, 1));
}

TEST_F(NbdVMInfo, TellsTheStretchesThatHoldData) {
    const std::string image = m_Dir.File("disk.qcow2");
    ASSERT_TRUE(Runs("qemu-img create -q -f qcow2 " + Quoted(image) + " 3G"));
    ASSERT_TRUE(RunsInQemuIo("qcow2", image, {"write -P 1 128k 64k", "write -z 1M 1M", "write -P 2 2500M 192k"}));
    m_Server.emplace(std::vector<std::string>{"qemu-nbd", "-t", "-k", "SOCKET", "-e", "4", "-f", "qcow2", image});
    ASSERT_TRUE(m_Server->Start());
    Open(m_Server->Uri());
    EXPECT_EQ("131072+65535 2621440000+196607 ", Stretches("", 3072 * MiB)) << "each ends in its last byte";
}

TEST_F(NbdVMInfo, AServerThatTellsNothingHasEverythingAllocated) {
    SKIP_WITHOUT_PROGRAM("nbdkit");
    m_File = m_Dir.Write("disk.raw", PatternedBytes(MiB));
    m_Server.emplace(std::vector<std::string>{"nbdkit", "-f", "--no-sr", "-U", "SOCKET", "file", m_File});
    ASSERT_TRUE(m_Server->Start());
    Open(m_Server->Uri());
    EXPECT_EQ("nothing", Stretches("", MiB));
    std::vector<std::pair<std::string, std::string>> pairs;
    ASSERT_EQ(1, m_Info.GetCurrVmdkFileMetaData(m_Handle, pairs));
    EXPECT_EQ("0", pairs.front().second);
    EXPECT_SAME_BYTES(PatternedBytes(MiB), Read(0, 2048));
}

TEST_F(NbdVMInfo, AServerOfLargeBlocksIsAskedForWholeOnes) {
    SKIP_WITHOUT_PROGRAM("nbdkit");
    const std::string bytes = PatternedBytes(2 * MiB);
    Open(ServeWithNbdkit(bytes, {"blocksize-policy"},
                         {"blocksize-minimum=4096", "blocksize-preferred=4096", "blocksize-error-policy=error"}));
    for (const uint64_t sector : {0U, 1U, 2U, 11U, 100U, 4095U})
        EXPECT_SAME_BYTES(bytes.substr(sector * Sector, Sector), Read(sector, 1)) << sector;
    EXPECT_SAME_BYTES(bytes.substr(3 * Sector, 1000 * Sector), Read(3, 1000));
}

TEST_F(NbdVMInfo, WritesAndZeroesWhereItIsTold) {
    std::string bytes = PatternedBytes(2 * MiB);
    Open(ServeRaw(bytes));
    const std::string written(300 * Sector, 'w');
    ASSERT_EQ(1, m_Info.WriteCurrVmdkFile(m_Handle, 1000, 300, written.data())) << m_Info.LastErrorText();
    ASSERT_EQ(1, m_Info.ZeroCurrVmdkFile(m_Handle, 2000, 1500)) << m_Info.LastErrorText();
    ASSERT_EQ(1, m_Info.FlushCurrVmdkFile(m_Handle));
    bytes.replace(1000 * Sector, written.size(), written);
    bytes.replace(2000 * Sector, 1500 * Sector, 1500 * Sector, '\0');
    EXPECT_SAME_BYTES(bytes, m_Dir.Read("disk.raw"));
    EXPECT_SAME_BYTES(bytes, Read(0, 4096));
}

// Blocks that follow each other, gaps, more than one request holds, and the begun sector at the end.
TEST_F(NbdVMInfo, QueuedWritesAreThereWhenFlushed) {
    SKIP_WITHOUT_PROGRAM("nbdkit");
    std::string bytes = PatternedBytes(24 * MiB + 100);
    Open(ServeWithNbdkit(bytes, {}));
    const struct {
        uint64_t firstSector;
        uint32_t sectors;
    } rows[] = {{1, 1},       {2, 128},     {130, 128},    {300, 128},  {1000, 5000},   {6000, 1},
                {8192, 1024}, {9216, 1024}, {10240, 1024}, {12000, 77}, {13000, 12288}, {26000, 128},
                {26128, 128}, {26300, 1},   {26302, 1},    {26304, 1},  {26306, 1},     {26308, 1},
                {26310, 1},   {26312, 1},   {26314, 1},    {26316, 1},  {49000, 153}};
    for (const auto& row : rows) {
        std::string written = PatternedBytes(row.sectors * Sector, static_cast<unsigned>(row.firstSector));
        ASSERT_EQ(1, m_Info.QueueWriteCurrVmdkFile(m_Handle, row.firstSector, row.sectors, written.data()))
            << m_Info.LastErrorText();
        bytes.replace(row.firstSector * Sector, written.size(),
                      written.substr(0, bytes.size() - std::min<uint64_t>(bytes.size(), row.firstSector * Sector)));
        std::fill(written.begin(), written.end(), '!');  // the queue has its own copy
    }
    ASSERT_EQ(1, m_Info.FlushCurrVmdkFile(m_Handle)) << m_Info.LastErrorText();
    EXPECT_SAME_BYTES(bytes, m_Dir.Read("disk.raw"));
    EXPECT_FALSE(m_Info.WasConnectionLost(m_Handle));
}

TEST_F(NbdVMInfo, QueuedWritesKeepToTheExport) {
    Open(ServeRaw(std::string(MiB, 'o')));
    const std::string sectors(2 * Sector, 'w');
    EXPECT_EQ(0, m_Info.QueueWriteCurrVmdkFile(m_Handle, 2047, 2, sectors.data()));
    EXPECT_EQ(EINVAL, m_Info.GetLastErrorCode());
    Open(ServeRaw(std::string(MiB, 'o'), {"-r"}));
    EXPECT_EQ(0, m_Info.QueueWriteCurrVmdkFile(m_Handle, 0, 1, sectors.data()));
    EXPECT_EQ(303, m_Info.GetLastErrorCode());
}

TEST_F(NbdVMInfo, AQueuedWriteThatFailsIsToldAtTheLatestByTheFlush) {
    SKIP_WITHOUT_PROGRAM("nbdkit");
    Open(ServeWithNbdkit(std::string(2 * MiB, 'o'), {"error"}, {"error-pwrite=ENOSPC", "error-pwrite-rate=1"}));
    const std::string sector(Sector, 'w');
    EXPECT_EQ(1, m_Info.QueueWriteCurrVmdkFile(m_Handle, 0, 1, sector.data()));
    EXPECT_EQ(0, m_Info.FlushCurrVmdkFile(m_Handle));
    EXPECT_EQ(ENOSPC, m_Info.GetLastErrorCode());
    int done = 1;
    for (uint64_t number = 0; number < 4096 && done == 1; number += 2)
        done = m_Info.QueueWriteCurrVmdkFile(m_Handle, number, 1, sector.data());
    EXPECT_EQ(0, done) << "the queue holds only so many";
}

TEST_F(NbdVMInfo, QueuedWritesGoOnOverANewConnection) {
    Open(ServeRaw(std::string(20 * MiB, 'o')));
    const std::string written = PatternedBytes(16 * MiB);
    for (uint64_t sector = 0; sector < 32768; sector += 128) {
        if (sector == 16384) {
            m_Server->Kill();
            m_Server->Start();
        }
        ASSERT_EQ(1, m_Info.QueueWriteCurrVmdkFile(m_Handle, sector, 128, written.data() + sector * Sector))
            << m_Info.LastErrorText();
    }
    m_Server->Kill();
    m_Server->Start();
    ASSERT_EQ(1, m_Info.FlushCurrVmdkFile(m_Handle)) << m_Info.LastErrorText();
    EXPECT_SAME_BYTES(written + std::string(4 * MiB, 'o'), m_Dir.Read("disk.raw"));
    EXPECT_TRUE(m_Info.WasConnectionLost(m_Handle));
}

TEST_F(NbdVMInfo, AServerThatCannotZeroGetsZeros) {
    SKIP_WITHOUT_PROGRAM("nbdkit");
    Open(ServeWithNbdkit(PatternedBytes(6 * MiB), {"nozero"}));
    ASSERT_EQ(1, m_Info.ZeroCurrVmdkFile(m_Handle, 0, 12288)) << m_Info.LastErrorText();
    EXPECT_SAME_BYTES(std::string(6 * MiB, '\0'), m_Dir.Read("disk.raw"));
}

TEST_F(NbdVMInfo, AnExportThatIsReadOnlyIsNotWritten) {
    const std::string uri = ServeRaw(PatternedBytes(MiB), {"-r"});
    Open(uri);
    EXPECT_EQ(0, m_Info.WriteCurrVmdkFile(m_Handle, 0, 1, std::string(Sector, 'w').data()));
    EXPECT_EQ(303, m_Info.GetLastErrorCode());
    EXPECT_EQ("is exported read-only", m_Info.LastErrorText());
    EXPECT_EQ(0, m_Info.CreateVmdkFile("", "", uri, m_Handle, MiB));
    EXPECT_EQ(303, m_Info.GetLastErrorCode());
}

TEST_F(NbdVMInfo, ADiskIsMadeInAnExportOfItsSize) {
    const std::string uri = ServeRaw(std::string(MiB, 'o'));
    EXPECT_EQ(1, m_Info.CreateVmdkFile("", "", uri, m_Handle, MiB));
    for (const uint64_t size : {MiB - Sector, MiB + Sector}) {
        EXPECT_EQ(0, m_Info.CreateVmdkFile("", "", uri, m_Handle, size));
        EXPECT_EQ("has 1048576 bytes, and the disk has " + std::to_string(size) + "; export one of that size",
                  m_Info.LastErrorText());
    }
}

TEST_F(NbdVMInfo, WhatCannotBeOpenedSaysWhy) {
    const struct {
        std::string name;
        const char* text;
    } rows[] = {
        {"disk.vmdk", "isn't the URI of an NBD export"},
        {"nbd+unix:///?socket=" + m_Dir.File("none"), "No such file or directory"},
        {"nbd://localhost:1/x", "Connection refused"},
        {"nbd+unix:///", "socket"},
        {"nbd://[", "parse URI"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(0, m_Info.SetCurrVmdkFile("", "", row.name, m_Handle)) << row.name;
        EXPECT_NE(std::string::npos, m_Info.LastErrorText().find(row.text)) << m_Info.LastErrorText();
    }
    ServeRaw(PatternedBytes(MiB), {"-x", "known"});
    EXPECT_EQ(0, m_Info.SetCurrVmdkFile("", "", "nbd+unix:///other?socket=" + m_Server->Socket(), m_Handle));
    EXPECT_NE(std::string::npos, m_Info.LastErrorText().find("other")) << m_Info.LastErrorText();
    Open("nbd+unix:///known?socket=" + m_Server->Socket());
}

TEST_F(NbdVMInfo, AHandleOfNoOpenDiskFails) {
    VmdkFileHandle_t handle;
    for (const uint64_t id : {uint64_t{0}, uint64_t{1}, ~uint64_t{0}}) {
        handle.id = id;
        VmdkFileInfo_t info;
        std::string name;
        std::vector<std::pair<std::string, std::string>> pairs;
        VmdkFileExtents_t extents;
        char sector[Sector] = {};
        EXPECT_EQ(0, m_Info.GetCurrVmdkFileInfo(handle, info));
        EXPECT_EQ(0, m_Info.GetCurrVmdkFileName(handle, name));
        EXPECT_EQ(0, m_Info.GetCurrVmdkFileMetaData(handle, pairs));
        EXPECT_EQ(0, m_Info.GetCurrVmdkFileExtents(handle, "", 0, extents));
        EXPECT_EQ(0, m_Info.ReadCurrVmdkFile(handle, 0, 1, sector));
        EXPECT_EQ(0, m_Info.WriteCurrVmdkFile(handle, 0, 1, sector));
        EXPECT_EQ(0, m_Info.ZeroCurrVmdkFile(handle, 0, 1));
        EXPECT_EQ(0, m_Info.FlushCurrVmdkFile(handle));
        EXPECT_EQ(EBADF, m_Info.GetLastErrorCode());
    }
}

TEST_F(NbdVMInfo, NoServerHasVirtualDiskImages) {
    xen_vdi_record record;
    std::string device;
    EXPECT_NE(0, m_Info.PrepareVDI(record));
    EXPECT_NE(0, m_Info.GetVDIRecord(record));
    EXPECT_NE(0, m_Info.CreateVDI(record, "", device));
}

TEST_F(NbdVMInfo, AnExportOfTwoTebibytesIsTooLarge) {
    SKIP_WITHOUT_PROGRAM("nbdkit");
    m_Server.emplace(std::vector<std::string>{"nbdkit", "-f", "-U", "SOCKET", "null", "size=2T"});
    ASSERT_TRUE(m_Server->Start());
    Open(m_Server->Uri());
    VmdkFileInfo_t info;
    EXPECT_EQ(0, m_Info.GetCurrVmdkFileInfo(m_Handle, info));
    EXPECT_NE(std::string::npos, m_Info.LastErrorText().find("2 TiB less a sector")) << m_Info.LastErrorText();
}

TEST_F(NbdVMInfo, AConnectionThatWasCutIsMadeAgain) {
    const std::string bytes = PatternedBytes(8 * MiB);
    Open(ServeRaw(bytes));
    EXPECT_SAME_BYTES(bytes.substr(0, 1000 * Sector), Read(0, 1000));
    EXPECT_SAME_BYTES(bytes.substr(1000 * Sector, 1000 * Sector), Read(1000, 1000)) << "and more is on its way";
    m_Server->Kill();
    std::thread later([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        m_Server->Start();
    });
    EXPECT_SAME_BYTES(bytes.substr(2000 * Sector), Read(2000, 14384));
    later.join();
    m_Server->Kill();
    EXPECT_TRUE(m_Server->Start());
    EXPECT_SAME_BYTES(bytes, Read(0, 16384)) << "going back";
}

TEST_F(NbdVMInfo, WritesGoOnOverANewConnection) {
    Open(ServeRaw(std::string(4 * MiB, 'o')));
    const std::string written = PatternedBytes(2 * MiB);
    ASSERT_EQ(1, m_Info.WriteCurrVmdkFile(m_Handle, 0, 2048, written.data()));
    m_Server->Kill();
    m_Server->Start();
    ASSERT_EQ(1, m_Info.WriteCurrVmdkFile(m_Handle, 2048, 2048, written.data() + MiB)) << m_Info.LastErrorText();
    ASSERT_EQ(1, m_Info.FlushCurrVmdkFile(m_Handle));
    EXPECT_SAME_BYTES(written + std::string(2 * MiB, 'o'), m_Dir.Read("disk.raw"));
}

TEST_F(NbdVMInfo, AServerThatStaysAwayIsAClearError) {
    CNbdVMInfo info(Impatient(300));
    const std::string uri = ServeRaw(PatternedBytes(MiB));
    ASSERT_EQ(1, info.SetCurrVmdkFile("", "", uri, m_Handle));
    m_Server->Kill();
    std::string sector(Sector, '?');
    EXPECT_EQ(0, info.ReadCurrVmdkFile(m_Handle, 0, 1, sector.data()));
    EXPECT_NE(std::string::npos, info.LastErrorText().find("the connection was lost (")) << info.LastErrorText();
    EXPECT_NE(std::string::npos, info.LastErrorText().find("couldn't be made again")) << info.LastErrorText();
}

TEST_F(NbdVMInfo, AnExportThatComesBackWithAnotherSizeIsAnotherDisk) {
    Open(ServeRaw(PatternedBytes(MiB)));
    m_Server->Kill();
    m_Dir.Write("disk.raw", PatternedBytes(2 * MiB));
    ASSERT_TRUE(m_Server->Start());
    std::string sector(Sector, '?');
    EXPECT_EQ(0, m_Info.ReadCurrVmdkFile(m_Handle, 0, 1, sector.data()));
    EXPECT_NE(std::string::npos, m_Info.LastErrorText().find("2097152 bytes after")) << m_Info.LastErrorText();
}

TEST_F(NbdVMInfo, AServerThatHangsIsNotWaitedForForever) {
    SKIP_WITHOUT_PROGRAM("nbdkit");
    CNbdVMInfo info(Impatient(300));
    const std::string uri = ServeWithNbdkit(PatternedBytes(MiB), {"delay"}, {"rdelay=60"});
    ASSERT_EQ(1, info.SetCurrVmdkFile("", "", uri, m_Handle));
    // Each new connection is taken, and then hangs again.
    std::string sector(Sector, '?');
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, info.ReadCurrVmdkFile(m_Handle, 0, 1, sector.data()));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_NE(std::string::npos, info.LastErrorText().find("doesn't answer")) << info.LastErrorText();
}

TEST_F(NbdVMInfo, AReadErrorOfTheServerIsPassedOn) {
    SKIP_WITHOUT_PROGRAM("nbdkit");
    Open(ServeWithNbdkit(PatternedBytes(2 * MiB), {"error"}, {"error-pread=EIO", "error-pread-rate=1"}));
    std::string sector(Sector, '?');
    for (uint64_t number = 0; number < 4; ++number)
        EXPECT_EQ(0, m_Info.ReadCurrVmdkFile(m_Handle, number, 1, sector.data()));
    EXPECT_EQ(EIO, m_Info.GetLastErrorCode());
    EXPECT_NE(std::string::npos, m_Info.LastErrorText().find("Input/output error")) << m_Info.LastErrorText();
}

TEST_F(NbdVMInfo, TheDoorToAllDisksMakesADiskOnOneServerFromAnother) {
    std::string bytes = PatternedBytes(4 * MiB + 3 * Sector);
    bytes.replace(MiB, MiB, MiB, '\0');
    const std::string uri = ServeRaw(bytes);
    const std::string copyFile = m_Dir.Write("copy.raw", std::string(bytes.size(), '\0'));
    CNbdServer copyServer({"qemu-nbd", "-t", "-k", "SOCKET", "-e", "4", "-f", "raw", copyFile});
    ASSERT_TRUE(copyServer.Start());

    CArchiveVirtualDiskFile source(VirtualProdType_VMware);
    source.SetVMInfo(&m_Info, "", "");
    source.SetExtentSize(256);
    ASSERT_OK(source.Open(uri.c_str(), DiskType_VMInfoDisk));
    CAutoMemory<char> metadata;
    Context_t context{};
    ASSERT_OK(source.GetFirstBlock(metadata, 0, context));
    CArchiveVirtualDiskFile target(VirtualProdType_VMware);
    target.SetVMInfo(&m_Info, "", "");
    target.SetExtentSize(256);
    Context_t targetContext{};
    ASSERT_OK(target.Create(copyServer.Uri().c_str(), DiskType_VMInfoDisk, metadata, 0, targetContext));
    CAutoMemory<char> block;
    for (uint64_t number = 0;;) {
        const CZuError error = source.GetNextBlock(block, number, context);
        if (source.IsErrorEOF(error) != 0)
            break;
        ASSERT_OK(error);
        ASSERT_OK(target.WriteBlock(block, number, targetContext));
    }
    EXPECT_SAME_BYTES(bytes, m_Dir.Read("copy.raw"));
    std::string name;
    source.GetFileName(name);
    EXPECT_EQ(uri, name);
}

TEST_F(NbdVMInfo, AnExportIsReadOverTls) {
    SKIP_WITHOUT_PROGRAM("nbdkit");
    const std::string bytes = PatternedBytes(MiB);
    m_File = m_Dir.Write("disk.raw", bytes);
    const std::string keys = m_Dir.Write("keys.psk", "reader:00112233445566778899aabbccddeeff\n");
    m_Server.emplace(
        std::vector<std::string>{"nbdkit", "-f", "--tls=require", "--tls-psk=" + keys, "-U", "SOCKET", "file", m_File});
    ASSERT_TRUE(m_Server->Start());
    EXPECT_EQ(0, m_Info.SetCurrVmdkFile("", "", m_Server->Uri(), m_Handle)) << "without TLS";
    Open("nbds+unix://reader@/?socket=" + m_Server->Socket() + "&tls-psk-file=" + keys);
    EXPECT_SAME_BYTES(bytes, Read(0, 2048));
    const std::string others = m_Dir.Write("others.psk", "reader:ffeeddccbbaa99887766554433221100\n");
    EXPECT_EQ(0, m_Info.SetCurrVmdkFile("", "",
                                        "nbds+unix://reader@/?socket=" + m_Server->Socket() + "&tls-psk-file=" + others,
                                        m_Handle));
}

TEST_F(NbdVMInfo, TheUriTellsTheExportsName) {
    const struct {
        const char* uri;
        const char* name;
    } rows[] = {
        {"nbd://host", ""},
        {"nbd://host/", ""},
        {"nbd://host:10809/disk", "disk"},
        {"nbds://user@host/a/b.qcow2", "a/b.qcow2"},
        {"nbd+unix:///disk%201?socket=/run/x", "disk 1"},
        {"nbd+unix:///?socket=/run/x", ""},
        {"nbds+unix:///%", "%"},
        {"nbd://host/%4", "%4"},
        {"disk.vmdk", ""},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.name, NbdExportName(row.uri)) << row.uri;
}

}  // namespace
