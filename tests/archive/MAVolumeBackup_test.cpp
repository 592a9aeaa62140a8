#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/MetadataTestVolume.h"
#include "tests/support/SameBytes.h"

// The streams of a file that its metadata holds.

namespace {

using Attribute = CNtfsAttributeBuilder;
using FileRecord = CNtfsFileRecordBuilder;
using Files = CMetadataFilesBuilder;

constexpr uint64_t FileFrn = 5;
constexpr char ParentId[] = "0123456789ABCDEF";

std::string Characters(const std::u16string& text) {
    std::string bytes;
    for (const char16_t character : text)
        bytes += LittleEndianBytes(character, 2);
    return bytes;
}

std::string Stream(uint32_t id, uint32_t attributes, const std::string& data, const std::string& name = "") {
    return LittleEndianBytes(id, 4) + LittleEndianBytes(attributes, 4) + LittleEndianBytes(data.size(), 8) +
           LittleEndianBytes(name.size(), 4) + name + data;
}

std::string SecurityStream(const std::string& descriptor) {
    return Stream(3, 2, descriptor);
}
std::string DataStream(const std::string& data) {
    return Stream(1, 0, data);
}
std::string NamedStream(const std::u16string& name, const std::string& data) {
    return Stream(4, 0, data, Characters(u":" + name + u":$DATA"));
}

Attribute Information(uint32_t securityId) {
    NtfsStandardInformationFields_t fields;
    fields.securityId = securityId;
    return Attribute::Resident(NtfsStandardInformationType, NtfsStandardInformationValue(fields));
}

// Instances count from 1 on here: one of 0 is never given.
Attribute Data(const std::string& value, uint16_t instance = 1) {
    return Attribute::Resident(NtfsDataType, value).Instance(instance);
}

Attribute Away(uint32_t type) {
    return Attribute::NonResident(type, {{50, 1}}, 4000);
}

class MAVolumeBackup : public CMetadataVolumeTest {
protected:
    static Files WithFile(const std::vector<Attribute>& attributes) {
        FileRecord record;
        for (const Attribute& attribute : attributes)
            record.Add(attribute);
        return Files().Record(FileFrn, record).ObjectId(ParentId);
    }

    void OpenOnly(const Files& files, int withSecurity = 1) {
        ASSERT_EQ(NtfsOk, Open(files));
        ASSERT_EQ(NtfsOk, OpenFile(FileFrn, m_File, withSecurity));
    }

    void ExpectNext(const std::string& expected, uint32_t size = 100'000) {
        const Outcome_t outcome = ReadResident(m_File, size);
        EXPECT_EQ(NtfsOk, outcome.result);
        EXPECT_SAME_BYTES(expected, outcome.bytes);
        EXPECT_STREQ("", m_Volume.GetLastErrorStr());
    }

    void ExpectFailure(int result, const char* text) {
        const Outcome_t outcome = ReadResident(m_File);
        EXPECT_EQ(result, outcome.result);
        EXPECT_EQ("", outcome.bytes);
        EXPECT_STREQ(text, m_Volume.GetLastErrorStr());
    }

    // All of the stream of a file, without its security.
    void ExpectPlain(const std::vector<Attribute>& attributes, const std::string& expected) {
        OpenOnly(WithFile(attributes), 0);
        ExpectNext(expected);
        ExpectNext("");
    }

