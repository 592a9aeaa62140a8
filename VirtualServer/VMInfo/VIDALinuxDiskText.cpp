#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "VirtualServer/VMInfo/PartitionTables.h"
#include "VirtualServer/VMInfo/VIDALinuxDiskParser.h"
#include "VirtualServer/VMInfo/detail/LoggedExceptions.h"
#include "VirtualServer/VMInfo/detail/TableReader.h"
#include "foundation/LgDebug.h"
#include "foundation/detail/ErrorHandling.h"

// The text of a volume group, and the logical volumes that it tells.

namespace {

constexpr char LogOfTexts[] = "VIDALinuxDiskParser";
constexpr int LineBytes = 4096;

using Exception_t = VIDALinuxDiskParserException;

[[noreturn]] void Fail(const char* text) {
    LgDebug().Error(LogOfTexts, "%s", text);
    throw Exception_t(Exception_t::Lvm2, text);
}

bool IsBlank(char character) {
    return character == ' ' || character == '\t';
}

const char* SkipBlanks(const char* text) {
    while (IsBlank(*text))
        ++text;
    return text;
}

// Appends what stands up to one of `ends`, or the text's end, without its double quotes.
const char* TakeUpTo(const char* text, const char* ends, std::string& taken) {
    for (; *text != '\0' && std::strchr(ends, *text) == nullptr; ++text) {
        if (*text != '"')
            taken += *text;
    }
    return text;
}

uint64_t NumberOf(const std::string& text) {
    return std::strtoull(text.c_str(), nullptr, 10);
}

int SmallNumberOf(const std::string& text) {
    return static_cast<int>(NumberOf(text));
}

std::string KeyOf(const std::string& group, const std::string& name) {
    std::string key = group;
    key += '-';
    return key += name;
}

std::string WithoutDashes(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '-'), text.end());
    return text;
}

}  // namespace

FileIO::FileIO(const char* name, const char* mode) {
    if (!m_File.Open(name, OpenAsText | OpenNotInherited, 0).IsErrorSet())
        return;
    LgDebug().Error("FileIO::FileIO", "File Open failed . FileName : %s, Mode : %s", name, mode);
    throw Exception_t(Exception_t::System, "fopen failed");
}

FileIO::~FileIO() {
    Dropped(m_File.Close());  // nothing was written
}

void FileIO::ReadLine(char* line, int size) {
    int count = 0;
    while (count + 1 < size && (m_Next < m_Buffer.size() || Fill())) {
        line[count] = m_Buffer[m_Next++];
        if (line[count++] == '\n')
            break;
    }
    line[count] = '\0';
    if (count != 0 && !m_HasFailed)
        return;
    LgDebug().Error("FileIO::ReadLine", "Fgets failed. n : %d", size);
    throw Exception_t(Exception_t::System, "fgets failed");
}

bool FileIO::Fill() {
    constexpr unsigned int pieceBytes = 8192;
    unsigned int got = 0;
    m_Buffer.resize(pieceBytes);
    m_Next = 0;
    const CZuError error = m_File.Read(m_Buffer.data(), pieceBytes, &got);
    m_HasFailed = error.IsErrorSet() && error.GetErrorType() == ErrorType::System;  // the file's end is an error too
    m_Buffer.resize(got);
    return got != 0;
}

// Lines without anything are passed over.
VIDALinuxDiskParser::Token_t VIDALinuxDiskParser::ReadToken(FileIO& file, std::string& name, std::string& value) {
    char line[LineBytes];
    const char* at = line;
    do {
        file.ReadLine(line, sizeof(line));
        at = SkipBlanks(line);
    } while (*at == '\0' || *at == '\n');
    name.clear();
    value.clear();
    if (*at == ']' || *at == '}')
        return Token_t::Close;
    at = SkipBlanks(TakeUpTo(at, " \t[{,=\n", name));
    if (*at == '[' || *at == '{')
        return Token_t::Open;
    if (*at != '=' && *at != ',')
        return Token_t::Item;
    TakeUpTo(SkipBlanks(at + 1), "\n#\t", value);
    return value == "[" ? Token_t::Open : Token_t::Item;
}

VIDALinuxDiskParser::Token_t VIDALinuxDiskParser::GetNextTokenValue(FileIO& file, std::string& name,
                                                                    std::string& value) {
    return Logged([&] { return ReadToken(file, name, value); });
}

