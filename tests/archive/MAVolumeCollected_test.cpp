#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "archive/MAVolume.h"
#include "tests/support/Bytes.h"
#include "tests/support/NtfsTestVolume.h"
#include "tests/support/SameBytes.h"

// A volume is collected by `CDRVolume` and its MFT is copied. `CMAVolume`, which has only that, has to tell of each
// file what the live volume tells.

namespace {

using Attribute = CNtfsAttributeBuilder;
using FileRecord = CNtfsFileRecordBuilder;
using Volume = CNtfsVolumeBuilder;

constexpr uint64_t MftRecords = 64;
constexpr uint64_t SmallFrn = 40;
constexpr uint64_t BigFrn = 41;
constexpr uint64_t SplitFrn = 42;  // with extension records 50 and 51
constexpr uint64_t FolderFrn = 43;
constexpr char VolumeId[] = "0123456789ABCDEF";

Attribute Information(uint32_t securityId) {
    NtfsStandardInformationFields_t fields;
    fields.creation = 0x01D0000000000001;
    fields.modification = 0x01D0000000000002;
    fields.recordChange = 0x01D0000000000003;
    fields.access = 0x01D0000000000004;
    fields.attributes = 0x21;
    fields.securityId = securityId;
    return Attribute::Resident(NtfsStandardInformationType, NtfsStandardInformationValue(fields)).Instance(0);
}

Attribute Name(const std::u16string& name) {
    NtfsFileNameFields_t fields;
    fields.name = name;
    return Attribute::Resident(NtfsFileNameType, NtfsFileNameValue(fields)).Instance(1);
}

NtfsListEntryFields_t EntryOf(uint64_t frn, uint64_t lowestVcn = 0) {
    NtfsListEntryFields_t entry;
    entry.reference = NtfsReference(frn, 1);
    entry.lowestVcn = lowestVcn;
    return entry;
}

Volume VolumeOfFiles() {
    const FileRecord root =
        FileRecord()
            .Directory()
            .Add(Information(300))
            .Add(Name(u"."))
            .Add(Attribute::Resident(NtfsIndexRootType,
                                     CNtfsIndexRootBuilder().Add(NtfsDirectoryEntry(9, u"$Secure")).Bytes())
                     .Name(u"$I30"));
    const FileRecord small = FileRecord()
                                 .Add(Information(300))
                                 .Add(Name(u"small n\u00E4me"))
                                 .Add(Attribute::Resident(NtfsObjectIdType, "an object's id!!").Instance(2))
                                 .Add(Attribute::Resident(NtfsDataType, "contents").Instance(3))
                                 .Add(Attribute::Resident(NtfsDataType, "more").Name(u"stream").Instance(4));
    const FileRecord big = FileRecord()
                               .Add(Information(301))
                               .Add(Name(u"big"))
                               .Add(Attribute::NonResident(NtfsDataType, {{70, 3}, {90, 1}}, 15'000).Instance(2));
    const FileRecord split = FileRecord()
                                 .Add(Information(301))
                                 .Add(Attribute::Resident(NtfsAttributeListType, NtfsListEntry(EntryOf(SplitFrn)) +
                                                                                     NtfsListEntry(EntryOf(50)) +
                                                                                     NtfsListEntry(EntryOf(51, 2))))
                                 .Add(Name(u"split"));
    const FileRecord first = FileRecord()
                                 .BaseReference(NtfsReference(SplitFrn, 1))
                                 .Add(Attribute::NonResident(NtfsDataType, {{100, 2}}, 18'000).Instance(5));
    const FileRecord second = FileRecord()
                                  .BaseReference(NtfsReference(SplitFrn, 1))
                                  .Add(Attribute::NonResident(NtfsDataType, {{110, 3}}, 0).LowestVcn(2).Instance(6));
    const FileRecord folder = FileRecord()
                                  .Directory()
                                  .Add(Information(300))
                                  .Add(Name(u"folder"))
                                  .Add(Attribute::NonResident(NtfsIndexAllocationType, {{120, 1}}, 4096).Name(u"$I30"));
    return Volume()
        .VolumeObjectId(VolumeId)
        .Cluster(70, PatternedBytes(3 * 4096, 1))
        .Cluster(90, PatternedBytes(4096, 3))
        .Cluster(100, PatternedBytes(5 * 4096, 2).substr(0, 2 * 4096))
        .Cluster(110, PatternedBytes(5 * 4096, 2).substr(2 * 4096))
        .Descriptor(300, SecurityDescriptorBytes("DO"))
        .Descriptor(301, SecurityDescriptorBytes("SDGO"))
        .Record(NtfsRootNumber, root)
        .Record(SmallFrn, small)
        .Record(BigFrn, big)
        .Record(SplitFrn, split)
        .Record(FolderFrn, folder)
        .Record(50, first)
        .Record(51, second);
}

class MAVolumeCollected : public CNtfsVolumeTest {
protected:
    void SetUp() override {
        ASSERT_EQ(NtfsOk, Open(VolumeOfFiles()));
        char root[] = "C:";
        std::string paths[] = {m_Dir.File("information"), m_Dir.File("tree"), m_Dir.File("associate"),
                               m_Dir.File("security")};
        ASSERT_EQ(NtfsOk, m_Ntfs.DumpMetadataInformation(root, paths[0].data(), paths[1].data(), paths[2].data(),
                                                         paths[3].data(), 7));
        std::string mft(MftRecords * 1024, '?');
        ASSERT_FALSE(m_Lvm
                         ->ReadVolumeData(m_Volume, Volume().MftLcn() * 4096, mft.data(),
                                          static_cast<uint32_t>(mft.size()), nullptr)
                         .IsErrorSet());
        m_Dir.Write("mft", mft);
        ASSERT_EQ(NtfsOk, m_Collected.OpenVolume(paths[0].c_str(), m_Dir.File("mft").c_str(), paths[2].c_str(),
                                                 paths[3].c_str()));
    }

    // The attributes of a file, in an order of their own, because that of extension records is open.
    static std::vector<std::string> AttributesOf(CAutoMemory<char>& record) {
        std::vector<std::string> attributes;
        for (ATTR_RECORD_HEADER_t* each = CDRFileRecord::GetFirstAttr(record.GetPtr()); each != nullptr;
             each = CDRFileRecord::GetNextAttr(each))
            attributes.emplace_back(reinterpret_cast<const char*>(each), each->Length);
        std::sort(attributes.begin(), attributes.end());
        return attributes;
    }

    struct CollectedFile_t {
        CAutoMemory<char> record;
        MA_BACKUPREAD_CONTEXT context;
    };

    int OpenCollected(uint64_t frn, CollectedFile_t& file) {
        return m_Collected.OpenFile(frn, &file.record, 1, &file.context);
    }

    std::string ResidentStreams(uint64_t frn) {
        CollectedFile_t file;
        EXPECT_EQ(NtfsOk, OpenCollected(frn, file));
        std::string bytes(100'000, '?');
        uint32_t read = 0;
        EXPECT_EQ(NtfsOk, m_Collected.BackupReadRA(&file.record, bytes.data(), 100'000, &read, &file.context));
        return bytes.substr(0, read);
    }

    // The clusters of the one attribute that isn't resident, read from the volume where they are said to lie.
    std::string DescribedBytes(uint64_t frn, uint32_t expectedType) {
        CollectedFile_t file;
        EXPECT_EQ(NtfsOk, OpenCollected(frn, file));
        CAutoMemory<char> name;
        CAutoMemory<char> extents;
        uint64_t size = 0;
        uint64_t sizeOnDisk = 0;
        uint32_t type = 0;
        uint16_t unit = 0;
        EXPECT_EQ(NtfsOk, m_Collected.BackupReadNRA(&file.record, &name, &size, &sizeOnDisk, &type, &unit, &extents,
                                                    &file.context));
        EXPECT_EQ(expectedType, type);
        const std::string block = BytesOf(extents);
        std::string bytes;
        for (size_t at = 8; at < block.size(); at += 32) {
            const uint64_t length = LittleEndianAt(block, at + 8, 8) * 4096;
            std::string run(length, '?');
            EXPECT_FALSE(m_Lvm
                             ->ReadVolumeData(m_Volume, LittleEndianAt(block, at + 16, 8) * 4096, run.data(),
                                              static_cast<uint32_t>(length), nullptr)
                             .IsErrorSet());
            bytes += run;
        }
        return bytes.substr(0, size);
    }

    std::string LiveContents(uint64_t frn) {
        File_t file;
        EXPECT_EQ(NtfsOk, OpenFile(frn, file));
        return ReadFile(file, 100'000).bytes;
    }

    CMAVolume m_Collected;
};

TEST_F(MAVolumeCollected, EveryRecordOpensHereAsItDoesThere) {
    for (uint64_t frn = 0; frn <= MftRecords; ++frn) {
        SCOPED_TRACE(frn);
        File_t live;
        CollectedFile_t collected;
        const int result = OpenFile(frn, live);
        EXPECT_EQ(result, OpenCollected(frn, collected));
        if (result == NtfsOk) {
            EXPECT_EQ(AttributesOf(live.record), AttributesOf(collected.record));
        }
    }
}

TEST_F(MAVolumeCollected, TimesAttributesAndNamesAreThoseOfTheVolume) {
    for (const uint64_t frn : {NtfsRootNumber, SmallFrn, BigFrn, SplitFrn, FolderFrn}) {
        SCOPED_TRACE(frn);
        File_t live;
        CollectedFile_t collected;
        ASSERT_EQ(NtfsOk, OpenFile(frn, live));
        ASSERT_EQ(NtfsOk, OpenCollected(frn, collected));
        uint64_t expected[3] = {};
        uint64_t found[3] = {};
        unsigned int expectedAttributes = 0;
        uint32_t attributes = 0;
        EXPECT_EQ(NtfsOk, m_Ntfs.GetFileTimeAndAttribs(&live.record, &expected[0], &expected[1], &expected[2],
                                                       &expectedAttributes));
        EXPECT_EQ(NtfsOk, m_Collected.GetFileTime(&collected.record, &found[0], &found[1], &found[2]));
        EXPECT_EQ(std::vector<uint64_t>(expected, expected + 3), std::vector<uint64_t>(found, found + 3));
        EXPECT_EQ(NtfsOk, m_Collected.GetFileAttribute(&collected.record, &attributes));
        EXPECT_EQ(expectedAttributes, attributes & ~0x10U) << "it tells a directory too";
        for (const uint32_t kind : {0U, 1U, 2U}) {
            CAutoMemory<char> expectedName;
            CAutoMemory<char> name;
            EXPECT_EQ(m_Ntfs.GetFileName(&live.record, &expectedName, kind),
                      m_Collected.GetFileName(&collected.record, &name, kind));
            EXPECT_EQ(BytesOf(expectedName), BytesOf(name));
        }
    }
}

TEST_F(MAVolumeCollected, ASmallFilesStreamsAreThoseOfTheVolume) {
    File_t live;
    ASSERT_EQ(NtfsOk, OpenFile(SmallFrn, live));
    std::string expected;
    for (std::string part = "x"; !part.empty(); expected += part)
        part = BackupRead(live, 100'000).bytes;
    const std::string found = ResidentStreams(SmallFrn);
    // The object id is the last one, and has a form of its own here: both ids in other places.
    const std::string id = "an object's id!!";
    const std::string objectId = id + VolumeId + id + std::string(16, '\0');
    const size_t at = expected.find(objectId);
    ASSERT_NE(std::string::npos, at);
    EXPECT_SAME_BYTES(expected.replace(at, 64, VolumeId + std::string(32, '\0') + id), found);
}

TEST_F(MAVolumeCollected, ABigFilesDescriptorIsHereAndItsBytesLieWhereItIsSaid) {
    CAutoMemory<char> descriptor;
    ASSERT_EQ(NtfsOk, m_Ntfs.GetSecurityInformation(301, &descriptor));
    for (const uint64_t frn : {BigFrn, SplitFrn}) {
        EXPECT_SAME_BYTES(BytesOf(descriptor), ResidentStreams(frn).substr(20));
    }
    EXPECT_SAME_BYTES(LiveContents(BigFrn), DescribedBytes(BigFrn, NtfsDataType));
    EXPECT_SAME_BYTES(PatternedBytes(5 * 4096, 2).substr(0, 18'000), DescribedBytes(SplitFrn, NtfsDataType));
    EXPECT_EQ(4096U, DescribedBytes(FolderFrn, NtfsIndexAllocationType).size());
}

}  // namespace
