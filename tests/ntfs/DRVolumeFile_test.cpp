#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/NtfsTestVolume.h"
#include "tests/support/SameBytes.h"

// How `CDRVolume` opens files, reads their unnamed data and tells their times.

namespace {

using Attribute = CNtfsAttributeBuilder;
using FileRecord = CNtfsFileRecordBuilder;
using Volume = CNtfsVolumeBuilder;

constexpr uint64_t FileFrn = 40;
constexpr uint64_t Lcn = 64;  // the first that is free

Attribute Data(const std::string& value) {
    return Attribute::Resident(NtfsDataType, value);
}

Attribute DataIn(const std::vector<NtfsRun_t>& runs, uint64_t bytes) {
    return Attribute::NonResident(NtfsDataType, runs, bytes);
}

NtfsListEntryFields_t EntryOf(uint64_t frn) {
    NtfsListEntryFields_t entry;
    entry.reference = NtfsReference(frn, 3);
    return entry;
}

Attribute ListOf(const std::vector<NtfsListEntryFields_t>& entries) {
    std::string bytes;
    for (const NtfsListEntryFields_t& entry : entries)
        bytes += NtfsListEntry(entry);
    return Attribute::Resident(NtfsAttributeListType, bytes);
}

class DRVolumeFile : public CNtfsVolumeTest {
protected:
    int OpenOnly(const Volume& volume, File_t& file, uint64_t frn = FileFrn) {
        EXPECT_EQ(NtfsOk, Open(volume));
        return OpenFile(frn, file);
    }

    int OpenOnly(const FileRecord& record, File_t& file) { return OpenOnly(Volume().Record(FileFrn, record), file); }

    // The values of all resident attributes of that type, in the order of the record.
    static std::vector<std::string> ValuesOf(File_t& file, uint32_t type) {
        std::vector<std::string> values;
        ATTR_RECORD_HEADER_t* attribute = CDRFileRecord::FindFirstAttr(file.record.GetPtr(), type);
        for (; attribute != nullptr; attribute = CDRFileRecord::FindNextAttr(type, attribute)) {
            const std::string bytes(reinterpret_cast<const char*>(attribute), attribute->Length);
            values.push_back(bytes.substr(LittleEndianAt(bytes, 20, 2), LittleEndianAt(bytes, 16, 4)));
        }
        return values;
    }

    static void ExpectReset(const READFILECONTEXT& context, uint32_t attrIndex) {
        EXPECT_EQ(nullptr, context.currentAttr);
        EXPECT_EQ(0U, context.extents.GetSize());
        EXPECT_EQ(0U, context.vcn);
        EXPECT_EQ(0U, context.offsetInCluster);
        EXPECT_EQ(attrIndex, context.attrIndex);
        EXPECT_EQ(0U, context.sparseMode);
        EXPECT_EQ(0U, context.sparseEndVcn);
        EXPECT_EQ(0U, context.pending.GetSize());
    }

    static void Disarrange(READFILECONTEXT& context) {
        context.currentAttr = reinterpret_cast<ATTR_RECORD_HEADER_t*>(&context);
        context.extents = BufferOf("extents");
        context.vcn = 5;
        context.offsetInCluster = 6;
        context.attrIndex = 7;
        context.sparseMode = 1;
        context.sparseEndVcn = 9;
        context.pending = BufferOf("pending");
    }
};

using Values_t = std::vector<std::string>;

TEST_F(DRVolumeFile, OpeningNeedsARecordAndAPosition) {
    ASSERT_EQ(NtfsOk, Open(Volume().Record(FileFrn, FileRecord())));
    File_t file;
    EXPECT_EQ(NtfsInvalidParameter, m_Ntfs.OpenFile(FileFrn, nullptr, 1, &file.context));
    EXPECT_EQ(NtfsInvalidParameter, m_Ntfs.OpenFile(FileFrn, &file.record, 1, nullptr));
}

TEST_F(DRVolumeFile, OpeningResetsThePosition) {
    ASSERT_EQ(NtfsOk, Open(Volume().Record(FileFrn, FileRecord())));
    File_t file;
    Disarrange(file.context);
    EXPECT_EQ(NtfsOk, OpenFile(FileFrn, file, 1));
    ExpectReset(file.context, 0);
    Disarrange(file.context);
    EXPECT_EQ(NtfsOk, OpenFile(FileFrn, file, 0));
    ExpectReset(file.context, 1);
    Disarrange(file.context);
    EXPECT_EQ(NtfsNotInUse, OpenFile(FileFrn + 1, file, 77)) << "also where the file isn't opened";
    ExpectReset(file.context, 0);
}

TEST_F(DRVolumeFile, ARecordIsReadWhole) {
    const FileRecord record = FileRecord().RecordNumber(7).Add(Data("data"));
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(record, file));
    EXPECT_SAME_BYTES(record.MendedBytes(), BytesOf(file.record).substr(0, 1024));
    EXPECT_EQ(1024U, file.record.GetSize());
}

