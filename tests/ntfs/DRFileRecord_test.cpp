#include "ntfs/DRFileRecord.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/NtfsRecordBuilder.h"

namespace {

constexpr uint32_t SectorBytes = 512;
constexpr char EndMarker[] = "\xFF\xFF\xFF\xFF";

CNtfsAttributeBuilder Value(uint32_t type, const std::string& value = "value") {
    return CNtfsAttributeBuilder::Resident(type, value);
}

CNtfsAttributeBuilder OnClusters(uint32_t type = NtfsDataType, uint64_t dataBytes = 8192) {
    return CNtfsAttributeBuilder::NonResident(type, {{100, 2}}, dataBytes);
}

// $STANDARD_INFORMATION, two names, the unnamed data and a named stream.
CNtfsFileRecordBuilder Usual() {
    return CNtfsFileRecordBuilder()
        .Add(Value(NtfsStandardInformationType, NtfsStandardInformationValue({})))
        .Add(Value(NtfsFileNameType, NtfsFileNameValue({.name = u"LONGNA~1.TXT", .kind = 2})))
        .Add(Value(NtfsFileNameType, NtfsFileNameValue({.name = u"long name.txt", .kind = 1})))
        .Add(OnClusters())
        .Add(Value(NtfsDataType, "stream").Name(u"stream"));
}

ATTR_RECORD_HEADER_t* HeaderOf(std::string& attribute) {
    return reinterpret_cast<ATTR_RECORD_HEADER_t*>(attribute.data());
}

size_t PlaceIn(const std::string& record, const ATTR_RECORD_HEADER_t* attribute) {
    return static_cast<size_t>(reinterpret_cast<const char*>(attribute) - record.data());
}

// In a buffer of exactly its size, so that a sanitizer sees each byte that is read behind it.
int Check(const std::string& record) {
    return CDRFileRecord::CheckAttributes(BufferOf(record).GetPtr(), static_cast<uint32_t>(record.size()));
}

std::string CutTo(const std::string& record, size_t bytes) {
    return record.substr(0, bytes);
}

}  // namespace

TEST(DRFileRecord, HasATextForEachResult) {
    const struct {
        int result;
        const char* text;
    } rows[] = {
        {NtfsOk, "No Error"},
        {NtfsInvalidParameter, "Invalid Parameter"},
        {NtfsOutOfMemory, "Out Of Memory"},
        {NtfsInvalidMftRecord, "Invalid MFT Record"},
        {NtfsRecordCorrupted, "File Record is Corrupted"},
        {NtfsEndOfRun, "Reached End of Data run"},
        {NtfsOutOfRange, "Value Out Of Range"},
        {NtfsTooManyRecords, "Too many File records"},
        {NtfsNoData, "No $DATA in file"},
        {NtfsRunTooWide, "Run Offset More than 8 Bytes"},
        {NtfsNotInUse, "File Not in Use"},
        {NtfsIsDirectory, "Cannot read Directory"},
        {NtfsBadCompression, "Unknown Compression Unit"},
        {NtfsNotAnIndex, "Not a valid Index File"},
        {NtfsWrongCollation, "Collation Rule Not set to File Name"},
        {NtfsIndexCorrupted, "Index Record is Corrupted"},
        {NtfsIndexNotFound, "Index Not Found"},
        {NtfsIndexFound, "Index Found"},
        {NtfsNotBaseRecord, "File Record is not a base record"},
        {NtfsAttributeNotFound, "Attribute not found"},
        {NtfsTreeOpenFailed, "Error Opening MFT CTree table"},
        {NtfsTreeInsertFailed, "Error inserting new entried into CTree"},
        {NtfsTreeCloseFailed, "Error Closing CTree table"},
        {NtfsSeeLog, "See Previous log line"},
        {NtfsUnsupportedCluster, "Cluster size is not supported"},
        {NtfsQuit, "Quit flag set. Processing aborted"},
    };
    int expected = 0;
    for (const auto& row : rows) {
        EXPECT_EQ(row.result, expected--) << row.text;
        EXPECT_STREQ(_ErrMsg[-row.result], row.text);
        EXPECT_STREQ(NtfsErrorText(row.result), row.text);
    }
    EXPECT_EQ(expected, -26);
}

