#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/NtfsTestVolume.h"
#include "tests/support/SameBytes.h"

// How `CDRVolume` opens a volume and finds its records.

namespace {

using Attribute = CNtfsAttributeBuilder;
using FileRecord = CNtfsFileRecordBuilder;
using Volume = CNtfsVolumeBuilder;

constexpr uint64_t ClusterBytes = 4096;
constexpr uint64_t RecordsPerCluster = 4;

class DRVolumeOpen : public CNtfsVolumeTest {
protected:
    // What the volume itself says of the record: its number, which stands in it. All ones for one that isn't read.
    uint64_t NumberOf(uint64_t frn) {
        std::string record(1024, '?');
        const int result = m_Ntfs.ReadMFTRecord(frn, record.data());
        return result == NtfsOk ? LittleEndianAt(record, 44, 4) : ~uint64_t{0};
    }

    int ReadRecord(uint64_t frn) {
        std::string record(1024, '?');
        return m_Ntfs.ReadMFTRecord(frn, record.data());
    }

    // The object id that the volume gives to files that have one of their own.
    std::string ParentObjectId(uint64_t frn) {
        File_t file;
        EXPECT_EQ(NtfsOk, OpenFile(frn, file, 0));
        const Outcome_t stream = BackupRead(file, 1000);
        EXPECT_EQ(NtfsOk, stream.result);
        return stream.bytes.size() == 84 ? stream.bytes.substr(20 + 16, 16) : "no object id";
    }

    int Lookup(uint32_t id) {
        CAutoMemory<char> descriptor;
        return m_Ntfs.GetSecurityInformation(id, &descriptor);
    }
};

TEST_F(DRVolumeOpen, AVolumeOpensWithItsFilesAndItsSecurity) {
    ASSERT_EQ(NtfsOk, Open(Volume().Descriptor(256, SecurityDescriptorBytes("OGD"))));
    File_t file;
    EXPECT_EQ(NtfsOk, OpenFile(NtfsRootNumber, file));
    EXPECT_EQ(NtfsOk, Lookup(256));
}

TEST_F(DRVolumeOpen, WhatIsNotNtfsIsRefused) {
    EXPECT_EQ(NtfsSeeLog, Open(Volume().Boot(Volume().SoundBoot().OemName("MSDOS5.0"))));
    EXPECT_TRUE(m_Ntfs.Reads().empty());
}

TEST_F(DRVolumeOpen, AVolumeWithoutAllItsDisksIsRefused) {
    Attach(Volume().Image());
    m_Volume.AllDiskFound = 0;
    EXPECT_EQ(NtfsSeeLog, m_Ntfs.OpenVolume(m_Lvm.get(), m_Volume));
}

TEST_F(DRVolumeOpen, ClustersBelow1024BytesAreRefused) {
    EXPECT_EQ(NtfsUnsupportedCluster, Open(Volume().SectorsPerCluster(1)));
    EXPECT_EQ(NtfsUnsupportedCluster, Open(Volume().Boot(Volume().SoundBoot().SectorsPerCluster(0))));
    EXPECT_EQ(NtfsUnsupportedCluster, Open(Volume().Boot(Volume().SoundBoot().BytesPerSector(127))));
    EXPECT_TRUE(m_Ntfs.Reads().empty()) << "the test comes before the MFT";
}

TEST_F(DRVolumeOpen, ClustersFrom1024BytesOnOpen) {
    for (const uint8_t sectors : std::vector<uint8_t>{2, 4, 8, 16, 32, 64, 128}) {
        SCOPED_TRACE(static_cast<unsigned>(sectors));
        Volume volume;
        volume.SectorsPerCluster(sectors).Descriptor(300, SecurityDescriptorBytes("OG"));
        ASSERT_EQ(NtfsOk, Open(volume));
        EXPECT_EQ(NtfsOk, Lookup(300));
    }
}

TEST_F(DRVolumeOpen, AClassThatAllowsThemOpensClustersOf512Bytes) {
    m_Ntfs.AllowClustersOf(512);
    Volume volume;
    volume.SectorsPerCluster(1).Descriptor(300, SecurityDescriptorBytes("OG"));
    ASSERT_EQ(NtfsOk, Open(volume));
    EXPECT_EQ(NtfsOk, Lookup(300));
}

TEST_F(DRVolumeOpen, ARecordZeroThatCannotBeUsedFailsAndClosesTheVolume) {
    const Attribute data = Attribute::NonResident(NtfsDataType, {{4, 16}}, 65536);
    const struct {
        const char* name;
        std::string record;
        int result;
    } rows[] = {
        {"zeros", "", NtfsNotInUse},
        {"another signature", FileRecord().Add(data).Signature("BAAD").Bytes(), NtfsNotInUse},
        {"a torn sector", FileRecord().Add(data).BreakSectorEnd(1).Bytes(), NtfsRecordCorrupted},
        {"no data", FileRecord().Bytes(), NtfsInvalidMftRecord},
        {"no end marker", FileRecord().Add(data).EndMarker("").Bytes(), NtfsRecordCorrupted},
        {"a run list without an end", FileRecord().Add(Attribute(data).RunList(std::string(8, '\x11'))).Bytes(),
         NtfsRecordCorrupted},
        {"a run of nine bytes", FileRecord().Add(Attribute(data).RunList("\x19" + std::string(15, '\0'))).Bytes(),
         NtfsRunTooWide},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.result, Open(Volume().Record(0, row.record)));
        EXPECT_EQ(NtfsOutOfRange, ReadRecord(0)) << "closed";
    }
}

