#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/MetadataTestVolume.h"
#include "tests/support/SameBytes.h"

// How `CMAVolume` opens files, and what it tells of them.

namespace {

using Attribute = CNtfsAttributeBuilder;
using FileRecord = CNtfsFileRecordBuilder;
using Files = CMetadataFilesBuilder;

constexpr uint64_t FileFrn = 5;
constexpr uint8_t Posix = 0;
constexpr uint8_t Long = 1;
constexpr uint8_t Short = 2;

Attribute Data(const std::string& value) {
    return Attribute::Resident(NtfsDataType, value);
}

Attribute Name(const std::u16string& name, uint8_t kind) {
    NtfsFileNameFields_t fields;
    fields.name = name;
    fields.kind = kind;
    return Attribute::Resident(NtfsFileNameType, NtfsFileNameValue(fields));
}

std::string BytesOfName(const std::u16string& name) {
    std::string bytes;
    for (const char16_t character : name)
        bytes += LittleEndianBytes(character, 2);
    return bytes;
}

class MAVolumeFile : public CMetadataVolumeTest {
protected:
    static Files WithFile(const FileRecord& record) { return Files().Record(FileFrn, record); }

    // Of a file that has to open.
    int OpenOnly(const Files& files, File_t& file) {
        EXPECT_EQ(NtfsOk, Open(files));
        return OpenFile(FileFrn, file);
    }

    // The values of all resident data attributes, in the order of the record.
    static std::vector<std::string> DataOf(File_t& file) {
        std::vector<std::string> values;
        ATTR_RECORD_HEADER_t* each = CDRFileRecord::FindFirstAttr(file.record.GetPtr(), NtfsDataType);
        for (; each != nullptr; each = CDRFileRecord::FindNextAttr(NtfsDataType, each)) {
            const std::string bytes(reinterpret_cast<const char*>(each), each->Length);
            values.push_back(bytes.substr(LittleEndianAt(bytes, 20, 2), LittleEndianAt(bytes, 16, 4)));
        }
        return values;
    }

    static void Disarrange(MA_BACKUPREAD_CONTEXT& context) {
        context.tableIndex = 7;
        context.name = BufferOf("name");
        context.data = BufferOf("data");
        context.header = BufferOf("header");
        context.needLoad = 0;
        context.position = 5;
        context.instance = 6;
    }