TEST(DRFileRecord, HasNoTextForAnyOtherNumber) {
    for (const int number : {1, 26, -26, -27, INT_MAX, INT_MIN})
        EXPECT_EQ(NtfsErrorText(number), nullptr) << number;
}

TEST(DRFileRecord, TellsAMissingRecordFromAnotherSignature) {
    const struct {
        const char* signature;
        int ofFile;
        int ofIndex;
    } rows[] = {
        {"FILE", NtfsOk, NtfsInvalidParameter},        {"INDX", NtfsNotInUse, NtfsOk},
        {"BAAD", NtfsNotInUse, NtfsInvalidParameter},  {"file", NtfsNotInUse, NtfsInvalidParameter},
        {"FILX", NtfsNotInUse, NtfsInvalidParameter},  {"\0ILE", NtfsNotInUse, NtfsInvalidParameter},
        {"INDEX", NtfsNotInUse, NtfsInvalidParameter},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(CDRFileRecord::IsValidFileRec(row.signature), row.ofFile) << row.signature;
        EXPECT_EQ(CDRFileRecord::IsValidIndexRec(row.signature), row.ofIndex) << row.signature;
    }
    EXPECT_EQ(CDRFileRecord::IsValidFileRec(nullptr), NtfsInvalidParameter);
    EXPECT_EQ(CDRFileRecord::IsValidIndexRec(nullptr), NtfsInvalidParameter);
}

TEST(DRFileRecord, FindsTheFirstAttributeOfAType) {
    const CNtfsFileRecordBuilder builder = Usual();
    std::string record = builder.MendedBytes();
    const struct {
        uint32_t type;
        size_t index;
    } rows[] = {{NtfsStandardInformationType, 0}, {NtfsFileNameType, 1}, {NtfsDataType, 3}};
    for (const auto& row : rows) {
        ATTR_RECORD_HEADER_t* const found = CDRFileRecord::FindFirstAttr(record.data(), row.type);
        ASSERT_NE(found, nullptr) << row.type;
        EXPECT_EQ(PlaceIn(record, found), builder.AttributeOffset(row.index)) << row.type;
    }
    for (const uint32_t type : {0U, NtfsAttributeListType, NtfsIndexRootType, 0xFFFFFFFEU})
        EXPECT_EQ(CDRFileRecord::FindFirstAttr(record.data(), type), nullptr) << type;
}

TEST(DRFileRecord, FindsTheEndMarkerItself) {
    for (const CNtfsFileRecordBuilder& builder : {CNtfsFileRecordBuilder(), Usual()}) {
        std::string record = builder.MendedBytes();
        ATTR_RECORD_HEADER_t* const marker = CDRFileRecord::FindFirstAttr(record.data(), NtfsEndType);
        ASSERT_NE(marker, nullptr);
        EXPECT_EQ(PlaceIn(record, marker), builder.EndMarkerOffset());
    }
}

TEST(DRFileRecord, FindsNoDataInARecordWithoutIt) {
    std::string record =
        CNtfsFileRecordBuilder().Add(Value(NtfsStandardInformationType)).Add(Value(NtfsIndexRootType)).MendedBytes();
    EXPECT_EQ(CDRFileRecord::FindFirstAttr(record.data(), NtfsDataType), nullptr);
    std::string empty = CNtfsFileRecordBuilder().MendedBytes();
    EXPECT_EQ(CDRFileRecord::FindFirstAttr(empty.data(), NtfsDataType), nullptr);
}

