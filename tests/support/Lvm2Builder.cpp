#include "tests/support/Lvm2Builder.h"

#include "tests/support/Bytes.h"

namespace {

constexpr uint64_t SectorBytes = 512;
constexpr uint64_t RingStart = 512;  // behind an area's header

std::string Quoted(const std::string& text) {
    return "\"" + text + "\"";
}

std::string Line(size_t depth, const std::string& text) {
    return text.empty() ? "\n" : std::string(depth, '\t') + text + "\n";
}

std::string Lines(size_t depth, const std::vector<std::string>& texts) {
    std::string lines;
    for (const std::string& text : texts)
        lines += Line(depth, text);
    return lines;
}

std::string Item(const std::string& name, uint64_t number) {
    return name + " = " + std::to_string(number);
}

std::string StripesText(const Lvm2Segment_t& segment) {
    if (segment.stripes.empty())
        return "";
    std::string text = Line(0, "") + Line(3, "stripes = [");
    for (size_t index = 0; index < segment.stripes.size(); ++index) {
        const auto& [name, extent] = segment.stripes[index];
        const bool isLast = index + 1 == segment.stripes.size();
        text += Line(4, Quoted(name) + ", " + std::to_string(extent) + (isLast ? "" : ","));
    }
    return text + Line(3, "]");
}

std::string SegmentText(size_t number, const Lvm2Segment_t& segment) {
    std::string text = Line(2, "segment" + std::to_string(number) + " {");
    text += Line(3, Item("start_extent", segment.startExtent));
    text += Line(3, Item("extent_count", segment.extentCount) + "\t# as large as it is");
    text += Line(3, "") + Line(3, "type = " + Quoted(segment.type));
    if (!segment.stripes.empty())
        text +=
            Line(3, Item("stripe_count", segment.stripes.size()) + (segment.stripes.size() == 1 ? "\t# linear" : ""));
    if (segment.stripeSectors != 0)
        text += Line(3, Item("stripe_size", segment.stripeSectors) + "\t# Kilobytes");
    return text + Lines(3, segment.lines) + StripesText(segment) + Line(2, "}");
}

std::string LocationBytes(uint64_t offset, uint64_t size) {
    return LittleEndianBytes(offset, 8) + LittleEndianBytes(size, 8);
}

}  // namespace

std::string Lvm2Id(uint64_t seed) {
    const std::string letters = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    std::string id = PatternedBytes(32, seed);
    for (char& character : id)
        character = letters[static_cast<unsigned char>(character) % letters.size()];
    return id;
}

std::string WithLvm2Dashes(const std::string& id) {
    std::string dashed = id;
    for (const size_t at : {26, 22, 18, 14, 10, 6})
        dashed.insert(at, "-");
    return dashed;
}

uint32_t Lvm2Crc(const std::string& bytes) {
    uint32_t crc = 0xF597A6CF;
    for (const char byte : bytes) {
        crc ^= static_cast<uint8_t>(byte);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1U) ^ ((crc & 1U) != 0 ? 0xEDB88320U : 0U);
    }
    return crc;
}

CLvm2TextBuilder& CLvm2TextBuilder::ExtentSectors(uint64_t sectors) {
    m_ExtentSectors = sectors;
    return *this;
}

CLvm2TextBuilder& CLvm2TextBuilder::SequenceNumber(uint64_t number) {
    m_SequenceNumber = number;
    return *this;
}

CLvm2TextBuilder& CLvm2TextBuilder::PhysicalVolume(const std::string& name, const std::string& id, uint64_t extents,
                                                   uint64_t firstSector, const std::string& status) {
    m_PhysicalVolumes.push_back(
        {name,
         {"id = " + Quoted(WithLvm2Dashes(id)), "device = \"/dev/sda\"\t# Hint only", "", "status = " + status,
          "flags = []", Item("dev_size", firstSector + extents * m_ExtentSectors) + "\t# Megabytes",
          Item("pe_start", firstSector), Item("pe_count", extents) + "\t# Megabytes"},
         ""});
    return *this;
}