TEST_F(DRVolumeOpen, AFlagThatARecordIsNotInUseDoesNotHoldForTheMft) {
    const Attribute data = Attribute::NonResident(NtfsDataType, {{4, 16}}, 65536);
    EXPECT_EQ(NtfsOk, Open(Volume().Record(0, FileRecord().Flags(0).Add(data))));
}

TEST_F(DRVolumeOpen, AVolumeWithoutAVolumeRecordOpensWithoutSecurity) {
    for (const std::string& record : {std::string(), FileRecord().Flags(0).Bytes()}) {
        ASSERT_EQ(NtfsOk,
                  Open(Volume().Record(NtfsVolumeNumber, record).Descriptor(256, SecurityDescriptorBytes("O"))));
        EXPECT_EQ(NtfsIndexFound, Lookup(256));
        File_t file;
        EXPECT_EQ(NtfsOk, OpenFile(NtfsRootNumber, file));
    }
}

TEST_F(DRVolumeOpen, AnotherFailureOfTheVolumeRecordIsReturnedAndLeavesTheVolumeOpen) {
    const struct {
        FileRecord record;
        int result;
    } rows[] = {
        {FileRecord().BreakSectorEnd(0), NtfsRecordCorrupted},
        {FileRecord().BaseReference(NtfsReference(5)), NtfsNotBaseRecord},
        {FileRecord().Add(Attribute::NonResident(NtfsObjectIdType, {{64, 1}}, 16).RunList("\x19\x01")), NtfsRunTooWide},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.result, Open(Volume().Record(NtfsVolumeNumber, row.record)));
        EXPECT_EQ(NtfsOk, ReadRecord(NtfsRootNumber));
        EXPECT_EQ(NtfsOk, m_Ntfs.CloseVolume());
        EXPECT_EQ(NtfsOutOfRange, ReadRecord(NtfsRootNumber));
    }
}

TEST_F(DRVolumeOpen, TheVolumesObjectIdIsReadInBothForms) {
    const std::string id = "0123456789abcdef";
    const FileRecord owner = FileRecord().Add(Attribute::Resident(NtfsObjectIdType, "FEDCBA9876543210"));
    const std::string zeros(16, '\0');
    const struct {
        const char* name;
        Volume volume;
        std::string expected;
    } rows[] = {
        {"resident", Volume().VolumeObjectId(id), id},
        {"longer", Volume().VolumeObjectId(id + id), id},
        {"shorter", Volume().VolumeObjectId(id.substr(0, 5)), id.substr(0, 5) + zeros.substr(5)},
        {"absent", Volume(), zeros},
        {"in a cluster",
         Volume()
             .Record(NtfsVolumeNumber,
                     FileRecord().Add(Attribute::NonResident(NtfsObjectIdType, {{NtfsHole, 0}, {70, 1}}, 16)))
             .Cluster(70, id),
         id},
        {"none after one", Volume().Record(NtfsVolumeNumber, ""), zeros},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(NtfsOk, Open(Volume(row.volume).Record(40, owner)));
        EXPECT_EQ(row.expected, ParentObjectId(40));
    }
}

TEST_F(DRVolumeOpen, AVolumeWithoutSecureOpensWithoutSecurity) {
    const struct {
        const char* name;
        Volume volume;
    } rows[] = {
        {"not in the root", Volume().Root(CNtfsIndexRootBuilder())},
        {"another name", Volume().Root(CNtfsIndexRootBuilder().Add(NtfsDirectoryEntry(9, u"$Secur")))},
        {"the root is no directory", Volume().Record(NtfsRootNumber, FileRecord())},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(NtfsOk, Open(Volume(row.volume).Descriptor(256, SecurityDescriptorBytes("O"))));
        CAutoMemory<char> descriptor = BufferOf("old");
        EXPECT_EQ(NtfsIndexFound, m_Ntfs.GetSecurityInformation(256, &descriptor));
        EXPECT_EQ(0U, descriptor.GetSize());
        EXPECT_EQ(NtfsOk, ReadRecord(NtfsRootNumber));
    }
}

