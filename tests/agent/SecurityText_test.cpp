#include "agent/SecurityText.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/agent/AgentAssertions.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"

namespace {

std::string Sid(uint64_t authority, const std::vector<uint32_t>& parts) {
    std::string sid = LittleEndianBytes(1, 1) + LittleEndianBytes(parts.size(), 1) + BigEndianBytes(authority, 6);
    for (const uint32_t part : parts)
        sid += LittleEndianBytes(part, 4);
    return sid;
}

const std::string System = Sid(5, {18});
const std::string Everyone = Sid(1, {0});
constexpr char ObjectGuid[] = "\x33\x22\x11\x00\x55\x44\x77\x66\x88\x99\xAA\xBB\xCC\xDD\xEE\xFF";
constexpr char ObjectGuidText[] = "00112233-4455-6677-8899-aabbccddeeff";

std::string Ace(uint8_t type, uint8_t flags, uint32_t mask, const std::string& rest) {
    return LittleEndianBytes(type, 1) + LittleEndianBytes(flags, 1) + LittleEndianBytes(8 + rest.size(), 2) +
           LittleEndianBytes(mask, 4) + rest;
}

std::string Acl(const std::vector<std::string>& aces) {
    std::string bytes;
    for (const std::string& ace : aces)
        bytes += ace;
    return LittleEndianBytes(2, 2) + LittleEndianBytes(8 + bytes.size(), 2) + LittleEndianBytes(aces.size(), 4) + bytes;
}

constexpr uint16_t DaclPresent = 0x0004;
constexpr uint16_t SaclPresent = 0x0010;

// A self-relative descriptor; what is empty is absent.
struct Descriptor_t {
    std::string owner;
    std::string group;
    std::string sacl;
    std::string dacl;
    uint16_t control = 0;  // besides what the parts need

