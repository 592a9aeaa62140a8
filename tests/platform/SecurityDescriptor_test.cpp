#include "platform/SecurityDescriptor.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "platform/InvalidDescriptor.h"
#include "tests/support/Bytes.h"

namespace {

constexpr uint16_t DaclIsPresent = 0x4;
constexpr uint16_t SaclIsPresent = 0x10;
constexpr uint16_t BothArePresent = DaclIsPresent | SaclIsPresent;

std::string Sid(uint8_t subauthorities) {
    std::string sid = PatternedBytes(8 + 4U * subauthorities, subauthorities);
    PutLe8(sid, 0, 1);
    PutLe8(sid, 1, subauthorities);
    return sid;
}

std::string Acl(uint16_t size) {
    std::string acl = PatternedBytes(size, size);
    PutLe8(acl, 0, 2);
    PutLe16(acl, 2, size);
    return acl;
}

// A descriptor whose parts stand behind each other in the order in which they are added.
class CDescriptorBuilder {
public:
    CDescriptorBuilder& Control(uint16_t control) {
        PutLe16(m_Bytes, 2, control);
        return *this;
    }
    CDescriptorBuilder& Owner(const std::string& sid) { return Add(4, sid); }
    CDescriptorBuilder& Group(const std::string& sid) { return Add(8, sid); }
    CDescriptorBuilder& Sacl(const std::string& acl) { return Add(12, acl); }
    CDescriptorBuilder& Dacl(const std::string& acl) { return Add(16, acl); }
    CDescriptorBuilder& OffsetAt(size_t field, uint32_t offset) {
        PutLe32(m_Bytes, field, offset);
        return *this;
    }
    CDescriptorBuilder& CutTo(size_t size) {
        m_Bytes.resize(size);
        return *this;
    }
    std::string Bytes() const { return m_Bytes; }

private:
    CDescriptorBuilder& Add(size_t field, const std::string& part) {
        PutLe32(m_Bytes, field, static_cast<uint32_t>(m_Bytes.size()));
        m_Bytes += part;
        return *this;
    }

    std::string m_Bytes = std::string("\x01\0\x14\x80", 4) + std::string(16, '\0');
};

CDescriptorBuilder Empty() {
    return {};
}

int Split(const std::string& bytes, SecurityDescriptorParts_t& parts) {
    return SplitSecurityDescriptor(bytes.data(), static_cast<uint32_t>(bytes.size()), parts);
}

std::string Text(const SecurityDescriptorPart_t& part) {
    return {part.bytes, part.size};
}

}  // namespace

TEST(SecurityDescriptor, GivesTheFourPartsWhateverTheirOrder) {
    const std::string files[] = {
        Empty().Owner(Sid(5)).Group(Sid(2)).Sacl(Acl(8)).Dacl(Acl(28)).Bytes(),
        Empty().Dacl(Acl(28)).Sacl(Acl(8)).Group(Sid(2)).Owner(Sid(5)).Bytes(),
        Empty().Sacl(Acl(8)).Dacl(Acl(28)).Owner(Sid(5)).Group(Sid(2)).Bytes(),
    };
    for (const std::string& bytes : files) {
        SecurityDescriptorParts_t parts;
        ASSERT_EQ(Split(bytes, parts), 0);
        EXPECT_EQ(Text(parts.owner), Sid(5));
        EXPECT_EQ(Text(parts.group), Sid(2));
        EXPECT_EQ(Text(parts.sacl), Acl(8));
        EXPECT_EQ(Text(parts.dacl), Acl(28));
        EXPECT_EQ(parts.owner.bytes - bytes.data(), static_cast<std::ptrdiff_t>(LittleEndianAt(bytes, 4, 4)));
    }
}

TEST(SecurityDescriptor, GivesTheHeadAsItIs) {
    std::string bytes = Empty().Control(0x9A17).Bytes();
    PutLe8(bytes, 0, 3);
    PutLe8(bytes, 1, 0x7F);
    SecurityDescriptorParts_t parts;
    ASSERT_EQ(Split(bytes, parts), 0);
    EXPECT_EQ(parts.revision, 3);
    EXPECT_EQ(parts.reserved, 0x7F);
    EXPECT_EQ(parts.control, 0x9A17);
}