TEST(DRFileRecord, StartsWhereTheRecordSaysThatItsAttributesDo) {
    const CNtfsFileRecordBuilder builder = Usual();
    std::string record = Usual().FirstAttribute(static_cast<uint16_t>(builder.AttributeOffset(2))).MendedBytes();
    ATTR_RECORD_HEADER_t* const first = CDRFileRecord::GetFirstAttr(record.data());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(PlaceIn(record, first), builder.AttributeOffset(2));
    EXPECT_EQ(CDRFileRecord::FindFirstAttr(record.data(), NtfsStandardInformationType), nullptr);
}

TEST(DRFileRecord, FindsTheNextOfATypeBehindAnyAttribute) {
    const CNtfsFileRecordBuilder builder = Usual();
    std::string record = builder.MendedBytes();
    const struct {
        size_t from;
        uint32_t type;
        size_t found;  // 5 for none
    } rows[] = {
        {0, NtfsFileNameType, 1},
        {1, NtfsFileNameType, 2},
        {2, NtfsFileNameType, 5},
        {0, NtfsDataType, 3},
        {3, NtfsDataType, 4},
        {4, NtfsDataType, 5},
        {0, NtfsStandardInformationType, 5},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.from);
        auto* const from = reinterpret_cast<ATTR_RECORD_HEADER_t*>(record.data() + builder.AttributeOffset(row.from));
        ATTR_RECORD_HEADER_t* const next = CDRFileRecord::FindNextAttr(row.type, from);
        if (row.found == 5)
            EXPECT_EQ(next, nullptr);
        else
            EXPECT_EQ(PlaceIn(record, next), builder.AttributeOffset(row.found));
    }
}

TEST(DRFileRecord, FindsNothingBehindTheEndMarker) {
    // Behind the mark lies what would be found if the walk went on.
    for (const uint32_t type : {0xFFFFFFFFU, 0xFFFFFFFEU}) {
        std::string attributes = Value(type).Bytes() + Value(NtfsDataType).Bytes() + EndMarker;
        EXPECT_EQ(CDRFileRecord::FindNextAttr(NtfsDataType, HeaderOf(attributes)), nullptr) << type;
    }
    std::string attributes = Value(0xFFFFFFFD).Bytes() + Value(NtfsDataType).Bytes() + EndMarker;
    EXPECT_NE(CDRFileRecord::FindNextAttr(NtfsDataType, HeaderOf(attributes)), nullptr);
}

TEST(DRFileRecord, NeverGivesTheEndMarkerAsTheNextAttribute) {
    std::string record = Usual().MendedBytes();
    ATTR_RECORD_HEADER_t* const first = CDRFileRecord::GetFirstAttr(record.data());
    EXPECT_EQ(CDRFileRecord::FindNextAttr(NtfsEndType, first), nullptr);
}

TEST(DRFileRecord, WalksAllAttributesInTheirOrder) {
    std::string record = Usual().MendedBytes();
    std::vector<uint32_t> types;
    for (ATTR_RECORD_HEADER_t* attribute = CDRFileRecord::GetFirstAttr(record.data()); attribute != nullptr;
         attribute = CDRFileRecord::GetNextAttr(attribute))
        types.push_back(attribute->Type);
    EXPECT_EQ(types, (std::vector<uint32_t>{NtfsStandardInformationType, NtfsFileNameType, NtfsFileNameType,
                                            NtfsDataType, NtfsDataType}));
}

TEST(DRFileRecord, HasNoFirstAttributeInAnEmptyRecord) {
    std::string record = CNtfsFileRecordBuilder().MendedBytes();
    EXPECT_EQ(CDRFileRecord::GetFirstAttr(record.data()), nullptr);
}

TEST(DRFileRecord, HasNoAttributeBehindTheEndMarker) {
    std::string marker =
        std::string("\xFF\xFF\xFF\xFF\x18\0\0\0", 8) + std::string(16, '\0') + Value(NtfsDataType).Bytes();
    EXPECT_EQ(CDRFileRecord::GetNextAttr(HeaderOf(marker)), nullptr);
}

