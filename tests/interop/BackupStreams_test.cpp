#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "ntfs/DRVolume.h"
#include "ntfs/NtfsResults.h"
#include "tests/interop/NtfsComparison.h"
#include "tests/interop/NtfsMount.h"
#include "tests/support/Bytes.h"
#include "tests/support/HardDisks.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/SameBytes.h"

// Backup streams of files, taken apart by their own offsets and compared with what another driver shows of the files:
// contents, named streams, and the attributes that it gives as they lie on disk.

namespace {

namespace fs = std::filesystem;

constexpr char FillBackupOptions[] = "compression,streams_interface=windows";
constexpr char ShowBackupOptions[] = "ro,streams_interface=windows";

constexpr uint64_t IdContents = 1;
constexpr uint64_t IdExtendedAttributes = 2;
constexpr uint64_t IdSecurity = 3;
constexpr uint64_t IdNamed = 4;
constexpr uint64_t IdReparse = 5;
constexpr uint64_t IdObject = 7;
constexpr uint64_t IdSparseBlock = 9;
constexpr uint64_t SparseFlag = 8;

// A part of a backup stream.
struct BackupPart_t {
    uint64_t id = 0;
    uint64_t flags = 0;
    std::string name;          // in 16-bit characters
    std::string bytes;         // holes filled with zeros
    uint64_t storedBytes = 0;  // without holes
    uint64_t end = 0;          // of a sparse part, as its last block tells it
};

// Takes a backup stream apart. What doesn't follow its form fails the test.
class CBackupParser {
public:
    explicit CBackupParser(std::string bytes) : m_Bytes(std::move(bytes)) {}

    std::vector<BackupPart_t> Parts() {
        std::vector<BackupPart_t> parts;
        while (m_At < m_Bytes.size() && !m_IsBroken)
            parts.push_back(Part());
        return parts;
    }

private:
    BackupPart_t Part() {
        BackupPart_t part;
        part.id = Number(4);
        part.flags = Number(4);
        const uint64_t bytes = Number(8);
        part.name = Take(Number(4));
        if ((part.flags & SparseFlag) == 0) {
            part.bytes = Take(bytes);
            part.storedBytes = bytes;
            return part;
        }
        EXPECT_EQ(0U, bytes);
        while (AddBlock(part)) {}
        return part;
    }

    // False for the last block, which has no bytes.
    bool AddBlock(BackupPart_t& part) {
        EXPECT_EQ(IdSparseBlock, Number(4));
        EXPECT_EQ(SparseFlag, Number(4));
        const uint64_t bytes = Number(8) - 8;
        EXPECT_EQ(0U, Number(4));
        const uint64_t offset = Number(8);
        EXPECT_GE(offset, part.bytes.size());
        if (bytes == 0 || m_IsBroken) {
            part.end = offset;
            return false;
        }
        PutBytes(part.bytes, offset, Take(bytes));
        part.storedBytes += bytes;
        return true;
    }

    std::string Take(uint64_t size) {
        m_IsBroken = m_IsBroken || size > m_Bytes.size() - m_At;
        EXPECT_FALSE(m_IsBroken) << "the stream ends in a part of " << size << " bytes";
        const std::string taken = m_Bytes.substr(m_At, size);
        m_At += taken.size();
        return taken;
    }

    uint64_t Number(size_t width) {
        const std::string bytes = Take(width);
        return bytes.size() == width ? LittleEndianAt(bytes, 0, width) : 0;
    }

    std::string m_Bytes;
    size_t m_At = 0;
    bool m_IsBroken = false;
};

// The four parts of a security descriptor, and what its control tells of them.
struct Descriptor_t {
    explicit Descriptor_t(const std::string& bytes) {
        if (bytes.size() < 20)
            return;
        control = LittleEndianAt(bytes, 2, 2);
        owner = Sid(bytes, LittleEndianAt(bytes, 4, 4));
        group = Sid(bytes, LittleEndianAt(bytes, 8, 4));
        auditing = List(bytes, LittleEndianAt(bytes, 12, 4));
        access = List(bytes, LittleEndianAt(bytes, 16, 4));
    }

    static std::string Sid(const std::string& bytes, uint64_t at) {
        return at == 0 ? std::string() : bytes.substr(at, 8 + 4 * LittleEndianAt(bytes, at + 1, 1));
    }
    static std::string List(const std::string& bytes, uint64_t at) {
        return at == 0 ? std::string() : bytes.substr(at, LittleEndianAt(bytes, at + 2, 2));
    }

