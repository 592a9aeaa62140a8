#include "VirtualServer/VMInfo/detail/MetadataRecord.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/support/ErrorAssertions.h"

namespace {

constexpr char Corrupted[] = "Metadata header is corrupted";

CAutoMemory<char> Record(const std::string& bytes) {
    CAutoMemory<char> record;
    if (char* const target = record.Alloc(static_cast<uint32_t>(bytes.size())); target != nullptr)
        std::memcpy(target, bytes.data(), bytes.size());
    return record;
}

std::string Bytes(const CAutoMemory<char>& record) {
    return {record.GetPtr(), record.GetSize()};
}

std::string HexText(uint64_t value, size_t width) {
    std::string text(width, '?');
    PutHexText(text.data(), width, value);
    return text;
}

}  // namespace

TEST(MetadataRecord, TheSignaturesAreTheirEightCharacters) {
    EXPECT_STREQ(SignatureVmdkFlat, "VDVWFT10");
    EXPECT_STREQ(SignatureVmdkSparse, "VDVWSP10");
    EXPECT_STREQ(SignatureVMInfoDisk, "VDVWVD10");
    EXPECT_STREQ(SignatureVhdFixed, "VDMSFT10");
    EXPECT_STREQ(SignatureVhdDynamic, "VDMSSP10");
    EXPECT_STREQ(SignatureNtfsVolume, "VDNTFS10");
    EXPECT_EQ(MetadataHeadBytes, 32U);
}

TEST(MetadataRecord, NumbersAreLowerCaseTextOfTheirWholeWidth) {
    EXPECT_EQ(HexText(0, 8), "00000000");
    EXPECT_EQ(HexText(0x20, 8), "00000020");
    EXPECT_EQ(HexText(0xABCDEF12, 8), "abcdef12");
    EXPECT_EQ(HexText(0x123456789ABCDEF0, 16), "123456789abcdef0");
    EXPECT_EQ(HexText(~uint64_t{0}, 16), "ffffffffffffffff");
    EXPECT_EQ(HexText(1, 0), "");
}

TEST(MetadataRecord, NumbersAreWrittenWithoutATerminator) {
    char text[4] = {'?', '?', '?', '?'};
    PutHexText(text + 1, 2, 0xAB);
    EXPECT_EQ(std::string(text, 4), "?ab?");
}

TEST(MetadataRecord, TheHeadOfAFlatRecordIsTheWholeRecord) {
    CAutoMemory<char> record = Record(std::string(32, '?'));
    WriteMetadataHead(record, SignatureVmdkFlat, 0x1234ABCD5);
    EXPECT_EQ(Bytes(record), "VDVWFT100000002000000001234abcd5");
    EXPECT_OK(CheckMetadataHead(record, SignatureVmdkFlat));
    EXPECT_EQ(MetadataTotalSectors(record), 0x1234ABCD5U);
    EXPECT_EQ(MetadataBody(record).Size(), 0U);
}

TEST(MetadataRecord, TheHeadCountsTheBodyAndLeavesItAlone) {
    CAutoMemory<char> record = Record(std::string(32, '?') + "the body");
    WriteMetadataHead(record, SignatureVhdDynamic, ~uint64_t{0});
    EXPECT_EQ(Bytes(record), "VDMSSP1000000028ffffffffffffffffthe body");
    EXPECT_OK(CheckMetadataHead(record, SignatureVhdDynamic));
    EXPECT_EQ(MetadataTotalSectors(record), ~uint64_t{0});
    EXPECT_EQ(std::string(MetadataBody(record).Data(), MetadataBody(record).Size()), "the body");
}

TEST(MetadataRecord, OnlyAWholeHeadOfItsOwnSignatureAndSizePasses) {
    const std::string sectors = "0000000000000800";
    const struct {
        const char* name;
        std::string bytes;
        bool passes;
    } rows[] = {
        {"sound", "VDVWFT1000000020" + sectors, true},
        {"sound with a body", "VDVWFT100000002a" + sectors + std::string(10, 'x'), true},
        {"nothing", "", false},
        {"a signature alone", "VDVWFT10", false},
        {"one byte short of a head", "VDVWFT100000001f" + sectors.substr(1), false},
        {"another reader's", "VDVWSP1000000020" + sectors, false},
        {"a newer version's", "VDVWFT1100000020" + sectors, false},
        {"the signature in lower case", "vdvwft1000000020" + sectors, false},
        {"a size too small", "VDVWFT100000001f" + sectors, false},
        {"a size too large", "VDVWFT1000000021" + sectors, false},
        {"the head's size with a body", "VDVWFT1000000020" + sectors + "x", false},
        {"the size in upper case", "VDVWFT100000002A" + sectors + std::string(10, 'x'), false},
        {"the size with blanks", "VDVWFT10      20" + sectors, false},
        {"the size with a prefix", "VDVWFT100x000020" + sectors, false},
        {"the size in decimal", "VDVWFT1000000032" + sectors, false},
        {"the size as zeros", "VDVWFT10" + std::string(8, '\0') + sectors, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const CZuError error = CheckMetadataHead(Record(row.bytes), "VDVWFT10");
        if (row.passes)
            EXPECT_OK(error);
        else
            EXPECT_REFUSED(error, Corrupted);
    }
}

TEST(MetadataRecord, TotalSectorsAreReadFromTheirSixteenCharactersAlone) {
    const struct {
        const char* name;
        std::string text;
        uint64_t sectors;
    } rows[] = {
        {"zero", "0000000000000000", 0},
        {"lower case", "00000000000abcde", 0xABCDE},
        {"upper case", "00000000000ABCDE", 0xABCDE},
        {"all ones", "ffffffffffffffff", ~uint64_t{0}},
        {"sixteen digits and digits behind them", "1000000000000001", 0x1000000000000001},
        {"no digits", "zzzzzzzzzzzzzzzz", 0},
        {"digits and others", "12zzzzzzzzzzzzzz", 0x12},
        {"a terminator",
         std::string("12\0"
                     "4567890123456",
                     16),
         0x12},
    };
    for (const auto& row : rows)
        EXPECT_EQ(MetadataTotalSectors(Record("VDVWFT1000000024" + row.text + "ffff")), row.sectors) << row.name;
}

TEST(MetadataRecord, ARecordWithoutAHeadHasNeitherSectorsNorABody) {
    for (const size_t size : {0U, 1U, 31U}) {
        const CAutoMemory<char> record = Record(std::string(size, '1'));
        EXPECT_EQ(MetadataTotalSectors(record), 0U);
        EXPECT_EQ(MetadataBody(record).Size(), 0U);
    }
}