void VIDALinuxDiskParser::LinuxLVM2MetaDataParser(const char* path) {
    Logged([&] { ParseText(path); });
}

void VIDALinuxDiskParser::ParseText(const char* path) {
    FileIO file(path, "r");
    std::string group;
    std::string name;
    std::string value;
    SkipToBlock(file, group);
    if (m_Groups.count(group) != 0)
        return;  // another physical volume of the group told it already
    ParseGroupItems(file, m_Groups[group], name);
    if (name != "physical_volumes")
        Fail("Error Parsing . Could not find physical_volumes");
    while (NextBlock(file, name))
        ParsePhysicalVolume(file, m_PhysicalVolumes[NewKey(group, name)]);
    SkipToBlock(file, name);
    if (name != "logical_volumes")
        Fail("Error Parsing . Could not find logical_volumes");
    while (NextBlock(file, name))
        ParseLogicalVolume(file, group, NewLogicalVolume(group, name));
}

void VIDALinuxDiskParser::ParseGroupItems(FileIO& file, VolumeGroup_t& group, std::string& blockName) {
    std::string value;
    for (Token_t token = GetNextTokenValue(file, blockName, value); token != Token_t::Open;
         token = GetNextTokenValue(file, blockName, value)) {
        if (token != Token_t::Item)
            continue;
        if (blockName == "id")
            group.id = value;
        else if (blockName == "seqno")
            group.seqno = SmallNumberOf(value);
        else if (blockName == "status")
            group.status = value;
        else if (blockName == "extent_size")
            group.extentSize = NumberOf(value);
        else if (blockName == "max_lv")
            group.maxLv = SmallNumberOf(value);
        else if (blockName == "max_pv")
            group.maxPv = SmallNumberOf(value);
    }
}

void VIDALinuxDiskParser::SkipToBlock(FileIO& file, std::string& name) {
    std::string value;
    while (GetNextTokenValue(file, name, value) != Token_t::Open) {}
}

// The next block of the one that the file is in; false at its end.
bool VIDALinuxDiskParser::NextBlock(FileIO& file, std::string& name) {
    std::string value;
    Token_t token = GetNextTokenValue(file, name, value);
    while (token == Token_t::Item)
        token = GetNextTokenValue(file, name, value);
    return token == Token_t::Open;
}

void VIDALinuxDiskParser::ParsePhysicalVolume(FileIO& file, PhysicalVolume_t& volume) {
    std::string name;
    std::string value;
    for (Token_t token = GetNextTokenValue(file, name, value); token != Token_t::Close;
         token = GetNextTokenValue(file, name, value)) {
        if (token != Token_t::Item)
            continue;
        if (name == "id")
            volume.id = value;
        else if (name == "device")
            volume.device = value;
        else if (name == "status")
            volume.status = value;
        else if (name == "dev_size")
            volume.devSize = NumberOf(value);
        else if (name == "pe_start")
            volume.peStart = NumberOf(value);
        else if (name == "pe_count")
            volume.peCount = NumberOf(value);
    }
}

void VIDALinuxDiskParser::ParseLogicalVolume(FileIO& file, const std::string& group, LogicalVolume_t& volume) {
    std::string name;
    std::string value;
    volume.group = group;
    for (Token_t token = GetNextTokenValue(file, name, value); token != Token_t::Close;
         token = GetNextTokenValue(file, name, value)) {
        if (token == Token_t::Open) {
            if (name.rfind("segment", 0) == 0)
                ParseSegment(file, group, volume.segments.emplace_back());
        } else if (name == "id") {
            volume.id = value;
        } else if (name == "status") {
            volume.status = value;
        } else if (name == "segment_count") {
            volume.segmentCount = SmallNumberOf(value);
        }
    }
}

void VIDALinuxDiskParser::ParseSegment(FileIO& file, const std::string& group, Segment_t& segment) {
    Charge(sizeof(segment));
    std::string name;
    std::string value;
    for (Token_t token = GetNextTokenValue(file, name, value); token != Token_t::Close;
         token = GetNextTokenValue(file, name, value)) {
        if (token == Token_t::Open) {
            if (name == "stripes")
                ParseStripes(file, group, segment);
        } else if (name == "start_extent") {
            segment.startExtent = NumberOf(value);
        } else if (name == "extent_count") {
            segment.extentCount = NumberOf(value);
        } else if (name == "type") {
            segment.type = value;
        } else if (name == "stripe_count") {
            segment.stripeCount = SmallNumberOf(value);
        } else if (name == "stripe_size") {
            segment.stripeSize = SmallNumberOf(value);
        }
    }
}