    uint64_t control = 0;
    std::string owner;
    std::string group;
    std::string auditing;
    std::string access;
};

void ExpectSameDescriptor(const std::string& expected, const std::string& actual) {
    const Descriptor_t theirs(expected);
    const Descriptor_t ours(actual);
    EXPECT_EQ(theirs.control | 0x8000U, ours.control);
    EXPECT_SAME_BYTES(theirs.owner, ours.owner);
    EXPECT_SAME_BYTES(theirs.group, ours.group);
    EXPECT_SAME_BYTES(theirs.auditing, ours.auditing);
    EXPECT_SAME_BYTES(theirs.access, ours.access);
}

// In 16-bit characters, for names of the Latin script.
std::string Wide(const std::string& text) {
    std::string wide;
    for (const char character : text)
        wide += std::string{character, '\0'};
    return wide;
}

std::string BytesOfId(const std::vector<BackupPart_t>& parts, uint64_t id) {
    const auto found =
        std::find_if(parts.begin(), parts.end(), [id](const BackupPart_t& part) { return part.id == id; });
    return found == parts.end() ? std::string() : found->bytes;
}

std::vector<BackupPart_t> PartsOf(const VolumeAt_t& at, const std::string& path) {
    return CBackupParser(OutputOf(CommandOn(at, "export-stream", Quoted("/" + path) + " -"))).Parts();
}

// The names of streams, one behind the other with a NUL behind each.
std::vector<std::string> StreamNamesOf(const std::string& path) {
    std::string list = GetAttribute(path, "ntfs.streams.list");
    std::replace(list.begin(), list.end(), '\0', '\n');
    return LinesOf(list);
}

void ExpectContents(const std::string& mounted, const std::vector<BackupPart_t>& parts) {
    struct stat facts {};
    ASSERT_EQ(0, lstat(mounted.c_str(), &facts));
    if (!S_ISREG(facts.st_mode))
        return;
    const std::string contents = ReadFileBytes(mounted);
    const auto part =
        std::find_if(parts.begin(), parts.end(), [](const BackupPart_t& each) { return each.id == IdContents; });
    ASSERT_EQ(contents.empty(), part == parts.end());
    if (contents.empty())
        return;
    std::string bytes = part->bytes;
    if ((part->flags & SparseFlag) != 0) {
        EXPECT_GE(part->end, contents.size());
        bytes.resize(contents.size(), '\0');
        EXPECT_LT(part->storedBytes, contents.size()) << "the holes are written";
    }
    EXPECT_SAME_BYTES(contents, bytes);
}

void ExpectNamedStreams(const std::string& mounted, const std::vector<BackupPart_t>& parts) {
    std::map<std::string, std::string> expected;
    for (const std::string& name : StreamNamesOf(mounted)) {
        const std::string bytes = ReadFileBytes(mounted + ":" + name);
        if (!bytes.empty())
            expected[Wide(":" + name + ":$DATA")] = bytes;
    }
    std::map<std::string, std::string> actual;
    for (const BackupPart_t& part : parts) {
        if (part.id == IdNamed)
            actual[part.name] = part.bytes;
    }
    EXPECT_TRUE(expected == actual) << expected.size() << " streams are there, " << actual.size() << " were written";
}

// An id of 16 bytes stands for the file's birth as well.
void ExpectObjectId(const std::string& mounted, const std::vector<BackupPart_t>& parts) {
    const std::string id = GetAttribute(mounted, "system.ntfs_object_id").substr(0, 16);
    const std::string bytes = BytesOfId(parts, IdObject);
    EXPECT_SAME_BYTES(id, bytes.substr(0, 16));
    EXPECT_EQ(id.empty() ? 0U : 64U, bytes.size());
}

// All that is told of a file, and nothing else.
void ExpectIsWhatIsMounted(const VolumeAt_t& at, const CNtfsMount& mount, const std::string& path) {
    SCOPED_TRACE(path);
    const std::string mounted = mount.Path(path);
    const std::vector<BackupPart_t> parts = PartsOf(at, path);
    ExpectSameDescriptor(GetAttribute(mounted, "system.ntfs_acl"), BytesOfId(parts, IdSecurity));
    ExpectContents(mounted, parts);
    ExpectNamedStreams(mounted, parts);
    ExpectObjectId(mounted, parts);
    EXPECT_SAME_BYTES(GetAttribute(mounted, "system.ntfs_reparse_data"), BytesOfId(parts, IdReparse));
    EXPECT_SAME_BYTES(GetAttribute(mounted, "system.ntfs_ea"), BytesOfId(parts, IdExtendedAttributes));
}

// Returns how many parts of each kind there were, so that a test sees whether it has compared what it means to.
std::map<uint64_t, size_t> ExpectAllAreWhatIsMounted(const VolumeAt_t& at) {
    std::map<uint64_t, size_t> counts;
    const CNtfsMount mount(at.disks[0], ShowBackupOptions);
    for (const auto& entry : fs::recursive_directory_iterator(mount.Path())) {
        const std::string path = entry.path().string().substr(mount.Path().size() + 1);
        ExpectIsWhatIsMounted(at, mount, path);
        for (const BackupPart_t& part : PartsOf(at, path))
            ++counts[part.id];
    }
    return counts;
}

// A descriptor of all four parts, in an order of its own.
std::string FourPartDescriptor() {
    const std::string everyone("\x01\x01\0\0\0\0\0\x01\0\0\0\0", 12);
    const std::string admins("\x01\x02\0\0\0\0\0\x05\x20\0\0\0\x20\x02\0\0", 16);
    const auto list = [](char kind, char flags, const std::string& sid) {
        std::string entry{kind, flags};
        entry += LittleEndianBytes(8 + sid.size(), 2) + LittleEndianBytes(0x1F01FF, 4) + sid;
        return std::string("\x02\0", 2) + LittleEndianBytes(8 + entry.size(), 2) + LittleEndianBytes(1, 4) + entry;
    };
    const std::string auditing = list(2, '\xC0', everyone);
    const std::string access = list(0, 3, admins);
    std::string bytes("\x01\0\x14\x80", 4);
    const uint64_t first = 20;
    const uint64_t offsets[] = {first + auditing.size() + access.size(),
                                first + auditing.size() + access.size() + admins.size(), first,
                                first + auditing.size()};
    for (const uint64_t offset : offsets)
        bytes += LittleEndianBytes(offset, 4);
    return bytes + auditing + access + admins + everyone;
}

// A mount point that leads to `target`.
std::string MountPoint(const std::string& target) {
    const std::string name = Wide(target);
    const std::string names = LittleEndianBytes(0, 2) + LittleEndianBytes(name.size(), 2) +
                              LittleEndianBytes(name.size() + 2, 2) + LittleEndianBytes(0, 2) + name +
                              std::string(4, '\0');
    return LittleEndianBytes(0xA0000003, 4) + LittleEndianBytes(names.size(), 2) + std::string(2, '\0') + names;
}

void AddFilesOfAllParts(const CNtfsMount& mount) {
    WriteAt(mount.Path("all"), 0, PatternedBytes(5000));
    WriteAt(mount.Path("all:short"), 0, "in the record");
    WriteAt(mount.Path("all:long"), 0, PatternedBytes(70000, 2));
    SetAttribute(mount.Path("all"), "system.ntfs_acl", FourPartDescriptor());
    SetAttribute(mount.Path("all"), "system.ntfs_object_id", "sixteen letters!");
    SetAttribute(mount.Path("all"), "system.ntfs_ea", std::string("\x10\0\0\0\0\x03\x03\0ABC\0xzz\0", 16));
    WriteAt(mount.Path("resident"), 0, "short");
    WriteAt(mount.Path("empty"), 0, "");
    WriteAt(mount.Path("large"), 0, PatternedBytes(3000001));
    fs::create_directory(mount.Path("point"));
    SetAttribute(mount.Path("point"), "system.ntfs_reparse_data", MountPoint("\\??\\C:\\elsewhere"));
    WriteAt(mount.Path("sparse"), 10000, PatternedBytes(100000));
    WriteAt(mount.Path("sparse"), 900001, PatternedBytes(5));
    fs::resize_file(mount.Path("sparse"), 2000000);
    fs::create_directory(mount.Path("small"));
    SetAttribute(mount.Path("small"), "system.ntfs_attrib_be", std::string("\0\0\x08\0", 4));
    WriteAt(mount.Path("small/compressed"), 0, std::string(300000, 'c') + PatternedBytes(50000));
}

class BackupStreams : public testing::Test {
protected:
    void MakeVolume() {
        m_At.disks = {MakeNtfsVolume(m_Dir, 32 * MiB)};
        AddFilesOfAllParts(CNtfsMount(m_At.disks[0], FillBackupOptions));
    }