TEST_F(DRVolumeOpen, AnotherFailureOfSecureIsReturned) {
    const Attribute stream = Volume().SecurityStream();
    const auto rootOf = [](const std::string& value) {
        return Attribute::Resident(NtfsIndexRootType, value).Name(u"$SII");
    };
    const struct {
        const char* name;
        Volume volume;
        int result;
    } rows[] = {
        {"the root has no index", Volume().Record(NtfsRootNumber, FileRecord().Directory()), NtfsNotAnIndex},
        {"the root isn't in the order of names", Volume().Root(CNtfsIndexRootBuilder().Collation(0)),
         NtfsWrongCollation},
        {"the root isn't in use", Volume().Record(NtfsRootNumber, FileRecord().Flags(2)), NtfsNotInUse},
        {"not in use", Volume().Record(9, FileRecord().Flags(0)), NtfsNotInUse},
        {"torn", Volume().Record(9, FileRecord().BreakSectorEnd(1)), NtfsRecordCorrupted},
        {"behind the MFT", Volume().Root(CNtfsIndexRootBuilder().Add(NtfsDirectoryEntry(64, u"$Secure"))),
         NtfsOutOfRange},
        {"no index", Volume().Record(9, FileRecord().Add(stream)), NtfsInvalidMftRecord},
        {"an index without a name", Volume().Record(9, FileRecord().Add(Volume().SecurityIndexRoot().Name(u""))),
         NtfsInvalidMftRecord},
        {"another index", Volume().Record(9, FileRecord().Add(Volume().SecurityIndexRoot().Name(u"$SDH"))),
         NtfsInvalidMftRecord},
        {"a longer name", Volume().Record(9, FileRecord().Add(Volume().SecurityIndexRoot().Name(u"$SIIX"))),
         NtfsInvalidMftRecord},
        {"a block above all memory",
         Volume().Record(9, FileRecord().Add(rootOf(CNtfsIndexRootBuilder().BlockBytes(0xFFFFFFFF).Bytes()))),
         NtfsOutOfMemory},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.result, Open(row.volume));
        EXPECT_EQ(NtfsOk, ReadRecord(NtfsRootNumber)) << "still open";
        m_Ntfs.CloseVolume();
    }
}

// Callers rely on the comparison over the attribute's own length.
TEST_F(DRVolumeOpen, ANameThatSiiBeginsWithIsTaken) {
    for (const char16_t* const name : {u"$", u"$S", u"$SI", u"$SII"}) {
        Volume volume;
        volume.Descriptor(256, SecurityDescriptorBytes("O"));
        volume.Record(9, FileRecord()
                             .Add(volume.SecurityStream())
                             .Add(volume.SecurityIndexRoot().Name(u"$SDH"))
                             .Add(volume.SecurityIndexRoot().Name(name)));
        ASSERT_EQ(NtfsOk, Open(volume));
        EXPECT_EQ(NtfsOk, Lookup(256));
    }
}

TEST_F(DRVolumeOpen, AnIndexThatClaimsALargeBlockTakesNoMoreThanItHas) {
    Volume volume;
    const std::string root = CNtfsIndexRootBuilder().BlockBytes(1U << 30U).Bytes();
    volume.Record(9, FileRecord().Add(Attribute::Resident(NtfsIndexRootType, root).Name(u"$SII")));
    ASSERT_EQ(NtfsOk, Open(volume));
    EXPECT_EQ(NtfsIndexNotFound, Lookup(256));
}

TEST_F(DRVolumeOpen, ReadsOnAClosedObjectAreOutOfRange) {
    const auto expectClosed = [this] {
        File_t file;
        EXPECT_EQ(NtfsOutOfRange, OpenFile(5, file));
        EXPECT_EQ(NtfsOutOfRange, ReadRecord(0));
        wchar_t path[] = L"\\x";
        uint64_t frn = 0;
        EXPECT_EQ(NtfsOutOfRange, m_Ntfs.CrackFileName(path, &frn));
        EXPECT_EQ(NtfsIndexFound, Lookup(256));
    };
    expectClosed();
    ASSERT_EQ(NtfsOk, Open(Volume()));
    EXPECT_EQ(NtfsOk, m_Ntfs.CloseVolume());
    expectClosed();
    EXPECT_EQ(NtfsOk, m_Ntfs.CloseVolume());
}