TEST(DRFileRecord, EndsItsWalksAtAnAttributeWithoutALength) {
    std::string record =
        CNtfsFileRecordBuilder().Add(Value(NtfsFileNameType).Length(0)).Add(Value(NtfsDataType)).MendedBytes();
    ATTR_RECORD_HEADER_t* const first = CDRFileRecord::GetFirstAttr(record.data());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(CDRFileRecord::GetNextAttr(first), nullptr);
    EXPECT_EQ(CDRFileRecord::FindNextAttr(NtfsDataType, first), nullptr);
    EXPECT_EQ(CDRFileRecord::FindFirstAttr(record.data(), NtfsDataType), nullptr);
    EXPECT_EQ(CDRFileRecord::FindFirstAttr(record.data(), NtfsFileNameType), first);
}

TEST(DRFileRecord, GivesTheRunListOfANonResidentAttributeAlone) {
    std::string onClusters = OnClusters().Name(u"stream").Bytes();
    char* const runList = CDRFileRecord::GetDataRunFromAttr(HeaderOf(onClusters));
    ASSERT_NE(runList, nullptr);
    EXPECT_EQ(std::string(runList, 5), std::string("\x11\x02\x64\0\0", 5));
    EXPECT_EQ(CDRFileRecord::GetDataRunBytes(HeaderOf(onClusters)),
              onClusters.size() - static_cast<size_t>(runList - onClusters.data()));

    std::string resident = Value(NtfsDataType).Bytes();
    EXPECT_EQ(CDRFileRecord::GetDataRunFromAttr(HeaderOf(resident)), nullptr);
    EXPECT_EQ(CDRFileRecord::GetDataRunBytes(HeaderOf(resident)), 0U);
}

TEST(DRFileRecord, LeavesNoBytesToARunListAtOrBehindTheAttributesEnd) {
    for (const uint16_t offset : {uint16_t{72}, uint16_t{73}, uint16_t{0xFFFF}}) {
        std::string attribute = OnClusters().Length(72).RunListOffset(offset).Bytes();
        EXPECT_EQ(CDRFileRecord::GetDataRunBytes(HeaderOf(attribute)), 0U) << offset;
    }
    std::string attribute = OnClusters().Length(72).RunListOffset(71).Bytes();
    EXPECT_EQ(CDRFileRecord::GetDataRunBytes(HeaderOf(attribute)), 1U);
}

TEST(DRFileRecord, GivesTheCompressionUnitOfANonResidentAttributeAlone) {
    std::string compressed = OnClusters().Flags(1).CompressionUnit(4).Bytes();
    EXPECT_EQ(CDRFileRecord::GetCompressionUnit(HeaderOf(compressed)), 4);
    std::string plain = OnClusters().Bytes();
    EXPECT_EQ(CDRFileRecord::GetCompressionUnit(HeaderOf(plain)), 0);
    std::string wide = OnClusters().PutAt(34, "\x34\x12").Bytes();
    EXPECT_EQ(CDRFileRecord::GetCompressionUnit(HeaderOf(wide)), 0x1234);
    std::string resident = Value(NtfsDataType, std::string(64, '\x55')).Bytes();
    EXPECT_EQ(CDRFileRecord::GetCompressionUnit(HeaderOf(resident)), 0);
}

TEST(DRFileRecord, GivesTheSizeOfTheDataInBothForms) {
    const struct {
        std::string attribute;
        uint64_t size;
    } rows[] = {
        {Value(NtfsDataType, "").Bytes(), 0},
        {Value(NtfsDataType, "five.").Bytes(), 5},
        {Value(NtfsDataType).ValueLength(0xFFFFFFFF).Bytes(), 0xFFFFFFFF},
        {OnClusters(NtfsDataType, 5000).InitializedBytes(100).AllocatedBytes(9).Bytes(), 5000},
        {OnClusters(NtfsDataType, ~uint64_t{0}).Bytes(), ~uint64_t{0}},
        // Any value but 0 makes an attribute non-resident.
        {OnClusters(NtfsDataType, 5000).PutAt(8, "\x80").Bytes(), 5000},
    };
    for (const auto& row : rows) {
        std::string attribute = row.attribute;
        EXPECT_EQ(CDRFileRecord::GetAttributeDataSize(HeaderOf(attribute)), row.size);
    }
}