TEST_F(DRVolumeFile, ARecordThatCannotBeUsedIsRefused) {
    const struct {
        const char* name;
        std::string record;
        int result;
    } rows[] = {
        {"zeros", "", NtfsNotInUse},
        {"another signature", FileRecord().Signature("FILF").Bytes(), NtfsNotInUse},
        {"the first sector torn", FileRecord().BreakSectorEnd(0).Bytes(), NtfsRecordCorrupted},
        {"the second sector torn", FileRecord().BreakSectorEnd(1).Bytes(), NtfsRecordCorrupted},
        {"not in use", FileRecord().Flags(0).Bytes(), NtfsNotInUse},
        {"a directory that isn't in use", FileRecord().Flags(2).Bytes(), NtfsNotInUse},
        {"neither in use nor with an end of its attributes", FileRecord().Flags(0).EndMarker("").Bytes(), NtfsNotInUse},
        {"neither in use nor a base record", FileRecord().Flags(0).BaseReference(5).Bytes(), NtfsNotInUse},
        {"not a base record", FileRecord().BaseReference(NtfsReference(5)).Bytes(), NtfsNotBaseRecord},
        {"a base record of number 0 that was reused", FileRecord().BaseReference(NtfsReference(0, 1)).Bytes(),
         NtfsNotBaseRecord},
        {"an attribute of no length", FileRecord().Add(Data("x").Length(0)).Bytes(), NtfsRecordCorrupted},
        {"an attribute that leaves the record", FileRecord().Add(Data("x").Length(2000)).Bytes(), NtfsRecordCorrupted},
        {"a value that leaves it", FileRecord().Add(Data("x").ValueLength(2000)).Bytes(), NtfsRecordCorrupted},
        {"attributes behind the record", FileRecord().FirstAttribute(1024).Bytes(), NtfsRecordCorrupted},
        {"no end marker", FileRecord().EndMarker("").Bytes(), NtfsRecordCorrupted},
        {"an array of sectors' ends behind the record", FileRecord().SequenceOffset(1022).Bytes(), NtfsRecordCorrupted},
        {"more sectors than the record has", FileRecord().SequenceCount(4).Bytes(), NtfsRecordCorrupted},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        File_t file;
        EXPECT_EQ(row.result, OpenOnly(Volume().Record(FileFrn, row.record), file));
    }
}

TEST_F(DRVolumeFile, ANumberBehindTheMftIsOutOfRange) {
    File_t file;
    EXPECT_EQ(NtfsOutOfRange, OpenOnly(Volume(), file, 64));
}

// Callers rely on finding the base reference there.
TEST_F(DRVolumeFile, AnExtensionRecordStaysInTheBuffer) {
    const FileRecord record = FileRecord().BaseReference(NtfsReference(33, 9));
    File_t file;
    EXPECT_EQ(NtfsNotBaseRecord, OpenOnly(record, file));
    EXPECT_SAME_BYTES(record.MendedBytes(), BytesOf(file.record).substr(0, 1024));
}

// --- Attributes in several records.

FileRecord Extension(const std::string& value) {
    return FileRecord().BaseReference(NtfsReference(FileFrn)).Add(Data(value));
}

TEST_F(DRVolumeFile, ExtensionRecordsAreMergedInTheOrderOfTheirFirstEntries) {
    Volume volume;
    volume.Record(FileFrn,
                  FileRecord()
                      .Add(ListOf({EntryOf(43), EntryOf(FileFrn), EntryOf(41), EntryOf(43), EntryOf(42), EntryOf(41)}))
                      .Add(Data("base")));
    volume.Record(41, Extension("one").Add(Data("one more")));
    volume.Record(42, Extension("two"));
    volume.Record(43, Extension("three").Add(Attribute::Resident(NtfsFileNameType, "name")));
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(volume, file));
    EXPECT_EQ((Values_t{"base", "three", "one", "one more", "two"}), ValuesOf(file, NtfsDataType));
    EXPECT_EQ((Values_t{"name"}), ValuesOf(file, NtfsFileNameType));
    const auto* const marker =
        reinterpret_cast<const char*>(CDRFileRecord::FindFirstAttr(file.record.GetPtr(), NtfsEndType));
    ASSERT_NE(nullptr, marker);
    EXPECT_LE(marker - file.record.GetPtr() + 4, file.record.GetSize());
}