TEST_F(DRVolumeOpen, OpeningAgainForgetsTheVolumeBefore) {
    ASSERT_EQ(NtfsOk, Open(Volume().Descriptor(256, SecurityDescriptorBytes("O"))));
    ASSERT_EQ(NtfsOk, Lookup(256));
    Attach(Volume().Root(CNtfsIndexRootBuilder()).Image());
    ASSERT_EQ(NtfsOk, m_Ntfs.OpenVolume(m_Lvm.get(), m_Volume));
    EXPECT_EQ(NtfsIndexFound, Lookup(256));
    ASSERT_EQ(NtfsOk, m_Ntfs.OpenVolume(m_Lvm.get(), m_Volume)) << "without a CloseVolume before";
    m_Volume.AllDiskFound = 0;
    EXPECT_EQ(NtfsSeeLog, m_Ntfs.OpenVolume(m_Lvm.get(), m_Volume));
    EXPECT_EQ(NtfsOutOfRange, ReadRecord(0));
}

TEST_F(DRVolumeOpen, TheVolumeIsCopied) {
    Attach(Volume().Record(30, FileRecord().RecordNumber(30)).Image());
    {
        LVM_Volume_t volume = m_Volume;
        ASSERT_EQ(NtfsOk, m_Ntfs.OpenVolume(m_Lvm.get(), volume));
        volume.AllDiskFound = 0;
    }
    EXPECT_EQ(30U, NumberOf(30));
}

// Each piece of the volume in turn can't be read: the cause is in the log then, or the piece wasn't needed.
TEST_F(DRVolumeOpen, AFailedReadReachesTheCaller) {
    Attach(Volume().Descriptor(256, SecurityDescriptorBytes("O")).Image());
    const uint64_t mft = Volume().MftLcn() * ClusterBytes;
    std::set<uint64_t> needed;
    for (uint64_t piece = 0; piece < Volume::FreeByte; piece += 1024) {
        m_Ntfs.FailAt(piece + 1000);
        const int result = m_Ntfs.OpenVolume(m_Lvm.get(), m_Volume);
        EXPECT_TRUE(result == NtfsOk || result == NtfsSeeLog) << result;
        if (result != NtfsOk)
            needed.insert((piece - mft) / 1024);
        m_Ntfs.CloseVolume();
    }
    EXPECT_EQ((std::set<uint64_t>{0, 3, 5, 9}), needed);
}

int CountQuestions(int count, void* counter, void* flag) {
    *static_cast<int*>(counter) += count;
    *static_cast<char*>(flag) = 1;
    return 0;
}

TEST_F(DRVolumeOpen, NobodyIsAskedWhetherToStop) {
    int questions = 0;
    CDRVolume::SetQuitFlagCallback(CountQuestions, 1, &questions);
    EXPECT_EQ(NtfsOk, Open(Volume()));
    File_t file;
    EXPECT_EQ(NtfsOk, OpenFile(NtfsRootNumber, file));
    CDRVolume::SetQuitFlagCallback(nullptr, 0, nullptr);
    EXPECT_EQ(0, questions);
}

// --- The MFT in several places.

class DRVolumeMft : public DRVolumeOpen {
protected:
    static constexpr uint64_t Count = 48;

    // Three stretches of 16 records, the second one in two runs. $MFT holds the first stretch, the record 12 tells of
    // the second and the record 20, which lies in the second, of the third.
    static Volume Split(const std::vector<NtfsListEntryFields_t>& entries) {
        const std::vector<NtfsRun_t> first = {{4, 4}};
        const std::vector<NtfsRun_t> second = {{90, 1}, {70, 3}};
        const std::vector<NtfsRun_t> third = {{80, 4}};
        std::string list;
        for (const NtfsListEntryFields_t& entry : entries)
            list += NtfsListEntry(entry);
        Volume volume;
        volume.MftRuns({first[0], second[0], second[1], third[0]});
        for (uint64_t frn = 0; frn < Count; ++frn)
            volume.Record(frn, FileRecord().RecordNumber(static_cast<uint32_t>(frn)).Flags(0));
        volume.Record(0, FileRecord()
                             .Add(Attribute::Resident(NtfsAttributeListType, list))
                             .Add(Attribute::NonResident(NtfsDataType, first, Count * 1024)));
        volume.Record(12, ExtensionWith(12, Attribute::NonResident(NtfsDataType, second, 0).LowestVcn(4)));
        volume.Record(20, ExtensionWith(20, Attribute::NonResident(NtfsDataType, third, 0).LowestVcn(8)));
        return volume;
    }

    static FileRecord ExtensionWith(uint32_t number, const Attribute& attribute) {
        return FileRecord().RecordNumber(number).BaseReference(NtfsReference(0)).Add(attribute);
    }