    std::string Bytes() const {
        std::string bytes(20, '\0');
        const auto put = [&bytes](size_t field, const std::string& part) {
            PutLe32(bytes, field, part.empty() ? 0 : static_cast<uint32_t>(bytes.size()));
            bytes += part;
        };
        put(4, owner);
        put(8, group);
        put(12, sacl);
        put(16, dacl);
        PutLe8(bytes, 0, 1);
        const unsigned present = (sacl.empty() ? 0U : SaclPresent) | (dacl.empty() ? 0U : DaclPresent);
        PutLe16(bytes, 2, static_cast<uint16_t>(0x8000U | control | present));
        return bytes;
    }
};

SecurityText_t TextOf(const std::string& descriptor) {
    SecurityText_t text;
    EXPECT_OK(DescribeSecurity(descriptor, text));
    return text;
}

// Of a list with this entry alone.
std::string AceTextOf(const std::string& ace) {
    return TextOf(Descriptor_t{"", "", "", Acl({ace})}.Bytes()).dacl;
}

TEST(SecurityText, TheWholeDescriptorIsItsPartsInOneOrder) {
    const SecurityText_t text =
        TextOf(Descriptor_t{Sid(5, {32, 544}), System, Acl({Ace(2, 0xC0, 0x1F01FF, Everyone)}),
                            Acl({Ace(0, 0x10, 0x1F01FF, System), Ace(1, 0, 0x2, Everyone)}), 0x0400}
                   .Bytes());
    EXPECT_EQ("BA", text.owner);
    EXPECT_EQ("SY", text.group);
    EXPECT_EQ("D:AI(A;ID;FA;;;SY)(D;;DC;;;WD)", text.dacl);
    EXPECT_EQ("S:(AU;SAFA;FA;;;WD)", text.sacl);
    EXPECT_EQ("O:BAG:SYD:AI(A;ID;FA;;;SY)(D;;DC;;;WD)S:(AU;SAFA;FA;;;WD)", text.sddl);
}

TEST(SecurityText, AnEmptyDescriptorHasNoText) {
    const SecurityText_t text = TextOf(Descriptor_t().Bytes());
    EXPECT_EQ("", text.owner + text.group + text.dacl + text.sacl + text.sddl);
}

TEST(SecurityText, OfAccounts) {
    const struct {
        std::string sid;
        const char* text;
    } rows[] = {
        {Everyone, "WD"},
        {Sid(3, {0}), "CO"},
        {Sid(3, {4}), "OW"},
        {Sid(5, {11}), "AU"},
        {Sid(5, {19}), "LS"},
        {Sid(5, {32, 545}), "BU"},
        {Sid(16, {12288}), "HI"},
        {Sid(5, {21, 1, 2, 4294967295, 500}), "S-1-5-21-1-2-4294967295-500"},
        {Sid(5, {80, 956008885}), "S-1-5-80-956008885"},
        {Sid(0xFFFFFFFF, {7}), "S-1-4294967295-7"},
        {Sid(0x100000000, {7}), "S-1-0x100000000-7"},
        {Sid(9, {}), "S-1-9"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.text, TextOf(Descriptor_t{row.sid, "", "", ""}.Bytes()).owner);
        EXPECT_EQ(std::string("G:") + row.text, TextOf(Descriptor_t{"", row.sid, "", ""}.Bytes()).sddl);
    }
}

TEST(SecurityText, OfRights) {
    const struct {
        uint32_t mask;
        const char* text;
    } rows[] = {
        {0x1F01FF, "FA"},       {0x120089, "FR"},     {0x120116, "FW"}, {0x1200A0, "FX"},
        {0x10000000, "GA"},     {0xA0000000, "GXGR"}, {0x1, "CC"},      {0xF01FF, "CCDCLCSWRPWPDTLOCRSDRCWDWO"},
        {0x1301BF, "0x1301bf"}, {0x80000001, "CCGR"}, {0x200, "0x200"}, {0, "0x0"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(std::string("D:(A;;") + row.text + ";;;SY)", AceTextOf(Ace(0, 0, row.mask, System)));
}

TEST(SecurityText, OfFlagsOfEntries) {
    const struct {
        uint8_t flags;
        const char* text;
    } rows[] = {{0, ""}, {0x0B, "OICIIO"}, {0x13, "OICIID"}, {0x04, "NP"}, {0xC0, "SAFA"}, {0x20, ""}};
    for (const auto& row : rows)
        EXPECT_EQ(std::string("D:(A;") + row.text + ";GA;;;SY)", AceTextOf(Ace(0, row.flags, 0x10000000, System)));
}

TEST(SecurityText, OfKindsOfEntries) {
    const std::string noGuids(4, '\0');
    const std::string first = LittleEndianBytes(1, 4) + std::string(ObjectGuid, 16);
    const std::string second = LittleEndianBytes(2, 4) + std::string(ObjectGuid, 16);
    const std::string both = LittleEndianBytes(3, 4) + std::string(ObjectGuid, 16) + std::string(ObjectGuid, 16);
    const std::string guid = ObjectGuidText;
    const struct {
        uint8_t type;
        std::string rest;
        std::string text;
    } rows[] = {
        {0x00, System, "(A;;CC;;;SY)"},
        {0x01, System, "(D;;CC;;;SY)"},
        {0x02, System, "(AU;;CC;;;SY)"},
        {0x05, noGuids + System, "(OA;;CC;;;SY)"},
        {0x05, first + System, "(OA;;CC;" + guid + ";;SY)"},
        {0x06, second + System, "(OD;;CC;;" + guid + ";SY)"},
        {0x07, both + System, "(OU;;CC;" + guid + ";" + guid + ";SY)"},
        {0x11, Sid(16, {8192}), "(ML;;NW;;;ME)"},
        {0x12, System + "claims", "(RA;;CC;;;SY;(...))"},
        {0x09, System + "artx condition", "(XA;;CC;;;SY;(...))"},
        {0x0A, System, "(XD;;CC;;;SY)"},
        {0x13, System, "(SP;;CC;;;SY)"},
        {0x04, System, "(0x4;;;;;)"},
        {0x14, "", "(0x14;;;;;)"},
        {0xFF, System, "(0xff;;;;;)"},
    };
    for (const auto& row : rows)
        EXPECT_EQ("D:" + row.text, AceTextOf(Ace(row.type, 0, 1, row.rest)));
}

TEST(SecurityText, OfListsAsAWhole) {
    const std::string list = Acl({Ace(0, 0, 0x10000000, System)});
    const struct {
        const char* name;
        Descriptor_t descriptor;
        const char* text;
    } rows[] = {
        {"an empty DACL, which lets nobody in", {"", "", "", Acl({})}, "D:"},
        {"no DACL, which lets everybody in", {"", "", "", "", DaclPresent}, "D:NO_ACCESS_CONTROL"},
        {"a DACL that isn't said to be there", {"", "", "", ""}, ""},
        {"a protected DACL", {"", "", "", list, 0x1000}, "D:P(A;;GA;;;SY)"},
        {"all flags of a DACL", {"", "", "", list, 0x1500}, "D:PARAI(A;;GA;;;SY)"},
        {"all flags of a SACL", {"", "", list, "", 0x2A00}, "S:PARAI(A;;GA;;;SY)"},
        {"flags of the other list", {"", "", "", list, 0x2A00}, "D:(A;;GA;;;SY)"},
        {"a SACL without entries", {"", "", Acl({}), ""}, "S:"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.text, TextOf(row.descriptor.Bytes()).sddl) << row.name;
}

TEST(SecurityText, ADamagedDescriptorIsRefused) {
    const std::string sound = Descriptor_t{System, System, "", Acl({Ace(0, 0, 1, System)})}.Bytes();
    const auto with = [&](size_t offset, const std::string& bytes) {
        std::string damaged = sound;
        PutBytes(damaged, offset, bytes);
        return damaged;
    };
    const auto withAce = [](const std::string& ace) { return Descriptor_t{"", "", "", Acl({ace})}.Bytes(); };
    const struct {
        const char* name;
        std::string descriptor;
    } rows[] = {
        {"nothing", ""},
        {"a part of its head", sound.substr(0, 19)},
        {"an owner behind the end", with(4, LittleEndianBytes(5000, 4))},
        {"an owner whose head leaves the end", with(4, LittleEndianBytes(sound.size() - 4, 4))},
        {"an owner that leaves the end", with(20 + 1, "\xC8")},
        {"a list that leaves the end", sound.substr(0, sound.size() - 1)},
        {"a list shorter than its head", Descriptor_t{"", "", "", std::string("\2\0\4\0\0\0\0\0", 8)}.Bytes()},
        {"more entries than there are", with(20 + 24 + 4, LittleEndianBytes(2, 2))},
        {"an entry of no bytes", with(20 + 24 + 8 + 2, LittleEndianBytes(0, 2))},
        {"an entry shorter than its head", with(20 + 24 + 8 + 2, LittleEndianBytes(7, 2))},
        {"an entry that leaves its list", with(20 + 24 + 8 + 2, LittleEndianBytes(21, 2))},
        {"an entry without an account", withAce(Ace(0, 0, 1, ""))},
        {"an account that leaves its entry", withAce(Ace(0, 0, 1, System.substr(0, 11)))},
        {"an object's entry without its flags", withAce(Ace(5, 0, 1, "abc"))},
        {"an object's entry without its GUID", withAce(Ace(5, 0, 1, LittleEndianBytes(1, 4) + System))},
    };
    ASSERT_EQ("O:SYG:SYD:(A;;CC;;;SY)", TextOf(sound).sddl);
    for (const auto& row : rows) {
        SecurityText_t text;
        EXPECT_FAILS_SAYING(DescribeSecurity(row.descriptor, text), "the security descriptor is damaged") << row.name;
    }
}

}  // namespace