TEST(DRFileRecord, PutsTheSectorsEndsBack) {
    const struct {
        uint32_t recordBytes;
        uint32_t sectorBytes;
    } rows[] = {{1024, 512}, {4096, 512}, {4096, 4096}, {1024, 256}, {512, 512}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.recordBytes / row.sectorBytes);
        CNtfsFileRecordBuilder file =
            CNtfsFileRecordBuilder().RecordBytes(row.recordBytes).SectorBytes(row.sectorBytes);
        CNtfsIndexRecordBuilder index =
            CNtfsIndexRecordBuilder().RecordBytes(row.recordBytes).SectorBytes(row.sectorBytes);
        for (uint32_t end = row.sectorBytes; end <= row.recordBytes; end += row.sectorBytes) {
            file.PutAt(end - 2, LittleEndianBytes(0xA000 + end, 2));
            index.PutAt(end - 2, LittleEndianBytes(0xB000 + end, 2));
        }
        std::string record = file.Bytes();
        ASSERT_NE(record, file.MendedBytes());
        EXPECT_EQ(CDRFileRecord::DoFILESectorFixup(record.data(), row.sectorBytes), NtfsOk);
        EXPECT_EQ(record, file.MendedBytes());

        record = index.Bytes();
        EXPECT_EQ(CDRFileRecord::DoINDXSectorFixup(record.data(), row.sectorBytes), NtfsOk);
        EXPECT_EQ(record, index.MendedBytes());
    }
}

TEST(DRFileRecord, MendsTheSectorsInFrontOfABrokenOneAndThenFails) {
    const auto filled = CNtfsFileRecordBuilder().RecordBytes(2048).PutAt(510, "ab").PutAt(1022, "cd").PutAt(1534, "ef");
    for (size_t broken = 0; broken < 4; ++broken) {
        SCOPED_TRACE(broken);
        const std::string onDisk = CNtfsFileRecordBuilder(filled).BreakSectorEnd(broken).Bytes();
        const size_t mended = broken * SectorBytes;
        const std::string expected = filled.MendedBytes().substr(0, mended) + onDisk.substr(mended);

        std::string record = onDisk;
        EXPECT_EQ(CDRFileRecord::DoFILESectorFixup(record.data(), SectorBytes), NtfsRecordCorrupted);
        EXPECT_EQ(record, expected);
        record = onDisk;
        EXPECT_EQ(CDRFileRecord::DoINDXSectorFixup(record.data(), SectorBytes), NtfsIndexCorrupted);
        EXPECT_EQ(record, expected);
    }
}

TEST(DRFileRecord, FailsToMendASecondTime) {
    std::string record = Usual().PutAt(510, "ab").Bytes();
    EXPECT_EQ(CDRFileRecord::DoFILESectorFixup(record.data(), SectorBytes), NtfsOk);
    EXPECT_EQ(CDRFileRecord::DoFILESectorFixup(record.data(), SectorBytes), NtfsRecordCorrupted);
}

TEST(DRFileRecord, MendsAsManySectorsAsTheArraySays) {
    for (const uint16_t count : {uint16_t{0}, uint16_t{1}}) {
        const std::string onDisk = Usual().SequenceCount(count).BreakSectorEnd(0).Bytes();
        std::string record = onDisk;
        EXPECT_EQ(CDRFileRecord::DoFILESectorFixup(record.data(), SectorBytes), NtfsOk) << count;
        EXPECT_EQ(record, onDisk) << count;
    }
    std::string record = Usual().SequenceCount(2).BreakSectorEnd(1).PutAt(510, "ab").Bytes();
    EXPECT_EQ(CDRFileRecord::DoFILESectorFixup(record.data(), SectorBytes), NtfsOk);
    EXPECT_EQ(record.substr(510, 2), "ab");
}