    static void ExpectReset(const MA_BACKUPREAD_CONTEXT& context, uint32_t tableIndex) {
        EXPECT_EQ(tableIndex, context.tableIndex);
        EXPECT_EQ(0U, context.name.GetSize());
        EXPECT_EQ(0U, context.data.GetSize());
        EXPECT_EQ(0U, context.header.GetSize());
        EXPECT_EQ(1U, context.needLoad);
        EXPECT_EQ(0U, context.position);
        EXPECT_EQ(0U, context.instance);
    }
};

using Values_t = std::vector<std::string>;

TEST_F(MAVolumeFile, OpeningNeedsARecordAPositionAndAnOpenVolume) {
    File_t file;
    EXPECT_META_FAILURE(NtfsInvalidParameter, "Invalid Parameter", OpenFile(FileFrn, file));
    ASSERT_EQ(NtfsOk, Open(WithFile(FileRecord())));
    EXPECT_META_FAILURE(NtfsInvalidParameter, "Invalid Parameter",
                        m_Volume.OpenFile(FileFrn, nullptr, 1, &file.context));
    EXPECT_META_FAILURE(NtfsInvalidParameter, "Invalid Parameter",
                        m_Volume.OpenFile(FileFrn, &file.record, 1, nullptr));
    EXPECT_META_OK(OpenFile(FileFrn, file));
}

TEST_F(MAVolumeFile, OpeningResetsThePosition) {
    ASSERT_EQ(NtfsOk, Open(WithFile(FileRecord())));
    File_t file;
    const std::pair<int, uint32_t> rows[] = {{1, 0}, {0, 1}, {2, 1}, {-1, 1}};
    for (const auto& [withSecurity, tableIndex] : rows) {
        Disarrange(file.context);
        EXPECT_EQ(NtfsOk, OpenFile(FileFrn, file, withSecurity));
        ExpectReset(file.context, tableIndex);
    }
    Disarrange(file.context);
    EXPECT_EQ(NtfsNotInUse, OpenFile(FileFrn - 1, file)) << "also where the file isn't opened";
    ExpectReset(file.context, 0);
    EXPECT_EQ(nullptr, file.record.GetPtr());
}

TEST_F(MAVolumeFile, ARecordIsReadWholeAndMended) {
    const FileRecord record = FileRecord().RecordNumber(7).Add(Data("data"));
    File_t file;
    EXPECT_META_OK(OpenOnly(WithFile(record), file));
    EXPECT_SAME_BYTES(record.MendedBytes(), BytesOf(file.record));
}

TEST_F(MAVolumeFile, RecordsAndSectorsMayBeOfOtherSizes) {
    const FileRecord record =
        FileRecord().RecordBytes(4096).SectorBytes(4096).Add(Data(PatternedBytes(3000))).RecordNumber(7);
    File_t file;
    EXPECT_META_OK(OpenOnly(WithFile(record).RecordBytes(4096).SectorBytes(4096), file));
    EXPECT_SAME_BYTES(record.MendedBytes(), BytesOf(file.record));
}

TEST_F(MAVolumeFile, ARecordThatCannotBeUsedIsRefused) {
    const struct {
        const char* name;
        std::string record;
        int result;
        const char* text;
    } rows[] = {
        {"zeros", std::string(1024, '\0'), NtfsNotInUse, "File Not in Use"},
        {"another signature", FileRecord().Signature("BAAD").Bytes(), NtfsNotInUse, "File Not in Use"},
        {"the first sector torn", FileRecord().BreakSectorEnd(0).Bytes(), NtfsRecordCorrupted,
         "File Record is Corrupted"},
        {"the second sector torn", FileRecord().BreakSectorEnd(1).Bytes(), NtfsRecordCorrupted,
         "File Record is Corrupted"},
        {"not in use", FileRecord().Flags(0).Bytes(), NtfsNotInUse, "File Not in Use"},
        {"a directory that isn't in use", FileRecord().Flags(2).Bytes(), NtfsNotInUse, "File Not in Use"},
        {"neither in use nor a base record", FileRecord().Flags(0).BaseReference(5).Bytes(), NtfsNotInUse,
         "File Not in Use"},
        {"not a base record", FileRecord().BaseReference(NtfsReference(5)).Bytes(), NtfsNotBaseRecord,
         "File Record is not a base record"},
        {"a base of number 0 that was used before", FileRecord().BaseReference(NtfsReference(0, 1)).Bytes(),
         NtfsNotBaseRecord, "File Record is not a base record"},
        {"no end marker", FileRecord().EndMarker("\xFF\xFF\xFF\xFE").Bytes(), NtfsRecordCorrupted,
         "File Record is Corrupted"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(NtfsOk, Open(Files().Record(FileFrn, row.record)));
        File_t file;
        EXPECT_META_FAILURE(row.result, row.text, OpenFile(FileFrn, file));
    }
}

TEST_F(MAVolumeFile, ARecordBehindTheCopyIsOutOfRange) {
    ASSERT_EQ(NtfsOk, Open(WithFile(FileRecord())));
    File_t file;
    EXPECT_META_FAILURE(NtfsOutOfRange, "FRN out of range", OpenFile(FileFrn + 1, file));
    EXPECT_META_FAILURE(EINVAL, "Failed to read MFT record", OpenFile(~uint64_t{0}, file));
}

// All parts of a file in one view, with no list of attributes looked at.
TEST_F(MAVolumeFile, TheAttributesOfAllRecordsOfAFileAreInOneView) {
    const FileRecord base =
        FileRecord().Add(Attribute::Resident(NtfsAttributeListType, "no list")).Add(Data("base 1")).Add(Data("base 2"));
    const FileRecord first = FileRecord().BaseReference(NtfsReference(FileFrn)).Add(Data("first 1")).Add(Data(""));
    const FileRecord second = FileRecord().BaseReference(NtfsReference(FileFrn)).Add(Data("second"));
    Files files = WithFile(base).Record(9, first).Record(7, second).Record(8, FileRecord().Add(Data("of another")));
    files.Associate(FileFrn, 9).Associate(4, 8).Associate(FileFrn, 7).Associate(6, 8);
    File_t file;
    EXPECT_META_OK(OpenOnly(files, file));
    EXPECT_EQ(3U * 1024, file.record.GetSize());
    Values_t values = DataOf(file);
    // Which extension comes first is open.
    ASSERT_EQ(5U, values.size());
    EXPECT_EQ((Values_t{"base 1", "base 2"}), Values_t(values.begin(), values.begin() + 2));
    std::sort(values.begin(), values.end());
    EXPECT_EQ((Values_t{"", "base 1", "base 2", "first 1", "second"}), values);
}

TEST_F(MAVolumeFile, AFileWithoutExtensionRecordsIsOneRecord) {
    File_t file;
    EXPECT_META_OK(OpenOnly(WithFile(FileRecord().Add(Data("alone"))).Associate(4, 9).Associate(6, 9), file));
    EXPECT_EQ(1024U, file.record.GetSize());
    EXPECT_EQ((Values_t{"alone"}), DataOf(file));
}

TEST_F(MAVolumeFile, AnExtensionRecordThatCannotBeUsedIsRefused) {
    const struct {
        const char* name;
        std::string record;
        int result;
        const char* text;
    } rows[] = {
        {"zeros", std::string(1024, '\0'), NtfsNotInUse, "File Not in Use"},
        {"a torn sector", FileRecord().BreakSectorEnd(1).Bytes(), NtfsRecordCorrupted, "File Record is Corrupted"},
        {"not in use", FileRecord().Flags(0).Bytes(), NtfsNotInUse, "File Not in Use"},
        {"no end marker", FileRecord().EndMarker("\xFF\xFF\xFF\xFE").Bytes(), NtfsRecordCorrupted,
         "File Record is Corrupted"},
        {"a base of its own", FileRecord().Add(Data("x")).Bytes(), NtfsOk, ""},
        {"a base of another", FileRecord().BaseReference(77).Add(Data("x")).Bytes(), NtfsOk, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(NtfsOk, Open(WithFile(FileRecord()).Record(9, row.record).Associate(FileFrn, 9)));
        File_t file;
        EXPECT_META_FAILURE(row.result, row.text, OpenFile(FileFrn, file));
    }
    ASSERT_EQ(NtfsOk, Open(WithFile(FileRecord()).Associate(FileFrn, 100)));
    File_t file;
    EXPECT_META_FAILURE(NtfsOutOfRange, "FRN out of range", OpenFile(FileFrn, file));
}

// What stands in the slack of a record isn't part of it, but is copied: the next record lies over it.
TEST_F(MAVolumeFile, WhatLiesBehindTheEndMarkersOfMergedRecordsShowsNowhere) {
    const std::string slack(300, 's');
    const FileRecord first = FileRecord().Add(Data("first")).PutAt(400, slack);
    const FileRecord second = FileRecord().Add(Data("second")).Add(Data("third")).PutAt(500, slack);
    File_t file;
    EXPECT_META_OK(OpenOnly(WithFile(first)
                                .Record(8, second)
                                .Record(9, FileRecord().Add(Data("fourth")))
                                .Associate(FileFrn, 8)
                                .Associate(FileFrn, 9),
                            file));
    Values_t values = DataOf(file);
    std::sort(values.begin(), values.end());
    EXPECT_EQ((Values_t{"first", "fourth", "second", "third"}), values);
    const std::string bytes = BytesOf(file.record);
    EXPECT_EQ(std::string::npos, bytes.find(slack.substr(0, 20), bytes.size() - 512)) << "the rest is zeros";
}

TEST_F(MAVolumeFile, ClosingResetsThePositionAndTakesTheRecordsSignature) {
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(WithFile(FileRecord()), file));
    Disarrange(file.context);
    m_Volume.SetLastErrorStr("before");
    EXPECT_META_OK(m_Volume.CloseFile(&file.record, &file.context));
    ExpectReset(file.context, 0);
    EXPECT_EQ('\0', file.record.GetPtr()[0]);
    EXPECT_EQ('I', file.record.GetPtr()[1]);
    CAutoMemory<char> none;
    EXPECT_META_OK(m_Volume.CloseFile(&none, &file.context));
    EXPECT_META_OK(m_Volume.CloseFile(nullptr, nullptr));
}

TEST_F(MAVolumeFile, ANameIsFoundByItsKind) {
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(WithFile(FileRecord()
                                            .Add(Name(u"posix", Posix))
                                            .Add(Name(u"SHORT", Short))
                                            .Add(Name(u"a long n\u00E4me", Long))
                                            .Add(Name(u"another", Long))),
                               file));
    const std::pair<uint32_t, std::u16string> rows[] = {
        {Posix, u"posix"}, {Long, u"a long n\u00E4me"}, {Short, u"SHORT"}};
    for (const auto& [kind, expected] : rows) {
        CAutoMemory<char> name = BufferOf("before");
        EXPECT_META_OK(m_Volume.GetFileName(&file.record, &name, kind));
        EXPECT_SAME_BYTES(BytesOfName(expected), BytesOf(name));
    }
}

// One name that is long and short alike serves for both, and for no other.
TEST_F(MAVolumeFile, ANameOfBothKindsIsFoundAsEach) {
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(WithFile(FileRecord().Add(Name(u"BOTH", 3))), file));
    CAutoMemory<char> name;
    EXPECT_META_OK(m_Volume.GetFileName(&file.record, &name, Long));
    EXPECT_META_OK(m_Volume.GetFileName(&file.record, &name, Short));
    EXPECT_SAME_BYTES(BytesOfName(u"BOTH"), BytesOf(name));
    EXPECT_META_FAILURE(NtfsIndexNotFound, "Index Not Found", m_Volume.GetFileName(&file.record, &name, Posix));
}

