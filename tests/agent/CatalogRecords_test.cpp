#include "agent/detail/CatalogRecords.h"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "tests/agent/CatalogFiles.h"
#include "tests/agent/SetSurgery.h"
#include "tests/support/Bytes.h"

// What the core's rules for a collection stop short at comes out of a set byte for byte all the same.

namespace {

using Attribute = CNtfsAttributeBuilder;
using FileRecord = CNtfsFileRecordBuilder;
using Volume = CNtfsVolumeBuilder;

constexpr uint64_t FileFrn = 40;
constexpr uint64_t Lcn = 64;
constexpr uint64_t ClusterBytes = 4096;

Attribute DataIn(const std::vector<NtfsRun_t>& runs, uint64_t bytes) {
    return Attribute::NonResident(NtfsDataType, runs, bytes);
}

std::string ListEntry(uint64_t frn, const std::u16string& name, uint64_t lowestVcn = 0, uint16_t instance = 0) {
    NtfsListEntryFields_t entry;
    entry.reference = NtfsReference(frn);
    entry.name = name;
    entry.lowestVcn = lowestVcn;
    entry.instance = instance;
    return NtfsListEntry(entry);
}

class CatalogRecords : public CCatalogFilesTest {};

TEST_F(CatalogRecords, GiveResidentAttributesOfAnyInstance) {
    for (const uint16_t instance : std::initializer_list<uint16_t>{0, 1, 7, 65535}) {
        SCOPED_TRACE(instance);
        BackUp(Volume().Record(FileFrn, NtfsNamedFile(u"file")
                                            .Add(NtfsDataOf("contents").Instance(instance))
                                            .Add(NtfsDataOf("a stream").Name(u"one").Instance(instance))
                                            .Add(NtfsDataOf("another").Name(u"two").Instance(instance))));
        ExpectSameFile(FileFrn);
        EXPECT_EQ("contents", CatalogStream(FileFrn));
        EXPECT_EQ("a stream", CatalogStream(FileFrn, "one"));
        EXPECT_EQ("another", CatalogStream(FileFrn, "two"));
    }
}

TEST_F(CatalogRecords, GiveAttributesInClustersOfAnyInstance) {
    const std::string first = PatternedBytes(2 * ClusterBytes - 5, 1);
    const std::string second = PatternedBytes(ClusterBytes + 9, 2);
    for (const uint16_t instance : std::initializer_list<uint16_t>{0, 3}) {
        SCOPED_TRACE(instance);
        BackUp(Volume()
                   .Record(FileFrn, NtfsNamedFile(u"file")
                                        .Add(DataIn({{Lcn, 2}}, first.size()).Instance(instance))
                                        .Add(DataIn({{Lcn + 8, 2}}, second.size()).Name(u"s").Instance(instance)))
                   .Cluster(Lcn, first)
                   .Cluster(Lcn + 8, second));
        ExpectSameFile(FileFrn);
        EXPECT_SAME_BYTES(first, CatalogStream(FileFrn));
        EXPECT_SAME_BYTES(second, CatalogStream(FileFrn, "s"));
    }
}

// Each record counts its attributes by itself.
TEST_F(CatalogRecords, GiveStreamsOfEqualInstancesInSeveralRecords) {
    const std::string list = ListEntry(41, u"") + ListEntry(42, u"one") + ListEntry(43, u"two");
    const auto extension = [](const Attribute& attribute) {
        return FileRecord().BaseReference(NtfsReference(FileFrn)).Add(attribute);
    };
    const std::string clusters = PatternedBytes(ClusterBytes + 1);
    BackUp(Volume()
               .Record(FileFrn, NtfsNamedFile(u"file").Add(Attribute::Resident(NtfsAttributeListType, list)))
               .Record(41, extension(NtfsDataOf("contents")))
               .Record(42, extension(NtfsDataOf("of the first").Name(u"one")))
               .Record(43, extension(DataIn({{Lcn, 2}}, clusters.size()).Name(u"two")))
               .Cluster(Lcn, clusters));
    ExpectSameFile(FileFrn);
    EXPECT_EQ("contents", CatalogStream(FileFrn));
    EXPECT_EQ("of the first", CatalogStream(FileFrn, "one"));
    EXPECT_SAME_BYTES(clusters, CatalogStream(FileFrn, "two"));
}

TEST_F(CatalogRecords, JoinTheSegmentsOfContentsAndOfNamedStreams) {
    for (const std::u16string name : {u"", u"named"}) {
        const std::string bytes = PatternedBytes(6 * ClusterBytes - 100, name.size() + 1);
        const std::string list = ListEntry(41, name, 0) + ListEntry(42, name, 2) + ListEntry(43, name, 4);
        Volume volume;
        volume.Record(FileFrn, NtfsNamedFile(u"file").Add(Attribute::Resident(NtfsAttributeListType, list)));
        for (uint64_t index = 0; index < 3; ++index) {
            volume.Record(41 + index, FileRecord()
                                          .BaseReference(NtfsReference(FileFrn))
                                          .Add(DataIn({{Lcn + 10 * index, 2}}, index == 0 ? bytes.size() : 0)
                                                   .Name(name)
                                                   .LowestVcn(2 * index)));
            volume.Cluster(Lcn + 10 * index, bytes.substr(2 * index * ClusterBytes, 2 * ClusterBytes));
        }
        BackUp(volume);
        ExpectSameFile(FileFrn);
        EXPECT_SAME_BYTES(bytes, CatalogStream(FileFrn, name.empty() ? "" : "named"));
    }
}

TEST_F(CatalogRecords, GiveHolesAndWhatWasNeverWrittenAsZeros) {
    const std::string bytes = PatternedBytes(2 * ClusterBytes);
    BackUp(Volume()
               .Record(FileFrn, NtfsNamedFile(u"file").Add(
                                    DataIn({{Lcn, 1}, {NtfsHole, 3}, {Lcn + 1, 1}, {Lcn + 2, 1}}, 6 * ClusterBytes)
                                        .Flags(0x8000)
                                        .InitializedBytes(4 * ClusterBytes + 100)))
               .Cluster(Lcn, bytes)
               .Cluster(Lcn + 2, bytes.substr(0, ClusterBytes)));
    ExpectSameFile(FileFrn);
    EXPECT_SAME_BYTES(bytes.substr(0, ClusterBytes) + std::string(3 * ClusterBytes, '\0') +
                          bytes.substr(ClusterBytes, 100) + std::string(2 * ClusterBytes - 100, '\0'),
                      CatalogStream(FileFrn));
}

TEST_F(CatalogRecords, GiveCompressedUnits) {
    const std::string stored = CompressedChunk('a', "tail") + CompressedChunk('b');
    BackUp(Volume()
               .Record(FileFrn, NtfsNamedFile(u"file").Add(
                                    DataIn({{Lcn, 1}, {NtfsHole, 15}}, 2 * ClusterBytes).Flags(1).CompressionUnit(4)))
               .Cluster(Lcn, stored));
    ExpectSameFile(FileFrn);
    EXPECT_SAME_BYTES(UncompressedChunk('a', "tail") + UncompressedChunk('b'), CatalogStream(FileFrn));
}

// A descriptor of that size, its list of access rights filled with what is no entry.
std::string LongDescriptor(uint32_t bytes) {
    std::string descriptor = LittleEndianBytes(0x80040001, 4) + std::string(12, '\0') + LittleEndianBytes(20, 4);
    descriptor += LittleEndianBytes(2 | (bytes - 20) << 16U, 4) + LittleEndianBytes(0, 4);
    return descriptor + PatternedBytes(bytes - descriptor.size());
}

TEST_F(CatalogRecords, GiveDescriptorsOfTheFileItself) {
    for (const uint64_t bytes : {uint64_t{100}, uint64_t{60000}, uint64_t{300} << 10U}) {
        SCOPED_TRACE(bytes);
        const std::string descriptor =
            bytes == 100 ? SecurityDescriptorBytes("OGD") : LongDescriptor(static_cast<uint32_t>(bytes));
        const uint64_t clusters = bytes / ClusterBytes + 1;
        BackUp(Volume()
                   .Record(FileFrn, NtfsNamedFile(u"file")
                                        .Add(Attribute::NonResident(NtfsSecurityDescriptorType, {{Lcn, clusters}},
                                                                    descriptor.size()))
                                        .Add(NtfsDataOf("contents")))
                   .Cluster(Lcn, descriptor));
        ExpectSameFile(FileFrn);
        EXPECT_LE(descriptor.size(), Security(FileFrn).size());
    }
}

// Both have the empty name.
TEST_F(CatalogRecords, TellAttributesInClustersApartByTheirTypes) {
    const std::string descriptor = LongDescriptor(20000);
    const std::string bytes = PatternedBytes(2 * ClusterBytes);
    BackUp(Volume()
               .Record(FileFrn, NtfsNamedFile(u"file")
                                    .Add(Attribute::NonResident(NtfsSecurityDescriptorType, {{Lcn, 5}}, 20000))
                                    .Add(DataIn({{Lcn + 8, 2}}, bytes.size())))
               .Cluster(Lcn, descriptor)
               .Cluster(Lcn + 8, bytes));
    ExpectSameFile(FileFrn);
    EXPECT_SAME_BYTES(bytes, CatalogStream(FileFrn));
}

TEST_F(CatalogRecords, GiveTheDescriptorsThatTheVolumeKeepsForAll) {
    const std::string large = LongDescriptor(60000);
    NtfsStandardInformationFields_t fields;
    fields.securityId = 300;
    Volume volume;
    volume.Descriptor(300, SecurityDescriptorBytes("DGO")).Descriptor(301, large);
    for (const uint32_t id : {300U, 301U, 777U}) {
        fields.securityId = id;
        volume.Record(FileFrn + id % 10,
                      FileRecord().Add(NtfsInformationOf(fields)).Add(NtfsNameOf(u"file")).Add(NtfsDataOf("contents")));
    }
    BackUp(volume);
    for (const uint32_t id : {300U, 301U, 777U})
        ExpectSameFile(FileFrn + id % 10);
    EXPECT_EQ(CanonicalDescriptorBytes("DGO"), Security(FileFrn));
    EXPECT_LT(50000U, Security(FileFrn + 1).size());
    EXPECT_EQ("", Security(FileFrn + 7));
}

TEST_F(CatalogRecords, RefuseWhatTheyCannotGive) {
    BackUp(Volume()
               .Record(FileFrn, NtfsNamedFile(u"file").Add(NtfsDataOf("contents").Flags(0x4000)))
               .Record(41, NtfsNamedFile(u"other").Add(DataIn({{Lcn, 1}}, 3 * ClusterBytes))));
    std::string bytes;
    EXPECT_FAILS_SAYING(TryCatalogStream(FileFrn, "", bytes), "Volume1: file record 40", "encrypted");
    EXPECT_FAILS_SAYING(TryCatalogStream(FileFrn, "none", bytes), "file record 40", "no such stream");
    EXPECT_FAILS_SAYING(TryCatalogStream(50, "", bytes), "Volume1: file record 50");
    EXPECT_FAILS_SAYING(TryCatalogStream(1000, "", bytes), "Volume1: file record 1000", "out of range");
    EXPECT_FAILS_SAYING(TryCatalogStream(~uint64_t{0}, "", bytes), "Volume1: file record");
    EXPECT_EQ("", bytes);
    EXPECT_FAILS_SAYING(TryCatalogStream(41, "", bytes), "file record 41", "byte 4096 of it");
}

TEST_F(CatalogRecords, NameTheSetWhoseCatalogueIsDamaged) {
    const Volume volume = Volume().Record(FileFrn, NtfsNamedFile(u"file").Add(NtfsDataOf("contents")));
    for (const std::string part : {"information", "associates", "security", "mft"}) {
        SCOPED_TRACE(part);
        BackUp(volume);
        CloseCatalog();
        AlterSet(m_SetPath, "UPDATE piece SET data = zeroblob(length(data)) WHERE part = (SELECT id FROM part WHERE "
                            "name = 'volume-0/" +
                                part + "')");
        OpenCatalog();
        std::string bytes;
        EXPECT_FAILS_SAYING(TryCatalogStream(FileFrn, "", bytes), m_SetPath);
        EXPECT_EQ("", bytes);
    }
}

}  // namespace
