#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/NtfsTestVolume.h"
#include "tests/support/SameBytes.h"

// The stream of bytes in which `CDRVolume` gives out a whole file.

namespace {

using Attribute = CNtfsAttributeBuilder;
using FileRecord = CNtfsFileRecordBuilder;
using Volume = CNtfsVolumeBuilder;

constexpr uint64_t FileFrn = 40;
constexpr uint64_t Lcn = 64;
constexpr uint32_t ClusterBytes = 4096;
constexpr uint32_t SparseFlag = 8;
constexpr uint32_t StandardInformationBytes = 72;

// A stream's head with its name, which stands between ":" and ":$DATA".
std::string Head(uint32_t id, uint32_t attributes, uint64_t bytes, const std::u16string& name = u"") {
    std::string head;
    PutLe32(head, 0, id);
    PutLe32(head, 4, attributes);
    PutLe64(head, 8, bytes);
    PutLe32(head, 16, 0);
    if (name.empty())
        return head;
    PutLe32(head, 16, static_cast<uint32_t>(name.size() * 2 + 14));
    for (const char16_t character : u":" + name + u":$DATA")
        head += LittleEndianBytes(character, 2);
    return head;
}

std::string Stream(uint32_t id, uint32_t attributes, const std::string& data, const std::u16string& name = u"") {
    return Head(id, attributes, data.size(), name) + data;
}

std::string SparseBlock(uint64_t offset, const std::string& data) {
    std::string block;
    PutLe32(block, 0, 9);
    PutLe32(block, 4, SparseFlag);
    PutLe64(block, 8, data.size() + 8);
    PutLe32(block, 16, 0);
    PutLe64(block, 20, offset);
    return block + data;
}

Attribute Data(const std::string& value) {
    return Attribute::Resident(NtfsDataType, value);
}

Attribute DataIn(const std::vector<NtfsRun_t>& runs, uint64_t bytes) {
    return Attribute::NonResident(NtfsDataType, runs, bytes);
}

Attribute Sparse(const std::vector<NtfsRun_t>& runs, uint64_t bytes) {
    return DataIn(runs, bytes).Flags(0x8000);
}

Attribute Information(uint32_t securityId) {
    NtfsStandardInformationFields_t fields;
    fields.creation = 0x01D0000000000001;
    fields.securityId = securityId;
    return Attribute::Resident(NtfsStandardInformationType, NtfsStandardInformationValue(fields));
}

std::string ClusterOf(char fill) {
    return std::string(ClusterBytes, fill);
}

class DRVolumeBackupStream : public CNtfsVolumeTest {
protected:
    Volume WithFile(const std::vector<Attribute>& attributes) {
        FileRecord record;
        for (const Attribute& attribute : attributes)
            record.Add(attribute);
        return Volume().Record(FileFrn, record);
    }

    // All that calls with buffers of `size` bytes give, and the result of the last one.
    Outcome_t ReadAll(uint32_t size, int withSecurity = 1) {
        File_t file;
        EXPECT_EQ(NtfsOk, OpenFile(FileFrn, file, withSecurity));
        Outcome_t all{NtfsOk, ""};
        int idleCalls = 0;
        while (all.result == NtfsOk && idleCalls < 3) {
            const Outcome_t part = BackupRead(file, size);
            all.result = part.result;
            all.bytes += part.bytes;
            idleCalls = part.bytes.empty() ? idleCalls + 1 : 0;
        }
        return all;
    }

    void ExpectStream(const std::string& expected, uint32_t size = 100'000, int withSecurity = 1) {
        const Outcome_t all = ReadAll(size, withSecurity);
        EXPECT_EQ(NtfsEndOfRun, all.result);
        EXPECT_SAME_BYTES(expected, all.bytes);
    }

