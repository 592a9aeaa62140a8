#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "ntfs/DRVolume.h"
#include "tests/agent/NtfsFiles.h"
#include "tests/support/Bytes.h"
#include "tests/support/HardDisks.h"
#include "tests/support/SameBytes.h"

// The backup stream of a file as the agent gives it, and as the core does wherever the file is simple enough for it.

namespace {

using Attribute = CNtfsAttributeBuilder;
using FileRecord = CNtfsFileRecordBuilder;
using Volume = CNtfsVolumeBuilder;

constexpr uint64_t FileFrn = 40;
constexpr uint64_t Lcn = 64;
constexpr uint64_t ClusterBytes = 4096;
constexpr uint16_t SparseFlag = 0x8000;

// A stream's head with its name, which stands between ":" and ":$DATA".
std::string Head(uint32_t id, uint32_t flags, uint64_t bytes, const std::u16string& name = u"") {
    const std::u16string text = name.empty() ? u"" : u":" + name + u":$DATA";
    std::string head = LittleEndianBytes(id, 4) + LittleEndianBytes(flags, 4) + LittleEndianBytes(bytes, 8) +
                       LittleEndianBytes(text.size() * 2, 4);
    for (const char16_t character : text)
        head += LittleEndianBytes(character, 2);
    return head;
}

std::string WholeStream(uint32_t id, uint32_t flags, const std::string& data, const std::u16string& name = u"") {
    return Head(id, flags, data.size(), name) + data;
}

std::string SparseBlock(uint64_t offset, const std::string& data) {
    return Head(9, 8, data.size() + 8) + LittleEndianBytes(offset, 8) + data;
}

Attribute DataIn(const std::vector<NtfsRun_t>& runs, uint64_t bytes) {
    return Attribute::NonResident(NtfsDataType, runs, bytes);
}

Attribute ObjectId(const std::string& bytes) {
    return Attribute::Resident(NtfsObjectIdType, bytes);
}

Attribute Information(uint32_t securityId) {
    NtfsStandardInformationFields_t fields;
    fields.securityId = securityId;
    return Attribute::Resident(NtfsStandardInformationType, NtfsStandardInformationValue(fields));
}

// The file has the volume's descriptor 300.
Volume WithFile(const std::vector<Attribute>& attributes) {
    FileRecord record;
    record.Add(Information(300));
    for (const Attribute& attribute : attributes)
        record.Add(attribute);
    return Volume().Record(FileFrn, record).Descriptor(300, SecurityDescriptorBytes("DGO"));
}

const std::string SharedSecurity = WholeStream(3, 2, CanonicalDescriptorBytes("DGO"));

class NtfsBackupStream : public CNtfsFilesTest {
protected:
    // What the core gives of the file on a disk of its own.
    std::string CoreStream(const Volume& builder) {
        CLVM lvm;
        std::vector<LVM_HardDisk_t> disks = {
            FlatHardDisk(m_Dir, builder.Image(), "core" + std::to_string(m_CoreDisks++))};
        EXPECT_OK(lvm.InitializeFromDisk(disks));
        LVM_Volume_t volume = lvm.GetVolumes().at(0);
        CDRVolume ntfs;
        EXPECT_EQ(NtfsOk, ntfs.OpenVolume(&lvm, volume));
        CAutoMemory<char> record;
        READFILECONTEXT context;
        EXPECT_EQ(NtfsOk, ntfs.OpenFile(FileFrn, &record, 1, &context));
        std::string all;
        std::string buffer(1U << 20U, '?');
        int result = NtfsOk;
        while (result == NtfsOk) {
            uint32_t read = 0;
            result = ntfs.BackupRead(&record, buffer.data(), static_cast<uint32_t>(buffer.size()), &read, &context);
            all.append(buffer, 0, read);
            if (read == 0)
                break;
        }
        EXPECT_TRUE(result == NtfsOk || result == NtfsEndOfRun) << result;
        return all;
    }