TEST_F(DRVolumeFile, RecordsAreTheSameByTheirNumberAlone) {
    NtfsListEntryFields_t reused = EntryOf(41);
    reused.reference = NtfsReference(41, 0x7777);
    NtfsListEntryFields_t self = EntryOf(FileFrn);
    self.reference = NtfsReference(FileFrn, 0x8888);
    Volume volume;
    volume.Record(FileFrn, FileRecord().Add(ListOf({EntryOf(41), reused, self})).Add(Data("base")));
    volume.Record(41, Extension("one"));
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(volume, file));
    EXPECT_EQ((Values_t{"base", "one"}), ValuesOf(file, NtfsDataType));
}

TEST_F(DRVolumeFile, AListMayLieInClusters) {
    std::string list;
    for (int turn = 0; turn < 200; ++turn)
        list += NtfsListEntry(EntryOf(FileFrn));
    list += NtfsListEntry(EntryOf(41));
    Volume volume;
    volume.Record(FileFrn, FileRecord()
                               .Add(Attribute::NonResident(NtfsAttributeListType, {{80, 1}, {78, 1}}, list.size()))
                               .Add(Data("base")));
    volume.Record(41, Extension("one"));
    volume.Cluster(80, list.substr(0, 4096)).Cluster(78, list.substr(4096));
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(volume, file));
    EXPECT_EQ((Values_t{"base", "one"}), ValuesOf(file, NtfsDataType));
}

TEST_F(DRVolumeFile, AnEntryTooShortForItsFieldsEndsTheList) {
    for (const uint16_t length : std::vector<uint16_t>{0, 8, 25}) {
        NtfsListEntryFields_t broken = EntryOf(42);
        broken.length = length;
        Volume volume;
        volume.Record(FileFrn, FileRecord().Add(ListOf({EntryOf(41), broken, EntryOf(43)})));
        volume.Record(41, Extension("one")).Record(42, Extension("two")).Record(43, Extension("three"));
        File_t file;
        ASSERT_EQ(NtfsOk, OpenOnly(volume, file));
        EXPECT_EQ((Values_t{"one"}), ValuesOf(file, NtfsDataType)) << length;
    }
}

TEST_F(DRVolumeFile, AnExtensionRecordThatCannotBeUsedIsRefused) {
    const struct {
        const char* name;
        std::string record;
        int result;
    } rows[] = {
        {"zeros", "", NtfsNotInUse},
        {"torn", Extension("one").BreakSectorEnd(1).Bytes(), NtfsRecordCorrupted},
        {"no end marker", Extension("one").EndMarker("").Bytes(), NtfsRecordCorrupted},
        {"attributes behind the record", Extension("one").FirstAttribute(1023).Bytes(), NtfsRecordCorrupted},
        {"not in use", Extension("one").Flags(0).Bytes(), NtfsOk},
        {"a base record", FileRecord().Bytes(), NtfsOk},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Volume volume;
        volume.Record(FileFrn, FileRecord().Add(ListOf({EntryOf(41)}))).Record(41, row.record);
        File_t file;
        EXPECT_EQ(row.result, OpenOnly(volume, file));
    }
    File_t file;
    EXPECT_EQ(NtfsOutOfRange, OpenOnly(FileRecord().Add(ListOf({EntryOf(64)})), file));
}