TEST(SecurityDescriptor, HasNoPartWhereTheOffsetIsZero) {
    SecurityDescriptorParts_t parts;
    ASSERT_EQ(Split(Empty().Control(BothArePresent).Bytes(), parts), 0);
    for (const SecurityDescriptorPart_t& part : {parts.owner, parts.group, parts.sacl, parts.dacl}) {
        EXPECT_EQ(part.bytes, nullptr);
        EXPECT_EQ(part.size, 0U);
    }
}

TEST(SecurityDescriptor, TakesAListForPresentOnlyWithItsControlBit) {
    const struct {
        uint16_t control;
        uint32_t saclBytes;
        uint32_t daclBytes;
    } rows[] = {{0, 0, 0}, {DaclIsPresent, 0, 28}, {SaclIsPresent, 12, 0}, {BothArePresent, 12, 28}, {0xFFEB, 0, 0}};
    for (const auto& row : rows) {
        SecurityDescriptorParts_t parts;
        ASSERT_EQ(Split(Empty().Control(row.control).Sacl(Acl(12)).Dacl(Acl(28)).Bytes(), parts), 0) << row.control;
        EXPECT_EQ(parts.sacl.size, row.saclBytes) << row.control;
        EXPECT_EQ(parts.dacl.size, row.daclBytes) << row.control;
    }
}

TEST(SecurityDescriptor, LooksAtNothingOfAListThatIsntPresent) {
    SecurityDescriptorParts_t parts;
    EXPECT_EQ(Split(Empty().Control(0).OffsetAt(12, 0xFFFFFFFF).OffsetAt(16, 19).Bytes(), parts), 0);
}

TEST(SecurityDescriptor, RefusesWhatLeavesIt) {
    const std::string owned = Empty().Owner(Sid(5)).Bytes();
    const std::string listed = Empty().Control(DaclIsPresent).Dacl(Acl(28)).Bytes();
    const auto lastByte = [](const std::string& bytes) { return bytes.substr(0, bytes.size() - 1); };
    const struct {
        const char* name;
        std::string bytes;
    } rows[] = {
        {"nothing at all", ""},
        {"a header cut short", Empty().CutTo(19).Bytes()},
        {"an owner cut short", lastByte(owned)},
        {"a group cut short", lastByte(Empty().Group(Sid(15)).Bytes())},
        {"a SACL cut short", lastByte(Empty().Sacl(Acl(8)).Bytes())},
        {"a DACL cut short", lastByte(listed)},
        {"a SID's head cut short", Empty().Owner(Sid(0)).CutTo(27).Bytes()},
        {"a list's head cut short", Empty().Dacl(Acl(8)).CutTo(27).Bytes()},
        {"an owner at the end", Empty().OffsetAt(4, 20).Bytes()},
        {"a group behind the end", Empty().OffsetAt(8, 21).Bytes()},
        {"a SACL at the highest offset", Empty().OffsetAt(12, 0xFFFFFFFF).Bytes()},
        {"a DACL whose end wraps", Empty().OffsetAt(16, 0xFFFFFFF8).Bytes()},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SecurityDescriptorParts_t parts;
        parts.control = 0x55AA;
        EXPECT_EQ(Split(row.bytes, parts), InvalidDescriptorError());
        EXPECT_EQ(parts.control, 0x55AA);
        EXPECT_EQ(parts.owner.bytes, nullptr);
    }
    SecurityDescriptorParts_t parts;
    EXPECT_EQ(SplitSecurityDescriptor(nullptr, 20, parts), InvalidDescriptorError());
}

TEST(SecurityDescriptor, TakesPartsThatShareTheirBytes) {
    const std::string bytes = Empty().Owner(Sid(1)).OffsetAt(8, 20).Bytes();
    SecurityDescriptorParts_t parts;
    ASSERT_EQ(Split(bytes, parts), 0);
    EXPECT_EQ(Text(parts.owner), Sid(1));
    EXPECT_EQ(parts.group.bytes, parts.owner.bytes);
}

TEST(SecurityDescriptor, TakesTheLargestSidAndTheLargestList) {
    SecurityDescriptorParts_t parts;
    ASSERT_EQ(Split(Empty().Owner(Sid(255)).Bytes(), parts), 0);
    EXPECT_EQ(parts.owner.size, 8U + 4 * 255);
    ASSERT_EQ(Split(Empty().Dacl(Acl(0xFFFF)).Bytes(), parts), 0);
    EXPECT_EQ(parts.dacl.size, 0xFFFFU);
}