TEST_F(MAVolumeFile, ANameThatIsNotThereIsNotFound) {
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(WithFile(FileRecord()), file));
    CAutoMemory<char> name;
    for (const uint32_t kind : {0U, 1U, 2U, 3U})
        EXPECT_META_FAILURE(NtfsIndexNotFound, "Index Not Found", m_Volume.GetFileName(&file.record, &name, kind));
    EXPECT_META_FAILURE(NtfsIndexNotFound, "Index Not Found", m_Volume.GetFileName(nullptr, &name, 1));
    EXPECT_META_FAILURE(NtfsIndexNotFound, "Index Not Found", m_Volume.GetFileName(&file.record, nullptr, 1));
    CAutoMemory<char> none;
    EXPECT_META_FAILURE(NtfsIndexNotFound, "Index Not Found", m_Volume.GetFileName(&none, &name, 1));
}

TEST_F(MAVolumeFile, ANameLongerThanItsAttributeIsCorrupt) {
    std::string value = NtfsFileNameValue({});
    PutLe8(value, 64, 4);
    PutLe8(value, 65, Long);
    File_t file;
    ASSERT_EQ(NtfsOk,
              OpenOnly(WithFile(FileRecord().Add(Attribute::Resident(NtfsFileNameType, value + "123456"))), file));
    CAutoMemory<char> name;
    EXPECT_META_FAILURE(NtfsRecordCorrupted, "File Record is Corrupted",
                        m_Volume.GetFileName(&file.record, &name, Long));
}