    CTempDir m_Dir;
    VolumeAt_t m_At;
};

TEST_F(BackupStreams, HoldAllThatTheDriverShowsOfAFile) {
    SKIP_WITHOUT_MOUNTS();
    MakeVolume();
    const std::map<uint64_t, size_t> counts = ExpectAllAreWhatIsMounted(m_At);
    const std::map<uint64_t, size_t> expected = {
        {IdContents, 5}, {IdExtendedAttributes, 1}, {IdSecurity, 8}, {IdNamed, 2}, {IdReparse, 1}, {IdObject, 1}};
    EXPECT_EQ(expected, counts);
}

class BackupStreamsOfSamples : public testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(BackupStreamsOfSamples, HoldAllThatTheDriverShowsOfTheirFiles) {
    SKIP_WITHOUT_MOUNTS();
    const auto [name, file] = GetParam();
    const std::string archive = std::string(DISKSTREAM_SAMPLES_DIR) + "/ntfs/" + name + ".tar.xz";
    if (!fs::exists(archive))
        GTEST_SKIP() << archive << " isn't there";
    const CTempDir dir;
    ASSERT_TRUE(Runs("tar -C " + Quoted(dir.Path()) + " -xf " + Quoted(archive)));
    VolumeAt_t at;
    at.disks = {dir.File(std::string(name) + "/" + file)};
    at.type = DiskTypeFromName("raw");
    EXPECT_FALSE(ExpectAllAreWhatIsMounted(at).empty());
}

INSTANTIATE_TEST_SUITE_P(Ntfs, BackupStreamsOfSamples,
                         testing::Values(std::pair("attrlist-ads", "charlie.dd"),
                                         std::pair("links-reparse", "ntfs-links.dd"),
                                         std::pair("ea-linux", "ntfs3.raw"),
                                         std::pair("small-8m", "partition_image.raw")));

// A volume that the core itself has open.
class COpenInCore {
public:
    // The core looks for volumes in partitions, so the image becomes one.
    COpenInCore(const CTempDir& dir, const std::string& image) {
        constexpr uint32_t first = 63;
        const auto sectors = static_cast<uint32_t>(fs::file_size(image) / 512);
        std::string front = CBootRecordBuilder().Slot(0, 7, first, sectors).Bytes();
        front.resize(size_t{first} * 512);
        dir.Write("front", front);
        LVM_HardDisk_t disk;
        disk.ProductType = VirtualProdType_VMware;
        disk.Disks = {LinkOf(CVmdkDescriptorBuilder()
                                 .Extent(first, "FLAT", "front")
                                 .Extent(sectors, "FLAT", fs::path(image).filename())
                                 .WriteTo(dir, "core.vmdk"),
                             DiskType_TwoGbMaxExtentFlat)};
        std::vector<LVM_HardDisk_t> disks = {disk};
        EXPECT_OK(m_Lvm.InitializeFromDisk(disks));
        EXPECT_EQ(NtfsOk, m_Ntfs.OpenVolume(&m_Lvm, m_Lvm.GetVolumes().at(0)));
    }
    COpenInCore(const COpenInCore&) = delete;
    COpenInCore& operator=(const COpenInCore&) = delete;
    ~COpenInCore() { m_Ntfs.CloseVolume(); }