    static NtfsListEntryFields_t Entry(uint64_t frn, uint64_t lowestVcn, uint32_t type = NtfsDataType) {
        NtfsListEntryFields_t entry;
        entry.type = type;
        entry.reference = NtfsReference(frn, 0x1234);
        entry.lowestVcn = lowestVcn;
        return entry;
    }

    static std::vector<NtfsListEntryFields_t> SoundEntries() {
        return {Entry(0, 0, NtfsStandardInformationType), Entry(0, 0), Entry(12, 4), Entry(20, 8)};
    }

    // How many records, from 0 on, are those that they should be.
    uint64_t RightRecords() {
        uint64_t frn = 1;
        while (frn < Count && NumberOf(frn) == frn)
            ++frn;
        return frn;
    }
};

TEST_F(DRVolumeMft, ItsSegmentsAreFoundInAnyOrderOfTheList) {
    std::vector<size_t> order = {0, 1, 2, 3};
    const std::vector<NtfsListEntryFields_t> sound = SoundEntries();
    do {
        std::vector<NtfsListEntryFields_t> entries;
        for (const size_t index : order)
            entries.push_back(sound[index]);
        ASSERT_EQ(NtfsOk, Open(Split(entries)));
        EXPECT_EQ(Count, RightRecords());
        EXPECT_EQ(NtfsOutOfRange, ReadRecord(Count));
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(DRVolumeMft, TheListMayLieInClusters) {
    std::string list;
    for (const NtfsListEntryFields_t& entry : SoundEntries())
        list += NtfsListEntry(entry);
    Volume volume = Split({});
    volume.Record(0, FileRecord()
                         .Add(Attribute::NonResident(NtfsAttributeListType, {{100, 1}}, list.size()))
                         .Add(Attribute::NonResident(NtfsDataType, {{4, 4}}, Count * 1024)));
    volume.Cluster(100, list);
    ASSERT_EQ(NtfsOk, Open(volume));
    EXPECT_EQ(Count, RightRecords());
}

TEST_F(DRVolumeMft, RecordsBehindTheSegmentsThatTheListTellsAreOutOfRange) {
    const std::vector<NtfsListEntryFields_t> sound = SoundEntries();
    ASSERT_EQ(NtfsOk, Open(Split({sound[1], sound[2]})));
    EXPECT_EQ(32U, RightRecords());
    EXPECT_EQ(NtfsOutOfRange, ReadRecord(32));

    ASSERT_EQ(NtfsOk, Open(Split({sound[1], sound[3], Entry(12, 4, NtfsIndexRootType)}))) << "none begins at 4";
    EXPECT_EQ(16U, RightRecords());
}

TEST_F(DRVolumeMft, AnEntryTooShortForItsFieldsEndsTheList) {
    for (const uint16_t length : std::vector<uint16_t>{0, 1, 25}) {
        std::vector<NtfsListEntryFields_t> entries = SoundEntries();
        entries[3].length = length;
        ASSERT_EQ(NtfsOk, Open(Split(entries)));
        EXPECT_EQ(32U, RightRecords());
        entries = {SoundEntries()[2], SoundEntries()[1], SoundEntries()[3]};
        entries[1].length = length;
        ASSERT_EQ(NtfsOk, Open(Split(entries)));
        EXPECT_EQ(32U, RightRecords());
    }
}

TEST_F(DRVolumeMft, ASegmentThatLeadsBackEndsTheSearch) {
    for (const uint64_t highest : {uint64_t{3}, uint64_t{0}, ~uint64_t{0}}) {
        Volume volume = Split(SoundEntries());
        volume.Record(
            12, ExtensionWith(
                    12, Attribute::NonResident(NtfsDataType, {{90, 1}, {70, 3}}, 0).LowestVcn(4).HighestVcn(highest)));
        ASSERT_EQ(NtfsOk, Open(volume));
        EXPECT_EQ(32U, RightRecords());
    }
}

TEST_F(DRVolumeMft, AnExtensionRecordThatCannotBeUsedFailsAndClosesTheVolume) {
    const Attribute segment = Attribute::NonResident(NtfsDataType, {{90, 1}, {70, 3}}, 0).LowestVcn(4);
    const struct {
        const char* name;
        Volume volume;
        int result;
    } rows[] = {
        {"no data", Split(SoundEntries()).Record(12, FileRecord()), NtfsRecordCorrupted},
        {"zeros", Split(SoundEntries()).Record(12, ""), NtfsNotInUse},
        {"torn", Split(SoundEntries()).Record(12, ExtensionWith(12, segment).BreakSectorEnd(0)), NtfsRecordCorrupted},
        {"in a segment not known yet", Split({Entry(17, 4)}), NtfsOutOfRange},
        {"behind the end", Split({Entry(Count, 4)}), NtfsOutOfRange},
        {"a run of nine bytes", Split(SoundEntries()).Record(12, ExtensionWith(12, Attribute(segment).RunList("\x91"))),
         NtfsRunTooWide},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.result, Open(row.volume));
        EXPECT_EQ(NtfsOutOfRange, ReadRecord(0));
    }
}

TEST_F(DRVolumeMft, AListAboveAllMemoryIsOutOfMemory) {
    Volume volume = Split({});
    volume.Record(0,
                  FileRecord()
                      .Add(Attribute::NonResident(NtfsAttributeListType, {{NtfsHole, 1U << 20U}}, uint64_t{1} << 32U))
                      .Add(Attribute::NonResident(NtfsDataType, {{4, 4}}, Count * 1024)));
    EXPECT_EQ(NtfsOutOfMemory, Open(volume));
}

TEST_F(DRVolumeMft, ARecordOfALaterRunIsCountedFromThatRun) {
    Volume volume;
    volume.MftRuns({{4, 3}, {100, 1}, {90, 5}, {70, 4}});
    for (uint32_t frn = 10; frn < 52; ++frn)
        volume.Record(frn, FileRecord().RecordNumber(frn));
    ASSERT_EQ(NtfsOk, Open(volume));
    const struct {
        uint64_t frn;
        uint64_t cluster;
        uint64_t place;
    } rows[] = {{11, 6, 3}, {12, 100, 0}, {15, 100, 3}, {16, 90, 0}, {35, 94, 3}, {36, 70, 0}, {51, 73, 3}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.frn);
        EXPECT_EQ(row.frn, NumberOf(row.frn));
        m_Ntfs.FailAt((row.cluster * RecordsPerCluster + row.place) * 1024);
        ASSERT_EQ(NtfsOk, m_Ntfs.OpenVolume(m_Lvm.get(), m_Volume));
        EXPECT_EQ(NtfsSeeLog, ReadRecord(row.frn));
        EXPECT_EQ(row.frn - 1, NumberOf(row.frn - 1));
        m_Ntfs.FailNowhere();
    }
}