class MAVolumeFacts : public MAVolumeFile {
protected:
    static Attribute Information(bool isShort = false) {
        NtfsStandardInformationFields_t fields;
        fields.creation = 0x1111111111111111;
        fields.modification = 0x2222222222222222;
        fields.recordChange = 0x3333333333333333;
        fields.access = 0x4444444444444444;
        fields.attributes = 0x2027;
        fields.isShort = isShort;
        return Attribute::Resident(NtfsStandardInformationType, NtfsStandardInformationValue(fields));
    }
};

TEST_F(MAVolumeFacts, TheTimesOfAFileAreThoseOfItsData) {
    for (const bool isShort : {false, true}) {
        File_t file;
        ASSERT_EQ(NtfsOk, OpenOnly(WithFile(FileRecord().Add(Information(isShort))), file));
        uint64_t times[3] = {};
        EXPECT_META_OK(m_Volume.GetFileTime(&file.record, &times[0], &times[1], &times[2]));
        EXPECT_EQ(0x1111111111111111U, times[0]);
        EXPECT_EQ(0x4444444444444444U, times[1]);
        EXPECT_EQ(0x2222222222222222U, times[2]);
        uint32_t attributes = 0;
        EXPECT_META_OK(m_Volume.GetFileAttribute(&file.record, &attributes));
        EXPECT_EQ(0x2027U, attributes);
    }
}