    void ExpectStream(const std::string& expected, const Volume& volume) {
        Open(volume);
        EXPECT_SAME_BYTES(expected, BackupStream(FileFrn));
    }

    // Behind the descriptor.
    void ExpectBothGive(const std::string& expected, const Volume& volume) {
        ExpectStream(SharedSecurity + expected, volume);
        EXPECT_SAME_BYTES(SharedSecurity + expected, CoreStream(volume)) << "the core";
    }

    int m_CoreDisks = 0;
};

TEST_F(NtfsBackupStream, EachAttributeHasItsStream) {
    const std::string large = PatternedBytes(2 * ClusterBytes + 5);
    const struct {
        const char* name;
        std::vector<Attribute> attributes;
        std::string expected;
    } rows[] = {
        {"data", {NtfsDataOf("x")}, WholeStream(1, 0, "x")},
        {"data in clusters", {DataIn({{Lcn, 1}, {Lcn + 5, 2}}, large.size())}, WholeStream(1, 0, large)},
        {"named data", {NtfsDataOf("x").Name(u"abc")}, WholeStream(4, 0, "x", u"abc")},
        {"a link", {NtfsReparsePointOf(0xA000000C)}, WholeStream(5, 0, NtfsReparseValue(0xA000000C))},
        {"extended attributes", {Attribute::Resident(NtfsEaType, "ea")}, WholeStream(2, 0, "ea")},
        {"a property set",
         {Attribute::Resident(NtfsPropertySetType, "set").Name(u"p")},
         WholeStream(6, 4, "set", u"p")},
        {"what has no bytes", {NtfsDataOf(""), NtfsDataOf("").Name(u"abc")}, ""},
        {"what has no stream",
         {Attribute::Resident(NtfsFileNameType, std::string(70, 'n')), Attribute::Resident(NtfsBitmapType, "bits")},
         ""},
        {"a name of 255 characters",
         {NtfsDataOf("x").Name(std::u16string(255, u'\u0416'))},
         WholeStream(4, 0, "x", std::u16string(255, u'\u0416'))},
        {"all of them in their order",
         {ObjectId(std::string(64, 'i')), NtfsDataOf("x"), NtfsDataOf("y").Name(u"n"), NtfsReparsePointOf(0x42),
          Attribute::Resident(NtfsEaType, "ea"), Attribute::Resident(NtfsPropertySetType, "set")},
         WholeStream(1, 0, "x") + WholeStream(4, 0, "y", u"n") + WholeStream(7, 0, std::string(64, 'i')) +
             WholeStream(5, 0, NtfsReparseValue(0x42)) + WholeStream(2, 0, "ea") + WholeStream(6, 4, "set")},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ExpectBothGive(row.expected, WithFile(row.attributes)
                                         .Cluster(Lcn, large.substr(0, ClusterBytes))
                                         .Cluster(Lcn + 5, large.substr(ClusterBytes)));
    }
}

// --- Descriptors.

TEST_F(NtfsBackupStream, TheFilesOwnDescriptorGoesBeforeTheVolumes) {
    const std::string own = CanonicalDescriptorBytes("OGSD");
    const Volume volume = WithFile({Attribute::Resident(NtfsSecurityDescriptorType, own), NtfsDataOf("x")});
    ExpectStream(WholeStream(3, 2, own) + WholeStream(1, 0, "x"), volume);
    EXPECT_SAME_BYTES(WholeStream(3, 2, own) + WholeStream(1, 0, "x"), CoreStream(volume));
}

TEST_F(NtfsBackupStream, ADescriptorThatTheVolumeDoesNotHaveIsLeftOut) {
    ExpectStream(WholeStream(1, 0, "x"),
                 Volume().Record(FileFrn, FileRecord().Add(Information(7)).Add(NtfsDataOf("x"))));
    ExpectStream(WholeStream(1, 0, "x"), Volume().Record(FileFrn, NtfsFileOf("x")));
}

TEST_F(NtfsBackupStream, ADirectoryHasItsDescriptorAlone) {
    Open(Volume()
             .Descriptor(300, SecurityDescriptorBytes("DGO"))
             .Record(30, NtfsFolderOf({NtfsEntryOf(FileFrn, u"file")}).Add(Information(300))));
    EXPECT_SAME_BYTES(SharedSecurity, BackupStream(30));
}

// --- Object ids.

TEST_F(NtfsBackupStream, ObjectIdsHaveTheFormsOfWindows) {
    const std::string own(16, 'i');
    const std::string birthVolume(16, 'b');
    const std::string birth(16, 'o');
    const std::string domain(16, 'd');
    const std::string volumeId(16, 'V');
    const std::string zeros(16, '\0');
    const struct {
        const char* name;
        std::string stored;
        std::string expected;
    } rows[] = {
        {"the id alone", own, own + volumeId + own + zeros},
        {"with the volume of its birth", own + birthVolume, own + birthVolume + own + zeros},
        {"with its birth", own + birthVolume + birth, own + birthVolume + birth + zeros},
        {"all of it", own + birthVolume + birth + domain, own + birthVolume + birth + domain},
        {"fewer bytes than an id", own.substr(0, 9), own.substr(0, 9) + std::string(55, '\0')},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ExpectBothGive(WholeStream(7, 0, row.expected), WithFile({ObjectId(row.stored)}).VolumeObjectId(volumeId));
    }
    ExpectBothGive(WholeStream(7, 0, own + zeros + own + zeros), WithFile({ObjectId(own)}));
}

// --- Sparse streams.

TEST_F(NtfsBackupStream, SparseStreamsAreBlocksBetweenHoles) {
    const std::string a = PatternedBytes(2 * ClusterBytes, 1);
    const std::string b = PatternedBytes(ClusterBytes, 2);
    const auto sparse = [](const std::vector<NtfsRun_t>& runs, uint64_t bytes) {
        return DataIn(runs, bytes).Flags(SparseFlag);
    };
    const struct {
        const char* name;
        Attribute attribute;
        std::string expected;
    } rows[] = {
        {"a hole between data", sparse({{Lcn, 2}, {NtfsHole, 3}, {Lcn + 9, 1}}, 6 * ClusterBytes),
         Head(1, 8, 0) + SparseBlock(0, a) + SparseBlock(5 * ClusterBytes, b) + SparseBlock(6 * ClusterBytes, "")},
        {"a hole first and last", sparse({{NtfsHole, 1}, {Lcn, 2}, {NtfsHole, 1}}, 4 * ClusterBytes),
         Head(1, 8, 0) + SparseBlock(ClusterBytes, a) + SparseBlock(4 * ClusterBytes, "")},
        {"a hole alone", sparse({{NtfsHole, 5}}, 5 * ClusterBytes), Head(1, 8, 0) + SparseBlock(5 * ClusterBytes, "")},
        {"data that end in their last cluster", sparse({{NtfsHole, 1}, {Lcn, 2}}, 2 * ClusterBytes + 7),
         Head(1, 8, 0) + SparseBlock(ClusterBytes, a.substr(0, ClusterBytes + 7)) + SparseBlock(3 * ClusterBytes, "")},
        {"runs side by side", sparse({{Lcn + 9, 1}, {Lcn, 2}, {NtfsHole, 1}}, 4 * ClusterBytes),
         Head(1, 8, 0) + SparseBlock(0, b) + SparseBlock(ClusterBytes, a) + SparseBlock(4 * ClusterBytes, "")},
        {"no hole", sparse({{Lcn, 2}}, 2 * ClusterBytes), WholeStream(1, 0, a)},
        {"a name", sparse({{Lcn, 2}, {NtfsHole, 1}}, 3 * ClusterBytes).Name(u"n"),
         Head(4, 8, 0, u"n") + SparseBlock(0, a) + SparseBlock(3 * ClusterBytes, "")},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ExpectBothGive(row.expected, WithFile({row.attribute}).Cluster(Lcn, a).Cluster(Lcn + 9, b));
    }
}

TEST_F(NtfsBackupStream, BytesBehindTheInitialisedSizeOfASparseStreamAreZeros) {
    const std::string bytes = PatternedBytes(2 * ClusterBytes);
    const Attribute data = DataIn({{Lcn, 2}, {NtfsHole, 1}}, 3 * ClusterBytes).Flags(SparseFlag);
    ExpectStream(SharedSecurity + Head(1, 8, 0) +
                     SparseBlock(0, bytes.substr(0, 5000) + std::string(2 * ClusterBytes - 5000, '\0')) +
                     SparseBlock(3 * ClusterBytes, ""),
                 WithFile({Attribute(data).InitializedBytes(5000)}).Cluster(Lcn, bytes));
}

// --- What the core doesn't give.

TEST_F(NtfsBackupStream, StreamsOfSeveralSegmentsAreJoined) {
    const std::string bytes = PatternedBytes(4 * ClusterBytes - 9);
    ExpectStream(
        SharedSecurity + WholeStream(1, 0, bytes) + WholeStream(4, 0, "n", u"n"),
        WithFile({DataIn({{Lcn + 2, 2}}, 0).LowestVcn(2), DataIn({{Lcn, 2}}, bytes.size()), NtfsDataOf("n").Name(u"n")})
            .Cluster(Lcn, bytes));
}

// Their holes are what the compression saved.
TEST_F(NtfsBackupStream, CompressedStreamsAreDecodedAndNotSparse) {
    const std::string bytes = UncompressedChunk('a', "tail") + PatternedBytes(4096) + std::string(57'344, '\0');
    const std::string stored = CompressedChunk('a', "tail") + LittleEndianBytes(0x3FFF, 2) + PatternedBytes(4096);
    for (const uint16_t flags : {uint16_t{0x0001}, uint16_t{0x8001}})
        ExpectStream(SharedSecurity + WholeStream(1, 0, bytes),
                     WithFile({DataIn({{Lcn, 2}, {NtfsHole, 14}}, bytes.size()).Flags(flags).CompressionUnit(4)})
                         .Cluster(Lcn, stored));
}

TEST_F(NtfsBackupStream, EndsWhenItIsToldTo) {
    Open(WithFile({NtfsDataOf("x"), NtfsDataOf("y").Name(u"n")}));
    for (int most = 1; most < 6; ++most) {
        int pieces = 0;
        EXPECT_OK(m_Ntfs->ReadBackupStream(FileFrn, [&](const char*, uint32_t) { return ++pieces < most; }));
        EXPECT_EQ(most, pieces);
    }
}

TEST_F(NtfsBackupStream, DamageOfAnyStreamIsAFailure) {
    const struct {
        const char* name;
        Attribute attribute;
        const char* words;
    } rows[] = {
        {"an encrypted stream", NtfsDataOf("x").Name(u"e").Flags(0x4000), "is encrypted"},
        {"a gap", DataIn({{Lcn, 1}}, 5000), "byte 4096 of it"},
        {"a sparse stream that its runs don't hold", DataIn({{Lcn, 1}, {NtfsHole, 1}}, 9000).Flags(SparseFlag),
         "byte 8192 of it"},
        {"a run behind the volume", DataIn({{9999, 1}}, 50), "Volume1"},
        {"a damaged run list", DataIn({{Lcn, 1}}, 50).RunList("\x99"), "list of clusters"},
        {"an endless descriptor", Attribute::NonResident(NtfsSecurityDescriptorType, {{NtfsHole, 1000}}, 1U << 21U),
         "larger than any"},
        {"an endless object id", Attribute::NonResident(NtfsObjectIdType, {{NtfsHole, 1000}}, 1U << 21U),
         "larger than any"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Open(WithFile({row.attribute}));
        std::string bytes;
        EXPECT_FAILS_SAYING(TryBackupStream(FileFrn, bytes), "Volume1", "file record 40", row.words);
    }
}

}  // namespace