CLvm2TextBuilder& CLvm2TextBuilder::LogicalVolume(const std::string& name, const std::vector<Lvm2Segment_t>& segments,
                                                  const std::string& status) {
    const std::string id = WithLvm2Dashes(Lvm2Id(1000 + m_LogicalVolumes.size()));
    std::string texts;
    for (size_t index = 0; index < segments.size(); ++index)
        texts += Line(0, "") + SegmentText(index + 1, segments[index]);
    m_LogicalVolumes.push_back({name,
                                {"id = " + Quoted(id), "status = " + status, "flags = []",
                                 "creation_time = 1700000000\t# 2023-11-14 22:13:20 +0000", "creation_host = \"host\"",
                                 Item("segment_count", segments.size())},
                                texts});
    return *this;
}

CLvm2TextBuilder& CLvm2TextBuilder::GroupLine(const std::string& line) {
    m_Lines.push_back(line);
    return *this;
}

CLvm2TextBuilder& CLvm2TextBuilder::PhysicalVolumeLine(const std::string& line) {
    m_PhysicalVolumes.back().lines.push_back(line);
    return *this;
}

CLvm2TextBuilder& CLvm2TextBuilder::LogicalVolumeLine(const std::string& line) {
    m_LogicalVolumes.back().lines.push_back(line);
    return *this;
}

std::string CLvm2TextBuilder::Text() const {
    std::string text = m_Name + " {\n";
    text += Lines(0, {"id = " + Quoted(WithLvm2Dashes(Lvm2Id(999))), Item("seqno", m_SequenceNumber),
                      "format = \"lvm2\"\t\t\t# informational", "status = [\"RESIZEABLE\", \"READ\", \"WRITE\"]",
                      "flags = []", Item("extent_size", m_ExtentSectors) + "\t\t# Megabytes", "max_lv = 0",
                      "max_pv = 0", "metadata_copies = 0"});
    text += Lines(0, m_Lines) + "\nphysical_volumes {\n";
    for (const Block_t& block : m_PhysicalVolumes)
        text += "\n" + Line(1, block.name + " {") + Lines(2, block.lines) + Line(1, "}");
    text += "}\n\n";
    if (!m_LogicalVolumes.empty()) {
        text += "logical_volumes {\n";
        for (const Block_t& block : m_LogicalVolumes)
            text += "\n" + Line(1, block.name + " {") + Lines(2, block.lines) + block.segments + Line(1, "}");
        text += "}\n\n";
    }
    return text + "}\n# Generated for a test: Tue Nov 14 22:13:20 2023\n\n"
                  "contents = \"Text Format Volume Group\"\nversion = 1\n\ndescription = \"\"\n\n"
                  "creation_host = \"host\"\t# Linux host\ncreation_time = 1700000000\t# 2023\n\n";
}

CLvm2Builder& CLvm2Builder::Sectors(uint64_t sectors) {
    m_Sectors = sectors;
    return *this;
}

CLvm2Builder& CLvm2Builder::Text(const std::string& text) {
    m_Text = text;
    return *this;
}

CLvm2Builder& CLvm2Builder::LabelSector(uint64_t sector) {
    m_LabelSector = sector;
    return *this;
}

CLvm2Builder& CLvm2Builder::StoredLabelSector(uint64_t sector) {
    m_StoredLabelSector = sector;
    return *this;
}

CLvm2Builder& CLvm2Builder::LabelSignature(const std::string& text) {
    m_LabelSignature = text;
    return *this;
}

CLvm2Builder& CLvm2Builder::LabelType(const std::string& text) {
    m_LabelType = text;
    return *this;
}

CLvm2Builder& CLvm2Builder::WrongLabelCrc(uint32_t bits) {
    m_WrongLabelCrc = bits;
    return *this;
}

CLvm2Builder& CLvm2Builder::DataArea(uint64_t offset, uint64_t size) {
    m_DataAreas.emplace_back(offset, size);
    return *this;
}

CLvm2Builder& CLvm2Builder::MetadataArea(const Lvm2Area_t& area) {
    if (!m_Areas)
        m_Areas.emplace();
    m_Areas->push_back(area);
    return *this;
}