    // All that `read`, one of its two ways to read a file, delivers.
    using Read_t = int (CDRVolume::*)(CAutoMemory<char>*, char*, uint32_t, uint32_t*, READFILECONTEXT*);
    std::string ReadAll(uint64_t frn, Read_t read) {
        CAutoMemory<char> record;
        READFILECONTEXT context;
        EXPECT_EQ(NtfsOk, m_Ntfs.OpenFile(frn, &record, 1, &context));
        std::string all;
        int result = NtfsOk;
        while (result == NtfsOk) {
            std::string buffer(5000, '?');
            uint32_t got = 0;
            result = (m_Ntfs.*read)(&record, buffer.data(), static_cast<uint32_t>(buffer.size()), &got, &context);
            all.append(buffer, 0, got);
        }
        EXPECT_EQ(NtfsEndOfRun, result);
        m_Ntfs.CloseFile(&record, &context);
        return all;
    }

private:
    CLVM m_Lvm;
    CDRVolume m_Ntfs;
};

std::string BackupOf(CNtfsVolume& volume, uint64_t frn) {
    std::string all;
    EXPECT_OK(volume.ReadBackupStream(frn, [&](const char* bytes, uint32_t size) {
        all.append(bytes, size);
        return true;
    }));
    return all;
}

// The core takes the holes of a sparse file for compressed units: such files are the agent's alone.
TEST_F(BackupStreams, AreTheSameFromTheCoreForPlainFiles) {
    SKIP_WITHOUT_MOUNTS();
    MakeVolume();
    COpenNtfs agent(m_At);
    ASSERT_TRUE(agent.IsOpen());
    COpenInCore core(m_Dir, m_At.disks[0]);
    for (const char* const path : {"all", "resident", "empty", "large", "point"}) {
        SCOPED_TRACE(path);
        const uint64_t frn = agent.Find(path);
        EXPECT_SAME_BYTES(BackupOf(agent.Volume(), frn), core.ReadAll(frn, &CDRVolume::BackupRead));
        if (std::string(path) != "point") {
            EXPECT_SAME_BYTES(StreamBytes(agent.Volume(), frn), core.ReadAll(frn, &CDRVolume::ReadFile));
        }
    }
}

}  // namespace