TEST_F(DRVolumeMft, TheMftsEndIsThatOfItsDataAndOfItsRuns) {
    const auto mft = [](uint64_t bytes) {
        return Volume().Record(0, FileRecord().Add(Attribute::NonResident(NtfsDataType, {{4, 16}}, bytes)));
    };
    const struct {
        uint64_t bytes;
        uint64_t records;
    } rows[] = {{65536, 64}, {65535, 64}, {64513, 64}, {64512, 63}, {uint64_t{1} << 60U, 64}, {~uint64_t{0}, 64}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.bytes);
        ASSERT_EQ(NtfsOk, Open(mft(row.bytes)));
        EXPECT_EQ(NtfsOk, ReadRecord(row.records - 1));
        for (const uint64_t frn : {row.records, row.records + 1, uint64_t{1} << 47U, uint64_t{1} << 54U, ~uint64_t{0}})
            EXPECT_EQ(NtfsOutOfRange, ReadRecord(frn)) << frn;
    }
}

TEST_F(DRVolumeMft, ARunThatHoldsNoWholeRecordIsPassedOver) {
    // Records of four clusters: the first run has room for one, the second for none, the third for two.
    Volume volume;
    volume.SectorsPerCluster(2).Boot(Volume().SectorsPerCluster(2).SoundBoot().ClustersPerRecord(4));
    const uint64_t mft = volume.MftLcn();
    const std::string record =
        FileRecord()
            .RecordBytes(4096)
            .Add(Attribute::NonResident(NtfsDataType, {{mft, 6}, {300, 3}, {400, 8}}, uint64_t{17} * 1024))
            .Bytes();
    volume.Cluster(mft, record).Cluster(400, std::string(4096, 'B') + std::string(4096, 'C'));
    EXPECT_EQ(NtfsOutOfRange, Open(volume)) << "no record 3";
    std::string bytes(4096, '?');
    EXPECT_EQ(NtfsOk, m_Ntfs.ReadMFTRecord(0, bytes.data()));
    EXPECT_SAME_BYTES(record, bytes);
    EXPECT_EQ(NtfsOk, m_Ntfs.ReadMFTRecord(1, bytes.data()));
    EXPECT_SAME_BYTES(std::string(4096, 'B'), bytes);
    EXPECT_EQ(NtfsOk, m_Ntfs.ReadMFTRecord(2, bytes.data()));
    EXPECT_SAME_BYTES(std::string(4096, 'C'), bytes);
    EXPECT_EQ(NtfsOutOfRange, m_Ntfs.ReadMFTRecord(3, bytes.data()));
}