TEST_F(DRVolumeFile, AListWhoseDataCannotBeReadIsRefused) {
    const auto list = [](const std::vector<NtfsRun_t>& runs, uint64_t bytes) {
        return FileRecord().Add(Attribute::NonResident(NtfsAttributeListType, runs, bytes));
    };
    File_t file;
    EXPECT_EQ(NtfsOutOfMemory, OpenOnly(list({{NtfsHole, 1U << 20U}}, uint64_t{1} << 32U), file));
    EXPECT_EQ(NtfsOutOfMemory, OpenOnly(list({{NtfsHole, 1U << 20U}}, (uint64_t{1} << 30U) + 1), file));
    EXPECT_EQ(NtfsOutOfMemory, OpenOnly(list({{NtfsHole, 1U << 18U}}, uint64_t{1} << 30U), file)) << "zeros alone";
    EXPECT_EQ(NtfsSeeLog, OpenOnly(list({{5000, 1}}, 100), file));
    EXPECT_EQ(
        NtfsRunTooWide,
        OpenOnly(FileRecord().Add(Attribute::NonResident(NtfsAttributeListType, {{64, 1}}, 100).RunList("\x99\x01")),
                 file));
}

// Many records lie in the same few clusters, so that a small volume has thousands.
class DRVolumeManyRecords : public DRVolumeFile {
protected:
    int OpenWithExtensions(uint64_t extensions, File_t& file) {
        constexpr uint64_t RecordsPerRun = 64;
        std::string list;
        for (uint64_t index = 0; index < extensions; ++index)
            list += NtfsListEntry(EntryOf(2 * RecordsPerRun + index));
        std::vector<NtfsRun_t> runs = {{1, 1}};
        while (runs.size() < 2 + extensions / RecordsPerRun + 1)
            runs.push_back({8, 1});
        Volume volume;
        volume.SectorsPerCluster(128).MftRuns(runs);
        volume.Record(FileFrn, FileRecord().Add(Attribute::NonResident(NtfsAttributeListType, {{10, 6}}, list.size())));
        std::string records;
        for (uint64_t index = 0; index < RecordsPerRun; ++index)
            records += Extension("same").Bytes();
        volume.Cluster(8, records).Cluster(10, list);
        return OpenOnly(volume, file);
    }
};

TEST_F(DRVolumeManyRecords, AFileHasAtMost10000Records) {
    File_t file;
    ASSERT_EQ(NtfsOk, OpenWithExtensions(9'999, file));
    EXPECT_EQ(9'999U, ValuesOf(file, NtfsDataType).size());
    EXPECT_EQ(NtfsTooManyRecords, OpenWithExtensions(10'000, file));
}

// --- Closing.

TEST_F(DRVolumeFile, AClosedFileIsReadNoMore) {
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(FileRecord().Add(Data("data")), file));
    EXPECT_EQ("da", ReadFile(file, 2).bytes);
    Disarrange(file.context);
    EXPECT_EQ(NtfsOk, m_Ntfs.CloseFile(&file.record, &file.context));
    ExpectReset(file.context, 0);
    EXPECT_EQ('\0', *file.record.GetPtr());
    EXPECT_EQ(NtfsNotInUse, CDRFileRecord::IsValidFileRec(file.record.GetPtr()));
    EXPECT_EQ(NtfsNotInUse, ReadFile(file, 2).result);
    EXPECT_EQ(NtfsNotInUse, BackupRead(file, 2).result);
    EXPECT_EQ(NtfsOk, m_Ntfs.CloseFile(&file.record, &file.context)) << "twice";
}

TEST_F(DRVolumeFile, ClosingNeedsNoDiskAndNoOpenFile) {
    File_t file;
    EXPECT_EQ(NtfsOk, m_Ntfs.CloseFile(&file.record, &file.context));
    EXPECT_EQ(NtfsInvalidParameter, ReadFile(file, 2).result) << "there is no record";
}

// --- Reading the unnamed data.

TEST_F(DRVolumeFile, ADirectoryHasNoDataToRead) {
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(FileRecord().Directory().Add(Data("data")), file));
    EXPECT_EQ(NtfsIsDirectory, ReadFile(file, 10).result);
}

TEST_F(DRVolumeFile, AFileWithoutUnnamedDataHasNone) {
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(FileRecord().Add(Data("named").Name(u"stream")), file));
    const Outcome_t outcome = ReadFile(file, 10);
    EXPECT_EQ(NtfsNoData, outcome.result);
    EXPECT_EQ("", outcome.bytes);
    EXPECT_EQ(NtfsNoData, ReadFile(file, 10).result) << "again";
}

TEST_F(DRVolumeFile, NamedDataIsPassedOver) {
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(FileRecord().Add(Data("named").Name(u"stream")).Add(Data("unnamed")), file));
    EXPECT_EQ("unnamed", ReadFile(file, 10).bytes);
}

TEST_F(DRVolumeFile, ResidentDataIsReadInPieces) {
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(FileRecord().Add(Data("0123456789")), file));
    for (const char* const piece : {"0123", "4567", "89"}) {
        const Outcome_t outcome = ReadFile(file, 4);
        EXPECT_EQ(NtfsOk, outcome.result);
        EXPECT_EQ(piece, outcome.bytes);
    }
    for (int turn = 0; turn < 2; ++turn) {
        const Outcome_t end = ReadFile(file, 4);
        EXPECT_EQ(NtfsEndOfRun, end.result);
        EXPECT_EQ("", end.bytes);
    }
}