CLvm2Builder& CLvm2Builder::NoMetadataArea() {
    m_Areas.emplace();
    return *this;
}

CLvm2Builder& CLvm2Builder::MetadataLocation(uint64_t offset, uint64_t size) {
    m_Locations.emplace_back(offset, size);
    return *this;
}

CLvm2Builder& CLvm2Builder::PutAt(uint64_t offset, std::string bytes) {
    m_Damage.emplace_back(offset, std::move(bytes));
    return *this;
}

void CLvm2Builder::PutTo(CImageFile& image, uint64_t firstLba) const {
    const uint64_t start = firstLba * SectorBytes;
    image.Put(start + m_LabelSector * SectorBytes, LabelBytes());
    for (const Lvm2Area_t& area : Areas()) {
        image.Put(start + area.offset, AreaHeaderBytes(area));
        PutText(image, start + area.offset, area);
    }
    for (const auto& [offset, bytes] : m_Damage)
        image.Put(start + offset, bytes);
}

CImageFile CLvm2Builder::Image() const {
    CImageFile image;
    PutTo(image, 0);
    image.Resize(m_Sectors * SectorBytes);
    return image;
}

std::vector<Lvm2Area_t> CLvm2Builder::Areas() const {
    return m_Areas.value_or(std::vector<Lvm2Area_t>{Lvm2Area_t()});
}

// The end of the data area is that of the device, which is told as 0.
std::string CLvm2Builder::LabelBytes() const {
    std::string label(SectorBytes, '\0');
    PutBytes(label, 0, m_LabelSignature);
    PutLe64(label, 8, m_StoredLabelSector.value_or(m_LabelSector));
    PutLe32(label, 20, 32);
    PutBytes(label, 24, m_LabelType);
    PutBytes(label, 32, m_Id);
    PutLe64(label, 64, m_Sectors * SectorBytes);
    std::string locations = m_DataAreas.empty() ? LocationBytes(1048576, 0) : "";
    for (const auto& [offset, size] : m_DataAreas)
        locations += LocationBytes(offset, size);
    locations += LocationBytes(0, 0);
    for (const Lvm2Area_t& area : Areas())
        locations += LocationBytes(area.offset, area.size);
    for (const auto& [offset, size] : m_Locations)
        locations += LocationBytes(offset, size);
    // Behind the locations' end: version 2 of what more the header tells, in use, no area to boot from.
    locations += LocationBytes(0, 0) + LittleEndianBytes(2, 4) + LittleEndianBytes(1, 4) + LocationBytes(0, 0);
    PutBytes(label, 72, locations);
    PutLe32(label, 16, Lvm2Crc(label.substr(20)) ^ m_WrongLabelCrc);
    return label;
}

// On the disk a text has a NUL at its end, which counts.
std::string CLvm2Builder::TextOf(const Lvm2Area_t& area) const {
    const std::string text = area.text.value_or(m_Text);
    return text.empty() ? text : text + '\0';
}

std::string CLvm2Builder::AreaHeaderBytes(const Lvm2Area_t& area) const {
    const std::string text = TextOf(area);
    std::string header(SectorBytes, '\0');
    PutBytes(header, 4, area.magic);
    PutLe32(header, 20, 1);
    PutLe64(header, 24, area.offset);
    PutLe64(header, 32, area.size);
    if (!text.empty()) {
        PutBytes(header, 40, LocationBytes(area.textOffset, text.size()));
        PutLe32(header, 56, Lvm2Crc(text) ^ area.wrongTextCrc);
    }
    PutLe32(header, 60, area.flags);
    PutLe32(header, 0, Lvm2Crc(header.substr(4)) ^ area.wrongHeaderCrc);
    return header;
}

void CLvm2Builder::PutText(CImageFile& image, uint64_t areaOffset, const Lvm2Area_t& area) const {
    const std::string text = TextOf(area);
    const auto room = static_cast<size_t>(area.size - area.textOffset);
    image.Put(areaOffset + area.textOffset, text.substr(0, room));
    if (text.size() > room)
        image.Put(areaOffset + RingStart, text.substr(room));
}