TEST_F(DRVolumeMft, AHoleInItHasItsPlaceInTheCountOfRecords) {
    ASSERT_EQ(NtfsOk, Open(Volume()
                               .Record(0, FileRecord().Add(Attribute::NonResident(
                                              NtfsDataType, {{4, 16}, {NtfsHole, 4}, {50, 1}}, 21 * ClusterBytes)))
                               .Cluster(50, FileRecord().RecordNumber(80).Bytes())));
    EXPECT_EQ(NtfsSeeLog, ReadRecord(64)) << "no cluster of the volume";
    EXPECT_EQ(80U, NumberOf(80));
}

TEST_F(DRVolumeMft, RunsOfNoClustersHoldNoRecord) {
    const std::string runs = NtfsRunBytes(1, 0, 1, 90) + NtfsRunBytes(1, 16, 1, 4 - 90) + std::string(1, '\0');
    const Attribute data = Attribute::NonResident(NtfsDataType, {{4, 16}}, 65536).RunList(runs);
    ASSERT_EQ(NtfsOk, Open(Volume().Record(0, FileRecord().Add(data)).Record(40, FileRecord().RecordNumber(40))));
    EXPECT_EQ(40U, NumberOf(40));
    EXPECT_EQ(NtfsOutOfRange, ReadRecord(64));
}

TEST_F(DRVolumeMft, ARecordSizeThatCannotBeIsRefused) {
    const struct {
        uint32_t value;
        int result;
    } rows[] = {
        {0, NtfsNotInUse},            // no bytes
        {0xE0, NtfsNotInUse},         // 1 byte
        {0xFF, NtfsNotInUse},         // 2 bytes
        {0xFA, NtfsRecordCorrupted},  // 64 bytes, fewer than its sectors' ends need
        {0xE1, NtfsSeeLog},           // 2 GiB
        {0xFFFFFFF6, NtfsSeeLog},     // nearly 4 GiB
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.value);
        Volume volume;
        volume.Boot(volume.SoundBoot().ClustersPerRecord(row.value));
        EXPECT_EQ(row.result, Open(volume));
        char byte = 0;
        EXPECT_EQ(NtfsOutOfRange, m_Ntfs.ReadMFTRecord(0, &byte)) << "closed";
    }
}

TEST_F(DRVolumeMft, AnMftBehindTheVolumesEndIsAFailedRead) {
    for (const uint64_t cluster : {uint64_t{512}, uint64_t{1} << 40U, uint64_t{1} << 52U, ~uint64_t{0}}) {
        Volume volume;
        volume.Boot(volume.SoundBoot().MftCluster(cluster));
        const int result = Open(volume);
        // A place that wraps may lie in the volume again.
        EXPECT_TRUE(result == NtfsSeeLog || result == NtfsNotInUse) << result;
    }
}

// --- Volumes that lie on several disks.

constexpr uint64_t VolumeSectors = 4096;

LVM_Component_t PieceOf(uint32_t disk, uint64_t diskLba, uint64_t volumeLba, uint64_t sectors) {
    LVM_Component_t component;
    component.HardDiskIndex = disk;
    component.DiskLBAStart = diskLba;
    component.DiskLBAEnd = diskLba + sectors - 1;
    component.VolLBAStart = volumeLba;
    component.VolLBAEnd = volumeLba + sectors - 1;
    component.ColumnIndex = static_cast<int32_t>(disk);
    return component;
}

// A volume on disks whose sectors are those of the volume, taken in turns of `stripeSectors`.
class DRVolumeOnDisks : public DRVolumeOpen {
protected:
    static constexpr uint64_t FirstSector = 16;

    // `place` tells of each sector of the volume its disk and its sector there.
    template <typename Place> void Scatter(const Volume& builder, size_t diskCount, Place place) {
        m_Bytes = builder.VolumeImage().Bytes();
        std::vector<std::string> disks(diskCount);
        for (uint64_t sector = 0; sector < VolumeSectors; ++sector) {
            const auto [disk, lba] = place(sector);
            PutBytes(disks[disk], static_cast<size_t>(lba * 512), m_Bytes.substr(sector * 512, 512));
        }
        std::vector<LVM_HardDisk_t> links;
        for (size_t disk = 0; disk < diskCount; ++disk) {
            CImageFile image;
            image.Put(0, disks[disk]);
            image.Put(0, CBootRecordBuilder().Bytes());
            links.push_back(FlatHardDisk(m_Dir, image, "column" + std::to_string(disk)));
        }
        m_Lvm = std::make_unique<CLVM>();
        ASSERT_OK(m_Lvm->InitializeFromDisk(links));
        m_Volume = LVM_Volume_t();
        m_Volume.AllDiskFound = 1;
        m_Volume.Segments.resize(1);
        m_Volume.Segments[0].LBAEnd = VolumeSectors - 1;
    }