TEST_F(DRVolumeFile, EmptyDataIsAtItsEnd) {
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(FileRecord().Add(Data("")), file));
    EXPECT_EQ(NtfsEndOfRun, ReadFile(file, 4).result);
}

TEST_F(DRVolumeFile, TheTailOfTheLastClusterIsNotDelivered) {
    const std::string bytes = PatternedBytes(8192);
    Volume volume;
    volume.Record(FileFrn, FileRecord().Add(DataIn({{Lcn, 1}, {Lcn + 5, 1}}, 5000)));
    volume.Cluster(Lcn, bytes.substr(0, 4096)).Cluster(Lcn + 5, bytes.substr(4096));
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(volume, file));
    Outcome_t outcome = ReadFile(file, 4096);
    EXPECT_EQ(NtfsOk, outcome.result);
    EXPECT_SAME_BYTES(bytes.substr(0, 4096), outcome.bytes);
    outcome = ReadFile(file, 4096);
    EXPECT_EQ(NtfsEndOfRun, outcome.result) << "the runs ended before the buffer was full";
    EXPECT_SAME_BYTES(bytes.substr(4096, 904), outcome.bytes);
    outcome = ReadFile(file, 4096);
    EXPECT_EQ(NtfsEndOfRun, outcome.result);
    EXPECT_EQ("", outcome.bytes);
}

TEST_F(DRVolumeFile, ABufferFilledExactlyToTheEndIsNotTheEndYet) {
    Volume volume;
    volume.Record(FileFrn, FileRecord().Add(DataIn({{Lcn, 2}}, 5000))).Cluster(Lcn, PatternedBytes(8192));
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(volume, file));
    const Outcome_t whole = ReadFile(file, 5000);
    EXPECT_EQ(NtfsOk, whole.result);
    EXPECT_SAME_BYTES(PatternedBytes(8192).substr(0, 5000), whole.bytes);
    const Outcome_t end = ReadFile(file, 5000);
    EXPECT_EQ(NtfsEndOfRun, end.result);
    EXPECT_EQ("", end.bytes);
}

// The same bytes come, however the reads divide them.
TEST_F(DRVolumeFile, AnyDivisionOfReadsGivesTheSameBytes) {
    const std::string pattern = PatternedBytes(7 * 4096);
    Volume volume;
    volume.Record(FileFrn, FileRecord().Add(DataIn({{70, 2}, {66, 3}, {NtfsHole, 1}, {90, 1}}, 7 * 4096 - 100)));
    volume.Cluster(70, pattern.substr(0, 2 * 4096)).Cluster(66, pattern.substr(2 * 4096, 3 * 4096));
    volume.Cluster(90, pattern.substr(6 * 4096));
    std::string expected = pattern.substr(0, 7 * 4096 - 100);
    expected.replace(5 * 4096, 4096, 4096, '\0');
    ASSERT_EQ(NtfsOk, Open(volume));
    for (const uint32_t size : {1U, 100U, 511U, 512U, 4095U, 4096U, 4097U, 8192U, 10000U, 28571U, 28572U, 28573U}) {
        SCOPED_TRACE(size);
        File_t file;
        ASSERT_EQ(NtfsOk, OpenFile(FileFrn, file));
        std::string bytes;
        Outcome_t outcome{NtfsOk, ""};
        while (outcome.result == NtfsOk && bytes.size() <= expected.size()) {
            outcome = ReadFile(file, size);
            bytes += outcome.bytes;
        }
        EXPECT_EQ(NtfsEndOfRun, outcome.result);
        EXPECT_SAME_BYTES(expected, bytes);
    }
}

