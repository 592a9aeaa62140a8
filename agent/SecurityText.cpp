#include "agent/SecurityText.h"

#include <cstdint>
#include <cstdio>
#include <iterator>

#include "foundation/ByteOrder.h"
#include "foundation/detail/ByteView.h"
#include "foundation/detail/ErrorHandling.h"
#include "platform/SecurityDescriptor.h"

namespace {

struct Word_t {
    const char* meaning;
    const char* word;
};

// SIDs that are the same everywhere.
constexpr Word_t WellKnownSids[] = {
    {"S-1-1-0", "WD"},      {"S-1-3-0", "CO"},      {"S-1-3-1", "CG"},      {"S-1-3-4", "OW"},
    {"S-1-5-2", "NU"},      {"S-1-5-4", "IU"},      {"S-1-5-6", "SU"},      {"S-1-5-7", "AN"},
    {"S-1-5-9", "ED"},      {"S-1-5-10", "PS"},     {"S-1-5-11", "AU"},     {"S-1-5-12", "RC"},
    {"S-1-5-18", "SY"},     {"S-1-5-19", "LS"},     {"S-1-5-20", "NS"},     {"S-1-5-32-544", "BA"},
    {"S-1-5-32-545", "BU"}, {"S-1-5-32-546", "BG"}, {"S-1-5-32-547", "PU"}, {"S-1-5-32-548", "AO"},
    {"S-1-5-32-549", "SO"}, {"S-1-5-32-550", "PO"}, {"S-1-5-32-551", "BO"}, {"S-1-5-32-552", "RE"},
    {"S-1-5-32-554", "RU"}, {"S-1-5-32-555", "RD"}, {"S-1-5-32-556", "NO"}, {"S-1-5-32-558", "MU"},
    {"S-1-5-32-559", "LU"}, {"S-1-15-2-1", "AC"},   {"S-1-16-4096", "LW"},  {"S-1-16-8192", "ME"},
    {"S-1-16-12288", "HI"}, {"S-1-16-16384", "SI"},
};

struct Bit_t {
    uint32_t bit;
    const char* word;
};

constexpr Bit_t AceFlags[] = {{0x01, "OI"}, {0x02, "CI"}, {0x04, "NP"}, {0x08, "IO"},
                              {0x10, "ID"}, {0x40, "SA"}, {0x80, "FA"}};

constexpr Bit_t Rights[] = {
    {0x1, "CC"},     {0x2, "DC"},        {0x4, "LC"},        {0x8, "SW"},        {0x10, "RP"},       {0x20, "WP"},
    {0x40, "DT"},    {0x80, "LO"},       {0x100, "CR"},      {0x10000, "SD"},    {0x20000, "RC"},    {0x40000, "WD"},
    {0x80000, "WO"}, {0x10000000, "GA"}, {0x20000000, "GX"}, {0x40000000, "GW"}, {0x80000000, "GR"},
};

constexpr Bit_t FileRights[] = {{0x1F01FF, "FA"}, {0x120089, "FR"}, {0x120116, "FW"}, {0x1200A0, "FX"}};

enum class AceForm_t { Plain, Object };

struct AceType_t {
    uint8_t type = 0;
    const char* word = "";
    AceForm_t form = AceForm_t::Plain;
    bool mayHaveMore = false;  // behind the SID
};

constexpr uint8_t MandatoryLabelType = 0x11;

constexpr AceType_t AceTypes[] = {
    {0x00, "A"},
    {0x01, "D"},
    {0x02, "AU"},
    {0x03, "AL"},
    {0x05, "OA", AceForm_t::Object},
    {0x06, "OD", AceForm_t::Object},
    {0x07, "OU", AceForm_t::Object},
    {0x08, "OL", AceForm_t::Object},
    {0x09, "XA", AceForm_t::Plain, true},
    {0x0A, "XD", AceForm_t::Plain, true},
    {0x0B, "ZA", AceForm_t::Object, true},
    {0x0D, "XU", AceForm_t::Plain, true},
    {MandatoryLabelType, "ML"},
    {0x12, "RA", AceForm_t::Plain, true},
    {0x13, "SP"},
};

constexpr uint16_t ControlDaclPresent = 0x0004;
constexpr uint16_t ControlSaclPresent = 0x0010;

struct AclWords_t {
    char letter;
    uint16_t present;
    uint16_t isProtected;
    uint16_t isAutoRequested;
    uint16_t isAutoInherited;
};
constexpr AclWords_t DaclWords = {'D', ControlDaclPresent, 0x1000, 0x0100, 0x0400};
constexpr AclWords_t SaclWords = {'S', ControlSaclPresent, 0x2000, 0x0200, 0x0800};

struct AceHead_t {
    U8_t type;     // 0
    U8_t flags;    // 1
    Le16_t bytes;  // 2
    Le32_t mask;   // 4
};
static_assert(sizeof(AceHead_t) == 8);

struct AclHead_t {
    U8_t revision;     // 0
    U8_t reserved;     // 1
    Le16_t bytes;      // 2
    Le16_t aceCount;   // 4
    Le16_t reserved2;  // 6
};
static_assert(sizeof(AclHead_t) == 8);

struct SidHead_t {
    U8_t revision;         // 0
    U8_t subAuthorities;   // 1
    Be16_t authorityHigh;  // 2
    Be32_t authorityLow;   // 4
};
static_assert(sizeof(SidHead_t) == 8);

bool SidText(CByteView sid, std::string& text) {
    SidHead_t head{};
    if (!sid.Get(0, head))
        return false;
    const uint64_t authority = uint64_t{head.authorityHigh} << 32U | head.authorityLow;
    char number[32];
    std::snprintf(number, sizeof(number), head.authorityHigh == 0 ? "%llu" : "0x%llX",
                  static_cast<unsigned long long>(authority));
    text = "S-" + std::to_string(unsigned{head.revision}) + "-" + number;
    for (uint32_t index = 0; index < head.subAuthorities; ++index) {
        Le32_t part{};
        if (!sid.Get(sizeof(head) + uint64_t{index} * sizeof(part), part))
            return false;
        text += "-" + std::to_string(uint32_t{part});
    }
    for (const Word_t& known : WellKnownSids)
        if (text == known.meaning)
            text = known.word;
    return true;
}

std::string FlagsText(uint32_t flags) {
    std::string text;
    for (const Bit_t& flag : AceFlags)
        if ((flags & flag.bit) != 0)
            text += flag.word;
    return text;
}

std::string RightsText(uint32_t mask) {
    for (const Bit_t& right : FileRights)
        if (mask == right.bit)
            return right.word;
    std::string text;
    uint32_t rest = mask;
    for (const Bit_t& right : Rights) {
        if ((mask & right.bit) != 0)
            text += right.word;
        rest &= ~right.bit;
    }
    if (rest == 0 && mask != 0)
        return text;
    char number[16];
    std::snprintf(number, sizeof(number), "0x%x", mask);
    return number;
}

bool GuidText(CByteView ace, uint64_t& at, std::string& text) {
    struct {
        Le32_t first;
        Le16_t second;
        Le16_t third;
        uint8_t last[8];
    } guid{};
    if (!ace.Get(at, guid))
        return false;
    at += sizeof(guid);
    char buffer[40];
    std::snprintf(buffer, sizeof(buffer), "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", uint32_t{guid.first},
                  unsigned{guid.second}, unsigned{guid.third}, guid.last[0], guid.last[1], guid.last[2], guid.last[3],
                  guid.last[4], guid.last[5], guid.last[6], guid.last[7]);
    text = buffer;
    return true;
}

// Takes the GUIDs that an object's entry says it has.
bool ObjectText(CByteView ace, uint64_t& at, std::string& object, std::string& inherited) {
    Le32_t present{};
    if (!ace.Get(at, present))
        return false;
    at += sizeof(present);
    return ((present & 1U) == 0 || GuidText(ace, at, object)) && ((present & 2U) == 0 || GuidText(ace, at, inherited));
}

const AceType_t* FindAceType(uint8_t type) {
    for (const AceType_t& each : AceTypes)
        if (each.type == type)
            return &each;
    return nullptr;
}

std::string UnknownAceText(uint8_t type) {
    char text[24];
    std::snprintf(text, sizeof(text), "(0x%x;;;;;)", unsigned{type});
    return text;
}

// A condition or a claim, which some entries have behind the SID, isn't put into words: a mark stands for it.
bool AceText(CByteView ace, const AceHead_t& head, std::string& text) {
    const AceType_t* const known = FindAceType(head.type);
    if (known == nullptr) {
        text += UnknownAceText(head.type);
        return true;
    }
    uint64_t at = sizeof(head);
    std::string object;
    std::string inherited;
    std::string sid;
    if (known->form == AceForm_t::Object && !ObjectText(ace, at, object, inherited))
        return false;
    const CByteView rest = ace.From(at);
    SidHead_t sidHead{};
    if (!SidText(rest, sid) || !rest.Get(0, sidHead))
        return false;
    const bool hasMore = known->mayHaveMore && rest.Size() > sizeof(sidHead) + uint64_t{sidHead.subAuthorities} * 4;
    const bool isMandatoryLabel = head.type == MandatoryLabelType;
    const std::string rights = isMandatoryLabel && head.mask == 1 ? "NW" : RightsText(head.mask);
    text += std::string("(") + known->word + ";" + FlagsText(head.flags) + ";" + rights + ";" + object + ";" +
            inherited + ";" + sid + (hasMore ? ";(...)" : "") + ")";
    return true;
}

bool AclText(const SecurityDescriptorPart_t& part, uint16_t control, const AclWords_t& words, std::string& text) {
    if ((control & words.present) == 0)
        return true;
    text = std::string(1, words.letter) + ":";
    if ((control & words.isProtected) != 0)
        text += "P";
    if ((control & words.isAutoRequested) != 0)
        text += "AR";
    if ((control & words.isAutoInherited) != 0)
        text += "AI";
    const CByteView acl(part.bytes, part.size);
    AclHead_t head{};
    if (part.size == 0) {
        text += "NO_ACCESS_CONTROL";
        return true;
    }
    if (!acl.Get(0, head))
        return false;
    uint64_t at = sizeof(head);
    for (unsigned index = 0; index < head.aceCount; ++index) {
        AceHead_t ace{};
        if (!acl.Get(at, ace) || ace.bytes < sizeof(ace) || !acl.Holds(at, ace.bytes) ||
            !AceText(CByteView(acl.Data() + at, ace.bytes), ace, text))
            return false;
        at += ace.bytes;
    }
    return true;
}

bool OwnerText(const SecurityDescriptorPart_t& part, std::string& text) {
    return part.size == 0 || SidText(CByteView(part.bytes, part.size), text);
}

}  // namespace

CZuError DescribeSecurity(const std::string& descriptor, SecurityText_t& text) {
    text = SecurityText_t();
    SecurityDescriptorParts_t parts;
    const bool isSound =
        SplitSecurityDescriptor(descriptor.data(), static_cast<uint32_t>(descriptor.size()), parts) == 0 &&
        OwnerText(parts.owner, text.owner) && OwnerText(parts.group, text.group) &&
        AclText(parts.dacl, parts.control, DaclWords, text.dacl) &&
        AclText(parts.sacl, parts.control, SaclWords, text.sacl);
    if (!isSound)
        return Refusal("the security descriptor is damaged");
    if (!text.owner.empty())
        text.sddl += "O:" + text.owner;
    if (!text.group.empty())
        text.sddl += "G:" + text.group;
    text.sddl += text.dacl + text.sacl;
    return CZuError();
}