    void ExpectRightBytes(uint64_t offset, uint32_t size) {
        std::string bytes(size, '?');
        EXPECT_EQ(NtfsOk, m_Ntfs.ReadDisk(offset, bytes.data(), size));
        EXPECT_SAME_BYTES(m_Bytes.substr(offset, size), bytes) << size << " at " << offset;
    }

    void ExpectAllBytes() {
        ASSERT_EQ(NtfsOk, m_Ntfs.OpenVolume(m_Lvm.get(), m_Volume));
        ExpectRightBytes(0, VolumeSectors * 512);
        for (const uint64_t offset : {0U, 100U, 4095U, 4096U, 65535U, 65536U + 3000U, 1U << 20U})
            for (const uint32_t size : {1U, 512U, 4096U, 5000U, 20000U, 200000U})
                ExpectRightBytes(offset, size);
        File_t file;
        ASSERT_EQ(NtfsOk, OpenFile(40, file));
        const Outcome_t data = ReadFile(file, 300'000);
        EXPECT_EQ(NtfsOk, data.result);
        EXPECT_SAME_BYTES(m_Bytes.substr(Volume::FreeByte, 300'000), data.bytes);
    }

    static Volume WithFile() {
        Volume volume;
        volume.Record(40, FileRecord().Add(Attribute::NonResident(NtfsDataType, {{64, 74}}, 300'000)));
        volume.Cluster(64, PatternedBytes(1'000'000, 3));
        return volume;
    }

    std::string m_Bytes;
};

TEST_F(DRVolumeOnDisks, AStripedVolumeIsReadStripeByStripe) {
    for (const uint64_t stripe : {1U, 5U, 8U, 128U}) {
        SCOPED_TRACE(stripe);
        Scatter(WithFile(), 2, [stripe](uint64_t sector) {
            const uint64_t number = sector / stripe;
            return std::pair<size_t, uint64_t>{number % 2, FirstSector + number / 2 * stripe + sector % stripe};
        });
        m_Volume.Segments[0].StripeSize = stripe;
        for (uint32_t disk = 0; disk < 2; ++disk)
            m_Volume.Segments[0].Components.push_back(PieceOf(disk, FirstSector, 0, VolumeSectors / 2 + stripe));
        ExpectAllBytes();
    }
}

TEST_F(DRVolumeOnDisks, ARaid5VolumeIsReadStripeByStripe) {
    constexpr uint64_t Stripe = 8;
    Scatter(WithFile(), 3, [](uint64_t sector) {
        const uint64_t number = sector / Stripe;
        const uint64_t row = number / 2;
        const uint64_t parity = 2 - row % 3;
        return std::pair<size_t, uint64_t>{(number % 2 + parity + 1) % 3, FirstSector + row * Stripe + sector % Stripe};
    });
    m_Volume.IsRaid5 = 1;
    m_Volume.Segments[0].StripeSize = Stripe;
    for (uint32_t disk = 0; disk < 3; ++disk)
        m_Volume.Segments[0].Components.push_back(PieceOf(disk, FirstSector, 0, VolumeSectors / 2));
    ExpectAllBytes();
}

TEST_F(DRVolumeOnDisks, ASpannedVolumeIsReadComponentByComponent) {
    // The second component begins within a cluster of the file.
    constexpr uint64_t FirstPart = 64 * 8 + 3;
    Scatter(WithFile(), 2, [](uint64_t sector) {
        return sector < FirstPart ? std::pair<size_t, uint64_t>{0, FirstSector + sector}
                                  : std::pair<size_t, uint64_t>{1, 2000 + sector - FirstPart};
    });
    m_Volume.Segments[0].Components = {PieceOf(0, FirstSector, 0, FirstPart),
                                       PieceOf(1, 2000, FirstPart, VolumeSectors - FirstPart)};
    ExpectAllBytes();
}

TEST_F(DRVolumeOnDisks, AReadBehindTheVolumesEndFails) {
    ASSERT_EQ(NtfsOk, Open(Volume()));
    std::string bytes(1024, '?');
    const uint64_t end = (VolumeSectors + 1) * 512;
    EXPECT_EQ(NtfsOk, m_Ntfs.ReadDisk(VolumeSectors * 512 - 512, bytes.data(), 512));
    for (const uint64_t offset : {end, end - 1, uint64_t{1} << 50U, ~uint64_t{0}, ~uint64_t{0} - 511})
        EXPECT_EQ(NtfsSeeLog, m_Ntfs.ReadDisk(offset, bytes.data(), 1024)) << offset;
}

}  // namespace