// Callers rely on the end at the first segment's end: they join segments themselves.
TEST_F(DRVolumeFile, OnlyTheFirstSegmentIsRead) {
    Volume volume;
    volume.Record(FileFrn, FileRecord().Add(ListOf({EntryOf(FileFrn), EntryOf(41)})).Add(DataIn({{Lcn, 1}}, 8192)));
    volume.Record(41, FileRecord().BaseReference(NtfsReference(FileFrn)).Add(DataIn({{Lcn + 1, 1}}, 0).LowestVcn(1)));
    volume.Cluster(Lcn, PatternedBytes(8192));
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(volume, file));
    const Outcome_t outcome = ReadFile(file, 8192);
    EXPECT_EQ(NtfsEndOfRun, outcome.result);
    EXPECT_SAME_BYTES(PatternedBytes(8192).substr(0, 4096), outcome.bytes);
}

TEST_F(DRVolumeFile, SeveralFilesAreReadInTurns) {
    Volume volume;
    volume.Record(40, FileRecord().Add(DataIn({{Lcn, 2}}, 8192))).Cluster(Lcn, PatternedBytes(8192, 1));
    volume.Record(41, FileRecord().Add(DataIn({{Lcn + 9, 2}}, 8192))).Cluster(Lcn + 9, PatternedBytes(8192, 2));
    ASSERT_EQ(NtfsOk, Open(volume));
    File_t first;
    File_t second;
    ASSERT_EQ(NtfsOk, OpenFile(40, first));
    ASSERT_EQ(NtfsOk, OpenFile(41, second));
    std::string bytes[2];
    for (int turn = 0; turn < 8; ++turn) {
        bytes[0] += ReadFile(first, 1000).bytes;
        bytes[1] += ReadFile(second, 700).bytes;
    }
    EXPECT_SAME_BYTES(PatternedBytes(8192, 1).substr(0, 8000), bytes[0]);
    EXPECT_SAME_BYTES(PatternedBytes(8192, 2).substr(0, 5600), bytes[1]);
}

TEST_F(DRVolumeFile, AFailedReadReachesTheCallerAndMayBeRepeated) {
    Volume volume;
    volume.Record(FileFrn, FileRecord().Add(DataIn({{Lcn, 2}}, 8192))).Cluster(Lcn, PatternedBytes(8192));
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(volume, file));
    EXPECT_SAME_BYTES(PatternedBytes(8192).substr(0, 100), ReadFile(file, 100).bytes);
    m_Ntfs.FailAt(Lcn * 4096 + 2000);
    EXPECT_EQ(NtfsSeeLog, ReadFile(file, 3996).result);
    m_Ntfs.FailNowhere();
    EXPECT_SAME_BYTES(PatternedBytes(8192).substr(100, 3996), ReadFile(file, 3996).bytes);
}

TEST_F(DRVolumeFile, ARunListThatCannotBeDecodedIsRefused) {
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(FileRecord().Add(DataIn({{Lcn, 1}}, 10).RunList("\x19\x01")), file));
    EXPECT_EQ(NtfsRunTooWide, ReadFile(file, 10).result);
    ASSERT_EQ(NtfsOk, OpenOnly(FileRecord().Add(DataIn({{Lcn, 1}}, 10).RunList(std::string(8, '\x11'))), file));
    EXPECT_EQ(NtfsRecordCorrupted, ReadFile(file, 10).result);
}

TEST_F(DRVolumeFile, RunsBehindTheVolumesEndAreAFailedRead) {
    for (const uint64_t lcn : {uint64_t{513}, uint64_t{1} << 40U, (uint64_t{1} << 52U) - 1, (uint64_t{1} << 62U) - 1}) {
        File_t file;
        ASSERT_EQ(NtfsOk, OpenOnly(FileRecord().Add(DataIn({{lcn, 1}}, 10)), file));
        EXPECT_EQ(NtfsSeeLog, ReadFile(file, 10).result) << lcn;
    }
}

// --- Times.

FileRecord WithTimes() {
    NtfsStandardInformationFields_t fields;
    fields.creation = 0x01D0000000000001;
    fields.modification = 0x01D0000000000002;
    fields.recordChange = 0x01D0000000000003;
    fields.access = 0x01D0000000000004;
    fields.attributes = 0x00000826;
    return FileRecord().Add(Attribute::Resident(NtfsStandardInformationType, NtfsStandardInformationValue(fields)));
}