// The physical volumes stand in front of the logical ones, so all of the group's are known.
void VIDALinuxDiskParser::ParseStripes(FileIO& file, const std::string& group, Segment_t& segment) {
    std::string name;
    std::string value;
    while (GetNextTokenValue(file, name, value) != Token_t::Close) {
        Charge(sizeof(Stripe_t) + sizeof(LVM_Component_t));
        const auto found = m_PhysicalVolumes.find(KeyOf(group, name));
        segment.stripes.push_back({found != m_PhysicalVolumes.end() ? &found->second : nullptr, NumberOf(value)});
    }
}

std::string VIDALinuxDiskParser::NewKey(const std::string& group, const std::string& name) {
    std::string key = KeyOf(group, name);
    Charge(sizeof(LogicalVolume_t) + 2 * key.size());  // the group's name is kept beside the key
    return key;
}

// Two groups can make one key, as "a" and "a-b" do. What was told last has it alone, so that no volume
// is put together from both.
VIDALinuxDiskParser::LogicalVolume_t& VIDALinuxDiskParser::NewLogicalVolume(const std::string& group,
                                                                            const std::string& name) {
    LogicalVolume_t& volume = m_LogicalVolumes[NewKey(group, name)];
    volume = LogicalVolume_t();
    return volume;
}

// A record takes more memory than its few bytes of text, so what the texts make has a ceiling that only
// hostile ones meet.
void VIDALinuxDiskParser::Charge(uint64_t bytes) {
    if (bytes > TableCeilingBytes - m_TakenBytes)
        throw std::bad_alloc();
    m_TakenBytes += bytes;
}

void VIDALinuxDiskParser::UpdatePVInfo(const std::string& pvId, const LVM_Component_t& component) {
    for (auto& [key, volume] : m_PhysicalVolumes) {
        if (WithoutDashes(volume.id) == pvId)
            volume.slice = component;
    }
}

// A logical volume of which a stripe's physical volume isn't in the text is left out.
void VIDALinuxDiskParser::UpdateLogicalVolInfo(std::vector<LVM_Volume_t>& volumes) {
    for (const auto& [key, logical] : m_LogicalVolumes) {
        LVM_Volume_t volume;
        std::snprintf(volume.VolName, sizeof(volume.VolName), "%s", key.c_str());  // a longer key is cut
        volume.SystemID = PartitionType_LinuxLvm;
        volume.AllDiskFound = 1;
        const uint64_t extentSize = m_Groups[logical.group].extentSize;
        const bool isWhole = std::all_of(logical.segments.begin(), logical.segments.end(),
                                         [&](const Segment_t& each) { return AddSegment(each, extentSize, volume); });
        if (isWhole)
            volumes.push_back(std::move(volume));
    }
}

// Callers rely on both ends being one behind the last sector here.
bool VIDALinuxDiskParser::AddSegment(const Segment_t& segment, uint64_t extentSize, LVM_Volume_t& volume) {
    LVM_Segment_t made;
    made.StripeSize = static_cast<uint64_t>(segment.stripeSize);
    made.LBAStart = segment.startExtent * extentSize;
    made.LBAEnd = made.LBAStart + segment.extentCount * extentSize;
    const bool isStriped = segment.stripeSize != 0 && segment.stripeCount != 0;
    const uint64_t extents =
        isStriped ? segment.extentCount / static_cast<uint64_t>(segment.stripeCount) : segment.extentCount;
    for (const Stripe_t& stripe : segment.stripes) {
        if (stripe.physicalVolume == nullptr)
            return false;
        LVM_Component_t component = stripe.physicalVolume->slice;
        component.DiskLBAStart += stripe.physicalVolume->peStart + stripe.startExtent * extentSize;
        component.DiskLBAEnd = component.DiskLBAStart + extents * extentSize;
        component.VolLBAStart = made.LBAStart;
        component.VolLBAEnd = made.LBAEnd;
        made.Components.push_back(component);
    }
    volume.Segments.push_back(std::move(made));
    return true;
}