    File_t m_File;
};

TEST_F(MAVolumeBackup, ASmallFileIsItsDescriptorAndItsData) {
    OpenOnly(WithFile({Information(300), Data("contents")}).Descriptor(300, "descriptor"));
    ExpectNext(SecurityStream("descriptor") + DataStream("contents"));
    ExpectNext("");
    ExpectNext("");
    EXPECT_EQ(NtfsEndOfRun, [&] {
        EXPECT_EQ(NtfsOk, OpenFile(FileFrn, m_File));
        return ReadDescription(m_File).result;
    }());
}

TEST_F(MAVolumeBackup, StreamsComeInTheirOrderWhateverThatOfTheRecord) {
    OpenOnly(WithFile({Attribute::Resident(NtfsEaType, "eaeaea"), Attribute::Resident(NtfsReparsePointType, "reparse"),
                       Data("data", 7), Attribute::Resident(NtfsObjectIdType, "an object's id!!"), Information(7),
                       Attribute::Resident(NtfsPropertySetType, "no stream here"), Data("more", 3).Name(u"a name")})
                 .Descriptor(7, "descriptor"));
    ExpectNext(SecurityStream("descriptor") + NamedStream(u"a name", "more") + DataStream("data") +
               Stream(7, 0, ParentId + std::string(32, '\0') + "an object's id!!") + Stream(8, 0, "reparse") +
               Stream(2, 0, std::string("\0\0\0\0ea", 6)));
    ExpectNext("");
}

TEST_F(MAVolumeBackup, ABigFileIsItsDescriptorAlone) {
    OpenOnly(WithFile({Information(300), Away(NtfsDataType)}).Descriptor(300, "descriptor"));
    ExpectNext(SecurityStream("descriptor"));
    ExpectNext("");
}

TEST_F(MAVolumeBackup, SecurityIsLeftOutOnRequest) {
    OpenOnly(WithFile({Information(300), Data("x")}).Descriptor(300, "descriptor"), 0);
    ExpectNext(DataStream("x"));
    ExpectNext("");
}

TEST_F(MAVolumeBackup, AFileWithoutStreamsIsOverAtOnce) {
    ExpectPlain({}, "");
}

// What lies in the record itself isn't given from the security file, and what is resident isn't given at all.
TEST_F(MAVolumeBackup, AFileWithADescriptorOfItsOwnHasNoSecurityStream) {
    for (const Attribute& own :
         {Attribute::Resident(NtfsSecurityDescriptorType, "own"), Away(NtfsSecurityDescriptorType)}) {
        OpenOnly(WithFile({Information(300), own, Data("x")}).Descriptor(300, "descriptor"));
        ExpectNext(DataStream("x"));
        ExpectNext("");
    }
}

TEST_F(MAVolumeBackup, WithoutStandardInformationTheDescriptorFailsAndTheRestFollows) {
    OpenOnly(WithFile({Data("x")}));
    ExpectFailure(NtfsInvalidMftRecord, "Invalid MFT Record");
    ExpectNext(DataStream("x"));
    ExpectNext("");
}

TEST_F(MAVolumeBackup, ADescriptorThatIsNotThereIsToldByItsIdAndTheRestFollows) {
    OpenOnly(WithFile({Information(300), Data("x")}).Descriptor(301, "another"));
    ExpectFailure(NtfsIndexNotFound, "Security information not found for ID 300");
    ExpectNext(DataStream("x"));
    ExpectNext("");
    OpenOnly(WithFile({Information(0xFFFFFFFE)}));
    ExpectFailure(NtfsIndexNotFound, "Security information not found for ID -2");
    // An old volume tells no id.
    NtfsStandardInformationFields_t old;
    old.isShort = true;
    OpenOnly(WithFile({Attribute::Resident(NtfsStandardInformationType, NtfsStandardInformationValue(old))}));
    ExpectFailure(NtfsIndexNotFound, "Security information not found for ID 0");
}

TEST_F(MAVolumeBackup, TheDescriptorIsLookedForFromTheFilesStartEachTime) {
    Files files = WithFile({Information(3)});
    files.Descriptor(1, "first").Descriptor(2, "").Descriptor(3, "third").Descriptor(3, "again");
    files.Descriptor(4, std::string(70'000, 'd'));
    files.Record(6, FileRecord().Add(Information(1))).Record(7, FileRecord().Add(Information(4)));
    ASSERT_EQ(NtfsOk, Open(files));
    const std::pair<uint64_t, std::string> rows[] = {
        {5, "third"}, {7, std::string(70'000, 'd')}, {6, "first"}, {5, "third"}};
    for (const auto& [frn, descriptor] : rows) {
        ASSERT_EQ(NtfsOk, OpenFile(frn, m_File));
        ExpectNext(SecurityStream(descriptor));
        ExpectNext("");
    }
}

TEST_F(MAVolumeBackup, AnEmptyDescriptorIsNoStream) {
    OpenOnly(WithFile({Information(300), Data("x")}).Descriptor(300, ""));
    ExpectNext(DataStream("x"));
}

TEST_F(MAVolumeBackup, ASecurityFileCutShortIsNotFoundOrFails) {
    const Files whole = WithFile({Information(300), Data("x")}).Descriptor(7, "another").Descriptor(300, "descriptor");
    whole.WriteTo(m_Dir);
    const std::string bytes = whole.SecurityBytes();
    const size_t found = bytes.size() - 10;
    for (size_t size = 12; size < bytes.size(); ++size) {
        SCOPED_TRACE(size);
        m_Dir.Write("security", bytes.substr(0, size));
        ASSERT_EQ(NtfsOk, Open());
        ASSERT_EQ(NtfsOk, OpenFile(FileFrn, m_File));
        if (size < found)
            ExpectFailure(NtfsIndexNotFound, "Security information not found for ID 300");
        else
            ExpectFailure(EIO, "Failed to read the security data, error 5");
        ExpectNext(DataStream("x"));
    }
}

TEST_F(MAVolumeBackup, LengthsOfTheSecurityFileThatLeadFarAwayEndTheSearch) {
    OpenOnly(
        WithFile({Information(300), Data("x")}).Descriptor(7, "another", 0xFFFFFFFF).Descriptor(300, "descriptor"));
    ExpectFailure(NtfsIndexNotFound, "Security information not found for ID 300");
    OpenOnly(WithFile({Information(300), Data("x")}).Descriptor(300, "descriptor", 0xFFFFFFFF));
    ExpectFailure(EIO, "Failed to read the security data, error 5");
    ExpectNext(DataStream("x"));
}

TEST_F(MAVolumeBackup, DataComesByItsInstancesWithTheirNames) {
    ExpectPlain(
        {Data("five", 5).Name(u"e"), Data("one", 1), Data("65535", 65535).Name(u"z"), Data("two", 2).Name(u"bc")},
        DataStream("one") + NamedStream(u"bc", "two") + NamedStream(u"e", "five") + NamedStream(u"z", "65535"));
}

TEST_F(MAVolumeBackup, DataOfInstance0IsNotGiven) {
    ExpectPlain({Data("zero", 0), Data("one", 1).Name(u"n")}, NamedStream(u"n", "one"));
    ExpectPlain({Data("zero", 0)}, "");
}

TEST_F(MAVolumeBackup, OfTwoOfOneInstanceTheLastIsGiven) {
    ExpectPlain({Data("first", 4).Name(u"a"), Data("last", 4).Name(u"b"), Data("three", 3)},
                DataStream("three") + NamedStream(u"b", "last"));
}

TEST_F(MAVolumeBackup, DataWithoutAByteHasAHeaderAllTheSame) {
    ExpectPlain({Data("", 1), Data("", 2).Name(u"empty")}, DataStream("") + NamedStream(u"empty", ""));
}

TEST_F(MAVolumeBackup, DataThatLiesElsewhereIsPassedOver) {
    ExpectPlain({Away(NtfsDataType).Instance(1), Data("here", 2), Away(NtfsDataType).Instance(3).Name(u"n")},
                DataStream("here"));
}

TEST_F(MAVolumeBackup, DataOfExtensionRecordsComesToo) {
    Files files = WithFile({Data("base", 1)});
    files.Record(9, FileRecord().BaseReference(NtfsReference(FileFrn)).Add(Data("extension", 2).Name(u"n")));
    OpenOnly(files.Associate(FileFrn, 9), 0);
    ExpectNext(DataStream("base") + NamedStream(u"n", "extension"));
}

// The id stands at the end, the volume's own in front of it.
TEST_F(MAVolumeBackup, AnObjectIdOfAnyLengthGives64Bytes) {
    const std::string zeros(64, '\0');
    const std::string bytes = PatternedBytes(200);
    const struct {
        size_t length;
        std::string expected;
    } rows[] = {
        {0, ParentId + zeros.substr(0, 48)},
        {16, ParentId + zeros.substr(0, 32) + bytes.substr(0, 16)},
        {48, ParentId + bytes.substr(0, 48)},
        {56, ParentId + bytes.substr(8, 48)},
        {63, ParentId + bytes.substr(15, 48)},
        {64, bytes.substr(0, 64)},
        {65, bytes.substr(1, 64)},
        {200, bytes.substr(136)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.length);
        ExpectPlain({Attribute::Resident(NtfsObjectIdType, bytes.substr(0, row.length))}, Stream(7, 0, row.expected));
    }
}

TEST_F(MAVolumeBackup, AnObjectIdThatLiesElsewhereFailsAndTheRestFollows) {
    OpenOnly(WithFile({Away(NtfsObjectIdType), Attribute::Resident(NtfsReparsePointType, "reparse")}), 0);
    ExpectFailure(NtfsInvalidParameter, "Invalid Parameter");
    ExpectNext(Stream(8, 0, "reparse"));
    ExpectNext("");
}

// Callers rely on half of the name's bytes.
TEST_F(MAVolumeBackup, TheNamesOfReparsePointsAndAttributesComeByHalf) {
    ExpectPlain({Attribute::Resident(NtfsReparsePointType, "reparse").Name(u"abcd"),
                 Attribute::Resident(NtfsEaType, "1234567").Name(u"xyz")},
                Stream(8, 0, "reparse", std::string("a\0b\0\0\0\0\0", 8)) +
                    Stream(2, 0, std::string("\0\0\0\0", 4) + "567", std::string("x\0y\0\0\0", 6)));
}

TEST_F(MAVolumeBackup, OfReparsePointsAndAttributesTheFirstCountsAndHasToBeThere) {
    for (const uint32_t type : {NtfsReparsePointType, NtfsEaType}) {
        const uint32_t id = type == NtfsEaType ? 2 : 8;
        const std::string four = type == NtfsEaType ? std::string(4, '\0') : "1234";
        ExpectPlain({Attribute::Resident(type, "1234"), Attribute::Resident(type, "5678")}, Stream(id, 0, four));
        ExpectPlain({Away(type), Attribute::Resident(type, "5678")}, "");
        ExpectPlain({Attribute::Resident(type, ""), Attribute::Resident(type, "5678")}, "");
        ExpectPlain({Attribute::Resident(type, "123")}, Stream(id, 0, "123"));
    }
}

TEST_F(MAVolumeBackup, StreamsComeWholeAsManyAsFit) {
    const std::string first = DataStream("first");
    const std::string second = NamedStream(u"n", "second");
    const std::string id = Stream(7, 0, ParentId + std::string(32, '\0') + "an object's id!!");
    const std::vector<Attribute> attributes = {Data("first", 1), Data("second", 2).Name(u"n"),
                                               Attribute::Resident(NtfsObjectIdType, "an object's id!!")};
    const auto sizeOf = [](const std::string& bytes) { return static_cast<uint32_t>(bytes.size()); };
    OpenOnly(WithFile(attributes), 0);
    ExpectNext("", sizeOf(first) - 1);
    ExpectNext("", 0);
    ExpectNext(first, sizeOf(first));
    ExpectNext("", sizeOf(second) - 1);
    ExpectNext(second, sizeOf(second + id) - 1);
    ExpectNext(id, sizeOf(id));
    ExpectNext("", sizeOf(id));

    OpenOnly(WithFile(attributes), 0);
    ExpectNext(first + second, sizeOf(first + second));
    ExpectNext(id);
    ExpectNext("");

    OpenOnly(WithFile(attributes), 0);
    ExpectNext(first, sizeOf(first + second) - 1);
    ExpectNext(second + id);
}

// A buffer too small for it can't be told from the end by what comes, only by the place in the order.
TEST_F(MAVolumeBackup, ADescriptorLargerThanTheBufferWaits) {
    OpenOnly(WithFile({Information(300), Data("x")}).Descriptor(300, std::string(1000, 'd')));
    for (int turn = 0; turn < 3; ++turn) {
        ExpectNext("", 1019);
        EXPECT_EQ(0U, m_File.context.tableIndex);
    }
    ExpectNext(SecurityStream(std::string(1000, 'd')), 1020);
    ExpectNext(DataStream("x"));
    EXPECT_NE(0U, m_File.context.tableIndex);
}

// What came before a stream that fails is there all the same.
TEST_F(MAVolumeBackup, AFailureBehindWholeStreamsKeepsThem) {
    OpenOnly(WithFile({Data("x"), Away(NtfsObjectIdType), Attribute::Resident(NtfsEaType, "12345")}), 0);
    const Outcome_t outcome = ReadResident(m_File);
    EXPECT_EQ(NtfsInvalidParameter, outcome.result);
    EXPECT_SAME_BYTES(DataStream("x"), outcome.bytes);
    ExpectNext(Stream(2, 0, std::string("\0\0\0\0", 4) + "5"));
    ExpectNext("");
}

TEST_F(MAVolumeBackup, APositionBehindTheOrderIsTheEnd) {
    OpenOnly(WithFile({Data("x")}), 0);
    for (const uint32_t index : {5U, 6U, 0xFFFFFFFFU}) {
        m_File.context.tableIndex = index;
        ExpectNext("");
    }
}

TEST_F(MAVolumeBackup, EachArgumentHasToBeThere) {
    OpenOnly(WithFile({Data("x")}), 0);
    char buffer[100];
    uint32_t read = 0;
    CAutoMemory<char> none;
    for (int missing = 0; missing < 5; ++missing) {
        CAutoMemory<char>* const record = missing == 0 ? nullptr : missing == 4 ? &none : &m_File.record;
        EXPECT_META_FAILURE(NtfsInvalidParameter, "Invalid Parameter",
                            m_Volume.BackupReadRA(record, missing == 1 ? nullptr : buffer, 100,
                                                  missing == 2 ? nullptr : &read,
                                                  missing == 3 ? nullptr : &m_File.context));
    }
    ExpectNext(DataStream("x"));
}

// A file stays open beyond its volume, but for what lies in the volume's files.
TEST_F(MAVolumeBackup, OfAClosedVolumeWhatTheRecordHoldsComesAllTheSame) {
    OpenOnly(WithFile({Information(300), Data("x")}).Descriptor(300, "descriptor"));
    m_Volume.CloseVolume();
    ExpectFailure(NtfsInvalidParameter, "Invalid Parameter");
    ExpectNext(DataStream("x"));
    ExpectNext("");
}

}  // namespace