TEST_F(DRVolumeFile, AFilesTimeOfWritingIsThatOfItsData) {
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(WithTimes(), file));
    uint64_t creation = 0;
    uint64_t access = 0;
    uint64_t write = 0;
    unsigned int attributes = 0;
    EXPECT_EQ(NtfsOk, m_Ntfs.GetFileTimeAndAttribs(&file.record, &creation, &access, &write, &attributes));
    EXPECT_EQ(0x01D0000000000001U, creation);
    EXPECT_EQ(0x01D0000000000004U, access);
    EXPECT_EQ(0x01D0000000000002U, write);
    EXPECT_EQ(0x826U, attributes);
}

TEST_F(DRVolumeFile, ADirectorysTimeOfWritingIsThatOfItsRecord) {
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(WithTimes().Directory(), file));
    uint64_t creation = 0;
    uint64_t access = 0;
    uint64_t write = 0;
    EXPECT_EQ(NtfsOk, m_Ntfs.GetFileTime(&file.record, &creation, &access, &write));
    EXPECT_EQ(0x01D0000000000001U, creation);
    EXPECT_EQ(0x01D0000000000004U, access);
    EXPECT_EQ(0x01D0000000000003U, write);
}

TEST_F(DRVolumeFile, TheAttributesMayBeLeftOut) {
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(WithTimes(), file));
    uint64_t times[3] = {};
    EXPECT_EQ(NtfsOk, m_Ntfs.GetFileTimeAndAttribs(&file.record, &times[0], &times[1], &times[2], nullptr));
    EXPECT_EQ(0x01D0000000000002U, times[2]);
}

TEST_F(DRVolumeFile, AMissingPlaceForATimeIsRefusedAndTheOthersAreZeroed) {
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(WithTimes(), file));
    for (size_t missing = 0; missing < 4; ++missing) {
        uint64_t times[3] = {7, 7, 7};
        const auto place = [&](size_t index) { return index == missing ? nullptr : &times[index]; };
        EXPECT_EQ(NtfsInvalidParameter,
                  m_Ntfs.GetFileTime(missing == 3 ? nullptr : &file.record, place(0), place(1), place(2)));
        for (size_t index = 0; index < 3; ++index)
            EXPECT_EQ(index == missing ? 7U : 0U, times[index]) << index << " without " << missing;
    }
}

TEST_F(DRVolumeFile, ARecordWithoutTimesIsRefused) {
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(FileRecord().Add(Data("data")), file));
    uint64_t times[3] = {7, 7, 7};
    EXPECT_EQ(NtfsInvalidMftRecord, m_Ntfs.GetFileTime(&file.record, &times[0], &times[1], &times[2]));
    EXPECT_EQ(0U, times[0] + times[1] + times[2]);
}

// The bytes behind the value are another attribute's.
TEST_F(DRVolumeFile, WhatTheTimesLackIsZeros) {
    const std::string whole = NtfsStandardInformationValue({0x1122334455667788, 2, 3, 4, 0x05060708, 6});
    for (const size_t size : {1U, 4U, 8U, 31U, 33U, 36U}) {
        SCOPED_TRACE(size);
        File_t file;
        ASSERT_EQ(NtfsOk, OpenOnly(FileRecord()
                                       .Add(Attribute::Resident(NtfsStandardInformationType, whole.substr(0, size)))
                                       .Add(Data(std::string(100, 'x'))),
                                   file));
        uint64_t times[3] = {7, 7, 7};
        unsigned int attributes = 7;
        EXPECT_EQ(NtfsOk, m_Ntfs.GetFileTimeAndAttribs(&file.record, &times[0], &times[1], &times[2], &attributes));
        const std::string padded = whole.substr(0, size) + std::string(72 - size, '\0');
        EXPECT_EQ(LittleEndianAt(padded, 0, 8), times[0]);
        EXPECT_EQ(LittleEndianAt(padded, 24, 8), times[1]);
        EXPECT_EQ(LittleEndianAt(padded, 8, 8), times[2]);
        EXPECT_EQ(LittleEndianAt(padded, 32, 4), attributes);
    }
}

// Without runs nothing of it can be read.
TEST_F(DRVolumeFile, TimesInClustersAreNotRead) {
    File_t file;
    ASSERT_EQ(NtfsOk,
              OpenOnly(FileRecord().Add(Attribute::NonResident(NtfsStandardInformationType, {{Lcn, 1}}, 72)), file));
    uint64_t times[3] = {};
    EXPECT_EQ(NtfsEndOfRun, m_Ntfs.GetFileTime(&file.record, &times[0], &times[1], &times[2]));
}

}  // namespace