TEST_F(MAVolumeFacts, ADirectoryWasWrittenWhenItsRecordChanged) {
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(WithFile(FileRecord().Directory().Add(Information())), file));
    uint64_t times[3] = {};
    EXPECT_META_OK(m_Volume.GetFileTime(&file.record, &times[0], &times[1], &times[2]));
    EXPECT_EQ(0x3333333333333333U, times[2]);
    uint32_t attributes = 0;
    EXPECT_META_OK(m_Volume.GetFileAttribute(&file.record, &attributes));
    EXPECT_EQ(0x2037U, attributes);
}

TEST_F(MAVolumeFacts, AFileWithoutThemIsNoValidRecord) {
    const struct {
        const char* name;
        FileRecord record;
        int result;
        const char* text;
    } rows[] = {
        {"none", FileRecord().Add(Data("x")), NtfsInvalidMftRecord, "Invalid MFT Record"},
        {"too short", FileRecord().Add(Attribute::Resident(NtfsStandardInformationType, std::string(35, 'x'))),
         NtfsInvalidMftRecord, "Invalid MFT Record"},
        {"not resident", FileRecord().Add(Attribute::NonResident(NtfsStandardInformationType, {{5, 1}}, 72)),
         NtfsInvalidParameter, "Invalid Parameter"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        File_t file;
        ASSERT_EQ(NtfsOk, OpenOnly(WithFile(row.record), file));
        uint64_t times[3] = {};
        uint32_t attributes = 0;
        EXPECT_META_FAILURE(row.result, row.text, m_Volume.GetFileTime(&file.record, &times[0], &times[1], &times[2]));
        EXPECT_META_FAILURE(row.result, row.text, m_Volume.GetFileAttribute(&file.record, &attributes));
    }
}

TEST_F(MAVolumeFacts, EachNeedsAPlaceForIt) {
    File_t file;
    ASSERT_EQ(NtfsOk, OpenOnly(WithFile(FileRecord().Add(Information())), file));
    uint64_t times[3] = {};
    uint32_t attributes = 0;
    CAutoMemory<char> none;
    for (int missing = 0; missing < 5; ++missing) {
        CAutoMemory<char>* const record = missing == 0 ? nullptr : missing == 4 ? &none : &file.record;
        EXPECT_META_FAILURE(NtfsInvalidParameter, "Invalid Parameter",
                            m_Volume.GetFileTime(record, missing == 1 ? nullptr : &times[0],
                                                 missing == 2 ? nullptr : &times[1],
                                                 missing == 3 ? nullptr : &times[2]));
    }
    EXPECT_META_FAILURE(NtfsInvalidParameter, "Invalid Parameter", m_Volume.GetFileAttribute(nullptr, &attributes));
    EXPECT_META_FAILURE(NtfsInvalidParameter, "Invalid Parameter", m_Volume.GetFileAttribute(&none, &attributes));
    EXPECT_META_FAILURE(NtfsInvalidParameter, "Invalid Parameter", m_Volume.GetFileAttribute(&file.record, nullptr));
}

}  // namespace