TEST(DRFileRecord, FailsAtASectorEndOutsideTheRecordAfterMendingTheOthers) {
    const struct {
        const char* name;
        CNtfsFileRecordBuilder record;
        uint32_t sectorBytes;
        bool isMended;  // its first sector
    } rows[] = {
        {"one sector too many", Usual().SequenceCount(4), SectorBytes, true},
        {"the most sectors", Usual().SequenceCount(0xFFFF), SectorBytes, true},
        {"an array at the end", Usual().SequenceOffset(1023), SectorBytes, false},
        {"an array behind the end", Usual().SequenceOffset(0xFFFF), SectorBytes, false},
        {"an array of which one entry is there", Usual().SequenceOffset(1022), SectorBytes, false},
        {"sectors of no bytes", Usual(), 0, false},
        {"sectors of one byte", Usual(), 1, false},
        {"sectors larger than the record", Usual(), 4096, false},
        {"sectors whose end wraps", Usual(), 0x80000001, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string onDisk = CNtfsFileRecordBuilder(row.record).PutAt(510, "ab").Bytes();
        CAutoMemory<char> record = BufferOf(onDisk);
        EXPECT_EQ(CDRFileRecord::DoFILESectorFixup(record.GetPtr(), record.GetSize(), row.sectorBytes),
                  NtfsRecordCorrupted);
        EXPECT_EQ(BytesOf(record).substr(510, 2), row.isMended ? "ab" : onDisk.substr(510, 2));
        record = BufferOf(onDisk);
        EXPECT_EQ(CDRFileRecord::DoINDXSectorFixup(record.GetPtr(), record.GetSize(), row.sectorBytes),
                  NtfsIndexCorrupted);
    }
}

TEST(DRFileRecord, FailsToMendWhatIsTooShortForAHead) {
    for (uint32_t size = 0; size < 8; ++size) {
        CAutoMemory<char> record = BufferOf(CutTo(Usual().Bytes(), size));
        EXPECT_EQ(CDRFileRecord::DoFILESectorFixup(record.GetPtr(), size, SectorBytes), NtfsRecordCorrupted) << size;
        EXPECT_EQ(CDRFileRecord::DoINDXSectorFixup(record.GetPtr(), size, SectorBytes), NtfsIndexCorrupted) << size;
    }
}

TEST(DRFileRecord, TakesRecordsWhoseAttributesLieInside) {
    const struct {
        const char* name;
        std::string record;
    } rows[] = {
        {"no attribute", CNtfsFileRecordBuilder().MendedBytes()},
        {"the usual ones", Usual().MendedBytes()},
        {"a record of 4 KiB", Usual().RecordBytes(4096).MendedBytes()},
        {"a record cut behind its end marker", CutTo(Usual().MendedBytes(), Usual().EndMarkerOffset() + 4)},
        {"an empty value", CNtfsFileRecordBuilder().Add(Value(NtfsDataType, "")).MendedBytes()},
        {"an empty value far away",
         CNtfsFileRecordBuilder().Add(Value(NtfsDataType, "").ValueOffset(0xFFFF)).MendedBytes()},
        {"no name, far away", CNtfsFileRecordBuilder().Add(Value(NtfsDataType).NameOffset(0xFFFF)).MendedBytes()},
        {"a length that ends in the head",
         CNtfsFileRecordBuilder()
             .FirstAttribute(256)
             .PutAt(256, std::string("\x80\0\0\0\x0C\0\0\0\0\0\0\0\xFF\xFF\xFF\xFF", 16))
             .MendedBytes()},
        {"a value behind its attribute",
         CNtfsFileRecordBuilder().Add(Value(NtfsDataType).ValueOffset(900)).MendedBytes()},
        {"an end marker in the last bytes",
         CNtfsFileRecordBuilder().FirstAttribute(1020).PutAt(1020, EndMarker).MendedBytes()},
        {"an unknown type", CNtfsFileRecordBuilder().Add(Value(0x12345678)).MendedBytes()},
        {"a type just below the marker", CNtfsFileRecordBuilder().Add(Value(0xFFFFFFFE)).MendedBytes()},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Check(row.record), NtfsOk) << row.name;
}

TEST(DRFileRecord, RefusesRecordsWhoseAttributesLeaveThem) {
    const auto with = [](const CNtfsAttributeBuilder& attribute) {
        return CNtfsFileRecordBuilder().Add(attribute).MendedBytes();
    };
    const CNtfsFileRecordBuilder empty;
    const auto first = static_cast<uint16_t>(empty.EndMarkerOffset());
    const struct {
        const char* name;
        std::string record;
    } rows[] = {
        {"nothing at all", ""},
        {"a head cut short", CutTo(Usual().MendedBytes(), 41)},
        {"a first attribute at the end", CNtfsFileRecordBuilder().FirstAttribute(1024).MendedBytes()},
        {"a first attribute behind the end", CNtfsFileRecordBuilder().FirstAttribute(0xFFFF).MendedBytes()},
        {"an end marker cut short", CutTo(empty.MendedBytes(), first + 3U)},
        {"no end marker", Usual().EndMarker("").MendedBytes()},
        {"an end marker right behind the end", CutTo(Usual().MendedBytes(), Usual().EndMarkerOffset())},
        {"a length of 0", with(Value(NtfsDataType).Length(0))},
        {"a length that leaves the record", with(Value(NtfsDataType).Length(1024 - first + 1U))},
        {"the highest length", with(Value(NtfsDataType).Length(0xFFFFFFFF))},
        {"a length whose sum wraps", with(Value(NtfsDataType).Length(0xFFFFFFFF - first + 1U))},
        {"a name that leaves the record",
         with(Value(NtfsDataType).NameLength(1).NameOffset(static_cast<uint16_t>(1024 - first - 1)))},
        {"a name behind the record", with(Value(NtfsDataType).NameLength(1).NameOffset(0xFFFF))},
        {"a value that leaves the record", with(Value(NtfsDataType).ValueLength(1024 - first - 24 + 1U))},
        {"the longest value", with(Value(NtfsDataType).ValueLength(0xFFFFFFFF))},
        {"a value behind the record", with(Value(NtfsDataType).ValueOffset(0xFFFF))},
        {"a run list at the record's end", with(OnClusters().RunListOffset(static_cast<uint16_t>(1024 - first)))},
        {"a run list behind the record", with(OnClusters().RunListOffset(0xFFFF))},
        {"a head cut short by the record's end",
         CNtfsFileRecordBuilder().FirstAttribute(1009).PutAt(1009, "\x80").MendedBytes()},
        {"a resident form cut short by the record's end", CNtfsFileRecordBuilder()
                                                              .FirstAttribute(1003)
                                                              .PutAt(1003, std::string("\x80\0\0\0\x10\0\0\0", 8))
                                                              .MendedBytes()},
        {"a non-resident form cut short by the record's end",
         CNtfsFileRecordBuilder()
             .FirstAttribute(961)
             .PutAt(961, std::string("\x80\0\0\0\x10\0\0\0\x01", 9))
             .MendedBytes()},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Check(row.record), NtfsRecordCorrupted) << row.name;
}

TEST(DRFileRecord, RefusesWhateverOfASoundRecordIsCutOff) {
    const std::string whole = CutTo(Usual().MendedBytes(), Usual().EndMarkerOffset() + 4);
    for (size_t size = 0; size < whole.size(); ++size)
        EXPECT_EQ(Check(CutTo(whole, size)), NtfsRecordCorrupted) << size;
    EXPECT_EQ(Check(whole), NtfsOk);
}