    // The stream of the file without its security.
    void ExpectPlain(const Volume& volume, const std::string& expected) {
        ASSERT_EQ(NtfsOk, Open(volume));
        ExpectStream(expected, 100'000, 0);
        ExpectStream(expected, 100, 0);
    }
};

TEST_F(DRVolumeBackupStream, ASmallFileIsItsSecurityAndItsData) {
    const std::string descriptor = CanonicalDescriptorBytes("GS");
    ASSERT_EQ(60U, descriptor.size());
    ASSERT_EQ(NtfsOk,
              Open(WithFile({Information(300), Data("0123456789")}).Descriptor(300, SecurityDescriptorBytes("SG"))));
    ExpectStream(Stream(3, 2, descriptor) + Stream(1, 0, "0123456789"));
    ExpectStream(Stream(1, 0, "0123456789"), 1000, 0);
}

TEST_F(DRVolumeBackupStream, TheEndIsASuccessAndThenTheEnd) {
    ASSERT_EQ(NtfsOk, Open(WithFile({Data("0123456789")})));
    File_t file;
    ASSERT_EQ(NtfsOk, OpenFile(FileFrn, file, 0));
    Outcome_t outcome = BackupRead(file, 1000);
    EXPECT_EQ(NtfsOk, outcome.result);
    EXPECT_EQ(30U, outcome.bytes.size());
    for (int turn = 0; turn < 3; ++turn) {
        outcome = BackupRead(file, 1000);
        EXPECT_EQ(NtfsEndOfRun, outcome.result);
        EXPECT_EQ("", outcome.bytes);
    }
}

TEST_F(DRVolumeBackupStream, ABufferFilledToTheLastByteIsFollowedByNothing) {
    ASSERT_EQ(NtfsOk, Open(WithFile({Data("0123456789")})));
    File_t file;
    ASSERT_EQ(NtfsOk, OpenFile(FileFrn, file, 0));
    EXPECT_EQ(30U, BackupRead(file, 30).bytes.size());
    const Outcome_t after = BackupRead(file, 30);
    EXPECT_EQ(NtfsOk, after.result);
    EXPECT_EQ("", after.bytes);
    EXPECT_EQ(NtfsEndOfRun, BackupRead(file, 30).result);
}

TEST_F(DRVolumeBackupStream, AFileWithoutStreamsIsItsSecurityAlone) {
    ASSERT_EQ(NtfsOk, Open(WithFile({Information(300)}).Descriptor(300, SecurityDescriptorBytes("O"))));
    ExpectStream(Stream(3, 2, CanonicalDescriptorBytes("O")));
    ExpectStream("", 1000, 0);
}

// --- What each attribute becomes.

TEST_F(DRVolumeBackupStream, EachAttributeHasItsStream) {
    const struct {
        const char* name;
        Attribute attribute;
        std::string expected;
    } rows[] = {
        {"data", Data("x"), Stream(1, 0, "x")},
        {"named data", Data("x").Name(u"abc"), Stream(4, 0, "x", u"abc")},
        {"a reparse point", Attribute::Resident(NtfsReparsePointType, "link"), Stream(5, 0, "link")},
        {"extended attributes", Attribute::Resident(NtfsEaType, "ea"), Stream(2, 0, "ea")},
        {"a property set", Attribute::Resident(NtfsPropertySetType, "set"), Stream(6, 4, "set")},
        {"a named property set", Attribute::Resident(NtfsPropertySetType, "set").Name(u"p"), Stream(6, 4, "set", u"p")},
        {"a named reparse point", Attribute::Resident(NtfsReparsePointType, "l").Name(u"n"), Stream(5, 0, "l", u"n")},
        {"the sizes of extended attributes", Attribute::Resident(NtfsEaInformationType, "info"), ""},
        {"a file's name", Attribute::Resident(NtfsFileNameType, std::string(70, 'n')), ""},
        {"an index", Attribute::Resident(NtfsIndexRootType, std::string(32, 'i')), ""},
        {"a bitmap", Attribute::Resident(NtfsBitmapType, "bits"), ""},
        {"data of no bytes", Data(""), ""},
        {"named data of no bytes", Data("").Name(u"abc"), ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ExpectPlain(WithFile({row.attribute}), row.expected);
    }
}

TEST_F(DRVolumeBackupStream, AStreamsNameIsWrittenBetweenItsSigns) {
    ASSERT_EQ(NtfsOk, Open(WithFile({Data("x").Name(u"abc")})));
    const std::string stream = ReadAll(100, 0).bytes;
    ASSERT_EQ(41U, stream.size());
    EXPECT_EQ(20U, LittleEndianAt(stream, 16, 4));
    EXPECT_EQ(std::string(":\0a\0b\0c\0:\0$\0D\0A\0T\0A\0", 20), stream.substr(20, 20));
}

TEST_F(DRVolumeBackupStream, ANameOf255CharactersIsWhole) {
    const std::u16string name(255, u'\u0416');
    ASSERT_EQ(NtfsOk, Open(WithFile({Data("x").Name(name)})));
    ExpectStream(Stream(4, 0, "x", name), 1000, 0);
    ExpectStream(Stream(4, 0, "x", name), 20 + 524, 0);
}

TEST_F(DRVolumeBackupStream, StreamsComeInOneOrderWhateverTheRecords) {
    const Attribute information = Information(300);
    std::vector<Attribute> rest = {Attribute::Resident(NtfsPropertySetType, "f"),
                                   Attribute::Resident(NtfsEaType, "e"),
                                   Data("d2").Name(u"two"),
                                   Attribute::Resident(NtfsReparsePointType, "c"),
                                   Data("d1"),
                                   Attribute::Resident(NtfsObjectIdType, std::string(64, 'o')),
                                   Data("d3").Name(u"three")};
    std::vector<Attribute> attributes = {information};
    attributes.insert(attributes.end(), rest.begin(), rest.end());
    ASSERT_EQ(NtfsOk, Open(WithFile(attributes).Descriptor(300, SecurityDescriptorBytes("O"))));
    const std::string expected = Stream(3, 2, CanonicalDescriptorBytes("O")) + Stream(4, 0, "d2", u"two") +
                                 Stream(1, 0, "d1") + Stream(4, 0, "d3", u"three") +
                                 Stream(7, 0, std::string(64, 'o')) + Stream(5, 0, "c") + Stream(2, 0, "e") +
                                 Stream(6, 4, "f");
    ExpectStream(expected);
    ExpectStream(expected, 84);
}

TEST_F(DRVolumeBackupStream, DataInClustersIsRead) {
    const std::string bytes = PatternedBytes(5000);
    Volume volume = WithFile({DataIn({{Lcn, 1}, {Lcn + 3, 1}}, 5000), Data("tail").Name(u"n")});
    volume.Cluster(Lcn, bytes.substr(0, ClusterBytes)).Cluster(Lcn + 3, bytes.substr(ClusterBytes) + "not of it");
    ExpectPlain(volume, Stream(1, 0, bytes) + Stream(4, 0, "tail", u"n"));
    ExpectStream(Stream(1, 0, bytes) + Stream(4, 0, "tail", u"n"), 4096, 0);
}

TEST_F(DRVolumeBackupStream, CompressedDataGoesOutDecompressed) {
    std::string packed;
    std::string plain;
    for (char fill = 'a'; fill < 'a' + 16; ++fill) {
        packed += CompressedChunk(fill, "tail");
        plain += UncompressedChunk(fill, "tail");
    }
    const Attribute data = DataIn({{Lcn, 1}, {NtfsHole, 15}}, plain.size()).CompressionUnit(4).Flags(1);
    ASSERT_EQ(NtfsOk, Open(WithFile({data}).Cluster(Lcn, packed)));
    ExpectStream(Stream(1, 0, plain), 100'000, 0);
}

TEST_F(DRVolumeBackupStream, EachSegmentOfSplitDataIsAStream) {
    Volume volume = WithFile(
        {DataIn({{Lcn, 1}}, 8192), DataIn({{Lcn + 1, 1}}, 100).LowestVcn(1), DataIn({{Lcn + 1, 1}}, 0).LowestVcn(2)});
    volume.Cluster(Lcn, ClusterOf('A') + ClusterOf('B'));
    ASSERT_EQ(NtfsOk, Open(volume));
    // The first tells the size of the whole; what the others say of it stands in their heads.
    ExpectStream(Head(1, 0, 8192) + ClusterOf('A') + Head(1, 0, 100) + std::string(100, 'B'), 100'000, 0);
}

TEST_F(DRVolumeBackupStream, ADirectoryHasItsSecurityAndItsNamedData) {
    Volume volume;
    volume.Record(FileFrn, FileRecord().Directory().Add(Information(300)).Add(Data("x").Name(u"n")));
    ASSERT_EQ(NtfsOk, Open(volume.Descriptor(300, SecurityDescriptorBytes("O"))));
    ExpectStream(Stream(3, 2, CanonicalDescriptorBytes("O")) + Stream(4, 0, "x", u"n"));
}

// --- Security.

TEST_F(DRVolumeBackupStream, TheRecordsOwnDescriptorGoesOutAsItIs) {
    const std::string own = SecurityDescriptorBytes("DO");
    Volume volume = WithFile({Information(300), Attribute::Resident(NtfsSecurityDescriptorType, own), Data("x")});
    ASSERT_EQ(NtfsOk, Open(volume.Descriptor(300, SecurityDescriptorBytes("OGSD"))));
    ExpectStream(Stream(3, 2, own) + Stream(1, 0, "x"));
    ExpectStream(Stream(1, 0, "x"), 1000, 0);

    volume = WithFile({Information(300), Attribute::NonResident(NtfsSecurityDescriptorType, {{Lcn, 1}}, own.size())});
    ASSERT_EQ(NtfsOk, Open(volume.Cluster(Lcn, own)));
    ExpectStream(Stream(3, 2, own));
}

TEST_F(DRVolumeBackupStream, AnEmptyDescriptorOfItsOwnIsNoStream) {
    Volume volume = WithFile({Information(300), Attribute::Resident(NtfsSecurityDescriptorType, ""), Data("x")});
    ASSERT_EQ(NtfsOk, Open(volume.Descriptor(300, SecurityDescriptorBytes("O"))));
    ExpectStream(Stream(1, 0, "x"));
}

// Callers rely on the head of the size of $STANDARD_INFORMATION without data behind it.
TEST_F(DRVolumeBackupStream, AnIdWithoutADescriptorGivesAHeadWithoutData) {
    ASSERT_EQ(NtfsOk, Open(WithFile({Information(0), Data("x")})));
    ExpectStream(Head(3, 2, StandardInformationBytes) + Stream(1, 0, "x"));
    ASSERT_EQ(NtfsOk, Open(WithFile({Information(300), Data("x")}).Root(CNtfsIndexRootBuilder())));
    ExpectStream(Head(3, 2, StandardInformationBytes) + Stream(1, 0, "x"));

    NtfsStandardInformationFields_t old;
    old.isShort = true;
    const Attribute information = Attribute::Resident(NtfsStandardInformationType, NtfsStandardInformationValue(old));
    ASSERT_EQ(NtfsOk, Open(WithFile({information, Data("x")}).Descriptor(300, SecurityDescriptorBytes("O"))));
    ExpectStream(Head(3, 2, 48) + Stream(1, 0, "x"));
}

TEST_F(DRVolumeBackupStream, AFailedLookupReachesTheCaller) {
    Volume volume = WithFile({Information(300), Data("x")});
    const auto lookingUp = [&](uint32_t length) {
        const CNtfsIndexRootBuilder root =
            CNtfsIndexRootBuilder().Add(CNtfsIndexEntryBuilder::SecurityId(300, 0, length));
        return Volume(volume).Record(9, FileRecord()
                                            .Add(volume.SecurityStream())
                                            .Add(Attribute::Resident(NtfsIndexRootType, root.Bytes()).Name(u"$SII")));
    };
    ASSERT_EQ(NtfsOk, Open(lookingUp(5)));
    EXPECT_EQ(NtfsInvalidMftRecord, ReadAll(1000).result);
    ASSERT_EQ(NtfsOk, Open(lookingUp(60)));
    m_Ntfs.FailAt(Volume::SecurityStreamByte + 20);
    EXPECT_EQ(NtfsSeeLog, ReadAll(1000).result);
    m_Ntfs.FailNowhere();
}

TEST_F(DRVolumeBackupStream, ARecordWithoutAnySecurityIsRefused) {
    ASSERT_EQ(NtfsOk, Open(WithFile({Data("x")})));
    EXPECT_EQ(NtfsInvalidParameter, ReadAll(1000).result);
    ExpectStream(Stream(1, 0, "x"), 1000, 0);
}

// --- Object ids.

TEST_F(DRVolumeBackupStream, AnObjectIdIsMadeWhole) {
    const std::string volumeId = "VVVVVVVVVVVVVVVV";
    const std::string id = "0123456789abcdef";
    const std::string second = "ABCDEFGHIJKLMNOP";
    const std::string third = "qrstuvwxyz012345";
    const std::string fourth = "QRSTUVWXYZ543210";
    const std::string zeros(16, '\0');
    const struct {
        std::string value;
        std::string expected;
    } rows[] = {
        {id, id + volumeId + id + zeros},
        {id + second, id + second + id + zeros},
        {id + second + third, id + second + third + zeros},
        {id + second + third + fourth, id + second + third + fourth},
        {id + second + third + fourth + "more", id + second + third + fourth},
        {id.substr(0, 5), id.substr(0, 5) + std::string(59, '\0')},
        {id + "x", id + "x" + std::string(47, '\0')},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.value);
        const Volume volume = WithFile({Attribute::Resident(NtfsObjectIdType, row.value), Data("x")});
        ExpectPlain(Volume(volume).VolumeObjectId(volumeId), Stream(1, 0, "x") + Stream(7, 0, row.expected));
    }
    ExpectPlain(WithFile({Attribute::Resident(NtfsObjectIdType, id)}), Stream(7, 0, id + zeros + id + zeros));
    ExpectPlain(WithFile({Attribute::Resident(NtfsObjectIdType, "")}), "");
    ExpectPlain(WithFile({Attribute::NonResident(NtfsObjectIdType, {{Lcn, 1}}, 32)}).Cluster(Lcn, id + second),
                Stream(7, 0, id + second + id + zeros));
}

// --- Encrypted attributes.

TEST_F(DRVolumeBackupStream, AnEncryptedAttributeEndsTheStream) {
    ASSERT_EQ(NtfsOk, Open(WithFile({Data("plain"), Data("secret").Name(u"s").Flags(0x4000), Data("x").Name(u"t"),
                                     Attribute::Resident(NtfsEaType, "ea")})));
    File_t file;
    ASSERT_EQ(NtfsOk, OpenFile(FileFrn, file, 0));
    Outcome_t outcome = BackupRead(file, 1000);
    EXPECT_EQ(NtfsEndOfRun, outcome.result);
    EXPECT_SAME_BYTES(Stream(1, 0, "plain"), outcome.bytes) << "what was delivered before stays";
    outcome = BackupRead(file, 1000);
    EXPECT_EQ(NtfsEndOfRun, outcome.result);
    EXPECT_EQ("", outcome.bytes);

    ASSERT_EQ(NtfsOk, Open(WithFile({Data("secret").Flags(0x4000)})));
    ExpectStream("", 1000, 0);
    ASSERT_EQ(NtfsOk, Open(WithFile({Data("").Flags(0x4000), Data("x").Name(u"t")})));
    ExpectStream(Stream(4, 0, "x", u"t"), 1000, 0);
}

// --- Sparse data.

TEST_F(DRVolumeBackupStream, SparseDataIsBlocksAndOneWithoutData) {
    const struct {
        const char* name;
        std::vector<NtfsRun_t> runs;
        uint64_t bytes;
        std::string expected;
    } rows[] = {
        {"data, hole, data",
         {{Lcn, 1}, {NtfsHole, 2}, {Lcn + 1, 1}},
         4 * ClusterBytes,
         SparseBlock(0, ClusterOf('A')) + SparseBlock(12288, ClusterOf('B')) + SparseBlock(16384, "")},
        {"a hole in front",
         {{NtfsHole, 3}, {Lcn, 2}},
         5 * ClusterBytes,
         SparseBlock(12288, ClusterOf('A') + ClusterOf('B')) + SparseBlock(20480, "")},
        {"a hole behind",
         {{Lcn, 2}, {NtfsHole, 3}},
         5 * ClusterBytes,
         SparseBlock(0, ClusterOf('A') + ClusterOf('B')) + SparseBlock(20480, "")},
        {"a hole alone", {{NtfsHole, 7}}, 7 * ClusterBytes, SparseBlock(28672, "")},
        {"runs side by side",
         {{Lcn, 1}, {Lcn + 1, 1}, {NtfsHole, 1}},
         3 * ClusterBytes,
         SparseBlock(0, ClusterOf('A')) + SparseBlock(4096, ClusterOf('B')) + SparseBlock(12288, "")},
        {"holes side by side",
         {{NtfsHole, 1}, {NtfsHole, 1}, {Lcn, 1}},
         3 * ClusterBytes,
         SparseBlock(8192, ClusterOf('A')) + SparseBlock(12288, "")},
        {"data that ends within a cluster",
         {{Lcn, 1}, {NtfsHole, 1}, {Lcn + 1, 1}},
         2 * ClusterBytes + 10,
         SparseBlock(0, ClusterOf('A')) + SparseBlock(8192, std::string(10, 'B')) + SparseBlock(12288, "")},
        {"data that ends before its clusters",
         {{NtfsHole, 1}, {Lcn, 2}, {Lcn + 5, 1}},
         2 * ClusterBytes,
         SparseBlock(4096, ClusterOf('A')) + SparseBlock(16384, "")},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Volume volume = WithFile({Sparse(row.runs, row.bytes), Data("end").Name(u"n")});
        volume.Cluster(Lcn, ClusterOf('A') + ClusterOf('B'));
        ExpectPlain(volume, Head(1, SparseFlag, 0) + row.expected + Stream(4, 0, "end", u"n"));
    }
}

TEST_F(DRVolumeBackupStream, SparseDataWithoutAHoleIsPlain) {
    ExpectPlain(WithFile({Sparse({{Lcn, 2}}, 5000)}).Cluster(Lcn, PatternedBytes(8192)),
                Stream(1, 0, PatternedBytes(8192).substr(0, 5000)));
    ExpectPlain(WithFile({Data("value").Flags(0x8000)}), Stream(1, 0, "value"));
}

TEST_F(DRVolumeBackupStream, AHoleWithoutTheFlagIsZeros) {
    ExpectPlain(WithFile({DataIn({{Lcn, 1}, {NtfsHole, 1}}, 8192)}).Cluster(Lcn, ClusterOf('A')),
                Stream(1, 0, ClusterOf('A') + std::string(ClusterBytes, '\0')));
}

TEST_F(DRVolumeBackupStream, EachSparseStreamStartsAfresh) {
    Volume volume = WithFile({Sparse({{NtfsHole, 4}, {Lcn, 1}}, 5 * ClusterBytes),
                              Sparse({{Lcn + 1, 1}, {NtfsHole, 1}}, 2 * ClusterBytes).Name(u"n"),
                              DataIn({{Lcn, 1}}, 100).Name(u"plain")});
    volume.Cluster(Lcn, ClusterOf('A') + ClusterOf('B'));
    ExpectPlain(volume, Head(1, SparseFlag, 0) + SparseBlock(16384, ClusterOf('A')) + SparseBlock(20480, "") +
                            Head(4, SparseFlag, 0, u"n") + SparseBlock(0, ClusterOf('B')) + SparseBlock(8192, "") +
                            Stream(4, 0, std::string(100, 'A'), u"plain"));
}

// Not a byte comes, and the place stays: that would go round for ever.
TEST_F(DRVolumeBackupStream, ASparseBlockThatCannotBeReadOnIsTheEnd) {
    Volume volume = WithFile({Sparse({{Lcn, 1}, {NtfsHole, 1}, {Lcn + 1, 1}}, 3 * ClusterBytes).HighestVcn(1)});
    ASSERT_EQ(NtfsOk, Open(volume.Cluster(Lcn, ClusterOf('A') + ClusterOf('B'))));
    const Outcome_t all = ReadAll(10'000, 0);
    EXPECT_EQ(NtfsEndOfRun, all.result);
    EXPECT_SAME_BYTES(Head(1, SparseFlag, 0) + SparseBlock(0, ClusterOf('A')) +
                          SparseBlock(8192, ClusterOf('B')).substr(0, 28),
                      all.bytes);
}

TEST_F(DRVolumeBackupStream, RunsOfNoClustersAreNoBlocks) {
    const std::string runs = NtfsRunBytes(1, 0, 1, 9) + NtfsRunBytes(1, 1, 1, Lcn - 9) + NtfsRunBytes(1, 0, 0, 0) +
                             NtfsRunBytes(1, 1, 0, 0) + '\0';
    ExpectPlain(WithFile({Sparse({{Lcn, 2}}, 2 * ClusterBytes).RunList(runs)}).Cluster(Lcn, ClusterOf('A')),
                Head(1, SparseFlag, 0) + SparseBlock(0, ClusterOf('A')) + SparseBlock(8192, ""));
}

// --- Calls of any size.

Volume BusyVolume() {
    Volume volume;
    volume.VolumeObjectId("VVVVVVVVVVVVVVVV").Descriptor(300, SecurityDescriptorBytes("DGSO"));
    volume.Record(
        FileFrn,
        FileRecord()
            .Add(Information(300))
            .Add(Attribute::Resident(NtfsObjectIdType, "0123456789abcdef"))
            .Add(DataIn({{Lcn, 2}, {Lcn + 5, 1}}, 9000))
            .Add(Data("small").Name(u"name"))
            .Add(Sparse({{NtfsHole, 1}, {Lcn + 2, 1}, {NtfsHole, 2}, {Lcn, 1}}, 5 * ClusterBytes - 7).Name(u"holes"))
            .Add(Attribute::NonResident(NtfsEaType, {{Lcn + 1, 1}}, 300)));
    return volume.Cluster(Lcn, PatternedBytes(size_t{6} * ClusterBytes));
}

std::string BusyStream() {
    const std::string bytes = PatternedBytes(size_t{6} * ClusterBytes);
    const auto cluster = [&bytes](size_t index) { return bytes.substr(index * ClusterBytes, ClusterBytes); };
    return Stream(3, 2, CanonicalDescriptorBytes("OGSD")) +
           Stream(1, 0, cluster(0) + cluster(1) + cluster(5).substr(0, 9000 - 8192)) + Stream(4, 0, "small", u"name") +
           Head(4, SparseFlag, 0, u"holes") + SparseBlock(4096, cluster(2)) +
           SparseBlock(16384, cluster(0).substr(0, ClusterBytes - 7)) + SparseBlock(20480, "") +
           Stream(7, 0, "0123456789abcdefVVVVVVVVVVVVVVVV0123456789abcdef" + std::string(16, '\0')) +
           Stream(2, 0, cluster(1).substr(0, 300));
}

TEST_F(DRVolumeBackupStream, TheSameBytesComeHoweverTheCallsDivideThem) {
    ASSERT_EQ(NtfsOk, Open(BusyVolume()));
    const std::string expected = BusyStream();
    const auto whole = static_cast<uint32_t>(expected.size());
    for (const uint32_t size :
         {132U, 133U, 200U, 511U, 512U, 4095U, 4096U, 4097U, 5000U, whole - 1, whole, whole + 1}) {
        SCOPED_TRACE(size);
        ExpectStream(expected, size);
    }
}

TEST_F(DRVolumeBackupStream, CallsOfChangingSizesGiveTheSameBytes) {
    ASSERT_EQ(NtfsOk, Open(BusyVolume()));
    File_t file;
    ASSERT_EQ(NtfsOk, OpenFile(FileFrn, file));
    std::string bytes;
    Outcome_t outcome{NtfsOk, ""};
    for (uint32_t call = 0; outcome.result == NtfsOk && call < 1000; ++call) {
        outcome = BackupRead(file, 132 + call * 37 % 900);
        bytes += outcome.bytes;
    }
    EXPECT_EQ(NtfsEndOfRun, outcome.result);
    EXPECT_SAME_BYTES(BusyStream(), bytes);
}

TEST_F(DRVolumeBackupStream, SeveralFilesAreReadInTurns) {
    Volume volume = BusyVolume();
    volume.Record(41, FileRecord().Add(Information(300)).Add(DataIn({{Lcn + 1, 2}}, 8000)));
    ASSERT_EQ(NtfsOk, Open(volume));
    File_t files[2];
    ASSERT_EQ(NtfsOk, OpenFile(FileFrn, files[0]));
    ASSERT_EQ(NtfsOk, OpenFile(41, files[1]));
    std::string bytes[2];
    for (int turn = 0; turn < 300; ++turn) {
        bytes[0] += BackupRead(files[0], 140).bytes;
        bytes[1] += BackupRead(files[1], 150).bytes;
    }
    EXPECT_SAME_BYTES(BusyStream(), bytes[0]);
    EXPECT_SAME_BYTES(Stream(3, 2, CanonicalDescriptorBytes("OGSD")) +
                          Stream(1, 0, PatternedBytes(size_t{6} * ClusterBytes).substr(ClusterBytes, 8000)),
                      bytes[1]);
}

TEST_F(DRVolumeBackupStream, AValueInTheRecordGoesOnBehindAClustersSize) {
    m_Ntfs.AllowClustersOf(512);
    const std::string value = PatternedBytes(700);
    ASSERT_EQ(NtfsOk, Open(WithFile({Data(value)}).SectorsPerCluster(1)));
    File_t file;
    ASSERT_EQ(NtfsOk, OpenFile(FileFrn, file, 0));
    EXPECT_SAME_BYTES(Head(1, 0, 700) + value.substr(0, 512), BackupRead(file, 532).bytes);
    EXPECT_SAME_BYTES(value.substr(512), BackupRead(file, 532).bytes);
}

// Callers rely on the place's being taken off the clipped count: what doesn't fit whole doesn't come whole.
TEST_F(DRVolumeBackupStream, ABufferTooSmallForAHeadGetsItsFrontAndThenNothing) {
    ASSERT_EQ(NtfsOk, Open(WithFile({Data("0123456789").Name(u"n")})));
    const std::string head = Head(4, 0, 10, u"n");
    ASSERT_EQ(36U, head.size());
    File_t file;
    ASSERT_EQ(NtfsOk, OpenFile(FileFrn, file, 0));
    EXPECT_SAME_BYTES(head.substr(0, 20), BackupRead(file, 20).bytes);
    for (int turn = 0; turn < 3; ++turn) {
        const Outcome_t outcome = BackupRead(file, 20);
        EXPECT_EQ(NtfsOk, outcome.result);
        EXPECT_EQ("", outcome.bytes);
    }
    EXPECT_SAME_BYTES(head.substr(20, 5), BackupRead(file, 25).bytes);
    EXPECT_SAME_BYTES(head.substr(25), BackupRead(file, 36).bytes.substr(0, 11));
}

TEST_F(DRVolumeBackupStream, ABufferOfNoBytesGetsNone) {
    ASSERT_EQ(NtfsOk, Open(WithFile({Data("0123456789")})));
    File_t file;
    ASSERT_EQ(NtfsOk, OpenFile(FileFrn, file, 0));
    for (int turn = 0; turn < 2; ++turn) {
        const Outcome_t outcome = BackupRead(file, 0);
        EXPECT_EQ(NtfsOk, outcome.result);
        EXPECT_EQ("", outcome.bytes);
    }
    EXPECT_SAME_BYTES(Stream(1, 0, "0123456789"), BackupRead(file, 100).bytes);
}

// --- Failures.

TEST_F(DRVolumeBackupStream, EveryFailedReadReachesTheCaller) {
    ASSERT_EQ(NtfsOk, Open(BusyVolume()));
    for (const uint64_t cluster : {0U, 1U, 2U, 5U}) {
        SCOPED_TRACE(cluster);
        m_Ntfs.FailAt((Lcn + cluster) * ClusterBytes + 100);
        const Outcome_t all = ReadAll(1000);
        EXPECT_EQ(NtfsSeeLog, all.result);
        EXPECT_SAME_BYTES(BusyStream().substr(0, all.bytes.size()), all.bytes);
    }
    m_Ntfs.FailNowhere();
    ExpectStream(BusyStream());
}

TEST_F(DRVolumeBackupStream, AFailedReadMayBeRepeated) {
    ASSERT_EQ(NtfsOk, Open(BusyVolume()));
    File_t file;
    ASSERT_EQ(NtfsOk, OpenFile(FileFrn, file));
    std::string bytes;
    int failures = 0;
    m_Ntfs.FailAt((Lcn + 2) * ClusterBytes + 100);
    for (int call = 0; call < 100; ++call) {
        const Outcome_t outcome = BackupRead(file, 1000);
        bytes += outcome.bytes;
        if (outcome.result == NtfsEndOfRun)
            break;
        if (outcome.result == NtfsSeeLog && ++failures == 3)
            m_Ntfs.FailNowhere();
    }
    EXPECT_EQ(3, failures);
    EXPECT_SAME_BYTES(BusyStream(), bytes);
}

TEST_F(DRVolumeBackupStream, RunsThatCannotBeDecodedAreRefused) {
    ASSERT_EQ(NtfsOk, Open(WithFile({DataIn({{Lcn, 1}}, 10).RunList("\x19\x01")})));
    EXPECT_EQ(NtfsRunTooWide, ReadAll(1000, 0).result);
    ASSERT_EQ(NtfsOk, Open(WithFile({DataIn({{Lcn, 1}}, 10).RunList(std::string(8, '\x11'))})));
    EXPECT_EQ(NtfsRecordCorrupted, ReadAll(1000, 0).result);
    ASSERT_EQ(NtfsOk, Open(WithFile({Attribute::NonResident(NtfsObjectIdType, {{Lcn, 1}}, 16).RunList("\x19\x01")})));
    EXPECT_EQ(NtfsRunTooWide, ReadAll(1000, 0).result);
}

TEST_F(DRVolumeBackupStream, NothingToReadFromOrIntoIsRefused) {
    ASSERT_EQ(NtfsOk, Open(WithFile({Data("x")})));
    File_t file;
    ASSERT_EQ(NtfsOk, OpenFile(FileFrn, file, 0));
    char buffer[100] = {};
    uint32_t read = 77;
    EXPECT_EQ(NtfsInvalidParameter, m_Ntfs.BackupRead(nullptr, buffer, 100, &read, &file.context));
    EXPECT_EQ(NtfsInvalidParameter, m_Ntfs.BackupRead(&file.record, buffer, 100, &read, nullptr));
    EXPECT_EQ(NtfsInvalidParameter, m_Ntfs.BackupRead(&file.record, buffer, 100, nullptr, &file.context));
    File_t unopened;
    EXPECT_EQ(NtfsInvalidParameter, BackupRead(unopened, 100).result);
    file.context.attrIndex = 255;
    EXPECT_EQ(NtfsEndOfRun, BackupRead(file, 100).result);
}

// --- One whole stream, byte for byte.

TEST_F(DRVolumeBackupStream, OneWholeStreamIsThisByteForByte) {
    Volume volume;
    volume.VolumeObjectId("VVVVVVVVVVVVVVVV").Descriptor(300, SecurityDescriptorBytes("G"));
    volume.Record(FileFrn, FileRecord()
                               .Add(Information(300))
                               .Add(Attribute::Resident(NtfsObjectIdType, "0123456789abcdef"))
                               .Add(Sparse({{NtfsHole, 1}, {Lcn, 1}}, ClusterBytes + 4))
                               .Add(Data("hi").Name(u"s"))
                               .Add(Attribute::Resident(NtfsReparsePointType, "link"))
                               .Add(Attribute::Resident(NtfsEaType, "ea"))
                               .Add(Attribute::Resident(NtfsPropertySetType, "set")));
    ASSERT_EQ(NtfsOk, Open(volume.Cluster(Lcn, "data behind the hole")));
    const std::vector<std::string> lines = {
        // Security: a head for 32 bytes, and a descriptor with a group of 12 bytes at 20.
        std::string("\x03\0\0\0\x02\0\0\0\x20\0\0\0\0\0\0\0\0\0\0\0", 20),
        std::string("\x01\0\0\x84\0\0\0\0\x14\0\0\0\0\0\0\0\0\0\0\0", 20),
        std::string("\x01\x01\0\0\0\0\0\x05\x12\0\0\0", 12),
        // Data: sparse, a block of 4 bytes at 4096, and the closing one at 8192.
        std::string("\x01\0\0\0\x08\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20),
        std::string("\x09\0\0\0\x08\0\0\0\x0C\0\0\0\0\0\0\0\0\0\0\0\0\x10\0\0\0\0\0\0", 28),
        "data",
        std::string("\x09\0\0\0\x08\0\0\0\x08\0\0\0\0\0\0\0\0\0\0\0\0\x20\0\0\0\0\0\0", 28),
        // Alternate data of 2 bytes, with a name of 16.
        std::string("\x04\0\0\0\0\0\0\0\x02\0\0\0\0\0\0\0\x10\0\0\0", 20),
        std::string(":\0s\0:\0$\0D\0A\0T\0A\0", 16),
        "hi",
        // The object id: 64 bytes.
        std::string("\x07\0\0\0\0\0\0\0\x40\0\0\0\0\0\0\0\0\0\0\0", 20),
        "0123456789abcdefVVVVVVVVVVVVVVVV0123456789abcdef",
        std::string(16, '\0'),
        // The reparse point, the extended attributes, the property set.
        std::string("\x05\0\0\0\0\0\0\0\x04\0\0\0\0\0\0\0\0\0\0\0", 20),
        "link",
        std::string("\x02\0\0\0\0\0\0\0\x02\0\0\0\0\0\0\0\0\0\0\0", 20),
        "ea",
        std::string("\x06\0\0\0\x04\0\0\0\x03\0\0\0\0\0\0\0\0\0\0\0", 20),
        "set",
    };
    std::string expected;
    for (const std::string& line : lines)
        expected += line;
    ExpectStream(expected);
    ExpectStream(expected, 84);
}

}  // namespace
